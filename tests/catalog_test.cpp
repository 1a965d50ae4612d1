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

using testutil::Item;
using testutil::Tags;

namespace {

constexpr HCOLL kCatalog = 0x4001;

// Points the initialisation file at a fresh temporary directory.
class Ini : public ::testing::Test {
 protected:
  std::string File() const {
    std::string s;
    if (FILE *f = std::fopen(ini_.path().c_str(), "rb")) {
      for (int c; (c = std::fgetc(f)) != EOF;) s += char(c);
      std::fclose(f);
    }
#ifdef _WIN32  // the system's profile functions end lines with CR LF
    s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
#endif
    return s;
  }
  void SetFile(const std::string &text) const {
    FILE *f = std::fopen(ini_.path().c_str(), "wb"); ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }
  testutil::TempIni ini_;
};

std::string Name(HCOLL h) {
  char buf[80] = {};
  collGetName(h, buf, sizeof buf);
  return buf;
}
std::string String(HCOLL h, const char *tag) {
  char buf[300] = {};
  return collGetString(h, tag, buf, sizeof buf) ? buf : "<failed>";
}
std::string Value(const char *section, const char *key, const char *def = "<none>") {
  char buf[300];
  platform::ProfileReadString(section, key, def, buf, sizeof buf);
  return buf;
}
std::string Keys(const char *section, uint32_t size = 10000) {
  std::vector<char> buf(size + 1, '#');
  const uint32_t n = platform::ProfileListKeys(section, buf.data(), size);
  std::string out(buf.data(), n);
  std::replace(out.begin(), out.end(), '\0', '|');
  return out;
}
// Vanishes without a close, leaving its catalog entry stale.
void Vanish(HCOLL h) {
  coll::LockGuard lock; coll::DestroyCollHandle(h);
}

// ---------------------------------------------------------------- catalog

TEST_F(Ini, SharedCollectionsAndTheCatalog) {
  EXPECT_EQ(Name(kCatalog), "_Catalog"); EXPECT_EQ(collGetShareCount(kCatalog) * 10 + collItemCount(kCatalog), 10u);
  // Names of 1 to 64 characters, matched without regard to case; the
  // catalog lists each under its first opener's spelling, as raw bytes.
  const std::string n65(65, 'n');
  for (const char *bad : {"", static_cast<const char *>(nullptr), n65.c_str()}) EXPECT_EQ(collOpenShared(bad), 0u);
  const std::string n64(64, 'n');
  HCOLL h = collOpenShared("Orders"), p = collOpen("Orders"), n = collOpenShared(n64.c_str());
  ASSERT_TRUE(h && p && n); EXPECT_NE(p, h); EXPECT_EQ(Name(h) + Name(n), "Orders" + n64);
  EXPECT_EQ(collOpenShared("oRDERS"), h); EXPECT_EQ(collOpenShared(std::string(64, 'N').c_str()), n);
  EXPECT_EQ(collGetShareCount(h), 2u); EXPECT_EQ(Tags(kCatalog), "Orders," + n64);
  EXPECT_EQ(collGetType(kCatalog, "ORDERS"), uint32_t(COLLTYPE_ITEM));
  EXPECT_EQ(Item(kCatalog, "orders"), std::to_string(h));
  // The last close ends it and its entry.
  collClose(h); EXPECT_EQ(collGetShareCount(h), 1u); collClose(h); EXPECT_EQ(collIsBadCollHandle(h), 1u);
  EXPECT_EQ(Tags(kCatalog), n64);
  // The catalog's own name in any case gives the catalog; closes never end it.
  for (const char *name : {"_Catalog", "_catalog", "_CATALOG"}) EXPECT_EQ(collOpenShared(name), kCatalog);
  EXPECT_EQ(collGetShareCount(kCatalog), 4u);
  for (int i = 0; i < 6; ++i) collClose(kCatalog);
  EXPECT_EQ(collGetShareCount(kCatalog), 1u);
  EXPECT_EQ(collOpenShared("_Catalog_"), h);  // only the exact name
  EXPECT_EQ(Item(kCatalog, "_Catalog"), "<missing>");
}

TEST_F(Ini, SectionsLoadOnceAsTextAndStaleEntriesAreReplaced) {
  SetFile("; orders kept here\n[Other]\nCount=1\n[ Orders ]\nCount=12\n  Name =  abc  \nEmpty=\n; Note=x\nnot a key\n"
          "long=" + std::string(300, 'v') + "\n");
  HCOLL h = collOpenShared("Orders");
  EXPECT_EQ(Tags(h), "Count,Name,long"); EXPECT_EQ(collGetType(h, "Count"), uint32_t(COLLTYPE_STRING));
  EXPECT_EQ(String(h, "name"), "abc"); EXPECT_EQ(String(h, "long"), std::string(254, 'v'));
  SetFile("[Orders]\nCount=99\nMore=1\n");
  EXPECT_EQ(collOpenShared("orders"), h);  // already open: not read again
  EXPECT_EQ(String(h, "Count"), "12"); ASSERT_TRUE(collSetString(h, "Count", "changed")); Vanish(h);
  HCOLL again = collOpenShared("ORDERS");
  EXPECT_EQ(collGetShareCount(again), 1u); EXPECT_EQ(Tags(again), "Count,More");
  EXPECT_EQ(String(again, "Count"), "99"); EXPECT_EQ(Tags(kCatalog), "ORDERS");
  EXPECT_EQ(Item(kCatalog, "orders"), std::to_string(again));
  // Keys that fill the 10,000-byte key list exactly (each with its zero, and
  // the list's own zero) all load.
  std::string keys = "[Many]\n";
  for (int i = 0; i < 101; ++i) keys += std::to_string(100 + i) + std::string(95, 'k') + "=v\n";
  SetFile(keys);
  EXPECT_EQ(collItemCount(collOpenShared("Many")), 101u);
  // No file: an empty collection, and opening never writes.
  std::remove(ini_.path().c_str());
  EXPECT_EQ(collItemCount(collOpenShared("Nothing")), 0u); EXPECT_EQ(File(), "");
}

TEST_F(Ini, UniqueCollections) {
  SetFile("[Fresh]\na=1\n[Busy]\nx=1\n[Busy_1]\ny=2\n");
  HCOLL orders = collOpenShared("Orders"), busy = collOpenShared("Busy");
  HCOLL u1 = collOpenUnique("Orders"), u2 = collOpenUnique("orders"), ub = collOpenUnique("Busy");
  ASSERT_TRUE(orders && u1 && u2 && ub); EXPECT_EQ(Name(u1), "Orders_1"); EXPECT_EQ(Name(u2), "orders_2");
  // A unique collection starts empty even when its section has keys.
  EXPECT_EQ(Name(ub), "Busy_1"); EXPECT_EQ(collItemCount(ub) * 10 + collItemCount(busy), 1u);
  EXPECT_EQ(collOpenShared("ORDERS_1"), u1); EXPECT_EQ(collGetShareCount(u1), 2u); collClose(u1); collClose(u1);
  Vanish(u2);
  // Freed and stale names are handed out again.
  EXPECT_EQ(Name(collOpenUnique("Orders")), "Orders_1"); EXPECT_EQ(Name(collOpenUnique("Orders")), "Orders_2");
  EXPECT_EQ(Tags(kCatalog), "Orders,Busy,Orders_2,Busy_1,Orders_1");
  // A free name is the name itself, empty, and never read from the file.
  HCOLL fresh = collOpenUnique("Fresh");
  EXPECT_EQ(Name(fresh), "Fresh"); EXPECT_EQ(collOpenShared("fresh"), fresh); EXPECT_EQ(collItemCount(fresh), 0u);
  EXPECT_EQ(collOpenUnique("_CATALOG"), kCatalog);
  // Names in use of 63 or 64 characters leave no room for "_1".
  for (size_t len : {62u, 63u, 64u}) {
    const std::string name(len, char('a' + len - 62));
    HCOLL h = collOpenShared(name.c_str());
    EXPECT_EQ(Name(collOpenUnique(name.c_str())), len == 62 ? name + "_1" : ""); EXPECT_EQ(collGetShareCount(h), 1u);
  }
  const std::string x65(65, 'x');
  for (const char *bad : {"", static_cast<const char *>(nullptr), x65.c_str()}) EXPECT_EQ(collOpenUnique(bad), 0u);
  EXPECT_EQ(File(), "[Fresh]\na=1\n[Busy]\nx=1\n[Busy_1]\ny=2\n");
}

// ---------------------------------------------------------------- collWrite

TEST_F(Ini, WriteRendersEachTypeAndReadsBackAsText) {
  HCOLL h = collOpen("W"), child = collOpen("child");
  ASSERT_TRUE(collSetNumeric(h, "num", 42) && collSetNumeric(h, "neg", -7) && collSetItem(h, "raw", "ab\x01" "cd", 5) &&
              collSetItem(h, "zero", "\0ab", 3) && collSetItem(h, "del", "x\x7fy\x80z", 5) &&
              collSetString(h, "text", "hello world") && collSetString(h, "high", "\x80\xff") &&
              collSetString(h, "big", std::string(200, 'b').c_str()) && collSetString(h, "t127", std::string(127, 's').c_str()) &&
              collSetString(h, "t128", std::string(128, 's').c_str()) && collSetTime(h, "time", 86400) &&
              collSetNumeric(child, "x", 1) && collSetColl(h, "nested", child));
  {
    coll::LockGuard lock; static const uint8_t noTable[4] = {};
    ASSERT_TRUE(coll::SetItem(h, "table", coll::BuildItem(COLLTYPE_TABLE, noTable, 4), 0));
    ASSERT_TRUE(coll::SetItem(h, "seven", coll::BuildItem(7, "s\x01" "7\0tail", 8), 0));
    ASSERT_TRUE(coll::SetItem(h, "sevenEmpty", coll::BuildItem(7, "\0x", 2), 0));
  }
  EXPECT_EQ(collWrite(h), 1u);
  EXPECT_EQ(File(), "[W]\nnum=42\nneg=-7\nraw=ab\ndel=x\x7fy\ntext=hello world\nhigh=\x80\xff\nt127=" +
                        std::string(127, 's') + "\ntime=Fri Jan  2 00:00:00 1970\nseven=s\x01" "7\n");
  HCOLL s = collOpenShared("w");
  EXPECT_EQ(Tags(s), "num,neg,raw,del,text,high,t127,time,seven");
  EXPECT_EQ(collGetType(s, "num"), uint32_t(COLLTYPE_STRING)); EXPECT_EQ(String(s, "neg"), "-7");
  // The catalog, and tags longer than any working buffer.
  const std::string tag(300, 't');
  HCOLL l = collOpen("Long");
  collSetNumeric(l, tag.c_str(), 1); EXPECT_EQ(collWrite(l) + collWrite(kCatalog), 2u);
  EXPECT_EQ(Value("Long", tag.c_str()), "1"); EXPECT_EQ(Value("_catalog", "W"), std::to_string(s));
}

TEST_F(Ini, WriteReplacesOnlyItsSection) {
  SetFile("; top\r\n[First]\r\nk=1\r\n\r\n[W]\r\nold=1\r\n; gone with the section\r\n[Last]\r\nz=9\r\n[E]\r\na=1\r\n");
  HCOLL h = collOpen("w"), e = collOpen("e");
  collSetNumeric(h, "New", 2);
  EXPECT_EQ(collWrite(h) + collWrite(e) + collWrite(e), 3u);  // an empty collection deletes its section
  EXPECT_EQ(collWrite(0x40FE) + collWrite(0), 0u);
#ifdef _WIN32  // the system's profile functions drop blank lines
  EXPECT_EQ(File(), "; top\n[First]\nk=1\n[Last]\nz=9\n[w]\nNew=2\n");
#else
  EXPECT_EQ(File(), "; top\r\n[First]\r\nk=1\r\n\r\n[Last]\r\nz=9\r\n[w]\r\nNew=2\r\n");
#endif
  // A key no line can hold ends the walk.
  ASSERT_TRUE(collSetNumeric(e, "a", 1) && collSetNumeric(e, "[b", 2) && collSetNumeric(e, "c", 3));
  EXPECT_EQ(collWrite(e), 0u); EXPECT_EQ(Keys("e"), "a|");
  // Names no section can hold go to "_unnamed"; each write replaces it.
  HCOLL none = collOpen(nullptr), ctrl = collOpen("a\x1f"), high = collOpen("b\x80"), del = collOpen("c\x7f");
  const HCOLL hs[] = {none, ctrl, high, del};
  for (int i = 0; i < 4; ++i) collSetNumeric(hs[i], std::to_string(i).c_str(), i);
  for (HCOLL x : hs) EXPECT_EQ(collWrite(x), 1u);
  EXPECT_EQ(Keys("_unnamed"), "2|"); EXPECT_EQ(Value("C\x7f", "3"), "3");
}

// ---------------------------------------------------------------- unique names

TEST_F(Ini, GeneratedNames) {
  const struct {
    const char *stored;  // null: no file
    uint32_t size, result;
    const char *name, *next;
  } cases[] = {
      {nullptr, 100, 14, "local_aaaaaaaa", "local_aaaaaaab"},
      {"local_aaaaaaaz", 100, 14, "local_aaaaaaaz", "local_aaaaaaba"},
      {"local_zzzzzzzz", 100, 14, "local_zzzzzzzz", "local_aaaaaaaa"},
      {"local_aB", 100, 8, "local_aB", "local_ba"},
      {"zzz", 100, 3, "zzz", "zaa"},
      {"abc_", 100, 4, "abc_", "abc_"},
      {"x", 100, 1, "x", "x"},
      {"a-z", 100, 3, "a-z", "aaa"},
      {"", 10, 0, "", ""},
      {nullptr, 14, 0, "", nullptr},  // no room for the zero: nothing taken
      {nullptr, 15, 14, "local_aaaaaaaa", "local_aaaaaaab"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.stored ? c.stored : "none");
    if (c.stored)
      SetFile(std::string("[_general]\nuniquename = ") + c.stored + "\n");
    else
      std::remove(ini_.path().c_str());
    char buf[100];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(collGenerateNewName(buf, c.size), c.result); EXPECT_STREQ(buf, c.name);
    EXPECT_EQ(Value("_General", "UniqueName"), c.next ? c.next : "<none>");
  }
  // Cut to 99 characters; counting on from the cut name.
  SetFile("[_General]\nUniqueName=n_" + std::string(120, 'q') + "\n");
  char buf[200];
  EXPECT_EQ(collGenerateNewName(buf, 200), 99u); EXPECT_EQ(std::string(buf), "n_" + std::string(97, 'q'));
  EXPECT_EQ(Value("_General", "UniqueName"), "n_" + std::string(96, 'q') + "r");
  // No buffer: a name is skipped only when the size could hold it.
  std::remove(ini_.path().c_str());
  for (uint32_t size : {0u, 13u}) EXPECT_EQ(collGenerateNewName(nullptr, size), 0u);
  EXPECT_EQ(collGenerateNewName(reinterpret_cast<char *>(0x10), 100), 0u); EXPECT_EQ(File(), "");
  EXPECT_EQ(collGenerateNewName(nullptr, 14), 14u); EXPECT_EQ(collGenerateNewName(buf, 15), 14u);
  EXPECT_STREQ(buf, "local_aaaaaaab");
}

// ---------------------------------------------------------------- the file service

TEST_F(Ini, ServiceReadsWritesAndRefuses) {
  SetFile("[Sec]\n  Key  =  some value  \nother=x=y\nalpha=1\n[sec]\nshadowed=1\n");
  EXPECT_EQ(Value(" sec ", " KEY "), "some value"); EXPECT_EQ(Value("sec", "other"), "x=y");
  EXPECT_EQ(Value("sec", "shadowed"), "<none>"); EXPECT_EQ(Value("none", "key", "dflt"), "dflt");
  EXPECT_EQ(Keys("sec"), "Key|other|alpha|");
  EXPECT_EQ(Keys("sec", 11), "Key|other|");  // only whole names fit
  EXPECT_EQ(Keys("sec", 10), "Key|"); EXPECT_EQ(Keys("sec", 1), ""); EXPECT_EQ(Keys("absent"), "");
  char buf[4] = "###";
  EXPECT_EQ(platform::ProfileReadString("S", "alpha", "", buf, 1) + uint32_t(buf[0]), 0u);
  EXPECT_EQ(platform::ProfileReadString("S", "zz", "default", buf, 4), 3u); EXPECT_STREQ(buf, "def");
  for (const auto &[s, k] : {std::pair<const char *, const char *>{"S", "[k"}, {"S", "k\nx"}, {"S\n", "k"}, {"  ", "k"}, {"S", " "}})
    EXPECT_FALSE(platform::ProfileWriteString(s, k, "v")) << s << k;
  ASSERT_TRUE(platform::ProfileWriteString("SEC", "KEY", "new") && platform::ProfileWriteString("Sec", "added", "one\ntwo") &&
              platform::ProfileWriteString("a]b", "c", " d "));
#ifdef _WIN32  // the system keeps a key's spelling and drops blanks before a value
  EXPECT_EQ(File(), "[Sec]\nKey=new\nother=x=y\nalpha=1\nadded=one\n[sec]\nshadowed=1\n[a]b]\nc=d \n");
#else
  EXPECT_EQ(File(), "[Sec]\nKEY=new\nother=x=y\nalpha=1\nadded=one\n[sec]\nshadowed=1\n[a]b]\nc= d \n");
#endif
  EXPECT_EQ(Value("A]B", "c"), "d");
  ASSERT_TRUE(platform::ProfileDeleteSection("sEc") && platform::ProfileDeleteSection("a]b")); EXPECT_EQ(File(), "");
  // A file without a final line break.
  SetFile("[S]\nk=v"); ASSERT_TRUE(platform::ProfileWriteString("T", "x", "y"));
  EXPECT_EQ(File(), "[S]\nk=v\n[T]\nx=y\n"); SetFile("[S]"); ASSERT_TRUE(platform::ProfileWriteString("S", "k", "v"));
  EXPECT_EQ(File(), "[S]\nk=v\n");
}

#ifndef _WIN32
// Links, the per-user default location and other processes belong to the
// POSIX file service; on Windows the system's profile functions decide.
bool ChildSucceeded(pid_t pid) {
  int status = 0;
  for (int i = 0; i < 3000; ++i) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (r < 0 && errno != EINTR) return false;
    usleep(10000);
  }
  kill(pid, SIGKILL); waitpid(pid, &status, 0);
  return false;
}

TEST_F(Ini, LinksDefaultLocationAndOtherProcesses) {
  const std::string dir = ini_.dir(), target = dir + "/real.ini", link = dir + "/link.ini";
  ASSERT_EQ(symlink("real.ini", link.c_str()), 0); collHostSetProfilePath(target.c_str());
  ASSERT_TRUE(platform::ProfileWriteString("S", "old", "1")); collHostSetProfilePath(link.c_str());
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "v")); struct stat st; ASSERT_EQ(lstat(link.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode)); collHostSetProfilePath(target.c_str()); EXPECT_EQ(Value("s", "K"), "v");
  EXPECT_EQ(Value("s", "old"), "1");
  // Without a path: $XDG_CONFIG_HOME, else $HOME/.config.
  setenv("HOME", dir.c_str(), 1);
  setenv("XDG_CONFIG_HOME", target.c_str(), 1);  // not a directory: nothing there
  collHostSetProfilePath(""); EXPECT_EQ(Value("S", "k"), "<none>"); unsetenv("XDG_CONFIG_HOME");
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "home"));  // makes ~/.config
  EXPECT_EQ(stat((dir + "/.config/COLL.INI").c_str(), &st), 0); setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
  ASSERT_TRUE(platform::ProfileWriteString("S", "k", "xdg")); unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(Value("S", "k"), "home");
  for (const std::string f : {"/.config/COLL.INI", "/.config/COLL.INI.lock", "/COLL.INI", "/COLL.INI.lock",
                              "/link.ini", "/real.ini", "/real.ini.lock"})
    std::remove((dir + f).c_str());
  rmdir((dir + "/.config").c_str());
  // Other processes: their sections survive writes, and concurrent writers
  // keep every key.
  collHostSetProfilePath(ini_.path().c_str());
  HCOLL a = collOpen("Mine");
  collSetNumeric(a, "v", 1); ASSERT_EQ(collWrite(a), 1u);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  const char *section = pid == 0 ? "Child" : "Parent";
  HCOLL theirs = pid == 0 ? collOpen("Theirs") : 0;
  bool ok = pid != 0 || (collSetString(theirs, "w", "child") && collWrite(theirs) == 1);
  for (int i = 0; i < 40; ++i)
    ok = platform::ProfileWriteString(section, ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()) && ok;
  if (pid == 0) _exit(ok ? 0 : 1);
  EXPECT_TRUE(ok); ASSERT_TRUE(ChildSucceeded(pid)); collSetNumeric(a, "v", 2); ASSERT_EQ(collWrite(a), 1u);
  EXPECT_EQ(Value("Mine", "v"), "2"); EXPECT_EQ(Value("Theirs", "w"), "child");
  for (const char *s : {"Child", "Parent"})
    for (int i = 0; i < 40; ++i) EXPECT_EQ(Value(s, ("K" + std::to_string(i)).c_str()), std::to_string(i)) << s;
}
#endif  // !_WIN32

}  // namespace
