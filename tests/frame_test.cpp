// The library frame: start-up, handle values and slots, destruction of
// objects with what they own, per-process clean-up.
#include <gtest/gtest.h>

#include <vector>

#include "coll_host.h"
#include "platform/platform.h"
#include "store/store.h"

namespace {

// A collection owned by another one, made the way nested values are.
uint32_t MakeChild(uint32_t owner) {
  coll::LockGuard lock;
  return coll::InternalCollCreate(owner);
}

uint32_t IdOf(uint32_t h) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  return img ? coll::CollId(img) : 0;
}

TEST(Frame, FirstCallStartsTheLibraryWithTheCatalog) {
  // Any locked call starts the library.
  EXPECT_EQ(collIsBadCollHandle(0x4001), 0u);
  EXPECT_EQ(IdOf(0x4001), 1u);
  char name[16];
  EXPECT_EQ(collGetName(0x4001, name, sizeof name), 9u);
  EXPECT_STREQ(name, "_Catalog");
  EXPECT_EQ(collGetShareCount(0x4001), 1u);
  EXPECT_NE(coll::ps->adviceMsg, 0u);
  EXPECT_EQ(collHostRegisterMessage("COLL_ADVICE"), coll::ps->adviceMsg);
  // The first caller's collection.
  uint32_t h = collOpen("first");
  EXPECT_EQ(h, 0x4002u);
  EXPECT_EQ(IdOf(h), 2u);
  // The catalog is neither private nor listed.
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), 1u);
}

TEST(Frame, SettersComparingWithTheCatalogStartTheLibraryFirst) {
  // The very first call compares with the catalog handle before any lock.
  EXPECT_EQ(collSetItem(0x4001, "x", "1", 1), 0u);
  EXPECT_EQ(collItemCount(0x4001), 0u);
}

TEST(Frame, HandleValuesOutsideTheSlotsAreNeverValid) {
  collOpen("a");
  for (uint32_t h : {0u, 0x3FFFu, 0x4000u, 0x40FFu, 0x8000u, 0x8001u, 0x80FFu, 0xFFFFFFFFu, 0x14001u})
    EXPECT_EQ(collIsBadCollHandle(h), 1u) << std::hex << h;
  EXPECT_EQ(collIsBadCollHandle(0x4002), 0u);
}

TEST(Frame, LowestFreeSlotAndTheLimitOf254) {
  std::vector<uint32_t> handles;
  for (;;) {
    uint32_t h = collOpen(nullptr);
    if (!h) break;
    handles.push_back(h);
  }
  // The catalog holds slot 1; slots 2..254 are the caller's.
  ASSERT_EQ(handles.size(), 253u);
  EXPECT_EQ(handles.front(), 0x4002u);
  EXPECT_EQ(handles.back(), 0x40FEu);
  collClose(0x4010);
  collClose(0x4005);
  // The lowest free slot comes back first, with a new id.
  uint32_t again = collOpen(nullptr);
  EXPECT_EQ(again, 0x4005u);
  EXPECT_EQ(IdOf(again), 256u);
  EXPECT_EQ(collOpen(nullptr), 0x4010u);
  EXPECT_EQ(collOpen(nullptr), 0u);
}

TEST(Frame, IdsWrapTheirLow16BitsAndTheCounterNeverFallsBelowTwo) {
  collOpen(nullptr);
  {
    coll::LockGuard lock;
    coll::ps->nextCollId = 0xFFFFFFFFu;
  }
  uint32_t a = collOpen(nullptr);
  uint32_t b = collOpen(nullptr);
  EXPECT_EQ(IdOf(a), 0xFFFFu);
  EXPECT_EQ(IdOf(b), 2u);  // 0xFFFFFFFF + 1 wraps to 0, which becomes 2
}

TEST(Frame, DestroyCascadesThroughOwnedCollections) {
  uint32_t top = collOpen("top");
  uint32_t child = MakeChild(top);
  uint32_t grandchild = MakeChild(child);
  uint32_t other = collOpen("other");
  ASSERT_NE(grandchild, 0u);
  // A nested collection cannot be closed on its own.
  collClose(child);
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
  collClose(top);
  EXPECT_EQ(collIsBadCollHandle(top), 1u);
  EXPECT_EQ(collIsBadCollHandle(child), 1u);
  EXPECT_EQ(collIsBadCollHandle(grandchild), 1u);
  EXPECT_EQ(collIsBadCollHandle(other), 0u);
  // collHigh falls back past the freed slots.
  collClose(other);
  coll::LockGuard lock;
  EXPECT_EQ(coll::ps->collHigh, 1u);
}

TEST(Frame, OwnedCollectionsInheritTheCreator) {
  uint32_t top = collOpen("top");
  {
    coll::LockGuard lock;
    uint8_t *img = coll::GetCollPtr(top);
    coll::wr32(img + coll::ch::creatorProcess, 4242);
    std::memcpy(img + coll::ch::creatorModule, "other.exe", 10);
  }
  uint32_t child = MakeChild(top);
  char name[32];
  EXPECT_EQ(collGetCreator(child, name, sizeof name), 9u);
  EXPECT_STREQ(name, "other.exe");
  coll::LockGuard lock;
  EXPECT_EQ(coll::CollCreatorProcess(coll::GetCollPtr(child)), 4242u);
}

TEST(Frame, ASlotWhoseImageLostItsMagicIsForgotten) {
  uint32_t h = collOpen("x");
  {
    coll::LockGuard lock;
    coll::wr16(coll::GetCollPtr(h) + coll::ch::magic, 0);
  }
  // Validation clears the slot (the image is no longer the library's to use).
  uint8_t *leaked;
  {
    coll::LockGuard lock;
    leaked = coll::ps->collPtrs[h - 0x4000];
  }
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(collItemCount(h), 0u);
  coll::collFreePtr(leaked);
  EXPECT_EQ(collOpen(nullptr), h);
}

TEST(Frame, ListingPrivateCollections) {
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), 0u);
  uint32_t a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
  MakeChild(a);  // nested: never listed
  {
    coll::LockGuard lock;
    coll::wr16(coll::GetCollPtr(b) + coll::ch::shareCount, 1);  // shared: never listed
  }
  uint32_t buf[4] = {9, 9, 9, 9};
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), 2u);
  EXPECT_EQ(collGetNonSharedHandles(buf, 4), 1u);  // room for one
  EXPECT_EQ(buf[0], a);
  EXPECT_EQ(collGetNonSharedHandles(buf, sizeof buf), 2u);
  EXPECT_EQ(buf[0], a);
  EXPECT_EQ(buf[1], c);
  EXPECT_EQ(buf[2], 0u);  // the rest of the buffer is cleared
  EXPECT_EQ(collGetNonSharedHandles(reinterpret_cast<uint32_t *>(16), 8), 0u);
}

TEST(Frame, ListingTablesWithNoRoom) {
  uint32_t buf[2] = {7, 7};
  EXPECT_EQ(collGetTableHandles(buf, 0), 0u);
  EXPECT_EQ(collGetTableHandles(buf, 3), 0u);
  EXPECT_EQ(buf[0], 0u);  // the 3 bytes were cleared
  EXPECT_EQ(collGetTableHandles(buf, sizeof buf), 0u);
}

TEST(Frame, TaskAbortDestroysOnlyTheProcessPrivateTopLevelCollections) {
  uint32_t a = collOpen("a"), shared = collOpen("s");
  uint32_t child = MakeChild(a);
  {
    coll::LockGuard lock;
    coll::wr16(coll::GetCollPtr(shared) + coll::ch::shareCount, 1);
  }
  collTaskAbort(platform::CurrentProcessId() + 1);  // owns nothing
  collTaskAbort(0);
  EXPECT_EQ(collIsBadCollHandle(a), 0u);
  collTaskAbort(platform::CurrentProcessId());
  EXPECT_EQ(collIsBadCollHandle(a), 1u);
  EXPECT_EQ(collIsBadCollHandle(child), 1u);
  EXPECT_EQ(collIsBadCollHandle(shared), 0u);
  EXPECT_EQ(collIsBadCollHandle(0x4001), 0u);
}

TEST(Frame, HeapHelpersGiveZeroFilledMemory) {
  auto *p = static_cast<unsigned char *>(collAlloc(100));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(p[i], 0);
  collFree(p);
  collFree(nullptr);
}

}  // namespace
