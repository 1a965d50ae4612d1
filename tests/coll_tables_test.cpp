// Tables held in collections: storing and taking out (copy on write), the
// readers by tag, and the copy of the selected row into a collection.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "coll.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/test_util.h"

namespace {

using Row = std::vector<std::string>;
constexpr uint32_t kNone = 0xFFFFFFFFu;

uint32_t SetRow(HTABLE t, uint32_t row, const Row &fields) {
  std::string packed;
  for (const std::string &s : fields) packed += s + '\0';
  return tableSetRow(t, row, packed.data(), uint32_t(packed.size()));
}

// Names "Name", "Town"; rows ("ann", "Oslo"), ("bob", "Rome"), ("cy", "").
HTABLE People() {
  HTABLE t = tableCreate(2, 3);
  SetRow(t, uint32_t(ROW_NAMES), {"Name", "Town"});
  SetRow(t, uint32_t(ROW_APPEND), {"ann", "Oslo"});
  SetRow(t, uint32_t(ROW_APPEND), {"bob", "Rome"});
  SetRow(t, uint32_t(ROW_APPEND), {"cy", ""});
  return t;
}

std::string ItemField(HCOLL c, const char *tag, int32_t row, uint32_t column) {
  char buf[64];
  return collTableGetField(c, tag, row, column, buf, sizeof buf) ? std::string(buf) : "<none>";
}

std::string Field(HTABLE t, int32_t row, uint32_t column) {
  char buf[64];
  return tableGetItem(t, row, column, buf, sizeof buf) ? std::string(buf) : "<none>";
}

// The item's own table handle (0 when there is no table item).
HTABLE ItemHandle(HCOLL c, const char *tag) {
  coll::LockGuard lock;
  uint8_t *img, *header;
  uint32_t h;
  return coll::RetrieveTableItem(c, &img, tag, &header, &h) ? h : 0;
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

}  // namespace

TEST(CollTables, StoredTableIsASnapshot) {
  HCOLL c = collOpen("c");
  HTABLE t = People();
  tableSetSelection(t, 1);
  ASSERT_EQ(collSetTable(c, "people", t), 1u);
  EXPECT_EQ(collGetType(c, "PEOPLE"), uint32_t(COLLTYPE_TABLE));
  HTABLE item = ItemHandle(c, "people");
  ASSERT_NE(item, 0u);
  EXPECT_NE(item, t);
  EXPECT_EQ(RefCount(t), 2u);
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::TableOwner(coll::GetTablePtr(item)), c);
  }
  EXPECT_EQ(collTableGetSelection(c, "people"), 1u);
  // Changes through the source are not seen in the item.
  tableAddRow(t, uint32_t(ROW_APPEND));
  tableSetItem(t, 0, 0, "changed");
  EXPECT_EQ(collTableRowCount(c, "people"), 3u);
  EXPECT_EQ(ItemField(c, "people", 0, 0), "ann");
  // The item's handle is left alone by tableDestroy; the source goes.
  tableDestroy(item);
  tableDestroy(t);
  EXPECT_EQ(tableRowCount(t), kNone);
  EXPECT_EQ(collTableRowCount(c, "people"), 3u);
  EXPECT_EQ(collTableColCount(c, "people"), 2u);
  EXPECT_EQ(ItemField(c, "people", 1, 1), "Rome");
  // Replacing the item releases its handle and, at the last reference, the
  // data block.
  ASSERT_EQ(collSetItem(c, "people", "x", 1), 1u);
  EXPECT_EQ(tableRowCount(item), kNone);
  EXPECT_EQ(RecordsInUse(), 0u);
}

TEST(CollTables, SetTableRefusals) {
  HCOLL c = collOpen("c");
  HTABLE t = People();
  EXPECT_EQ(collSetTable(c, nullptr, t), 0u);
  EXPECT_EQ(collSetTable(0x40FE, "x", t), 0u);
  EXPECT_EQ(collSetTable(0x4001, "x", t), 0u);
  EXPECT_EQ(collSetTable(c, "x", 0x80FE), 0u);
  EXPECT_EQ(collSetTable(c, "", t), 0u);
  EXPECT_EQ(collItemCount(c), 0u);
  EXPECT_EQ(RefCount(t), 1u);
  uint32_t handles[8];
  EXPECT_EQ(collGetTableHandles(handles, sizeof handles), 1u);
}

TEST(CollTables, GetTableGivesAnIndependentHandle) {
  HCOLL c = collOpen("c");
  HTABLE t = People();
  collSetTable(c, "p", t);
  tableDestroy(t);
  HTABLE out = collGetTable(c, "p");
  ASSERT_NE(out, 0u);
  EXPECT_EQ(RefCount(out), 2u);
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::TableOwner(coll::GetTablePtr(out)), 0u);
  }
  EXPECT_NE(tableGetStamp(out), 0u);
  EXPECT_GE(tableGetStamp(out), collTableGetStamp(c, "p"));
  tableDeleteRow(out, 0);
  tableSetItem(out, ROW_HEADER, 0, "Who");
  EXPECT_EQ(collTableRowCount(c, "p"), 3u);
  EXPECT_EQ(collTableGetColIndex(c, "p", "name"), 0u);
  EXPECT_EQ(collTableGetColIndex(c, "p", "who"), kNone);
  EXPECT_EQ(tableGetColIndex(out, "WHO"), 0u);
  // Closing the collection leaves the taken-out table intact.
  collClose(c);
  EXPECT_EQ(tableRowCount(out), 2u);
  EXPECT_EQ(Field(out, 0, 0), "bob");
  EXPECT_EQ(RecordsInUse(), 1u);
  EXPECT_EQ(collGetTable(c, "p"), 0u);
  HCOLL d = collOpen("d");
  collSetItem(d, "raw", "x", 1);
  EXPECT_EQ(collGetTable(d, "raw"), 0u);
  EXPECT_EQ(collGetTable(d, "missing"), 0u);
  EXPECT_EQ(collGetTable(d, nullptr), 0u);
}

TEST(CollTables, CopiedTableItemsShareUntilChanged) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  HTABLE t = People();
  collSetTable(a, "p", t);
  tableDestroy(t);
  ASSERT_EQ(collCopyItem(b, a, "p"), 1u);
  HTABLE ia = ItemHandle(a, "p"), ib = ItemHandle(b, "p");
  ASSERT_NE(ib, 0u);
  EXPECT_EQ(RefCount(ia), 2u);
  // The item's own handle is the only way to change its strings.
  ASSERT_EQ(tableSetItem(ib, 0, 1, "Bergen"), 1u);
  EXPECT_EQ(ItemField(a, "p", 0, 1), "Oslo");
  EXPECT_EQ(ItemField(b, "p", 0, 1), "Bergen");
  EXPECT_EQ(RefCount(ia), 1u);
  EXPECT_EQ(RefCount(ib), 1u);
  // Destroying one collection leaves the other's item intact.
  collClose(b);
  EXPECT_EQ(tableRowCount(ib), kNone);
  EXPECT_EQ(ItemField(a, "p", 0, 1), "Oslo");
  EXPECT_EQ(RecordsInUse(), 1u);
  collClose(a);
  EXPECT_EQ(RecordsInUse(), 0u);
}

TEST(CollTables, TaskAbortEndsOnlyFreeStandingTables) {
  HCOLL c = collOpen("c");
  HTABLE t = People();
  collSetTable(c, "p", t);
  HTABLE out = collGetTable(c, "p");
  collTaskAbort(platform::CurrentProcessId());
  EXPECT_EQ(tableRowCount(t), kNone);
  EXPECT_EQ(tableRowCount(out), kNone);
  EXPECT_EQ(collIsBadCollHandle(c), 1u);
  EXPECT_EQ(RecordsInUse(), 0u);
}

TEST(CollTables, ReadersByTag) {
  HCOLL c = collOpen("c");
  HTABLE t = People();
  tableSetItem(t, ROW_HEADER, uint32_t(-1), "widths");
  collSetTable(c, "p", t);
  EXPECT_EQ(ItemField(c, "p", ROW_HEADER, 0), "Name");
  EXPECT_EQ(ItemField(c, "p", ROW_HEADER, uint32_t(-1)), "widths");
  EXPECT_EQ(ItemField(c, "p", ROW_HEADER, 2), "<none>");
  EXPECT_EQ(ItemField(c, "p", 3, 0), "<none>");
  char buf[8];
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(collTableGetField(c, "p", 1, 1, buf, 3), 5u);
  EXPECT_STREQ(buf, "Ro");
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(collTableGetField(c, "missing", 1, 1, buf, 3), 0u);
  EXPECT_EQ(buf[0], 0);
  // Rows: copied whole or not at all.
  std::memset(buf, 'z', sizeof buf);
  EXPECT_EQ(collTableGetRow(c, "p", 1, buf, 8), 9u);
  EXPECT_EQ(std::string(buf, 8), "zzzzzzzz");
  char row[16];
  EXPECT_EQ(collTableGetRow(c, "p", 1, row, sizeof row), 9u);
  EXPECT_EQ(std::string(row, 9), std::string("bob\0Rome\0", 9));
  EXPECT_EQ(collTableGetRow(c, "p", uint32_t(ROW_NAMES), row, sizeof row), 10u);
  EXPECT_EQ(std::string(row, 10), std::string("Name\0Town\0", 10));
  EXPECT_EQ(collTableGetRow(c, "p", uint32_t(ROW_ATTRIBUTES), row, sizeof row), 11u);
  EXPECT_EQ(std::string(row, 11), std::string("widths\0\0\0\0\0", 11));
  EXPECT_EQ(collTableGetRow(c, "p", 3, row, sizeof row), 0u);
  // Searches.
  EXPECT_EQ(collTableFindField(c, "p", "ROME", kNone, 0, 1), 1u);
  EXPECT_EQ(collTableFindField(c, "p", "ROMEO", 4, 0, 1), 1u);
  EXPECT_EQ(collTableFindField(c, "p", "ro", kNone, 0, 1), kNone);
  EXPECT_EQ(collTableFindAbbrev(c, "p", "ro", kNone, 0, 1), 1u);
  EXPECT_EQ(collTableFindAbbrev(c, "p", "", kNone, 2, 1), 2u);
  EXPECT_EQ(collTableFindField(c, "p", "", kNone, 0, 1), 2u);
  EXPECT_EQ(collTableFindAbbrev(c, "p", "a", kNone, 0, 2), kNone);
  EXPECT_EQ(collTableFindAbbrev(c, "p", "a", kNone, 4, 0), kNone);
  EXPECT_EQ(collTableFindAbbrev(c, "p", nullptr, kNone, 0, 0), kNone);
  // Failures of the lookup.
  collSetItem(c, "raw", "x", 1);
  EXPECT_EQ(collTableRowCount(c, "raw"), kNone);
  EXPECT_EQ(collTableColCount(c, "missing"), kNone);
  EXPECT_EQ(collTableGetStamp(c, "raw"), 0u);
  EXPECT_EQ(collTableGetSelection(c, "raw"), kNone);
  EXPECT_EQ(collTableSetSelection(c, "raw", 0), 0u);
  EXPECT_EQ(collTableGetColIndex(c, "p", nullptr), kNone);
  EXPECT_EQ(collTableRowCount(0x40FE, "p"), kNone);
  EXPECT_EQ(collTableRowCount(c, nullptr), kNone);
}

TEST(CollTables, SelectionOfAnItem) {
  HCOLL c = collOpen("c");
  HTABLE t = People();
  collSetTable(c, "p", t);
  EXPECT_EQ(collTableGetSelection(c, "p"), kNone);
  EXPECT_EQ(collTableSetSelection(c, "p", 2), 1u);
  EXPECT_EQ(collTableGetSelection(c, "p"), 2u);
  EXPECT_EQ(tableGetSelection(t), kNone);  // the source keeps its own
  EXPECT_EQ(collTableSetSelection(c, "p", 3), 1u);
  EXPECT_EQ(collTableGetSelection(c, "p"), kNone);
  // A copy taken out starts with the item's selection.
  collTableSetSelection(c, "p", 1);
  HTABLE out = collGetTable(c, "p");
  EXPECT_EQ(tableGetSelection(out), 1u);
}

TEST(CollTables, SelectedRowToAnotherCollection) {
  HCOLL from = collOpen("from"), dest = collOpen("dest");
  HTABLE t = People();
  collSetTable(from, "p", t);
  collSetItem(dest, "Town", "old", 3);
  EXPECT_EQ(collTableDataToCollection(dest, from, "p"), 0u);  // no selection
  EXPECT_EQ(testutil::Tags(dest), "Town");
  collTableSetSelection(from, "p", 1);
  ASSERT_EQ(collTableDataToCollection(dest, from, "p"), 1u);
  EXPECT_EQ(testutil::Tags(dest), "Name,Town");
  EXPECT_STREQ(testutil::Item(dest, "name").c_str(), "bob");
  EXPECT_STREQ(testutil::Item(dest, "town").c_str(), "Rome");
  // An empty field deletes the item named like its column.
  collTableSetSelection(from, "p", 2);
  ASSERT_EQ(collTableDataToCollection(dest, from, "p"), 1u);
  EXPECT_EQ(testutil::Tags(dest), "Name");
  EXPECT_EQ(collTableDataToCollection(0x40FE, from, "p"), 0u);
  EXPECT_EQ(collTableDataToCollection(dest, 0x40FE, "p"), 0u);
  EXPECT_EQ(collTableDataToCollection(dest, from, "missing"), 0u);
  EXPECT_EQ(collTableDataToCollection(dest, from, nullptr), 0u);
  // The catalog is not refused as the destination.
  EXPECT_EQ(collTableDataToCollection(0x4001, from, "p"), 1u);
  EXPECT_STREQ(testutil::Item(0x4001, "Name").c_str(), "cy");
}

TEST(CollTables, SelectedRowIntoItsOwnCollection) {
  HCOLL c = collOpen("c");
  HTABLE t = tableCreate(2, 0);
  // The first column is named like the table item itself: storing it
  // replaces the item that the row is being read from.
  SetRow(t, uint32_t(ROW_NAMES), {"p", "Second"});
  SetRow(t, uint32_t(ROW_APPEND), {"first", "second"});
  tableSetSelection(t, 0);
  collSetTable(c, "p", t);
  uint32_t before[256];
  uint32_t open = collGetNonSharedHandles(before, sizeof before);
  ASSERT_EQ(collTableDataToCollection(c, c, "p"), 1u);
  EXPECT_EQ(testutil::Tags(c), "p,Second");
  EXPECT_EQ(collGetType(c, "p"), uint32_t(COLLTYPE_STRING));
  EXPECT_STREQ(testutil::Item(c, "p").c_str(), "first");
  EXPECT_STREQ(testutil::Item(c, "second").c_str(), "second");
  // No temporary collection stays, on success or failure.
  uint32_t after[256];
  EXPECT_EQ(collGetNonSharedHandles(after, sizeof after), open);
  EXPECT_EQ(collTableDataToCollection(c, c, "p"), 0u);
  EXPECT_EQ(collTableDataToCollection(c, c, "missing"), 0u);
  EXPECT_EQ(collGetNonSharedHandles(after, sizeof after), open);
  EXPECT_EQ(collIsBadCollHandle(c + 1), 1u);
  // Only the item in c and the caller's table are left.
  EXPECT_EQ(RecordsInUse(), 1u);
}
