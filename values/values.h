// values.h - typed values: text and numbers, times, nested collections,
// substitution and tables held in collections.
#ifndef COLL_VALUES_VALUES_H
#define COLL_VALUES_VALUES_H

#include <cstdint>

namespace coll {

// Renders any stored value block (whose data is dataLength bytes) as text
// into buf, cut to size - 1 characters and terminated; returns the full text
// length + 1, or 0 when the type has no text. A null buf or size 0 only
// reports the length. The one rule by which every item reads as text.
uint32_t BuildStringResult(const uint8_t *block, char *buf, uint32_t size, uint32_t dataLength);

}  // namespace coll

#endif  // COLL_VALUES_VALUES_H
