// Dumps and loads: exact image layouts, round trips of random collections,
// sizes and limits, merging, damaged images, the hexadecimal text and
// tableLoad.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "coll.h"
#include "serial/serial.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/consistency.h"
#include "tests/test_util.h"

namespace {

using namespace std::string_literals;
using Bytes = std::vector<uint8_t>;
using coll::rd16;
using coll::rd32;
using testutil::HandleOf;

// Bytes from hexadecimal pairs separated by spaces ("00 14 CE").
Bytes FromHex(const std::string &spaced) {
  Bytes out;
  for (size_t i = 0; i + 1 < spaced.size(); i += 3) out.push_back(uint8_t(std::stoul(spaced.substr(i, 2), nullptr, 16)));
  return out;
}
// The library's hexadecimal text of an image: two digits a byte, low first.
std::string HexText(const Bytes &image) {
  std::string text;
  for (uint8_t b : image) text += {"0123456789ABCDEF"[b & 15], "0123456789ABCDEF"[b >> 4]};
  return text;
}
Bytes Dump(HCOLL h) {
  Bytes image(collDumpItems(h, nullptr, 0));
  EXPECT_EQ(collDumpItems(h, image.data(), uint32_t(image.size())), image.size());
  return image;
}
uint32_t Load(HCOLL h, const Bytes &image) { return collLoadItems(h, image.data(), uint32_t(image.size())); }
Bytes Records(HCOLL h) {
  Bytes image = Dump(h);
  return Bytes(image.begin() + (image.empty() ? 0 : 6), image.end());
}
// Rewrites total length and checksum, so that only a fault in the records
// remains.
void Seal(Bytes &image) {
  coll::wrBE16(image.data(), uint32_t(image.size()));
  coll::wrBE16(image.data() + 4, coll::checksum(image.data(), uint32_t(image.size())));
}

// Stores a value block of any type code and transaction mark, as a load would.
void Store(HCOLL h, const std::string &tag, uint32_t type, const std::string &data, uint32_t mark = 0) {
  coll::LockGuard lock;
  uint8_t *block = coll::BuildItem(type, data.data(), uint32_t(data.size()));
  coll::wr16(block + coll::ib::tranFlag, mark);
  ASSERT_EQ(coll::SetItemN(h, tag.data(), uint32_t(tag.size()), block, 1), 1u);
}

// A table from packed strings (each ends with a zero).
HTABLE NewTable(uint32_t cols, uint32_t type, const std::string &names, const std::vector<std::string> &rows = {},
                const std::string &attrs = "", uint32_t selection = 0xFFFFFFFFu) {
  HTABLE t = tableCreate(cols, type);
  EXPECT_EQ(tableSetRow(t, uint32_t(ROW_NAMES), names.data(), uint32_t(names.size())), 1u);
  for (const std::string &r : rows) EXPECT_EQ(tableSetRow(t, uint32_t(ROW_APPEND), r.data(), uint32_t(r.size())), 1u);
  if (!attrs.empty()) { EXPECT_EQ(tableSetRow(t, uint32_t(ROW_ATTRIBUTES), attrs.data(), uint32_t(attrs.size())), 1u); }
  if (selection != 0xFFFFFFFFu) tableSetSelection(t, selection);
  return t;
}
void PutTable(HCOLL h, const char *tag, HTABLE t) {
  ASSERT_EQ(collSetTable(h, tag, t), 1u);
  tableDestroy(t);
}

// A table's six stored header words and its strings in use.
std::string TableText(uint32_t t) {
  const uint8_t *hdr = coll::GetTablePtr(t);
  if (!hdr) return "<no table>";
  std::string out;
  for (uint32_t off = 0; off < 12; off += 2) out += std::to_string(rd16(hdr + off)) + ",";
  return out + std::string(reinterpret_cast<const char *>(coll::TableData(hdr)), coll::TableDataLength(hdr));
}
std::string DescribeLocked(uint32_t h) {
  uint8_t *img = coll::GetCollPtr(h);
  if (!img) return "<gone>";
  std::string out;
  for (uint32_t p = 0; p < coll::CollDataLength(img);) {
    coll::ItemCursor cur;
    if (!coll::ItemAt(img, p, &cur)) return out + "<damaged>";
    const uint8_t *b = cur.block;
    out += std::string(reinterpret_cast<char *>(cur.tag), cur.t) + ":" + std::to_string(coll::BlockType(b)) + "/" +
           std::to_string(rd16(b + 2)) + "=";
    const uint32_t handle = coll::BlockDataLength(b) == 4 ? rd32(coll::BlockData(b)) : 0;
    if (coll::BlockType(b) == COLLTYPE_TABLE) out += TableText(handle);
    else if (coll::BlockType(b) == COLLTYPE_COLL) out += "{" + DescribeLocked(handle) + "}";
    else out += std::string(reinterpret_cast<const char *>(coll::BlockData(b)), coll::BlockDataLength(b));
    out += ";";
    p = coll::NextItemOffset(cur);
  }
  return out;
}
// Every item with its type, mark and value; tables and nested collections
// by content, not by handle.
std::string Describe(HCOLL h) {
  coll::LockGuard lock;
  return DescribeLocked(h);
}

// Live tables, collections and table data records.
std::string Held() {
  coll::LockGuard lock;
  uint32_t tables = 0, colls = 0, records = 0;
  for (uint32_t s = 1; s < coll::kSlots; ++s) tables += coll::ps->tablePtrs[s] != nullptr, colls += coll::ps->collPtrs[s] != nullptr;
  for (const auto &rec : coll::ps->tableData) records += rec.data != nullptr;
  return std::to_string(tables) + "/" + std::to_string(colls) + "/" + std::to_string(records);
}

// Random items of every kind, nested collections two deep.
std::string RandomText(std::mt19937 &rng, uint32_t most, bool zeros) {
  std::string s(1 + rng() % most, 'x');
  for (char &c : s) c = zeros && rng() % 8 == 0 ? '\0' : char('a' + rng() % 26);
  return s;
}
void Fill(std::mt19937 &rng, HCOLL h, int depth) {
  for (uint32_t i = 0, n = 1 + rng() % 6; i < n; ++i) {
    const std::string tag = rng() % 10 ? RandomText(rng, 6, false) : std::string(300 + rng() % 50, 'L');
    switch (rng() % 7) {
      case 0: {
        const std::string raw = RandomText(rng, 40, true);
        collSetItem(h, tag.c_str(), raw.data(), uint32_t(raw.size()));
        break;
      }
      case 1: collSetString(h, tag.c_str(), RandomText(rng, 60, false).c_str()); break;
      case 2: collSetNumeric(h, tag.c_str(), int32_t(rng())); break;
      case 3: collSetTime(h, tag.c_str(), uint32_t(rng())); break;
      case 4: Store(h, tag, 7, RandomText(rng, 20, true)); break;
      case 5: {
        const uint32_t cols = 1 + rng() % 3;
        std::vector<std::string> rows(rng() % 4);
        for (auto &r : rows)
          for (uint32_t c = 0; c < cols; ++c) r += (rng() % 3 ? RandomText(rng, 9, false) : "") + '\0';
        PutTable(h, tag.c_str(), NewTable(cols, rng() % 0x10000, std::string(cols, 'N') + '\0', rows, "a\0\0\0\0z\0"s,
                                          rows.empty() ? 0xFFFFFFFFu : rng() % rows.size()));
        break;
      }
      default:
        if (depth < 2) {
          HCOLL kid = collOpen("kid");
          Fill(rng, kid, depth + 1);
          collSetColl(h, tag.c_str(), kid);
          collClose(kid);
        }
    }
  }
}

// A collection with every kind of item, a nested collection holding a table
// and a further nested collection.
HCOLL RichCollection() {
  HCOLL h = collOpen("Rich"), inner = collOpen("Inner"), innermost = collOpen("Innermost");
  collSetItem(h, "raw", "\x01\x00\xFFz", 4);
  collSetString(h, "Text", "hello world");
  collSetNumeric(h, "num", int32_t(0x80000001u));
  collSetTime(h, "when", 1700000000u);
  PutTable(h, "grid", NewTable(2, 0x1234, "A\0B\0"s, {"a1\0\0"s, "a2\0b2\0"s}, "w\0\0\0\0x\0"s, 1));
  collSetString(innermost, "deep", "down");
  PutTable(innermost, "t", NewTable(1, 0, "only\0"s));
  collSetColl(inner, "more", innermost);
  collSetNumeric(inner, "n", 42);
  collSetColl(h, "child", inner);
  collClose(inner);
  collClose(innermost);
  return h;
}

}  // namespace

TEST(DumpFormat, ChecksumIsTheByteSumAfterTheHeaderForEveryLength) {
  // High bytes everywhere, so that every lane carries; lengths around the
  // word and block boundaries of the summing loop.
  Bytes image(70000);
  for (size_t i = 0; i < image.size(); ++i) image[i] = uint8_t(0xFF - (i * 7) % 13);
  for (uint32_t length : {0u, 5u, 6u, 7u, 13u, 21u, 22u, 23u, 2053u, 2054u, 2055u, 65535u, 70000u}) {
    uint32_t naive = 0;
    for (uint32_t i = 6; i < length; ++i) naive += image[i];
    EXPECT_EQ(coll::checksum(image.data(), length), naive & 0xFFFF) << length;
  }
}

// The records of one item of each kind, byte for byte; loaded back and
// dumped again they come out the same (a transaction mark is not loaded).
TEST(DumpFormat, RecordLayouts) {
  const struct {
    const char *name;
    std::function<void(HCOLL)> fill;
    const char *records, *reloaded;
  } cases[] = {
      {"empty", [](HCOLL) {}, "", nullptr},
      {"text", [](HCOLL h) { collSetString(h, "ab", "xy"); }, "00 02 61 62 00 08 00 06 00 00 00 08 78 79", nullptr},
      {"number", [](HCOLL h) { collSetNumeric(h, "n", 1); }, "00 01 6E 00 0A 00 05 00 00 00 0A 00 00 00 01", nullptr},
      {"time", [](HCOLL h) { collSetTime(h, "t", 0x01020304); }, "00 01 74 00 0A 00 04 00 00 00 0A 01 02 03 04", nullptr},
      {"raw", [](HCOLL h) { collSetItem(h, "r", "\0z", 2); }, "00 01 72 00 08 00 01 00 00 00 08 00 7A", nullptr},
      {"code 7", [](HCOLL h) { Store(h, "s", 7, "hi"); }, "00 01 73 00 08 00 07 00 00 00 08 68 69", nullptr},
      {"marked", [](HCOLL h) { Store(h, "m", COLLTYPE_STRING, "v", 1); }, "00 01 6D 00 07 00 06 00 01 00 07 76",
       "00 01 6D 00 07 00 06 00 00 00 07 76"},
      // Table length 48 + 9: value length 27, stored length 21.
      {"table", [](HCOLL h) { PutTable(h, "t", NewTable(1, 0x0102, "c\0"s, {"v\0"s}, "", 0)); },
       "00 01 74 00 1B 00 02 00 00 00 1B 12 12 00 15 01 02 00 01 00 01 00 00 63 00 76 00 00 00 00 00 00", nullptr},
  };
  for (const auto &c : cases) {
    HCOLL h = collOpen(c.name), target = collOpen("target");
    c.fill(h);
    EXPECT_EQ(Records(h), FromHex(c.records)) << c.name;
    ASSERT_EQ(Load(target, Dump(h)), 1u) << c.name;
    EXPECT_EQ(Records(target), FromHex(c.reloaded ? c.reloaded : c.records)) << c.name;
    collClose(h);
    collClose(target);
  }
  HCOLL h = collOpen("Example");
  EXPECT_EQ(Dump(h), FromHex("00 06 CE 00 00 00"));
  collSetString(h, "ab", "xy");
  EXPECT_EQ(Dump(h), FromHex("00 14 CE 00 01 CC 00 02 61 62 00 08 00 06 00 00 00 08 78 79"));
  std::string text(40, '#');
  EXPECT_EQ(collDumpItemsHex(h, text.data(), 40), 40u);
  EXPECT_EQ(text, "0041EC0010CC0020162600800060000000808797");
  // A nested collection: tag, value length 20 + 14, block head, the child's
  // first seven header words, its one record.
  HCOLL outer = collOpen("Outer");
  collSetColl(outer, "c", h);
  Bytes expected = FromHex("00 01 63 00 22 00 03 00 00 00 22 10 10 CE 00 00 00 00 01 00 00 00 0E 02 A6");
  const uint32_t child = HandleOf(outer, "c");
  {
    coll::LockGuard lock;
    coll::wrBE16(&expected[15], coll::CollId(coll::GetCollPtr(child)));
  }
  for (uint8_t b : FromHex("00 02 61 62 00 08 00 06 00 00 00 08 78 79")) expected.push_back(b);
  EXPECT_EQ(Records(outer), expected);
}

// Every random collection: the size query, buffers one byte short (left
// untouched), the image and its text, and loads of both giving the same
// items back as new objects; a second load replaces only tables and
// collections; a changed byte is refused or loads consistently.
TEST(DumpLoad, RandomCollectionsRoundTrip) {
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    HCOLL h = collOpen("source"), a = collOpen("a"), b = collOpen("b");
    Fill(rng, h, 0);
    const std::string want = Describe(h);
    const uint32_t n = collDumpItems(h, nullptr, 0);
    ASSERT_GT(n, 6u);
    Bytes image(n + 1, 0xAA);
    EXPECT_EQ(collDumpItems(h, image.data(), n - 1), 0u);
    EXPECT_EQ(image, Bytes(n + 1, 0xAA));
    ASSERT_EQ(collDumpItems(h, image.data(), n), n);
    EXPECT_EQ(image[n], 0xAA);
    image.pop_back();
    EXPECT_EQ(coll::rdBE16(&image[0]), n);
    EXPECT_EQ(coll::rdBE16(&image[2]), 0xCE00u);
    EXPECT_EQ(coll::rdBE16(&image[4]), coll::checksum(image.data(), n));
    EXPECT_EQ(collDumpItemsHex(h, nullptr, 0), 2 * n);
    std::string text(2 * n + 1, '#');
    EXPECT_EQ(collDumpItemsHex(h, text.data(), 2 * n - 1), 0u);
    EXPECT_EQ(text, std::string(2 * n + 1, '#'));
    EXPECT_EQ(collDumpItemsHex(h, text.data(), 2 * n), 2 * n);
    EXPECT_EQ(text, HexText(image) + "#");
    ASSERT_EQ(Load(a, image), 1u);
    ASSERT_EQ(collLoadItemsHex(b, text.data(), 2 * n), 1u);
    EXPECT_EQ(Describe(a), want);
    EXPECT_EQ(Describe(b), want);
    EXPECT_EQ(Dump(a).size(), n);
    EXPECT_EQ(testutil::CheckState(), "");
    const std::string held = Held(), before = testutil::Snapshot(a);
    ASSERT_EQ(Load(a, image), 1u);
    EXPECT_EQ(Describe(a), want);
    EXPECT_EQ(Held(), held);
    Bytes damaged = image;
    damaged[6 + rng() % (n - 6)] ^= uint8_t(1 + rng() % 255);
    EXPECT_EQ(Load(a, damaged), 0u);
    Seal(damaged);
    const std::string all = testutil::Snapshot();
    if (Load(a, damaged) == 0) { EXPECT_EQ(testutil::SnapshotDiff(all, testutil::Snapshot()), ""); }
    EXPECT_EQ(testutil::CheckState(), "");
    for (HCOLL c : {h, a, b}) collClose(c);
  }
}

TEST(DumpLoad, LoadMergesIntoTheCollection) {
  HCOLL source = collOpen("Source"), target = collOpen("Target");
  collSetString(source, "ab", "xy");
  collSetNumeric(source, "n", 5);
  collSetString(target, "keep", "me");
  collSetString(target, "AB", "old");
  collSetNumeric(target, "N", 5);
  ASSERT_EQ(Load(target, Dump(source)), 1u);
  // The equal number stays where it was (taking the loaded tag's case); the
  // changed text moved to the end under the loaded tag.
  EXPECT_EQ(Describe(target), "keep:6/0=me;n:5/0=\x05\0\0\0;ab:6/0=xy;"s);
  EXPECT_EQ(Load(0x4001, Dump(source)), 1u);  // the catalog takes loads
}

TEST(DumpLoad, DamagedCollectionIsNotDumped) {
  HCOLL h = collOpen("Damaged");
  collSetString(h, "a", "1");
  collSetString(h, "b", "2");
  uint8_t *block;
  char buf[64];
  std::memset(buf, '#', sizeof buf);
  for (uint32_t type : {8u, 0u, 7u}) {
    {
      coll::LockGuard lock;
      ASSERT_TRUE(coll::GetItem(coll::GetCollPtr(h), "b", &block));
      coll::wr16(block, type);
    }
    EXPECT_EQ(collDumpItems(h, nullptr, 0), type == 7 ? 30u : 0u) << type;
    EXPECT_EQ(collDumpItems(h, buf, sizeof buf), type == 7 ? 30u : 0u) << type;
    if (type != 7) { EXPECT_EQ(collDumpItemsHex(h, buf, sizeof buf), 0u); }
    if (type == 8) { EXPECT_EQ(buf[0], '#'); }
  }
}

TEST(DumpSize, LimitsWithTablesAndNestedCollections) {
  // One column, one row: the field is F characters, the data F + 7 bytes;
  // a raw item of k bytes adds 11 + k.
  HCOLL h = collOpen("Big"), outer = collOpen("Outer");
  PutTable(h, "t", NewTable(1, 0, "\0"s, {std::string(59993, 'x') + '\0'}));
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 6u + 23 + 60000);
  collSetColl(outer, "c", h);  // 6 + (4 + 1 + 20 + 23 + 60000) + (11 + k)
  for (uint32_t k : {5494u, 5495u}) {
    collSetItem(h, "r", std::string(k, 'r').data(), k);
    collSetItem(outer, "r", std::string(k - 25, 'r').data(), k - 25);
    EXPECT_EQ(collDumpItems(h, nullptr, 0), k == 5494 ? 65534u : 0u);
    EXPECT_EQ(collDumpItems(outer, nullptr, 0), k == 5494 ? 65534u : 0u);
    EXPECT_EQ(collDumpItemsHex(h, nullptr, 0), k == 5494 ? 2 * 65534u : 0u);
  }
  // The largest image loads whole.
  collSetItem(outer, "r", std::string(5469, 'r').data(), 5469);
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, Dump(outer)), 1u);
  EXPECT_EQ(Describe(target), Describe(outer));
  HCOLL two = collOpen("TwoTables");
  for (const char *tag : {"a", "b"}) PutTable(two, tag, NewTable(1, 0, "\0"s, {std::string(40000, 'y') + '\0'}));
  EXPECT_EQ(collDumpItems(two, nullptr, 0), 0u);
}

// Damaged images are refused whole, in both forms, and nothing changes.
TEST(DumpLoad, DamagedImagesAreRefused) {
  HCOLL source = RichCollection(), target = collOpen("Target");
  collSetString(target, "Text", "unchanged");
  const Bytes good = Dump(source);
  // Offset of the value block of the top-level record tag.
  auto blockOf = [&](const std::string &tag) {
    for (size_t p = 6;;) {
      const size_t block = p + 4 + coll::rdBE16(&good[p]);
      if (std::string(reinterpret_cast<const char *>(&good[p + 2]), block - p - 4) == tag) return block;
      p = block + coll::rdBE16(&good[block + 4]);
    }
  };
  const size_t text = blockOf("Text"), child = blockOf("child"), grid = blockOf("grid");
  const uint32_t L = coll::rdBE16(&good[child + 4]);
  auto add = [](Bytes &b, size_t at, int d) { coll::wrBE16(&b[at], coll::rdBE16(&b[at]) + uint32_t(d)); };
  const std::vector<std::pair<bool, std::function<void(Bytes &)>>> damage = {
      // (seal: rewrite length and checksum afterwards)
      {false, [&](Bytes &b) { add(b, 4, 1); }},
      {false, [&](Bytes &b) { coll::wrBE16(&b[2], 0xCE01); }},
      {false, [&](Bytes &b) { add(b, 0, -1); }},
      {false, [&](Bytes &b) { b.push_back(0); }},
      {false, [&](Bytes &b) { b.resize(5); }},
      {true, [&](Bytes &b) { b.resize(7); }},
      {true, [&](Bytes &b) { b.pop_back(); }},
      {true, [&](Bytes &b) { b.resize(b.size() - 5); }},
      {true, [&](Bytes &b) { coll::wrBE16(&b[6], 0xFFFF); }},                 // first tag past the end
      {true, [&](Bytes &b) { add(b, child - 2, 1), add(b, child + 4, 1); }},  // last record past the end
      {true, [&](Bytes &b) { coll::wrBE16(&b[text - 2], 5), coll::wrBE16(&b[text + 4], 5); }},  // below the head
      {true, [&](Bytes &b) { add(b, grid + 8, 1); }},                         // table data past its block
      {true, [&](Bytes &b) { add(b, child - 2, 1), add(b, child + 4, 1), b.insert(b.begin() + long(child + L), 0); }},
      {true, [&](Bytes &b) { add(b, child - 2, -1), add(b, child + 4, -1), b.push_back(0); }},  // nested past block
      {true, [&](Bytes &b) { coll::wrBE16(&b[text], 0); }},
      {true, [&](Bytes &b) { coll::wrBE16(&b[text], 8); }},
      {true, [&](Bytes &b) { b = FromHex("00 00 CE 00 00 00 00 01 6E 00 09 00 05 00 00 00 09 00 00 01"); }},  // short number
      {true, [&](Bytes &b) { b = FromHex("00 00 CE 00 00 00 00 01 63 00 13 00 03 00 00 00 13 10 10 CE 00 00 00 00 00 00 00 00 00 00"); }},
  };
  const std::string before = testutil::Snapshot();
  for (size_t i = 0; i < damage.size(); ++i) {
    Bytes image = good;
    damage[i].second(image);
    if (damage[i].first) Seal(image);
    EXPECT_EQ(Load(target, image), 0u) << i;
    const std::string hex = HexText(image);
    EXPECT_EQ(collLoadItemsHex(target, hex.data(), uint32_t(hex.size())), 0u) << i;
    EXPECT_EQ(testutil::SnapshotDiff(before, testutil::Snapshot()), "") << i;
  }
  EXPECT_EQ(coll::isBadCollDumpHdr(good.data(), 5, 0), 1u);
}

namespace {
// One table record under tag 't' whose strings are data (one column, no
// rows, selection none, type 9).
Bytes TableImage(const std::string &data) {
  const uint32_t L = 18 + uint32_t(data.size());
  Bytes image = FromHex("00 00 CE 00 00 00 00 01 74");
  for (uint32_t w : {L, 2u, 0u, L, 0x1212u, L - 6, 9u, 0u, 1u, 0xFFFFu}) image.push_back(uint8_t(w >> 8)), image.push_back(uint8_t(w));
  image.insert(image.end(), data.begin(), data.end());
  Seal(image);
  return image;
}
}  // namespace

// Table records as loaded into a collection and by tableLoad (copied, and
// in place): missing strings are added empty (a copy even in place), a cut
// last string counts as one, extra strings stay; a table that cannot be
// rebuilt refuses the whole load.
TEST(DumpLoad, TableRecordsRebuiltOrRefused) {
  const struct {
    std::string data;
    uint32_t at, word;   // a patched word (at 0: none)
    std::string table;  // "" when left out
  } cases[] = {
      {"n\0a\0b\0c\0"s, 0, 0, "4626,58,9,0,1,65535,n\0a\0b\0c\0\0\0"s},
      {"n\0abc"s, 0, 0, "4626,57,9,0,1,65535,n\0abc\0\0\0\0"s},
      {"n\0\0\0\0\0\0extra\0"s, 0, 0, "4626,61,9,0,1,65535,n\0\0\0\0\0\0extra\0"s},
      {"n\0\0\0\0\0\0"s, 17, 0x1213, ""},  // magic
      {"n\0\0\0\0\0\0"s, 25, 0, ""},       // no columns
      {"n\0\0\0\0\0\0"s, 23, 0xFFFF, ""},  // 65536 strings missing
  };
  const std::string held = Held();
  for (const auto &c : cases) {
    Bytes image = TableImage(c.data);
    if (c.at) coll::wrBE16(&image[c.at], c.word);
    Seal(image);
    for (uint32_t mode : {0u, 1u}) {
      HTABLE t = tableLoad(image.data(), uint32_t(image.size()), mode, 0, 0);
      if (coll::LockGuard lock; t) {
        EXPECT_EQ(TableText(t), c.table) << mode;
        const bool copied = mode == 0 || c.table.size() != 20 + c.data.size();
        EXPECT_EQ(coll::ps->tableData[coll::TableDataIndex(coll::GetTablePtr(t))].owned, copied ? 1u : 0u);
        EXPECT_EQ(rd32(coll::GetTablePtr(t) + coll::th::attrOffset), 2u);
      } else {
        EXPECT_EQ(c.table, "") << mode;
      }
      tableDestroy(t);
    }
    Bytes more = FromHex("00 01 78 00 07 00 06 00 00 00 07 79");
    image.insert(image.end(), more.begin(), more.end());
    Seal(image);
    HCOLL h = collOpen("h");
    ASSERT_EQ(Load(h, image), c.table.empty() ? 0u : 1u);
    EXPECT_EQ(Describe(h), c.table.empty() ? "" : "t:2/0=" + c.table + ";x:6/0=y;");
    collClose(h);
    EXPECT_EQ(Held(), held);
  }
}

// A tag of length 0 names no item: its record is left out, a table in it
// too (tableLoad still reads it); a tag holding a zero byte ends there.
TEST(DumpLoad, TagsOfLengthZeroAndWithZeroBytes) {
  Bytes image = TableImage("n\0\0\0\0\0\0"s);
  coll::wrBE16(&image[6], 0);
  image.erase(image.begin() + 8);
  Seal(image);
  HTABLE t = tableLoad(image.data(), uint32_t(image.size()), 1, 0, 0);
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::ps->tableData[coll::TableDataIndex(coll::GetTablePtr(t))].data, image.data() + 28);
    EXPECT_EQ(TableText(t), "4626,55,9,0,1,65535,n\0\0\0\0\0\0"s);
  }
  tableDestroy(t);
  Bytes more = FromHex("00 00 00 07 00 06 00 00 00 07 7A 00 03 61 00 62 00 07 00 06 00 00 00 07 79");
  image.insert(image.end(), more.begin(), more.end());
  Seal(image);
  HCOLL h = collOpen("Empty");
  const std::string held = Held();
  ASSERT_EQ(Load(h, image), 1u);
  EXPECT_EQ(Describe(h), "a:6/0=y;");
  EXPECT_EQ(Held(), held);
}

// Without free handles the tables and collections are left out; records
// that do not fit leave nothing behind; with room the same image loads.
TEST(DumpLoad, RecordsWithoutHandlesOrRoomAreLeftOut) {
  HCOLL source = RichCollection(), target = collOpen("Target"), full = collOpen("Full");
  const Bytes image = Dump(source);
  std::vector<uint32_t> tables, colls;
  for (HTABLE t; (t = tableCreate(1, 0)) != 0;) tables.push_back(t);
  for (HCOLL c; (c = collOpen("filler")) != 0;) colls.push_back(c);
  std::string held = Held();
  ASSERT_EQ(Load(target, image), 1u);
  EXPECT_EQ(testutil::Tags(target), "raw,Text,num,when");
  EXPECT_EQ(Held(), held);
  for (HTABLE t : tables) tableDestroy(t);
  for (HCOLL c : colls) collClose(c);
  ASSERT_EQ(Load(target, image), 1u);
  EXPECT_EQ(Describe(target), Describe(source));
  // 678 + 11 + k bytes in use leave 5 bytes: too few for any of the items.
  ASSERT_EQ(collSetItem(full, "r", std::string(62789, 'f').data(), 62789), 1u);
  held = Held();
  ASSERT_EQ(Load(full, image), 1u);
  EXPECT_EQ(collItemCount(full), 1u);
  EXPECT_EQ(Held(), held);
}

TEST(DumpHexText, Rules) {
  HCOLL h = collOpen("Hex");
  const std::string text = "0041ec0010cc0020162600800060000000808797";
  const struct {
    std::string text;
    uint32_t result;
  } cases[] = {
      {text.substr(0, 20) + " " + text.substr(20), 0}, {text.substr(0, 39) + "8", 0}, {text + "G", 0},
      {text + "f", 1}, {"0060EC", 0}, {"0060EC0", 0}, {"0060EC00", 0}, {"0060EC000000", 1},
      {std::string(140000, '0'), 0}, {text, 1},
  };
  for (const auto &c : cases) {
    collEmpty(h);
    EXPECT_EQ(collLoadItemsHex(h, c.text.data(), uint32_t(c.text.size())), c.result) << c.text.substr(0, 50);
    EXPECT_EQ(Describe(h), c.result && c.text.size() > 12 ? "ab:6/0=xy;" : "") << c.text.substr(0, 50);
  }
}

TEST(TableLoad, CopyAndInPlace) {
  HTABLE t = NewTable(2, 0x1234, "A\0B\0"s, {"a1\0\0"s, "a2\0b2\0"s}, "w\0\0\0\0x\0"s, 1);
  HCOLL h = collOpen(nullptr);
  collSetTable(h, "tag", t);
  collSetString(h, "after", "text");
  const Bytes image = Dump(h), original = image;
  collClose(h);
  // A copy needs the image no longer; the unused arguments change nothing.
  auto *heap = new Bytes(image);
  HTABLE copy = tableLoad(heap->data(), uint32_t(heap->size()), 0, 0, 0);
  delete heap;
  HTABLE again = tableLoad(image.data(), uint32_t(image.size()), 2, 0xFFFFFFFF, 123);
  HTABLE inPlace = tableLoad(image.data(), uint32_t(image.size()), 1, 0, 0);
  ASSERT_TRUE(copy && again && inPlace);
  {
    coll::LockGuard lock;
    for (HTABLE x : {copy, again, inPlace}) {
      EXPECT_EQ(TableText(x), TableText(t));
      const uint8_t *hdr = coll::GetTablePtr(x);
      EXPECT_EQ(rd32(hdr + coll::th::rowsOffset), 4u);
      EXPECT_EQ(rd32(hdr + coll::th::attrOffset), 14u);
      EXPECT_EQ(coll::TableOwner(hdr), 0u);
      const coll::TableDataRec &rec = coll::ps->tableData[coll::TableDataIndex(hdr)];
      EXPECT_EQ(rec.refCount, 1u);
      EXPECT_EQ(rec.owned, x == inPlace ? 0u : 1u);
      EXPECT_EQ(rec.data == image.data() + 28 + 3, x == inPlace);
    }
  }
  // A change gives the table in place its own copy first.
  ASSERT_EQ(tableSetItem(inPlace, 0, 0, "changed"), 1u);
  char field[16];
  EXPECT_EQ(tableGetItem(inPlace, 0, 0, field, sizeof field), 8u);
  EXPECT_STREQ(field, "changed");
  for (HTABLE x : {copy, again, inPlace, t}) tableDestroy(x);
  EXPECT_EQ(image, original);
  EXPECT_EQ(testutil::CheckState(), "");
}

TEST(TableLoad, RefusedImages) {
  const Bytes good = TableImage("n\0\0\0\0\0\0"s);
  const std::string held = Held();
  // The image lies in a block of exactly size bytes: nothing past it is read.
  auto loads = [&](const std::function<void(Bytes &)> &change) {
    Bytes image = good;
    change(image);
    Bytes exact(image);
    return tableLoad(exact.empty() ? nullptr : exact.data(), uint32_t(exact.size()), 0, 0, 0);
  };
  const std::function<void(Bytes &)> refused[] = {
      [](Bytes &b) { b.pop_back(); }, [](Bytes &b) { b.clear(); }, [](Bytes &b) { b.resize(7); },
      [](Bytes &b) { b.resize(28); }, [](Bytes &b) { coll::wrBE16(&b[19], 11); },  // stored length below 12
      [](Bytes &b) { coll::wrBE16(&b[19], 65500), b.resize(65600); },                // + 36 overflows
      [](Bytes &b) { coll::wrBE16(&b[6], 0xFFFF); },  // the tag runs past the image
  };
  for (const auto &change : refused) EXPECT_EQ(loads(change), 0u);
  EXPECT_EQ(Held(), held);
  // Without a free handle the data record is given back.
  std::vector<HTABLE> tables;
  for (HTABLE t; (t = tableCreate(1, 0)) != 0;) tables.push_back(t);
  const std::string full = Held();
  EXPECT_EQ(tableLoad(good.data(), uint32_t(good.size()), 0, 0, 0), 0u);
  EXPECT_EQ(tableLoad(good.data(), uint32_t(good.size()), 1, 0, 0), 0u);
  EXPECT_EQ(Held(), full);
  tableDestroy(tables.back());
  EXPECT_NE(loads([](Bytes &) {}), 0u);
}
