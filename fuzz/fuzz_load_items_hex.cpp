// fuzz_load_items_hex.cpp - collLoadItemsHex on any text; what loads must dump
// again.
#include <cstddef>
#include <cstdint>

#include "coll.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  HCOLL h = collOpen(nullptr);
  if (!h) fuzzutil::Fail("no collection");
  collSetItem(h, "kept", "value", 5);
  if (collLoadItemsHex(h, reinterpret_cast<const char *>(data), static_cast<uint32_t>(size)) == 1) {
    fuzzutil::CheckDumpsAgain(h);
  } else if (collItemCount(h) != 1) {
    fuzzutil::Fail("refused load stored items");
  }
  collClose(h);
  return 0;
}
