// Hostile arguments at the exported boundary: handles out of range, of the
// other kind or of destroyed objects, null and wild pointers, and sizes at
// their limits. Every call must give its failure result and change nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

void *Allocate(uint32_t size) { return collAlloc(size); }

// 1 for a buffer from an obtain function (freed here), else the length the
// function set.
uint32_t Obtained(void *buffer, const uint32_t *length) {
  collFree(buffer);
  return buffer ? 1u : *length;
}

// A collection holding an item of every kind, a free-standing table with two
// rows, and handles of a destroyed collection and a destroyed table.
class Boundary : public ::testing::Test {
 protected:
  void SetUp() override {
    h = collOpen("holder");
    other = collOpen("other");
    t = tableCreate(2, 0);
    ASSERT_TRUE(h && other && t);
    ASSERT_TRUE(tableSetRow(t, uint32_t(ROW_NAMES), "A\0B", 4));
    ASSERT_TRUE(tableSetRow(t, uint32_t(ROW_APPEND), "1\0two", 6));
    ASSERT_TRUE(tableSetRow(t, uint32_t(ROW_APPEND), "3\0four", 7));
    tableSetSelection(t, 0);
    ASSERT_TRUE(collSetItem(h, "raw", "abc", 3));
    ASSERT_TRUE(collSetString(h, "str", "hello"));
    ASSERT_TRUE(collSetNumeric(h, "num", 5));
    ASSERT_TRUE(collSetTime(h, "time", 86400));
    ASSERT_TRUE(collSetTable(h, "tab", t));
    ASSERT_TRUE(collSetString(other, "x", "1"));
    ASSERT_TRUE(collSetColl(h, "kid", other));
    ASSERT_TRUE(collRequestAdvice(h, listener.window(), 1));
    ASSERT_TRUE(collRequestPropagate(h, other, 1));
    // The handles of what the collection owns.
    uint32_t tables[8];
    for (uint32_t i = 0, n = collGetTableHandles(tables, sizeof tables); i < n; ++i)
      if (tables[i] != t) ownedTable = tables[i];
    ownedColl = 0x4001 + 3;  // holder, other, then the nested copy
    ASSERT_EQ(collIsBadCollHandle(ownedColl), 0u);
    deadTable = tableCreate(1, 0);
    tableDestroy(deadTable);
    deadColl = collOpen("dead");
    collClose(deadColl);
    ASSERT_TRUE(collIsBadCollHandle(deadColl));
    ASSERT_EQ(testutil::CheckState(), "");
    collHostSetClipboardText("kept");
  }

  void TearDown() override {
    EXPECT_EQ(testutil::CheckState(), "");
    char clip[16] = {};
    collHostGetClipboardText(clip, sizeof clip);
    EXPECT_STREQ(clip, "kept");
    collClose(h);
    collClose(other);
    tableDestroy(t);
  }

  struct Case {
    const char *name;
    uint32_t failure;
    std::function<uint32_t(uint32_t)> call;
  };

  // Runs every case with every argument: the failure result, no change.
  void Run(const std::vector<Case> &cases, const std::vector<uint32_t> &arguments) {
    for (const Case &c : cases) {
      for (uint32_t a : arguments) {
        const std::string before = testutil::Snapshot();
        EXPECT_EQ(c.call(a), c.failure) << c.name << " with " << std::hex << a;
        EXPECT_EQ(testutil::SnapshotDiff(before, testutil::Snapshot()), "") << c.name << " with " << std::hex << a;
      }
    }
    EXPECT_EQ(testutil::CheckState(), "");
  }

  std::vector<uint32_t> BadCollHandles() const {
    return {0, 0x3FFF, 0x4000, 0x40FF, 0x8000, 0x80FF, 0xFFFFFFFF, t, deadColl, 0x4000 + 0xFE};
  }
  std::vector<uint32_t> BadTableHandles() const {
    return {0, 0x3FFF, 0x4000, 0x40FF, 0x8000, 0x80FF, 0xFFFFFFFF, h, deadTable, 0x8000 + 0xFE};
  }

  testutil::TempIni ini;
  testutil::Listener listener;
  HCOLL h = 0, other = 0, ownedColl = 0, deadColl = 0;
  HTABLE t = 0, ownedTable = 0, deadTable = 0;
  char buf[80] = {};
};

TEST_F(Boundary, BadCollectionHandles) {
  uint32_t length = 7, time = 0;
  auto voidCall = [](auto fn) { return [fn](uint32_t x) { fn(x); return 0u; }; };
  std::vector<Case> cases = {
      {"collClose", 0, voidCall([](uint32_t x) { collClose(x); })},
      {"collEmpty", 0, voidCall([](uint32_t x) { collEmpty(x); })},
      {"collIsBadCollHandle", 1, [](uint32_t x) { return collIsBadCollHandle(x); }},
      {"collGetShareCount", 0, [](uint32_t x) { return collGetShareCount(x); }},
      {"collGetName", 0, [&](uint32_t x) { return collGetName(x, buf, sizeof buf); }},
      {"collGetCreator", 0, [&](uint32_t x) { return collGetCreator(x, buf, sizeof buf); }},
      {"collItemCount", 0, [](uint32_t x) { return collItemCount(x); }},
      {"collNameItem", 0, [&](uint32_t x) { return collNameItem(x, 0, buf, sizeof buf); }},
      {"collGetType", 0, [](uint32_t x) { return collGetType(x, "raw"); }},
      {"collCopyItem to", 0, [&](uint32_t x) { return collCopyItem(x, h, "raw"); }},
      // (A source of 0 deletes the tag.)
      {"collCopyItem from", 0, [&](uint32_t x) { return x ? collCopyItem(h, x, "raw") : 0u; }},
      {"collRenameTag", 0, [](uint32_t x) { return collRenameTag(x, "raw", "r2"); }},
      {"collSetItem", 0, [](uint32_t x) { return collSetItem(x, "a", "b", 1); }},
      {"collGetItem", 0, [&](uint32_t x) { return collGetItem(x, "raw", buf, sizeof buf); }},
      {"collObtainItem", 0,
       [&](uint32_t x) { return length = 7, Obtained(collObtainItem(x, "raw", Allocate, &length), &length); }},
      {"collCompare", kNone, [](uint32_t x) { return uint32_t(collCompare(x, "str", "hello", 5)); }},
      {"collSetNumeric", 0, [](uint32_t x) { return collSetNumeric(x, "n", 1); }},
      {"collGetNumeric", 0, [](uint32_t x) { return uint32_t(collGetNumeric(x, "num")); }},
      {"collSetString", 0, [](uint32_t x) { return collSetString(x, "s", "v"); }},
      {"collGetString", 0, [&](uint32_t x) { return collGetString(x, "str", buf, sizeof buf); }},
      {"collObtainString", 0,
       [&](uint32_t x) { return length = 7, Obtained(collObtainString(x, "str", Allocate, &length), &length); }},
      {"collSetTime", 0, [](uint32_t x) { return collSetTime(x, "tm", 1); }},
      {"collGetTime", 0, [&](uint32_t x) { return collGetTime(x, "time", &time); }},
      {"collSetColl into", 0, [&](uint32_t x) { return collSetColl(x, "k", other); }},
      {"collSetColl from", 0, [&](uint32_t x) { return x ? collSetColl(h, "k2", x) : 0u; }},
      {"collGetColl", 0, [](uint32_t x) { return collGetColl(x, "kid"); }},
      {"collMerge into", 0, [&](uint32_t x) { return collMerge(x, other); }},
      {"collMerge from", 0, [&](uint32_t x) { return collMerge(other, x); }},
      {"collSetTable", 0, [&](uint32_t x) { return collSetTable(x, "t", t); }},
      {"collGetTable", 0, [](uint32_t x) { return collGetTable(x, "tab"); }},
      {"collTableRowCount", kNone, [](uint32_t x) { return collTableRowCount(x, "tab"); }},
      {"collTableColCount", kNone, [](uint32_t x) { return collTableColCount(x, "tab"); }},
      {"collTableGetStamp", 0, [](uint32_t x) { return collTableGetStamp(x, "tab"); }},
      {"collTableGetColIndex", kNone, [](uint32_t x) { return collTableGetColIndex(x, "tab", "B"); }},
      {"collTableGetField", 0, [&](uint32_t x) { return collTableGetField(x, "tab", 0, 0, buf, sizeof buf); }},
      {"collTableGetRow", 0, [&](uint32_t x) { return collTableGetRow(x, "tab", 0, buf, sizeof buf); }},
      {"collTableGetSelection", kNone, [](uint32_t x) { return collTableGetSelection(x, "tab"); }},
      {"collTableSetSelection", 0, [](uint32_t x) { return collTableSetSelection(x, "tab", 1); }},
      {"collTableFindField", kNone, [](uint32_t x) { return collTableFindField(x, "tab", "two", 3, 0, 1); }},
      {"collTableFindAbbrev", kNone, [](uint32_t x) { return collTableFindAbbrev(x, "tab", "t", 1, 0, 1); }},
      {"collTableDataToCollection to", 0, [&](uint32_t x) { return collTableDataToCollection(x, h, "tab"); }},
      {"collTableDataToCollection from", 0, [&](uint32_t x) { return collTableDataToCollection(h, x, "tab"); }},
      {"tableDataToCollection", 0, [&](uint32_t x) { return tableDataToCollection(t, x); }},
      {"collWrite", 0, [](uint32_t x) { return collWrite(x); }},
      {"collRequestAdvice", 0, [&](uint32_t x) { return collRequestAdvice(x, listener.window(), 1); }},
      {"collRequestAdvice off", 0, [&](uint32_t x) { return collRequestAdvice(x, listener.window(), 0); }},
      {"collRequestPropagate source", 0, [&](uint32_t x) { return collRequestPropagate(x, h, 1); }},
      {"collRequestPropagate target", 0, [&](uint32_t x) { return collRequestPropagate(h, x, 1); }},
      {"collLock", 0, [](uint32_t x) { return collLock(x); }},
      {"collUnlock", 0, [](uint32_t x) { return collUnlock(x); }},
      {"collDumpItems", 0, [&](uint32_t x) { return collDumpItems(x, buf, sizeof buf); }},
      {"collDumpItemsHex", 0, [&](uint32_t x) { return collDumpItemsHex(x, buf, sizeof buf); }},
      {"collLoadItems", 0, [](uint32_t x) { return collLoadItems(x, "\0\0\0\x06\xCE\0\0\0", 8); }},
      {"collLoadItemsHex", 0, [](uint32_t x) { return collLoadItemsHex(x, "0000000600EC0000", 16); }},
  };
  Run(cases, BadCollHandles());
  // The catalog is refused as the destination of the setters (numbers are
  // stored into it).
  std::vector<Case> setters = {
      {"collSetItem", 0, [](uint32_t x) { return collSetItem(x, "a", "b", 1); }},
      {"collSetString", 0, [](uint32_t x) { return collSetString(x, "s", "v"); }},
      {"collSetTime", 0, [](uint32_t x) { return collSetTime(x, "tm", 1); }},
      {"collSetColl", 0, [&](uint32_t x) { return collSetColl(x, "k", other); }},
      {"collSetTable", 0, [&](uint32_t x) { return collSetTable(x, "t", t); }},
  };
  Run(setters, {0x4001});
  // A nested collection is closed only with its owner.
  Run({{"collClose", 0, voidCall([](uint32_t x) { collClose(x); })}}, {ownedColl});
  EXPECT_EQ(length, 0u);
}

TEST_F(Boundary, BadTableHandles) {
  auto voidCall = [](auto fn) { return [fn](uint32_t x) { fn(x); return 0u; }; };
  std::vector<Case> cases = {
      {"tableDestroy", 0, voidCall([](uint32_t x) { tableDestroy(x); })},
      {"tableAddRow", 0, [](uint32_t x) { return tableAddRow(x, 0); }},
      {"tableDeleteRow", 0, voidCall([](uint32_t x) { tableDeleteRow(x, 0); })},
      {"tableSetRow", 0, [](uint32_t x) { return tableSetRow(x, 0, "a\0b", 4); }},
      {"tableGetRow", 0, [&](uint32_t x) { return tableGetRow(x, 0, buf, sizeof buf); }},
      {"tableSetItem", 0, [](uint32_t x) { return tableSetItem(x, 0, 0, "v"); }},
      {"tableSetField", 0, [](uint32_t x) { return tableSetField(x, 0, 0, "v"); }},
      {"tableGetItem", 0, [&](uint32_t x) { return tableGetItem(x, 0, 0, buf, sizeof buf); }},
      {"tableGetField", 0, [&](uint32_t x) { return tableGetField(x, 0, 0, buf, sizeof buf); }},
      {"tableRowCount", kNone, [](uint32_t x) { return tableRowCount(x); }},
      {"tableColCount", kNone, [](uint32_t x) { return tableColCount(x); }},
      {"tableGetType", kNone, [](uint32_t x) { return tableGetType(x); }},
      {"tableGetStamp", 0, [](uint32_t x) { return tableGetStamp(x); }},
      {"tableGetSelection", kNone, [](uint32_t x) { return tableGetSelection(x); }},
      {"tableSetSelection", 0, [](uint32_t x) { return tableSetSelection(x, 1); }},
      {"tableGetColIndex", kNone, [](uint32_t x) { return tableGetColIndex(x, "B"); }},
      {"tableFindField", kNone, [](uint32_t x) { return tableFindField(x, "two", 3, 0, 1); }},
      {"tableFindAbbrev", kNone, [](uint32_t x) { return tableFindAbbrev(x, "t", 1, 0, 1); }},
      {"tableCompare first", kNone, [&](uint32_t x) { return tableCompare(x, t, 0, 0); }},
      {"tableCompare second", kNone, [&](uint32_t x) { return tableCompare(t, x, 0, 0); }},
      {"tableDataToCollection", 0, [&](uint32_t x) { return tableDataToCollection(x, other); }},
      {"tableCopy", 0, [](uint32_t x) { return tableCopy(x, 0); }},
      {"tableDataToClipboard", 0, [](uint32_t x) { return tableDataToClipboard(x, CLIP_NAMES_AND_ROWS); }},
      {"collSetTable", 0, [&](uint32_t x) { return collSetTable(other, "t", x); }},
  };
  Run(cases, BadTableHandles());
  // A table owned by a collection goes only with its item.
  Run({{"tableDestroy", 0, voidCall([](uint32_t x) { tableDestroy(x); })}}, {ownedTable});
  // Row and column addresses that name nothing.
  std::vector<Case> rows = {
      {"tableAddRow", 0, [&](uint32_t r) { return tableAddRow(t, r); }},
      {"tableDeleteRow", 0, voidCall([&](uint32_t r) { tableDeleteRow(t, r); })},
      {"tableSetRow", 0, [&](uint32_t r) { return tableSetRow(t, r, "a\0b", 4); }},
      {"tableGetRow", 0, [&](uint32_t r) { return tableGetRow(t, r, buf, sizeof buf); }},
      {"tableSetItem row", 0, [&](uint32_t r) { return tableSetItem(t, int32_t(r), 0, "v"); }},
      {"tableSetItem column", 0, [&](uint32_t c) { return tableSetItem(t, 0, c, "v"); }},
      {"tableGetItem row", 0, [&](uint32_t r) { return tableGetItem(t, int32_t(r), 0, buf, sizeof buf); }},
      {"tableGetItem column", 0, [&](uint32_t c) { return tableGetItem(t, 0, c, buf, sizeof buf); }},
      {"collTableGetField", 0, [&](uint32_t r) { return collTableGetField(h, "tab", int32_t(r), 9, buf, sizeof buf); }},
      {"collTableGetRow", 0, [&](uint32_t r) { return collTableGetRow(h, "tab", r, buf, sizeof buf); }},
      {"tableFindField", kNone, [&](uint32_t c) { return tableFindField(t, "two", 3, 0, c); }},
  };
  Run(rows, {3, 0x7FFF, 0xFFFF, 0x10000, 0x80000000u, 0xFFFFFFF0u});
  EXPECT_EQ(tableDataToClipboard(t, 5), 0u);
  EXPECT_EQ(tableDataToClipboard(t, 0xFFFFFFFF), 0u);
}

TEST_F(Boundary, NullAndWildPointers) {
  uint32_t length = 7, time = 0;
  // Each case gets the bad pointer as its pointer argument.
  auto P = [](uint32_t i) -> char * {
    static char *const bad[] = {nullptr, reinterpret_cast<char *>(0x10), reinterpret_cast<char *>(0xFFFF)};
    return bad[i];
  };
  std::vector<Case> cases = {
      {"collGetType", 0, [&](uint32_t i) { return collGetType(h, P(i)); }},
      {"collCopyItem", 0, [&](uint32_t i) { return collCopyItem(other, h, P(i)); }},
      {"collRenameTag old", 0, [&](uint32_t i) { return collRenameTag(h, P(i), "x"); }},
      {"collRenameTag new", 0, [&](uint32_t i) { return collRenameTag(h, "raw", P(i)); }},
      {"collSetItem tag", 0, [&](uint32_t i) { return collSetItem(h, P(i), "a", 1); }},
      {"collSetItem data", 0, [&](uint32_t i) { return collSetItem(h, "raw", P(i), 5); }},
      {"collGetItem tag", 0, [&](uint32_t i) { return collGetItem(h, P(i), buf, sizeof buf); }},
      {"collGetItem buffer", 0, [&](uint32_t i) { return collGetItem(h, "raw", P(i), 80); }},
      {"collObtainItem tag", 0,
       [&](uint32_t i) { return collObtainItem(h, P(i), Allocate, &length) ? 1u : length; }},
      {"collObtainItem allocator", 0,
       [&](uint32_t i) { return collObtainItem(h, "raw", i ? nullptr : nullptr, &length) ? 1u : 0u; }},
      {"collCompare tag", kNone, [&](uint32_t i) { return uint32_t(collCompare(h, P(i), "x", 1)); }},
      {"collCompare value", kNone, [&](uint32_t i) { return uint32_t(collCompare(h, "str", P(i), 5)); }},
      {"collSetNumeric", 0, [&](uint32_t i) { return collSetNumeric(h, P(i), 1); }},
      {"collGetNumeric", 0, [&](uint32_t i) { return uint32_t(collGetNumeric(h, P(i))); }},
      {"collSetString tag", 0, [&](uint32_t i) { return collSetString(h, P(i), "x"); }},
      {"collSetString text", 0, [&](uint32_t i) { return collSetString(h, "str", P(i)); }},
      {"collGetString tag", 0, [&](uint32_t i) { return collGetString(h, P(i), buf, sizeof buf); }},
      {"collGetString buffer", 0, [&](uint32_t i) { return collGetString(h, "str", P(i), 80); }},
      {"collObtainString", 0,
       [&](uint32_t i) { return collObtainString(h, P(i), Allocate, &length) ? 1u : length; }},
      {"collSetTime", 0, [&](uint32_t i) { return collSetTime(h, P(i), 1); }},
      {"collGetTime tag", 0, [&](uint32_t i) { return collGetTime(h, P(i), &time); }},
      {"collGetTime out", 0, [&](uint32_t i) { return collGetTime(h, "time", reinterpret_cast<uint32_t *>(P(i))); }},
      {"collSetColl", 0, [&](uint32_t i) { return collSetColl(h, P(i), other); }},
      {"collGetColl", 0, [&](uint32_t i) { return collGetColl(h, P(i)); }},
      {"collSubstitute template", 0, [&](uint32_t i) { return collSubstitute(h, P(i), buf, sizeof buf); }},
      {"collSubstitute buffer", 0, [&](uint32_t i) { return collSubstitute(h, "<!str.>", P(i), 80); }},
      {"collSetTable", 0, [&](uint32_t i) { return collSetTable(h, P(i), t); }},
      {"collGetTable", 0, [&](uint32_t i) { return collGetTable(h, P(i)); }},
      {"collTableRowCount", kNone, [&](uint32_t i) { return collTableRowCount(h, P(i)); }},
      {"collTableColCount", kNone, [&](uint32_t i) { return collTableColCount(h, P(i)); }},
      {"collTableGetStamp", 0, [&](uint32_t i) { return collTableGetStamp(h, P(i)); }},
      {"collTableGetColIndex tag", kNone, [&](uint32_t i) { return collTableGetColIndex(h, P(i), "B"); }},
      {"collTableGetColIndex name", kNone, [&](uint32_t i) { return collTableGetColIndex(h, "tab", P(i)); }},
      {"collTableGetField", 0, [&](uint32_t i) { return collTableGetField(h, "tab", 0, 0, P(i), 80); }},
      {"collTableGetRow", 0, [&](uint32_t i) { return collTableGetRow(h, "tab", 0, P(i), 80); }},
      {"collTableGetSelection", kNone, [&](uint32_t i) { return collTableGetSelection(h, P(i)); }},
      {"collTableSetSelection", 0, [&](uint32_t i) { return collTableSetSelection(h, P(i), 1); }},
      {"collTableFindField", kNone, [&](uint32_t i) { return collTableFindField(h, "tab", P(i), 3, 0, 1); }},
      {"collTableFindAbbrev", kNone, [&](uint32_t i) { return collTableFindAbbrev(h, "tab", P(i), 3, 0, 1); }},
      {"collTableDataToCollection", 0, [&](uint32_t i) { return collTableDataToCollection(other, h, P(i)); }},
      {"collGetName", 0, [&](uint32_t i) { return collGetName(h, P(i), 80); }},
      {"collGetCreator", 0, [&](uint32_t i) { return collGetCreator(h, P(i), 80); }},
      {"collNameItem", 0, [&](uint32_t i) { return collNameItem(h, 0, P(i), 80); }},
      {"collGetNonSharedHandles", 0,
       [&](uint32_t i) { return collGetNonSharedHandles(reinterpret_cast<uint32_t *>(P(i)), 80); }},
      {"collGetTableHandles", 0,
       [&](uint32_t i) { return collGetTableHandles(reinterpret_cast<uint32_t *>(P(i)), 80); }},
      {"tableSetRow", 0, [&](uint32_t i) { return tableSetRow(t, 0, P(i), 4); }},
      {"tableGetRow", 0, [&](uint32_t i) { return tableGetRow(t, 0, P(i), 80); }},
      {"tableSetItem", 0, [&](uint32_t i) { return tableSetItem(t, 0, 0, P(i)); }},
      {"tableSetField", 0, [&](uint32_t i) { return tableSetField(t, 0, 0, P(i)); }},
      {"tableGetItem", 0, [&](uint32_t i) { return tableGetItem(t, 0, 0, P(i), 80); }},
      {"tableGetField", 0, [&](uint32_t i) { return tableGetField(t, 0, 0, P(i), 80); }},
      {"tableGetColIndex", kNone, [&](uint32_t i) { return tableGetColIndex(t, P(i)); }},
      {"tableFindField", kNone, [&](uint32_t i) { return tableFindField(t, P(i), 3, 0, 1); }},
      {"tableFindAbbrev", kNone, [&](uint32_t i) { return tableFindAbbrev(t, P(i), 3, 0, 1); }},
      {"tableLoad", 0, [&](uint32_t i) { return tableLoad(P(i), 100, 0, 0, 0); }},
      {"collOpen", 0, [&](uint32_t i) { return i ? collOpen(P(i)) : 0u; }},
      {"collOpenShared", 0, [&](uint32_t i) { return collOpenShared(P(i)); }},
      {"collOpenUnique", 0, [&](uint32_t i) { return collOpenUnique(P(i)); }},
      // (A null buffer with a size skips a name.)
      {"collGenerateNewName", 0, [&](uint32_t i) { return i ? collGenerateNewName(P(i), 80) : 0u; }},
      {"collDumpItems", 0, [&](uint32_t i) { return collDumpItems(h, P(i), 4000); }},
      {"collDumpItemsHex", 0, [&](uint32_t i) { return collDumpItemsHex(h, P(i), 8000); }},
      {"collLoadItems", 0, [&](uint32_t i) { return collLoadItems(h, P(i), 100); }},
      {"collLoadItemsHex", 0, [&](uint32_t i) { return collLoadItemsHex(h, P(i), 100); }},
  };
  Run(cases, {0, 1, 2});
}

// Arguments that are well formed but name nothing the call can use.
TEST_F(Boundary, RefusedArguments) {
  const uint32_t pid = platform::CurrentProcessId();
  std::vector<Case> cases = {
      {"tableCreate without columns", 0, [](uint32_t) { return tableCreate(0, 0); }},
      // (The clipboard holds "kept": a text without a line end.)
      {"tableDataFromClipboard", 0, [](uint32_t w) { return tableDataFromClipboard(w); }},
      {"collRequestPropagate to itself", 0, [&](uint32_t) { return collRequestPropagate(h, h, 1); }},
      {"collRequestPropagate to none", 0, [&](uint32_t) { return collRequestPropagate(h, 0, 1); }},
      {"collSetColl into itself", 0, [&](uint32_t) { return collSetColl(h, "self", h); }},
      {"collTaskAbort of another process", 0, [&](uint32_t p) { collTaskAbort(p); return 0u; }},
      {"collGetColl of a table item", 0, [&](uint32_t) { return collGetColl(h, "tab"); }},
      {"collGetTable of a text item", 0, [&](uint32_t) { return collGetTable(h, "str"); }},
      {"collTableRowCount of a nested item", kNone, [&](uint32_t) { return collTableRowCount(h, "kid"); }},
      {"collGetItem of a number", 0, [&](uint32_t) { return collGetItem(h, "num", buf, sizeof buf); }},
      {"collRenameTag to an empty tag", 0, [&](uint32_t) { return collRenameTag(h, "str", ""); }},
      {"collSetItem with an empty tag", 0, [&](uint32_t) { return collSetItem(h, "", "x", 1); }},
      {"tableLoad of a wild image", 0,
       [&](uint32_t) { return tableLoad(reinterpret_cast<void *>(0x10), 0xFFFFFFFF, 0, 0, 0); }},
      {"collLoadItems of a wild image", 0,
       [&](uint32_t) { return collLoadItems(h, reinterpret_cast<void *>(0x10), 0xFFFFFFFF); }},
      {"collDumpItems into a wild buffer", 0,
       [&](uint32_t) { return collDumpItems(h, reinterpret_cast<void *>(0x10), 0xFFFFFFFF); }},
  };
  Run(cases, {0, 0xFFFF, 0xFFFFFFFF, pid + 1});
  // Windows: none, and one that is gone (on some platforms any number may
  // name a window).
  const uint32_t gone = collHostCreateWindow([](uint32_t, uint32_t, uintptr_t, intptr_t, void *) -> intptr_t { return 0; },
                                             nullptr);
  collHostDestroyWindow(gone);
  std::vector<Case> windows = {
      {"collRequestAdvice of no window", 0, [&](uint32_t w) { return collRequestAdvice(h, w, 1); }},
      // (Window 0 with on 0 asks only whether the handle is good.)
      {"collRequestAdvice off for no window", 0, [&](uint32_t w) { return w ? collRequestAdvice(h, w, 0) : 0u; }},
  };
  Run(windows, {0, gone});
  collFree(nullptr);
  collFree(collAlloc(0));
}

// Getters never write at or past size, whatever it is; size 0 asks only.
TEST_F(Boundary, SmallSizesWriteNothingPastTheBuffer) {
  using Getter = std::function<uint32_t(char *, uint32_t)>;
  std::vector<std::pair<const char *, Getter>> getters = {
      {"collGetName", [&](char *b, uint32_t s) { return collGetName(h, b, s); }},
      {"collGetCreator", [&](char *b, uint32_t s) { return collGetCreator(h, b, s); }},
      {"collNameItem", [&](char *b, uint32_t s) { return collNameItem(h, 0, b, s); }},
      {"collGetItem", [&](char *b, uint32_t s) { return collGetItem(h, "raw", b, s); }},
      {"collGetString", [&](char *b, uint32_t s) { return collGetString(h, "num", b, s); }},
      {"collSubstitute", [&](char *b, uint32_t s) { return collSubstitute(h, "x<!str.>y", b, s); }},
      {"collTableGetField", [&](char *b, uint32_t s) { return collTableGetField(h, "tab", 1, 1, b, s); }},
      {"collTableGetRow", [&](char *b, uint32_t s) { return collTableGetRow(h, "tab", 1, b, s); }},
      {"tableGetItem", [&](char *b, uint32_t s) { return tableGetItem(t, 1, 1, b, s); }},
      {"tableGetField", [&](char *b, uint32_t s) { return tableGetField(t, ROW_HEADER, 1, b, s); }},
      {"tableGetRow", [&](char *b, uint32_t s) { return tableGetRow(t, uint32_t(ROW_NAMES), b, s); }},
      {"collGenerateNewName", [&](char *b, uint32_t s) { return s ? 0u : collGenerateNewName(b, s); }},
      {"collDumpItems", [&](char *b, uint32_t s) { return collDumpItems(h, b, s); }},
      {"collDumpItemsHex", [&](char *b, uint32_t s) { return collDumpItemsHex(h, b, s); }},
  };
  for (const auto &[name, get] : getters) {
    for (uint32_t size : {0u, 1u, 2u}) {
      char guard[8];
      std::memset(guard, 'Z', sizeof guard);
      const std::string before = testutil::Snapshot();
      get(size ? guard : nullptr, size);
      for (uint32_t i = size; i < sizeof guard; ++i) EXPECT_EQ(guard[i], 'Z') << name << " size " << size;
      EXPECT_EQ(testutil::SnapshotDiff(before, testutil::Snapshot()), "") << name;
    }
  }
  // A wild buffer with size 0 is never touched.
  EXPECT_NE(collGetItem(h, "raw", reinterpret_cast<void *>(0x10), 0), 0u);
  EXPECT_EQ(tableSetRow(t, 0, "a\0b", 0), 0u);
  EXPECT_EQ(collLoadItems(h, "", 0), 0u);
  EXPECT_EQ(collLoadItemsHex(h, "", 0), 0u);
  EXPECT_EQ(tableLoad("", 0, 0, 0, 0), 0u);
}

}  // namespace
