// fuzz_substitute.cpp - collSubstitute on any template over a collection
// holding items of every type. The copy stays within the buffer, is
// terminated, and the collection is unchanged.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "coll.h"
#include "fuzz/fuzz_util.h"
#include "tests/consistency.h"

namespace {

HCOLL Fixture() {
  HCOLL h = collOpen("fixture");
  collSetString(h, "s", "text value");
  collSetString(h, "long", std::string(700, 'L').c_str());
  collSetNumeric(h, "n", -42);
  collSetTime(h, "t", 86400 * 365);
  collSetItem(h, "raw", "r\0w\x01", 4);
  HTABLE t = tableCreate(2, 0);
  tableSetRow(t, uint32_t(ROW_NAMES), "A\0B", 4);
  tableSetRow(t, uint32_t(ROW_APPEND), "1\0two", 6);
  fuzzutil::PutObject(h, "tab", COLLTYPE_TABLE, t);
  tableDestroy(t);
  HCOLL kid = collOpen("kid");
  collSetString(kid, "s", "inner");
  fuzzutil::PutObject(h, "kid", COLLTYPE_COLL, kid);
  collClose(kid);
  return h;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static HCOLL h = Fixture();
  static const std::string before = testutil::Snapshot();
  // The first byte chooses the buffer size, the rest is the template.
  const uint32_t bufferSize = size ? uint32_t(data[0]) * 16 : 0;
  const std::string templ(reinterpret_cast<const char *>(data) + (size ? 1 : 0), size ? size - 1 : 0);
  std::vector<char> buffer(bufferSize + 16, 'Z');
  const uint32_t r = collSubstitute(h, templ.c_str(), bufferSize ? buffer.data() : nullptr, bufferSize);
  for (uint32_t i = bufferSize; i < buffer.size(); ++i)
    if (buffer[i] != 'Z') fuzzutil::Fail("wrote past the buffer");
  if (bufferSize && r) {
    if (std::memchr(buffer.data(), 0, bufferSize) == nullptr) fuzzutil::Fail("copy not terminated");
  }
  // The reading never changes the collection.
  if (testutil::Snapshot() != before) fuzzutil::Fail("substitution changed the collection");
  return 0;
}
