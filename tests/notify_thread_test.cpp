// Transactions across threads: other threads wait for the owner, and
// notifications are delivered in the thread that makes them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "tests/listener.h"
#include "tests/worker.h"
#include "tests/test_util.h"

using testutil::Del;
using testutil::Heard;
using testutil::Item;
using testutil::Listener;
using testutil::Set;
using testutil::Worker;

TEST(TransactionThreads, ReaderWaitsForTheOwner) {
  HCOLL h = collOpen("c");
  Set(h, "x", "old");
  ASSERT_EQ(collLock(h), 1u);
  Set(h, "x", "mid");
  std::string seen;
  {
    Worker reader([&] { seen = Item(h, "x"); });
    EXPECT_TRUE(reader.StaysBlocked());
    Set(h, "x", "new");
    EXPECT_EQ(collUnlock(h), 1u);
  }
  EXPECT_EQ(seen, "new");
}

TEST(TransactionThreads, LockWaitsAndOwnershipPasses) {
  HCOLL h = collOpen("c");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  ASSERT_EQ(collLock(h), 1u);
  Set(h, "first", "1");
  uint32_t locked = 0;
  {
    Worker second([&] {
      locked = collLock(h);
      Set(h, "second", "1");
      collUnlock(h);
    });
    EXPECT_TRUE(second.StaysBlocked());
    EXPECT_EQ(testutil::Tags(h), "first");
    collUnlock(h);
  }
  EXPECT_EQ(locked, 1u);
  // The owner lets go before it tells, so the second transaction may be told
  // first; each change is told once.
  std::string told = l.Tags();
  EXPECT_TRUE(told == "first,second" || told == "second,first") << told;
}

TEST(TransactionThreads, UnlockByAnotherThreadWaitsAndOnlyTells) {
  HCOLL h = collOpen("c");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  ASSERT_EQ(collLock(h), 1u);
  Set(h, "a", "1");
  uint32_t result = 0;
  {
    Worker other([&] { result = collUnlock(h); });
    EXPECT_TRUE(other.StaysBlocked());
    EXPECT_EQ(l.count(), 0u);
    collUnlock(h);
  }
  EXPECT_EQ(result, 1u);
  EXPECT_EQ(l.Tags(), "a");  // told once, by the owner's unlock
}

TEST(TransactionThreads, PropagationIntoAHeldTargetWaits) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  collRequestPropagate(a, b, 1);
  ASSERT_EQ(collLock(b), 1u);
  {
    Worker writer([&] { Set(a, "x", "1"); });
    EXPECT_TRUE(writer.StaysBlocked());
    // The waiting writer holds no lock: the owner works on.
    EXPECT_EQ(Item(b, "x"), "<missing>");
    EXPECT_EQ(Set(b, "y", "1"), 1u);
    collUnlock(b);
  }
  EXPECT_EQ(Item(b, "x"), "1");
}

TEST(TransactionThreads, WindowToldInTheChangingThread) {
  HCOLL h = collOpen("c");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  thread_local uint32_t toldHere = 0;
  l.onMessage = [&](const Heard &) { ++toldHere; };
  constexpr int kThreads = 4, kRounds = 50;
  std::atomic<int> mismatches{0};
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        std::string tag = "t" + std::to_string(t);
        for (int r = 0; r < kRounds; ++r) {
          collLock(h);
          std::string value = std::to_string(r % 10);
          Set(h, tag.c_str(), value.c_str());
          collUnlock(h);
        }
        // Each round was told once, and in this thread.
        if (toldHere != uint32_t(kRounds)) mismatches.fetch_add(1);
      });
    }
    for (auto &th : threads) th.join();
  }
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(l.count(), size_t(kThreads * kRounds));
  EXPECT_EQ(testutil::CheckImage(h), "");
}

TEST(TransactionThreads, ConcurrentPropagationAndAdvice) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  collRequestPropagate(a, b, 1);
  collRequestPropagate(b, a, 1);
  Listener la, lb;
  collRequestAdvice(a, la.window(), 1);
  collRequestAdvice(b, lb.window(), 1);
  constexpr int kRounds = 100;
  {
    std::thread ta([&] {
      for (int r = 0; r < kRounds; ++r) Set(a, "fromA", std::to_string(r).c_str());
    });
    std::thread tb([&] {
      for (int r = 0; r < kRounds; ++r) {
        collLock(b);
        Set(b, "fromB", std::to_string(r).c_str());
        collUnlock(b);
      }
    });
    ta.join();
    tb.join();
  }
  EXPECT_EQ(Item(b, "fromA"), std::to_string(kRounds - 1));
  EXPECT_EQ(Item(a, "fromB"), std::to_string(kRounds - 1));
  EXPECT_EQ(testutil::CheckImage(a), "");
  EXPECT_EQ(testutil::CheckImage(b), "");
}
