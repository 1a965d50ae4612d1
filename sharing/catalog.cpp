// catalog.cpp - the catalog of shared collections.
#include "sharing/sharing.h"
#include "store/store.h"

namespace coll {

uint32_t CreateCatalog() {
  uint32_t h = InternalCollCreate(0);
  uint8_t *img = AccessColl(h);
  if (!img) return 0;
  static const char kName[] = "_Catalog";
  SetCollName(img, kName, sizeof kName - 1);
  wr16(img + ch::shareCount, 1);
  return h;
}

}  // namespace coll
