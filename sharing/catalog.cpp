// catalog.cpp - the catalog of shared collections, their sections in the
// initialisation file, and unique names.
//
// The catalog is an ordinary collection: one COLLTYPE_ITEM per shared
// collection, tagged with its name, holding its handle as decimal text. An
// entry whose handle no longer names a live collection is stale and is
// treated as absent. A shared collection that is not open yet starts with the
// section of its name in "COLL.INI"; collWrite writes any collection back to
// that section. collClose counts the opens down and removes the entry at the
// last close.
#include <cstring>

#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"
#include "values/values.h"

namespace coll {

namespace {

constexpr char kCatalogName[] = "_Catalog";
constexpr char kGeneralSection[] = "_General";
constexpr char kUniqueEntry[] = "UniqueName";
constexpr char kUniqueDefault[] = "local_aaaaaaaa";
constexpr char kUnnamedSection[] = "_unnamed";

// Work memory of one section load: the key list, then one value.
constexpr uint32_t kKeyListSize = 10000;
constexpr uint32_t kValueSize = 255;
constexpr uint32_t kWorkSize = 10300;
// Only items whose data is shorter than this are written to the file.
constexpr uint32_t kWriteText = 128;
constexpr uint32_t kUniqueSize = 100;
// A catalog value is read as a number from at most this many bytes.
constexpr uint32_t kEntryDigits = 19;
constexpr uint32_t kMaxShare = 0xFFFF;

// The live collection that the catalog lists under name, or 0 when the name
// is absent or its entry stale. May wait for a transaction on the catalog.
uint32_t LookupShared(const char *name) {
  uint8_t *img, *block;
  uint32_t len;
  if (!ps->hCatalog || !RetrieveItem(ps->hCatalog, &img, name, &block, &len)) return 0;
  char digits[kEntryDigits + 1] = {};
  std::memcpy(digits, BlockData(block), len < kEntryDigits ? len : kEntryDigits);
  uint32_t h = static_cast<uint32_t>(Atol32(digits));
  return GetCollPtr(h) ? h : 0;
}

// Adds an open to a collection's share count; false when the count is full.
bool AddShare(uint8_t *img) {
  uint32_t share = CollShareCount(img);
  if (share >= kMaxShare) return false;
  wr16(img + ch::shareCount, share + 1);
  return true;
}

// Joins the open shared collection of that name: its handle with the share
// count raised, or 0 when no live collection is listed under name.
uint32_t JoinShared(const char *name, bool *full) {
  *full = false;
  for (;;) {
    uint32_t h = LookupShared(name);
    if (!h) return 0;
    uint8_t *img = AccessColl(h);  // may wait out another thread's transaction
    if (!img) return 0;
    if (LookupShared(name) != h) continue;  // the catalog changed meanwhile
    if (!AddShare(img)) {
      *full = true;
      return 0;
    }
    return h;
  }
}

// Stores every key of the section called name as a text item of h. Keys
// whose item cannot be stored are left out.
void LoadSection(uint32_t h, const char *name, char *work) {
  char *keys = work;
  char *value = work + kKeyListSize;
  platform::ProfileListKeys(name, keys, kKeyListSize);
  for (char *key = keys; *key && key < keys + kKeyListSize; key += std::strlen(key) + 1) {
    uint32_t n = platform::ProfileReadString(name, key, "", value, kValueSize);
    // An empty value gives a block without data: no item for that key. The
    // new collection has nobody to tell, so nothing is communicated.
    SetItem(h, key, BuildItem(COLLTYPE_STRING, value, n), 0);
  }
}

// Opens the shared collection name (n characters, 1 to 64, terminated).
// REQUIRES: lock held.
uint32_t OpenSharedLocked(const char *name, uint32_t n) {
  if (AsciiStrnicmp(name, kCatalogName, COLL_NAME_SIZE) == 0) {
    uint8_t *cat = ps->hCatalog ? AccessColl(ps->hCatalog) : nullptr;
    if (cat) return AddShare(cat) ? ps->hCatalog : 0;
  }
  bool full;
  uint32_t h = JoinShared(name, &full);
  if (h || full) return h;

  char *work = static_cast<char *>(collAllocPtr(kWorkSize));
  if (!work) return 0;
  h = InternalCollCreate(0);
  uint8_t *img = AccessColl(h);
  if (!img) {
    collFreePtr(work);
    DestroyCollHandle(h);
    return 0;
  }
  SetCollName(img, name, n);
  wr16(img + ch::shareCount, 1);
  LoadSection(h, name, work);
  collFreePtr(work);

  char digits[12];
  uint32_t len = FormatLong(digits, static_cast<int32_t>(h));
  uint8_t *entry = BuildItem(COLLTYPE_ITEM, digits, len);
  if (!entry || !SetItem(ps->hCatalog, name, entry, 1)) {
    DestroyCollHandle(h);
    return 0;
  }
  return h;
}

// The length of a name that can be opened as shared, or 0 when it cannot
// (empty, or longer than the name field). REQUIRES: name readable.
uint32_t SharedNameLength(const char *name) {
  uint32_t n = collstrlen(name, COLL_NAME_SIZE + 1);
  return n > COLL_NAME_SIZE ? 0 : n;
}

// True when the collection's name is empty or has a character outside 32 to
// 127; name receives it (terminated).
bool UnusableSectionName(const uint8_t *img, char *name) {
  uint32_t n = CollNameLength(img);
  std::memcpy(name, img + ch::name, n);
  name[n] = 0;
  if (n == 0) return true;
  for (uint32_t i = 0; i < n; ++i) {
    uint8_t c = static_cast<uint8_t>(name[i]);
    if (c < 32 || c > 127) return true;
  }
  return false;
}

// The text that collWrite stores for an item, in text (kWriteText bytes);
// false when the item is not written.
bool ItemText(const uint8_t *block, char *text) {
  uint32_t dataLength = BlockDataLength(block);
  if (dataLength >= kWriteText) return false;
  if (!BuildStringResult(block, text, kWriteText, dataLength)) return false;
  if (BlockType(block) == COLLTYPE_ITEM) {
    uint32_t i = 0;
    while (text[i] && static_cast<uint8_t>(text[i]) >= 32 && static_cast<uint8_t>(text[i]) <= 127) ++i;
    text[i] = 0;
  }
  return text[0] != 0;
}

// Steps the name to its successor: an odometer over "a" to "z" from the
// last character towards the second, stopped by a "_".
void AdvanceName(char *name, uint32_t n) {
  for (uint32_t i = n; i-- > 1;) {
    char c = name[i];
    if (c == '_') return;
    if (c >= 'a' && c <= 'y') {
      name[i] = static_cast<char>(c + 1);
      return;
    }
    name[i] = 'a';
  }
}

}  // namespace

uint32_t CreateCatalog() {
  uint32_t h = InternalCollCreate(0);
  uint8_t *img = AccessColl(h);
  if (!img) return 0;
  SetCollName(img, kCatalogName, sizeof kCatalogName - 1);
  wr16(img + ch::shareCount, 1);
  return h;
}

}  // namespace coll

using namespace coll;

COLL_API(uint32_t) collOpenShared(const char *name) {
  if (isBadPtr(name, 0, 1)) return 0;
  uint32_t n = SharedNameLength(name);
  if (n == 0) return 0;
  LockGuard lock;
  return OpenSharedLocked(name, n);
}

COLL_API(uint32_t) collOpenUnique(const char *name) {
  if (isBadPtr(name, 0, 1)) return 0;
  // A name that cannot be opened as shared gives no open candidate either:
  // every candidate derived from it is longer still.
  uint32_t n = SharedNameLength(name);
  if (n == 0) return 0;
  LockGuard lock;
  char candidate[COLL_NAME_SIZE + 12];
  std::memcpy(candidate, name, n + 1);
  if (LookupShared(candidate)) {
    candidate[n] = '_';
    uint32_t k = 1;
    for (; k <= 0xFFFF; ++k) {
      FormatUnsigned(candidate + n + 1, k);
      if (!LookupShared(candidate)) break;
    }
    if (k > 0xFFFF) return 0;
  }
  uint32_t length = SharedNameLength(candidate);
  uint32_t h = length ? OpenSharedLocked(candidate, length) : 0;
  if (h) EmptyCollection(h, 0);
  return h;
}

COLL_API(uint32_t) collWrite(uint32_t hColl) {
  LockGuard lock;
  uint8_t *img = AccessColl(hColl);
  if (!img) return 0;
  char name[COLL_NAME_SIZE + 1];
  const char *section = UnusableSectionName(img, name) ? kUnnamedSection : name;
  platform::ProfileDeleteSection(section);
  // Nothing below releases the lock, so img stays valid for the walk.
  uint32_t result = 1;
  ItemCursor cur;
  for (uint32_t p = 0; result && p < CollDataLength(img) && ItemAt(img, p, &cur); p = NextItemOffset(cur)) {
    char text[kWriteText];
    if (!ItemText(cur.block, text)) continue;
    char *key = DupText(cur.tag, cur.t);
    result = key && platform::ProfileWriteString(section, key, text) ? 1 : 0;
    collFreePtr(key);
  }
  platform::ProfileFlush();
  return result;
}

COLL_API(uint32_t) collGenerateNewName(char *buffer, uint32_t size) {
  bool copy = buffer != nullptr && size != 0;
  if (copy && isBadPtr(buffer, 1, size)) return 0;
  LockGuard lock;
  char name[kUniqueSize];
  uint32_t n = platform::ProfileReadString(kGeneralSection, kUniqueEntry, kUniqueDefault, name, kUniqueSize);
  if (copy) {
    if (size <= n) {
      buffer[0] = 0;
      return 0;
    }
    std::memcpy(buffer, name, n + 1);
  } else if (size < n) {
    return 0;
  }
  AdvanceName(name, n);
  platform::ProfileWriteString(kGeneralSection, kUniqueEntry, name);
  platform::ProfileFlush();
  return n;
}
