// Typed values: text and number items, their text rendering, times, nested
// collections, merging and placeholder substitution.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
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

TEST(Rendering, ShortNumberOrTimeHasNoText) {
  EXPECT_EQ(Render(COLLTYPE_NUMERIC, "ab", 2).result, 0u);
  EXPECT_EQ(Render(COLLTYPE_TIME, "abc", 3).result, 0u);
}

TEST(Rendering, LengthQueryAndTruncation) {
  EXPECT_EQ(Render(COLLTYPE_STRING, "abcdef", 6, 0).result, 7u);
  Text t = Render(COLLTYPE_STRING, "abcdef", 6, 4);
  EXPECT_EQ(t.text, "abc");
  EXPECT_EQ(t.result, 7u);
  uint8_t d[4];
  coll::wr32(d, static_cast<uint32_t>(-12345));
  t = Render(COLLTYPE_NUMERIC, d, 4, 3);
  EXPECT_EQ(t.text, "-1");
  EXPECT_EQ(t.result, 7u);
  t = Render(COLLTYPE_NUMERIC, d, 4, 1);
  EXPECT_EQ(t.text, "");
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

TEST(Strings, ReplacingKeepsTheLastSpelling) {
  HCOLL h = collOpen("s");
  collSetString(h, "Key", "short");
  collSetString(h, "KEY", "a longer value");
  EXPECT_EQ(testutil::Tags(h), "KEY");
  EXPECT_EQ(GetText(h, "key").text, "a longer value");
  EXPECT_EQ(testutil::CheckImage(h), "");
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
