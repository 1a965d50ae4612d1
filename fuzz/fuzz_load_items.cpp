// fuzz_load_items.cpp - collLoadItems on any bytes; what loads must dump
// again, and a refused load stores nothing. Each input is loaded as it is
// and once more with its total length and checksum made right, so that the
// record checks and the rebuilding of items are reached too.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "coll.h"
#include "fuzz/fuzz_util.h"
#include "serial/serial.h"

namespace {

void LoadOnce(const uint8_t *data, size_t size) {
  HCOLL h = collOpen(nullptr);
  if (!h) fuzzutil::Fail("no collection");
  collSetItem(h, "kept", "value", 5);
  if (collLoadItems(h, data, static_cast<uint32_t>(size)) == 1) {
    fuzzutil::CheckDumpsAgain(h);
  } else if (collItemCount(h) != 1) {
    fuzzutil::Fail("refused load stored items");
  }
  collClose(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  LoadOnce(data, size);
  if (size >= coll::DUMP_HEADER_SIZE && size <= 0xFFFF) {
    std::vector<uint8_t> sealed(data, data + size);
    coll::wrBE16(sealed.data(), static_cast<uint32_t>(size));
    coll::wrBE16(sealed.data() + 2, 0xCE00);
    coll::wrBE16(sealed.data() + 4, coll::checksum(sealed.data(), static_cast<uint32_t>(size)));
    LoadOnce(sealed.data(), size);
  }
  return 0;
}
