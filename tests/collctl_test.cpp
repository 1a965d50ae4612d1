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
  std::ofstream(p, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size()));
}
// The image with its total length and checksum made right again.
std::string Fixed(std::string image, bool total = false) {
  if (total) {
    image[0] = char(image.size() >> 8); image[1] = char(image.size() & 0xFF);
  }
  const uint32_t sum = collctl::Checksum(image);
  image[4] = char(sum >> 8); image[5] = char(sum & 0xFF);
  return image;
}
// The image with one byte changed and the checksum made right again.
std::string Patched(std::string image, size_t at, uint8_t value) {
  image[at] = char(value);
  return Fixed(image);
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
  HCOLL h = collOpen("All"), deeper = collOpen(nullptr), inner = collOpen(nullptr);
  HTABLE small = tableCreate(1, 0), grid = tableCreate(2, 7);
  std::string longRaw;
  for (int i = 0; i < 40; ++i) longRaw.push_back(char(i * 7));
  collSetString(h, "Text", "tab\there \"q\" back\\slash\nend") && collSetString(h, "Latin1", "caf\xE9") &&
      collSetString(h, "Utf8", "caf\xC3\xA9") && collSetString(h, "T\xE4g", "v") && collSetNumeric(h, "Min", INT32_MIN) &&
      collSetTime(h, "Epoch", 0) && collSetTime(h, "Last", 0xFFFFFFFFu) && collSetItem(h, "Raw", "\x01\x1F\x7F z", 5) &&
      collSetItem(h, "Long", longRaw.data(), uint32_t(longRaw.size())) && collSetString(h, "Seven", "as text") &&
      collSetNumeric(deeper, "n", 1) && collSetString(inner, "a", "x") && collSetColl(inner, "Deeper", deeper) &&
      tableSetItem(small, ROW_HEADER, 0, "only") && collSetTable(inner, "Small", small) && collSetColl(h, "Inner", inner) &&
      tableSetRow(grid, uint32_t(ROW_NAMES), "Key\0Value", 10) && tableSetRow(grid, uint32_t(ROW_APPEND), "a\0one", 6) &&
      tableSetRow(grid, uint32_t(ROW_APPEND), "b\0", 3) && tableSetRow(grid, uint32_t(ROW_APPEND), "c\0tab\there", 11) &&
      tableSetSelection(grid, 2) && tableSetItem(grid, ROW_HEADER, uint32_t(-1), "%3s %9s ") &&
      tableSetItem(grid, ROW_HEADER, uint32_t(-5), "last") && collSetTable(h, "Grid", grid) &&
      collSetTable(h, "Empty", small) && collLock(h) && collSetString(h, "Pending", "yes");
  std::string image(collDumpItems(h, nullptr, 0), '\0');
  collDumpItems(h, image.data(), uint32_t(image.size()));
  // "Seven": tag length 5, tag, value length 13, then the type word.
  image[Find(image, std::string("\x00\x05Seven", 7)) + 10] = 7;
  for (HCOLL c : {h, inner, deeper}) collClose(c);
  tableDestroy(grid); tableDestroy(small);
  return Fixed(image);
}

// The worked example: text item 'ab' = 'xy'.
const std::string kAbXy("\x00\x14\xCE\x00\x01\xCC\x00\x02" "ab\x00\x08\x00\x06\x00\x00\x00\x08xy", 20);
const std::string kEmpty("\x00\x06\xCE\x00\x00\x00", 6);

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
  return collctl::WriteImage(collctl::FromJson(collctl::Json::parse(collctl::ToJson(dump).dump())));
}
std::string SampleImage() { return ReadAll(fs::path(COLL_SOURCE_DIR) / "examples" / "sample.dump"); }

// ---- the tool as a subprocess

struct Result {
  int status = -1;
  std::string out, err;
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
  Result Tool(const std::string &args, const std::string &input = "", const std::string &env = "") const {
    WriteAll(dir_ / ".in", input);
    const std::string cmd = "cd " + Quoted(dir_.string()) + " && TZ=UTC " + env + " " + Quoted(COLLCTL_PATH) + " " +
                            args + " <.in >.out 2>.err; echo $? >.rc";
    Result r;
    if (std::system(cmd.c_str()) != 0) return r;
    r.status = std::stoi(Read(".rc")); r.out = Read(".out"); r.err = Read(".err");
    return r;
  }
  // The output of "show" on an image that must be shown without complaint.
  std::string Shown(const std::string &image) const {
    Write("shown.dump", image);
    const Result r = Tool("show shown.dump");
    EXPECT_EQ(r.status, 0) << r.err; EXPECT_EQ(r.err, "");
    return r.out;
  }

  fs::path dir_;
};

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

TEST_F(Collctl, SampleGeneratorWritesTheShippedSample) {
#ifdef MAKE_SAMPLE_PATH
  ASSERT_EQ(std::system((Quoted(MAKE_SAMPLE_PATH) + " " + Quoted(Path("made.dump"))).c_str()), 0);
  EXPECT_EQ(Read("made.dump"), SampleImage());
#else
  GTEST_SKIP() << "examples not built";
#endif
}

// What "show" makes of every item type: escapes, bytes that are not UTF-8,
// hexadecimal dumps, nested collections and tables, marks.
TEST_F(Collctl, ShowsEveryItemType) {
  const std::string shown = Shown(AllTypesImage());
  for (const char *line : {
           "dump of 501 bytes, checksum 0x6483, 14 items\n",
           "Text     string   \"tab\\there \\\"q\\\" back\\\\slash\\nend\"\n",
           "Latin1   string   \"caf\\xE9\"\nUtf8     string   \"caf\xC3\xA9\"\nT\\xE4g   string   \"v\"\n",
           "Last     time     4294967295  2106-02-07T06:28:15Z  local \"Sun Feb  7 06:28:15 2106\"\n",
           "Raw      item     5 bytes  01 1f 7f 20 7a  |... z|\n",
           "  0020  e0 e7 ee f5 fc 03 0a 11                          |........|\nSeven    type7    \"as text\"\n",
           "  Deeper  coll     1 item\n    n  numeric  1\n  Small   table    0 rows x 1 cols, type 0, no selection\n",
           "  | >2 | c   | tab\\there |\n  attributes: \"%3s %9s \" \"\" \"\" \"\" \"last\"\n",
           "Pending  string   \"yes\"  [tranFlag 1]\n"})
    EXPECT_NE(shown.find(line), std::string::npos) << line;
}

// Every sound dump comes back byte for byte through its JSON form, as a file
// and through the standard input, in binary and in hexadecimal text.
TEST_F(Collctl, JsonRoundTripGivesBackTheSameBytes) {
  for (const std::string &image : {SampleImage(), AllTypesImage(), kEmpty, kAbXy}) {
    Write("in.dump", image);
    const Result json = Tool("show --json in.dump");
    ASSERT_EQ(json.status, 0) << json.err; Write("in.json", json.out);
    ASSERT_EQ(Tool("build in.json -o back.dump").status, 0); EXPECT_EQ(Read("back.dump"), image);
    const Result hex = Tool("build --hex -", json.out);
    EXPECT_EQ(hex.out, collctl::EncodeHex(image)); Write("in.hex", hex.out);
    EXPECT_EQ(Tool("show --json in.hex").out, json.out);
  }
}

TEST_F(Collctl, JsonOfEveryItemType) {
  Write("all.dump", AllTypesImage());
  const collctl::Json j = collctl::Json::parse(Tool("show --json all.dump").out);
  EXPECT_EQ(j["length"], 501);
  const collctl::Json &items = j["items"];
  ASSERT_EQ(items.size(), 14u); EXPECT_EQ(items[1]["value"], collctl::Json::parse(R"({"hex": "636166e9"})"));
  EXPECT_EQ(items[3]["tag"], collctl::Json::parse(R"({"hex": "54e467"})")); EXPECT_EQ(items[4]["value"], INT32_MIN);
  EXPECT_EQ(items[6]["utc"], "2106-02-07T06:28:15Z"); EXPECT_EQ(items[7]["hex"], "011f7f207a");
  EXPECT_EQ(items[9]["type"], "type7"); EXPECT_EQ(items[10]["head"]["itemCount"], 3);
  EXPECT_EQ(items[10]["items"][1]["items"][0]["value"], 1);
  EXPECT_EQ(items[11].dump(),
            R"({"tag":"Grid","type":"table","tableType":7,"selection":2,"columns":["Key","Value"],)"
            R"("rows":[["a","one"],["b",""],["c","tab\there"]],"attributes":["%3s %9s ","","","","last"]})");
  EXPECT_EQ(items[12]["selection"], nullptr); EXPECT_EQ(items[13]["tranFlag"], 1);
}

// Commands in order (later ones read what earlier ones wrote): exit code,
// standard output and standard error, exact or ("~" first) a part.
TEST_F(Collctl, Commands) {
  Write("sample.dump", SampleImage());
  Write("COLL.INI", "; orders of the day\n[Orders]\nCount=12\nName = abc \n\n[ _General ]\nUniqueName=local_aaaaaaab\n"
                    "[orders]\nlater=1\n[Empty]\n");
  Write("t.tsv", "Name\tQty\r\napple\t3\npear\t10\tignored\nplum");
  std::string magic = AllTypesImage();  // a table no load can rebuild
  magic[Find(magic, std::string("\x00\x04Grid", 6)) + 14] = 0x13; Write("magic.dump", Fixed(magic));
  const std::string hex = collctl::EncodeHex(kAbXy), sound = ", image of 20 bytes, checksum 0x01CC, 1 item\n";
  const std::string bad = "collctl: (stdin): not a sound hexadecimal dump: ";
  const struct {
    std::string args, input;
    int status;
    std::string out, err;
  } cases[] = {
      {"show -", hex + "\n", 0, "hexadecimal dump of 40 characters" + sound + "ab  string   \"xy\"\n", ""},
      {"show -", kEmpty, 0, "dump of 6 bytes, checksum 0x0000, no items\n", ""},
      {"check sample.dump", "", 0, "sample.dump: sound dump of 393 bytes, checksum 0x582F, 8 items\n", ""},
      // Hexadecimal text: an odd last digit belongs to no byte; blanks around it.
      {"check -", hex + "7", 0, "(stdin): sound hexadecimal dump of 41 characters" + sound, ""},
      {"check -", "  " + hex + "\r\n", 0, "(stdin): sound hexadecimal dump of 40 characters" + sound, ""},
      {"check -", hex.substr(0, 7), 1, "", bad + "text offset 0: the text has 7 characters; a hexadecimal dump has at least 8\n"},
      {"check -", hex + "G", 1, "", bad + "text offset 40: 'G' is not a hexadecimal digit\n"},
      {"check -", hex.substr(0, 10) + " " + hex.substr(10), 1, "", bad + "text offset 10: ' ' is not a hexadecimal digit\n"},
      {"check -", hex.substr(0, 9) + "1" + hex.substr(10), 1, "",
       bad + "offset 4 (text offset 8): checksum 0x11CC, expected 0x01CC (the byte sum of offsets 6 to 19)\n"},
      // Usage.
      {"show missing.dump", "", 2, "", "collctl: cannot read missing.dump: No such file or directory\n"},
      {"show .", "", 2, "", "collctl: cannot read .: Is a directory\n"},
      {"", "", 2, "", "collctl: give a command: show, build, check, ini, table (see 'collctl --help')\n"},
      {"table shwo", "", 2, "", "collctl: unknown command 'table shwo'; the table commands are: import, export\n"},
      {"show", "", 2, "", "~FILE is required"},
      {"show --bogus x", "", 2, "~", "~"},
      {"table export x.dump T --layout sideways", "", 2, "", "~sideways"},
      {"build x.json -o no/such/dir/out", "", 2, "~", "~"},
      // The profile file.
      {"ini --file COLL.INI", "", 0, "[Orders]  2 keys\n[_General]  1 key\n[Empty]  no keys\n", ""},
      {"ini --file COLL.INI Missing", "", 1, "", "~ has no section [Missing]\n"},
      {"ini --file nothing.ini", "", 2, "", "~"},
      // Tables between text and dumps.
      {"table import t.tsv --tag Fruit -o t.dump", "", 0, "",
       "collctl: warning: t.tsv: line 3 has 3 fields for 2 columns; the fields past the last column are dropped\n"
       "collctl: warning: t.tsv: line 4 has 1 field for 2 columns; the missing fields are left empty\n"},
      {"show t.dump", "", 0,
       "dump of 77 bytes, checksum 0x0F8F, 1 item\nFruit  table    3 rows x 2 cols, type 0, no selection\n"
       "  | # | Name  | Qty |\n  |---|-------|-----|\n  | 0 | apple | 3   |\n  | 1 | pear  | 10  |\n"
       "  | 2 | plum  |     |\n  attributes: \"%5s %3s \" \"\" \"\" \"\" \"\"\n", ""},
      {"table export t.dump fruit", "", 0, "Name\tQty\napple\t3\npear\t10\nplum\t\n", ""},
      {"table export t.dump Fruit --raw", "", 0, "Name\tQty\r\napple\t3\r\npear\t10\r\nplum\t\r", ""},
      {"table export t.dump Fruit --layout names", "", 0, "Name\tQty\n", ""},
      {"table export t.dump Fruit --layout rows --raw", "", 0, "apple\t3\r\npear\t10\r\nplum\t", ""},
      {"table export t.dump Fruit --layout selected-row", "", 1, "",
       "collctl: t.dump: nothing to export from 'Fruit' in layout selected-row: no row is selected\n"},
      {"table export sample.dump Lines --layout names-and-selected-row", "", 0, "Item\tQty\tPrice\nShackle\t12\t3.20\n", ""},
      {"table export sample.dump Number", "", 1, "", "collctl: sample.dump: item 'Number' is of type numeric, not a table\n"},
      {"table export sample.dump Nothing", "", 1, "", "collctl: sample.dump: no item 'Nothing'\n"},
      {"table import - --hex -o hex.txt", "A\tB\n1\t2\n", 0, "", ""},
      {"table export hex.txt table --layout rows", "", 0, "1\t2\n", ""},
      {"table import -", "a\tb\tc\td\te\tf\tg\th\ti\tj\tk\n", 1, "",
       "collctl: (stdin): the first line names 11 columns; a table from text has at most 10\n"},
      {"table import -", "a\rb\n", 1, "", "~"},
      // JSON that describes no dump.
      {"build - -o refused.dump", "{", 1, "", "~not valid JSON"},
      {"build - -o refused.dump", "[]", 1, "", "~expected an object with \"items\""},
      {"build - -o refused.dump", R"({"items": [{"type": "string", "value": "x"}]})", 1, "", "~items[0]: \"tag\" is missing"},
      {"build - -o refused.dump", R"({"items": [{"tag": "a", "type": "item", "hex": "0g"}]})", 1, "",
       "~items[0].hex: expected a string of hexadecimal"},
      {"build - -o refused.dump",
       R"({"items": [{"tag": "a", "type": "coll", "items": [{"tag": "b", "type": "time", "value": -1}]}]})", 1, "",
       "~items[0].items[0].value: expected an integer from 0 to 4294967295"},
      {"build - -o refused.dump", R"({"items": [{"tag": "a", "type": "time", "value": 1, "utc": "1970-01-01T00:00:00Z"}]})",
       1, "", "~items[0]: \"value\" 1 and \"utc\" 1970-01-01T00:00:00Z name different times"},
      {"build - -o refused.dump", R"({"items": [{"tag": "a", "type": "table", "columns": ["A"], "rows": [["1", "2"]]}]})",
       1, "", "~items[0].rows[0]: expected an array of 1 fields"},
      {"build - -o refused.dump", R"({"items": [{"tag": "a", "type": "table", "columns": ["x\u0000y"]}]})", 1, "",
       "~cannot hold a zero byte"},
      {"build -",
       R"({"items": [{"tag": "a", "type": "string", "value": ")" + std::string(40000, 'x') +
           R"("}, {"tag": "b", "type": "string", "value": ")" + std::string(30000, 'x') + R"("}]})",
       1, "", "~the image would be longer than 65535 bytes"},
      // Counts, lengths, heads and the checksum computed; missing attribute strings empty.
      {"build - -o hand.dump",
       R"({"items": [{"tag": "ab", "type": "string", "value": "xy"}, {"tag": "n", "type": "numeric", "value": 1},
           {"tag": "c", "type": "coll", "items": [{"tag": "t", "type": "time", "utc": "1970-01-02T00:00:00Z"}]},
           {"tag": "t", "type": "table", "columns": ["A", "B"], "rows": [["1", "2"]], "selection": 0}]})", 0, "", ""},
      {"show hand.dump", "", 0,
       "dump of 111 bytes, checksum 0x07E2, 4 items\nab  string   \"xy\"\nn   numeric  1\nc   coll     1 item\n"
       "  t  time     86400  1970-01-02T00:00:00Z  local \"Fri Jan  2 00:00:00 1970\"\n"
       "t   table    1 rows x 2 cols, type 0, selected row 0\n  | #  | A | B |\n  |----|---|---|\n  | >0 | 1 | 2 |\n"
       "  attributes: \"\" \"\" \"\" \"\" \"\"\n", ""},
      // What a load skips: an empty tag, a tag repeated in another case.
      {"build - -o odd.dump",
       R"({"items": [{"tag": "", "type": "string", "value": "x"}, {"tag": "Ab", "type": "string", "value": "1"},
           {"tag": "aB", "type": "string", "value": "2"}]})", 0, "", ""},
      {"check magic.dump", "", 1, "",
       "collctl: magic.dump: not a sound dump: offset 379: table 'Grid' cannot be rebuilt (magic 0x1312, expected 0x1212): "
       "a load refuses the whole image\n"},
      {"check odd.dump", "", 0, "~",
       "collctl: odd.dump: note: offset 6: an item with an empty tag: a load skips it\n"
       "collctl: odd.dump: note: offset 30: the tag 'aB' repeats that of the item at offset 17: a load keeps "
       "only this later value\n"},
  };
  auto matches = [](const std::string &got, const std::string &want) {
    return want[0] == '~' ? got.find(want.substr(1)) != std::string::npos : got == want;
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.args + " <<< " + c.input.substr(0, 60));
    const Result r = Tool(c.args, c.input);
    EXPECT_EQ(r.status, c.status); EXPECT_PRED2(matches, r.out, c.out.empty() ? std::string() : c.out);
    EXPECT_PRED2(matches, r.err, c.err);
  }
  EXPECT_FALSE(fs::exists(Path("refused.dump")));
  // Export, then import: the same table.
  Write("back.tsv", Tool("table export t.dump fruit").out);
  ASSERT_EQ(Tool("table import back.tsv --tag Fruit -o back.dump").status, 0);
  EXPECT_EQ(Read("back.dump"), Read("t.dump"));
  for (const char *cmd : {"", "show", "build", "check", "ini", "table", "table import", "table export"}) {
    const Result r = Tool(std::string(cmd) + " --help");
    EXPECT_EQ(r.status, 0); EXPECT_NE(r.out.find("Usage: collctl " + std::string(cmd)), std::string::npos) << r.out;
  }
  // The profile file as JSON, a section, and the library's default location.
  EXPECT_EQ(collctl::Json::parse(Tool("ini --file COLL.INI --json").out).dump(),
            R"([{"name":"Orders","keys":2},{"name":"_General","keys":1},{"name":"Empty","keys":0}])");
  EXPECT_EQ(Tool("ini --file COLL.INI orders").out, "[orders] of " + fs::canonical(Path("COLL.INI")).string() +
                                                         ": 2 items\nCount  string   \"12\"\nName   string   \"abc\"\n");
  EXPECT_EQ(collctl::Json::parse(Tool("ini --file COLL.INI Empty --json").out)["items"], collctl::Json::array());
  fs::create_directories(Path("config")); WriteAll(Path("config/COLL.INI"), "[Here]\nk=v\n");
  EXPECT_EQ(Tool("ini Here", "", "XDG_CONFIG_HOME=" + Quoted(Path("config"))).out,
            "[Here] of " + Path("config") + "/COLL.INI: 1 item\nk  string   \"v\"\n");
  EXPECT_EQ(Tool("ini", "", "XDG_CONFIG_HOME= HOME=" + Quoted(Path("config"))).err,
            "collctl: cannot read " + Path("config") + "/.config/COLL.INI: No such file or directory\n");
}

TEST_F(Collctl, ChecksDamagedDumps) {
  const struct {
    std::string name, image, message;
  } cases[] = {
      {"short", kAbXy.substr(0, 5), "offset 0: the image has 5 bytes; a dump has at least its 6-byte header"},
      {"longer", kAbXy + "z", "offset 0: the header gives a total length of 20 bytes, but the image has 21"},
      {"mark", Patched(kAbXy, 3, 1), "offset 2: mark 0xCE01, expected 0xCE00"},
      // A tag length of 9 leaves no room for the block head.
      {"tag", Patched(kAbXy, 7, 9),
       "offset 6: a record with a tag of 9 bytes needs at least 19 bytes, but only 14 remain in the image"},
      {"type", Patched(kAbXy, 13, 9), "offset 12: type code 9 of 'ab', expected 1 to 7"},
      {"number", Patched(kAbXy, 13, 5), "offset 16: the numeric block of 'ab' is 8 bytes long, expected at least 10"},
      {"tail", Fixed(kAbXy + "\x01", true),
       "offset 20: expected a record (at least 10 bytes), but only 1 byte remains in the image"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name); ASSERT_FALSE(LibraryLoads(c.image)); Write(c.name, c.image);
    const Result r = Tool("check " + c.name);
    EXPECT_EQ(r.status, 1); EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "collctl: " + c.name + ": not a sound dump: " + c.message + "\n");
    // show and table export refuse it with the same message.
    EXPECT_EQ(Tool("show " + c.name).err, r.err); EXPECT_EQ(Tool("table export " + c.name + " tb").status, 1);
  }
}

// Single bytes changed (with the checksum left as it was or made right
// again), several words changed at once, every length: the reader calls
// sound exactly what collLoadItems loads, and every sound image comes back
// byte for byte through its JSON form.
TEST(CollctlReader, AgreesWithTheLibraryOnDamagedImages) {
  const std::string image = AllTypesImage();
  std::vector<std::string> damaged;
  for (size_t i = 0; i < image.size(); ++i)
    for (int delta : {1, 0x80, 0xFF}) {
      std::string m = image;
      m[i] = char(uint8_t(m[i]) + delta); damaged.push_back(m);
      if (i >= 6) damaged.push_back(Fixed(m));
    }
  std::mt19937 random(20261122);
  for (int round = 0; round < 3000; ++round) {
    std::string m = image;
    for (int k = 0, changes = 1 + int(random() % 4); k < changes; ++k) {
      const size_t at = 6 + random() % (m.size() - 7);
      m[at] = char(random() % 4 == 0 ? 0 : random()); m[at + 1] = char(random() % 2 ? m[at + 1] : char(random()));
    }
    damaged.push_back(Fixed(m));
  }
  for (size_t n = 0; n <= image.size() + 2; ++n) {
    std::string m = image.substr(0, n);
    m.resize(n, '\x00'); damaged.push_back(n >= 6 ? Fixed(m, true) : m);
  }
  size_t sound = 0;
  for (size_t i = 0; i < damaged.size(); ++i) {
    collctl::Dump d;
    const bool ok = !collctl::ReadImage(damaged[i], &d, nullptr);
    ASSERT_EQ(ok, LibraryLoads(damaged[i])) << "case " << i;
    if (!ok) continue;
    ++sound;
    // An image the tree cannot give back byte for byte still rebuilds to one that loads.
    if (d.normalised) { ASSERT_TRUE(LibraryLoads(ThroughJson(damaged[i]))) << "case " << i; }
    else { ASSERT_EQ(ThroughJson(damaged[i]), damaged[i]) << "case " << i; }
  }
  EXPECT_GT(sound, image.size());  // raw and text bytes, marks, heads, table words
}

TEST(CollctlText, UtcTextsRoundTrip) {
  EXPECT_EQ(collctl::IsoUtc(951782400), "2000-02-29T00:00:00Z");
  EXPECT_EQ(collctl::IsoUtc(4107542400u), "2100-03-01T00:00:00Z");  // 2100 has no 29 February
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    const uint32_t t = i < 2 ? (i ? UINT32_MAX : 0) : uint32_t(random());
    uint32_t back = 1;
    ASSERT_TRUE(collctl::ParseIsoUtc(collctl::IsoUtc(t), &back)) << t; ASSERT_EQ(back, t);
  }
  uint32_t t = 0;
  for (const char *bad : {"2100-02-29T00:00:00Z", "1969-12-31T23:59:59Z", "2106-02-07T06:28:16Z",
                          "2023-11-14 22:13:20Z", "2023-11-14T24:00:00Z", "2023-13-01T00:00:00Z", ""})
    EXPECT_FALSE(collctl::ParseIsoUtc(bad, &t)) << bad;
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
