// nested.cpp - collections held as item values, and merging. Values are
// copied, never shared: storing a collection stores a private child copy,
// reading one returns a new top-level copy, merging copies every item.
#include <cstring>

#include "store/store.h"
#include "tables/table.h"
#include "values/values.h"

namespace coll {

namespace {

// Tags are moved through a zero-filled working buffer that starts at this
// size and grows for longer tags, so tags of any length are copied.
constexpr uint32_t kTagBuffer = 100;

// Destroys a child made by this file unless the lock was released meanwhile
// and it went with its owner (its slot may then name something else).
void DestroyOwnedChild(uint32_t hChild, uint32_t hOwner) {
  uint8_t *img = GetCollPtr(hChild);
  if (img && CollOwner(img) == hOwner) DestroyCollHandle(hChild);
}

// The handle whose image is img; 0 when none.
uint32_t HandleOfImage(const uint8_t *img) {
  for (uint32_t slot = 1; slot < kSlots; ++slot)
    if (ps->collPtrs[slot] == img) return kCollBase + slot;
  return 0;
}

// False when a snapshot's table or collection value no longer names an
// object of hSource: the lock was released and the item changed meanwhile,
// and the handle may since name something else.
bool StillOwned(const uint8_t *block, uint32_t hSource) {
  if (hSource == 0 || BlockDataLength(block) < 4) return true;
  uint32_t h = rd32(BlockData(block));
  if (BlockType(block) == COLLTYPE_COLL) {
    const uint8_t *img = GetCollPtr(h);
    return img && CollOwner(img) == hSource;
  }
  if (BlockType(block) == COLLTYPE_TABLE) {
    const uint8_t *hdr = GetTablePtr(h);
    return hdr && TableOwner(hdr) == hSource;
  }
  return true;
}

}  // namespace

uint32_t CopyAllItems(uint32_t hDest, const uint8_t *sourceImage, bool intoNew) {
  // Storing may release the lock (change communication, the transaction
  // wait), after which the source image could have moved: walk a snapshot.
  uint32_t count = CollItemCount(sourceImage);
  uint32_t dl = CollDataLength(sourceImage);
  uint8_t *snap = static_cast<uint8_t *>(collAllocPtr(COLL_HEADER_SIZE + dl));
  uint32_t tagSize = kTagBuffer;
  char *tag = static_cast<char *>(collAllocPtr(tagSize));
  if (!snap || !tag) {
    collFreePtr(snap);
    collFreePtr(tag);
    return 0;
  }
  std::memcpy(snap, sourceImage, COLL_HEADER_SIZE + dl);
  const uint32_t hSource = HandleOfImage(sourceImage);
  uint32_t result = 1;
  uint32_t p = 0;
  for (uint32_t i = 0; i < count; ++i) {
    ItemCursor cur;
    if (!ItemAt(snap, p, &cur)) break;
    p = NextItemOffset(cur);
    if (cur.t >= tagSize) {
      char *bigger = static_cast<char *>(collReAllocPtr(tag, cur.t + 1));
      if (!bigger) {
        result = 0;
        break;
      }
      tag = bigger;
      tagSize = cur.t + 1;
    }
    std::memset(tag, 0, tagSize);
    std::memcpy(tag, cur.tag, cur.t);
    // A value that cannot be copied arrives as no block: a merge deletes the
    // tag and goes on, a new copy fails as a whole.
    uint8_t *copy = StillOwned(cur.block, hSource) ? DupItem(cur.block, hDest) : nullptr;
    if ((!copy && intoNew) || !SetItemCopy(hDest, tag, cur.t, copy, intoNew ? 0 : 1)) {
      result = 0;
      break;
    }
  }
  collFreePtr(tag);
  collFreePtr(snap);
  return result;
}

uint32_t collMergeInternal(uint32_t hDest, const uint8_t *sourceImage) {
  return CopyAllItems(hDest, sourceImage, false);
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
  return collMergeInternal(hDest, src);
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
  if (!CopyAllItems(child, src, true)) {
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
      if (!CopyAllItems(h, child, true)) {
        DestroyOwnedChild(h, 0);
        return 0;
      }
      return h;
    }
    if (!img) return 0;  // the collection went before the lock was taken
  }
  return collOpen("Empty from CollGetColl");
}
