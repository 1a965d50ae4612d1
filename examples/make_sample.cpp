// make_sample.cpp - writes examples/sample.dump, the small dump that the
// README shows with "collctl show": text, numbers, a time, raw bytes, a
// nested collection and a table with a selection and attribute strings.
//
//   make_sample [OUT]     (default: sample.dump in the current directory)
#include <cstdio>
#include <vector>

#include "coll.hpp"

int main(int argc, char **argv) {
  const char *out = argc > 1 ? argv[1] : "sample.dump";
  using libcoll::Collection;
  using libcoll::Table;

  bool made = true;  // every store succeeded
  auto store = [&made](bool stored) { made = made && stored; };

  Collection order = Collection::Open("Order");
  store(order.SetString("Customer", "Harbour Supplies Ltd."));
  store(order.SetString("Note", "Deliver to gate 3\nbefore noon"));
  store(order.SetNumber("Number", 10472));
  store(order.SetNumber("Discount", -5));
  store(order.SetTime("Placed", 1700000000));  // 2023-11-14 22:13:20 UTC
  const unsigned char flags[] = {0x01, 0x00, 0x7F, 'O', 'K'};
  store(order.SetBytes("Flags", flags, sizeof flags));

  Collection address = Collection::Open();
  store(address.SetString("Street", "1 Quay Road"));
  store(address.SetString("City", "Portsmouth"));
  store(address.SetNumber("Floor", 2));
  store(order.SetCollection("ShipTo", address));

  Table lines = Table::Create(3);
  store(lines.SetRow(ROW_NAMES, {"Item", "Qty", "Price"}));
  store(lines.SetRow(ROW_APPEND, {"Rope, 10 m", "4", "12.50"}));
  store(lines.SetRow(ROW_APPEND, {"Shackle", "12", "3.20"}));
  store(lines.SetRow(ROW_APPEND, {"Fender", "2", "28.00"}));
  store(lines.Select(1));
  store(lines.Set(ROW_HEADER, -1, "%-10s %3s %6s "));  // attribute string 0
  store(lines.Set(ROW_HEADER, -2, "currency=GBP"));    // attribute string 1
  store(order.SetTable("Lines", lines));

  const std::vector<std::byte> image = made ? order.Dump() : std::vector<std::byte>();
  std::FILE *f = image.empty() ? nullptr : std::fopen(out, "wb");
  if (!f || std::fwrite(image.data(), 1, image.size(), f) != image.size() || std::fclose(f) != 0) {
    std::fprintf(stderr, "make_sample: cannot write %s\n", out);
    return 1;
  }
  return 0;
}
