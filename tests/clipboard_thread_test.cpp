// The clipboard shared by exporting, importing and host threads.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "coll.h"
#include "coll_host.h"

namespace {

std::string ClipText() {
  char buf[64] = {};
  uint32_t n = collHostGetClipboardText(buf, sizeof buf);
  return n ? std::string(buf) : "<none>";
}

}  // namespace

TEST(ClipboardThreads, ExportImportAndHostShareTheClipboard) {
  HTABLE t = tableCreate(2, 0);
  ASSERT_NE(t, 0u);
  ASSERT_EQ(tableSetRow(t, static_cast<uint32_t>(ROW_NAMES), "A\0B", 4), 1u);
  ASSERT_EQ(tableSetRow(t, static_cast<uint32_t>(ROW_APPEND), "1\0002", 4), 1u);
  ASSERT_EQ(tableSetSelection(t, 0), 1u);

  constexpr int kRounds = 2000;
  std::atomic<int> badExport{0}, badImport{0}, badText{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < kRounds; ++i) {
        uint32_t mode = (w + i) % 5;
        uint32_t r = tableDataToClipboard(t, mode);
        if (r > 1) ++badExport;
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      HTABLE back = tableDataFromClipboard(0);
      if (back == 0) continue;
      // Only texts with a CR give a table: a names line, maybe a row.
      uint32_t cols = tableColCount(back);
      if (cols != 2 || tableRowCount(back) > 1) ++badImport;
      tableDestroy(back);
    }
  });
  threads.emplace_back([&] {
    const std::string valid[] = {"A\tB", "1\t2", "A\tB\r\n1\t2", "A\tB\r\n1\t2\r", "host", "<none>"};
    for (int i = 0; i < kRounds; ++i) {
      if (collHostOpenClipboard(9)) collHostCloseClipboard();
      collHostSetClipboardText(i % 2 ? "host" : nullptr);
      std::string text = ClipText();
      bool ok = false;
      for (const auto &v : valid) ok = ok || text == v;
      if (!ok) ++badText;
    }
  });
  for (auto &th : threads) th.join();
  EXPECT_EQ(badExport.load(), 0);
  EXPECT_EQ(badImport.load(), 0);
  EXPECT_EQ(badText.load(), 0);
  // Nobody keeps the clipboard open.
  EXPECT_EQ(collHostOpenClipboard(9), 1u);
  EXPECT_EQ(collHostCloseClipboard(), 1u);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_NAMES_AND_ROWS), 1u);
  EXPECT_EQ(ClipText(), "A\tB\r\n1\t2\r");
  tableDestroy(t);
}
