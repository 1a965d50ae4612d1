#include <gtest/gtest.h>

#include "coll.h"

TEST(Frame, StartsWithCatalog) {
  EXPECT_EQ(collIsBadCollHandle(0x4001), 0u);
  EXPECT_EQ(collOpen("x"), 0x4002u);
}
