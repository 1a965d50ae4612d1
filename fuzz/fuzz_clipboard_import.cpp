// fuzz_clipboard_import.cpp - tableDataFromClipboard on any clipboard text.
// What it imports must be a consistent table that exports again in every
// layout; a refused import leaves no table behind.
#include <cstddef>
#include <cstdint>
#include <string>

#include "coll.h"
#include "coll_host.h"
#include "fuzz/fuzz_util.h"
#include "tests/consistency.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The clipboard holds zero-terminated text: the input up to its first zero.
  const std::string text(reinterpret_cast<const char *>(data), size);
  collHostSetClipboardText(text.c_str());
  HTABLE t = tableDataFromClipboard(0);
  if (!testutil::CheckState().empty()) fuzzutil::Fail(testutil::CheckState().c_str());
  uint32_t handles[2];
  if (!t) {
    if (collGetTableHandles(handles, sizeof handles) != 0) fuzzutil::Fail("refused import left a table");
    return 0;
  }
  const uint32_t cols = tableColCount(t);
  if (cols == 0 || cols > 10) fuzzutil::Fail("imported column count out of range");
  tableSetSelection(t, 0);
  for (uint32_t mode = CLIP_NAMES; mode <= CLIP_NAMES_AND_ROWS; ++mode) tableDataToClipboard(t, mode);
  // The names and rows export reads back as the same grid.
  if (tableDataToClipboard(t, CLIP_NAMES_AND_ROWS)) {
    HTABLE back = tableDataFromClipboard(0);
    if (back && tableColCount(back) != cols) fuzzutil::Fail("export does not import again");
    tableDestroy(back);
  }
  tableDestroy(t);
  if (!testutil::CheckState().empty()) fuzzutil::Fail(testutil::CheckState().c_str());
  if (collGetTableHandles(handles, sizeof handles) != 0) fuzzutil::Fail("table left behind");
  return 0;
}
