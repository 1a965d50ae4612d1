// bench_common.h - shared pieces of the benchmarks: tags, the hash-map
// baseline with ASCII case-insensitive hashing, and a small SQLite wrapper.
#ifndef COLL_BENCH_COMMON_H
#define COLL_BENCH_COMMON_H

#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

namespace bench {

// n distinct tags of 4 to 20 characters.
inline std::vector<std::string> MakeTags(int n) {
  std::vector<std::string> tags;
  uint32_t x = 12345;
  for (int i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    int len = 4 + static_cast<int>((x >> 16) % 17);
    std::string t = "T" + std::to_string(i) + "_";
    while (static_cast<int>(t.size()) < len) t += static_cast<char>('a' + (x >> (t.size() % 24)) % 26);
    t.resize(std::max<size_t>(len, std::to_string(i).size() + 2));
    tags.push_back(t);
  }
  return tags;
}

inline char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

struct NoCaseHash {
  size_t operator()(const std::string &s) const {
    size_t h = 1469598103934665603ull;
    for (char c : s) h = (h ^ static_cast<unsigned char>(Lower(c))) * 1099511628211ull;
    return h;
  }
};
struct NoCaseEq {
  bool operator()(const std::string &a, const std::string &b) const {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
      if (Lower(a[i]) != Lower(b[i])) return false;
    return true;
  }
};

// The value a hash map would keep for a typed item.
struct Value {
  int type = 0;
  int32_t number = 0;
  std::string text;
};
using Map = std::unordered_map<std::string, Value, NoCaseHash, NoCaseEq>;

class Db {
 public:
  Db() {
    if (sqlite3_open(":memory:", &db_) != SQLITE_OK) std::abort();
  }
  ~Db() {
    for (sqlite3_stmt *s : stmts_) sqlite3_finalize(s);
    sqlite3_close(db_);
  }
  Db(const Db &) = delete;
  Db &operator=(const Db &) = delete;
  void Exec(const char *sql) {
    char *err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
      std::fprintf(stderr, "sqlite: %s\n", err);
      std::abort();
    }
  }
  sqlite3_stmt *Prepare(const char *sql) {
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) std::abort();
    stmts_.push_back(s);
    return s;
  }
  sqlite3 *get() { return db_; }

 private:
  sqlite3 *db_ = nullptr;
  std::vector<sqlite3_stmt *> stmts_;
};

// Runs a prepared statement to completion (or its first row) and resets it.
inline int Step(sqlite3_stmt *s) {
  int rc = sqlite3_step(s);
  return rc;
}

}  // namespace bench

#endif
