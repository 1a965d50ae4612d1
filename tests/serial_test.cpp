// Dumps and loads: the image format, sizes and limits, round trips, merging,
// damaged images, the hexadecimal text and tableLoad.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "coll.h"
#include "platform/platform.h"
#include "serial/serial.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using coll::rd16;
using coll::rd32;

// Bytes from hexadecimal pairs separated by spaces ("00 14 CE").
Bytes FromHex(const std::string &spaced) {
  Bytes out;
  for (size_t i = 0; i < spaced.size(); i += 3)
    out.push_back(static_cast<uint8_t>(std::stoul(spaced.substr(i, 2), nullptr, 16)));
  return out;
}

void Store(HCOLL h, const std::string &tag, uint32_t type, const void *data, uint32_t n, uint32_t flag = 0) {
  coll::LockGuard lock;
  uint8_t *block = coll::BuildItem(type, data, n);
  ASSERT_NE(block, nullptr);
  coll::wr16(block + coll::ib::tranFlag, flag);
  ASSERT_EQ(coll::SetItemN(h, tag.data(), uint32_t(tag.size()), block, 1), 1u);
}
void SetText(HCOLL h, const std::string &tag, const std::string &text) {
  Store(h, tag, COLLTYPE_STRING, text.data(), uint32_t(text.size()));
}
void SetNumber(HCOLL h, const std::string &tag, uint32_t type, uint32_t value) {
  uint8_t le[4];
  coll::wr32(le, value);
  Store(h, tag, type, le, 4);
}

// A free-standing table with the given strings (names, rows, attributes).
HTABLE MakeTable(uint32_t cols, uint32_t rows, const std::vector<std::string> &strings, uint32_t type = 7,
                 uint32_t selection = 0xFFFF) {
  HTABLE t = tableCreate(cols, type);
  EXPECT_NE(t, 0u);
  std::string data;
  uint32_t rowsOffset = 0, attrOffset = 0;
  for (size_t i = 0; i < strings.size(); ++i) {
    data += strings[i];
    data += '\0';
    if (i + 1 == cols) rowsOffset = uint32_t(data.size());
    if (i + 1 == size_t(cols) * (rows + 1)) attrOffset = uint32_t(data.size());
  }
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(t);
  uint32_t length = 48 + uint32_t(data.size());
  uint32_t pages = length / 1023 + 1;
  coll::TableDataRec &rec = coll::ps->tableData[coll::TableDataIndex(hdr)];
  rec.data = static_cast<uint8_t *>(coll::collReAllocPtr(rec.data, pages * 1023));
  std::memset(rec.data, 0, pages * 1023);
  std::memcpy(rec.data, data.data(), data.size());
  coll::wr16(hdr + coll::th::length, length);
  coll::wr16(hdr + coll::th::rows, rows);
  coll::wr16(hdr + coll::th::selection, selection);
  coll::wr32(hdr + coll::th::rowsOffset, rowsOffset);
  coll::wr32(hdr + coll::th::attrOffset, attrOffset);
  coll::wr32(hdr + coll::th::pages, pages);
  coll::wr32(hdr + coll::th::cacheValid, 0);
  return t;
}

// Stores a copy of a table or collection as an item (the source stays the
// caller's).
void PutObject(HCOLL h, const char *tag, uint32_t type, uint32_t object) {
  coll::LockGuard lock;
  uint8_t *block = coll::BuildItem(type, &object, 4);
  uint8_t *copy = coll::DupItem(block, h);
  coll::collFreePtr(block);
  ASSERT_NE(copy, nullptr);
  ASSERT_EQ(coll::SetItem(h, tag, copy, 1), 1u);
}

// The handle that the item tag holds, 0 when none.
uint32_t HandleOf(HCOLL h, const char *tag) {
  coll::LockGuard lock;
  uint8_t *img, *block;
  uint32_t n;
  if (!coll::RetrieveItem(h, &img, tag, &block, &n) || n != 4) return 0;
  return rd32(coll::BlockData(block));
}

std::string DescribeLocked(uint32_t h) {
  uint8_t *img = coll::GetCollPtr(h);
  if (!img) return "<gone>";
  std::string out;
  uint32_t dl = coll::CollDataLength(img);
  for (uint32_t p = 0; p < dl;) {
    coll::ItemCursor cur;
    if (!coll::ItemAt(img, p, &cur)) return out + "<damaged>";
    const uint8_t *b = cur.block;
    out += std::string(reinterpret_cast<char *>(cur.tag), cur.t) + ":" + std::to_string(coll::BlockType(b)) + "/" +
           std::to_string(rd16(b + 2)) + "=";
    uint32_t handle = coll::BlockDataLength(b) == 4 ? rd32(coll::BlockData(b)) : 0;
    if (coll::BlockType(b) == COLLTYPE_TABLE) {
      const uint8_t *hdr = coll::GetTablePtr(handle);
      if (!hdr) return out + "<no table>";
      for (uint32_t off = 0; off < 12; off += 2) out += std::to_string(rd16(hdr + off)) + ",";
      out += std::string(reinterpret_cast<const char *>(coll::TableData(hdr)), coll::TableDataLength(hdr));
    } else if (coll::BlockType(b) == COLLTYPE_COLL) {
      out += "{" + DescribeLocked(handle) + "}";
    } else {
      out += std::string(reinterpret_cast<const char *>(coll::BlockData(b)), coll::BlockDataLength(b));
    }
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

Bytes Dump(HCOLL h) {
  uint32_t n = collDumpItems(h, nullptr, 0);
  Bytes image(n);
  EXPECT_EQ(collDumpItems(h, image.data(), n), n);
  return image;
}
std::string DumpHex(HCOLL h) {
  uint32_t n = collDumpItemsHex(h, nullptr, 0);
  std::string text(n, '\0');
  EXPECT_EQ(collDumpItemsHex(h, text.data(), n), n);
  return text;
}
uint32_t Load(HCOLL h, const Bytes &image) { return collLoadItems(h, image.data(), uint32_t(image.size())); }

// Rewrites total length and checksum, so that only a fault in the records
// remains.
void Seal(Bytes &image) {
  coll::wrBE16(image.data(), uint32_t(image.size()));
  coll::wrBE16(image.data() + 4, coll::checksum(image.data(), uint32_t(image.size())));
}

uint32_t LiveTables() {
  uint32_t handles[256];
  return collGetTableHandles(handles, sizeof handles);
}
uint32_t LiveCollections() {
  uint32_t n = 0;
  for (uint32_t h = 0x4001; h <= 0x40FE; ++h) n += collIsBadCollHandle(h) ? 0 : 1;
  return n;
}
uint32_t UsedRecords() {
  coll::LockGuard lock;
  uint32_t n = 0;
  for (const auto &rec : coll::ps->tableData) n += rec.data ? 1 : 0;
  return n;
}

// A collection with every kind of item, a nested collection holding a table
// and a further nested collection.
HCOLL RichCollection() {
  HCOLL h = collOpen("Rich");
  collSetItem(h, "raw", "\x01\x00\xFFz", 4);
  SetText(h, "Text", "hello world");
  SetNumber(h, "num", COLLTYPE_NUMERIC, 0x80000001u);
  SetNumber(h, "when", COLLTYPE_TIME, 1700000000u);
  HTABLE t = MakeTable(2, 2, {"A", "B", "a1", "", "a2", "b2", "w", "", "", "", "x"}, 0x1234, 1);
  PutObject(h, "grid", COLLTYPE_TABLE, t);
  tableDestroy(t);
  HCOLL inner = collOpen("Inner");
  HCOLL innermost = collOpen("Innermost");
  SetText(innermost, "deep", "down");
  HTABLE t2 = MakeTable(1, 0, {"only", "", "", "", "", ""});
  PutObject(innermost, "t", COLLTYPE_TABLE, t2);
  tableDestroy(t2);
  PutObject(inner, "more", COLLTYPE_COLL, innermost);
  collClose(innermost);
  SetNumber(inner, "n", COLLTYPE_NUMERIC, 42);
  PutObject(h, "child", COLLTYPE_COLL, inner);
  collClose(inner);
  return h;
}

}  // namespace

// ---- the image format

TEST(DumpFormat, ChecksumIsTheByteSumAfterTheHeaderForEveryLength) {
  // High bytes everywhere, so that every lane carries; every length around
  // the word and block boundaries of the summing loop.
  std::vector<uint8_t> image(70000);
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>(0xFF - (i * 7) % 13);
  for (uint32_t length : {0u, 5u, 6u, 7u, 13u, 21u, 22u, 23u, 2053u, 2054u, 2055u, 65535u, 70000u}) {
    uint32_t naive = 0;
    for (uint32_t i = 6; i < length; ++i) naive += image[i];
    EXPECT_EQ(coll::checksum(image.data(), length), naive & 0xFFFF) << length;
  }
}

TEST(DumpFormat, WorkedExamples) {
  HCOLL h = collOpen("Example");
  EXPECT_EQ(Dump(h), FromHex("00 06 CE 00 00 00"));
  EXPECT_EQ(DumpHex(h), "0060EC000000");
  SetText(h, "ab", "xy");
  EXPECT_EQ(Dump(h), FromHex("00 14 CE 00 01 CC 00 02 61 62 00 08 00 06 00 00 00 08 78 79"));
  EXPECT_EQ(DumpHex(h), "0041EC0010CC0020162600800060000000808797");
}

TEST(DumpFormat, NumbersAndTimesAreBigEndian) {
  HCOLL h = collOpen("Numbers");
  SetNumber(h, "n", COLLTYPE_NUMERIC, 1);
  Bytes image = Dump(h);
  EXPECT_EQ(Bytes(image.begin() + 6, image.end()), FromHex("00 01 6E 00 0A 00 05 00 00 00 0A 00 00 00 01"));
  collEmpty(h);
  SetNumber(h, "t", COLLTYPE_TIME, 0x01020304);
  image = Dump(h);
  EXPECT_EQ(Bytes(image.begin() + 6, image.end()), FromHex("00 01 74 00 0A 00 04 00 00 00 0A 01 02 03 04"));
}

TEST(DumpFormat, TableAndNestedCollectionRecords) {
  HCOLL h = collOpen("Layout");
  HTABLE t = MakeTable(1, 1, {"c", "v", "", "", "", "", ""}, 0x0102, 0);
  PutObject(h, "t", COLLTYPE_TABLE, t);
  Bytes image = Dump(h);
  // Table length 48 + 9: value length 27, stored length 21.
  EXPECT_EQ(Bytes(image.begin() + 6, image.end()),
            FromHex("00 01 74 00 1B 00 02 00 00 00 1B 12 12 00 15 01 02 00 01 00 01 00 00 63 00 76 00 00 00 00 00 00"));
  collEmpty(h);
  HCOLL inner = collOpen("Inner");
  SetText(inner, "k", "v");
  PutObject(h, "c", COLLTYPE_COLL, inner);
  image = Dump(h);
  uint32_t child = HandleOf(h, "c");
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(child);
  // Record: tag, value length 20 + 12, block head, the child's first seven
  // header words, its one record.
  Bytes expected = FromHex("00 01 63 00 20 00 03 00 00 00 20 10 10 CE 00");
  expected.push_back(uint8_t(coll::CollId(img) >> 8));
  expected.push_back(uint8_t(coll::CollId(img)));
  Bytes rest = FromHex("00 01 00 00 00 0C 02 A6 00 01 6B 00 07 00 06 00 00 00 07 76");
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(Bytes(image.begin() + 6, image.end()), expected);
}

TEST(DumpFormat, TransactionMarkIsWrittenAndNotLoaded) {
  HCOLL h = collOpen("Marked");
  Store(h, "m", COLLTYPE_STRING, "v", 1, 1);
  Bytes image = Dump(h);
  EXPECT_EQ(coll::rdBE16(&image[11]), 6u);
  EXPECT_EQ(coll::rdBE16(&image[13]), 1u);
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, image), 1u);
  EXPECT_EQ(Describe(target), "m:6/0=v;");
}

TEST(DumpFormat, DamagedCollectionIsNotDumped) {
  HCOLL h = collOpen("Damaged");
  SetText(h, "a", "1");
  SetText(h, "b", "2");
  uint8_t *block;
  {
    coll::LockGuard lock;
    ASSERT_TRUE(coll::GetItem(coll::GetCollPtr(h), "b", &block));
    coll::wr16(block, 8);
  }
  char buf[64];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 0u);
  EXPECT_EQ(collDumpItems(h, buf, sizeof buf), 0u);
  EXPECT_EQ(collDumpItemsHex(h, buf, sizeof buf), 0u);
  EXPECT_EQ(buf[0], '#');
  {
    coll::LockGuard lock;
    coll::wr16(block, 0);
  }
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 0u);
  {
    coll::LockGuard lock;
    coll::wr16(block, 7);  // loaded text: fine
  }
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 30u);
}

// ---- sizes and limits

TEST(DumpSize, QueriesAndShortBuffers) {
  HCOLL h = RichCollection();
  uint32_t n = collDumpItems(h, nullptr, 0);
  ASSERT_GT(n, 6u);
  EXPECT_EQ(collDumpItemsHex(h, nullptr, 0), 2 * n);
  Bytes exact(n + 1, 0xAA);
  EXPECT_EQ(collDumpItems(h, exact.data(), n), n);
  EXPECT_EQ(exact[n], 0xAA);
  EXPECT_EQ(coll::rdBE16(exact.data()), n);
  Bytes shorter(n, 0xAA);
  EXPECT_EQ(collDumpItems(h, shorter.data(), n - 1), 0u);
  EXPECT_EQ(shorter, Bytes(n, 0xAA));
  std::string text(2 * n, '#');
  EXPECT_EQ(collDumpItemsHex(h, text.data(), 2 * n - 1), 0u);
  EXPECT_EQ(text, std::string(2 * n, '#'));
  EXPECT_EQ(collDumpItemsHex(h, text.data(), 2 * n), 2 * n);
  // The text is the image, low digit first.
  static const char digits[] = "0123456789ABCDEF";
  for (uint32_t k = 0; k < n; ++k) {
    ASSERT_EQ(text[2 * k], digits[exact[k] & 15]);
    ASSERT_EQ(text[2 * k + 1], digits[exact[k] >> 4]);
  }
  EXPECT_EQ(collDumpItems(0x40FE, nullptr, 0), 0u);
  EXPECT_EQ(collDumpItemsHex(0, nullptr, 0), 0u);
}

TEST(DumpSize, LimitWithTables) {
  HCOLL h = collOpen("Big");
  // One column, one row: the field is F characters, the data F + 7 bytes.
  HTABLE t = MakeTable(1, 1, {"", std::string(59993, 'x'), "", "", "", "", ""});
  PutObject(h, "t", COLLTYPE_TABLE, t);
  tableDestroy(t);
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 6u + 23 + 60000);
  // A raw item of k bytes adds 11 + k.
  collSetItem(h, "r", std::string(5494, 'r').data(), 5494);
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 65534u);
  EXPECT_EQ(Dump(h).size(), 65534u);
  collSetItem(h, "r", std::string(5495, 'r').data(), 5495);
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 0u);
  EXPECT_EQ(collDumpItemsHex(h, nullptr, 0), 0u);
  std::string text(200000, '#');
  EXPECT_EQ(collDumpItemsHex(h, text.data(), uint32_t(text.size())), 0u);
  EXPECT_EQ(text[0], '#');

  HCOLL two = collOpen("TwoTables");
  for (const char *tag : {"a", "b"}) {
    HTABLE big = MakeTable(1, 1, {"", std::string(40000, 'y'), "", "", "", "", ""});
    PutObject(two, tag, COLLTYPE_TABLE, big);
    tableDestroy(big);
  }
  EXPECT_EQ(collDumpItems(two, nullptr, 0), 0u);
}

TEST(DumpSize, LimitWithNestedCollections) {
  HCOLL h = collOpen("Outer");
  HCOLL inner = collOpen("Inner");
  HTABLE t = MakeTable(1, 1, {"", std::string(59993, 'x'), "", "", "", "", ""});
  PutObject(inner, "t", COLLTYPE_TABLE, t);
  PutObject(h, "c", COLLTYPE_COLL, inner);
  // 6 + (4 + 1 + 20 + 23 + 60000) + (11 + k)
  collSetItem(h, "r", std::string(5469, 'r').data(), 5469);
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 65534u);
  collSetItem(h, "r", std::string(5470, 'r').data(), 5470);
  EXPECT_EQ(collDumpItems(h, nullptr, 0), 0u);
  // Loading the largest image gives the same items back.
  collSetItem(h, "r", std::string(5469, 'r').data(), 5469);
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, Dump(h)), 1u);
  EXPECT_EQ(Describe(target), Describe(h));
}

// ---- round trips

TEST(DumpLoad, RoundTripOfEveryTypeInBothForms) {
  HCOLL h = RichCollection();
  const std::string before = Describe(h);
  ASSERT_NE(before.find("{more:3/0={deep:6/0=down;t:2/0="), std::string::npos);
  HCOLL bytesTarget = collOpen("FromBytes");
  ASSERT_EQ(Load(bytesTarget, Dump(h)), 1u);
  EXPECT_EQ(Describe(bytesTarget), before);
  HCOLL hexTarget = collOpen("FromHex");
  std::string text = DumpHex(h);
  ASSERT_EQ(collLoadItemsHex(hexTarget, text.data(), uint32_t(text.size())), 1u);
  EXPECT_EQ(Describe(hexTarget), before);
  // Dumping the loaded collection again gives an image of the same length.
  EXPECT_EQ(Dump(bytesTarget).size(), Dump(h).size());
}

TEST(DumpLoad, LoadedObjectsAreNewAndOwned) {
  HCOLL h = RichCollection();
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, Dump(h)), 1u);
  uint32_t table = HandleOf(target, "grid"), child = HandleOf(target, "child");
  EXPECT_NE(table, HandleOf(h, "grid"));
  EXPECT_NE(child, HandleOf(h, "child"));
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(table);
  ASSERT_NE(hdr, nullptr);
  EXPECT_EQ(coll::TableOwner(hdr), target);
  EXPECT_EQ(rd32(hdr + coll::th::pages), coll::TableLength(hdr) / 1023 + 1);
  EXPECT_EQ(rd32(hdr + coll::th::rowsOffset), 4u);
  EXPECT_EQ(rd32(hdr + coll::th::attrOffset), 14u);
  const coll::TableDataRec &rec = coll::ps->tableData[coll::TableDataIndex(hdr)];
  EXPECT_EQ(rec.refCount, 1u);
  EXPECT_EQ(rec.owned, 1u);
  uint8_t *img = coll::GetCollPtr(child);
  ASSERT_NE(img, nullptr);
  EXPECT_EQ(coll::CollOwner(img), target);
  EXPECT_EQ(coll::CollNameLength(img), 0u);
  EXPECT_EQ(coll::CollCreatorProcess(img), coll::CollCreatorProcess(coll::GetCollPtr(target)));
}

TEST(DumpLoad, TypeSevenTravelsAsItIs) {
  Bytes image = FromHex("00 00 CE 00 00 00 00 01 73 00 08 00 07 00 00 00 08 68 69");
  Seal(image);
  HCOLL h = collOpen("Seven");
  ASSERT_EQ(Load(h, image), 1u);
  EXPECT_EQ(Describe(h), "s:7/0=hi;");
  EXPECT_EQ(Dump(h), image);
}

// ---- merging

TEST(DumpLoad, LoadMergesIntoTheCollection) {
  HCOLL source = collOpen("Source");
  SetText(source, "ab", "xy");
  SetNumber(source, "n", COLLTYPE_NUMERIC, 5);
  HCOLL target = collOpen("Target");
  SetText(target, "keep", "me");
  SetText(target, "AB", "old");
  SetNumber(target, "N", COLLTYPE_NUMERIC, 5);
  ASSERT_EQ(Load(target, Dump(source)), 1u);
  // The equal number stays where it was (taking the loaded tag's case); the
  // changed text moved to the end under the loaded tag.
  EXPECT_EQ(Describe(target), std::string("keep:6/0=me;n:5/0=") + std::string("\x05\0\0\0", 4) + ";ab:6/0=xy;");
}

TEST(DumpLoad, SecondLoadReplacesOnlyTablesAndCollections) {
  HCOLL h = RichCollection();
  Bytes image = Dump(h);
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, image), 1u);
  const std::string first = Describe(target);
  uint32_t table = HandleOf(target, "grid"), child = HandleOf(target, "child");
  const uint32_t tables = LiveTables(), collections = LiveCollections(), records = UsedRecords();
  ASSERT_EQ(Load(target, image), 1u);
  // Equal values stay; tables and collections are new objects in place.
  EXPECT_EQ(Describe(target), first);
  EXPECT_NE(HandleOf(target, "grid"), table);
  EXPECT_NE(HandleOf(target, "child"), child);
  // The replaced objects are gone: nothing more is held than before.
  EXPECT_EQ(LiveTables(), tables);
  EXPECT_EQ(LiveCollections(), collections);
  EXPECT_EQ(UsedRecords(), records);
}

TEST(DumpLoad, LoadIntoCatalogAndInvalidHandles) {
  HCOLL source = collOpen("Source");
  SetText(source, "entry", "x");
  Bytes image = Dump(source);
  EXPECT_EQ(Load(0x4001, image), 1u);
  EXPECT_EQ(Load(0x40FE, image), 0u);
  EXPECT_EQ(collLoadItems(source, nullptr, 20), 0u);
  std::string text = DumpHex(source);
  EXPECT_EQ(collLoadItemsHex(0, text.data(), uint32_t(text.size())), 0u);
}

// ---- damaged images

class DamagedImage : public ::testing::Test {
 protected:
  void SetUp() override {
    HCOLL source = RichCollection();
    image_ = Dump(source);
    target_ = collOpen("Target");
    SetText(target_, "Text", "unchanged");
    before_ = Describe(target_);
    tables_ = LiveTables();
    collections_ = LiveCollections();
    records_ = UsedRecords();
  }
  // Loads the image, which must be refused, leaving everything as it was.
  void ExpectRefused(const Bytes &image) {
    EXPECT_EQ(Load(target_, image), 0u);
    std::string text;
    for (uint8_t b : image) {
      text += "0123456789ABCDEF"[b & 15];
      text += "0123456789ABCDEF"[b >> 4];
    }
    EXPECT_EQ(collLoadItemsHex(target_, text.data(), uint32_t(text.size())), 0u);
    EXPECT_EQ(Describe(target_), before_);
    EXPECT_EQ(LiveTables(), tables_);
    EXPECT_EQ(LiveCollections(), collections_);
    EXPECT_EQ(UsedRecords(), records_);
  }
  // Offset of the value block of the record whose tag is tag (top level).
  size_t BlockOf(const std::string &tag) {
    for (size_t p = 6; p < image_.size();) {
      uint32_t n = coll::rdBE16(&image_[p]);
      std::string t(reinterpret_cast<char *>(&image_[p + 2]), n);
      size_t block = p + 4 + n;
      if (t == tag) return block;
      p = block + coll::rdBE16(&image_[block + 4]);
    }
    ADD_FAILURE() << "no record " << tag;
    return 0;
  }
  Bytes image_;
  HCOLL target_ = 0;
  std::string before_;
  uint32_t tables_ = 0, collections_ = 0, records_ = 0;
};

TEST_F(DamagedImage, HeaderFaults) {
  ASSERT_EQ(coll::isBadCollDumpHdr(image_.data(), uint32_t(image_.size()),
                                   coll::checksum(image_.data(), uint32_t(image_.size()))),
            0u);
  Bytes image = image_;
  coll::wrBE16(&image[4], coll::rdBE16(&image[4]) + 1);
  ExpectRefused(image);
  image = image_;
  coll::wrBE16(&image[2], 0xCE01);
  ExpectRefused(image);
  image = image_;
  coll::wrBE16(&image[0], uint32_t(image.size()) - 1);
  ExpectRefused(image);
  image = image_;
  image.push_back(0);
  ExpectRefused(image);
  ExpectRefused(Bytes(image_.begin(), image_.begin() + 5));
  // A changed byte after the header breaks the sum.
  image = image_;
  image[20] ^= 1;
  ExpectRefused(image);
  EXPECT_EQ(coll::isBadCollDumpHdr(image_.data(), 5, 0), 1u);
}

TEST_F(DamagedImage, TruncatedRecords) {
  for (size_t cut : {size_t(7), size_t(9), image_.size() - 1, image_.size() - 5}) {
    Bytes image(image_.begin(), image_.begin() + cut);
    Seal(image);
    ExpectRefused(image);
  }
  // A sealed image of a record list that only starts.
  Bytes image = FromHex("00 00 CE 00 00 00 00");
  Seal(image);
  ExpectRefused(image);
}

TEST_F(DamagedImage, LengthsPastTheEnd) {
  Bytes image = image_;
  coll::wrBE16(&image[6], 0xFFFF);  // first tag length
  Seal(image);
  ExpectRefused(image);
  // The last record's value length and block length agree but run past.
  image = image_;
  size_t child = BlockOf("child");
  coll::wrBE16(&image[child - 2], coll::rdBE16(&image[child - 2]) + 1);
  coll::wrBE16(&image[child + 4], coll::rdBE16(&image[child + 4]) + 1);
  Seal(image);
  ExpectRefused(image);
}

TEST_F(DamagedImage, LengthsThatDisagree) {
  Bytes image = image_;
  size_t text = BlockOf("Text");
  // A block shorter than its head.
  coll::wrBE16(&image[text - 2], 5);
  coll::wrBE16(&image[text + 4], 5);
  Seal(image);
  ExpectRefused(image);
  // A number too short for its value.
  Bytes odd = FromHex("00 00 CE 00 00 00 00 01 6E 00 09 00 05 00 00 00 09 00 00 01");
  Seal(odd);
  ExpectRefused(odd);
  // A table whose stored data runs past its block.
  image = image_;
  size_t grid = BlockOf("grid");
  coll::wrBE16(&image[grid + 8], coll::rdBE16(&image[grid + 8]) + 1);
  Seal(image);
  ExpectRefused(image);
}

TEST_F(DamagedImage, NestedLengths) {
  size_t child = BlockOf("child");
  // The nested records no longer fill the block: one byte more in the block.
  Bytes image = image_;
  uint32_t L = coll::rdBE16(&image[child + 4]);
  coll::wrBE16(&image[child - 2], L + 1);
  coll::wrBE16(&image[child + 4], L + 1);
  image.insert(image.begin() + long(child + L), 0);
  Seal(image);
  ExpectRefused(image);
  // A nested record that runs past its block (but not past the image).
  image = image_;
  coll::wrBE16(&image[child - 2], L - 1);
  coll::wrBE16(&image[child + 4], L - 1);
  image.push_back(0);
  Seal(image);
  ExpectRefused(image);
  // A nested block too short for its head.
  Bytes tiny = FromHex("00 00 CE 00 00 00 00 01 63 00 13 00 03 00 00 00 13 10 10 CE 00 00 00 00 00 00 00 00 00 00");
  Seal(tiny);
  ExpectRefused(tiny);
}

TEST_F(DamagedImage, UnknownTypeCodes) {
  for (uint32_t type : {0u, 8u, 0xFFFFu}) {
    Bytes image = image_;
    size_t text = BlockOf("Text");
    coll::wrBE16(&image[text], type);
    Seal(image);
    ExpectRefused(image);
  }
}

// ---- records that cannot be rebuilt, odd tags

namespace {

struct TableView {
  std::string words;  // the six stored header words
  std::string data;   // the strings in use
  uint32_t rowsOffset = 0, attrOffset = 0, pages = 0, owner = 0, refCount = 0, owned = 0;
  const uint8_t *block = nullptr;
};
TableView ViewTable(HTABLE t) {
  coll::LockGuard lock;
  TableView v;
  uint8_t *hdr = coll::GetTablePtr(t);
  if (!hdr) return v;
  for (uint32_t off = 0; off < 12; off += 2) v.words += std::to_string(rd16(hdr + off)) + ",";
  v.data = std::string(reinterpret_cast<char *>(coll::TableData(hdr)), coll::TableDataLength(hdr));
  v.rowsOffset = rd32(hdr + coll::th::rowsOffset);
  v.attrOffset = rd32(hdr + coll::th::attrOffset);
  v.pages = rd32(hdr + coll::th::pages);
  v.owner = coll::TableOwner(hdr);
  const coll::TableDataRec &rec = coll::ps->tableData[coll::TableDataIndex(hdr)];
  v.refCount = rec.refCount;
  v.owned = rec.owned;
  v.block = rec.data;
  return v;
}

// One table record under tag 't' whose strings are data (one column, no
// rows, selection none, type 9).
Bytes TableImage(const std::string &data) {
  const uint32_t L = 18 + uint32_t(data.size());
  Bytes image = FromHex("00 00 CE 00 00 00 00 01 74");
  for (uint32_t w : {L, 2u, 0u, L, 0x1212u, L - 6, 9u, 0u, 1u, 0xFFFFu}) {
    image.push_back(uint8_t(w >> 8));
    image.push_back(uint8_t(w));
  }
  image.insert(image.end(), data.begin(), data.end());
  Seal(image);
  return image;
}

}  // namespace

TEST(DumpLoad, MissingTableStringsAreAddedEmpty) {
  HCOLL h = collOpen("Short");
  // Six strings expected; the data ends two strings early.
  ASSERT_EQ(Load(h, TableImage(std::string("n\0a\0b\0c\0", 8))), 1u);
  TableView v = ViewTable(HandleOf(h, "t"));
  EXPECT_EQ(v.words, "4626,58,9,0,1,65535,");  // length 20 + 36 + 2
  EXPECT_EQ(v.data, std::string("n\0a\0b\0c\0\0\0", 10));
  EXPECT_EQ(v.rowsOffset, 2u);
  EXPECT_EQ(v.attrOffset, 2u);
  EXPECT_EQ(v.owner, h);
  // A last string cut off by the end of the data counts as one string: the
  // first zero added ends it.
  ASSERT_EQ(Load(h, TableImage(std::string("n\0abc", 5))), 1u);
  v = ViewTable(HandleOf(h, "t"));
  EXPECT_EQ(v.words, "4626,57,9,0,1,65535,");
  EXPECT_EQ(v.data, std::string("n\0abc\0\0\0\0", 9));
  // More strings than expected stay part of the table.
  ASSERT_EQ(Load(h, TableImage(std::string("n\0\0\0\0\0\0extra\0", 13))), 1u);
  v = ViewTable(HandleOf(h, "t"));
  EXPECT_EQ(v.words, "4626,61,9,0,1,65535,");
  EXPECT_EQ(v.attrOffset, 2u);
}

TEST(DumpLoad, TablesThatCannotBeRebuiltRefuseTheLoad) {
  HCOLL h = collOpen("Broken");
  const uint32_t records = UsedRecords();
  // Bad magic, no columns, or more missing strings than a table can hold:
  // nothing of the image is stored.
  for (uint32_t field : {0u, 1u, 2u}) {
    Bytes image = TableImage(std::string("n\0\0\0\0\0\0", 7));
    if (field == 0) coll::wrBE16(&image[17], 0x1213);       // magic
    if (field == 1) coll::wrBE16(&image[25], 0);            // cols
    if (field == 2) coll::wrBE16(&image[23], 0xFFFF);       // rows: 65536 strings missing
    Bytes text = FromHex("00 01 78 00 07 00 06 00 00 00 07 79");
    image.insert(image.end(), text.begin(), text.end());
    Seal(image);
    ASSERT_EQ(Load(h, image), 0u) << field;
    EXPECT_EQ(Describe(h), "") << field;
    EXPECT_EQ(UsedRecords(), records);
  }
}

TEST(DumpLoad, NoFreeSlotsLeavesRecordsOut) {
  HCOLL source = RichCollection();
  Bytes image = Dump(source);
  std::vector<HTABLE> tables;
  for (HTABLE t; (t = tableCreate(1, 0)) != 0;) tables.push_back(t);
  std::vector<HCOLL> colls;
  HCOLL target = collOpen("Target");
  for (HCOLL c; (c = collOpen("filler")) != 0;) colls.push_back(c);
  const uint32_t records = UsedRecords();
  ASSERT_EQ(Load(target, image), 1u);
  EXPECT_EQ(Describe(target).substr(0, 4), "raw:");
  EXPECT_EQ(collGetType(target, "when"), uint32_t(COLLTYPE_TIME));
  EXPECT_EQ(collGetType(target, "grid"), 0u);
  EXPECT_EQ(collGetType(target, "child"), 0u);
  EXPECT_EQ(UsedRecords(), records);
  // With handles free again the same image loads whole.
  for (HTABLE t : tables) tableDestroy(t);
  for (HCOLL c : colls) collClose(c);
  ASSERT_EQ(Load(target, image), 1u);
  EXPECT_EQ(Describe(target), Describe(source));
}

TEST(DumpLoad, OddTags) {
  HCOLL h = collOpen("Tags");
  const std::string longTag(300, 'q');
  SetText(h, longTag, "long");
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, Dump(h)), 1u);
  EXPECT_EQ(Describe(target), longTag + ":6/0=long;");
  // A tag of length 0 names no item: its record is left out, a table in it
  // too; a tag holding a zero byte ends there.
  Bytes image = TableImage(std::string("n\0\0\0\0\0\0", 7));
  coll::wrBE16(&image[6], 0);
  image.erase(image.begin() + 8);
  Bytes more = FromHex("00 00 00 07 00 06 00 00 00 07 7A 00 03 61 00 62 00 07 00 06 00 00 00 07 79");
  image.insert(image.end(), more.begin(), more.end());
  Seal(image);
  HCOLL empty = collOpen("Empty");
  const uint32_t tables = LiveTables(), records = UsedRecords();
  ASSERT_EQ(Load(empty, image), 1u);
  EXPECT_EQ(Describe(empty), "a:6/0=y;");
  EXPECT_EQ(LiveTables(), tables);
  EXPECT_EQ(UsedRecords(), records);
}

// ---- hexadecimal text

TEST(DumpHexText, Rules) {
  HCOLL h = collOpen("Hex");
  std::string text = "0041ec0010cc0020162600800060000000808797";
  ASSERT_EQ(collLoadItemsHex(h, text.data(), 40), 1u);
  EXPECT_EQ(Describe(h), "ab:6/0=xy;");
  collEmpty(h);
  std::string spaced = text.substr(0, 20) + " " + text.substr(20);
  EXPECT_EQ(collLoadItemsHex(h, spaced.data(), 41), 0u);
  std::string changed = text;
  changed[39] = '8';
  EXPECT_EQ(collLoadItemsHex(h, changed.data(), 40), 0u);
  std::string bad41 = text + "G";
  EXPECT_EQ(collLoadItemsHex(h, bad41.data(), 41), 0u);
  EXPECT_EQ(collItemCount(h), 0u);
  std::string odd = text + "f";
  EXPECT_EQ(collLoadItemsHex(h, odd.data(), 41), 1u);
  EXPECT_EQ(Describe(h), "ab:6/0=xy;");
  // Too short texts and images.
  EXPECT_EQ(collLoadItemsHex(h, "0060EC", 6), 0u);
  EXPECT_EQ(collLoadItemsHex(h, "0060EC0", 7), 0u);
  EXPECT_EQ(collLoadItemsHex(h, "0060EC00", 8), 0u);
  EXPECT_EQ(collLoadItemsHex(h, "0060EC000000", 12), 1u);
  const uint8_t five[] = {0, 5, 0xCE, 0, 0};
  EXPECT_EQ(collLoadItems(h, five, 5), 0u);
  const uint8_t six[] = {0, 6, 0xCE, 0, 0, 0};
  EXPECT_EQ(collLoadItems(h, six, 6), 1u);
  // Inputs longer than any image can be.
  std::vector<uint8_t> big(70000, 0);
  EXPECT_EQ(collLoadItems(h, big.data(), uint32_t(big.size())), 0u);
  std::string bigText(140000, '0');
  EXPECT_EQ(collLoadItemsHex(h, bigText.data(), uint32_t(bigText.size())), 0u);
  EXPECT_EQ(Describe(h), "ab:6/0=xy;");
}

// ---- tableLoad

namespace {

// A dump of a collection whose first item is a table under tag, with a
// text item after it.
Bytes TableDump(HTABLE t, const std::string &tag = "grid") {
  HCOLL h = collOpen(nullptr);
  PutObject(h, tag.c_str(), COLLTYPE_TABLE, t);
  SetText(h, "after", "text");
  Bytes image = Dump(h);
  collClose(h);
  return image;
}

}  // namespace

TEST(TableLoad, CopyMode) {
  HTABLE t = MakeTable(2, 2, {"A", "B", "a1", "", "a2", "b2", "w", "", "", "", "x"}, 0x1234, 1);
  Bytes image = TableDump(t);
  auto *heap = new Bytes(image);
  HTABLE loaded = tableLoad(heap->data(), uint32_t(heap->size()), 0, 0, 0);
  delete heap;  // a copy needs the image no longer
  ASSERT_NE(loaded, 0u);
  EXPECT_NE(loaded, t);
  TableView a = ViewTable(t), b = ViewTable(loaded);
  EXPECT_EQ(b.words, a.words);
  EXPECT_EQ(b.data, a.data);
  EXPECT_EQ(b.rowsOffset, 4u);
  EXPECT_EQ(b.attrOffset, 14u);
  EXPECT_EQ(b.pages, 1u);
  EXPECT_EQ(b.owner, 0u);
  EXPECT_EQ(b.refCount, 1u);
  EXPECT_EQ(b.owned, 1u);
  EXPECT_EQ(tableCompare(loaded, t, 0, 0), 2u);
  EXPECT_EQ(tableGetSelection(loaded), 1u);
  EXPECT_EQ(tableGetType(loaded), 0x1234u);
  // The unused arguments change nothing.
  HTABLE again = tableLoad(image.data(), uint32_t(image.size()), 2, 0xFFFFFFFF, 123);
  EXPECT_EQ(ViewTable(again).words, a.words);
  EXPECT_EQ(ViewTable(again).data, a.data);
  tableDestroy(loaded);
  tableDestroy(again);
  EXPECT_EQ(ViewTable(loaded).words, "");
}

TEST(TableLoad, InPlaceModeReadsTheImageAndNeverWritesIt) {
  HTABLE t = MakeTable(1, 1, {"col", "field", "", "", "", "", ""});
  const Bytes image = TableDump(t, "tag");
  const Bytes original = image;
  const uint32_t records = UsedRecords();
  HTABLE loaded = tableLoad(image.data(), uint32_t(image.size()), 1, 0, 0);
  ASSERT_NE(loaded, 0u);
  TableView v = ViewTable(loaded);
  EXPECT_EQ(v.block, image.data() + 28 + 3);
  EXPECT_EQ(v.owned, 0u);
  EXPECT_EQ(v.data, ViewTable(t).data);
  EXPECT_EQ(tableCompare(loaded, t, 0, 0), 1u);
  // A change gives the table its own copy first.
  ASSERT_EQ(tableSetItem(loaded, 0, 0, "changed"), 1u);
  EXPECT_EQ(image, original);
  v = ViewTable(loaded);
  EXPECT_EQ(v.owned, 1u);
  char field[16];
  EXPECT_EQ(tableGetItem(loaded, 0, 0, field, sizeof field), 8u);
  EXPECT_STREQ(field, "changed");
  tableDestroy(loaded);
  EXPECT_EQ(UsedRecords(), records);
  EXPECT_EQ(image, original);
}

TEST(TableLoad, MissingStringsAreCopiedEvenInPlace) {
  Bytes image = TableImage(std::string("n\0a\0b\0c\0", 8));
  HTABLE loaded = tableLoad(image.data(), uint32_t(image.size()), 1, 0, 0);
  ASSERT_NE(loaded, 0u);
  TableView v = ViewTable(loaded);
  EXPECT_EQ(v.owned, 1u);
  EXPECT_EQ(v.words, "4626,58,9,0,1,65535,");
  EXPECT_EQ(v.data, std::string("n\0a\0b\0c\0\0\0", 10));
}

TEST(TableLoad, TagOfLengthZero) {
  Bytes image = TableImage(std::string("n\0\0\0\0\0\0", 7));
  coll::wrBE16(&image[6], 0);
  image.erase(image.begin() + 8);
  HTABLE loaded = tableLoad(image.data(), uint32_t(image.size()), 1, 0, 0);
  ASSERT_NE(loaded, 0u);
  TableView v = ViewTable(loaded);
  EXPECT_EQ(v.block, image.data() + 28);
  EXPECT_EQ(v.words, "4626,55,9,0,1,65535,");
}

TEST(TableLoad, RefusedImages) {
  const Bytes good = TableImage(std::string("n\0\0\0\0\0\0", 7));
  const uint32_t tables = LiveTables(), records = UsedRecords();
  auto refused = [&](Bytes image, uint32_t size) {
    // The image lies in a block of exactly size bytes: nothing past it is read.
    std::vector<uint8_t> exact(image.begin(), image.begin() + size);
    return tableLoad(size ? exact.data() : nullptr, size, 0, 0, 0) == 0;
  };
  EXPECT_TRUE(refused(good, good.size() - 1));  // the data does not fit
  EXPECT_TRUE(refused(good, 0));
  EXPECT_TRUE(refused(good, 7));
  EXPECT_TRUE(refused(good, 28));
  Bytes image = good;
  coll::wrBE16(&image[19], 11);  // stored length below 12
  EXPECT_TRUE(refused(image, image.size()));
  coll::wrBE16(&image[19], 65500);  // + 36 overflows
  image.resize(65600);
  EXPECT_TRUE(refused(image, image.size()));
  image = good;
  coll::wrBE16(&image[17], 0x1213);
  EXPECT_TRUE(refused(image, image.size()));
  image = good;
  coll::wrBE16(&image[25], 0);
  EXPECT_TRUE(refused(image, image.size()));
  image = good;
  coll::wrBE16(&image[6], 0xFFFF);  // the tag runs past the image
  EXPECT_TRUE(refused(image, image.size()));
  EXPECT_EQ(LiveTables(), tables);
  EXPECT_EQ(UsedRecords(), records);
  EXPECT_TRUE(!refused(good, good.size()));
}

TEST(TableLoad, NoFreeHandleGivesTheRecordBack) {
  std::vector<HTABLE> tables;
  for (HTABLE t; (t = tableCreate(1, 0)) != 0;) tables.push_back(t);
  const uint32_t records = UsedRecords();
  Bytes image = TableImage(std::string("n\0\0\0\0\0\0", 7));
  EXPECT_EQ(tableLoad(image.data(), uint32_t(image.size()), 0, 0, 0), 0u);
  EXPECT_EQ(tableLoad(image.data(), uint32_t(image.size()), 1, 0, 0), 0u);
  EXPECT_EQ(UsedRecords(), records);
  tableDestroy(tables.back());
  EXPECT_NE(tableLoad(image.data(), uint32_t(image.size()), 0, 0, 0), 0u);
}

TEST(DumpLoad, RoundTripThroughThePublicFunctions) {
  HCOLL h = collOpen("Public");
  collSetString(h, "name", "value");
  collSetNumeric(h, "count", -5);
  collSetTime(h, "at", 1234567890);
  HTABLE t = tableCreate(2, 3);
  tableSetItem(t, ROW_HEADER, 0, "Col0");
  tableSetItem(t, ROW_HEADER, 1, "Col1");
  tableAddRow(t, ROW_APPEND);
  tableSetItem(t, 0, 1, "cell");
  tableSetSelection(t, 0);
  collSetTable(h, "table", t);
  HCOLL inner = collOpen("Inner");
  collSetString(inner, "deep", "down");
  collSetColl(h, "inner", inner);
  HCOLL target = collOpen("Target");
  std::string text = DumpHex(h);
  ASSERT_EQ(collLoadItemsHex(target, text.data(), uint32_t(text.size())), 1u);
  char buf[32];
  EXPECT_EQ(collGetString(target, "name", buf, sizeof buf), 6u);
  EXPECT_STREQ(buf, "value");
  EXPECT_EQ(collGetNumeric(target, "count"), -5);
  uint32_t when = 0;
  EXPECT_EQ(collGetTime(target, "at", &when), 1u);
  EXPECT_EQ(when, 1234567890u);
  EXPECT_EQ(collTableRowCount(target, "table"), 1u);
  EXPECT_EQ(collTableGetSelection(target, "table"), 0u);
  EXPECT_EQ(collTableGetField(target, "table", 0, 1, buf, sizeof buf), 5u);
  EXPECT_STREQ(buf, "cell");
  HTABLE copy = collGetTable(target, "table");
  EXPECT_EQ(tableCompare(copy, t, 0, 0), 1u);
  HCOLL nested = collGetColl(target, "inner");
  EXPECT_EQ(collGetString(nested, "deep", buf, sizeof buf), 5u);
  EXPECT_STREQ(buf, "down");
}

TEST(DumpLoad, RecordsThatDoNotFitLeaveNothingBehind) {
  HCOLL source = collOpen("Source");
  HTABLE t = MakeTable(1, 0, {"c", "", "", "", "", ""});
  PutObject(source, "t", COLLTYPE_TABLE, t);
  HCOLL inner = collOpen("Inner");
  SetText(inner, "k", "v");
  PutObject(source, "c", COLLTYPE_COLL, inner);
  SetText(source, "s", "x");
  Bytes image = Dump(source);
  // 678 + 11 + k bytes in use leave 5 bytes: too few for any of the items.
  HCOLL full = collOpen("Full");
  const std::string filler(62789, 'f');
  ASSERT_EQ(collSetItem(full, "r", filler.data(), uint32_t(filler.size())), 1u);
  const uint32_t tables = LiveTables(), collections = LiveCollections(), records = UsedRecords();
  ASSERT_EQ(Load(full, image), 1u);
  EXPECT_EQ(collItemCount(full), 1u);
  EXPECT_EQ(LiveTables(), tables);
  EXPECT_EQ(LiveCollections(), collections);
  EXPECT_EQ(UsedRecords(), records);
  // With room made the same image loads.
  ASSERT_EQ(collSetItem(full, "r", "f", 1), 1u);
  ASSERT_EQ(Load(full, image), 1u);
  EXPECT_EQ(collItemCount(full), 4u);
}

namespace {
// Tables and collections held by the items of h and of its nested
// collections.
void CountHeldLocked(uint32_t h, uint32_t *tables, uint32_t *colls) {
  uint8_t *img = coll::GetCollPtr(h);
  for (uint32_t p = 0; img && p < coll::CollDataLength(img);) {
    coll::ItemCursor cur;
    if (!coll::ItemAt(img, p, &cur)) break;
    if (coll::BlockType(cur.block) == COLLTYPE_TABLE) ++*tables;
    if (coll::BlockType(cur.block) == COLLTYPE_COLL) {
      ++*colls;
      CountHeldLocked(rd32(coll::BlockData(cur.block)), tables, colls);
    }
    p = coll::NextItemOffset(cur);
  }
}
}  // namespace

// Every allocation fails in turn: a dump gives the whole image or 0 with
// the buffer untouched; a load stores what it could rebuild and keeps no
// table, collection or data record that it did not store.
TEST(DumpAllocFailure, EveryAllocationFailsInTurn) {
  HCOLL source = RichCollection();
  const Bytes image = Dump(source);
  const std::string text = DumpHex(source);
  const uint32_t tables = LiveTables(), collections = LiveCollections(), records = UsedRecords();
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(n);
    Bytes out(image.size(), 0xAA);
    uint32_t r = collDumpItems(source, out.data(), uint32_t(out.size()));
    EXPECT_EQ(out, r ? image : Bytes(image.size(), 0xAA));
    HCOLL target = collOpen("Target");
    if (target) {
      if (collLoadItems(target, image.data(), uint32_t(image.size())))
        EXPECT_EQ(testutil::CheckImage(target), "");
      else
        EXPECT_EQ(collItemCount(target), 0u);
      collLoadItemsHex(target, text.data(), uint32_t(text.size()));
      EXPECT_EQ(testutil::CheckImage(target), "");
      // Only what the items hold is taken.
      uint32_t heldTables = 0, heldColls = 0;
      {
        coll::LockGuard lock;
        CountHeldLocked(target, &heldTables, &heldColls);
      }
      EXPECT_EQ(LiveTables(), tables + heldTables) << n;
      EXPECT_EQ(UsedRecords(), records + heldTables) << n;
      EXPECT_EQ(LiveCollections(), collections + 1 + heldColls) << n;
      collClose(target);
    }
    HTABLE t = tableLoad(image.data(), uint32_t(image.size()), n % 2, 0, 0);
    tableDestroy(t);
    const uint32_t made = platform::FailAllocation(0);
    ASSERT_EQ(LiveTables(), tables) << "after failing allocation " << n;
    ASSERT_EQ(LiveCollections(), collections) << "after failing allocation " << n;
    ASSERT_EQ(UsedRecords(), records) << "after failing allocation " << n;
    if (made < n) break;
    ASSERT_LT(n, 10000u);
  }
  // Nothing failed in the last run: everything came back whole.
  HCOLL target = collOpen("Target");
  ASSERT_EQ(Load(target, image), 1u);
  EXPECT_EQ(Describe(target), Describe(source));
}
