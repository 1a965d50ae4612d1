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

// Writes the local time of a count of seconds since 1970 as
// "Thu Jan  1 00:00:00 1970" (24 characters, no newline) and a zero into out;
// returns the length, 0 when the time cannot be converted. REQUIRES: out
// holds at least 32 bytes.
uint32_t FormatTime(uint32_t seconds, char *out);

// Stores value under tag as a number item. 1 or 0. REQUIRES: lock held.
uint32_t SetNumeric(uint32_t hColl, const char *tag, int32_t value);

// Merges every item of sourceImage, the image of hSource, into hDest; each
// change is communicated and a value that cannot be copied deletes its tag.
uint32_t collMergeInternal(uint32_t hDest, uint32_t hSource, const uint8_t *sourceImage);

// ---- placeholder substitution (no lock held: each value is read through
// the exported readers)
// Fills in templ from hColl into buf (cut to size - 1 and terminated);
// returns the full output length + 1, 0 without memory for the working text.
uint32_t BuildSubstituteOutput(const char *templ, char *buf, uint32_t size, uint32_t hColl);
// The scan: writes the output into *buffer (of *pages x 500 bytes, grown as
// needed); returns its length, or 0 when the buffer cannot grow.
uint32_t SubstituteOutput(const char *templ, char **buffer, uint32_t *pages, uint32_t hColl);
// Makes room for need bytes after used ones, growing buffer by 500-byte
// pages; the buffer (perhaps moved), or null when it cannot grow (buffer is
// then unchanged and still owned by the caller).
char *allocateAndCheck(uint32_t used, uint32_t need, uint32_t *pages, char *buffer);
// The allocator handed to collObtainString by the scan (zero-filled), and
// its release.
void *StringAlloc(uint32_t size);
void StringFree(void *p);

}  // namespace coll

#endif  // COLL_VALUES_VALUES_H
