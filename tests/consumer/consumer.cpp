#include <cstdio>

#include "coll.hpp"

int main() {
  libcoll::Collection c = libcoll::Collection::Open("consumer");
  if (!c || !c.SetBytes("k", "value") || c.GetBytes("K").value_or("") != "value") {
    std::fprintf(stderr, "consumer failed\n");
    return 1;
  }
  std::puts("ok");
  return 0;
}
