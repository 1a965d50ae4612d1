// rows.cpp - whole rows of a table: insert an empty row, delete a row,
// replace a row (or the column names, or the attribute strings) from a
// packed row, and copy a row out as a packed row.
#include <cstring>

#include "platform/platform.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {
constexpr uint32_t kRowAttributes = 0xFFFFFFFAu;  // -6
constexpr uint32_t kRowNames = 0xFFFFFFFBu;       // -5
constexpr uint32_t kRowAppend = 0xFFFFFFFCu;      // -4

void AddToField(uint8_t *h, uint32_t field, int32_t d) { wr32(h + field, rd32(h + field) + d); }
void AddToLength(uint8_t *h, int32_t d) { wr16(h + th::length, TableLength(h) + d); }

// Clears the position cache when it lies in the attribute strings, which
// are about to move or change.
void ForgetAttributePosition(uint8_t *h) {
  if (rd32(h + th::cacheOffset) >= TableAttrOffset(h)) wr32(h + th::cacheValid, 0);
}

// Writes the u bytes of fields and m empty strings at p.
void PutRow(uint8_t *p, const uint8_t *fields, uint32_t u, uint32_t m) {
  if (u) std::memcpy(p, fields, u);
  std::memset(p + u, 0, m);
}

// Offset of the first field of row and the bytes of its cols strings.
uint32_t RowAt(uint8_t *h, uint32_t row, uint32_t *bytes) {
  const uint32_t cols = TableCols(h);
  uint32_t p = tablestrlen(h, (row + 1) * cols);
  *bytes = SkipStrings(TableData(h), p, cols, TableDataLength(h)) - p;
  return p;
}

uint32_t AddRow(uint32_t hTable, uint8_t *h, uint32_t row) {
  if (!MakeTableDataPrivate(h)) return 0;
  const uint32_t cols = TableCols(h);
  uint8_t *data = LimitCheck(h, int32_t(cols), hTable);
  if (!data) return 0;
  const uint32_t attr = TableAttrOffset(h);
  if (row == kRowAttributes) {
    ForgetAttributePosition(h);
    std::memset(data + attr, 0, TABLE_ATTRIBUTES);
    wr16(h + th::length, TABLE_HEADER_SIZE + attr + TABLE_ATTRIBUTES);
  } else if (row == kRowNames) {
    const int32_t d = int32_t(TableRowsOffset(h) - cols);
    wr32(h + th::cacheValid, 0);
    MoveTail(h, data, TableRowsOffset(h), cols);
    std::memset(data, 0, cols);
    AddToField(h, th::rowsOffset, -d);
    AddToField(h, th::attrOffset, -d);
    AddToLength(h, -d);
  } else if (row == kRowAppend || row <= TableRows(h)) {
    uint32_t p = attr;
    if (row == kRowAppend)
      ForgetAttributePosition(h);
    else
      p = tablestrlen(h, (row + 1) * cols);  // the cache stays on the new row
    MoveTail(h, data, p, p + cols);
    std::memset(data + p, 0, cols);
    AddToField(h, th::attrOffset, int32_t(cols));
    AddToLength(h, int32_t(cols));
    wr16(h + th::rows, TableRows(h) + 1);
    RowIndexInserted(h, row == kRowAppend ? TableRows(h) - 1 : row, cols);
  } else {
    return 0;
  }
  StampTable(h);
  return 1;
}

uint32_t SetRow(uint32_t hTable, uint8_t *h, uint32_t row, const uint8_t *fields, uint32_t size) {
  if (!MakeTableDataPrivate(h)) return 0;
  // The row takes the first n strings of the buffer, padded with empty ones.
  const uint32_t n = row == kRowAttributes ? TABLE_ATTRIBUTES : TableCols(h);
  uint32_t u = 0, k = 0;
  while (k < n && u < size) {
    u += collstrlen(fields + u, size - u) + 1;
    ++k;
  }
  const uint64_t total = uint64_t(u) + (n - k);
  if (total > TABLE_MAX_PAGES * TABLE_PAGE) return 0;  // can never fit
  const uint32_t m = n - k;
  const int32_t w = int32_t(total);
  const uint32_t attr = TableAttrOffset(h);
  uint8_t *data;
  if (row == kRowNames) {
    const int32_t d = w - int32_t(TableRowsOffset(h));
    if (!(data = LimitCheck(h, d, hTable))) return 0;
    wr32(h + th::cacheValid, 0);
    MoveTail(h, data, TableRowsOffset(h), uint32_t(w));
    PutRow(data, fields, u, m);
    AddToLength(h, d);
    AddToField(h, th::rowsOffset, d);
    AddToField(h, th::attrOffset, d);
  } else if (row == kRowAttributes) {
    ForgetAttributePosition(h);
    if (!(data = LimitCheck(h, int32_t(TABLE_HEADER_SIZE + attr) + w - int32_t(TableLength(h)), hTable)))
      return 0;
    PutRow(data + attr, fields, u, m);
    wr16(h + th::length, TABLE_HEADER_SIZE + attr + uint32_t(w));
  } else if (row == kRowAppend) {
    ForgetAttributePosition(h);
    if (!(data = LimitCheck(h, w, hTable))) return 0;
    MoveTail(h, data, attr, attr + uint32_t(w));
    PutRow(data + attr, fields, u, m);
    AddToField(h, th::attrOffset, w);
    AddToLength(h, w);
    wr16(h + th::rows, TableRows(h) + 1);
    RowIndexInserted(h, TableRows(h) - 1, uint32_t(w));
  } else if (row < TableRows(h)) {
    uint32_t o;
    const uint32_t p = RowAt(h, row, &o);
    const int32_t d = w - int32_t(o);
    if (!(data = LimitCheck(h, d, hTable))) return 0;
    MoveTail(h, data, p + o, p + uint32_t(w));
    PutRow(data + p, fields, u, m);
    AddToLength(h, d);
    AddToField(h, th::attrOffset, d);
  } else {
    return 0;
  }
  StampTable(h);
  return 1;
}

}  // namespace

uint32_t TableGetPackedRow(uint8_t *h, uint32_t row, void *buffer, uint32_t size) {
  const uint32_t end = TableDataLength(h);
  uint32_t p, n;
  if (row == kRowAttributes) {
    p = TableAttrOffset(h);
    n = end - p;
  } else if (row == kRowNames) {
    p = 0;
    n = TableRowsOffset(h);
  } else if (row < TableRows(h)) {
    p = RowAt(h, row, &n);
  } else {
    return 0;
  }
  if (n <= size && n) std::memcpy(buffer, TableData(h) + p, n);
  return n;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) tableAddRow(HTABLE hTable, uint32_t row) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? AddRow(hTable, h, row) : 0;
}

COLL_API(void) tableDeleteRow(HTABLE hTable, uint32_t row) {
  if (row >= tableRowCount(hTable)) return;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  if (!h || !MakeTableDataPrivate(h) || row >= TableRows(h)) return;
  uint32_t n;
  const uint32_t p = RowAt(h, row, &n);
  uint8_t *data = TableData(h);
  wr32(h + th::cacheValid, 0);
  MoveTail(h, data, p + n, p);
  AddToLength(h, -int32_t(n));
  AddToField(h, th::attrOffset, -int32_t(n));
  const uint32_t rows = TableRows(h) - 1;
  wr16(h + th::rows, rows);
  RowIndexDeleted(h, row);
  const uint32_t selection = TableSelection(h);
  if (selection >= rows || selection == row) wr16(h + th::selection, TABLE_NO_SELECTION);
  StampTable(h);
}

COLL_API(uint32_t) tableSetRow(HTABLE hTable, uint32_t row, const void *fields, uint32_t size) {
  const uint8_t *bytes = static_cast<const uint8_t *>(fields);
  if (size == 0 || platform::IsBadReadPtr(fields, size) || bytes[size - 1] != 0) return 0;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? SetRow(hTable, h, row, bytes, size) : 0;
}

COLL_API(uint32_t) tableGetRow(HTABLE hTable, uint32_t row, void *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size)) return 0;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableGetPackedRow(h, row, buffer, size) : 0;
}
