// Several threads storing, reading and deleting items at once, in private
// collections and in collections they share; the lock must keep every image
// consistent and lose nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "tests/consistency.h"
#include "tests/test_util.h"
#include "tests/worker.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 1500;

TEST(StoreThreads, PrivateAndCommonCollectionsStayConsistent) {
  uint32_t common = collOpen("common");
  ASSERT_NE(common, 0u);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, common, &failures] {
      uint32_t mine = collOpen(("mine" + std::to_string(t)).c_str());
      if (!mine) {
        ++failures;
        return;
      }
      for (int i = 0; i < kRounds; ++i) {
        std::string tag = "t" + std::to_string(t) + "_" + std::to_string(i % 37);
        std::string value(1 + (i * 7) % 50, static_cast<char>('a' + t));
        // Private: every store is read back exactly.
        if (collSetItem(mine, tag.c_str(), value.data(), static_cast<uint32_t>(value.size())) != 1) ++failures;
        if (testutil::Item(mine, tag.c_str()) != value) ++failures;
        // Common: other threads write other tags; ours must survive.
        if (collSetItem(common, tag.c_str(), value.data(), static_cast<uint32_t>(value.size())) != 1) ++failures;
        if (testutil::Item(common, tag.c_str()) != value) ++failures;
        if (i % 5 == 0) {
          collSetItem(common, tag.c_str(), "", 0);
          if (collGetType(common, tag.c_str()) != 0) ++failures;
        }
        // Shared reads of a tag everybody writes.
        collSetItem(common, "shared", value.data(), 1);
        char buf[8];
        if (collGetItem(common, "shared", buf, sizeof buf) != 1) ++failures;
        if (i % 100 == 0) collRenameTag(mine, tag.c_str(), (tag + "r").c_str());
      }
      if (!testutil::CheckImage(mine).empty()) ++failures;
      collClose(mine);
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(testutil::CheckImage(common), "");
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), 1u);
}

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
  char name[16];
  collGetName(0x4001, name, sizeof name);
  EXPECT_STREQ(name, "_Catalog");
}

// A copy waits for its source, held in another thread's transaction, and
// the destination is closed meanwhile: no copy is made for the closed
// destination (a nested collection made for it could take its slot and own
// itself, out of every owner's reach).
TEST(StoreThreads, CopyIntoACollectionClosedWhileWaiting) {
  for (const char *tag : {"kid", "tab"}) {
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
      testutil::Worker copier([&] { copied = collCopyItem(to, from, tag); });
      EXPECT_TRUE(copier.StaysBlocked());
      collClose(to);
      EXPECT_EQ(collUnlock(from), 1u);
    }
    EXPECT_EQ(copied, 0u) << tag;
    collClose(from);
    EXPECT_EQ(testutil::CheckState(), "") << tag;
    uint32_t left[4];
    EXPECT_EQ(collGetTableHandles(left, sizeof left), 0u) << tag;
    EXPECT_EQ(collIsBadCollHandle(to), 1u) << tag;
  }
}

}  // namespace
