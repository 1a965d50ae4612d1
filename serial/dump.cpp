// dump.cpp - writing a collection's items as a dump image, as bytes or as
// hexadecimal text.
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
// With gcc or clang on x86-64, the checksum and the copies of a dump work 32
// bytes at a time where the processor can (chosen when the library runs).
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define COLL_SUM_AVX2 1
#include <immintrin.h>
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
// unknown, or a value is too short for its type. A number or time may carry
// bytes after its value (a load keeps them); they are written as zeros.
inline const uint8_t *SoundBlock(const ItemCursor &cur) {
  const uint8_t *blk = cur.block;
  if (cur.b < ITEM_BLOCK_HEAD || BlockLength(blk) != cur.b || !KnownType(BlockType(blk))) return nullptr;
  switch (BlockType(blk)) {
    case COLLTYPE_TABLE:
    case COLLTYPE_COLL:
      return cur.b >= ITEM_BLOCK_HEAD + 4 ? blk : nullptr;
    case COLLTYPE_TIME:
    case COLLTYPE_NUMERIC:
      return cur.b >= ITEM_BLOCK_HEAD + 4 ? blk : nullptr;
    default:
      return blk;
  }
}

// ---- byte sums: the checksum is summed over the bytes as they are written,
// while they are in registers, by the copy that writes them.

#if COLL_SUM_AVX2
// Sums the whole 32-byte blocks of src[0 .. n) into *sum (copying them to dst
// when kCopy), 32 bytes to an instruction into four 64-bit lanes; the bytes
// done.
template <bool kCopy>
__attribute__((target("avx2"))) uint32_t SumBlocksAvx2(uint8_t *dst, const uint8_t *src, uint32_t n, uint32_t *sum) {
  const __m256i zero = _mm256_setzero_si256();
  __m256i t0 = zero, t1 = zero;
  uint32_t i = 0;
  for (; n - i >= 64; i += 64) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i + 32));
    if constexpr (kCopy) {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), a);
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 32), b);
    }
    t0 = _mm256_add_epi64(t0, _mm256_sad_epu8(a, zero));
    t1 = _mm256_add_epi64(t1, _mm256_sad_epu8(b, zero));
  }
  if (n - i >= 32) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
    if constexpr (kCopy) _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), a);
    t0 = _mm256_add_epi64(t0, _mm256_sad_epu8(a, zero));
    i += 32;
  }
  const __m256i t = _mm256_add_epi64(t0, t1);
  const __m128i half = _mm_add_epi64(_mm256_castsi256_si128(t), _mm256_extracti128_si256(t, 1));
  *sum += static_cast<uint32_t>(_mm_cvtsi128_si32(half)) +
          static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(half, half)));
  return i;
}

bool HaveAvx2() {
  static const bool have = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
  }();
  return have;
}
#endif

// The byte sum of src[0 .. n), copying the bytes to dst when kCopy: 32 bytes
// at a time where the processor has it, else 16.
template <bool kCopy>
uint32_t SumBytes(uint8_t *dst, const uint8_t *src, uint32_t n) {
  uint32_t sum = 0;
  uint32_t i = 0;
#if COLL_SUM_AVX2
  // (The call pays for itself from a few blocks on.)
  if (n >= 128 && HaveAvx2()) i = SumBlocksAvx2<kCopy>(dst, src, n, &sum);
#endif
#if defined(__SSE2__)
  // One instruction sums sixteen bytes into two 64-bit halves, which cannot
  // overflow within an image.
  const __m128i zero = _mm_setzero_si128();
  __m128i total = zero;
  for (; n - i >= 16; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
    if constexpr (kCopy) _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), v);
    total = _mm_add_epi64(total, _mm_sad_epu8(v, zero));
  }
  if (i < n && n >= 16) {
    // The last sixteen bytes again, of which only the n - i not yet done count.
    static const uint8_t kNew[32] = {0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
                                     0,    0,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                     0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + n - 16));
    if constexpr (kCopy) _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + n - 16), v);
    const __m128i fresh = _mm_loadu_si128(reinterpret_cast<const __m128i *>(kNew + (n - i)));
    total = _mm_add_epi64(total, _mm_sad_epu8(_mm_and_si128(v, fresh), zero));
    i = n;
  }
  sum += static_cast<uint32_t>(_mm_cvtsi128_si32(total)) +
         static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(total, total)));
#else
  // Sixteen bytes at a time: the bytes of two words are added into two sets
  // of four 16-bit lanes, which are folded into the total before any of them
  // can overflow (each word adds at most 510 to a lane).
  constexpr uint64_t kLanes = 0x00FF00FF00FF00FFull;
  constexpr uint64_t kLanes16 = 0x0000FFFF0000FFFFull;
  while (n - i >= 16) {
    uint64_t lanes = 0, more = 0;
    for (uint32_t k = 0; k < 128 && n - i >= 16; ++k, i += 16) {
      uint64_t w, v;
      std::memcpy(&w, src + i, 8);
      std::memcpy(&v, src + i + 8, 8);
      if constexpr (kCopy) std::memcpy(dst + i, src + i, 16);
      lanes += (w & kLanes) + ((w >> 8) & kLanes);
      more += (v & kLanes) + ((v >> 8) & kLanes);
    }
    lanes = (lanes & kLanes16) + ((lanes >> 16) & kLanes16) + (more & kLanes16) + ((more >> 16) & kLanes16);
    sum += static_cast<uint32_t>((lanes & 0xFFFFFFFF) + (lanes >> 32));
  }
#endif
  for (; i < n; ++i) {
    if constexpr (kCopy) dst[i] = src[i];
    sum += src[i];
  }
  return sum;
}

// The two bytes of a 16-bit word, added.
uint32_t WordSum(uint32_t value) { return (value & 0xFF) + ((value >> 8) & 0xFF); }

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

// A value block head at p; its byte sum.
uint32_t PutHead(uint8_t *p, uint32_t type, uint32_t tranFlag, uint32_t length) {
  wrBE16(p, type);
  wrBE16(p + 2, tranFlag);
  wrBE16(p + 4, length);
  return WordSum(type) + WordSum(tranFlag) + WordSum(length);
}

// Overwrites the placeholder word at offset at, keeping the sum.
void Patch(DumpWriter *out, uint32_t at, uint32_t value) {
  out->sum += WordSum(value) - WordSum(rdBE16(out->buf + at));
  wrBE16(out->buf + at, value);
}

// Turns the numbers of a value block copied whole from blk to p (a raw item,
// text, number or time) big-endian; the bytes only change places. A number
// or time writes its value alone: bytes a load kept after it go out as
// zeros. Returns the byte sum taken away from the copy.
uint32_t BlockNumbersToDump(uint8_t *p, const uint8_t *blk) {
  const uint32_t type = BlockType(blk), length = BlockLength(blk);
  PutHead(p, type, rd16(blk + ib::tranFlag), length);
  if (type != COLLTYPE_TIME && type != COLLTYPE_NUMERIC) return 0;
  wrBE32(p + ib::data, rd32(BlockData(blk)));
  uint32_t removed = 0;
  for (uint32_t i = ITEM_BLOCK_HEAD + 4; i < length; ++i) removed += p[i], p[i] = 0;
  return removed;
}

// Calls visit(cur, block) for each item of the collection image in order
// while it returns true. Reaching a nested collection may release the lock,
// after which the image itself may have moved or changed: from the first
// nested collection on, the walk goes on over a private copy of the image.
// False when an item is damaged, the copy cannot be made or visit fails.
template <typename Visit>
bool ForEachItem(uint8_t *img, uint32_t depth, Visit visit) {
  if (depth >= kMaxDepth) return false;
  uint8_t *walked = img, *snap = nullptr;
  const uint32_t dl = CollDataLength(img);
  bool ok = true;
  for (uint32_t p = 0; ok && p < dl;) {
    ItemCursor cur;
    const uint8_t *blk = ItemAt(walked, p, &cur) ? SoundBlock(cur) : nullptr;
    if (blk && BlockType(blk) == COLLTYPE_COLL && !snap) {
      walked = snap = Snapshot(img);
      blk = snap && ItemAt(walked, p, &cur) ? cur.block : nullptr;
    }
    ok = blk && visit(cur, blk);
    if (ok) p = NextItemOffset(cur);
  }
  collFreePtr(snap);
  return ok;
}

uint32_t CalcDumpSizeAt(uint8_t *img, uint32_t *error, uint32_t depth, bool *nested);
uint32_t stringCollAt(uint8_t *img, DumpWriter *out, uint32_t depth);
bool PutRecord(const ItemCursor &cur, const uint8_t *blk, DumpWriter *out, uint32_t depth);
uint32_t strItemsAt(const uint8_t *block, DumpWriter *out, uint32_t depth);

uint32_t CalcDumpSizeAt(uint8_t *img, uint32_t *error, uint32_t depth, bool *nested) {
  uint32_t total = 0;
  const bool ok = ForEachItem(img, depth, [&](const ItemCursor &cur, const uint8_t *blk) {
    if (BlockType(blk) == COLLTYPE_TABLE) {
      const uint8_t *hdr = GetTablePtr(rd32(BlockData(blk)));
      total += hdr ? cur.t + TableLength(hdr) - 26 : 0;
      return hdr != nullptr;
    }
    if (BlockType(blk) == COLLTYPE_COLL) {
      *nested = true;
      uint8_t *child = AccessColl(rd32(BlockData(blk)));
      total += child ? cur.t + 24 + CalcDumpSizeAt(child, error, depth + 1, nested) : 0;
      return child && !*error;
    }
    total += 4 + cur.t + cur.b;
    return true;
  });
  if (!ok) *error = 1;
  return *error ? 0 : total;
}

uint32_t stringCollAt(uint8_t *img, DumpWriter *out, uint32_t depth) {
  const uint32_t start = out->pos;
  const bool ok = ForEachItem(
      img, depth, [&](const ItemCursor &cur, const uint8_t *blk) { return PutRecord(cur, blk, out, depth); });
  if (!ok) out->failed = true;
  return out->pos - start;
}

// Writes the record of one item. A table's or nested collection's value
// length is patched in once its block is written; any other record is
// written behind one bounds check, as the item lies in the image (tag
// length, tag, value length, value block) with its numbers turned
// big-endian.
bool PutRecord(const ItemCursor &cur, const uint8_t *blk, DumpWriter *out, uint32_t depth) {
  const uint32_t type = BlockType(blk);
  if (type == COLLTYPE_COLL || type == COLLTYPE_TABLE) {
    cpyWord(out, cur.t);
    cpyBytes(out, cur.tag, cur.t);
    const uint32_t placeholder = out->pos;
    cpyWord(out, 0xCECE);
    const uint32_t length = strItemsAt(blk, out, depth);
    if (!out->failed) Patch(out, placeholder, length);
    return !out->failed;
  }
  uint8_t *p = Reserve(out, 4 + cur.t + cur.b);
  if (!p) return false;
  out->sum += SumBytes<true>(p, cur.tag - 2, 4 + cur.t + cur.b);  // the item from its tag length on
  out->sum -= BlockNumbersToDump(p + 4 + cur.t, blk);
  wrBE16(p, cur.t);
  wrBE16(p + 2 + cur.t, cur.b);
  return true;
}

uint32_t strItemsAt(const uint8_t *blk, DumpWriter *out, uint32_t depth) {
  const uint32_t type = BlockType(blk);
  if (type == COLLTYPE_COLL) {
    uint8_t *child = AccessColl(rd32(BlockData(blk)));
    if (!child) {
      out->failed = true;
      return 0;
    }
    const uint32_t head = out->pos;
    cpyhdr(out, type, rd16(blk + ib::tranFlag), 0xCECE);
    cpycollhdr(out, child);
    const uint32_t length = DUMP_COLL_BLOCK + stringCollAt(child, out, depth + 1);
    if (!out->failed) Patch(out, head + 4, length);
    return length;
  }
  const uint8_t *hdr = type == COLLTYPE_TABLE ? GetTablePtr(rd32(BlockData(blk))) : nullptr;
  const uint32_t length = hdr ? TableLength(hdr) - DUMP_TABLE_SHRINK : BlockLength(blk);
  if (type == COLLTYPE_TABLE && !hdr) out->failed = true;
  uint8_t *p = Reserve(out, length);
  if (!p) return 0;
  if (hdr) {
    // Head, stored table header, the data block.
    out->sum += PutHead(p, type, rd16(blk + ib::tranFlag), length) + cpytablehdr(p + ITEM_BLOCK_HEAD, hdr) +
                SumBytes<true>(p + DUMP_TABLE_BLOCK, TableData(hdr), TableDataLength(hdr));
  } else {
    out->sum += SumBytes<true>(p, blk, length);
    out->sum -= BlockNumbersToDump(p, blk);
  }
  return length;
}

// Sizes the dump of hColl and, unless size is 0, writes it: straight into
// direct when it is given and the collection holds no nested collection
// (nothing then releases the lock between the sizing and the writing, so the
// writing cannot fail half-way), else into a new work block (*image, the
// caller copies and frees it). size is the room of the caller's buffer in
// units of scale bytes per image byte. The image length (needed or
// written), or 0 on failure. REQUIRES: lock held.
uint32_t DumpLocked(uint32_t hColl, uint32_t size, uint32_t scale, uint8_t *direct, uint8_t **image) {
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  uint32_t error = 0;
  bool nested = false;
  const uint32_t needed = CalcDumpSizeAt(img, &error, 0, &nested) + DUMP_HEADER_SIZE;
  if (error || needed > DUMP_MAX_LENGTH) return 0;
  if (size == 0) return needed;
  if (size / scale < needed) return 0;
  if (direct && !nested) return StringCollection(img, direct, needed);
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

// The exported dumps: argument tests, then the image made under the lock.
uint32_t Dump(uint32_t hColl, void *buffer, uint32_t size, uint32_t scale, uint8_t *direct, uint8_t **image) {
  *image = nullptr;
  if (isBadPtr(buffer, 1, size) || isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  return DumpLocked(hColl, size, scale, direct, image);
}

}  // namespace

void cpyWord(DumpWriter *out, uint32_t value) {
  if (uint8_t *p = Reserve(out, 2)) {
    wrBE16(p, value);
    out->sum += WordSum(value);
  }
}

void cpyBytes(DumpWriter *out, const void *src, uint32_t n) {
  if (uint8_t *p = Reserve(out, n)) out->sum += SumBytes<true>(p, static_cast<const uint8_t *>(src), n);
}

void cpyhdr(DumpWriter *out, uint32_t type, uint32_t tranFlag, uint32_t length) {
  if (uint8_t *p = Reserve(out, ITEM_BLOCK_HEAD)) out->sum += PutHead(p, type, tranFlag, length);
}

uint32_t cpytablehdr(uint8_t *p, const uint8_t *h) {
  const uint32_t words[DUMP_STORED_TABLE / 2] = {rd16(h + th::magic), TableLength(h) - 36, rd16(h + th::type),
                                                  TableRows(h),        TableCols(h),        TableSelection(h)};
  uint32_t sum = 0;
  for (uint32_t k = 0; k < DUMP_STORED_TABLE / 2; ++k) {
    wrBE16(p + 2 * k, words[k]);
    sum += WordSum(words[k]);
  }
  return sum;
}

void cpycollhdr(DumpWriter *out, const uint8_t *img) {
  for (uint32_t off = 0; off < DUMP_COLL_HEAD; off += 2) cpyWord(out, rd16(img + off));
}

uint32_t CalcDumpSize(uint8_t *img, uint32_t *error) {
  *error = 0;
  bool nested = false;
  return CalcDumpSizeAt(img, error, 0, &nested);
}

uint32_t stringColl(uint8_t *img, DumpWriter *out) { return stringCollAt(img, out, 0); }

uint32_t strItems(const uint8_t *block, DumpWriter *out) { return strItemsAt(block, out, 0); }

uint32_t StringCollection(uint8_t *img, uint8_t *output, uint32_t size) {
  DumpWriter out{output, size, 0, false, 0};
  cpyWord(&out, 0);
  cpyWord(&out, COLL_MARK);
  cpyWord(&out, 0);
  out.sum = 0;  // the checksum covers the records only
  const uint32_t total = DUMP_HEADER_SIZE + stringColl(img, &out);
  if (out.failed) return 0;
  wrBE16(output, total);
  wrBE16(output + 4, out.sum & 0xFFFF);
  return total;
}

uint32_t checksum(const uint8_t *img, uint32_t length) {
  return length > DUMP_HEADER_SIZE ? SumBytes<false>(nullptr, img + DUMP_HEADER_SIZE, length - DUMP_HEADER_SIZE) & 0xFFFF
                                   : 0;
}

uint32_t isBadCollDumpHdr(const uint8_t *img, uint32_t length, uint32_t sum) {
  if (length < DUMP_HEADER_SIZE) return 1;
  return (rdBE16(img) != length || rdBE16(img + 2) != COLL_MARK || rdBE16(img + 4) != sum) ? 1 : 0;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collDumpItems(uint32_t hColl, void *buffer, uint32_t size) {
  uint8_t *work;
  const uint32_t length = Dump(hColl, buffer, size, 1, static_cast<uint8_t *>(buffer), &work);
  if (work) {
    std::memcpy(buffer, work, length);
    collFreePtr(work);
  }
  return length;
}

COLL_API(uint32_t) collDumpItemsHex(uint32_t hColl, char *text, uint32_t size) {
  uint8_t *work;
  const uint32_t length = Dump(hColl, text, size, 2, nullptr, &work);
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
