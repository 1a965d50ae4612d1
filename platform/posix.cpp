// posix.cpp - the platform layer on Linux and other POSIX systems.
//
// Kernel services map onto their POSIX counterparts. Windows, the clipboard
// and the initialisation file have no such counterpart; they are stand-ins
// that the host program reaches through coll_host.h.
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

namespace platform {

// ---------------------------------------------------------------- atomics

int32_t InterlockedIncrement(int32_t *word) { return __atomic_add_fetch(word, 1, __ATOMIC_SEQ_CST); }
int32_t InterlockedDecrement(int32_t *word) { return __atomic_sub_fetch(word, 1, __ATOMIC_SEQ_CST); }
int32_t AtomicLoad(const int32_t *word) { return __atomic_load_n(word, __ATOMIC_SEQ_CST); }
uint32_t AtomicLoad32(const uint32_t *word) { return __atomic_load_n(word, __ATOMIC_SEQ_CST); }
void AtomicStore32(uint32_t *word, uint32_t value) { __atomic_store_n(word, value, __ATOMIC_SEQ_CST); }

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

void CallOnce(OnceFlag *flag, void (*fn)()) {
  if (__atomic_load_n(&flag->state, __ATOMIC_ACQUIRE) == 2) return;
  int32_t expected = 0;
  if (__atomic_compare_exchange_n(&flag->state, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    fn();
    __atomic_store_n(&flag->state, 2, __ATOMIC_RELEASE);
    WakeAll(&flag->state);
    return;
  }
  while (__atomic_load_n(&flag->state, __ATOMIC_ACQUIRE) != 2) WaitOnWord(&flag->state, 1, 10);
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
  const char *base = std::strrchr(path, '/');
  base = base ? base + 1 : path;
  size_t len = std::strlen(base);
  if (len > size - 1) len = size - 1;
  std::memcpy(buffer, base, len);
  buffer[len] = 0;
  return static_cast<uint32_t>(len);
}

bool LocalTime(uint32_t secondsSince1970, CivilTime *out) {
  static_assert(sizeof(time_t) >= 8, "time_t must hold every unsigned 32-bit time");
  time_t t = static_cast<time_t>(secondsSince1970);
  struct tm tm;
  if (!localtime_r(&t, &tm)) return false;
  out->year = tm.tm_year + 1900;
  out->month = tm.tm_mon;
  out->day = tm.tm_mday;
  out->hour = tm.tm_hour;
  out->minute = tm.tm_min;
  out->second = tm.tm_sec;
  out->weekday = tm.tm_wday;
  return true;
}

// ---------------------------------------------------------------- memory

namespace {
uint32_t g_failAt;       // allocations left until the one that fails; 0: none
uint32_t g_allocations;  // allocations since the last FailAllocation call

bool InjectFailure() {
  __atomic_add_fetch(&g_allocations, 1, __ATOMIC_RELAXED);
  uint32_t left = __atomic_load_n(&g_failAt, __ATOMIC_RELAXED);
  if (left == 0) return false;
  return __atomic_sub_fetch(&g_failAt, 1, __ATOMIC_RELAXED) == 0;
}
}  // namespace

uint32_t FailAllocation(uint32_t n) {
  __atomic_store_n(&g_failAt, n, __ATOMIC_RELAXED);
  return __atomic_exchange_n(&g_allocations, 0, __ATOMIC_RELAXED);
}

void *HeapAlloc(size_t size) { return InjectFailure() ? nullptr : std::calloc(1, size ? size : 1); }
void *HeapReAlloc(void *block, size_t size) {
  return InjectFailure() ? nullptr : std::realloc(block, size ? size : 1);
}
void HeapFree(void *block) { std::free(block); }

static bool BadRange(const void *p, uint32_t size) {
  if (size == 0) return false;
  uintptr_t a = reinterpret_cast<uintptr_t>(p);
  if (a < 0x10000) return true;
  return a + (size - 1) < a;  // wraps
}
bool IsBadReadPtr(const void *p, uint32_t size) { return BadRange(p, size); }
bool IsBadWritePtr(const void *p, uint32_t size) { return BadRange(p, size); }

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
// (the initialisation-file stand-in lives below)

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
