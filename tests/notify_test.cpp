// Advice windows, propagation between collections and transactions.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "sharing/sharing.h"
#include "store/store.h"
#include "tests/consistency.h"
#include "tests/listener.h"
#include "tests/test_util.h"

using testutil::Del;
using testutil::Heard;
using testutil::Item;
using testutil::Listener;
using testutil::Set;
using testutil::Tags;

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

intptr_t Quiet(uint32_t, uint32_t, uintptr_t, intptr_t, void *) { return 0; }

// The tranFlag word of the stored block of tag.
uint32_t Mark(HCOLL h, const char *tag) {
  coll::LockGuard lock; uint8_t *img = coll::GetCollPtr(h), *block = nullptr;
  return img && coll::GetItem(img, tag, &block) ? coll::rd16(block + coll::ib::tranFlag) : kNone;
}
// The chunks and bytes of the queue of tags deleted in a's transaction.
std::pair<uint32_t, uint32_t> Queue(HCOLL h) {
  coll::LockGuard lock;
  return {coll::ps->queueChunks[h - 0x4000], coll::ps->queueLen[h - 0x4000]};
}
uint32_t Header32(HCOLL h, uint32_t offset) {
  coll::LockGuard lock; uint8_t *img = coll::GetCollPtr(h);
  return img ? coll::rd32(img + offset) : kNone;
}

// Three collections with a window each; a scenario wires them, makes
// changes, and is judged by what each window heard and what each holds.
struct World {
  HCOLL a = collOpen("a"), b = collOpen("b"), c = collOpen("c");
  Listener la, lb, lc;
  char NameOf(HCOLL h) const { return h == a ? 'a' : h == b ? 'b' : 'c'; }
  void Listen(const std::string &which) {
    for (char k : which) collRequestAdvice(k == 'a' ? a : k == 'b' ? b : c, (k == 'a' ? la : k == 'b' ? lb : lc).window(), 1);
  }
  // "a:x,y b:x c:"; "x@a" when told about another collection than the
  // window's own, "d*700" for a tag of 700 d's.
  std::string Told() const {
    std::string s;
    for (const Listener *l : {&la, &lb, &lc}) {
      const HCOLL home = l == &la ? a : l == &lb ? b : c;
      s += std::string(s.empty() ? "" : " ") + NameOf(home) + ":";
      for (const Heard &h : l->heard()) {
        s += (s.back() == ':' ? "" : ",") + (h.n < 20 ? h.tag : h.tag.substr(0, 1) + "*" + std::to_string(h.n));
        if (h.coll != home) s += std::string("@") + NameOf(h.coll);
      }
    }
    return s;
  }
  // "a[x=1,y=2] b[] c[]".
  std::string State() const {
    std::string s;
    for (HCOLL h : {a, b, c}) {
      s += std::string(s.empty() ? "" : " ") + NameOf(h) + "[";
      const std::string tags = Tags(h);
      for (size_t p = 0; p < tags.size();) {
        const size_t q = std::min(tags.find(',', p), tags.size());
        s += (p ? "," : "") + tags.substr(p, q - p) + "=" + Item(h, tags.substr(p, q - p).c_str()); p = q + 1;
      }
      s += "]";
    }
    return s;
  }
};

void P(HCOLL from, HCOLL to) { EXPECT_EQ(collRequestPropagate(from, to, 1), 1u); }
// a holds a and c and is watched and held in a transaction.
void Held(World &w) {
  Set(w.a, "a", "1"); Set(w.a, "c", "1"); w.Listen("a"); collLock(w.a);
}
std::string Long(char k, size_t n) { return std::string(n, k); }

struct Scenario {
  const char *name, *listen;
  void (*steps)(World &);
  const char *told, *state;  // state null: not compared
};

const Scenario kScenarios[] = {
    // ---- propagation
    {"copies and deletes, never back", "ab", [](World &w) { P(w.a, w.b); Set(w.a, "x", "v"); Del(w.a, "x"); Set(w.b, "y", "1"); },
     "a:x,x b:x,x,y c:", "a[] b[y=1] c[]"},
    {"chain", "c", [](World &w) { P(w.a, w.b); P(w.b, w.c); Set(w.a, "x", "1"); }, "a: b: c:x", "a[x=1] b[x=1] c[x=1]"},
    {"cycles end, deletions of absent tags too", "abc",
     [](World &w) { P(w.a, w.b); P(w.b, w.a); P(w.b, w.c); P(w.c, w.a); Set(w.a, "x", "1"); Del(w.b, "x"); Del(w.c, "x"); },
     "a:x,x,x,x b:x,x,x c:x,x,x", "a[] b[] c[]"},  // b's deletion reaches a along b-a and b-c-a
    {"the same target twice", "b",
     [](World &w) {
       P(w.a, w.b); P(w.a, w.b);
       Set(w.a, "x", "1");  // copied once
       EXPECT_EQ(collRequestPropagate(w.a, w.b, 0), 1u); Set(w.a, "x", "2");
       EXPECT_EQ(collRequestPropagate(w.a, w.b, 0), 1u); EXPECT_EQ(collRequestPropagate(w.a, w.b, 0), 0u);
       Set(w.a, "x", "3");
     },
     "a: b:x,x c:", "a[x=3] b[x=2] c[]"},
    {"closed and reused targets are dropped", "",
     [](World &w) {
       HCOLL gone = collOpen("gone");
       P(w.a, gone); P(w.a, w.b); collClose(gone); Set(w.a, "x", "1");
       EXPECT_EQ(Header32(w.a, coll::ch::propTarget), w.b); EXPECT_EQ(collRequestPropagate(w.a, gone, 0), 0u);
       P(w.a, gone = collOpen("gone")); collClose(gone); EXPECT_EQ(collOpen("reuse"), gone);
       collRequestAdvice(gone, w.lc.window(), 1); Set(w.a, "y", "1"); EXPECT_EQ(collRequestPropagate(w.a, gone, 0), 0u);
       EXPECT_EQ(Item(gone, "y"), "<missing>");
     },
     "a: b: c:", "a[x=1,y=1] b[x=1,y=1] c[]"},
    // ---- windows that change or close the collection while told
    {"a window's change is a change of its own", "ab",
     [](World &w) {
       P(w.a, w.c); collRequestAdvice(w.a, w.lb.window(), 1);
       w.la.onMessage = [&w](const Heard &h) { if (h.tag == "x") Set(w.a, "y", "2"); }; Set(w.a, "x", "1");
     },
     "a:x,y b:y@a,x@a c:", "a[x=1,y=2] b[] c[y=2,x=1]"},
    {"a window's change starts its own chain", "b",
     [](World &w) {
       P(w.a, w.b); P(w.b, w.a); w.lb.onMessage = [&w](const Heard &h) { if (h.tag == "x") Set(w.b, "z", "9"); };
       Set(w.a, "x", "1");
     },
     "a: b:x,z c:", "a[x=1,z=9] b[x=1,z=9] c[]"},
    {"closed while told", "a",
     [](World &w) {
       P(w.a, w.b); collRequestAdvice(w.a, w.lc.window(), 1); w.la.onMessage = [&w](const Heard &) { collClose(w.a); };
       Set(w.a, "x", "1");
       EXPECT_EQ(collOpen("again"), w.a);  // has none of the old listeners
       Set(w.a, "x", "1");
     },
     "a:x b: c:", "a[x=1] b[] c[]"},
    // ---- transactions: told at unlock, deleted tags first, then marks in item order
    {"order at unlock", "",
     [](World &w) {
       Set(w.a, "p", "1"); Set(w.a, "r", "1"); Held(w); P(w.a, w.b); Set(w.a, "n", "1"); Del(w.a, "c");
       Set(w.a, "r", "2");  // same length: in place, keeps its position
       Set(w.a, "m", "1");
       Del(w.a, "q");  // absent: never told, and no mark
       EXPECT_EQ(Mark(w.a, "q"), kNone);
       EXPECT_EQ(Mark(w.a, "n"), 1u);  // stored at once, marked, told later
       EXPECT_EQ(w.la.count(), 0u); EXPECT_EQ(Item(w.b, "n"), "<missing>"); EXPECT_EQ(collUnlock(w.a), 1u);
       EXPECT_EQ(Mark(w.a, "n"), 0u); EXPECT_EQ(Mark(w.b, "n"), 0u);
       EXPECT_EQ(collUnlock(w.a), 1u);  // no transaction: nothing to tell
     },
     "a:c,r,n,m b: c:", "a[p=1,r=2,a=1,n=1,m=1] b[r=2,n=1,m=1] c[]"},
    {"same value", "", [](World &w) { Held(w); Set(w.a, "a", "1"); Set(w.a, "a", "1"); collUnlock(w.a); }, "a:a b: c:", nullptr},
    {"delete, store, delete", "", [](World &w) { Held(w); Del(w.a, "c"); Set(w.a, "c", "1"); Del(w.a, "c"); collUnlock(w.a); },
     "a:c,c b: c:", nullptr},
    {"delete, store", "", [](World &w) { Held(w); Del(w.a, "c"); Set(w.a, "c", "1"); collUnlock(w.a); }, "a:c,c b: c:", nullptr},
    {"delete, store, other length", "",
     [](World &w) { Held(w); Del(w.a, "c"); Set(w.a, "c", "1"); Set(w.a, "c", "22"); collUnlock(w.a); }, "a:c b: c:", nullptr},
    {"stored spelling", "", [](World &w) { Held(w); Set(w.a, "Abc", "1"); Set(w.a, "aBC", "1"); collUnlock(w.a); }, "a:aBC b: c:",
     nullptr},
    {"delete twice", "", [](World &w) { Held(w); Del(w.a, "C"); Del(w.a, "c"); collUnlock(w.a); }, "a:C b: c:", nullptr},
    {"long tags told whole", "",
     [](World &w) {
       for (const std::string &t : {Long('d', 1023), Long('e', 700), Long('f', 700)}) Set(w.a, t.c_str(), "1");
       Held(w);
       // Deleted tags queue with their zeros, in whole chunks of 1023 bytes.
       Del(w.a, Long('d', 1023).c_str());
       EXPECT_EQ(Queue(w.a), std::make_pair(2u, 1024u));
       for (const std::string &t : {Long('e', 700), Long('f', 700)}) Del(w.a, t.c_str());
       EXPECT_EQ(Queue(w.a), std::make_pair(3u, 2426u));
       Set(w.a, Long('m', 300).c_str(), "1");
       collUnlock(w.a);
     },
     "a:d*1023,e*700,f*700,m*300 b: c:", nullptr},
    {"a repeated lock ends at the first unlock", "a",
     [](World &w) {
       EXPECT_EQ(collLock(w.a), 1u); EXPECT_EQ(collLock(w.a), 1u); Set(w.a, "x", "1"); EXPECT_EQ(collUnlock(w.a), 1u);
       EXPECT_EQ(Header32(w.a, coll::ch::lockThread), 0u); Set(w.a, "y", "1");
     },
     "a:x,y b: c:", "a[x=1,y=1] b[] c[]"},
    {"propagation into a held target waits for its unlock", "a",
     [](World &w) {
       P(w.a, w.b); P(w.b, w.c); P(w.c, w.a); collLock(w.b); Set(w.a, "x", "1"); EXPECT_EQ(Mark(w.b, "x"), 1u);
       EXPECT_EQ(Item(w.c, "x"), "<missing>");
       collUnlock(w.b);  // a new change from b: it reaches c, and a unchanged
     },
     "a:x b: c:", "a[x=1] b[x=1] c[x=1]"},
    {"a window's change during unlock is told at once", "a",
     [](World &w) {
       w.la.onMessage = [&w](const Heard &m) { if (m.tag == "x") Set(w.a, "z", "1"); }; collLock(w.a);
       Set(w.a, "x", "1"); Set(w.a, "y", "1"); collUnlock(w.a); EXPECT_EQ(Mark(w.a, "z"), 0u);
     },
     "a:x,z,y b: c:", "a[x=1,y=1,z=1] b[] c[]"},
    {"the queue goes with the collection", "",
     [](World &w) {
       Held(w); Del(w.a, "c"); collClose(w.a); EXPECT_EQ(collOpen("next"), w.a); w.Listen("a"); collLock(w.a);
       collUnlock(w.a);
     },
     "a: b: c:", "a[] b[] c[]"},
};

TEST(Notify, Scenarios) {
  for (const Scenario &s : kScenarios) {
    SCOPED_TRACE(s.name); World w; w.Listen(s.listen); s.steps(w); EXPECT_EQ(w.Told(), s.told);
    if (s.state) {
      EXPECT_EQ(w.State(), s.state);
    }
    for (HCOLL h : {w.a, w.b, w.c}) collClose(h);
  }
}

TEST(Notify, RequestResultsAndLimits) {
  HCOLL h = collOpen("c"), b = collOpen("b");
  Listener l, ls[33];
  const uint32_t gone = collHostCreateWindow(&Quiet, nullptr);
  EXPECT_EQ(collRequestAdvice(h, gone, 1), 1u);
  EXPECT_EQ(collRequestAdvice(h, gone, 1), 1u);  // its count rises
  collHostDestroyWindow(gone);
  const uint32_t results[][2] = {
      {collRequestAdvice(h, 0, 0), 1},  // only asks whether h is a collection
      {collRequestAdvice(h, 0, 1), 0},          {collRequestAdvice(h, 0x12345678, 1), 0},
      {collRequestAdvice(h, l.window(), 0), 0}, {collRequestPropagate(h, 0, 0), 0},
      {collRequestPropagate(h, h, 1), 0},       {collRequestPropagate(h, b, 0), 0}};
  for (size_t i = 0; i < std::size(results); ++i) EXPECT_EQ(results[i][0], results[i][1]) << i;
  // 32 windows; a dead one goes at the next change with all its counts.
  for (int i = 0; i < 31; ++i) ASSERT_EQ(collRequestAdvice(h, ls[i].window(), 1), 1u) << i;
  EXPECT_EQ(collRequestAdvice(h, ls[31].window(), 1), 0u); EXPECT_EQ(collRequestAdvice(h, ls[0].window(), 1), 1u);
  Set(h, "x", "1"); EXPECT_EQ(Header32(h, coll::ch::adviceTarget), ls[0].window());
  EXPECT_EQ(Header32(h, coll::ch::adviceCount), 2u); EXPECT_EQ(collRequestAdvice(h, gone, 0), 0u);
  EXPECT_EQ(collRequestAdvice(h, ls[31].window(), 1), 1u); EXPECT_EQ(collRequestAdvice(h, ls[32].window(), 1), 0u);
  // Withdrawing counts down; the last withdrawal moves the others up.
  EXPECT_EQ(collRequestAdvice(h, ls[0].window(), 0), 1u);
  Set(h, "x", "2");  // one message per change, whatever the count
  EXPECT_EQ(collRequestAdvice(h, ls[0].window(), 0), 1u); Set(h, "x", "3"); EXPECT_EQ(ls[0].count(), 2u);
  EXPECT_EQ(ls[1].count(), 3u); EXPECT_EQ(Header32(h, coll::ch::adviceTarget), ls[1].window());
  EXPECT_EQ(Header32(h, coll::ch::adviceTarget + 4 * 31), 0u); EXPECT_EQ(collRequestAdvice(h, ls[32].window(), 1), 1u);
  EXPECT_EQ(Header32(h, coll::ch::adviceTarget + 4 * 31), ls[32].window());
  // 32 propagation targets; withdrawing needs no live target.
  for (int i = 0; i < 32; ++i) ASSERT_EQ(collRequestPropagate(h, b, 1), 1u) << i;
  EXPECT_EQ(collRequestPropagate(h, b, 1), 0u); collClose(b); EXPECT_EQ(collRequestPropagate(h, b, 0), 1u);
  EXPECT_EQ(Header32(h, coll::ch::propTarget + 4 * 31), 0u); EXPECT_EQ(Header32(h, coll::ch::propTarget + 4 * 30), b);
  collClose(h);
  for (uint32_t r : {collRequestAdvice(h, 0, 0), collRequestAdvice(h, l.window(), 1), collLock(h), collUnlock(h)})
    EXPECT_EQ(r, 0u);
  EXPECT_NE(collOpen("later"), 0u);  // the lock was not left held
}

// The advice message: the number registered for its name, wParam the
// collection, lParam the tag area (length word, the caller's spelling, a
// zero, four zero bytes).
TEST(Notify, TheAdviceMessage) {
  uint8_t *area = coll::MakeTagArea("ab", 100);  // the length stops at the zero
  EXPECT_EQ(coll::rd16(area), 2u); coll::collFreePtr(area); Listener l;
  HCOLL h = collOpen("c");
  collRequestAdvice(h, l.window(), 1); Set(h, "ABC", "1"); Del(h, "abc");
  const auto heard = l.heard();
  ASSERT_EQ(heard.size(), 2u); EXPECT_EQ(heard[0].message, collHostRegisterMessage("COLL_ADVICE"));
  EXPECT_EQ(heard[0].coll, h);
  EXPECT_EQ(heard[0].area + heard[1].area, std::string("\x03\x00" "ABC\0\0\0\0\0" "\x03\x00" "abc\0\0\0\0\0", 20));
}

}  // namespace
