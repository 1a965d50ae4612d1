// Typed values: text and number items, their text rendering, times, nested
// collections, merging and placeholder substitution.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "coll.h"
#include "store/store.h"
#include "tests/test_util.h"
#include "values/values.h"

namespace {

// The text of an item as collGetString gives it, with its result.
struct Text {
  std::string text;
  uint32_t result;
};
Text GetText(HCOLL h, const char *tag, uint32_t size = 256) {
  std::vector<char> buf(size + 1, '#');
  buf[size] = 0;
  uint32_t r = collGetString(h, tag, buf.data(), size);
  return {size ? std::string(buf.data()) : std::string(), r};
}

// Renders a block built from type and data bytes.
Text Render(uint32_t type, const void *data, uint32_t n, uint32_t size = 256) {
  coll::LockGuard lock;
  uint8_t *block = coll::BuildItem(type, data, n);
  std::vector<char> buf(size + 1, '#');
  buf[size] = 0;
  uint32_t r = coll::BuildStringResult(block, size ? buf.data() : nullptr, size, n);
  coll::collFreePtr(block);
  return {size ? std::string(buf.data(), std::strlen(buf.data())) : std::string(), r};
}

// Stores raw bytes with any type code (as a load would).
void StoreTyped(HCOLL h, const char *tag, uint32_t type, const void *data, uint32_t n) {
  coll::LockGuard lock;
  ASSERT_EQ(coll::SetItem(h, tag, coll::BuildItem(type, data, n), 1), 1u);
}

// Allocators for the obtain functions that record what they were asked.
std::vector<uint32_t> g_allocSizes;
void *RecordingAlloc(uint32_t size) {
  g_allocSizes.push_back(size);
  void *p = std::malloc(size);
  std::memset(p, 0x5A, size);  // not zero-filled: shows what is written
  return p;
}
void *FailingAlloc(uint32_t size) {
  g_allocSizes.push_back(size);
  return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- rendering

TEST(Rendering, EveryTypeCode) {
  const char bytes[] = {'a', 'b', 0, 'c'};
  EXPECT_EQ(Render(COLLTYPE_ITEM, bytes, 4).text, "ab");
  EXPECT_EQ(Render(COLLTYPE_ITEM, bytes, 4).result, 3u);
  EXPECT_EQ(Render(COLLTYPE_ITEM, "abc", 3).result, 4u);  // no zero: all bytes
  // Text items (and code 7) give all their bytes, zero bytes included.
  EXPECT_EQ(Render(COLLTYPE_STRING, bytes, 4).result, 5u);
  EXPECT_EQ(Render(7, "xyz", 3).text, "xyz");
  EXPECT_EQ(Render(7, "xyz", 3).result, 4u);
  uint8_t four[4] = {1, 0, 0, 0};
  EXPECT_EQ(Render(COLLTYPE_TABLE, four, 4).result, 0u);
  EXPECT_EQ(Render(COLLTYPE_COLL, four, 4).result, 0u);
  EXPECT_EQ(Render(0, "abc", 3).result, 0u);
  EXPECT_EQ(Render(8, "abc", 3).result, 0u);
  // Nothing is written for a type without text.
  EXPECT_EQ(Render(COLLTYPE_COLL, four, 4, 8).text, "########");
}

TEST(Rendering, Numbers) {
  const struct {
    int32_t v;
    const char *text;
  } cases[] = {{0, "0"}, {-5, "-5"}, {123456, "123456"}, {INT32_MAX, "2147483647"}, {INT32_MIN, "-2147483648"}};
  for (const auto &c : cases) {
    uint8_t d[4];
    coll::wr32(d, static_cast<uint32_t>(c.v));
    Text t = Render(COLLTYPE_NUMERIC, d, 4);
    EXPECT_EQ(t.text, c.text);
    EXPECT_EQ(t.result, std::strlen(c.text) + 1);
  }
}

TEST(Rendering, TimesAsLocalTimeText) {
  // TZ=UTC for every test.
  const struct {
    uint32_t t;
    const char *text;
  } cases[] = {
      {0, "Thu Jan  1 00:00:00 1970"},
      {951782400, "Tue Feb 29 00:00:00 2000"},
      {1234567890, "Fri Feb 13 23:31:30 2009"},
      {0x80000000u, "Tue Jan 19 03:14:08 2038"},  // no wrap to 1901
      {0xFFFFFFFFu, "Sun Feb  7 06:28:15 2106"},
  };
  for (const auto &c : cases) {
    uint8_t d[4];
    coll::wr32(d, c.t);
    Text t = Render(COLLTYPE_TIME, d, 4);
    EXPECT_EQ(t.text, c.text);
    EXPECT_EQ(t.result, 25u);
  }
}

TEST(Rendering, TimesFollowTheLocalZone) {
#ifdef _WIN32
  _putenv_s("TZ", "EST5");  // this process only
  _tzset();
#else
  setenv("TZ", "EST5", 1);  // this process only
  tzset();
#endif
  uint8_t d[4] = {};
  EXPECT_EQ(Render(COLLTYPE_TIME, d, 4).text, "Wed Dec 31 19:00:00 1969");
}

TEST(Rendering, ShortNumberOrTimeHasNoText) {
  EXPECT_EQ(Render(COLLTYPE_NUMERIC, "ab", 2).result, 0u);
  EXPECT_EQ(Render(COLLTYPE_TIME, "abc", 3).result, 0u);
}

TEST(Rendering, FormattedTextsAreCutToo) {
  uint8_t d[4];
  coll::wr32(d, static_cast<uint32_t>(-12345));
  Text t = Render(COLLTYPE_NUMERIC, d, 4, 3);
  EXPECT_EQ(t.text, "-1");
  EXPECT_EQ(t.result, 7u);
  t = Render(COLLTYPE_NUMERIC, d, 4, 1);
  EXPECT_EQ(t.text, "");
  EXPECT_EQ(Render(COLLTYPE_NUMERIC, d, 4, 0).result, 7u);
  coll::wr32(d, 0);
  t = Render(COLLTYPE_TIME, d, 4, 11);
  EXPECT_EQ(t.text, "Thu Jan  1");
  EXPECT_EQ(t.result, 25u);
}

// ---------------------------------------------------------------- numbers

TEST(Numbers, StoreAndRead) {
  HCOLL h = collOpen("n");
  EXPECT_EQ(collSetNumeric(h, "n", -5), 1u);
  EXPECT_EQ(collGetNumeric(h, "N"), -5);
  EXPECT_EQ(collGetType(h, "n"), static_cast<uint32_t>(COLLTYPE_NUMERIC));
  Text t = GetText(h, "n", 10);
  EXPECT_EQ(t.text, "-5");
  EXPECT_EQ(t.result, 3u);
  EXPECT_EQ(collSetNumeric(h, "zero", 0), 1u);  // 0 is a value, not a deletion
  EXPECT_EQ(collGetType(h, "zero"), static_cast<uint32_t>(COLLTYPE_NUMERIC));
  EXPECT_EQ(GetText(h, "zero").text, "0");
  EXPECT_EQ(testutil::CheckImage(h), "");
}

TEST(Numbers, TextConvertsLikeAtol) {
  HCOLL h = collOpen("n");
  const struct {
    const char *text;
    int32_t v;
  } cases[] = {
      {" 42abc", 42},        {"abc", 0},           {"\t\n -17", -17},        {"+8", 8},
      {"- 8", 0},            {"2147483647", INT32_MAX}, {"2147483648", INT32_MAX}, {"-2147483649", INT32_MIN},
      {"99999999999999", INT32_MAX}, {"007", 7},   {"12 34", 12},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(collSetString(h, "s", c.text), 1u);
    EXPECT_EQ(collGetNumeric(h, "s"), c.v) << c.text;
  }
}

TEST(Numbers, OtherTypesReadAsZero) {
  HCOLL h = collOpen("n");
  collSetItem(h, "raw", "42", 2);
  collSetTime(h, "time", 1000);
  StoreTyped(h, "seven", 7, "42", 2);
  EXPECT_EQ(collGetNumeric(h, "raw"), 0);
  EXPECT_EQ(collGetNumeric(h, "time"), 0);
  EXPECT_EQ(collGetNumeric(h, "seven"), 0);
  EXPECT_EQ(collGetNumeric(h, "missing"), 0);
  EXPECT_EQ(collGetNumeric(0x40FE, "raw"), 0);
  EXPECT_EQ(collGetNumeric(h, nullptr), 0);
}

TEST(Numbers, CatalogAcceptsNumbersButNotText) {
  HCOLL cat = 0x4001;
  EXPECT_EQ(collSetNumeric(cat, "num", 7), 1u);
  EXPECT_EQ(collGetNumeric(cat, "num"), 7);
  EXPECT_EQ(collSetString(cat, "str", "x"), 0u);
  EXPECT_EQ(collGetType(cat, "str"), 0u);
}

TEST(Numbers, BadArguments) {
  HCOLL h = collOpen("n");
  EXPECT_EQ(collSetNumeric(0x40FE, "n", 1), 0u);
  EXPECT_EQ(collSetNumeric(h, nullptr, 1), 0u);
  EXPECT_EQ(collSetNumeric(h, "", 1), 0u);
  EXPECT_EQ(collItemCount(h), 0u);
}

// ---------------------------------------------------------------- text

TEST(Strings, StoreReadAndTruncate) {
  HCOLL h = collOpen("s");
  EXPECT_EQ(collSetString(h, "t", "abcdef"), 1u);
  // tag length word, tag, block length word, block head, 6 characters: no
  // terminator is stored.
  EXPECT_EQ(testutil::ItemArea(h).size(), 2u + 1 + 2 + 6 + 6);
  Text t = GetText(h, "T", 4);
  EXPECT_EQ(t.text, "abc");
  EXPECT_EQ(t.result, 7u);
  t = GetText(h, "t", 7);
  EXPECT_EQ(t.text, "abcdef");
  EXPECT_EQ(t.result, 7u);
  EXPECT_EQ(collGetString(h, "t", nullptr, 0), 7u);
  char one = '#';
  EXPECT_EQ(collGetString(h, "t", &one, 1), 7u);
  EXPECT_EQ(one, 0);
}

TEST(Strings, EmptyTextDeletesTheItem) {
  HCOLL h = collOpen("s");
  collSetString(h, "a", "x");
  collSetString(h, "b", "y");
  EXPECT_EQ(collSetString(h, "A", ""), 1u);
  EXPECT_EQ(testutil::Tags(h), "b");
  Text t = GetText(h, "a", 10);
  EXPECT_EQ(t.result, 1u);
  EXPECT_EQ(t.text, "");
}

TEST(Strings, ReadsEveryType) {
  HCOLL h = collOpen("s");
  const char raw[] = {'a', 'b', 0, 'c'};
  collSetItem(h, "raw", raw, 4);
  collSetTime(h, "time", 0);
  StoreTyped(h, "seven", 7, "seven", 5);
  uint8_t four[4] = {};
  StoreTyped(h, "coll", COLLTYPE_COLL + 100, four, 4);  // an unknown code
  Text t = GetText(h, "raw");
  EXPECT_EQ(t.text, "ab");
  EXPECT_EQ(t.result, 3u);
  t = GetText(h, "time");
  EXPECT_EQ(t.text, "Thu Jan  1 00:00:00 1970");
  EXPECT_EQ(t.result, 25u);
  EXPECT_EQ(GetText(h, "seven").text, "seven");
  t = GetText(h, "coll");
  EXPECT_EQ(t.result, 0u);
  EXPECT_EQ(t.text, "");  // the buffer is cleared first
}

TEST(Strings, BadArguments) {
  HCOLL h = collOpen("s");
  char buf[8];
  EXPECT_EQ(collSetString(0x40FE, "t", "x"), 0u);
  EXPECT_EQ(collSetString(h, nullptr, "x"), 0u);
  EXPECT_EQ(collSetString(h, "t", nullptr), 0u);
  EXPECT_EQ(collItemCount(h), 0u);
  EXPECT_EQ(collGetString(0x40FE, "t", buf, 8), 0u);
  EXPECT_EQ(collGetString(h, "t", nullptr, 8), 0u);
  EXPECT_EQ(collGetString(h, nullptr, buf, 8), 0u);
  EXPECT_EQ(collGetString(h, "missing", nullptr, 0), 1u);
}

// ---------------------------------------------------------------- obtain

TEST(Obtain, AllocatorSizesAndLengths) {
  HCOLL h = collOpen("o");
  collSetString(h, "s", "xy");
  uint32_t len = 99;
  g_allocSizes.clear();
  char *p = collObtainString(h, "s", RecordingAlloc, &len);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p), "xy");
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(g_allocSizes, std::vector<uint32_t>{4});
  std::free(p);

  g_allocSizes.clear();
  p = collObtainString(h, "missing", RecordingAlloc, &len);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[0], 0);
  EXPECT_EQ(len, 1u);
  EXPECT_EQ(g_allocSizes, std::vector<uint32_t>{1});
  std::free(p);

  collSetNumeric(h, "n", -100);
  g_allocSizes.clear();
  p = collObtainString(h, "n", RecordingAlloc, &len);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p), "-100");
  EXPECT_EQ(len, 5u);
  EXPECT_EQ(g_allocSizes, std::vector<uint32_t>{6});
  std::free(p);
}

TEST(Obtain, FailuresAndAllocatorRefusal) {
  HCOLL h = collOpen("o");
  collSetString(h, "s", "abc");
  uint32_t len = 99;
  EXPECT_EQ(collObtainString(0x40FE, "s", RecordingAlloc, &len), nullptr);
  EXPECT_EQ(len, 0u);
  len = 99;
  EXPECT_EQ(collObtainString(h, "s", nullptr, &len), nullptr);
  EXPECT_EQ(len, 0u);
  len = 99;
  EXPECT_EQ(collObtainString(h, nullptr, RecordingAlloc, &len), nullptr);
  EXPECT_EQ(len, 0u);
  // The allocator's refusal keeps the reported length.
  g_allocSizes.clear();
  EXPECT_EQ(collObtainString(h, "s", FailingAlloc, &len), nullptr);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(collObtainString(h, "missing", FailingAlloc, &len), nullptr);
  EXPECT_EQ(len, 1u);
  EXPECT_EQ(g_allocSizes, (std::vector<uint32_t>{5, 1}));
  // An unwritable length pointer is not written.
  char *p = collObtainString(h, "s", RecordingAlloc, nullptr);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(p), "abc");
  std::free(p);
}
TEST(Strings, NestedCollectionHasNoText) {
  HCOLL h = collOpen("s"), src = collOpen("src");
  collSetString(src, "x", "1");
  ASSERT_EQ(collSetColl(h, "c", src), 1u);
  Text t = GetText(h, "c");
  EXPECT_EQ(t.result, 0u);
  EXPECT_EQ(t.text, "");
}
TEST(Obtain, ValueWithoutTextGivesEmptyBuffer) {
  HCOLL h = collOpen("o"), src = collOpen("src");
  collSetString(src, "x", "1");
  collSetColl(h, "c", src);
  uint32_t len = 99;
  g_allocSizes.clear();
  char *p = collObtainString(h, "c", RecordingAlloc, &len);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(g_allocSizes, std::vector<uint32_t>{1});
  EXPECT_EQ(p[0], 0);
  std::free(p);
}

// ---------------------------------------------------------------- times

TEST(Times, StoreAndRead) {
  HCOLL h = collOpen("t");
  EXPECT_EQ(collSetTime(h, "t", 0), 1u);  // 0 is a time, not a deletion
  EXPECT_EQ(collGetType(h, "t"), static_cast<uint32_t>(COLLTYPE_TIME));
  uint32_t t = 77;
  EXPECT_EQ(collGetTime(h, "T", &t), 1u);
  EXPECT_EQ(t, 0u);
  EXPECT_EQ(collSetTime(h, "t", 0xFFFFFFFFu), 1u);
  EXPECT_EQ(collGetTime(h, "t", &t), 1u);
  EXPECT_EQ(t, 0xFFFFFFFFu);
  EXPECT_EQ(GetText(h, "t").text, "Sun Feb  7 06:28:15 2106");
  EXPECT_EQ(collGetNumeric(h, "t"), 0);
}

TEST(Times, OtherTypesAreNotConverted) {
  HCOLL h = collOpen("t");
  collSetString(h, "s", "12345");
  collSetNumeric(h, "n", 12345);
  uint32_t t = 77;
  EXPECT_EQ(collGetTime(h, "s", &t), 0u);
  EXPECT_EQ(collGetTime(h, "n", &t), 0u);
  EXPECT_EQ(collGetTime(h, "missing", &t), 0u);
  EXPECT_EQ(t, 77u);
}

TEST(Times, BadArguments) {
  HCOLL h = collOpen("t");
  uint32_t t = 77;
  EXPECT_EQ(collSetTime(0x4001, "t", 5), 0u);  // not into the catalog
  EXPECT_EQ(collGetType(0x4001, "t"), 0u);
  EXPECT_EQ(collSetTime(0x40FE, "t", 5), 0u);
  EXPECT_EQ(collSetTime(h, nullptr, 5), 0u);
  collSetTime(h, "t", 5);
  EXPECT_EQ(collGetTime(h, "t", nullptr), 0u);
  EXPECT_EQ(collGetTime(0x40FE, "t", &t), 0u);
  EXPECT_EQ(collGetTime(h, nullptr, &t), 0u);
  EXPECT_EQ(t, 77u);
}

// ---------------------------------------------------------------- nested

namespace {

uint32_t LiveCollections() {
  coll::LockGuard lock;
  uint32_t n = 0;
  for (uint32_t i = 1; i < coll::kSlots; ++i)
    if (coll::GetCollPtr(coll::kCollBase + i)) ++n;
  return n;
}

std::string Name(HCOLL h) {
  char buf[80] = {};
  collGetName(h, buf, sizeof buf);
  return buf;
}

}  // namespace

TEST(Nested, CopiesAreIndependentBothWays) {
  HCOLL h = collOpen("holder"), s = collOpen("source");
  collSetString(s, "x", "1");
  collSetNumeric(s, "y", 2);
  ASSERT_EQ(collSetColl(h, "k", s), 1u);
  EXPECT_EQ(collGetType(h, "k"), static_cast<uint32_t>(COLLTYPE_COLL));
  collSetString(s, "x", "changed");
  collSetString(s, "z", "new");

  HCOLL got = collGetColl(h, "K");
  ASSERT_NE(got, 0u);
  EXPECT_EQ(testutil::Tags(got), "x,y");
  EXPECT_EQ(GetText(got, "x").text, "1");
  EXPECT_EQ(collGetNumeric(got, "y"), 2);
  EXPECT_EQ(Name(got), "source");

  collSetString(got, "x", "mine");
  HCOLL again = collGetColl(h, "k");
  EXPECT_EQ(GetText(again, "x").text, "1");
  EXPECT_NE(again, got);
  EXPECT_EQ(testutil::CheckImage(got), "");
  // The source is unchanged by being stored.
  EXPECT_EQ(testutil::Tags(s), "y,x,z");
}

TEST(Nested, ChildIsOwnedAndNotClosable) {
  HCOLL h = collOpen("holder"), s = collOpen("source");
  collSetString(s, "x", "1");
  uint32_t before = LiveCollections();
  ASSERT_EQ(collSetColl(h, "k", s), 1u);
  EXPECT_EQ(LiveCollections(), before + 1);
  uint32_t child;
  {
    coll::LockGuard lock;
    uint8_t *img, *block;
    uint32_t len;
    ASSERT_EQ(coll::RetrieveItem(h, &img, "k", &block, &len), 1u);
    child = coll::rd32(coll::BlockData(block));
    EXPECT_EQ(coll::CollOwner(coll::GetCollPtr(child)), h);
  }
  collClose(child);  // a child cannot be closed by a caller
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
  // Replacing the item by any value destroys the child.
  collSetNumeric(h, "k", 1);
  EXPECT_EQ(LiveCollections(), before);
  collSetColl(h, "k", s);
  EXPECT_EQ(LiveCollections(), before + 1);
  collClose(h);  // the container takes its child with it
  EXPECT_EQ(LiveCollections(), before - 1);
}

TEST(Nested, EmptyOrNoSourceDeletesTheTag) {
  HCOLL h = collOpen("holder"), s = collOpen("source"), empty = collOpen("empty");
  collSetString(s, "x", "1");
  uint32_t before = LiveCollections();
  collSetColl(h, "k", s);
  EXPECT_EQ(collSetColl(h, "k", empty), 1u);
  EXPECT_EQ(collGetType(h, "k"), 0u);
  EXPECT_EQ(LiveCollections(), before);  // no child left behind
  collSetColl(h, "k", s);
  EXPECT_EQ(collSetColl(h, "K", 0), 1u);
  EXPECT_EQ(collItemCount(h), 0u);
  EXPECT_EQ(LiveCollections(), before);
}

TEST(Nested, Refusals) {
  HCOLL h = collOpen("holder"), s = collOpen("source");
  collSetString(s, "x", "1");
  EXPECT_EQ(collSetColl(h, "k", h), 0u);
  EXPECT_EQ(collSetColl(0x4001, "k", s), 0u);
  EXPECT_EQ(collSetColl(h, "k", 0x40FE), 0u);
  EXPECT_EQ(collSetColl(0x40FE, "k", s), 0u);
  EXPECT_EQ(collSetColl(h, nullptr, s), 0u);
  EXPECT_EQ(collItemCount(h), 0u);
  EXPECT_EQ(collGetColl(0x40FE, "k"), 0u);
  EXPECT_EQ(collGetColl(h, nullptr), 0u);
  collSetString(h, "text", "abc");
  EXPECT_EQ(collGetColl(h, "text"), 0u);
}

TEST(Nested, MissingTagGivesEmptyNamedCollection) {
  HCOLL h = collOpen("holder");
  HCOLL got = collGetColl(h, "nothing");
  ASSERT_NE(got, 0u);
  EXPECT_EQ(collItemCount(got), 0u);
  EXPECT_EQ(Name(got), "Empty from CollGetColl");
  uint32_t before = LiveCollections();
  collClose(got);
  EXPECT_EQ(LiveCollections(), before - 1);
}

TEST(Nested, FullLengthNameAndLongTags) {
  std::string name(64, 'N');
  HCOLL h = collOpen("holder"), s = collOpen(name.c_str());
  std::string tag(300, 't');
  collSetString(s, tag.c_str(), "long");
  collSetString(s, "short", "s");
  ASSERT_EQ(collSetColl(h, "k", s), 1u);
  HCOLL got = collGetColl(h, "k");
  EXPECT_EQ(Name(got), name);
  EXPECT_EQ(GetText(got, tag.c_str()).text, "long");
  EXPECT_EQ(testutil::Tags(got), tag + ",short");
}

TEST(Nested, DeepCopies) {
  HCOLL inner = collOpen("inner"), middle = collOpen("middle"), outer = collOpen("outer");
  collSetString(inner, "leaf", "v");
  collSetColl(middle, "in", inner);
  collSetString(middle, "m", "w");
  collSetColl(outer, "mid", middle);
  uint32_t before = LiveCollections();
  HCOLL m = collGetColl(outer, "mid");
  EXPECT_EQ(LiveCollections(), before + 2);  // the copy and its own child
  HCOLL i = collGetColl(m, "in");
  EXPECT_EQ(GetText(i, "leaf").text, "v");
  EXPECT_EQ(Name(i), "");  // item copies of children carry no name
  // Merging a collection that holds a child copies the child.
  HCOLL dest = collOpen("dest");
  EXPECT_EQ(collMerge(dest, middle), 1u);
  collSetString(inner, "leaf", "changed");
  collSetColl(middle, "in", inner);
  HCOLL fromDest = collGetColl(dest, "in");
  EXPECT_EQ(GetText(fromDest, "leaf").text, "v");
}

// ---------------------------------------------------------------- merge

TEST(Merge, ReplacesWithoutRegardToCase) {
  HCOLL dest = collOpen("dest"), src = collOpen("src");
  collSetString(dest, "a", "x");
  collSetString(dest, "c", "z");
  collSetString(src, "A", "1");
  collSetString(src, "b", "2");
  EXPECT_EQ(collMerge(dest, src), 1u);
  EXPECT_EQ(testutil::Tags(dest), "A,c,b");
  EXPECT_EQ(GetText(dest, "a").text, "1");
  EXPECT_EQ(GetText(dest, "c").text, "z");
  EXPECT_EQ(GetText(dest, "b").text, "2");
  EXPECT_EQ(Name(dest), "dest");
  EXPECT_EQ(testutil::Tags(src), "A,b");
  EXPECT_EQ(testutil::CheckImage(dest), "");
}

TEST(Merge, LongTagsAndAllTypes) {
  HCOLL dest = collOpen("dest"), src = collOpen("src");
  std::string tag(1000, 'q');
  collSetString(src, tag.c_str(), "long");
  collSetItem(src, "raw", "a\0b", 3);
  collSetTime(src, "time", 99);
  collSetNumeric(src, "num", -1);
  EXPECT_EQ(collMerge(dest, src), 1u);
  EXPECT_EQ(GetText(dest, tag.c_str()).text, "long");
  EXPECT_EQ(testutil::Item(dest, "raw"), std::string("a\0b", 3));
  uint32_t t = 0;
  EXPECT_EQ(collGetTime(dest, "time", &t), 1u);
  EXPECT_EQ(t, 99u);
  EXPECT_EQ(collGetNumeric(dest, "num"), -1);
}

TEST(Merge, Refusals) {
  HCOLL dest = collOpen("dest"), src = collOpen("src");
  collSetString(src, "a", "1");
  collSetString(dest, "d", "1");
  EXPECT_EQ(collMerge(dest, dest), 1u);
  EXPECT_EQ(testutil::Tags(dest), "d");
  EXPECT_EQ(collMerge(0x4001, src), 0u);
  EXPECT_EQ(collGetType(0x4001, "a"), 0u);
  EXPECT_EQ(collMerge(0x40FE, src), 0u);
  EXPECT_EQ(collMerge(dest, 0x40FE), 0u);
  EXPECT_EQ(collMerge(dest, collOpen("empty")), 1u);
  EXPECT_EQ(testutil::Tags(dest), "d");
}

// ---------------------------------------------------------------- substitution

namespace {

Text Substitute(HCOLL h, const char *templ, uint32_t size = 4096) {
  std::vector<char> buf(size + 1, '#');
  buf[size] = 0;
  uint32_t r = collSubstitute(h, templ, buf.data(), size);
  return {std::string(buf.data()), r};
}

}  // namespace

TEST(Substitute, TemplateForms) {
  HCOLL h = collOpen("My collection");
  collSetNumeric(h, "n", 12);
  collSetString(h, "a", "AA");
  collSetString(h, "x!y", "bang");
  collSetString(h, "s", "has!b. inside");
  const struct {
    const char *templ, *out;
  } cases[] = {
      {"Total: !n. items", "Total: 12 items"},
      {"a!!b", "a!b"},
      {"a!", "a!"},
      {"!", "!"},
      {"!!.", "!."},
      {"!.", "My collection"},
      {"[!.]", "[My collection]"},
      {"!x!y.", "bang"},
      {"x!abc", "x!abc"},
      {"!a.!b", "AA!b"},
      {"!A.!a.", "AAAA"},
      {"A!zz.B", "AB"},
      {"!s.", "has!b. inside"},  // values are not scanned again
      {"", ""},
      {"plain", "plain"},
      {"!!!", "!!"},
  };
  for (const auto &c : cases) {
    Text t = Substitute(h, c.templ);
    EXPECT_EQ(t.text, c.out) << c.templ;
    EXPECT_EQ(t.result, std::strlen(c.out) + 1) << c.templ;
  }
}

TEST(Substitute, ValuesOfEveryType) {
  HCOLL h = collOpen("h"), src = collOpen("src");
  collSetTime(h, "t", 0);
  collSetItem(h, "raw", "ab\0cd", 5);
  StoreTyped(h, "zero", COLLTYPE_STRING, "ab\0cd", 5);  // stops at the zero
  collSetString(src, "x", "1");
  collSetColl(h, "c", src);
  EXPECT_EQ(Substitute(h, "<!t.>").text, "<Thu Jan  1 00:00:00 1970>");
  EXPECT_EQ(Substitute(h, "<!raw.>").text, "<ab>");
  EXPECT_EQ(Substitute(h, "<!zero.>").text, "<ab>");
  EXPECT_EQ(Substitute(h, "<!c.>").text, "<>");
}

TEST(Substitute, FullLengthName) {
  std::string name(64, 'n');
  HCOLL h = collOpen(name.c_str());
  EXPECT_EQ(Substitute(h, "!.!.").text, name + name);
  EXPECT_EQ(Substitute(collOpen(""), "<!.>").text, "<>");
}

TEST(Substitute, LongOutputThroughSmallBuffer) {
  HCOLL h = collOpen("h");
  std::string value;
  for (int i = 0; i < 2000; ++i) value += static_cast<char>('a' + i % 26);
  collSetString(h, "long", value.c_str());
  Text t = Substitute(h, "!long.", 4096);
  EXPECT_EQ(t.text, value);
  EXPECT_EQ(t.result, 2001u);
  t = Substitute(h, "!long.", 100);
  EXPECT_EQ(t.text, value.substr(0, 99));
  EXPECT_EQ(t.result, 2001u);
  EXPECT_EQ(collSubstitute(h, "!long.", nullptr, 0), 2001u);
  // Many values and a long template: the working text grows as it must.
  std::string templ;
  for (int i = 0; i < 20; ++i) templ += "[!long.]";
  templ += std::string(1500, '.');
  std::string expected;
  for (int i = 0; i < 20; ++i) expected += "[" + value + "]";
  expected += std::string(1500, '.');
  t = Substitute(h, templ.c_str(), 50000);
  EXPECT_EQ(t.text, expected);
  EXPECT_EQ(t.result, expected.size() + 1);
}

TEST(Substitute, LongTagsAreLookedUpWhole) {
  HCOLL h = collOpen("h");
  std::string tag(300, 'k');
  collSetString(h, tag.c_str(), "found");
  collSetString(h, tag.substr(0, 127).c_str(), "cut");
  EXPECT_EQ(Substitute(h, ("<!" + tag + ".>").c_str()).text, "<found>");
}

TEST(Substitute, InvalidCollectionGivesNothingForPlaceholders) {
  Text t = Substitute(0x40FE, "x!a.y!.z");
  EXPECT_EQ(t.text, "xyz");
  EXPECT_EQ(t.result, 4u);
}

TEST(Substitute, BadArguments) {
  HCOLL h = collOpen("h");
  char buf[8];
  EXPECT_EQ(collSubstitute(h, nullptr, buf, 8), 0u);
  EXPECT_EQ(collSubstitute(h, "abc", nullptr, 8), 0u);
  EXPECT_EQ(collSubstitute(h, "abc", nullptr, 0), 4u);
}

TEST(Substitute, WorkingTextGrowsByPages) {
  coll::LockGuard lock;  // only the heap is used
  uint32_t pages = 1;
  char *b = static_cast<char *>(coll::collAllocPtr(500));
  b = coll::allocateAndCheck(0, 500, &pages, b);
  EXPECT_EQ(pages, 1u);
  b = coll::allocateAndCheck(1, 500, &pages, b);
  EXPECT_EQ(pages, 2u);
  b = coll::allocateAndCheck(10, 1500, &pages, b);
  EXPECT_EQ(pages, 4u);
  b = coll::allocateAndCheck(0, 10, &pages, b);  // never shrinks
  EXPECT_EQ(pages, 4u);
  ASSERT_NE(b, nullptr);
  b[1999] = 'x';
  coll::collFreePtr(b);
}
