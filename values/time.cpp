// time.cpp - time items: a 32-bit count of seconds since 1970, stored and
// read as its 4 bytes. Their text comes from BuildStringResult.
#include <cstring>

#include "store/store.h"
#include "values/values.h"

using namespace coll;

COLL_API(uint32_t) collSetTime(uint32_t hColl, const char *tag, uint32_t time) {
  if (isBadPtr(tag, 0, 1) || hColl == CatalogHandle() || isBadCollHandle(hColl)) return 0;
  SmallBlock block(COLLTYPE_TIME, time);
  LockGuard lock;
  return SetItemEx(hColl, tag, collstrlen(tag, 0xFFFFFFFFu), block.bytes, 1, 0) ? 1 : 0;
}

COLL_API(uint32_t) collGetTime(uint32_t hColl, const char *tag, uint32_t *time) {
  if (isBadCollHandle(hColl) || isBadPtr(time, 1, 4) || isBadPtr(tag, 0, 1)) return 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) return 0;
  if (BlockType(block) != COLLTYPE_TIME || len < 4) return 0;
  std::memcpy(time, BlockData(block), 4);
  return 1;
}
