// fuzz_profile.cpp - the initialisation file's text. The input becomes
// COLL.INI in a temporary directory; shared collections open from its
// sections, are written back, and unique names are drawn from it. Whatever
// the text, the state stays consistent and nothing is left open.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "coll.h"
#include "frame/frame.h"
#include "fuzz/fuzz_util.h"
#include "tests/consistency.h"
#include "tests/test_util.h"

namespace {

void Check() {
  const std::string fault = testutil::CheckState();
  if (!fault.empty()) fuzzutil::Fail(fault.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static testutil::TempIni ini;  // one directory for the whole run
  if (FILE *f = std::fopen(ini.path().c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  static const char *const kNames[] = {"S", "a", "_unnamed", "_General"};
  HCOLL opened[4] = {};
  for (int i = 0; i < 4; ++i) {
    opened[i] = collOpenShared(kNames[i]);
    Check();
  }
  if (opened[0]) {
    char buf[256];
    for (uint32_t i = 0, n = collItemCount(opened[0]); i < n && i < 64; ++i) {
      collNameItem(opened[0], i, buf, sizeof buf);
      collGetString(opened[0], buf, buf, sizeof buf);
    }
    collSetString(opened[0], "added", "value");
    collWrite(opened[0]);
    Check();
  }
  HCOLL unique = collOpenUnique("u");
  char name[128];
  collGenerateNewName(name, sizeof name);
  collGenerateNewName(nullptr, 128);
  collClose(unique);
  for (HCOLL h : opened) collClose(h);
  // The section written back opens again.
  HCOLL again = collOpenShared("S");
  collClose(again);
  Check();
  uint32_t left[2];
  if (collGetNonSharedHandles(left, sizeof left) != 0) fuzzutil::Fail("collection left open");
  coll::LockGuard lock;
  for (uint32_t slot = 2; slot < coll::kSlots; ++slot)
    if (coll::ps->collPtrs[slot]) fuzzutil::Fail("shared collection left open");
  return 0;
}
