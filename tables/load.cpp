// load.cpp - tables rebuilt from their stored form: the table item of a dump
// and tableLoad, which takes a dump image whose first item is a table.
#include <cstring>

#include "serial/serial.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {
// Largest table length whose data block still fits TABLE_MAX_PAGES pages
// (pages = length / TABLE_PAGE + 1).
constexpr uint32_t kMaxLoadedLength = TABLE_MAX_PAGES * TABLE_PAGE - 1;
}  // namespace

bool ReadStoredTable(const uint8_t *stored, uint32_t available, StoredTable *t) {
  uint32_t pos = 0;
  t->magic = convWord(stored, &pos);
  const uint32_t storedLength = convWord(stored, &pos);
  t->type = convWord(stored, &pos);
  t->rows = convWord(stored, &pos);
  t->cols = convWord(stored, &pos);
  t->selection = convWord(stored, &pos);
  if (storedLength < DUMP_STORED_TABLE || storedLength + 36 > 0xFFFF) return false;
  t->dataLength = storedLength - DUMP_STORED_TABLE;
  if (t->dataLength > available || t->magic != TABLE_MAGIC || t->cols == 0) return false;
  t->data = stored + DUMP_STORED_TABLE;

  // Count the strings, never past the data, noting where the names and the
  // rows end.
  const uint64_t expected = uint64_t(t->cols) * (t->rows + 1) + TABLE_ATTRIBUTES;
  const uint64_t namesEnd = t->cols, rowsEnd = uint64_t(t->cols) * (t->rows + 1);
  uint64_t count = 0, rowsOffset = 0, attrOffset = 0;
  uint32_t offset = 0, cutOff = 0;
  while (count < expected && offset < t->dataLength) {
    const void *zero = std::memchr(t->data + offset, 0, t->dataLength - offset);
    if (zero) {
      offset = static_cast<uint32_t>(static_cast<const uint8_t *>(zero) - t->data) + 1;
    } else {
      offset = t->dataLength;
      cutOff = 1;  // its terminator comes from the zero fill of the copy
    }
    ++count;
    if (count == namesEnd) rowsOffset = offset + cutOff;
    if (count == rowsEnd) attrOffset = offset + cutOff;
  }
  // Strings missing at the end are empty: one byte each, zeros after the
  // copied data. A string cut off by the end of the data counts as one
  // string; its terminator is the first of those zeros, so the data then
  // holds one string fewer than expected, or ends without its last
  // terminator, and a scan finds the rest of the strings empty at its end.
  const uint64_t end = uint64_t(offset) + cutOff;
  if (count < namesEnd) rowsOffset = end + (namesEnd - count);
  if (count < rowsEnd) attrOffset = end + (rowsEnd - count);
  const uint64_t length = uint64_t(storedLength) + 36 + (expected - count);
  if (length > kMaxLoadedLength) return false;  // never below 54: at least six strings
  t->length = static_cast<uint32_t>(length);
  t->rowsOffset = static_cast<uint32_t>(rowsOffset);
  t->attrOffset = static_cast<uint32_t>(attrOffset);
  t->complete = count == expected && cutOff == 0;
  return true;
}

uint32_t BuildLoadedTable(const StoredTable &t, bool inPlace, uint32_t hOwner) {
  const uint32_t index = FreeTableRecord();
  if (index == kBadIndex) return 0;
  const uint32_t pages = t.length / TABLE_PAGE + 1;
  const bool copy = !inPlace || !t.complete;
  uint8_t *hdr = static_cast<uint8_t *>(collAllocPtr(TABLE_HEADER_SIZE));
  uint8_t *data = hdr && copy ? static_cast<uint8_t *>(collAllocPtr(pages * TABLE_PAGE)) : nullptr;
  if (!hdr || (copy && !data)) {
    collFreePtr(hdr);
    return 0;
  }
  if (copy)
    std::memcpy(data, t.data, t.dataLength);
  else
    data = const_cast<uint8_t *>(t.data);  // read only: changes copy it first
  wr16(hdr + th::magic, t.magic);
  wr16(hdr + th::length, t.length);
  wr16(hdr + th::type, t.type);
  wr16(hdr + th::rows, t.rows);
  wr16(hdr + th::cols, t.cols);
  wr16(hdr + th::selection, t.selection);
  // The position cache as locating the first row leaves it.
  wr32(hdr + th::cacheValid, 1);
  wr32(hdr + th::cacheIndex, t.cols);
  wr32(hdr + th::cacheOffset, t.rowsOffset);
  wr32(hdr + th::rowsOffset, t.rowsOffset);
  wr32(hdr + th::attrOffset, t.attrOffset);
  wr32(hdr + th::pages, pages);
  wr32(hdr + th::dataIndex, index);
  StampTable(hdr);
  TableDataRec &rec = ps->tableData[index];
  rec = TableDataRec{data, 1, copy ? 1u : 0u};
  const uint32_t h = SetTablePtr(hdr, hOwner);
  if (h == 0) {
    rec = TableDataRec{nullptr, 0, 0};
    if (copy) collFreePtr(data);
    collFreePtr(hdr);
  }
  return h;
}

}  // namespace coll

using namespace coll;

// The image: dump header (6 bytes), the first item's tag length T and tag,
// its value length and block head (8 bytes), then the stored table header
// at 16 + T and the strings at 28 + T. Only the tag length, the stored
// header and the strings are read, never past size bytes.
COLL_API(HTABLE) tableLoad(const void *image, uint32_t size, uint32_t mode, uint32_t, uint32_t) {
  if (isBadPtr(image, 0, size)) return 0;
  const uint8_t *img = bytes(image);
  if (size < 8) return 0;
  const uint32_t stored = rdBE16(img + 6) + 16;
  if (size < stored || size - stored < DUMP_STORED_TABLE) return 0;
  StoredTable table;
  if (!ReadStoredTable(img + stored, size - stored - DUMP_STORED_TABLE, &table)) return 0;
  // A size of 0xFFFFFFFF tested one byte only: test what will be read.
  if (isBadPtr(image, 0, stored + DUMP_STORED_TABLE + table.dataLength)) return 0;
  LockGuard lock;
  return BuildLoadedTable(table, mode == 1, 0);
}
