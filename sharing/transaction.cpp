// transaction.cpp - transactions and the queue of tags deleted inside one.
#include "sharing/sharing.h"
#include "store/store.h"

namespace coll {

// Queue maintenance comes with transactions; no collection can be in one yet.
void AddTagToCommunicateQueue(uint32_t, const char *, uint32_t) {}
void DeleteTagFromCommunicateQueue(uint32_t, const char *, uint32_t) {}

void RemoveCommunicateQueue(uint32_t slot) {
  if (slot >= kSlots) return;
  collFreePtr(ps->queueBuf[slot]);
  ps->queueBuf[slot] = nullptr;
  ps->queueLen[slot] = 0;
  ps->queueChunks[slot] = 0;
}

}  // namespace coll
