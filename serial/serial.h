// serial.h - dump images: a collection's items as a big-endian byte image
// with a checksum, its writer, its header test and its reader.
//
// Image: u16 total length, u16 mark 0xCE00, u16 checksum (byte sum of
// everything after the header), then item records: u16 tag length n, n tag
// bytes, u16 value length L, and an L-byte value block (u16 type, u16
// tranFlag, u16 L, payload). Every number is big-endian whatever the
// machine; they are read and written byte by byte, never swapped in place.
#ifndef COLL_SERIAL_SERIAL_H
#define COLL_SERIAL_SERIAL_H

#include <cstdint>

#include "frame/frame.h"

namespace coll {

constexpr uint32_t DUMP_HEADER_SIZE = 6;
constexpr uint32_t DUMP_MAX_LENGTH = 65534;  // longest image a dump writes
constexpr uint32_t DUMP_STORED_TABLE = 12;   // stored table header: six words
constexpr uint32_t DUMP_COLL_HEAD = 14;      // nested collection head: seven words
// A table value block: block head + stored table header, then the strings.
constexpr uint32_t DUMP_TABLE_BLOCK = 6 + DUMP_STORED_TABLE;
// A nested collection value block: block head + collection head, then records.
constexpr uint32_t DUMP_COLL_BLOCK = 6 + DUMP_COLL_HEAD;
// The table length minus the value length of its block in a dump (48 - 18).
constexpr uint32_t DUMP_TABLE_SHRINK = 30;

// ---- writer (REQUIRES: lock held)

// Where a dump is being written: never past size bytes; failed is set
// instead of writing past the end. sum is the byte sum of what the writers
// below have written (placeholders counted as they end up).
struct DumpWriter {
  uint8_t *buf;
  uint32_t size;
  uint32_t pos;
  bool failed;
  uint32_t sum;
};
void cpyWord(DumpWriter *out, uint32_t value);
void cpyBytes(DumpWriter *out, const void *bytes, uint32_t n);
void cpyhdr(DumpWriter *out, uint32_t type, uint32_t tranFlag, uint32_t length);
// The stored table header (DUMP_STORED_TABLE bytes) at p; their byte sum.
uint32_t cpytablehdr(uint8_t *p, const uint8_t *tableHeader);
void cpycollhdr(DumpWriter *out, const uint8_t *collImage);

// Bytes of the item records of the collection image (the dump header not
// included). Sets *error to 1 when a table or nested collection cannot be
// found or the image is damaged (a type code outside 1 to 7, a length that
// does not fit); the result then means nothing. Nested collections are
// reached with AccessColl, which may release the lock: the walk runs over a
// private copy of each image.
uint32_t CalcDumpSize(uint8_t *img, uint32_t *error);
// Writes the whole dump image (header and records) of the collection into
// output, of size bytes. The image length, or 0 when it does not fit or a
// table or nested collection has gone.
uint32_t StringCollection(uint8_t *img, uint8_t *output, uint32_t size);
// Writes the item records of a collection image; the bytes written.
uint32_t stringColl(uint8_t *img, DumpWriter *out);
// Writes one stored value block; L, its length as written.
uint32_t strItems(const uint8_t *block, DumpWriter *out);

// ---- header test (no lock needed)
// Byte sum of img[6 .. length - 1] modulo 65536; 0 when length <= 6.
uint32_t checksum(const uint8_t *img, uint32_t length);
// 0 when the dump header is good for an image of length bytes whose
// computed checksum is sum; 1 when it is bad.
uint32_t isBadCollDumpHdr(const uint8_t *img, uint32_t length, uint32_t sum);
// 1 when the item records (length bytes, dump header dropped) cannot be
// read: a tag or block running past the image, a block shorter than its
// head, a type code outside 1 to 7, a time or number block shorter than 10
// bytes, a table whose stored data runs past its block or that
// ReadStoredTable refuses. The value length word is not read (the block's
// own length decides), and a nested record list is read while its position
// lies before the end of its block, the enclosing list going on at that
// end. Else 0.
uint32_t isBadDumpRecords(const uint8_t *records, uint32_t length);

// ---- reader (REQUIRES: lock held; the records must have passed
// isBadDumpRecords and must stay unchanged while the lock is released)
inline uint32_t convWord(const uint8_t *p, uint32_t *pos) {
  uint32_t v = rdBE16(p + *pos);
  *pos += 2;
  return v;
}
inline uint32_t convLong(const uint8_t *p, uint32_t *pos) {
  uint32_t v = rdBE32(p + *pos);
  *pos += 4;
  return v;
}
// A value block head as it stands in an image.
struct DumpBlockHead {
  uint32_t type;
  uint32_t tranFlag;
  uint32_t length;
};
DumpBlockHead convhdr(const uint8_t *block);

// Stores the items of the records into hColl, each with communication;
// the bytes consumed, or 0 when hColl cannot be reached.
uint32_t ConvertToIntel(const uint8_t *records, uint32_t length, uint32_t hColl);
uint32_t convIntel(const uint8_t *records, uint32_t length, uint32_t hColl);
// Rebuilds the value block at block for hColl: *item receives a new heap
// ItemBlock in the machine's order (a table or nested collection as a new
// handle owned by hColl), or null when the value cannot be rebuilt. The
// result is L, the block's length in the image.
uint32_t convItems(const uint8_t *block, uint32_t hColl, uint8_t **item);

// Loads a private dump image of length bytes into hColl: 1 when its header
// and records are sound (whatever happens to single items), else 0 with
// nothing stored. The image stays unchanged.
uint32_t LoadItems(uint32_t hColl, const uint8_t *image, uint32_t length);

// ---- stored tables (dumps and tableLoad)

// A stored table header and its strings, read and checked.
struct StoredTable {
  uint32_t magic, length, type, rows, cols, selection;  // length: as rebuilt
  const uint8_t *data;                                  // the stored strings
  uint32_t dataLength;                                  // stored length - 12
  uint32_t rowsOffset, attrOffset;
  // Every expected string is present and terminated within dataLength, so
  // the strings can be used where they lie.
  bool complete;
};
// Reads the big-endian stored table header at stored and scans its strings,
// which follow it, within at most available bytes after the header. Strings
// are counted while fewer than expected are counted and the data is not
// passed; one that starts in the data counts, even when the data ends
// before its terminator. Each string short of the expected number is added
// as an empty one (one byte). False when the stored length is below 12 or
// overflows, when the data does not fit in available bytes, or when the
// table would break the header invariants (magic, no columns, more than 64
// pages once completed).
bool ReadStoredTable(const uint8_t *stored, uint32_t available, StoredTable *table);
// A new table handle owned by hOwner (0: free-standing) for the table read,
// with a fresh data record (a heap copy, or the strings where they lie when
// inPlace and the table is complete) and a fresh stamp. 0 with nothing kept
// when there is no memory, record or handle slot. REQUIRES: lock held.
uint32_t BuildLoadedTable(const StoredTable &table, bool inPlace, uint32_t hOwner);

}  // namespace coll

#endif  // COLL_SERIAL_SERIAL_H
