// common.h - pieces of the platform layer that every platform shares; they
// use compiler builtins only, no operating-system header.
#ifndef COLL_PLATFORM_COMMON_H
#define COLL_PLATFORM_COMMON_H

#include <cstdint>
#include <ctime>

#include "platform/platform.h"

namespace platform {

// Counts one heap allocation and tells whether the FailAllocation hook makes
// this one fail. Every allocation of the platform layer passes through it.
bool InjectFailure();

// Copies the part of path after its last separator into buffer, cut to
// size - 1 bytes and zero-terminated; returns the bytes copied.
// REQUIRES: size >= 1.
uint32_t CopyFileName(const char *path, char separator, char *buffer, uint32_t size);

// Fills *out from a broken-down time of the C library.
void CivilFromTm(const std::tm &tm, CivilTime *out);

}  // namespace platform

#endif  // COLL_PLATFORM_COMMON_H
