// index.cpp - the tag index beside a collection image: an open-addressing
// table from tags (hashed with A-Z folded to upper case) to item offsets, so
// that a lookup outside the tag cache costs one probe instead of a walk.
//
// The index lives outside the image, in a block of its own per handle slot;
// the image bytes never depend on it. It is built on the first lookup that
// misses the tag cache in a collection of TAG_INDEX_FROM items or more, kept
// right by the engine at its two changes of the item area (an append at the
// end, a removal that moves the items behind it), and dropped when it cannot
// be built or grown: the walk then serves, with the same results. A stamp of
// the image it describes (id, data length, and the entry count, which is the
// item count) makes it rebuild when the item area changed by any other path.
#include <cstring>

#include "store/store.h"

namespace coll {

namespace {

// Block layout: the header, then `slots` u32 hash slots, then `limit` u16
// item offsets (one per entry, in no particular order, padded with zeros to
// whole vectors). A slot is 0 when empty, else the top 16 bits of the tag's
// hash above the entry number + 1.
struct TagIndex {
  uint32_t slots;  // a power of two
  uint32_t limit;  // entries before the table must grow (3/4 of the slots)
  uint32_t entries;                // one per item of the image
  uint16_t id, dataLength;         // the image the index describes
};

constexpr uint32_t kMinSlots = 64;
constexpr uint32_t kLane = 8;  // offsets shifted per vector step (16 bytes)

uint32_t *Slots(TagIndex *x) { return reinterpret_cast<uint32_t *>(x + 1); }
uint16_t *Offsets(TagIndex *x) { return reinterpret_cast<uint16_t *>(Slots(x) + x->slots); }

TagIndex *IndexOf(uint32_t hColl) { return static_cast<TagIndex *>(ps->tagIndex[hColl - kCollBase]); }
void SetIndex(uint32_t hColl, TagIndex *x) { ps->tagIndex[hColl - kCollBase] = x; }

bool Describes(const TagIndex *x, const uint8_t *img) {
  return x->id == CollId(img) && x->entries == CollItemCount(img) && x->dataLength == CollDataLength(img);
}
void Stamp(TagIndex *x, const uint8_t *img) {
  x->id = static_cast<uint16_t>(CollId(img));
  x->dataLength = static_cast<uint16_t>(CollDataLength(img));
}

// Folds the letters a-z among eight bytes to A-Z (bytes of 128 and above
// are left alone).
uint64_t FoldCase(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  const uint64_t low7 = w & ~kHigh;
  const uint64_t atLeastA = low7 + kOnes * (0x80 - 'a');
  const uint64_t aboveZ = low7 + kOnes * (0x80 - 'z' - 1);
  const uint64_t lower = atLeastA & ~aboveZ & ~w & kHigh;
  return w ^ (lower >> 2);  // clears bit 5 of each lower-case letter
}

uint64_t Mix(uint64_t h, uint64_t w) {
  constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;
  h = (h ^ FoldCase(w)) * kMul;
  return h ^ (h >> 29);
}

// Eight tag bytes at a time; the last one to seven bytes are read by loads
// that stay inside the tag (and may overlap).
uint64_t TagHash(const uint8_t *tag, uint32_t n) {
  uint64_t h = Mix(0, n);
  uint32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, tag + i, 8);
    h = Mix(h, w);
  }
  const uint32_t r = n - i;
  if (r >= 4) {
    uint32_t a, b;
    std::memcpy(&a, tag + i, 4);
    std::memcpy(&b, tag + n - 4, 4);
    h = Mix(h, a | uint64_t(b) << 32);
  } else if (r > 0) {
    h = Mix(h, tag[i] | uint64_t(tag[i + r / 2]) << 8 | uint64_t(tag[n - 1]) << 16);
  }
  return h;
}

uint32_t Fragment(uint64_t hash) { return static_cast<uint32_t>(hash >> 48) << 16; }

uint32_t EntryOf(uint32_t slot) { return (slot & 0xFFFF) - 1; }

// Walks the run of slots from the tag's home: gives the slot that holds the
// tag (found), or the empty slot that ends the run. Every offset the index
// gives is tested against the image before it is read.
uint32_t Probe(TagIndex *x, const uint8_t *img, const uint8_t *tag, uint32_t n, uint64_t hash, bool *found) {
  const uint32_t *slots = Slots(x);
  const uint16_t *offsets = Offsets(x);
  const uint8_t *items = CollItems(img);
  const uint32_t dl = CollDataLength(img);
  const uint32_t mask = x->slots - 1;
  for (uint32_t s = static_cast<uint32_t>(hash) & mask;; s = (s + 1) & mask) {
    const uint32_t v = slots[s];
    *found = v != 0;
    if (v == 0) return s;
    if ((v & 0xFFFF0000u) != Fragment(hash)) continue;
    const uint32_t p = offsets[EntryOf(v)];
    if (p + 4 + n <= dl && rd16(items + p) == n && AsciiEqualN(items + p + 2, tag, n)) return s;
  }
}

// Adds entry e, whose offset is in place and names the item cur; false when
// the tag is there already (an image holding a tag twice gets no index).
bool Insert(TagIndex *x, const uint8_t *img, uint32_t e, const ItemCursor &cur) {
  const uint64_t hash = TagHash(cur.tag, cur.t);
  bool found;
  const uint32_t s = Probe(x, img, cur.tag, cur.t, hash, &found);
  if (found) return false;
  Slots(x)[s] = Fragment(hash) | (e + 1);
  return true;
}

// Empties slot s, moving later slots of the same run back (no tombstones);
// false when an entry names no item of img.
bool EraseSlot(TagIndex *x, uint8_t *img, uint32_t s) {
  uint32_t *slots = Slots(x);
  const uint16_t *offsets = Offsets(x);
  const uint32_t mask = x->slots - 1;
  for (uint32_t next = (s + 1) & mask; slots[next] != 0; next = (next + 1) & mask) {
    ItemCursor cur;
    if (!ItemAt(img, offsets[EntryOf(slots[next])], &cur)) return false;
    const uint32_t home = static_cast<uint32_t>(TagHash(cur.tag, cur.t)) & mask;
    // The entry may move to s when s lies on its way from home to next.
    if (((next - home) & mask) >= ((next - s) & mask)) {
      slots[s] = slots[next];
      s = next;
    }
  }
  slots[s] = 0;
  return true;
}

// Takes the item at p out of the index; the last entry moves into its place,
// so that the offsets stay dense. False when the index does not hold it.
bool Unlink(TagIndex *x, uint8_t *img, uint32_t p) {
  ItemCursor cur;
  bool found;
  if (!Describes(x, img) || x->entries <= 1 || !ItemAt(img, p, &cur)) return false;
  uint32_t *slots = Slots(x);
  uint16_t *offsets = Offsets(x);
  const uint32_t s = Probe(x, img, cur.tag, cur.t, TagHash(cur.tag, cur.t), &found);
  if (!found || offsets[EntryOf(slots[s])] != p) return false;
  const uint32_t e = EntryOf(slots[s]);
  if (!EraseSlot(x, img, s)) return false;
  const uint32_t last = --x->entries;
  if (e != last) {
    if (!ItemAt(img, offsets[last], &cur)) return false;
    const uint32_t moved = Probe(x, img, cur.tag, cur.t, TagHash(cur.tag, cur.t), &found);
    if (!found) return false;
    slots[moved] = (slots[moved] & 0xFFFF0000u) | (e + 1);
    offsets[e] = offsets[last];
  }
  offsets[last] = 0;
  return true;
}

void Drop(uint32_t hColl) {
  collFreePtr(IndexOf(hColl));
  SetIndex(hColl, nullptr);
}

// A new index of every item of img, at most 5/8 full; null when the
// image holds a tag twice, is inconsistent, or memory is short.
TagIndex *Build(uint8_t *img) {
  const uint32_t count = CollItemCount(img);
  uint32_t slots = kMinSlots;
  while (slots * 5 / 8 < count) slots *= 2;
  const uint32_t limit = slots * 3 / 4;
  const uint32_t padded = (limit + kLane - 1) / kLane * kLane;
  TagIndex *x = static_cast<TagIndex *>(collAllocPtr(sizeof(TagIndex) + 4 * slots + 2 * padded));
  if (!x) return nullptr;
  x->slots = slots;
  x->limit = limit;
  x->entries = count;
  uint16_t *offsets = Offsets(x);
  ItemCursor cur;
  uint32_t p = 0;
  for (uint32_t e = 0; e < count; ++e, p = NextItemOffset(cur)) {
    if (!ItemAt(img, p, &cur) || cur.t == 0) break;
    offsets[e] = static_cast<uint16_t>(p);
    if (!Insert(x, img, e, cur)) break;
    if (e + 1 == count) {
      Stamp(x, img);
      return x;
    }
  }
  collFreePtr(x);
  return nullptr;
}

// Subtracts size from every offset above p, a vector of offsets at a time.
// (The offsets are compared as signed words with their top bit flipped,
// which every vector unit can do.)
void ShiftOffsets(TagIndex *x, uint32_t p, uint32_t size) {
  typedef uint16_t Lanes __attribute__((vector_size(2 * kLane)));
  typedef int16_t Signed __attribute__((vector_size(2 * kLane)));
  Lanes flip, by;
  Signed above;
  for (uint32_t i = 0; i < kLane; ++i) {
    flip[i] = 0x8000;
    above[i] = static_cast<int16_t>(p ^ 0x8000);
    by[i] = static_cast<uint16_t>(size);
  }
  uint16_t *offsets = Offsets(x);
  for (uint32_t i = 0; i < x->entries; i += kLane) {
    Lanes v;
    std::memcpy(&v, offsets + i, sizeof v);
    v -= reinterpret_cast<Lanes>(reinterpret_cast<Signed>(v ^ flip) > above) & by;
    std::memcpy(offsets + i, &v, sizeof v);
  }
}

}  // namespace

int32_t FindIndexed(uint32_t hColl, uint8_t *img, const char *tag, uint32_t n, ItemCursor *cur) {
  if (hColl - kCollBase >= kSlots || n == 0) return -1;
  TagIndex *x = IndexOf(hColl);
  if (x && !Describes(x, img)) {
    Drop(hColl);
    x = nullptr;
  }
  if (!x) {
    if (CollItemCount(img) < TAG_INDEX_FROM) return -1;
    x = Build(img);
    if (!x) return -1;
    SetIndex(hColl, x);
  }
  const uint8_t *t = reinterpret_cast<const uint8_t *>(tag);
  bool found;
  const uint32_t s = Probe(x, img, t, n, TagHash(t, n), &found);
  if (!found) return 0;
  return ItemAt(img, Offsets(x)[EntryOf(Slots(x)[s])], cur) ? 1 : -1;
}

void IndexItemAdded(uint32_t hColl, uint8_t *img, uint32_t p) {
  TagIndex *x = IndexOf(hColl);
  if (!x) return;
  ItemCursor cur;
  if (x->id != CollId(img) || x->entries + 1 != CollItemCount(img) || x->dataLength != p ||
      !ItemAt(img, p, &cur)) {
    Drop(hColl);
    return;
  }
  if (x->entries == x->limit) {
    // Grown by building anew (the new item is in the image already).
    Drop(hColl);
    SetIndex(hColl, Build(img));
    return;
  }
  const uint32_t e = x->entries++;
  Offsets(x)[e] = static_cast<uint16_t>(p);
  if (!Insert(x, img, e, cur)) {
    Drop(hColl);
    return;
  }
  Stamp(x, img);
}

void IndexItemRemoving(uint32_t hColl, uint8_t *img, uint32_t p, uint32_t size) {
  TagIndex *x = IndexOf(hColl);
  if (!x) return;
  if (!Unlink(x, img, p)) {
    Drop(hColl);
    return;
  }
  // Only the items behind the removed one move (none behind the last).
  if (p + size < x->dataLength) ShiftOffsets(x, p, size);
  x->dataLength = static_cast<uint16_t>(x->dataLength - size);
}

void DropTagIndex(uint32_t hColl) {
  if (hColl - kCollBase < kSlots) Drop(hColl);
}

int32_t TagIndexEntries(uint32_t hColl, const uint8_t *img) {
  const TagIndex *x = hColl - kCollBase < kSlots ? IndexOf(hColl) : nullptr;
  if (!x) return -1;
  return Describes(x, img) ? static_cast<int32_t>(x->entries) : -2;
}

}  // namespace coll
