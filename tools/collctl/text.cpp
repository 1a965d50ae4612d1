// text.cpp - small text helpers of collctl.
#include "text.h"

#include <cstdarg>
#include <cstdio>

namespace collctl {

std::string Format(const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string out(n > 0 ? size_t(n) : 0, '\0');
  if (n > 0) std::vsnprintf(out.data(), out.size() + 1, format, again);
  va_end(again);
  return out;
}

namespace {

// The length of the valid UTF-8 sequence at bytes[i], or 0 when none starts
// there.
size_t Utf8Sequence(const std::string &bytes, size_t i) {
  const uint8_t c = uint8_t(bytes[i]);
  if (c < 0x80) return 1;
  size_t n;
  uint32_t cp, min;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2, cp = c & 0x1F, min = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3, cp = c & 0x0F, min = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4, cp = c & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (bytes.size() - i < n) return 0;
  for (size_t k = 1; k < n; ++k) {
    const uint8_t d = uint8_t(bytes[i + k]);
    if ((d & 0xC0) != 0x80) return 0;
    cp = cp << 6 | (d & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

std::string EscapeBytes(const std::string &bytes, bool quote) {
  std::string out;
  for (size_t i = 0; i < bytes.size();) {
    const uint8_t c = uint8_t(bytes[i]);
    switch (c) {
      case '\\':
        out += "\\\\";
        ++i;
        continue;
      case '\n':
        out += "\\n";
        ++i;
        continue;
      case '\r':
        out += "\\r";
        ++i;
        continue;
      case '\t':
        out += "\\t";
        ++i;
        continue;
      case '\0':
        out += "\\0";
        ++i;
        continue;
      case '"':
        out += quote ? "\\\"" : "\"";
        ++i;
        continue;
      default:
        break;
    }
    const size_t n = c < 0x20 || c == 0x7F ? 0 : Utf8Sequence(bytes, i);
    if (n == 0) {
      out += Format("\\x%02X", c);
      ++i;
    } else {
      out.append(bytes, i, n);
      i += n;
    }
  }
  return out;
}

}  // namespace

std::string Escape(const std::string &bytes) { return EscapeBytes(bytes, false); }
std::string Quote(const std::string &bytes) { return "\"" + EscapeBytes(bytes, true) + "\""; }

size_t DisplayWidth(const std::string &text) {
  size_t n = 0;
  for (char c : text)
    if ((uint8_t(c) & 0xC0) != 0x80) ++n;
  return n;
}

bool IsUtf8(const std::string &bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const size_t n = Utf8Sequence(bytes, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string ToHex(const std::string &bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (char c : bytes) {
    out.push_back(digits[uint8_t(c) >> 4]);
    out.push_back(digits[uint8_t(c) & 0xF]);
  }
  return out;
}

bool FromHex(const std::string &text, std::string *bytes) {
  if (text.size() % 2) return false;
  bytes->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const int hi = HexDigit(text[i]), lo = HexDigit(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes->push_back(char(hi << 4 | lo));
  }
  return true;
}

std::string DescribeChar(uint8_t c) {
  if (c >= 0x20 && c < 0x7F) return Format("'%c'", c);
  return Format("the byte 0x%02X", c);
}

std::string Preview(const std::string &bytes) {
  std::string out;
  for (char c : bytes) out.push_back(uint8_t(c) >= 0x20 && uint8_t(c) < 0x7F ? c : '.');
  return out;
}

std::string CountText(size_t n, const char *one, const char *many) {
  if (n == 0) return Format("no %s", many);
  return Format("%zu %s", n, n == 1 ? one : many);
}

std::string IsoUtc(uint32_t seconds) {
  // Days since 1970-01-01 to a civil date (proleptic Gregorian calendar).
  const int64_t days = seconds / 86400;
  const uint32_t rest = seconds % 86400;
  const int64_t z = days + 719468;
  const int64_t era = z / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t day = doy - (153 * mp + 2) / 5 + 1;
  const int64_t month = mp < 10 ? mp + 3 : mp - 9;
  const int64_t year = yoe + era * 400 + (month <= 2);
  return Format("%04lld-%02lld-%02lldT%02u:%02u:%02uZ", (long long)year, (long long)month, (long long)day, rest / 3600,
                rest / 60 % 60, rest % 60);
}

bool ParseIsoUtc(const std::string &text, uint32_t *seconds) {
  // YYYY-MM-DDTHH:MM:SSZ, digits where the pattern has 'd'.
  static const char pattern[] = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != sizeof pattern - 1) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (pattern[i] == 'd' ? text[i] < '0' || text[i] > '9' : text[i] != pattern[i]) return false;
  auto num = [&](size_t at, size_t n) { return int64_t(std::stoi(text.substr(at, n))); };
  const int64_t y = num(0, 4), m = num(5, 2), d = num(8, 2), hh = num(11, 2), mm = num(14, 2), ss = num(17, 2);
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  static const int mdays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (m < 1 || m > 12 || d < 1 || d > mdays[m - 1] + (m == 2 && leap) || hh > 23 || mm > 59 || ss > 59) return false;
  // Days from 1970-01-01 to the civil date (proleptic Gregorian calendar).
  const int64_t yy = y - (m <= 2);
  const int64_t era = yy / 400;
  const int64_t yoe = yy - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const int64_t days = era * 146097 + doe - 719468;
  const int64_t t = days * 86400 + hh * 3600 + mm * 60 + ss;
  if (t < 0 || t > int64_t(UINT32_MAX)) return false;
  *seconds = uint32_t(t);
  return true;
}

}  // namespace collctl
