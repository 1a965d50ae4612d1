// Clipboard exchange of tables, and the host's clipboard stand-in.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "tests/table_util.h"

using testutil::Field;
using testutil::kNone;
using testutil::Grid;
using testutil::MakeGrid;

namespace {

// The clipboard's text, or "<none>".
std::string ClipText() {
  const uint32_t n = collHostGetClipboardText(nullptr, 0);
  if (n == 0) return "<none>";
  std::string s(n, '\0');
  EXPECT_EQ(collHostGetClipboardText(s.data(), n), n); s.resize(n - 1);
  return s;
}
// The text tableDataToClipboard puts on the clipboard, or "<refused>" (the
// clipboard keeps its text then).
std::string Export(HTABLE t, uint32_t mode) {
  collHostSetClipboardText("kept");
  const uint32_t r = tableDataToClipboard(t, mode);
  EXPECT_TRUE(collHostOpenClipboard(1) && collHostCloseClipboard());  // closed again
  if (r != 1) {
    EXPECT_EQ(ClipText(), "kept");
  }
  return r == 1 ? ClipText() : "<refused>";
}
HTABLE Import(const std::string &text) {
  EXPECT_EQ(collHostSetClipboardText(text.c_str()), 1u);
  return tableDataFromClipboard(0);
}
std::string Widths(HTABLE t) { return Field(t, ROW_HEADER, kNone); }

TEST(ClipboardHost, TextOpenAndClose) {
  EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 0u); EXPECT_EQ(collHostSetClipboardText("abcdef"), 1u);
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(collHostGetClipboardText(buf, 0), 7u); EXPECT_EQ(buf[0], 'x');
  EXPECT_EQ(collHostGetClipboardText(buf, 1), 7u); EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(collHostGetClipboardText(buf, sizeof buf), 7u); EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(collHostSetClipboardText(""), 1u); EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 1u);
  // An open clipboard shuts out everyone else until it is closed.
  EXPECT_EQ(collHostCloseClipboard(), 0u); EXPECT_EQ(collHostOpenClipboard(7), 1u);
  EXPECT_EQ(collHostOpenClipboard(7), 0u); EXPECT_FALSE(platform::OpenClipboard(0));
  EXPECT_EQ(collHostSetClipboardText(nullptr), 0u); EXPECT_EQ(collHostCloseClipboard(), 1u);
  EXPECT_EQ(collHostCloseClipboard(), 0u); EXPECT_EQ(collHostSetClipboardText(nullptr), 1u);
  // The library's side: the active window, replacing and copying the text.
  EXPECT_EQ(collHostSetActiveWindow(0x10005), 1u); EXPECT_EQ(platform::GetActiveWindow(), 0x10005u);
  ASSERT_TRUE(platform::OpenClipboard(0)); EXPECT_EQ(collHostOpenClipboard(7), 0u);
  uint32_t length = 99;
  EXPECT_EQ(platform::GetClipboardText(&length), nullptr); EXPECT_EQ(length, 0u);
  EXPECT_TRUE(platform::SetClipboardText("hello world", 5));
  char *text = platform::GetClipboardText(&length);
  ASSERT_NE(text, nullptr); EXPECT_EQ(length, 5u); EXPECT_STREQ(text, "hello"); platform::HeapFree(text);
  EXPECT_TRUE(platform::EmptyClipboard()); EXPECT_EQ(platform::GetClipboardText(&length), nullptr);
  platform::CloseClipboard(); EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 0u);
}

TEST(ClipboardExport, Layouts) {
  HTABLE example = MakeGrid("A|B/1|2/3|4");
  tableSetSelection(example, 1);
  // Attribute strings are never part of the text.
  tableSetField(example, ROW_HEADER, kNone, "%1s %1s "); tableSetField(example, ROW_HEADER, uint32_t(-5), "last");
  HTABLE plain = MakeGrid("Name||x y/|a\tb|");
  tableSetSelection(plain, 0);
  HTABLE none = MakeGrid("A|B/1|2"), empty = MakeGrid("A|B"), one = tableCreate(1, 0), three = tableCreate(3, 0);
  const uint32_t stamp = tableGetStamp(example);
  const struct {
    HTABLE t;
    uint32_t mode;
    const char *text;
  } cases[] = {
      {example, CLIP_NAMES, "A\tB"},
      {example, CLIP_SELECTED_ROW, "3\t4"},
      {example, CLIP_ROWS, "1\t2\r\n3\t4"},
      {example, CLIP_NAMES_AND_SELECTED_ROW, "A\tB\r\n3\t4"},
      {example, CLIP_NAMES_AND_ROWS, "A\tB\r\n1\t2\r\n3\t4\r"},
      {plain, CLIP_NAMES, "Name\t\tx y"},
      {plain, CLIP_SELECTED_ROW, "\ta\tb\t"},
      {plain, CLIP_NAMES_AND_ROWS, "Name\t\tx y\r\n\ta\tb\t\r"},
      {none, CLIP_SELECTED_ROW, "<refused>"},
      {none, CLIP_NAMES_AND_SELECTED_ROW, "<refused>"},
      {empty, CLIP_ROWS, "<refused>"},
      {empty, CLIP_NAMES_AND_ROWS, "A\tB\r"},
      {one, CLIP_NAMES, ""},
      {three, CLIP_NAMES, "\t\t"},
  };
  for (const auto &c : cases) EXPECT_EQ(Export(c.t, c.mode), c.text) << c.t << " mode " << c.mode;
  EXPECT_EQ(Grid(example), "A|B/1|2/3|4");  // exporting reads the table only
  EXPECT_EQ(tableGetSelection(example), 1u); EXPECT_EQ(tableGetStamp(example), stamp);
  // The host holds the clipboard open.
  ASSERT_EQ(collHostOpenClipboard(1), 1u); EXPECT_EQ(tableDataToClipboard(example, CLIP_NAMES), 0u);
  EXPECT_EQ(collHostCloseClipboard(), 1u);
  // Many empty rows.
  for (int i = 0; i < 3000; ++i) tableAddRow(one, uint32_t(ROW_APPEND));
  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += "\r\n";
  EXPECT_EQ(Export(one, CLIP_NAMES_AND_ROWS), lines + "\r");
  EXPECT_EQ(Export(one, CLIP_ROWS), lines.substr(0, lines.size() - 2));
}

// Random grids through the clipboard and back: the same names and rows, and
// widths from the longest name or field of each column (at most 254).
TEST(ClipboardImport, RoundTripOfRandomGrids) {
  std::mt19937 rng(5);
  for (int round = 0; round < 60; ++round) {
    const uint32_t cols = 1 + rng() % 10, rows = round % 4 ? rng() % 6 : 40 + rng() % 30;
    std::string grid, widths;
    std::vector<std::vector<std::string>> cells(rows + 1, std::vector<std::string>(cols));
    for (uint32_t c = 0; c < cols; ++c) {
      size_t widest = 0;
      for (uint32_t r = 0; r <= rows; ++r) {
        const size_t len = rng() % 8 ? rng() % 6 : 250 + rng() % 10;
        cells[r][c] = std::string(len, char('a' + rng() % 26)); widest = std::max(widest, std::min<size_t>(len, 254));
      }
      widths += "%" + std::to_string(widest) + "s ";
    }
    for (uint32_t r = 0; r <= rows; ++r)
      for (uint32_t c = 0; c < cols; ++c) grid += (c ? "|" : r ? "/" : "") + cells[r][c];
    HTABLE t = MakeGrid(grid, 9);
    tableSetSelection(t, 0); ASSERT_EQ(tableDataToClipboard(t, CLIP_NAMES_AND_ROWS), 1u);
    const std::string text = ClipText();
    HTABLE back = tableDataFromClipboard(0);
    ASSERT_NE(back, 0u) << grid; EXPECT_EQ(Grid(back), grid); EXPECT_EQ(Widths(back), widths);
    EXPECT_EQ(testutil::Row(back, ROW_ATTRIBUTES), widths + "||||"); EXPECT_EQ(tableGetSelection(back), kNone);
    EXPECT_EQ(tableGetType(back), 0u);
    EXPECT_EQ(ClipText(), text);  // left in place, and the clipboard closed
    EXPECT_TRUE(collHostOpenClipboard(1) && collHostCloseClipboard()); tableDestroy(back); tableDestroy(t);
  }
}

TEST(ClipboardImport, LineEndsRaggedRowsAndLimits) {
  const std::string ten = "a\tb\tc\td\te\tf\tg\th\ti\tjj\r\n1\t2\t3\t4\t5\t6\t7\t8\t9\t10\t11\r\n";
  std::string wide, wideGrid;
  for (int c = 0; c < 10; ++c) wide += (c ? "\t" : "") + std::string(300, 'w');
  for (int c = 0; c < 10; ++c) wideGrid += (c ? "|" : "") + std::string(300, 'w');
  const struct {
    std::string text, grid, widths;
  } cases[] = {
      // Text after the last CR is ignored; the byte after a CR is skipped.
      {"A\tB\r\nx\ty\r\nlast\tline", "A|B/x|y", "%1s %1s "},
      {"A\r", "A", "%1s "},
      {"A\tB\rXc\td\r\ne\tf\r", "A|B/c|d/e|f", "%1s %1s "},
      {"A\tB\rab\tc\rdef\tg\r", "A|B/b|c/ef|g", "%2s %1s "},
      {"A\r\n1\r\r", "A/1", "%1s "},
      {"\r\n\r\nx\r\n", "//x", "%1s "},
      {"\r\n", "", "%0s "},
      // Short rows padded, long ones cut, at most ten columns.
      {"A\tB\tC\r\n1\r\n1\t2\t3\t4\r\n\t\tzz\r\n", "A|B|C/1||/1|2|3/||zz", "%1s %1s %2s "},
      {ten, "a|b|c|d|e|f|g|h|i|jj/1|2|3|4|5|6|7|8|9|10", "%1s %1s %1s %1s %1s %1s %1s %1s %1s %2s "},
      {"\t\t\t\t\t\t\t\t\t\r", "|||||||||", "%0s %0s %0s %0s %0s %0s %0s %0s %0s %0s "},
      {"Name\tX\tId\r\nab\tlongish\t\r\n" + std::string(300, 'x') + "\t\t7\r\n",
       "Name|X|Id/ab|longish|/" + std::string(300, 'x') + "||7", "%254s %7s %2s "},
      {wide + "\r\n", wideGrid, "%254s %254s %254s %254s %254s %254s %254s %254s %254s %254s "},
      // No table: no line end, eleven columns.
      {"A\tB", "<none>", ""},
      {"", "<none>", ""},
      {"A\n1\n", "<none>", ""},
      {"a\tb\tc\td\te\tf\tg\th\ti\tj\tk\r\n1\r\n", "<none>", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    HTABLE t = Import(c.text);
    if (c.grid == "<none>") {
      EXPECT_EQ(t, 0u); continue;
    }
    ASSERT_NE(t, 0u); EXPECT_EQ(Grid(t), c.grid); EXPECT_EQ(Widths(t), c.widths); tableDestroy(t);
  }
  uint32_t handles[4];
  EXPECT_EQ(collGetTableHandles(handles, sizeof handles), 0u);  // nothing left behind
  collHostSetClipboardText(nullptr); EXPECT_EQ(tableDataFromClipboard(0x10001), 0u);
  // The host holds the clipboard open.
  collHostSetClipboardText("A\r\n1\r\n"); ASSERT_EQ(collHostOpenClipboard(1), 1u);
  EXPECT_EQ(tableDataFromClipboard(5), 0u); EXPECT_EQ(collHostCloseClipboard(), 1u);
  EXPECT_EQ(Grid(tableDataFromClipboard(5)), "A/1");
  // Rows of 1001 bytes: 65 fit beside the name and attributes, five are
  // dropped, and a short last row still finds room.
  std::string text = "A\r\n";
  for (int i = 0; i < 70; ++i) text += std::string(1000, 'r') + "\r\n";
  HTABLE t = Import(text + "tail\r\n");
  EXPECT_EQ(tableRowCount(t), 66u); EXPECT_EQ(Field(t, 64, 0), std::string(1000, 'r'));
  EXPECT_EQ(Field(t, 65, 0), "tail"); EXPECT_EQ(Widths(t), "%254s ");
}

}  // namespace
