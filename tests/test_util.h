// test_util.h - helpers shared by the tests.
#ifndef COLL_TESTS_TEST_UTIL_H
#define COLL_TESTS_TEST_UTIL_H

#include <cstdint>
#include <string>

#include "coll.h"

namespace testutil {

// The raw bytes of an item (collGetItem), or "<missing>".
std::string Item(HCOLL h, const char *tag);
// Every tag in item order, joined by ','.
std::string Tags(HCOLL h);
// The collection's image while it is held (internal view), in use bytes only.
std::string ItemArea(HCOLL h);
// The handle that a table or collection item holds, 0 when none.
uint32_t HandleOf(HCOLL h, const char *tag);
// The number of live tables (collGetTableHandles).
uint32_t LiveTables();
// Image pages of a collection (0 when invalid).
uint32_t Pages(HCOLL h);
// Walks the image and checks its invariants: item count, data length, pages,
// cache entries pointing at tags. Empty when consistent, else what is wrong.
std::string CheckImage(HCOLL h);

// A fresh temporary directory whose COLL.INI the library uses until
// destruction, when the directory and the files the library made go again.
class TempIni {
 public:
  TempIni();
  ~TempIni();
  TempIni(const TempIni &) = delete;
  TempIni &operator=(const TempIni &) = delete;
  const std::string &dir() const { return dir_; }
  const std::string &path() const { return path_; }

 private:
  std::string dir_;
  std::string path_;
};

}  // namespace testutil

#endif
