// Dumps and loads: a collection near the image limit holding mixed items,
// and one holding a 40,000-byte table, in bytes per second, beside memcpy of
// the same bytes and SQLite's serialize / deserialize of the same data.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "coll.h"

namespace {

// Mixed items until the image in use nears its 63,483-byte limit.
uint32_t MakeMixed() {
  uint32_t h = collOpen("mixed");
  for (int i = 0;; ++i) {
    std::string tag = "item" + std::to_string(i);
    bool ok;
    switch (i % 4) {
      case 0: ok = collSetNumeric(h, tag.c_str(), i); break;
      case 1: ok = collSetString(h, tag.c_str(), "some text of middling length"); break;
      case 2: ok = collSetTime(h, tag.c_str(), 1700000000u + i); break;
      default: ok = collSetItem(h, tag.c_str(), "\x01\x02\x03\x04\x05\x06\x07\x08", 8); break;
    }
    if (!ok || collDumpItems(h, nullptr, 0) > 62000) break;
  }
  return h;
}

// A table of about 40,000 data bytes under one tag.
uint32_t MakeWithTable() {
  uint32_t h = collOpen("table");
  uint32_t t = tableCreate(4, 0);
  const char row[] = "alpha\0beta\0gamma\0delta";
  uint32_t bytes = 0;
  while (bytes < 40000 && tableSetRow(t, static_cast<uint32_t>(ROW_APPEND), row, sizeof row)) bytes += sizeof row;
  collSetTable(h, "grid", t);
  tableDestroy(t);
  return h;
}

// 300 texts of 200 bytes: the dump is mostly tag and text bytes.
uint32_t MakeTexts() {
  uint32_t h = collOpen("texts");
  const std::string text(200, 't');
  for (int i = 0; i < 300; ++i) collSetString(h, ("text" + std::to_string(i)).c_str(), text.c_str());
  return h;
}

std::vector<uint8_t> Dump(uint32_t h) {
  std::vector<uint8_t> image(collDumpItems(h, nullptr, 0));
  collDumpItems(h, image.data(), static_cast<uint32_t>(image.size()));
  return image;
}

void DumpBench(benchmark::State &state, uint32_t h) {
  std::vector<uint8_t> out(collDumpItems(h, nullptr, 0));
  for (auto _ : state) benchmark::DoNotOptimize(collDumpItems(h, out.data(), static_cast<uint32_t>(out.size())));
  state.SetBytesProcessed(state.iterations() * out.size());
  collClose(h);
}
void LoadBench(benchmark::State &state, uint32_t h) {
  std::vector<uint8_t> image = Dump(h);
  uint32_t into = collOpen(nullptr);
  for (auto _ : state) benchmark::DoNotOptimize(collLoadItems(into, image.data(), static_cast<uint32_t>(image.size())));
  state.SetBytesProcessed(state.iterations() * image.size());
  collClose(into);
  collClose(h);
}
void MemcpyBench(benchmark::State &state, uint32_t h) {
  std::vector<uint8_t> image = Dump(h), out(image.size());
  for (auto _ : state) {
    std::memcpy(out.data(), image.data(), image.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * image.size());
  collClose(h);
}

void BM_Coll_DumpMixed(benchmark::State &state) { DumpBench(state, MakeMixed()); }
void BM_Coll_LoadMixed(benchmark::State &state) { LoadBench(state, MakeMixed()); }
void BM_Memcpy_DumpMixed(benchmark::State &state) { MemcpyBench(state, MakeMixed()); }
void BM_Coll_DumpTable(benchmark::State &state) { DumpBench(state, MakeWithTable()); }
void BM_Coll_LoadTable(benchmark::State &state) { LoadBench(state, MakeWithTable()); }
void BM_Memcpy_DumpTable(benchmark::State &state) { MemcpyBench(state, MakeWithTable()); }
void BM_Coll_DumpTexts(benchmark::State &state) { DumpBench(state, MakeTexts()); }
void BM_Memcpy_DumpTexts(benchmark::State &state) { MemcpyBench(state, MakeTexts()); }

// The same items as an SQLite database.
void FillMixed(bench::Db &db, int count) {
  db.Exec("CREATE TABLE items(tag TEXT PRIMARY KEY COLLATE NOCASE, type INTEGER, value BLOB)");
  sqlite3_stmt *ins = db.Prepare("INSERT INTO items VALUES(?, ?, ?)");
  for (int i = 0; i < count; ++i) {
    std::string tag = "item" + std::to_string(i);
    sqlite3_bind_text(ins, 1, tag.data(), static_cast<int>(tag.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int(ins, 2, 1 + i % 4);
    sqlite3_bind_blob(ins, 3, "some text of middling length", 4 + (i % 4) * 6, SQLITE_STATIC);
    sqlite3_step(ins);
    sqlite3_reset(ins);
  }
}
void FillTable(bench::Db &db) {
  db.Exec("CREATE TABLE grid(c0 TEXT, c1 TEXT, c2 TEXT, c3 TEXT)");
  for (int r = 0; r < 40000 / 23; ++r) db.Exec("INSERT INTO grid VALUES('alpha', 'beta', 'gamma', 'delta')");
}

void SerializeBench(benchmark::State &state, bench::Db &db, bool deserialize) {
  sqlite3_int64 size = 0;
  unsigned char *image = sqlite3_serialize(db.get(), "main", &size, 0);
  for (auto _ : state) {
    if (!deserialize) {
      sqlite3_int64 n = 0;
      unsigned char *p = sqlite3_serialize(db.get(), "main", &n, 0);
      benchmark::DoNotOptimize(p);
      sqlite3_free(p);
    } else {
      bench::Db other;
      unsigned char *copy = static_cast<unsigned char *>(sqlite3_malloc64(size));
      std::memcpy(copy, image, size);
      sqlite3_deserialize(other.get(), "main", copy, size, size,
                          SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE);
      sqlite3_stmt *s = nullptr;
      sqlite3_prepare_v2(other.get(), "SELECT count(*) FROM sqlite_master", -1, &s, nullptr);
      benchmark::DoNotOptimize(sqlite3_step(s));
      sqlite3_finalize(s);
    }
  }
  state.SetBytesProcessed(state.iterations() * size);
  state.counters["image_bytes"] = static_cast<double>(size);
  sqlite3_free(image);
}
int MixedCount() {
  uint32_t h = MakeMixed();
  int n = static_cast<int>(collItemCount(h));
  collClose(h);
  return n;
}
void BM_Sqlite_DumpMixed(benchmark::State &state) {
  bench::Db db;
  FillMixed(db, MixedCount());
  SerializeBench(state, db, false);
}
void BM_Sqlite_LoadMixed(benchmark::State &state) {
  bench::Db db;
  FillMixed(db, MixedCount());
  SerializeBench(state, db, true);
}
void BM_Sqlite_DumpTable(benchmark::State &state) {
  bench::Db db;
  FillTable(db);
  SerializeBench(state, db, false);
}
void BM_Sqlite_LoadTable(benchmark::State &state) {
  bench::Db db;
  FillTable(db);
  SerializeBench(state, db, true);
}

BENCHMARK(BM_Coll_DumpMixed);
BENCHMARK(BM_Coll_LoadMixed);
BENCHMARK(BM_Memcpy_DumpMixed);
BENCHMARK(BM_Sqlite_DumpMixed);
BENCHMARK(BM_Sqlite_LoadMixed);
BENCHMARK(BM_Coll_DumpTable);
BENCHMARK(BM_Coll_LoadTable);
BENCHMARK(BM_Memcpy_DumpTable);
BENCHMARK(BM_Sqlite_DumpTable);
BENCHMARK(BM_Sqlite_LoadTable);
BENCHMARK(BM_Coll_DumpTexts);
BENCHMARK(BM_Memcpy_DumpTexts);

}  // namespace
