// transaction.cpp - transactions: a thread holds a collection, its changes
// are stored at once but told only when it lets go, first the tags deleted
// meanwhile (kept in the slot's communicate queue), then every item carrying
// a transaction mark, in image order.
#include <cstring>

#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"

namespace coll {

namespace {

// Queue buffers grow in chunks of this many bytes. Each entry is a tag
// followed by a zero byte.
constexpr uint32_t kQueueChunk = 1023;
// The first size of the buffer that holds the tag of a marked item.
constexpr uint32_t kTagBufferStart = 256;

// Makes buf hold at least size bytes; false without memory (buf unchanged).
bool ReserveTag(TagBuffer *buf, uint32_t size) {
  if (buf->text && buf->size >= size) return true;
  void *p = buf->text ? collReAllocPtr(buf->text, size) : collAllocPtr(size);
  if (!p) return false;
  buf->text = static_cast<char *>(p);
  buf->size = size;
  return true;
}

// Copies n tag bytes and a zero into buf; false without memory.
bool HoldTag(TagBuffer *buf, const void *tag, uint32_t n) {
  if (n == 0xFFFFFFFFu || !ReserveTag(buf, n + 1)) return false;
  std::memcpy(buf->text, tag, n);
  buf->text[n] = 0;
  return true;
}

// The length of the queue entry at pos of a buffer with len bytes in use, and
// the bytes it occupies (its zero included, or up to len when it has none).
uint32_t EntryLength(const uint8_t *buf, uint32_t pos, uint32_t len, uint32_t *span) {
  uint32_t e = collstrlen(buf + pos, len - pos);
  *span = e < len - pos ? e + 1 : e;
  return e;
}

}  // namespace

void AddTagToCommunicateQueue(uint32_t hColl, const char *tag, uint32_t n) {
  uint32_t slot = hColl - kCollBase;
  if (slot >= kSlots) return;
  uint32_t m = collstrlen(tag, n);
  if (m == 0) return;
  if (!ps->queueBuf[slot]) {
    uint8_t *buf = static_cast<uint8_t *>(collAllocPtr(kQueueChunk));
    if (!buf) return;
    ps->queueBuf[slot] = buf;
    ps->queueLen[slot] = 0;
    ps->queueChunks[slot] = 1;
  }
  uint32_t used = ps->queueLen[slot];
  uint64_t need = uint64_t(used) + m + 1;
  if (need > uint64_t(ps->queueChunks[slot]) * kQueueChunk) {
    // Enough chunks for the new entry, however long its tag.
    uint64_t chunks = (need + kQueueChunk - 1) / kQueueChunk;
    void *grown = chunks * kQueueChunk <= 0xFFFFFFFFu
                      ? collReAllocPtr(ps->queueBuf[slot], uint32_t(chunks * kQueueChunk))
                      : nullptr;
    if (!grown) {
      RemoveCommunicateQueue(slot);
      return;
    }
    ps->queueBuf[slot] = static_cast<uint8_t *>(grown);
    ps->queueChunks[slot] = uint32_t(chunks);
  }
  uint8_t *entry = ps->queueBuf[slot] + used;
  std::memcpy(entry, tag, m);
  entry[m] = 0;
  ps->queueLen[slot] = used + m + 1;
}

void DeleteTagFromCommunicateQueue(uint32_t hColl, const char *tag, uint32_t n) {
  uint32_t slot = hColl - kCollBase;
  if (slot >= kSlots || !ps->queueBuf[slot]) return;
  uint8_t *buf = ps->queueBuf[slot];
  uint32_t m = collstrlen(tag, n);
  uint32_t len = ps->queueLen[slot];
  uint32_t pos = 0;
  while (pos < len) {
    uint32_t span;
    uint32_t e = EntryLength(buf, pos, len, &span);
    if (e == m && AsciiEqualN(buf + pos, tag, m)) {
      std::memmove(buf + pos, buf + pos + span, len - pos - span);
      len -= span;
    } else {
      pos += span;
    }
  }
  ps->queueLen[slot] = len;
}

void RemoveCommunicateQueue(uint32_t slot) {
  if (slot >= kSlots) return;
  collFreePtr(ps->queueBuf[slot]);
  ps->queueBuf[slot] = nullptr;
  ps->queueLen[slot] = 0;
  ps->queueChunks[slot] = 0;
}

void CommunicateChangesFromQueue(uint32_t hColl) {
  uint32_t slot = hColl - kCollBase;
  if (slot >= kSlots) return;
  uint8_t *img = AccessColl(hColl);
  if (!img) return;
  const uint32_t id = CollId(img);
  TagBuffer tag{nullptr, 0};
  uint32_t pos = 0;
  for (;;) {
    // Every delivery gives up the lock: the collection is reached again (after
    // another thread's transaction, whose unlock tells its own queue) and the
    // queue read afresh.
    img = AccessColl(hColl);
    if (!img || CollId(img) != id) {
      // Destroyed: its queue went with it.
      collFreePtr(tag.text);
      return;
    }
    const uint8_t *buf = ps->queueBuf[slot];
    uint32_t len = ps->queueLen[slot];
    if (!buf || pos >= len) break;
    uint32_t span;
    uint32_t e = EntryLength(buf, pos, len, &span);
    if (!HoldTag(&tag, buf + pos, e)) break;
    pos += span;
    if (e != 0) CommunicateChange(hColl, tag.text, e);
  }
  collFreePtr(tag.text);
  RemoveCommunicateQueue(slot);
}

uint32_t FindAndSkipTrans(uint8_t *img, TagBuffer *buf, uint32_t *n) {
  ItemCursor cur;
  for (uint32_t p = 0; ItemAt(img, p, &cur); p = NextItemOffset(cur)) {
    if (cur.b < ITEM_BLOCK_HEAD || rd16(cur.block + ib::tranFlag) == 0) continue;
    if (!HoldTag(buf, cur.tag, cur.t)) return 0;
    wr16(cur.block + ib::tranFlag, 0);
    *n = cur.t;
    return 1;
  }
  return 0;
}

void CommunicateTransChanges(uint32_t hColl) {
  CommunicateChangesFromQueue(hColl);
  uint8_t *img = AccessColl(hColl);
  if (!img) return;
  const uint32_t id = CollId(img);
  TagBuffer tag{nullptr, 0};
  // Without memory the marks stay for a later collUnlock.
  if (!ReserveTag(&tag, kTagBufferStart)) return;
  for (;;) {
    img = AccessColl(hColl);
    if (!img || CollId(img) != id) break;
    uint32_t n;
    if (!FindAndSkipTrans(img, &tag, &n)) break;
    CommunicateChange(hColl, tag.text, n);
  }
  collFreePtr(tag.text);
}

uint32_t AcquireTranState(uint32_t hColl) {
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  wr32(img + ch::lockThread, platform::CurrentThreadId());
  return 1;
}

uint32_t ReleaseTranState(uint32_t hColl) {
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  if (CollLockThread(img) == platform::CurrentThreadId()) {
    wr32(img + ch::lockThread, 0);
    WakeTransactionWaiters();
  }
  return 1;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collLock(uint32_t hColl) {
  if (isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  return AcquireTranState(hColl);
}

COLL_API(uint32_t) collUnlock(uint32_t hColl) {
  if (isBadCollHandle(hColl)) return 0;
  LockGuard lock;
  if (!ReleaseTranState(hColl)) return 0;
  CommunicateTransChanges(hColl);
  return 1;
}
