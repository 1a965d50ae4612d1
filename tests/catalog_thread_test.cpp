// Shared collections and unique names used by several threads at once.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "tests/test_util.h"

namespace {

constexpr int kThreads = 4;

class IniThreads : public ::testing::Test {
 protected:
  testutil::TempIni ini_;
};

TEST_F(IniThreads, GeneratedNamesAreNeverHandedOutTwice) {
  constexpr int kEach = 25;
  std::vector<std::vector<std::string>> names(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&names, t] {
      for (int i = 0; i < kEach; ++i) {
        char buf[100];
        if (collGenerateNewName(buf, sizeof buf) == 14) names[t].push_back(buf);
      }
    });
  for (std::thread &th : threads) th.join();
  std::set<std::string> all;
  for (const auto &list : names) all.insert(list.begin(), list.end());
  EXPECT_EQ(all.size(), size_t(kThreads * kEach));
}

TEST_F(IniThreads, ConcurrentOpensShareOneCollection) {
  constexpr int kEach = 20;
  std::vector<std::vector<HCOLL>> shared(kThreads), unique(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        shared[t].push_back(collOpenShared("Common"));
        unique[t].push_back(collOpenUnique("U"));
      }
    });
  for (std::thread &th : threads) th.join();
  HCOLL common = shared[0][0];
  ASSERT_NE(common, 0u);
  std::set<HCOLL> uniques;
  for (int t = 0; t < kThreads; ++t) {
    for (HCOLL h : shared[t]) EXPECT_EQ(h, common);
    uniques.insert(unique[t].begin(), unique[t].end());
  }
  EXPECT_EQ(collGetShareCount(common), uint32_t(kThreads * kEach));
  EXPECT_EQ(uniques.size(), size_t(kThreads * kEach));
  EXPECT_EQ(uniques.count(0), 0u);
  EXPECT_EQ(collItemCount(0x4001), uint32_t(1 + kThreads * kEach));
}

}  // namespace
