// collctl: the command-line tool run as a subprocess (golden outputs, the
// JSON round trip, damaged dumps, the profile file, tables as text), and
// its dump reader and writer in process against the library's own load.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "coll.h"
#include "image.h"
#include "render.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;

std::string Quoted(const std::string &s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string ReadAll(const fs::path &p) {
  std::ifstream in(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteAll(const fs::path &p, const std::string &bytes) {
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
}

// The dump image of a collection.
std::string DumpOf(HCOLL h) {
  const uint32_t n = collDumpItems(h, nullptr, 0);
  std::string image(n, '\0');
  if (n == 0 || collDumpItems(h, image.data(), n) != n) return std::string();
  return image;
}

void FixChecksum(std::string *image) {
  const uint32_t sum = collctl::Checksum(*image);
  (*image)[4] = char(sum >> 8);
  (*image)[5] = char(sum & 0xFF);
}

// The image with one byte changed and the checksum made right again.
std::string Patched(std::string image, size_t at, uint8_t value) {
  image[at] = char(value);
  FixChecksum(&image);
  return image;
}

void SetTotal(std::string *image) {
  (*image)[0] = char(image->size() >> 8);
  (*image)[1] = char(image->size() & 0xFF);
}

// Offset of the first occurrence of bytes in the image.
size_t Find(const std::string &image, const std::string &bytes) {
  const size_t at = image.find(bytes);
  EXPECT_NE(at, std::string::npos) << bytes;
  return at;
}

// A collection with every kind of item: texts with escapes and bytes that
// are not UTF-8, numbers, times, short and long raw bytes, a nested
// collection holding another and a table, a table with selection and
// attribute strings, an empty table, an item stored inside a transaction
// (its mark travels in the dump) and, patched into the image, type 7.
std::string AllTypesImage() {
  HCOLL h = collOpen("All");
  collSetString(h, "Text", "tab\there \"q\" back\\slash\nend");
  collSetString(h, "Latin1", "caf\xE9");
  collSetString(h, "Utf8", "caf\xC3\xA9");
  collSetString(h, "T\xE4g", "v");
  collSetNumeric(h, "Min", INT32_MIN);
  collSetTime(h, "Epoch", 0);
  collSetTime(h, "Last", 0xFFFFFFFFu);
  collSetItem(h, "Raw", "\x01\x1F\x7F z", 5);
  std::string longRaw;
  for (int i = 0; i < 40; ++i) longRaw.push_back(char(i * 7));
  collSetItem(h, "Long", longRaw.data(), uint32_t(longRaw.size()));
  collSetString(h, "Seven", "as text");

  HCOLL deeper = collOpen(nullptr);
  collSetNumeric(deeper, "n", 1);
  HCOLL inner = collOpen(nullptr);
  collSetString(inner, "a", "x");
  collSetColl(inner, "Deeper", deeper);
  HTABLE small = tableCreate(1, 0);
  tableSetItem(small, ROW_HEADER, 0, "only");
  collSetTable(inner, "Small", small);
  collSetColl(h, "Inner", inner);

  HTABLE grid = tableCreate(2, 7);
  tableSetRow(grid, uint32_t(ROW_NAMES), "Key\0Value", 10);
  tableSetRow(grid, uint32_t(ROW_APPEND), "a\0one", 6);
  tableSetRow(grid, uint32_t(ROW_APPEND), "b\0", 3);
  tableSetRow(grid, uint32_t(ROW_APPEND), "c\0tab\there", 11);
  tableSetSelection(grid, 2);
  tableSetItem(grid, ROW_HEADER, uint32_t(-1), "%3s %9s ");
  tableSetItem(grid, ROW_HEADER, uint32_t(-5), "last");
  collSetTable(h, "Grid", grid);
  collSetTable(h, "Empty", small);

  collLock(h);
  collSetString(h, "Pending", "yes");
  std::string image = DumpOf(h);
  collUnlock(h);
  // "Seven": tag length 5, tag, value length 13, then the type word.
  const size_t at = Find(image, std::string("\x00\x05Seven", 7)) + 9;
  image[at + 1] = 7;
  FixChecksum(&image);

  tableDestroy(grid);
  tableDestroy(small);
  collClose(inner);
  collClose(deeper);
  collClose(h);
  return image;
}

// The worked example: text item 'ab' = 'xy'.
const std::string kAbXy(
    "\x00\x14\xCE\x00\x01\xCC\x00\x02"
    "ab\x00\x08\x00\x06\x00\x00\x00\x08xy",
    20);

bool LibraryLoads(const std::string &image) {
  HCOLL h = collOpen(nullptr);
  const bool ok = collLoadItems(h, image.data(), uint32_t(image.size())) != 0;
  collClose(h);
  return ok;
}

// The image written back from the JSON form of a sound image.
std::string ThroughJson(const std::string &image) {
  collctl::Dump dump;
  if (collctl::ReadImage(image, &dump, nullptr)) return "<not sound>";
  const std::string text = collctl::ToJson(dump).dump();
  return collctl::WriteImage(collctl::FromJson(collctl::Json::parse(text)));
}

// ---- the tool as a subprocess

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

class Collctl : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    dir_ = fs::temp_directory_path() / ("collctl_test_" + std::to_string(rd()) + std::to_string(rd()));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  std::string Path(const std::string &name) const { return (dir_ / name).string(); }
  void Write(const std::string &name, const std::string &bytes) const { WriteAll(dir_ / name, bytes); }
  std::string Read(const std::string &name) const { return ReadAll(dir_ / name); }

  // Runs collctl with args (a shell word list) in the temporary directory,
  // input on its standard input, TZ=UTC.
  Result Tool(const std::string &args, const std::string &input = std::string(), const std::string &env = "") const {
    WriteAll(dir_ / ".in", input);
    const std::string cmd = "cd " + Quoted(dir_.string()) + " && TZ=UTC " + env + " " + Quoted(COLLCTL_PATH) + " " +
                            args + " <.in >.out 2>.err; echo $? >.rc";
    Result r;
    if (std::system(cmd.c_str()) != 0) return r;
    r.status = std::stoi(Read(".rc"));
    r.out = Read(".out");
    r.err = Read(".err");
    return r;
  }

  // The output of "show" on an image that must be shown without complaint.
  std::string Shown(const std::string &image) const {
    Write("shown.dump", image);
    const Result r = Tool("show shown.dump");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return r.out;
  }

  fs::path dir_;
};

std::string SampleImage() { return ReadAll(fs::path(COLL_SOURCE_DIR) / "examples" / "sample.dump"); }

TEST_F(Collctl, ShowsTheSampleDump) {
  EXPECT_EQ(Shown(SampleImage()),
            "dump of 393 bytes, checksum 0x582F, 8 items\n"
            "Customer  string   \"Harbour Supplies Ltd.\"\n"
            "Note      string   \"Deliver to gate 3\\nbefore noon\"\n"
            "Number    numeric  10472\n"
            "Discount  numeric  -5\n"
            "Placed    time     1700000000  2023-11-14T22:13:20Z  local \"Tue Nov 14 22:13:20 2023\"\n"
            "Flags     item     5 bytes  01 00 7f 4f 4b  |...OK|\n"
            "ShipTo    coll     3 items\n"
            "  Street  string   \"1 Quay Road\"\n"
            "  City    string   \"Portsmouth\"\n"
            "  Floor   numeric  2\n"
            "Lines     table    3 rows x 3 cols, type 0, selected row 1\n"
            "  | #  | Item       | Qty | Price |\n"
            "  |----|------------|-----|-------|\n"
            "  | 0  | Rope, 10 m | 4   | 12.50 |\n"
            "  | >1 | Shackle    | 12  | 3.20  |\n"
            "  | 2  | Fender     | 2   | 28.00 |\n"
            "  attributes: \"%-10s %3s %6s \" \"currency=GBP\" \"\" \"\" \"\"\n");
}

TEST_F(Collctl, ShowsTheSampleDumpAsJson) {
  Write("sample.dump", SampleImage());
  const Result r = Tool("show --json sample.dump");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(collctl::Json::parse(r.out).dump(),
            R"({"length":393,"checksum":22575,"items":[)"
            R"({"tag":"Customer","type":"string","value":"Harbour Supplies Ltd."},)"
            R"({"tag":"Note","type":"string","value":"Deliver to gate 3\nbefore noon"},)"
            R"({"tag":"Number","type":"numeric","value":10472},)"
            R"({"tag":"Discount","type":"numeric","value":-5},)"
            R"({"tag":"Placed","type":"time","value":1700000000,"utc":"2023-11-14T22:13:20Z",)"
            R"("local":"Tue Nov 14 22:13:20 2023"},)"
            R"({"tag":"Flags","type":"item","hex":"01007f4f4b","preview":"...OK"},)"
            R"({"tag":"ShipTo","type":"coll","head":{"id":4,"itemCount":3,"shareCount":0,"dataLength":70},"items":[)"
            R"({"tag":"Street","type":"string","value":"1 Quay Road"},)"
            R"({"tag":"City","type":"string","value":"Portsmouth"},)"
            R"({"tag":"Floor","type":"numeric","value":2}]},)"
            R"({"tag":"Lines","type":"table","tableType":0,"selection":1,"columns":["Item","Qty","Price"],)"
            R"("rows":[["Rope, 10 m","4","12.50"],["Shackle","12","3.20"],["Fender","2","28.00"]],)"
            R"("attributes":["%-10s %3s %6s ","currency=GBP","","",""]}]})");
}

TEST_F(Collctl, SampleGeneratorWritesTheShippedSample) {
#ifdef MAKE_SAMPLE_PATH
  const std::string cmd = Quoted(MAKE_SAMPLE_PATH) + " " + Quoted(Path("made.dump"));
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  EXPECT_EQ(Read("made.dump"), SampleImage());
#else
  GTEST_SKIP() << "examples not built";
#endif
}

TEST_F(Collctl, ShowsEveryItemType) {
  EXPECT_EQ(Shown(AllTypesImage()),
            "dump of 501 bytes, checksum 0x6483, 14 items\n"
            "Text     string   \"tab\\there \\\"q\\\" back\\\\slash\\nend\"\n"
            "Latin1   string   \"caf\\xE9\"\n"
            "Utf8     string   \"caf\xC3\xA9\"\n"
            "T\\xE4g   string   \"v\"\n"
            "Min      numeric  -2147483648\n"
            "Epoch    time     0  1970-01-01T00:00:00Z  local \"Thu Jan  1 00:00:00 1970\"\n"
            "Last     time     4294967295  2106-02-07T06:28:15Z  local \"Sun Feb  7 06:28:15 2106\"\n"
            "Raw      item     5 bytes  01 1f 7f 20 7a  |... z|\n"
            "Long     item     40 bytes\n"
            "  0000  00 07 0e 15 1c 23 2a 31 38 3f 46 4d 54 5b 62 69  |.....#*18?FMT[bi|\n"
            "  0010  70 77 7e 85 8c 93 9a a1 a8 af b6 bd c4 cb d2 d9  |pw~.............|\n"
            "  0020  e0 e7 ee f5 fc 03 0a 11                          |........|\n"
            "Seven    type7    \"as text\"\n"
            "Inner    coll     3 items\n"
            "  a       string   \"x\"\n"
            "  Deeper  coll     1 item\n"
            "    n  numeric  1\n"
            "  Small   table    0 rows x 1 cols, type 0, no selection\n"
            "    | # | only |\n"
            "    |---|------|\n"
            "    attributes: \"\" \"\" \"\" \"\" \"\"\n"
            "Grid     table    3 rows x 2 cols, type 7, selected row 2\n"
            "  | #  | Key | Value     |\n"
            "  |----|-----|-----------|\n"
            "  | 0  | a   | one       |\n"
            "  | 1  | b   |           |\n"
            "  | >2 | c   | tab\\there |\n"
            "  attributes: \"%3s %9s \" \"\" \"\" \"\" \"last\"\n"
            "Empty    table    0 rows x 1 cols, type 0, no selection\n"
            "  | # | only |\n"
            "  |---|------|\n"
            "  attributes: \"\" \"\" \"\" \"\" \"\"\n"
            "Pending  string   \"yes\"  [tranFlag 1]\n");
}

TEST_F(Collctl, ShowsHexadecimalTextAndTheStandardInput) {
  // The worked example in hexadecimal text, lowercase, with a line end.
  const Result r = Tool("show -", "0041ec0010cc0020162600800060000000808797\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "hexadecimal dump of 40 characters, image of 20 bytes, checksum 0x01CC, 1 item\n"
            "ab  string   \"xy\"\n");
  const Result empty = Tool("show -", std::string("\x00\x06\xCE\x00\x00\x00", 6));
  EXPECT_EQ(empty.out, "dump of 6 bytes, checksum 0x0000, no items\n");
}

TEST_F(Collctl, JsonRoundTripGivesBackTheSameBytes) {
  const std::vector<std::pair<std::string, std::string>> dumps = {
      {"sample.dump", SampleImage()},
      {"all.dump", AllTypesImage()},
      {"empty.dump", std::string("\x00\x06\xCE\x00\x00\x00", 6)},
      {"ab.dump", kAbXy}};
  for (const auto &[name, image] : dumps) {
    SCOPED_TRACE(name);
    Write(name, image);
    const Result json = Tool("show --json " + name);
    ASSERT_EQ(json.status, 0) << json.err;
    Write(name + ".json", json.out);
    const Result bin = Tool("build " + name + ".json -o back.dump");
    ASSERT_EQ(bin.status, 0) << bin.err;
    EXPECT_EQ(Read("back.dump"), image);
    // The hexadecimal form, and through the standard input.
    const Result hex = Tool("build --hex -", json.out);
    ASSERT_EQ(hex.status, 0) << hex.err;
    EXPECT_EQ(hex.out, collctl::EncodeHex(image));
    Write(name + ".hex", hex.out);
    EXPECT_EQ(Tool("show --json " + name + ".hex").out, json.out);
  }
}

TEST_F(Collctl, JsonOfEveryItemType) {
  Write("all.dump", AllTypesImage());
  const collctl::Json j = collctl::Json::parse(Tool("show --json all.dump").out);
  const collctl::Json &items = j["items"];
  ASSERT_EQ(items.size(), 14u);
  EXPECT_EQ(items[1]["value"], collctl::Json::parse(R"({"hex": "636166e9"})"));
  EXPECT_EQ(items[3]["tag"], collctl::Json::parse(R"({"hex": "54e467"})"));
  EXPECT_EQ(items[4]["value"], INT32_MIN);
  EXPECT_EQ(items[6]["utc"], "2106-02-07T06:28:15Z");
  EXPECT_EQ(items[7]["hex"], "011f7f207a");
  EXPECT_EQ(items[9]["type"], "type7");
  EXPECT_EQ(items[10]["head"]["itemCount"], 3);
  EXPECT_EQ(items[10]["items"][1]["items"][0]["value"], 1);
  EXPECT_EQ(items[11].dump(),
            R"({"tag":"Grid","type":"table","tableType":7,"selection":2,"columns":["Key","Value"],)"
            R"("rows":[["a","one"],["b",""],["c","tab\there"]],"attributes":["%3s %9s ","","","","last"]})");
  EXPECT_EQ(items[12]["selection"], nullptr);
  EXPECT_EQ(items[13]["tranFlag"], 1);
}

TEST_F(Collctl, BuildsFromHandWrittenJson) {
  // Counts, lengths, heads and the checksum are computed; missing attribute
  // strings are empty.
  const std::string doc = R"({"items": [
      {"tag": "ab", "type": "string", "value": "xy"},
      {"tag": "n", "type": "numeric", "value": 1},
      {"tag": "c", "type": "coll", "items": [{"tag": "t", "type": "time", "utc": "1970-01-02T00:00:00Z"}]},
      {"tag": "t", "type": "table", "columns": ["A", "B"], "rows": [["1", "2"]], "selection": 0}]})";
  const Result r = Tool("build - -o out.dump", doc);
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string image = Read("out.dump");
  EXPECT_EQ(image.substr(6, 14), kAbXy.substr(6));
  EXPECT_EQ(image.substr(20, 15), std::string("\x00\x01n\x00\x0A\x00\x05\x00\x00\x00\x0A\x00\x00\x00\x01", 15));
  ASSERT_TRUE(LibraryLoads(image));
  HCOLL h = collOpen(nullptr);
  ASSERT_EQ(collLoadItems(h, image.data(), uint32_t(image.size())), 1u);
  char buf[32];
  EXPECT_EQ(collTableGetField(h, "t", 0, 1, buf, sizeof buf), 2u);
  EXPECT_STREQ(buf, "2");
  EXPECT_EQ(collTableGetSelection(h, "t"), 0u);
  HCOLL c = collGetColl(h, "c");
  uint32_t t = 0;
  EXPECT_EQ(collGetTime(c, "t", &t), 1u);
  EXPECT_EQ(t, 86400u);
  collClose(c);
  collClose(h);
}

TEST_F(Collctl, BuildRefusesJsonThatDescribesNoDump) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{", "not valid JSON"},
      {"[]", "expected an object with \"items\""},
      {R"({"items": [{"type": "string", "value": "x"}]})", "items[0]: \"tag\" is missing"},
      {R"({"items": [{"tag": "a", "type": "text", "value": "x"}]})", "items[0].type: expected one of"},
      {R"({"items": [{"tag": "a", "type": "numeric", "value": 2147483648}]})",
       "items[0].value: expected an integer from -2147483648 to 2147483647"},
      {R"({"items": [{"tag": "a", "type": "item", "hex": "0g"}]})", "items[0].hex: expected a string of hexadecimal"},
      {R"({"items": [{"tag": "a", "type": "coll", "items": [{"tag": "b", "type": "time", "value": -1}]}]})",
       "items[0].items[0].value: expected an integer from 0 to 4294967295"},
      {R"({"items": [{"tag": "a", "type": "time", "value": 1, "utc": "1970-01-01T00:00:00Z"}]})",
       "items[0]: \"value\" 1 and \"utc\" 1970-01-01T00:00:00Z name different times"},
      {R"({"items": [{"tag": "a", "type": "time", "utc": "2023-02-29T00:00:00Z"}]})", "items[0].utc: expected a UTC"},
      {R"({"items": [{"tag": "a", "type": "table", "columns": ["A"], "rows": [["1", "2"]]}]})",
       "items[0].rows[0]: expected an array of 1 fields"},
      {R"({"items": [{"tag": "a", "type": "table", "columns": []}]})", "a table has at least one column"},
      {R"({"items": [{"tag": "a", "type": "table", "columns": ["x\u0000y"]}]})", "cannot hold a zero byte"},
      {R"({"items": [{"tag": {"hex": 5}, "type": "string", "value": ""}]})", "items[0].tag.hex: expected"},
  };
  for (const auto &[doc, message] : cases) {
    SCOPED_TRACE(doc);
    const Result r = Tool("build - -o out.dump", doc);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(Path("out.dump")));
  }
  // An image that would pass 65535 bytes.
  const std::string big = R"({"items": [{"tag": "a", "type": "string", "value": ")" + std::string(40000, 'x') +
                          R"("}, {"tag": "b", "type": "string", "value": ")" + std::string(30000, 'x') + R"("}]})";
  const Result r = Tool("build -", big);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("the image would be longer than 65535 bytes"), std::string::npos) << r.err;
}

TEST_F(Collctl, ChecksSoundDumpsAndNotesWhatALoadSkips) {
  Write("sample.dump", SampleImage());
  Result r = Tool("check sample.dump");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "sample.dump: sound dump of 393 bytes, checksum 0x582F, 8 items\n");
  EXPECT_EQ(r.err, "");

  // An empty tag and a tag repeated in another letter case.
  const std::string doc = R"({"items": [{"tag": "", "type": "string", "value": "x"},
      {"tag": "Ab", "type": "string", "value": "1"}, {"tag": "aB", "type": "string", "value": "2"}]})";
  ASSERT_EQ(Tool("build - -o odd.dump", doc).status, 0);
  r = Tool("check odd.dump");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err,
            "collctl: odd.dump: note: offset 6: an item with an empty tag: a load skips it\n"
            "collctl: odd.dump: note: offset 30: the tag 'aB' repeats that of the item at offset 17: a load keeps "
            "only this later value\n");
}

TEST_F(Collctl, ChecksDamagedDumps) {
  struct Case {
    std::string name;
    std::string image;
    std::string message;
  };
  std::vector<Case> cases;
  cases.push_back(
      {"short", kAbXy.substr(0, 5), "offset 0: the image has 5 bytes; a dump has at least its 6-byte header"});
  std::string longer = kAbXy + "z";
  cases.push_back({"longer", longer, "offset 0: the header gives a total length of 20 bytes, but the image has 21"});
  cases.push_back({"mark", Patched(kAbXy, 3, 1), "offset 2: mark 0xCE01, expected 0xCE00"});
  std::string sum = kAbXy;
  sum[5] = char(0xCD);
  cases.push_back({"sum", sum, "offset 4: checksum 0x01CD, expected 0x01CC (the byte sum of offsets 6 to 19)"});
  // A tag length of 9 leaves no room for the block head.
  cases.push_back({"tag", Patched(kAbXy, 7, 9),
                   "offset 6: a record with a tag of 9 bytes needs at least 19 bytes, but only 14 remain "
                   "in the image"});
  cases.push_back({"type", Patched(kAbXy, 13, 9), "offset 12: type code 9 of 'ab', expected 1 to 7"});
  cases.push_back(
      {"number", Patched(kAbXy, 13, 5), "offset 16: the numeric block of 'ab' is 8 bytes long, expected at least 10"});
  std::string tail = kAbXy + "\x01";
  SetTotal(&tail);
  FixChecksum(&tail);
  cases.push_back(
      {"tail", tail, "offset 20: expected a record (at least 10 bytes), but only 1 byte remains in the image"});

  // A nested collection whose list is one byte short of its block: the record
  // read from the byte left runs past the image.
  HCOLL h = collOpen(nullptr), inner = collOpen(nullptr);
  collSetString(inner, "s", "v");
  collSetColl(h, "in", inner);
  HTABLE t = tableCreate(1, 0);
  collSetTable(h, "tb", t);
  const std::string nested = DumpOf(h);
  tableDestroy(t);
  collClose(inner);
  collClose(h);
  std::string gap = nested;
  const size_t in = Find(gap, std::string("\x00\x02in", 4));
  gap[in + 5] = char(gap[in + 5] + 1);    // value length
  gap[in + 11] = char(gap[in + 11] + 1);  // block length
  gap.insert(in + 6 + 32, 1, '\x00');
  SetTotal(&gap);
  FixChecksum(&gap);
  cases.push_back({"gap", gap,
                   "offset 52: the block of 'in/' claims 512 bytes, but only 27 remain in the image"});
  std::string stored = nested;
  const size_t tb = Find(stored, std::string("\x00\x02tb", 4));
  stored[tb + 15] = char(stored[tb + 15] + 1);
  FixChecksum(&stored);
  cases.push_back({"stored", stored,
                   "offset 58: the stored length 19 of table 'tb' is not within 12 and its block length "
                   "less the block head, 18"});
  std::string magic = nested;
  magic[tb + 13] = 0x13;
  FixChecksum(&magic);
  cases.push_back({"magic", magic,
                   "offset 50: table 'tb' cannot be rebuilt (magic 0x1213, expected 0x1212): a load refuses "
                   "the whole image"});

  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_FALSE(LibraryLoads(c.image));
    Write(c.name, c.image);
    const Result r = Tool("check " + c.name);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "collctl: " + c.name + ": not a sound dump: " + c.message + "\n");
    // show and table export refuse it with the same message.
    EXPECT_EQ(Tool("show " + c.name).err, r.err);
    EXPECT_EQ(Tool("table export " + c.name + " tb").status, 1);
  }
}

TEST_F(Collctl, ChecksHexadecimalText) {
  const std::string hex = collctl::EncodeHex(kAbXy);
  const std::vector<std::tuple<std::string, int, std::string>> cases = {
      {hex + "7", 0, ""},  // an odd last digit belongs to no byte
      {"  " + hex + "\r\n", 0, ""},
      {hex.substr(0, 7), 1, "text offset 0: the text has 7 characters; a hexadecimal dump has at least 8"},
      {hex + "G", 1, "text offset 40: 'G' is not a hexadecimal digit"},
      {hex.substr(0, 10) + " " + hex.substr(10), 1, "text offset 10: ' ' is not a hexadecimal digit"},
      {hex.substr(0, 9) + "1" + hex.substr(10), 1,
       "offset 4 (text offset 8): checksum 0x11CC, expected 0x01CC (the byte sum of offsets 6 to 19)"},
  };
  for (const auto &[text, status, message] : cases) {
    SCOPED_TRACE(text);
    const Result r = Tool("check -", text);
    EXPECT_EQ(r.status, status);
    if (status == 0) {
      EXPECT_EQ(r.out, "(stdin): sound hexadecimal dump of " + std::to_string(text.size() - (text[0] == ' ' ? 4 : 0)) +
                           " characters, image of 20 bytes, checksum 0x01CC, 1 item\n");
    } else {
      EXPECT_EQ(r.err, "collctl: (stdin): not a sound hexadecimal dump: " + message + "\n");
    }
  }
}

TEST_F(Collctl, ReportsBadUsageAndMissingFiles) {
  Result r = Tool("show missing.dump");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "collctl: cannot read missing.dump: No such file or directory\n");
  r = Tool("show .");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "collctl: cannot read .: Is a directory\n");
  r = Tool("");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "collctl: give a command: show, build, check, ini, table (see 'collctl --help')\n");
  r = Tool("table shwo");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "collctl: unknown command 'table shwo'; the table commands are: import, export\n");
  r = Tool("show");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("FILE is required"), std::string::npos) << r.err;
  r = Tool("show --bogus x");
  EXPECT_EQ(r.status, 2);
  r = Tool("table export x.dump T --layout sideways");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("sideways"), std::string::npos);
  r = Tool("build x.json -o " + Quoted(Path("no/such/dir/out")), "");
  EXPECT_EQ(r.status, 2);
}

TEST_F(Collctl, EveryCommandHasHelp) {
  for (const char *cmd : {"", "show", "build", "check", "ini", "table", "table import", "table export"}) {
    SCOPED_TRACE(cmd);
    const Result r = Tool(std::string(cmd) + " --help");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage: collctl " + std::string(cmd)), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(Collctl, ListsAndShowsTheProfileFile) {
  Write("COLL.INI",
        "; orders of the day\n[Orders]\nCount=12\nName = abc \n\n[ _General ]\nUniqueName=local_aaaaaaab\n"
        "[orders]\nlater=1\n[Empty]\n");
  Result r = Tool("ini --file COLL.INI");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "[Orders]  2 keys\n[_General]  1 key\n[Empty]  no keys\n");
  r = Tool("ini --file COLL.INI --json");
  EXPECT_EQ(collctl::Json::parse(r.out).dump(),
            R"([{"name":"Orders","keys":2},{"name":"_General","keys":1},{"name":"Empty","keys":0}])");

  r = Tool("ini --file COLL.INI orders");
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string file = fs::canonical(Path("COLL.INI")).string();
  EXPECT_EQ(r.out, "[orders] of " + file + ": 2 items\nCount  string   \"12\"\nName   string   \"abc\"\n");
  r = Tool("ini --file COLL.INI Empty --json");
  EXPECT_EQ(collctl::Json::parse(r.out)["items"], collctl::Json::array());

  r = Tool("ini --file COLL.INI Missing");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "collctl: " + file + " has no section [Missing]\n");
  r = Tool("ini --file nothing.ini");
  EXPECT_EQ(r.status, 2);
  // Without --file: the library's default location.
  fs::create_directories(Path("config"));
  WriteAll(Path("config/COLL.INI"), "[Here]\nk=v\n");
  r = Tool("ini Here", "", "XDG_CONFIG_HOME=" + Quoted(Path("config")));
  EXPECT_EQ(r.out, "[Here] of " + Path("config") + "/COLL.INI: 1 item\nk  string   \"v\"\n");
  r = Tool("ini", "", "XDG_CONFIG_HOME= HOME=" + Quoted(Path("config")));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "collctl: cannot read " + Path("config") + "/.config/COLL.INI: No such file or directory\n");
}

TEST_F(Collctl, TablesBetweenTextAndDumps) {
  Write("t.tsv", "Name\tQty\r\napple\t3\npear\t10\tignored\nplum");
  Result r = Tool("table import t.tsv --tag Fruit -o t.dump");
  ASSERT_EQ(r.status, 0) << r.err;
  r = Tool("show t.dump");
  EXPECT_EQ(r.out,
            "dump of 77 bytes, checksum 0x0F8F, 1 item\n"
            "Fruit  table    3 rows x 2 cols, type 0, no selection\n"
            "  | # | Name  | Qty |\n"
            "  |---|-------|-----|\n"
            "  | 0 | apple | 3   |\n"
            "  | 1 | pear  | 10  |\n"
            "  | 2 | plum  |     |\n"
            "  attributes: \"%5s %3s \" \"\" \"\" \"\" \"\"\n");
  r = Tool("table export t.dump fruit");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "Name\tQty\napple\t3\npear\t10\nplum\t\n");
  // Export, then import: the same table.
  Write("back.tsv", r.out);
  ASSERT_EQ(Tool("table import back.tsv --tag Fruit -o back.dump").status, 0);
  EXPECT_EQ(Read("back.dump"), Read("t.dump"));

  r = Tool("table export t.dump Fruit --raw");
  EXPECT_EQ(r.out, "Name\tQty\r\napple\t3\r\npear\t10\r\nplum\t\r");
  EXPECT_EQ(Tool("table export t.dump Fruit --layout names").out, "Name\tQty\n");
  EXPECT_EQ(Tool("table export t.dump Fruit --layout rows --raw").out, "apple\t3\r\npear\t10\r\nplum\t");
  r = Tool("table export t.dump Fruit --layout selected-row");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "collctl: t.dump: nothing to export from 'Fruit' in layout selected-row: no row is selected\n");

  Write("sample.dump", SampleImage());
  EXPECT_EQ(Tool("table export sample.dump Lines --layout names-and-selected-row").out,
            "Item\tQty\tPrice\nShackle\t12\t3.20\n");
  r = Tool("table export sample.dump Number");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "collctl: sample.dump: item 'Number' is of type numeric, not a table\n");
  r = Tool("table export sample.dump Nothing");
  EXPECT_EQ(r.err, "collctl: sample.dump: no item 'Nothing'\n");

  // Hexadecimal output, and text the import refuses.
  r = Tool("table import - --hex", "A\tB\n1\t2\n");
  EXPECT_EQ(r.status, 0);
  Write("hex.txt", r.out);
  EXPECT_EQ(Tool("table export hex.txt table --layout rows").out, "1\t2\n");
  r = Tool("table import -", "a\tb\tc\td\te\tf\tg\th\ti\tj\tk\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "collctl: (stdin): the first line names 11 columns; a table from text has at most 10\n");
  EXPECT_EQ(Tool("table import -", "").status, 1);
  EXPECT_EQ(Tool("table import -", "a\rb\n").status, 1);
}

// ---- the reader and writer in process

// Every single-byte change of a dump with every item type, with the
// checksum left as it was and made right again: the reader calls sound
// exactly what collLoadItems loads, and every sound image comes back byte
// for byte through its JSON form.
TEST(CollctlText, UtcTextsRoundTrip) {
  EXPECT_EQ(collctl::IsoUtc(951782400), "2000-02-29T00:00:00Z");
  EXPECT_EQ(collctl::IsoUtc(4107542400u), "2100-03-01T00:00:00Z");  // 2100 has no 29 February
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    const uint32_t t = i < 2 ? (i ? UINT32_MAX : 0) : uint32_t(random());
    uint32_t back = 1;
    ASSERT_TRUE(collctl::ParseIsoUtc(collctl::IsoUtc(t), &back)) << t;
    ASSERT_EQ(back, t);
  }
  uint32_t t = 0;
  for (const char *bad : {"2100-02-29T00:00:00Z", "1969-12-31T23:59:59Z", "2106-02-07T06:28:16Z",
                          "2023-11-14 22:13:20Z", "2023-11-14T24:00:00Z", "2023-13-01T00:00:00Z", ""})
    EXPECT_FALSE(collctl::ParseIsoUtc(bad, &t)) << bad;
}

TEST(CollctlReader, AgreesWithTheLibraryOnEveryByteChanged) {
  const std::string image = AllTypesImage();
  ASSERT_TRUE(LibraryLoads(image));
  size_t sound = 0;
  for (size_t i = 0; i < image.size(); ++i) {
    for (int delta : {1, 0x80, 0xFF}) {
      for (bool fix : {false, true}) {
        std::string m = image;
        m[i] = char(uint8_t(m[i]) + delta);
        if (fix && i >= 6) FixChecksum(&m);
        collctl::Dump d;
        const bool ok = !collctl::ReadImage(m, &d, nullptr);
        ASSERT_EQ(ok, LibraryLoads(m)) << "byte " << i << " + " << delta;
        if (ok) {
          ++sound;
          if (d.normalised)
            ASSERT_TRUE(LibraryLoads(ThroughJson(m))) << "byte " << i << " + " << delta;
          else
            ASSERT_EQ(ThroughJson(m), m) << "byte " << i << " + " << delta;
        }
      }
    }
  }
  EXPECT_GT(sound, image.size());  // raw and text bytes, marks, heads, table words
}

// Several words changed at once (a fixed seed): lengths, types and counts
// that disagree in more than one place.
TEST(CollctlReader, AgreesWithTheLibraryOnRandomDamage) {
  const std::string image = AllTypesImage();
  std::mt19937 random(20261122);
  for (int round = 0; round < 3000; ++round) {
    std::string m = image;
    const int changes = 1 + int(random() % 4);
    for (int k = 0; k < changes; ++k) {
      const size_t at = 6 + random() % (m.size() - 7);
      m[at] = char(random() % 4 == 0 ? 0 : random());
      m[at + 1] = char(random() % 2 ? m[at + 1] : char(random()));
    }
    FixChecksum(&m);
    collctl::Dump d;
    const bool ok = !collctl::ReadImage(m, &d, nullptr);
    ASSERT_EQ(ok, LibraryLoads(m)) << "round " << round;
    if (ok) {
      if (d.normalised)
        ASSERT_TRUE(LibraryLoads(ThroughJson(m))) << "round " << round;
      else
        ASSERT_EQ(ThroughJson(m), m) << "round " << round;
    }
  }
}

TEST(CollctlReader, AgreesWithTheLibraryOnEveryLength) {
  const std::string image = AllTypesImage();
  for (size_t n = 0; n <= image.size() + 2; ++n) {
    std::string m = image.substr(0, n);
    m.resize(n, '\x00');
    if (n >= 6) {
      SetTotal(&m);
      FixChecksum(&m);
    }
    const bool ok = !collctl::ReadImage(m, nullptr, nullptr);
    ASSERT_EQ(ok, LibraryLoads(m)) << n;
    if (ok) {
      EXPECT_EQ(ThroughJson(m), m);
    }
  }
}

TEST(CollctlReader, KeepsIrregularTablesAndOddHeadsThroughJson) {
  // A table whose strings end early, one with bytes after its last string,
  // one with a wrong magic, and a nested collection head with odd words.
  std::string image = AllTypesImage();
  const size_t grid = Find(image, std::string("\x00\x04Grid", 6)) + 6;
  for (uint32_t rowsWord : {2u, 4u}) {
    std::string m = image;
    m[grid + 2 + 6 + 7] = char(rowsWord & 0xFF);
    m[grid + 2 + 6 + 6] = char(rowsWord >> 8);
    FixChecksum(&m);
    collctl::Dump d;
    ASSERT_FALSE(collctl::ReadImage(m, &d, nullptr));
    EXPECT_FALSE(d.items[11].table.regular);
    EXPECT_EQ(ThroughJson(m), m);
  }
  std::string magic = image;
  magic[grid + 2 + 6] = 0x13;
  FixChecksum(&magic);
  const std::optional<collctl::Damage> damage = collctl::ReadImage(magic, nullptr, nullptr);
  ASSERT_TRUE(damage);
  EXPECT_EQ(damage->what, "table 'Grid' cannot be rebuilt (magic 0x1312, expected 0x1212): a load refuses the whole "
                          "image");
  EXPECT_FALSE(LibraryLoads(magic));
}

TEST(CollctlReader, NestsAsDeepAsAnImageHolds) {
  // Each level takes 25 bytes (a one-byte tag): 2620 levels and a number
  // take 65521 of the 65535 bytes.
  const int depth = 2620;
  std::string doc = R"({"items":[)";
  for (int i = 0; i < depth; ++i) doc += R"({"tag":"c","type":"coll","items":[)";
  doc += R"({"tag":"x","type":"numeric","value":7})";
  for (int i = 0; i < depth; ++i) doc += "]}";
  doc += "]}";
  const std::string image = collctl::WriteImage(collctl::FromJson(collctl::Json::parse(doc)));
  EXPECT_EQ(image.size(), 65521u);
  ASSERT_TRUE(LibraryLoads(image));
  collctl::Dump d;
  ASSERT_FALSE(collctl::ReadImage(image, &d, nullptr));
  EXPECT_EQ(ThroughJson(image), image);
  const std::string tree = collctl::RenderTree(d.items);
  EXPECT_EQ(tree.substr(tree.size() - 14), "x  numeric  7\n");
  // One level more does not fit.
  doc.insert(doc.find('[') + 1, R"({"tag":"c","type":"coll","items":[)");
  doc.insert(doc.size() - 2, "]}");
  EXPECT_THROW(collctl::WriteImage(collctl::FromJson(collctl::Json::parse(doc))), std::runtime_error);
}

TEST_F(Collctl, VersionStdinProfileRaggedRowsAndTerminals) {
  EXPECT_EQ(std::string(COLL_VERSION_STRING), COLL_PROJECT_VERSION);
  EXPECT_EQ(Tool("--version").out, "collctl " COLL_PROJECT_VERSION "\n");
  // A repeated key and an empty value: counted as the section shows them.
  const std::string ini = "[S]\nk=1\nK=2\ne=\n";
  EXPECT_EQ(Tool("ini --file -", ini).out, "[S]  1 key\n");
  EXPECT_EQ(Tool("ini --file - S", ini).out, "[S] of (stdin): 1 item\nK  string   \"1\"\n");

  Result r = Tool("table import - -o t.dump", "A\tB\n1\t2\t3\n4\t5\t6\n7\t8\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "collctl: warning: (stdin): line 2 has 3 fields for 2 columns (and so does 1 more); "
                   "the fields past the last column are dropped\n");
  r = Tool("table import - --strict -o s.dump", "A\tB\n1\t2\n3\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "collctl: (stdin): line 3 has 1 field for 2 columns (--strict)\n");
  EXPECT_FALSE(fs::exists(Path("s.dump")));

  // Binary output goes to a file or a pipe, never to a terminal.
  if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "no script(1) for a terminal";
  Write("t.tsv", "A\n1\n");
  const std::string cmd = "cd " + Quoted(dir_.string()) + " && script -qec " +
                          Quoted(Quoted(COLLCTL_PATH) + " table import t.tsv; echo rc=$?") +
                          " /dev/null </dev/null >.out 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  r.out = Read(".out");
  EXPECT_NE(r.out.find("a binary dump is not written to a terminal"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("rc=2"), std::string::npos) << r.out;
}

}  // namespace
