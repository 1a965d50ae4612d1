// Several threads mix every kind of call on private, shared and nested
// collections and tables: transactions, advice windows whose procedures call
// back into the library, propagation chains and cycles, and handles closed by
// one thread while others still use them. The run is bounded in operations;
// a watchdog ends the process rather than let a deadlock hang the test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "coll_host.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"

namespace {

constexpr int kThreads = 4;
constexpr int kOperations = 2000;  // per thread
constexpr int kPool = 6;

const char *const kTags[] = {"a", "b", "c", "kid", "tab"};
const char *const kShared[] = {"S0", "S1", "S2"};

// Handles that every thread may use, replace and close at any moment.
struct World {
  std::atomic<uint32_t> colls[kPool];
  std::atomic<uint32_t> tables[kPool];
  uint32_t windows[2] = {};
  uint32_t common = 0;         // every thread writes tags of its own here
  std::atomic<int> stored{0};  // successful stores, to tell that work was done
  std::atomic<int> lost{0};    // stores that did not read back exactly
};

void *Allocate(uint32_t size) { return collAlloc(size); }

class Runner {
 public:
  Runner(World *world, int index) : w_(world), rng_(1000u + uint32_t(index)), index_(index) {}

  void Run() {
    mine_ = collOpen("mine");
    for (int i = 0; i < kOperations; ++i) Step();
    // Leave no private collection behind.
    for (uint32_t h : own_) collClose(h);
    collClose(mine_);
  }

 private:
  uint32_t Pick(uint32_t n) { return uint32_t(rng_() % n); }
  uint32_t Coll() { return w_->colls[Pick(kPool)].load(); }
  uint32_t Table() { return w_->tables[Pick(kPool)].load(); }
  const char *Tag() { return kTags[Pick(5)]; }
  std::string Value() { return std::to_string(Pick(1000)); }

  void Step() {
    char buf[256];
    uint32_t length = 0;
    switch (Pick(17)) {
      case 0:
        w_->stored += collSetString(Coll(), Tag(), Value().c_str());
        collSetNumeric(Coll(), Tag(), int32_t(Pick(100)));
        collSetTime(Coll(), Tag(), Pick(100000));
        break;
      case 1: {
        uint32_t h = Coll();
        collGetString(h, Tag(), buf, sizeof buf);
        collGetNumeric(h, Tag());
        collGetItem(h, Tag(), buf, sizeof buf);
        collNameItem(h, Pick(4), buf, sizeof buf);
        collItemCount(h);
        collGetType(h, Tag());
        collCompare(h, Tag(), "1", 1);
        collFree(collObtainString(h, Tag(), Allocate, &length));
        break;
      }
      case 2:
        collSetItem(Coll(), Tag(), "", 0);
        collRenameTag(Coll(), Tag(), Tag());
        collCopyItem(Coll(), Coll(), Tag());
        break;
      case 3: {
        // Nested copies, kept shallow: the kid's own kid goes first.
        uint32_t source = Coll();
        collSetItem(source, "kid", "", 0);
        collSetColl(Coll(), "kid", source);
        uint32_t got = collGetColl(Coll(), "kid");
        collItemCount(got);
        collClose(got);
        break;
      }
      case 4:
        collMerge(Coll(), Coll());
        collSubstitute(Coll(), "<!a.>-<!b.>-<!c.>", buf, sizeof buf);
        break;
      case 5: {
        uint32_t h = Coll();
        collSetTable(h, "tab", Table());
        collTableRowCount(h, "tab");
        collTableGetField(h, "tab", 0, 0, buf, sizeof buf);
        collTableGetRow(h, "tab", 0, buf, sizeof buf);
        collTableSetSelection(h, "tab", 0);
        collTableFindField(h, "tab", "x", 1, 0, 0);
        collTableDataToCollection(Coll(), h, "tab");
        tableDestroy(collGetTable(h, "tab"));
        break;
      }
      case 6: {
        uint32_t t = Table();
        tableSetItem(t, int32_t(Pick(3)), Pick(2), Value().c_str());
        tableAddRow(t, uint32_t(ROW_APPEND));
        tableSetRow(t, 0, "x\0y", 4);
        if (tableRowCount(t) > 4 && tableRowCount(t) != 0xFFFFFFFFu) tableDeleteRow(t, 0);
        tableGetItem(t, 0, 0, buf, sizeof buf);
        tableSetSelection(t, 0);
        tableDataToCollection(t, Coll());
        break;
      }
      case 7: {
        // Copy on write: the copy changes, the original must not.
        uint32_t t = Table();
        uint32_t copy = tableCopy(t, 0);
        tableSetItem(copy, 0, 0, "copy");
        tableCompare(t, copy, 0, 0);
        tableDestroy(copy);
        break;
      }
      case 8:
        collRequestPropagate(Coll(), Coll(), Pick(3) != 0);
        collRequestAdvice(Coll(), w_->windows[Pick(2)], Pick(3) != 0);
        break;
      case 9: {
        // A transaction touches only its own collection.
        uint32_t h = Coll();
        if (collLock(h)) {
          w_->stored += collSetString(h, Tag(), Value().c_str());
          collSetItem(h, Tag(), "", 0);
          collSetNumeric(h, Tag(), 1);
          collUnlock(h);
        }
        break;
      }
      case 10: {
        // Replace a pooled collection and close the old one while others
        // may still be using it.
        uint32_t fresh = Pick(2) ? collOpen("pooled") : collOpenShared(kShared[Pick(3)]);
        uint32_t old = w_->colls[Pick(kPool)].exchange(fresh);
        collClose(old);
        break;
      }
      case 11: {
        uint32_t fresh = tableCreate(2, 0);
        tableSetRow(fresh, uint32_t(ROW_NAMES), "A\0B", 4);
        tableDestroy(w_->tables[Pick(kPool)].exchange(fresh));
        break;
      }
      case 12:
        tableDataToClipboard(Table(), CLIP_NAMES_AND_ROWS);
        tableDestroy(tableDataFromClipboard(0));
        break;
      case 13: {
        uint32_t h = collOpenShared(kShared[Pick(3)]);
        collSetString(h, Tag(), Value().c_str());
        if (Pick(8) == 0) collWrite(h);
        collClose(h);
        break;
      }
      case 14: {
        uint32_t h = collOpen("mine");
        if (h) own_.push_back(h);
        if (own_.size() > 3) {
          collClose(own_.front());
          own_.erase(own_.begin());
        }
        if (!own_.empty()) {
          collSetString(own_.back(), Tag(), Value().c_str());
          collRequestPropagate(Coll(), own_.back(), 1);
        }
        break;
      }
      case 16: {
        // Tags no other thread writes, in a private collection and in a
        // common one: each store reads back exactly, each deletion holds.
        const std::string tag = "t" + std::to_string(index_) + "_" + std::to_string(Pick(37));
        const std::string value(1 + Pick(50), char('a' + index_));
        for (uint32_t h : {mine_, w_->common}) {
          w_->lost += collSetItem(h, tag.c_str(), value.data(), uint32_t(value.size())) != 1;
          w_->lost += testutil::Item(h, tag.c_str()) != value;
        }
        if (Pick(5) == 0) w_->lost += collSetItem(w_->common, tag.c_str(), "", 0) != 1 || collGetType(w_->common, tag.c_str());
        if (Pick(20) == 0) collRenameTag(mine_, tag.c_str(), (tag + "r").c_str());
        break;
      }
      default: {
        char dump[4096];
        uint32_t n = collDumpItems(Coll(), dump, sizeof dump);
        if (n) collLoadItems(Coll(), dump, n);
        break;
      }
    }
  }

  World *w_;
  std::mt19937 rng_;
  int index_;
  uint32_t mine_ = 0;
  std::vector<uint32_t> own_;
};

TEST(StressThreads, EveryKindOfCallAtOnce) {
  testutil::TempIni ini;
  // Windows whose procedures read the changed item and count it elsewhere.
  uint32_t sink = collOpen("sink");
  testutil::Listener first, second;
  for (testutil::Listener *l : {&first, &second}) {
    l->onMessage = [sink](const testutil::Heard &m) {
      char buf[64];
      collGetString(m.coll, m.tag.c_str(), buf, sizeof buf);
      collSetNumeric(sink, "heard", collGetNumeric(sink, "heard") + 1);
    };
  }
  World world;
  world.windows[0] = first.window();
  world.windows[1] = second.window();
  world.common = collOpen("common");
  for (int i = 0; i < kPool; ++i) {
    world.colls[i] = i < 3 ? collOpenShared(kShared[i]) : collOpen("pooled");
    HTABLE t = tableCreate(2, 0);
    tableSetRow(t, uint32_t(ROW_NAMES), "A\0B", 4);
    world.tables[i] = t;
  }
  // A propagation chain that closes into a cycle.
  for (int i = 0; i < kPool; ++i) collRequestPropagate(world.colls[i], world.colls[(i + 1) % kPool], 1);
  {
    // Ends the process when the work has not finished in ten minutes: a
    // deadlock fails the test instead of hanging it.
    std::atomic<bool> done{false};
    std::thread watchdog([&done] {
      for (int i = 0; i < 6000 && !done.load(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
      if (!done.load()) std::fprintf(stderr, "watchdog: the threads did not finish; deadlock?\n"), std::_Exit(4);
    });
    std::vector<std::thread> threads;
    std::vector<Runner> runners;
    runners.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) runners.emplace_back(&world, i);
    for (int i = 0; i < kThreads; ++i) threads.emplace_back([&runners, i] { runners[i].Run(); });
    for (std::thread &t : threads) t.join();
    done = true;
    watchdog.join();
  }
  EXPECT_EQ(testutil::CheckState(), "");
  EXPECT_GT(world.stored.load(), kThreads * kOperations / 40);
  EXPECT_EQ(world.lost.load(), 0);
  EXPECT_GT(first.count() + second.count(), 0u);
  first.onMessage = nullptr;
  second.onMessage = nullptr;
  for (int i = 0; i < kPool; ++i) {
    collClose(world.colls[i]);
    tableDestroy(world.tables[i]);
  }
  collClose(sink);
  collClose(world.common);
  EXPECT_EQ(testutil::CheckState(), "");
  // Every private collection and table went with its handle.
  uint32_t handles[8];
  EXPECT_EQ(collGetNonSharedHandles(handles, sizeof handles), 0u);
  EXPECT_EQ(collGetTableHandles(handles, sizeof handles), 0u);
}

}  // namespace
