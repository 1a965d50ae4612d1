// index.cpp - the row index of a table data block: the offset of the first
// string of every row (the column names, each row of fields, the attribute
// strings), so that a field far from the position cache is found by one look
// up and a short scan within its row.
//
// The index belongs to the data record, so every header that shares the
// block shares it; a shared block never changes, and a change goes to a
// private block first. It is built on the first far lookup, kept right by
// the changes of the table functions, and dropped when it cannot be kept
// (no memory) or when it does not describe the header (the walk then serves
// until it is built again).
#include <algorithm>
#include <cstring>

#include "tables/table.h"

namespace coll {

namespace {

TableDataRec *RecordOf(const uint8_t *h) { return &ps->tableData[TableDataIndex(h)]; }

// Entries of a table of rows rows: names, each row, the attribute strings.
uint32_t EntriesFor(const uint8_t *h) { return TableRows(h) + 2; }

// Room for count entries, keeping those there; false when there is no
// memory (the index is then unchanged).
bool Reserve(TableDataRec *rec, uint32_t count) {
  if (count <= rec->rowStartCapacity) return true;
  const uint32_t capacity = count + count / 4 + 8;
  void *block = rec->rowStart ? collReAllocPtr(rec->rowStart, capacity * 2) : collAllocPtr(capacity * 2);
  if (!block) return false;
  rec->rowStart = static_cast<uint16_t *>(block);
  rec->rowStartCapacity = capacity;
  return true;
}

// Scans the data once for the start of every row. False (and no index) when
// there is no memory or when the data holds fewer strings than the header
// claims: such a table is read by the walk alone.
bool Build(const uint8_t *h, TableDataRec *rec) {
  const uint32_t count = EntriesFor(h);
  if (!Reserve(rec, count)) return false;
  const uint8_t *data = TableData(h);
  const uint32_t end = TableDataLength(h);
  const uint32_t cols = TableCols(h);
  uint16_t *s = rec->rowStart;
  uint32_t offset = 0;
  s[0] = 0;
  for (uint32_t k = 1; k < count; ++k) {
    offset = SkipStrings(data, offset, cols, end);
    s[k] = static_cast<uint16_t>(offset);
  }
  // The attribute strings follow the last row: a scan that reached the end
  // of the data ran out of strings.
  if (offset >= end) {
    DropRowIndex(rec);
    return false;
  }
  rec->rowStartCount = count;
  return true;
}

// The index of the header's record when it describes a table of rows + extra
// rows; otherwise the index is dropped and null returned.
TableDataRec *Described(const uint8_t *h, uint32_t extra) {
  TableDataRec *rec = RecordOf(h);
  if (!rec->rowStart) return nullptr;
  if (rec->rowStartCount != EntriesFor(h) + extra) {
    DropRowIndex(rec);
    return nullptr;
  }
  return rec;
}

}  // namespace

void DropRowIndex(TableDataRec *rec) {
  collFreePtr(rec->rowStart);
  rec->rowStart = nullptr;
  rec->rowStartCount = 0;
  rec->rowStartCapacity = 0;
}

uint32_t RowIndexFind(const uint8_t *h, uint32_t n) {
  TableDataRec *rec = Described(h, 0);
  if (!rec) {
    rec = RecordOf(h);
    if (!Build(h, rec)) return kBadIndex;
  }
  const uint32_t cols = TableCols(h);
  const uint32_t k = n / cols;
  if (k >= rec->rowStartCount) return kBadIndex;
  return SkipStrings(TableData(h), rec->rowStart[k], n - k * cols, TableDataLength(h));
}

void RowIndexMoved(const uint8_t *h, uint32_t from, uint32_t to) {
  TableDataRec *rec = Described(h, 0);
  if (!rec || from == to) return;
  // Offsets fit 16 bits: the move is added modulo 2^16.
  uint16_t *s = rec->rowStart;
  const uint16_t delta = static_cast<uint16_t>(to - from);
  for (uint32_t k = uint32_t(std::lower_bound(s, s + rec->rowStartCount, from) - s); k < rec->rowStartCount; ++k)
    s[k] = static_cast<uint16_t>(s[k] + delta);
}

void RowIndexInserted(const uint8_t *h, uint32_t row, uint32_t bytes) {
  TableDataRec *rec = Described(h, uint32_t(-1));
  if (!rec) return;
  if (!Reserve(rec, rec->rowStartCount + 1)) {
    DropRowIndex(rec);
    return;
  }
  // The row it displaced (or the attribute strings) moved on by bytes; the
  // new row starts where that one started.
  uint16_t *s = rec->rowStart;
  std::memmove(s + row + 2, s + row + 1, (rec->rowStartCount - row - 1) * 2);
  s[row + 1] = static_cast<uint16_t>(s[row + 2] - bytes);
  ++rec->rowStartCount;
}

void RowIndexDeleted(const uint8_t *h, uint32_t row) {
  TableDataRec *rec = Described(h, 1);
  if (!rec) return;
  uint16_t *s = rec->rowStart;
  std::memmove(s + row + 1, s + row + 2, (rec->rowStartCount - row - 2) * 2);
  --rec->rowStartCount;
}

}  // namespace coll
