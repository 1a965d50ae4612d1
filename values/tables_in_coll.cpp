// tables_in_coll.cpp - tables held as items of a collection: storing a
// table (a handle of the collection's own sharing the data block), taking a
// copy out, and reading a table item in place by tag.
#include "sharing/sharing.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {
constexpr uint32_t kNotFound = 0xFFFFFFFFu;

// The header of the table item tag of hColl (its handle in *hTable), or
// null. May wait out another thread's transaction. REQUIRES: lock held.
uint8_t *TableItem(uint32_t hColl, const char *tag, uint32_t *hTable = nullptr) {
  uint8_t *img, *header;
  uint32_t h;
  if (!RetrieveTableItem(hColl, &img, tag, &header, &h)) return nullptr;
  if (hTable) *hTable = h;
  return header;
}

// A handle with a fresh stamp on a copy of header, sharing its data block.
uint32_t StampedCopy(uint8_t *header, uint32_t hOwner) {
  uint32_t h = TableCopyHandle(header, hOwner);
  if (h) StampTable(GetTablePtr(h));
  return h;
}

uint32_t Find(uint32_t hColl, const char *tag, const char *text, uint32_t textLength, uint32_t startRow,
              uint32_t column, bool abbrev) {
  if (isBadPtr(text, 0, textLength) || isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return kNotFound;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableFind(header, text, textLength, startRow, column, abbrev) : kNotFound;
}

// The name of the temporary collection that holds the source table item
// when a row is copied within one collection.
constexpr const char kTemporaryName[] = "CollTableDataToCollection:hFrom";

}  // namespace

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collSetTable(HCOLL hColl, const char *tag, HTABLE hTable) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl) || hColl == CatalogHandle()) return 0;
  LockGuard lock;
  uint8_t *header = AccessColl(hColl) ? GetTablePtr(hTable) : nullptr;
  uint32_t h = header ? StampedCopy(header, hColl) : 0;
  if (!h) return 0;
  uint8_t *block = BuildItem(COLLTYPE_TABLE, &h, sizeof h);
  if (!block || !SetItem(hColl, tag, block, 1)) {
    DestroyTableHandle(h);
    return 0;
  }
  return 1;
}

COLL_API(HTABLE) collGetTable(HCOLL hColl, const char *tag) {
  if (isBadCollHandle(hColl) || isBadPtr(tag, 0, 1)) return 0;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? StampedCopy(header, 0) : 0;
}

COLL_API(uint32_t) collTableRowCount(HCOLL hColl, const char *tag) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return kNotFound;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableRows(header) : kNotFound;
}

COLL_API(uint32_t) collTableColCount(HCOLL hColl, const char *tag) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return kNotFound;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableCols(header) : kNotFound;
}

COLL_API(uint32_t) collTableGetStamp(HCOLL hColl, const char *tag) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? rd32(header + th::stamp) : 0;
}

COLL_API(uint32_t) collTableGetColIndex(HCOLL hColl, const char *tag, const char *name) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl) || isBadPtr(name, 0, 1)) return kNotFound;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableColIndexOf(header, name) : kNotFound;
}

COLL_API(uint32_t) collTableGetField(HCOLL hColl, const char *tag, int32_t row, uint32_t column, char *buffer,
                                     uint32_t size) {
  if (isBadPtr(buffer, 1, size) || isBadCollHandle(hColl) || isBadPtr(tag, 0, 1)) return 0;
  if (size) buffer[0] = 0;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableGetString(header, uint32_t(row), column, buffer, size) : 0;
}

COLL_API(uint32_t) collTableGetRow(HCOLL hColl, const char *tag, uint32_t row, void *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size) || isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableGetPackedRow(header, row, buffer, size) : 0;
}

COLL_API(uint32_t) collTableGetSelection(HCOLL hColl, const char *tag) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return kNotFound;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  return header ? TableGetSelectionOf(header) : kNotFound;
}

COLL_API(uint32_t) collTableSetSelection(HCOLL hColl, const char *tag, uint32_t row) {
  if (isBadPtr(tag, 0, 1) || isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  uint8_t *header = TableItem(hColl, tag);
  if (!header) return 0;
  const uint32_t old = TableSelection(header);
  TableSetSelectionOf(header, row);
  // The item was just found, so the collection is still resolved.
  uint8_t *img = GetCollPtr(hColl);
  if (img && CollLockThread(img) == 0 && row != old) CommunicateChange(hColl, tag, collstrlen(tag, kNotFound));
  return 1;
}

COLL_API(uint32_t) collTableFindField(HCOLL hColl, const char *tag, const char *text, uint32_t textLength,
                                      uint32_t startRow, uint32_t column) {
  return Find(hColl, tag, text, textLength, startRow, column, false);
}

COLL_API(uint32_t) collTableFindAbbrev(HCOLL hColl, const char *tag, const char *text, uint32_t textLength,
                                       uint32_t startRow, uint32_t column) {
  return Find(hColl, tag, text, textLength, startRow, column, true);
}

COLL_API(uint32_t) collTableDataToCollection(HCOLL hDest, HCOLL hFrom, const char *tag) {
  if (isBadPtr(tag, 0, 1)) return 0;
  // Within one collection the row is read from a copy of the table item,
  // which the stores into hDest cannot replace.
  uint32_t temporary = 0;
  if (hFrom == hDest) {
    temporary = collOpen(kTemporaryName);
    if (!temporary) return 0;
    if (!collCopyItem(temporary, hFrom, tag)) {
      collClose(temporary);
      return 0;
    }
  }
  const uint32_t source = temporary ? temporary : hFrom;
  uint32_t result = 0;
  if (!isBadCollHandle(source)) {
    LockGuard lock;
    uint32_t hTable;
    uint8_t *header = TableItem(source, tag, &hTable);
    if (header && TableSelection(header) < TableRows(header)) result = TableRowToCollection(hTable, hDest);
  }
  if (temporary) collClose(temporary);
  return result;
}
