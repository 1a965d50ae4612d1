// frame.h - the library frame: process-wide state, the global lock, start-up
// and shutdown, heap functions and the handle tables.
//
// Calling discipline of every exported function:
//   1. test the caller's pointers (isBadPtr) and handles (isBadCollHandle,
//      which takes and releases the lock by itself);
//   2. take the lock once (LockGuard / AcquireCollLock);
//   3. resolve handles (AccessColl for collections, GetTablePtr for tables)
//      and work through internal functions that assume the lock is held;
//   4. release the lock on every return path.
// Anything that may release the lock (AccessColl's transaction wait, change
// communication) invalidates image pointers: re-resolve the handle after it.
#ifndef COLL_FRAME_FRAME_H
#define COLL_FRAME_FRAME_H

#include <cstdint>

#include "coll.h"
#include "frame/ascii.h"
#include "frame/bytes.h"

// Defines an exported function: C linkage, the platform's calling convention.
#define COLL_API(type) extern "C" COLL_EXPORT type COLLAPI

namespace coll {

constexpr uint32_t kSlots = 255;  // slot 0 is never handed out
constexpr uint32_t kCollBase = 0x4000;
constexpr uint32_t kTableBase = 0x8000;
constexpr uint32_t kBadIndex = 0xFFFFFFFFu;

struct TableDataRec {
  uint8_t *data;      // the table data block; null when the record is free
  uint32_t refCount;  // table headers naming this record in their dataIndex
  uint32_t owned;     // 1: data is the library's heap block; 0: a caller's image
  // The row index of the data block (tables/index.cpp): rowStart[k] is the
  // offset of string k * cols, for k = 0 to rowStartCount - 1; null while
  // there is none. It is freed with the record.
  uint16_t *rowStart = nullptr;
  uint32_t rowStartCount = 0;
  uint32_t rowStartCapacity = 0;
};

// The process-wide state block.
struct CollState {
  uint32_t hCatalog;
  uint32_t nextCollId;
  uint32_t adviceMsg;
  uint32_t tableHeaderSize;
  uint32_t startCount;
  uint32_t collHigh;
  uint32_t tableHigh;
  int32_t lockWord;  // -1 free, 0 held
  uint8_t *tablePtrs[kSlots];
  uint8_t *collPtrs[kSlots];
  TableDataRec tableData[kSlots];
  uint32_t tableProcess[kSlots];
  uint8_t *queueBuf[kSlots];
  uint32_t queueLen[kSlots];
  uint32_t queueChunks[kSlots];
  // The tag index beside each collection image (store/index.cpp), or null.
  void *tagIndex[kSlots];
  // Changes whenever a transaction ends or a collection is destroyed;
  // AccessColl sleeps on it while another thread's transaction holds a
  // collection.
  int32_t tranEpoch;
};

extern CollState *ps;

// ---- start-up, lock
// Starts the library if it has not been started; safe from any thread.
void EnsureStarted();
// Takes the global lock, starting the library first if needed. Not recursive.
void AcquireCollLock();
void ReleaseCollLock();

// Holds the global lock for a scope.
class LockGuard {
 public:
  LockGuard() { AcquireCollLock(); }
  ~LockGuard() { ReleaseCollLock(); }
  LockGuard(const LockGuard &) = delete;
  LockGuard &operator=(const LockGuard &) = delete;
};

// Resolves a collection handle for work, waiting out another thread's
// transaction (the lock is released while waiting). Null when invalid.
// REQUIRES: lock held.
uint8_t *AccessColl(uint32_t hColl);
// 1 when hColl is not valid (*image null), 0 when it is. REQUIRES: lock held.
uint32_t ValidateColl(uint32_t hColl, uint8_t **image);
// Tells threads waiting in AccessColl to look again (a transaction ended or a
// collection went). REQUIRES: lock held.
void WakeTransactionWaiters();

// ---- heap (zero-filled; all library memory comes from here)
void *collAllocPtr(uint32_t size);
void *collReAllocPtr(void *block, uint32_t size);
void collFreePtr(void *block);

// Heap copy of n bytes followed by a zero byte; null without memory.
char *DupText(const void *text, uint32_t n);

uint32_t init();
void epilog();

// ---- handle tables (REQUIRES: lock held, except isBadCollHandle)
uint8_t *GetCollPtr(uint32_t hColl);
uint32_t SetCollPtr(uint8_t *image);
void UpdateCollPtr(uint32_t hColl, uint8_t *image);
void DestroyCollHandle(uint32_t hColl);
uint8_t *GetTablePtr(uint32_t hTable);
uint32_t SetTablePtr(uint8_t *header, uint32_t hOwner);
void DestroyTableHandle(uint32_t hTable);
uint32_t isBadCollHandle(uint32_t hColl);

// The catalog's handle (0 before start-up); starts the library so that it
// can be compared before the lock is taken.
uint32_t CatalogHandle();

}  // namespace coll

#endif  // COLL_FRAME_FRAME_H
