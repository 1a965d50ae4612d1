// ascii.h - text rules that must not depend on the host's locale.
//
// Tags and column names compare without regard to the case of the letters
// A-Z only; decimal conversion behaves as on a 32-bit platform whatever the
// width of long.
#ifndef COLL_FRAME_ASCII_H
#define COLL_FRAME_ASCII_H

#include <cstdint>

namespace coll {

inline uint8_t AsciiUpper(uint8_t c) { return (c >= 'a' && c <= 'z') ? uint8_t(c - 32) : c; }
inline uint8_t AsciiLower(uint8_t c) { return (c >= 'A' && c <= 'Z') ? uint8_t(c + 32) : c; }

// Compares n bytes without regard to the case of A-Z, stopping at a zero byte
// found in both; like _strnicmp, the result orders by the lower-cased bytes.
int AsciiStrnicmp(const void *a, const void *b, uint32_t n);
// Whole-string comparison without regard to case (_stricmp).
int AsciiStricmp(const char *a, const char *b);
// True when the n bytes at a and b are equal without regard to case.
bool AsciiEqualN(const void *a, const void *b, uint32_t n);
// Upper-cases a zero-terminated string in place (_strupr).
void AsciiStrupr(char *s);

// atol on a 32-bit platform: leading blanks (space, \t\n\v\f\r), an optional
// sign, decimal digits; the result saturates at the int32_t limits.
int32_t Atol32(const char *s);
// Writes value as "%ld" of a 32-bit long would, zero-terminated; returns the
// length. REQUIRES: out holds at least 12 bytes.
uint32_t FormatLong(char *out, int32_t value);
// "%u" of a 32-bit unsigned value; REQUIRES: out holds at least 11 bytes.
uint32_t FormatUnsigned(char *out, uint32_t value);

}  // namespace coll

#endif  // COLL_FRAME_ASCII_H
