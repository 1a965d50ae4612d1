// fuzz_api_sequence.cpp - the input is read as a sequence of calls on three
// collections and two tables: stores, copies, nesting, merges, renames,
// tables in and out of collections, row changes, copy on write, propagation,
// advice to a window that reads back, transactions, dumps and loads, runs of
// numbered tags that give a collection its tag index; any
// call may be told to meet a failing allocation. After every call the whole
// state must pass the consistency check; at the end nothing may be left
// behind.
#include <cstddef>
#include <cstdint>
#include <string>

#include "coll.h"
#include "coll_host.h"
#include "fuzz/fuzz_util.h"
#include "platform/platform.h"
#include "tests/consistency.h"

namespace {

// Reads the input byte by byte; zeros once it is used up.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
  bool more() const { return p_ < end_; }
  uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
  std::string text() {
    const uint32_t n = byte() % 40;
    std::string s;
    for (uint32_t i = 0; i < n && more(); ++i) s += char(byte() | 0x20);
    return s;
  }
  std::string bytes() {
    const uint32_t n = byte();
    std::string s;
    for (uint32_t i = 0; i < n && more(); ++i) s += char(byte());
    return s;
  }

 private:
  const uint8_t *p_;
  const uint8_t *end_;
};

intptr_t ReadBack(uint32_t, uint32_t, uintptr_t wParam, intptr_t lParam, void *) {
  char buf[64];
  collGetString(uint32_t(wParam), reinterpret_cast<const char *>(lParam) + 2, buf, sizeof buf);
  collItemCount(uint32_t(wParam));
  return 0;
}

const char *const kTags[] = {"a", "B", "kid", "tab", "long_tag_name_for_the_cache"};

uint32_t Row(uint8_t b) {
  static const uint32_t kRows[] = {uint32_t(ROW_HEADER), uint32_t(ROW_APPEND), uint32_t(ROW_NAMES),
                                   uint32_t(ROW_ATTRIBUTES), 0xFFFF, 0x10000, 0xFFFFFFF0u};
  return b < 7 ? kRows[b] : uint32_t(b - 7) % 8;
}

void Check() {
  const std::string fault = testutil::CheckState();
  if (!fault.empty()) fuzzutil::Fail(fault.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const uint32_t window = collHostCreateWindow(ReadBack, nullptr);
  Input in(data, size);
  HCOLL c[3] = {};
  HTABLE t[2] = {};
  char buf[300];
  uint32_t failAt = 0;  // the next call's allocation that fails (0: none)
  for (int steps = 0; in.more() && steps < 400; ++steps) {
    const uint8_t op = in.byte();
    if (op % 30 == 29) {
      failAt = in.byte() % 16 + 1u;
      continue;
    }
    platform::FailAllocation(failAt);
    failAt = 0;
    HCOLL &x = c[in.byte() % 3];
    HCOLL y = c[in.byte() % 3];
    HTABLE &u = t[in.byte() % 2];
    const char *tag = kTags[in.byte() % 5];
    switch (op % 30) {
      case 0:
        collClose(x);
        x = collOpen(in.text().c_str());
        break;
      case 1:
        collClose(x);
        x = 0;
        break;
      case 2:
        collSetString(x, tag, in.text().c_str());
        break;
      case 3:
        collSetNumeric(x, tag, int32_t(in.byte()) - 100);
        collSetTime(x, kTags[in.byte() % 5], in.byte() * 1000u);
        break;
      case 4:
        collSetItem(x, tag, "", 0);
        break;
      case 5:
        collRenameTag(x, tag, kTags[in.byte() % 5]);
        break;
      case 6:
        collCopyItem(x, y, tag);
        break;
      case 7:
        collSetColl(x, tag, y);
        break;
      case 8:
        collClose(collGetColl(x, tag));
        break;
      case 9:
        collMerge(x, y);
        break;
      case 10:
        collSetTable(x, tag, u);
        break;
      case 11:
        tableDestroy(collGetTable(x, tag));
        break;
      case 12:
        tableDestroy(u);
        u = tableCreate(in.byte() % 5, 0);
        break;
      case 13:
        tableDestroy(u);
        u = 0;
        break;
      case 14:
        tableAddRow(u, Row(in.byte()));
        break;
      case 15:
        tableDeleteRow(u, Row(in.byte()));
        break;
      case 16: {
        const uint32_t row = Row(in.byte());
        const std::string fields = in.bytes() + '\0';
        tableSetRow(u, row, fields.data(), uint32_t(fields.size()));
        break;
      }
      case 17: {
        const uint32_t row = Row(in.byte());
        tableSetItem(u, int32_t(row), in.byte() % 8 - 6u, in.text().c_str());
        break;
      }
      case 18: {
        HTABLE copy = tableCopy(u, 0);
        HTABLE &other = (&u == &t[0]) ? t[1] : t[0];
        tableDestroy(other);
        other = copy;
        break;
      }
      case 19:
        collRequestPropagate(x, y, in.byte() & 1);
        break;
      case 20:
        collRequestAdvice(x, window, in.byte() & 1);
        break;
      case 21:
        if (in.byte() & 1)
          collLock(x);
        else
          collUnlock(x);
        break;
      case 22:
        collEmpty(x);
        break;
      case 23: {
        std::string image(collDumpItems(x, nullptr, 0), '\0');
        if (!image.empty() && collDumpItems(x, image.data(), uint32_t(image.size())))
          collLoadItems(y, image.data(), uint32_t(image.size()));
        break;
      }
      case 24:
        collTableDataToCollection(x, y, tag);
        tableDataToCollection(u, x);
        break;
      case 25:
        tableSetSelection(u, Row(in.byte()));
        collTableSetSelection(x, tag, Row(in.byte()));
        break;
      case 26:
        collSubstitute(x, in.text().c_str(), buf, in.byte() + 1u);
        break;
      case 28: {
        // A run of numbered tags: numbers (in place when present), texts of
        // changing lengths (moved to the end, or deleted when empty), or
        // deletions.
        const uint32_t from = in.byte() % 64, n = in.byte() % 40, how = in.byte() % 3;
        for (uint32_t i = 0; i < n; ++i) {
          const std::string numbered = "n" + std::to_string((from + i * 7) % 64);
          if (how == 0)
            collSetNumeric(x, numbered.c_str(), int32_t(i));
          else
            collSetString(x, numbered.c_str(), how == 1 ? std::string(i % 4, 'v').c_str() : "");
        }
        break;
      }
      default:
        collGetString(x, tag, buf, in.byte() % 8);
        collTableGetField(x, tag, int32_t(Row(in.byte())), in.byte() % 8 - 6u, buf, sizeof buf);
        collTableGetRow(x, tag, Row(in.byte()), buf, sizeof buf);
        tableGetItem(u, int32_t(Row(in.byte())), in.byte() % 8 - 6u, buf, sizeof buf);
        tableGetRow(u, Row(in.byte()), buf, sizeof buf);
        tableFindAbbrev(u, "a", 1, 0, in.byte() % 4);
        tableCompare(t[0], t[1], 0, 0);
        break;
    }
    platform::FailAllocation(0);
    Check();
  }
  for (HCOLL h : c) {
    collUnlock(h);
    collClose(h);
  }
  for (HTABLE h : t) tableDestroy(h);
  Check();
  uint32_t left[2];
  if (collGetNonSharedHandles(left, sizeof left) != 0) fuzzutil::Fail("collection left behind");
  if (collGetTableHandles(left, sizeof left) != 0) fuzzutil::Fail("table left behind");
  return 0;
}
