// state.cpp - the state block, the global lock, start-up and shutdown, and
// the heap functions.
#include <cstring>

#include "frame/frame.h"
#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"

namespace coll {

namespace {
// The state block lives in static storage: start-up cannot fail for want of
// memory, and the lock word exists before anything else (zero: held by
// start-up until it finishes).
CollState g_state;
platform::OnceFlag g_started;
int32_t g_lockWaiters;  // threads asleep in AcquireCollLock

void StartUp() {
  ps = &g_state;
  init();
}
}  // namespace

CollState *ps = nullptr;

void EnsureStarted() { platform::CallOnce(&g_started, StartUp); }

uint32_t CatalogHandle() {
  EnsureStarted();
  return ps->hCatalog;
}

// The lock: -1 free, 0 held. An uncontended take and release are one atomic
// operation each; a waiter spins briefly, then sleeps until a release wakes it.
void AcquireCollLock() {
  EnsureStarted();
  int32_t *word = &ps->lockWord;
  for (;;) {
    if (platform::InterlockedIncrement(word) == 0) return;
    platform::InterlockedDecrement(word);
    for (int i = 0; i < 100 && platform::AtomicLoad(word) != -1; ++i) platform::SpinPause();
    if (platform::AtomicLoad(word) == -1) continue;
    platform::InterlockedIncrement(&g_lockWaiters);
    int32_t seen = platform::AtomicLoad(word);
    if (seen != -1) platform::WaitOnWord(word, seen, 50);
    platform::InterlockedDecrement(&g_lockWaiters);
  }
}

void ReleaseCollLock() {
  platform::InterlockedDecrement(&ps->lockWord);
  if (platform::AtomicLoad(&g_lockWaiters) > 0) platform::WakeOne(&ps->lockWord);
}

uint32_t ValidateColl(uint32_t hColl, uint8_t **image) {
  *image = GetCollPtr(hColl);
  return *image ? 0 : 1;
}

void WakeTransactionWaiters() {
  platform::InterlockedIncrement(&ps->tranEpoch);
  platform::WakeAll(&ps->tranEpoch);
}

uint8_t *AccessColl(uint32_t hColl) {
  if (hColl == 0) return nullptr;
  const uint32_t self = platform::CurrentThreadId();
  for (;;) {
    uint8_t *img;
    if (ValidateColl(hColl, &img)) return nullptr;
    uint32_t holder = CollLockThread(img);
    if (holder == 0 || holder == self) return img;
    // Another thread's transaction: sleep with the lock released until a
    // transaction ends or a collection goes, then look again.
    int32_t epoch = platform::AtomicLoad(&ps->tranEpoch);
    ReleaseCollLock();
    platform::WaitOnWord(&ps->tranEpoch, epoch, 50);
    AcquireCollLock();
  }
}

void *collAllocPtr(uint32_t size) { return platform::HeapAlloc(size); }
void *collReAllocPtr(void *block, uint32_t size) { return platform::HeapReAlloc(block, size); }
void collFreePtr(void *block) { platform::HeapFree(block); }

char *DupText(const void *text, uint32_t n) {
  char *copy = static_cast<char *>(collAllocPtr(n + 1));
  if (copy) std::memcpy(copy, text, n);
  return copy;
}

// Start-up, run once with the lock held (the zeroed lock word).
uint32_t init() {
  ps->hCatalog = 0;
  ps->nextCollId = 0;
  ps->collHigh = 0;
  ps->tableHigh = 0;
  ps->adviceMsg = platform::RegisterWindowMessage("Coll_Advice");
  if (ps->adviceMsg == 0) {
    ReleaseCollLock();
    return 0;
  }
  ps->nextCollId = 1;
  ps->hCatalog = CreateCatalog();
  if (ps->hCatalog == 0) {
    ReleaseCollLock();
    return 0;
  }
  ps->tableHeaderSize = 48;
  ps->startCount = 1;
  ReleaseCollLock();
  return 1;
}

void epilog() {
  collTaskAbort(platform::CurrentProcessId());
  if (ps->startCount == 1 && ps->hCatalog != 0) DestroyCollHandle(ps->hCatalog);
}

}  // namespace coll

void platform::OnModuleDetach() { coll::epilog(); }

using namespace coll;

COLL_API(void *) collAlloc(uint32_t size) { return collAllocPtr(size); }

COLL_API(void) collFree(void *block) { collFreePtr(block); }

COLL_API(void) collTaskAbort(uint32_t processId) {
  LockGuard lock;
  for (uint32_t slot = 0; slot < kSlots && slot <= ps->collHigh; ++slot) {
    uint8_t *img = GetCollPtr(kCollBase + slot);
    if (img && CollCreatorProcess(img) == processId && CollShareCount(img) == 0 && CollOwner(img) == 0)
      DestroyCollHandle(kCollBase + slot);
  }
  // Process id 0 is also the mark of collection-owned tables and free slots:
  // it names no free-standing table.
  if (processId == 0) return;
  for (uint32_t slot = 0; slot < kSlots && slot <= ps->tableHigh; ++slot)
    if (ps->tableProcess[slot] == processId) DestroyTableHandle(kTableBase + slot);
}
