// table.cpp - the table object: header invariants.
#include "tables/table.h"

namespace coll {

uint32_t isBadTablePtr(const uint8_t *h) {
  if (!h) return 1;
  if (rd16(h + th::magic) != TABLE_MAGIC || TableCols(h) == 0 || TableLength(h) <= TABLE_HEADER_SIZE ||
      rd32(h + th::attrOffset) < rd32(h + th::rowsOffset) || rd32(h + th::pages) > TABLE_MAX_PAGES)
    return 1;
  // The data record must exist and be in use.
  uint32_t index = TableDataIndex(h);
  return (index >= kSlots || ps->tableData[index].data == nullptr) ? 1 : 0;
}

}  // namespace coll
