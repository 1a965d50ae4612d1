// image.cpp - reading, checking and writing dump images.
#include "image.h"

#include <stdexcept>

#include "text.h"

namespace collctl {

namespace {

// The rebuilt length of a table may not pass what 64 pages of 1023 bytes
// hold.
constexpr uint64_t kMaxTableLength = 64 * 1023 - 1;
constexpr uint32_t kBlockHead = 6;
constexpr uint32_t kTableBlock = kBlockHead + 12;
constexpr uint32_t kCollBlock = kBlockHead + 14;

uint32_t Be16(const Bytes &b, uint32_t at) { return uint32_t(uint8_t(b[at])) << 8 | uint8_t(b[at + 1]); }
uint32_t Be32(const Bytes &b, uint32_t at) { return Be16(b, at) << 16 | Be16(b, at + 2); }
void Put16(Bytes *b, uint32_t v) {
  b->push_back(char(v >> 8 & 0xFF));
  b->push_back(char(v & 0xFF));
}
void Put32(Bytes *b, uint32_t v) {
  Put16(b, v >> 16);
  Put16(b, v & 0xFFFF);
}

uint8_t Upper(uint8_t c) { return c >= 'a' && c <= 'z' ? uint8_t(c - 32) : c; }
bool SameTag(const Bytes &a, const Bytes &b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Upper(uint8_t(a[i])) != Upper(uint8_t(b[i]))) return false;
  return true;
}

// A record list being read: from pos while the position lies before end,
// inside the nested collection named path (empty for the image's own
// list). Its records may run past end, never past the image.
struct ListReader {
  const Bytes &image;
  std::vector<Note> *notes;
  bool *normalised;

  void Lenient(uint32_t offset, std::string what) {
    notes->push_back(Note{offset, std::move(what)});
    *normalised = true;
  }

  std::string Where(const std::string &path, uint32_t end) const {
    if (path.empty()) return "the image";
    return Format("nested collection '%s' (ending at offset %u)", Escape(path).c_str(), end);
  }

  std::optional<Damage> Read(uint32_t pos, uint32_t end, const std::string &path, std::vector<Item> *items) {
    std::vector<Bytes> seen;  // the tags a load stores, as cut at a zero
    std::vector<uint32_t> seenAt;
    while (pos < end) {
      const uint32_t size = uint32_t(image.size()), remaining = size - pos;
      if (remaining < 2)
        return Damage{pos, Format("expected a record (at least 10 bytes), but only %u byte remains in the image",
                                  remaining)};
      const uint32_t n = Be16(image, pos);
      if (remaining - 2 < n + 2 + kBlockHead)
        return Damage{pos, Format("a record with a tag of %u bytes needs at least %u bytes, but only %u remain in the "
                                  "image",
                                  n, n + 4 + kBlockHead, remaining)};
      Item item;
      item.offset = pos;
      item.tag = image.substr(pos + 2, n);
      const uint32_t lengthAt = pos + 2 + n;
      const uint32_t valueLength = Be16(image, lengthAt);
      const uint32_t blk = lengthAt + 2;
      item.type = uint16_t(Be16(image, blk));
      item.tranFlag = uint16_t(Be16(image, blk + 2));
      const uint32_t L = Be16(image, blk + 4);
      const std::string tagText = Escape(path.empty() ? item.tag : path + "/" + item.tag);
      if (valueLength != L)
        Lenient(lengthAt, Format("the value length %u of '%s' differs from the length %u in its block "
                                               "head (offset %u): a load goes by the block's",
                                               valueLength, tagText.c_str(), L, blk + 4));
      if (L < kBlockHead)
        return Damage{blk + 4,
                      Format("the block of '%s' claims %u bytes, less than its own 6-byte head", tagText.c_str(), L)};
      if (L > size - blk)
        return Damage{blk + 4, Format("the block of '%s' claims %u bytes, but only %u remain in the image",
                                      tagText.c_str(), L, size - blk)};
      if (blk + L > end)
        Lenient(blk + 4, Format("the block of '%s' runs past the end of %s: a load reads on there", tagText.c_str(),
                                Where(path, end).c_str()));
      if (item.type < kTypeItem || item.type > kTypeText7)
        return Damage{blk, Format("type code %u of '%s', expected 1 to 7", item.type, tagText.c_str())};
      switch (item.type) {
        case kTypeTime:
        case kTypeNumeric:
          if (L < kBlockHead + 4)
            return Damage{blk + 4, Format("the %s block of '%s' is %u bytes long, expected at least 10",
                                          TypeName(item.type).c_str(), tagText.c_str(), L)};
          item.value = Be32(image, blk + kBlockHead);
          if (L > kBlockHead + 4)
            Lenient(blk + 4, Format("the %s block of '%s' holds %u bytes after its value", TypeName(item.type).c_str(),
                                    tagText.c_str(), L - kBlockHead - 4));
          break;
        case kTypeTable: {
          if (L < kTableBlock)
            return Damage{blk + 4, Format("the table block of '%s' is %u bytes long, expected at least 18 (block head "
                                          "and stored table header)",
                                          tagText.c_str(), L)};
          const uint32_t stored = Be16(image, blk + kBlockHead + 2);
          if (stored < 12 || stored > L - kBlockHead)
            return Damage{blk + kBlockHead + 2, Format("the stored length %u of table '%s' is not within 12 and its "
                                                       "block length less the block head, %u",
                                                       stored, tagText.c_str(), L - kBlockHead)};
          if (stored < L - kBlockHead)
            Lenient(blk + kBlockHead + 2, Format("table '%s' stores %u bytes fewer than its block holds: a load "
                                                 "ignores them",
                                                 tagText.c_str(), L - kBlockHead - stored));
          Table &t = item.table;
          t.magic = uint16_t(Be16(image, blk + kBlockHead));
          t.type = uint16_t(Be16(image, blk + kBlockHead + 4));
          t.rows = uint16_t(Be16(image, blk + kBlockHead + 6));
          t.cols = uint16_t(Be16(image, blk + kBlockHead + 8));
          t.selection = uint16_t(Be16(image, blk + kBlockHead + 10));
          t.data = image.substr(blk + kTableBlock, stored - 12);
          ClassifyTable(&t);
          if (!t.unloadable.empty())
            return Damage{blk, Format("table '%s' cannot be rebuilt (%s): a load refuses the whole image",
                                      tagText.c_str(), t.unloadable.c_str())};
          break;
        }
        case kTypeColl: {
          if (L < kCollBlock)
            return Damage{blk + 4, Format("the collection block of '%s' is %u bytes long, expected at least 20 (block "
                                          "head and collection head)",
                                          tagText.c_str(), L)};
          const uint32_t h = blk + kBlockHead;
          item.head =
              CollHead{uint16_t(Be16(image, h)),     uint16_t(Be16(image, h + 2)), uint16_t(Be16(image, h + 4)),
                       uint16_t(Be16(image, h + 6)), uint16_t(Be16(image, h + 8)), uint16_t(Be16(image, h + 10)),
                       uint16_t(Be16(image, h + 12))};
          const std::string inner = path.empty() ? item.tag : path + "/" + item.tag;
          if (auto damage = Read(blk + kCollBlock, blk + L, inner, &item.items)) return damage;
          break;
        }
        default:
          item.data = image.substr(blk + kBlockHead, L - kBlockHead);
          break;
      }
      // What a load makes of the tag: cut at a zero byte; none at all skips
      // the item.
      const Bytes stored = item.tag.substr(0, item.tag.find('\0'));
      if (stored.empty()) {
        notes->push_back(Note{pos, "an item with an empty tag: a load skips it"});
      } else {
        if (stored.size() < item.tag.size())
          notes->push_back(Note{pos, Format("the tag '%s' holds a zero byte: a load stores the item as '%s'",
                                            tagText.c_str(), Escape(stored).c_str())});
        for (size_t i = 0; i < seen.size(); ++i)
          if (SameTag(seen[i], stored))
            notes->push_back(Note{pos, Format("the tag '%s' repeats that of the item at offset %u: a load keeps "
                                              "only this later value",
                                              tagText.c_str(), seenAt[i])});
        seen.push_back(stored);
        seenAt.push_back(pos);
      }
      items->push_back(std::move(item));
      pos = blk + L;
    }
    return std::nullopt;
  }
};

void PutList(const std::vector<Item> &items, Bytes *out);

void PutBlock(const Item &item, Bytes *block) {
  switch (item.type) {
    case kTypeTime:
    case kTypeNumeric:
      Put32(block, item.value);
      break;
    case kTypeTable: {
      Table t = item.table;
      if (t.regular) JoinTable(&t);
      if (t.data.size() > 0xFFFF - 12)
        throw std::runtime_error(Format("table '%s' holds %zu bytes of strings; a table holds at most 65523",
                                        Escape(item.tag).c_str(), t.data.size()));
      Put16(block, t.magic);
      Put16(block, uint32_t(12 + t.data.size()));
      Put16(block, t.type);
      Put16(block, t.rows);
      Put16(block, t.cols);
      Put16(block, t.selection);
      block->append(t.data);
      break;
    }
    case kTypeColl: {
      const CollHead &h = item.head;
      for (uint32_t w : {h.magic, h.mark, h.id, h.itemCount, h.shareCount, h.dataLength, h.headerSize}) Put16(block, w);
      PutList(item.items, block);
      break;
    }
    default:
      block->append(item.data);
      break;
  }
}

void PutList(const std::vector<Item> &items, Bytes *out) {
  for (const Item &item : items) {
    if (item.tag.size() > 0xFFFF)
      throw std::runtime_error(Format("a tag of %zu bytes is too long (at most 65535)", item.tag.size()));
    Bytes payload;
    PutBlock(item, &payload);
    const size_t L = kBlockHead + payload.size();
    if (L > 0xFFFF)
      throw std::runtime_error(
          Format("the value of '%s' takes %zu bytes; a value block holds at most 65535", Escape(item.tag).c_str(), L));
    Put16(out, uint32_t(item.tag.size()));
    out->append(item.tag);
    Put16(out, uint32_t(L));
    Put16(out, item.type);
    Put16(out, item.tranFlag);
    Put16(out, uint32_t(L));
    out->append(payload);
    // Keep a runaway tree from growing without bound: no image is larger.
    if (out->size() > kMaxImage) throw std::runtime_error(Format("the image would be longer than %u bytes", kMaxImage));
  }
}

}  // namespace

std::string TypeName(uint32_t type) {
  static const char *const names[] = {"", "item", "table", "coll", "time", "numeric", "string", "type7"};
  return type <= kTypeText7 ? names[type] : "";
}

uint32_t TypeCode(const std::string &name) {
  for (uint32_t t = kTypeItem; t <= kTypeText7; ++t)
    if (TypeName(t) == name) return t;
  return 0;
}

uint32_t Checksum(const Bytes &image) {
  uint32_t sum = 0;
  for (size_t i = kHeaderSize; i < image.size(); ++i) sum += uint8_t(image[i]);
  return sum & 0xFFFF;
}

std::optional<Damage> ReadImage(const Bytes &image, Dump *dump, std::vector<Note> *notes) {
  const size_t size = image.size();
  if (size < kHeaderSize)
    return Damage{0, Format("the image has %zu bytes; a dump has at least its 6-byte header", size)};
  if (size > kMaxImage) return Damage{0, Format("the image has %zu bytes; a dump has at most 65535", size)};
  const uint32_t total = Be16(image, 0);
  if (total != size)
    return Damage{0, Format("the header gives a total length of %u bytes, but the image has %zu", total, size)};
  const uint32_t mark = Be16(image, 2);
  if (mark != kMark) return Damage{2, Format("mark 0x%04X, expected 0xCE00", mark)};
  const uint32_t stored = Be16(image, 4), sum = Checksum(image);
  if (stored != sum)
    return Damage{
        4, size == kHeaderSize
               ? Format("checksum 0x%04X, expected 0x0000 since nothing follows the header", stored)
               : Format("checksum 0x%04X, expected 0x%04X (the byte sum of offsets 6 to %zu)", stored, sum, size - 1)};
  std::vector<Note> ignored;
  Dump local;
  Dump &d = dump ? *dump : local;
  ListReader reader{image, notes ? notes : &ignored, &d.normalised};
  d.length = uint32_t(size);
  d.checksum = stored;
  d.items.clear();
  d.normalised = false;
  return reader.Read(kHeaderSize, uint32_t(size), "", &d.items);
}

std::optional<Damage> DecodeHex(const Bytes &text, Bytes *image) {
  if (text.size() < 8)
    return Damage{0, Format("the text has %zu characters; a hexadecimal dump has at least 8", text.size()), true};
  if (text.size() > 2 * kMaxImage + 1)
    return Damage{
        0, Format("the text has %zu characters; a hexadecimal dump has at most %u", text.size(), 2 * kMaxImage + 1),
        true};
  image->assign(text.size() / 2, '\0');
  for (size_t i = 0; i < text.size(); ++i) {
    const int v = HexDigit(text[i]);
    if (v < 0)
      return Damage{uint32_t(i), Format("%s is not a hexadecimal digit", DescribeChar(uint8_t(text[i])).c_str()), true};
    if (i / 2 < image->size()) (*image)[i / 2] = char(uint8_t((*image)[i / 2]) + (i % 2 ? v << 4 : v));
  }
  return std::nullopt;
}

Bytes EncodeHex(const Bytes &image) {
  static const char digits[] = "0123456789ABCDEF";
  Bytes text;
  text.reserve(image.size() * 2);
  for (char c : image) {
    text.push_back(digits[uint8_t(c) & 0xF]);
    text.push_back(digits[uint8_t(c) >> 4]);
  }
  return text;
}

Bytes WriteImage(const std::vector<Item> &items) {
  Bytes records;
  PutList(items, &records);
  const size_t total = kHeaderSize + records.size();
  if (total > kMaxImage)
    throw std::runtime_error(Format("the image would be %zu bytes long; a dump holds at most 65535", total));
  Bytes image;
  Put16(&image, uint32_t(total));
  Put16(&image, kMark);
  Put16(&image, 0);
  image += records;
  const uint32_t sum = Checksum(image);
  image[4] = char(sum >> 8);
  image[5] = char(sum & 0xFF);
  return image;
}

CollHead DefaultHead(const std::vector<Item> &items) {
  CollHead head;
  uint32_t length = 0;
  for (const Item &item : items) {
    uint32_t block = kBlockHead;
    if (item.type == kTypeTable || item.type == kTypeColl || item.type == kTypeTime || item.type == kTypeNumeric)
      block += 4;
    else
      block += uint32_t(item.data.size());
    length += 4 + uint32_t(item.tag.size()) + block;
  }
  head.itemCount = uint16_t(items.size());
  head.dataLength = uint16_t(length);
  return head;
}

void ClassifyTable(Table *t) {
  t->regular = false;
  t->names.clear();
  t->cells.clear();
  t->attributes.clear();
  t->unloadable.clear();
  const uint64_t storedLength = 12 + t->data.size();
  const uint64_t expected = uint64_t(t->cols) * (t->rows + 1u) + kAttributes;
  // Count the strings as a load does: never past the data; a last string
  // cut off by the end of the data counts as one.
  std::vector<Bytes> strings;
  size_t offset = 0;
  uint64_t cutOff = 0;
  while (strings.size() < expected && offset < t->data.size()) {
    size_t zero = t->data.find('\0', offset);
    if (zero == Bytes::npos) {
      strings.push_back(t->data.substr(offset));
      offset = t->data.size();
      cutOff = 1;
    } else {
      strings.push_back(t->data.substr(offset, zero - offset));
      offset = zero + 1;
    }
  }
  const uint64_t length = storedLength + 36 + (expected - strings.size());
  if (storedLength + 36 > 0xFFFF)
    t->unloadable = Format("its stored length %llu is too large", (unsigned long long)storedLength);
  else if (t->magic != kTableMagic)
    t->unloadable = Format("magic 0x%04X, expected 0x1212", t->magic);
  else if (t->cols == 0)
    t->unloadable = "it has no columns";
  else if (length > kMaxTableLength)
    t->unloadable = Format("rebuilt it would take %llu bytes, more than %llu", (unsigned long long)length,
                           (unsigned long long)kMaxTableLength);
  if (t->magic != kTableMagic || t->cols == 0 || strings.size() != expected || cutOff || offset != t->data.size())
    return;
  t->regular = true;
  size_t k = 0;
  for (uint32_t c = 0; c < t->cols; ++c) t->names.push_back(strings[k++]);
  for (uint32_t r = 0; r < t->rows; ++r) {
    std::vector<Bytes> row;
    for (uint32_t c = 0; c < t->cols; ++c) row.push_back(strings[k++]);
    t->cells.push_back(std::move(row));
  }
  for (uint32_t a = 0; a < kAttributes; ++a) t->attributes.push_back(strings[k++]);
}

void JoinTable(Table *t) {
  t->data.clear();
  auto add = [&](const Bytes &s) {
    t->data += s;
    t->data.push_back('\0');
  };
  for (const Bytes &s : t->names) add(s);
  for (const auto &row : t->cells)
    for (const Bytes &s : row) add(s);
  for (const Bytes &s : t->attributes) add(s);
  t->rows = uint16_t(t->cells.size());
  t->cols = uint16_t(t->names.size());
}

}  // namespace collctl
