// Stores a text, a nested collection and a table, dumps them to a file and
// loads the dump back into a new collection.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "coll.hpp"

int main() {
  using libcoll::Collection;
  using libcoll::Table;
  Collection order = Collection::Open("Order"), address = Collection::Open();
  Table lines = Table::Create(2);
  bool ok = order.SetString("Customer", "Harbour Supplies Ltd.") && address.SetString("City", "Portsmouth") &&
            order.SetCollection("ShipTo", address) &&  // stores a copy
            lines.SetRow(ROW_NAMES, {"Item", "Qty"}) && lines.SetRow(ROW_APPEND, {"Rope", "4"}) &&
            order.SetTable("Lines", lines);  // stores a copy

  const std::vector<std::byte> image = order.Dump();  // empty on failure
  ok = ok && !image.empty() &&
       std::ofstream("order.dump", std::ios::binary)
           .write(reinterpret_cast<const char *>(image.data()), std::streamsize(image.size()));
  std::ifstream in("order.dump", std::ios::binary);
  std::vector<std::byte> read;
  for (auto it = std::istreambuf_iterator<char>(in); it != std::istreambuf_iterator<char>(); ++it)
    read.push_back(std::byte(*it));
  Collection back = Collection::Open();
  ok = ok && back.Load(read);

  // Getters return copies: a Collection or Table that closes itself.
  const Collection shipTo = back.GetCollection("ShipTo");
  const Table table = back.GetTable("Lines");
  std::printf("%s: %s, %u row(s), first item %s\n", ok ? "loaded" : "failed",
              shipTo.GetString("City").value_or("?").c_str(), table.Rows(), table.Get(0, 0).value_or("?").c_str());
  return ok ? 0 : 1;
}
