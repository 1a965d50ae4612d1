// Tables: the header and data block, rows, fields, selection, searches,
// comparison and copy on write (a seeded model of random grids), tables held
// in collections, and the copy of the selected row into a collection.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "coll.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/consistency.h"
#include "tests/table_util.h"
#include "tests/test_util.h"

using testutil::Field;
using testutil::Grid;
using testutil::MakeGrid;
using testutil::Row;
using testutil::SetRow;

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

// A header word of a live table (kNone when the handle is invalid).
uint32_t Hdr(HTABLE t, uint32_t offset, bool wide = false) {
  coll::LockGuard lock;
  uint8_t *h = coll::GetTablePtr(t);
  return !h ? kNone : wide ? coll::rd32(h + offset) : coll::rd16(h + offset);
}
uint32_t RefCount(HTABLE t) {
  coll::LockGuard lock;
  uint8_t *h = coll::GetTablePtr(t);
  return h ? coll::ps->tableData[coll::TableDataIndex(h)].refCount : 0;
}
uint32_t RecordsInUse() {
  coll::LockGuard lock;
  uint32_t n = 0;
  for (uint32_t i = 0; i < coll::kSlots; ++i) n += coll::ps->tableData[i].data != nullptr;
  return n;
}
std::string Data(HTABLE t) {
  coll::LockGuard lock;
  uint8_t *h = coll::GetTablePtr(t);
  return h ? std::string(reinterpret_cast<char *>(coll::TableData(h)), coll::TableDataLength(h)) : "";
}

// The offsets of the header agree with the strings of the data block.
void ExpectOffsets(HTABLE t) {
  const std::string data = Data(t);
  std::vector<size_t> starts{0};
  for (size_t i = 0; i < data.size(); ++i)
    if (data[i] == 0 && i + 1 < data.size()) starts.push_back(i + 1);
  const uint32_t cols = Hdr(t, coll::th::cols), rows = Hdr(t, coll::th::rows);
  ASSERT_EQ(starts.size(), (rows + 1) * cols + 5) << t;
  EXPECT_EQ(Hdr(t, coll::th::rowsOffset, true), starts[cols]);
  EXPECT_EQ(Hdr(t, coll::th::attrOffset, true), starts[starts.size() - 5]);
  EXPECT_LE(Hdr(t, coll::th::length) + 48u, Hdr(t, coll::th::pages, true) * 1023);
}

// ---------------------------------------------------------------- model

struct Model {
  std::vector<std::string> names, attrs = std::vector<std::string>(5);
  std::vector<std::vector<std::string>> rows;
  uint32_t sel = kNone;
};

std::string Join(const std::vector<std::string> &v) {
  std::string s;
  for (size_t i = 0; i < v.size(); ++i) s += (i ? "|" : "") + v[i];
  return s;
}
char Lower(char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; }
bool SameNoCase(const std::string &a, const std::string &b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Lower(a[i]) != Lower(b[i])) return false;
  return true;
}
uint32_t ModelFind(const Model &m, std::string text, uint32_t size, uint32_t start, uint32_t col, bool abbrev) {
  if (size < text.size()) text.resize(size);
  for (uint32_t r = start; col < m.names.size() && r < m.rows.size(); ++r) {
    const std::string &f = m.rows[r][col];
    if (abbrev ? f.size() >= text.size() && SameNoCase(f.substr(0, text.size()), text) : SameNoCase(f, text))
      return r;
  }
  return kNone;
}
uint32_t ModelCompare(const Model &a, const Model &b, uint32_t start, uint32_t flags) {
  const uint32_t ra = uint32_t(a.rows.size()), rb = uint32_t(b.rows.size());
  if (a.names != b.names || a.attrs != b.attrs || start > ra || start > rb) return kNone;
  uint32_t fa = start, fb = start;
  if (flags & 1) (ra > rb ? fa : fb) += ra > rb ? ra - rb : rb - ra;
  uint32_t i = start;
  for (; i < ra && i < rb; ++i)
    if (a.rows[fa + i - start] != b.rows[fb + i - start]) return i;
  return i;
}
// Reads everything of t and compares it with m.
void ExpectTable(HTABLE t, const Model &m, std::mt19937 &rng) {
  ASSERT_EQ(tableRowCount(t), m.rows.size());
  ASSERT_EQ(tableColCount(t), m.names.size());
  EXPECT_EQ(tableGetSelection(t), m.sel);
  EXPECT_EQ(Row(t, ROW_NAMES), Join(m.names));
  EXPECT_EQ(Row(t, ROW_ATTRIBUTES), Join(m.attrs));
  for (uint32_t r = 0; r < m.rows.size(); ++r) ASSERT_EQ(Row(t, int32_t(r)), Join(m.rows[r])) << r;
  for (int i = 0; i < 6 && !m.rows.empty(); ++i) {  // fields in any order, cut to a random buffer
    const uint32_t r = rng() % m.rows.size(), c = rng() % m.names.size(), size = rng() % 5;
    const std::string &f = m.rows[r][c];
    char buf[8];
    std::memset(buf, '#', sizeof buf);
    ASSERT_EQ(tableGetField(t, int32_t(r), c, size ? buf : nullptr, size), f.size() + 1);
    if (size) {
      EXPECT_EQ(std::string(buf), f.substr(0, size - 1));
    }
  }
  ExpectOffsets(t);
}

std::string RandomText(std::mt19937 &rng) {
  static const char kAlphabet[] = "aAbB[{z";
  std::string s(rng() % 5, ' ');
  for (char &c : s) c = kAlphabet[rng() % 7];
  return s;
}

// Random changes to a few tables that share data blocks (copies, tables
// stored in a collection and taken out), each mirrored in a model; after
// every step every table reads as its model and the whole state is sound.
TEST(TableModel, RandomGridsReadAsTheirModels) {
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    const uint32_t cols = 1 + seed % 4;
    std::vector<std::pair<HTABLE, Model>> pool{{tableCreate(cols, 0), Model{}}};
    pool.reserve(8);
    pool[0].second.names.assign(cols, "");
    for (int step = 0; step < 250; ++step) {
      auto &[t, m] = pool[rng() % pool.size()];
      const uint32_t rows = uint32_t(m.rows.size());
      auto resized = [&](std::vector<std::string> v, size_t n) { v.resize(n); return v; };
      switch (rng() % 9) {
        case 0:
        case 1: {  // one string, any address
          const int32_t row = int32_t(rng() % (rows + 3)) - 2;
          const uint32_t col = uint32_t(int32_t(rng() % (cols + 7)) - 6);
          const std::string text = RandomText(rng);
          std::string *s = row == -1 && col >= 0xFFFFFFFBu ? &m.attrs[~col]
                           : row == -1 && col < cols       ? &m.names[col]
                           : row >= 0 && uint32_t(row) < rows && col < cols ? &m.rows[row][col]
                                                                          : nullptr;
          ASSERT_EQ((step % 2 ? tableSetItem : tableSetField)(t, row, col, text.c_str()), s ? 1u : 0u);
          if (s) *s = text;
          break;
        }
        case 2:
        case 3: {  // a packed row, padded or cut to its width
          const uint32_t pick = rng() % (rows + 5);
          const int32_t row = pick == rows + 1   ? ROW_APPEND
                              : pick == rows + 2 ? ROW_NAMES
                              : pick == rows + 3 ? ROW_ATTRIBUTES
                              : pick == rows + 4 ? ROW_HEADER
                                                 : int32_t(pick);
          std::vector<std::string> f(1 + rng() % (cols + 2));
          for (auto &s : f) s = RandomText(rng);
          ASSERT_EQ(SetRow(t, row, Join(f)), pick < rows || (pick > rows && pick < rows + 4) ? 1u : 0u);
          if (row == ROW_APPEND) m.rows.push_back(resized(f, cols));
          if (row == ROW_NAMES) m.names = resized(f, cols);
          if (row == ROW_ATTRIBUTES) m.attrs = resized(f, 5);
          if (pick < rows) m.rows[pick] = resized(f, cols);
          break;
        }
        case 4: {  // an empty row inserted; names or attributes emptied
          const uint32_t pick = rng() % (rows + 6);
          const uint32_t row = pick == rows + 2   ? uint32_t(ROW_APPEND)
                               : pick == rows + 3 ? uint32_t(ROW_NAMES)
                               : pick == rows + 4 ? uint32_t(ROW_ATTRIBUTES)
                               : pick == rows + 5 ? uint32_t(ROW_HEADER)
                                                  : pick;
          ASSERT_EQ(tableAddRow(t, row), pick <= rows || pick == rows + 2 || pick == rows + 3 || pick == rows + 4
                                             ? 1u
                                             : 0u);
          if (pick <= rows) m.rows.insert(m.rows.begin() + pick, std::vector<std::string>(cols));
          if (row == uint32_t(ROW_APPEND)) m.rows.emplace_back(cols);
          if (row == uint32_t(ROW_NAMES)) m.names.assign(cols, "");
          if (row == uint32_t(ROW_ATTRIBUTES)) m.attrs.assign(5, "");
          break;
        }
        case 5: {  // a row deleted; the selection keeps its index or goes
          const uint32_t row = rng() % (rows + 1);
          tableDeleteRow(t, row);
          if (row < rows) {
            m.rows.erase(m.rows.begin() + row);
            if (m.sel == row || m.sel >= rows - 1) m.sel = kNone;
          }
          break;
        }
        case 6: {
          const uint32_t row = rng() % 4 ? rng() % (rows + 2) : kNone;
          ASSERT_EQ(tableSetSelection(t, row), 1u);
          m.sel = row < rows ? row : kNone;
          break;
        }
        case 7: {  // a second handle on the data, or one less
          if (pool.size() < 4) {
            HTABLE copy = 0;
            if (rng() % 2) {
              copy = tableCopy(t, 12345);
            } else {
              HCOLL c = collOpen("holder");
              ASSERT_EQ(collSetTable(c, "t", t), 1u);
              copy = collGetTable(c, "t");
              collClose(c);
            }
            ASSERT_NE(copy, 0u);
            Model same = m;
            pool.emplace_back(copy, same);
          } else {
            const size_t i = rng() % pool.size();
            tableDestroy(pool[i].first);
            pool.erase(pool.begin() + long(i));
          }
          break;
        }
        default: {  // searches and comparisons, which change nothing
          const uint32_t col = rng() % (cols + 1), start = rng() % (rows + 1);
          std::string text = rows && col < cols ? m.rows[rng() % rows][col] : RandomText(rng);
          if (!text.empty() && rng() % 2) text[0] = char(text[0] ^ 0x20);  // 'a'/'A', but also '['/'{'
          const uint32_t size = rng() % 3 ? kNone : rng() % (text.size() + 2);
          EXPECT_EQ(tableFindField(t, text.c_str(), size, start, col), ModelFind(m, text, size, start, col, false));
          EXPECT_EQ(tableFindAbbrev(t, text.c_str(), size, start, col), ModelFind(m, text, size, start, col, true));
          const auto &[u, n] = pool[rng() % pool.size()];
          const uint32_t from = rng() % (std::min(rows, uint32_t(n.rows.size())) + 1), flags = rng() % 4;
          EXPECT_EQ(tableCompare(t, u, from, flags), ModelCompare(m, n, from, flags)) << from << " " << flags;
          EXPECT_EQ(tableGetColIndex(t, m.names[col % cols].c_str()),
                    uint32_t(std::find_if(m.names.begin(), m.names.end(),
                                          [&](const std::string &s) { return SameNoCase(s, m.names[col % cols]); }) -
                             m.names.begin()));
        }
      }
      for (auto &[h, model] : pool) ASSERT_NO_FATAL_FAILURE(ExpectTable(h, model, rng)) << "step " << step;
      ASSERT_EQ(testutil::CheckState(), "") << "step " << step;
    }
    // Every table stored in a collection reads the same by tag, and comes
    // back whole from a dump of that collection.
    for (auto &[t, m] : pool) {
      HCOLL c = collOpen("c");
      ASSERT_EQ(collSetTable(c, "t", t), 1u);
      EXPECT_EQ(collTableRowCount(c, "T"), m.rows.size());
      EXPECT_EQ(collTableColCount(c, "t"), cols);
      EXPECT_EQ(collTableGetSelection(c, "t"), m.sel);
      EXPECT_NE(collTableGetStamp(c, "t"), 0u);
      for (int32_t r = ROW_ATTRIBUTES; r < int32_t(m.rows.size()); ++r) {
        if (r == ROW_APPEND || r == -3 || r == -2) continue;
        char a[512], b[512];
        const uint32_t n = tableGetRow(t, uint32_t(r), a, sizeof a);
        ASSERT_EQ(collTableGetRow(c, "t", uint32_t(r), b, sizeof b), n) << r;
        EXPECT_EQ(std::memcmp(a, b, n), 0) << r;
        std::memset(b, '#', sizeof b);  // a row that does not fit is not copied
        if (n > 1) {
          EXPECT_EQ(collTableGetRow(c, "t", uint32_t(r), b, n - 1), n);
        }
        EXPECT_EQ(b[0], '#');
        for (uint32_t col = uint32_t(-5); col != cols && r >= ROW_HEADER; ++col)
          EXPECT_EQ(collTableGetField(c, "t", r, col, a, sizeof a) ? std::string(a) : "<none>", Field(t, r, col));
      }
      for (uint32_t col = 0; col < cols && !m.rows.empty(); ++col) {
        const std::string &f = m.rows.back()[col];
        EXPECT_EQ(collTableFindField(c, "t", f.c_str(), kNone, 0, col), tableFindField(t, f.c_str(), kNone, 0, col));
        EXPECT_EQ(collTableFindAbbrev(c, "t", f.c_str(), 1, 1, col), tableFindAbbrev(t, f.c_str(), 1, 1, col));
        EXPECT_EQ(collTableGetColIndex(c, "t", m.names[col].c_str()), tableGetColIndex(t, m.names[col].c_str()));
      }
      std::string image(collDumpItems(c, nullptr, 0), '\0');
      ASSERT_EQ(collDumpItems(c, image.data(), uint32_t(image.size())), image.size());
      HTABLE back = tableLoad(image.data(), uint32_t(image.size()), 0, 0, 0);
      EXPECT_EQ(Grid(back), Grid(t));
      EXPECT_EQ(Row(back, ROW_ATTRIBUTES), Join(m.attrs));
      EXPECT_EQ(tableGetSelection(back), m.sel);
      tableDestroy(back);
      collClose(c);
      tableDestroy(t);
    }
    EXPECT_EQ(RecordsInUse(), 0u);
  }
}

// Positioning by words agrees with a byte scan wherever terminators fall.
TEST(TableObject, WordWisePositioningAgreesWithAByteScan) {
  std::mt19937 rng(99);
  std::string data;
  while (data.size() < 600) data.append(rng() % 13, char('a' + rng() % 26)).push_back('\0');
  const auto *p = reinterpret_cast<const uint8_t *>(data.data());
  for (int i = 0; i < 20000; ++i) {
    uint32_t end = rng() % (data.size() + 1), offset = end ? rng() % end : 0, n = rng() % 40, want = offset;
    for (uint32_t k = n; k > 0 && want < end; --k) {
      while (want < end && p[want] != 0) ++want;
      if (want < end) ++want;
    }
    ASSERT_EQ(coll::SkipStrings(p, offset, n, end), want) << offset << " " << n << " " << end;
  }
}

// ---------------------------------------------------------------- exact results

TEST(TableObject, NewTableLayoutAndLimits) {
  EXPECT_EQ(tableCreate(0, 1), 0u);
  HTABLE t = tableCreate(3, 0x12345);
  ASSERT_EQ(t, 0x8001u);
  const uint32_t want[][3] = {{coll::th::magic, 0x1212, 0}, {coll::th::length, 56, 0},  {coll::th::type, 0x2345, 0},
                              {coll::th::rows, 0, 0},       {coll::th::cols, 3, 0},     {coll::th::selection, 0xFFFF, 0},
                              {coll::th::rowsOffset, 3, 1}, {coll::th::attrOffset, 3, 1}, {coll::th::pages, 1, 1},
                              {coll::th::owner, 0, 1}};
  for (const auto &w : want) EXPECT_EQ(Hdr(t, w[0], w[2]), w[1]) << w[0];
  EXPECT_EQ(Data(t), std::string(8, '\0'));
  EXPECT_EQ(tableGetType(t), 0x2345u);
  EXPECT_NE(tableGetStamp(t), 0u);
  // Columns: as many pages as they need, up to 64; past that, or past 16
  // bits, refused with nothing taken.
  HTABLE wide = tableCreate(1019, 0), widest = tableCreate(64 * 1023 - 5, 0);
  EXPECT_EQ(Hdr(wide, coll::th::pages, true), 2u);
  EXPECT_EQ(Hdr(wide, coll::th::length), 48u + 1024u);
  EXPECT_EQ(Hdr(widest, coll::th::pages, true), 64u);
  for (uint32_t cols : {64u * 1023 - 4, 65536u, 0xFFFFFFFFu}) EXPECT_EQ(tableCreate(cols, 0), 0u) << cols;
  tableDestroy(t);
  EXPECT_EQ(tableCreate(1, 0), t);  // the lowest handle and record again
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::TableDataIndex(coll::GetTablePtr(t)), 0u);
    // Growth by whole pages, never shrinking, up to 64.
    uint8_t *h = coll::GetTablePtr(t);  // length 54: 921 more bytes fit the first page
    const std::pair<int32_t, uint32_t> steps[] = {{921, 1}, {922, 2}, {-40, 2}, {64 * 1023 - 102, 64}};
    for (const auto &[growth, pages] : steps) {
      EXPECT_NE(coll::LimitCheck(h, growth, t), nullptr) << growth;
      EXPECT_EQ(coll::TablePages(h), pages) << growth;
    }
    EXPECT_EQ(coll::LimitCheck(h, 64 * 1023 - 101, t), nullptr);
  }
}

TEST(TableObject, DataLimitReachedExactlyAndRefusedOneByteLater) {
  // 1 name + 5 attributes = 6 bytes; one field of 65,369 bytes makes 65,376.
  HTABLE t = tableCreate(1, 0);
  ASSERT_EQ(tableAddRow(t, 0), 1u);
  const std::string big(65369, 'q');
  EXPECT_KEEPS_ON_FAILURE(tableSetItem(t, 0, 0, (big + "q").c_str()), 0u);
  ASSERT_EQ(tableSetItem(t, 0, 0, big.c_str()), 1u);
  EXPECT_EQ(Hdr(t, coll::th::pages, true), 64u);
  EXPECT_EQ(Hdr(t, coll::th::length), 65424u);
  EXPECT_KEEPS_ON_FAILURE(tableSetItem(t, ROW_HEADER, 0, "n"), 0u);
  EXPECT_KEEPS_ON_FAILURE(tableSetItem(t, ROW_HEADER, uint32_t(-5), "a"), 0u);
  EXPECT_KEEPS_ON_FAILURE(tableAddRow(t, uint32_t(ROW_APPEND)), 0u);
  EXPECT_KEEPS_ON_FAILURE(SetRow(t, 0, big + "q"), 0u);
  EXPECT_EQ(tableSetItem(t, 0, 0, "small"), 1u);
  ExpectOffsets(t);
  tableDestroy(t);
  // Empty rows, one byte each, up to the limit.
  t = tableCreate(1, 0);
  uint32_t added = 0;
  while (tableAddRow(t, uint32_t(ROW_APPEND))) ++added;
  EXPECT_EQ(added, 65376u - 6u);
  EXPECT_EQ(tableAddRow(t, 0), 0u);
  ExpectOffsets(t);
}

TEST(TableObject, FailuresOfBadHandlesAndArguments) {
  HTABLE t = MakeGrid("A|B/ab|[x]/k|");
  const HTABLE gone = tableCreate(1, 0);
  tableDestroy(gone);
  for (HTABLE bad : {gone, HTABLE(0x4001), HTABLE(0)}) {
    SCOPED_TRACE(bad);
    char buf[4] = "zz";
    EXPECT_EQ(tableRowCount(bad), kNone);
    EXPECT_EQ(tableColCount(bad), kNone);
    EXPECT_EQ(tableGetType(bad), kNone);
    EXPECT_EQ(tableGetStamp(bad), 0u);
    EXPECT_EQ(tableGetSelection(bad), kNone);
    EXPECT_EQ(tableSetSelection(bad, 0), 0u);
    EXPECT_EQ(tableGetColIndex(bad, "A"), kNone);
    EXPECT_EQ(tableFindField(bad, "ab", 2, 0, 0), kNone);
    EXPECT_EQ(tableCompare(t, bad, 0, 0), kNone);
    EXPECT_EQ(tableCopy(bad, 0), 0u);
    EXPECT_EQ(tableSetItem(bad, 0, 0, "x"), 0u);
    EXPECT_EQ(tableGetItem(bad, 0, 0, buf, sizeof buf), 0u);
    EXPECT_EQ(buf[0], 0);  // a failing read leaves an empty text
    EXPECT_EQ(tableGetRow(bad, 0, nullptr, 0), 0u);
  }
  // Texts: none, unterminated (the size bounds them), non-letters unequal.
  const char abc[3] = {'A', 'B', 'C'};
  EXPECT_EQ(tableSetItem(t, 0, 0, nullptr), 0u);
  EXPECT_EQ(tableGetItem(t, 0, 0, nullptr, 10), 0u);
  EXPECT_EQ(tableGetColIndex(t, nullptr), kNone);
  EXPECT_EQ(tableFindField(t, nullptr, 1, 0, 0), kNone);
  EXPECT_EQ(tableFindAbbrev(t, abc, 2, 0, 0), 0u);
  EXPECT_EQ(tableFindAbbrev(t, "zz", 0, 1, 0), 1u);
  EXPECT_EQ(tableFindField(t, "{X}", kNone, 0, 1), kNone);
  EXPECT_EQ(tableFindField(t, "", kNone, 0, 1), 1u);
  EXPECT_EQ(tableCompare(t, t, 3, 0), 2u);  // one data block: its row count
  // Packed rows: no bytes, a last byte that is not 0, no buffer.
  for (const auto &[bytes, size] : {std::pair<const char *, uint32_t>{"ab", 0}, {"ab", 2}, {nullptr, 2}})
    EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, 0, bytes, size), 0u);
  // A selection that has fallen off the end is cleared by reading it.
  tableSetSelection(t, 1);
  {
    coll::LockGuard lock;
    coll::wr16(coll::GetTablePtr(t) + coll::th::rows, 1);
  }
  EXPECT_EQ(tableGetSelection(t), kNone);
  EXPECT_EQ(Hdr(t, coll::th::selection), 0xFFFFu);
}

TEST(TableObject, DataEndingInsideAStringStaysInBounds) {
  // A loaded image may end in the middle of its last string.
  HTABLE t = MakeGrid("c0/r0c0");
  tableSetItem(t, ROW_HEADER, uint32_t(-5), "xy");
  {
    coll::LockGuard lock;
    uint8_t *h = coll::GetTablePtr(t);
    coll::wr16(h + coll::th::length, coll::TableLength(h) - 1);
  }
  EXPECT_EQ(Field(t, ROW_HEADER, uint32_t(-5)), "xy");
  EXPECT_EQ(tableGetRow(t, uint32_t(ROW_ATTRIBUTES), nullptr, 0), 6u);
  ASSERT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-5), "z"), 1u);
  EXPECT_EQ(Row(t, ROW_ATTRIBUTES), "||||z");
  EXPECT_EQ(Field(t, 0, 0), "r0c0");
  ExpectOffsets(t);
}

TEST(TableCopyOnWrite, SharersKeepOneBlockUntilAChange) {
  HTABLE a = MakeGrid("A|B/1|2/3|4"), b = tableCopy(a, 0), c = tableCopy(a, 0);
  EXPECT_EQ(RefCount(a), 3u);
  EXPECT_EQ(Hdr(b, coll::th::owner, true), 0u);
  // Changes that are refused leave the block shared.
  tableDeleteRow(b, 2);
  EXPECT_EQ(tableSetItem(b, 2, 0, "x"), 0u);
  tableSetSelection(b, 1);
  EXPECT_EQ(RefCount(a), 3u);
  // A change through the middle one leaves the other two sharing.
  tableSetItem(b, 0, 0, "b");
  EXPECT_EQ(RefCount(a), 2u);
  EXPECT_EQ(RefCount(b), 1u);
  EXPECT_EQ(tableCompare(a, c, 9, 0), 2u);
  EXPECT_EQ(tableCompare(a, b, 0, 0), 0u);
}

TEST(TableObject, NoFreeSlotLeavesNothingBehind) {
  std::vector<HTABLE> tables;
  for (HTABLE t; (t = tableCreate(2, 0)) != 0;) tables.push_back(t);
  ASSERT_EQ(tables.size(), 254u);
  EXPECT_EQ(tableCopy(tables[0], 0), 0u);
  HCOLL c = collOpen("c");
  EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "t", tables[0]), 0u);
  tableDestroy(tables[100]);
  EXPECT_EQ(tableCreate(1, 0), tables[100]);
}

// ---------------------------------------------------------------- tables in collections

TEST(CollTables, StoredTableIsAnOwnedSnapshot) {
  HCOLL c = collOpen("c");
  HTABLE t = MakeGrid("Name|Town/ann|Oslo/bob|Rome/cy|");
  tableSetSelection(t, 1);
  ASSERT_EQ(collSetTable(c, "people", t), 1u);
  EXPECT_EQ(collGetType(c, "PEOPLE"), uint32_t(COLLTYPE_TABLE));
  HTABLE item = 0;
  {
    coll::LockGuard lock;
    uint8_t *img, *header;
    ASSERT_TRUE(coll::RetrieveTableItem(c, &img, "people", &header, &item));
    EXPECT_EQ(coll::TableOwner(header), c);
  }
  EXPECT_NE(item, t);
  EXPECT_EQ(RefCount(t), 2u);
  // The item's handle is left alone by tableDestroy; the source goes, and
  // its changes never reach the item.
  tableSetItem(t, 0, 0, "changed");
  tableDestroy(item);
  tableDestroy(t);
  EXPECT_EQ(tableRowCount(t), kNone);
  EXPECT_EQ(Grid(item), "Name|Town/ann|Oslo/bob|Rome/cy|");
  // A copied item shares until changed through its own handle.
  HCOLL d = collOpen("d");
  ASSERT_EQ(collCopyItem(d, c, "people"), 1u);
  EXPECT_EQ(RefCount(item), 2u);
  HTABLE out = collGetTable(d, "people");
  EXPECT_EQ(Hdr(out, coll::th::owner, true), 0u);
  EXPECT_EQ(tableGetSelection(out), 1u);
  EXPECT_EQ(RefCount(item), 3u);
  tableDeleteRow(out, 0);
  EXPECT_EQ(collTableRowCount(d, "people"), 3u);
  collClose(d);
  EXPECT_EQ(tableRowCount(out), 2u);  // the caller's table outlives the collection
  // Replacing the item releases its handle; task abort ends free tables.
  ASSERT_EQ(collSetItem(c, "people", "x", 1), 1u);
  EXPECT_EQ(tableRowCount(item), kNone);
  EXPECT_EQ(RecordsInUse(), 1u);
  collSetTable(c, "again", out);
  collTaskAbort(platform::CurrentProcessId());
  EXPECT_EQ(tableRowCount(out), kNone);
  EXPECT_EQ(collIsBadCollHandle(c), 1u);
  EXPECT_EQ(RecordsInUse(), 0u);
}

TEST(CollTables, RefusalsByTag) {
  HCOLL c = collOpen("c");
  HTABLE t = MakeGrid("A/1");
  collSetItem(c, "raw", "x", 1);
  EXPECT_KEEPS_ON_FAILURE(collSetTable(c, nullptr, t), 0u);
  EXPECT_KEEPS_ON_FAILURE(collSetTable(0x40FE, "x", t), 0u);
  EXPECT_KEEPS_ON_FAILURE(collSetTable(0x4001, "x", t), 0u);
  EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "x", 0x80FE), 0u);
  EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "", t), 0u);
  for (const auto &[h, tag] : {std::pair<HCOLL, const char *>{c, "raw"}, {c, "missing"}, {c, nullptr}, {0x40FE, "t"}}) {
    char buf[4] = "zz";
    EXPECT_EQ(collGetTable(h, tag), 0u);
    EXPECT_EQ(collTableRowCount(h, tag), kNone);
    EXPECT_EQ(collTableColCount(h, tag), kNone);
    EXPECT_EQ(collTableGetStamp(h, tag), 0u);
    EXPECT_EQ(collTableGetSelection(h, tag), kNone);
    EXPECT_EQ(collTableSetSelection(h, tag, 0), 0u);
    EXPECT_EQ(collTableGetField(h, tag, 0, 0, buf, sizeof buf), 0u);
    EXPECT_EQ(buf[0], h == c && tag ? 0 : 'z');  // emptied once the arguments pass
    EXPECT_EQ(collTableGetRow(h, tag, 0, buf, sizeof buf), 0u);
    EXPECT_EQ(collTableFindAbbrev(h, tag, "", kNone, 0, 0), kNone);
  }
  collSetTable(c, "t", t);
  EXPECT_EQ(collTableGetColIndex(c, "t", nullptr), kNone);
  EXPECT_EQ(collTableFindField(c, "t", nullptr, 1, 0, 0), kNone);
  EXPECT_EQ(collTableSetSelection(c, "t", 0), 1u);  // the item's own selection
  EXPECT_EQ(collTableGetSelection(c, "t"), 0u);
  EXPECT_EQ(tableGetSelection(t), kNone);
  EXPECT_EQ(collTableSetSelection(c, "t", 1), 1u);
  EXPECT_EQ(collTableGetSelection(c, "t"), kNone);
}

// The selected row stored as text items named like the columns, directly
// and by tag: an empty field deletes its item, an empty name stops the copy.
TEST(CollTables, SelectedRowToCollection) {
  for (bool byTag : {false, true}) {
    SCOPED_TRACE(byTag);
    HCOLL from = collOpen("from"), dest = collOpen("dest");
    HTABLE t = MakeGrid("Name|Town|Zip/ann||123/bob|Rome|456");
    collSetTable(from, "p", t);
    auto copy = [&](uint32_t sel) {
      tableSetSelection(t, sel);
      collTableSetSelection(from, "p", sel);
      return byTag ? collTableDataToCollection(dest, from, "p") : tableDataToCollection(t, dest);
    };
    collSetItem(dest, "Town", "old", 3);
    EXPECT_EQ(copy(kNone), 0u);
    EXPECT_EQ(testutil::Tags(dest), "Town");
    ASSERT_EQ(copy(1), 1u);
    EXPECT_EQ(testutil::Tags(dest), "Name,Town,Zip");
    EXPECT_EQ(collGetType(dest, "town"), uint32_t(COLLTYPE_STRING));
    EXPECT_STREQ(testutil::Item(dest, "Town").c_str(), "Rome");
    ASSERT_EQ(copy(0), 1u);
    EXPECT_EQ(testutil::Tags(dest), "Name,Zip");
    EXPECT_STREQ(testutil::Item(dest, "name").c_str(), "ann");
    // The catalog is not refused as the destination.
    EXPECT_EQ(byTag ? collTableDataToCollection(0x4001, from, "p") : tableDataToCollection(t, 0x4001), 1u);
    SetRow(t, ROW_NAMES, "A||C");
    collSetTable(from, "p", t);
    EXPECT_EQ(copy(1), 0u);  // A is stored before the empty name stops it
    EXPECT_STREQ(testutil::Item(dest, "A").c_str(), "bob");
    EXPECT_EQ(testutil::Item(dest, "C"), "<missing>");
    EXPECT_EQ(byTag ? collTableDataToCollection(0x40FE, from, "p") : tableDataToCollection(t, 0x40FE), 0u);
    EXPECT_EQ(byTag ? collTableDataToCollection(dest, from, "none") : tableDataToCollection(0x80FE, dest), 0u);
    EXPECT_EQ(collTableDataToCollection(dest, 0x40FE, "p"), 0u);
    collClose(from);
    collClose(dest);
    tableDestroy(t);
  }
  // A first column named like the item itself replaces the item being read.
  HCOLL c = collOpen("c");
  HTABLE t = MakeGrid("p|Second/first|second");
  tableSetSelection(t, 0);
  collSetTable(c, "p", t);
  const uint32_t open = collGetNonSharedHandles(nullptr, 0);
  ASSERT_EQ(collTableDataToCollection(c, c, "p"), 1u);
  EXPECT_EQ(testutil::Tags(c), "p,Second");
  EXPECT_STREQ(testutil::Item(c, "p").c_str(), "first");
  EXPECT_EQ(collTableDataToCollection(c, c, "p"), 0u);
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), open);  // no temporary collection stays
  EXPECT_EQ(RecordsInUse(), 1u);
}

// Every heap allocation of a run of table operations fails in turn: each
// call fails as documented and nothing is left behind.
TEST(TableAllocFailure, EveryAllocationFailsInTurn) {
  tableRowCount(0);  // start-up happens outside the runs
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(n);
    if (HTABLE t = tableCreate(2, 0)) {
      SetRow(t, ROW_NAMES, "x|y");
      const uint32_t added = SetRow(t, ROW_APPEND, "a|b");
      EXPECT_EQ(tableRowCount(t), added);
      const std::string wide(1500, 'w');  // growth past the first page
      if (added) {
        const uint32_t set = tableSetItem(t, 0, 1, wide.c_str());
        EXPECT_EQ(Field(t, 0, 1), set ? wide : "b");
      }
      const std::string before = Data(t);
      if (HTABLE copy = tableCopy(t, 0)) {
        EXPECT_EQ(Data(copy) == before, tableAddRow(copy, 0) == 0);
        EXPECT_EQ(Data(t), before);
        tableDestroy(copy);
      }
      HCOLL c = collOpen("c");
      if (c && collSetTable(c, "t", t)) {
        tableDestroy(collGetTable(c, "t"));
        tableSetSelection(t, 0);
        if (tableDataToCollection(t, c)) {
          EXPECT_EQ(testutil::Tags(c), "t,x,y");
        }
      }
      collClose(c);
      EXPECT_EQ(testutil::CheckState(), "") << n;
      tableDestroy(t);
    }
    const uint32_t made = platform::FailAllocation(0);
    uint32_t handles[4];
    ASSERT_EQ(collGetTableHandles(handles, sizeof handles), 0u) << n;
    ASSERT_EQ(RecordsInUse(), 0u) << n;
    if (made < n) break;
    ASSERT_LT(n, 1000u);
  }
}

}  // namespace
