// The catalog of shared collections, their initialisation-file sections,
// unique collections and names, and the initialisation-file service itself.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "coll.h"
#include "coll_host.h"
#include "platform/platform.h"
#include "store/store.h"
#include "tests/test_util.h"

namespace {

constexpr HCOLL kCatalog = 0x4001;

// Points the initialisation file at a fresh temporary directory.
class Ini : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.empty()); }

  std::string File() const {
    std::string s;
    if (FILE *f = std::fopen(path_.c_str(), "rb")) {
      char buf[4096];
      size_t n;
      while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
      std::fclose(f);
    }
#ifdef _WIN32  // the system's profile functions end lines with CR LF
    s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
#endif
    return s;
  }
  void SetFile(const std::string &text) const {
    FILE *f = std::fopen(path_.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }

  testutil::TempIni ini_;
  const std::string &dir_ = ini_.dir();
  const std::string &path_ = ini_.path();
};

std::string Name(HCOLL h) {
  char buf[80] = {};
  collGetName(h, buf, sizeof buf);
  return buf;
}

std::string String(HCOLL h, const char *tag) {
  char buf[300] = {};
  if (collGetString(h, tag, buf, sizeof buf) == 0) return "<failed>";
  return buf;
}

std::string Value(const char *section, const char *key, const char *def = "<none>") {
  char buf[300];
  platform::ProfileReadString(section, key, def, buf, sizeof buf);
  return buf;
}

std::string Keys(const char *section, uint32_t size = 10000) {
  std::vector<char> buf(size + 1, '#');
  uint32_t n = platform::ProfileListKeys(section, buf.data(), size);
  std::string out;
  for (uint32_t i = 0; i < n; ++i) out += buf[i] ? buf[i] : '|';
  return out;
}

#ifndef _WIN32
// Waits for a child process, killing it when it takes far too long.
bool ChildSucceeded(pid_t pid) {
  int status = 0;
  for (int i = 0; i < 3000; ++i) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (r < 0 && errno != EINTR) return false;
    usleep(10000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return false;
}
#endif

// ---------------------------------------------------------------- catalog

TEST_F(Ini, CatalogIsNamedAndSharedOnce) {
  EXPECT_EQ(Name(kCatalog), "_Catalog");
  EXPECT_EQ(collGetShareCount(kCatalog), 1u);
  EXPECT_EQ(collItemCount(kCatalog), 0u);
}

TEST_F(Ini, SharedOpensCountAndCloseRemovesEntry) {
  HCOLL h = collOpenShared("Orders");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(collGetShareCount(h), 1u);
  EXPECT_EQ(Name(h), "Orders");
  EXPECT_EQ(collGetType(kCatalog, "ORDERS"), uint32_t(COLLTYPE_ITEM));
  EXPECT_EQ(testutil::Item(kCatalog, "orders"), std::to_string(h));

  EXPECT_EQ(collOpenShared("oRDERS"), h);
  EXPECT_EQ(collGetShareCount(h), 2u);
  EXPECT_EQ(testutil::Tags(kCatalog), "Orders");  // first opener's spelling

  collClose(h);
  EXPECT_EQ(collIsBadCollHandle(h), 0u);
  EXPECT_EQ(collGetShareCount(h), 1u);
  collClose(h);
  EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(collItemCount(kCatalog), 0u);

  HCOLL again = collOpenShared("orders");
  ASSERT_NE(again, 0u);
  EXPECT_EQ(collGetShareCount(again), 1u);
  EXPECT_EQ(testutil::Tags(kCatalog), "orders");
  collClose(again);
}

TEST_F(Ini, CatalogListsEachSharedName) {
  HCOLL a = collOpenShared("A");
  HCOLL b = collOpenShared("B");
  HCOLL p = collOpen("A");
  ASSERT_TRUE(a && b && p);
  EXPECT_NE(p, a);
  EXPECT_EQ(collOpenShared("b"), b);
  EXPECT_EQ(testutil::Item(kCatalog, "A"), std::to_string(a));
  EXPECT_EQ(testutil::Item(kCatalog, "B"), std::to_string(b));
  EXPECT_EQ(testutil::Item(kCatalog, "_Catalog"), "<missing>");
}

TEST_F(Ini, CatalogNameInAnyCaseGivesTheCatalog) {
  for (const char *name : {"_Catalog", "_catalog", "_CATALOG", "_cAtAlOg"}) EXPECT_EQ(collOpenShared(name), kCatalog);
  EXPECT_EQ(collGetShareCount(kCatalog), 5u);
  EXPECT_EQ(collItemCount(kCatalog), 0u);
  for (int i = 0; i < 6; ++i) collClose(kCatalog);
  EXPECT_EQ(collGetShareCount(kCatalog), 1u);
  EXPECT_EQ(collIsBadCollHandle(kCatalog), 0u);
  EXPECT_EQ(collOpenShared("_Catalog_"), kCatalog + 1);  // only the exact name
}

TEST_F(Ini, SharedNameLengths) {
  std::string n64(64, 'n'), n65(65, 'n');
  EXPECT_EQ(collOpenShared(""), 0u);
  EXPECT_EQ(collOpenShared(nullptr), 0u);
  EXPECT_EQ(collOpenShared(n65.c_str()), 0u);
  EXPECT_EQ(collItemCount(kCatalog), 0u);
  HCOLL h = collOpenShared(n64.c_str());
  ASSERT_NE(h, 0u);
  EXPECT_EQ(Name(h), n64);
  EXPECT_EQ(collOpenShared(std::string(64, 'N').c_str()), h);
  EXPECT_EQ(collGetShareCount(h), 2u);
}

TEST_F(Ini, StaleEntryIsOverwritten) {
  SetFile("[Gone]\nk=v\n");
  HCOLL h = collOpenShared("Gone");
  ASSERT_NE(h, 0u);
  ASSERT_TRUE(collSetString(h, "k", "changed"));
  ASSERT_TRUE(collOpenShared("gone"));
  {
    coll::LockGuard lock;
    coll::DestroyCollHandle(h);  // vanishes without a close
  }
  EXPECT_EQ(testutil::Item(kCatalog, "Gone"), std::to_string(h));
  HCOLL again = collOpenShared("GONE");
  ASSERT_NE(again, 0u);
  EXPECT_EQ(collGetShareCount(again), 1u);
  EXPECT_EQ(String(again, "k"), "v");  // loaded afresh
  EXPECT_EQ(testutil::Tags(kCatalog), "GONE");
  EXPECT_EQ(testutil::Item(kCatalog, "gone"), std::to_string(again));
}

// ---------------------------------------------------------------- loading

TEST_F(Ini, SectionLoadsOnceAsText) {
  SetFile("; orders kept here\n[Other]\nCount=1\n[ Orders ]\nCount=12\n  Name =  abc  \nEmpty=\n; Note=x\nnot a key\n");
  HCOLL h = collOpenShared("Orders");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(testutil::Tags(h), "Count,Name");
  EXPECT_EQ(collGetType(h, "Count"), uint32_t(COLLTYPE_STRING));
  EXPECT_EQ(String(h, "Count"), "12");
  EXPECT_EQ(String(h, "name"), "abc");

  SetFile("[Orders]\nCount=99\nMore=1\n");
  EXPECT_EQ(collOpenShared("orders"), h);
  EXPECT_EQ(testutil::Tags(h), "Count,Name");
  EXPECT_EQ(String(h, "Count"), "12");

  collClose(h);
  collClose(h);
  h = collOpenShared("ORDERS");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(testutil::Tags(h), "Count,More");
  EXPECT_EQ(String(h, "Count"), "99");
}

TEST_F(Ini, LoadedValuesAreCutTo254) {
  SetFile("[L]\nlong=" + std::string(300, 'v') + "\n");
  HCOLL h = collOpenShared("L");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(String(h, "long"), std::string(254, 'v'));
}

TEST_F(Ini, AbsentFileGivesEmptySharedCollection) {
  HCOLL h = collOpenShared("Nothing");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(collItemCount(h), 0u);
  EXPECT_EQ(File(), "");  // opening never writes
}

// ---------------------------------------------------------------- unique

TEST_F(Ini, UniqueCandidatesAndReuse) {
  HCOLL orders = collOpenShared("Orders");
  ASSERT_NE(orders, 0u);
  HCOLL u1 = collOpenUnique("Orders");
  HCOLL u2 = collOpenUnique("orders");
  ASSERT_TRUE(u1 && u2);
  EXPECT_EQ(Name(u1), "Orders_1");
  EXPECT_EQ(Name(u2), "orders_2");
  EXPECT_EQ(collGetShareCount(u1), 1u);
  EXPECT_EQ(collOpenShared("ORDERS_1"), u1);
  EXPECT_EQ(collGetShareCount(u1), 2u);
  collClose(u1);
  collClose(u1);
  EXPECT_EQ(collIsBadCollHandle(u1), 1u);
  HCOLL u3 = collOpenUnique("Orders");
  ASSERT_NE(u3, 0u);
  EXPECT_EQ(Name(u3), "Orders_1");
  EXPECT_EQ(testutil::Tags(kCatalog), "Orders,orders_2,Orders_1");
}

TEST_F(Ini, UniqueOfFreeNameIsTheNameAndStartsEmpty) {
  const std::string before = "[Fresh]\na=1\nb=2\n";
  SetFile(before);
  HCOLL h = collOpenUnique("Fresh");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(Name(h), "Fresh");
  EXPECT_EQ(collItemCount(h), 0u);
  EXPECT_EQ(File(), before);
  // Joining it later does not read the file either.
  EXPECT_EQ(collOpenShared("fresh"), h);
  EXPECT_EQ(collItemCount(h), 0u);
}

TEST_F(Ini, UniqueOfLongNameInUseFails) {
  for (size_t len : {63u, 64u}) {
    std::string name(len, char('a' + len - 63));
    HCOLL h = collOpenShared(name.c_str());
    ASSERT_NE(h, 0u);
    EXPECT_EQ(collOpenUnique(name.c_str()), 0u);
    EXPECT_EQ(collGetShareCount(h), 1u);
  }
  std::string n62(62, 'c');
  ASSERT_NE(collOpenShared(n62.c_str()), 0u);
  HCOLL u = collOpenUnique(n62.c_str());
  ASSERT_NE(u, 0u);
  EXPECT_EQ(Name(u), n62 + "_1");
  EXPECT_EQ(collOpenUnique(std::string(65, 'x').c_str()), 0u);
  EXPECT_EQ(collOpenUnique(""), 0u);
  EXPECT_EQ(collOpenUnique(nullptr), 0u);
}

TEST_F(Ini, UniqueSkipsStaleEntries) {
  HCOLL a = collOpenShared("S");
  HCOLL b = collOpenUnique("S");
  ASSERT_TRUE(a && b);
  {
    coll::LockGuard lock;
    coll::DestroyCollHandle(b);
  }
  HCOLL c = collOpenUnique("S");
  ASSERT_NE(c, 0u);
  EXPECT_EQ(Name(c), "S_1");
  EXPECT_EQ(testutil::Item(kCatalog, "s_1"), std::to_string(c));
}

TEST_F(Ini, UniqueOfCatalogKeepsItsEntries) {
  HCOLL h = collOpenShared("Kept");
  ASSERT_NE(h, 0u);
  EXPECT_EQ(collOpenUnique("_CATALOG"), kCatalog);
  EXPECT_EQ(collGetShareCount(kCatalog), 2u);
  EXPECT_EQ(testutil::Tags(kCatalog), "Kept");
}

TEST_F(Ini, UniqueEmptiesAnAlreadyLoadedSection) {
  SetFile("[Busy]\nx=1\n[Busy_1]\ny=2\n");
  HCOLL busy = collOpenShared("Busy");
  ASSERT_NE(busy, 0u);
  EXPECT_EQ(collItemCount(busy), 1u);
  HCOLL u = collOpenUnique("Busy");
  ASSERT_NE(u, 0u);
  EXPECT_EQ(Name(u), "Busy_1");
  EXPECT_EQ(collItemCount(u), 0u);
  EXPECT_EQ(collItemCount(busy), 1u);
}

// ---------------------------------------------------------------- collWrite

TEST_F(Ini, WriteRendersEachType) {
  HCOLL h = collOpen("W");
  ASSERT_NE(h, 0u);
  ASSERT_TRUE(collSetNumeric(h, "num", 42));
  ASSERT_TRUE(collSetNumeric(h, "neg", -7));
  ASSERT_TRUE(collSetItem(h, "raw", "ab\x01" "cd", 5));
  ASSERT_TRUE(collSetItem(h, "zero", "\0ab", 3));
  ASSERT_TRUE(collSetItem(h, "del", "x\x7fy\x80z", 5));
  ASSERT_TRUE(collSetString(h, "text", "hello world"));
  ASSERT_TRUE(collSetString(h, "high", "\x80\xff"));
  ASSERT_TRUE(collSetString(h, "big", std::string(200, 'b').c_str()));
  ASSERT_TRUE(collSetString(h, "t127", std::string(127, 's').c_str()));
  ASSERT_TRUE(collSetString(h, "t128", std::string(128, 's').c_str()));
  ASSERT_TRUE(collSetTime(h, "time", 86400));
  HCOLL child = collOpen("child");
  ASSERT_TRUE(collSetNumeric(child, "x", 1));
  ASSERT_TRUE(collSetColl(h, "nested", child));
  {
    coll::LockGuard lock;
    static const uint8_t noTable[4] = {};
    ASSERT_TRUE(coll::SetItem(h, "table", coll::BuildItem(COLLTYPE_TABLE, noTable, 4), 0));
    ASSERT_TRUE(coll::SetItem(h, "seven", coll::BuildItem(7, "s\x01" "7\0tail", 8), 0));
    ASSERT_TRUE(coll::SetItem(h, "sevenEmpty", coll::BuildItem(7, "\0x", 2), 0));
  }
  EXPECT_EQ(collWrite(h), 1u);
  EXPECT_EQ(File(), "[W]\nnum=42\nneg=-7\nraw=ab\ndel=x\x7fy\ntext=hello world\nhigh=\x80\xff\nt127=" +
                        std::string(127, 's') + "\ntime=Fri Jan  2 00:00:00 1970\nseven=s\x01" "7\n");
}

TEST_F(Ini, WrittenCollectionReadsBackAsText) {
  HCOLL h = collOpen("Round");
  ASSERT_TRUE(collSetNumeric(h, "n", 5));
  ASSERT_TRUE(collSetItem(h, "r", "bytes", 0xFFFFFFFF));
  ASSERT_EQ(collWrite(h), 1u);
  HCOLL s = collOpenShared("round");
  ASSERT_NE(s, 0u);
  EXPECT_EQ(testutil::Tags(s), "n,r");
  EXPECT_EQ(collGetType(s, "n"), uint32_t(COLLTYPE_STRING));
  EXPECT_EQ(String(s, "n"), "5");
  EXPECT_EQ(String(s, "r"), "bytes");
}

TEST_F(Ini, WriteReplacesOnlyItsSection) {
  SetFile("; top\r\n[First]\r\nk=1\r\n\r\n[W]\r\nold=1\r\n; gone with the section\r\n[Last]\r\nz=9\r\n");
  HCOLL h = collOpen("w");
  ASSERT_TRUE(collSetNumeric(h, "New", 2));
  ASSERT_EQ(collWrite(h), 1u);
#ifdef _WIN32  // the system's profile functions drop blank lines
  EXPECT_EQ(File(), "; top\n[First]\nk=1\n[Last]\nz=9\n[w]\nNew=2\n");
#else
  EXPECT_EQ(File(), "; top\r\n[First]\r\nk=1\r\n\r\n[Last]\r\nz=9\r\n[w]\r\nNew=2\r\n");
#endif
}

TEST_F(Ini, WriteOfEmptyCollectionDeletesSection) {
  SetFile("[E]\na=1\n[F]\nb=2\n");
  HCOLL h = collOpen("e");
  EXPECT_EQ(collWrite(h), 1u);
  EXPECT_EQ(File(), "[F]\nb=2\n");
  EXPECT_EQ(collWrite(h), 1u);
  EXPECT_EQ(File(), "[F]\nb=2\n");
  EXPECT_EQ(collWrite(0x40FE), 0u);
  EXPECT_EQ(collWrite(0), 0u);
  EXPECT_EQ(File(), "[F]\nb=2\n");
}

TEST_F(Ini, WriteOfUnusableNameGoesToUnnamed) {
  HCOLL none = collOpen(nullptr);
  HCOLL ctrl = collOpen("a\x1f");
  HCOLL high = collOpen("b\x80");
  HCOLL del = collOpen("c\x7f");
  ASSERT_TRUE(none && ctrl && high && del);
  ASSERT_TRUE(collSetNumeric(none, "none", 1));
  ASSERT_TRUE(collSetNumeric(ctrl, "ctrl", 2));
  ASSERT_TRUE(collSetNumeric(high, "high", 3));
  ASSERT_TRUE(collSetNumeric(del, "del", 4));
  for (HCOLL h : {none, ctrl, high, del}) EXPECT_EQ(collWrite(h), 1u);
  // Each write replaces the whole section, so only the last one's keys stay.
  EXPECT_EQ(Keys("_unnamed"), "high|");
  EXPECT_EQ(Value("C\x7f", "DEL"), "4");
}

TEST_F(Ini, WriteOfCatalogAndLongTags) {
  HCOLL s = collOpenShared("Listed");
  std::string tag(300, 't');
  HCOLL h = collOpen("Long");
  ASSERT_TRUE(s && h);
  ASSERT_TRUE(collSetNumeric(h, tag.c_str(), 1));
  EXPECT_EQ(collWrite(h), 1u);
  EXPECT_EQ(Value("Long", tag.c_str()), "1");
  EXPECT_EQ(collWrite(kCatalog), 1u);
  EXPECT_EQ(Value("_catalog", "listed"), std::to_string(s));
}

TEST_F(Ini, FailedKeyWriteEndsTheWalk) {
  SetFile("[X]\nold=1\n");
  HCOLL h = collOpen("X");
  ASSERT_TRUE(collSetNumeric(h, "a", 1));
  ASSERT_TRUE(collSetNumeric(h, "[b", 2));  // a key no line can hold
  ASSERT_TRUE(collSetNumeric(h, "c", 3));
  EXPECT_EQ(collWrite(h), 0u);
  EXPECT_EQ(File(), "[X]\na=1\n");
}

// ---------------------------------------------------------------- unique names

TEST_F(Ini, GeneratedNamesCountUp) {
  char buf[100];
  const char *expect[] = {"local_aaaaaaaa", "local_aaaaaaab", "local_aaaaaaac"};
  for (const char *e : expect) {
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(collGenerateNewName(buf, sizeof buf), 14u);
    EXPECT_STREQ(buf, e);
  }
  EXPECT_EQ(File(), "[_General]\nUniqueName=local_aaaaaaad\n");
}

TEST_F(Ini, GeneratedNameOdometer) {
  struct Step {
    const char *stored, *next;
  };
  const Step steps[] = {{"local_aaaaaaaz", "local_aaaaaaba"},
                        {"local_zzzzzzzz", "local_aaaaaaaa"},
                        {"local_aB", "local_ba"},
                        {"zzz", "zaa"},
                        {"abc_", "abc_"},
                        {"x", "x"},
                        {"a-z", "aaa"}};
  for (const Step &s : steps) {
    SetFile(std::string("[_general]\nuniquename = ") + s.stored + "\n");
    char buf[100];
    EXPECT_EQ(collGenerateNewName(buf, sizeof buf), std::strlen(s.stored));
    EXPECT_STREQ(buf, s.stored);
    EXPECT_EQ(Value("_General", "UniqueName"), s.next) << s.stored;
  }
}

TEST_F(Ini, GeneratedNameBufferRules) {
  char buf[20];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(collGenerateNewName(buf, 14), 0u);  // no room for the zero
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(buf[1], '#');
  EXPECT_EQ(File(), "");
  EXPECT_EQ(collGenerateNewName(nullptr, 0), 0u);
  EXPECT_EQ(collGenerateNewName(buf, 0), 0u);
  EXPECT_EQ(collGenerateNewName(nullptr, 13), 0u);
  EXPECT_EQ(collGenerateNewName(reinterpret_cast<char *>(0x10), 100), 0u);
  EXPECT_EQ(File(), "");
  EXPECT_EQ(collGenerateNewName(nullptr, 14), 14u);  // skips a name
  EXPECT_EQ(collGenerateNewName(buf, 15), 14u);
  EXPECT_STREQ(buf, "local_aaaaaaab");
}

TEST_F(Ini, EmptyStoredNameStaysEmpty) {
  SetFile("[_General]\nUniqueName=\n");
  char buf[10] = "#########";
  EXPECT_EQ(collGenerateNewName(buf, sizeof buf), 0u);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(collGenerateNewName(nullptr, 0), 0u);
  EXPECT_EQ(Value("_General", "UniqueName"), "");
}

TEST_F(Ini, StoredNameIsCutTo99) {
  std::string stored = "n_" + std::string(120, 'q');
  SetFile("[_General]\nUniqueName=" + stored + "\n");
  std::vector<char> buf(200);
  EXPECT_EQ(collGenerateNewName(buf.data(), 200), 99u);
  EXPECT_EQ(std::string(buf.data()), stored.substr(0, 99));
  EXPECT_EQ(Value("_General", "UniqueName"), "n_" + std::string(96, 'q') + "r");
}

// ---------------------------------------------------------------- the file service

TEST_F(Ini, ServiceMatchesNamesWithoutCaseAndTrims) {
  SetFile("[Sec]\n  Key  =  some value  \nother=x=y\n[sec]\nshadowed=1\n");
  EXPECT_EQ(Value("SEC", "key"), "some value");
  EXPECT_EQ(Value(" sec ", " KEY "), "some value");
  EXPECT_EQ(Value("sec", "other"), "x=y");
  EXPECT_EQ(Value("sec", "shadowed"), "<none>");
  EXPECT_EQ(Value("none", "key", "dflt"), "dflt");
  EXPECT_EQ(Keys("sec"), "Key|other|");
  EXPECT_EQ(Keys("absent"), "");

  ASSERT_TRUE(platform::ProfileWriteString("SEC", "KEY", "new"));
#ifdef _WIN32  // the system keeps a key's spelling and drops blanks before a value
  EXPECT_EQ(File(), "[Sec]\nKey=new\nother=x=y\n[sec]\nshadowed=1\n");
  ASSERT_TRUE(platform::ProfileWriteString("Sec", "added", " v "));
  EXPECT_EQ(File(), "[Sec]\nKey=new\nother=x=y\nadded=v \n[sec]\nshadowed=1\n");
#else
  EXPECT_EQ(File(), "[Sec]\nKEY=new\nother=x=y\n[sec]\nshadowed=1\n");
  ASSERT_TRUE(platform::ProfileWriteString("Sec", "added", " v "));
  EXPECT_EQ(File(), "[Sec]\nKEY=new\nother=x=y\nadded= v \n[sec]\nshadowed=1\n");
#endif
  EXPECT_EQ(Value("sec", "added"), "v");
  ASSERT_TRUE(platform::ProfileDeleteSection("sEc"));
  EXPECT_EQ(File(), "");
}

TEST_F(Ini, ServiceCutsToBuffers) {
  SetFile("[S]\nalpha=1\nbeta=2\ngamma=3\n");
  EXPECT_EQ(Keys("S", 12), "alpha|beta|");  // only whole names fit
  EXPECT_EQ(Keys("S", 11), "alpha|");
  EXPECT_EQ(Keys("S", 1), "");
  char buf[4] = "###";
  EXPECT_EQ(platform::ProfileReadString("S", "alpha", "", buf, 1), 0u);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(platform::ProfileReadString("S", "zz", "default", buf, 4), 3u);
  EXPECT_STREQ(buf, "def");
}

TEST_F(Ini, ServiceRefusesWhatNoLineCanHold) {
  SetFile("[S]\na=1\n");
  EXPECT_FALSE(platform::ProfileWriteString("S", "[k", "v"));
  EXPECT_FALSE(platform::ProfileWriteString("S", "k\nx", "v"));
  EXPECT_FALSE(platform::ProfileWriteString("S\n", "k", "v"));
  EXPECT_FALSE(platform::ProfileWriteString("  ", "k", "v"));
  EXPECT_FALSE(platform::ProfileWriteString("S", " ", "v"));
  EXPECT_EQ(File(), "[S]\na=1\n");
  ASSERT_TRUE(platform::ProfileWriteString("S", "b", "one\ntwo"));
  ASSERT_TRUE(platform::ProfileWriteString("a]b", "c", "d"));
  EXPECT_EQ(File(), "[S]\na=1\nb=one\n[a]b]\nc=d\n");
  EXPECT_EQ(Value("A]B", "c"), "d");
}

TEST_F(Ini, FileWithoutFinalLineBreak) {
  SetFile("[S]");
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "v"));
  EXPECT_EQ(File(), "[S]\nk=v\n");
  SetFile("[S]\nk=v");
  ASSERT_TRUE(platform::ProfileWriteString("T", "x", "y"));
  EXPECT_EQ(File(), "[S]\nk=v\n[T]\nx=y\n");
}

#ifndef _WIN32
// Links and the per-user default location belong to the POSIX file service;
// on Windows the system's profile functions decide both.
TEST_F(Ini, LinkedFileIsUpdatedThroughTheLink) {
  std::string target = dir_ + "/real.ini";
  std::string link = dir_ + "/link.ini";
  ASSERT_EQ(symlink("real.ini", link.c_str()), 0);
  collHostSetProfilePath(target.c_str());
  ASSERT_TRUE(platform::ProfileWriteString("S", "old", "1"));
  collHostSetProfilePath(link.c_str());
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "v"));
  struct stat st;
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(Value("s", "K"), "v");
  collHostSetProfilePath(target.c_str());
  EXPECT_EQ(Value("s", "old"), "1");
  EXPECT_EQ(Value("s", "k"), "v");
  std::remove(link.c_str());
  std::remove(target.c_str());
  std::remove((target + ".lock").c_str());
}

TEST(IniDefault, LivesInTheUsersConfigDirectory) {
  char tmpl[] = "/tmp/coll_home_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  std::string home = tmpl;
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", home.c_str(), 1);
  collHostSetProfilePath("");
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "home"));  // makes ~/.config
  EXPECT_EQ(Value("S", "k"), "home");
  std::string xdg = home + "/xdg";
  ASSERT_EQ(mkdir(xdg.c_str(), 0700), 0);
  setenv("XDG_CONFIG_HOME", xdg.c_str(), 1);
  EXPECT_EQ(Value("S", "k"), "<none>");
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "xdg"));
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(Value("S", "k"), "home");
  for (const std::string &f : {home + "/.config/COLL.INI", home + "/.config/COLL.INI.lock", xdg + "/COLL.INI",
                               xdg + "/COLL.INI.lock"})
    EXPECT_EQ(std::remove(f.c_str()), 0) << f;
  rmdir((home + "/.config").c_str());
  rmdir(xdg.c_str());
  rmdir(home.c_str());
}

#endif  // !_WIN32

// ---------------------------------------------------------------- other processes

#ifndef _WIN32  // fork
TEST_F(Ini, OtherProcessSectionsSurviveWrites) {
  HCOLL a = collOpen("Mine");
  ASSERT_TRUE(collSetNumeric(a, "v", 1));
  ASSERT_EQ(collWrite(a), 1u);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    HCOLL b = collOpen("Theirs");
    bool ok = b && collSetString(b, "w", "child") && collWrite(b) == 1;
    _exit(ok ? 0 : 1);
  }
  ASSERT_TRUE(ChildSucceeded(pid));
  ASSERT_TRUE(collSetNumeric(a, "v", 2));
  ASSERT_EQ(collWrite(a), 1u);
  EXPECT_EQ(File(), "[Theirs]\nw=child\n[Mine]\nv=2\n");
}

TEST_F(Ini, ConcurrentWritersKeepEveryKey) {
  constexpr int kKeys = 40;
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  const char *section = pid == 0 ? "Child" : "Parent";
  bool ok = true;
  for (int i = 0; i < kKeys; ++i)
    ok = platform::ProfileWriteString(section, ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()) && ok;
  if (pid == 0) _exit(ok ? 0 : 1);
  EXPECT_TRUE(ok);
  ASSERT_TRUE(ChildSucceeded(pid));
  for (const char *s : {"Child", "Parent"})
    for (int i = 0; i < kKeys; ++i) EXPECT_EQ(Value(s, ("K" + std::to_string(i)).c_str()), std::to_string(i)) << s;
}

#endif  // !_WIN32

}  // namespace
