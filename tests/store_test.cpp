// The collection store: image layout, tag search and its cache, growth by
// pages, the item engine, and the collection and raw-item functions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <string>

#include "coll.h"
#include "store/store.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"

using testutil::Item;
using testutil::Tags;
using namespace std::string_literals;

namespace {

std::vector<uint32_t> Cache(uint32_t h) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < coll::COLL_CACHE_SIZE; ++i) out.push_back(coll::rd32(img + coll::ch::tagCache + 4 * i));
  return out;
}

// A raw item whose image in use comes to exactly `used` bytes in a fresh
// collection (tag "T": 2 + 1 + 2 + 6 bytes of item around the data).
bool FillTo(uint32_t h, uint32_t used) {
  std::string data(used - 678 - 11, 'x');
  return collSetItem(h, "T", data.data(), uint32_t(data.size())) == 1;
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
  }
  ASSERT_EQ(collSetNumeric(h, "N", 7), 1u);
  EXPECT_EQ(testutil::ItemArea(h), std::string("\1\0N\12\0\5\0\0\0\12\0\7\0\0\0", 15));
  EXPECT_EQ(Item(h, "abc"), "<missing>");
}

TEST(Image, TagsMatchWithoutRegardToCaseOfAToZOnly) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "abc", "v", 1);
  collSetItem(h, "\xe4x", "w", 1);
  const std::pair<const char *, const char *> cases[] = {
      {"ABC", "v"}, {"aBc", "v"}, {"ab", "<missing>"}, {"abcd", "<missing>"}, {"\xc4X", "<missing>"}, {"\xe4X", "w"}};
  for (const auto &[tag, value] : cases) EXPECT_EQ(Item(h, tag), value) << tag;
}

TEST(Image, TagCacheKeepsTheLastTenMostRecentFirst) {
  uint32_t h = collOpen(nullptr);
  for (char c = 'a'; c <= 'k'; ++c) collSetItem(h, std::string{'t', c}.c_str(), "xyz", 3);
  // Each item takes 2 + 2 + 2 + 6 + 3 = 15 bytes; its tag offset is p + 2.
  std::vector<uint32_t> cache = Cache(h);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(cache[i], 15u * (10 - i) + 2) << i;
  // A found item goes to the front; a repeat is not deduplicated.
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::FindAndSkipTag(coll::GetCollPtr(h), "TA", 2), 4u);
  }
  cache = Cache(h);
  EXPECT_EQ(cache[0], 2u);
  EXPECT_EQ(cache[1], 15u * 10 + 2);
  // Removing the first item drops every entry at or after it.
  collSetItem(h, "ta", "", 0);
  EXPECT_EQ(Cache(h), std::vector<uint32_t>(10, 0));
  EXPECT_EQ(Item(h, "tk"), "xyz");
}

TEST(Image, PagesGrowShrinkAndStopAt31) {
  uint32_t h = collOpen(nullptr);
  for (const auto &[used, pages] : {std::pair{2043u, 1u}, {2044u, 2u}, {63483u, 31u}}) {
    ASSERT_TRUE(FillTo(h, used));
    EXPECT_EQ(testutil::Pages(h), pages) << used;
  }
  std::string before = testutil::ItemArea(h);
  // One byte more would need 32 pages: refused, the old item kept whole.
  EXPECT_FALSE(FillTo(h, 63484));
  EXPECT_EQ(testutil::ItemArea(h), before);
  ASSERT_TRUE(FillTo(h, 2000));
  EXPECT_EQ(testutil::Pages(h), 1u);
  ASSERT_TRUE(FillTo(h, 63483 - 20));
  before = testutil::ItemArea(h);
  EXPECT_EQ(collSetItem(h, "U", std::string(20, 'y').data(), 20), 0u);  // needs 31 more bytes
  EXPECT_EQ(testutil::ItemArea(h), before);
  EXPECT_EQ(collSetItem(h, "U", "123456789", 9), 1u);  // exactly 63,483
  EXPECT_EQ(testutil::Pages(h), 31u);
  collEmpty(h);
  EXPECT_EQ(testutil::Pages(h), 1u);
  coll::LockGuard lock;
  std::string big(65530, 'z');
  EXPECT_EQ(coll::BuildItem(COLLTYPE_ITEM, big.data(), 65530), nullptr);
  uint8_t *blk = coll::BuildItem(COLLTYPE_ITEM, big.data(), 65529);
  EXPECT_EQ(coll::BlockLength(blk), 65535u);
  coll::collFreePtr(blk);
}

TEST(Collections, NamesCreatorsAndItemNames) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "First", "1", 1);
  collSetItem(h, "Second", "2", 1);
  {
    coll::LockGuard lock;
    uint8_t *img = coll::GetCollPtr(h);
    std::memset(img + coll::ch::creatorModule, 0, 32);
    std::memcpy(img + coll::ch::creatorModule, "app.exe", 7);
  }
  const std::string n64(64, 'n');
  EXPECT_EQ(collOpen((n64 + "x").c_str()), 0u);
  uint32_t g = collOpen(n64.c_str());
  // Each getter with the buffer's size: result, then the bytes it wrote.
  const struct {
    std::function<uint32_t(char *, uint32_t)> get;
    uint32_t size, result;
    std::string bytes;
  } cases[] = {
      {[&](char *b, uint32_t s) { return collGetName(h, b, s); }, 80, 1, std::string(1, '\0')},
      {[&](char *b, uint32_t s) { return collGetName(g, b, s); }, 65, 65, n64 + '\0'},
      {[&](char *b, uint32_t s) { return collGetName(g, b, s); }, 64, 65, n64.substr(0, 63) + '\0'},
      {[&](char *b, uint32_t s) { return collGetName(0x40FE, b, s); }, 80, 0, std::string(1, '\0')},
      {[&](char *b, uint32_t s) { return collGetCreator(h, b, s); }, 4, 7, "app."},
      {[&](char *b, uint32_t s) { return collGetCreator(h, b, s); }, 16, 7, "app.exe" + std::string(9, '\0')},
      {[&](char *b, uint32_t s) { return collGetCreator(h, b, s); }, 0, 0, ""},
      {[&](char *b, uint32_t s) { return collNameItem(h, 1, b, s); }, 8, 7, "Second\0"s},
      {[&](char *b, uint32_t s) { return collNameItem(h, 1, b, s); }, 4, 7, "Sec\0"s},
      {[&](char *b, uint32_t s) { return collNameItem(h, 2, b, s); }, 8, 0, std::string(1, '\0')},
      {[&](char *b, uint32_t s) { return collNameItem(h, 0, b, s); }, 0, 6, ""},
  };
  for (const auto &c : cases) {
    std::string buf(100, '#');
    EXPECT_EQ(c.get(c.size ? buf.data() : nullptr, c.size), c.result) << c.bytes;
    EXPECT_EQ(buf.substr(0, c.bytes.size()), c.bytes);
    if (c.bytes.size() == 1) { EXPECT_EQ(buf[1], '#'); }
  }
  // A new collection's creator is the running program, without directory.
  char name[32];
  const uint32_t n = collGetCreator(collOpen(nullptr), name, sizeof name);
  ASSERT_TRUE(n > 0 && n < 32);
  EXPECT_EQ(std::string("coll_tests").find(std::string(name).substr(0, 10)), 0u) << name;
}

TEST(Collections, CopyAndRenameRules) {
  uint32_t a = collOpen(nullptr), b = collOpen(nullptr);
  collSetItem(a, "k", "value", 5);
  collSetItem(b, "k", "old", 3);
  collSetItem(b, "gone", "x", 1);
  collSetItem(b, "x", "1", 1);
  const std::pair<uint32_t, uint32_t> cases[] = {
      {collCopyItem(b, b, "k"), 1}, {collCopyItem(b, a, "K"), 1}, {collCopyItem(b, a, "gone"), 1},  // deleted
      {collCopyItem(b, 0, "x"), 1}, {collCopyItem(0x4001, a, "k"), 0}, {collRenameTag(a, "missing", "x"), 0},
      {collRenameTag(0x4001, "k", "x"), 0},
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;
  EXPECT_EQ(Tags(b), "K");
  EXPECT_EQ(Item(b, "k"), "value");
  // Tags of any length work everywhere.
  const std::string longTag = std::string(3000, 'q') + "END";
  ASSERT_EQ(collCopyItem(b, a, "k"), 1u);
  ASSERT_EQ(collRenameTag(b, "k", longTag.c_str()), 1u);
  EXPECT_EQ(collCopyItem(a, b, longTag.c_str()), 1u);
  EXPECT_EQ(collNameItem(a, 1, nullptr, 0), longTag.size() + 1);
}

// A rename is told as the new tag's change, then the old tag's deletion; the
// item it replaces goes untold.
TEST(Collections, RenameIsToldOnce) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "a", "1", 1);
  collSetItem(h, "c", "3", 1);
  testutil::Listener listener;
  ASSERT_TRUE(collRequestAdvice(h, listener.window(), 1));
  ASSERT_EQ(collRenameTag(h, "a", "c"), 1u);
  EXPECT_EQ(listener.Tags(), "c,a");
  EXPECT_EQ(Tags(h), "c");
}

// A nested collection is copied deeply; replacing the item destroys it.
TEST(Collections, NestedItemsAreCopiedDeeply) {
  uint32_t src = collOpen(nullptr), kid = collOpen(nullptr), dst = collOpen(nullptr);
  collSetItem(kid, "a", "1", 1);
  collSetItem(kid, "b", "22", 2);
  collSetColl(src, "kid", kid);
  ASSERT_EQ(collCopyItem(dst, src, "kid"), 1u);
  const uint32_t child = testutil::HandleOf(src, "kid"), copy = testutil::HandleOf(dst, "kid");
  EXPECT_NE(copy, child);
  EXPECT_EQ(Tags(copy), "a,b");
  collSetItem(copy, "a", "changed", 7);
  EXPECT_EQ(Item(child, "a"), "1");
  collSetItem(dst, "kid", "plain", 5);
  EXPECT_EQ(collIsBadCollHandle(copy), 1u);
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
  // So does a replacement that needs more pages, and the table of one.
  collSetTable(dst, "tab", tableCreate(1, 0));
  for (const char *tag : {"kid", "tab"}) {
    collSetColl(src, "kid", kid);
    ASSERT_EQ(collCopyItem(dst, src, "kid"), 1u);
    const uint32_t held = testutil::HandleOf(dst, tag);
    ASSERT_TRUE(FillTo(dst, 6000));
    ASSERT_EQ(collSetItem(dst, tag, std::string(3000, 'p').data(), 3000), 1u);
    EXPECT_EQ(collIsBadCollHandle(held) && tableRowCount(held) == 0xFFFFFFFFu, true) << tag;
    EXPECT_EQ(testutil::CheckState(), "") << tag;
    collSetItem(dst, "T", "", 0);
  }
}

// A copy that the store refuses takes the table or collection it made with
// it: nothing is left owned by the collection but named by none of its items.
TEST(Collections, RefusedCopiesLeaveNoOrphans) {
  uint32_t h = collOpen(nullptr), kid = collOpen(nullptr), full = collOpen(nullptr), src = collOpen(nullptr);
  HTABLE t = tableCreate(1, 0);
  collSetItem(kid, "x", "1", 1);
  ASSERT_TRUE(collSetTable(h, "tab", t) && collSetColl(h, "kid", kid));
  ASSERT_TRUE(FillTo(h, 63000) && FillTo(full, 63000));
  const std::string longTag(1000, 'L');
  ASSERT_TRUE(collSetTable(src, longTag.c_str(), t) && collSetColl(src, (longTag + "k").c_str(), kid));
  // Renamed to a tag too long for the image; copied into a collection
  // without room for the tag; merged past the items that do not fit.
  EXPECT_EQ(collRenameTag(h, "tab", longTag.c_str()) + collRenameTag(h, "kid", longTag.c_str()), 0u);
  EXPECT_EQ(collGetType(h, "tab"), uint32_t(COLLTYPE_TABLE));
  EXPECT_EQ(collCopyItem(full, src, longTag.c_str()) + collCopyItem(full, src, (longTag + "k").c_str()), 0u);
  collMerge(full, src);
  EXPECT_EQ(testutil::CheckState(), "");
  // Renaming in other letters inside a transaction rewrites the value in
  // place, marked, still owning its table or collection.
  ASSERT_EQ(collLock(h), 1u);
  EXPECT_EQ(collRenameTag(h, "tab", "TAB") + collRenameTag(h, "kid", "Kid"), 2u);
  EXPECT_EQ(testutil::CheckState(), "");
  EXPECT_EQ(collUnlock(h), 1u);
  EXPECT_EQ(Tags(h), "TAB,Kid,T");
  EXPECT_EQ(Item(collGetColl(h, "kid"), "x"), "1");
  for (uint32_t c : {h, kid, full, src}) collClose(c);
  tableDestroy(t);
  EXPECT_EQ(testutil::LiveTables(), 0u);
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
  EXPECT_EQ(testutil::LiveTables(), 0u);
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
  collEmpty(0x4001);  // the catalog is never emptied
  EXPECT_EQ(collItemCount(0x4001), 1u);
  collClose(h);
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(collItemCount(0x4001), 0u);
  collClose(0x4001);  // nor closed
  EXPECT_EQ(collIsBadCollHandle(0x4001), 0u);
}

void *g_lastAlloc;
uint32_t g_lastSize;
void *CountingAlloc(uint32_t size) { return g_lastSize = size, g_lastAlloc = malloc(size); }
void *FailingAlloc(uint32_t) { return nullptr; }

TEST(RawItems, CopyOutObtainAndCompare) {
  uint32_t h = collOpen(nullptr);
  collSetItem(h, "raw", "abc", 3);
  collSetString(h, "txt", "hello");
  collSetNumeric(h, "num", 5);
  // Buffer size, result, the buffer's first four bytes (from "xxxx").
  const struct {
    const char *tag;
    uint32_t size, result;
    std::string bytes;
  } cases[] = {
      {"raw", 10, 3, "abc\0"s}, {"raw", 2, 3, "abxx"},  // cut, no terminator
      {"raw", 3, 3, "abcx"},                            // fits exactly: no room for a zero
      {"txt", 3, 6, "he\0x"s},                          // text counts and ends with a zero
      {"num", 10, 0, "\0xxx"s}, {"missing", 10, 0, "\0xxx"s},
  };
  for (const auto &c : cases) {
    char buf[10] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(collGetItem(h, c.tag, buf, c.size), c.result) << c.tag << c.size;
    EXPECT_EQ(std::string(buf, 4), c.bytes) << c.tag << c.size;
  }
  EXPECT_EQ(collGetItem(h, "raw", nullptr, 0), 3u);
  EXPECT_EQ(collSetItem(h, "z", "xyz", 0xFFFFFFFFu), 1u);  // zero-terminated input
  EXPECT_EQ(Item(h, "z"), "xyz");
  uint32_t length = 99;
  char *p = static_cast<char *>(collObtainItem(h, "z", CountingAlloc, &length));
  ASSERT_EQ(p, g_lastAlloc);
  EXPECT_EQ(g_lastSize, 4u);
  EXPECT_EQ(length, 3u);
  EXPECT_STREQ(p, "xyz");
  free(p);
  EXPECT_EQ(collObtainItem(h, "missing", CountingAlloc, &length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(collObtainItem(h, "raw", FailingAlloc, &length), nullptr);
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(collObtainItem(h, "raw", nullptr, &length), nullptr);
  EXPECT_EQ(length, 0u);
  // Comparison without regard to case, over the shorter length.
  collSetItem(h, "t", "Hello", 5);
  const std::tuple<const char *, uint32_t, int32_t> compares[] = {
      {"hELLO", ~0u, 0}, {"Hell", ~0u, 0}, {"Hello world", ~0u, 0}, {"Help", ~0u, -1}, {"Heal", ~0u, 1},
      {"HELLO", 6, -1},  // longer than the data
      {"HE", 3, -1},     // value ends before length
      {"HEx", 2, 0}, {"zzz", 0, 0},
  };
  for (const auto &[value, n, want] : compares) EXPECT_EQ(collCompare(h, "t", value, n), want) << value;
  EXPECT_EQ(collCompare(h, "missing", "a", ~0u), -1);
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
