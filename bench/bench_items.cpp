// Keyed reads and writes in collections of 10, 100 and 1,000 items and in a
// full image, beside a case-insensitive hash map and an in-memory SQLite
// table; and the load of a dump of many small items beside building the map.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench/bench_common.h"
#include "coll.h"

namespace {

using bench::Db;
using bench::Map;
using bench::MakeTags;

constexpr int kCachedTag = 0;
// As many numbers under MakeTags' tags as an image holds beside the text item.
constexpr int kFull = 2407;

struct Coll {
  explicit Coll(int n) : tags(MakeTags(n)) {
    h = collOpen("bench");
    for (int i = 0; i < n; ++i) full |= !collSetNumeric(h, tags[i].c_str(), i);
    full |= !collSetString(h, "text", "a text of some twenty");
  }
  ~Coll() { collClose(h); }
  uint32_t h;
  std::vector<std::string> tags;
  bool full = false;  // some item did not fit
};

struct Sql {
  explicit Sql(int n) : tags(MakeTags(n)) {
    db.Exec("CREATE TABLE items(tag TEXT PRIMARY KEY COLLATE NOCASE, type INTEGER, value BLOB)");
    db.Exec("BEGIN");
    insert = db.Prepare("INSERT OR REPLACE INTO items(tag, type, value) VALUES(?, ?, ?)");
    select = db.Prepare("SELECT type, value FROM items WHERE tag = ?");
    update = db.Prepare("UPDATE items SET value = ? WHERE tag = ?");
    remove = db.Prepare("DELETE FROM items WHERE tag = ?");
    for (int i = 0; i < n; ++i) Put(tags[i], 5, &i, 4);
    Put("text", 6, "a text of some twenty", 21);
  }
  void Put(const std::string &tag, int type, const void *v, int n) {
    sqlite3_bind_text(insert, 1, tag.data(), static_cast<int>(tag.size()), SQLITE_STATIC);
    sqlite3_bind_int(insert, 2, type);
    sqlite3_bind_blob(insert, 3, v, n, SQLITE_STATIC);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  int32_t GetNumber(const std::string &tag) {
    sqlite3_bind_text(select, 1, tag.data(), static_cast<int>(tag.size()), SQLITE_STATIC);
    int32_t v = 0;
    if (sqlite3_step(select) == SQLITE_ROW && sqlite3_column_bytes(select, 1) == 4)
      std::memcpy(&v, sqlite3_column_blob(select, 1), 4);
    sqlite3_reset(select);
    return v;
  }
  Db db;
  std::vector<std::string> tags;
  sqlite3_stmt *insert, *select, *update, *remove;
};

Map MakeMap(const std::vector<std::string> &tags) {
  Map m;
  for (size_t i = 0; i < tags.size(); ++i) m[tags[i]] = bench::Value{5, static_cast<int32_t>(i), {}};
  m["text"] = bench::Value{6, 0, "a text of some twenty"};
  return m;
}

// ---- reads of a number, the same tag again and again (in the tag cache)
void BM_Coll_GetNumeric_Cached(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  const char *tag = c.tags[kCachedTag].c_str();
  for (auto _ : state) benchmark::DoNotOptimize(collGetNumeric(c.h, tag));
}
void BM_Map_GetNumeric_Cached(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  const std::string &tag = tags[kCachedTag];
  for (auto _ : state) benchmark::DoNotOptimize(m.find(tag)->second.number);
}
void BM_Sqlite_GetNumeric_Cached(benchmark::State &state) {
  Sql s(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(s.GetNumber(s.tags[kCachedTag]));
}

// ---- reads cycling through every tag (outside the cache from 11 items on)
void BM_Coll_GetNumeric_Cycling(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(collGetNumeric(c.h, c.tags[i].c_str()));
    if (++i == c.tags.size()) i = 0;
  }
}
void BM_Map_GetNumeric_Cycling(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.find(tags[i])->second.number);
    if (++i == tags.size()) i = 0;
  }
}
void BM_Sqlite_GetNumeric_Cycling(benchmark::State &state) {
  Sql s(static_cast<int>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.GetNumber(s.tags[i]));
    if (++i == s.tags.size()) i = 0;
  }
}

// ---- a text into a 64-byte buffer
void BM_Coll_GetString64(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  char buf[64];
  for (auto _ : state) benchmark::DoNotOptimize(collGetString(c.h, "text", buf, sizeof buf));
}
void BM_Map_GetString64(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  const std::string tag = "text";
  char buf[64];
  for (auto _ : state) {
    const std::string &v = m.find(tag)->second.text;
    size_t n = std::min(v.size(), sizeof buf - 1);
    std::memcpy(buf, v.data(), n);
    buf[n] = 0;
    benchmark::DoNotOptimize(buf);
  }
}
void BM_Sqlite_GetString64(benchmark::State &state) {
  Sql s(static_cast<int>(state.range(0)));
  const std::string tag = "text";
  char buf[64];
  for (auto _ : state) {
    sqlite3_bind_text(s.select, 1, tag.data(), 4, SQLITE_STATIC);
    if (sqlite3_step(s.select) == SQLITE_ROW) {
      size_t n = std::min<size_t>(sqlite3_column_bytes(s.select, 1), sizeof buf - 1);
      std::memcpy(buf, sqlite3_column_blob(s.select, 1), n);
      buf[n] = 0;
    }
    sqlite3_reset(s.select);
    benchmark::DoNotOptimize(buf);
  }
}

// ---- a number replaced in place
void BM_Coll_SetNumeric_InPlace(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  const char *tag = c.tags[kCachedTag].c_str();
  int32_t v = 0;
  for (auto _ : state) collSetNumeric(c.h, tag, ++v);
}
void BM_Map_SetNumeric_InPlace(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  const std::string &tag = tags[kCachedTag];
  int32_t v = 0;
  for (auto _ : state) {
    m[tag].number = ++v;
    benchmark::ClobberMemory();
  }
}
void BM_Sqlite_SetNumeric_InPlace(benchmark::State &state) {
  Sql s(static_cast<int>(state.range(0)));
  const std::string &tag = s.tags[kCachedTag];
  int32_t v = 0;
  for (auto _ : state) {
    ++v;
    sqlite3_bind_blob(s.update, 1, &v, 4, SQLITE_STATIC);
    sqlite3_bind_text(s.update, 2, tag.data(), static_cast<int>(tag.size()), SQLITE_STATIC);
    sqlite3_step(s.update);
    sqlite3_reset(s.update);
  }
}

// ---- a text whose length changes at every store
void BM_Coll_SetString_ChangingLength(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  const char *texts[2] = {"short", "a somewhat longer text"};
  int i = 0;
  for (auto _ : state) collSetString(c.h, "text", texts[i ^= 1]);
}
void BM_Map_SetString_ChangingLength(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  const char *texts[2] = {"short", "a somewhat longer text"};
  const std::string tag = "text";
  int i = 0;
  for (auto _ : state) {
    m[tag].text = texts[i ^= 1];
    benchmark::ClobberMemory();
  }
}
void BM_Sqlite_SetString_ChangingLength(benchmark::State &state) {
  Sql s(static_cast<int>(state.range(0)));
  const char *texts[2] = {"short", "a somewhat longer text"};
  const std::string tag = "text";
  int i = 0;
  for (auto _ : state) {
    const char *t = texts[i ^= 1];
    sqlite3_bind_blob(s.update, 1, t, static_cast<int>(std::strlen(t)), SQLITE_STATIC);
    sqlite3_bind_text(s.update, 2, tag.data(), 4, SQLITE_STATIC);
    sqlite3_step(s.update);
    sqlite3_reset(s.update);
  }
}

// ---- deletion and re-insertion of an item
void BM_Coll_DeleteReinsert(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  const char *tag = c.tags[c.tags.size() / 2].c_str();
  for (auto _ : state) {
    collSetItem(c.h, tag, "", 0);
    collSetNumeric(c.h, tag, 7);
  }
}
void BM_Map_DeleteReinsert(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  const std::string &tag = tags[tags.size() / 2];
  for (auto _ : state) {
    m.erase(tag);
    m[tag] = bench::Value{5, 7, {}};
  }
}
void BM_Sqlite_DeleteReinsert(benchmark::State &state) {
  Sql s(static_cast<int>(state.range(0)));
  const std::string &tag = s.tags[s.tags.size() / 2];
  int32_t seven = 7;
  for (auto _ : state) {
    sqlite3_bind_text(s.remove, 1, tag.data(), static_cast<int>(tag.size()), SQLITE_STATIC);
    sqlite3_step(s.remove);
    sqlite3_reset(s.remove);
    s.Put(tag, 5, &seven, 4);
  }
}

// ---- deletion and re-insertion of every tag in turn: each deletion is of
// the first item, so the whole item area behind it moves
void BM_Coll_DeleteReinsertCycling(benchmark::State &state) {
  Coll c(static_cast<int>(state.range(0)));
  if (c.full) state.SkipWithError("not every item fitted");
  size_t i = 0;
  for (auto _ : state) {
    collSetItem(c.h, c.tags[i].c_str(), "", 0);
    collSetNumeric(c.h, c.tags[i].c_str(), 7);
    if (++i == c.tags.size()) i = 0;
  }
}
void BM_Map_DeleteReinsertCycling(benchmark::State &state) {
  auto tags = MakeTags(static_cast<int>(state.range(0)));
  Map m = MakeMap(tags);
  size_t i = 0;
  for (auto _ : state) {
    m.erase(tags[i]);
    m[tags[i]] = bench::Value{5, 7, {}};
    if (++i == tags.size()) i = 0;
  }
}

// ---- a dump of small items (numbers and short texts) loaded into an empty
// collection, beside building the same map
constexpr int kReloadItems = 2000;
void BM_Coll_Reload(benchmark::State &state) {
  auto tags = MakeTags(kReloadItems);
  uint32_t from = collOpen(nullptr), into = collOpen(nullptr);
  for (int i = 0; i < kReloadItems; ++i)
    i % 2 ? collSetString(from, tags[i].c_str(), "short text") : collSetNumeric(from, tags[i].c_str(), i);
  std::vector<uint8_t> image(collDumpItems(from, nullptr, 0));
  collDumpItems(from, image.data(), static_cast<uint32_t>(image.size()));
  for (auto _ : state) {
    state.PauseTiming();
    collEmpty(into);
    state.ResumeTiming();
    collLoadItems(into, image.data(), static_cast<uint32_t>(image.size()));
  }
  if (collItemCount(into) != kReloadItems) state.SkipWithError("the load lost items");
  collClose(from);
  collClose(into);
}
void BM_Map_Reload(benchmark::State &state) {
  auto tags = MakeTags(kReloadItems);
  Map m;
  for (auto _ : state) {
    state.PauseTiming();
    Map().swap(m);
    state.ResumeTiming();
    for (int i = 0; i < kReloadItems; ++i)
      m[tags[i]] = i % 2 ? bench::Value{6, 0, "short text"} : bench::Value{5, i, {}};
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Coll_Reload);
BENCHMARK(BM_Map_Reload);

#define ITEMS(name) BENCHMARK(name)->Arg(10)->Arg(100)->Arg(1000)
#define ITEMS_FULL(name) ITEMS(name)->Arg(kFull)
ITEMS_FULL(BM_Coll_GetNumeric_Cached);
ITEMS_FULL(BM_Map_GetNumeric_Cached);
ITEMS_FULL(BM_Sqlite_GetNumeric_Cached);
ITEMS_FULL(BM_Coll_GetNumeric_Cycling);
ITEMS_FULL(BM_Map_GetNumeric_Cycling);
ITEMS_FULL(BM_Sqlite_GetNumeric_Cycling);
ITEMS(BM_Coll_GetString64);
ITEMS(BM_Map_GetString64);
ITEMS(BM_Sqlite_GetString64);
ITEMS_FULL(BM_Coll_SetNumeric_InPlace);
ITEMS_FULL(BM_Map_SetNumeric_InPlace);
ITEMS_FULL(BM_Sqlite_SetNumeric_InPlace);
ITEMS(BM_Coll_SetString_ChangingLength);
ITEMS(BM_Map_SetString_ChangingLength);
ITEMS(BM_Sqlite_SetString_ChangingLength);
ITEMS_FULL(BM_Coll_DeleteReinsert);
ITEMS_FULL(BM_Map_DeleteReinsert);
ITEMS_FULL(BM_Sqlite_DeleteReinsert);
ITEMS_FULL(BM_Coll_DeleteReinsertCycling);
ITEMS_FULL(BM_Map_DeleteReinsertCycling);

}  // namespace
