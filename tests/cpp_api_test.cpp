// The header-only C++ layer (coll.hpp): handles owned by Collection and
// Table (nothing leaked, moves hand ownership on, Release and Adopt), and
// the values read through it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "coll.hpp"
#include "coll_host.h"
#include "tests/test_util.h"

namespace {

using libcoll::Collection;
using libcoll::Table;

// Live private top-level collections, and live tables of any owner.
uint32_t OpenCollections() { return collGetNonSharedHandles(nullptr, 0); }
uint32_t LiveTables() {
  uint32_t handles[256];
  return collGetTableHandles(handles, sizeof handles);
}

TEST(CppCollection, ClosesWhatItOwnsAndNothingElse) {
  const uint32_t before = OpenCollections();
  {
    Collection a = Collection::Open("a");
    ASSERT_TRUE(a);
    EXPECT_EQ(a.Name(), "a");
    Collection b = Collection::Open();
    EXPECT_EQ(OpenCollections(), before + 2);
    // A nested copy and a copy read back: the read copy is the caller's.
    ASSERT_TRUE(b.SetString("x", "1"));
    ASSERT_TRUE(a.SetCollection("b", b));
    Collection copy = a.GetCollection("b");
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy.GetString("x"), "1");
    EXPECT_EQ(OpenCollections(), before + 3);
    // No collection for a missing tag (the C function makes an empty one).
    EXPECT_FALSE(a.GetCollection("missing"));
    EXPECT_EQ(OpenCollections(), before + 3);
  }
  EXPECT_EQ(OpenCollections(), before);
}

TEST(CppCollection, MovesHandOwnershipOn) {
  const uint32_t before = OpenCollections();
  Collection a = Collection::Open("a");
  const HCOLL h = a.handle();
  Collection b(std::move(a));
  EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_EQ(b.handle(), h);
  // Assigning over a collection closes the one it held.
  Collection c = Collection::Open("c");
  const HCOLL hc = c.handle();
  c = std::move(b);
  EXPECT_EQ(c.handle(), h);
  EXPECT_EQ(collIsBadCollHandle(hc), 1u);
  EXPECT_EQ(OpenCollections(), before + 1);
  // Moving onto itself keeps the handle.
  Collection &self = c;
  c = std::move(self);
  EXPECT_EQ(c.handle(), h);
  EXPECT_EQ(collIsBadCollHandle(h), 0u);
  c.Reset();
  EXPECT_FALSE(c);
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(OpenCollections(), before);
}

TEST(CppCollection, ReleaseAndAdopt) {
  HCOLL h;
  {
    Collection a = Collection::Open("kept");
    h = a.Release();
    EXPECT_FALSE(a);
  }
  EXPECT_EQ(collIsBadCollHandle(h), 0u);
  {
    Collection again = Collection::Adopt(h);
    EXPECT_EQ(again.Name(), "kept");
  }
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
}

TEST(CppCollection, SharedOpensCountDown) {
  testutil::TempIni ini;
  {
    Collection first = Collection::OpenShared("Orders");
    Collection second = Collection::OpenShared("orders");
    EXPECT_EQ(first.handle(), second.handle());
    EXPECT_EQ(first.ShareCount(), 2u);
    second.Reset();
    EXPECT_EQ(first.ShareCount(), 1u);
  }
  Collection fresh = Collection::OpenShared("Orders");
  EXPECT_EQ(fresh.ShareCount(), 1u);
  Collection unique = Collection::OpenUnique("Orders");
  EXPECT_EQ(unique.Name(), "Orders_1");
}

TEST(CppTable, DestroysWhatItOwns) {
  const uint32_t before = LiveTables();
  {
    Table t = Table::Create(2);
    ASSERT_TRUE(t);
    Table second = t.Copy();
    EXPECT_EQ(LiveTables(), before + 2);
    Collection c = Collection::Open();
    ASSERT_TRUE(c.SetTable("t", t));  // the item gets a handle of its own
    EXPECT_EQ(LiveTables(), before + 3);
    Table out = c.GetTable("t");
    ASSERT_TRUE(out);
    EXPECT_NE(out.handle(), t.handle());
    EXPECT_EQ(LiveTables(), before + 4);
    EXPECT_FALSE(c.GetTable("missing"));
  }
  EXPECT_EQ(LiveTables(), before);
}

TEST(CppTable, MovesHandOwnershipOn) {
  const uint32_t before = LiveTables();
  Table a = Table::Create(1);
  Table b = Table::Create(1);
  const HTABLE ha = a.handle(), hb = b.handle();
  b = std::move(a);
  EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(b.handle(), ha);
  EXPECT_EQ(tableColCount(hb), 0xFFFFFFFFu);  // destroyed
  Table c(std::move(b));
  EXPECT_EQ(c.handle(), ha);
  EXPECT_EQ(LiveTables(), before + 1);
  const HTABLE kept = c.Release();
  EXPECT_EQ(LiveTables(), before + 1);
  Table::Adopt(kept);  // a temporary: destroyed at once
  EXPECT_EQ(LiveTables(), before);
}

TEST(CppCollection, ReadsEveryKindOfValue) {
  Collection c = Collection::Open("v");
  const char raw[] = {'a', 0, 'b'};
  ASSERT_TRUE(c.SetBytes("raw", raw, 3));
  ASSERT_TRUE(c.SetString("text", "hello"));
  ASSERT_TRUE(c.SetNumber("n", -42));
  ASSERT_TRUE(c.SetTime("t", 86400));
  EXPECT_EQ(c.GetBytes("raw"), std::string(raw, 3));
  EXPECT_EQ(c.GetBytes("TEXT"), "hello");
  EXPECT_EQ(c.GetBytes("n"), std::nullopt);
  EXPECT_EQ(c.GetString("raw"), "a");  // raw bytes read as text end at a zero
  EXPECT_EQ(c.GetString("n"), "-42");
  EXPECT_EQ(c.GetString("t"), "Fri Jan  2 00:00:00 1970");
  EXPECT_EQ(c.GetString("missing"), std::nullopt);
  EXPECT_EQ(c.GetNumber("n"), -42);
  EXPECT_EQ(c.GetNumber("t"), std::nullopt);
  EXPECT_EQ(c.GetTime("t"), 86400u);
  EXPECT_EQ(c.GetTime("n"), std::nullopt);
  EXPECT_EQ(c.Type("t"), uint32_t(COLLTYPE_TIME));
  EXPECT_EQ(c.Tags(), (std::vector<std::string>{"raw", "text", "n", "t"}));
  EXPECT_EQ(c.Substitute("!text. !n. !.!"), "hello -42 v!");

  EXPECT_TRUE(c.Rename("n", "number"));
  EXPECT_TRUE(c.Erase("raw"));
  EXPECT_FALSE(c.Contains("raw"));
  EXPECT_EQ(c.Size(), 3u);
  c.Clear();
  EXPECT_EQ(c.Size(), 0u);
  EXPECT_EQ(c.Tags(), std::vector<std::string>());
}

TEST(CppCollection, DumpsAndLoads) {
  Collection c = Collection::Open();
  ASSERT_TRUE(c.SetString("ab", "xy"));
  const std::vector<std::byte> image = c.Dump();
  ASSERT_EQ(image.size(), 20u);
  EXPECT_EQ(c.DumpHex(), "0041EC0010CC0020162600800060000000808797");
  Collection back = Collection::Open();
  ASSERT_TRUE(back.Load(image));
  EXPECT_EQ(back.GetString("ab"), "xy");
  Collection fromHex = Collection::Open();
  ASSERT_TRUE(fromHex.LoadHex("0041ec0010cc0020162600800060000000808797"));
  EXPECT_EQ(fromHex.GetString("AB"), "xy");
  EXPECT_FALSE(fromHex.Load({}));
  EXPECT_FALSE(fromHex.LoadHex("0060EC00000"));
  Collection empty;
  EXPECT_TRUE(empty.Dump().empty());
  EXPECT_EQ(empty.DumpHex(), "");
}

TEST(CppTable, RowsFieldsAndSearches) {
  Table t = Table::Create(3, 9);
  ASSERT_TRUE(t.SetRow(ROW_NAMES, {"A", "B", "C"}));
  ASSERT_TRUE(t.SetRow(ROW_APPEND, {"apple", "", "x"}));
  ASSERT_TRUE(t.SetRow(ROW_APPEND, {"pear", "2", ""}));
  EXPECT_EQ(t.Rows(), 2u);
  EXPECT_EQ(t.Cols(), 3u);
  EXPECT_EQ(t.Type(), 9u);
  EXPECT_EQ(t.ColumnName(1), "B");
  EXPECT_EQ(t.ColumnIndex("c"), 2u);
  EXPECT_EQ(t.ColumnIndex("D"), std::nullopt);
  // Empty strings inside and at the end of a packed row are kept.
  EXPECT_EQ(t.GetRow(0), (std::vector<std::string>{"apple", "", "x"}));
  EXPECT_EQ(t.GetRow(1), (std::vector<std::string>{"pear", "2", ""}));
  EXPECT_EQ(t.GetRow(ROW_ATTRIBUTES), (std::vector<std::string>(5, "")));
  EXPECT_EQ(t.GetRow(2), std::nullopt);
  EXPECT_EQ(t.Get(1, 0), "pear");
  EXPECT_EQ(t.Get(0, 1), "");
  EXPECT_EQ(t.Get(5, 0), std::nullopt);
  ASSERT_TRUE(t.Set(ROW_HEADER, -1, "attr"));
  EXPECT_EQ(t.Get(ROW_HEADER, -1), "attr");

  EXPECT_EQ(t.Find("PEAR", 0), 1u);
  EXPECT_EQ(t.Find("pe", 0), std::nullopt);
  EXPECT_EQ(t.FindPrefix("pe", 0), 1u);
  // An empty text (a view without data) abbreviates any field and equals an
  // empty one.
  EXPECT_EQ(t.FindPrefix(std::string_view(), 0, 1), 1u);
  EXPECT_EQ(t.Find(std::string_view(), 1), 0u);
  EXPECT_EQ(t.Selection(), std::nullopt);
  EXPECT_TRUE(t.Select(1));
  EXPECT_EQ(t.Selection(), 1u);
  EXPECT_TRUE(t.InsertRow(0));
  EXPECT_TRUE(t.AppendRow());
  EXPECT_EQ(t.Rows(), 4u);
  t.DeleteRow(0);
  EXPECT_EQ(t.Get(0, 0), "apple");
}

void LoadAndPaste();

TEST(CppTable, LoadsFromADumpAndTheClipboard) {
  const uint32_t before = LiveTables();
  { LoadAndPaste(); }
  EXPECT_EQ(LiveTables(), before);
}

void LoadAndPaste() {
  Table t = Table::Create(2);
  ASSERT_TRUE(t.SetRow(ROW_NAMES, {"A", "B"}));
  ASSERT_TRUE(t.SetRow(ROW_APPEND, {"1", "2"}));
  Collection c = Collection::Open();
  ASSERT_TRUE(c.SetTable("t", t));
  Table loaded = Table::Load(c.Dump());
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded.GetRow(0), (std::vector<std::string>{"1", "2"}));
  EXPECT_FALSE(Table::Load({}));

  ASSERT_TRUE(t.ToClipboard(CLIP_NAMES_AND_ROWS));
  Table pasted = Table::FromClipboard();
  ASSERT_TRUE(pasted);
  EXPECT_EQ(pasted.GetRow(ROW_NAMES), (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(pasted.GetRow(0), (std::vector<std::string>{"1", "2"}));
  collHostSetClipboardText(nullptr);
  EXPECT_FALSE(Table::FromClipboard());
}

}  // namespace
