// table.cpp - the table object: header invariants, creation and destruction,
// the data block's growth, copy on write and the string position cache.
#include "tables/table.h"

#include <bit>
#include <cstring>

#include "platform/platform.h"
#include "store/store.h"

namespace coll {

namespace {
constexpr uint32_t kScanLimit = 65535;
constexpr uint32_t kRowHeader = 0xFFFFFFFFu;
// Scanning this many short strings costs about what a row index lookup does.
constexpr uint32_t kNearStrings = 16;

// Pages of TABLE_PAGE bytes that hold size bytes.
uint32_t PagesFor(uint32_t size) { return (size + TABLE_PAGE - 1) / TABLE_PAGE; }

// Byte index of the k-th zero byte counted backwards from the word's end.
inline uint32_t NthZeroFromEnd(uint64_t z, uint32_t k) {
  if constexpr (std::endian::native == std::endian::little) {
    while (--k) z &= ~(uint64_t(1) << (63 - std::countl_zero(z)));
    return 7 - static_cast<uint32_t>(std::countl_zero(z)) / 8;
  } else {
    while (--k) z &= z - 1;
    return 7 - static_cast<uint32_t>(std::countr_zero(z)) / 8;
  }
}

// Offset of the string k strings before the one starting at offset; 0 when
// there are fewer.
uint32_t SkipStringsBack(const uint8_t *data, uint32_t offset, uint32_t k) {
  // The start wanted follows the (k + 1)-th zero before offset.
  uint32_t need = k + 1;
  uint32_t q = offset;  // scans data[0..q)
  while (q >= 8) {
    uint64_t z = ZeroBytes(data + q - 8);
    uint32_t count = CountZeros(z);
    if (count >= need) return q - 8 + NthZeroFromEnd(z, need) + 1;
    need -= count;
    q -= 8;
  }
  while (q > 0) {
    if (data[--q] == 0 && --need == 0) return q + 1;
  }
  return 0;
}
}  // namespace

uint32_t isBadTablePtr(const uint8_t *h) {
  if (!h) return 1;
  if (rd16(h + th::magic) != TABLE_MAGIC || TableCols(h) == 0 || TableLength(h) <= TABLE_HEADER_SIZE ||
      rd32(h + th::attrOffset) < rd32(h + th::rowsOffset) || rd32(h + th::pages) > TABLE_MAX_PAGES)
    return 1;
  // The data record must exist and be in use.
  uint32_t index = TableDataIndex(h);
  if (index >= kSlots || ps->tableData[index].data == nullptr) return 1;
  // The attribute strings start within the data.
  return rd32(h + th::attrOffset) > TableDataLength(h) ? 1 : 0;
}

void StampTable(uint8_t *h) { wr32(h + th::stamp, platform::TickCount()); }

uint32_t strlenz(const uint8_t *p) {
  uint32_t n = 0;
  while (n < kScanLimit && p[n] != 0) ++n;
  return n < kScanLimit ? n + 1 : kScanLimit;
}

uint32_t nstrlen(const uint8_t *p, uint32_t n) {
  uint32_t total = 0;
  for (uint32_t i = 0; i < n && total < kScanLimit; ++i) total += strlenz(p + total);
  return total < kScanLimit ? total : kScanLimit;
}


uint32_t TableStringLength(const uint8_t *h, const uint8_t *p) {
  const uint8_t *data = TableData(h);
  uint32_t offset = uint32_t(p - data);
  uint32_t end = TableDataLength(h);
  return offset < end ? collstrlen(p, end - offset) : 0;
}

uint32_t CreateNewTable(uint32_t *hTable, uint8_t **header, uint8_t **block, uint32_t size) {
  uint8_t *data = static_cast<uint8_t *>(collAllocPtr(size));
  uint8_t *hdr = data ? static_cast<uint8_t *>(collAllocPtr(TABLE_HEADER_SIZE)) : nullptr;
  uint32_t h = hdr ? SetTablePtr(hdr, 0) : 0;
  if (h == 0) {
    collFreePtr(hdr);
    collFreePtr(data);
    return 0;
  }
  *hTable = h;
  *header = hdr;
  *block = data;
  return 1;
}

uint32_t FreeTableRecord() {
  for (uint32_t i = 0; i < kSlots; ++i)
    if (ps->tableData[i].data == nullptr) return i;
  return kBadIndex;
}

uint32_t tableCreateInternal(uint32_t cols, uint32_t type) {
  // Empty column names and attribute strings must fit the largest block and
  // the 16-bit length word.
  if (cols == 0 || cols > TABLE_MAX_PAGES * TABLE_PAGE - TABLE_ATTRIBUTES) return 0;
  uint32_t index = FreeTableRecord();
  if (index == kBadIndex) return 0;
  uint32_t pages = PagesFor(cols + TABLE_ATTRIBUTES);
  uint32_t h;
  uint8_t *hdr, *data;
  if (!CreateNewTable(&h, &hdr, &data, pages * TABLE_PAGE)) return 0;
  wr16(hdr + th::magic, TABLE_MAGIC);
  wr16(hdr + th::length, TABLE_HEADER_SIZE + cols + TABLE_ATTRIBUTES);
  wr16(hdr + th::type, type);
  wr16(hdr + th::rows, 0);
  wr16(hdr + th::cols, cols);
  wr16(hdr + th::selection, TABLE_NO_SELECTION);
  wr32(hdr + th::cacheValid, 0);
  wr32(hdr + th::rowsOffset, cols);
  wr32(hdr + th::attrOffset, cols);
  wr32(hdr + th::pages, pages);
  StampTable(hdr);
  wr32(hdr + th::dataIndex, index);
  ps->tableData[index] = TableDataRec{data, 1, 1};
  return h;
}

uint8_t *tableReAlloc(uint32_t hTable, uint32_t size) {
  uint8_t *hdr = GetTablePtr(hTable);
  if (!hdr) return nullptr;
  TableDataRec &rec = ps->tableData[TableDataIndex(hdr)];
  // A caller's image loaded in place is never resized.
  if (!rec.owned) return nullptr;
  uint8_t *data = static_cast<uint8_t *>(collReAllocPtr(rec.data, size));
  if (!data) return nullptr;
  rec.data = data;
  return data;
}

uint8_t *LimitCheck(uint8_t *h, int32_t growth, uint32_t hTable) {
  int64_t needed = int64_t(TableLength(h)) + growth + TABLE_HEADER_SIZE;
  if (needed < 0) needed = 0;
  uint64_t wanted = (uint64_t(needed) + TABLE_PAGE - 1) / TABLE_PAGE;
  if (TablePages(h) < wanted) {
    if (wanted > TABLE_MAX_PAGES) return nullptr;
    if (!tableReAlloc(hTable, uint32_t(wanted) * TABLE_PAGE)) return nullptr;
    wr32(h + th::pages, uint32_t(wanted));
  }
  return TableData(h);
}

void MoveTail(uint8_t *h, uint8_t *data, uint32_t from, uint32_t to) {
  std::memmove(data + to, data + from, TableDataLength(h) - from);
  RowIndexMoved(h, from, to);
}

uint32_t MakeTableDataPrivate(uint8_t *h) {
  uint32_t index = TableDataIndex(h);
  TableDataRec &rec = ps->tableData[index];
  if (rec.owned && rec.refCount <= 1) return 1;
  // A loaded image may claim fewer pages than its data takes.
  uint32_t dataLength = TableDataLength(h);
  uint32_t pages = TablePages(h);
  if (pages * TABLE_PAGE < dataLength) pages = PagesFor(dataLength);
  uint8_t *copy = static_cast<uint8_t *>(collAllocPtr(pages * TABLE_PAGE));
  if (!copy) return 0;
  std::memcpy(copy, rec.data, dataLength);
  if (rec.refCount > 1) {
    uint32_t fresh = FreeTableRecord();
    if (fresh == kBadIndex) {
      collFreePtr(copy);
      return 0;
    }
    --rec.refCount;
    ps->tableData[fresh] = TableDataRec{copy, 1, 1};
    wr32(h + th::dataIndex, fresh);
  } else {
    rec.data = copy;
    rec.owned = 1;
    rec.refCount = 1;
  }
  wr32(h + th::pages, pages);
  return 1;
}

uint32_t tablestrlen(uint8_t *h, uint32_t n) {
  const uint8_t *data = TableData(h);
  const uint32_t end = TableDataLength(h);
  uint32_t valid = rd32(h + th::cacheValid);
  uint32_t index = rd32(h + th::cacheIndex);
  uint32_t offset = rd32(h + th::cacheOffset);
  if (valid && offset > end) valid = 0;
  // A string far from the remembered one is found through the row index,
  // which gives what the scan would.
  const uint32_t distance = !valid ? n : n >= index ? n - index : n > index / 2 ? index - n : n;
  const uint32_t indexed = distance > kNearStrings ? RowIndexFind(h, n) : kBadIndex;
  if (indexed != kBadIndex) {
    offset = indexed;
    wr32(h + th::cacheValid, 1);
  } else if (valid && n >= index) {
    offset = SkipStrings(data, offset, n - index, end);
  } else if (valid && n > index / 2) {
    offset = SkipStringsBack(data, offset, index - n);
  } else {
    offset = SkipStrings(data, 0, n, end);
    wr32(h + th::cacheValid, 1);
  }
  wr32(h + th::cacheIndex, n);
  wr32(h + th::cacheOffset, offset);
  return offset;
}

uint8_t *GetTableDataPtr(uint8_t *h, uint32_t row, uint32_t column, uint32_t forWrite) {
  if (forWrite && !MakeTableDataPrivate(h)) return nullptr;
  uint8_t *data = TableData(h);
  const uint32_t cols = TableCols(h);
  if (row == kRowHeader) {
    if (column >= 0xFFFFFFFBu)  // -5 to -1: attribute strings 0 to 4
      return data + SkipStrings(data, TableAttrOffset(h), ~column, TableDataLength(h));
    if (column < cols) return data + SkipStrings(data, 0, column, TableRowsOffset(h));
    return nullptr;
  }
  if (row >= TableRows(h) || column >= cols) return nullptr;
  return data + tablestrlen(h, (row + 1) * cols + column);
}

}  // namespace coll

using namespace coll;

COLL_API(HTABLE) tableCreate(uint32_t cols, uint32_t type) {
  if (cols == 0) return 0;
  LockGuard lock;
  return tableCreateInternal(cols, type);
}

COLL_API(void) tableDestroy(HTABLE hTable) {
  LockGuard lock;
  uint8_t *hdr = GetTablePtr(hTable);
  if (hdr && TableOwner(hdr) == 0) DestroyTableHandle(hTable);
}
