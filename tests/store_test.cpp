// The collection store: image layout, tag search and its cache, growth by
// pages, the item engine, and the collection and raw-item functions.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>

#include "coll.h"
#include "store/store.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"

using testutil::CheckImage;
using testutil::Item;
using testutil::Tags;

namespace {

std::string Bytes(std::initializer_list<int> b) {
  std::string s;
  for (int c : b) s += static_cast<char>(c);
  return s;
}

std::vector<uint32_t> Cache(uint32_t h) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < coll::COLL_CACHE_SIZE; ++i) out.push_back(coll::rd32(img + coll::ch::tagCache + 4 * i));
  return out;
}

uint32_t Find(uint32_t h, const char *tag) {
  coll::LockGuard lock;
  return coll::FindAndSkipTag(coll::GetCollPtr(h), tag, static_cast<uint32_t>(std::strlen(tag)));
}

// A raw item whose image in use comes to exactly `used` bytes in a fresh
// collection (tag "T": 2 + 1 + 2 + 6 bytes of item around the data).
bool FillTo(uint32_t h, uint32_t used) {
  std::string data(used - 678 - 11, 'x');
  return collSetItem(h, "T", data.data(), static_cast<uint32_t>(data.size())) == 1;
}

TEST(Image, NewCollectionHeaderAndTheWorkedNumberItem) {
  uint32_t h = collOpen("n");
  {
    coll::LockGuard lock;
    uint8_t *img = coll::GetCollPtr(h);
    EXPECT_EQ(coll::rd16(img + coll::ch::magic), 0x1010u);
    EXPECT_EQ(coll::rd16(img + coll::ch::mark), 0xCE00u);
    EXPECT_EQ(coll::rd16(img + coll::ch::headerSize), 678u);
    EXPECT_EQ(coll::CollPages(img), 1u);
    EXPECT_EQ(coll::CollLockThread(img), 0u);
    // The worked example: a number 7 under the one-character tag 'N'.
    int32_t seven = 7;
    uint8_t *blk = coll::BuildItem(COLLTYPE_NUMERIC, &seven, 4);
    ASSERT_EQ(coll::SetItem(h, "N", blk, 1), 1u);
  }
  EXPECT_EQ(testutil::ItemArea(h), Bytes({1, 0, 0x4E, 10, 0, 5, 0, 0, 0, 10, 0, 7, 0, 0, 0}));
  EXPECT_EQ(Find(h, "n"), 3u);
  EXPECT_EQ(collGetType(h, "N"), 5u);
}

TEST(Image, TagSearchIgnoresCaseButNotLength) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "abc", "v", 1);
  EXPECT_EQ(Item(h, "ABC"), "v");
  EXPECT_EQ(Item(h, "aBc"), "v");
  EXPECT_EQ(Item(h, "ab"), "<missing>");
  EXPECT_EQ(Item(h, "abcd"), "<missing>");
  // Only A-Z have case: other bytes must match exactly.
  collSetItem(h, "\xe4x", "w", 1);
  EXPECT_EQ(Item(h, "\xc4X"), "<missing>");
  EXPECT_EQ(Item(h, "\xe4X"), "w");
}

TEST(Image, TagCacheKeepsTheLastTenMostRecentFirst) {
  uint32_t h = collOpen(nullptr);
  for (int i = 0; i < 11; ++i) {
    char tag[4] = {'t', char('a' + i), 0};
    collSetItem(h, tag, "xyz", 3);
  }
  // Each item takes 2 + 2 + 2 + 6 + 3 = 15 bytes; its tag offset is p + 2.
  std::vector<uint32_t> cache = Cache(h);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(cache[i], 15u * (10 - i) + 2) << i;
  // A found item goes to the front; a repeat is not deduplicated.
  EXPECT_EQ(Find(h, "TA"), 4u);
  cache = Cache(h);
  EXPECT_EQ(cache[0], 2u);
  EXPECT_EQ(cache[1], 15u * 10 + 2);
  // Removing the first item drops every entry at or after it.
  collSetItem(h, "ta", "", 0);
  cache = Cache(h);
  for (uint32_t e : cache) EXPECT_EQ(e, 0u);
  EXPECT_EQ(Item(h, "tk"), "xyz");
  EXPECT_EQ(CheckImage(h), "");
}

TEST(Image, PageGrowthBoundaries) {
  uint32_t h = collOpen(nullptr);
  ASSERT_TRUE(FillTo(h, 2043));
  EXPECT_EQ(testutil::Pages(h), 1u);
  ASSERT_TRUE(FillTo(h, 2044));
  EXPECT_EQ(testutil::Pages(h), 2u);
  ASSERT_TRUE(FillTo(h, 63483));
  EXPECT_EQ(testutil::Pages(h), 31u);
  std::string before = testutil::ItemArea(h);
  // One byte more would need 32 pages: refused, the old item kept whole.
  EXPECT_FALSE(FillTo(h, 63484));
  EXPECT_EQ(testutil::ItemArea(h), before);
  EXPECT_EQ(testutil::Pages(h), 31u);
  // Shrinking gives the pages back.
  ASSERT_TRUE(FillTo(h, 2000));
  EXPECT_EQ(testutil::Pages(h), 1u);
  EXPECT_EQ(CheckImage(h), "");
}

TEST(Image, NewItemRefusedAtThePageLimitLeavesEverythingElse) {
  uint32_t h = collOpen(nullptr);
  ASSERT_TRUE(FillTo(h, 63483 - 20));
  std::string before = testutil::ItemArea(h);
  std::string big(20, 'y');
  EXPECT_EQ(collSetItem(h, "U", big.data(), 20), 0u);  // needs 31 more bytes
  EXPECT_EQ(testutil::ItemArea(h), before);
  EXPECT_EQ(collSetItem(h, "U", big.data(), 9), 1u);  // exactly 63,483
  EXPECT_EQ(testutil::Pages(h), 31u);
}

TEST(Image, ValuesBeyondTheBlockLengthAreRefused) {
  coll::LockGuard lock;
  std::string big(65530, 'z');
  EXPECT_EQ(coll::BuildItem(COLLTYPE_ITEM, big.data(), 65530), nullptr);
  uint8_t *blk = coll::BuildItem(COLLTYPE_ITEM, big.data(), 65529);
  ASSERT_NE(blk, nullptr);
  EXPECT_EQ(coll::BlockLength(blk), 65535u);
  coll::collFreePtr(blk);
}

TEST(Engine, ReplacementInPlaceOrMovedToTheEnd) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "one", "aaa", 3);
  collSetItem(h, "two", "bbb", 3);
  collSetItem(h, "three", "ccc", 3);
  // Same length, other letter case: in place, the tag takes the new case.
  collSetItem(h, "ONE", "AAA", 3);
  EXPECT_EQ(Tags(h), "ONE,two,three");
  EXPECT_EQ(Item(h, "one"), "AAA");
  // Another length: moved to the end.
  collSetItem(h, "one", "aaaa", 4);
  EXPECT_EQ(Tags(h), "two,three,one");
  collSetItem(h, "two", "", 0);
  EXPECT_EQ(Tags(h), "three,one");
  EXPECT_EQ(collItemCount(h), 2u);
  EXPECT_EQ(CheckImage(h), "");
}

TEST(Engine, TagsOfAnyLengthWork) {
  uint32_t h = collOpen(nullptr), g = collOpen(nullptr);
  std::string longTag(3000, 'q');
  longTag += "END";
  ASSERT_EQ(collSetItem(h, longTag.c_str(), "v", 1), 1u);
  std::string upper = longTag;
  for (char &c : upper) c = static_cast<char>(toupper(c));
  EXPECT_EQ(Item(h, upper.c_str()), "v");
  EXPECT_EQ(collCopyItem(g, h, longTag.c_str()), 1u);
  EXPECT_EQ(collRenameTag(g, longTag.c_str(), (longTag + "2").c_str()), 1u);
  EXPECT_EQ(Item(g, (longTag + "2").c_str()), "v");
  EXPECT_EQ(collNameItem(g, 0, nullptr, 0), longTag.size() + 2);
  collEmpty(h);
  EXPECT_EQ(collItemCount(h), 0u);
}

TEST(Engine, EmptyLeavesOnePageAndSparesTheCatalog) {
  uint32_t h = collOpen(nullptr);
  ASSERT_TRUE(FillTo(h, 5000));
  collSetItem(h, "more", "1", 1);
  collEmpty(h);
  EXPECT_EQ(collItemCount(h), 0u);
  EXPECT_EQ(testutil::Pages(h), 1u);
  {
    coll::LockGuard lock;
    coll::SetItem(0x4001, "entry", coll::BuildItem(COLLTYPE_ITEM, "x", 1), 0);
  }
  collEmpty(0x4001);
  EXPECT_EQ(collItemCount(0x4001), 1u);
}

TEST(Engine, DupItemCopiesNestedCollectionsDeeply) {
  uint32_t src = collOpen(nullptr);
  uint32_t child;
  {
    coll::LockGuard lock;
    child = coll::InternalCollCreate(src);
    coll::SetItem(child, "a", coll::BuildItem(COLLTYPE_ITEM, "1", 1), 0);
    coll::SetItem(child, "b", coll::BuildItem(COLLTYPE_ITEM, "22", 2), 0);
    coll::SetItem(child, "c", coll::BuildItem(COLLTYPE_ITEM, "333", 3), 0);
    coll::SetItem(src, "kid", coll::BuildItem(COLLTYPE_COLL, &child, 4), 0);
  }
  uint32_t dst = collOpen(nullptr);
  ASSERT_EQ(collCopyItem(dst, src, "kid"), 1u);
  uint32_t copy;
  {
    coll::LockGuard lock;
    uint8_t *img, *blk;
    uint32_t len;
    ASSERT_TRUE(coll::RetrieveItem(dst, &img, "kid", &blk, &len));
    copy = coll::rd32(coll::BlockData(blk));
  }
  EXPECT_NE(copy, child);
  EXPECT_EQ(Tags(copy), "a,b,c");
  collSetItem(copy, "a", "changed", 7);
  EXPECT_EQ(Item(child, "a"), "1");
  // Replacing the item destroys the nested collection it owned.
  collSetItem(dst, "kid", "plain", 5);
  EXPECT_EQ(collIsBadCollHandle(copy), 1u);
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
}

TEST(Collections, OpenNamesAndTheirLimits) {
  uint32_t h = collOpen(nullptr);
  char buf[80] = "junk";
  EXPECT_EQ(collGetName(h, buf, sizeof buf), 1u);
  EXPECT_STREQ(buf, "");
  std::string n64(64, 'n');
  EXPECT_EQ(collOpen((n64 + "x").c_str()), 0u);
  uint32_t g = collOpen(n64.c_str());
  ASSERT_NE(g, 0u);
  EXPECT_EQ(collGetName(g, nullptr, 0), 65u);
  char b65[65], b64[64];
  EXPECT_EQ(collGetName(g, b65, 65), 65u);
  EXPECT_EQ(std::string(b65), n64);
  EXPECT_EQ(collGetName(g, b64, 64), 65u);
  EXPECT_EQ(std::string(b64), n64.substr(0, 63));
  // A failed call leaves an empty string.
  strcpy(buf, "junk");
  EXPECT_EQ(collGetName(0x40FE, buf, sizeof buf), 0u);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(collOpen(reinterpret_cast<const char *>(8)), 0u);
}

TEST(Collections, CreatorNameCopyRules) {
  uint32_t h = collOpen(nullptr);
  {
    coll::LockGuard lock;
    uint8_t *img = coll::GetCollPtr(h);
    std::memset(img + coll::ch::creatorModule, 0, 32);
    std::memcpy(img + coll::ch::creatorModule, "app.exe", 7);
  }
  char small[4], big[16];
  std::memset(big, 'x', sizeof big);
  EXPECT_EQ(collGetCreator(h, small, sizeof small), 7u);
  EXPECT_EQ(std::string(small, 4), "app.");
  EXPECT_EQ(collGetCreator(h, big, sizeof big), 7u);
  EXPECT_EQ(std::string(big, 16), std::string("app.exe") + std::string(9, '\0'));
  EXPECT_EQ(collGetCreator(h, big, 0), 0u);
}

TEST(Collections, CreatorIsTheRunningProgram) {
  uint32_t h = collOpen(nullptr);
  char name[32];
  uint32_t n = collGetCreator(h, name, sizeof name);
  ASSERT_GT(n, 0u);
  ASSERT_LT(n, 32u);
  EXPECT_EQ(std::string(name).find('/'), std::string::npos);
  EXPECT_NE(std::string("coll_tests").find(std::string(name).substr(0, 10)), std::string::npos);
}

TEST(Collections, EnumerationByIndex) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "First", "1", 1);
  collSetItem(h, "Second", "2", 1);
  char buf[8] = "junk";
  EXPECT_EQ(collNameItem(h, 1, buf, sizeof buf), 7u);
  EXPECT_STREQ(buf, "Second");
  EXPECT_EQ(collNameItem(h, 1, buf, 4), 7u);
  EXPECT_STREQ(buf, "Sec");
  EXPECT_EQ(collNameItem(h, 2, buf, sizeof buf), 0u);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(collNameItem(h, 0, nullptr, 0), 6u);
}

TEST(Collections, CopyItemSemantics) {
  uint32_t a = collOpen(nullptr), b = collOpen(nullptr);
  collSetItem(a, "k", "value", 5);
  collSetItem(b, "k", "old", 3);
  collSetItem(b, "gone", "x", 1);
  EXPECT_EQ(collCopyItem(b, b, "k"), 1u);
  EXPECT_EQ(Item(b, "k"), "old");
  EXPECT_EQ(collCopyItem(b, a, "K"), 1u);
  EXPECT_EQ(Item(b, "k"), "value");
  EXPECT_EQ(collCopyItem(b, a, "gone"), 1u);  // missing in the source: deleted
  EXPECT_EQ(collGetType(b, "gone"), 0u);
  collSetItem(b, "x", "1", 1);
  EXPECT_EQ(collCopyItem(b, 0, "x"), 1u);
  EXPECT_EQ(collGetType(b, "x"), 0u);
  EXPECT_EQ(collCopyItem(0x4001, a, "k"), 0u);
  EXPECT_EQ(collCopyItem(b, 0x40F0, "k"), 0u);
  EXPECT_EQ(collCopyItem(0x40F0, a, "k"), 0u);
}

TEST(Collections, RenameSemantics) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "a", "1", 1);
  collSetItem(h, "b", "2", 1);
  collSetItem(h, "c", "3", 1);
  // Onto an existing other tag: it is replaced; the item ends up last.
  EXPECT_EQ(collRenameTag(h, "a", "c"), 1u);
  EXPECT_EQ(Tags(h), "b,c");
  EXPECT_EQ(Item(h, "c"), "1");
  // Only the letter case: the item stays where it is.
  EXPECT_EQ(collRenameTag(h, "b", "B"), 1u);
  EXPECT_EQ(Tags(h), "B,c");
  EXPECT_EQ(Item(h, "b"), "2");
  EXPECT_EQ(collRenameTag(h, "missing", "x"), 0u);
  EXPECT_EQ(collRenameTag(h, "b", ""), 0u);
  EXPECT_EQ(collRenameTag(0x4001, "b", "x"), 0u);
  EXPECT_EQ(Tags(h), "B,c");
}

uint32_t LiveTables() {
  uint32_t tables[4];
  return collGetTableHandles(tables, sizeof tables);
}

// A copy that the store refuses takes the table or collection it made with
// it: nothing is left owned by the collection but named by none of its items.
TEST(Collections, RefusedCopiesLeaveNoOrphans) {
  uint32_t h = collOpen(nullptr);
  HTABLE t = tableCreate(1, 0);
  uint32_t kid = collOpen(nullptr);
  collSetItem(kid, "x", "1", 1);
  ASSERT_TRUE(collSetTable(h, "tab", t));
  ASSERT_TRUE(collSetColl(h, "kid", kid));
  // Renamed to a tag too long for the image: the rename fails.
  ASSERT_TRUE(FillTo(h, 63000));
  const std::string longTag(1000, 'L');
  EXPECT_EQ(collRenameTag(h, "tab", longTag.c_str()), 0u);
  EXPECT_EQ(collRenameTag(h, "kid", longTag.c_str()), 0u);
  EXPECT_EQ(collGetType(h, "tab"), uint32_t(COLLTYPE_TABLE));
  EXPECT_EQ(testutil::CheckState(), "");
  // Copied into a collection without room for the tag.
  uint32_t full = collOpen(nullptr);
  ASSERT_TRUE(FillTo(full, 63000));
  uint32_t src = collOpen(nullptr);
  ASSERT_TRUE(collSetTable(src, longTag.c_str(), t));
  ASSERT_TRUE(collSetColl(src, (longTag + "k").c_str(), kid));
  EXPECT_EQ(collCopyItem(full, src, longTag.c_str()), 0u);
  EXPECT_EQ(collCopyItem(full, src, (longTag + "k").c_str()), 0u);
  EXPECT_EQ(testutil::CheckState(), "");
  // A merge goes on past the items that do not fit.
  collMerge(full, src);
  EXPECT_EQ(testutil::CheckState(), "");
  for (uint32_t c : {h, kid, full, src}) collClose(c);
  tableDestroy(t);
  EXPECT_EQ(LiveTables(), 0u);
}

// A merge whose destination goes while a change is told: the values copied
// for it afterwards go too.
TEST(Collections, MergeIntoACollectionClosedMeanwhile) {
  uint32_t src = collOpen(nullptr), dest = collOpen(nullptr);
  HTABLE t = tableCreate(1, 0);
  collSetItem(src, "a", "1", 1);
  ASSERT_TRUE(collSetTable(src, "tab", t));
  testutil::Listener closer;
  closer.onMessage = [dest](const testutil::Heard &) { collClose(dest); };
  ASSERT_TRUE(collRequestAdvice(dest, closer.window(), 1));
  EXPECT_EQ(collMerge(dest, src), 0u);
  EXPECT_EQ(collIsBadCollHandle(dest), 1u);
  EXPECT_EQ(testutil::CheckState(), "");
  collClose(src);
  tableDestroy(t);
  EXPECT_EQ(LiveTables(), 0u);
}

// Renaming a table or collection item to the same tag in other letters
// rewrites the same value in place; inside a transaction the rewritten value
// is marked, and it must still own its table or collection.
TEST(Collections, RenameLetterCaseInATransactionKeepsWhatTheItemOwns) {
  uint32_t h = collOpen(nullptr), kid = collOpen(nullptr);
  HTABLE t = tableCreate(1, 0);
  collSetItem(kid, "x", "1", 1);
  ASSERT_TRUE(collSetTable(h, "tab", t));
  ASSERT_TRUE(collSetColl(h, "kid", kid));
  ASSERT_EQ(collLock(h), 1u);
  EXPECT_EQ(collRenameTag(h, "tab", "TAB"), 1u);
  EXPECT_EQ(collRenameTag(h, "kid", "Kid"), 1u);
  EXPECT_EQ(testutil::CheckState(), "");
  EXPECT_EQ(collTableColCount(h, "tab"), 1u);
  EXPECT_EQ(collUnlock(h), 1u);
  EXPECT_EQ(Tags(h), "TAB,Kid");
  uint32_t copy = collGetColl(h, "kid");
  EXPECT_EQ(Item(copy, "x"), "1");
  for (uint32_t c : {h, kid, copy}) collClose(c);
  tableDestroy(t);
  EXPECT_EQ(testutil::CheckState(), "");
}

TEST(Collections, CloseSharedCountsDownThenRemovesTheCatalogEntry) {
  uint32_t h = collOpen("shared one");
  {
    coll::LockGuard lock;
    coll::wr16(coll::GetCollPtr(h) + coll::ch::shareCount, 2);
    coll::SetItem(0x4001, "shared one", coll::BuildItem(COLLTYPE_ITEM, &h, 4), 0);
  }
  collClose(h);
  EXPECT_EQ(collGetShareCount(h), 1u);
  collClose(h);
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(collItemCount(0x4001), 0u);
  // The catalog itself is never closed.
  collClose(0x4001);
  EXPECT_EQ(collIsBadCollHandle(0x4001), 0u);
}

TEST(RawItems, CopyOutRules) {
  uint32_t h = collOpen(nullptr);
  ASSERT_EQ(collSetItem(h, "raw", "abc", 3), 1u);
  char buf[10];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(collGetItem(h, "raw", buf, 10), 3u);
  EXPECT_EQ(std::string(buf, 4), std::string("abc\0", 4));
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(collGetItem(h, "raw", buf, 2), 3u);
  EXPECT_EQ(std::string(buf, 3), "abx");  // cut, no terminator
  EXPECT_EQ(collGetItem(h, "raw", buf, 3), 3u);
  EXPECT_EQ(std::string(buf, 4), "abcx");  // fits exactly: no room for a zero
  EXPECT_EQ(collGetItem(h, "raw", nullptr, 0), 3u);
  // Text items count their terminator and are always terminated.
  {
    coll::LockGuard lock;
    coll::SetItem(h, "txt", coll::BuildItem(COLLTYPE_STRING, "hello", 5), 1);
    int32_t n = 5;
    coll::SetItem(h, "num", coll::BuildItem(COLLTYPE_NUMERIC, &n, 4), 1);
  }
  EXPECT_EQ(collGetItem(h, "txt", buf, 3), 6u);
  EXPECT_STREQ(buf, "he");
  EXPECT_EQ(collGetItem(h, "num", buf, sizeof buf), 0u);
  EXPECT_EQ(collGetItem(h, "missing", buf, sizeof buf), 0u);
  EXPECT_EQ(buf[0], 0);
  // Zero-terminated input and deletion by an empty value.
  EXPECT_EQ(collSetItem(h, "z", "xyz", 0xFFFFFFFFu), 1u);
  EXPECT_EQ(collGetItem(h, "z", nullptr, 0), 3u);
  EXPECT_EQ(collSetItem(h, "z", "xyz", 0), 1u);
  EXPECT_EQ(collGetType(h, "z"), 0u);
}

TEST(RawItems, ArgumentTestsFailBeforeAnythingChanges) {
  uint32_t h = collOpen(nullptr);
  const char *wild = reinterpret_cast<const char *>(0x100);
  EXPECT_EQ(collSetItem(h, wild, "a", 1), 0u);
  EXPECT_EQ(collSetItem(h, "t", wild, 4), 0u);
  EXPECT_EQ(collSetItem(h, "t", nullptr, 0xFFFFFFFFu), 0u);
  EXPECT_EQ(collSetItem(0x4001, "t", "a", 1), 0u);
  EXPECT_EQ(collSetItem(0, "t", "a", 1), 0u);
  EXPECT_EQ(collSetItem(h, "", "a", 1), 0u);
  EXPECT_EQ(collItemCount(h), 0u);
  char buf[4];
  EXPECT_EQ(collGetItem(h, "t", reinterpret_cast<void *>(0x10), 4), 0u);
  EXPECT_EQ(collGetItem(h, nullptr, buf, 4), 0u);
  EXPECT_EQ(collGetType(h, nullptr), 0u);
  EXPECT_EQ(collCompare(h, "t", nullptr, 0xFFFFFFFFu), -1);
}

void *g_lastAlloc;
uint32_t g_lastSize;
void *CountingAlloc(uint32_t size) {
  g_lastSize = size;
  return g_lastAlloc = malloc(size);
}
void *FailingAlloc(uint32_t) { return nullptr; }

TEST(RawItems, ObtainUsesTheCallersAllocator) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "raw", "12345", 5);
  uint32_t length = 99;
  char *p = static_cast<char *>(collObtainItem(h, "raw", CountingAlloc, &length));
  ASSERT_EQ(p, g_lastAlloc);
  EXPECT_EQ(g_lastSize, 6u);
  EXPECT_EQ(length, 5u);
  EXPECT_STREQ(p, "12345");
  free(p);
  EXPECT_EQ(collObtainItem(h, "missing", CountingAlloc, &length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(collObtainItem(h, "raw", FailingAlloc, &length), nullptr);
  EXPECT_EQ(length, 5u);
  EXPECT_EQ(collObtainItem(h, "raw", nullptr, &length), nullptr);
  EXPECT_EQ(length, 0u);
}

TEST(RawItems, CompareRules) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "t", "Hello", 5);
  EXPECT_EQ(collCompare(h, "t", "hELLO", 0xFFFFFFFFu), 0);
  EXPECT_EQ(collCompare(h, "t", "Hell", 0xFFFFFFFFu), 0);      // the shorter decides
  EXPECT_EQ(collCompare(h, "t", "Hello world", 0xFFFFFFFFu), 0);
  EXPECT_EQ(collCompare(h, "t", "Help", 0xFFFFFFFFu), -1);     // 'L' < 'P'
  EXPECT_EQ(collCompare(h, "t", "Heal", 0xFFFFFFFFu), 1);
  EXPECT_EQ(collCompare(h, "t", "HELLO", 6), -1);              // longer than the data
  EXPECT_EQ(collCompare(h, "t", "HE", 3), -1);                 // value ends before length
  EXPECT_EQ(collCompare(h, "t", "HEx", 2), 0);
  EXPECT_EQ(collCompare(h, "t", "zzz", 0), 0);
  EXPECT_EQ(collCompare(h, "missing", "a", 0xFFFFFFFFu), -1);
  EXPECT_EQ(collCompare(0x40FE, "t", "a", 0xFFFFFFFFu), -1);
}

// Seeded changes of every kind to collections large enough for a tag index:
// after each, the index agrees with a walk (CheckState) and every read with
// a model; closing and opening again reuses the handle without the index.
TEST(TagIndex, AgreesWithTheWalkThroughEveryChange) {
  std::mt19937 rng(20261123);
  std::map<std::string, std::string> model;  // tag in upper case -> text
  HCOLL h = collOpen("big"), other = collOpen("other");
  auto upper = [](std::string t) {
    for (char &c : t) c = static_cast<char>(coll::AsciiUpper(static_cast<uint8_t>(c)));
    return t;
  };
  auto anyTag = [&] {
    const std::string t = "tag" + std::to_string(rng() % 90);
    return rng() % 2 ? upper(t) : t;
  };
  uint32_t indexed = 0;
  for (int step = 0; step < 4000; ++step) {
    const std::string tag = anyTag(), key = upper(tag);
    char buf[16];
    switch (rng() % 9) {
      case 0: case 1: case 2: {  // an empty text deletes; another length moves the item to the end
        const std::string text(rng() % 6, char('a' + rng() % 26));
        ASSERT_EQ(collSetString(h, tag.c_str(), text.c_str()), 1u);
        if (text.empty()) model.erase(key); else model[key] = text;
        break;
      }
      case 3: {
        const std::string to = anyTag();
        const bool had = model.count(key) != 0;
        ASSERT_EQ(collRenameTag(h, tag.c_str(), to.c_str()), had ? 1u : 0u);
        if (had) {
          const std::string v = model[key];
          model.erase(key);
          model[upper(to)] = v;
        }
        break;
      }
      case 4: case 5: {
        const auto it = model.find(key);
        const std::string want = it == model.end() ? "" : it->second;
        ASSERT_EQ(collGetString(h, tag.c_str(), buf, sizeof buf), want.size() + 1) << tag;
        ASSERT_EQ(std::string(buf), want) << tag;
        break;
      }
      case 6:
        if (rng() % 4 == 0) collMerge(other, h);
        break;
      case 7:
        if (rng() % 8 == 0) {
          std::string image(collDumpItems(h, nullptr, 0), '\0');
          collDumpItems(h, image.data(), static_cast<uint32_t>(image.size()));
          collLoadItems(other, image.data(), static_cast<uint32_t>(image.size()));
          collSetColl(other, key.c_str(), h);
        }
        break;
      default:
        if (rng() % 40 == 0) {
          collClose(h);
          ASSERT_EQ(collOpen("again"), h);
          model.clear();
        } else if (rng() % 40 == 0) {
          collEmpty(other);
        }
        break;
    }
    {
      coll::LockGuard lock;
      if (coll::TagIndexEntries(h, coll::GetCollPtr(h)) >= 0) ++indexed;
    }
    ASSERT_EQ(testutil::CheckState(), "") << "step " << step;
  }
  EXPECT_GT(indexed, 2000u);
  collClose(h);
  collClose(other);
}

}  // namespace
