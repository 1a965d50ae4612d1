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

// A case: the failure result and the call with its argument x, named by its
// text.
struct Case {
  const char *name;
  uint32_t failure;
  std::function<uint32_t(uint32_t)> call;
};
#define C(failure, ...) Case{#__VA_ARGS__, failure, [&]([[maybe_unused]] uint32_t x) { return uint32_t(__VA_ARGS__); }}

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
    ASSERT_TRUE(collSetItem(h, "raw", "abc", 3) && collSetString(h, "str", "hello") && collSetNumeric(h, "num", 5));
    ASSERT_TRUE(collSetTime(h, "time", 86400) && collSetTable(h, "tab", t) && collSetString(other, "x", "1"));
    ASSERT_TRUE(collSetColl(h, "kid", other));
    ASSERT_TRUE(collRequestAdvice(h, listener.window(), 1) && collRequestPropagate(h, other, 1));
    ownedTable = testutil::HandleOf(h, "tab");
    ownedColl = testutil::HandleOf(h, "kid");
    deadTable = tableCreate(1, 0);
    tableDestroy(deadTable);
    deadColl = collOpen("dead");
    collClose(deadColl);
    ASSERT_EQ(testutil::CheckState(), "");
    collHostSetClipboardText("kept");
  }

  void TearDown() override {
    EXPECT_EQ(testutil::CheckState(), "");
    char clip[16] = {};
    collHostGetClipboardText(clip, sizeof clip);
    EXPECT_STREQ(clip, "kept");
  }

  // Runs every case with every argument: the failure result, no change.
  void Run(const std::vector<Case> &cases, const std::vector<uint32_t> &arguments) {
    for (const Case &c : cases) {
      for (uint32_t a : arguments) {
        const std::string before = testutil::Snapshot();
        EXPECT_EQ(c.call(a), c.failure) << c.name << " with " << std::hex << a;
        EXPECT_EQ(testutil::SnapshotDiff(before, testutil::Snapshot()), "") << c.name << " with " << std::hex << a;
      }
    }
  }

  testutil::TempIni ini;
  testutil::Listener listener;
  HCOLL h = 0, other = 0, ownedColl = 0, deadColl = 0;
  HTABLE t = 0, ownedTable = 0, deadTable = 0;
  char buf[80] = {};
  uint32_t length = 7, time = 0;
};

TEST_F(Boundary, BadCollectionHandles) {
  Run({C(0, (collClose(x), 0)), C(0, (collEmpty(x), 0)), C(1, collIsBadCollHandle(x)), C(0, collGetShareCount(x)),
       C(0, collGetName(x, buf, sizeof buf)), C(0, collGetCreator(x, buf, sizeof buf)), C(0, collItemCount(x)),
       C(0, collNameItem(x, 0, buf, sizeof buf)), C(0, collGetType(x, "raw")), C(0, collCopyItem(x, h, "raw")),
       C(0, x ? collCopyItem(h, x, "raw") : 0),  // (a source of 0 deletes the tag)
       C(0, collRenameTag(x, "raw", "r2")), C(0, collSetItem(x, "a", "b", 1)), C(0, collGetItem(x, "raw", buf, 80)),
       C(0, (length = 7, Obtained(collObtainItem(x, "raw", Allocate, &length), &length))),
       C(kNone, collCompare(x, "str", "hello", 5)), C(0, collSetNumeric(x, "n", 1)), C(0, collGetNumeric(x, "num")),
       C(0, collSetString(x, "s", "v")), C(0, collGetString(x, "str", buf, sizeof buf)),
       C(0, (length = 7, Obtained(collObtainString(x, "str", Allocate, &length), &length))),
       C(0, collSetTime(x, "tm", 1)), C(0, collGetTime(x, "time", &time)), C(0, collSetColl(x, "k", other)),
       C(0, x ? collSetColl(h, "k2", x) : 0), C(0, collGetColl(x, "kid")), C(0, collMerge(x, other)),
       C(0, collMerge(other, x)), C(0, collSetTable(x, "t", t)), C(0, collGetTable(x, "tab")),
       C(kNone, collTableRowCount(x, "tab")), C(kNone, collTableColCount(x, "tab")), C(0, collTableGetStamp(x, "tab")),
       C(kNone, collTableGetColIndex(x, "tab", "B")), C(0, collTableGetField(x, "tab", 0, 0, buf, sizeof buf)),
       C(0, collTableGetRow(x, "tab", 0, buf, sizeof buf)), C(kNone, collTableGetSelection(x, "tab")),
       C(0, collTableSetSelection(x, "tab", 1)), C(kNone, collTableFindField(x, "tab", "two", 3, 0, 1)),
       C(kNone, collTableFindAbbrev(x, "tab", "t", 1, 0, 1)), C(0, collTableDataToCollection(x, h, "tab")),
       C(0, collTableDataToCollection(h, x, "tab")), C(0, tableDataToCollection(t, x)), C(0, collWrite(x)),
       C(0, collRequestAdvice(x, listener.window(), 1)), C(0, collRequestAdvice(x, listener.window(), 0)),
       C(0, collRequestPropagate(x, h, 1)), C(0, collRequestPropagate(h, x, 1)), C(0, collLock(x)),
       C(0, collUnlock(x)), C(0, collDumpItems(x, buf, sizeof buf)), C(0, collDumpItemsHex(x, buf, sizeof buf)),
       C(0, collLoadItems(x, "\0\0\0\x06\xCE\0\0\0", 8)), C(0, collLoadItemsHex(x, "0000000600EC0000", 16))},
      {0, 0x3FFF, 0x4000, 0x40FF, 0x8000, 0x8001, 0x80FF, 0x14001, 0xFFFFFFFF, t, deadColl, 0x4000 + 0xFE});
  // The catalog is refused as the destination of the setters (numbers are
  // stored into it); a nested collection is closed only with its owner.
  Run({C(0, collSetItem(x, "a", "b", 1)), C(0, collSetString(x, "s", "v")), C(0, collSetTime(x, "tm", 1)),
       C(0, collSetColl(x, "k", other)), C(0, collSetTable(x, "t", t))},
      {0x4001});
  Run({C(0, (collClose(x), 0))}, {ownedColl});
  EXPECT_EQ(length, 0u);
}

TEST_F(Boundary, BadTableHandlesRowsAndColumns) {
  Run({C(0, (tableDestroy(x), 0)), C(0, tableAddRow(x, 0)), C(0, (tableDeleteRow(x, 0), 0)),
       C(0, tableSetRow(x, 0, "a\0b", 4)), C(0, tableGetRow(x, 0, buf, sizeof buf)), C(0, tableSetItem(x, 0, 0, "v")),
       C(0, tableSetField(x, 0, 0, "v")), C(0, tableGetItem(x, 0, 0, buf, sizeof buf)),
       C(0, tableGetField(x, 0, 0, buf, sizeof buf)), C(kNone, tableRowCount(x)), C(kNone, tableColCount(x)),
       C(kNone, tableGetType(x)), C(0, tableGetStamp(x)), C(kNone, tableGetSelection(x)),
       C(0, tableSetSelection(x, 1)), C(kNone, tableGetColIndex(x, "B")), C(kNone, tableFindField(x, "two", 3, 0, 1)),
       C(kNone, tableFindAbbrev(x, "t", 1, 0, 1)), C(kNone, tableCompare(x, t, 0, 0)),
       C(kNone, tableCompare(t, x, 0, 0)), C(0, tableDataToCollection(x, other)), C(0, tableCopy(x, 0)),
       C(0, tableDataToClipboard(x, CLIP_NAMES_AND_ROWS)), C(0, collSetTable(other, "t", x))},
      {0, 0x3FFF, 0x4000, 0x40FF, 0x8000, 0x80FF, 0xFFFFFFFF, h, deadTable, 0x8000 + 0xFE});
  // A table owned by a collection goes only with its item.
  Run({C(0, (tableDestroy(x), 0))}, {ownedTable});
  // Row and column addresses that name nothing.
  Run({C(0, tableAddRow(t, x)), C(0, (tableDeleteRow(t, x), 0)), C(0, tableSetRow(t, x, "a\0b", 4)),
       C(0, tableGetRow(t, x, buf, sizeof buf)), C(0, tableSetItem(t, int32_t(x), 0, "v")),
       C(0, tableSetItem(t, 0, x, "v")), C(0, tableGetItem(t, int32_t(x), 0, buf, sizeof buf)),
       C(0, tableGetItem(t, 0, x, buf, sizeof buf)), C(0, collTableGetField(h, "tab", int32_t(x), 9, buf, sizeof buf)),
       C(0, collTableGetRow(h, "tab", x, buf, sizeof buf)), C(kNone, tableFindField(t, "two", 3, 0, x))},
      {3, 0x7FFF, 0xFFFF, 0x10000, 0x80000000u, 0xFFFFFFF0u});
  Run({C(0, tableDataToClipboard(t, x))}, {5, 0xFFFFFFFF});
}

TEST_F(Boundary, NullAndWildPointers) {
  // Each case gets the bad pointer P(x) as its pointer argument.
  static char *const bad[] = {nullptr, reinterpret_cast<char *>(0x10), reinterpret_cast<char *>(0xFFFF)};
  auto P = [](uint32_t i) { return bad[i]; };
  auto U = [](uint32_t i) { return reinterpret_cast<uint32_t *>(bad[i]); };
  Run({C(0, collGetType(h, P(x))), C(0, collCopyItem(other, h, P(x))), C(0, collRenameTag(h, P(x), "x")),
       C(0, collRenameTag(h, "raw", P(x))), C(0, collSetItem(h, P(x), "a", 1)), C(0, collSetItem(h, "raw", P(x), 5)),
       C(0, collGetItem(h, P(x), buf, sizeof buf)), C(0, collGetItem(h, "raw", P(x), 80)),
       C(0, collObtainItem(h, P(x), Allocate, &length) ? 1u : length),
       C(0, collObtainItem(h, "raw", nullptr, &length) ? 1u : 0u), C(kNone, collCompare(h, P(x), "x", 1)),
       C(kNone, collCompare(h, "str", P(x), 5)), C(0, collSetNumeric(h, P(x), 1)), C(0, collGetNumeric(h, P(x))),
       C(0, collSetString(h, P(x), "x")), C(0, collSetString(h, "str", P(x))),
       C(0, collGetString(h, P(x), buf, sizeof buf)), C(0, collGetString(h, "str", P(x), 80)),
       C(0, collObtainString(h, P(x), Allocate, &length) ? 1u : length), C(0, collSetTime(h, P(x), 1)),
       C(0, collGetTime(h, P(x), &time)), C(0, collGetTime(h, "time", U(x))), C(0, collSetColl(h, P(x), other)),
       C(0, collGetColl(h, P(x))), C(0, collSubstitute(h, P(x), buf, sizeof buf)),
       C(0, collSubstitute(h, "<!str.>", P(x), 80)), C(0, collSetTable(h, P(x), t)), C(0, collGetTable(h, P(x))),
       C(kNone, collTableRowCount(h, P(x))), C(kNone, collTableColCount(h, P(x))), C(0, collTableGetStamp(h, P(x))),
       C(kNone, collTableGetColIndex(h, P(x), "B")), C(kNone, collTableGetColIndex(h, "tab", P(x))),
       C(0, collTableGetField(h, "tab", 0, 0, P(x), 80)), C(0, collTableGetRow(h, "tab", 0, P(x), 80)),
       C(kNone, collTableGetSelection(h, P(x))), C(0, collTableSetSelection(h, P(x), 1)),
       C(kNone, collTableFindField(h, "tab", P(x), 3, 0, 1)), C(kNone, collTableFindAbbrev(h, "tab", P(x), 3, 0, 1)),
       C(0, collTableDataToCollection(other, h, P(x))), C(0, collGetName(h, P(x), 80)),
       C(0, collGetCreator(h, P(x), 80)), C(0, collNameItem(h, 0, P(x), 80)), C(0, collGetNonSharedHandles(U(x), 80)),
       C(0, collGetTableHandles(U(x), 80)), C(0, tableSetRow(t, 0, P(x), 4)), C(0, tableGetRow(t, 0, P(x), 80)),
       C(0, tableSetItem(t, 0, 0, P(x))), C(0, tableSetField(t, 0, 0, P(x))), C(0, tableGetItem(t, 0, 0, P(x), 80)),
       C(0, tableGetField(t, 0, 0, P(x), 80)), C(kNone, tableGetColIndex(t, P(x))),
       C(kNone, tableFindField(t, P(x), 3, 0, 1)), C(kNone, tableFindAbbrev(t, P(x), 3, 0, 1)),
       C(0, tableLoad(P(x), 100, 0, 0, 0)), C(0, x ? collOpen(P(x)) : 0), C(0, collOpenShared(P(x))),
       C(0, collOpenUnique(P(x))), C(0, x ? collGenerateNewName(P(x), 80) : 0),  // (null with a size skips a name)
       C(0, collDumpItems(h, P(x), 4000)), C(0, collDumpItemsHex(h, P(x), 8000)), C(0, collLoadItems(h, P(x), 100)),
       C(0, collLoadItemsHex(h, P(x), 100))},
      {0, 1, 2});
}

// Arguments that are well formed but name nothing the call can use.
TEST_F(Boundary, RefusedArguments) {
  void *wild = reinterpret_cast<void *>(0x10);
  Run({C(0, tableCreate(0, 0)),
       C(0, tableDataFromClipboard(x)),  // (the clipboard holds "kept": a text without a line end)
       C(0, collRequestPropagate(h, h, 1)), C(0, collRequestPropagate(h, 0, 1)), C(0, collSetColl(h, "self", h)),
       C(0, (collTaskAbort(x), 0)), C(0, collGetColl(h, "tab")), C(0, collGetTable(h, "str")),
       C(kNone, collTableRowCount(h, "kid")), C(0, collGetItem(h, "num", buf, sizeof buf)),
       C(0, collRenameTag(h, "str", "")), C(0, collSetItem(h, "", "x", 1)), C(0, tableLoad(wild, kNone, 0, 0, 0)),
       C(0, collLoadItems(h, wild, kNone)), C(0, collDumpItems(h, wild, kNone))},
      {0, 0xFFFF, 0xFFFFFFFF, platform::CurrentProcessId() + 1});
  // Windows: none, and one that is gone (on some platforms any number may
  // name a window); window 0 with on 0 asks only whether the handle is good.
  const uint32_t gone = collHostCreateWindow([](uint32_t, uint32_t, uintptr_t, intptr_t, void *) -> intptr_t { return 0; },
                                             nullptr);
  collHostDestroyWindow(gone);
  Run({C(0, collRequestAdvice(h, x, 1)), C(0, x ? collRequestAdvice(h, x, 0) : 0)}, {0, gone});
  collFree(nullptr);
  collFree(collAlloc(0));
}

// Getters never write at or past size, whatever it is; size 0 asks only.
TEST_F(Boundary, SmallSizesWriteNothingPastTheBuffer) {
  char *b = nullptr;
  const std::vector<Case> getters = {
      C(0, collGetName(h, b, x)), C(0, collGetCreator(h, b, x)), C(0, collNameItem(h, 0, b, x)),
      C(0, collGetItem(h, "raw", b, x)), C(0, collGetString(h, "num", b, x)),
      C(0, collSubstitute(h, "x<!str.>y", b, x)), C(0, collTableGetField(h, "tab", 1, 1, b, x)),
      C(0, collTableGetRow(h, "tab", 1, b, x)), C(0, tableGetItem(t, 1, 1, b, x)),
      C(0, tableGetField(t, ROW_HEADER, 1, b, x)), C(0, tableGetRow(t, uint32_t(ROW_NAMES), b, x)),
      C(0, x ? 0u : collGenerateNewName(b, x)), C(0, collDumpItems(h, b, x)), C(0, collDumpItemsHex(h, b, x)),
  };
  for (const Case &c : getters) {
    for (uint32_t size : {0u, 1u, 2u}) {
      char guard[8];
      std::memset(guard, 'Z', sizeof guard);
      b = size ? guard : nullptr;
      const std::string before = testutil::Snapshot();
      c.call(size);
      for (uint32_t i = size; i < sizeof guard; ++i) EXPECT_EQ(guard[i], 'Z') << c.name << " size " << size;
      EXPECT_EQ(testutil::SnapshotDiff(before, testutil::Snapshot()), "") << c.name;
    }
  }
  // A wild buffer with size 0 is never touched.
  EXPECT_NE(collGetItem(h, "raw", reinterpret_cast<void *>(0x10), 0), 0u);
  Run({C(0, tableSetRow(t, 0, "a\0b", x)), C(0, collLoadItems(h, "", x)), C(0, collLoadItemsHex(h, "", x)),
       C(0, tableLoad("", x, 0, 0, 0))},
      {0});
}

}  // namespace
