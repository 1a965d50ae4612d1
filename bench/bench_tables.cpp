// Tables of 10,000 rows and 5 columns: reading every field in row order and
// at random, searching a column, appending rows and replacing fields, beside
// a vector of rows of strings and an SQLite table without an index.
//
// A table's data block holds at most 65,376 bytes, so 50,000 fields leave
// about 1.3 bytes each: column 0 holds one character, the others are empty,
// and the last row holds the marker the searches look for.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "coll.h"

namespace {

constexpr int kRows = 10000;
constexpr int kCols = 5;

std::string Field0(int r) { return r == kRows - 1 ? "#" : std::string(1, static_cast<char>('a' + r % 26)); }

uint32_t MakeTable() {
  uint32_t h = tableCreate(kCols, 0);
  for (int r = 0; r < kRows; ++r) {
    std::string packed = Field0(r);
    packed.append(kCols, '\0');  // its terminator and four empty fields
    if (!tableSetRow(h, static_cast<uint32_t>(ROW_APPEND), packed.data(), static_cast<uint32_t>(packed.size())))
      std::abort();
  }
  return h;
}

using Rows = std::vector<std::vector<std::string>>;
Rows MakeRows() {
  Rows rows(kRows, std::vector<std::string>(kCols));
  for (int r = 0; r < kRows; ++r) rows[r][0] = Field0(r);
  return rows;
}

struct SqlTable {
  SqlTable() {
    db.Exec("CREATE TABLE t(c0 TEXT, c1 TEXT, c2 TEXT, c3 TEXT, c4 TEXT)");
    db.Exec("BEGIN");
    sqlite3_stmt *ins = db.Prepare("INSERT INTO t VALUES(?, '', '', '', '')");
    for (int r = 0; r < kRows; ++r) {
      std::string f = Field0(r);
      sqlite3_bind_text(ins, 1, f.data(), static_cast<int>(f.size()), SQLITE_TRANSIENT);
      sqlite3_step(ins);
      sqlite3_reset(ins);
    }
    find = db.Prepare("SELECT rowid FROM t WHERE c0 = ? COLLATE NOCASE LIMIT 1");
    prefix = db.Prepare("SELECT rowid FROM t WHERE c0 LIKE ? || '%' LIMIT 1");
    read = db.Prepare("SELECT c0, c1, c2, c3, c4 FROM t ORDER BY rowid");
  }
  bench::Db db;
  sqlite3_stmt *find, *prefix, *read;
};

void BM_Table_ReadRowOrder(benchmark::State &state) {
  uint32_t h = MakeTable();
  char buf[16];
  for (auto _ : state)
    for (int r = 0; r < kRows; ++r)
      for (uint32_t c = 0; c < kCols; ++c) benchmark::DoNotOptimize(tableGetItem(h, r, c, buf, sizeof buf));
  state.SetItemsProcessed(state.iterations() * kRows * kCols);
  tableDestroy(h);
}
void BM_Vector_ReadRowOrder(benchmark::State &state) {
  Rows rows = MakeRows();
  char buf[16];
  for (auto _ : state)
    for (int r = 0; r < kRows; ++r)
      for (int c = 0; c < kCols; ++c) {
        const std::string &f = rows[r][c];
        size_t n = std::min(f.size(), sizeof buf - 1);
        std::memcpy(buf, f.data(), n);
        buf[n] = 0;
        benchmark::DoNotOptimize(buf);
      }
  state.SetItemsProcessed(state.iterations() * kRows * kCols);
}
// Row by row: one packed row per call.
void BM_Table_ReadRows(benchmark::State &state) {
  uint32_t h = MakeTable();
  char buf[64];
  for (auto _ : state)
    for (int r = 0; r < kRows; ++r) benchmark::DoNotOptimize(tableGetRow(h, r, buf, sizeof buf));
  state.SetItemsProcessed(state.iterations() * kRows);
  tableDestroy(h);
}
void BM_Vector_ReadRows(benchmark::State &state) {
  Rows rows = MakeRows();
  char buf[64];
  for (auto _ : state)
    for (int r = 0; r < kRows; ++r) {
      char *p = buf;
      for (const std::string &f : rows[r]) {
        std::memcpy(p, f.c_str(), f.size() + 1);
        p += f.size() + 1;
      }
      benchmark::DoNotOptimize(buf);
    }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_Sqlite_ReadRowOrder(benchmark::State &state) {
  SqlTable s;
  char buf[16];
  for (auto _ : state) {
    while (sqlite3_step(s.read) == SQLITE_ROW)
      for (int c = 0; c < kCols; ++c) {
        size_t n = std::min<size_t>(sqlite3_column_bytes(s.read, c), sizeof buf - 1);
        std::memcpy(buf, sqlite3_column_text(s.read, c), n);
        buf[n] = 0;
        benchmark::DoNotOptimize(buf);
      }
    sqlite3_reset(s.read);
  }
  state.SetItemsProcessed(state.iterations() * kRows * kCols);
}

std::vector<std::pair<int, int>> RandomCells() {
  std::mt19937 rng(7);
  std::vector<std::pair<int, int>> cells(4096);
  for (auto &c : cells) c = {static_cast<int>(rng() % kRows), static_cast<int>(rng() % kCols)};
  return cells;
}

void BM_Table_ReadRandom(benchmark::State &state) {
  uint32_t h = MakeTable();
  auto cells = RandomCells();
  char buf[16];
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tableGetItem(h, cells[i].first, cells[i].second, buf, sizeof buf));
    i = (i + 1) & 4095;
  }
  tableDestroy(h);
}
void BM_Vector_ReadRandom(benchmark::State &state) {
  Rows rows = MakeRows();
  auto cells = RandomCells();
  char buf[16];
  size_t i = 0;
  for (auto _ : state) {
    const std::string &f = rows[cells[i].first][cells[i].second];
    size_t n = std::min(f.size(), sizeof buf - 1);
    std::memcpy(buf, f.data(), n);
    buf[n] = 0;
    benchmark::DoNotOptimize(buf);
    i = (i + 1) & 4095;
  }
}

void BM_Table_FindField(benchmark::State &state) {
  uint32_t h = MakeTable();
  for (auto _ : state) benchmark::DoNotOptimize(tableFindField(h, "#", 0xFFFFFFFFu, 0, 0));
  state.SetItemsProcessed(state.iterations() * kRows);
  tableDestroy(h);
}
void BM_Table_FindAbbrev(benchmark::State &state) {
  uint32_t h = MakeTable();
  for (auto _ : state) benchmark::DoNotOptimize(tableFindAbbrev(h, "#", 0xFFFFFFFFu, 0, 0));
  state.SetItemsProcessed(state.iterations() * kRows);
  tableDestroy(h);
}
void BM_Vector_FindField(benchmark::State &state) {
  Rows rows = MakeRows();
  for (auto _ : state) {
    int found = -1;
    for (int r = 0; r < kRows; ++r)
      if (bench::NoCaseEq()(rows[r][0], "#")) {
        found = r;
        break;
      }
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
void BM_Sqlite_FindField(benchmark::State &state) {
  SqlTable s;
  for (auto _ : state) {
    sqlite3_bind_text(s.find, 1, "#", 1, SQLITE_STATIC);
    benchmark::DoNotOptimize(sqlite3_step(s.find));
    sqlite3_reset(s.find);
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
void BM_Sqlite_FindAbbrev(benchmark::State &state) {
  SqlTable s;
  for (auto _ : state) {
    sqlite3_bind_text(s.prefix, 1, "#", 1, SQLITE_STATIC);
    benchmark::DoNotOptimize(sqlite3_step(s.prefix));
    sqlite3_reset(s.prefix);
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_Table_AppendRow(benchmark::State &state) {
  uint32_t h = tableCreate(kCols, 0);
  const char packed[] = "a\0b\0c\0d\0e";
  for (auto _ : state) {
    if (!tableSetRow(h, static_cast<uint32_t>(ROW_APPEND), packed, sizeof packed)) {
      state.PauseTiming();
      tableDestroy(h);
      h = tableCreate(kCols, 0);
      state.ResumeTiming();
    }
  }
  tableDestroy(h);
}
void BM_Vector_AppendRow(benchmark::State &state) {
  Rows rows;
  for (auto _ : state) {
    rows.push_back({"a", "b", "c", "d", "e"});
    if (rows.size() == 6000) {
      state.PauseTiming();
      rows.clear();
      state.ResumeTiming();
    }
  }
}
void BM_Sqlite_AppendRow(benchmark::State &state) {
  bench::Db db;
  db.Exec("CREATE TABLE t(c0 TEXT, c1 TEXT, c2 TEXT, c3 TEXT, c4 TEXT)");
  db.Exec("BEGIN");
  sqlite3_stmt *ins = db.Prepare("INSERT INTO t VALUES('a', 'b', 'c', 'd', 'e')");
  for (auto _ : state) {
    sqlite3_step(ins);
    sqlite3_reset(ins);
  }
}

void BM_Table_ReplaceField(benchmark::State &state) {
  uint32_t h = MakeTable();
  const char *texts[2] = {"x", "y"};
  int i = 0, r = 0;
  for (auto _ : state) {
    tableSetItem(h, r, 0, texts[i ^= 1]);
    r = (r + 7919) % kRows;
  }
  tableDestroy(h);
}
void BM_Vector_ReplaceField(benchmark::State &state) {
  Rows rows = MakeRows();
  const char *texts[2] = {"x", "y"};
  int i = 0, r = 0;
  for (auto _ : state) {
    rows[r][0] = texts[i ^= 1];
    benchmark::ClobberMemory();
    r = (r + 7919) % kRows;
  }
}
void BM_Sqlite_ReplaceField(benchmark::State &state) {
  SqlTable s;
  sqlite3_stmt *upd = s.db.Prepare("UPDATE t SET c0 = ? WHERE rowid = ?");
  const char *texts[2] = {"x", "y"};
  int i = 0, r = 0;
  for (auto _ : state) {
    sqlite3_bind_text(upd, 1, texts[i ^= 1], 1, SQLITE_STATIC);
    sqlite3_bind_int(upd, 2, r + 1);
    sqlite3_step(upd);
    sqlite3_reset(upd);
    r = (r + 7919) % kRows;
  }
}

BENCHMARK(BM_Table_ReadRowOrder);
BENCHMARK(BM_Vector_ReadRowOrder);
BENCHMARK(BM_Sqlite_ReadRowOrder);
BENCHMARK(BM_Table_ReadRows);
BENCHMARK(BM_Vector_ReadRows);
BENCHMARK(BM_Table_ReadRandom);
BENCHMARK(BM_Vector_ReadRandom);
BENCHMARK(BM_Table_FindField);
BENCHMARK(BM_Table_FindAbbrev);
BENCHMARK(BM_Vector_FindField);
BENCHMARK(BM_Sqlite_FindField);
BENCHMARK(BM_Sqlite_FindAbbrev);
BENCHMARK(BM_Table_AppendRow);
BENCHMARK(BM_Vector_AppendRow);
BENCHMARK(BM_Sqlite_AppendRow);
BENCHMARK(BM_Table_ReplaceField);
BENCHMARK(BM_Vector_ReplaceField);
BENCHMARK(BM_Sqlite_ReplaceField);

}  // namespace
