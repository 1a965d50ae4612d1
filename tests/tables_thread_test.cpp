// Several threads taking copies of one table and of one table item, and
// changing their copies at once: every copy sees only its own changes, the
// shared source never changes, and the last release frees every block.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "store/store.h"
#include "tables/table.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 400;

std::string Field(HTABLE t, int32_t row, uint32_t column) {
  char buf[64];
  return tableGetItem(t, row, column, buf, sizeof buf) ? std::string(buf) : "<none>";
}

TEST(TableThreads, CopiesChangeIndependently) {
  HTABLE source = tableCreate(2, 0);
  ASSERT_EQ(tableSetRow(source, uint32_t(ROW_NAMES), "k\0v", 4), 1u);
  for (int r = 0; r < 20; ++r) ASSERT_EQ(tableSetRow(source, uint32_t(ROW_APPEND), "key\0value", 10), 1u);
  HCOLL common = collOpen("common");
  ASSERT_EQ(collSetTable(common, "t", source), 1u);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, source, common, &failures] {
      const std::string mine = "thread" + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        HTABLE copy = (i % 2) ? tableCopy(source, 0) : collGetTable(common, "t");
        if (!copy) {
          ++failures;
          continue;
        }
        uint32_t row = uint32_t(i % 20);
        if (tableSetItem(copy, int32_t(row), 1, mine.c_str()) != 1 || tableAddRow(copy, row) != 1) ++failures;
        if (Field(copy, int32_t(row + 1), 1) != mine || tableRowCount(copy) != 21) ++failures;
        if (tableCompare(copy, source, 0, 0) != row) ++failures;
        if (Field(source, int32_t(row), 1) != "value") ++failures;
        if (collTableFindField(common, "t", mine.c_str(), 0xFFFFFFFFu, 0, 1) != 0xFFFFFFFFu) ++failures;
        collTableSetSelection(common, "t", row);
        tableDestroy(copy);
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(tableRowCount(source), 20u);
  collClose(common);
  tableDestroy(source);
  coll::LockGuard lock;
  for (uint32_t i = 0; i < coll::kSlots; ++i) EXPECT_EQ(coll::ps->tableData[i].data, nullptr);
}

}  // namespace
