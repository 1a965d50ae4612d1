// text.cpp - text and number items, and the one rule that renders any stored
// value as text.
#include <cstring>

#include "platform/platform.h"
#include "store/store.h"
#include "values/values.h"

namespace coll {

namespace {

// Times and numbers are formatted here before they are copied out.
constexpr uint32_t kFormatBuffer = 100;

const char kWeekdays[] = "SunMonTueWedThuFriSat";
const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";

// Two digits, zero-padded ("%.2d" of 0..99).
char *PutTwoDigits(char *p, int32_t v) {
  if (v < 0 || v > 99) v = 0;
  *p++ = static_cast<char>('0' + v / 10);
  *p++ = static_cast<char>('0' + v % 10);
  return p;
}

}  // namespace

uint32_t FormatTime(uint32_t seconds, char *out) {
  platform::CivilTime t;
  if (!platform::LocalTime(seconds, &t)) return 0;
  if (t.weekday < 0 || t.weekday > 6 || t.month < 0 || t.month > 11 || t.day < 1 || t.day > 31) return 0;
  // "Www Mmm dd hh:mm:ss yyyy", the day right-aligned in 2 columns.
  char *p = out;
  std::memcpy(p, kWeekdays + 3 * t.weekday, 3);
  p += 3;
  *p++ = ' ';
  std::memcpy(p, kMonths + 3 * t.month, 3);
  p += 3;
  *p++ = ' ';
  *p++ = t.day < 10 ? ' ' : static_cast<char>('0' + t.day / 10);
  *p++ = static_cast<char>('0' + t.day % 10);
  *p++ = ' ';
  p = PutTwoDigits(p, t.hour);
  *p++ = ':';
  p = PutTwoDigits(p, t.minute);
  *p++ = ':';
  p = PutTwoDigits(p, t.second);
  *p++ = ' ';
  p += FormatLong(p, t.year);
  *p = 0;
  return static_cast<uint32_t>(p - out);
}

uint32_t BuildStringResult(const uint8_t *block, char *buf, uint32_t size, uint32_t dataLength) {
  const uint8_t *data = BlockData(block);
  char work[kFormatBuffer];
  uint32_t n;
  switch (BlockType(block)) {
    case COLLTYPE_ITEM:
      n = collstrlen(data, dataLength);
      cpyOutput(buf, size, data, n);
      return n + 1;
    case COLLTYPE_STRING:
    case COLLTYPE_STRING + 1:  // arrives only through loads; reads as text
      cpyOutput(buf, size, data, dataLength);
      return dataLength + 1;
    case COLLTYPE_NUMERIC:
      if (dataLength < 4) return 0;
      n = FormatLong(work, static_cast<int32_t>(rd32(data)));
      cpyOutput(buf, size, work, n);
      return n + 1;
    case COLLTYPE_TIME:
      if (dataLength < 4) return 0;
      n = FormatTime(rd32(data), work);
      if (n == 0) return 0;
      cpyOutput(buf, size, work, n);
      return n + 1;
    default:  // tables, collections and unknown codes have no text
      return 0;
  }
}

uint32_t SetNumeric(uint32_t hColl, const char *tag, int32_t value) {
  SmallBlock block(COLLTYPE_NUMERIC, static_cast<uint32_t>(value));
  return SetItemEx(hColl, tag, collstrlen(tag, 0xFFFFFFFFu), block.bytes, 1, 0) ? 1 : 0;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collSetNumeric(uint32_t hColl, const char *tag, int32_t value) {
  if (isBadPtr(tag, 0, 1)) return 0;
  LockGuard lock;
  return SetNumeric(hColl, tag, value);
}

COLL_API(int32_t) collGetNumeric(uint32_t hColl, const char *tag) {
  if (isBadCollHandle(hColl) || isBadPtr(tag, 0, 1)) return 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) return 0;
  switch (BlockType(block)) {
    case COLLTYPE_NUMERIC:
      return len < 4 ? 0 : static_cast<int32_t>(rd32(BlockData(block)));
    case COLLTYPE_STRING: {
      // The stored characters are not terminated: convert a terminated copy.
      char *scratch = static_cast<char *>(collAllocPtr(len + 5));
      if (!scratch) return 0;
      std::memcpy(scratch, BlockData(block), len);
      int32_t value = Atol32(scratch);
      collFreePtr(scratch);
      return value;
    }
    default:
      return 0;
  }
}

COLL_API(uint32_t) collSetString(uint32_t hColl, const char *tag, const char *text) {
  if (isBadPtr(tag, 0, 1) || hColl == CatalogHandle() || isBadPtr(text, 0, 1) || isBadCollHandle(hColl))
    return 0;
  uint8_t *block = BuildItem(COLLTYPE_STRING, text, collstrlen(text, 0xFFFFFFFFu));
  if (!block) return 0;
  LockGuard lock;
  return SetItem(hColl, tag, block, 1) ? 1 : 0;
}

COLL_API(uint32_t) collGetString(uint32_t hColl, const char *tag, char *buffer, uint32_t size) {
  if (isBadCollHandle(hColl) || isBadPtr(buffer, 1, size) || isBadPtr(tag, 0, 1)) return 0;
  if (size) buffer[0] = 0;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) return img ? 1 : 0;  // missing: the empty text
  return BuildStringResult(block, buffer, size, len);
}

COLL_API(char *) collObtainString(uint32_t hColl, const char *tag, CollAllocFunc allocate, uint32_t *length) {
  // The length is written on every path; an unwritable one is skipped.
  uint32_t dummy;
  if (isBadPtr(length, 1, 4)) length = &dummy;
  *length = 0;
  if (isBadCollHandle(hColl) || !allocate || isBadPtr(tag, 0, 1)) return nullptr;
  LockGuard lock;
  uint8_t *img, *block;
  uint32_t len;
  if (!RetrieveItem(hColl, &img, tag, &block, &len)) {
    if (!img) return nullptr;  // the collection went before the lock was taken
    // A missing item reads as the empty text.
    *length = 1;
    char *empty = static_cast<char *>(allocate(1));
    if (empty) empty[0] = 0;
    return empty;
  }
  uint32_t n = BuildStringResult(block, nullptr, 0, len);
  *length = n;
  char *buffer = static_cast<char *>(allocate(n + 1));
  if (!buffer) return nullptr;
  if (n == 0) {
    buffer[0] = 0;  // no text (a table or collection): an empty buffer
  } else {
    BuildStringResult(block, buffer, n, len);
  }
  return buffer;
}
