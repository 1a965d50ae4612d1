// The library frame: start-up, handle values and slots, destruction of
// objects with what they own, per-process clean-up.
#include <gtest/gtest.h>

#include <cstring>
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
void SetShared(uint32_t h) {
  coll::LockGuard lock;
  coll::wr16(coll::GetCollPtr(h) + coll::ch::shareCount, 1);
}

TEST(Frame, FirstCallStartsTheLibraryWithTheCatalog) {
  // The very first call compares with the catalog handle before any lock.
  EXPECT_EQ(collSetItem(0x4001, "x", "1", 1), 0u);
  EXPECT_EQ(collItemCount(0x4001), 0u);
  EXPECT_EQ(IdOf(0x4001), 1u);
  char name[16];
  EXPECT_EQ(collGetName(0x4001, name, sizeof name), 9u);
  EXPECT_STREQ(name, "_Catalog");
  EXPECT_EQ(collGetShareCount(0x4001), 1u);
  EXPECT_EQ(collHostRegisterMessage("COLL_ADVICE"), coll::ps->adviceMsg);
  EXPECT_NE(coll::ps->adviceMsg, 0u);
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), 0u);  // the catalog is neither private nor listed
}

TEST(Frame, LowestFreeSlotIdsAndTheLimitOf254) {
  std::vector<uint32_t> handles;
  for (uint32_t h; (h = collOpen(nullptr)) != 0;) handles.push_back(h);
  // The catalog holds slot 1; slots 2..254 are the caller's.
  ASSERT_EQ(handles.size(), 253u);
  EXPECT_EQ(handles.front(), 0x4002u);
  EXPECT_EQ(IdOf(0x4002), 2u);
  EXPECT_EQ(handles.back(), 0x40FEu);
  collClose(0x4010);
  collClose(0x4005);
  // The lowest free slot comes back first, with a new id.
  EXPECT_EQ(collOpen(nullptr), 0x4005u);
  EXPECT_EQ(IdOf(0x4005), 256u);
  // Ids keep their low 16 bits; the counter wraps to 2, never below.
  {
    coll::LockGuard lock;
    coll::ps->nextCollId = 0xFFFFFFFFu;
  }
  EXPECT_EQ(collOpen(nullptr), 0x4010u);
  EXPECT_EQ(IdOf(0x4010), 0xFFFFu);
  collClose(0x4010);
  EXPECT_EQ(collOpen(nullptr), 0x4010u);
  EXPECT_EQ(IdOf(0x4010), 2u);
  EXPECT_EQ(collOpen(nullptr), 0u);
}

TEST(Frame, DestroyCascadesThroughOwnedCollectionsWhichInheritTheCreator) {
  uint32_t top = collOpen("top"), other = collOpen("other");
  {
    coll::LockGuard lock;
    uint8_t *img = coll::GetCollPtr(top);
    coll::wr32(img + coll::ch::creatorProcess, 4242);
    std::memcpy(img + coll::ch::creatorModule, "other.exe", 10);
  }
  uint32_t child = MakeChild(top), grandchild = MakeChild(child);
  char name[32];
  EXPECT_EQ(collGetCreator(grandchild, name, sizeof name), 9u);
  EXPECT_STREQ(name, "other.exe");
  {
    coll::LockGuard lock;
    EXPECT_EQ(coll::CollCreatorProcess(coll::GetCollPtr(grandchild)), 4242u);
  }
  collClose(child);  // a nested collection cannot be closed on its own
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
  collClose(top);
  for (uint32_t h : {top, child, grandchild}) EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(collIsBadCollHandle(other), 0u);
  collClose(other);  // collHigh falls back past the freed slots
  coll::LockGuard lock;
  EXPECT_EQ(coll::ps->collHigh, 1u);
}

TEST(Frame, ASlotWhoseImageLostItsMagicIsForgotten) {
  uint32_t h = collOpen("x");
  uint8_t *leaked;
  {
    coll::LockGuard lock;
    leaked = coll::ps->collPtrs[h - 0x4000];
    coll::wr16(leaked + coll::ch::magic, 0);
  }
  // Validation clears the slot (the image is no longer the library's to use).
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(collItemCount(h), 0u);
  coll::collFreePtr(leaked);
  EXPECT_EQ(collOpen(nullptr), h);
}

TEST(Frame, ListingPrivateCollectionsAndTables) {
  uint32_t a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
  MakeChild(a);  // nested: never listed
  SetShared(b);  // shared: never listed
  uint32_t buf[4] = {9, 9, 9, 9};
  EXPECT_EQ(collGetNonSharedHandles(nullptr, 0), 2u);
  EXPECT_EQ(collGetNonSharedHandles(buf, 4), 1u);  // room for one
  EXPECT_EQ(buf[0], a);
  EXPECT_EQ(collGetNonSharedHandles(buf, sizeof buf), 2u);
  EXPECT_EQ(std::vector<uint32_t>(buf, buf + 4), (std::vector<uint32_t>{a, c, 0, 0}));  // the rest is cleared
  uint32_t tables[4] = {7, 7, 7, 7};
  EXPECT_EQ(collGetTableHandles(tables, 0), 0u);
  EXPECT_EQ(collGetTableHandles(tables, 3), 0u);
  EXPECT_EQ(tables[0], 0u);  // the 3 bytes were cleared
  const uint32_t t1 = tableCreate(1, 0), t2 = tableCreate(1, 0), t3 = tableCreate(1, 0);
  EXPECT_EQ(collGetTableHandles(tables, 8), 2u);  // room for two
  EXPECT_EQ(std::vector<uint32_t>(tables, tables + 4), (std::vector<uint32_t>{t1, t2, 7, 7}));
  // tableHigh falls back past the freed slots.
  for (uint32_t t : {t2, t3, t1}) tableDestroy(t);
  coll::LockGuard lock;
  EXPECT_EQ(coll::ps->tableHigh, 0u);
}

TEST(Frame, TaskAbortDestroysOnlyTheProcessPrivateTopLevelCollections) {
  uint32_t a = collOpen("a"), shared = collOpen("s");
  uint32_t child = MakeChild(a);
  SetShared(shared);
  collTaskAbort(platform::CurrentProcessId() + 1);  // owns nothing
  collTaskAbort(0);
  EXPECT_EQ(collIsBadCollHandle(a), 0u);
  collTaskAbort(platform::CurrentProcessId());
  EXPECT_EQ(collIsBadCollHandle(a) + collIsBadCollHandle(child), 2u);
  EXPECT_EQ(collIsBadCollHandle(shared) + collIsBadCollHandle(0x4001), 0u);
}

TEST(Frame, HeapHelpersGiveZeroFilledMemory) {
  auto *p = static_cast<unsigned char *>(collAlloc(100));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::vector<unsigned char>(p, p + 100), std::vector<unsigned char>(100, 0));
  collFree(p);
}

}  // namespace
