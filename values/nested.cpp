// nested.cpp - collections held as item values, and merging. Values are
// copied, never shared: storing a collection stores a private child copy,
// reading one returns a new top-level copy, merging copies every item.
#include <cstring>

#include "store/store.h"
#include "tables/table.h"
#include "values/values.h"

namespace coll {

uint32_t collMergeInternal(uint32_t hDest, uint32_t hSource, const uint8_t *sourceImage) {
  return CopyAllItems(hDest, hSource, sourceImage, 1, false);
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collMerge(uint32_t hDest, uint32_t hSource) {
  if (isBadCollHandle(hDest)) return 0;
  if (isBadCollHandle(hSource) || hDest == CatalogHandle()) return 0;
  if (hDest == hSource) return 1;
  LockGuard lock;
  if (!AccessColl(hSource) || !AccessColl(hDest)) return 0;
  // Resolving the destination may have waited with the lock released.
  uint8_t *src = AccessColl(hSource);
  if (!src) return 0;
  return collMergeInternal(hDest, hSource, src);
}

COLL_API(uint32_t) collSetColl(uint32_t hColl, const char *tag, uint32_t hSource) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return 0;
  if (hColl == CatalogHandle() || hColl == hSource) return 0;
  if (hSource == 0) {
    LockGuard lock;
    return SetItem(hColl, tag, nullptr, 1);
  }
  if (isBadCollHandle(hSource)) return 0;
  LockGuard lock;
  if (!AccessColl(hSource) || !AccessColl(hColl)) return 0;
  uint8_t *src = AccessColl(hSource);
  // Resolving the source may have waited: the child is made only while its
  // owner lives, or it could take the owner's slot and own itself.
  if (!src || !GetCollPtr(hColl)) return 0;
  uint32_t child = InternalCollCreate(hColl);
  if (!child) return 0;
  SetCollName(GetCollPtr(child), reinterpret_cast<const char *>(src + ch::name), CollNameLength(src));
  if (!CopyAllItems(child, hSource, src, 0, true)) {
    DestroyOwnedChild(child, hColl);
    return SetItem(hColl, tag, nullptr, 1);
  }
  uint8_t *childImg = GetCollPtr(child);
  uint8_t *block = nullptr;
  if (childImg && CollItemCount(childImg) > 0) {
    uint8_t bytes[4];
    wr32(bytes, child);
    block = BuildItem(COLLTYPE_COLL, bytes, 4);
  }
  if (!block) {
    // An empty source (or no memory for the block): storing it removes the tag.
    DestroyOwnedChild(child, hColl);
    return SetItem(hColl, tag, nullptr, 1);
  }
  uint32_t stored = SetItem(hColl, tag, block, 1);
  if (!stored) DestroyOwnedChild(child, hColl);
  return stored;
}

COLL_API(uint32_t) collGetColl(uint32_t hColl, const char *tag) {
  if (isBadCollHandle(hColl) || isBadPtr(tag, 0, 1)) return 0;
  {
    LockGuard lock;
    uint8_t *img, *block;
    uint32_t len;
    if (RetrieveItem(hColl, &img, tag, &block, &len)) {
      if (BlockType(block) != COLLTYPE_COLL || len < 4) return 0;
      uint32_t hChild = rd32(BlockData(block));
      uint8_t *child = AccessColl(hChild);
      if (!child) return 0;
      uint32_t h = InternalCollCreate(0);
      if (!h) return 0;
      SetCollName(GetCollPtr(h), reinterpret_cast<const char *>(child + ch::name), CollNameLength(child));
      if (!CopyAllItems(h, hChild, child, 0, true)) {
        DestroyOwnedChild(h, 0);
        return 0;
      }
      return h;
    }
    if (!img) return 0;  // the collection went before the lock was taken
  }
  return collOpen("Empty from CollGetColl");
}
