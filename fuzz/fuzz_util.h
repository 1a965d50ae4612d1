// fuzz_util.h - what the fuzz targets and the seed generator share.
#ifndef COLL_FUZZ_FUZZ_UTIL_H
#define COLL_FUZZ_FUZZ_UTIL_H

#include <cstdint>

#include "coll.h"

namespace fuzzutil {

// Stops the run: libFuzzer reports the input.
[[noreturn]] void Fail(const char *what);

// Dumps hColl and loads the dump into a new collection. A collection whose
// dump would pass the size limit is let off; any other failure stops the run.
void CheckDumpsAgain(HCOLL hColl);

// Stores a copy of a table (COLLTYPE_TABLE) or collection (COLLTYPE_COLL)
// as the item tag of hColl; the source stays the caller's. 1 or 0.
uint32_t PutObject(HCOLL hColl, const char *tag, uint32_t type, uint32_t object);

}  // namespace fuzzutil

#endif
