// Tables used by several threads at once: copies of one table and of one
// table item change independently while the source never changes.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "store/store.h"
#include "tables/table.h"
#include "tests/table_util.h"

using testutil::Field;

namespace {

TEST(TableThreads, CopiesChangeIndependently) {
  HTABLE source = testutil::MakeGrid("k|v");
  for (int r = 0; r < 20; ++r) ASSERT_EQ(testutil::SetRow(source, ROW_APPEND, "key|value"), 1u);
  HCOLL common = collOpen("common");
  ASSERT_EQ(collSetTable(common, "t", source), 1u);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, source, common, &failures] {
      const std::string mine = "thread" + std::to_string(t);
      for (int i = 0; i < 400; ++i) {
        HTABLE copy = (i % 2) ? tableCopy(source, 0) : collGetTable(common, "t");
        const uint32_t row = uint32_t(i % 20);
        failures += tableSetItem(copy, int32_t(row), 1, mine.c_str()) != 1 || tableAddRow(copy, row) != 1;
        failures += Field(copy, int32_t(row + 1), 1) != mine || tableRowCount(copy) != 21;
        failures += tableCompare(copy, source, 0, 0) != row || Field(source, int32_t(row), 1) != "value";
        failures += collTableFindField(common, "t", mine.c_str(), 0xFFFFFFFFu, 0, 1) != 0xFFFFFFFFu;
        collTableSetSelection(common, "t", row); tableDestroy(copy);
      }
    });
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures.load(), 0); EXPECT_EQ(tableRowCount(source), 20u); collClose(common); tableDestroy(source);
  coll::LockGuard lock;
  for (uint32_t i = 0; i < coll::kSlots; ++i) EXPECT_EQ(coll::ps->tableData[i].data, nullptr);
}

}  // namespace
