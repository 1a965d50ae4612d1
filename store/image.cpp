// image.cpp - collection images: creation, growth by pages, the tag search
// with its cache, value blocks and the small primitives around them.
#include <cstring>

#include "platform/platform.h"
#include "store/store.h"

namespace coll {

uint32_t isBadPtr(const void *p, uint32_t write, uint32_t size) {
  if (size == 0) return 0;
  if (write) return platform::IsBadWritePtr(p, size) ? 1 : 0;
  if (size == 1 || size == 0xFFFFFFFFu) return platform::IsBadReadPtr(p, 1) ? 1 : 0;
  return platform::IsBadReadPtr(p, size) ? 1 : 0;
}

uint32_t collstrlen(const void *s, uint32_t max) {
  const uint8_t *p = static_cast<const uint8_t *>(s);
  if (max == 0xFFFFFFFFu) return static_cast<uint32_t>(std::strlen(reinterpret_cast<const char *>(p)));
  const void *z = std::memchr(p, 0, max);
  return z ? static_cast<uint32_t>(static_cast<const uint8_t *>(z) - p) : max;
}

uint32_t InternalCollCreate(uint32_t hOwner) {
  uint8_t *img = static_cast<uint8_t *>(collAllocPtr(COLL_PAGE));
  if (!img) return 0;
  wr16(img + ch::magic, COLL_MAGIC);
  wr16(img + ch::mark, COLL_MARK);
  wr16(img + ch::id, ps->nextCollId);
  if (++ps->nextCollId < 2) ps->nextCollId = 2;
  uint8_t *owner = hOwner ? GetCollPtr(hOwner) : nullptr;
  if (owner) {
    wr32(img + ch::creatorProcess, CollCreatorProcess(owner));
    std::memcpy(img + ch::creatorModule, owner + ch::creatorModule, COLL_MODULE_SIZE);
  } else {
    wr32(img + ch::creatorProcess, platform::CurrentProcessId());
    platform::ExecutableName(reinterpret_cast<char *>(img + ch::creatorModule), COLL_MODULE_SIZE);
  }
  wr32(img + ch::pages, 1);
  wr32(img + ch::owner, hOwner);
  wr16(img + ch::headerSize, COLL_HEADER_SIZE);
  uint32_t h = SetCollPtr(img);
  if (h == 0) collFreePtr(img);
  return h;
}

// Growing can fail (too many pages, no memory) and then leaves the image as
// it was. Shrinking never fails: when the heap cannot shrink the block the
// larger block simply stays, which keeps every invariant.
uint8_t *collReAllocColl(uint32_t hColl, uint32_t size) {
  uint8_t *img = GetCollPtr(hColl);
  if (!img) return nullptr;
  uint32_t pages = CollPagesFor(size);
  if (pages > COLL_MAX_PAGES) return nullptr;
  uint32_t current = CollPages(img);
  if (pages == current) return img;
  uint8_t *moved = static_cast<uint8_t *>(collReAllocPtr(img, pages * COLL_PAGE));
  if (!moved) return pages > current ? nullptr : img;
  wr32(moved + ch::pages, pages);
  UpdateCollPtr(hColl, moved);
  return moved;
}

bool CheckOffset(const uint8_t *img, uint32_t offset) {
  uint32_t dl = CollDataLength(img);
  return offset <= dl && COLL_HEADER_SIZE + dl <= CollPages(img) * COLL_PAGE;
}

uint32_t GetCollWord(const uint8_t *img, uint32_t offset) { return rd16(img + COLL_HEADER_SIZE + offset); }
void SetCollWord(uint8_t *img, uint32_t offset, uint32_t value) { wr16(img + COLL_HEADER_SIZE + offset, value); }

bool ItemAt(uint8_t *img, uint32_t p, ItemCursor *cur) {
  uint32_t dl = CollDataLength(img);
  if (p + 4 > dl) return false;
  uint8_t *items = CollItems(img);
  uint32_t t = rd16(items + p);
  if (t > dl - p - 4) return false;
  uint32_t b = rd16(items + p + 2 + t);
  if (b > dl - p - 4 - t) return false;
  cur->p = p;
  cur->t = t;
  cur->tag = items + p + 2;
  cur->b = b;
  cur->block = items + p + 4 + t;
  return true;
}

// True when the n stored tag bytes equal tag without regard to case. Tags
// often share their beginnings ("item1", "item2", ...), so the last
// character (lower-cased in last) is compared first.
static bool SameTag(const uint8_t *stored, const char *tag, uint32_t n, uint8_t last) {
  return n == 0 || (AsciiLower(stored[n - 1]) == last && AsciiEqualN(stored, tag, n));
}
static uint8_t LastOf(const char *tag, uint32_t n) { return n ? AsciiLower(static_cast<uint8_t>(tag[n - 1])) : 0; }

uint32_t SearchCache(const uint8_t *img, const char *tag, uint32_t n, uint32_t *c) {
  const uint8_t *items = CollItems(img);
  uint32_t dl = CollDataLength(img);
  const uint8_t last = LastOf(tag, n);
  for (uint32_t i = 0; i < COLL_CACHE_SIZE; ++i) {
    uint32_t e = rd32(img + ch::tagCache + 4 * i);
    if (e == 0) return 0;
    if (e < 2 || e > dl || n > dl - e) continue;
    if (rd16(items + e - 2) == n && SameTag(items + e, tag, n, last)) {
      *c = e;
      return 1;
    }
  }
  return 0;
}

void AddToCache(uint8_t *img, uint32_t c) {
  uint8_t *cache = img + ch::tagCache;
  std::memmove(cache + 4, cache, 4 * (COLL_CACHE_SIZE - 1));
  wr32(cache, c);
}

void DeleteFromCache(uint8_t *img, uint32_t c) {
  uint8_t *cache = img + ch::tagCache;
  uint32_t i = 0;
  while (i < COLL_CACHE_SIZE) {
    uint32_t e = rd32(cache + 4 * i);
    if (e == 0) return;
    if (e >= c) {
      std::memmove(cache + 4 * i, cache + 4 * (i + 1), 4 * (COLL_CACHE_SIZE - 1 - i));
      wr32(cache + 4 * (COLL_CACHE_SIZE - 1), 0);
    } else {
      ++i;
    }
  }
}

// Walks the items for tag; gives the item's cursor. Bounds are tested at
// every step, so a damaged image reads as "not found".
static bool WalkFor(uint8_t *img, const char *tag, uint32_t n, ItemCursor *cur) {
  if (n == 0) return false;
  const uint32_t count = CollItemCount(img);
  const uint32_t dl = CollDataLength(img);
  const uint8_t *items = CollItems(img);
  const uint8_t last = LastOf(tag, n);
  uint32_t p = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (p + 4 > dl) return false;
    const uint32_t t = rd16(items + p);
    if (t > dl - p - 4) return false;
    if (t == n && SameTag(items + p + 2, tag, n, last))
      return ItemAt(img, p, cur);
    const uint32_t b = rd16(items + p + 2 + t);
    if (b > dl - p - 4 - t) return false;
    p += 4 + t + b;
  }
  return false;
}

// The first item of the tag in item order: through the index when one
// serves, else by the walk.
static bool FindTag(uint8_t *img, uint32_t hColl, const char *tag, uint32_t n, ItemCursor *cur) {
  const int32_t found = hColl ? FindIndexed(hColl, img, tag, n, cur) : -1;
  return found < 0 ? WalkFor(img, tag, n, cur) : found == 1;
}

uint32_t FindAndSkipTag(uint8_t *img, const char *tag, uint32_t n, uint32_t hColl) {
  uint32_t c;
  if (SearchCache(img, tag, n, &c)) return CheckOffset(img, c + n) ? c + n : kBadIndex;
  ItemCursor cur;
  if (!FindTag(img, hColl, tag, n, &cur)) return kBadIndex;
  AddToCache(img, cur.p + 2);
  if (!CheckOffset(img, cur.p + 2 + cur.t)) return kBadIndex;
  return cur.p + 2 + cur.t;
}

uint32_t GetItemOffset(uint8_t *img, const char *tag, uint32_t n, uint32_t *t, uint32_t *p, uint32_t hColl) {
  uint32_t c;
  if (SearchCache(img, tag, n, &c)) {
    *t = n;
    *p = c - 2;
    return 1;
  }
  ItemCursor cur;
  if (!FindTag(img, hColl, tag, n, &cur)) return 0;
  *t = cur.t;
  *p = cur.p;
  return 1;
}

uint8_t *BuildItem(uint32_t type, const void *data, uint32_t dataLength) {
  if (dataLength > ITEM_MAX_DATA) return nullptr;
  uint8_t *blk = static_cast<uint8_t *>(collAllocPtr(dataLength + ITEM_BLOCK_HEAD));
  if (!blk) return nullptr;
  wr16(blk + ib::type, type);
  wr16(blk + ib::tranFlag, 0);
  wr16(blk + ib::length, dataLength + ITEM_BLOCK_HEAD);
  if (dataLength) std::memcpy(blk + ib::data, data, dataLength);
  return blk;
}

uint32_t RetrieveItem(uint32_t hColl, uint8_t **image, const char *tag, uint8_t **block, uint32_t *dataLength) {
  *dataLength = 0;
  *image = AccessColl(hColl);
  if (!*image) return 0;
  uint32_t off = FindAndSkipTag(*image, tag, collstrlen(tag, 0xFFFFFFFFu), hColl);
  if (off == kBadIndex) return 0;
  *block = CollItems(*image) + off + 2;
  *dataLength = BlockDataLength(*block);
  return 1;
}

void SetCollName(uint8_t *img, const char *name, uint32_t n) {
  if (n > COLL_NAME_SIZE) n = COLL_NAME_SIZE;
  std::memset(img + ch::name, 0, COLL_NAME_SIZE);
  std::memcpy(img + ch::name, name, n);
}

}  // namespace coll
