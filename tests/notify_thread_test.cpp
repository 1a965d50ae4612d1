// Transactions, notification and shared collections across threads: other
// threads wait for a transaction's owner, notifications are delivered in the
// thread that makes them, and concurrent opens and names never collide.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/worker.h"
#include "tests/test_util.h"

using testutil::Item;
using testutil::Listener;
using testutil::Set;

namespace {

// Runs fn in kThreads threads at once, each given its index.
template <typename F>
void InThreads(int n, F fn) {
  std::vector<std::thread> threads;
  for (int t = 0; t < n; ++t) threads.emplace_back(fn, t);
  for (auto &th : threads) th.join();
}

// The main thread holds a, which propagates to b, in a transaction; another
// thread's call waits until the owner has unlocked, while the owner works on.
TEST(TransactionThreads, OthersWaitForTheOwner) {
  const struct {
    const char *name;
    bool lockTarget;  // hold b instead of a
    uint32_t (*other)(HCOLL a, HCOLL b);
    const char *told;   // what a's window heard
    const char *after;  // a's x and b's x and y when all is done
  } cases[] = {
      {"a reader sees the last value", false, [](HCOLL a, HCOLL) { return uint32_t(Item(a, "x") == "new"); }, "x", "new new y"},
      {"a lock waits, then owns", false,
       [](HCOLL a, HCOLL) { uint32_t r = collLock(a); Set(a, "y", "1"); return r & collUnlock(a); }, "x,y|y,x", "new new 1"},
      {"an unlock by another thread waits and tells nothing", false, [](HCOLL a, HCOLL) { return collUnlock(a); }, "x", "new new y"},
      {"propagation into a held target waits", true, [](HCOLL a, HCOLL) { return Set(a, "x", "new"); }, "x", "new new y"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    HCOLL a = collOpen("a"), b = collOpen("b");
    collRequestPropagate(a, b, 1); Listener l; collRequestAdvice(a, l.window(), 1);
    ASSERT_EQ(collLock(c.lockTarget ? b : a), 1u);
    if (!c.lockTarget) Set(a, "x", "mid");
    uint32_t result = 0;
    {
      testutil::Worker other([&] { result = c.other(a, b); }); EXPECT_TRUE(other.StaysBlocked());
      EXPECT_EQ(Item(b, "x"), "<missing>");
      EXPECT_EQ(Set(c.lockTarget ? b : a, c.lockTarget ? "y" : "x", c.lockTarget ? "y" : "new"), 1u);
      EXPECT_EQ(l.count(), c.lockTarget ? 1u : 0u); EXPECT_EQ(collUnlock(c.lockTarget ? b : a), 1u);
    }
    EXPECT_EQ(result, 1u);
    // The owner lets go before it tells, so a second transaction may be told
    // first; each change is told once.
    EXPECT_NE(("|" + std::string(c.told) + "|").find("|" + l.Tags() + "|"), std::string::npos) << l.Tags();
    const std::string y = Item(c.lockTarget ? b : a, "y");
    EXPECT_EQ(Item(a, "x") + " " + Item(b, "x") + " " + (y == "<missing>" ? "y" : y), c.after); collClose(a);
    collClose(b);
  }
}

// A propagation target closed while the request waited for its source is
// refused.
TEST(TransactionThreads, TargetClosedWhileARequestWaits) {
  HCOLL a = collOpen("a"), gone = collOpen("gone");
  ASSERT_EQ(collLock(a), 1u);
  uint32_t result = 1;
  {
    testutil::Worker other([&] { result = collRequestPropagate(a, gone, 1); }); EXPECT_TRUE(other.StaysBlocked());
    collClose(gone); collUnlock(a);
  }
  EXPECT_EQ(result, 0u);
}

TEST(TransactionThreads, ToldInTheChangingThreadWhileOthersPropagate) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  collRequestPropagate(a, b, 1); collRequestPropagate(b, a, 1); Listener la, lb; collRequestAdvice(a, la.window(), 1);
  collRequestAdvice(b, lb.window(), 1); thread_local uint32_t toldHere = 0;
  la.onMessage = [](const testutil::Heard &) { ++toldHere; }; constexpr int kThreads = 4, kRounds = 50;
  std::atomic<int> mismatches{0};
  InThreads(kThreads + 1, [&](int t) {
    const std::string tag = "t" + std::to_string(t);
    for (int r = 0; r < kRounds; ++r) {
      if (t == kThreads) {  // changes of b, propagated to a and told there in this thread
        Set(b, "fromB", std::to_string(r).c_str()); continue;
      }
      collLock(a); Set(a, tag.c_str(), std::to_string(r % 10).c_str()); collUnlock(a);
    }
    // Each round was told once, and in this thread.
    if (toldHere != uint32_t(kRounds)) mismatches.fetch_add(1);
  });
  EXPECT_EQ(mismatches.load(), 0); EXPECT_EQ(la.count(), size_t((kThreads + 1) * kRounds));
  EXPECT_EQ(Item(b, "t0"), std::to_string((kRounds - 1) % 10));
  EXPECT_EQ(Item(a, "fromB"), std::to_string(kRounds - 1)); EXPECT_EQ(testutil::CheckState(), "");
}

TEST(CatalogThreads, OpensAndNamesNeverCollide) {
  testutil::TempIni ini; constexpr int kThreads = 4, kEach = 20;
  std::vector<std::vector<HCOLL>> shared(kThreads), unique(kThreads);
  std::vector<std::vector<std::string>> names(kThreads);
  InThreads(kThreads, [&](int t) {
    for (int i = 0; i < kEach; ++i) {
      shared[t].push_back(collOpenShared("Common")); unique[t].push_back(collOpenUnique("U"));
      char buf[100];
      if (collGenerateNewName(buf, sizeof buf) == 14) names[t].push_back(buf);
    }
  });
  std::set<HCOLL> uniques;
  std::set<std::string> all;
  for (int t = 0; t < kThreads; ++t) {
    for (HCOLL h : shared[t]) EXPECT_EQ(h, shared[0][0]);
    uniques.insert(unique[t].begin(), unique[t].end()); all.insert(names[t].begin(), names[t].end());
  }
  EXPECT_EQ(collGetShareCount(shared[0][0]), uint32_t(kThreads * kEach));
  EXPECT_EQ(uniques.size(), size_t(kThreads * kEach)); EXPECT_EQ(uniques.count(0), 0u);
  EXPECT_EQ(all.size(), size_t(kThreads * kEach)); EXPECT_EQ(collItemCount(0x4001), uint32_t(1 + kThreads * kEach));
}

}  // namespace
