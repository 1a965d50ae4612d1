// items.cpp - untyped access to items: raw bytes in and out, comparison
// with a text, and the copy-out rules shared by every reader.
#include <cstring>

#include "store/store.h"
#include "tables/table.h"

namespace coll {

void cpyOutput(void *buffer, uint32_t size, const void *source, uint32_t n) {
  if (!buffer || size == 0) return;
  uint8_t *out = static_cast<uint8_t *>(buffer);
  if (n < size) {
    std::memcpy(out, source, n);
    out[n] = 0;
  } else {
    std::memcpy(out, source, size - 1);
    out[size - 1] = 0;
  }
}

uint32_t printable(const void *bytes, uint32_t n) {
  const int8_t *p = static_cast<const int8_t *>(bytes);
  uint32_t i = 0;
  while (i < n && p[i] >= 32) ++i;  // a signed byte is at most 127
  return i;
}

uint32_t BuildItemResult(const uint8_t *block, void *buffer, uint32_t size, uint32_t dataLength) {
  uint32_t type = BlockType(block);
  const uint8_t *data = BlockData(block);
  if (type == COLLTYPE_STRING) {
    uint32_t k = collstrlen(data, dataLength);
    cpyOutput(buffer, size, data, k);
    return k + 1;
  }
  if (type != COLLTYPE_ITEM) return 0;
  if (buffer && size) {
    std::memcpy(buffer, data, dataLength < size ? dataLength : size);
    if (size > dataLength) static_cast<uint8_t *>(buffer)[dataLength] = 0;
  }
  return dataLength;
}

uint32_t RetrieveTableItem(uint32_t hColl, uint8_t **image, const char *tag, uint8_t **header, uint32_t *hTable) {
  *image = AccessColl(hColl);
  if (!*image) return 0;
  uint32_t off = FindAndSkipTag(*image, tag, collstrlen(tag, 0xFFFFFFFFu), hColl);
  if (off == kBadIndex) return 0;
  const uint8_t *block = CollItems(*image) + off + 2;
  if (BlockType(block) != COLLTYPE_TABLE || BlockDataLength(block) < 4) return 0;
  *hTable = rd32(BlockData(block));
  *header = GetTablePtr(*hTable);
  return *header ? 1 : 0;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collSetItem(uint32_t hColl, const char *tag, const void *data, uint32_t length) {
  if (isBadPtr(tag, 0, 1) || hColl == CatalogHandle() || isBadCollHandle(hColl) || isBadPtr(data, 0, length))
    return 0;
  if (length == 0xFFFFFFFFu) {
    if (isBadPtr(data, 0, 1)) return 0;
    length = collstrlen(data, 0xFFFFFFFFu);
  }
  LockGuard lock;
  uint8_t *block = BuildItem(COLLTYPE_ITEM, data, length);
  if (!block) return 0;
  return SetItem(hColl, tag, block, 1) ? 1 : 0;
}

COLL_API(uint32_t) collGetItem(uint32_t hColl, const char *tag, void *buffer, uint32_t size) {
  if (isBadCollHandle(hColl) || isBadPtr(buffer, 1, size) || isBadPtr(tag, 0, 1)) return 0;
  if (size) static_cast<char *>(buffer)[0] = 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) return 0;
  return BuildItemResult(block, buffer, size, len);
}

COLL_API(void *) collObtainItem(uint32_t hColl, const char *tag, CollAllocFunc allocate, uint32_t *length) {
  bool badLength = isBadPtr(length, 1, 4) != 0;
  if (isBadCollHandle(hColl) || !allocate || isBadPtr(tag, 0, 1)) {
    if (!badLength) *length = 0;
    return nullptr;
  }
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) {
    if (!badLength) *length = 0;
    return nullptr;
  }
  uint32_t k = BuildItemResult(block, nullptr, 0, len);
  if (!badLength) *length = k;
  void *buffer = allocate(k + 1);
  if (!buffer) return nullptr;
  BuildItemResult(block, buffer, k + 1, len);
  return buffer;
}

COLL_API(int32_t) collCompare(uint32_t hColl, const char *tag, const char *value, uint32_t length) {
  if (isBadCollHandle(hColl)) return -1;
  if (isBadPtr(value, 0, (length == 0xFFFFFFFFu || length == 0) ? 1 : length)) return -1;
  if (isBadPtr(tag, 0, 1)) return -1;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t d;
  if (!RetrieveItem(hColl, &img, tag, &block, &d)) return -1;
  if (length == 0xFFFFFFFFu) {
    length = collstrlen(value, 0xFFFFFFFFu);
  } else if (d < length || length > collstrlen(value, length)) {
    return -1;
  }
  const uint8_t *data = BlockData(block);
  for (uint32_t i = 0; i < length && i < d; ++i) {
    int8_t x = static_cast<int8_t>(AsciiUpper(data[i]));
    int8_t y = static_cast<int8_t>(AsciiUpper(static_cast<uint8_t>(value[i])));
    if (x < y) return -1;
    if (x > y) return 1;
  }
  return 0;
}
