// substitute.cpp - fills in a template text from one collection.
//
// "!tag." is replaced by the item's value as text, "!." by the collection's
// name, "!!" by one "!"; a "!" at the end, or one with no "." after it, is
// kept as it stands. Values are read through the public text readers, each
// under the lock for its own duration, and are not scanned again.
#include <cstring>

#include "store/store.h"
#include "values/values.h"

namespace coll {

namespace {

// The working text grows in steps of this many bytes.
constexpr uint32_t kSubstitutePage = 500;

}  // namespace

void *StringAlloc(uint32_t size) { return collAllocPtr(size); }

void StringFree(void *p) { collFreePtr(p); }

char *allocateAndCheck(uint32_t used, uint32_t need, uint32_t *pages, char *buffer) {
  while (static_cast<uint64_t>(used) + need > static_cast<uint64_t>(*pages) * kSubstitutePage) {
    if (*pages >= 0xFFFFFFFFu / kSubstitutePage) return nullptr;
    char *bigger = static_cast<char *>(collReAllocPtr(buffer, (*pages + 1) * kSubstitutePage));
    if (!bigger) return nullptr;
    buffer = bigger;
    ++*pages;
  }
  return buffer;
}

uint32_t SubstituteOutput(const char *templ, char **buffer, uint32_t *pages, uint32_t hColl) {
  const char *s = templ;
  uint32_t used = 0;
  // Makes room for n more bytes; false when the buffer cannot grow.
  auto room = [&](uint32_t n) {
    char *b = allocateAndCheck(used, n, pages, *buffer);
    if (!b) return false;
    *buffer = b;
    return true;
  };
  auto append = [&](const void *p, uint32_t n) {
    std::memcpy(*buffer + used, p, n);
    used += n;
  };
  while (*s) {
    if (!room(kSubstitutePage)) return 0;
    if (*s != '!') {
      (*buffer)[used++] = *s++;
      continue;
    }
    char d = *++s;
    if (d == 0 || d == '!') {
      (*buffer)[used++] = '!';
      if (d == '!') ++s;
      continue;
    }
    if (d == '.') {
      ++s;
      char name[COLL_NAME_SIZE + 1] = {};
      if (!room(COLL_NAME_SIZE)) return 0;
      uint32_t n = collGetName(hColl, name, sizeof name);
      if (n > 1) append(name, n - 1);
      continue;
    }
    const char *end = s + 1;
    while (*end && *end != '.') ++end;
    uint32_t tagLength = static_cast<uint32_t>(end - s);
    if (*end == 0) {
      // No closing point: the "!" and the rest stand as they are.
      if (!room(tagLength + 1)) return 0;
      (*buffer)[used++] = '!';
      append(s, tagLength);
      return used;
    }
    char *value = nullptr;
    uint32_t length = 0;
    {
      TagCopy tag(s, tagLength);
      // Without memory for the tag the placeholder gives nothing.
      if (tag.get()) value = collObtainString(hColl, tag.get(), StringAlloc, &length);
    }
    s = end + 1;
    if (!room(length)) {
      if (value) StringFree(value);
      return 0;
    }
    if (value) {
      // The allocator's block holds length + 1 zero-filled bytes.
      append(value, collstrlen(value, length));
      StringFree(value);
    }
  }
  return used;
}

uint32_t BuildSubstituteOutput(const char *templ, char *buf, uint32_t size, uint32_t hColl) {
  uint32_t pages = 1;
  char *work = static_cast<char *>(collAllocPtr(kSubstitutePage));
  if (!work) return 0;
  uint32_t n = SubstituteOutput(templ, &work, &pages, hColl);
  cpyOutput(buf, size, work, n);
  collFreePtr(work);
  return n + 1;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collSubstitute(uint32_t hColl, const char *templ, char *buffer, uint32_t size) {
  if (isBadPtr(templ, 0, 1) || isBadPtr(buffer, 1, size)) return 0;
  return BuildSubstituteOutput(templ, buffer, size, hColl);
}
