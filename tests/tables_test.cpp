// Tables: the header and data block, copy on write, rows, fields, selection,
// searches and comparison.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "coll.h"
#include "store/store.h"
#include "tables/table.h"

namespace {

// A copy of the 48-byte header (empty when the handle is invalid).
std::string Header(HTABLE h) {
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(h);
  return hdr ? std::string(reinterpret_cast<char *>(hdr), coll::TABLE_HEADER_SIZE) : std::string();
}
uint32_t H16(const std::string &hdr, uint32_t off) { return coll::rd16(reinterpret_cast<const uint8_t *>(hdr.data()) + off); }
uint32_t H32(const std::string &hdr, uint32_t off) { return coll::rd32(reinterpret_cast<const uint8_t *>(hdr.data()) + off); }

// The data block in use.
std::string Data(HTABLE h) {
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(h);
  if (!hdr) return {};
  return std::string(reinterpret_cast<char *>(coll::TableData(hdr)), coll::TableDataLength(hdr));
}

}  // namespace

TEST(TableObject, NewTableLayout) {
  EXPECT_EQ(tableCreate(0, 1), 0u);
  HTABLE t = tableCreate(3, 0x12345);
  ASSERT_EQ(t, 0x8001u);
  std::string hdr = Header(t);
  EXPECT_EQ(H16(hdr, coll::th::magic), 0x1212u);
  EXPECT_EQ(H16(hdr, coll::th::length), 56u);
  EXPECT_EQ(H16(hdr, coll::th::type), 0x2345u);
  EXPECT_EQ(H16(hdr, coll::th::rows), 0u);
  EXPECT_EQ(H16(hdr, coll::th::cols), 3u);
  EXPECT_EQ(H16(hdr, coll::th::selection), 0xFFFFu);
  EXPECT_EQ(H32(hdr, coll::th::rowsOffset), 3u);
  EXPECT_EQ(H32(hdr, coll::th::attrOffset), 3u);
  EXPECT_EQ(H32(hdr, coll::th::pages), 1u);
  EXPECT_EQ(H32(hdr, coll::th::owner), 0u);
  EXPECT_EQ(Data(t), std::string(8, '\0'));
  tableDestroy(t);
  EXPECT_EQ(Header(t), "");
  // The handle and the data record come back with the next table.
  EXPECT_EQ(tableCreate(1, 0), 0x8001u);
  coll::LockGuard lock;
  EXPECT_EQ(coll::TableDataIndex(coll::GetTablePtr(0x8001)), 0u);
}

TEST(TableObject, ColumnCountLimits) {
  // More columns than one page holds: enough pages.
  HTABLE wide = tableCreate(1019, 0);
  ASSERT_NE(wide, 0u);
  EXPECT_EQ(H32(Header(wide), coll::th::pages), 2u);
  EXPECT_EQ(H16(Header(wide), coll::th::length), 48u + 1024u);
  HTABLE widest = tableCreate(64 * 1023 - 5, 0);
  ASSERT_NE(widest, 0u);
  EXPECT_EQ(H32(Header(widest), coll::th::pages), 64u);
  // Past 64 pages, or past 16 bits: refused, nothing taken.
  EXPECT_EQ(tableCreate(64 * 1023 - 4, 0), 0u);
  EXPECT_EQ(tableCreate(65536, 0), 0u);
  EXPECT_EQ(tableCreate(0xFFFFFFFFu, 0), 0u);
  EXPECT_EQ(tableCreate(1, 0), widest + 1);
}

TEST(TableObject, StringScans) {
  const uint8_t s[] = "ab\0\0cde\0";
  EXPECT_EQ(coll::strlenz(s), 3u);
  EXPECT_EQ(coll::strlenz(s + 3), 1u);
  EXPECT_EQ(coll::nstrlen(s, 0), 0u);
  EXPECT_EQ(coll::nstrlen(s, 3), 8u);
  std::vector<uint8_t> longText(70000, 'x');
  longText.back() = 0;
  EXPECT_EQ(coll::strlenz(longText.data()), 65535u);
  EXPECT_EQ(coll::nstrlen(longText.data(), 2), 65535u);
  EXPECT_EQ(coll::SkipStrings(s, 0, 2, sizeof s - 1), 4u);
  EXPECT_EQ(coll::SkipStrings(s, 0, 9, sizeof s - 1), 8u);
}

TEST(TableObject, LimitCheckGrowsByPagesUpToTheLimit) {
  HTABLE t = tableCreate(1, 0);
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(t);
  // length 54: room for 1023 - 54 - 48 = 921 more bytes in the first page.
  EXPECT_NE(coll::LimitCheck(hdr, 921, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 1u);
  EXPECT_NE(coll::LimitCheck(hdr, 922, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 2u);
  EXPECT_NE(coll::LimitCheck(hdr, -40, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 2u);  // never shrinks
  EXPECT_NE(coll::LimitCheck(hdr, 64 * 1023 - 96 - 6, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 64u);
  EXPECT_EQ(coll::LimitCheck(hdr, 64 * 1023 - 96 - 5, t), nullptr);
  EXPECT_EQ(coll::TablePages(hdr), 64u);
}
