// make_seeds.cpp - writes seed corpora for the fuzz targets, made from real
// dumps: make_fuzz_seeds <directory> fills <directory>/load, /hex and /table.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "coll.h"
#include "fuzz/fuzz_util.h"
#include "store/store.h"
#include "tables/table.h"

namespace {

void Write(const std::string &path, const void *bytes, size_t n) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f || std::fwrite(bytes, 1, n, f) != n || std::fclose(f) != 0) fuzzutil::Fail(path.c_str());
}

void Store(HCOLL h, const char *tag, uint32_t type, const void *data, uint32_t n) {
  coll::LockGuard lock;
  coll::SetItem(h, tag, coll::BuildItem(type, data, n), 1);
}

// A table of cols columns whose strings are the given ones, back to back.
HTABLE Table(uint32_t cols, uint32_t rows, const std::string &strings) {
  HTABLE t = tableCreate(cols, 0x77);
  coll::LockGuard lock;
  uint8_t *hdr = coll::GetTablePtr(t);
  const uint32_t length = 48 + uint32_t(strings.size());
  const uint32_t pages = length / 1023 + 1;
  coll::TableDataRec &rec = coll::ps->tableData[coll::TableDataIndex(hdr)];
  rec.data = static_cast<uint8_t *>(coll::collReAllocPtr(rec.data, pages * 1023));
  std::memcpy(rec.data, strings.data(), strings.size());
  coll::wr16(hdr + coll::th::length, length);
  coll::wr16(hdr + coll::th::rows, rows);
  coll::wr16(hdr + coll::th::selection, 0);
  coll::wr32(hdr + coll::th::pages, pages);
  coll::wr32(hdr + coll::th::cacheValid, 0);
  coll::wr32(hdr + coll::th::rowsOffset, coll::SkipStrings(rec.data, 0, cols, length - 48));
  coll::wr32(hdr + coll::th::attrOffset, coll::SkipStrings(rec.data, 0, cols * (rows + 1), length - 48));
  return t;
}

void Seed(const std::string &dir, const std::string &name, HCOLL h) {
  const uint32_t n = collDumpItems(h, nullptr, 0);
  std::vector<uint8_t> image(n);
  std::vector<char> text(2 * n);
  if (n == 0 || collDumpItems(h, image.data(), n) != n || collDumpItemsHex(h, text.data(), 2 * n) != 2 * n)
    fuzzutil::Fail("seed dump");
  Write(dir + "/load/" + name, image.data(), n);
  Write(dir + "/hex/" + name, text.data(), text.size());
  uint32_t type = 0;
  if (collItemCount(h) > 0) {
    char tag[300];
    collNameItem(h, 0, tag, sizeof tag);
    type = collGetType(h, tag);
  }
  if (type == COLLTYPE_TABLE) Write(dir + "/table/" + name, image.data(), n);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_fuzz_seeds <directory>\n");
    return 2;
  }
  const std::string dir = argv[1];
  for (const char *sub : {"/load", "/hex", "/table"})
    if (std::system(("mkdir -p '" + dir + sub + "'").c_str()) != 0) return 1;

  HCOLL empty = collOpen("empty");
  Seed(dir, "empty", empty);

  HCOLL text = collOpen("text");
  Store(text, "ab", COLLTYPE_STRING, "xy", 2);
  Seed(dir, "text", text);

  HTABLE grid = Table(2, 2, std::string("A\0B\0a1\0\0a2\0b2\0w\0\0\0\0x\0", 21));
  HCOLL table = collOpen("table");
  fuzzutil::PutObject(table, "grid", COLLTYPE_TABLE, grid);
  Store(table, "after", COLLTYPE_STRING, "text", 4);
  Seed(dir, "table", table);

  HCOLL rich = collOpen("rich");
  HTABLE small = Table(1, 0, std::string("only\0\0\0\0\0\0", 10));
  fuzzutil::PutObject(rich, "t", COLLTYPE_TABLE, small);
  collSetItem(rich, "raw", "\x01\x02\x00\xFF", 4);
  const uint8_t number[4] = {7, 0, 0, 0x80};
  Store(rich, "num", COLLTYPE_NUMERIC, number, 4);
  Store(rich, "time", COLLTYPE_TIME, number, 4);
  Store(rich, "seven", 7, "loaded", 6);
  HCOLL inner = collOpen("inner");
  HCOLL innermost = collOpen("innermost");
  Store(innermost, "deep", COLLTYPE_STRING, "down", 4);
  fuzzutil::PutObject(innermost, "g", COLLTYPE_TABLE, grid);
  fuzzutil::PutObject(inner, "more", COLLTYPE_COLL, innermost);
  Store(inner, "n", COLLTYPE_NUMERIC, number, 4);
  fuzzutil::PutObject(rich, "child", COLLTYPE_COLL, inner);
  Seed(dir, "rich", rich);
  return 0;
}
