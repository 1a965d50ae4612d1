// load.cpp - reading dump images, as bytes or as hexadecimal text, back
// into a collection.
//
// An image is checked whole before anything is stored: its header and
// checksum, then every record's lengths and type codes and every table's
// stored header and strings. The records are then
// decoded from their big-endian form into new value blocks and stored one by
// one through the item store, which merges them with the collection's other
// items and communicates each change.
#include <cstring>

#include "serial/serial.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {

// Longest inputs that can pass the header test: the total length is 16 bits.
constexpr uint32_t kMaxImage = 0xFFFF;
constexpr uint32_t kMaxHexText = 2 * kMaxImage + 1;

// Releases a table or nested collection built for a record that could not
// be stored, unless it has already gone with its owner.
void ReleaseLoaded(uint32_t type, uint32_t h, uint32_t hOwner) {
  if (type == COLLTYPE_TABLE) {
    const uint8_t *hdr = GetTablePtr(h);
    if (hdr && TableOwner(hdr) == hOwner) DestroyTableHandle(h);
  } else if (type == COLLTYPE_COLL) {
    const uint8_t *img = GetCollPtr(h);
    if (img && CollOwner(img) == hOwner) DestroyCollHandle(h);
  }
}

uint8_t *ConvTable(const uint8_t *block, uint32_t length, uint32_t hColl) {
  StoredTable table;
  if (!ReadStoredTable(block + ITEM_BLOCK_HEAD, length - DUMP_TABLE_BLOCK, &table)) return nullptr;
  uint32_t h = BuildLoadedTable(table, false, hColl);
  if (h == 0) return nullptr;
  uint8_t *item = BuildItem(COLLTYPE_TABLE, &h, 4);
  if (!item) DestroyTableHandle(h);
  return item;
}

uint8_t *ConvColl(const uint8_t *block, uint32_t length, uint32_t hColl) {
  uint32_t child = InternalCollCreate(hColl);
  if (child == 0) return nullptr;
  convIntel(block + DUMP_COLL_BLOCK, length - DUMP_COLL_BLOCK, child);
  // Storing into the child may have released the lock.
  const uint8_t *img = GetCollPtr(child);
  if (!img || CollOwner(img) != hColl) return nullptr;
  uint8_t *item = BuildItem(COLLTYPE_COLL, &child, 4);
  if (!item) DestroyCollHandle(child);
  return item;
}

}  // namespace

uint32_t isBadDumpRecords(const uint8_t *records, uint32_t length) {
  // The ends of the nested record lists being walked. A nested list is read
  // while its position lies before the end of its block, and the enclosing
  // walk goes on at that end, wherever the last nested record ended; every
  // record must lie within the image. Each level takes at least 24 bytes.
  const uint32_t maxDepth = length / (4 + DUMP_COLL_BLOCK) + 1;
  uint32_t *ends = static_cast<uint32_t *>(collAllocPtr(maxDepth * 4));
  if (!ends) return 1;
  uint32_t depth = 0, pos = 0;
  ends[0] = length;
  uint32_t bad = 0;
  for (;;) {
    if (pos >= ends[depth]) {
      if (depth == 0) break;
      pos = ends[depth--];
      continue;
    }
    // Tag length, tag, value length (not used: the block's own decides),
    // block head.
    if (length - pos < 2 || length - pos - 2 < rdBE16(records + pos) + 2u + ITEM_BLOCK_HEAD) {
      bad = 1;
      break;
    }
    pos += 2 + rdBE16(records + pos) + 2;
    const DumpBlockHead head = convhdr(records + pos);
    if (head.length < ITEM_BLOCK_HEAD || head.length > length - pos || head.type < COLLTYPE_ITEM ||
        head.type > COLLTYPE_STRING + 1) {
      bad = 1;
      break;
    }
    const uint32_t L = head.length;
    if (head.type == COLLTYPE_TIME || head.type == COLLTYPE_NUMERIC) {
      bad = L < ITEM_BLOCK_HEAD + 4;
    } else if (head.type == COLLTYPE_TABLE) {
      // A table that cannot be read, or breaks the table rules once
      // completed, refuses the whole image.
      StoredTable table;
      bad = L < DUMP_TABLE_BLOCK ||
            !ReadStoredTable(records + pos + ITEM_BLOCK_HEAD, L - DUMP_TABLE_BLOCK, &table);
    } else if (head.type == COLLTYPE_COLL) {
      if (L < DUMP_COLL_BLOCK) {
        bad = 1;
      } else {
        ends[++depth] = pos + L;
        pos += DUMP_COLL_BLOCK;
        continue;
      }
    }
    if (bad) break;
    pos += L;
  }
  collFreePtr(ends);
  return bad;
}

DumpBlockHead convhdr(const uint8_t *block) {
  uint32_t pos = 0;
  DumpBlockHead head;
  head.type = convWord(block, &pos);
  head.tranFlag = convWord(block, &pos);
  head.length = convWord(block, &pos);
  return head;
}

uint32_t ConvertToIntel(const uint8_t *records, uint32_t length, uint32_t hColl) {
  return convIntel(records, length, hColl);
}

uint32_t convIntel(const uint8_t *records, uint32_t length, uint32_t hColl) {
  if (!AccessColl(hColl)) return 0;
  uint32_t pos = 0;
  // Storing releases the lock while the change is communicated: stop when
  // the collection has gone meanwhile.
  while (pos < length && GetCollPtr(hColl)) {
    const uint32_t n = convWord(records, &pos);
    const char *tag = reinterpret_cast<const char *>(records + pos);
    pos += n;
    convWord(records, &pos);  // the value length; the block's own decides
    // The tag ends at its first zero byte, if it holds one. An empty tag is
    // refused by the store once the value has been rebuilt.
    const uint32_t tagLength = collstrlen(tag, n);
    uint8_t *item = nullptr;
    pos += convItems(records + pos, hColl, &item);
    if (!item) continue;
    const uint32_t type = BlockType(item);
    const uint32_t h = type == COLLTYPE_TABLE || type == COLLTYPE_COLL ? rd32(BlockData(item)) : 0;
    if (!SetItemN(hColl, tag, tagLength, item, 1)) ReleaseLoaded(type, h, hColl);
  }
  return pos;
}

uint32_t convItems(const uint8_t *block, uint32_t hColl, uint8_t **item) {
  const DumpBlockHead head = convhdr(block);
  const uint32_t L = head.length;
  switch (head.type) {
    case COLLTYPE_TIME:
    case COLLTYPE_NUMERIC:
      // The value is the first four data bytes; any after it stay as they are.
      *item = BuildItem(head.type, block + ITEM_BLOCK_HEAD, L - ITEM_BLOCK_HEAD);
      if (*item) wr32(BlockData(*item), rdBE32(block + ITEM_BLOCK_HEAD));
      break;
    case COLLTYPE_TABLE:
      *item = ConvTable(block, L, hColl);
      break;
    case COLLTYPE_COLL:
      *item = ConvColl(block, L, hColl);
      break;
    default:
      *item = BuildItem(head.type, block + ITEM_BLOCK_HEAD, L - ITEM_BLOCK_HEAD);
      break;
  }
  return L;
}

uint32_t LoadItems(uint32_t hColl, const uint8_t *image, uint32_t length) {
  if (isBadCollDumpHdr(image, length, checksum(image, length))) return 0;
  const uint8_t *records = image + DUMP_HEADER_SIZE;
  if (isBadDumpRecords(records, length - DUMP_HEADER_SIZE)) return 0;
  ConvertToIntel(records, length - DUMP_HEADER_SIZE, hColl);
  return 1;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collLoadItems(uint32_t hColl, const void *data, uint32_t length) {
  if (isBadCollHandle(hColl) || isBadPtr(data, 0, length) || length < DUMP_HEADER_SIZE) return 0;
  if (length > kMaxImage) return 0;
  // A private copy: the records are checked, then read while the lock is
  // released for communication, and the caller's bytes are never written.
  uint8_t *copy = static_cast<uint8_t *>(collAllocPtr(length));
  if (!copy) return 0;
  std::memcpy(copy, data, length);
  uint32_t result;
  {
    LockGuard lock;
    result = LoadItems(hColl, copy, length);
  }
  collFreePtr(copy);
  return result;
}

COLL_API(uint32_t) collLoadItemsHex(uint32_t hColl, const char *text, uint32_t length) {
  if (isBadCollHandle(hColl) || isBadPtr(text, 0, length) || length < 8) return 0;
  if (length > kMaxHexText) return 0;
  uint8_t *image = static_cast<uint8_t *>(collAllocPtr(length / 2));
  if (!image) return 0;
  // Two digits per byte, the low four bits first; an odd last digit belongs
  // to no byte but must still be a digit.
  bool accepted = true;
  for (uint32_t i = 0; i < length && accepted; ++i) {
    const char c = text[i];
    uint32_t v = 0;
    if (c >= '0' && c <= '9')
      v = uint32_t(c - '0');
    else if (c >= 'A' && c <= 'F')
      v = uint32_t(c - 'A' + 10);
    else if (c >= 'a' && c <= 'f')
      v = uint32_t(c - 'a' + 10);
    else
      accepted = false;
    if (accepted && i / 2 < length / 2) image[i / 2] = static_cast<uint8_t>(image[i / 2] + (i % 2 ? v << 4 : v));
  }
  uint32_t result = 0;
  if (accepted) {
    LockGuard lock;
    result = LoadItems(hColl, image, length / 2);
  }
  collFreePtr(image);
  return result;
}
