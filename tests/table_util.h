// table_util.h - rows written as text for the table tests: fields joined by
// '|', rows by '/' (names first).
#ifndef COLL_TESTS_TABLE_UTIL_H
#define COLL_TESTS_TABLE_UTIL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "coll.h"

namespace testutil {

// What the table calls return for "no row" or "no column".
constexpr uint32_t kNone = 0xFFFFFFFFu;

// "a||b" -> "a\0\0b\0".
inline std::string Pack(std::string_view fields) {
  std::string p(fields);
  for (char &c : p) c = c == '|' ? '\0' : c;
  return p + '\0';
}
inline uint32_t SetRow(HTABLE t, int32_t row, std::string_view fields) {
  const std::string p = Pack(fields);
  return tableSetRow(t, uint32_t(row), p.data(), uint32_t(p.size()));
}
// A field, or "<none>" when the address names no string.
inline std::string Field(HTABLE t, int32_t row, uint32_t col) {
  thread_local std::vector<char> buf(70000);
  return tableGetItem(t, row, col, buf.data(), uint32_t(buf.size())) ? std::string(buf.data()) : "<none>";
}
// A packed row as "a|b", or "<none>".
inline std::string Row(HTABLE t, int32_t row) {
  const uint32_t n = tableGetRow(t, uint32_t(row), nullptr, 0);
  if (n == 0) return "<none>";
  std::string s(n, '\0');
  tableGetRow(t, uint32_t(row), s.data(), n);
  s.pop_back();
  for (char &c : s) c = c == '\0' ? '|' : c;
  return s;
}
// Names and rows as "A|B/1|2/3|4".
inline std::string Grid(HTABLE t) {
  std::string s = Row(t, ROW_NAMES);
  for (uint32_t r = 0, n = tableRowCount(t); r < n && n != 0xFFFFFFFFu; ++r) s += "/" + Row(t, int32_t(r));
  return s;
}
// A table made from a grid text as Grid gives it.
inline HTABLE MakeGrid(std::string_view grid, uint32_t type = 0) {
  std::vector<std::string_view> rows;
  for (size_t p = 0;;) {
    const size_t q = grid.find('/', p);
    rows.push_back(grid.substr(p, q - p));
    if (q == std::string_view::npos) break;
    p = q + 1;
  }
  uint32_t cols = 1;
  for (char c : rows[0]) cols += c == '|';
  HTABLE t = tableCreate(cols, type);
  SetRow(t, ROW_NAMES, rows[0]);
  for (size_t r = 1; r < rows.size(); ++r) SetRow(t, ROW_APPEND, rows[r]);
  return t;
}

}  // namespace testutil

#endif
