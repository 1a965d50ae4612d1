// common.cpp - the parts of the platform layer that need nothing from the
// operating system beyond waiting: atomic loads and stores, run-once, the
// allocation-failure hook, the memory tests, file names and times.
#include "platform/common.h"

#include "platform/platform.h"

#include <cstring>

namespace platform {

// ---------------------------------------------------------------- atomics

int32_t AtomicLoad(const int32_t *word) { return __atomic_load_n(word, __ATOMIC_SEQ_CST); }
uint32_t AtomicLoad32(const uint32_t *word) { return __atomic_load_n(word, __ATOMIC_SEQ_CST); }
void AtomicStore32(uint32_t *word, uint32_t value) { __atomic_store_n(word, value, __ATOMIC_SEQ_CST); }

void CallOnce(OnceFlag *flag, void (*fn)()) {
  if (__atomic_load_n(&flag->state, __ATOMIC_ACQUIRE) == 2) return;
  int32_t expected = 0;
  if (__atomic_compare_exchange_n(&flag->state, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    fn();
    __atomic_store_n(&flag->state, 2, __ATOMIC_RELEASE);
    WakeAll(&flag->state);
    return;
  }
  while (__atomic_load_n(&flag->state, __ATOMIC_ACQUIRE) != 2) WaitOnWord(&flag->state, 1, 10);
}

// ---------------------------------------------------------------- file names, times

uint32_t CopyFileName(const char *path, char separator, char *buffer, uint32_t size) {
  const char *base = std::strrchr(path, separator);
  base = base ? base + 1 : path;
  size_t len = std::strlen(base);
  if (len > size - 1) len = size - 1;
  std::memcpy(buffer, base, len);
  buffer[len] = 0;
  return static_cast<uint32_t>(len);
}

void CivilFromTm(const std::tm &tm, CivilTime *out) {
  out->year = tm.tm_year + 1900;
  out->month = tm.tm_mon;
  out->day = tm.tm_mday;
  out->hour = tm.tm_hour;
  out->minute = tm.tm_min;
  out->second = tm.tm_sec;
  out->weekday = tm.tm_wday;
}

// ---------------------------------------------------------------- allocation failures

namespace {
uint32_t g_failAt;       // allocations left until the one that fails; 0: none
uint32_t g_allocations;  // allocations since the last FailAllocation call
}  // namespace

bool InjectFailure() {
  __atomic_add_fetch(&g_allocations, 1, __ATOMIC_RELAXED);
  uint32_t left = __atomic_load_n(&g_failAt, __ATOMIC_RELAXED);
  if (left == 0) return false;
  return __atomic_sub_fetch(&g_failAt, 1, __ATOMIC_RELAXED) == 0;
}

uint32_t FailAllocation(uint32_t n) {
  __atomic_store_n(&g_failAt, n, __ATOMIC_RELAXED);
  return __atomic_exchange_n(&g_allocations, 0, __ATOMIC_RELAXED);
}

// ---------------------------------------------------------------- memory tests
// No probing: what lies outside the first 64 KiB and does not wrap is taken
// as accessible.

static bool BadRange(const void *p, uint32_t size) {
  if (size == 0) return false;
  uintptr_t a = reinterpret_cast<uintptr_t>(p);
  if (a < 0x10000) return true;
  return a + (size - 1) < a;  // wraps
}
bool IsBadReadPtr(const void *p, uint32_t size) { return BadRange(p, size); }
bool IsBadWritePtr(const void *p, uint32_t size) { return BadRange(p, size); }

}  // namespace platform
