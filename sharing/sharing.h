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
// tag (n bytes, not necessarily terminated) changed. Propagation copies run
// nested in the calling thread; a copy into a collection already on the
// path that brought the change is passed over. Callers inside an open
// transaction do not call it: the transaction's end tells its changes.
// REQUIRES: lock held; returns with it held but releases it in between, so
// image pointers are stale afterwards.
void CommunicateChange(uint32_t hColl, const char *tag, uint32_t n);

// The block whose address the advice message carries: u16 n, the n tag
// characters (those before a zero, at most maxLength), a zero byte and four
// zero bytes; n + 7 bytes. Null without memory. Freed with collFreePtr.
uint8_t *MakeTagArea(const char *tag, uint32_t maxLength);
// Withdraws one registration of window from an image's advice entries: 1
// when the window had an entry, else 0.
uint32_t RemoveAdvice(uint8_t *img, uint32_t window);
// Removes the first propagation entry naming target: 1 when there was one.
uint32_t RemoveUpdate(uint8_t *img, uint32_t target);

// The queue of tags deleted inside an open transaction, per collection slot.
// REQUIRES: lock held.
void AddTagToCommunicateQueue(uint32_t hColl, const char *tag, uint32_t n);
void DeleteTagFromCommunicateQueue(uint32_t hColl, const char *tag, uint32_t n);
void RemoveCommunicateQueue(uint32_t slot);
// Communicates every queued tag of hColl's slot, then discards the queue.
void CommunicateChangesFromQueue(uint32_t hColl);
// Communicates the queued deletions, then every marked item in image order.
void CommunicateTransChanges(uint32_t hColl);

// A growable buffer for one tag and its terminating zero.
struct TagBuffer {
  char *text;         // heap block of size bytes, or null
  uint32_t size;
};
// Finds the first item of img whose transaction mark is set, copies its tag
// into buf (growing it as needed) with its length in *n, and clears the mark.
// 0 when no item is marked, or when buf cannot hold the tag (the mark stays).
uint32_t FindAndSkipTrans(uint8_t *img, TagBuffer *buf, uint32_t *n);

// The transaction owner of hColl becomes the calling thread, after waiting out
// another owner: 1, or 0 when the collection cannot be reached.
uint32_t AcquireTranState(uint32_t hColl);
// Ends the calling thread's transaction on hColl, after waiting out another
// owner: 1, or 0 when the collection cannot be reached.
uint32_t ReleaseTranState(uint32_t hColl);

}  // namespace coll

#endif  // COLL_SHARING_SHARING_H
