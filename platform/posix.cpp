// posix.cpp - the platform layer on Linux and other POSIX systems.
//
// Kernel services map onto their POSIX counterparts (the atomic loads and
// stores, run-once, the allocation-failure hook and the memory tests are in
// common.cpp). Windows, the clipboard and the initialisation file have no such
// counterpart; they are stand-ins that the host program reaches through
// coll_host.h.
#include "platform/platform.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "coll_host.h"
#include "platform/common.h"

namespace platform {

// ---------------------------------------------------------------- atomics

int32_t InterlockedIncrement(int32_t *word) { return __atomic_add_fetch(word, 1, __ATOMIC_SEQ_CST); }
int32_t InterlockedDecrement(int32_t *word) { return __atomic_sub_fetch(word, 1, __ATOMIC_SEQ_CST); }

// ---------------------------------------------------------------- waiting

void WaitOnWord(const int32_t *word, int32_t expected, uint32_t timeoutMs) {
  struct timespec ts;
  struct timespec *pts = nullptr;
  if (timeoutMs != 0xFFFFFFFFu) {
    ts.tv_sec = timeoutMs / 1000;
    ts.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000L;
    pts = &ts;
  }
  syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, pts, nullptr, 0);
}

void WakeOne(const int32_t *word) { syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }
void WakeAll(const int32_t *word) { syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0); }

void SpinPause() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// ---------------------------------------------------------------- ids, time

uint32_t CurrentThreadId() {
  static thread_local uint32_t id = 0;
  if (id == 0) id = static_cast<uint32_t>(syscall(SYS_gettid));
  return id;
}

uint32_t CurrentProcessId() { return static_cast<uint32_t>(getpid()); }

uint32_t TickCount() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}

uint32_t ExecutableName(char *buffer, uint32_t size) {
  buffer[0] = 0;
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return 0;
  path[n] = 0;
  return CopyFileName(path, '/', buffer, size);
}

bool LocalTime(uint32_t secondsSince1970, CivilTime *out) {
  static_assert(sizeof(time_t) >= 8, "time_t must hold every unsigned 32-bit time");
  time_t t = static_cast<time_t>(secondsSince1970);
  struct tm tm;
  if (!localtime_r(&t, &tm)) return false;
  CivilFromTm(tm, out);
  return true;
}

// ---------------------------------------------------------------- memory

void *HeapAlloc(size_t size) { return InjectFailure() ? nullptr : std::calloc(1, size ? size : 1); }
void *HeapReAlloc(void *block, size_t size) {
  return InjectFailure() ? nullptr : std::realloc(block, size ? size : 1);
}
void HeapFree(void *block) { std::free(block); }

// ---------------------------------------------------------------- a small mutex
// For the stand-ins below; never held while calling out of this file.
namespace {
class Mutex {
 public:
  void Lock() {
    while (__atomic_exchange_n(&word_, 1, __ATOMIC_ACQUIRE) != 0) WaitOnWord(&word_, 1, 10);
  }
  void Unlock() {
    __atomic_store_n(&word_, 0, __ATOMIC_RELEASE);
    WakeOne(&word_);
  }

 private:
  int32_t word_ = 0;
};
class Hold {
 public:
  explicit Hold(Mutex &m) : m_(m) { m_.Lock(); }
  ~Hold() { m_.Unlock(); }
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

 private:
  Mutex &m_;
};

uint8_t Lower(uint8_t c) { return (c >= 'A' && c <= 'Z') ? uint8_t(c + 32) : c; }
bool EqualNoCase(const char *a, const char *b) {
  for (;; ++a, ++b) {
    if (Lower(uint8_t(*a)) != Lower(uint8_t(*b))) return false;
    if (*a == 0) return true;
  }
}
}  // namespace

// ---------------------------------------------------------------- windows

namespace {
struct Window {
  uint32_t id;
  CollWindowProc proc;
  void *context;
};
Mutex g_windowMutex;
Window *g_windows = nullptr;  // HeapAlloc array
uint32_t g_windowCount = 0;
uint32_t g_windowCapacity = 0;
uint32_t g_nextWindow = 0x00010000u;

char **g_messages = nullptr;  // registered names; number = 0xC000 + index
uint32_t g_messageCount = 0;
uint32_t g_messageCapacity = 0;
Mutex g_messageMutex;

Window *FindWindowLocked(uint32_t id) {
  for (uint32_t i = 0; i < g_windowCount; ++i)
    if (g_windows[i].id == id) return &g_windows[i];
  return nullptr;
}
}  // namespace

uint32_t RegisterWindowMessage(const char *name) {
  if (name == nullptr || name[0] == 0) return 0;
  Hold hold(g_messageMutex);
  for (uint32_t i = 0; i < g_messageCount; ++i)
    if (EqualNoCase(g_messages[i], name)) return 0xC000 + i;
  if (g_messageCount >= 0x4000) return 0;
  if (g_messageCount == g_messageCapacity) {
    uint32_t cap = g_messageCapacity ? g_messageCapacity * 2 : 16;
    void *p = HeapReAlloc(g_messages, cap * sizeof(char *));
    if (!p) return 0;
    g_messages = static_cast<char **>(p);
    g_messageCapacity = cap;
  }
  size_t len = std::strlen(name);
  char *copy = static_cast<char *>(HeapAlloc(len + 1));
  if (!copy) return 0;
  std::memcpy(copy, name, len + 1);
  g_messages[g_messageCount] = copy;
  return 0xC000 + g_messageCount++;
}

bool IsWindow(uint32_t window) {
  Hold hold(g_windowMutex);
  return window != 0 && FindWindowLocked(window) != nullptr;
}

intptr_t SendMessage(uint32_t window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
  CollWindowProc proc = nullptr;
  void *context = nullptr;
  {
    Hold hold(g_windowMutex);
    Window *w = window ? FindWindowLocked(window) : nullptr;
    if (!w) return 0;
    proc = w->proc;
    context = w->context;
  }
  return proc(window, message, wParam, lParam, context);
}

// ---------------------------------------------------------------- clipboard

namespace {
Mutex g_clipMutex;
bool g_clipOpen = false;
char *g_clipText = nullptr;  // HeapAlloc, zero-terminated; null: no text
uint32_t g_clipLength = 0;
uint32_t g_activeWindow = 0;

void ClearClipLocked() {
  HeapFree(g_clipText);
  g_clipText = nullptr;
  g_clipLength = 0;
}
bool SetClipLocked(const char *text, uint32_t length) {
  ClearClipLocked();
  char *copy = static_cast<char *>(HeapAlloc(size_t(length) + 1));
  if (!copy) return false;
  std::memcpy(copy, text, length);
  g_clipText = copy;
  g_clipLength = length;
  return true;
}
}  // namespace

uint32_t GetActiveWindow() { return __atomic_load_n(&g_activeWindow, __ATOMIC_SEQ_CST); }

bool OpenClipboard(uint32_t) {
  Hold hold(g_clipMutex);
  if (g_clipOpen) return false;
  g_clipOpen = true;
  return true;
}

bool EmptyClipboard() {
  Hold hold(g_clipMutex);
  ClearClipLocked();
  return true;
}

bool SetClipboardText(const char *text, uint32_t length) {
  Hold hold(g_clipMutex);
  return SetClipLocked(text, length);
}

char *GetClipboardText(uint32_t *length) {
  Hold hold(g_clipMutex);
  *length = 0;
  if (!g_clipText) return nullptr;
  char *copy = static_cast<char *>(HeapAlloc(size_t(g_clipLength) + 1));
  if (!copy) return nullptr;
  std::memcpy(copy, g_clipText, g_clipLength);
  *length = g_clipLength;
  return copy;
}

void CloseClipboard() {
  Hold hold(g_clipMutex);
  g_clipOpen = false;
}

// ---------------------------------------------------------------- profile file
// The initialisation file is a text file of "[section]" and "key=value"
// lines. Section and key names match without regard to the case of A-Z, and
// blanks around names and values are dropped on reading. Lines that are
// neither (comments, blank lines, anything else) are kept as they are when
// the file is rewritten, and so is the line-end style of the file.
//
// Every change is written through at once: the current file is read, edited
// in memory and written to a temporary file in the same directory that is
// then renamed into place, all while holding an exclusive flock on
// "<file>.lock". Readers therefore never see a half-written file, and changes
// made by several processes at the same time are all kept. Reads take no
// lock. ProfileFlush has nothing left to do.
//
// A name that a line cannot hold is refused: an empty section or key, a line
// break in either, a key that starts with '['. A value is cut before its
// first line break.
}  // namespace platform

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdio>

namespace platform {

namespace {

Mutex g_profileMutex;
char *g_profilePath = nullptr;  // HeapAlloc; null: the default location

// A heap copy of a followed by b (b may be null); null without memory.
char *Concat(const char *a, const char *b) {
  size_t na = std::strlen(a), nb = b ? std::strlen(b) : 0;
  char *s = static_cast<char *>(HeapAlloc(na + nb + 1));
  if (!s) return nullptr;
  std::memcpy(s, a, na);
  if (nb) std::memcpy(s + na, b, nb);
  return s;
}

// The file in use, as a heap string; null when there is none (no memory, or
// neither $XDG_CONFIG_HOME nor $HOME is set). *isDefault tells whether it is
// the per-user default.
char *ProfilePath(bool *isDefault) {
  {
    Hold hold(g_profileMutex);
    *isDefault = g_profilePath == nullptr;
    if (g_profilePath) return Concat(g_profilePath, nullptr);
  }
  const char *xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg && xdg[0]) return Concat(xdg, "/COLL.INI");
  const char *home = std::getenv("HOME");
  if (home && home[0]) return Concat(home, "/.config/COLL.INI");
  return nullptr;
}

// The contents of the file; a missing file reads as empty.
struct IniText {
  char *data = nullptr;  // HeapAlloc
  size_t size = 0;
  IniText() = default;
  IniText(const IniText &) = delete;
  IniText &operator=(const IniText &) = delete;
  ~IniText() { HeapFree(data); }
};

// Reads the whole file into *text; false when it exists but cannot be read.
// *mode receives its permission bits (0 when it does not exist).
bool ReadIniFile(const char *path, IniText *text, mode_t *mode) {
  *mode = 0;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT;
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  size_t cap = ok ? static_cast<size_t>(st.st_size) + 1 : 0;
  char *data = ok ? static_cast<char *>(HeapAlloc(cap)) : nullptr;
  size_t size = 0;
  while (data) {
    if (size == cap) {  // the file grew while it was read
      char *bigger = static_cast<char *>(HeapReAlloc(data, cap * 2));
      if (!bigger) break;
      data = bigger;
      cap *= 2;
    }
    ssize_t n = read(fd, data + size, cap - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    if (n == 0) {
      text->data = data;
      text->size = size;
      *mode = st.st_mode & 07777;
      data = nullptr;
      break;
    }
    size += static_cast<size_t>(n);
  }
  HeapFree(data);
  close(fd);
  return text->data != nullptr;
}

// A text that grows on the heap; ok turns false when memory runs out.
struct IniBuilder {
  char *data = nullptr;
  size_t size = 0;
  size_t cap = 0;
  bool ok = true;
  IniBuilder() = default;
  IniBuilder(const IniBuilder &) = delete;
  IniBuilder &operator=(const IniBuilder &) = delete;
  ~IniBuilder() { HeapFree(data); }
  void Add(const char *p, size_t n) {
    if (!ok || n == 0) return;
    if (n > cap - size) {
      size_t want = cap ? cap : 256;
      while (want - size < n) want *= 2;
      char *bigger = static_cast<char *>(HeapReAlloc(data, want));
      if (!bigger) {
        ok = false;
        return;
      }
      data = bigger;
      cap = want;
    }
    std::memcpy(data + size, p, n);
    size += n;
  }
};

struct IniLine {
  size_t begin;  // first character
  size_t end;    // just past the last character, before the line break
  size_t next;   // start of the next line
};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

void TrimSpan(const char *s, size_t *a, size_t *b) {
  while (*a < *b && IsBlank(s[*a])) ++*a;
  while (*b > *a && IsBlank(s[*b - 1])) --*b;
}

bool NextIniLine(const IniText &t, size_t pos, IniLine *line) {
  if (pos >= t.size) return false;
  const void *nl = std::memchr(t.data + pos, '\n', t.size - pos);
  line->begin = pos;
  line->end = nl ? static_cast<size_t>(static_cast<const char *>(nl) - t.data) : t.size;
  line->next = nl ? line->end + 1 : t.size;
  return true;
}

// A caller's section or key name with blanks trimmed.
struct IniName {
  const char *p;
  size_t n;
};
IniName TrimmedName(const char *s) {
  size_t a = 0, b = std::strlen(s);
  TrimSpan(s, &a, &b);
  return IniName{s + a, b - a};
}

bool SameName(const char *p, size_t n, IniName name) {
  if (n != name.n) return false;
  for (size_t i = 0; i < n; ++i)
    if (Lower(uint8_t(p[i])) != Lower(uint8_t(name.p[i]))) return false;
  return true;
}

// "[name]": true with the trimmed name in [*a, *b). The name ends at the last
// ']' of the line, or at its end when there is none.
bool SectionLine(const IniText &t, const IniLine &line, size_t *a, size_t *b) {
  size_t s = line.begin, e = line.end;
  TrimSpan(t.data, &s, &e);
  if (s == e || t.data[s] != '[') return false;
  *a = s + 1;
  *b = e;
  while (*b > *a && t.data[*b - 1] != ']') --*b;
  *b = *b > *a ? *b - 1 : e;
  TrimSpan(t.data, a, b);
  return true;
}

// "key=value" that is not a comment: true with the trimmed key and value.
bool KeyLine(const IniText &t, const IniLine &line, size_t *ka, size_t *kb, size_t *va, size_t *vb) {
  size_t s = line.begin, e = line.end;
  TrimSpan(t.data, &s, &e);
  if (s == e || t.data[s] == ';' || t.data[s] == '[') return false;
  const void *eq = std::memchr(t.data + s, '=', e - s);
  if (!eq) return false;
  *ka = s;
  *kb = static_cast<size_t>(static_cast<const char *>(eq) - t.data);
  *va = *kb + 1;
  *vb = e;
  TrimSpan(t.data, ka, kb);
  TrimSpan(t.data, va, vb);
  return *ka < *kb;
}

// The first section of that name: the start of its header line, its body
// (after the header line) and its end (the next header, or the end of file).
struct IniSection {
  size_t header;
  size_t body;
  size_t end;
};
bool FindIniSection(const IniText &t, IniName name, IniSection *sec) {
  IniLine line;
  bool found = false;
  for (size_t pos = 0; NextIniLine(t, pos, &line); pos = line.next) {
    size_t a, b;
    if (!SectionLine(t, line, &a, &b)) continue;
    if (found) {
      sec->end = line.begin;
      return true;
    }
    if (SameName(t.data + a, b - a, name)) {
      found = true;
      sec->header = line.begin;
      sec->body = line.next;
    }
  }
  sec->end = t.size;
  return found;
}

// The value of key in section: true with it in [*a, *b).
bool FindIniValue(const IniText &t, IniName section, IniName key, size_t *a, size_t *b) {
  IniSection sec;
  if (!FindIniSection(t, section, &sec)) return false;
  IniLine line;
  for (size_t pos = sec.body; pos < sec.end && NextIniLine(t, pos, &line); pos = line.next) {
    size_t ka, kb;
    if (KeyLine(t, line, &ka, &kb, a, b) && SameName(t.data + ka, kb - ka, key)) return true;
  }
  return false;
}

// The line break the file already uses; "\n" for a new file.
const char *IniLineBreak(const IniText &t) {
  const void *nl = t.size ? std::memchr(t.data, '\n', t.size) : nullptr;
  if (nl && nl != t.data && static_cast<const char *>(nl)[-1] == '\r') return "\r\n";
  return "\n";
}

enum class IniEdit { kFailed, kUnchanged, kChanged };

struct IniWrite {
  IniName section;
  IniName key;
  const char *value;
  size_t valueLength;
};

IniEdit EditWrite(const IniText &t, const void *arg, IniBuilder *out) {
  const IniWrite &w = *static_cast<const IniWrite *>(arg);
  const char *eol = IniLineBreak(t);
  size_t cut = t.size, resume = t.size;  // the range of t that the new line replaces
  bool newSection = true;
  IniSection sec;
  if (FindIniSection(t, w.section, &sec)) {
    newSection = false;
    cut = resume = sec.body;  // after the last key line, else after the header
    IniLine line;
    for (size_t pos = sec.body; pos < sec.end && NextIniLine(t, pos, &line); pos = line.next) {
      size_t ka, kb, va, vb;
      if (!KeyLine(t, line, &ka, &kb, &va, &vb)) continue;
      if (SameName(t.data + ka, kb - ka, w.key)) {
        cut = line.begin;
        resume = line.next;
        break;
      }
      cut = resume = line.next;
    }
  }
  out->Add(t.data, cut);
  if (cut > 0 && t.data[cut - 1] != '\n') out->Add(eol, std::strlen(eol));
  if (newSection) {
    out->Add("[", 1);
    out->Add(w.section.p, w.section.n);
    out->Add("]", 1);
    out->Add(eol, std::strlen(eol));
  }
  out->Add(w.key.p, w.key.n);
  out->Add("=", 1);
  out->Add(w.value, w.valueLength);
  out->Add(eol, std::strlen(eol));
  out->Add(t.data + resume, t.size - resume);
  return out->ok ? IniEdit::kChanged : IniEdit::kFailed;
}

IniEdit EditDeleteSection(const IniText &t, const void *arg, IniBuilder *out) {
  IniName name = *static_cast<const IniName *>(arg);
  bool inside = false, changed = false;
  IniLine line;
  for (size_t pos = 0; NextIniLine(t, pos, &line); pos = line.next) {
    size_t a, b;
    if (SectionLine(t, line, &a, &b)) inside = SameName(t.data + a, b - a, name);
    if (inside)
      changed = true;
    else
      out->Add(t.data + line.begin, line.next - line.begin);
  }
  if (!changed) return IniEdit::kUnchanged;
  return out->ok ? IniEdit::kChanged : IniEdit::kFailed;
}

bool WriteAll(int fd, const char *p, size_t n) {
  while (n) {
    ssize_t w = write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// Puts text in place of the file at path, atomically.
bool ReplaceIniFile(const char *path, const char *text, size_t size, mode_t mode) {
  char *temp = Concat(path, ".XXXXXX");
  if (!temp) return false;
  int fd = mkostemp(temp, O_CLOEXEC);
  if (fd < 0) {
    HeapFree(temp);
    return false;
  }
  bool ok = WriteAll(fd, text, size) && fchmod(fd, mode ? mode : 0600) == 0 && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && rename(temp, path) == 0;
  if (!ok) unlink(temp);
  HeapFree(temp);
  return ok;
}

// Opens (creating it) the lock file beside path and locks it exclusively;
// -1 on failure. For the default location a missing directory is made.
int LockIniFile(const char *path, bool isDefault) {
  char *lockPath = Concat(path, ".lock");
  if (!lockPath) return -1;
  int fd = open(lockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 && errno == ENOENT && isDefault) {
    char *slash = std::strrchr(lockPath, '/');
    if (slash && slash != lockPath) {
      *slash = 0;
      mkdir(lockPath, 0700);
      *slash = '/';
      fd = open(lockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
  }
  HeapFree(lockPath);
  if (fd < 0) return -1;
  int r;
  do {
    r = flock(fd, LOCK_EX);
  } while (r != 0 && errno == EINTR);
  if (r != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Reads, edits and rewrites the file under its lock.
bool ModifyIniFile(IniEdit (*edit)(const IniText &, const void *, IniBuilder *), const void *arg) {
  bool isDefault;
  char *path = ProfilePath(&isDefault);
  if (!path) return false;
  // A symbolic link stays a link: the file that it names is replaced.
  if (char *real = realpath(path, nullptr)) {
    char *copy = Concat(real, nullptr);
    std::free(real);
    if (copy) {
      HeapFree(path);
      path = copy;
    }
  }
  bool ok = false;
  int lock = LockIniFile(path, isDefault);
  if (lock >= 0) {
    IniText text;
    mode_t mode;
    if (ReadIniFile(path, &text, &mode)) {
      IniBuilder out;
      switch (edit(text, arg, &out)) {
        case IniEdit::kFailed:
          break;
        case IniEdit::kUnchanged:
          ok = true;
          break;
        case IniEdit::kChanged:
          ok = ReplaceIniFile(path, out.data, out.size, mode);
          break;
      }
    }
    close(lock);  // releases the flock
  }
  HeapFree(path);
  return ok;
}

// Reads the file in use for a query; false when there is none to read.
bool ReadCurrentIni(IniText *text) {
  bool isDefault;
  char *path = ProfilePath(&isDefault);
  if (!path) return false;
  mode_t mode;
  bool ok = ReadIniFile(path, text, &mode);
  HeapFree(path);
  return ok;
}

bool HasAny(IniName name, const char *chars) {
  for (size_t i = 0; i < name.n; ++i)
    if (std::strchr(chars, name.p[i]) && name.p[i] != 0) return true;
  return false;
}

}  // namespace

uint32_t ProfileListKeys(const char *section, char *buffer, uint32_t size) {
  if (!buffer || size == 0) return 0;
  buffer[0] = 0;
  if (!section) return 0;
  IniText t;
  IniSection sec;
  if (!ReadCurrentIni(&t) || !FindIniSection(t, TrimmedName(section), &sec)) return 0;
  uint32_t used = 0;  // the final zero always has room at buffer[used]
  IniLine line;
  for (size_t pos = sec.body; pos < sec.end && NextIniLine(t, pos, &line); pos = line.next) {
    size_t ka, kb, va, vb;
    if (!KeyLine(t, line, &ka, &kb, &va, &vb)) continue;
    size_t n = kb - ka;
    if (n + 2 > size - used) break;  // only whole names, each with its zero
    std::memcpy(buffer + used, t.data + ka, n);
    used += static_cast<uint32_t>(n);
    buffer[used++] = 0;
  }
  buffer[used] = 0;
  return used;
}

uint32_t ProfileReadString(const char *section, const char *key, const char *def, char *buffer,
                           uint32_t size) {
  if (!buffer || size == 0) return 0;
  const char *value = def ? def : "";
  size_t n = std::strlen(value);
  IniText t;
  size_t a, b;
  if (section && key && ReadCurrentIni(&t) && FindIniValue(t, TrimmedName(section), TrimmedName(key), &a, &b)) {
    value = t.data + a;
    n = b - a;
  }
  if (n > size - 1) n = size - 1;
  std::memcpy(buffer, value, n);
  buffer[n] = 0;
  return static_cast<uint32_t>(n);
}

bool ProfileWriteString(const char *section, const char *key, const char *value) {
  if (!section || !key || !value) return false;
  IniWrite w{TrimmedName(section), TrimmedName(key), value, std::strcspn(value, "\r\n")};
  if (w.section.n == 0 || HasAny(w.section, "\r\n")) return false;
  if (w.key.n == 0 || HasAny(w.key, "\r\n") || w.key.p[0] == '[') return false;
  return ModifyIniFile(EditWrite, &w);
}

bool ProfileDeleteSection(const char *section) {
  if (!section) return false;
  IniName name = TrimmedName(section);
  if (name.n == 0) return true;
  return ModifyIniFile(EditDeleteSection, &name);
}

bool ProfileFlush() { return true; }

}  // namespace platform

COLL_EXPORT uint32_t COLLAPI collHostSetProfilePath(const char *path) {
  using namespace platform;
  char *copy = nullptr;
  if (path && path[0]) {
    copy = Concat(path, nullptr);
    if (!copy) return 0;
  }
  Hold hold(g_profileMutex);
  HeapFree(g_profilePath);
  g_profilePath = copy;
  return 1;
}

namespace platform {

}  // namespace platform

// ---------------------------------------------------------------- host side

COLL_EXPORT uint32_t COLLAPI collHostCreateWindow(CollWindowProc proc, void *context) {
  using namespace platform;
  if (!proc) return 0;
  Hold hold(g_windowMutex);
  if (g_windowCount == g_windowCapacity) {
    uint32_t cap = g_windowCapacity ? g_windowCapacity * 2 : 16;
    void *p = HeapReAlloc(g_windows, cap * sizeof(Window));
    if (!p) return 0;
    g_windows = static_cast<Window *>(p);
    g_windowCapacity = cap;
  }
  uint32_t id;
  do {
    id = g_nextWindow++;
    if ((g_nextWindow >> 16) == 0xFFFF) g_nextWindow = 0x00010000u;
  } while (FindWindowLocked(id) != nullptr);
  g_windows[g_windowCount++] = Window{id, proc, context};
  return id;
}

COLL_EXPORT uint32_t COLLAPI collHostDestroyWindow(uint32_t window) {
  using namespace platform;
  Hold hold(g_windowMutex);
  Window *w = window ? FindWindowLocked(window) : nullptr;
  if (!w) return 0;
  *w = g_windows[--g_windowCount];
  return 1;
}

COLL_EXPORT uint32_t COLLAPI collHostRegisterMessage(const char *name) { return platform::RegisterWindowMessage(name); }

COLL_EXPORT uint32_t COLLAPI collHostSetActiveWindow(uint32_t window) {
  __atomic_store_n(&platform::g_activeWindow, window, __ATOMIC_SEQ_CST);
  return 1;
}

COLL_EXPORT uint32_t COLLAPI collHostOpenClipboard(uint32_t window) { return platform::OpenClipboard(window) ? 1 : 0; }

COLL_EXPORT uint32_t COLLAPI collHostCloseClipboard(void) {
  using namespace platform;
  Hold hold(g_clipMutex);
  bool was = g_clipOpen;
  g_clipOpen = false;
  return was ? 1 : 0;
}

COLL_EXPORT uint32_t COLLAPI collHostSetClipboardText(const char *text) {
  using namespace platform;
  Hold hold(g_clipMutex);
  if (g_clipOpen) return 0;
  if (!text) {
    ClearClipLocked();
    return 1;
  }
  return SetClipLocked(text, static_cast<uint32_t>(std::strlen(text))) ? 1 : 0;
}

COLL_EXPORT uint32_t COLLAPI collHostGetClipboardText(char *buffer, uint32_t size) {
  using namespace platform;
  Hold hold(g_clipMutex);
  if (!g_clipText) return 0;
  if (buffer && size) {
    uint32_t n = g_clipLength < size - 1 ? g_clipLength : size - 1;
    std::memcpy(buffer, g_clipText, n);
    buffer[n] = 0;
  }
  return g_clipLength + 1;
}

// ---------------------------------------------------------------- unload

__attribute__((destructor)) static void CollModuleUnload() { platform::OnModuleDetach(); }
