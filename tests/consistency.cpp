#include "tests/consistency.h"

#include <unordered_map>

#include "frame/frame.h"
#include "store/store.h"
#include "tables/table.h"

namespace testutil {

namespace {

using namespace coll;

std::string Hex(uint32_t v) {
  static const char digits[] = "0123456789ABCDEF";
  std::string s = "0x";
  for (int shift = 12; shift >= 0; shift -= 4) s += digits[(v >> shift) & 0xF];
  return s;
}

// Checks one collection image; counts into namedBy the items that name each
// nested collection and table slot.
std::string CheckCollection(uint32_t h, uint8_t *img, uint32_t *collNamed, uint32_t *tableNamed) {
  const std::string where = "collection " + Hex(h) + ": ";
  if (rd16(img + ch::magic) != COLL_MAGIC) return where + "bad magic";
  const uint32_t dl = CollDataLength(img);
  if (CollPages(img) > COLL_MAX_PAGES) return where + "too many pages";
  if (COLL_HEADER_SIZE + dl > CollPages(img) * COLL_PAGE) return where + "data past the pages";
  uint32_t p = 0, count = 0;
  std::unordered_map<std::string, uint32_t> first;  // tag in upper case -> its first item
  while (p < dl) {
    ItemCursor cur;
    if (!ItemAt(img, p, &cur)) return where + "item runs past the data at " + std::to_string(p);
    std::string key(reinterpret_cast<const char *>(cur.tag), cur.t);
    for (char &c : key) c = static_cast<char>(AsciiUpper(static_cast<uint8_t>(c)));
    first.emplace(key, p);
    if (cur.t == 0) return where + "empty tag at " + std::to_string(p);
    if (cur.b < ITEM_BLOCK_HEAD || BlockLength(cur.block) != cur.b)
      return where + "block length mismatch at " + std::to_string(p);
    const uint32_t type = BlockType(cur.block);
    if (type == COLLTYPE_TABLE || type == COLLTYPE_COLL) {
      if (BlockDataLength(cur.block) != 4) return where + "handle item of " + std::to_string(cur.b) + " bytes";
      const uint32_t child = rd32(BlockData(cur.block));
      if (type == COLLTYPE_COLL) {
        uint8_t *kid = GetCollPtr(child);
        if (!kid) return where + "item names dead collection " + Hex(child);
        if (CollOwner(kid) != h) return where + "item names collection " + Hex(child) + " owned by " + Hex(CollOwner(kid));
        ++collNamed[child - kCollBase];
      } else {
        uint8_t *hdr = GetTablePtr(child);
        if (!hdr) return where + "item names dead table " + Hex(child);
        if (TableOwner(hdr) != h) return where + "item names table " + Hex(child) + " owned by " + Hex(TableOwner(hdr));
        ++tableNamed[child - kTableBase];
      }
    }
    p = NextItemOffset(cur);
    ++count;
  }
  if (p != dl) return where + "walk does not end at the data length";
  if (count != CollItemCount(img))
    return where + "item count " + std::to_string(CollItemCount(img)) + " but " + std::to_string(count) + " items";
  // The tag index, where there is one, answers what the walk answers.
  if (const int32_t indexed = TagIndexEntries(h, img); indexed != -1) {
    if (indexed == -2) return where + "tag index left behind by a change";
    if (static_cast<uint32_t>(indexed) != first.size())
      return where + "tag index of " + std::to_string(indexed) + " tags, " + std::to_string(first.size()) + " in the walk";
    for (const auto &[key, q] : first) {
      ItemCursor cur;
      if (FindIndexed(h, img, key.data(), static_cast<uint32_t>(key.size()), &cur) != 1 || cur.p != q)
        return where + "tag index misplaces " + key;
    }
  }
  for (uint32_t i = 0; i < COLL_CACHE_SIZE; ++i) {
    const uint32_t e = rd32(img + ch::tagCache + 4 * i);
    if (e == 0) continue;
    bool found = false;
    for (uint32_t q = 0; q < dl && !found;) {
      ItemCursor cur;
      ItemAt(img, q, &cur);
      found = q + 2 == e;
      q = NextItemOffset(cur);
    }
    if (!found) return where + "cache entry " + std::to_string(e) + " names no tag";
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
  uint32_t n = 0, offset = 0;
  while (offset < end) {
    while (offset < end && data[offset] != 0) ++offset;
    offset += offset < end;
    ++n;
  }
  if (n + 1 < strings) return where + std::to_string(n) + " strings, expected " + std::to_string(strings);
  const uint32_t rowsAt = SkipStrings(data, 0, TableCols(hdr), end);
  if (TableRowsOffset(hdr) != rowsAt) return where + "rows offset " + std::to_string(TableRowsOffset(hdr)) +
                                                 ", names end at " + std::to_string(rowsAt);
  const uint32_t attrAt = SkipStrings(data, rowsAt, TableRows(hdr) * TableCols(hdr), end);
  if (TableAttrOffset(hdr) != attrAt) return where + "attribute offset " + std::to_string(TableAttrOffset(hdr)) +
                                                 ", rows end at " + std::to_string(attrAt);
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
    if (rec.refCount != refs[i])
      return "data record " + std::to_string(i) + ": refCount " + std::to_string(rec.refCount) + " but " +
             std::to_string(refs[i]) + " headers";
    if (refs[i] && !rec.data) return "data record " + std::to_string(i) + " in use without data";
    if (!refs[i] && rec.data) return "data record " + std::to_string(i) + " holds data but no header";
    if (!rec.data && rec.rowStart) return "data record " + std::to_string(i) + " free but indexed";
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
      return "collection " + Hex(kCollBase + slot) + " owned by " + Hex(CollOwner(img)) + " is named by " +
             std::to_string(collNamed[slot]) + " items";
    if (uint8_t *hdr = ps->tablePtrs[slot]; hdr && TableOwner(hdr) != 0 && tableNamed[slot] != 1)
      return "table " + Hex(kTableBase + slot) + " owned by " + Hex(TableOwner(hdr)) + " is named by " +
             std::to_string(tableNamed[slot]) + " items";
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
      if (c >= 32 && c < 127) t += char(c);
      else t += "\\x" + Hex(c).substr(4);
    }
    return t;
  };
  return out + ": was \"" + show(before, i) + "\", now \"" + show(after, i) + "\"";
}

}  // namespace testutil
