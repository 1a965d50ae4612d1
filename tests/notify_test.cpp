// Advice windows, propagation between collections and transactions.
#include <gtest/gtest.h>

#include <string>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"
#include "tests/listener.h"
#include "tests/test_util.h"

using testutil::Del;
using testutil::Heard;
using testutil::Item;
using testutil::Listener;
using testutil::Set;

namespace {

intptr_t Answer(uint32_t, uint32_t message, uintptr_t wParam, intptr_t, void *context) {
  ++*static_cast<int *>(context);
  return intptr_t(message + wParam);
}

// The tranFlag word of the stored block of tag.
uint32_t Mark(HCOLL h, const char *tag) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  uint8_t *block = nullptr;
  if (!img || !coll::GetItem(img, tag, &block)) return 0xFFFFFFFFu;
  return coll::rd16(block + coll::ib::tranFlag);
}

uint32_t Header32(HCOLL h, uint32_t offset) {
  coll::LockGuard lock;
  uint8_t *img = coll::GetCollPtr(h);
  return img ? coll::rd32(img + offset) : 0xFFFFFFFFu;
}

}  // namespace

// ---------------------------------------------------------------- windows

TEST(WindowStandIn, WindowsAndMessages) {
  int calls = 0;
  EXPECT_EQ(collHostCreateWindow(nullptr, nullptr), 0u);
  uint32_t w = collHostCreateWindow(&Answer, &calls);
  uint32_t w2 = collHostCreateWindow(&Answer, &calls);
  ASSERT_NE(w, 0u);
  EXPECT_NE(w >> 16, 0xFFFFu);
  EXPECT_NE(w, w2);
  EXPECT_TRUE(platform::IsWindow(w));
  EXPECT_EQ(platform::SendMessage(w, 5, 7, 0), 12);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(collHostDestroyWindow(w), 1u);
  EXPECT_EQ(collHostDestroyWindow(w), 0u);
  EXPECT_FALSE(platform::IsWindow(w));
  EXPECT_FALSE(platform::IsWindow(0));
  EXPECT_EQ(platform::SendMessage(w, 5, 7, 0), 0);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(platform::IsWindow(w2));
  collHostDestroyWindow(w2);
}

TEST(WindowStandIn, RegisteredMessages) {
  EXPECT_EQ(collHostRegisterMessage(nullptr), 0u);
  EXPECT_EQ(collHostRegisterMessage(""), 0u);
  uint32_t advice = collHostRegisterMessage("COLL_ADVICE");
  EXPECT_GE(advice, 0xC000u);
  EXPECT_LE(advice, 0xFFFFu);
  EXPECT_EQ(collHostRegisterMessage("coll_advice"), advice);
  EXPECT_NE(collHostRegisterMessage("Coll_Advice2"), advice);
  // The library sends the number registered for its message name.
  Listener l;
  HCOLL h = collOpen("c");
  ASSERT_EQ(collRequestAdvice(h, l.window(), 1), 1u);
  Set(h, "x", "1");
  ASSERT_EQ(l.count(), 1u);
  EXPECT_EQ(l.heard()[0].message, advice);
}

// ---------------------------------------------------------------- advice

TEST(Advice, TagAreaLayout) {
  uint8_t *area = coll::MakeTagArea("abcdef", 3);
  ASSERT_NE(area, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(area), 10), std::string("\x03\x00" "abc\0\0\0\0\0", 10));
  coll::collFreePtr(area);
  area = coll::MakeTagArea("ab", 100);  // n stops at the zero
  ASSERT_NE(area, nullptr);
  EXPECT_EQ(coll::rd16(area), 2u);
  coll::collFreePtr(area);

  Listener l;
  HCOLL h = collOpen("c");
  collRequestAdvice(h, l.window(), 1);
  Set(h, "ABC", "1");
  Del(h, "abc");  // the caller's spelling, not the stored one
  auto heard = l.heard();
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[0].coll, h);
  EXPECT_EQ(heard[0].area, std::string("\x03\x00" "ABC\0\0\0\0\0", 10));
  EXPECT_EQ(heard[1].tag, "abc");
  EXPECT_EQ(heard[1].n, 3u);
}

TEST(Advice, CountsAndWithdrawal) {
  Listener l;
  HCOLL h = collOpen("c");
  EXPECT_EQ(collRequestAdvice(h, l.window(), 1), 1u);
  EXPECT_EQ(collRequestAdvice(h, l.window(), 1), 1u);
  Set(h, "x", "1");
  EXPECT_EQ(l.count(), 1u);  // one message per change, whatever the count
  EXPECT_EQ(collRequestAdvice(h, l.window(), 0), 1u);
  Set(h, "x", "2");
  EXPECT_EQ(l.count(), 2u);
  EXPECT_EQ(collRequestAdvice(h, l.window(), 0), 1u);
  Set(h, "x", "3");
  EXPECT_EQ(l.count(), 2u);
  EXPECT_EQ(collRequestAdvice(h, l.window(), 0), 0u);
}

TEST(Advice, RequestFailures) {
  Listener l;
  HCOLL h = collOpen("c");
  EXPECT_EQ(collRequestAdvice(h, 0, 0), 1u);  // only asks whether h is a collection
  EXPECT_EQ(collRequestAdvice(h, 0, 1), 0u);
  EXPECT_EQ(collRequestAdvice(h, 0x12345678, 1), 0u);
  EXPECT_EQ(collRequestAdvice(h, l.window(), 0), 0u);
  EXPECT_EQ(collRequestAdvice(0x40F0, l.window(), 1), 0u);
  EXPECT_EQ(collRequestAdvice(0, l.window(), 1), 0u);
  // Withdrawing does not ask whether the window still exists.
  uint32_t w = collHostCreateWindow([](uint32_t, uint32_t, uintptr_t, intptr_t, void *) -> intptr_t { return 0; },
                                    nullptr);
  ASSERT_EQ(collRequestAdvice(h, w, 1), 1u);
  collHostDestroyWindow(w);
  EXPECT_EQ(collRequestAdvice(h, w, 0), 1u);
  collClose(h);
  EXPECT_EQ(collRequestAdvice(h, 0, 0), 0u);
  EXPECT_EQ(collRequestAdvice(h, l.window(), 1), 0u);
}

TEST(Advice, ThirtyTwoWindows) {
  HCOLL h = collOpen("c");
  Listener ls[33];
  for (int i = 0; i < 32; ++i) ASSERT_EQ(collRequestAdvice(h, ls[i].window(), 1), 1u) << i;
  EXPECT_EQ(collRequestAdvice(h, ls[32].window(), 1), 0u);
  EXPECT_EQ(collRequestAdvice(h, ls[5].window(), 1), 1u);  // its count rises
  Set(h, "x", "1");
  for (int i = 0; i < 32; ++i) EXPECT_EQ(ls[i].count(), 1u) << i;
  EXPECT_EQ(ls[32].count(), 0u);
  // Withdrawing the first moves the others up; the freed place takes a new one.
  EXPECT_EQ(collRequestAdvice(h, ls[0].window(), 0), 1u);
  EXPECT_EQ(Header32(h, coll::ch::adviceTarget), ls[1].window());
  EXPECT_EQ(Header32(h, coll::ch::adviceTarget + 4 * 31), 0u);
  EXPECT_EQ(collRequestAdvice(h, ls[32].window(), 1), 1u);
  EXPECT_EQ(Header32(h, coll::ch::adviceTarget + 4 * 31), ls[32].window());
}

TEST(Advice, DeadWindowsDroppedAtNextChange) {
  HCOLL h = collOpen("c");
  Listener live;
  uint32_t dead = collHostCreateWindow([](uint32_t, uint32_t, uintptr_t, intptr_t, void *) -> intptr_t { return 0; },
                                       nullptr);
  for (int i = 0; i < 3; ++i) collRequestAdvice(h, dead, 1);
  collRequestAdvice(h, live.window(), 1);
  collHostDestroyWindow(dead);
  Set(h, "x", "1");
  // All three registrations went in that change, and the entry behind moved up.
  EXPECT_EQ(live.count(), 1u);
  EXPECT_EQ(Header32(h, coll::ch::adviceTarget), live.window());
  EXPECT_EQ(Header32(h, coll::ch::adviceCount), 1u);
  EXPECT_EQ(collRequestAdvice(h, dead, 0), 0u);
}

TEST(Advice, WindowChangesTheCollectionWhileTold) {
  HCOLL a = collOpen("a");
  HCOLL b = collOpen("b");
  collRequestPropagate(a, b, 1);
  Listener l, later;
  collRequestAdvice(a, l.window(), 1);
  collRequestAdvice(a, later.window(), 1);
  l.onMessage = [&](const Heard &h) {
    if (h.tag == "x") Set(a, "y", "2");
  };
  Set(a, "x", "1");
  // y is a change of its own, told (and propagated) inside the delivery of x.
  EXPECT_EQ(l.Tags(), "x,y");
  EXPECT_EQ(later.Tags(), "y,x");
  EXPECT_EQ(Item(b, "x"), "1");
  EXPECT_EQ(Item(b, "y"), "2");
}

TEST(Advice, CollectionClosedWhileTold) {
  HCOLL a = collOpen("a");
  HCOLL b = collOpen("b");
  collRequestPropagate(a, b, 1);
  Listener closer, later;
  collRequestAdvice(a, closer.window(), 1);
  collRequestAdvice(a, later.window(), 1);
  closer.onMessage = [&](const Heard &) { collClose(a); };
  Set(a, "x", "1");
  EXPECT_EQ(closer.count(), 1u);
  EXPECT_EQ(later.count(), 0u);
  EXPECT_EQ(Item(b, "x"), "<missing>");
  // A later collection in the slot has none of its listeners.
  HCOLL c = collOpen("c");
  ASSERT_EQ(c, a);
  Set(c, "x", "1");
  EXPECT_EQ(closer.count(), 1u);
  EXPECT_EQ(Item(b, "x"), "<missing>");
}

// ---------------------------------------------------------------- propagation

TEST(Propagation, CopiesAndDeletes) {
  HCOLL a = collOpen("a");
  HCOLL b = collOpen("b");
  Listener lb;
  collRequestAdvice(b, lb.window(), 1);
  ASSERT_EQ(collRequestPropagate(a, b, 1), 1u);
  Set(a, "x", "value");
  EXPECT_EQ(Item(b, "x"), "value");
  Del(a, "x");
  EXPECT_EQ(Item(b, "x"), "<missing>");
  auto heard = lb.heard();
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[0].coll, b);
  EXPECT_EQ(heard[0].tag, "x");
  // Changes of the target do not flow back.
  Set(b, "y", "1");
  EXPECT_EQ(Item(a, "y"), "<missing>");
}

TEST(Propagation, Chain) {
  HCOLL a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
  collRequestPropagate(a, b, 1);
  collRequestPropagate(b, c, 1);
  Listener lc;
  collRequestAdvice(c, lc.window(), 1);
  Set(a, "x", "1");
  EXPECT_EQ(Item(c, "x"), "1");
  ASSERT_EQ(lc.count(), 1u);
  EXPECT_EQ(lc.heard()[0].coll, c);
}

TEST(Propagation, CyclesEnd) {
  HCOLL a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
  collRequestPropagate(a, b, 1);
  collRequestPropagate(b, a, 1);
  collRequestPropagate(b, c, 1);
  collRequestPropagate(c, a, 1);
  Listener la, lb, lc;
  collRequestAdvice(a, la.window(), 1);
  collRequestAdvice(b, lb.window(), 1);
  collRequestAdvice(c, lc.window(), 1);
  Set(a, "x", "1");
  Del(b, "x");
  Del(c, "x");  // absent everywhere: a deletion going round
  // b's deletion reaches a along b -> a and along b -> c -> a.
  EXPECT_EQ(la.Tags(), "x,x,x,x");
  EXPECT_EQ(lb.Tags(), "x,x,x");
  EXPECT_EQ(lc.Tags(), "x,x,x");
  for (HCOLL h : {a, b, c}) EXPECT_EQ(Item(h, "x"), "<missing>");
}

TEST(Propagation, CollectionItemAroundACycle) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  collRequestPropagate(a, b, 1);
  collRequestPropagate(b, a, 1);
  Listener la, lb;
  collRequestAdvice(a, la.window(), 1);
  collRequestAdvice(b, lb.window(), 1);
  uint32_t child;
  {
    coll::LockGuard lock;
    child = coll::InternalCollCreate(a);
    ASSERT_NE(child, 0u);
    ASSERT_EQ(coll::SetItem(child, "inner", coll::BuildItem(COLLTYPE_ITEM, "v", 1), 0), 1u);
    ASSERT_EQ(coll::SetItem(a, "n", coll::BuildItem(COLLTYPE_COLL, &child, 4), 1), 1u);
  }
  EXPECT_EQ(la.count(), 1u);
  EXPECT_EQ(lb.count(), 1u);
  EXPECT_EQ(collGetType(b, "n"), uint32_t(COLLTYPE_COLL));
  uint32_t held = 0, copied = 0;
  {
    coll::LockGuard lock;
    uint8_t *block;
    ASSERT_TRUE(coll::GetItem(coll::GetCollPtr(a), "n", &block));
    held = coll::rd32(coll::BlockData(block));
    ASSERT_TRUE(coll::GetItem(coll::GetCollPtr(b), "n", &block));
    copied = coll::rd32(coll::BlockData(block));
  }
  EXPECT_EQ(held, child);  // the copy did not come back to replace it
  EXPECT_NE(copied, child);
  EXPECT_EQ(testutil::ItemArea(copied), testutil::ItemArea(child));
  EXPECT_EQ(collIsBadCollHandle(child), 0u);
}

TEST(Propagation, DeadAndReusedTargets) {
  HCOLL a = collOpen("a"), b = collOpen("b"), gone = collOpen("gone");
  collRequestPropagate(a, gone, 1);
  collRequestPropagate(a, b, 1);
  collClose(gone);
  Set(a, "x", "1");
  EXPECT_EQ(Item(b, "x"), "1");
  EXPECT_EQ(Header32(a, coll::ch::propTarget), b);
  EXPECT_EQ(collRequestPropagate(a, gone, 0), 0u);

  collRequestPropagate(a, gone = collOpen("gone"), 1);
  collClose(gone);
  HCOLL reuse = collOpen("reuse");
  ASSERT_EQ(reuse, gone);
  Listener l;
  collRequestAdvice(reuse, l.window(), 1);
  Set(a, "y", "1");
  EXPECT_EQ(Item(reuse, "y"), "<missing>");
  EXPECT_EQ(l.count(), 0u);
  EXPECT_EQ(collRequestPropagate(a, reuse, 0), 0u);
  EXPECT_EQ(Item(b, "y"), "1");
}

TEST(Propagation, SameTargetTwice) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  EXPECT_EQ(collRequestPropagate(a, b, 1), 1u);
  EXPECT_EQ(collRequestPropagate(a, b, 1), 1u);
  Listener lb;
  collRequestAdvice(b, lb.window(), 1);
  Set(a, "x", "1");
  EXPECT_EQ(Item(b, "x"), "1");
  EXPECT_EQ(lb.count(), 1u);
  EXPECT_EQ(collRequestPropagate(a, b, 0), 1u);
  Set(a, "x", "2");
  EXPECT_EQ(Item(b, "x"), "2");
  EXPECT_EQ(collRequestPropagate(a, b, 0), 1u);
  EXPECT_EQ(collRequestPropagate(a, b, 0), 0u);
  Set(a, "x", "3");
  EXPECT_EQ(Item(b, "x"), "2");
}

TEST(Propagation, RequestFailuresAndLimit) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  EXPECT_EQ(collRequestPropagate(a, 0, 1), 0u);
  EXPECT_EQ(collRequestPropagate(a, 0, 0), 0u);
  EXPECT_EQ(collRequestPropagate(a, a, 1), 0u);
  EXPECT_EQ(collRequestPropagate(a, 0x40F0, 1), 0u);
  EXPECT_EQ(collRequestPropagate(0x40F0, b, 1), 0u);
  EXPECT_EQ(collRequestPropagate(a, b, 0), 0u);
  for (int i = 0; i < 32; ++i) ASSERT_EQ(collRequestPropagate(a, b, 1), 1u) << i;
  EXPECT_EQ(collRequestPropagate(a, b, 1), 0u);
  // Withdrawing needs no live target.
  collClose(b);
  EXPECT_EQ(collRequestPropagate(a, b, 0), 1u);
  EXPECT_EQ(Header32(a, coll::ch::propTarget + 4 * 31), 0u);
  EXPECT_EQ(Header32(a, coll::ch::propTarget + 4 * 30), b);
}

TEST(Propagation, WindowChangeStartsItsOwnChain) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  collRequestPropagate(a, b, 1);
  collRequestPropagate(b, a, 1);
  Listener lb;
  collRequestAdvice(b, lb.window(), 1);
  lb.onMessage = [&](const Heard &h) {
    if (h.tag == "x") Set(b, "z", "9");
  };
  Set(a, "x", "1");
  // The change of x had reached a already; z is a new change and reaches it.
  EXPECT_EQ(Item(a, "z"), "9");
  EXPECT_EQ(lb.Tags(), "x,z");
}

// ---------------------------------------------------------------- transactions

TEST(Transaction, OrderAtUnlock) {
  HCOLL h = collOpen("c");
  Set(h, "p", "1");
  Set(h, "r", "1");
  Set(h, "c", "1");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  ASSERT_EQ(collLock(h), 1u);
  Set(h, "a", "1");  // new
  Del(h, "c");       // deleted: queued
  Set(h, "r", "2");  // same length: in place, keeps its position
  Set(h, "b", "1");  // new
  Del(h, "q");       // absent: never told
  EXPECT_EQ(l.count(), 0u);
  EXPECT_EQ(Item(h, "a"), "1");  // stored at once
  ASSERT_EQ(collUnlock(h), 1u);
  EXPECT_EQ(l.Tags(), "c,r,a,b");
  EXPECT_EQ(Mark(h, "r"), 0u);
  EXPECT_EQ(Mark(h, "p"), 0u);
  l.Clear();
  EXPECT_EQ(collUnlock(h), 1u);  // no transaction: nothing to tell
  EXPECT_EQ(l.count(), 0u);
}

TEST(Transaction, MarksAndQueueCases) {
  struct Case {
    const char *name;
    void (*steps)(HCOLL);
    const char *told;
  };
  const Case cases[] = {
      {"same value", [](HCOLL h) { Set(h, "a", "1"); Set(h, "a", "1"); }, "a"},
      {"delete, store, delete", [](HCOLL h) { Del(h, "c"); Set(h, "c", "1"); Del(h, "c"); }, "c,c"},
      {"delete, store", [](HCOLL h) { Del(h, "c"); Set(h, "c", "1"); }, "c,c"},
      {"delete, store, other length", [](HCOLL h) { Del(h, "c"); Set(h, "c", "1"); Set(h, "c", "22"); }, "c"},
      {"other length", [](HCOLL h) { Set(h, "c", "22"); }, "c"},
      {"stored spelling", [](HCOLL h) { Set(h, "Abc", "1"); Set(h, "aBC", "1"); }, "aBC"},
      {"delete twice", [](HCOLL h) { Del(h, "C"); Del(h, "c"); }, "C"},
  };
  for (const Case &k : cases) {
    HCOLL h = collOpen("c");
    Set(h, "a", "1");
    Set(h, "c", "1");
    Listener l;
    collRequestAdvice(h, l.window(), 1);
    collLock(h);
    k.steps(h);
    EXPECT_EQ(l.count(), 0u) << k.name;
    collUnlock(h);
    EXPECT_EQ(l.Tags(), k.told) << k.name;
    collClose(h);
  }
}

TEST(Transaction, RepeatedLockAndBadHandles) {
  HCOLL h = collOpen("c");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  EXPECT_EQ(collLock(h), 1u);
  EXPECT_EQ(collLock(h), 1u);
  Set(h, "x", "1");
  EXPECT_EQ(collUnlock(h), 1u);  // the first unlock ends it
  EXPECT_EQ(Header32(h, coll::ch::lockThread), 0u);
  Set(h, "y", "1");
  EXPECT_EQ(l.Tags(), "x,y");
  EXPECT_EQ(collLock(0x40F0), 0u);
  EXPECT_EQ(collUnlock(0x40F0), 0u);
  collClose(h);
  EXPECT_EQ(collLock(h), 0u);
  EXPECT_EQ(collUnlock(h), 0u);
  EXPECT_NE(collOpen("later"), 0u);  // the lock was not left held
}

TEST(Transaction, PropagatesAtUnlockWithoutMarks) {
  HCOLL a = collOpen("a"), b = collOpen("b");
  collRequestPropagate(a, b, 1);
  collLock(a);
  Set(a, "x", "1");
  EXPECT_EQ(Mark(a, "x"), 1u);
  EXPECT_EQ(Item(b, "x"), "<missing>");
  collUnlock(a);
  EXPECT_EQ(Item(b, "x"), "1");
  EXPECT_EQ(Mark(a, "x"), 0u);
  EXPECT_EQ(Mark(b, "x"), 0u);
}

TEST(Transaction, PropagationIntoAHeldTargetWaitsForItsUnlock) {
  HCOLL a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
  collRequestPropagate(a, b, 1);
  collRequestPropagate(b, c, 1);
  collRequestPropagate(c, a, 1);
  Listener la;
  collRequestAdvice(a, la.window(), 1);
  collLock(b);
  Set(a, "x", "1");
  EXPECT_EQ(Item(b, "x"), "1");  // stored, marked, not passed on yet
  EXPECT_EQ(Mark(b, "x"), 1u);
  EXPECT_EQ(Item(c, "x"), "<missing>");
  collUnlock(b);
  // A new change from b: it reaches c, and a, where the value is unchanged.
  EXPECT_EQ(Item(c, "x"), "1");
  EXPECT_EQ(la.Tags(), "x");
}

TEST(Transaction, LongTagsAreToldWhole) {
  HCOLL h = collOpen("c");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  std::string marked(300, 'm');
  std::string deleted[3] = {std::string(2000, 'd'), std::string(700, 'e'), std::string(700, 'f')};
  for (auto &t : deleted) Set(h, t.c_str(), "1");
  l.Clear();
  collLock(h);
  for (auto &t : deleted) Del(h, t.c_str());
  Set(h, marked.c_str(), "1");
  collUnlock(h);
  auto heard = l.heard();
  ASSERT_EQ(heard.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(heard[i].tag, deleted[i]);
  EXPECT_EQ(heard[3].tag, marked);
  EXPECT_EQ(heard[3].n, 300u);
}

TEST(Transaction, QueueGoesWithTheCollection) {
  HCOLL h = collOpen("c");
  Set(h, "c", "1");
  collLock(h);
  Del(h, "c");
  collClose(h);
  HCOLL next = collOpen("next");
  ASSERT_EQ(next, h);
  Listener l;
  collRequestAdvice(next, l.window(), 1);
  collLock(next);
  collUnlock(next);
  EXPECT_EQ(l.count(), 0u);
}

TEST(Transaction, WindowChangesDuringUnlock) {
  HCOLL h = collOpen("c");
  Listener l;
  collRequestAdvice(h, l.window(), 1);
  l.onMessage = [&](const Heard &m) {
    if (m.tag == "a") Set(h, "z", "1");
  };
  collLock(h);
  Set(h, "a", "1");
  Set(h, "b", "1");
  collUnlock(h);
  // The transaction ended before the telling: z is told at once.
  EXPECT_EQ(l.Tags(), "a,z,b");
  EXPECT_EQ(Mark(h, "z"), 0u);
}

TEST(Transaction, AllocationFailures) {
  collIsBadCollHandle(0);
  const std::string longTag(300, 'L');
  for (uint32_t n = 1;; ++n) {
    HCOLL a = collOpen("a"), b = collOpen("b");
    collRequestPropagate(a, b, 1);
    Listener la, lb;
    collRequestAdvice(a, la.window(), 1);
    collRequestAdvice(b, lb.window(), 1);
    Set(a, "c", "1");
    la.Clear();
    lb.Clear();

    platform::FailAllocation(n);
    collLock(a);
    Set(a, "x", "1");
    Del(a, "c");
    Set(a, longTag.c_str(), "1");
    EXPECT_EQ(collUnlock(a), 1u);
    uint32_t made = platform::FailAllocation(0);

    // What was told to b's window arrived in b; a window hears nothing twice.
    for (const Heard &m : lb.heard()) EXPECT_EQ(Item(b, m.tag.c_str()), Item(a, m.tag.c_str())) << n;
    EXPECT_LE(la.count(), 3u);
    // Marks that could not be told then are told by the next unlock.
    collUnlock(a);
    EXPECT_NE(Mark(a, "x"), 1u) << n;
    EXPECT_NE(Mark(a, longTag.c_str()), 1u) << n;
    EXPECT_EQ(testutil::CheckImage(a), "");
    EXPECT_EQ(testutil::CheckImage(b), "");
    collClose(a);
    collClose(b);
    if (made < n) break;
    ASSERT_LT(n, 1000u);
  }
}
