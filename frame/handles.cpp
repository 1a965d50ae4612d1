// handles.cpp - the slot tables that map handles to collection images and
// table headers, and the destruction of objects with what they own.
#include <cstring>

#include "frame/frame.h"
#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"
#include "tables/table.h"

namespace coll {

namespace {
void LowerCollHigh() {
  while (ps->collHigh != 0 && ps->collPtrs[ps->collHigh] == nullptr) --ps->collHigh;
}
void LowerTableHigh() {
  while (ps->tableHigh != 0 && ps->tablePtrs[ps->tableHigh] == nullptr) --ps->tableHigh;
}
bool UnusableCollImage(const uint8_t *img) {
  return platform::IsBadWritePtr(img, COLL_HEADER_SIZE) || rd16(img + ch::magic) != COLL_MAGIC;
}
}  // namespace

uint8_t *GetCollPtr(uint32_t hColl) {
  uint32_t slot = hColl - kCollBase;
  if (slot >= kSlots) return nullptr;
  uint8_t *img = ps->collPtrs[slot];
  if (!img) return nullptr;
  if (UnusableCollImage(img)) {
    ps->collPtrs[slot] = nullptr;
    DropTagIndex(hColl);
    return nullptr;
  }
  return img;
}

uint32_t SetCollPtr(uint8_t *image) {
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    if (ps->collPtrs[slot] && UnusableCollImage(ps->collPtrs[slot])) ps->collPtrs[slot] = nullptr;
    if (!ps->collPtrs[slot]) {
      ps->collPtrs[slot] = image;
      DropTagIndex(kCollBase + slot);
      if (slot > ps->collHigh) ps->collHigh = slot;
      return kCollBase + slot;
    }
  }
  return 0;
}

void UpdateCollPtr(uint32_t hColl, uint8_t *image) { ps->collPtrs[hColl - kCollBase] = image; }

void DestroyCollHandle(uint32_t hColl) {
  uint32_t slot = hColl - kCollBase;
  if (slot >= kSlots) return;
  uint8_t *img = GetCollPtr(hColl);
  if (img) {
    for (uint32_t i = 0; i < kSlots && i <= ps->collHigh; ++i) {
      uint8_t *child = GetCollPtr(kCollBase + i);
      if (child && CollOwner(child) == hColl) DestroyCollHandle(kCollBase + i);
    }
    for (uint32_t i = 0; i < kSlots && i <= ps->tableHigh; ++i) {
      uint8_t *table = GetTablePtr(kTableBase + i);
      if (table && TableOwner(table) == hColl) DestroyTableHandle(kTableBase + i);
    }
    bool inTransaction = CollLockThread(img) != 0;
    collFreePtr(img);
    ps->collPtrs[slot] = nullptr;
    DropTagIndex(hColl);
    // A later collection in this slot must not inherit queued deletions.
    RemoveCommunicateQueue(slot);
    if (inTransaction) WakeTransactionWaiters();
  }
  LowerCollHigh();
}

uint8_t *GetTablePtr(uint32_t hTable) {
  uint32_t slot = hTable - kTableBase;
  if (slot >= kSlots) return nullptr;
  uint8_t *hdr = ps->tablePtrs[slot];
  if (!hdr) return nullptr;
  if (platform::IsBadWritePtr(hdr, TABLE_HEADER_SIZE) || isBadTablePtr(hdr)) {
    ps->tablePtrs[slot] = nullptr;
    ps->tableProcess[slot] = 0;
    return nullptr;
  }
  return hdr;
}

uint32_t SetTablePtr(uint8_t *header, uint32_t hOwner) {
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    if (ps->tablePtrs[slot] && platform::IsBadWritePtr(ps->tablePtrs[slot], TABLE_HEADER_SIZE)) {
      ps->tablePtrs[slot] = nullptr;
      ps->tableProcess[slot] = 0;
    }
    if (!ps->tablePtrs[slot]) {
      ps->tablePtrs[slot] = header;
      wr32(header + th::owner, hOwner);
      ps->tableProcess[slot] = hOwner == 0 ? platform::CurrentProcessId() : 0;
      if (slot > ps->tableHigh) ps->tableHigh = slot;
      return kTableBase + slot;
    }
  }
  return 0;
}

void DestroyTableHandle(uint32_t hTable) {
  uint32_t slot = hTable - kTableBase;
  if (slot >= kSlots) return;
  uint8_t *hdr = GetTablePtr(hTable);
  if (hdr) {
    TableDataRec &rec = ps->tableData[TableDataIndex(hdr)];
    if (rec.refCount <= 1) {
      if (rec.owned) {
        collFreePtr(rec.data);
        rec.owned = 0;
      }
      rec.data = nullptr;
      rec.refCount = 0;
      DropRowIndex(&rec);
    } else {
      --rec.refCount;
    }
    collFreePtr(hdr);
    ps->tablePtrs[slot] = nullptr;
  }
  ps->tableProcess[slot] = 0;
  LowerTableHigh();
}

uint32_t isBadCollHandle(uint32_t hColl) {
  LockGuard lock;
  return GetCollPtr(hColl) == nullptr ? 1 : 0;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collIsBadCollHandle(uint32_t hColl) { return isBadCollHandle(hColl); }

COLL_API(uint32_t) collGetNonSharedHandles(uint32_t *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size)) return 0;
  if (size) std::memset(buffer, 0, size);
  LockGuard lock;
  uint32_t count = 0;
  for (uint32_t i = 0; i < kSlots && i <= ps->collHigh; ++i) {
    uint8_t *img = GetCollPtr(kCollBase + i);
    if (!img || CollShareCount(img) != 0 || CollOwner(img) != 0) continue;
    if (size != 0) {
      if (count >= size / 4) break;
      buffer[count] = kCollBase + i;
    }
    ++count;
  }
  return count;
}

COLL_API(uint32_t) collGetTableHandles(uint32_t *buffer, uint32_t size) {
  if (isBadPtr(buffer, 1, size)) return 0;
  if (size) std::memset(buffer, 0, size);
  LockGuard lock;
  const uint32_t capacity = size / 4;
  uint32_t count = 0;
  for (uint32_t h = kTableBase; h <= kTableBase + 0xFE && count < capacity; ++h)
    if (GetTablePtr(h)) buffer[count++] = h;
  return count;
}
