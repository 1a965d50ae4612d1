// The platform layer and the host functions: the same contract on every
// platform (windows that receive sent messages, message names, the
// executable's name, the memory tests, the heap and its failure hook).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "coll_host.h"
#include "platform/platform.h"
#include "tests/test_util.h"

namespace {

// The messages a window received: window, message, wParam, lParam.
using Received = std::vector<std::tuple<uint32_t, uint32_t, uintptr_t, intptr_t>>;
intptr_t Record(uint32_t window, uint32_t message, uintptr_t wParam, intptr_t lParam, void *context) {
  static_cast<Received *>(context)->emplace_back(window, message, wParam, lParam);
  return 77;
}

TEST(Platform, HostWindowsReceiveWhatIsSentWhileTheyExist) {
  Received r;
  EXPECT_EQ(collHostCreateWindow(nullptr, &r), 0u);
  uint32_t w = collHostCreateWindow(Record, &r);
  ASSERT_NE(w, 0u);
  EXPECT_NE(w >> 16, 0xFFFFu);
  EXPECT_TRUE(r.empty());  // making it sends the procedure nothing
  EXPECT_TRUE(platform::IsWindow(w));
  // Message names are registered without regard to case.
  const uint32_t msg = platform::RegisterWindowMessage("Platform_Test");
  EXPECT_TRUE(msg >= 0xC000u && msg <= 0xFFFFu);
  EXPECT_EQ(collHostRegisterMessage("PLATFORM_TEST"), msg);
  EXPECT_NE(platform::RegisterWindowMessage("Platform_Other"), msg);
  EXPECT_EQ(platform::RegisterWindowMessage(nullptr) + collHostRegisterMessage(""), 0u);
  EXPECT_EQ(platform::SendMessage(w, msg, 0x4002, 1234), 77);
  EXPECT_EQ(r, Received({{w, msg, 0x4002, 1234}}));

  EXPECT_EQ(collHostDestroyWindow(w), 1u);
  EXPECT_FALSE(platform::IsWindow(w) || platform::SendMessage(w, msg, 0, 0) || collHostDestroyWindow(w));
  EXPECT_EQ(r.size(), 1u);  // nor does destroying it, nor sending to it after
  EXPECT_FALSE(platform::IsWindow(0) || platform::SendMessage(0, msg, 0, 0));
}

TEST(Platform, ExecutableNameWithoutDirectoryCutToSize) {
  char name[256];
  uint32_t n = platform::ExecutableName(name, sizeof name);
  ASSERT_GT(n, 0u);
  EXPECT_EQ(std::string(name).rfind("coll_tests", 0), 0u) << name;
  EXPECT_EQ(std::string(name).find_first_of("/\\"), std::string::npos);
  char cut[5];
  EXPECT_EQ(platform::ExecutableName(cut, sizeof cut), 4u);
  EXPECT_STREQ(cut, "coll");
  EXPECT_EQ(platform::ExecutableName(cut, 1), 0u);
  EXPECT_STREQ(cut, "");
}

// The tick count (table stamps) follows a monotonic clock in milliseconds.
TEST(Platform, TickCountCountsMilliseconds) {
  using namespace std::chrono;
  auto ms = [](auto d) { return int64_t(duration_cast<milliseconds>(d).count()); };
  // Clock readings around each tick count bound what it may have measured.
  const auto t0 = steady_clock::now();
  const uint32_t first = platform::TickCount();
  const auto t1 = steady_clock::now();
  while (steady_clock::now() - t1 < milliseconds(60)) {
  }
  const auto t2 = steady_clock::now();
  const int64_t ticks = int64_t(platform::TickCount() - first);
  const auto t3 = steady_clock::now();
  EXPECT_TRUE(ticks >= ms(t2 - t1) - 20 && ticks <= ms(t3 - t0) + 20) << ticks << " ticks in " << ms(t2 - t1) << " ms";
}

TEST(Platform, MemoryTestsRefuseOnlyWhatCannotBeMemory) {
  char local[8] = {};
  EXPECT_FALSE(platform::IsBadReadPtr(local, sizeof local));
  EXPECT_FALSE(platform::IsBadWritePtr(local, sizeof local));
  EXPECT_FALSE(platform::IsBadReadPtr(nullptr, 0));  // size 0 always passes
  EXPECT_TRUE(platform::IsBadReadPtr(nullptr, 1));
  EXPECT_TRUE(platform::IsBadWritePtr(reinterpret_cast<void *>(0xFFFF), 1));
  EXPECT_FALSE(platform::IsBadWritePtr(reinterpret_cast<void *>(0x10000), 1));
  auto *top = reinterpret_cast<void *>(~uintptr_t(0) - 3);
  EXPECT_FALSE(platform::IsBadReadPtr(top, 4));
  EXPECT_TRUE(platform::IsBadReadPtr(top, 5));  // wraps
}

TEST(Platform, ProfileWritesRefuseMissingNames) {
  testutil::TempIni ini;
  for (const char *s : {"S", static_cast<const char *>(nullptr)})
    for (const char *k : {"k", static_cast<const char *>(nullptr)})
      EXPECT_EQ(platform::ProfileWriteString(s, k, s && k ? nullptr : "v"), false) << !s << !k;
  EXPECT_TRUE(platform::ProfileWriteString("S", "k", "v"));
  char buf[8];
  EXPECT_EQ(platform::ProfileReadString("S", "k", "", buf, sizeof buf), 1u);
}

TEST(Platform, HeapBlocksAreZeroFilledAndAllocationsCanBeMadeToFail) {
  platform::FailAllocation(0);
  auto *p = static_cast<unsigned char *>(platform::HeapAlloc(0));
  ASSERT_NE(p, nullptr);
  platform::HeapFree(p);
  platform::FailAllocation(2);
  p = static_cast<unsigned char *>(platform::HeapAlloc(64));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(p[i], 0);
  p[0] = 5;
  EXPECT_EQ(platform::HeapReAlloc(p, 1 << 20), nullptr);  // the second fails
  EXPECT_EQ(p[0], 5);                                      // and leaves the block
  void *q = platform::HeapReAlloc(p, 1 << 20);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(static_cast<unsigned char *>(q)[0], 5);
  platform::HeapFree(q);
  platform::HeapFree(nullptr);
  EXPECT_EQ(platform::FailAllocation(0), 3u);
}

}  // namespace
