// text.h - small text helpers of collctl: formatting, escaping bytes for a
// terminal, hexadecimal, UTF-8 and calendar dates.
#ifndef COLLCTL_TEXT_H
#define COLLCTL_TEXT_H

#include <cstdint>
#include <string>

namespace collctl {

// printf-style formatting into a std::string.
std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Bytes made fit for a terminal: \\ \" \n \r \t \0 and \xNN for other control
// bytes and for bytes that are not part of valid UTF-8; printable ASCII and
// valid UTF-8 stay. Escape leaves '"' alone; Quote escapes it and adds quotes.
std::string Escape(const std::string &bytes);
std::string Quote(const std::string &bytes);
// The number of terminal columns an escaped text takes (one per character).
size_t DisplayWidth(const std::string &text);

// True when the bytes are valid UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool IsUtf8(const std::string &bytes);

// 0-15 for a hexadecimal digit of either case, else -1.
int HexDigit(char c);
// Two lowercase digits per byte, high four bits first, no separators.
std::string ToHex(const std::string &bytes);
// The inverse of ToHex (either case); false on an odd length or a non-digit.
bool FromHex(const std::string &text, std::string *bytes);
// A byte for an error message: 'G', or 0x0A when it is not printable.
std::string DescribeChar(uint8_t c);
// Printable ASCII as is, every other byte as '.'.
std::string Preview(const std::string &bytes);

// "no items", "1 item", "2 items".
std::string CountText(size_t n, const char *one, const char *many);

// Seconds since 1970 as UTC in ISO 8601: 2023-11-14T22:13:20Z.
std::string IsoUtc(uint32_t seconds);
// The inverse of IsoUtc for exactly that form; false for any other text or
// a time outside 1970-01-01T00:00:00Z to 2106-02-07T06:28:15Z.
bool ParseIsoUtc(const std::string &text, uint32_t *seconds);

}  // namespace collctl

#endif  // COLLCTL_TEXT_H
