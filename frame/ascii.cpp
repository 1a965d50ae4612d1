#include "frame/ascii.h"

namespace coll {

int AsciiStrnicmp(const void *a, const void *b, uint32_t n) {
  const uint8_t *p = static_cast<const uint8_t *>(a);
  const uint8_t *q = static_cast<const uint8_t *>(b);
  for (uint32_t i = 0; i < n; ++i) {
    int x = AsciiLower(p[i]);
    int y = AsciiLower(q[i]);
    if (x != y) return x - y;
    if (x == 0) return 0;
  }
  return 0;
}

int AsciiStricmp(const char *a, const char *b) {
  const uint8_t *p = reinterpret_cast<const uint8_t *>(a);
  const uint8_t *q = reinterpret_cast<const uint8_t *>(b);
  for (;; ++p, ++q) {
    int x = AsciiLower(*p);
    int y = AsciiLower(*q);
    if (x != y) return x - y;
    if (x == 0) return 0;
  }
}

bool AsciiEqualN(const void *a, const void *b, uint32_t n) {
  const uint8_t *p = static_cast<const uint8_t *>(a);
  const uint8_t *q = static_cast<const uint8_t *>(b);
  for (uint32_t i = 0; i < n; ++i)
    if (p[i] != q[i] && AsciiLower(p[i]) != AsciiLower(q[i])) return false;
  return true;
}

void AsciiStrupr(char *s) {
  for (; *s; ++s) *s = static_cast<char>(AsciiUpper(static_cast<uint8_t>(*s)));
}

int32_t Atol32(const char *s) {
  const uint8_t *p = reinterpret_cast<const uint8_t *>(s);
  while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
  bool neg = false;
  if (*p == '+' || *p == '-') neg = (*p++ == '-');
  int64_t v = 0;
  while (*p >= '0' && *p <= '9') {
    if (v <= int64_t(INT32_MAX) + 1) v = v * 10 + (*p - '0');
    ++p;
  }
  if (neg) v = -v;
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

uint32_t FormatUnsigned(char *out, uint32_t value) {
  char tmp[10];
  uint32_t n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value);
  for (uint32_t i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
  out[n] = 0;
  return n;
}

uint32_t FormatLong(char *out, int32_t value) {
  if (value >= 0) return FormatUnsigned(out, static_cast<uint32_t>(value));
  out[0] = '-';
  return 1 + FormatUnsigned(out + 1, 0u - static_cast<uint32_t>(value));
}

}  // namespace coll
