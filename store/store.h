// store.h - the collection image, the item encoding and the item store.
//
// A collection is one heap block: a 678-byte header followed by the item
// area, where items lie packed: u16 tag length t, t tag bytes, u16 block
// length b, and the value block (u16 type, u16 tranFlag, u16 length, data).
// Offsets named "item offset" count from the start of the item area.
#ifndef COLL_STORE_STORE_H
#define COLL_STORE_STORE_H

#include <cstdint>
#include <cstring>

#include "frame/frame.h"

namespace coll {

constexpr uint32_t COLL_MAGIC = 0x1010;
constexpr uint32_t COLL_MARK = 0xCE00;
constexpr uint32_t COLL_HEADER_SIZE = 678;
constexpr uint32_t COLL_PAGE = 2048;
constexpr uint32_t COLL_MAX_PAGES = 31;
constexpr uint32_t COLL_NAME_SIZE = 64;
constexpr uint32_t COLL_MODULE_SIZE = 32;
constexpr uint32_t COLL_LIST_SIZE = 32;  // advice and propagation entries
constexpr uint32_t COLL_CACHE_SIZE = 10;
constexpr uint32_t ITEM_BLOCK_HEAD = 6;
constexpr uint32_t ITEM_MAX_DATA = 65529;  // 65,535 - 6

// CollHeader field offsets.
namespace ch {
constexpr uint32_t magic = 0;
constexpr uint32_t mark = 2;
constexpr uint32_t id = 4;
constexpr uint32_t itemCount = 6;
constexpr uint32_t shareCount = 8;
constexpr uint32_t dataLength = 10;
constexpr uint32_t headerSize = 12;
constexpr uint32_t name = 14;
constexpr uint32_t creatorProcess = 78;
constexpr uint32_t lockThread = 82;
constexpr uint32_t creatorModule = 86;
constexpr uint32_t pages = 118;
constexpr uint32_t owner = 122;
constexpr uint32_t adviceTarget = 126;
constexpr uint32_t adviceCount = 254;
constexpr uint32_t propTarget = 382;
constexpr uint32_t propId = 510;
constexpr uint32_t tagCache = 638;
}  // namespace ch

// ItemBlock field offsets.
namespace ib {
constexpr uint32_t type = 0;
constexpr uint32_t tranFlag = 2;
constexpr uint32_t length = 4;
constexpr uint32_t data = 6;
}  // namespace ib

// Header accessors.
inline uint32_t CollItemCount(const uint8_t *img) { return rd16(img + ch::itemCount); }
inline uint32_t CollDataLength(const uint8_t *img) { return rd16(img + ch::dataLength); }
inline uint32_t CollShareCount(const uint8_t *img) { return rd16(img + ch::shareCount); }
inline uint32_t CollId(const uint8_t *img) { return rd16(img + ch::id); }
inline uint32_t CollPages(const uint8_t *img) { return rd32(img + ch::pages); }
inline uint32_t CollOwner(const uint8_t *img) { return rd32(img + ch::owner); }
inline uint32_t CollLockThread(const uint8_t *img) { return rd32(img + ch::lockThread); }
inline uint32_t CollCreatorProcess(const uint8_t *img) { return rd32(img + ch::creatorProcess); }
// The item area.
inline uint8_t *CollItems(uint8_t *img) { return img + COLL_HEADER_SIZE; }
inline const uint8_t *CollItems(const uint8_t *img) { return img + COLL_HEADER_SIZE; }

// Value block accessors.
inline uint32_t BlockType(const uint8_t *blk) { return rd16(blk + ib::type); }
inline uint32_t BlockLength(const uint8_t *blk) { return rd16(blk + ib::length); }
inline uint32_t BlockDataLength(const uint8_t *blk) { return rd16(blk + ib::length) - ITEM_BLOCK_HEAD; }
inline uint8_t *BlockData(uint8_t *blk) { return blk + ib::data; }
inline const uint8_t *BlockData(const uint8_t *blk) { return blk + ib::data; }

// Walks the item area of a consistent image. Each step gives the item
// offset p, the tag length t, the tag and the stored value block.
struct ItemCursor {
  uint32_t p;       // item offset of the item
  uint32_t t;       // tag length
  uint8_t *tag;     // tag characters (not terminated)
  uint8_t *block;   // the stored ItemBlock
  uint32_t b;       // block length word
};
// Fills cur for the item at item offset p; false when the item does not lie
// wholly inside dataLength.
bool ItemAt(uint8_t *img, uint32_t p, ItemCursor *cur);
// The item after cur; false at the end (or when the image is inconsistent).
inline uint32_t NextItemOffset(const ItemCursor &cur) { return cur.p + 4 + cur.t + cur.b; }

// ---- the tag index beside the image (REQUIRES: lock held)
// A collection of TAG_INDEX_FROM items or more gets, on its first lookup
// outside the tag cache, an index of its tags kept outside the image; the
// engine keeps it right as items are appended and removed, and any other
// change of the item area makes it rebuild. Without memory there is none and
// lookups walk the items, with the same results.
constexpr uint32_t TAG_INDEX_FROM = 16;
// 1 and the item's cursor when hColl's index holds the tag, 0 when the
// collection has no such item, -1 when no index serves (walk instead).
int32_t FindIndexed(uint32_t hColl, uint8_t *img, const char *tag, uint32_t n, ItemCursor *cur);
// The engine's two changes of the item area: an item appended at item offset
// p (after it is written), and the item at p of size bytes about to be
// removed (before the items behind it move).
void IndexItemAdded(uint32_t hColl, uint8_t *img, uint32_t p);
void IndexItemRemoving(uint32_t hColl, uint8_t *img, uint32_t p, uint32_t size);
// Frees the index of a handle's slot (the image went or another takes it).
void DropTagIndex(uint32_t hColl);
// For checks: the number of tags in hColl's index, -1 when it has none, -2
// when it no longer describes img (it is rebuilt on the next lookup).
int32_t TagIndexEntries(uint32_t hColl, const uint8_t *img);

// ---- pointer tests and strings (no lock needed)
// Non-zero when the memory is not accessible; size 0 always passes; for
// reads, size 1 or 0xFFFFFFFF tests the first byte only.
uint32_t isBadPtr(const void *p, uint32_t write, uint32_t size);
// Bytes before the first zero, at most max (0xFFFFFFFF: unbounded).
uint32_t collstrlen(const void *s, uint32_t max);

// ---- image primitives (REQUIRES: lock held)
uint32_t InternalCollCreate(uint32_t hOwner);
uint8_t *collReAllocColl(uint32_t hColl, uint32_t size);
// Pages needed for size bytes in use; > COLL_MAX_PAGES means refused.
inline uint32_t CollPagesFor(uint32_t size) { return (size + 4) / COLL_PAGE + 1; }
bool CheckOffset(const uint8_t *img, uint32_t offset);
uint32_t GetCollWord(const uint8_t *img, uint32_t offset);
void SetCollWord(uint8_t *img, uint32_t offset, uint32_t value);
// Tag search (n = tag length; tags are not terminated). With the handle of
// img, the search outside the tag cache goes through the collection's tag
// index; without (0), it walks the items.
uint32_t FindAndSkipTag(uint8_t *img, const char *tag, uint32_t n, uint32_t hColl = 0);
uint32_t GetItemOffset(uint8_t *img, const char *tag, uint32_t n, uint32_t *t, uint32_t *p, uint32_t hColl = 0);
uint32_t SearchCache(const uint8_t *img, const char *tag, uint32_t n, uint32_t *c);
void AddToCache(uint8_t *img, uint32_t c);
void DeleteFromCache(uint8_t *img, uint32_t c);
// A new heap value block; null without memory or for more than
// ITEM_MAX_DATA data bytes.
uint8_t *BuildItem(uint32_t type, const void *data, uint32_t dataLength);
uint32_t RetrieveItem(uint32_t hColl, uint8_t **image, const char *tag, uint8_t **block,
                      uint32_t *dataLength);
// Copies the name field (at most 64 bytes) of an image.
void SetCollName(uint8_t *img, const char *name, uint32_t n);
inline uint32_t CollNameLength(const uint8_t *img) { return collstrlen(img + ch::name, COLL_NAME_SIZE); }

// A terminated copy of a tag: on the stack when short, else on the heap;
// get() is null when the heap had no room.
class TagCopy {
 public:
  TagCopy(const void *tag, uint32_t n) : n_(n) {
    p_ = n < sizeof(local_) ? local_ : static_cast<char *>(collAllocPtr(n + 1));
    if (p_) {
      std::memcpy(p_, tag, n);
      p_[n] = 0;
    }
  }
  ~TagCopy() {
    if (p_ != local_) collFreePtr(p_);
  }
  TagCopy(const TagCopy &) = delete;
  TagCopy &operator=(const TagCopy &) = delete;
  const char *get() const { return p_; }
  uint32_t size() const { return n_; }

 private:
  char local_[128];
  char *p_;
  uint32_t n_;
};

// ---- the item store (REQUIRES: lock held)
// Takes over block (freed on every path). Null block or length 6: deletion.
uint32_t SetItem(uint32_t hColl, const char *tag, uint8_t *block, uint32_t communicate);
uint32_t SetItemN(uint32_t hColl, const char *tag, uint32_t n, uint8_t *block, uint32_t communicate);
// The store itself: owned 0 leaves the block to the caller (a block on the
// stack, say); the store may still write its transaction mark.
uint32_t SetItemEx(uint32_t hColl, const char *tag, uint32_t n, uint8_t *block, uint32_t communicate,
                   uint32_t owned);

// A value block of up to 4 data bytes built in place, for stores that need
// no heap block (numbers, times, handles).
struct SmallBlock {
  uint8_t bytes[ITEM_BLOCK_HEAD + 4];
  SmallBlock(uint32_t type, uint32_t value) {
    wr16(bytes + ib::type, type);
    wr16(bytes + ib::tranFlag, 0);
    wr16(bytes + ib::length, ITEM_BLOCK_HEAD + 4);
    wr32(bytes + ib::data, value);
  }
};
uint8_t *DupItem(const uint8_t *block, uint32_t hNewOwner);
// Stores a value that DupItem copied for hColl (SetItemN's contract). When
// the store refuses it, the table or collection that the copy made for hColl
// goes too, unless it went already or an item of hColl names it.
uint32_t SetItemCopy(uint32_t hColl, const char *tag, uint32_t n, uint8_t *copy, uint32_t communicate);
// Copies every item of sourceImage (the image of hSource, 0 when it has no
// handle), in order, into hDest: deep copies, replacing items of equal tags,
// each store communicated when communicate is set. Works from a snapshot,
// so sourceImage need only be valid on entry. A value that cannot be copied
// deletes its tag in hDest and the copy goes on, or, with allOrNothing, fails
// it. 1, or 0 when a store fails (the items copied so far stay).
uint32_t CopyAllItems(uint32_t hDest, uint32_t hSource, const uint8_t *sourceImage, uint32_t communicate,
                      bool allOrNothing);
// Destroys a collection made for hOwner, unless the lock was released
// meanwhile and it went with its owner (its slot may then name another).
void DestroyOwnedChild(uint32_t hChild, uint32_t hOwner);
void EmptyCollection(uint32_t hColl, uint32_t communicate);
uint32_t GetItem(uint8_t *img, const char *tag, uint8_t **block);
void ReleaseItem(uint8_t *block, uint32_t flag);

// ---- output helpers
void cpyOutput(void *buffer, uint32_t size, const void *source, uint32_t n);
uint32_t printable(const void *bytes, uint32_t n);
uint32_t BuildItemResult(const uint8_t *block, void *buffer, uint32_t size, uint32_t dataLength);
// Finds a table item: its header and handle. REQUIRES: lock held.
uint32_t RetrieveTableItem(uint32_t hColl, uint8_t **image, const char *tag, uint8_t **header,
                           uint32_t *hTable);

}  // namespace coll

#endif  // COLL_STORE_STORE_H
