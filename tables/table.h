// table.h - the table header and its data block.
//
// A table handle points to a 48-byte header; all strings of the table
// (column names, fields row by row, five attribute strings, each
// zero-terminated) live in one data block held by a table data record of
// the state block, which several headers may share (copy on write).
#ifndef COLL_TABLES_TABLE_H
#define COLL_TABLES_TABLE_H

#include <bit>
#include <cstdint>
#include <cstring>

#include "frame/frame.h"

namespace coll {

constexpr uint32_t TABLE_MAGIC = 0x1212;
constexpr uint32_t TABLE_HEADER_SIZE = 48;
constexpr uint32_t TABLE_PAGE = 1023;
constexpr uint32_t TABLE_MAX_PAGES = 64;
constexpr uint32_t TABLE_NO_SELECTION = 0xFFFF;
constexpr uint32_t TABLE_ATTRIBUTES = 5;

// TableHdr field offsets.
namespace th {
constexpr uint32_t magic = 0;
constexpr uint32_t length = 2;
constexpr uint32_t type = 4;
constexpr uint32_t rows = 6;
constexpr uint32_t cols = 8;
constexpr uint32_t selection = 10;
constexpr uint32_t cacheValid = 12;
constexpr uint32_t cacheOffset = 16;
constexpr uint32_t cacheIndex = 20;
constexpr uint32_t rowsOffset = 24;
constexpr uint32_t attrOffset = 28;
constexpr uint32_t pages = 32;
constexpr uint32_t stamp = 36;
constexpr uint32_t dataIndex = 40;
constexpr uint32_t owner = 44;
}  // namespace th

inline uint32_t TableLength(const uint8_t *h) { return rd16(h + th::length); }
inline uint32_t TableRows(const uint8_t *h) { return rd16(h + th::rows); }
inline uint32_t TableCols(const uint8_t *h) { return rd16(h + th::cols); }
inline uint32_t TableSelection(const uint8_t *h) { return rd16(h + th::selection); }
inline uint32_t TableDataIndex(const uint8_t *h) { return rd32(h + th::dataIndex); }
inline uint32_t TableOwner(const uint8_t *h) { return rd32(h + th::owner); }
inline uint32_t TableRowsOffset(const uint8_t *h) { return rd32(h + th::rowsOffset); }
inline uint32_t TableAttrOffset(const uint8_t *h) { return rd32(h + th::attrOffset); }
inline uint32_t TablePages(const uint8_t *h) { return rd32(h + th::pages); }
// Bytes in use in the data block.
inline uint32_t TableDataLength(const uint8_t *h) { return TableLength(h) - TABLE_HEADER_SIZE; }
// The data block of a live header's record. REQUIRES: lock held.
inline uint8_t *TableData(const uint8_t *h) { return ps->tableData[TableDataIndex(h)].data; }
// Stamps the header with the current tick count.
void StampTable(uint8_t *header);

// 1 when the header breaks an invariant (or is null), else 0.
uint32_t isBadTablePtr(const uint8_t *header);

// ---- strings of the data block (no lock needed)
// Length of the string at p with its terminator; the scan stops after
// 65,535 bytes.
uint32_t strlenz(const uint8_t *p);
// Bytes, terminators included, of the n strings from p; at most 65,535.
uint32_t nstrlen(const uint8_t *p, uint32_t n);
// The data blocks hold many short strings, so positioning counts
// terminators eight bytes at a time: a mask with the high bit set exactly
// in each zero byte of a word.
inline uint64_t ZeroBytes(const uint8_t *p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  constexpr uint64_t kLow7 = 0x7F7F7F7F7F7F7F7Full;
  return ~(((w & kLow7) + kLow7) | w | kLow7);
}

// Number of zero bytes marked in a mask (one high bit per byte): a multiply
// adds the bits into the top byte, without needing a popcount instruction.
inline uint32_t CountZeros(uint64_t z) { return static_cast<uint32_t>(((z >> 7) * 0x0101010101010101ull) >> 56); }

// Byte index (0..7, in memory order) of the k-th (1-based) zero byte of a
// word whose zero mask is z. REQUIRES: z has at least k bits set.
inline uint32_t NthZero(uint64_t z, uint32_t k) {
  if constexpr (std::endian::native == std::endian::little) {
    // Byte i of the product counts the zeros in bytes 0..i; the first byte
    // whose count reaches k holds the k-th zero (counts are at most 8, so the
    // per-byte subtraction never borrows).
    constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
    uint64_t prefix = (z >> 7) * kOnes;
    uint64_t reached = ((prefix | kHigh) - kOnes * k) & kHigh;
    return static_cast<uint32_t>(std::countr_zero(reached)) / 8;
  } else {
    while (--k) z &= ~(uint64_t(1) << (63 - std::countl_zero(z)));
    return static_cast<uint32_t>(std::countl_zero(z)) / 8;
  }
}

// Offset just past the n-th string terminator from offset, never past end.
inline uint32_t SkipStrings(const uint8_t *data, uint32_t offset, uint32_t n, uint32_t end) {
  while (n > 0 && offset + 8 <= end) {
    uint64_t z = ZeroBytes(data + offset);
    uint32_t count = CountZeros(z);
    if (count >= n) return offset + NthZero(z, n) + 1;
    n -= count;
    offset += 8;
  }
  for (; n > 0 && offset < end; --n) {
    while (offset < end && data[offset] != 0) ++offset;
    if (offset < end) ++offset;
  }
  return offset;
}
// Length without terminator of the string at p, a string of the header's
// data block; never reaches past the data in use.
uint32_t TableStringLength(const uint8_t *header, const uint8_t *p);

// ---- the table object (REQUIRES: lock held)
// The body of tableCreate: a new free-standing table, or 0.
uint32_t tableCreateInternal(uint32_t cols, uint32_t type);
// A zero-filled block of size bytes and a zero-filled header holding a
// free-standing handle slot. 1, or 0 with nothing left allocated.
uint32_t CreateNewTable(uint32_t *hTable, uint8_t **header, uint8_t **block, uint32_t size);
// The lowest free table data record, or kBadIndex.
uint32_t FreeTableRecord();
// Resizes the data block of the handle's record; null (old block kept) on
// failure.
uint8_t *tableReAlloc(uint32_t hTable, uint32_t size);
// Makes room for a change of growth bytes in the data length, adding pages
// up to TABLE_MAX_PAGES; the (possibly moved) data block, or null with the
// table unchanged.
uint8_t *LimitCheck(uint8_t *header, int32_t growth, uint32_t hTable);
// Gives the header a data block of its own (copy on write): 1, or 0 with
// nothing changed.
uint32_t MakeTableDataPrivate(uint8_t *header);
// Moves the data from offset from to the end of the data so that it starts
// at offset to (the room must be there); the row index follows.
void MoveTail(uint8_t *header, uint8_t *data, uint32_t from, uint32_t to);
// The addressed string (field, column name, attribute string), or null.
// forWrite first makes the data block private (null when it cannot).
uint8_t *GetTableDataPtr(uint8_t *header, uint32_t row, uint32_t column, uint32_t forWrite);
// Offset of string number n in the data block, through the position cache.
uint32_t tablestrlen(uint8_t *header, uint32_t n);

// ---- the row index of a data record (tables/index.cpp; REQUIRES: lock
// held). It describes the bytes every header sharing the record sees; the
// changes below report what they did to the header's (private) block after
// they did it, and the index follows or is dropped.
// Frees the index of a record.
void DropRowIndex(TableDataRec *rec);
// Offset of string n through the index, built when the record has none; the
// same offset as a scan from the start of the data. kBadIndex when there is
// no index (no memory, or data with fewer strings than the header claims)
// or n lies past the first attribute string's row.
uint32_t RowIndexFind(const uint8_t *header, uint32_t n);
// The bytes from offset from to the end now start at offset to (MoveTail).
void RowIndexMoved(const uint8_t *header, uint32_t from, uint32_t to);
// A row of bytes bytes was inserted as row, the data behind it moved on
// (rows already counts it).
void RowIndexInserted(const uint8_t *header, uint32_t row, uint32_t bytes);
// Row row was deleted, the data behind it moved back (rows no longer counts
// it).
void RowIndexDeleted(const uint8_t *header, uint32_t row);

// ---- the work of the table functions on a resolved header, shared with
// the readers of table items (REQUIRES: lock held)
// Copies the addressed string (cut to size - 1 bytes, terminated); its
// length + 1, or 0 when the address names no string.
uint32_t TableGetString(uint8_t *header, uint32_t row, uint32_t column, void *buffer, uint32_t size);
// Replaces the addressed string by text: 1, or 0 with the table unchanged.
uint32_t TableSetString(uint32_t hTable, uint8_t *header, uint32_t row, uint32_t column, const char *text);
// The selected row, or 0xFFFFFFFF (a selection past the end is cleared).
uint32_t TableGetSelectionOf(uint8_t *header);
// Selects row, or clears the selection when row is not below rows.
void TableSetSelectionOf(uint8_t *header, uint32_t row);
// The first column whose name equals name without regard to case, or
// 0xFFFFFFFF.
uint32_t TableColIndexOf(uint8_t *header, const char *name);
// The first row from startRow whose field in column equals (abbrev: begins
// with) the text of at most textSize bytes without regard to case, or
// 0xFFFFFFFF.
uint32_t TableFind(uint8_t *header, const char *text, uint32_t textSize, uint32_t startRow, uint32_t column,
                   bool abbrev);
// The packed row (ROW_ATTRIBUTES, ROW_NAMES or a row index): its byte count,
// copied when it fits size; 0 for any other row.
uint32_t TableGetPackedRow(uint8_t *header, uint32_t row, void *buffer, uint32_t size);
// Stores the selected row's fields as text items of hColl named like the
// columns: 1, or 0 (no selection, a failed store). The lock is released
// while each change is communicated.
uint32_t TableRowToCollection(uint32_t hTable, uint32_t hColl);
// A new handle (owner hOwner) with a copy of header, sharing its data
// block; 0 with nothing allocated.
uint32_t TableCopyHandle(uint8_t *header, uint32_t hOwner);

// ---- clipboard text (REQUIRES: lock held; header valid)
// Writes the layout of mode (CLIP_*) into buffer, which holds
// length + 4 * rows + 104 bytes, and sets *length to the bytes written, each
// string followed by a TAB or, at a line end, CR LF; 0 when there is nothing
// to export.
void BuildClipOutput(uint32_t mode, const uint8_t *header, uint8_t *buffer, uint32_t *length);
// Steps *dataOffset past the column names, writing them in the modes that
// show names and ending their line with CR LF in the modes with rows.
void copyAndSkipNames(uint32_t mode, const uint8_t *header, uint32_t *length, uint8_t *buffer,
                      uint32_t *dataOffset);
// Walks the fields of every row from *dataOffset, writing the selected row
// (modes 1 and 3) or every row ended by CR LF (modes 2 and 4); in mode 2 the
// last LF is taken back.
void copyAndSkipRows(uint32_t mode, const uint8_t *header, uint32_t *length, uint8_t *buffer,
                     uint32_t *dataOffset);

}  // namespace coll

#endif  // COLL_TABLES_TABLE_H
