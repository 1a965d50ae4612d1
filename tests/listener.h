// listener.h - a window that records the advice messages it receives.
#ifndef COLL_TESTS_LISTENER_H
#define COLL_TESTS_LISTENER_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "coll.h"
#include "coll_host.h"

namespace testutil {

struct Heard {
  uint32_t message;
  uint32_t coll;         // wParam
  std::string tag;       // the tag area's n characters
  uint32_t n;            // its length word
  std::string area;      // the whole tag area, n + 7 bytes
};

// A window; its procedure records every message (from any thread) and then
// runs onMessage, which may call the library.
class Listener {
 public:
  Listener() : window_(collHostCreateWindow(&Listener::Proc, this)) {}
  ~Listener() { collHostDestroyWindow(window_); }
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  uint32_t window() const { return window_; }
  std::vector<Heard> heard() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return heard_;
  }
  size_t count() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return heard_.size();
  }
  // The tags heard, joined by ','.
  std::string Tags() const {
    std::string out;
    for (const Heard &h : heard()) out += (out.empty() ? "" : ",") + h.tag;
    return out;
  }
  void Clear() {
    std::lock_guard<std::mutex> hold(mutex_);
    heard_.clear();
  }

  std::function<void(const Heard &)> onMessage;

 private:
  static intptr_t Proc(uint32_t, uint32_t message, uintptr_t wParam, intptr_t lParam, void *context) {
    auto *self = static_cast<Listener *>(context);
    const auto *area = reinterpret_cast<const char *>(lParam);
    uint16_t n;
    std::memcpy(&n, area, 2);
    Heard h{message, uint32_t(wParam), std::string(area + 2, n), n, std::string(area, n + 7u)};
    {
      std::lock_guard<std::mutex> hold(self->mutex_);
      self->heard_.push_back(h);
    }
    if (self->onMessage) self->onMessage(h);
    return 0;
  }

  uint32_t window_;
  mutable std::mutex mutex_;
  std::vector<Heard> heard_;
};

inline uint32_t Set(HCOLL h, const char *tag, const char *value) { return collSetItem(h, tag, value, 0xFFFFFFFFu); }
inline uint32_t Del(HCOLL h, const char *tag) { return collSetItem(h, tag, "", 0); }

}  // namespace testutil

#endif
