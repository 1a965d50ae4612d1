// dump.cpp - writing a collection's items as a dump image, as bytes or as
// hexadecimal text.
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "serial/serial.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {

// Nested collections are private copies, so their chain cannot loop; a
// chain deeper than there are handles means a damaged image.
constexpr uint32_t kMaxDepth = kSlots;

bool KnownType(uint32_t type) { return type >= COLLTYPE_ITEM && type <= COLLTYPE_STRING + 1; }

// A private copy of a collection image (header and items in use): reaching a
// nested collection may release the lock, after which the image itself may
// have moved or changed.
uint8_t *Snapshot(const uint8_t *img) {
  const uint32_t n = COLL_HEADER_SIZE + CollDataLength(img);
  uint8_t *copy = static_cast<uint8_t *>(collAllocPtr(n));
  if (copy) std::memcpy(copy, img, n);
  return copy;
}

// The stored value block of an item, or null when the item is damaged:
// its block length word differs from the block's own length, its type is
// unknown, or a fixed-size value has the wrong size.
const uint8_t *SoundBlock(const ItemCursor &cur) {
  const uint8_t *blk = cur.block;
  if (cur.b < ITEM_BLOCK_HEAD || BlockLength(blk) != cur.b || !KnownType(BlockType(blk))) return nullptr;
  switch (BlockType(blk)) {
    case COLLTYPE_TABLE:
    case COLLTYPE_COLL:
      return cur.b >= ITEM_BLOCK_HEAD + 4 ? blk : nullptr;
    case COLLTYPE_TIME:
    case COLLTYPE_NUMERIC:
      return cur.b == ITEM_BLOCK_HEAD + 4 ? blk : nullptr;
    default:
      return blk;
  }
}

// The next n bytes of the output, or null (and failed set) when they do not
// fit.
uint8_t *Reserve(DumpWriter *out, uint32_t n) {
  if (out->failed || out->size - out->pos < n) {
    out->failed = true;
    return nullptr;
  }
  uint8_t *p = out->buf + out->pos;
  out->pos += n;
  return p;
}

uint32_t CalcDumpSizeAt(uint8_t *img, uint32_t *error, uint32_t depth);
uint32_t stringCollAt(uint8_t *img, DumpWriter *out, uint32_t depth);
uint32_t strItemsAt(const uint8_t *block, DumpWriter *out, uint32_t depth);

uint32_t CalcDumpSizeAt(uint8_t *img, uint32_t *error, uint32_t depth) {
  uint8_t *snap = depth < kMaxDepth ? Snapshot(img) : nullptr;
  if (!snap) {
    *error = 1;
    return 0;
  }
  const uint32_t dl = CollDataLength(snap);
  uint32_t total = 0;
  for (uint32_t p = 0; p < dl && !*error;) {
    ItemCursor cur;
    const uint8_t *blk = ItemAt(snap, p, &cur) ? SoundBlock(cur) : nullptr;
    if (!blk) {
      *error = 1;
      break;
    }
    const uint32_t n = cur.t;
    if (BlockType(blk) == COLLTYPE_TABLE) {
      const uint8_t *hdr = GetTablePtr(rd32(BlockData(blk)));
      if (!hdr)
        *error = 1;
      else
        total += n + TableLength(hdr) - 26;
    } else if (BlockType(blk) == COLLTYPE_COLL) {
      uint8_t *child = AccessColl(rd32(BlockData(blk)));
      if (!child)
        *error = 1;
      else
        total += n + 24 + CalcDumpSizeAt(child, error, depth + 1);
    } else {
      total += 2 + n + 2 + cur.b;
    }
    p = NextItemOffset(cur);
  }
  collFreePtr(snap);
  return *error ? 0 : total;
}

uint32_t stringCollAt(uint8_t *img, DumpWriter *out, uint32_t depth) {
  uint8_t *snap = depth < kMaxDepth ? Snapshot(img) : nullptr;
  if (!snap) {
    out->failed = true;
    return 0;
  }
  const uint32_t start = out->pos;
  const uint32_t dl = CollDataLength(snap);
  for (uint32_t p = 0; p < dl && !out->failed;) {
    ItemCursor cur;
    const uint8_t *blk = ItemAt(snap, p, &cur) ? SoundBlock(cur) : nullptr;
    if (!blk) {
      out->failed = true;
      break;
    }
    cpyWord(out, cur.t);
    cpyBytes(out, cur.tag, cur.t);
    if (BlockType(blk) == COLLTYPE_TABLE) {
      const uint8_t *hdr = GetTablePtr(rd32(BlockData(blk)));
      if (!hdr) {
        out->failed = true;
        break;
      }
      cpyWord(out, TableLength(hdr) - DUMP_TABLE_SHRINK);
      strItemsAt(blk, out, depth);
    } else if (BlockType(blk) == COLLTYPE_COLL) {
      const uint32_t placeholder = out->pos;
      cpyWord(out, 0xCECE);
      const uint32_t length = strItemsAt(blk, out, depth);
      if (!out->failed) wrBE16(out->buf + placeholder, length);
    } else {
      cpyWord(out, cur.b);
      strItemsAt(blk, out, depth);
    }
    p = NextItemOffset(cur);
  }
  collFreePtr(snap);
  return out->pos - start;
}

uint32_t strItemsAt(const uint8_t *blk, DumpWriter *out, uint32_t depth) {
  const uint32_t type = BlockType(blk);
  const uint32_t flag = rd16(blk + ib::tranFlag);
  switch (type) {
    case COLLTYPE_TABLE: {
      const uint8_t *hdr = GetTablePtr(rd32(BlockData(blk)));
      if (!hdr) {
        out->failed = true;
        return 0;
      }
      const uint32_t length = TableLength(hdr) - DUMP_TABLE_SHRINK;
      cpyhdr(out, type, flag, length);
      cpytablehdr(out, hdr);
      cpyBytes(out, TableData(hdr), TableDataLength(hdr));
      return length;
    }
    case COLLTYPE_COLL: {
      uint8_t *child = AccessColl(rd32(BlockData(blk)));
      if (!child) {
        out->failed = true;
        return 0;
      }
      const uint32_t head = out->pos;
      cpyhdr(out, type, flag, 0xCECE);
      cpycollhdr(out, child);
      const uint32_t length = DUMP_COLL_BLOCK + stringCollAt(child, out, depth + 1);
      if (!out->failed) wrBE16(out->buf + head + 4, length);
      return length;
    }
    case COLLTYPE_TIME:
    case COLLTYPE_NUMERIC:
      cpyhdr(out, type, flag, BlockLength(blk));
      cpyLong(out, rd32(BlockData(blk)));
      return BlockLength(blk);
    default:
      cpyhdr(out, type, flag, BlockLength(blk));
      cpyBytes(out, BlockData(blk), BlockDataLength(blk));
      return BlockLength(blk);
  }
}

// Sizes the dump of hColl and, unless size is 0, writes it into a new work
// block (*image, the caller frees it). size is the room of the caller's
// buffer in units of scale bytes per image byte. The image length (needed
// or written), or 0 on failure. REQUIRES: lock held.
uint32_t DumpToWorkLocked(uint32_t hColl, uint32_t size, uint32_t scale, uint8_t **image) {
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  uint32_t error = 0;
  const uint32_t needed = CalcDumpSize(img, &error) + DUMP_HEADER_SIZE;
  if (error || needed > DUMP_MAX_LENGTH) return 0;
  if (size == 0) return needed;
  if (size / scale < needed) return 0;
  // The size computation may have released the lock: resolve again.
  img = AccessColl(hColl);
  uint8_t *work = img ? static_cast<uint8_t *>(collAllocPtr(needed)) : nullptr;
  if (!work) return 0;
  const uint32_t written = StringCollection(img, work, needed);
  if (written == 0) {
    collFreePtr(work);
    return 0;
  }
  *image = work;
  return written;
}

// The exported dumps up to the work block: argument tests, then the image
// made under the lock, which is released before the caller's buffer is
// filled.
uint32_t DumpToWork(uint32_t hColl, void *buffer, uint32_t size, uint32_t scale, uint8_t **image) {
  *image = nullptr;
  if (isBadPtr(buffer, 1, size) || isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  return DumpToWorkLocked(hColl, size, scale, image);
}

}  // namespace

void cpyWord(DumpWriter *out, uint32_t value) {
  if (uint8_t *p = Reserve(out, 2)) wrBE16(p, value);
}

void cpyLong(DumpWriter *out, uint32_t value) {
  if (uint8_t *p = Reserve(out, 4)) wrBE32(p, value);
}

void cpyBytes(DumpWriter *out, const void *src, uint32_t n) {
  uint8_t *p = Reserve(out, n);
  if (p && n) std::memcpy(p, src, n);
}

void cpyhdr(DumpWriter *out, uint32_t type, uint32_t tranFlag, uint32_t length) {
  cpyWord(out, type);
  cpyWord(out, tranFlag);
  cpyWord(out, length);
}

void cpytablehdr(DumpWriter *out, const uint8_t *h) {
  cpyWord(out, rd16(h + th::magic));
  cpyWord(out, TableLength(h) - 36);
  cpyWord(out, rd16(h + th::type));
  cpyWord(out, TableRows(h));
  cpyWord(out, TableCols(h));
  cpyWord(out, TableSelection(h));
}

void cpycollhdr(DumpWriter *out, const uint8_t *img) {
  for (uint32_t off = 0; off < DUMP_COLL_HEAD; off += 2) cpyWord(out, rd16(img + off));
}

uint32_t CalcDumpSize(uint8_t *img, uint32_t *error) {
  *error = 0;
  return CalcDumpSizeAt(img, error, 0);
}

uint32_t stringColl(uint8_t *img, DumpWriter *out) { return stringCollAt(img, out, 0); }

uint32_t strItems(const uint8_t *block, DumpWriter *out) { return strItemsAt(block, out, 0); }

uint32_t StringCollection(uint8_t *img, uint8_t *output, uint32_t size) {
  DumpWriter out{output, size, 0, false};
  cpyWord(&out, 0);
  cpyWord(&out, COLL_MARK);
  cpyWord(&out, 0);
  const uint32_t total = DUMP_HEADER_SIZE + stringColl(img, &out);
  if (out.failed) return 0;
  wrBE16(output, total);
  wrBE16(output + 4, checksum(output, total));
  return total;
}

uint32_t checksum(const uint8_t *img, uint32_t length) {
  // The byte sum, sixteen bytes at a time: the bytes of two words are added
  // into two sets of four 16-bit lanes, which are folded into the total
  // before any of them can overflow (each word adds at most 510 to a lane).
  constexpr uint64_t kLanes = 0x00FF00FF00FF00FFull;
  constexpr uint64_t kLanes16 = 0x0000FFFF0000FFFFull;
  uint32_t sum = 0;
  uint32_t i = DUMP_HEADER_SIZE;
#if defined(__SSE2__)
  // Where the processor has it, one instruction sums sixteen bytes into two
  // 64-bit halves, which cannot overflow within an image.
  __m128i total = _mm_setzero_si128();
  for (; length >= 16 && i <= length - 16; i += 16)
    total = _mm_add_epi64(total, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(img + i)),
                                              _mm_setzero_si128()));
  sum += static_cast<uint32_t>(_mm_cvtsi128_si32(total)) +
         static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(total, total)));
#endif
  while (length >= 16 && i <= length - 16) {
    uint64_t lanes = 0, more = 0;
    for (uint32_t k = 0; k < 128 && i <= length - 16; ++k, i += 16) {
      uint64_t w, v;
      std::memcpy(&w, img + i, 8);
      std::memcpy(&v, img + i + 8, 8);
      lanes += (w & kLanes) + ((w >> 8) & kLanes);
      more += (v & kLanes) + ((v >> 8) & kLanes);
    }
    lanes = (lanes & kLanes16) + ((lanes >> 16) & kLanes16) + (more & kLanes16) + ((more >> 16) & kLanes16);
    sum += static_cast<uint32_t>((lanes & 0xFFFFFFFF) + (lanes >> 32));
  }
  for (; i < length; ++i) sum += img[i];
  return sum & 0xFFFF;
}

uint32_t isBadCollDumpHdr(const uint8_t *img, uint32_t length, uint32_t sum) {
  if (length < DUMP_HEADER_SIZE) return 1;
  return (rdBE16(img) != length || rdBE16(img + 2) != COLL_MARK || rdBE16(img + 4) != sum) ? 1 : 0;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collDumpItems(uint32_t hColl, void *buffer, uint32_t size) {
  uint8_t *work;
  const uint32_t length = DumpToWork(hColl, buffer, size, 1, &work);
  if (work) {
    std::memcpy(buffer, work, length);
    collFreePtr(work);
  }
  return length;
}

COLL_API(uint32_t) collDumpItemsHex(uint32_t hColl, char *text, uint32_t size) {
  uint8_t *work;
  const uint32_t length = DumpToWork(hColl, text, size, 2, &work);
  if (!work) return 2 * length;
  // Each byte as two digits, the low four bits first.
  static const char kDigits[] = "0123456789ABCDEF";
  for (uint32_t k = 0; k < length; ++k) {
    text[2 * k] = kDigits[work[k] & 15];
    text[2 * k + 1] = kDigits[work[k] >> 4];
  }
  collFreePtr(work);
  return 2 * length;
}
