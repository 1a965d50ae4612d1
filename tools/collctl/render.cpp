// render.cpp - a dump tree as indented text and as JSON, and JSON back into
// a tree.
#include "render.h"

#include <algorithm>
#include <stdexcept>

#include "coll.hpp"
#include "text.h"

namespace collctl {

namespace {

constexpr size_t kTagColumn = 20;    // tags longer than this are not padded
constexpr size_t kTypeColumn = 7;    // "numeric"
constexpr size_t kInlineBytes = 16;  // raw items up to this size on one line
constexpr size_t kMaxDepth = 4096;   // deeper JSON cannot fit an image anyway

// The library's own text of a time: collGetString on a time item, which
// renders it as local time.
class LocalTimes {
 public:
  std::string operator()(uint32_t seconds) {
    if (!scratch_) scratch_ = libcoll::Collection::Open();
    if (!scratch_.SetTime("t", seconds)) return std::string();
    return scratch_.GetString("t").value_or("");
  }

 private:
  libcoll::Collection scratch_;
};

std::string Pad(const std::string &s, size_t width) {
  const size_t w = DisplayWidth(s);
  return w >= width ? s : s + std::string(width - w, ' ');
}

std::string TagText(const Bytes &tag) { return tag.empty() ? "\"\"" : Escape(tag); }

std::string SpacedHex(const Bytes &bytes) {
  std::string hex = ToHex(bytes), out;
  for (size_t i = 0; i < hex.size(); i += 2) {
    if (i) out += ' ';
    out.append(hex, i, 2);
  }
  return out;
}

void HexLines(const Bytes &bytes, const std::string &indent, std::string *out) {
  for (size_t at = 0; at < bytes.size(); at += 16) {
    const Bytes line = bytes.substr(at, 16);
    *out += indent + Format("%04zx  ", at) + Pad(SpacedHex(line), 47) + "  |" + Preview(line) + "|\n";
  }
}

std::string SelectionText(const Table &t) {
  if (t.selection == kNoSelection) return "no selection";
  if (t.selection >= t.rows) return Format("selection %u past the last row", t.selection);
  return Format("selected row %u", t.selection);
}

void Grid(const Table &t, const std::string &indent, std::string *out) {
  // Column 0 holds the row numbers, the selected one marked with '>'.
  std::vector<std::vector<std::string>> lines;
  std::vector<std::string> head{"#"};
  for (const Bytes &name : t.names) head.push_back(Escape(name));
  lines.push_back(head);
  for (size_t r = 0; r < t.cells.size(); ++r) {
    std::vector<std::string> line{Format("%s%zu", r == t.selection ? ">" : "", r)};
    for (const Bytes &cell : t.cells[r]) line.push_back(Escape(cell));
    lines.push_back(line);
  }
  std::vector<size_t> width(head.size(), 0);
  for (const auto &line : lines)
    for (size_t c = 0; c < line.size(); ++c) width[c] = std::max(width[c], DisplayWidth(line[c]));
  auto emit = [&](const std::vector<std::string> &line) {
    std::string s = indent + "|";
    for (size_t c = 0; c < line.size(); ++c) s += " " + Pad(line[c], width[c]) + " |";
    *out += s + "\n";
  };
  emit(lines[0]);
  std::string rule = indent + "|";
  for (size_t w : width) rule += std::string(w + 2, '-') + "|";
  *out += rule + "\n";
  for (size_t i = 1; i < lines.size(); ++i) emit(lines[i]);
  std::string attrs = indent + "attributes:";
  for (const Bytes &a : t.attributes) attrs += " " + Quote(a);
  *out += attrs + "\n";
}

void Tree(const std::vector<Item> &items, size_t depth, LocalTimes &local, std::string *out) {
  const std::string indent(2 * depth, ' ');
  const std::string inner = indent + "  ";
  size_t tagWidth = 0;
  for (const Item &item : items) tagWidth = std::max(tagWidth, std::min(kTagColumn, DisplayWidth(TagText(item.tag))));
  for (const Item &item : items) {
    std::string line = indent + Pad(TagText(item.tag), tagWidth) + "  " + Pad(TypeName(item.type), kTypeColumn) + "  ";
    const Table &t = item.table;
    bool hexBelow = false;
    switch (item.type) {
      case kTypeString:
      case kTypeText7:
        line += Quote(item.data);
        break;
      case kTypeNumeric:
        line += Format("%d", int32_t(item.value));
        break;
      case kTypeTime:
        line += Format("%u  %s  local ", item.value, IsoUtc(item.value).c_str()) + Quote(local(item.value));
        break;
      case kTypeItem:
        line += CountText(item.data.size(), "byte", "bytes");
        hexBelow = item.data.size() > kInlineBytes;
        if (!item.data.empty() && !hexBelow) line += "  " + SpacedHex(item.data) + "  |" + Preview(item.data) + "|";
        break;
      case kTypeColl:
        line += CountText(item.items.size(), "item", "items");
        break;
      case kTypeTable:
        if (t.regular)
          line += Format("%u rows x %u cols, type %u, ", t.rows, t.cols, t.type) + SelectionText(t);
        else
          line += Format("irregular: magic 0x%04X, %u rows x %u cols, type %u, ", t.magic, t.rows, t.cols, t.type) +
                  SelectionText(t) + ", " + CountText(t.data.size(), "data byte", "data bytes");
        if (!t.unloadable.empty()) line += "  (a load skips it: " + t.unloadable + ")";
        break;
      default:
        break;
    }
    if (item.tranFlag) line += Format("  [tranFlag %u]", item.tranFlag);
    *out += line + "\n";
    // What the item holds, below its line.
    if (hexBelow) HexLines(item.data, inner, out);
    if (item.type == kTypeColl) Tree(item.items, depth + 1, local, out);
    if (item.type == kTypeTable) {
      if (t.regular)
        Grid(t, inner, out);
      else
        HexLines(t.data, inner, out);
    }
  }
}

Json ItemsToJson(const std::vector<Item> &items, LocalTimes &local);

Json ItemToJson(const Item &item, LocalTimes &local) {
  Json j;
  j["tag"] = BytesToJson(item.tag);
  j["type"] = TypeName(item.type);
  if (item.tranFlag) j["tranFlag"] = item.tranFlag;
  switch (item.type) {
    case kTypeItem:
      j["hex"] = ToHex(item.data);
      j["preview"] = Preview(item.data);
      break;
    case kTypeString:
    case kTypeText7:
      j["value"] = BytesToJson(item.data);
      break;
    case kTypeNumeric:
      j["value"] = int32_t(item.value);
      break;
    case kTypeTime:
      j["value"] = item.value;
      j["utc"] = IsoUtc(item.value);
      j["local"] = BytesToJson(local(item.value));
      break;
    case kTypeColl: {
      const CollHead &h = item.head;
      const CollHead d;
      Json head;
      if (h.magic != d.magic) head["magic"] = h.magic;
      if (h.mark != d.mark) head["mark"] = h.mark;
      head["id"] = h.id;
      head["itemCount"] = h.itemCount;
      head["shareCount"] = h.shareCount;
      head["dataLength"] = h.dataLength;
      if (h.headerSize != d.headerSize) head["headerSize"] = h.headerSize;
      j["head"] = head;
      j["items"] = ItemsToJson(item.items, local);
      break;
    }
    case kTypeTable: {
      const Table &t = item.table;
      j["tableType"] = t.type;
      j["selection"] = t.selection == kNoSelection ? Json(nullptr) : Json(t.selection);
      if (t.regular) {
        Json names = Json::array(), rows = Json::array(), attrs = Json::array();
        for (const Bytes &s : t.names) names.push_back(BytesToJson(s));
        for (const auto &row : t.cells) {
          Json r = Json::array();
          for (const Bytes &s : row) r.push_back(BytesToJson(s));
          rows.push_back(r);
        }
        for (const Bytes &s : t.attributes) attrs.push_back(BytesToJson(s));
        j["columns"] = names;
        j["rows"] = rows;
        j["attributes"] = attrs;
      } else {
        j["magic"] = t.magic;
        j["rowCount"] = t.rows;
        j["colCount"] = t.cols;
        j["data"] = ToHex(t.data);
      }
      break;
    }
    default:
      break;
  }
  return j;
}

Json ItemsToJson(const std::vector<Item> &items, LocalTimes &local) {
  Json a = Json::array();
  for (const Item &item : items) a.push_back(ItemToJson(item, local));
  return a;
}

// ---- JSON back into items

[[noreturn]] void Fail(const std::string &path, const std::string &what) {
  throw std::runtime_error(path + ": " + what);
}

const Json &Member(const Json &j, const std::string &path, const char *key) {
  auto it = j.find(key);
  if (it == j.end()) Fail(path, Format("\"%s\" is missing", key));
  return *it;
}

int64_t Integer(const Json &j, const std::string &path, int64_t min, int64_t max) {
  bool ok = j.is_number_integer();
  int64_t v = 0;
  if (ok && j.is_number_unsigned()) {
    const uint64_t u = j.get<uint64_t>();
    ok = u <= uint64_t(max);
    v = int64_t(u);
  } else if (ok) {
    v = j.get<int64_t>();
  }
  if (!ok || v < min || v > max)
    Fail(path, Format("expected an integer from %lld to %lld", (long long)min, (long long)max));
  return v;
}

uint16_t Word(const Json &j, const std::string &path) { return uint16_t(Integer(j, path, 0, 0xFFFF)); }

uint16_t WordOr(const Json &j, const std::string &path, const char *key, uint16_t def) {
  auto it = j.find(key);
  return it == j.end() ? def : Word(*it, path + "." + key);
}

Bytes HexField(const Json &j, const std::string &path) {
  Bytes out;
  if (!j.is_string() || !FromHex(j.get<std::string>(), &out))
    Fail(path, "expected a string of hexadecimal digits, two per byte");
  return out;
}

Bytes JsonBytes(const Json &j, const std::string &path) {
  if (j.is_string()) return j.get<std::string>();
  if (j.is_object() && j.size() == 1 && j.contains("hex")) return HexField(j["hex"], path + ".hex");
  Fail(path, "expected a string or an object {\"hex\": \"...\"}");
}

// A string of a regular table: no zero byte, which would split it.
Bytes TableString(const Json &j, const std::string &path) {
  Bytes s = JsonBytes(j, path);
  if (s.find('\0') != Bytes::npos) Fail(path, "a table string cannot hold a zero byte");
  return s;
}

const Json &ArrayMember(const Json &j, const std::string &path, const char *key) {
  const Json &a = Member(j, path, key);
  if (!a.is_array()) Fail(path + "." + key, "expected an array");
  return a;
}

std::vector<Item> ItemsFromJson(const Json &a, const std::string &path, size_t depth);

Table TableFromJson(const Json &j, const std::string &path) {
  Table t;
  t.type = WordOr(j, path, "tableType", 0);
  auto sel = j.find("selection");
  t.selection = sel == j.end() || sel->is_null() ? uint16_t(kNoSelection) : Word(*sel, path + ".selection");
  if (j.contains("data")) {
    t.data = HexField(j["data"], path + ".data");
    t.magic = WordOr(j, path, "magic", kTableMagic);
    t.rows = Word(Member(j, path, "rowCount"), path + ".rowCount");
    t.cols = Word(Member(j, path, "colCount"), path + ".colCount");
    ClassifyTable(&t);
    return t;
  }
  const Json &names = ArrayMember(j, path, "columns");
  if (names.empty()) Fail(path + ".columns", "a table has at least one column");
  for (size_t c = 0; c < names.size(); ++c)
    t.names.push_back(TableString(names[c], Format("%s.columns[%zu]", path.c_str(), c)));
  if (j.contains("rows")) {
    const Json &rows = ArrayMember(j, path, "rows");
    for (size_t r = 0; r < rows.size(); ++r) {
      const std::string rp = Format("%s.rows[%zu]", path.c_str(), r);
      if (!rows[r].is_array() || rows[r].size() != names.size())
        Fail(rp, Format("expected an array of %zu fields, one per column", names.size()));
      std::vector<Bytes> row;
      for (size_t c = 0; c < names.size(); ++c)
        row.push_back(TableString(rows[r][c], Format("%s[%zu]", rp.c_str(), c)));
      t.cells.push_back(std::move(row));
    }
  }
  if (j.contains("attributes")) {
    const Json &attrs = ArrayMember(j, path, "attributes");
    if (attrs.size() > kAttributes) Fail(path + ".attributes", "a table has five attribute strings");
    for (size_t a = 0; a < attrs.size(); ++a)
      t.attributes.push_back(TableString(attrs[a], Format("%s.attributes[%zu]", path.c_str(), a)));
  }
  t.attributes.resize(kAttributes);
  if (t.cells.size() > 0xFFFF || t.names.size() > 0xFFFF) Fail(path, "too many rows or columns");
  t.regular = true;
  JoinTable(&t);
  return t;
}

Item ItemFromJson(const Json &j, const std::string &path, size_t depth) {
  if (!j.is_object()) Fail(path, "expected an object");
  Item item;
  item.tag = JsonBytes(Member(j, path, "tag"), path + ".tag");
  const Json &type = Member(j, path, "type");
  item.type = type.is_string() ? uint16_t(TypeCode(type.get<std::string>())) : 0;
  if (item.type == 0)
    Fail(path + ".type", "expected one of \"item\", \"table\", \"coll\", \"time\", \"numeric\", \"string\", \"type7\"");
  item.tranFlag = WordOr(j, path, "tranFlag", 0);
  switch (item.type) {
    case kTypeItem:
      item.data = HexField(Member(j, path, "hex"), path + ".hex");
      break;
    case kTypeString:
    case kTypeText7:
      item.data = JsonBytes(Member(j, path, "value"), path + ".value");
      break;
    case kTypeNumeric:
      item.value = uint32_t(int32_t(Integer(Member(j, path, "value"), path + ".value", INT32_MIN, INT32_MAX)));
      break;
    case kTypeTime: {
      // The seconds, or the UTC text; when both are given they must agree.
      auto utc = j.find("utc");
      uint32_t fromText = 0;
      if (utc != j.end() && !(utc->is_string() && ParseIsoUtc(utc->get<std::string>(), &fromText)))
        Fail(path + ".utc", "expected a UTC time such as \"2023-11-14T22:13:20Z\" from 1970 to 2106");
      if (j.contains("value") || utc == j.end()) {
        item.value = uint32_t(Integer(Member(j, path, "value"), path + ".value", 0, UINT32_MAX));
        if (utc != j.end() && fromText != item.value)
          Fail(path, Format("\"value\" %u and \"utc\" %s name different times", item.value,
                            utc->get<std::string>().c_str()));
      } else {
        item.value = fromText;
      }
      break;
    }
    case kTypeColl: {
      if (depth >= kMaxDepth) Fail(path, "collections nested too deeply");
      item.items = ItemsFromJson(ArrayMember(j, path, "items"), path + ".items", depth + 1);
      item.head = DefaultHead(item.items);
      auto h = j.find("head");
      if (h != j.end()) {
        const std::string hp = path + ".head";
        if (!h->is_object()) Fail(hp, "expected an object");
        CollHead &d = item.head;
        d.magic = WordOr(*h, hp, "magic", d.magic);
        d.mark = WordOr(*h, hp, "mark", d.mark);
        d.id = WordOr(*h, hp, "id", d.id);
        d.itemCount = WordOr(*h, hp, "itemCount", d.itemCount);
        d.shareCount = WordOr(*h, hp, "shareCount", d.shareCount);
        d.dataLength = WordOr(*h, hp, "dataLength", d.dataLength);
        d.headerSize = WordOr(*h, hp, "headerSize", d.headerSize);
      }
      break;
    }
    case kTypeTable:
      item.table = TableFromJson(j, path);
      break;
    default:
      break;
  }
  return item;
}

std::vector<Item> ItemsFromJson(const Json &a, const std::string &path, size_t depth) {
  std::vector<Item> items;
  for (size_t i = 0; i < a.size(); ++i) items.push_back(ItemFromJson(a[i], Format("%s[%zu]", path.c_str(), i), depth));
  return items;
}

}  // namespace

Json BytesToJson(const Bytes &bytes) {
  if (IsUtf8(bytes)) return Json(bytes);
  Json j;
  j["hex"] = ToHex(bytes);
  return j;
}

std::string RenderTree(const std::vector<Item> &items) {
  LocalTimes local;
  std::string out;
  Tree(items, 0, local, &out);
  return out;
}

Json ToJson(const Dump &dump) {
  LocalTimes local;
  Json j;
  j["length"] = dump.length;
  j["checksum"] = dump.checksum;
  j["items"] = ItemsToJson(dump.items, local);
  return j;
}

std::vector<Item> FromJson(const Json &doc) {
  if (!doc.is_object()) Fail("the document", "expected an object with \"items\"");
  return ItemsFromJson(ArrayMember(doc, "the document", "items"), "items", 0);
}

}  // namespace collctl
