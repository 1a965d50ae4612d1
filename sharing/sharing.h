// sharing.h - catalog, change communication and transactions, as seen by
// the rest of the library.
#ifndef COLL_SHARING_SHARING_H
#define COLL_SHARING_SHARING_H

#include <cstdint>

namespace coll {

// Creates the catalog collection ("_Catalog", share count 1); its handle or 0.
// REQUIRES: lock held (start-up).
uint32_t CreateCatalog();

// Tells the advice windows and propagation targets of hColl that the item
// tag (n bytes, not necessarily terminated) changed. REQUIRES: lock held;
// returns with it held but releases it in between, so image pointers are
// stale afterwards.
void CommunicateChange(uint32_t hColl, const char *tag, uint32_t n);

// The queue of tags deleted inside an open transaction, per collection slot.
// REQUIRES: lock held.
void AddTagToCommunicateQueue(uint32_t hColl, const char *tag, uint32_t n);
void DeleteTagFromCommunicateQueue(uint32_t hColl, const char *tag, uint32_t n);
void RemoveCommunicateQueue(uint32_t slot);

}  // namespace coll

#endif  // COLL_SHARING_SHARING_H
