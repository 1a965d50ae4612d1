// fields.cpp - single strings of a table (fields, column names, attribute
// strings), counts, selection, column searches, comparison, the copy of the
// selected row into a collection, and second handles on one table.
#include <algorithm>
#include <cstring>

#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {
constexpr uint32_t kNotFound = 0xFFFFFFFFu;
constexpr uint32_t kRowHeader = 0xFFFFFFFFu;

// Columns -1 to -5 of row -1 name the attribute strings.
bool IsAttributeColumn(uint32_t column) { return column >= 0xFFFFFFFBu; }

// Equal lengths and equal bytes.
bool SameBytes(const uint8_t *a, uint32_t na, const uint8_t *b, uint32_t nb) {
  return na == nb && (na == 0 || std::memcmp(a, b, na) == 0);
}
}  // namespace

uint32_t TableGetString(uint8_t *h, uint32_t row, uint32_t column, void *buffer, uint32_t size) {
  uint8_t *p = GetTableDataPtr(h, row, column, 0);
  if (!p) return 0;
  uint32_t n = TableStringLength(h, p);
  cpyOutput(buffer, size, p, n);
  return n + 1;
}

uint32_t TableSetString(uint32_t hTable, uint8_t *h, uint32_t row, uint32_t column, const char *text) {
  uint8_t *p = GetTableDataPtr(h, row, column, 0);
  if (!p) return 0;
  const uint32_t offset = uint32_t(p - TableData(h));
  // The old string with its terminator (a loaded image may end without one).
  const uint32_t o = std::min(TableStringLength(h, p) + 1, TableDataLength(h) - offset);
  // A text longer than the largest data block can never fit.
  const uint32_t n = collstrlen(text, TABLE_MAX_PAGES * TABLE_PAGE) + 1;
  const int32_t d = int32_t(n) - int32_t(o);
  if (!MakeTableDataPrivate(h)) return 0;
  uint8_t *data = LimitCheck(h, d, hTable);
  if (!data) return 0;
  wr32(h + th::cacheValid, 0);
  MoveTail(h, data, offset + o, offset + n);
  std::memcpy(data + offset, text, n - 1);
  data[offset + n - 1] = 0;
  wr16(h + th::length, TableLength(h) + d);
  if (row != kRowHeader) {
    wr32(h + th::attrOffset, TableAttrOffset(h) + d);
  } else if (!IsAttributeColumn(column)) {
    wr32(h + th::rowsOffset, TableRowsOffset(h) + d);
    wr32(h + th::attrOffset, TableAttrOffset(h) + d);
  }
  StampTable(h);
  return 1;
}

uint32_t TableGetSelectionOf(uint8_t *h) {
  uint32_t selection = TableSelection(h);
  if (selection < TableRows(h)) return selection;
  wr16(h + th::selection, TABLE_NO_SELECTION);
  return kNotFound;
}

void TableSetSelectionOf(uint8_t *h, uint32_t row) {
  wr16(h + th::selection, row < TableRows(h) ? row : TABLE_NO_SELECTION);
}

uint32_t TableColIndexOf(uint8_t *h, const char *name) {
  const uint8_t *data = TableData(h);
  const uint32_t end = TableRowsOffset(h);
  const uint32_t cols = TableCols(h);
  const uint32_t n = collstrlen(name, 0xFFFFFFFFu);
  uint32_t offset = 0;
  for (uint32_t c = 0; c < cols && offset < end; ++c) {
    uint32_t len = collstrlen(data + offset, end - offset);
    if (len == n && AsciiStrnicmp(data + offset, name, n) == 0) return c;
    offset += len + 1;
  }
  return kNotFound;
}

uint32_t TableFind(uint8_t *h, const char *text, uint32_t textSize, uint32_t startRow, uint32_t column,
                   bool abbrev) {
  const uint32_t rows = TableRows(h);
  const uint32_t cols = TableCols(h);
  if (column >= cols || startRow >= rows) return kNotFound;
  const uint32_t t = textSize ? collstrlen(text, textSize) : 0;
  const uint8_t *data = TableData(h);
  const uint32_t end = TableDataLength(h);
  uint32_t offset = tablestrlen(h, (startRow + 1) * cols + column);
  const uint8_t first = t ? AsciiLower(static_cast<uint8_t>(text[0])) : 0;
  for (uint32_t r = startRow; r < rows && offset < end; ++r) {
    // The field's length and the next row's start. Rows are mostly short:
    // when one word holds the whole row both come from its zero bytes.
    uint32_t len, nextRow;
    uint64_t z = offset + 8 <= end ? ZeroBytes(data + offset) : 0;
    if (z != 0 && CountZeros(z) >= cols) {
      len = NthZero(z, 1);
      nextRow = offset + NthZero(z, cols) + 1;
    } else {
      uint32_t next = SkipStrings(data, offset, 1, end);
      len = next - offset - (data[next - 1] == 0 ? 1 : 0);
      nextRow = cols > 1 ? SkipStrings(data, next, cols - 1, end) : next;
    }
    if ((abbrev ? len >= t : len == t) &&
        (t == 0 || (AsciiLower(data[offset]) == first && AsciiEqualN(data + offset, text, t))))
      return r;
    offset = nextRow;
  }
  return kNotFound;
}

uint32_t TableRowToCollection(uint32_t hTable, uint32_t hColl) {
  uint8_t *h = GetTablePtr(hTable);
  if (!h) return 0;
  const uint32_t cols = TableCols(h);
  for (uint32_t c = 0; c < cols; ++c) {
    // Storing communicates the change, which releases the lock: the header
    // is looked up again for every column.
    h = GetTablePtr(hTable);
    if (!h) return 0;
    const uint32_t row = TableSelection(h);
    if (row >= TableRows(h) || c >= TableCols(h)) return 0;
    const uint8_t *name = GetTableDataPtr(h, kRowHeader, c, 0);
    const uint8_t *field = GetTableDataPtr(h, row, c, 0);
    if (!name || !field) return 0;
    const uint32_t nameLength = TableStringLength(h, name);
    if (nameLength == 0) return 0;
    char *tag = DupText(name, nameLength);
    uint8_t *block = BuildItem(COLLTYPE_STRING, field, TableStringLength(h, field));
    uint32_t stored = tag && block ? SetItemN(hColl, tag, nameLength, block, 1) : 0;
    if (!stored && !tag) collFreePtr(block);
    collFreePtr(tag);
    if (!stored) return 0;
  }
  return 1;
}

uint32_t TableCopyHandle(uint8_t *source, uint32_t hOwner) {
  uint8_t *h = static_cast<uint8_t *>(collAllocPtr(TABLE_HEADER_SIZE));
  if (!h) return 0;
  std::memcpy(h, source, TABLE_HEADER_SIZE);
  uint32_t hTable = SetTablePtr(h, hOwner);
  if (hTable == 0) {
    collFreePtr(h);
    return 0;
  }
  ++ps->tableData[TableDataIndex(h)].refCount;
  return hTable;
}

namespace {
uint32_t FindInTable(uint32_t hTable, const char *text, uint32_t textSize, uint32_t startRow, uint32_t column,
                     bool abbrev) {
  if (isBadPtr(text, 0, textSize)) return kNotFound;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableFind(h, text, textSize, startRow, column, abbrev) : kNotFound;
}
}  // namespace

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) tableSetItem(HTABLE hTable, int32_t row, uint32_t column, const char *text) {
  if (isBadPtr(text, 0, 1)) return 0;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableSetString(hTable, h, uint32_t(row), column, text) : 0;
}

COLL_API(uint32_t) tableSetField(HTABLE hTable, int32_t row, uint32_t column, const char *text) {
  return tableSetItem(hTable, row, column, text);
}

COLL_API(uint32_t) tableGetItem(HTABLE hTable, int32_t row, uint32_t column, char *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size)) return 0;
  if (size) buffer[0] = 0;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableGetString(h, uint32_t(row), column, buffer, size) : 0;
}

COLL_API(uint32_t) tableGetField(HTABLE hTable, int32_t row, uint32_t column, char *buffer, uint32_t size) {
  return tableGetItem(hTable, row, column, buffer, size);
}

COLL_API(uint32_t) tableRowCount(HTABLE hTable) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableRows(h) : kNotFound;
}

COLL_API(uint32_t) tableColCount(HTABLE hTable) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableCols(h) : kNotFound;
}

COLL_API(uint32_t) tableGetType(HTABLE hTable) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? rd16(h + th::type) : kNotFound;
}

COLL_API(uint32_t) tableGetStamp(HTABLE hTable) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? rd32(h + th::stamp) : 0;
}

COLL_API(uint32_t) tableGetSelection(HTABLE hTable) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableGetSelectionOf(h) : kNotFound;
}

COLL_API(uint32_t) tableSetSelection(HTABLE hTable, uint32_t row) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  if (!h) return 0;
  TableSetSelectionOf(h, row);
  return 1;
}

COLL_API(uint32_t) tableGetColIndex(HTABLE hTable, const char *name) {
  if (isBadPtr(name, 0, 1)) return kNotFound;
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableColIndexOf(h, name) : kNotFound;
}

COLL_API(uint32_t) tableFindField(HTABLE hTable, const char *text, uint32_t textSize, uint32_t startRow,
                                  uint32_t column) {
  return FindInTable(hTable, text, textSize, startRow, column, false);
}

COLL_API(uint32_t) tableFindAbbrev(HTABLE hTable, const char *text, uint32_t textSize, uint32_t startRow,
                                   uint32_t column) {
  return FindInTable(hTable, text, textSize, startRow, column, true);
}

COLL_API(uint32_t) tableCompare(HTABLE hFirst, HTABLE hSecond, uint32_t startRow, uint32_t flags) {
  LockGuard lock;
  uint8_t *a = GetTablePtr(hFirst);
  uint8_t *b = GetTablePtr(hSecond);
  if (!a || !b) return kNotFound;
  const uint32_t rowsA = TableRows(a), rowsB = TableRows(b);
  if (TableData(a) == TableData(b)) return rowsA;
  const uint32_t cols = TableCols(a);
  if (cols != TableCols(b) || startRow > rowsA || startRow > rowsB) return kNotFound;
  const uint8_t *da = TableData(a), *db = TableData(b);
  const uint32_t endA = TableDataLength(a), endB = TableDataLength(b);
  const uint32_t attrA = TableAttrOffset(a), attrB = TableAttrOffset(b);
  if (attrA > endA || attrB > endB || !SameBytes(da + attrA, endA - attrA, db + attrB, endB - attrB))
    return kNotFound;
  if (!SameBytes(da, TableRowsOffset(a), db, TableRowsOffset(b))) return kNotFound;
  uint32_t firstA = startRow, firstB = startRow;
  if (flags & 1) {
    if (rowsA > rowsB)
      firstA += rowsA - rowsB;
    else
      firstB += rowsB - rowsA;
  }
  uint32_t i = startRow;
  uint32_t pa = i < rowsA && i < rowsB ? tablestrlen(a, (firstA + 1) * cols) : 0;
  uint32_t pb = i < rowsA && i < rowsB ? tablestrlen(b, (firstB + 1) * cols) : 0;
  for (; i < rowsA && i < rowsB; ++i) {
    uint32_t na = SkipStrings(da, pa, cols, endA), nb = SkipStrings(db, pb, cols, endB);
    if (!SameBytes(da + pa, na - pa, db + pb, nb - pb)) return i;
    pa = na;
    pb = nb;
  }
  return i;
}

COLL_API(uint32_t) tableDataToCollection(HTABLE hTable, HCOLL hColl) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  if (!h || TableSelection(h) >= TableRows(h)) return 0;
  return TableRowToCollection(hTable, hColl);
}

COLL_API(HTABLE) tableCopy(HTABLE hTable, uint32_t) {
  LockGuard lock;
  uint8_t *h = GetTablePtr(hTable);
  return h ? TableCopyHandle(h, 0) : 0;
}
