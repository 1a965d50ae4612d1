// Several threads storing, reading and deleting items and typed values at
// once, in private collections and in collections they share; the lock must
// keep every image consistent, lose nothing, and show readers whole values.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "frame/frame.h"
#include "tests/consistency.h"
#include "tests/test_util.h"
#include "tests/worker.h"

namespace {

constexpr int kThreads = 4;

TEST(StoreThreads, FirstCallsFromManyThreadsStartTheLibraryOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> go{0};
  std::vector<uint32_t> handles(kThreads);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &go, &handles] {
      while (go.load() == 0) std::this_thread::yield();
      handles[t] = collOpen(nullptr);
    });
  go = 1;
  for (auto &th : threads) th.join();
  // One catalog, and the callers' collections in the slots after it.
  std::sort(handles.begin(), handles.end());
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(handles[t], 0x4002u + t);
}

TEST(StoreThreads, ReadersSeeWholeValues) {
  HCOLL h = collOpen("shared"), inner = collOpen("inner");
  collSetString(inner, "x", "1");
  collSetString(h, "v", "aaaa");
  collSetColl(h, "c", inner);
  std::atomic<int> bad{0};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      collSetString(h, "v", (i & 1) ? "bbbbbbbb" : "aaaa");
      collSetNumeric(inner, "x", i);
      collSetColl(h, "c", inner);
    }
  });
  std::thread reader([&] {
    for (int i = 0; i < 2000; ++i) {
      char buf[256] = {};
      collSubstitute(h, "<!v.>", buf, sizeof buf);
      bad += std::string(buf) != "<aaaa>" && std::string(buf) != "<bbbbbbbb>";
      const uint32_t r = collGetString(h, "v", buf, sizeof buf);
      bad += r != 5 && r != 9;
    }
  });
  std::thread copier([&] {
    HCOLL dest = collOpen("dest");
    for (int i = 0; i < 500; ++i) {
      bad += collMerge(dest, h) != 1;
      HCOLL got = collGetColl(dest, "c");
      bad += got == 0 || collItemCount(got) != 1;
      collClose(got);
    }
    collClose(dest);
  });
  for (std::thread *t : {&writer, &reader, &copier}) t->join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(collGetNumeric(collGetColl(h, "c"), "x"), 1999);
}

// A copy or nesting waits for its source, held in another thread's
// transaction, and the destination is closed meanwhile: the call fails and
// makes no copy (a nested collection made for the closed destination could
// take its slot and own itself, out of every owner's reach).
TEST(StoreThreads, CopyIntoACollectionClosedWhileWaiting) {
  const std::pair<const char *, std::function<uint32_t(uint32_t, uint32_t)>> calls[] = {
      {"copy kid", [](uint32_t to, uint32_t from) { return collCopyItem(to, from, "kid"); }},
      {"copy tab", [](uint32_t to, uint32_t from) { return collCopyItem(to, from, "tab"); }},
      {"nest", [](uint32_t to, uint32_t from) { return collSetColl(to, "kid", from); }},
  };
  for (const auto &[name, call] : calls) {
    uint32_t from = collOpen("from"), to = collOpen("to"), kid = collOpen("kid");
    HTABLE t = tableCreate(1, 0);
    collSetItem(kid, "x", "1", 1);
    collSetColl(from, "kid", kid);
    collSetTable(from, "tab", t);
    collClose(kid);
    tableDestroy(t);
    ASSERT_EQ(collLock(from), 1u);
    uint32_t copied = 7;
    {
      testutil::Worker copier([&, call = call] { copied = call(to, from); });
      EXPECT_TRUE(copier.StaysBlocked());
      collClose(to);
      EXPECT_EQ(collUnlock(from), 1u);
    }
    EXPECT_EQ(copied, 0u) << name;
    collClose(from);
    EXPECT_EQ(testutil::CheckState(), "") << name;
    EXPECT_EQ(testutil::LiveTables() + collIsBadCollHandle(to), 1u) << name;
    coll::LockGuard lock;
    EXPECT_EQ(coll::ps->collHigh, 1u) << name;  // only the catalog
  }
}

}  // namespace
