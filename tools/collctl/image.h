// image.h - the dump image as collctl sees it: a tree of items read from
// the bytes (with the same soundness rules as the library's load), and the
// bytes written back from such a tree.
//
// Image: u16 total length, u16 mark 0xCE00, u16 byte sum of the records,
// then item records: u16 tag length n, n tag bytes, u16 value length L, and
// an L-byte value block (u16 type, u16 tranFlag, u16 L, payload). Every
// number is big-endian.
#ifndef COLLCTL_IMAGE_H
#define COLLCTL_IMAGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace collctl {

// Bytes of an image, a tag or a value, held in a std::string.
using Bytes = std::string;

constexpr uint32_t kHeaderSize = 6;
constexpr uint32_t kMark = 0xCE00;
constexpr uint32_t kMaxImage = 0xFFFF;  // the total length is a 16-bit word
constexpr uint32_t kTableMagic = 0x1212;
constexpr uint32_t kCollMagic = 0x1010;
constexpr uint32_t kCollHeaderSize = 678;
constexpr uint32_t kNoSelection = 0xFFFF;
constexpr uint32_t kAttributes = 5;
constexpr uint32_t kTypeItem = 1, kTypeTable = 2, kTypeColl = 3, kTypeTime = 4, kTypeNumeric = 5, kTypeString = 6,
                   kTypeText7 = 7;

// The name collctl gives a type code ("item", "table", "coll", "time",
// "numeric", "string", "type7"); empty for other codes.
std::string TypeName(uint32_t type);
// The code of a type name; 0 when there is none.
uint32_t TypeCode(const std::string &name);

// The first seven words of a nested collection's header.
struct CollHead {
  uint16_t magic = kCollMagic;
  uint16_t mark = kMark;
  uint16_t id = 0;
  uint16_t itemCount = 0;
  uint16_t shareCount = 0;
  uint16_t dataLength = 0;
  uint16_t headerSize = kCollHeaderSize;
};

struct Table {
  uint16_t magic = kTableMagic;
  uint16_t type = 0;
  uint16_t rows = 0;  // the header words; for a regular table they match
  uint16_t cols = 0;  // names and cells
  uint16_t selection = kNoSelection;
  Bytes data;  // the stored strings as they stand, zero bytes included
  // A regular table holds exactly cols x (rows + 1) + 5 zero-terminated
  // strings and nothing else, and has the right magic and a column: then
  // the strings are split up here.
  bool regular = false;
  std::vector<Bytes> names;
  std::vector<std::vector<Bytes>> cells;
  std::vector<Bytes> attributes;
  // Why a load cannot rebuild the table (it then refuses the whole image);
  // empty when it can.
  std::string unloadable;
};

struct Item {
  uint32_t offset = 0;  // of its record in the image
  Bytes tag;
  uint16_t type = 0;
  uint16_t tranFlag = 0;
  Bytes data;          // item, string, type 7: the payload bytes
  uint32_t value = 0;  // time, numeric
  Table table;         // table
  CollHead head;       // coll
  std::vector<Item> items;
};

struct Dump {
  uint32_t length = 0;    // of the image
  uint32_t checksum = 0;  // as stored (equal to the computed sum)
  std::vector<Item> items;
  // The image holds what the tree does not keep (a value length word that
  // differs from its block's, bytes after a number or after a table's stored
  // data, nested records running past their block): the image written from
  // the tree loads but differs.
  bool normalised = false;
};

// Where and why an input is not a sound dump. offset counts bytes of the
// image; for hexadecimal input, position counts characters of the text.
struct Damage {
  uint32_t offset = 0;
  std::string what;
  bool inText = false;  // the fault is in the hexadecimal text itself
};

// Something sound that a load nevertheless treats specially.
struct Note {
  uint32_t offset = 0;
  std::string what;
};

// The byte sum of image[6..] modulo 65536.
uint32_t Checksum(const Bytes &image);

// Reads and checks an image: the header, the checksum, then every record
// (lengths within the image, type codes 1 to 7, time and number blocks of
// at least 10 bytes, table data within its block, tables a load can
// rebuild; a nested list is read while it starts inside its block). Exactly the images
// that collLoadItems accepts are sound. On success fills dump (when not
// null) and notes, and returns nothing; otherwise the first damage.
std::optional<Damage> ReadImage(const Bytes &image, Dump *dump, std::vector<Note> *notes);

// Decodes the hexadecimal text of a dump (two digits per byte, the low
// four bits first; an odd last digit belongs to no byte) as
// collLoadItemsHex does: at least 8 characters, digits only.
std::optional<Damage> DecodeHex(const Bytes &text, Bytes *image);
// The hexadecimal text of an image.
Bytes EncodeHex(const Bytes &image);

// The image of a tree. Lengths, counts and the checksum are computed; for
// a regular table data, rows and cols are taken from its strings. Throws
// std::runtime_error when a length does not fit its 16-bit word.
Bytes WriteImage(const std::vector<Item> &items);

// The default head of a nested collection holding items: its item count and
// the length its items take in memory.
CollHead DefaultHead(const std::vector<Item> &items);

// Splits table.data into names, cells and attributes when the table is
// regular, and sets table.unloadable.
void ClassifyTable(Table *table);
// Joins names, cells and attributes into data, rows and cols.
void JoinTable(Table *table);

}  // namespace collctl

#endif  // COLLCTL_IMAGE_H
