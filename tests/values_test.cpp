// Typed values: text and number items, their text rendering, times, nested
// collections, merging and placeholder substitution.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "coll.h"
#include "store/store.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"
#include "values/values.h"

using namespace std::string_literals;
using testutil::Tags;

namespace {

// A text and the result that gave it.
struct Text {
  std::string text;
  uint32_t result;
  bool operator==(const Text &) const = default;
};
std::ostream &operator<<(std::ostream &os, const Text &t) { return os << '"' << t.text << "\" " << t.result; }

// Runs get on a buffer of size bytes (null for 0) that starts filled with '#'.
template <typename Get>
Text Read(uint32_t size, Get get) {
  std::vector<char> buf(size + 1, '#');
  buf[size] = 0;
  const uint32_t r = get(size ? buf.data() : nullptr, size);
  return {std::string(buf.data()), r};
}
Text GetText(HCOLL h, const char *tag, uint32_t size = 256) {
  return Read(size, [&](char *b, uint32_t s) { return collGetString(h, tag, b, s); });
}
Text Substitute(HCOLL h, const std::string &templ, uint32_t size = 4096) {
  return Read(size, [&](char *b, uint32_t s) { return collSubstitute(h, templ.c_str(), b, s); });
}

// Stores raw bytes with any type code (as a load would).
void StoreTyped(HCOLL h, const char *tag, uint32_t type, const std::string &data) {
  coll::LockGuard lock;
  ASSERT_EQ(coll::SetItem(h, tag, coll::BuildItem(type, data.data(), uint32_t(data.size())), 1), 1u);
}
std::string Le(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

// Allocators for the obtain functions that record what they were asked.
std::vector<uint32_t> g_allocSizes;
void *RecordingAlloc(uint32_t size) {
  g_allocSizes.push_back(size);
  return std::memset(std::malloc(size), 0x5A, size);  // not zero-filled: shows what is written
}
void *FailingAlloc(uint32_t size) {
  g_allocSizes.push_back(size);
  return nullptr;
}
// collObtainString's text, length and allocations (text "<null>" when none).
std::string Obtain(HCOLL h, const char *tag, CollAllocFunc alloc) {
  g_allocSizes.clear();
  uint32_t len = 99;
  char *p = collObtainString(h, tag, alloc, &len);
  std::string out = (p ? std::string(p) : "<null>") + "/" + std::to_string(len);
  for (uint32_t s : g_allocSizes) out += "/" + std::to_string(s);
  std::free(p);
  return out;
}

uint32_t LiveCollections() {
  coll::LockGuard lock;
  uint32_t n = 0;
  for (uint32_t i = 1; i < coll::kSlots; ++i) n += coll::GetCollPtr(coll::kCollBase + i) != nullptr;
  return n;
}
std::string Name(HCOLL h) {
  char buf[80] = {};
  collGetName(h, buf, sizeof buf);
  return buf;
}

}  // namespace

// The text of a value block of every type code, cut to the buffer; TZ=UTC.
TEST(Rendering, EveryTypeCode) {
  const struct {
    uint32_t type;
    std::string data;
    uint32_t size;
    Text want;
  } cases[] = {
      {COLLTYPE_ITEM, "ab\0c"s, 256, {"ab", 3}},  // up to a zero
      {COLLTYPE_ITEM, "abc", 256, {"abc", 4}},
      {COLLTYPE_STRING, "ab\0c"s, 256, {"ab", 5}},  // text counts every byte
      {7, "xyz", 256, {"xyz", 4}},
      {COLLTYPE_TABLE, Le(1), 8, {"########", 0}},  // nothing is written
      {COLLTYPE_COLL, Le(1), 8, {"########", 0}},
      {0, "abc", 8, {"########", 0}}, {8, "abc", 8, {"########", 0}},
      {COLLTYPE_NUMERIC, "ab", 8, {"########", 0}}, {COLLTYPE_TIME, "abc", 8, {"########", 0}},  // too short
      {COLLTYPE_NUMERIC, Le(0), 256, {"0", 2}}, {COLLTYPE_NUMERIC, Le(uint32_t(-5)), 256, {"-5", 3}},
      {COLLTYPE_NUMERIC, Le(123456), 256, {"123456", 7}}, {COLLTYPE_NUMERIC, Le(INT32_MAX), 256, {"2147483647", 11}},
      {COLLTYPE_NUMERIC, Le(0x80000000u), 256, {"-2147483648", 12}},
      {COLLTYPE_NUMERIC, Le(uint32_t(-12345)), 3, {"-1", 7}}, {COLLTYPE_NUMERIC, Le(uint32_t(-12345)), 1, {"", 7}},
      {COLLTYPE_NUMERIC, Le(uint32_t(-12345)), 0, {"", 7}},
      {COLLTYPE_TIME, Le(0), 256, {"Thu Jan  1 00:00:00 1970", 25}},
      {COLLTYPE_TIME, Le(951782400), 256, {"Tue Feb 29 00:00:00 2000", 25}},
      {COLLTYPE_TIME, Le(1234567890), 256, {"Fri Feb 13 23:31:30 2009", 25}},
      {COLLTYPE_TIME, Le(0x80000000u), 256, {"Tue Jan 19 03:14:08 2038", 25}},  // no wrap to 1901
      {COLLTYPE_TIME, Le(0xFFFFFFFFu), 256, {"Sun Feb  7 06:28:15 2106", 25}},
      {COLLTYPE_TIME, Le(0), 11, {"Thu Jan  1", 25}},
  };
  for (const auto &c : cases) {
    coll::LockGuard lock;
    uint8_t *block = coll::BuildItem(c.type, c.data.data(), uint32_t(c.data.size()));
    EXPECT_EQ(Read(c.size, [&](char *b, uint32_t s) { return coll::BuildStringResult(block, b, s, uint32_t(c.data.size())); }),
              c.want) << c.type << " " << c.want.text;
    coll::collFreePtr(block);
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
  HCOLL h = collOpen("t");
  collSetTime(h, "t", 0);
  EXPECT_EQ(GetText(h, "t").text, "Wed Dec 31 19:00:00 1969");
}

// Random stores of every kind, replacements, deletions and renames against a
// model: the value just stored reads back through every reader under its tag
// in other letters, every item keeps its type and place in model order, and
// the image stays consistent.
TEST(Values, RandomChangesAgreeWithAModel) {
  struct Stored {
    std::string tag;
    uint32_t type;
    std::string data;
  };
  std::mt19937 rng(5);
  HCOLL h = collOpen(nullptr);
  std::vector<Stored> model;  // in item order
  auto lower = [](std::string s) {
    for (char &c : s) c = char(std::tolower(c));
    return s;
  };
  auto find = [&](const std::string &tag) {
    for (size_t i = 0; i < model.size(); ++i)
      if (lower(model[i].tag) == lower(tag)) return long(i);
    return -1L;
  };
  auto randomTag = [&] {
    std::string tag(1 + rng() % 3, 'a');
    for (char &c : tag) c = char((rng() % 2 ? 'a' : 'A') + rng() % 4);
    return rng() % 50 ? tag : std::string(300 * (1 + rng() % 10), 'q');
  };
  for (int step = 0; step < 2000; ++step) {
    const std::string tag = randomTag();
    std::string other;
    for (char c : tag) other += char(rng() % 2 ? std::toupper(c) : c);
    const long at = find(tag);
    if (rng() % 4 == 0 && at >= 0) {
      const std::string to = randomTag().substr(0, 3);
      ASSERT_EQ(collRenameTag(h, tag.c_str(), to.c_str()), 1u);
      // Only the letter case: in place; else replacing the other tag, last.
      Stored item = model[size_t(at)];
      item.tag = to;
      if (lower(to) == lower(tag)) {
        model[size_t(at)] = item;
      } else {
        model.erase(model.begin() + at);
        if (long old = find(to); old >= 0) model.erase(model.begin() + old);
        model.push_back(item);
      }
    } else {
      Stored s{tag, COLLTYPE_ITEM, std::string(rng() % 5, 'v')};
      uint32_t t = 77;
      switch (rng() % 4) {
        case 0: {
          for (char &c : s.data) c = char('0' + rng() % 10);
          ASSERT_EQ(collSetItem(h, tag.c_str(), s.data.data(), uint32_t(s.data.size())), 1u);
          break;
        }
        case 1: {
          const int32_t v = int32_t(rng());
          s = {tag, COLLTYPE_NUMERIC, Le(uint32_t(v))};
          ASSERT_EQ(collSetNumeric(h, tag.c_str(), v), 1u);
          EXPECT_EQ(collGetNumeric(h, other.c_str()), v);
          EXPECT_EQ(GetText(h, other.c_str()), (Text{std::to_string(v), uint32_t(std::to_string(v).size() + 1)}));
          EXPECT_EQ(collGetTime(h, tag.c_str(), &t), 0u);
          EXPECT_EQ(t, 77u);
          EXPECT_EQ(Substitute(h, "<!" + other + ".>").text, "<" + std::to_string(v) + ">");
          break;
        }
        case 2: {
          std::string text(1 + rng() % 300, 'x');
          for (char &c : text) c = char(' ' + rng() % 95);
          s = {tag, COLLTYPE_STRING, text};
          ASSERT_EQ(collSetString(h, tag.c_str(), text.c_str()), 1u);
          EXPECT_EQ(GetText(h, other.c_str(), 400), (Text{text, uint32_t(text.size() + 1)}));
          EXPECT_EQ(GetText(h, tag.c_str(), 4), (Text{text.substr(0, 3), uint32_t(text.size() + 1)}));
          EXPECT_EQ(Obtain(h, other.c_str(), RecordingAlloc),
                    text + "/" + std::to_string(text.size() + 1) + "/" + std::to_string(text.size() + 2));
          EXPECT_EQ(collGetNumeric(h, tag.c_str()), int32_t(std::strtoll(text.c_str(), nullptr, 10)));
          EXPECT_EQ(Substitute(h, "!" + tag + ".").text, text);
          EXPECT_EQ(collGetItem(h, tag.c_str(), nullptr, 0), text.size() + 1);  // the terminator counts
          break;
        }
        default: {
          const uint32_t v = uint32_t(rng());
          s = {tag, COLLTYPE_TIME, Le(v)};
          ASSERT_EQ(collSetTime(h, tag.c_str(), v), 1u);
          EXPECT_EQ(collGetTime(h, other.c_str(), &t), 1u);
          EXPECT_EQ(t, v);
          EXPECT_EQ(collGetNumeric(h, tag.c_str()), 0);
          EXPECT_EQ(GetText(h, tag.c_str()).result, 25u);
        }
      }
      // Same length: in place, the tag takes the new letters; else moved last.
      const bool inPlace = at >= 0 && !s.data.empty() && s.data.size() == model[size_t(at)].data.size();
      if (inPlace) model[size_t(at)] = s;
      if (at >= 0 && !inPlace) model.erase(model.begin() + at);
      if (!inPlace && !s.data.empty()) model.push_back(s);
    }
    std::string tags;
    for (const Stored &m : model) tags += (tags.empty() ? "" : ",") + m.tag;
    ASSERT_EQ(Tags(h), tags) << step;
    for (const Stored &m : model) {
      ASSERT_EQ(collGetType(h, lower(m.tag).c_str()), m.type) << step;
      if (m.type == COLLTYPE_ITEM) { ASSERT_EQ(testutil::Item(h, lower(m.tag).c_str()), m.data) << step; }
    }
    ASSERT_EQ(testutil::CheckImage(h), "") << step;
  }
  // Text is stored without its terminator: length word, tag, length word,
  // block head, 6 characters.
  HCOLL s = collOpen("s");
  collSetString(s, "t", "abcdef");
  EXPECT_EQ(testutil::ItemArea(s).size(), 2u + 1 + 2 + 6 + 6);
}

TEST(Values, TextConvertsToNumbersLikeAtol) {
  HCOLL h = collOpen("n");
  const std::pair<const char *, int32_t> cases[] = {
      {" 42abc", 42}, {"abc", 0}, {"\t\n -17", -17}, {"+8", 8}, {"- 8", 0}, {"2147483647", INT32_MAX},
      {"2147483648", INT32_MAX}, {"-2147483649", INT32_MIN}, {"99999999999999", INT32_MAX}, {"007", 7}, {"12 34", 12},
  };
  for (const auto &[text, v] : cases) {
    ASSERT_EQ(collSetString(h, "s", text), 1u);
    EXPECT_EQ(collGetNumeric(h, "s"), v) << text;
  }
}

// What each reader gives for values of other types, missing tags, the
// catalog and refused arguments.
TEST(Values, ResultsForOtherTypesAndRefusals) {
  HCOLL h = collOpen("h"), src = collOpen("src"), cat = 0x4001;
  collSetItem(h, "raw", "42", 2);
  collSetTime(h, "time", 1000);
  StoreTyped(h, "seven", 7, "42");
  StoreTyped(h, "odd", COLLTYPE_COLL + 100, Le(0));  // an unknown code
  collSetNumeric(h, "num", 12345);
  collSetString(h, "text", "12345");
  collSetString(src, "x", "1");
  collSetColl(h, "kid", src);
  uint32_t t = 77;
  const std::pair<const char *, uint32_t> cases[] = {
      {"raw", uint32_t(collGetNumeric(h, "raw"))}, {"time", uint32_t(collGetNumeric(h, "time"))},
      {"seven", uint32_t(collGetNumeric(h, "seven"))}, {"missing", uint32_t(collGetNumeric(h, "missing"))},
      {"text time", collGetTime(h, "text", &t)}, {"num time", collGetTime(h, "num", &t)},
      {"missing time", collGetTime(h, "missing", &t)},
      {"cat number", collSetNumeric(cat, "num", 7) - 1 + uint32_t(collGetNumeric(cat, "num")) - 7},
      {"empty tag", collSetNumeric(h, "", 1)}, {"missing size 0", collGetString(h, "missing", nullptr, 0) - 1},
      {"text coll", collGetColl(h, "text")},
      {"coll text", GetText(h, "kid").result}, {"odd text", GetText(h, "odd").result},
      {"merge cat", collMerge(cat, src)}, {"merge self", collMerge(h, h) - 1},
  };
  for (const auto &[name, result] : cases) EXPECT_EQ(result, 0u) << name;
  EXPECT_EQ(t, 77u);
  EXPECT_EQ(GetText(h, "raw"), (Text{"42", 3}));
  EXPECT_EQ(GetText(h, "seven"), (Text{"42", 3}));
  EXPECT_EQ(GetText(h, "odd"), (Text{"", 0}));  // the buffer is cleared first
  EXPECT_EQ(GetText(h, "kid"), (Text{"", 0}));
  EXPECT_EQ(GetText(h, "missing", 10), (Text{"", 1}));
  EXPECT_EQ(GetText(h, "text", 1), (Text{"", 6}));
  // 0 is a value and "" a deletion.
  collSetNumeric(h, "zero", 0);
  collSetTime(h, "t0", 0);
  EXPECT_EQ(GetText(h, "zero"), (Text{"0", 2}));
  EXPECT_EQ(collGetType(h, "t0"), uint32_t(COLLTYPE_TIME));
  EXPECT_EQ(collSetString(h, "TEXT", ""), 1u);
  EXPECT_EQ(collGetType(h, "text"), 0u);
}

TEST(Values, ObtainStringAllocations) {
  HCOLL h = collOpen("o"), src = collOpen("src");
  collSetString(h, "s", "abc");
  collSetNumeric(h, "n", -100);
  collSetString(src, "x", "1");
  collSetColl(h, "c", src);
  // text/length/allocation sizes; the allocator's refusal keeps the length.
  EXPECT_EQ(Obtain(h, "s", RecordingAlloc), "abc/4/5");
  EXPECT_EQ(Obtain(h, "n", RecordingAlloc), "-100/5/6");
  EXPECT_EQ(Obtain(h, "missing", RecordingAlloc), "/1/1");
  EXPECT_EQ(Obtain(h, "c", RecordingAlloc), "/0/1");
  EXPECT_EQ(Obtain(h, "s", FailingAlloc), "<null>/4/5");
  EXPECT_EQ(Obtain(h, "missing", FailingAlloc), "<null>/1/1");
  EXPECT_EQ(Obtain(h, "s", nullptr), "<null>/0");
  char *p = collObtainString(h, "s", RecordingAlloc, nullptr);  // no length wanted
  EXPECT_STREQ(p, "abc");
  std::free(p);
}

TEST(Nested, CopiesAreIndependentOwnedAndGoWithTheirOwner) {
  HCOLL h = collOpen("holder"), s = collOpen("source"), empty = collOpen("empty");
  std::string tag(300, 't');
  collSetString(s, "x", "1");
  collSetNumeric(s, "y", 2);
  collSetString(s, tag.c_str(), "long");
  const uint32_t before = LiveCollections();
  ASSERT_EQ(collSetColl(h, "k", s), 1u);
  EXPECT_EQ(LiveCollections(), before + 1);
  collSetString(s, "x", "changed");
  HCOLL got = collGetColl(h, "K");
  EXPECT_EQ(Tags(got), "x,y," + tag);
  EXPECT_EQ(GetText(got, "x").text, "1");
  EXPECT_EQ(GetText(got, tag.c_str()).text, "long");
  EXPECT_EQ(Name(got), "source");
  collSetString(got, "x", "mine");
  EXPECT_EQ(GetText(collGetColl(h, "k"), "x").text, "1");
  EXPECT_EQ(Tags(s), "y," + tag + ",x");
  const uint32_t child = testutil::HandleOf(h, "k");
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::CollOwner(coll::GetCollPtr(child)), h);
  }
  collClose(child);  // a child cannot be closed by a caller
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
  const uint32_t live = LiveCollections();
  collSetNumeric(h, "k", 1);  // replacing the item destroys the child
  EXPECT_EQ(LiveCollections(), live - 1);
  collSetColl(h, "k", s);
  testutil::Listener listener;
  ASSERT_TRUE(collRequestAdvice(h, listener.window(), 1));
  EXPECT_EQ(collSetColl(h, "k", empty), 1u);  // an empty source deletes, told
  EXPECT_EQ(collGetType(h, "k"), 0u);
  EXPECT_EQ(listener.Tags(), "k");
  collSetColl(h, "k", s);
  EXPECT_EQ(collSetColl(h, "K", 0), 1u);  // as does none
  EXPECT_EQ(LiveCollections(), live - 1);
  collSetColl(h, "k", s);
  collClose(h);  // the container takes its child with it
  EXPECT_EQ(LiveCollections(), live - 2);
  // A merge copies every item; a tag present in other letters takes the
  // source's, in place when the value keeps its length.
  HCOLL dest = collOpen("dest");
  collSetString(dest, "X", "abcdefg");
  collSetString(dest, "keep", "k");
  EXPECT_EQ(collMerge(dest, s), 1u);
  EXPECT_EQ(Tags(dest), "x,keep,y," + tag);
  EXPECT_EQ(GetText(dest, "x").text, "changed");
  EXPECT_EQ(Name(dest), "dest");
  // A missing tag gives a new empty collection with a fixed name.
  HCOLL none = collGetColl(s, "nothing");
  EXPECT_EQ(collItemCount(none), 0u);
  EXPECT_EQ(Name(none), "Empty from CollGetColl");
  EXPECT_EQ(testutil::CheckState(), "");
}

TEST(Substitute, TemplateForms) {
  HCOLL h = collOpen("My collection"), src = collOpen("src");
  collSetNumeric(h, "n", 12);
  collSetString(h, "a", "AA");
  collSetString(h, "x!y", "bang");
  collSetString(h, "s", "has!b. inside");
  collSetTime(h, "t", 0);
  collSetItem(h, "raw", "ab\0cd", 5);
  StoreTyped(h, "zero", COLLTYPE_STRING, "ab\0cd"s);  // stops at the zero
  collSetString(src, "x", "1");
  collSetColl(h, "c", src);
  const std::string tag(300, 'k');
  collSetString(h, tag.c_str(), "found");
  collSetString(h, tag.substr(0, 127).c_str(), "cut");
  const std::pair<std::string, std::string> cases[] = {
      {"Total: !n. items", "Total: 12 items"}, {"a!!b", "a!b"}, {"a!", "a!"}, {"!", "!"}, {"!!.", "!."},
      {"!.", "My collection"}, {"[!.]", "[My collection]"}, {"!x!y.", "bang"}, {"x!abc", "x!abc"},
      {"!a.!b", "AA!b"}, {"!A.!a.", "AAAA"}, {"A!zz.B", "AB"}, {"!s.", "has!b. inside"},  // not scanned again
      {"", ""}, {"plain", "plain"}, {"!!!", "!!"}, {"<!t.>", "<Thu Jan  1 00:00:00 1970>"}, {"<!raw.>", "<ab>"},
      {"<!zero.>", "<ab>"}, {"<!c.>", "<>"}, {"<!" + tag + ".>", "<found>"},
  };
  for (const auto &[templ, out] : cases) EXPECT_EQ(Substitute(h, templ), (Text{out, uint32_t(out.size() + 1)})) << templ;
  EXPECT_EQ(Substitute(0x40FE, "x!a.y!.z"), (Text{"xyz", 4}));
  EXPECT_EQ(Substitute(collOpen(std::string(64, 'n').c_str()), "!.!."), (Text{std::string(128, 'n'), 129}));
  EXPECT_EQ(Substitute(collOpen(""), "<!.>"), (Text{"<>", 3}));
  EXPECT_EQ(collSubstitute(h, "abc", nullptr, 0), 4u);
}

TEST(Substitute, LongOutputThroughSmallBuffers) {
  HCOLL h = collOpen("h");
  std::string value;
  for (int i = 0; i < 2000; ++i) value += char('a' + i % 26);
  collSetString(h, "long", value.c_str());
  EXPECT_EQ(Substitute(h, "!long.", 100), (Text{value.substr(0, 99), 2001}));
  // An unclosed placeholder stands as it is, wherever the working text ends.
  for (uint32_t n = 990; n <= 1000; ++n) {
    const std::string templ = std::string(n, '.') + "!abc";
    EXPECT_EQ(Substitute(h, templ), (Text{templ, n + 5}));
  }
  EXPECT_EQ(collSubstitute(h, "!long.", nullptr, 0), 2001u);
  // Many values and a long template: the working text grows as it must.
  std::string templ, expected;
  for (int i = 0; i < 20; ++i) templ += "[!long.]", expected += "[" + value + "]";
  templ += std::string(1500, '.');
  expected += std::string(1500, '.');
  EXPECT_EQ(Substitute(h, templ, 50000), (Text{expected, uint32_t(expected.size() + 1)}));
}
