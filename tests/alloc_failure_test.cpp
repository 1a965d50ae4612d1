// Every heap allocation the library makes is made to fail in turn: each call
// must report failure as documented, keep what it was not asked to change,
// and leave every image consistent (LeakSanitizer finds what it leaked).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"

namespace {

using testutil::CheckImage;
using testutil::Item;

// Runs scenario once for every n until a run meets no injected failure.
template <typename Scenario>
void ForEveryAllocation(Scenario scenario) {
  collIsBadCollHandle(0);  // start-up happens outside the runs
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(n);
    scenario();
    uint32_t made = platform::FailAllocation(0);
    // Nothing may be left behind: only the catalog remains.
    ASSERT_EQ(collGetNonSharedHandles(nullptr, 0), 0u) << "after failing allocation " << n;
    ASSERT_EQ(testutil::CheckState(), "") << "after failing allocation " << n;
    uint32_t tables[4];
    ASSERT_EQ(collGetTableHandles(tables, sizeof tables), 0u) << "after failing allocation " << n;
    if (made < n) break;
    ASSERT_LT(n, 10000u);
  }
}

TEST(AllocFailure, RawItemsAndTheEngine) {
  ForEveryAllocation([] {
    uint32_t h = collOpen("a");
    if (!h) return;
    // A new item is stored or absent.
    uint32_t r = collSetItem(h, "x", "12345", 5);
    EXPECT_EQ(Item(h, "x"), r ? "12345" : "<missing>");
    // A replacement of another length: the old value survives a failure.
    if (r) {
      EXPECT_EQ(collSetItem(h, "x", "1234567", 7) ? Item(h, "x") == "1234567" : Item(h, "x") == "12345", true);
    }
    // Growth by pages.
    std::string big(5000, 'b');
    r = collSetItem(h, "big", big.data(), static_cast<uint32_t>(big.size()));
    EXPECT_EQ(Item(h, "big"), r ? big : "<missing>");
    std::string before = Item(h, "x");
    // Rename: on failure the old tag keeps its value.
    if (collRenameTag(h, "x", "y")) {
      EXPECT_EQ(Item(h, "y"), before);
      EXPECT_EQ(collGetType(h, "x"), 0u);
    } else {
      EXPECT_EQ(Item(h, "x"), before);
    }
    EXPECT_EQ(CheckImage(h), "");
    collEmpty(h);
    EXPECT_EQ(CheckImage(h), "");
    collClose(h);
  });
}

TEST(AllocFailure, NestedCopies) {
  ForEveryAllocation([] {
    uint32_t src = collOpen("src");
    uint32_t dst = collOpen("dst");
    if (!src || !dst) {
      collClose(src);
      collClose(dst);
      return;
    }
    uint32_t child = 0;
    {
      coll::LockGuard lock;
      child = coll::InternalCollCreate(src);
      if (child) {
        coll::SetItem(child, "a", coll::BuildItem(COLLTYPE_ITEM, "1", 1), 0);
        coll::SetItem(child, "b", coll::BuildItem(COLLTYPE_ITEM, "22", 2), 0);
        if (!coll::SetItem(src, "kid", coll::BuildItem(COLLTYPE_COLL, &child, 4), 0)) {
          coll::DestroyCollHandle(child);
          child = 0;
        }
      }
    }
    collSetItem(dst, "kid", "old", 3);
    // (A failed BuildItem reaches the store as a deletion, so "kid" may be
    // missing in the source; the copy then deletes it in dst.)
    const bool inSource = collGetType(src, "kid") == COLLTYPE_COLL;
    const std::string old = Item(dst, "kid");
    if (collCopyItem(dst, src, "kid")) {
      EXPECT_EQ(collGetType(dst, "kid"), inSource ? uint32_t(COLLTYPE_COLL) : 0u);
    } else {
      EXPECT_EQ(Item(dst, "kid"), old);
    }
    EXPECT_EQ(CheckImage(src), "");
    EXPECT_EQ(CheckImage(dst), "");
    collClose(src);
    collClose(dst);
    // Closing the owners took every nested collection with them.
    coll::LockGuard lock;
    EXPECT_EQ(coll::ps->collHigh, 1u);
  });
}

TEST(AllocFailure, TypedValues) {
  ForEveryAllocation([] {
    uint32_t h = collOpen("typed");
    uint32_t src = collOpen("src");
    if (!h || !src) {
      collClose(h);
      collClose(src);
      return;
    }
    // A failed store keeps the old value.
    collSetString(h, "s", " 42");
    std::string old = Item(h, "s");
    if (!collSetString(h, "s", "a longer text")) { EXPECT_EQ(Item(h, "s"), old); }
    if (collSetNumeric(h, "n", -7)) { EXPECT_EQ(collGetNumeric(h, "n"), -7); }
    if (collSetTime(h, "t", 0)) { EXPECT_EQ(collGetType(h, "t"), uint32_t(COLLTYPE_TIME)); }
    int32_t v = collGetNumeric(h, "s");  // needs a scratch copy
    EXPECT_TRUE(v == 0 || v == 42 || Item(h, "s") != old);
    // Nested copies are complete or absent.
    collSetString(src, "a", "1");
    collSetNumeric(src, "b", 2);
    const bool full = collItemCount(src) == 2;
    if (collSetColl(h, "k", src) && full && collGetType(h, "k") == COLLTYPE_COLL) {
      uint32_t got = collGetColl(h, "k");
      if (got) { EXPECT_EQ(collItemCount(got), 2u); }
      collClose(got);
    }
    // A merge drops an item whose value cannot be copied and goes on.
    if (collMerge(h, src) && full) {
      uint32_t type = collGetType(h, "b");
      EXPECT_TRUE(type == COLLTYPE_NUMERIC || type == 0) << type;
    }
    // Substitution: the whole text, or the empty text when the working text
    // could not grow; a value that cannot be read gives nothing.
    char buf[64];
    uint32_t r = collSetString(h, "s", "xyz") ? collSubstitute(h, "<!s.>", buf, sizeof buf) : 0;
    if (r) { EXPECT_TRUE(std::string(buf) == "<xyz>" || std::string(buf) == "<>" || std::string(buf) == "") << buf; }
    EXPECT_EQ(CheckImage(h), "");
    collClose(h);
    collClose(src);
  });
}

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

// Tables: rows, fields, copy on write, comparison, and tables held in
// collections with their readers.
TEST(AllocFailure, TablesAndCopyOnWrite) {
  ForEveryAllocation([] {
    HTABLE t = tableCreate(3, 0);
    if (!t) return;
    EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, uint32_t(ROW_NAMES), "Id\0Name\0Note", 13), kFail);
    for (int i = 0; i < 8; ++i) EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, uint32_t(ROW_APPEND), "1\0two\0", 7), kFail);
    char buf[64];
    // A read far from the position cache builds the row index, or scans.
    if (tableRowCount(t) == 8) { EXPECT_EQ(tableGetItem(t, 7, 1, buf, sizeof buf), 4u); }
    EXPECT_KEEPS_ON_FAILURE(tableAddRow(t, 0), kFail);
    EXPECT_KEEPS_ON_FAILURE(tableSetItem(t, 0, 2, std::string(1500, 'w').c_str()), kFail);
    EXPECT_KEEPS_ON_FAILURE(tableSetField(t, ROW_HEADER, uint32_t(-2), "attr"), kFail);
    EXPECT_KEEPS_ON_FAILURE(tableSetRow(t, uint32_t(ROW_ATTRIBUTES), "a\0b\0c\0d\0e", 10), kFail);
    HTABLE copy = 0;
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
    if (tableRowCount(copy) == copyRows) {
      // No row went: the delete could not make the data private.
      EXPECT_EQ(testutil::SnapshotDiff(beforeDelete, testutil::Snapshot()), "");
    }
    EXPECT_EQ(tableRowCount(t), rows);
    EXPECT_NE(tableCompare(t, copy, 0, 0), 0xFFFFFFFEu);
    tableGetItem(t, 0, 1, buf, sizeof buf);
    tableGetField(t, 1, 1, buf, sizeof buf);
    tableGetRow(t, 1, buf, sizeof buf);
    tableFindField(t, "two", 3, 0, 1);
    tableFindAbbrev(t, "tw", 2, 0, 1);
    tableGetColIndex(t, "name");
    tableSetSelection(t, 1);
    tableGetSelection(t);
    tableGetType(t);
    tableGetStamp(t);
    tableColCount(t);
    HCOLL c = collOpen("holder");
    if (c) {
      // (A failed store keeps the columns stored before it.)
      tableDataToCollection(t, c);
      EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "t", t), kFail);
      if (collGetType(c, "t") == COLLTYPE_TABLE) { EXPECT_EQ(collTableRowCount(c, "t"), tableRowCount(t)); }
      EXPECT_KEEPS_ON_FAILURE(collSetTable(c, "u", copy), kFail);
      HTABLE out = 0;
      EXPECT_KEEPS_ON_FAILURE(out = collGetTable(c, "t"), kFail);
      if (out) { EXPECT_EQ(Rows(out), Rows(t)); }
      tableDestroy(out);
      collTableRowCount(c, "t");
      collTableColCount(c, "t");
      collTableGetStamp(c, "t");
      collTableGetColIndex(c, "t", "Note");
      collTableGetField(c, "t", 0, 1, buf, sizeof buf);
      collTableGetRow(c, "t", 0, buf, sizeof buf);
      EXPECT_KEEPS_ON_FAILURE(collTableSetSelection(c, "t", 2), kFail);
      collTableGetSelection(c, "t");
      collTableFindField(c, "t", "two", 3, 0, 1);
      collTableFindAbbrev(c, "t", "t", 1, 0, 1);
      HCOLL d = collOpen("dest");
      if (d) collTableDataToCollection(d, c, "t");
      // A copy of the collection copies its tables.
      if (d) EXPECT_KEEPS_ON_FAILURE(collCopyItem(d, c, "u"), kFail);
      if (d && collGetType(c, "u") == COLLTYPE_TABLE && collGetType(d, "u") != 0) {
        EXPECT_EQ(collTableColCount(d, "u"), 3u);
      }
      EXPECT_EQ(testutil::CheckState(), "");
      collClose(d);
    }
    collClose(c);
    tableDestroy(copy);
    tableDestroy(t);
  });
}

// Raw items read out through caller allocators, comparisons and names.
TEST(AllocFailure, ReadersAndNames) {
  ForEveryAllocation([] {
    HCOLL h = collOpen("readers");
    HCOLL bystander = collOpen("bystander");
    if (!h || !bystander) {
      collClose(h);
      collClose(bystander);
      return;
    }
    collSetString(bystander, "text", "other");
    EXPECT_KEEPS_ON_FAILURE(collSetItem(h, "raw", "abc", 3), kFail);
    EXPECT_KEEPS_ON_FAILURE(collSetString(h, "text", "hello"), kFail);
    // Whatever the result, only the collection stored into changes.
    EXPECT_CHANGES_ONLY(collSetString(h, "text", "a longer text than before"), h);
    EXPECT_CHANGES_ONLY(collSetNumeric(h, "num", 12), h);
    EXPECT_CHANGES_ONLY(collRenameTag(h, "num", "number"), h);
    EXPECT_CHANGES_ONLY(collCopyItem(h, bystander, "text"), h);
    EXPECT_CHANGES_ONLY(collMerge(h, bystander), h);
    uint32_t length = 0;
    void *raw = collObtainItem(h, "raw", Allocate, &length);
    collFree(raw);
    char *text = collObtainString(h, "text", Allocate, &length);
    collFree(text);
    collCompare(h, "text", "hello", 5);
    char buf[80];
    collGetString(h, "raw", buf, sizeof buf);
    collGetName(h, buf, sizeof buf);
    collGetCreator(h, buf, sizeof buf);
    collNameItem(h, 0, buf, sizeof buf);
    uint32_t time;
    collGetTime(h, "text", &time);
    collGetShareCount(h);
    uint32_t handles[8];
    collGetNonSharedHandles(handles, sizeof handles);
    // A long template grows the working text several times.
    std::string templ;
    for (int i = 0; i < 40; ++i) templ += "<!text.> and <!raw.> ";
    std::string out(4096, '\0');
    collSubstitute(h, templ.c_str(), out.data(), uint32_t(out.size()));
    EXPECT_EQ(testutil::CheckState(), "");
    collClose(bystander);
    collClose(h);
  });
}

// Shared collections backed by the initialisation file, unique names, and
// writing back.
TEST(AllocFailure, SharedCollectionsAndTheProfileFile) {
  testutil::TempIni ini;
  if (FILE *f = std::fopen(ini.path().c_str(), "wb")) {
    std::fputs("[Shop]\nname=corner\ncount=12\n[_General]\nUniqueName=7\n", f);
    std::fclose(f);
  }
  ForEveryAllocation([] {
    HCOLL a = collOpenShared("Shop");
    HCOLL b = collOpenShared("shop");
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
    collClose(u);
    collClose(b);
    collClose(a);
  });
}

// Advice windows whose procedures call back, a propagation chain with a
// cycle, and a transaction that defers it all.
TEST(AllocFailure, NotificationAndTransactions) {
  testutil::Listener listener;
  ForEveryAllocation([&listener] {
    HCOLL a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
    if (a && b && c) {
      listener.Clear();
      listener.onMessage = [](const testutil::Heard &m) {
        char buf[32];
        collGetString(m.coll, m.tag.c_str(), buf, sizeof buf);
      };
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
      EXPECT_EQ(testutil::CheckState(), "");
      listener.onMessage = nullptr;
    }
    collClose(c);
    collClose(b);
    collClose(a);
  });
}

// Clipboard exchange both ways.
TEST(AllocFailure, Clipboard) {
  ForEveryAllocation([] {
    collHostSetClipboardText("A\tB\r\n1\t2\r\n3\t4\r\n");
    HTABLE t = tableDataFromClipboard(0);
    if (t) {
      EXPECT_EQ(tableColCount(t), 2u);
      tableSetSelection(t, 0);
      for (uint32_t mode = CLIP_NAMES; mode <= CLIP_NAMES_AND_ROWS; ++mode) tableDataToClipboard(t, mode);
    }
    tableDestroy(t);
  });
}

// Dumps and loads in both forms, and a table loaded from a dump.
TEST(AllocFailure, DumpsAndLoads) {
  ForEveryAllocation([] {
    HCOLL h = collOpen("dumped");
    HCOLL kid = collOpen("kid");
    HTABLE t = tableCreate(2, 0);
    if (h && kid && t) {
      tableSetRow(t, uint32_t(ROW_NAMES), "A\0B", 4);
      tableSetRow(t, uint32_t(ROW_APPEND), "1\0two", 6);
      collSetTable(h, "tab", t);
      collSetString(h, "s", "text");
      collSetNumeric(kid, "n", 3);
      collSetColl(h, "kid", kid);
      char image[2048], hex[4096];
      const uint32_t n = collDumpItems(h, image, sizeof image);
      const uint32_t nh = collDumpItemsHex(h, hex, sizeof hex);
      if (n) {
        HTABLE loaded = 0;
        EXPECT_KEEPS_ON_FAILURE(loaded = tableLoad(image, n, 0, 0, 0), 0u);
        tableDestroy(loaded);
        EXPECT_KEEPS_ON_FAILURE(collLoadItems(kid, image, n), 0u);
      }
      if (nh) EXPECT_KEEPS_ON_FAILURE(collLoadItemsHex(kid, hex, nh), 0u);
      EXPECT_EQ(testutil::CheckState(), "");
    }
    tableDestroy(t);
    collClose(kid);
    collClose(h);
  });
}

// What a process leaves when it ends: its collections and tables go.
TEST(AllocFailure, TaskAbort) {
  ForEveryAllocation([] {
    HCOLL h = collOpen("left");
    HCOLL k = collOpen("kid");
    collSetString(k, "s", "v");
    collSetColl(h, "k", k);
    tableCreate(2, 0);
    collClose(k);
    collTaskAbort(platform::CurrentProcessId());
  });
}

// The tag index is built, grown and dropped as allocations fail; the results
// stay those of the walk.
TEST(AllocFailure, TagIndex) {
  ForEveryAllocation([] {
    HCOLL h = collOpen("index"), into = collOpen("into");
    if (!h || !into) {
      collClose(h);
      collClose(into);
      return;
    }
    bool stored[60] = {};
    auto tag = [](int i) { return "t" + std::to_string(i); };
    for (int i = 0; i < 60; ++i) stored[i] = collSetNumeric(h, tag(i).c_str(), i + 1) == 1;
    for (int i = 10; i < 60; i += 7) {
      // Deletions in the middle and moves to the end.
      if (i % 2) stored[i] = stored[i] && collSetItem(h, tag(i).c_str(), "", 0) != 1;
      else collSetString(h, tag(i).c_str(), "moved");
    }
    for (int i = 0; i < 60; ++i) {
      if (i >= 10 && (i - 10) % 7 == 0) continue;
      EXPECT_EQ(collGetNumeric(h, tag(i).c_str()), stored[i] ? i + 1 : 0) << i;
    }
    std::string image(collDumpItems(h, nullptr, 0), '\0');
    if (!image.empty() && collDumpItems(h, image.data(), static_cast<uint32_t>(image.size()))) {
      EXPECT_KEEPS_ON_FAILURE(collLoadItems(into, image.data(), static_cast<uint32_t>(image.size())), 0u);
    }
    collClose(h);
    collClose(into);
  });
}

}  // namespace
