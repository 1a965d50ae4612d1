// coll.hpp - a header-only C++17 layer over the C interface of libcoll.
//
// Collection and Table own their handles: they are move-only and close or
// destroy the handle in their destructor; Release gives the handle up and
// Adopt takes over one that the caller owns (coll.h says which those are).
// Tags and texts go in as std::string_view; values come out as copies, in
// std::string, std::vector and std::optional (empty for a missing item, or a
// Collection or Table without a handle), so an ordinary miss needs no
// exception and nothing here throws but std::bad_alloc. Every result that
// reports a failure (false, an empty optional, an object without a handle)
// is [[nodiscard]]. The rules and limits of each call are those of the C
// function it names, in coll.h.
#ifndef COLL_HPP
#define COLL_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "coll.h"

namespace libcoll {

namespace detail {
// A zero-terminated copy of a string_view (the C interface takes C strings).
class CStr {
 public:
  explicit CStr(std::string_view s) : s_(s) {}
  operator const char *() const { return s_.c_str(); }

 private:
  std::string s_;
};

// Reads a text through a "length + 1" reader: call with (buffer, size).
template <typename Reader>
std::string ReadText(Reader read) {
  uint32_t n = read(nullptr, 0);
  if (n <= 1) return std::string();
  std::string s(n, '\0');
  uint32_t m = read(s.data(), n);
  if (m > n) {  // changed meanwhile: once more with the new size
    s.assign(m, '\0');
    m = read(s.data(), m);
  }
  s.resize(m ? std::min<uint32_t>(m, static_cast<uint32_t>(s.size())) - 1 : 0);
  return s;
}
}  // namespace detail

class Table;

class Collection {
 public:
  Collection() = default;
  // Takes ownership of a handle the caller received as a new object.
  static Collection Adopt(HCOLL h) { return Collection(h); }
  // A private collection; empty when it cannot be made.
  [[nodiscard]] static Collection Open(std::string_view name = {}) { return Collection(collOpen(detail::CStr(name))); }
  // The shared collection of that name (loaded from the initialisation file).
  [[nodiscard]] static Collection OpenShared(std::string_view name) {
    return Collection(collOpenShared(detail::CStr(name)));
  }
  [[nodiscard]] static Collection OpenUnique(std::string_view name) {
    return Collection(collOpenUnique(detail::CStr(name)));
  }

  Collection(Collection &&o) noexcept : h_(std::exchange(o.h_, 0)) {}
  Collection &operator=(Collection &&o) noexcept {
    if (this != &o) {
      Reset();
      h_ = std::exchange(o.h_, 0);
    }
    return *this;
  }
  Collection(const Collection &) = delete;
  Collection &operator=(const Collection &) = delete;
  ~Collection() { Reset(); }

  HCOLL handle() const { return h_; }
  explicit operator bool() const { return h_ != 0; }
  HCOLL Release() { return std::exchange(h_, 0); }
  void Reset() {
    if (h_) collClose(std::exchange(h_, 0));
  }

  [[nodiscard]] std::string Name() const {
    return detail::ReadText([&](char *b, uint32_t n) { return collGetName(h_, b, n); });
  }
  uint32_t Size() const { return collItemCount(h_); }
  uint32_t ShareCount() const { return collGetShareCount(h_); }
  // Every tag, in item order.
  std::vector<std::string> Tags() const {
    std::vector<std::string> tags;
    uint32_t count = Size();
    for (uint32_t i = 0; i < count; ++i)
      tags.push_back(detail::ReadText([&](char *b, uint32_t n) { return collNameItem(h_, i, b, n); }));
    return tags;
  }
  // COLLTYPE_* of the item, 0 when there is none.
  uint32_t Type(std::string_view tag) const { return collGetType(h_, detail::CStr(tag)); }
  [[nodiscard]] bool Contains(std::string_view tag) const { return Type(tag) != 0; }

  [[nodiscard]] bool SetBytes(std::string_view tag, const void *data, uint32_t size) {
    return collSetItem(h_, detail::CStr(tag), data, size) != 0;
  }
  [[nodiscard]] bool SetBytes(std::string_view tag, std::string_view bytes) {
    return SetBytes(tag, bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
  // The bytes of a raw item (or the characters of a text item).
  [[nodiscard]] std::optional<std::string> GetBytes(std::string_view tag) const {
    detail::CStr t(tag);
    uint32_t type = collGetType(h_, t);
    if (type != COLLTYPE_ITEM && type != COLLTYPE_STRING) return std::nullopt;
    uint32_t n = collGetItem(h_, t, nullptr, 0);
    std::string s(n + 1, '\0');
    uint32_t m = collGetItem(h_, t, s.data(), n + 1);
    s.resize(type == COLLTYPE_STRING ? (m ? m - 1 : 0) : std::min(m, n));
    return s;
  }
  [[nodiscard]] bool SetString(std::string_view tag, std::string_view text) {
    return collSetString(h_, detail::CStr(tag), detail::CStr(text)) != 0;
  }
  // Any item but a table or collection, read as text.
  [[nodiscard]] std::optional<std::string> GetString(std::string_view tag) const {
    detail::CStr t(tag);
    if (!Contains(tag)) return std::nullopt;
    uint32_t type = collGetType(h_, t);
    if (type == COLLTYPE_TABLE || type == COLLTYPE_COLL) return std::nullopt;
    return detail::ReadText([&](char *b, uint32_t n) { return collGetString(h_, t, b, n); });
  }
  [[nodiscard]] bool SetNumber(std::string_view tag, int32_t value) {
    return collSetNumeric(h_, detail::CStr(tag), value) != 0;
  }
  [[nodiscard]] std::optional<int32_t> GetNumber(std::string_view tag) const {
    detail::CStr t(tag);
    uint32_t type = collGetType(h_, t);
    if (type != COLLTYPE_NUMERIC && type != COLLTYPE_STRING) return std::nullopt;
    return collGetNumeric(h_, t);
  }
  [[nodiscard]] bool SetTime(std::string_view tag, uint32_t secondsSince1970) {
    return collSetTime(h_, detail::CStr(tag), secondsSince1970) != 0;
  }
  [[nodiscard]] std::optional<uint32_t> GetTime(std::string_view tag) const {
    uint32_t t = 0;
    if (!collGetTime(h_, detail::CStr(tag), &t)) return std::nullopt;
    return t;
  }
  // Stores a private copy of source.
  [[nodiscard]] bool SetCollection(std::string_view tag, const Collection &source) {
    return collSetColl(h_, detail::CStr(tag), source.h_) != 0;
  }
  // A new top-level copy of the nested collection; an empty Collection (no
  // handle) when the item is missing or not a collection. (collGetColl
  // itself gives a new empty collection for a missing tag.)
  [[nodiscard]] Collection GetCollection(std::string_view tag) const {
    detail::CStr t(tag);
    if (collGetType(h_, t) != COLLTYPE_COLL) return Collection();
    return Collection(collGetColl(h_, t));
  }
  [[nodiscard]] inline bool SetTable(std::string_view tag, const Table &table);
  [[nodiscard]] inline Table GetTable(std::string_view tag) const;

  [[nodiscard]] bool Erase(std::string_view tag) { return collSetItem(h_, detail::CStr(tag), "", 0) != 0; }
  [[nodiscard]] bool Rename(std::string_view from, std::string_view to) {
    return collRenameTag(h_, detail::CStr(from), detail::CStr(to)) != 0;
  }
  [[nodiscard]] bool CopyFrom(const Collection &from, std::string_view tag) {
    return collCopyItem(h_, from.h_, detail::CStr(tag)) != 0;
  }
  [[nodiscard]] bool Merge(const Collection &source) { return collMerge(h_, source.h_) != 0; }
  void Clear() { collEmpty(h_); }
  [[nodiscard]] std::string Substitute(std::string_view templ) const {
    detail::CStr t(templ);
    return detail::ReadText([&](char *b, uint32_t n) { return collSubstitute(h_, t, b, n); });
  }
  [[nodiscard]] bool Write() const { return collWrite(h_) != 0; }

  // The items as a dump image; empty on failure.
  [[nodiscard]] std::vector<std::byte> Dump() const {
    uint32_t n = collDumpItems(h_, nullptr, 0);
    std::vector<std::byte> out(n);
    if (n == 0 || collDumpItems(h_, out.data(), n) != n) out.clear();
    return out;
  }
  [[nodiscard]] std::string DumpHex() const {
    uint32_t n = collDumpItemsHex(h_, nullptr, 0);
    std::string out(n, '\0');
    if (n == 0 || collDumpItemsHex(h_, out.data(), n) != n) out.clear();
    return out;
  }
  [[nodiscard]] bool Load(const std::vector<std::byte> &image) {
    return collLoadItems(h_, image.data(), static_cast<uint32_t>(image.size())) != 0;
  }
  [[nodiscard]] bool LoadHex(std::string_view text) {
    return collLoadItemsHex(h_, text.data(), static_cast<uint32_t>(text.size())) != 0;
  }

 private:
  explicit Collection(HCOLL h) : h_(h) {}
  HCOLL h_ = 0;
};

class Table {
 public:
  Table() = default;
  static Table Adopt(HTABLE h) { return Table(h); }
  [[nodiscard]] static Table Create(uint32_t cols, uint32_t type = 0) { return Table(tableCreate(cols, type)); }
  // A table copied from a dump image whose first item is a table.
  [[nodiscard]] static Table Load(const std::vector<std::byte> &image) {
    return Table(tableLoad(image.data(), static_cast<uint32_t>(image.size()), 0, 0, 0));
  }
  [[nodiscard]] static Table FromClipboard(HWINDOW window = 0) { return Table(tableDataFromClipboard(window)); }

  Table(Table &&o) noexcept : h_(std::exchange(o.h_, 0)) {}
  Table &operator=(Table &&o) noexcept {
    if (this != &o) {
      Reset();
      h_ = std::exchange(o.h_, 0);
    }
    return *this;
  }
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;
  ~Table() { Reset(); }

  HTABLE handle() const { return h_; }
  explicit operator bool() const { return h_ != 0; }
  HTABLE Release() { return std::exchange(h_, 0); }
  void Reset() {
    if (h_) tableDestroy(std::exchange(h_, 0));
  }
  // A second handle on the same data (copied before the first change).
  [[nodiscard]] Table Copy() const { return Table(tableCopy(h_, 0)); }

  uint32_t Rows() const { return tableRowCount(h_); }
  uint32_t Cols() const { return tableColCount(h_); }
  uint32_t Type() const { return tableGetType(h_); }
  uint32_t Stamp() const { return tableGetStamp(h_); }
  // A field; row ROW_HEADER gives a column name (columns -1..-5: attributes).
  [[nodiscard]] std::optional<std::string> Get(int32_t row, int32_t column) const {
    uint32_t c = static_cast<uint32_t>(column);
    if (tableGetItem(h_, row, c, nullptr, 0) == 0) return std::nullopt;
    return detail::ReadText([&](char *b, uint32_t n) { return tableGetItem(h_, row, c, b, n); });
  }
  [[nodiscard]] bool Set(int32_t row, int32_t column, std::string_view text) {
    return tableSetItem(h_, row, static_cast<uint32_t>(column), detail::CStr(text)) != 0;
  }
  [[nodiscard]] std::string ColumnName(uint32_t column) const {
    return Get(ROW_HEADER, static_cast<int32_t>(column)).value_or("");
  }
  [[nodiscard]] std::optional<uint32_t> ColumnIndex(std::string_view name) const {
    uint32_t i = tableGetColIndex(h_, detail::CStr(name));
    if (i == 0xFFFFFFFFu) return std::nullopt;
    return i;
  }
  [[nodiscard]] bool InsertRow(uint32_t row) { return tableAddRow(h_, row) != 0; }
  [[nodiscard]] bool AppendRow() { return tableAddRow(h_, static_cast<uint32_t>(ROW_APPEND)) != 0; }
  void DeleteRow(uint32_t row) { tableDeleteRow(h_, row); }
  // A row (or ROW_NAMES / ROW_ATTRIBUTES) as its strings.
  [[nodiscard]] std::optional<std::vector<std::string>> GetRow(int32_t row) const {
    uint32_t r = static_cast<uint32_t>(row);
    uint32_t n = tableGetRow(h_, r, nullptr, 0);
    if (n == 0) return std::nullopt;
    std::string packed(n, '\0');
    if (tableGetRow(h_, r, packed.data(), n) != n) return std::nullopt;
    std::vector<std::string> out;
    for (size_t p = 0; p < packed.size();) {
      size_t z = packed.find('\0', p);
      if (z == std::string::npos) z = packed.size();
      out.emplace_back(packed, p, z - p);
      p = z + 1;
    }
    return out;
  }
  [[nodiscard]] bool SetRow(int32_t row, const std::vector<std::string> &fields) {
    std::string packed;
    for (const std::string &f : fields) {
      packed += f;
      packed += '\0';
    }
    return tableSetRow(h_, static_cast<uint32_t>(row), packed.data(), static_cast<uint32_t>(packed.size())) != 0;
  }
  [[nodiscard]] std::optional<uint32_t> Selection() const {
    uint32_t s = tableGetSelection(h_);
    if (s == 0xFFFFFFFFu) return std::nullopt;
    return s;
  }
  [[nodiscard]] bool Select(uint32_t row) { return tableSetSelection(h_, row) != 0; }
  // The first row at or after start whose field in column equals text
  // without regard to case (FindPrefix: begins with text).
  // An empty text matches an empty field (Find) or any field (FindPrefix).
  [[nodiscard]] std::optional<uint32_t> Find(std::string_view text, uint32_t column, uint32_t start = 0) const {
    uint32_t r = tableFindField(h_, Chars(text), static_cast<uint32_t>(text.size()), start, column);
    if (r == 0xFFFFFFFFu) return std::nullopt;
    return r;
  }
  [[nodiscard]] std::optional<uint32_t> FindPrefix(std::string_view text, uint32_t column, uint32_t start = 0) const {
    uint32_t r = tableFindAbbrev(h_, Chars(text), static_cast<uint32_t>(text.size()), start, column);
    if (r == 0xFFFFFFFFu) return std::nullopt;
    return r;
  }
  [[nodiscard]] bool ToClipboard(uint32_t mode) const { return tableDataToClipboard(h_, mode) != 0; }

 private:
  explicit Table(HTABLE h) : h_(h) {}
  // The characters of a view, never null (an empty view may have no data).
  static const char *Chars(std::string_view s) { return s.empty() ? "" : s.data(); }
  HTABLE h_ = 0;
};

inline bool Collection::SetTable(std::string_view tag, const Table &table) {
  return collSetTable(h_, detail::CStr(tag), table.handle()) != 0;
}
inline Table Collection::GetTable(std::string_view tag) const {
  return Table::Adopt(collGetTable(h_, detail::CStr(tag)));
}

}  // namespace libcoll

#endif  // COLL_HPP
