// main.cpp - collctl: shows, checks and builds dumps of libcoll, shows the
// profile file, and moves tables between dumps and tab-separated text.
//
// Exit status: 0 success, 1 bad input (a dump that is not sound, JSON that
// does not describe a dump, a table that cannot be made), 2 usage errors and
// files that cannot be read or written.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "coll.hpp"
#include "coll_host.h"
#include "image.h"
#include "profile.h"
#include "render.h"
#include "text.h"

namespace collctl {
namespace {

// A failure with its message (printed after "collctl: ") and exit status.
struct Failure : std::runtime_error {
  Failure(int status, const std::string &what) : std::runtime_error(what), status(status) {}
  int status;
};
constexpr int kBadInput = 1;
constexpr int kUsage = 2;

std::string Shown(const std::string &path) { return path == "-" ? "(stdin)" : path; }

Bytes ReadFile(const std::string &path) {
  if (path == "-") {
    std::cin >> std::noskipws;
    Bytes all((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    if (std::cin.bad()) throw Failure(kUsage, "cannot read the standard input");
    return all;
  }
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw Failure(kUsage, Format("cannot read %s: %s", path.c_str(), std::strerror(EISDIR)));
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Failure(kUsage, Format("cannot read %s: %s", path.c_str(), std::strerror(errno)));
  try {
    Bytes all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.bad()) return all;
  } catch (const std::exception &) {
  }
  throw Failure(kUsage, Format("cannot read %s: %s", path.c_str(), std::strerror(errno)));
}

// Writes bytes to path, or to the standard output when path is empty or "-";
// a binary dump is not written to a terminal.
void WriteOutput(const std::string &path, const Bytes &bytes, bool binary = false) {
  if (path.empty() || path == "-") {
    if (binary && isatty(STDOUT_FILENO))
      throw Failure(kUsage, "a binary dump is not written to a terminal: use -o FILE, --hex or a redirection");
    std::cout.write(bytes.data(), std::streamsize(bytes.size()));
    std::cout.flush();
    if (!std::cout) throw Failure(kUsage, "cannot write the standard output");
    return;
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (out) out.write(bytes.data(), std::streamsize(bytes.size()));
  if (out) out.close();
  if (!out) throw Failure(kUsage, Format("cannot write %s: %s", path.c_str(), std::strerror(errno)));
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// A dump read from a file: binary, or hexadecimal text when its content
// (white space around it left out) begins with four hexadecimal digits. A
// binary image never does: its third byte is 0xCE.
struct Input {
  std::string name;
  bool hex = false;
  Bytes text;   // hexadecimal input without the white space around it
  Bytes image;  // the decoded image
  std::optional<Damage> damage;
  Dump dump;
  std::vector<Note> notes;
};

Input ReadDump(const std::string &path) {
  Input in;
  in.name = Shown(path);
  Bytes raw = ReadFile(path);
  size_t a = 0, b = raw.size();
  while (a < b && IsSpace(raw[a])) ++a;
  while (b > a && IsSpace(raw[b - 1])) --b;
  in.hex = b > a && std::all_of(raw.begin() + long(a), raw.begin() + long(std::min(a + 4, b)),
                                [](char c) { return HexDigit(c) >= 0; });
  if (in.hex) {
    in.text = raw.substr(a, b - a);
    in.damage = DecodeHex(in.text, &in.image);
  } else {
    in.image = std::move(raw);
  }
  if (!in.damage) in.damage = ReadImage(in.image, &in.dump, &in.notes);
  return in;
}

std::string Where(const Input &in, const Damage &d) {
  if (d.inText) return Format("text offset %u", d.offset);
  if (in.hex) return Format("offset %u (text offset %u)", d.offset, 2 * d.offset);
  return Format("offset %u", d.offset);
}

std::string DamageMessage(const Input &in) {
  return Format("%s: not a sound %sdump: %s: %s", in.name.c_str(), in.hex ? "hexadecimal " : "",
                Where(in, *in.damage).c_str(), in.damage->what.c_str());
}

void PrintNotes(const Input &in) {
  for (const Note &n : in.notes)
    std::cerr << "collctl: " << in.name << ": note: " << Where(in, Damage{n.offset, "", false}) << ": " << n.what
              << "\n";
}

// A dump that must be sound: the failure names where it is not.
Input ReadSoundDump(const std::string &path) {
  Input in = ReadDump(path);
  if (in.damage) throw Failure(kBadInput, DamageMessage(in));
  return in;
}

std::string Summary(const Input &in) {
  std::string s = in.hex
                      ? Format("hexadecimal dump of %zu characters, image of %u bytes", in.text.size(), in.dump.length)
                      : Format("dump of %u bytes", in.dump.length);
  return s + Format(", checksum 0x%04X, ", in.dump.checksum) + CountText(in.dump.items.size(), "item", "items");
}

std::string JsonText(const Json &j) { return j.dump(2) + "\n"; }

// ---- commands

int Show(const std::string &path, bool json) {
  Input in = ReadSoundDump(path);
  if (json)
    std::cout << JsonText(ToJson(in.dump));
  else
    std::cout << Summary(in) << "\n" << RenderTree(in.dump.items);
  PrintNotes(in);
  return 0;
}

int Check(const std::string &path) {
  Input in = ReadDump(path);
  // The library's own load must come to the same verdict.
  libcoll::Collection probe = libcoll::Collection::Open();
  const bool loads = in.hex ? collLoadItemsHex(probe.handle(), in.text.data(), uint32_t(in.text.size())) != 0
                            : collLoadItems(probe.handle(), in.image.data(), uint32_t(in.image.size())) != 0;
  if (in.damage) {
    std::cerr << "collctl: " << DamageMessage(in) << "\n";
    if (loads) std::cerr << "collctl: " << in.name << ": yet the library loads it\n";
    return kBadInput;
  }
  if (!loads) {
    std::cerr << "collctl: " << in.name << ": the library refuses to load this dump\n";
    return kBadInput;
  }
  std::cout << in.name << ": sound " << Summary(in) << "\n";
  PrintNotes(in);
  return 0;
}

int Build(const std::string &path, const std::string &out, bool hex) {
  const Bytes text = ReadFile(path);
  Json doc;
  try {
    doc = Json::parse(text);
  } catch (const Json::exception &e) {
    throw Failure(kBadInput, Format("%s: not valid JSON: %s", Shown(path).c_str(), e.what()));
  }
  Bytes image;
  try {
    image = WriteImage(FromJson(doc));
  } catch (const std::runtime_error &e) {
    throw Failure(kBadInput, Shown(path) + ": " + e.what());
  }
  if (auto damage = ReadImage(image, nullptr, nullptr))
    throw Failure(kBadInput, Format("%s: the image built is not sound: offset %u: %s", Shown(path).c_str(),
                                    damage->offset, damage->what.c_str()));
  WriteOutput(out, hex ? EncodeHex(image) : image, !hex);
  return 0;
}

// A temporary copy of the standard input, for the library to read as its
// profile file; removed when it goes.
struct StdinCopy {
  std::string path;
  explicit StdinCopy(const Bytes &text) {
    std::string name = (std::filesystem::temp_directory_path() / "collctl-stdin-XXXXXX").string();
    const int fd = mkstemp(name.data());
    if (fd < 0) throw Failure(kUsage, Format("cannot make a temporary file: %s", std::strerror(errno)));
    close(fd);
    path = name;
    WriteOutput(path, text);
  }
  ~StdinCopy() {
    std::error_code ec;
    std::filesystem::remove(path, ec);
  }
};

int Ini(const std::string &section, const std::string &file, bool json) {
  std::string path = file;
  if (!path.empty() && path != "-") path = std::filesystem::absolute(path).string();
  if (path.empty()) path = DefaultProfilePath();
  if (path.empty()) throw Failure(kUsage, "no profile file: neither XDG_CONFIG_HOME nor HOME is set; use --file");
  const Bytes text = ReadFile(path);
  std::optional<StdinCopy> copy;
  if (path == "-") copy.emplace(text);
  const std::string shown = Shown(path);
  if (copy) path = copy->path;
  const std::vector<Section> sections = ListSections(text);
  if (section.empty()) {
    if (json) {
      Json a = Json::array();
      for (const Section &s : sections) a.push_back(Json{{"name", BytesToJson(s.name)}, {"keys", s.keys}});
      std::cout << JsonText(a);
    } else {
      for (const Section &s : sections)
        std::cout << "[" << Escape(s.name) << "]  " << CountText(s.keys, "key", "keys") << "\n";
    }
    return 0;
  }
  // The section as a shared open loads it.
  const std::string &name = section;
  if (!FindSection(sections, name))
    throw Failure(kBadInput, Format("%s has no section [%s]", shown.c_str(), Escape(name).c_str()));
  collHostSetProfilePath(path.c_str());
  libcoll::Collection c = libcoll::Collection::OpenShared(name);
  if (!c)
    throw Failure(kBadInput, Format("section [%s] cannot be opened: a shared collection's name has 1 to 64 characters",
                                    Escape(name).c_str()));
  const std::vector<std::byte> bytes = c.Dump();
  const Bytes image(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  Dump dump;
  if (bytes.empty() || ReadImage(image, &dump, nullptr))
    throw Failure(kBadInput,
                  Format("section [%s] cannot be shown: the collection cannot be dumped", Escape(name).c_str()));
  if (json) {
    Json j;
    j["file"] = shown;
    j["section"] = BytesToJson(name);
    j["items"] = ToJson(dump)["items"];
    std::cout << JsonText(j);
  } else {
    std::cout << "[" << Escape(name) << "] of " << shown << ": " << CountText(dump.items.size(), "item", "items") << "\n"
              << RenderTree(dump.items);
  }
  return 0;
}

// The clipboard layouts by name.
const std::map<std::string, uint32_t> kLayouts = {
    {"names", CLIP_NAMES},
    {"selected-row", CLIP_SELECTED_ROW},
    {"rows", CLIP_ROWS},
    {"names-and-selected-row", CLIP_NAMES_AND_SELECTED_ROW},
    {"names-and-rows", CLIP_NAMES_AND_ROWS},
};

// Rows whose field count is not the column count: how many, and the first.
struct Ragged {
  size_t count = 0;
  size_t firstLine = 0;
  size_t firstFields = 0;
  void Add(size_t line, size_t fields) {
    if (count++ == 0) firstLine = line, firstFields = fields;
  }
};

int TableImport(const std::string &path, const std::string &out, const std::string &tag, bool hex, bool strict) {
  const Bytes text = ReadFile(path);
  // The clipboard's text has CR LF line ends, and a line counts only with
  // its line end: every line of the file becomes one, the last included.
  Bytes clip;
  size_t lines = 0, firstColumns = 0;
  Ragged longer, shorter;
  for (size_t pos = 0; pos < text.size();) {
    size_t nl = text.find('\n', pos);
    if (nl == Bytes::npos) nl = text.size();
    Bytes line = text.substr(pos, nl - pos);
    pos = nl + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    ++lines;
    if (line.find('\r') != Bytes::npos)
      throw Failure(kBadInput, Format("%s: line %zu holds a carriage return", Shown(path).c_str(), lines));
    if (line.find('\0') != Bytes::npos)
      throw Failure(kBadInput, Format("%s: line %zu holds a zero byte", Shown(path).c_str(), lines));
    const size_t fields = size_t(std::count(line.begin(), line.end(), '\t')) + 1;
    if (lines == 1) firstColumns = fields;
    if (fields > firstColumns) longer.Add(lines, fields);
    if (fields < firstColumns) shorter.Add(lines, fields);
    clip += line + "\r\n";
  }
  if (lines == 0)
    throw Failure(kBadInput, Format("%s: no lines; the first line names the columns", Shown(path).c_str()));
  if (firstColumns > 10)
    throw Failure(kBadInput, Format("%s: the first line names %zu columns; a table from text has at most 10",
                                    Shown(path).c_str(), firstColumns));
  const std::string shown = Shown(path);
  const char *name = shown.c_str();
  for (const Ragged *r : {&longer, &shorter}) {
    if (r->count == 0) continue;
    const std::string what =
        Format("%s: line %zu has %zu field%s for %zu columns", name, r->firstLine, r->firstFields,
               r->firstFields == 1 ? "" : "s", firstColumns);
    if (strict) throw Failure(kBadInput, what + " (--strict)");
    std::cerr << "collctl: warning: " << what
              << (r->count > 1 ? Format(" (and so %s %zu more)", r->count == 2 ? "does" : "do", r->count - 1)
                               : std::string())
              << (r == &longer ? "; the fields past the last column are dropped\n"
                               : "; the missing fields are left empty\n");
  }
  if (!collHostSetClipboardText(clip.c_str())) throw Failure(kBadInput, "the clipboard is busy");
  libcoll::Table table = libcoll::Table::FromClipboard();
  collHostSetClipboardText(nullptr);
  if (!table) throw Failure(kBadInput, Format("%s: the library cannot make a table of this text", Shown(path).c_str()));
  if (table.Rows() + 1 < lines)
    std::cerr << Format("collctl: %s: note: %zu of %zu rows did not fit the table\n", Shown(path).c_str(),
                        lines - 1 - table.Rows(), lines - 1);
  libcoll::Collection c = libcoll::Collection::Open();
  if (!c.SetTable(tag, table))
    throw Failure(kBadInput, Format("cannot store the table under '%s'", Escape(tag).c_str()));
  const std::vector<std::byte> bytes = c.Dump();
  if (bytes.empty()) throw Failure(kBadInput, "the table is too large for a dump (at most 65534 bytes)");
  const Bytes image(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  WriteOutput(out, hex ? EncodeHex(image) : image, !hex);
  return 0;
}

int TableExport(const std::string &path, const std::string &tag, const std::string &layout, bool raw) {
  const Input in = ReadSoundDump(path);
  libcoll::Collection c = libcoll::Collection::Open();
  const bool loaded =
      in.hex ? c.LoadHex(in.text)
             : c.Load(std::vector<std::byte>(reinterpret_cast<const std::byte *>(in.image.data()),
                                             reinterpret_cast<const std::byte *>(in.image.data()) + in.image.size()));
  if (!loaded) throw Failure(kBadInput, Format("%s: the library refuses to load this dump", in.name.c_str()));
  const uint32_t type = c.Type(tag);
  if (type == 0) throw Failure(kBadInput, Format("%s: no item '%s'", in.name.c_str(), Escape(tag).c_str()));
  if (type != kTypeTable)
    throw Failure(kBadInput, Format("%s: item '%s' is of type %s, not a table", in.name.c_str(), Escape(tag).c_str(),
                                    TypeName(type).c_str()));
  libcoll::Table table = c.GetTable(tag);
  const uint32_t mode = kLayouts.at(layout);
  collHostSetClipboardText(nullptr);
  if (!table || !table.ToClipboard(mode)) {
    const bool noRows = table && table.Rows() == 0;
    throw Failure(kBadInput,
                  Format("%s: nothing to export from '%s' in layout %s: %s", in.name.c_str(), Escape(tag).c_str(),
                         layout.c_str(), mode == CLIP_ROWS && noRows ? "the table has no rows" : "no row is selected"));
  }
  const uint32_t n = collHostGetClipboardText(nullptr, 0);
  Bytes text(n, '\0');
  if (n) collHostGetClipboardText(text.data(), n);
  if (!text.empty()) text.pop_back();  // the terminating zero
  collHostSetClipboardText(nullptr);
  if (!raw) {
    // Line ends as LF, the last line ended too.
    Bytes lf;
    for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\r') {
        lf += '\n';
        if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
      } else {
        lf += text[i];
      }
    }
    if (lf.empty() || lf.back() != '\n') lf += '\n';
    text = lf;
  }
  WriteOutput("", text);
  return 0;
}

// Refuses a missing or unknown command (and table subcommand) by name, with
// the list of those there are.
void CheckCommand(const CLI::App &app, int argc, char **argv) {
  const CLI::App *level = &app;
  std::string path;  // the commands so far, e.g. "table "
  for (int i = 1; level->get_require_subcommand_min() > 0; ++i) {
    std::string known;
    for (const CLI::App *sub : level->get_subcommands({}))
      known += (known.empty() ? "" : ", ") + sub->get_name();
    const std::string arg = i < argc ? argv[i] : "";
    if (!arg.empty() && arg[0] == '-') return;  // an option: --help, --version or a mistake CLI11 reports
    if (arg.empty())
      throw Failure(kUsage, Format("%s a command: %s (see 'collctl %s--help')",
                                   path.empty() ? "give" : ("'" + path.substr(0, path.size() - 1) + "' needs").c_str(),
                                   known.c_str(), path.c_str()));
    try {
      level = level->get_subcommand(arg);
    } catch (const CLI::OptionNotFound &) {
      throw Failure(kUsage, Format("unknown command '%s%s'; the %scommands are: %s", path.c_str(), arg.c_str(),
                                   path.c_str(), known.c_str()));
    }
    path += arg + " ";
  }
}

int Run(int argc, char **argv) {
  CLI::App app{
      "collctl - shows, checks and builds libcoll dumps; shows the profile file; moves tables between dumps "
      "and tab-separated text.",
      "collctl"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "collctl " COLL_VERSION_STRING, "Print the version and exit");

  std::string file, out, section, iniFile, tag, layout = "names-and-rows";
  bool json = false, hex = false, raw = false, strict = false;
  int status = 0;

  CLI::App *show = app.add_subcommand("show", "Print the items of a dump (binary or hexadecimal text) as a tree");
  show->add_option("FILE", file, "The dump; - reads the standard input")->required();
  show->add_flag("--json", json,
                 "Print JSON instead (the schema is in the README); 'build' turns it back into the dump");
  show->callback([&] { status = Show(file, json); });

  CLI::App *build = app.add_subcommand("build", "Write the dump that a JSON document of 'show --json' describes");
  build->add_option("FILE", file, "The JSON document; - reads the standard input")->required();
  build->add_option("-o,--output", out, "Where to write the dump (default: the standard output)");
  build->add_flag("--hex", hex, "Write the dump as hexadecimal text");
  build->callback([&] { status = Build(file, out, hex); });

  CLI::App *check = app.add_subcommand("check", "Say whether a dump is sound, and if not where and why; exit 0 or 1");
  check->add_option("FILE", file, "The dump (binary or hexadecimal text); - reads the standard input")->required();
  check->callback([&] { status = Check(file); });

  CLI::App *ini =
      app.add_subcommand("ini", "List the sections of the profile file, or show one as a shared open loads it");
  ini->add_option("SECTION", section, "The section to show");
  ini->add_option("--file", iniFile, "The profile file (default: $XDG_CONFIG_HOME/COLL.INI or $HOME/.config/COLL.INI)");
  ini->add_flag("--json", json, "Print JSON instead");
  ini->callback([&] { status = Ini(section, iniFile, json); });

  CLI::App *table = app.add_subcommand("table", "Move tables between tab-separated text and dumps");
  table->require_subcommand(1);
  CLI::App *import = table->add_subcommand("import", "Make a dump holding the table of a tab-separated text");
  import
      ->add_option("FILE", file, "The text: the first line names the columns (at most 10); - reads the standard input")
      ->required();
  import->add_option("-o,--output", out, "Where to write the dump (default: the standard output)");
  import->add_option("--tag", tag, "The tag of the table item")->default_val("table");
  import->add_flag("--hex", hex, "Write the dump as hexadecimal text");
  import->add_flag("--strict", strict, "Refuse rows whose field count is not the column count (else a warning)");
  import->callback([&] { status = TableImport(file, out, tag, hex, strict); });
  CLI::App *exp = table->add_subcommand("export", "Print a table item of a dump as tab-separated text");
  exp->add_option("FILE", file, "The dump; - reads the standard input")->required();
  exp->add_option("TAG", tag, "The tag of the table item")->required();
  std::vector<std::string> names;
  for (const auto &l : kLayouts) names.push_back(l.first);
  exp->add_option("--layout", layout, "What to print")->check(CLI::IsMember(names))->capture_default_str();
  exp->add_flag("--raw", raw,
                "Print the text exactly as the library makes it (CR LF line ends, none after the last line)");
  exp->callback([&] { status = TableExport(file, tag, layout, raw); });

  try {
    CheckCommand(app, argc, argv);
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion &e) {
    return app.exit(e);
  } catch (const CLI::ParseError &e) {
    std::cerr << "collctl: " << e.what() << "\n"
              << "Run 'collctl --help' or 'collctl COMMAND --help' for usage.\n";
    return kUsage;
  } catch (const Failure &f) {
    std::cout.flush();
    std::cerr << "collctl: " << f.what() << "\n";
    return f.status;
  }
  return status;
}

}  // namespace
}  // namespace collctl

int main(int argc, char **argv) {
  try {
    return collctl::Run(argc, argv);
  } catch (const std::exception &e) {
    std::cerr << "collctl: " << e.what() << "\n";
    return 1;
  }
}
