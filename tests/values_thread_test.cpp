// Typed values read and copied while other threads change them.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "coll.h"
#include "tests/consistency.h"
#include "tests/worker.h"
#include "frame/frame.h"

namespace {

std::string Sub(HCOLL h, const char *templ) {
  char buf[256] = {};
  collSubstitute(h, templ, buf, sizeof buf);
  return buf;
}

}  // namespace

TEST(ValuesThreads, ReadersSeeWholeValues) {
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
      std::string s = Sub(h, "<!v.>");
      if (s != "<aaaa>" && s != "<bbbbbbbb>") ++bad;
      char buf[16];
      uint32_t r = collGetString(h, "v", buf, sizeof buf);
      if (r != 5 && r != 9) ++bad;
    }
  });
  std::thread copier([&] {
    HCOLL dest = collOpen("dest");
    for (int i = 0; i < 500; ++i) {
      if (collMerge(dest, h) != 1) ++bad;
      HCOLL got = collGetColl(dest, "c");
      if (got == 0 || collItemCount(got) != 1) ++bad;
      collClose(got);
    }
    collClose(dest);
  });
  writer.join();
  reader.join();
  copier.join();
  EXPECT_EQ(bad.load(), 0);
  HCOLL got = collGetColl(h, "c");
  EXPECT_EQ(collGetNumeric(got, "x"), 1999);
}

// collSetColl waits for its source, held in another thread's transaction,
// and the destination is closed meanwhile: the call fails and makes no child
// (which could otherwise take the destination's slot and own itself).
TEST(ValuesThreads, NestInACollectionClosedWhileWaiting) {
  HCOLL source = collOpen("source"), dest = collOpen("dest");
  collSetString(source, "x", "1");
  ASSERT_EQ(collLock(source), 1u);
  uint32_t stored = 7;
  {
    testutil::Worker nester([&] { stored = collSetColl(dest, "kid", source); });
    EXPECT_TRUE(nester.StaysBlocked());
    collClose(dest);
    EXPECT_EQ(collUnlock(source), 1u);
  }
  EXPECT_EQ(stored, 0u);
  collClose(source);
  EXPECT_EQ(testutil::CheckState(), "");
  uint32_t left[4];
  EXPECT_EQ(collGetNonSharedHandles(left, sizeof left), 0u);
  coll::LockGuard lock;
  EXPECT_EQ(coll::ps->collHigh, 1u);  // only the catalog
}
