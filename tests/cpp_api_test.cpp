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

using libcoll::Collection; using libcoll::Table; using Strings = std::vector<std::string>;

uint32_t Live() {
  uint32_t handles[256];
  return collGetNonSharedHandles(nullptr, 0) + 1000 * collGetTableHandles(handles, sizeof handles);
}

TEST(CppApi, OwnsItsHandles) {
  testutil::TempIni ini;
  const uint32_t before = Live();
  {
    Collection a = Collection::Open("a"), b = Collection::Open(), c = Collection::Open("c");
    ASSERT_TRUE(b.SetString("x", "1") && a.SetCollection("b", b));
    EXPECT_EQ(a.GetCollection("b").GetString("x"), "1");  // the read copy is the caller's, closed at once
    EXPECT_FALSE(a.GetCollection("missing"));             // where the C function makes an empty one
    const HCOLL ha = a.handle(), hc = c.handle();
    c = std::move(a);  // closes what c held
    EXPECT_FALSE(a);   // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(collIsBadCollHandle(hc), 1u); Collection &self = c; c = std::move(self); EXPECT_EQ(c.handle(), ha);
    const HCOLL kept = c.Release();
    EXPECT_EQ(Collection::Adopt(kept).Name(), "a"); EXPECT_EQ(collIsBadCollHandle(kept), 1u);
    Collection first = Collection::OpenShared("Orders"), second = Collection::OpenShared("orders");
    EXPECT_EQ(first.ShareCount(), 2u); second.Reset(); EXPECT_EQ(first.ShareCount(), 1u);
    EXPECT_EQ(Collection::OpenUnique("Orders").Name(), "Orders_1");
    Table t = Table::Create(2), u = t.Copy(), v = Table::Create(1);
    ASSERT_TRUE(b.SetTable("t", t));  // the item gets a handle of its own
    Table out = b.GetTable("t"); EXPECT_NE(out.handle(), t.handle()); EXPECT_FALSE(b.GetTable("missing"));
    EXPECT_EQ(Live(), before + 1 + 5000);
    const HTABLE hv = v.handle();
    v = std::move(u); EXPECT_EQ(tableColCount(hv), 0xFFFFFFFFu);
    Table::Adopt(v.Release());  // a temporary: destroyed at once
    EXPECT_EQ(Live(), before + 1 + 3000);
  }
  EXPECT_EQ(Live(), before);
}

TEST(CppApi, ReadsEveryKindOfValue) {
  Collection c = Collection::Open("v");
  const char raw[] = {'a', 0, 'b'};
  ASSERT_TRUE(c.SetBytes("raw", raw, 3) && c.SetString("text", "hello") && c.SetNumber("n", -42) && c.SetTime("t", 86400));
  EXPECT_EQ(c.GetBytes("raw"), std::string(raw, 3)); EXPECT_EQ(c.GetBytes("TEXT"), "hello");
  EXPECT_EQ(c.GetBytes("n"), std::nullopt);
  EXPECT_EQ(c.GetString("raw"), "a");  // raw bytes read as text end at a zero
  EXPECT_EQ(c.GetString("t"), "Fri Jan  2 00:00:00 1970"); EXPECT_EQ(c.GetString("missing"), std::nullopt);
  EXPECT_EQ(c.GetNumber("n"), -42); EXPECT_EQ(c.GetNumber("t"), std::nullopt); EXPECT_EQ(c.GetTime("t"), 86400u);
  EXPECT_EQ(c.GetTime("n"), std::nullopt); EXPECT_EQ(c.Type("t"), uint32_t(COLLTYPE_TIME));
  EXPECT_EQ(c.Tags(), (Strings{"raw", "text", "n", "t"})); EXPECT_EQ(c.Substitute("!text. !n. !.!"), "hello -42 v!");
  EXPECT_TRUE(c.Rename("n", "number") && c.Erase("raw")); EXPECT_FALSE(c.Contains("raw")); EXPECT_EQ(c.Size(), 3u);
  c.Clear(); EXPECT_EQ(c.Tags(), Strings()); ASSERT_TRUE(c.SetString("ab", "xy")); EXPECT_EQ(c.Dump().size(), 20u);
  EXPECT_EQ(c.DumpHex(), "0041EC0010CC0020162600800060000000808797"); Collection back = Collection::Open(), empty;
  ASSERT_TRUE(back.Load(c.Dump()) && back.LoadHex("0041ec0010cc0020162600800060000000808797"));
  EXPECT_EQ(back.GetString("AB"), "xy"); EXPECT_FALSE(back.Load({}) || back.LoadHex("0060EC00000"));
  EXPECT_TRUE(empty.Dump().empty() && empty.DumpHex().empty());
}

TEST(CppApi, TableRowsFieldsSearchesAndTransfers) {
  Table t = Table::Create(3, 9);
  ASSERT_TRUE(t.SetRow(ROW_NAMES, {"A", "B", "C"}) && t.SetRow(ROW_APPEND, {"apple", "", "x"}) &&
              t.SetRow(ROW_APPEND, {"pear", "2", ""}) && t.Set(ROW_HEADER, -1, "attr"));
  EXPECT_EQ(t.Rows() * 100 + t.Cols() * 10 + t.Type(), 239u); EXPECT_EQ(t.ColumnName(1), "B");
  EXPECT_EQ(t.ColumnIndex("c"), 2u); EXPECT_EQ(t.ColumnIndex("D"), std::nullopt);
  // Empty strings inside and at the end of a packed row are kept.
  EXPECT_EQ(t.GetRow(0), (Strings{"apple", "", "x"})); EXPECT_EQ(t.GetRow(1), (Strings{"pear", "2", ""}));
  EXPECT_EQ(t.GetRow(ROW_ATTRIBUTES), (Strings{"attr", "", "", "", ""})); EXPECT_EQ(t.GetRow(2), std::nullopt);
  EXPECT_EQ(t.Get(0, 1), ""); EXPECT_EQ(t.Get(5, 0), std::nullopt); EXPECT_EQ(t.Find("PEAR", 0), 1u);
  EXPECT_EQ(t.Find("pe", 0), std::nullopt); EXPECT_EQ(t.FindPrefix("pe", 0), 1u);
  // An empty text (a view without data) abbreviates any field and equals an empty one.
  EXPECT_EQ(t.FindPrefix(std::string_view(), 0, 1), 1u); EXPECT_EQ(t.Find(std::string_view(), 1), 0u);
  EXPECT_EQ(t.Selection(), std::nullopt); EXPECT_TRUE(t.Select(1) && t.InsertRow(0) && t.AppendRow());
  EXPECT_EQ(t.Selection(), 1u); t.DeleteRow(0); EXPECT_EQ(t.Get(0, 0), "apple"); Collection c = Collection::Open();
  ASSERT_TRUE(c.SetTable("t", t)); EXPECT_EQ(Table::Load(c.Dump()).GetRow(1), (Strings{"pear", "2", ""}));
  EXPECT_FALSE(Table::Load({})); ASSERT_TRUE(t.ToClipboard(CLIP_NAMES_AND_ROWS));
  EXPECT_EQ(Table::FromClipboard().GetRow(ROW_NAMES), (Strings{"A", "B", "C"})); collHostSetClipboardText(nullptr);
  EXPECT_FALSE(Table::FromClipboard());
}

}  // namespace
