// clipboard.cpp - tables to and from the clipboard as tab-separated text.
//
// The export writes the column names, the selected row or every row of a
// table straight from its data block: each string followed by a TAB, the TAB
// after a line's last string turned into CR LF where the layout ends a line,
// and the last byte written replaced by the terminating zero. The import cuts
// the clipboard text into lines at CR, takes the first line as the column
// names and appends the others as rows, then records every column's width in
// attribute string 0.
#include <cstring>

#include "platform/platform.h"
#include "tables/table.h"

namespace coll {

namespace {

constexpr uint8_t kTab = 9;
constexpr uint8_t kLf = 10;
constexpr uint8_t kCr = 13;

// Columns the import accepts.
constexpr uint32_t kClipMaxCols = 10;
// Buffer for reading one string when columns are measured: widths count at
// most kClipFieldSize - 1 bytes.
constexpr uint32_t kClipFieldSize = 255;
// One width group is "%", at most three digits, "s" and a blank.
constexpr uint32_t kClipWidthGroup = 6;

// The export buffer: every string of the table with its TAB, a CR LF per
// line, and room to spare.
uint32_t ClipBufferSize(const uint8_t *header) { return TableLength(header) + 4 * TableRows(header) + 104; }

// Steps past the string at *offset; when write is set, appends its bytes and
// a TAB to buffer. Never reads past the data nor writes past capacity.
void ClipString(const uint8_t *header, uint8_t *buffer, uint32_t *length, uint32_t *offset, bool write) {
  const uint8_t *data = TableData(header);
  uint32_t end = TableDataLength(header);
  uint32_t capacity = ClipBufferSize(header);
  uint32_t at = *offset;
  while (at < end && data[at] != 0) {
    if (write && *length < capacity) buffer[(*length)++] = data[at];
    ++at;
  }
  if (at < end) ++at;  // the terminator
  *offset = at;
  if (write && *length < capacity) buffer[(*length)++] = kTab;
}

// Ends a written line: its trailing TAB becomes CR, and LF follows.
void ClipLineEnd(const uint8_t *header, uint8_t *buffer, uint32_t *length) {
  if (*length == 0) return;
  buffer[*length - 1] = kCr;
  if (*length < ClipBufferSize(header)) buffer[(*length)++] = kLf;
}

}  // namespace

void copyAndSkipNames(uint32_t mode, const uint8_t *header, uint32_t *length, uint8_t *buffer,
                      uint32_t *dataOffset) {
  bool write = mode == CLIP_NAMES || mode == CLIP_NAMES_AND_SELECTED_ROW || mode == CLIP_NAMES_AND_ROWS;
  uint32_t cols = TableCols(header);
  for (uint32_t c = 0; c < cols; ++c) ClipString(header, buffer, length, dataOffset, write);
  if (mode == CLIP_NAMES_AND_SELECTED_ROW || mode == CLIP_NAMES_AND_ROWS) ClipLineEnd(header, buffer, length);
}

void copyAndSkipRows(uint32_t mode, const uint8_t *header, uint32_t *length, uint8_t *buffer,
                     uint32_t *dataOffset) {
  bool everyRow = mode == CLIP_ROWS || mode == CLIP_NAMES_AND_ROWS;
  uint32_t rows = TableRows(header);
  uint32_t cols = TableCols(header);
  uint32_t selection = TableSelection(header);
  for (uint32_t r = 0; r < rows; ++r) {
    bool write = everyRow || r == selection;
    for (uint32_t c = 0; c < cols; ++c) ClipString(header, buffer, length, dataOffset, write);
    if (everyRow) ClipLineEnd(header, buffer, length);
    if (!everyRow && r == selection) break;  // nothing further is written
  }
  if (mode == CLIP_ROWS && *length > 0) --*length;  // no LF after the last row
}

void BuildClipOutput(uint32_t mode, const uint8_t *header, uint8_t *buffer, uint32_t *length) {
  uint32_t offset = 0;
  *length = 0;
  copyAndSkipNames(mode, header, length, buffer, &offset);
  switch (mode) {
    case CLIP_SELECTED_ROW:
    case CLIP_NAMES_AND_SELECTED_ROW:
      if (TableSelection(header) >= TableRows(header)) {
        *length = 0;
        return;
      }
      copyAndSkipRows(mode, header, length, buffer, &offset);
      break;
    case CLIP_ROWS:
    case CLIP_NAMES_AND_ROWS:
      if (TableRows(header) != 0) copyAndSkipRows(mode, header, length, buffer, &offset);
      break;
    default:
      break;
  }
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) tableDataToClipboard(HTABLE hTable, uint32_t mode) {
  if (mode > CLIP_NAMES_AND_ROWS) return 0;
  LockGuard lock;
  const uint8_t *header = GetTablePtr(hTable);
  if (!header) return 0;
  uint8_t *buffer = static_cast<uint8_t *>(collAllocPtr(ClipBufferSize(header)));
  if (!buffer) return 0;
  uint32_t length = 0;
  BuildClipOutput(mode, header, buffer, &length);
  if (length == 0) {
    collFreePtr(buffer);
    return 0;
  }
  buffer[length - 1] = 0;  // the last byte written gives way to the terminator
  if (!platform::OpenClipboard(platform::GetActiveWindow())) {
    collFreePtr(buffer);
    return 0;
  }
  // The clipboard keeps its own copy of the text; emptying it and handing it
  // the text are not checked, as a failure leaves nothing to undo.
  platform::EmptyClipboard();
  platform::SetClipboardText(reinterpret_cast<const char *>(buffer), length - 1);
  platform::CloseClipboard();
  collFreePtr(buffer);
  return 1;
}

namespace {

// Widths of the columns of table (names and fields, each as read into a
// kClipFieldSize buffer) as "%<width>s " groups, stored in attribute string 0.
void StoreColumnWidths(HTABLE table) {
  uint32_t cols = tableColCount(table);
  uint32_t rows = tableRowCount(table);
  if (cols == kBadIndex || rows == kBadIndex) return;
  if (cols > kClipMaxCols) cols = kClipMaxCols;
  uint32_t widths[kClipMaxCols] = {};
  char field[kClipFieldSize];
  // Row ROW_HEADER (the names) first, then every row.
  for (uint32_t i = 0; i <= rows; ++i) {
    int32_t row = static_cast<int32_t>(i) - 1;
    for (uint32_t c = 0; c < cols; ++c) {
      if (tableGetField(table, row, c, field, kClipFieldSize) == 0) continue;
      uint32_t width = static_cast<uint32_t>(std::strlen(field));
      if (width > widths[c]) widths[c] = width;
    }
  }
  char text[kClipMaxCols * kClipWidthGroup + 1];
  uint32_t n = 0;
  for (uint32_t c = 0; c < cols; ++c) {
    char digits[12];
    uint32_t k = FormatUnsigned(digits, widths[c]);
    text[n++] = '%';
    std::memcpy(text + n, digits, k);
    n += k;
    text[n++] = 's';
    text[n++] = ' ';
  }
  text[n] = 0;
  tableSetField(table, ROW_HEADER, static_cast<uint32_t>(-1), text);
}

}  // namespace

COLL_API(HTABLE) tableDataFromClipboard(HWINDOW window) {
  if (!window) window = platform::GetActiveWindow();
  if (!platform::OpenClipboard(window)) return 0;
  // The platform hands out a private, zero-terminated copy of the text.
  uint32_t size = 0;
  char *text = platform::GetClipboardText(&size);
  platform::CloseClipboard();
  if (!text) return 0;
  // The text ends at its first zero byte.
  const void *zero = std::memchr(text, 0, size);
  uint32_t length = zero ? static_cast<uint32_t>(static_cast<const char *>(zero) - text) : size;
  char *line = length < 0xFFFFFFFFu ? static_cast<char *>(collAllocPtr(length + 1)) : nullptr;
  if (!line) {
    platform::HeapFree(text);
    return 0;
  }
  HTABLE table = 0;
  uint32_t start = 0;
  while (start < length) {
    const void *cr = std::memchr(text + start, kCr, length - start);
    if (!cr) break;  // text after the last CR is not a line
    uint32_t end = static_cast<uint32_t>(static_cast<const char *>(cr) - text);
    uint32_t n = end - start;
    uint32_t tabs = 0;
    for (uint32_t i = 0; i < n; ++i) {
      char ch = text[start + i];
      if (ch == static_cast<char>(kTab)) {
        ch = 0;
        ++tabs;
      }
      line[i] = ch;
    }
    line[n] = 0;
    if (!table) {
      if (tabs + 1 > kClipMaxCols) break;
      table = tableCreate(tabs + 1, 0);
      if (!table) break;
      tableSetRow(table, static_cast<uint32_t>(ROW_NAMES), line, n + 1);
    } else {
      tableSetRow(table, static_cast<uint32_t>(ROW_APPEND), line, n + 1);
    }
    start = end + 2;  // the CR and the byte after it, whatever it is
  }
  collFreePtr(line);
  platform::HeapFree(text);
  if (table) StoreColumnWidths(table);
  return table;
}
