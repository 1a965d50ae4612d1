// exact_test.cpp - results that depend on the exact order and reading of
// the library's steps: propagation along every path, dump records read by
// their block lengths, damaged tables, the copy a refused rename makes.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "coll.h"
#include "consistency.h"
#include "listener.h"
#include "test_util.h"

using testutil::Del;
using testutil::Item;
using testutil::Listener;
using testutil::Set;

namespace {

std::vector<uint8_t> Bytes(const std::string &hex) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size();) {
    if (hex[i] == ' ') {
      ++i;
      continue;
    }
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    i += 2;
  }
  return out;
}

std::string Row(HTABLE t, uint32_t row) {
  char buf[64];
  const uint32_t n = tableGetRow(t, row, buf, sizeof buf);
  return std::string(buf, n < sizeof buf ? n : 0);
}

// Ids of the nested collection items, from the dump of h, in item order.
std::vector<uint32_t> NestedIds(HCOLL h) {
  uint8_t buf[512];
  const uint32_t length = collDumpItems(h, buf, sizeof buf);
  std::vector<uint32_t> ids;
  auto be16 = [&](uint32_t at) { return uint32_t(buf[at] << 8 | buf[at + 1]); };
  for (uint32_t pos = 6; pos < length;) {
    pos += 2 + be16(pos) + 2;
    if (be16(pos) == COLLTYPE_COLL) ids.push_back(be16(pos + 10));
    pos += be16(pos + 4);
  }
  return ids;
}

}  // namespace

// A change travels every path of propagation entries; only a copy into a
// collection already on its own path is passed over.
TEST(Exact, PropagationFollowsEveryPathButCycles) {
  const HCOLL a = collOpen(nullptr), b = collOpen(nullptr), c = collOpen(nullptr), d = collOpen(nullptr);
  Listener atB, atD;
  ASSERT_EQ(collRequestAdvice(b, atB.window(), 1), 1u);
  ASSERT_EQ(collRequestAdvice(d, atD.window(), 1), 1u);
  ASSERT_EQ(collRequestPropagate(a, b, 1), 1u);
  ASSERT_EQ(collRequestPropagate(a, b, 1), 1u);
  ASSERT_EQ(Set(a, "x", "v"), 1u);
  EXPECT_EQ(atB.Tags(), "x");  // the second copy is identical
  ASSERT_EQ(Del(a, "x"), 1u);  // two deletions
  EXPECT_EQ(atB.Tags(), "x,x,x");
  // The second copy overwrites what b's window made of the first.
  atB.onMessage = [&](const testutil::Heard &) {
    atB.onMessage = nullptr;
    Set(b, "y", "own");
  };
  ASSERT_EQ(Set(a, "y", "from a"), 1u);
  EXPECT_EQ(Item(b, "y"), "from a");
  // Two tables are copied into b, the second replacing the first: its slot
  // is the lowest free one again.
  const HTABLE t = tableCreate(1, 0);
  ASSERT_EQ(collSetTable(a, "t", t), 1u);
  const HTABLE next = tableCreate(1, 0);
  EXPECT_EQ(next, t + 2);
  // A diamond a -> b -> d, a -> c -> d, and cycles closed by d -> a.
  for (auto [s, to] : {std::pair{a, c}, {b, d}, {c, d}, {d, a}}) ASSERT_EQ(collRequestPropagate(s, to, 1), 1u);
  ASSERT_EQ(Del(a, "z"), 1u);
  EXPECT_EQ(atD.count(), 3u);
  EXPECT_EQ(testutil::CheckState(), "");
  for (HCOLL h : {a, b, c, d}) collClose(h);
  tableDestroy(t);
  tableDestroy(next);
}

// Each image is well formed as the records are read: the value length word
// is not used, a number keeps bytes after its value, a table copies its
// stored length's data and skips the rest of its block, a nested list is
// read while it starts inside its block, a string cut off by the table
// data counts. A table breaking the table rules refuses the whole load.
TEST(Exact, LoadsReadRecordsByTheirBlocks) {
  auto table = [](HCOLL h, const char *tag) { return collGetTable(h, tag); };
  struct Case {
    const char *hex;
    uint32_t result;
    std::function<void(HCOLL)> check;
  };
  const Case cases[] = {
      {"0014ce0001cd 0002 6162 0009 0006 0000 0008 7879", 1, [](HCOLL h) { EXPECT_EQ(Item(h, "ab"), std::string("xy", 3)); }},
      {"0019ce00019b 0001 6e 000e 0005 0000 000e 00000001 41424344", 1,
       [](HCOLL h) {
         EXPECT_EQ(testutil::ItemArea(h).substr(16), std::string("n\16\0\5\0\0\0\16\0\1\0\0\0ABCD", 17));
         EXPECT_EQ(collGetNumeric(h, "n"), 1);
       }},
      {"0026ce0003f7 0001 74 001b 0002 0000 001b 1212 0013 0000 0000 0001 ffff 63 0000000000 00 5859", 1,
       [&](HCOLL h) {
         const HTABLE t = table(h, "t");
         EXPECT_EQ(Row(t, ROW_NAMES), std::string("c\0", 2));
         EXPECT_EQ(Row(t, ROW_ATTRIBUTES), std::string(5, '\0'));
         tableDestroy(t);
       }},
      {"0036ce0003c4 0001 6e 001f 0003 0000 001f 1010ce00 0000 0001 0000 0000 02a6 "
       "0001 72 0012 0006 0000 0012 00017a0007000600000007 51",
       1,
       [](HCOLL h) {
         const HCOLL n = collGetColl(h, "n");
         EXPECT_EQ(testutil::ItemArea(n), std::string("\1\0r\22\0\6\0\0\0\22\0\0\1z\0\7\0\6\0\0\0\7Q", 23));
         collClose(n);
         EXPECT_EQ(Item(h, "z"), std::string("Q", 2));
       }},
      {"002cce000487 0001 78 0015 0002 0000 0015 1212 000f 0000 0000 0001 ffff 460062 00 0179 0007 0006 0000 0007 7a",
       1,
       [&](HCOLL h) {
         const HTABLE t = table(h, "x");
         EXPECT_EQ(Row(t, ROW_ATTRIBUTES), std::string("b\0\0\0\0", 5));
         tableDestroy(t);
         EXPECT_EQ(Item(h, "y"), std::string("z", 2));
       }},
      // Magic 0x1213: nothing is stored, 't' keeps its text.
      {"0024ce000343 0001 74 0019 0002 0000 0019 1213 0013 0000 0000 0001 ffff 63 000000000000", 0,
       [](HCOLL h) { EXPECT_EQ(collItemCount(h), 1u); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.hex);
    const std::vector<uint8_t> image = Bytes(c.hex);
    const HCOLL h = collOpen(nullptr);
    ASSERT_EQ(Set(h, "t", "old"), 1u);
    EXPECT_KEEPS_ON_FAILURE(collLoadItems(h, image.data(), uint32_t(image.size())), 0u);
    EXPECT_EQ(collLoadItems(h, image.data(), uint32_t(image.size())), c.result);
    c.check(h);
    EXPECT_EQ(testutil::CheckState(), "");
    // What loads dumps again, and the dump loads.
    uint8_t dump[256];
    const uint32_t n = collDumpItems(h, dump, sizeof dump);
    const HCOLL again = collOpen(nullptr);
    EXPECT_EQ(collLoadItems(again, dump, n), 1u);
    collClose(again);
    collClose(h);
  }
  // A number kept with bytes after its value dumps them as zeros.
  const std::vector<uint8_t> longNumber = Bytes(cases[1].hex), zeroed = Bytes(
      "0019ce000091 0001 6e 000e 0005 0000 000e 00000001 00000000");
  const HCOLL n = collOpen(nullptr);
  uint8_t dump[64] = {};
  ASSERT_EQ(collLoadItems(n, longNumber.data(), uint32_t(longNumber.size())), 1u);
  EXPECT_EQ(std::vector<uint8_t>(dump, dump + collDumpItems(n, dump, sizeof dump)), zeroed);
  collClose(n);
  // tableLoad counts the strings of the same table alike.
  const std::vector<uint8_t> cut = Bytes(cases[4].hex);
  const HTABLE t = tableLoad(cut.data(), uint32_t(cut.size()), 0, 0, 0);
  EXPECT_EQ(Row(t, ROW_ATTRIBUTES), std::string("b\0\0\0\0", 5));
  tableDestroy(t);
}

// A rename to the empty tag copies the value before the store refuses it:
// a nested collection's copy takes an id.
TEST(Exact, RenameToEmptyTagCopiesFirst) {
  const HCOLL a = collOpen("a"), b = collOpen("b");
  ASSERT_EQ(collSetNumeric(b, "x", 1), 1u);
  ASSERT_EQ(collSetColl(a, "n", b), 1u);
  EXPECT_EQ(collRenameTag(a, "n", ""), 0u);
  ASSERT_EQ(collSetColl(a, "m", b), 1u);
  const std::vector<uint32_t> ids = NestedIds(a);
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(ids[1], ids[0] + 2);
  EXPECT_EQ(testutil::CheckState(), "");
  collClose(a);
  collClose(b);
}
