// advice.cpp - change communication: the advice message to registered
// windows and the copying of changed items into propagation targets.
//
// Each collection header holds 32 advice entries (window, count) and 32
// propagation entries (target handle, target id), packed at the front; the
// first entry with a zero window or target ends each list.
#include <cstring>

#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"

namespace coll {

namespace {

uint32_t Entry(const uint8_t *img, uint32_t field, uint32_t i) { return rd32(img + field + 4 * i); }
void SetEntry(uint8_t *img, uint32_t field, uint32_t i, uint32_t value) { wr32(img + field + 4 * i, value); }

// Deletes entry i of a pair of arrays: each following pair moves one place
// forward, up to and including the first empty one; when the moving reaches
// the last place, the last pair is cleared.
void DeleteEntry(uint8_t *img, uint32_t first, uint32_t second, uint32_t i) {
  for (; i + 1 < COLL_LIST_SIZE; ++i) {
    uint32_t moved = Entry(img, first, i + 1);
    SetEntry(img, first, i, moved);
    SetEntry(img, second, i, Entry(img, second, i + 1));
    if (moved == 0) return;
  }
  SetEntry(img, first, COLL_LIST_SIZE - 1, 0);
  SetEntry(img, second, COLL_LIST_SIZE - 1, 0);
}

// The chain of copies that brought a change to the collection being told
// of it, in the thread that carries it: the collection where the change
// happened, then each propagation target it was copied into (collCopyItem
// stores into the target, whose own communication runs nested in the same
// thread). One frame per collection on the path, on the stack of the call
// that tells it. A copy into a collection already on the path is passed
// over: that ends every cycle of propagation, deletions and table or
// collection items included, which would otherwise go round for ever, and
// still lets a change reach one collection along several paths, or twice
// through a target registered twice.
struct ChainFrame {
  uint32_t hColl;
  uint32_t id;
  const ChainFrame *up;
};

// The innermost frame of the change being told in this thread; null outside
// communication. A window procedure starts from null: what it changes is a
// new change with a chain of its own.
thread_local const ChainFrame *t_chain = nullptr;

bool OnPath(uint32_t hColl, uint32_t id) {
  for (const ChainFrame *f = t_chain; f; f = f->up)
    if (f->hColl == hColl && f->id == id) return true;
  return false;
}

// Puts a frame on the path for as long as it lives.
class PathStep {
 public:
  PathStep(uint32_t hColl, uint32_t id) : frame_{hColl, id, t_chain} { t_chain = &frame_; }
  ~PathStep() { t_chain = frame_.up; }
  PathStep(const PathStep &) = delete;
  PathStep &operator=(const PathStep &) = delete;

 private:
  ChainFrame frame_;
};

// Takes the lock again after a delivery and reaches hColl again, as long as
// it is still the collection with this id; otherwise frees the tag area (the
// remaining listeners are not told) and gives null.
uint8_t *Resume(uint32_t hColl, uint32_t id, uint8_t *area) {
  AcquireCollLock();
  uint8_t *img = AccessColl(hColl);
  if (img && CollId(img) == id) return img;
  collFreePtr(area);
  return nullptr;
}

// Sends the advice message; the window procedure may call the library (the
// lock is not held) and whatever it changes starts a chain of its own.
void Deliver(uint32_t window, uint32_t hColl, uint8_t *area) {
  const ChainFrame *outer = t_chain;
  t_chain = nullptr;
  platform::SendMessage(window, ps->adviceMsg, hColl, reinterpret_cast<intptr_t>(area));
  t_chain = outer;
}

}  // namespace

void CommunicateChange(uint32_t hColl, const char *tag, uint32_t n) {
  uint8_t *img = AccessColl(hColl);
  // Most collections have nobody to tell: no step on the path then (one
  // that copies into no target cannot be passed through again).
  if (!img || (Entry(img, ch::adviceTarget, 0) == 0 && Entry(img, ch::propTarget, 0) == 0)) return;
  const uint32_t id = CollId(img);
  PathStep step(hColl, id);
  // The tag area also serves as the terminated copy of the tag that the
  // propagation copies use; the caller's tag is not read after a delivery.
  uint8_t *area = nullptr;

  for (uint32_t i = 0; i < COLL_LIST_SIZE;) {
    uint32_t window = Entry(img, ch::adviceTarget, i);
    if (window == 0) break;
    if (!platform::IsWindow(window)) {
      // One registration at a time: the entry goes after its last one, and
      // the entries behind it move up to place i.
      RemoveAdvice(img, window);
      continue;
    }
    if (!area && !(area = MakeTagArea(tag, n))) return;
    if (Entry(img, ch::adviceCount, i) != 0) {
      ReleaseCollLock();
      if ((window >> 16) != 0xFFFFu) Deliver(window, hColl, area);
      if (!(img = Resume(hColl, id, area))) return;
    }
    ++i;
  }

  for (uint32_t i = 0; i < COLL_LIST_SIZE;) {
    uint32_t target = Entry(img, ch::propTarget, i);
    if (target == 0) break;
    uint32_t targetId = Entry(img, ch::propId, i);
    uint8_t *targetImg = GetCollPtr(target);
    if (!targetImg || CollId(targetImg) != targetId) {
      // Closed, or its slot now holds another collection.
      DeleteEntry(img, ch::propTarget, ch::propId, i);
      continue;
    }
    if (OnPath(target, targetId)) {
      ++i;
      continue;
    }
    if (!area && !(area = MakeTagArea(tag, n))) return;
    ReleaseCollLock();
    collCopyItem(target, hColl, reinterpret_cast<const char *>(area + 2));
    if (!(img = Resume(hColl, id, area))) return;
    ++i;
  }
  collFreePtr(area);
}

uint8_t *MakeTagArea(const char *tag, uint32_t maxLength) {
  uint32_t n = collstrlen(tag, maxLength);
  if (n > 0xFFFFFFFFu - 7) return nullptr;
  uint8_t *area = static_cast<uint8_t *>(collAllocPtr(n + 7));
  if (!area) return nullptr;
  // The length word cannot say more than 0xFFFF; the text is terminated.
  wr16(area, n > 0xFFFFu ? 0xFFFFu : n);
  std::memcpy(area + 2, tag, n);
  return area;
}

uint32_t RemoveAdvice(uint8_t *img, uint32_t window) {
  if (window == 0) return 0;
  for (uint32_t i = 0; i < COLL_LIST_SIZE; ++i) {
    if (Entry(img, ch::adviceTarget, i) != window) continue;
    uint32_t count = Entry(img, ch::adviceCount, i);
    if (count > 1)
      SetEntry(img, ch::adviceCount, i, count - 1);
    else
      DeleteEntry(img, ch::adviceTarget, ch::adviceCount, i);
    return 1;
  }
  return 0;
}

uint32_t RemoveUpdate(uint8_t *img, uint32_t target) {
  if (target == 0) return 0;
  for (uint32_t i = 0; i < COLL_LIST_SIZE; ++i) {
    if (Entry(img, ch::propTarget, i) != target) continue;
    DeleteEntry(img, ch::propTarget, ch::propId, i);
    return 1;
  }
  return 0;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collRequestAdvice(uint32_t hColl, uint32_t window, uint32_t on) {
  LockGuard lock;
  if (window == 0 && on == 0) return AccessColl(hColl) ? 1 : 0;
  if (on && !platform::IsWindow(window)) return 0;
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  if (!on) return RemoveAdvice(img, window);
  for (uint32_t i = 0; i < COLL_LIST_SIZE; ++i) {
    uint32_t w = Entry(img, ch::adviceTarget, i);
    if (w == window) {
      uint32_t count = Entry(img, ch::adviceCount, i);
      if (count == 0xFFFFFFFFu) return 0;
      SetEntry(img, ch::adviceCount, i, count + 1);
      return 1;
    }
    if (w == 0) {
      SetEntry(img, ch::adviceTarget, i, window);
      SetEntry(img, ch::adviceCount, i, 1);
      return 1;
    }
  }
  return 0;
}

COLL_API(uint32_t) collRequestPropagate(uint32_t hSource, uint32_t hTarget, uint32_t on) {
  if (hTarget == 0) return 0;
  LockGuard lock;
  if (on) {
    if (!AccessColl(hTarget)) return 0;
    if (hSource == hTarget) return 0;
  }
  uint8_t *img = AccessColl(hSource);
  if (!img) return 0;
  if (!on) return RemoveUpdate(img, hTarget);
  // Reaching the source may have waited with the lock given up: the target's
  // id is taken now.
  uint8_t *target = GetCollPtr(hTarget);
  if (!target) return 0;
  for (uint32_t i = 0; i < COLL_LIST_SIZE; ++i) {
    if (Entry(img, ch::propTarget, i) != 0) continue;
    SetEntry(img, ch::propTarget, i, hTarget);
    SetEntry(img, ch::propId, i, CollId(target));
    return 1;
  }
  return 0;
}
