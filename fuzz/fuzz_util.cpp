// fuzz_util.cpp - checks shared by the fuzz targets.
#include "fuzz/fuzz_util.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "serial/serial.h"
#include "store/store.h"

namespace fuzzutil {

void Fail(const char *what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

void CheckDumpsAgain(HCOLL hColl) {
  uint32_t expected, error;
  {
    coll::LockGuard lock;
    uint8_t *img = coll::AccessColl(hColl);
    if (!img) Fail("loaded collection gone");
    expected = coll::CalcDumpSize(img, &error) + coll::DUMP_HEADER_SIZE;
  }
  if (error) Fail("loaded collection cannot be sized");
  const uint32_t needed = collDumpItems(hColl, nullptr, 0);
  if (expected > coll::DUMP_MAX_LENGTH) {
    if (needed != 0) Fail("oversized dump accepted");
    return;
  }
  if (needed != expected) Fail("dump size differs");
  std::vector<uint8_t> image(needed);
  if (collDumpItems(hColl, image.data(), needed) != needed) Fail("dump failed");
  std::vector<char> text(2 * needed);
  if (collDumpItemsHex(hColl, text.data(), 2 * needed) != 2 * needed) Fail("hex dump failed");
  HCOLL copy = collOpen(nullptr);
  if (!copy) Fail("no collection");
  if (collLoadItems(copy, image.data(), needed) != 1) Fail("dump does not load again");
  collClose(copy);
}

uint32_t PutObject(HCOLL hColl, const char *tag, uint32_t type, uint32_t object) {
  coll::LockGuard lock;
  uint8_t *block = coll::BuildItem(type, &object, 4);
  uint8_t *copy = block ? coll::DupItem(block, hColl) : nullptr;
  coll::collFreePtr(block);
  return copy ? coll::SetItem(hColl, tag, copy, 1) : 0;
}

}  // namespace fuzzutil
