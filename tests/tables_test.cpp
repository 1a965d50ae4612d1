// Tables: the header and data block, copy on write, rows, fields, selection,
// searches and comparison.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "coll.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/consistency.h"
#include "tests/test_util.h"

namespace {

// A copy of the 48-byte header (empty when the handle is invalid).
std::string Header(HTABLE h) {
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(h);
  return hdr ? std::string(reinterpret_cast<char *>(hdr), coll::TABLE_HEADER_SIZE) : std::string();
}
uint32_t H16(const std::string &hdr, uint32_t off) { return coll::rd16(reinterpret_cast<const uint8_t *>(hdr.data()) + off); }
uint32_t H32(const std::string &hdr, uint32_t off) { return coll::rd32(reinterpret_cast<const uint8_t *>(hdr.data()) + off); }

// The data block in use.
std::string Data(HTABLE h) {
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(h);
  if (!hdr) return {};
  return std::string(reinterpret_cast<char *>(coll::TableData(hdr)), coll::TableDataLength(hdr));
}

}  // namespace

TEST(TableObject, NewTableLayout) {
  EXPECT_EQ(tableCreate(0, 1), 0u);
  HTABLE t = tableCreate(3, 0x12345);
  ASSERT_EQ(t, 0x8001u);
  std::string hdr = Header(t);
  EXPECT_EQ(H16(hdr, coll::th::magic), 0x1212u);
  EXPECT_EQ(H16(hdr, coll::th::length), 56u);
  EXPECT_EQ(H16(hdr, coll::th::type), 0x2345u);
  EXPECT_EQ(H16(hdr, coll::th::rows), 0u);
  EXPECT_EQ(H16(hdr, coll::th::cols), 3u);
  EXPECT_EQ(H16(hdr, coll::th::selection), 0xFFFFu);
  EXPECT_EQ(H32(hdr, coll::th::rowsOffset), 3u);
  EXPECT_EQ(H32(hdr, coll::th::attrOffset), 3u);
  EXPECT_EQ(H32(hdr, coll::th::pages), 1u);
  EXPECT_EQ(H32(hdr, coll::th::owner), 0u);
  EXPECT_EQ(Data(t), std::string(8, '\0'));
  tableDestroy(t);
  EXPECT_EQ(Header(t), "");
  // The handle and the data record come back with the next table.
  EXPECT_EQ(tableCreate(1, 0), 0x8001u);
  coll::LockGuard lock;
  EXPECT_EQ(coll::TableDataIndex(coll::GetTablePtr(0x8001)), 0u);
}

TEST(TableObject, ColumnCountLimits) {
  // More columns than one page holds: enough pages.
  HTABLE wide = tableCreate(1019, 0);
  ASSERT_NE(wide, 0u);
  EXPECT_EQ(H32(Header(wide), coll::th::pages), 2u);
  EXPECT_EQ(H16(Header(wide), coll::th::length), 48u + 1024u);
  HTABLE widest = tableCreate(64 * 1023 - 5, 0);
  ASSERT_NE(widest, 0u);
  EXPECT_EQ(H32(Header(widest), coll::th::pages), 64u);
  // Past 64 pages, or past 16 bits: refused, nothing taken.
  EXPECT_EQ(tableCreate(64 * 1023 - 4, 0), 0u);
  EXPECT_EQ(tableCreate(65536, 0), 0u);
  EXPECT_EQ(tableCreate(0xFFFFFFFFu, 0), 0u);
  EXPECT_EQ(tableCreate(1, 0), widest + 1);
}

TEST(TableObject, LimitCheckGrowsByPagesUpToTheLimit) {
  HTABLE t = tableCreate(1, 0);
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(t);
  // length 54: room for 1023 - 54 - 48 = 921 more bytes in the first page.
  EXPECT_NE(coll::LimitCheck(hdr, 921, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 1u);
  EXPECT_NE(coll::LimitCheck(hdr, 922, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 2u);
  EXPECT_NE(coll::LimitCheck(hdr, -40, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 2u);  // never shrinks
  EXPECT_NE(coll::LimitCheck(hdr, 64 * 1023 - 96 - 6, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 64u);
  EXPECT_EQ(coll::LimitCheck(hdr, 64 * 1023 - 96 - 5, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 64u);
}

namespace {

using Row = std::vector<std::string>;

std::string Pack(const Row &row) {
  std::string out;
  for (const std::string &s : row) out += s + '\0';
  return out;
}

uint32_t SetRow(HTABLE t, uint32_t row, const Row &fields) {
  std::string packed = Pack(fields);
  return tableSetRow(t, row, packed.data(), uint32_t(packed.size()));
}

std::string GetRow(HTABLE t, uint32_t row) {
  uint32_t n = tableGetRow(t, row, nullptr, 0);
  std::string out(n, '\0');
  if (n) {
    EXPECT_EQ(tableGetRow(t, row, out.data(), n), n);
  }
  return out;
}

std::string Field(HTABLE t, int32_t row, uint32_t column) {
  char buf[256];
  uint32_t n = tableGetItem(t, row, column, buf, sizeof buf);
  return n ? std::string(buf) : "<none>";
}

// A table with names "c0".. and rows of fields "r<row>c<col>".
HTABLE MakeTable(uint32_t cols, uint32_t rows) {
  HTABLE t = tableCreate(cols, 7);
  Row names;
  for (uint32_t c = 0; c < cols; ++c) names.push_back("c" + std::to_string(c));
  SetRow(t, uint32_t(ROW_NAMES), names);
  for (uint32_t r = 0; r < rows; ++r) {
    Row row;
    for (uint32_t c = 0; c < cols; ++c) row.push_back("r" + std::to_string(r) + "c" + std::to_string(c));
    SetRow(t, uint32_t(ROW_APPEND), row);
  }
  return t;
}

// All strings of the data block, found by a scan from its start.
std::vector<std::string> Strings(HTABLE t) {
  std::string data = Data(t);
  std::vector<std::string> out;
  size_t p = 0;
  while (p < data.size()) {
    size_t z = data.find('\0', p);
    out.push_back(data.substr(p, z - p));
    p = z + 1;
  }
  return out;
}

// The header invariants and the offsets agree with the strings in the block.
void ExpectConsistent(HTABLE t) {
  std::string hdr = Header(t);
  ASSERT_FALSE(hdr.empty());
  uint32_t cols = H16(hdr, coll::th::cols), rows = H16(hdr, coll::th::rows);
  std::vector<std::string> strings = Strings(t);
  ASSERT_EQ(strings.size(), (rows + 1) * cols + 5);
  uint32_t names = 0;
  for (uint32_t c = 0; c < cols; ++c) names += uint32_t(strings[c].size()) + 1;
  EXPECT_EQ(H32(hdr, coll::th::rowsOffset), names);
  uint32_t attrs = 0;
  for (size_t i = strings.size() - 5; i < strings.size(); ++i) attrs += uint32_t(strings[i].size()) + 1;
  EXPECT_EQ(H32(hdr, coll::th::attrOffset), H16(hdr, coll::th::length) - 48 - attrs);
  EXPECT_LE(H16(hdr, coll::th::length) + 48u, H32(hdr, coll::th::pages) * 1023);
}

}  // namespace

TEST(TableObject, FieldsInAnyOrderMatchAScanFromTheStart) {
  HTABLE t = MakeTable(5, 40);
  // Vary string lengths so that offsets are irregular.
  for (uint32_t r = 0; r < 40; r += 3) tableSetItem(t, int32_t(r), r % 5, std::string(r, 'x').c_str());
  std::vector<std::string> strings = Strings(t);
  std::mt19937 rng(12345);
  for (int i = 0; i < 3000; ++i) {
    uint32_t r = rng() % 40, c = rng() % 5;
    ASSERT_EQ(Field(t, int32_t(r), c), strings[(r + 1) * 5 + c]) << r << "," << c;
  }
  // Every kind of step from every cache position: forward, back a little,
  // back into the lower half (restart).
  for (uint32_t a = 0; a < 40; ++a)
    for (uint32_t b = 0; b < 40; b += 7) {
      ASSERT_EQ(Field(t, int32_t(a), 4), strings[(a + 1) * 5 + 4]);
      ASSERT_EQ(Field(t, int32_t(b), 0), strings[(b + 1) * 5]);
    }
  // Empty strings before the target when walking back.
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(t);
  for (uint32_t n = strings.size() - 6; n > 5; --n) {
    ASSERT_EQ(coll::tablestrlen(hdr, n + 1) >= coll::tablestrlen(hdr, n), true);
    uint32_t off = coll::tablestrlen(hdr, n);
    ASSERT_EQ(reinterpret_cast<char *>(coll::TableData(hdr)) + off, strings[n]) << n;
  }
}

TEST(TableObject, WordWisePositioningAgreesWithAByteScan) {
  // Strings of 0 to 12 bytes, so that terminators fall anywhere in a word,
  // several to a word or none; and ends that cut the data anywhere.
  std::mt19937 rng(99);
  std::string data;
  while (data.size() < 600) {
    data.append(rng() % 13, static_cast<char>('a' + rng() % 26));
    data.push_back('\0');
  }
  const auto *p = reinterpret_cast<const uint8_t *>(data.data());
  auto naive = [&](uint32_t offset, uint32_t n, uint32_t end) {
    for (; n > 0 && offset < end; --n) {
      while (offset < end && p[offset] != 0) ++offset;
      if (offset < end) ++offset;
    }
    return offset;
  };
  for (int i = 0; i < 20000; ++i) {
    uint32_t end = rng() % (data.size() + 1);
    uint32_t offset = end ? rng() % end : 0;
    uint32_t n = rng() % 40;
    ASSERT_EQ(coll::SkipStrings(p, offset, n, end), naive(offset, n, end)) << offset << " " << n << " " << end;
  }
}

TEST(TableObject, AddressingForms) {
  HTABLE t = MakeTable(3, 2);
  for (int k = 0; k < 5; ++k)
    ASSERT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-(k + 1)), ("attr" + std::to_string(k)).c_str()), 1u);
  EXPECT_EQ(Field(t, ROW_HEADER, 0), "c0");
  EXPECT_EQ(Field(t, ROW_HEADER, 2), "c2");
  for (int k = 0; k < 5; ++k) EXPECT_EQ(Field(t, ROW_HEADER, uint32_t(-(k + 1))), "attr" + std::to_string(k));
  EXPECT_EQ(Field(t, 1, 2), "r1c2");
  // No string: row -1 with column -6 or cols, row -2, rows, a column of cols.
  EXPECT_EQ(Field(t, ROW_HEADER, uint32_t(-6)), "<none>");
  EXPECT_EQ(Field(t, ROW_HEADER, 3), "<none>");
  EXPECT_EQ(Field(t, -2, 0), "<none>");
  EXPECT_EQ(Field(t, ROW_APPEND, 0), "<none>");
  EXPECT_EQ(Field(t, 2, 0), "<none>");
  EXPECT_EQ(Field(t, 0, 3), "<none>");
  EXPECT_EQ(Field(t, 0, uint32_t(-1)), "<none>");
  EXPECT_EQ(tableSetItem(t, 2, 0, "x"), 0u);
  EXPECT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-6), "x"), 0u);
  EXPECT_EQ(tableSetItem(t, 0, 3, "x"), 0u);
  ExpectConsistent(t);
}

TEST(TableFields, GetItemCutsAndReportsTheFullLength) {
  HTABLE t = MakeTable(1, 1);
  tableSetItem(t, 0, 0, "abcdef");
  char buf[10];
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(tableGetItem(t, 0, 0, buf, 4), 7u);
  EXPECT_EQ(std::string(buf, 4), std::string("abc\0", 4));
  EXPECT_EQ(tableGetItem(t, 0, 0, buf, 10), 7u);
  EXPECT_STREQ(buf, "abcdef");
  EXPECT_EQ(tableGetItem(t, 0, 0, nullptr, 0), 7u);
  EXPECT_EQ(tableGetField(t, 0, 0, buf, 7), 7u);
  EXPECT_STREQ(buf, "abcdef");
  // A failing read leaves an empty string.
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(tableGetItem(t, 1, 0, buf, 10), 0u);
  EXPECT_EQ(buf[0], 0);
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(tableGetItem(0x80FE, 0, 0, buf, 10), 0u);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(tableGetItem(t, 0, 0, nullptr, 10), 0u);
}

TEST(TableFields, SetItemMovesOnlyWhatFollows) {
  HTABLE t = MakeTable(3, 3);
  tableSetItem(t, ROW_HEADER, uint32_t(-3), "attribute two");
  std::vector<std::string> before = Strings(t);
  uint32_t stamp = tableGetStamp(t);
  // A longer, a shorter and an empty text for a field.
  ASSERT_EQ(tableSetField(t, 1, 1, "a much longer field"), 1u);
  ASSERT_EQ(tableSetItem(t, 0, 2, "s"), 1u);
  ASSERT_EQ(tableSetItem(t, 2, 0, ""), 1u);
  before[(1 + 1) * 3 + 1] = "a much longer field";
  before[(0 + 1) * 3 + 2] = "s";
  before[(2 + 1) * 3 + 0] = "";
  EXPECT_EQ(Strings(t), before);
  ExpectConsistent(t);
  // A column name: found by its new name, every field still in place.
  ASSERT_EQ(tableSetItem(t, ROW_HEADER, 1, "Longer Name"), 1u);
  before[1] = "Longer Name";
  EXPECT_EQ(Strings(t), before);
  EXPECT_EQ(tableGetColIndex(t, "LONGER NAME"), 1u);
  EXPECT_EQ(tableGetColIndex(t, "c1"), 0xFFFFFFFFu);
  for (uint32_t r = 0; r < 3; ++r)
    for (uint32_t c = 0; c < 3; ++c) EXPECT_EQ(Field(t, int32_t(r), c), before[(r + 1) * 3 + c]);
  // An attribute string leaves names and fields alone.
  ASSERT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-3), "2"), 1u);
  before[before.size() - 5 + 2] = "2";
  EXPECT_EQ(Strings(t), before);
  ExpectConsistent(t);
  EXPECT_EQ(tableRowCount(t), 3u);
  EXPECT_EQ(tableColCount(t), 3u);
  EXPECT_GE(tableGetStamp(t), stamp);
  EXPECT_EQ(tableSetItem(t, 0, 0, nullptr), 0u);
  EXPECT_EQ(tableSetItem(0x80FE, 0, 0, "x"), 0u);
}

TEST(TableFields, CountsTypeAndStampOfInvalidHandles) {
  HTABLE t = tableCreate(2, 0x10005);
  EXPECT_EQ(tableGetType(t), 5u);
  EXPECT_NE(tableGetStamp(t), 0u);
  tableDestroy(t);
  EXPECT_EQ(tableRowCount(t), 0xFFFFFFFFu);
  EXPECT_EQ(tableColCount(t), 0xFFFFFFFFu);
  EXPECT_EQ(tableGetType(t), 0xFFFFFFFFu);
  EXPECT_EQ(tableGetStamp(t), 0u);
  EXPECT_EQ(tableGetSelection(t), 0xFFFFFFFFu);
  EXPECT_EQ(tableSetSelection(t, 0), 0u);
  EXPECT_EQ(tableGetColIndex(t, "x"), 0xFFFFFFFFu);
  EXPECT_EQ(tableCopy(t, 0), 0u);
  EXPECT_EQ(tableRowCount(0x4001), 0xFFFFFFFFu);
}

TEST(TableFields, DataLimitReachedExactlyAndRefusedOneByteLater) {
  HTABLE t = tableCreate(1, 0);
  // 1 name + 5 attributes = 6 bytes; one field of 65,369 + terminator
  // makes 65,376.
  ASSERT_EQ(tableAddRow(t, 0), 1u);
  std::string big(65369, 'q');
  std::string before = Data(t);
  EXPECT_EQ(tableSetItem(t, 0, 0, (big + "q").c_str()), 0u);
  EXPECT_EQ(Data(t), before);
  ASSERT_EQ(tableSetItem(t, 0, 0, big.c_str()), 1u);
  EXPECT_EQ(Data(t).size(), 65376u);
  EXPECT_EQ(H32(Header(t), coll::th::pages), 64u);
  EXPECT_EQ(H16(Header(t), coll::th::length), 65424u);
  before = Data(t);
  EXPECT_EQ(tableSetItem(t, ROW_HEADER, 0, "n"), 0u);
  EXPECT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-5), "a"), 0u);
  EXPECT_EQ(tableAddRow(t, uint32_t(ROW_APPEND)), 0u);
  EXPECT_EQ(SetRow(t, 0, {big + "q"}), 0u);
  EXPECT_EQ(Data(t), before);
  EXPECT_EQ(tableRowCount(t), 1u);
  // Shrinking works again.
  EXPECT_EQ(tableSetItem(t, 0, 0, "small"), 1u);
  EXPECT_EQ(tableAddRow(t, uint32_t(ROW_APPEND)), 1u);
  ExpectConsistent(t);
}

TEST(TableFields, FillingEmptyRowsStopsAtTheLimit) {
  HTABLE t = tableCreate(1, 0);
  uint32_t added = 0;
  while (tableAddRow(t, uint32_t(ROW_APPEND))) ++added;
  // 6 bytes of names and attributes, one byte per row.
  EXPECT_EQ(added, 65376u - 6u);
  EXPECT_EQ(tableRowCount(t), added);
  EXPECT_EQ(Data(t).size(), 65376u);
  EXPECT_EQ(tableAddRow(t, 0), 0u);
  ExpectConsistent(t);
}

TEST(TableSelection, Rules) {
  HTABLE t = MakeTable(2, 5);
  EXPECT_EQ(tableGetSelection(t), 0xFFFFFFFFu);
  EXPECT_EQ(tableSetSelection(t, 3), 1u);
  EXPECT_EQ(tableGetSelection(t), 3u);
  // Inserting before it keeps the index; deleting a row before it too.
  tableAddRow(t, 0);
  EXPECT_EQ(tableGetSelection(t), 3u);
  tableDeleteRow(t, 0);
  EXPECT_EQ(tableGetSelection(t), 3u);
  // Deleting the selected row clears it.
  tableDeleteRow(t, 3);
  EXPECT_EQ(tableGetSelection(t), 0xFFFFFFFFu);
  // The last row selected: deleting any row clears it.
  tableSetSelection(t, 3);
  tableDeleteRow(t, 0);
  EXPECT_EQ(H16(Header(t), coll::th::selection), 0xFFFFu);
  // Out of range (rows, -1) clears and still succeeds.
  tableSetSelection(t, 1);
  EXPECT_EQ(tableSetSelection(t, tableRowCount(t)), 1u);
  EXPECT_EQ(tableGetSelection(t), 0xFFFFFFFFu);
  tableSetSelection(t, 1);
  EXPECT_EQ(tableSetSelection(t, 0xFFFFFFFFu), 1u);
  EXPECT_EQ(tableGetSelection(t), 0xFFFFFFFFu);
  // A selection that has fallen off the end is cleared by reading it.
  tableSetSelection(t, 2);
  {
    coll::LockGuard lock;
    coll::wr16(coll::GetTablePtr(t) + coll::th::rows, 2);
  }
  EXPECT_EQ(H16(Header(t), coll::th::selection), 2u);
  EXPECT_EQ(tableGetSelection(t), 0xFFFFFFFFu);
  EXPECT_EQ(H16(Header(t), coll::th::selection), 0xFFFFu);
}

TEST(TableSearch, FieldAndAbbrev) {
  HTABLE t = tableCreate(2, 0);
  SetRow(t, uint32_t(ROW_NAMES), {"Name", "Names"});
  for (const char *s : {"abc", "AB", "x", "ab", ""}) SetRow(t, uint32_t(ROW_APPEND), {"k", s});
  const uint32_t none = 0xFFFFFFFFu;
  EXPECT_EQ(tableGetColIndex(t, "NAME"), 0u);
  EXPECT_EQ(tableGetColIndex(t, "names"), 1u);
  EXPECT_EQ(tableGetColIndex(t, "Nam"), none);
  EXPECT_EQ(tableFindField(t, "ab", 0xFFFFFFFFu, 0, 1), 1u);
  EXPECT_EQ(tableFindField(t, "ab", 0xFFFFFFFFu, 2, 1), 3u);
  EXPECT_EQ(tableFindField(t, "ab", 0xFFFFFFFFu, 4, 1), none);
  EXPECT_EQ(tableFindAbbrev(t, "ab", 0xFFFFFFFFu, 0, 1), 0u);
  EXPECT_EQ(tableFindAbbrev(t, "abcd", 0xFFFFFFFFu, 0, 1), none);
  // The text size bounds the text: no terminator needed.
  const char unterminated[3] = {'A', 'B', 'C'};
  EXPECT_EQ(tableFindField(t, unterminated, 3, 0, 1), 0u);
  EXPECT_EQ(tableFindField(t, "abcdef", 3, 0, 1), 0u);
  EXPECT_EQ(tableFindField(t, "abcdef", 2, 0, 1), 1u);
  EXPECT_EQ(tableFindAbbrev(t, "xyz", 1, 0, 1), 2u);
  // An empty text: the first row searched, or the first empty field.
  EXPECT_EQ(tableFindAbbrev(t, "", 0xFFFFFFFFu, 3, 1), 3u);
  EXPECT_EQ(tableFindAbbrev(t, "zz", 0, 2, 1), 2u);
  EXPECT_EQ(tableFindField(t, "", 0xFFFFFFFFu, 0, 1), 4u);
  // Start row = rows, column = cols, invalid pointers and handles.
  EXPECT_EQ(tableFindAbbrev(t, "", 0xFFFFFFFFu, 5, 1), none);
  EXPECT_EQ(tableFindAbbrev(t, "", 0xFFFFFFFFu, 0, 2), none);
  EXPECT_EQ(tableFindField(t, nullptr, 1, 0, 1), none);
  EXPECT_EQ(tableFindField(0x80FE, "ab", 2, 0, 1), none);
  // Other bytes than letters must be equal.
  SetRow(t, uint32_t(ROW_APPEND), {"k", "[x]"});
  EXPECT_EQ(tableFindField(t, "{X}", 0xFFFFFFFFu, 0, 1), none);
  EXPECT_EQ(tableFindField(t, "[X]", 0xFFFFFFFFu, 0, 1), 5u);
  EXPECT_EQ(tableFindField(t, "K", 0xFFFFFFFFu, 3, 0), 3u);
}

TEST(TableRows, InsertReplaceAppendDeleteKeepOtherRows) {
  HTABLE t = MakeTable(3, 6);
  tableSetItem(t, ROW_HEADER, uint32_t(-2), "attr");
  std::vector<std::string> rows;
  for (uint32_t r = 0; r < 6; ++r) rows.push_back(GetRow(t, r));
  std::string names = GetRow(t, uint32_t(ROW_NAMES)), attrs = GetRow(t, uint32_t(ROW_ATTRIBUTES));
  auto expectRows = [&] {
    ASSERT_EQ(tableRowCount(t), rows.size());
    for (uint32_t r = 0; r < rows.size(); ++r) EXPECT_EQ(GetRow(t, r), rows[r]) << r;
    EXPECT_EQ(GetRow(t, uint32_t(ROW_NAMES)), names);
    EXPECT_EQ(GetRow(t, uint32_t(ROW_ATTRIBUTES)), attrs);
    ExpectConsistent(t);
  };
  // Replace by a longer row, then by a shorter one.
  ASSERT_EQ(SetRow(t, 2, {"long field one", "long field two", "three"}), 1u);
  rows[2] = Pack({"long field one", "long field two", "three"});
  expectRows();
  ASSERT_EQ(SetRow(t, 4, {"", "", ""}), 1u);
  rows[4] = std::string(3, '\0');
  expectRows();
  // Insert an empty row in the middle, at the front and at the end.
  ASSERT_EQ(tableAddRow(t, 3), 1u);
  rows.insert(rows.begin() + 3, std::string(3, '\0'));
  expectRows();
  ASSERT_EQ(tableAddRow(t, 0), 1u);
  rows.insert(rows.begin(), std::string(3, '\0'));
  expectRows();
  ASSERT_EQ(tableAddRow(t, uint32_t(rows.size())), 1u);
  rows.push_back(std::string(3, '\0'));
  expectRows();
  ASSERT_EQ(tableAddRow(t, uint32_t(ROW_APPEND)), 1u);
  rows.push_back(std::string(3, '\0'));
  expectRows();
  ASSERT_EQ(SetRow(t, uint32_t(ROW_APPEND), {"x", "y", "z"}), 1u);
  rows.push_back(Pack({"x", "y", "z"}));
  expectRows();
  // Delete the first, a middle and the last row.
  for (uint32_t r : {0u, 4u, 8u}) {
    ASSERT_EQ(rows.size(), 11u - (r != 0) - (r == 8));
    tableDeleteRow(t, r);
    rows.erase(rows.begin() + r);
    expectRows();
  }
  // Out of range: nothing changes.
  std::string before = Data(t);
  uint32_t n = uint32_t(rows.size());
  EXPECT_EQ(tableAddRow(t, n + 1), 0u);
  EXPECT_EQ(tableAddRow(t, uint32_t(ROW_HEADER)), 0u);
  EXPECT_EQ(SetRow(t, n, {"a"}), 0u);
  EXPECT_EQ(SetRow(t, uint32_t(ROW_HEADER), {"a"}), 0u);
  tableDeleteRow(t, n);
  tableDeleteRow(t, uint32_t(ROW_APPEND));
  tableDeleteRow(0x80FE, 0);
  EXPECT_EQ(Data(t), before);
  EXPECT_EQ(tableGetRow(t, n, nullptr, 0), 0u);
  EXPECT_EQ(tableGetRow(t, uint32_t(ROW_APPEND), nullptr, 0), 0u);
  EXPECT_EQ(tableGetRow(t, uint32_t(ROW_HEADER), nullptr, 0), 0u);
}

TEST(TableRows, PackedRowsArePaddedOrCut) {
  HTABLE t = tableCreate(3, 0);
  ASSERT_EQ(tableSetRow(t, uint32_t(ROW_APPEND), "a", 2), 1u);
  EXPECT_EQ(GetRow(t, 0), std::string("a\0\0\0", 4));
  ASSERT_EQ(SetRow(t, 0, {"1", "2", "3", "4", "5"}), 1u);
  EXPECT_EQ(GetRow(t, 0), Pack({"1", "2", "3"}));
  // Size 0, a last byte that is not 0, an unreadable buffer.
  std::string before = Data(t);
  EXPECT_EQ(tableSetRow(t, 0, "ab", 0), 0u);
  EXPECT_EQ(tableSetRow(t, 0, "ab", 2), 0u);
  EXPECT_EQ(tableSetRow(t, 0, nullptr, 2), 0u);
  EXPECT_EQ(Data(t), before);
  // Names: exactly cols strings back; attributes: exactly five.
  ASSERT_EQ(SetRow(t, uint32_t(ROW_NAMES), {"One", "Two"}), 1u);
  EXPECT_EQ(GetRow(t, uint32_t(ROW_NAMES)), Pack({"One", "Two", ""}));
  EXPECT_EQ(tableGetColIndex(t, "two"), 1u);
  ASSERT_EQ(SetRow(t, uint32_t(ROW_ATTRIBUTES), {"w", "", "x", "y", "z", "extra"}), 1u);
  EXPECT_EQ(GetRow(t, uint32_t(ROW_ATTRIBUTES)), Pack({"w", "", "x", "y", "z"}));
  EXPECT_EQ(GetRow(t, 0), Pack({"1", "2", "3"}));
  ExpectConsistent(t);
  // Resetting names and attributes to empty strings.
  ASSERT_EQ(tableAddRow(t, uint32_t(ROW_NAMES)), 1u);
  EXPECT_EQ(GetRow(t, uint32_t(ROW_NAMES)), std::string(3, '\0'));
  ASSERT_EQ(tableAddRow(t, uint32_t(ROW_ATTRIBUTES)), 1u);
  EXPECT_EQ(GetRow(t, uint32_t(ROW_ATTRIBUTES)), std::string(5, '\0'));
  EXPECT_EQ(tableRowCount(t), 1u);
  EXPECT_EQ(GetRow(t, 0), Pack({"1", "2", "3"}));
  ExpectConsistent(t);
}

TEST(TableCopyOnWrite, TableCopySharesUntilTheFirstChange) {
  HTABLE a = MakeTable(2, 3);
  tableSetSelection(a, 1);
  HTABLE b = tableCopy(a, 12345);
  ASSERT_NE(b, 0u);
  EXPECT_EQ(Header(b), [&] {
    std::string h = Header(a);
    h.replace(coll::th::owner, 4, std::string(4, '\0'));
    return h;
  }());
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::TableData(coll::GetTablePtr(a)), coll::TableData(coll::GetTablePtr(b)));
    EXPECT_EQ(coll::ps->tableData[coll::TableDataIndex(coll::GetTablePtr(a))].refCount, 2u);
  }
  EXPECT_EQ(tableCompare(a, b, 0, 0), 3u);
  // A change through b is not seen through a, and the other way round.
  ASSERT_EQ(tableSetItem(b, 0, 0, "changed"), 1u);
  EXPECT_EQ(Field(a, 0, 0), "r0c0");
  EXPECT_EQ(Field(b, 0, 0), "changed");
  EXPECT_EQ(tableCompare(a, b, 0, 0), 0u);
  tableAddRow(a, 0);
  EXPECT_EQ(tableRowCount(a), 4u);
  EXPECT_EQ(tableRowCount(b), 3u);
  // Selection is per handle.
  tableSetSelection(b, 2);
  EXPECT_EQ(tableGetSelection(a), 1u);
  // Destroying one leaves the other intact.
  std::string data = Data(b);
  tableDestroy(a);
  EXPECT_EQ(Data(b), data);
  tableDestroy(b);
  coll::LockGuard lock;
  for (uint32_t i = 0; i < coll::kSlots; ++i) EXPECT_EQ(coll::ps->tableData[i].data, nullptr);
}

TEST(TableCopyOnWrite, EveryChangeMakesItsOwnBlock) {
  HTABLE a = MakeTable(2, 3);
  std::string data = Data(a);
  std::vector<std::function<void(HTABLE)>> changes = {
      [](HTABLE t) { tableSetItem(t, ROW_HEADER, 0, "N"); },
      [](HTABLE t) { tableSetItem(t, ROW_HEADER, uint32_t(-1), "A"); },
      [](HTABLE t) { tableAddRow(t, 1); },
      [](HTABLE t) { tableAddRow(t, uint32_t(ROW_NAMES)); },
      [](HTABLE t) { tableDeleteRow(t, 0); },
      [](HTABLE t) { SetRow(t, 1, {"p", "q"}); },
      [](HTABLE t) { SetRow(t, uint32_t(ROW_ATTRIBUTES), {"p", "q"}); },
  };
  for (auto &change : changes) {
    HTABLE b = tableCopy(a, 0);
    change(b);
    EXPECT_NE(Data(b), data);
    EXPECT_EQ(Data(a), data);
    tableDestroy(b);
  }
  // Three sharers: a change through the middle one leaves the other two
  // sharing.
  HTABLE b = tableCopy(a, 0), c = tableCopy(a, 0);
  tableSetItem(b, 0, 0, "b");
  coll::LockGuard lock;
  uint8_t *ha = coll::GetTablePtr(a), *hb = coll::GetTablePtr(b), *hc = coll::GetTablePtr(c);
  EXPECT_EQ(coll::TableData(ha), coll::TableData(hc));
  EXPECT_NE(coll::TableData(ha), coll::TableData(hb));
  EXPECT_EQ(coll::ps->tableData[coll::TableDataIndex(ha)].refCount, 2u);
  EXPECT_EQ(coll::ps->tableData[coll::TableDataIndex(hb)].refCount, 1u);
}

TEST(TableCompare, ShapesAttributesNamesAndRows) {
  const uint32_t none = 0xFFFFFFFFu;
  HTABLE a = MakeTable(2, 4), b = MakeTable(2, 4);
  EXPECT_EQ(tableCompare(a, b, 0, 0), 4u);
  EXPECT_EQ(tableCompare(a, b, 4, 0), 4u);
  EXPECT_EQ(tableCompare(a, b, 5, 0), none);
  tableSetItem(b, 2, 1, "R2C1");
  EXPECT_EQ(tableCompare(a, b, 0, 0), 2u);
  EXPECT_EQ(tableCompare(a, b, 3, 0), 4u);
  tableSetItem(b, 2, 1, "r2c1");
  tableSetItem(b, ROW_HEADER, 1, "C1");
  EXPECT_EQ(tableCompare(a, b, 0, 0), none);
  tableSetItem(b, ROW_HEADER, 1, "c1");
  tableSetItem(b, ROW_HEADER, uint32_t(-5), "x");
  EXPECT_EQ(tableCompare(a, b, 0, 0), none);
  tableSetItem(b, ROW_HEADER, uint32_t(-5), "");
  EXPECT_EQ(tableCompare(a, b, 0, 0), 4u);
  // A field moved across the boundary of two strings differs.
  tableSetItem(a, 1, 0, "ab");
  tableSetItem(a, 1, 1, "c");
  tableSetItem(b, 1, 0, "a");
  tableSetItem(b, 1, 1, "bc");
  EXPECT_EQ(tableCompare(a, b, 0, 0), 1u);
  HTABLE three = MakeTable(3, 4);
  EXPECT_EQ(tableCompare(a, three, 0, 0), none);
  EXPECT_EQ(tableCompare(a, 0x80FE, 0, 0), none);
}

TEST(TableCompare, AlignedAtTheEnd) {
  HTABLE five = MakeTable(2, 5), three = tableCreate(2, 0);
  SetRow(three, uint32_t(ROW_NAMES), {"c0", "c1"});
  for (uint32_t r = 2; r < 5; ++r) SetRow(three, uint32_t(ROW_APPEND), {"r" + std::to_string(r) + "c0", "r" + std::to_string(r) + "c1"});
  EXPECT_EQ(tableCompare(five, three, 0, 1), 3u);
  EXPECT_EQ(tableCompare(three, five, 0, 1), 3u);
  EXPECT_EQ(tableCompare(five, three, 0, 0), 0u);
  EXPECT_EQ(tableCompare(five, three, 1, 1), 3u);
  tableSetItem(three, 1, 0, "other");
  EXPECT_EQ(tableCompare(five, three, 0, 1), 1u);
  EXPECT_EQ(tableCompare(three, five, 0, 1), 1u);
  EXPECT_EQ(tableCompare(five, three, 2, 1), 3u);
  EXPECT_EQ(tableCompare(five, three, 4, 1), 0xFFFFFFFFu);
}

TEST(TableToCollection, StoresTheSelectedRowAsText) {
  HCOLL c = collOpen("dest");
  HTABLE t = tableCreate(3, 0);
  SetRow(t, uint32_t(ROW_NAMES), {"Name", "Town", "Zip"});
  SetRow(t, uint32_t(ROW_APPEND), {"ann", "", "123"});
  SetRow(t, uint32_t(ROW_APPEND), {"bob", "Rome", "456"});
  // No selection: nothing stored.
  EXPECT_EQ(tableDataToCollection(t, c), 0u);
  EXPECT_EQ(collItemCount(c), 0u);
  tableSetSelection(t, 1);
  ASSERT_EQ(tableDataToCollection(t, c), 1u);
  EXPECT_EQ(testutil::Tags(c), "Name,Town,Zip");
  EXPECT_EQ(collGetType(c, "town"), uint32_t(COLLTYPE_STRING));
  EXPECT_STREQ(testutil::Item(c, "Town").c_str(), "Rome");
  // An empty field deletes the item of that name.
  tableSetSelection(t, 0);
  ASSERT_EQ(tableDataToCollection(t, c), 1u);
  EXPECT_EQ(testutil::Tags(c), "Name,Zip");
  EXPECT_STREQ(testutil::Item(c, "Name").c_str(), "ann");
  // An invalid destination or table.
  EXPECT_EQ(tableDataToCollection(t, 0x40FE), 0u);
  EXPECT_EQ(tableDataToCollection(0x80FE, c), 0u);
}

TEST(TableToCollection, AnEmptyColumnNameStopsTheCopy) {
  HCOLL c = collOpen("dest");
  HTABLE t = tableCreate(2, 0);
  SetRow(t, uint32_t(ROW_NAMES), {"", "B"});
  SetRow(t, uint32_t(ROW_APPEND), {"x", "y"});
  tableSetSelection(t, 0);
  EXPECT_EQ(tableDataToCollection(t, c), 0u);
  EXPECT_EQ(collItemCount(c), 0u);
  // Earlier columns stay when a later one fails.
  SetRow(t, uint32_t(ROW_NAMES), {"A", ""});
  EXPECT_EQ(tableDataToCollection(t, c), 0u);
  EXPECT_EQ(testutil::Tags(c), "A");
}

TEST(TableObject, DataEndingInsideAStringStaysInBounds) {
  // A loaded image may end in the middle of its last string.
  HTABLE t = MakeTable(1, 1);
  tableSetItem(t, ROW_HEADER, uint32_t(-5), "xy");
  {
    coll::LockGuard lock;
    uint8_t *hdr = coll::GetTablePtr(t);
    coll::wr16(hdr + coll::th::length, coll::TableLength(hdr) - 1);
  }
  EXPECT_EQ(Field(t, ROW_HEADER, uint32_t(-5)), "xy");
  EXPECT_EQ(tableGetRow(t, uint32_t(ROW_ATTRIBUTES), nullptr, 0), 6u);
  ASSERT_EQ(tableSetItem(t, ROW_HEADER, uint32_t(-5), "z"), 1u);
  EXPECT_EQ(Field(t, ROW_HEADER, uint32_t(-5)), "z");
  EXPECT_EQ(Field(t, 0, 0), "r0c0");
  ExpectConsistent(t);
}

TEST(TableObject, NoFreeSlotLeavesNothingBehind) {
  std::vector<HTABLE> tables;
  for (HTABLE t; (t = tableCreate(2, 0)) != 0;) tables.push_back(t);
  ASSERT_EQ(tables.size(), 254u);
  EXPECT_EQ(tableCopy(tables[0], 0), 0u);
  HCOLL c = collOpen("c");
  EXPECT_EQ(collSetTable(c, "t", tables[0]), 0u);
  EXPECT_EQ(collItemCount(c), 0u);
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::ps->tableData[coll::TableDataIndex(coll::GetTablePtr(tables[0]))].refCount, 1u);
  }
  // A destroyed table's handle and record come back with the next one.
  tableDestroy(tables[100]);
  EXPECT_EQ(tableCreate(1, 0), tables[100]);
}

// Every heap allocation of a run of table operations fails in turn: each
// call fails as documented and leaves what it did not change intact.
TEST(TableAllocFailure, EveryAllocationFailsInTurn) {
  tableRowCount(0);  // start-up happens outside the runs
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(n);
    HTABLE t = tableCreate(2, 0);
    if (t) {
      // Growth past the first page by one long field.
      std::string wide(1500, 'w');
      SetRow(t, uint32_t(ROW_NAMES), {"x", "y"});
      uint32_t added = SetRow(t, uint32_t(ROW_APPEND), {"a", "b"});
      EXPECT_EQ(tableRowCount(t), added);
      if (added) {
        uint32_t set = tableSetItem(t, 0, 1, wide.c_str());
        EXPECT_EQ(Field(t, 0, 1), set ? wide.substr(0, 255) : "b");
      }
      // A change through a copy: both keep their own contents.
      std::string before = Data(t);
      HTABLE copy = tableCopy(t, 0);
      if (copy) {
        uint32_t changed = tableAddRow(copy, 0);
        EXPECT_EQ(Data(copy) == before, changed == 0);
        EXPECT_EQ(Data(t), before);
        tableDestroy(copy);
      }
      HCOLL c = collOpen("c");
      if (c && collSetTable(c, "t", t)) {
        HTABLE out = collGetTable(c, "t");
        EXPECT_EQ(collTableRowCount(c, "t"), tableRowCount(t));
        tableDestroy(out);
        tableSetSelection(t, 0);
        if (tableDataToCollection(t, c)) {
          EXPECT_EQ(testutil::Tags(c), "t,x,y");
        }
      }
      collClose(c);
      ExpectConsistent(t);
      tableDestroy(t);
    }
    uint32_t made = platform::FailAllocation(0);
    // Nothing is left behind.
    uint32_t handles[4];
    ASSERT_EQ(collGetTableHandles(handles, sizeof handles), 0u) << n;
    {
      coll::LockGuard lock;
      for (uint32_t i = 0; i < coll::kSlots; ++i) ASSERT_EQ(coll::ps->tableData[i].data, nullptr) << n;
    }
    if (made < n) break;
    ASSERT_LT(n, 1000u);
  }
}

// Changes of every kind between reads at random places, through a table and
// a copy sharing its block: every field equals the model's, and the row index
// (built by the far reads) stays in step with the strings.
TEST(TableRowIndex, FollowsEveryChange) {
  std::mt19937 rng(15);
  const uint32_t cols = 3;
  std::vector<Row> model(1, Row(cols)), copyModel;  // names first, then rows
  HTABLE t = tableCreate(cols, 0), copy = 0;
  auto text = [&] { return std::string(rng() % 6, char('a' + rng() % 26)); };
  for (int i = 0; i < 2500; ++i) {
    const uint32_t rows = uint32_t(model.size() - 1), r = rows ? uint32_t(rng() % rows) : 0;
    Row fields(cols);
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
        model.insert(model.begin() + at + 1, Row(cols));
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
          ASSERT_EQ(SetRow(t, r, fields), 1u);
          model[r + 1] = fields;
        }
        break;
      case 5:
        ASSERT_EQ(SetRow(t, uint32_t(ROW_APPEND), fields), 1u);
        model.push_back(fields);
        break;
      case 6:
        ASSERT_EQ(SetRow(t, uint32_t(ROW_NAMES), fields), 1u);
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
