// Tables: the header and data block, rows, fields, selection, searches,
// comparison and copy on write (a seeded model of random grids), tables held
// in collections, and the copy of the selected row into a collection.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
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
using testutil::kNone;
using testutil::Grid;
using testutil::MakeGrid;
using testutil::Row;
using testutil::SetRow;

// The call fails and changes nothing.
#define EXPECT_REFUSED(call)                                                    \
  do {                                                                          \
    const std::string before_ = testutil::Snapshot();                           \
    EXPECT_EQ((call), 0u) << #call;                                             \
    EXPECT_EQ(testutil::SnapshotDiff(before_, testutil::Snapshot()), "") << #call; \
  } while (0)

namespace {

// A header word of a live table (kNone when the handle is invalid).
uint32_t Hdr(HTABLE t, uint32_t offset, bool wide = false) {
  coll::LockGuard lock; uint8_t *h = coll::GetTablePtr(t);
  return !h ? kNone : wide ? coll::rd32(h + offset) : coll::rd16(h + offset);
}
uint32_t RefCount(HTABLE t) {
  coll::LockGuard lock; uint8_t *h = coll::GetTablePtr(t);
  return h ? coll::ps->tableData[coll::TableDataIndex(h)].refCount : 0;
}
uint32_t RecordsInUse() {
  coll::LockGuard lock;
  uint32_t n = 0;
  for (uint32_t i = 0; i < coll::kSlots; ++i) n += coll::ps->tableData[i].data != nullptr;
  return n;
}
std::string Data(HTABLE t) {
  coll::LockGuard lock; uint8_t *h = coll::GetTablePtr(t);
  return h ? std::string(reinterpret_cast<char *>(coll::TableData(h)), coll::TableDataLength(h)) : "";
}

std::string Text(HCOLL h, const char *tag) { return testutil::Item(h, tag).c_str(); }

// The offsets of the header agree with the strings of the data block.
void ExpectOffsets(HTABLE t) {
  const std::string data = Data(t);
  std::vector<size_t> starts{0};
  for (size_t i = 0; i < data.size(); ++i)
    if (data[i] == 0 && i + 1 < data.size()) starts.push_back(i + 1);
  const uint32_t cols = Hdr(t, coll::th::cols), rows = Hdr(t, coll::th::rows);
  ASSERT_EQ(starts.size(), (rows + 1) * cols + 5) << t; EXPECT_EQ(Hdr(t, coll::th::rowsOffset, true), starts[cols]);
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
  ASSERT_EQ(tableRowCount(t), m.rows.size()); ASSERT_EQ(tableColCount(t), m.names.size());
  EXPECT_EQ(tableGetSelection(t), m.sel); EXPECT_EQ(Row(t, ROW_NAMES), Join(m.names));
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
    pool.reserve(8); pool[0].second.names.assign(cols, "");
    for (int step = 0; step < 250; ++step) {
      auto &[t, m] = pool[rng() % pool.size()];
      const uint32_t rows = uint32_t(m.rows.size());
      switch (rng() % 8) {
        case 0:
        case 1: {  // one string, any address
          const int32_t row = int32_t(rng() % (rows + 3)) - 2;
          const uint32_t col = uint32_t(int32_t(rng() % (cols + 7)) - 6);
          const std::string text = RandomText(rng);
          std::string *s = row == -1 && col >= 0xFFFFFFFBu                ? &m.attrs[~col]
                           : row == -1 && col < cols                        ? &m.names[col]
                           : row >= 0 && uint32_t(row) < rows && col < cols ? &m.rows[row][col] : nullptr;
          ASSERT_EQ((step % 2 ? tableSetItem : tableSetField)(t, row, col, text.c_str()), s ? 1u : 0u);
          if (s) *s = text;
          break;
        }
        case 2:
        case 3: {  // a packed row (or an empty one inserted), padded or cut to its width
          const bool add = rng() % 3 == 0;
          const uint32_t targets[] = {uint32_t(rng() % (rows + 2)), uint32_t(ROW_APPEND), uint32_t(ROW_NAMES),
                                      uint32_t(ROW_ATTRIBUTES), uint32_t(ROW_HEADER)};
          const uint32_t row = targets[rng() % 5 ? 0 : rng() % 5];
          std::vector<std::string> f(add ? 5 : 1 + rng() % (cols + 2));
          for (auto &x : f) x = add ? "" : RandomText(rng);
          const bool ok = row < rows + add || (row >= uint32_t(ROW_ATTRIBUTES) && row <= uint32_t(ROW_APPEND));
          ASSERT_EQ(add ? tableAddRow(t, row) : SetRow(t, int32_t(row), Join(f)), ok ? 1u : 0u) << row;
          f.resize(row == uint32_t(ROW_ATTRIBUTES) ? 5 : cols);
          if (row == uint32_t(ROW_APPEND) || (add && row <= rows)) m.rows.insert(m.rows.begin() + std::min(row, rows), f);
          if (!add && row < rows) m.rows[row] = f;
          if (row == uint32_t(ROW_NAMES)) m.names = f;
          if (row == uint32_t(ROW_ATTRIBUTES)) m.attrs = f;
          break;
        }
        case 4: {  // a row deleted; the selection keeps its index or goes
          const uint32_t row = rng() % (rows + 1);
          tableDeleteRow(t, row);
          if (row < rows) m.rows.erase(m.rows.begin() + row);
          if (row < rows && (m.sel == row || m.sel >= rows - 1)) m.sel = kNone;
          break;
        }
        case 5: {
          const uint32_t row = rng() % 4 ? rng() % (rows + 2) : kNone;
          ASSERT_EQ(tableSetSelection(t, row), 1u); m.sel = row < rows ? row : kNone; break;
        }
        case 6: {  // a second handle on the data (a copy, or one through a collection), or one less
          if (pool.size() >= 4) {
            const size_t i = rng() % pool.size();
            tableDestroy(pool[i].first); pool.erase(pool.begin() + long(i)); break;
          }
          HCOLL c = rng() % 2 ? collOpen("holder") : 0;
          ASSERT_EQ(c ? collSetTable(c, "t", t) : 1u, 1u);
          HTABLE copy = c ? collGetTable(c, "t") : tableCopy(t, 12345);
          collClose(c); ASSERT_NE(copy, 0u);
          const Model same = m;
          pool.emplace_back(copy, same); break;
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
      EXPECT_EQ(collTableRowCount(c, "T") + collTableColCount(c, "t") * 100, m.rows.size() + cols * 100);
      EXPECT_EQ(collTableGetSelection(c, "t"), m.sel); EXPECT_NE(collTableGetStamp(c, "t"), 0u);
      for (int32_t r = ROW_ATTRIBUTES; r < int32_t(m.rows.size()); ++r) {
        if (r == ROW_APPEND || r == -3 || r == -2) continue;
        char a[512], b[512];
        const uint32_t n = tableGetRow(t, uint32_t(r), a, sizeof a);
        ASSERT_EQ(collTableGetRow(c, "t", uint32_t(r), b, sizeof b), n) << r; EXPECT_EQ(std::memcmp(a, b, n), 0) << r;
        std::memset(b, '#', sizeof b);  // a row that does not fit is not copied
        EXPECT_EQ(n > 1 ? collTableGetRow(c, "t", uint32_t(r), b, n - 1) : n, n); EXPECT_EQ(b[0], '#');
        for (uint32_t col = uint32_t(-5); col != cols && r >= ROW_HEADER; ++col)
          EXPECT_EQ(collTableGetField(c, "t", r, col, a, sizeof a) ? std::string(a) : "<none>", Field(t, r, col));
      }
      std::string image(collDumpItems(c, nullptr, 0), '\0');
      ASSERT_EQ(collDumpItems(c, image.data(), uint32_t(image.size())), image.size());
      HTABLE back = tableLoad(image.data(), uint32_t(image.size()), 0, 0, 0);
      EXPECT_EQ(Grid(back) + Row(back, ROW_ATTRIBUTES), Grid(t) + Join(m.attrs));
      EXPECT_EQ(tableGetSelection(back), m.sel); tableDestroy(back); collClose(c); tableDestroy(t);
    }
    EXPECT_EQ(RecordsInUse(), 0u);
  }
}

// ---------------------------------------------------------------- exact results

TEST(TableObject, NewTableLayoutAndLimits) {
  const uint32_t before = platform::TickCount();
  HTABLE t = tableCreate(3, 0x12345), wide = tableCreate(1019, 0), widest = tableCreate(64 * 1023 - 5, 0);
  ASSERT_EQ(t, 0x8001u); EXPECT_LE(tableGetStamp(t) - before, platform::TickCount() - before);  // the millisecond clock
  const uint32_t want[][3] = {{coll::th::magic, 0x1212, 0},    {coll::th::length, 56, 0},     {coll::th::type, 0x2345, 0},
                              {coll::th::rows, 0, 0},          {coll::th::cols, 3, 0},        {coll::th::selection, 0xFFFF, 0},
                              {coll::th::rowsOffset, 3, 1},    {coll::th::attrOffset, 3, 1},  {coll::th::pages, 1, 1},
                              {coll::th::owner, 0, 1}};
  for (const auto &w : want) EXPECT_EQ(Hdr(t, w[0], w[2]), w[1]) << w[0];
  EXPECT_EQ(Data(t), std::string(8, '\0')); EXPECT_EQ(tableGetType(t), 0x2345u);
  // Columns: as many pages as they need up to 64; past that, or past 16 bits, refused.
  EXPECT_EQ(Hdr(wide, coll::th::pages, true) * 100000 + Hdr(wide, coll::th::length), 201072u);
  EXPECT_EQ(Hdr(widest, coll::th::pages, true), 64u);
  for (uint32_t cols : {0u, 64u * 1023 - 4, 65536u, 0xFFFFFFFFu}) EXPECT_EQ(tableCreate(cols, 0), 0u) << cols;
  tableDestroy(t);
  EXPECT_EQ(tableCreate(1, 0), t);  // the lowest handle and record again
  coll::LockGuard lock;
  uint8_t *h = coll::GetTablePtr(t);  // length 54: 921 more bytes fit the first page
  EXPECT_EQ(coll::TableDataIndex(h), 0u);
  // Growth by whole pages, never shrinking, up to 64.
  for (const auto &[growth, pages] : {std::pair<int32_t, uint32_t>{921, 1}, {922, 2}, {-40, 2}, {64 * 1023 - 102, 64}}) {
    EXPECT_NE(coll::LimitCheck(h, growth, t), nullptr) << growth; EXPECT_EQ(coll::TablePages(h), pages) << growth;
  }
  EXPECT_EQ(coll::LimitCheck(h, 64 * 1023 - 101, t), nullptr);
}

TEST(TableObject, DataLimitReachedExactlyAndRefusedOneByteLater) {
  // 1 name + 5 attributes = 6 bytes; one field of 65,369 bytes makes 65,376.
  HTABLE t = tableCreate(1, 0), empties = tableCreate(1, 0);
  ASSERT_EQ(tableAddRow(t, 0), 1u);
  const std::string big(65369, 'q');
  EXPECT_REFUSED(tableSetItem(t, 0, 0, (big + "q").c_str()));
  ASSERT_EQ(tableSetItem(t, 0, 0, big.c_str()), 1u);
  EXPECT_EQ(Hdr(t, coll::th::pages, true) * 100000 + Hdr(t, coll::th::length), 6465424u);
  EXPECT_REFUSED(tableSetItem(t, ROW_HEADER, 0, "n"));
  EXPECT_REFUSED(tableSetItem(t, ROW_HEADER, uint32_t(-5), "a"));
  EXPECT_REFUSED(tableAddRow(t, uint32_t(ROW_APPEND)));
  EXPECT_REFUSED(SetRow(t, 0, big + "q"));
  EXPECT_REFUSED(SetRow(t, ROW_ATTRIBUTES, "a|b")); EXPECT_EQ(tableSetItem(t, 0, 0, "small"), 1u); ExpectOffsets(t);
  // Empty rows, one byte each, up to the limit.
  uint32_t added = 0;
  while (tableAddRow(empties, uint32_t(ROW_APPEND))) ++added;
  EXPECT_EQ(added, 65376u - 6u); ExpectOffsets(empties);
}

TEST(TableObject, FailuresOfBadArguments) {
  HTABLE t = MakeGrid("A|B/ab|[x]/k|"), tail = MakeGrid("A|B/k|");
  // Texts: none, unterminated (the size bounds them), non-letters unequal.
  const char abc[3] = {'A', 'B', 'C'};
  const uint32_t got[][2] = {{tableSetItem(t, 0, 0, nullptr), 0},       {tableGetItem(t, 0, 0, nullptr, 10), 0},
                             {tableGetColIndex(t, nullptr), kNone},     {tableFindField(t, nullptr, 1, 0, 0), kNone},
                             {tableFindAbbrev(t, abc, 2, 0, 0), 0},     {tableFindAbbrev(t, "zz", 0, 1, 0), 1},
                             {tableFindField(t, "{X}", kNone, 0, 1), kNone}, {tableFindField(t, "", kNone, 0, 1), 1},
                             {tableCompare(t, t, 3, 0), 2},  // one data block: its row count
                             {tableCompare(t, tail, 0, 1), 1}, {tableCompare(tail, t, 0, 1), 1}};  // last rows aligned
  for (size_t i = 0; i < std::size(got); ++i) EXPECT_EQ(got[i][0], got[i][1]) << i;
  // Packed rows: no bytes, a last byte that is not 0, no buffer.
  for (const auto &[bytes, size] : {std::pair<const char *, uint32_t>{"ab", 0}, {"ab", 2}, {nullptr, 2}})
    EXPECT_REFUSED(tableSetRow(t, 0, bytes, size));
  // A selection that has fallen off the end is cleared by reading it.
  tableSetSelection(t, 1);
  {
    coll::LockGuard lock; coll::wr16(coll::GetTablePtr(t) + coll::th::rows, 1);
  }
  EXPECT_EQ(tableGetSelection(t), kNone); EXPECT_EQ(Hdr(t, coll::th::selection), 0xFFFFu);
}

// Loaded tables whose strings fall short: one that claims more rows than its
// strings fill reads the missing ones as empty, attributes after them; one
// whose last string has no terminator keeps it so, read up to the data's end.
TEST(TableObject, LoadedTablesWithStringsFallingShort) {
  for (bool cut : {false, true}) {
    HCOLL c = collOpen("c");
    HTABLE t = MakeGrid("n/a/b");
    tableSetItem(t, ROW_HEADER, uint32_t(-5), cut ? "xy" : "");
    collSetTable(c, "t", t);
    std::string image(collDumpItems(c, nullptr, 0), '\0');
    collDumpItems(c, image.data(), uint32_t(image.size()));
    // The stored table header follows at 16 + the tag length: its length word, then rows.
    if (cut) --image[20];
    if (cut) image.pop_back();
    if (!cut) image[24] = 10;
    HTABLE back = tableLoad(image.data(), uint32_t(image.size()), 0, 0, 0);
    if (cut) {  // the cut string ends the data without a terminator: the packed row has none either
      EXPECT_EQ(Grid(back) + " " + Field(back, ROW_HEADER, uint32_t(-5)), "n/a/b xy");
      EXPECT_EQ(tableGetRow(back, uint32_t(ROW_ATTRIBUTES), nullptr, 0), 6u);
    } else {
      EXPECT_EQ(Grid(back) + " " + Row(back, ROW_ATTRIBUTES), "n/a/b//////// ||||");
    }
    ExpectOffsets(back);
    collClose(c);
  }
}

TEST(TableObject, SharersAndSlots) {
  HTABLE a = MakeGrid("A|B/1|2/3|4"), b = tableCopy(a, 0), c = tableCopy(a, 0);
  EXPECT_EQ(RefCount(a), 3u);
  // Changes that are refused leave the block shared.
  tableDeleteRow(b, 2); EXPECT_EQ(tableSetItem(b, 2, 0, "x"), 0u); tableSetSelection(b, 1); EXPECT_EQ(RefCount(a), 3u);
  // A change through the middle one leaves the other two sharing.
  tableSetItem(b, 0, 0, "b"); EXPECT_EQ(RefCount(a) * 10 + RefCount(b), 21u); EXPECT_EQ(tableCompare(a, c, 9, 0), 2u);
  // No free slot: nothing is left behind.
  std::vector<HTABLE> tables;
  for (HTABLE t; (t = tableCreate(2, 0)) != 0;) tables.push_back(t);
  EXPECT_EQ(tables.size(), 251u); EXPECT_EQ(tableCopy(a, 0), 0u);
  HCOLL h = collOpen("c");
  EXPECT_REFUSED(collSetTable(h, "t", a)); tableDestroy(tables[100]);
  EXPECT_EQ(tableCreate(1, 0), tables[100]);
}

// ---------------------------------------------------------------- tables in collections

TEST(CollTables, StoredTableIsAnOwnedSnapshot) {
  HCOLL c = collOpen("c"), d = collOpen("d");
  HTABLE t = MakeGrid("Name|Town/ann|Oslo/bob|Rome/cy|"), item = 0;
  tableSetSelection(t, 1); ASSERT_EQ(collSetTable(c, "people", t), 1u);
  EXPECT_EQ(collGetType(c, "PEOPLE"), uint32_t(COLLTYPE_TABLE));
  {
    coll::LockGuard lock; uint8_t *img, *header;
    ASSERT_TRUE(coll::RetrieveTableItem(c, &img, "people", &header, &item)); EXPECT_EQ(coll::TableOwner(header), c);
  }
  EXPECT_NE(item, t); EXPECT_EQ(RefCount(t), 2u);
  // The item's handle is left alone by tableDestroy; the source goes, and
  // its changes never reach the item.
  tableSetItem(t, 0, 0, "changed"); tableDestroy(item); tableDestroy(t); EXPECT_EQ(tableRowCount(t), kNone);
  EXPECT_EQ(Grid(item), "Name|Town/ann|Oslo/bob|Rome/cy|");
  // A copied item shares until changed through its own handle; a table
  // taken out is the caller's and outlives the collection.
  ASSERT_EQ(collCopyItem(d, c, "people"), 1u);
  HTABLE out = collGetTable(d, "people");
  EXPECT_EQ(RefCount(item) * 100 + Hdr(out, coll::th::owner, true) * 10 + tableGetSelection(out), 301u);
  tableDeleteRow(out, 0); EXPECT_EQ(collTableRowCount(d, "people"), 3u); collClose(d);
  EXPECT_EQ(tableRowCount(out), 2u);
  // Replacing the item releases its handle; task abort ends free tables.
  ASSERT_EQ(collSetItem(c, "people", "x", 1), 1u); EXPECT_EQ(tableRowCount(item), kNone); EXPECT_EQ(RecordsInUse(), 1u);
  collSetTable(c, "again", out); collTaskAbort(platform::CurrentProcessId()); EXPECT_EQ(tableRowCount(out), kNone);
  EXPECT_EQ(collIsBadCollHandle(c), 1u); EXPECT_EQ(RecordsInUse(), 0u);
}

TEST(CollTables, ReadsByTag) {
  HCOLL c = collOpen("c");
  HTABLE t = MakeGrid("A|B/1|x/2|y");
  collSetItem(c, "raw", "x", 1);
  for (const char *tag : {"raw", "missing"}) {  // no table item by that tag
    EXPECT_EQ(collTableRowCount(c, tag), kNone) << tag; EXPECT_EQ(collGetTable(c, tag), 0u) << tag;
  }
  collSetTable(c, "t", t); EXPECT_EQ(collTableGetColIndex(c, "t", nullptr), kNone);
  EXPECT_EQ(collTableFindField(c, "t", nullptr, 1, 0, 0), kNone); EXPECT_EQ(collTableGetColIndex(c, "t", "b"), 1u);
  EXPECT_EQ(collTableFindField(c, "t", "Y", kNone, 0, 1), 1u); EXPECT_EQ(collTableFindAbbrev(c, "t", "2z", 1, 0, 0), 1u);
  EXPECT_EQ(collTableSetSelection(c, "t", 1), 1u);  // the item's own selection
  EXPECT_EQ(collTableGetSelection(c, "t") * 10 + tableGetSelection(t), 1u * 10 + kNone);
  EXPECT_EQ(collTableSetSelection(c, "t", 2), 1u); EXPECT_EQ(collTableGetSelection(c, "t"), kNone);
}

// The selected row stored as text items named like the columns, directly
// and by tag: an empty field deletes its item, an empty name stops the copy.
TEST(CollTables, SelectedRowToCollection) {
  for (bool byTag : {false, true}) {
    SCOPED_TRACE(byTag);
    HCOLL from = collOpen("from"), dest = collOpen("dest");
    HTABLE t = MakeGrid("Name|Town|Zip/ann||123/bob|Rome|456");
    auto copy = [&](uint32_t sel, HCOLL to = 0) {
      tableSetSelection(t, sel); collSetTable(from, "p", t);
      return byTag ? collTableDataToCollection(to ? to : dest, from, "p") : tableDataToCollection(t, to ? to : dest);
    };
    collSetItem(dest, "Town", "old", 3); EXPECT_EQ(copy(kNone), 0u); EXPECT_EQ(testutil::Tags(dest), "Town");
    ASSERT_EQ(copy(1), 1u); EXPECT_EQ(testutil::Tags(dest) + " " + Text(dest, "TOWN"), "Name,Town,Zip Rome");
    EXPECT_EQ(collGetType(dest, "town"), uint32_t(COLLTYPE_STRING)); ASSERT_EQ(copy(0), 1u);
    EXPECT_EQ(testutil::Tags(dest) + " " + Text(dest, "name"), "Name,Zip ann");
    EXPECT_EQ(copy(1, 0x4001), 1u);  // the catalog is not refused as the destination
    EXPECT_EQ(copy(1, 0x40FE), 0u); SetRow(t, ROW_NAMES, "A||C");
    EXPECT_EQ(copy(1), 0u);  // A is stored before the empty name stops it
    EXPECT_EQ(Text(dest, "A") + Text(dest, "C"), "bob<missing>");
    EXPECT_EQ(byTag ? collTableDataToCollection(dest, from, "none") : tableDataToCollection(0x80FE, dest), 0u);
    EXPECT_EQ(collTableDataToCollection(dest, 0x40FE, "p"), 0u); collClose(from); collClose(dest); tableDestroy(t);
  }
  // A first column named like the item itself replaces the item being read.
  HCOLL c = collOpen("c");
  HTABLE t = MakeGrid("p|Second/first|second");
  tableSetSelection(t, 0); collSetTable(c, "p", t);
  const uint32_t open = collGetNonSharedHandles(nullptr, 0);
  ASSERT_EQ(collTableDataToCollection(c, c, "p"), 1u);
  EXPECT_EQ(testutil::Tags(c) + " " + Text(c, "p"), "p,Second first");
  EXPECT_EQ(collTableDataToCollection(c, c, "p"), 0u);
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), open);  // no temporary collection stays
  EXPECT_EQ(RecordsInUse(), 1u);
}

// Changes of every kind between reads at random places, through a table and
// a copy sharing its block: every field equals the model's, and the row index
// (built by the far reads) stays in step with the strings.
TEST(TableRowIndex, FollowsEveryChange) {
  std::mt19937 rng(15);
  const uint32_t cols = 3;
  std::vector<std::vector<std::string>> model(1, std::vector<std::string>(cols)), copyModel;  // names first, then rows
  HTABLE t = tableCreate(cols, 0), copy = 0;
  auto text = [&] { return std::string(rng() % 6, char('a' + rng() % 26)); };
  for (int i = 0; i < 2500; ++i) {
    const uint32_t rows = uint32_t(model.size() - 1), r = rows ? uint32_t(rng() % rows) : 0;
    std::vector<std::string> fields(cols);
    for (std::string &f : fields) f = text();
    switch (rng() % 8) {
      case 0:
      case 1:
        if (rows) {
          const uint32_t c = uint32_t(rng() % cols);
          model[r + 1][c] = text();
          ASSERT_EQ(tableSetItem(t, int32_t(r), c, model[r + 1][c].c_str()), 1u);
        }
        break;
      case 2: {
        const uint32_t at = uint32_t(rng() % (rows + 1));
        ASSERT_EQ(tableAddRow(t, at), 1u);
        model.insert(model.begin() + at + 1, std::vector<std::string>(cols));
        break;
      }
      case 3:
        if (rows > 20) {
          tableDeleteRow(t, r);
          model.erase(model.begin() + r + 1);
        }
        break;
      case 4:
        if (rows) {
          ASSERT_EQ(SetRow(t, int32_t(r), Join(fields)), 1u);
          model[r + 1] = fields;
        }
        break;
      case 5:
        ASSERT_EQ(SetRow(t, ROW_APPEND, Join(fields)), 1u);
        model.push_back(fields);
        break;
      case 6:
        ASSERT_EQ(SetRow(t, ROW_NAMES, Join(fields)), 1u);
        ASSERT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-2), text().c_str()), 1u);
        model[0] = fields;
        break;
      default:
        tableDestroy(copy);
        copy = tableCopy(t, 0);
        copyModel = model;
    }
    for (int k = 0; k < 4; ++k) {
      const uint32_t at = uint32_t(rng() % model.size()), c = uint32_t(rng() % cols);
      ASSERT_EQ(Field(t, int32_t(at) - 1, c), model[at][c]) << i;
      if (copy) {
        const uint32_t in = uint32_t(at % copyModel.size());
        ASSERT_EQ(Field(copy, int32_t(in) - 1, c), copyModel[in][c]) << i;
      }
    }
    ASSERT_EQ(testutil::CheckState(), "") << i;
  }
  tableDestroy(copy);
  tableDestroy(t);
}

}  // namespace
