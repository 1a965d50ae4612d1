// fuzz_table_load.cpp - tableLoad on any bytes, copied and in place; the
// image is never written, and a loaded table dumps again.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "coll.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> before(data, data + size);
  for (uint32_t mode : {0u, 1u}) {
    HTABLE t = tableLoad(data, static_cast<uint32_t>(size), mode, 0, 0);
    if (!t) continue;
    HCOLL h = collOpen(nullptr);
    if (!h) fuzzutil::Fail("no collection");
    if (!fuzzutil::PutObject(h, "t", COLLTYPE_TABLE, t)) fuzzutil::Fail("loaded table not storable");
    fuzzutil::CheckDumpsAgain(h);
    collClose(h);
    tableDestroy(t);
  }
  if (size && std::memcmp(before.data(), data, size) != 0) fuzzutil::Fail("image written");
  return 0;
}
