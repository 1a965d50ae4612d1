// collections.cpp - opening, closing and describing collections, and
// naming, typing, copying and renaming their items.
#include <cstring>

#include "store/store.h"

using namespace coll;

COLL_API(uint32_t) collOpen(const char *name) {
  if (name && isBadPtr(name, 0, 1)) return 0;
  if (!name) name = "";
  uint32_t n = collstrlen(name, COLL_NAME_SIZE + 1);
  if (n > COLL_NAME_SIZE) return 0;
  LockGuard lock;
  uint32_t h = InternalCollCreate(0);
  uint8_t *img = AccessColl(h);
  if (!img) {
    DestroyCollHandle(h);
    return 0;
  }
  SetCollName(img, name, n);
  return h;
}

COLL_API(void) collClose(uint32_t hColl) {
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  if (!img || CollOwner(img) != 0) return;
  uint32_t share = CollShareCount(img);
  if (share == 0) {
    DestroyCollHandle(hColl);
  } else if (share > 1) {
    wr16(img + ch::shareCount, share - 1);
  } else if (hColl != ps->hCatalog) {
    char name[COLL_NAME_SIZE + 1] = {};
    uint32_t n = CollNameLength(img);
    std::memcpy(name, img + ch::name, n);
    DestroyCollHandle(hColl);
    SetItemN(ps->hCatalog, name, n, nullptr, 1);
  }
}

COLL_API(void) collEmpty(uint32_t hColl) {
  LockGuard lock;
  EmptyCollection(hColl, 1);
}

COLL_API(uint32_t) collGetShareCount(uint32_t hColl) {
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  return img ? CollShareCount(img) : 0;
}

COLL_API(uint32_t) collItemCount(uint32_t hColl) {
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  return img ? CollItemCount(img) : 0;
}

COLL_API(uint32_t) collGetName(uint32_t hColl, char *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size)) return 0;
  if (size) buffer[0] = 0;
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  uint32_t n = CollNameLength(img);
  cpyOutput(buffer, size, img + ch::name, n);
  return n + 1;
}

COLL_API(uint32_t) collGetCreator(uint32_t hColl, char *buffer, uint32_t size) {
  if (size == 0 || isBadPtr(buffer, 1, size)) return 0;
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  std::memset(buffer, 0, size);
  uint32_t n = collstrlen(img + ch::creatorModule, COLL_MODULE_SIZE);
  std::memcpy(buffer, img + ch::creatorModule, n < size ? n : size);
  return n;
}

COLL_API(uint32_t) collNameItem(uint32_t hColl, uint32_t index, char *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size)) return 0;
  if (size) buffer[0] = 0;
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  if (!img || index >= CollItemCount(img)) return 0;
  ItemCursor cur;
  uint32_t p = 0;
  for (uint32_t i = 0;; ++i) {
    if (!ItemAt(img, p, &cur)) return 0;
    if (i == index) break;
    p = NextItemOffset(cur);
  }
  cpyOutput(buffer, size, cur.tag, cur.t);
  return cur.t + 1;
}

COLL_API(uint32_t) collGetType(uint32_t hColl, const char *tag) {
  if (isBadCollHandle(hColl) || isBadPtr(tag, 0, 1)) return 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) return 0;
  return BlockType(block);
}

COLL_API(uint32_t) collCopyItem(uint32_t hTo, uint32_t hFrom, const char *tag) {
  if (hTo == CatalogHandle() || isBadCollHandle(hTo) || isBadPtr(tag, 0, 1)) return 0;
  if (hFrom == hTo) return 1;
  if (hFrom != 0 && isBadCollHandle(hFrom)) return 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (hFrom == 0 || !RetrieveItem(hFrom, &img, tag, &block, &len)) return SetItem(hTo, tag, nullptr, 1);
  uint8_t *copy = DupItem(block, hTo);
  if (!copy) return 0;
  return SetItemCopy(hTo, tag, collstrlen(tag, 0xFFFFFFFFu), copy, 1);
}

COLL_API(uint32_t) collRenameTag(uint32_t hColl, const char *oldTag, const char *newTag) {
  if (isBadPtr(oldTag, 0, 1) || isBadPtr(newTag, 0, 1) || hColl == CatalogHandle() || isBadCollHandle(hColl))
    return 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, oldTag, &block, &len)) return 0;
  uint32_t oldLength = collstrlen(oldTag, 0xFFFFFFFFu);
  uint32_t newLength = collstrlen(newTag, 0xFFFFFFFFu);
  if (oldLength == newLength && AsciiEqualN(oldTag, newTag, oldLength)) {
    // The same tag but for letter case: only the stored spelling changes; the
    // item keeps its place. Rewriting the identical value under the new
    // spelling does exactly that.
    uint8_t *copy = static_cast<uint8_t *>(collAllocPtr(BlockLength(block)));
    if (!copy) return 0;
    std::memcpy(copy, block, BlockLength(block));
    return SetItemN(hColl, newTag, newLength, copy, 1);
  }
  // An empty new tag is refused by the store, after the copy has been made
  // (a nested collection's copy has taken its id by then); the copy goes.
  uint8_t *copy = DupItem(block, hColl);
  if (!copy) return 0;
  SetItemN(hColl, newTag, newLength, nullptr, 0);
  if (!SetItemCopy(hColl, newTag, newLength, copy, 1)) return 0;
  SetItemN(hColl, oldTag, oldLength, nullptr, 1);
  return 1;
}
