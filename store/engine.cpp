// engine.cpp - the item store through which every change to a collection
// goes: insertion, replacement in place or by moving to the end, deletion,
// deep copies of values and the emptying of a collection.
#include <cstring>

#include "sharing/sharing.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {

// What a stored value owns: the type code and the handle in its data.
struct Owned {
  uint32_t type = 0;
  uint32_t handle = 0;
};

Owned OwnedBy(const uint8_t *block) {
  Owned o;
  uint32_t type = BlockType(block);
  if ((type == COLLTYPE_TABLE || type == COLLTYPE_COLL) && BlockDataLength(block) >= 4) {
    o.type = type;
    o.handle = rd32(BlockData(block));
  }
  return o;
}

// Destroys the table or collection that a stored value owned. May release
// the lock (the emptied collection communicates its deletions).
void CollOrTableCheck(Owned owned, uint32_t communicate) {
  if (owned.type == COLLTYPE_TABLE) {
    DestroyTableHandle(owned.handle);
  } else if (owned.type == COLLTYPE_COLL) {
    EmptyCollection(owned.handle, communicate);
    DestroyCollHandle(owned.handle);
  }
}

// Removes the item at item offset p with tag length t and block length b.
bool DeleteOldItem(uint32_t hColl, uint8_t *img, uint32_t p, uint32_t t, uint32_t b) {
  uint32_t end = p + t + 4 + b;
  if (!CheckOffset(img, end)) return false;
  IndexItemRemoving(hColl, img, p, end - p);
  uint32_t dl = CollDataLength(img);
  uint8_t *items = CollItems(img);
  std::memmove(items + p, items + end, dl - end);
  wr16(img + ch::dataLength, dl - (t + 4 + b));
  wr16(img + ch::itemCount, CollItemCount(img) - 1);
  DeleteFromCache(img, p + 2);
  return true;
}

// Appends tag and block; false (nothing changed) when the image cannot hold it.
bool AddItemAtEnd(const uint8_t *block, uint32_t hColl, uint8_t *img, const char *tag, uint32_t n) {
  uint32_t len = BlockLength(block);
  uint32_t dl = CollDataLength(img);
  if (uint64_t(COLL_HEADER_SIZE) + dl + len + n + 4 > 65535) return false;
  img = collReAllocColl(hColl, COLL_HEADER_SIZE + dl + n + len + 4);
  if (!img) return false;
  uint32_t q = dl;
  wr16(img + ch::dataLength, dl + n + len + 4);
  if (!CheckOffset(img, q)) return false;
  wr16(img + ch::itemCount, CollItemCount(img) + 1);
  uint8_t *items = CollItems(img);
  wr16(items + q, n);
  std::memcpy(items + q + 2, tag, n);
  AddToCache(img, q + 2);
  wr16(items + q + 2 + n, len);
  std::memcpy(items + q + 4 + n, block, len);
  IndexItemAdded(hColl, img, q);
  return true;
}


}  // namespace

void ReleaseItem(uint8_t *block, uint32_t flag) {
  if (block && flag) collFreePtr(block);
}

uint32_t SetItem(uint32_t hColl, const char *tag, uint8_t *block, uint32_t communicate) {
  return SetItemN(hColl, tag, collstrlen(tag, 0xFFFFFFFFu), block, communicate);
}

uint32_t SetItemN(uint32_t hColl, const char *tag, uint32_t n, uint8_t *block, uint32_t communicate) {
  return SetItemEx(hColl, tag, n, block, communicate, 1);
}

uint32_t SetItemEx(uint32_t hColl, const char *tag, uint32_t n, uint8_t *block, uint32_t communicate,
                   uint32_t owned) {
  // Every path below gives the block up with ReleaseItem (freed when owned).
  if (n == 0) {
    ReleaseItem(block, owned);
    return 0;
  }
  uint8_t *img = AccessColl(hColl);
  if (!img) {
    ReleaseItem(block, owned);
    return 0;
  }
  if (block && BlockLength(block) == ITEM_BLOCK_HEAD) {
    ReleaseItem(block, owned);
    block = nullptr;
  }
  if (block && CollLockThread(img) != 0) wr16(block + ib::tranFlag, 1);

  // The lookup is repeated when destroying the old value released the lock
  // and another thread stored the same tag meanwhile.
  uint32_t t, p;
  while (GetItemOffset(img, tag, n, &t, &p, hColl)) {
    uint8_t *items = CollItems(img);
    uint32_t b = rd16(items + p + 2 + t);
    uint8_t *stored = items + p + 4 + t;
    uint32_t dl = CollDataLength(img);
    if (block && BlockLength(block) == b) {
      // Same length: overwrite in place, then drop what the old value owned.
      Owned old = OwnedBy(stored);
      bool valueChanged = std::memcmp(stored, block, b) != 0;
      bool changed = valueChanged || std::memcmp(items + p + 2, tag, n) != 0;
      if (changed) {
        std::memcpy(items + p + 2, tag, n);
        std::memcpy(stored, block, b);
      }
      const Owned now = OwnedBy(block);
      ReleaseItem(block, owned);
      // A value that still names the object it owned (the same value, maybe
      // only marked for a transaction now) keeps it.
      if (valueChanged && (now.type != old.type || now.handle != old.handle)) CollOrTableCheck(old, communicate);
      if (changed && communicate) {
        img = AccessColl(hColl);
        if (img && CollLockThread(img) == 0) CommunicateChange(hColl, tag, n);
      }
      return 1;
    }
    uint32_t len = block ? BlockLength(block) : 0;
    if (block && len > b && COLL_HEADER_SIZE + dl - b + len > 65535) {
      ReleaseItem(block, owned);
      return 0;
    }
    const uint32_t newSize = COLL_HEADER_SIZE + dl - b + len;
    // Never lose the old item: make room before removing it.
    if (block && CollPagesFor(newSize) > CollPages(img)) {
      img = collReAllocColl(hColl, newSize);
      if (!img) {
        ReleaseItem(block, owned);
        return 0;
      }
      items = CollItems(img);
      stored = items + p + 4 + t;
    }
    Owned old = OwnedBy(stored);
    if (!DeleteOldItem(hColl, img, p, t, b)) {
      ReleaseItem(block, owned);
      return 0;
    }
    if (CollLockThread(img) != 0) {
      if (block)
        DeleteTagFromCommunicateQueue(hColl, tag, n);
      else
        AddTagToCommunicateQueue(hColl, tag, n);
    }
    collReAllocColl(hColl, newSize);
    bool released = old.type != 0;
    CollOrTableCheck(old, communicate);
    img = AccessColl(hColl);
    if (!img) {
      ReleaseItem(block, owned);
      return 0;
    }
    if (!released) break;
  }
  if (block) {
    bool added = AddItemAtEnd(block, hColl, img, tag, n);
    ReleaseItem(block, owned);
    if (!added) return 0;
    img = GetCollPtr(hColl);
  }
  if (communicate && img && CollLockThread(img) == 0) CommunicateChange(hColl, tag, n);
  return 1;
}

uint32_t GetItem(uint8_t *img, const char *tag, uint8_t **block) {
  uint32_t off = FindAndSkipTag(img, tag, collstrlen(tag, 0xFFFFFFFFu));
  if (off == kBadIndex) return 0;
  *block = CollItems(img) + off + 2;
  return 1;
}

void EmptyCollection(uint32_t hColl, uint32_t communicate) {
  if (hColl == ps->hCatalog) return;
  uint8_t *img = AccessColl(hColl);
  if (!img) return;
  uint32_t count = CollItemCount(img);
  for (uint32_t i = 0; i < count; ++i) {
    ItemCursor cur;
    if (!ItemAt(img, 0, &cur)) break;
    TagCopy tag(cur.tag, cur.t);
    if (!tag.get()) break;
    SetItemN(hColl, tag.get(), tag.size(), nullptr, communicate);
    img = AccessColl(hColl);
    if (!img) return;
  }
  collReAllocColl(hColl, COLL_HEADER_SIZE);
}

namespace {

// A copy is made only for a live owner: a handle that names nothing now
// would let the copy be owned by whatever takes its slot next (the copy of a
// collection could even take it and own itself).
bool OwnerLives(uint32_t hNewOwner) { return hNewOwner == 0 || GetCollPtr(hNewOwner) != nullptr; }

uint8_t *DupTable(uint8_t *copy, uint32_t hNewOwner) {
  uint8_t *src = OwnerLives(hNewOwner) ? GetTablePtr(rd32(BlockData(copy))) : nullptr;
  uint8_t *hdr = src ? static_cast<uint8_t *>(collAllocPtr(TABLE_HEADER_SIZE)) : nullptr;
  if (!hdr) {
    collFreePtr(copy);
    return nullptr;
  }
  std::memcpy(hdr, src, TABLE_HEADER_SIZE);
  TableDataRec &rec = ps->tableData[TableDataIndex(hdr)];
  ++rec.refCount;
  uint32_t h = SetTablePtr(hdr, hNewOwner);
  if (h == 0) {
    --rec.refCount;
    collFreePtr(hdr);
    collFreePtr(copy);
    return nullptr;
  }
  wr32(BlockData(copy), h);
  return copy;
}

uint8_t *DupColl(uint8_t *copy, uint32_t hNewOwner) {
  const uint32_t hSource = rd32(BlockData(copy));
  uint8_t *src = AccessColl(hSource);
  // (Resolving the source may have waited, and the owner gone meanwhile.)
  const uint32_t child = src && OwnerLives(hNewOwner) ? InternalCollCreate(hNewOwner) : 0;
  if (!child || !CopyAllItems(child, hSource, src, 0, false)) {
    if (child) DestroyOwnedChild(child, hNewOwner);
    collFreePtr(copy);
    return nullptr;
  }
  wr32(BlockData(copy), child);
  return copy;
}

// False when a snapshot's table or collection value no longer names an
// object of hSource: the lock was released and the item changed meanwhile,
// and the handle may since name something else.
bool StillOwned(const uint8_t *block, uint32_t hSource) {
  if (hSource == 0 || BlockDataLength(block) < 4) return true;
  const uint32_t h = rd32(BlockData(block));
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

// Destroys the object a refused copy made for hOwner, unless the lock was
// released meanwhile and it went with its owner (its handle may then name
// something else) or an item of hOwner names it.
void DropUnstoredCopy(Owned made, uint32_t hOwner) {
  if (made.type == COLLTYPE_TABLE) {
    const uint8_t *hdr = GetTablePtr(made.handle);
    if (!hdr || TableOwner(hdr) != hOwner) return;
  } else if (made.type == COLLTYPE_COLL) {
    const uint8_t *img = GetCollPtr(made.handle);
    if (!img || CollOwner(img) != hOwner) return;
  } else {
    return;
  }
  if (uint8_t *img = GetCollPtr(hOwner)) {
    ItemCursor cur;
    for (uint32_t p = 0; p < CollDataLength(img) && ItemAt(img, p, &cur); p = NextItemOffset(cur)) {
      Owned named = OwnedBy(cur.block);
      if (named.type == made.type && named.handle == made.handle) return;
    }
  }
  if (made.type == COLLTYPE_TABLE)
    DestroyTableHandle(made.handle);
  else
    DestroyCollHandle(made.handle);
}

}  // namespace

uint32_t SetItemCopy(uint32_t hColl, const char *tag, uint32_t n, uint8_t *copy, uint32_t communicate) {
  const Owned made = copy ? OwnedBy(copy) : Owned{};
  if (SetItemN(hColl, tag, n, copy, communicate)) return 1;
  DropUnstoredCopy(made, hColl);
  return 0;
}

void DestroyOwnedChild(uint32_t hChild, uint32_t hOwner) {
  uint8_t *img = GetCollPtr(hChild);
  if (img && CollOwner(img) == hOwner) DestroyCollHandle(hChild);
}

uint32_t CopyAllItems(uint32_t hDest, uint32_t hSource, const uint8_t *sourceImage, uint32_t communicate,
                      bool allOrNothing) {
  // Storing may release the lock (change communication, the transaction
  // wait), after which the source image could have moved: walk a snapshot,
  // whose tags also stay put for the stores.
  const uint32_t count = CollItemCount(sourceImage);
  const uint32_t dl = CollDataLength(sourceImage);
  uint8_t *snap = static_cast<uint8_t *>(collAllocPtr(COLL_HEADER_SIZE + dl));
  if (!snap) return 0;
  std::memcpy(snap, sourceImage, COLL_HEADER_SIZE + dl);
  uint32_t result = 1;
  uint32_t p = 0;
  for (uint32_t i = 0; i < count; ++i) {
    ItemCursor cur;
    if (!ItemAt(snap, p, &cur)) break;
    p = NextItemOffset(cur);
    // A value that cannot be copied arrives as no block: the store deletes
    // the tag and the copy goes on, unless it must be all or nothing.
    uint8_t *copy = StillOwned(cur.block, hSource) ? DupItem(cur.block, hDest) : nullptr;
    if ((!copy && allOrNothing) ||
        !SetItemCopy(hDest, reinterpret_cast<const char *>(cur.tag), cur.t, copy, communicate)) {
      result = 0;
      break;
    }
  }
  collFreePtr(snap);
  return result;
}

uint8_t *DupItem(const uint8_t *block, uint32_t hNewOwner) {
  uint32_t len = BlockLength(block);
  uint8_t *copy = static_cast<uint8_t *>(collAllocPtr(len));
  if (!copy) return nullptr;
  std::memcpy(copy, block, len);
  if (len < ITEM_BLOCK_HEAD + 4) return copy;
  switch (BlockType(block)) {
    case COLLTYPE_TABLE:
      return DupTable(copy, hNewOwner);
    case COLLTYPE_COLL:
      return DupColl(copy, hNewOwner);
    default:
      return copy;
  }
}

}  // namespace coll
