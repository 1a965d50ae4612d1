// worker.h - a thread that runs one function, for tests that need another
// thread blocked in the library at a known point.
#ifndef COLL_TESTS_WORKER_H
#define COLL_TESTS_WORKER_H

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace testutil {

// Waits until flag is set, for at most 30 seconds; false when it never was.
inline bool WaitFor(const std::atomic<bool> &flag) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!flag.load()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs fn in a thread; started is set just before fn, finished after it.
class Worker {
 public:
  template <class F>
  explicit Worker(F fn)
      : thread_([this, fn] {
          started.store(true);
          fn();
          finished.store(true);
        }) {}
  ~Worker() {
    // A worker that never finishes must not hang the test run.
    if (!WaitFor(finished)) std::_Exit(3);
    thread_.join();
  }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

  // Once the worker has started, gives it a bounded chance to get as far as
  // it can; true when it is still inside fn.
  bool StaysBlocked() {
    if (!WaitFor(started)) return false;
    for (int i = 0; i < 200 && !finished.load(); ++i) std::this_thread::sleep_for(std::chrono::microseconds(500));
    return !finished.load();
  }

  std::atomic<bool> started{false};
  std::atomic<bool> finished{false};

 private:
  std::thread thread_;
};

}  // namespace testutil

#endif
