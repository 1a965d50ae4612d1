// Every heap allocation the library makes is made to fail in turn: each call
// must report failure as documented, keep what it was not asked to change,
// and leave every image consistent (LeakSanitizer finds what it leaked).
#include <gtest/gtest.h>

#include <cstdio>
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

using testutil::Item;
constexpr uint32_t kFail = 0;

void *Allocate(uint32_t size) { return collAlloc(size); }

// Every row of a table as packed rows joined by '|' (reads allocate nothing).
std::string Rows(HTABLE t) {
  std::string out;
  char buf[2048];
  for (uint32_t r = 0, n = tableRowCount(t); n != 0xFFFFFFFFu && r < n; ++r) {
    const uint32_t len = tableGetRow(t, r, buf, sizeof buf);
    out.append(buf, len <= sizeof buf ? len : 0).append("|");
  }
  return out;
}

// Collections a scenario opens; all closed at its end.
struct Opened {
  std::vector<HCOLL> all;
  bool Open(std::initializer_list<HCOLL *> hs, const char *name = "c") {
    for (HCOLL *h : hs) all.push_back(*h = collOpen(name));
    for (HCOLL h : all)
      if (!h) return false;
    return true;
  }
  ~Opened() {
    for (auto it = all.rbegin(); it != all.rend(); ++it) collClose(*it);
  }
};

void RawItemsAndTheEngine() {
  Opened o;
  HCOLL h, src, dst;
  if (!o.Open({&h, &src, &dst})) return;
  // A new item is stored or absent; a failed replacement, rename or copy
  // keeps the old value.
  const uint32_t r = collSetItem(h, "x", "12345", 5);
  EXPECT_EQ(Item(h, "x"), r ? "12345" : "<missing>");
  const std::string before = Item(h, "x");
  EXPECT_EQ(Item(h, "x"), collSetItem(h, "x", "1234567", 7) ? "1234567" : before);
  const std::string big(5000, 'b');  // growth by pages
  EXPECT_EQ(Item(h, "big"), collSetItem(h, "big", big.data(), 5000) ? big : "<missing>");
  const std::string value = Item(h, "x");
  if (collRenameTag(h, "x", "y")) { EXPECT_EQ(Item(h, "y") + Item(h, "x"), value + "<missing>"); }
  else { EXPECT_EQ(Item(h, "x"), value); }
  // Nested copies are complete or absent.
  collSetString(src, "a", "1");
  collSetNumeric(src, "b", 2);
  const bool full = collItemCount(src) == 2;
  collSetColl(h, "kid", src);
  collSetItem(dst, "kid", "old", 3);
  const std::string old = Item(dst, "kid");
  if (collCopyItem(dst, h, "kid")) { EXPECT_EQ(collGetType(dst, "kid"), collGetType(h, "kid")); }
  else { EXPECT_EQ(Item(dst, "kid"), old); }
  const HCOLL got = collGetColl(h, "kid");
  if (got && full && collGetType(h, "kid") == COLLTYPE_COLL) { EXPECT_EQ(collItemCount(got), 2u); }
  collClose(got);
  // A merge drops an item whose value cannot be copied and goes on.
  if (collMerge(dst, src) && full) { EXPECT_TRUE(collGetType(dst, "b") == COLLTYPE_NUMERIC || collGetType(dst, "b") == 0); }
  collEmpty(h);
}

void TypedValuesAndReaders() {
  Opened o;
  HCOLL h, other;
  if (!o.Open({&h, &other})) return;
  collSetString(other, "text", "other");
  collSetString(h, "s", " 42");
  const std::string old = Item(h, "s");
  if (!collSetString(h, "s", "a longer text")) { EXPECT_EQ(Item(h, "s"), old); }
  if (collSetNumeric(h, "n", -7)) { EXPECT_EQ(collGetNumeric(h, "n"), -7); }
  if (collSetTime(h, "t", 0)) { EXPECT_EQ(collGetType(h, "t"), uint32_t(COLLTYPE_TIME)); }
  const int32_t v = collGetNumeric(h, "s");  // needs a scratch copy
  EXPECT_TRUE(v == 0 || v == 42 || Item(h, "s") != old);
  EXPECT_KEEPS_ON_FAILURE(collSetItem(h, "raw", "abc", 3), kFail);
  // Whatever the result, only the collection stored into changes.
  EXPECT_CHANGES_ONLY(collSetString(h, "text", "a longer text than before"), h);
  EXPECT_CHANGES_ONLY(collRenameTag(h, "n", "number"), h);
  EXPECT_CHANGES_ONLY(collCopyItem(h, other, "text"), h);
  EXPECT_CHANGES_ONLY(collMerge(h, other), h);
  uint32_t length = 0, time;
  collFree(collObtainItem(h, "raw", Allocate, &length));
  collFree(collObtainString(h, "text", Allocate, &length));
  char buf[80];
  collCompare(h, "text", "hello", 5);
  collGetString(h, "raw", buf, sizeof buf);
  collGetName(h, buf, sizeof buf);
  collGetCreator(h, buf, sizeof buf);
  collNameItem(h, 0, buf, sizeof buf);
  collGetTime(h, "text", &time);
  uint32_t handles[8];
  collGetNonSharedHandles(handles, sizeof handles);
  // Substitution: the whole text, or nothing when the working text could not
  // grow; a value that cannot be read gives nothing.
  const std::string text = collSetString(h, "s", "xyz") && collSubstitute(h, "<!s.>", buf, sizeof buf) ? buf : "<>";
  EXPECT_TRUE(text == "<xyz>" || text == "<>" || text == "") << text;
  std::string templ, out(4096, '\0');
  for (int i = 0; i < 40; ++i) templ += "<!text.> and <!raw.> ";
  collSubstitute(h, templ.c_str(), out.data(), uint32_t(out.size()));
}

// Tables: rows, fields, copy on write, comparison, and tables held in
// collections with their readers.
void TablesAndCopyOnWrite() {
  HTABLE t = tableCreate(3, 0), copy = 0, out = 0;
  Opened o;
  HCOLL c, d;
  if (!t || !o.Open({&c, &d})) return tableDestroy(t);
  EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, uint32_t(ROW_NAMES), "Id\0Name\0Note", 13), kFail);
  for (int i = 0; i < 8; ++i) EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, uint32_t(ROW_APPEND), "1\0two\0", 7), kFail);
  char buf[64];
  // A read far from the position cache builds the row index, or scans.
  if (tableRowCount(t) == 8) { EXPECT_EQ(tableGetItem(t, 7, 1, buf, sizeof buf), 4u); }
  EXPECT_KEEPS_ON_FAILURE(tableAddRow(t, 0), kFail);
  EXPECT_KEEPS_ON_FAILURE(tableSetItem(t, 0, 2, std::string(1500, 'w').c_str()), kFail);
  EXPECT_KEEPS_ON_FAILURE(tableSetField(t, ROW_HEADER, uint32_t(-2), "attr"), kFail);
  EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, uint32_t(ROW_ATTRIBUTES), "a\0b\0c\0d\0e", 10), kFail);
  EXPECT_KEEPS_ON_FAILURE(copy = tableCopy(t, 0), kFail);
  if (copy) { EXPECT_EQ(Rows(copy), Rows(t)); }
  // Every change through a sharer leaves the other's data as it was.
  const uint32_t rows = tableRowCount(t);
  EXPECT_KEEPS_ON_FAILURE(tableSetItem(copy, 0, 0, "changed"), kFail);
  EXPECT_KEEPS_ON_FAILURE(tableAddRow(copy, uint32_t(ROW_APPEND)), kFail);
  EXPECT_KEEPS_ON_FAILURE(tableSetRow(copy, 0, "x\0y\0z", 6), kFail);
  const std::string beforeDelete = testutil::Snapshot();
  const uint32_t copyRows = tableRowCount(copy);
  tableDeleteRow(copy, 0);
  if (tableRowCount(copy) == copyRows) { EXPECT_EQ(testutil::SnapshotDiff(beforeDelete, testutil::Snapshot()), ""); }
  EXPECT_EQ(tableRowCount(t), rows);
  EXPECT_NE(tableCompare(t, copy, 0, 0), 0xFFFFFFFEu);
  tableGetField(t, 1, 1, buf, sizeof buf);
  tableFindAbbrev(t, "tw", 2, 0, 1);
  tableGetColIndex(t, "name");
  tableSetSelection(t, 1);
  tableDataToCollection(t, c);  // (a failed store keeps the columns stored before it)
  EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "t", t), kFail);
  if (collGetType(c, "t") == COLLTYPE_TABLE) { EXPECT_EQ(collTableRowCount(c, "t"), tableRowCount(t)); }
  EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "u", copy), kFail);
  EXPECT_KEEPS_ON_FAILURE(out = collGetTable(c, "t"), kFail);
  if (out) { EXPECT_EQ(Rows(out), Rows(t)); }
  tableDestroy(out);
  collTableGetColIndex(c, "t", "Note");
  collTableGetField(c, "t", 0, 1, buf, sizeof buf);
  collTableGetRow(c, "t", 0, buf, sizeof buf);
  EXPECT_KEEPS_ON_FAILURE(collTableSetSelection(c, "t", 2), kFail);
  collTableFindField(c, "t", "two", 3, 0, 1);
  collTableDataToCollection(d, c, "t");
  EXPECT_KEEPS_ON_FAILURE(collCopyItem(d, c, "u"), kFail);  // copies the table
  if (collGetType(c, "u") == COLLTYPE_TABLE && collGetType(d, "u") != 0) { EXPECT_EQ(collTableColCount(d, "u"), 3u); }
  tableDestroy(copy);
  tableDestroy(t);
}

// Shared collections backed by the initialisation file, unique names, and
// writing back.
void SharedCollections() {
  HCOLL a = collOpenShared("Shop"), b = collOpenShared("shop");
  if (a && b) { EXPECT_EQ(a, b); }
  if (a) {
    EXPECT_KEEPS_ON_FAILURE(collSetString(a, "added", "yes"), kFail);
    collWrite(a);
    EXPECT_EQ(collGetShareCount(a), b ? 2u : 1u);
  }
  HCOLL u = collOpenUnique("Tmp");
  char name[80];
  collGenerateNewName(name, sizeof name);
  EXPECT_EQ(testutil::CheckState(), "");
  for (HCOLL h : {u, b, a}) collClose(h);
}

// Advice windows whose procedures call back, a propagation chain with a
// cycle, and a transaction that defers it all.
void NotificationAndTransactions() {
  testutil::Listener listener;
  listener.onMessage = [](const testutil::Heard &m) {
    char buf[32];
    collGetString(m.coll, m.tag.c_str(), buf, sizeof buf);
  };
  Opened o;
  HCOLL a, b, c;
  if (!o.Open({&a, &b, &c})) return;
  EXPECT_KEEPS_ON_FAILURE(collRequestAdvice(a, listener.window(), 1), kFail);
  EXPECT_KEEPS_ON_FAILURE(collRequestPropagate(a, b, 1), kFail);
  EXPECT_KEEPS_ON_FAILURE(collRequestPropagate(b, c, 1), kFail);
  EXPECT_KEEPS_ON_FAILURE(collRequestPropagate(c, a, 1), kFail);
  collSetString(a, "x", "1");
  collLock(a);
  collSetString(a, "y", "2");
  collSetItem(a, "x", "", 0);
  collRenameTag(a, "y", "z");
  collUnlock(a);
  collRequestAdvice(a, listener.window(), 0);
  collRequestPropagate(c, a, 0);
}

// Clipboard exchange both ways.
void Clipboard() {
  collHostSetClipboardText("A\tB\r\n1\t2\r\n3\t4\r\n");
  HTABLE t = tableDataFromClipboard(0);
  if (t) {
    EXPECT_EQ(tableColCount(t), 2u);
    tableSetSelection(t, 0);
    for (uint32_t mode = CLIP_NAMES; mode <= CLIP_NAMES_AND_ROWS; ++mode) tableDataToClipboard(t, mode);
  }
  tableDestroy(t);
}

// Dumps give the whole image or 0 with the buffer untouched; loads in both
// forms keep everything on failure; a table loaded from a dump.
void DumpsAndLoads() {
  Opened o;
  HCOLL h, kid;
  HTABLE t = tableCreate(2, 0);
  if (!t || !o.Open({&h, &kid})) return tableDestroy(t);
  tableSetRow(t, uint32_t(ROW_NAMES), "A\0B", 4);
  tableSetRow(t, uint32_t(ROW_APPEND), "1\0two", 6);
  collSetTable(h, "tab", t);
  tableDestroy(t);
  collSetString(h, "s", "text");
  collSetNumeric(kid, "n", 3);
  collSetColl(h, "kid", kid);
  std::string image(2048, '#'), hex(4096, '#');
  const uint32_t n = collDumpItems(h, image.data(), uint32_t(image.size()));
  const uint32_t nh = collDumpItemsHex(h, hex.data(), uint32_t(hex.size()));
  EXPECT_EQ(image[0] == '#', n == 0);
  EXPECT_EQ(hex[0] == '#', nh == 0);
  HTABLE loaded = 0;
  if (n) { EXPECT_KEEPS_ON_FAILURE(loaded = tableLoad(image.data(), n, 0, 0, 0), 0u); }
  tableDestroy(loaded);
  if (n) { EXPECT_KEEPS_ON_FAILURE(collLoadItems(kid, image.data(), n), 0u); }
  if (nh) { EXPECT_KEEPS_ON_FAILURE(collLoadItemsHex(kid, hex.data(), nh), 0u); }
}

// What a process leaves when it ends: its collections and tables go.
void TaskAbort() {
  HCOLL h = collOpen("left"), k = collOpen("kid");
  collSetString(k, "s", "v");
  collSetColl(h, "k", k);
  tableCreate(2, 0);
  collClose(k);
  collTaskAbort(platform::CurrentProcessId());
}

// The tag index is built, grown and dropped as allocations fail; the results
// stay those of the walk.
void TagIndex() {
  Opened o;
  HCOLL h, into;
  if (!o.Open({&h, &into})) return;
  bool stored[60] = {};
  auto tag = [](int i) { return "t" + std::to_string(i); };
  for (int i = 0; i < 60; ++i) stored[i] = collSetNumeric(h, tag(i).c_str(), i + 1) == 1;
  for (int i = 10; i < 60; i += 7) {  // deletions in the middle and moves to the end
    if (i % 2) stored[i] = stored[i] && collSetItem(h, tag(i).c_str(), "", 0) != 1;
    else collSetString(h, tag(i).c_str(), "moved");
  }
  for (int i = 0; i < 60; ++i)
    if (i < 10 || (i - 10) % 7 != 0) { EXPECT_EQ(collGetNumeric(h, tag(i).c_str()), stored[i] ? i + 1 : 0) << i; }
  std::string image(collDumpItems(h, nullptr, 0), '\0');
  if (!image.empty() && collDumpItems(h, image.data(), uint32_t(image.size()))) {
    EXPECT_KEEPS_ON_FAILURE(collLoadItems(into, image.data(), uint32_t(image.size())), 0u);
  }
}

// Rows inserted, each followed by a far read: the row index is built and grows,
// or is dropped when memory is short, and stays in step with the strings.
void RowIndex() {
  HTABLE t = tableCreate(1, 0);
  char buf[4];
  for (uint32_t i = 0; t && i < 40; ++i) {
    tableAddRow(t, 0);
    EXPECT_EQ(testutil::CheckState(), "") << i;
    tableGetItem(t, tableRowCount(t) - 1, 0, buf, sizeof buf);
  }
  tableDestroy(t);
}

const std::pair<const char *, void (*)()> kScenarios[] = {
    {"RawItemsAndTheEngine", RawItemsAndTheEngine}, {"TypedValuesAndReaders", TypedValuesAndReaders},
    {"TablesAndCopyOnWrite", TablesAndCopyOnWrite}, {"SharedCollections", SharedCollections},
    {"NotificationAndTransactions", NotificationAndTransactions}, {"Clipboard", Clipboard},
    {"DumpsAndLoads", DumpsAndLoads}, {"TaskAbort", TaskAbort}, {"TagIndex", TagIndex},
    {"RowIndex", RowIndex},
};

class AllocFailure : public ::testing::TestWithParam<std::pair<const char *, void (*)()>> {};

// Runs the scenario once for every n until a run meets no injected failure;
// after each run only the catalog remains and the state is consistent.
TEST_P(AllocFailure, EveryAllocationFailsInTurn) {
  testutil::TempIni ini;
  if (FILE *f = std::fopen(ini.path().c_str(), "wb")) {
    std::fputs("[Shop]\nname=corner\ncount=12\n[_General]\nUniqueName=7\n", f);
    std::fclose(f);
  }
  collIsBadCollHandle(0);  // start-up happens outside the runs
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(n);
    GetParam().second();
    const uint32_t made = platform::FailAllocation(0);
    ASSERT_EQ(collGetNonSharedHandles(nullptr, 0), 0u) << "after failing allocation " << n;
    ASSERT_EQ(testutil::LiveTables(), 0u) << "after failing allocation " << n;
    ASSERT_EQ(testutil::CheckState(), "") << "after failing allocation " << n;
    if (made < n) break;
    ASSERT_LT(n, 10000u);
  }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, AllocFailure, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return std::string(info.param.first); });

}  // namespace
