// Clipboard exchange of tables, and the host's clipboard stand-in.
#include <gtest/gtest.h>

#include <string>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"

namespace {

// The clipboard's text, or "<none>".
std::string ClipText() {
  uint32_t n = collHostGetClipboardText(nullptr, 0);
  if (n == 0) return "<none>";
  std::string s(n, '\0');
  EXPECT_EQ(collHostGetClipboardText(s.data(), n), n);
  s.resize(n - 1);
  return s;
}

// The text that tableDataToClipboard puts on the clipboard, or "<refused>".
std::string Export(HTABLE t, uint32_t mode) { return tableDataToClipboard(t, mode) == 1 ? ClipText() : "<refused>"; }

std::string Field(HTABLE t, int32_t row, uint32_t col) {
  char buf[2048] = {};
  if (tableGetField(t, row, col, buf, sizeof buf) == 0) return "<bad>";
  return buf;
}

// The column-width description: attribute string 0.
std::string Widths(HTABLE t) { return Field(t, ROW_HEADER, static_cast<uint32_t>(-1)); }

// Sets a packed row given as its fields separated by '|'.
void SetRow(HTABLE t, int32_t row, const std::string &fields) {
  std::string packed = fields;
  for (char &c : packed) c = c == '|' ? '\0' : c;
  packed.push_back('\0');
  ASSERT_EQ(tableSetRow(t, static_cast<uint32_t>(row), packed.data(), uint32_t(packed.size())), 1u);
}
void AddRow(HTABLE t, const std::string &fields) { SetRow(t, ROW_APPEND, fields); }
void SetNames(HTABLE t, const std::string &names) { SetRow(t, ROW_NAMES, names); }

// Columns 'A', 'B'; rows ('1','2'), ('3','4'); row 1 selected.
HTABLE Example() {
  HTABLE t = tableCreate(2, 0);
  EXPECT_NE(t, 0u);
  SetNames(t, "A|B");
  AddRow(t, "1|2");
  AddRow(t, "3|4");
  EXPECT_EQ(tableSetSelection(t, 1), 1u);
  return t;
}

// Every row of t as "f0|f1|...", rows joined by '/'; names first.
std::string Dump(HTABLE t) {
  std::string s;
  uint32_t cols = tableColCount(t);
  uint32_t rows = tableRowCount(t);
  for (int32_t r = -1; r < int32_t(rows); ++r) {
    if (r >= 0) s += '/';
    for (uint32_t c = 0; c < cols; ++c) s += (c ? "|" : "") + Field(t, r, c);
  }
  return s;
}

HTABLE Import(const std::string &text) {
  EXPECT_EQ(collHostSetClipboardText(text.c_str()), 1u);
  return tableDataFromClipboard(0);
}

// Exports t in mode and imports the text as a new table.
HTABLE Reimport(HTABLE t, uint32_t mode) {
  EXPECT_EQ(tableDataToClipboard(t, mode), 1u);
  HTABLE back = tableDataFromClipboard(0);
  EXPECT_NE(back, 0u);
  EXPECT_NE(back, t);
  return back;
}

}  // namespace

// ---------------------------------------------------------------- stand-in

TEST(ClipboardHost, SetAndGetText) {
  EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 0u);
  EXPECT_EQ(collHostSetClipboardText("abcdef"), 1u);
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(collHostGetClipboardText(buf, sizeof buf), 7u);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(collHostGetClipboardText(buf, 0), 7u);
  EXPECT_STREQ(buf, "abc");
  char one[1] = {'x'};
  EXPECT_EQ(collHostGetClipboardText(one, 1), 7u);
  EXPECT_EQ(one[0], '\0');
  EXPECT_EQ(ClipText(), "abcdef");
  EXPECT_EQ(collHostSetClipboardText(""), 1u);
  EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 1u);
  EXPECT_EQ(collHostSetClipboardText(nullptr), 1u);
  EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 0u);
}

TEST(ClipboardHost, OpenShutsOutEveryoneElse) {
  EXPECT_EQ(collHostCloseClipboard(), 0u);
  EXPECT_EQ(collHostSetClipboardText("kept"), 1u);
  EXPECT_EQ(collHostOpenClipboard(7), 1u);
  EXPECT_EQ(collHostOpenClipboard(7), 0u);
  EXPECT_FALSE(platform::OpenClipboard(0));
  EXPECT_EQ(collHostSetClipboardText("other"), 0u);
  EXPECT_EQ(collHostSetClipboardText(nullptr), 0u);
  EXPECT_EQ(ClipText(), "kept");
  EXPECT_EQ(collHostCloseClipboard(), 1u);
  EXPECT_EQ(collHostCloseClipboard(), 0u);
  EXPECT_TRUE(platform::OpenClipboard(0));
  EXPECT_EQ(collHostOpenClipboard(7), 0u);
  platform::CloseClipboard();
  EXPECT_EQ(collHostSetClipboardText("other"), 1u);
  EXPECT_EQ(ClipText(), "other");
}

TEST(ClipboardHost, PlatformSideReplacesAndCopies) {
  EXPECT_EQ(collHostSetActiveWindow(0x10005), 1u);
  EXPECT_EQ(platform::GetActiveWindow(), 0x10005u);
  EXPECT_EQ(collHostSetActiveWindow(0), 1u);
  EXPECT_EQ(platform::GetActiveWindow(), 0u);

  ASSERT_TRUE(platform::OpenClipboard(0));
  uint32_t length = 99;
  EXPECT_EQ(platform::GetClipboardText(&length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_TRUE(platform::SetClipboardText("hello world", 5));
  char *text = platform::GetClipboardText(&length);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(length, 5u);
  EXPECT_STREQ(text, "hello");
  platform::HeapFree(text);
  EXPECT_TRUE(platform::EmptyClipboard());
  EXPECT_EQ(platform::GetClipboardText(&length), nullptr);
  platform::CloseClipboard();
  EXPECT_EQ(collHostGetClipboardText(nullptr, 0), 0u);
}

// ---------------------------------------------------------------- export

TEST(ClipboardExport, EveryLayoutOfTheExample) {
  HTABLE t = Example();
  // Attribute strings are never part of the text.
  ASSERT_EQ(tableSetField(t, ROW_HEADER, static_cast<uint32_t>(-1), "%1s %1s "), 1u);
  ASSERT_EQ(tableSetField(t, ROW_HEADER, static_cast<uint32_t>(-5), "last"), 1u);
  const struct {
    uint32_t mode;
    const char *text;
  } cases[] = {
      {CLIP_NAMES, "A\tB"},
      {CLIP_SELECTED_ROW, "3\t4"},
      {CLIP_ROWS, "1\t2\r\n3\t4"},
      {CLIP_NAMES_AND_SELECTED_ROW, "A\tB\r\n3\t4"},
      {CLIP_NAMES_AND_ROWS, "A\tB\r\n1\t2\r\n3\t4\r"},
  };
  for (const auto &c : cases) {
    collHostSetClipboardText("before");
    EXPECT_EQ(tableDataToClipboard(t, c.mode), 1u) << c.mode;
    EXPECT_EQ(ClipText(), c.text) << c.mode;
    // The clipboard is closed again.
    EXPECT_EQ(collHostOpenClipboard(1), 1u);
    EXPECT_EQ(collHostCloseClipboard(), 1u);
  }
  // Exporting reads the table only.
  EXPECT_EQ(Dump(t), "A|B/1|2/3|4");
  EXPECT_EQ(tableGetSelection(t), 1u);
  tableDestroy(t);
}

TEST(ClipboardExport, FieldsAreCopiedAsTheyStand) {
  HTABLE t = tableCreate(3, 0);
  SetNames(t, "Name||x y");
  AddRow(t, "|a\tb|");
  tableSetSelection(t, 0);
  EXPECT_EQ(Export(t, CLIP_NAMES), "Name\t\tx y");
  EXPECT_EQ(Export(t, CLIP_SELECTED_ROW), "\ta\tb\t");
  EXPECT_EQ(Export(t, CLIP_NAMES_AND_ROWS), "Name\t\tx y\r\n\ta\tb\t\r");
  tableDestroy(t);
}

TEST(ClipboardExport, NamesOfANewTable) {
  HTABLE one = tableCreate(1, 0);
  collHostSetClipboardText("before");
  EXPECT_EQ(Export(one, CLIP_NAMES), "");
  HTABLE three = tableCreate(3, 0);
  EXPECT_EQ(Export(three, CLIP_NAMES), "\t\t");
  tableDestroy(one);
  tableDestroy(three);
}

TEST(ClipboardExport, NothingToExportLeavesTheClipboard) {
  HTABLE t = Example();
  tableSetSelection(t, 0xFFFFFFFF);
  collHostSetClipboardText("kept");
  EXPECT_EQ(tableDataToClipboard(t, CLIP_SELECTED_ROW), 0u);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_NAMES_AND_SELECTED_ROW), 0u);
  EXPECT_EQ(ClipText(), "kept");

  // A selection that fell off the end counts as none.
  tableSetSelection(t, 1);
  tableDeleteRow(t, 0);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_SELECTED_ROW), 0u);
  EXPECT_EQ(ClipText(), "kept");

  HTABLE empty = tableCreate(2, 0);
  SetNames(empty, "A|B");
  EXPECT_EQ(tableDataToClipboard(empty, CLIP_ROWS), 0u);
  EXPECT_EQ(ClipText(), "kept");
  EXPECT_EQ(Export(empty, CLIP_NAMES_AND_ROWS), "A\tB\r");
  tableDestroy(t);
  tableDestroy(empty);
}

TEST(ClipboardExport, RefusedCallsLeaveTheClipboard) {
  HTABLE t = Example();
  uint32_t stamp = tableGetStamp(t);
  collHostSetClipboardText("kept");
  EXPECT_EQ(tableDataToClipboard(t, 5), 0u);
  EXPECT_EQ(tableDataToClipboard(t, 0xFFFFFFFF), 0u);
  EXPECT_EQ(tableDataToClipboard(0, CLIP_NAMES), 0u);
  EXPECT_EQ(tableDataToClipboard(0x4001, CLIP_NAMES), 0u);
  EXPECT_EQ(tableDataToClipboard(t + 1, CLIP_NAMES), 0u);
  EXPECT_EQ(ClipText(), "kept");
  EXPECT_EQ(tableGetStamp(t), stamp);

  // The host holds the clipboard open.
  ASSERT_EQ(collHostOpenClipboard(1), 1u);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_NAMES), 0u);
  EXPECT_EQ(collHostCloseClipboard(), 1u);
  EXPECT_EQ(ClipText(), "kept");
  EXPECT_EQ(Export(t, CLIP_NAMES), "A\tB");

  tableDestroy(t);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_NAMES), 0u);
  EXPECT_EQ(ClipText(), "A\tB");
}

TEST(ClipboardExport, ManyEmptyRowsStayInBounds) {
  HTABLE t = tableCreate(1, 0);
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(tableAddRow(t, static_cast<uint32_t>(ROW_APPEND)), 1u);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_NAMES_AND_ROWS), 1u);
  std::string want;
  for (int i = 0; i < 3001; ++i) want += "\r\n";
  want.pop_back();
  EXPECT_EQ(ClipText(), want);
  EXPECT_EQ(tableDataToClipboard(t, CLIP_ROWS), 1u);
  want.clear();
  for (int i = 0; i < 3000; ++i) want += "\r\n";
  want.resize(want.size() - 2);
  EXPECT_EQ(ClipText(), want);
  tableDestroy(t);
}

TEST(ClipboardExport, SharedTableExportsItsOwnView) {
  HTABLE t = Example();
  HTABLE copy = tableCopy(t, 0);
  ASSERT_NE(copy, 0u);
  ASSERT_EQ(tableSetField(copy, 0, 1, "changed"), 1u);
  EXPECT_EQ(Export(t, CLIP_ROWS), "1\t2\r\n3\t4");
  EXPECT_EQ(Export(copy, CLIP_ROWS), "1\tchanged\r\n3\t4");
  tableDestroy(t);
  tableDestroy(copy);
}

// ---------------------------------------------------------------- import

TEST(ClipboardImport, RoundTripOfNamesAndRows) {
  HTABLE t = Example();
  HTABLE back = Reimport(t, CLIP_NAMES_AND_ROWS);
  EXPECT_EQ(Dump(back), "A|B/1|2/3|4");
  EXPECT_EQ(Widths(back), "%1s %1s ");
  for (uint32_t a = 2; a <= 5; ++a) EXPECT_EQ(Field(back, ROW_HEADER, 0u - a), "");
  EXPECT_EQ(tableGetSelection(back), 0xFFFFFFFFu);
  EXPECT_EQ(tableGetType(back), 0u);
  // The import leaves the clipboard closed and its text in place.
  EXPECT_EQ(ClipText(), "A\tB\r\n1\t2\r\n3\t4\r");
  EXPECT_EQ(collHostOpenClipboard(1), 1u);
  EXPECT_EQ(collHostCloseClipboard(), 1u);
  // The caller owns the new table.
  tableDestroy(back);
  EXPECT_EQ(tableRowCount(back), 0xFFFFFFFFu);
  tableDestroy(t);
}

TEST(ClipboardImport, TextAfterTheLastCrIsIgnored) {
  HTABLE t = Example();
  HTABLE back = Reimport(t, CLIP_ROWS);
  EXPECT_EQ(Dump(back), "1|2");
  EXPECT_EQ(tableRowCount(back), 0u);
  tableDestroy(back);

  back = Import("A\tB\r\nx\ty\r\nlast\tline");
  EXPECT_EQ(Dump(back), "A|B/x|y");
  tableDestroy(back);

  // A CR that is the last byte ends the scan.
  back = Import("A\r");
  EXPECT_EQ(Dump(back), "A");
  EXPECT_EQ(Widths(back), "%1s ");
  tableDestroy(back);
  tableDestroy(t);
}

TEST(ClipboardImport, TheByteAfterACrIsSkipped) {
  HTABLE t = Import("A\tB\rXc\td\r\ne\tf\r");
  EXPECT_EQ(Dump(t), "A|B/c|d/e|f");
  tableDestroy(t);
  // Without an LF the next line loses its first byte.
  t = Import("A\tB\rab\tc\rdef\tg\r");
  EXPECT_EQ(Dump(t), "A|B/b|c/ef|g");
  tableDestroy(t);
  // A lone CR right after the last line end starts no line.
  t = Import("A\r\n1\r\r");
  EXPECT_EQ(Dump(t), "A/1");
  tableDestroy(t);
}

TEST(ClipboardImport, EmptyLines) {
  HTABLE t = Import("\r\n\r\nx\r\n");
  EXPECT_EQ(tableColCount(t), 1u);
  EXPECT_EQ(Dump(t), "//x");
  EXPECT_EQ(Widths(t), "%1s ");
  tableDestroy(t);
  t = Import("\r\n");
  EXPECT_EQ(Dump(t), "");
  EXPECT_EQ(tableRowCount(t), 0u);
  EXPECT_EQ(Widths(t), "%0s ");
  tableDestroy(t);
}

TEST(ClipboardImport, TenColumnsAtMost) {
  EXPECT_EQ(Import("a\tb\tc\td\te\tf\tg\th\ti\tj\tk\r\n1\r\n"), 0u);
  // Nothing was left behind: the next table takes the first handle.
  HTABLE probe = tableCreate(1, 0);
  EXPECT_EQ(probe, 0x8001u);
  tableDestroy(probe);

  HTABLE t = Import("a\tb\tc\td\te\tf\tg\th\ti\tjj\r\n1\t2\t3\t4\t5\t6\t7\t8\t9\t10\t11\r\n");
  ASSERT_NE(t, 0u);
  EXPECT_EQ(tableColCount(t), 10u);
  EXPECT_EQ(Dump(t), "a|b|c|d|e|f|g|h|i|jj/1|2|3|4|5|6|7|8|9|10");
  EXPECT_EQ(Widths(t), "%1s %1s %1s %1s %1s %1s %1s %1s %1s %2s ");
  tableDestroy(t);
}

TEST(ClipboardImport, WidthsOfTenColumnsFromAShortText) {
  // Ten empty names: a 10-byte text gives a 40-byte width description.
  HTABLE t = Import("\t\t\t\t\t\t\t\t\t\r");
  ASSERT_NE(t, 0u);
  EXPECT_EQ(tableColCount(t), 10u);
  EXPECT_EQ(Widths(t), "%0s %0s %0s %0s %0s %0s %0s %0s %0s %0s ");
  tableDestroy(t);

  // Ten columns of the greatest width.
  std::string wide(300, 'w');
  std::string text;
  for (int c = 0; c < 10; ++c) text += (c ? "\t" : "") + wide;
  t = Import(text + "\r\n");
  ASSERT_NE(t, 0u);
  std::string want;
  for (int c = 0; c < 10; ++c) want += "%254s ";
  char buf[128] = {};
  EXPECT_EQ(tableGetField(t, ROW_HEADER, static_cast<uint32_t>(-1), buf, sizeof buf), want.size() + 1);
  EXPECT_EQ(buf, want);
  tableDestroy(t);
}

TEST(ClipboardImport, ShortAndLongRows) {
  HTABLE t = Import("A\tB\tC\r\n1\r\n1\t2\t3\t4\r\n\t\tzz\r\n");
  EXPECT_EQ(Dump(t), "A|B|C/1||/1|2|3/||zz");
  EXPECT_EQ(Widths(t), "%1s %1s %2s ");
  tableDestroy(t);
}

TEST(ClipboardImport, WidthCountsNamesAndFieldsUpTo254) {
  std::string longField(300, 'x');
  HTABLE t = Import("Name\tX\tId\r\nab\tlongish\t\r\n" + longField + "\t\t7\r\n");
  ASSERT_NE(t, 0u);
  EXPECT_EQ(Widths(t), "%254s %7s %2s ");
  char buf[400] = {};
  EXPECT_EQ(tableGetField(t, 1, 0, buf, sizeof buf), 301u);
  EXPECT_EQ(std::string(buf), longField);
  tableDestroy(t);
}

TEST(ClipboardImport, NoTableWithoutALine) {
  EXPECT_EQ(Import("A\tB"), 0u);
  EXPECT_EQ(Import(""), 0u);
  EXPECT_EQ(Import("A\n1\n"), 0u);
  collHostSetClipboardText(nullptr);
  EXPECT_EQ(tableDataFromClipboard(0), 0u);
  EXPECT_EQ(tableDataFromClipboard(0x10001), 0u);
  HTABLE probe = tableCreate(1, 0);
  EXPECT_EQ(probe, 0x8001u);
  tableDestroy(probe);
}

TEST(ClipboardImport, ClipboardHeldOpenByTheHost) {
  collHostSetClipboardText("A\r\n1\r\n");
  ASSERT_EQ(collHostOpenClipboard(1), 1u);
  EXPECT_EQ(tableDataFromClipboard(0), 0u);
  EXPECT_EQ(tableDataFromClipboard(5), 0u);
  EXPECT_EQ(collHostCloseClipboard(), 1u);
  HTABLE t = tableDataFromClipboard(5);
  EXPECT_EQ(Dump(t), "A/1");
  tableDestroy(t);
}

TEST(ClipboardImport, RowsThatDoNotFitAreSkipped) {
  // Each long row takes 1001 bytes; 65 of them fit beside the name and the
  // attribute strings, the other five are dropped, and the short last row
  // still finds room.
  std::string text = "A\r\n";
  std::string row(1000, 'r');
  for (int i = 0; i < 70; ++i) text += row + "\r\n";
  text += "tail\r\n";
  HTABLE t = Import(text);
  ASSERT_NE(t, 0u);
  EXPECT_EQ(tableRowCount(t), 66u);
  EXPECT_EQ(Field(t, 64, 0), row);
  EXPECT_EQ(Field(t, 65, 0), "tail");
  EXPECT_EQ(Widths(t), "%254s ");
  tableDestroy(t);
}

// ---------------------------------------------------------------- no memory

namespace {

uint32_t LiveTables() {
  uint32_t handles[8];
  return collGetTableHandles(handles, sizeof handles);
}

// Runs step with its n-th allocation failing, for every n until a run meets
// no failure; setup runs before each step with allocations working.
template <typename Setup, typename Step>
void ForEveryAllocation(Setup setup, Step step) {
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(0);
    setup();
    platform::FailAllocation(n);
    step();
    uint32_t made = platform::FailAllocation(0);
    if (made < n) break;
    ASSERT_LT(n, 1000u);
  }
}

}  // namespace

TEST(ClipboardNoMemory, ExportFailsWithoutATrace) {
  HTABLE t = Example();
  ForEveryAllocation([] { collHostSetClipboardText("kept"); },
                     [t] {
                       std::string text = Export(t, CLIP_NAMES_AND_ROWS);
                       // A clipboard without memory for its copy ends up empty.
                       EXPECT_TRUE(text == "A\tB\r\n1\t2\r\n3\t4\r" || text == "<none>" || text == "<refused>")
                           << text;
                       if (text == "<refused>") {
                         EXPECT_EQ(ClipText(), "kept");
                       }
                     });
  EXPECT_EQ(Dump(t), "A|B/1|2/3|4");
  tableDestroy(t);
}

TEST(ClipboardNoMemory, ImportLeavesNoTableBehind) {
  ForEveryAllocation([] { collHostSetClipboardText("A\tB\r\n1\t2\r\n"); },
                     [] {
                       HTABLE back = tableDataFromClipboard(0);
                       if (!back) {
                         EXPECT_EQ(LiveTables(), 0u);
                         return;
                       }
                       // Rows and names that found no memory are left out.
                       EXPECT_EQ(tableColCount(back), 2u);
                       EXPECT_LE(tableRowCount(back), 1u);
                       tableDestroy(back);
                       EXPECT_EQ(LiveTables(), 0u);
                     });
  // The clipboard is not left open.
  EXPECT_EQ(collHostOpenClipboard(1), 1u);
  EXPECT_EQ(collHostCloseClipboard(), 1u);
}
