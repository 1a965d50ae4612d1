// Every heap allocation the library makes is made to fail in turn: each call
// must report failure as documented, keep what it was not asked to change,
// and leave every image consistent (LeakSanitizer finds what it leaked).
#include <gtest/gtest.h>

#include <string>

#include "coll.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tests/test_util.h"

namespace {

using testutil::CheckImage;
using testutil::Item;

// Runs scenario once for every n until a run meets no injected failure.
template <typename Scenario>
void ForEveryAllocation(Scenario scenario) {
  collIsBadCollHandle(0);  // start-up happens outside the runs
  for (uint32_t n = 1;; ++n) {
    platform::FailAllocation(n);
    scenario();
    uint32_t made = platform::FailAllocation(0);
    // Nothing may be left behind: only the catalog remains.
    ASSERT_EQ(collGetNonSharedHandles(nullptr, 0), 0u) << "after failing allocation " << n;
    if (made < n) break;
    ASSERT_LT(n, 10000u);
  }
}

TEST(AllocFailure, RawItemsAndTheEngine) {
  ForEveryAllocation([] {
    uint32_t h = collOpen("a");
    if (!h) return;
    // A new item is stored or absent.
    uint32_t r = collSetItem(h, "x", "12345", 5);
    EXPECT_EQ(Item(h, "x"), r ? "12345" : "<missing>");
    // A replacement of another length: the old value survives a failure.
    if (r) {
      EXPECT_EQ(collSetItem(h, "x", "1234567", 7) ? Item(h, "x") == "1234567" : Item(h, "x") == "12345", true);
    }
    // Growth by pages.
    std::string big(5000, 'b');
    r = collSetItem(h, "big", big.data(), static_cast<uint32_t>(big.size()));
    EXPECT_EQ(Item(h, "big"), r ? big : "<missing>");
    std::string before = Item(h, "x");
    // Rename: on failure the old tag keeps its value.
    if (collRenameTag(h, "x", "y")) {
      EXPECT_EQ(Item(h, "y"), before);
      EXPECT_EQ(collGetType(h, "x"), 0u);
    } else {
      EXPECT_EQ(Item(h, "x"), before);
    }
    EXPECT_EQ(CheckImage(h), "");
    collEmpty(h);
    EXPECT_EQ(CheckImage(h), "");
    collClose(h);
  });
}

TEST(AllocFailure, NestedCopies) {
  ForEveryAllocation([] {
    uint32_t src = collOpen("src");
    uint32_t dst = collOpen("dst");
    if (!src || !dst) {
      collClose(src);
      collClose(dst);
      return;
    }
    uint32_t child = 0;
    {
      coll::LockGuard lock;
      child = coll::InternalCollCreate(src);
      if (child) {
        coll::SetItem(child, "a", coll::BuildItem(COLLTYPE_ITEM, "1", 1), 0);
        coll::SetItem(child, "b", coll::BuildItem(COLLTYPE_ITEM, "22", 2), 0);
        if (!coll::SetItem(src, "kid", coll::BuildItem(COLLTYPE_COLL, &child, 4), 0)) {
          coll::DestroyCollHandle(child);
          child = 0;
        }
      }
    }
    collSetItem(dst, "kid", "old", 3);
    // (A failed BuildItem reaches the store as a deletion, so "kid" may be
    // missing in the source; the copy then deletes it in dst.)
    const bool inSource = collGetType(src, "kid") == COLLTYPE_COLL;
    const std::string old = Item(dst, "kid");
    if (collCopyItem(dst, src, "kid")) {
      EXPECT_EQ(collGetType(dst, "kid"), inSource ? uint32_t(COLLTYPE_COLL) : 0u);
    } else {
      EXPECT_EQ(Item(dst, "kid"), old);
    }
    EXPECT_EQ(CheckImage(src), "");
    EXPECT_EQ(CheckImage(dst), "");
    collClose(src);
    collClose(dst);
    // Closing the owners took every nested collection with them.
    coll::LockGuard lock;
    EXPECT_EQ(coll::ps->collHigh, 1u);
  });
}

TEST(AllocFailure, TypedValues) {
  ForEveryAllocation([] {
    uint32_t h = collOpen("typed");
    uint32_t src = collOpen("src");
    if (!h || !src) {
      collClose(h);
      collClose(src);
      return;
    }
    // A failed store keeps the old value.
    collSetString(h, "s", " 42");
    std::string old = Item(h, "s");
    if (!collSetString(h, "s", "a longer text")) { EXPECT_EQ(Item(h, "s"), old); }
    if (collSetNumeric(h, "n", -7)) { EXPECT_EQ(collGetNumeric(h, "n"), -7); }
    if (collSetTime(h, "t", 0)) { EXPECT_EQ(collGetType(h, "t"), uint32_t(COLLTYPE_TIME)); }
    int32_t v = collGetNumeric(h, "s");  // needs a scratch copy
    EXPECT_TRUE(v == 0 || v == 42 || Item(h, "s") != old);
    // Nested copies are complete or absent.
    collSetString(src, "a", "1");
    collSetNumeric(src, "b", 2);
    const bool full = collItemCount(src) == 2;
    if (collSetColl(h, "k", src) && full && collGetType(h, "k") == COLLTYPE_COLL) {
      uint32_t got = collGetColl(h, "k");
      if (got) { EXPECT_EQ(collItemCount(got), 2u); }
      collClose(got);
    }
    // A merge drops an item whose value cannot be copied and goes on.
    if (collMerge(h, src) && full) {
      uint32_t type = collGetType(h, "b");
      EXPECT_TRUE(type == COLLTYPE_NUMERIC || type == 0) << type;
    }
    // Substitution: the whole text, or the empty text when the working text
    // could not grow; a value that cannot be read gives nothing.
    char buf[64];
    uint32_t r = collSetString(h, "s", "xyz") ? collSubstitute(h, "<!s.>", buf, sizeof buf) : 0;
    if (r) { EXPECT_TRUE(std::string(buf) == "<xyz>" || std::string(buf) == "<>" || std::string(buf) == "") << buf; }
    EXPECT_EQ(CheckImage(h), "");
    collClose(h);
    collClose(src);
  });
}

}  // namespace
