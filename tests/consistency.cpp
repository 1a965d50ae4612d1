#include "tests/consistency.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <unordered_map>

#include "frame/frame.h"
#include "store/store.h"
#include "tables/table.h"

namespace testutil {

namespace {

using namespace coll;

std::string Hex(uint32_t v) {
  char s[8];
  std::snprintf(s, sizeof s, "0x%04X", v & 0xFFFF);
  return s;
}
// Joins the parts of a fault description.
template <class... Parts>
std::string Fault(const Parts &...parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

// Checks one collection image; counts into collNamed and tableNamed the
// items that name each nested collection and table slot.
std::string CheckCollection(uint32_t h, uint8_t *img, uint32_t *collNamed, uint32_t *tableNamed) {
  const std::string where = "collection " + Hex(h) + ": ";
  if (rd16(img + ch::magic) != COLL_MAGIC) return where + "bad magic";
  const uint32_t dl = CollDataLength(img);
  if (CollPages(img) > COLL_MAX_PAGES) return where + "too many pages";
  if (CollPages(img) < CollPagesFor(COLL_HEADER_SIZE + dl)) return where + "data past the pages";
  uint32_t p = 0, count = 0;
  std::set<uint32_t> tags;                          // offsets of the tags, for the cache
  std::unordered_map<std::string, uint32_t> first;  // tag in upper case -> its first item
  ItemCursor cur;
  for (; p < dl; p = NextItemOffset(cur), ++count) {
    if (!ItemAt(img, p, &cur)) return Fault(where, "item runs past the data at ", p);
    if (cur.t == 0) return Fault(where, "empty tag at ", p);
    if (cur.b < ITEM_BLOCK_HEAD || BlockLength(cur.block) != cur.b) return Fault(where, "block length mismatch at ", p);
    tags.insert(p + 2);
    std::string key(reinterpret_cast<const char *>(cur.tag), cur.t);
    for (char &c : key) c = static_cast<char>(AsciiUpper(static_cast<uint8_t>(c)));
    first.emplace(key, p);
    const uint32_t type = BlockType(cur.block);
    if (type != COLLTYPE_TABLE && type != COLLTYPE_COLL) continue;
    if (BlockDataLength(cur.block) != 4) return Fault(where, "handle item of ", cur.b, " bytes");
    const uint32_t child = rd32(BlockData(cur.block));
    const bool isColl = type == COLLTYPE_COLL;
    uint8_t *obj = isColl ? GetCollPtr(child) : GetTablePtr(child);
    const char *kind = isColl ? "collection " : "table ";
    if (!obj) return Fault(where, "item names dead ", kind, Hex(child));
    const uint32_t owner = isColl ? CollOwner(obj) : TableOwner(obj);
    if (owner != h) return Fault(where, "item names ", kind, Hex(child), " owned by ", Hex(owner));
    ++(isColl ? collNamed[child - kCollBase] : tableNamed[child - kTableBase]);
  }
  if (p != dl) return where + "walk does not end at the data length";
  if (count != CollItemCount(img)) return Fault(where, "item count ", CollItemCount(img), " but ", count, " items");
  // The tag index, where there is one, answers what the walk answers.
  if (const int32_t indexed = TagIndexEntries(h, img); indexed != -1) {
    if (indexed == -2) return where + "tag index left behind by a change";
    if (static_cast<uint32_t>(indexed) != first.size())
      return Fault(where, "tag index of ", indexed, " tags, ", first.size(), " in the walk");
    for (const auto &[key, q] : first) {
      ItemCursor found;
      if (FindIndexed(h, img, key.data(), static_cast<uint32_t>(key.size()), &found) != 1 || found.p != q)
        return where + "tag index misplaces " + key;
    }
  }
  for (uint32_t i = 0; i < COLL_CACHE_SIZE; ++i) {
    const uint32_t e = rd32(img + ch::tagCache + 4 * i);
    if (e == 0 && i + 1 < COLL_CACHE_SIZE && rd32(img + ch::tagCache + 4 * (i + 1)) != 0)
      return where + "cache entry after an empty one";
    if (e != 0 && !tags.count(e)) return Fault(where, "cache entry ", e, " names no tag");
  }
  return {};
}

std::string CheckTable(uint32_t h, uint8_t *hdr) {
  const std::string where = "table " + Hex(h) + ": ";
  if (isBadTablePtr(hdr)) return where + "fails the header test";
  const uint8_t *data = TableData(hdr);
  const uint32_t end = TableDataLength(hdr);
  const uint32_t strings = TableCols(hdr) + TableRows(hdr) * TableCols(hdr) + TABLE_ATTRIBUTES;
  // Count the strings of the data in use. A loaded table may lack one (a
  // string cut off by the end of its stored data took the terminator of the
  // first empty string added), end in an unterminated string, or keep bytes
  // after its last string.
  uint32_t n = 0;
  for (uint32_t offset = 0; offset < end; ++n) {
    while (offset < end && data[offset] != 0) ++offset;
    offset += offset < end;
  }
  if (n + 1 < strings) return Fault(where, n, " strings, expected ", strings);
  const uint32_t rowsAt = SkipStrings(data, 0, TableCols(hdr), end);
  if (TableRowsOffset(hdr) != rowsAt)
    return Fault(where, "rows offset ", TableRowsOffset(hdr), ", names end at ", rowsAt);
  const uint32_t attrAt = SkipStrings(data, rowsAt, TableRows(hdr) * TableCols(hdr), end);
  if (TableAttrOffset(hdr) != attrAt)
    return Fault(where, "attribute offset ", TableAttrOffset(hdr), ", rows end at ", attrAt);
  if (ps->tableData[TableDataIndex(hdr)].owned && TablePages(hdr) * TABLE_PAGE < end)
    return where + "data past its pages";
  return {};
}

// The row index of a table's data record, where there is one, and the
// position cache, where valid, give what a scan from the start gives.
std::string CheckRowIndex(uint32_t h, const uint8_t *hdr) {
  const std::string where = "table " + Hex(h) + ": ";
  const uint8_t *data = TableData(hdr);
  const uint32_t end = TableDataLength(hdr), cols = TableCols(hdr);
  if (rd32(hdr + th::cacheValid)) {
    const uint32_t index = rd32(hdr + th::cacheIndex), offset = rd32(hdr + th::cacheOffset);
    if (SkipStrings(data, 0, index, end) != offset)
      return where + "position cache: string " + std::to_string(index) + " at " + std::to_string(offset);
  }
  const TableDataRec &rec = ps->tableData[TableDataIndex(hdr)];
  if (!rec.rowStart) return {};
  if (rec.rowStartCount != TableRows(hdr) + 2 || rec.rowStartCount > rec.rowStartCapacity)
    return where + "row index of " + std::to_string(rec.rowStartCount) + " entries";
  for (uint32_t k = 0, offset = 0; k < rec.rowStartCount; offset = SkipStrings(data, offset, cols, end), ++k)
    if (rec.rowStart[k] != offset)
      return where + "row index entry " + std::to_string(k) + " is " + std::to_string(rec.rowStart[k]) +
             ", the row starts at " + std::to_string(offset);
  return {};
}

}  // namespace

std::string CheckCollectionImage(uint32_t h) {
  LockGuard lock;
  uint8_t *img = GetCollPtr(h);
  uint32_t collNamed[kSlots] = {}, tableNamed[kSlots] = {};
  return img ? CheckCollection(h, img, collNamed, tableNamed) : "invalid handle";
}

std::string CheckState() {
  LockGuard lock;
  uint32_t collNamed[kSlots] = {};
  uint32_t tableNamed[kSlots] = {};
  uint32_t refs[kSlots] = {};
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    uint8_t *img = ps->collPtrs[slot];
    if (!img) continue;
    if (slot > ps->collHigh) return "collection slot " + std::to_string(slot) + " above collHigh";
    std::string fault = CheckCollection(kCollBase + slot, img, collNamed, tableNamed);
    if (!fault.empty()) return fault;
  }
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    uint8_t *hdr = ps->tablePtrs[slot];
    if (!hdr) continue;
    if (slot > ps->tableHigh) return "table slot " + std::to_string(slot) + " above tableHigh";
    std::string fault = CheckTable(kTableBase + slot, hdr);
    if (fault.empty()) fault = CheckRowIndex(kTableBase + slot, hdr);
    if (!fault.empty()) return fault;
    ++refs[TableDataIndex(hdr)];
  }
  for (uint32_t i = 0; i < kSlots; ++i) {
    const TableDataRec &rec = ps->tableData[i];
    if (rec.refCount != refs[i]) return Fault("data record ", i, ": refCount ", rec.refCount, " but ", refs[i], " headers");
    if (!refs[i] != !rec.data) return Fault("data record ", i, refs[i] ? " in use without data" : " holds data but no header");
    if (!rec.data && rec.rowStart) return Fault("data record ", i, " free but indexed");
  }
  // Every chain of owners ends at a top-level collection: no collection owns
  // itself, directly or through others.
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    if (!ps->collPtrs[slot]) continue;
    uint32_t h = kCollBase + slot;
    for (uint32_t steps = 0; h != 0; ++steps) {
      const uint8_t *img = GetCollPtr(h);
      if (!img) return "collection " + Hex(kCollBase + slot) + ": owner " + Hex(h) + " is gone";
      if (steps > kSlots) return "collection " + Hex(kCollBase + slot) + " is its own owner";
      h = CollOwner(img);
    }
  }
  // Every owned object is named by exactly one item of its owner.
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    if (uint8_t *img = ps->collPtrs[slot]; img && CollOwner(img) != 0 && collNamed[slot] != 1)
      return Fault("collection ", Hex(kCollBase + slot), " owned by ", Hex(CollOwner(img)), " is named by ",
                   collNamed[slot], " items");
    if (uint8_t *hdr = ps->tablePtrs[slot]; hdr && TableOwner(hdr) != 0 && tableNamed[slot] != 1)
      return Fault("table ", Hex(kTableBase + slot), " owned by ", Hex(TableOwner(hdr)), " is named by ",
                   tableNamed[slot], " items");
  }
  return {};
}

std::string Snapshot(uint32_t except) {
  LockGuard lock;
  std::string out;
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    const uint8_t *img = ps->collPtrs[slot];
    if (!img || kCollBase + slot == except) continue;
    out += "C" + Hex(kCollBase + slot);
    out.append(reinterpret_cast<const char *>(img), ch::tagCache);
    out.append(reinterpret_cast<const char *>(CollItems(img)), CollDataLength(img));
  }
  for (uint32_t slot = 1; slot < kSlots; ++slot) {
    const uint8_t *hdr = ps->tablePtrs[slot];
    if (!hdr) continue;
    out += "T" + Hex(kTableBase + slot);
    out.append(reinterpret_cast<const char *>(hdr), th::cacheValid);
    // (A failed change may still have given the header a private copy of
    // shared data: another record, other pages, the same contents.)
    out.append(reinterpret_cast<const char *>(hdr + th::rowsOffset), th::pages - th::rowsOffset);
    out.append(reinterpret_cast<const char *>(hdr + th::owner), TABLE_HEADER_SIZE - th::owner);
    if (const uint8_t *data = ps->tableData[TableDataIndex(hdr)].data; data && !isBadTablePtr(hdr))
      out.append(reinterpret_cast<const char *>(data), TableDataLength(hdr));
  }
  return out;
}

std::string SnapshotDiff(const std::string &before, const std::string &after) {
  if (before == after) return {};
  size_t i = 0;
  while (i < before.size() && i < after.size() && before[i] == after[i]) ++i;
  // The object whose bytes differ: the last marker before the difference.
  size_t mark = std::string::npos;
  for (size_t at = i + 1; at-- > 0;) {
    if (at + 7 <= before.size() && (before[at] == 'C' || before[at] == 'T') && before.compare(at + 1, 2, "0x") == 0) {
      mark = at;
      break;
    }
  }
  std::string out = mark == std::string::npos ? "?" : before.substr(mark, 7);
  out += " differs at byte " + std::to_string(mark == std::string::npos ? i : i - mark - 7);
  auto show = [](const std::string &s, size_t from) {
    std::string t;
    for (size_t k = from; k < s.size() && k < from + 24; ++k) {
      unsigned char c = static_cast<unsigned char>(s[k]);
      t += c >= 32 && c < 127 ? std::string(1, char(c)) : "\\x" + Hex(c).substr(4);
    }
    return t;
  };
  return out + ": was \"" + show(before, i) + "\", now \"" + show(after, i) + "\"";
}

}  // namespace testutil
