// win32.cpp - the platform layer on Win32, the library's own platform.
//
// Every service maps onto the Win32 call of the same purpose: interlocked
// operations, WaitOnAddress for sleeping waits, the process heap, real
// message-only windows, the system clipboard with movable global memory, and
// the private profile functions on "COLL.INI". The host functions of
// coll_host.h are thin wrappers over the same calls, so that the same host
// programs and tests run here and on POSIX.
//
// The Windows headers define macros and functions whose names the platform
// contract uses too; the contract's functions are defined in namespace
// platform, and every Win32 call below is written with :: so that it never
// names the contract's function of the same name.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#undef SendMessage
#undef RegisterWindowMessage
#undef InterlockedIncrement
#undef InterlockedDecrement

#include <cstring>
#include <ctime>

#include "coll_host.h"
#include "platform/common.h"
#include "platform/platform.h"

namespace platform {

namespace {
// Window handles keep 32 significant bits; widening sign-extends them.
HWND ToHwnd(uint32_t window) { return reinterpret_cast<HWND>(static_cast<intptr_t>(static_cast<int32_t>(window))); }
uint32_t FromHwnd(HWND hwnd) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(hwnd)); }

// The module that holds this code (the DLL, or the program it is linked into).
HMODULE ThisModule() {
  HMODULE module = nullptr;
  ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&ThisModule), &module);
  return module;
}
}  // namespace

// ---------------------------------------------------------------- atomics

int32_t InterlockedIncrement(int32_t *word) {
  return ::_InterlockedIncrement(reinterpret_cast<volatile LONG *>(word));
}
int32_t InterlockedDecrement(int32_t *word) {
  return ::_InterlockedDecrement(reinterpret_cast<volatile LONG *>(word));
}

// ---------------------------------------------------------------- waiting
// WaitOnAddress and WakeByAddress* come from kernelbase.dll where the system
// has them (Windows 8 and later); they are looked up at run time so that the
// DLL also loads on older systems, where a wait is a 1-millisecond sleep.

namespace {
typedef BOOL(WINAPI *WaitOnAddressFn)(volatile VOID *, PVOID, SIZE_T, DWORD);
typedef VOID(WINAPI *WakeByAddressFn)(PVOID);

struct WaitCalls {
  int32_t resolved;  // 0 not yet looked up, 1 done
  WaitOnAddressFn wait;
  WakeByAddressFn wakeOne;
  WakeByAddressFn wakeAll;
};
WaitCalls g_wait;

const WaitCalls &Waits() {
  if (__atomic_load_n(&g_wait.resolved, __ATOMIC_ACQUIRE)) return g_wait;
  // Racing threads find the same addresses; the stores are idempotent.
  HMODULE kb = ::GetModuleHandleA("kernelbase.dll");
  if (!kb) kb = ::GetModuleHandleA("api-ms-win-core-synch-l1-2-0.dll");
  WaitOnAddressFn wait = nullptr;
  WakeByAddressFn one = nullptr, all = nullptr;
  if (kb) {
    wait = reinterpret_cast<WaitOnAddressFn>(reinterpret_cast<void *>(::GetProcAddress(kb, "WaitOnAddress")));
    one = reinterpret_cast<WakeByAddressFn>(reinterpret_cast<void *>(::GetProcAddress(kb, "WakeByAddressSingle")));
    all = reinterpret_cast<WakeByAddressFn>(reinterpret_cast<void *>(::GetProcAddress(kb, "WakeByAddressAll")));
  }
  if (!wait || !one || !all) wait = nullptr, one = nullptr, all = nullptr;
  __atomic_store_n(&g_wait.wait, wait, __ATOMIC_RELAXED);
  __atomic_store_n(&g_wait.wakeOne, one, __ATOMIC_RELAXED);
  __atomic_store_n(&g_wait.wakeAll, all, __ATOMIC_RELAXED);
  __atomic_store_n(&g_wait.resolved, 1, __ATOMIC_RELEASE);
  return g_wait;
}
}  // namespace

void WaitOnWord(const int32_t *word, int32_t expected, uint32_t timeoutMs) {
  const WaitCalls &w = Waits();
  if (w.wait) {
    w.wait(const_cast<int32_t *>(word), &expected, sizeof expected, timeoutMs);
    return;
  }
  if (__atomic_load_n(word, __ATOMIC_SEQ_CST) == expected) ::Sleep(timeoutMs == 0 ? 0 : 1);
}

void WakeOne(const int32_t *word) {
  const WaitCalls &w = Waits();
  if (w.wakeOne) w.wakeOne(const_cast<int32_t *>(word));
}

void WakeAll(const int32_t *word) {
  const WaitCalls &w = Waits();
  if (w.wakeAll) w.wakeAll(const_cast<int32_t *>(word));
}

void SpinPause() { YieldProcessor(); }

// ---------------------------------------------------------------- ids, time

uint32_t CurrentThreadId() { return ::GetCurrentThreadId(); }
uint32_t CurrentProcessId() { return ::GetCurrentProcessId(); }
uint32_t TickCount() { return ::GetTickCount(); }

uint32_t ExecutableName(char *buffer, uint32_t size) {
  buffer[0] = 0;
  HMODULE exe = ::GetModuleHandleA(nullptr);
  char local[MAX_PATH + 1];
  char *path = local;
  DWORD capacity = sizeof local;
  DWORD n = ::GetModuleFileNameA(exe, path, capacity);
  if (n >= capacity) {  // cut: the longest path the system has
    capacity = 32768;
    path = static_cast<char *>(::HeapAlloc(::GetProcessHeap(), 0, capacity));
    if (!path) return 0;
    n = ::GetModuleFileNameA(exe, path, capacity);
  }
  uint32_t len = 0;
  if (n > 0 && n < capacity) len = CopyFileName(path, '\\', buffer, size);
  if (path != local) ::HeapFree(::GetProcessHeap(), 0, path);
  return len;
}

// The C runtime's conversion, which honours TZ as localtime does; the 64-bit
// time covers every unsigned 32-bit count.
bool LocalTime(uint32_t secondsSince1970, CivilTime *out) {
  __time64_t t = static_cast<__time64_t>(secondsSince1970);
  struct tm tm;
  if (_localtime64_s(&tm, &t) != 0) return false;
  CivilFromTm(tm, out);
  return true;
}

// ---------------------------------------------------------------- memory

void *HeapAlloc(size_t size) {
  if (InjectFailure()) return nullptr;
  return ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, size ? size : 1);
}

void *HeapReAlloc(void *block, size_t size) {
  if (InjectFailure()) return nullptr;
  return ::HeapReAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, block, size ? size : 1);
}

void HeapFree(void *block) {
  if (block) ::HeapFree(::GetProcessHeap(), 0, block);
}

// ---------------------------------------------------------------- windows
// The host's windows (coll_host.h) are message-only windows of one class,
// listed here with their CollWindowProc while they exist. Their procedure
// runs in the thread that sends to them, as the contract says: the thread
// that made the window need not be pumping messages. Any other window gets
// a real SendMessageA.

namespace {
const char kHostClass[] = "CollHostWindow";

struct HostWindow {
  HWND hwnd;
  CollWindowProc proc;
  void *context;
};
SRWLOCK g_hostLock = SRWLOCK_INIT;
HostWindow *g_hosts = nullptr;  // process heap
uint32_t g_hostCount = 0;
uint32_t g_hostCapacity = 0;

// The procedure and context of a listed host window; false when it is not one.
bool FindHost(HWND hwnd, CollWindowProc *proc, void **context) {
  ::AcquireSRWLockShared(&g_hostLock);
  bool found = false;
  for (uint32_t i = 0; i < g_hostCount && !found; ++i) {
    if (g_hosts[i].hwnd != hwnd) continue;
    *proc = g_hosts[i].proc;
    *context = g_hosts[i].context;
    found = true;
  }
  ::ReleaseSRWLockShared(&g_hostLock);
  return found;
}

bool AddHost(HWND hwnd, CollWindowProc proc, void *context) {
  ::AcquireSRWLockExclusive(&g_hostLock);
  bool ok = true;
  if (g_hostCount == g_hostCapacity) {
    uint32_t cap = g_hostCapacity ? g_hostCapacity * 2 : 16;
    void *p = g_hosts ? ::HeapReAlloc(::GetProcessHeap(), 0, g_hosts, cap * sizeof(HostWindow))
                      : ::HeapAlloc(::GetProcessHeap(), 0, cap * sizeof(HostWindow));
    if (p) {
      g_hosts = static_cast<HostWindow *>(p);
      g_hostCapacity = cap;
    } else {
      ok = false;
    }
  }
  if (ok) g_hosts[g_hostCount++] = HostWindow{hwnd, proc, context};
  ::ReleaseSRWLockExclusive(&g_hostLock);
  return ok;
}

bool RemoveHost(HWND hwnd) {
  ::AcquireSRWLockExclusive(&g_hostLock);
  bool found = false;
  for (uint32_t i = 0; i < g_hostCount && !found; ++i) {
    if (g_hosts[i].hwnd != hwnd) continue;
    g_hosts[i] = g_hosts[--g_hostCount];
    found = true;
  }
  ::ReleaseSRWLockExclusive(&g_hostLock);
  return found;
}

// Messages that the system sends while the window is made or destroyed reach
// the default procedure only.
LRESULT CALLBACK HostWindowProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
  CollWindowProc proc;
  void *context;
  if (FindHost(hwnd, &proc, &context)) return proc(FromHwnd(hwnd), message, wParam, lParam, context);
  return ::DefWindowProcA(hwnd, message, wParam, lParam);
}

bool RegisterHostClass(HINSTANCE instance) {
  WNDCLASSEXA wc;
  std::memset(&wc, 0, sizeof wc);
  wc.cbSize = sizeof wc;
  wc.lpfnWndProc = HostWindowProc;
  wc.hInstance = instance;
  wc.lpszClassName = kHostClass;
  return ::RegisterClassExA(&wc) != 0 || ::GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}
}  // namespace

uint32_t RegisterWindowMessage(const char *name) {
  if (name == nullptr || name[0] == 0) return 0;
  return ::RegisterWindowMessageA(name);
}

namespace {
// A window of the host class that is no longer listed is being destroyed by
// its own thread: it counts as gone.
bool IsUnlistedHost(HWND hwnd) {
  char name[sizeof kHostClass + 1];
  int n = ::GetClassNameA(hwnd, name, sizeof name);
  return n == int(sizeof kHostClass - 1) && std::memcmp(name, kHostClass, n) == 0;
}
}  // namespace

bool IsWindow(uint32_t window) {
  if (window == 0) return false;
  HWND hwnd = ToHwnd(window);
  CollWindowProc proc;
  void *context;
  if (FindHost(hwnd, &proc, &context)) return true;
  return ::IsWindow(hwnd) && !IsUnlistedHost(hwnd);
}

intptr_t SendMessage(uint32_t window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
  if (window == 0) return 0;
  HWND hwnd = ToHwnd(window);
  CollWindowProc proc;
  void *context;
  if (FindHost(hwnd, &proc, &context)) return proc(window, message, wParam, lParam, context);
  if (IsUnlistedHost(hwnd)) return 0;
  return ::SendMessageA(hwnd, message, wParam, lParam);
}

// ---------------------------------------------------------------- clipboard
// The system clipboard. Whether this process has it open is also kept here:
// the system lets the same window open it twice, while the contract (and the
// host side) refuse a second open until it is closed.

namespace {
int32_t g_clipOpen;         // 1 while this process has the clipboard open
int32_t g_activeSet;        // 1 once the host chose the active window
uint32_t g_activeWindow;    // the host's choice

bool TakeClipOpen() {
  int32_t expected = 0;
  return __atomic_compare_exchange_n(&g_clipOpen, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}
bool DropClipOpen() { return __atomic_exchange_n(&g_clipOpen, 0, __ATOMIC_ACQ_REL) != 0; }

// Puts a copy of text[0..length) and a zero on the open clipboard as CF_TEXT
// in movable global memory; on failure the clipboard is left empty.
bool PutClipText(const char *text, uint32_t length) {
  HGLOBAL mem = InjectFailure() ? nullptr : ::GlobalAlloc(GMEM_MOVEABLE, size_t(length) + 1);
  char *p = mem ? static_cast<char *>(::GlobalLock(mem)) : nullptr;
  if (p) {
    std::memcpy(p, text, length);
    p[length] = 0;
    ::GlobalUnlock(mem);
    if (::SetClipboardData(CF_TEXT, mem)) return true;  // the system owns it now
  }
  if (mem) ::GlobalFree(mem);
  ::EmptyClipboard();
  return false;
}

// Calls fn(text, length) with the CF_TEXT of the open clipboard (its length
// bounded by the memory block); false when there is none.
template <typename Fn>
bool WithClipText(Fn fn) {
  HANDLE mem = ::GetClipboardData(CF_TEXT);
  if (!mem) return false;
  const char *p = static_cast<const char *>(::GlobalLock(mem));
  if (!p) return false;
  size_t len = strnlen(p, ::GlobalSize(mem));
  bool ok = fn(p, len > 0xFFFFFFFEu ? 0xFFFFFFFEu : static_cast<uint32_t>(len));
  ::GlobalUnlock(mem);
  return ok;
}

// Opens the clipboard for one host call unless this process has it open.
class HostClipboard {
 public:
  HostClipboard() : opened_(TakeClipOpen()) {
    if (opened_ && !::OpenClipboard(nullptr)) {
      DropClipOpen();
      opened_ = false;
    }
  }
  ~HostClipboard() {
    if (opened_) {
      ::CloseClipboard();
      DropClipOpen();
    }
  }
  HostClipboard(const HostClipboard &) = delete;
  HostClipboard &operator=(const HostClipboard &) = delete;
  bool opened() const { return opened_; }

 private:
  bool opened_;
};
}  // namespace

uint32_t GetActiveWindow() {
  if (__atomic_load_n(&g_activeSet, __ATOMIC_ACQUIRE)) return __atomic_load_n(&g_activeWindow, __ATOMIC_ACQUIRE);
  return FromHwnd(::GetActiveWindow());
}

// A value that names no window (the host's stand-in active window) opens the
// clipboard without an owner.
bool OpenClipboard(uint32_t window) {
  if (!TakeClipOpen()) return false;
  HWND owner = window && ::IsWindow(ToHwnd(window)) ? ToHwnd(window) : nullptr;
  if (::OpenClipboard(owner)) return true;
  DropClipOpen();
  return false;
}

bool EmptyClipboard() { return ::EmptyClipboard() != 0; }

bool SetClipboardText(const char *text, uint32_t length) { return PutClipText(text, length); }

char *GetClipboardText(uint32_t *length) {
  *length = 0;
  char *copy = nullptr;
  WithClipText([&](const char *text, uint32_t len) {
    copy = static_cast<char *>(HeapAlloc(size_t(len) + 1));
    if (!copy) return false;
    std::memcpy(copy, text, len);
    *length = len;
    return true;
  });
  return copy;
}

void CloseClipboard() {
  ::CloseClipboard();
  DropClipOpen();
}

// ---------------------------------------------------------------- profile file
// The private profile functions on the file the host chose, "COLL.INI" by
// default (a bare file name: the Windows directory).

namespace {
SRWLOCK g_profileLock = SRWLOCK_INIT;
char *g_profilePath = nullptr;  // process-heap copy; null: "COLL.INI"

class ProfilePath {
 public:
  ProfilePath() { ::AcquireSRWLockShared(&g_profileLock); }
  ~ProfilePath() { ::ReleaseSRWLockShared(&g_profileLock); }
  ProfilePath(const ProfilePath &) = delete;
  ProfilePath &operator=(const ProfilePath &) = delete;
  const char *get() const { return g_profilePath ? g_profilePath : "COLL.INI"; }
};


// The keys as the system lists them, in a heap buffer large enough for the
// whole list; *length is the bytes before the final zero. Null without memory.
char *AllKeys(const char *section, const char *path, uint32_t *length) {
  for (DWORD cap = 1024; cap <= 0x40000000u; cap *= 2) {
    char *list = static_cast<char *>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, cap));
    if (!list) return nullptr;
    DWORD n = ::GetPrivateProfileStringA(section, nullptr, "", list, cap, path);
    if (n + 2 < cap) {  // not cut
      *length = n;
      return list;
    }
    ::HeapFree(::GetProcessHeap(), 0, list);
  }
  return nullptr;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

// The name without the blanks around it: what the file holds of it.
void Trimmed(const char *s, const char **p, size_t *n) {
  size_t a = 0, b = std::strlen(s);
  while (a < b && IsBlank(s[a])) ++a;
  while (b > a && IsBlank(s[b - 1])) --b;
  *p = s + a;
  *n = b - a;
}

// A section or key name that a line of the file can hold: not empty, no
// line break, and a key does not start with '['.
bool FitsALine(const char *name, bool isKey) {
  const char *p;
  size_t n;
  Trimmed(name, &p, &n);
  if (n == 0 || std::memchr(p, '\n', n) || std::memchr(p, '\r', n)) return false;
  return !(isKey && p[0] == '[');
}
}  // namespace

// Only whole names, each with its zero, and a final zero.
uint32_t ProfileListKeys(const char *section, char *buffer, uint32_t size) {
  if (!buffer || size == 0) return 0;
  buffer[0] = 0;
  if (!section) return 0;
  uint32_t length = 0;
  char *list;
  {
    ProfilePath path;
    list = AllKeys(section, path.get(), &length);
  }
  if (!list) return 0;
  uint32_t used = 0;
  for (uint32_t pos = 0; pos < length;) {
    uint32_t n = static_cast<uint32_t>(strnlen(list + pos, length - pos));
    if (n + 2 > size - used) break;
    std::memcpy(buffer + used, list + pos, n);
    used += n;
    buffer[used++] = 0;
    pos += n + 1;
  }
  buffer[used] = 0;
  ::HeapFree(::GetProcessHeap(), 0, list);
  return used;
}

uint32_t ProfileReadString(const char *section, const char *key, const char *def, char *buffer,
                           uint32_t size) {
  if (!buffer || size == 0) return 0;
  if (!section || !key) {  // a default only
    const char *value = def ? def : "";
    size_t n = std::strlen(value);
    if (n > size - 1) n = size - 1;
    std::memcpy(buffer, value, n);
    buffer[n] = 0;
    return static_cast<uint32_t>(n);
  }
  ProfilePath path;
  return ::GetPrivateProfileStringA(section, key, def ? def : "", buffer, size, path.get());
}

// A value is cut before its first line break.
bool ProfileWriteString(const char *section, const char *key, const char *value) {
  if (!section || !key || !value) return false;
  if (!FitsALine(section, false) || !FitsALine(key, true)) return false;
  size_t n = std::strcspn(value, "\r\n");
  char *line = nullptr;
  if (value[n]) {
    line = static_cast<char *>(::HeapAlloc(::GetProcessHeap(), 0, n + 1));
    if (!line) return false;
    std::memcpy(line, value, n);
    line[n] = 0;
    value = line;
  }
  bool ok;
  {
    ProfilePath path;
    ok = ::WritePrivateProfileStringA(section, key, value, path.get()) != 0;
  }
  if (line) ::HeapFree(::GetProcessHeap(), 0, line);
  return ok;
}

namespace {
// Names compare without regard to the case of A-Z only.
bool SameNameN(const char *a, const char *b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    char x = (a[i] >= 'A' && a[i] <= 'Z') ? char(a[i] + 32) : a[i];
    char y = (b[i] >= 'A' && b[i] <= 'Z') ? char(b[i] + 32) : b[i];
    if (x != y) return false;
  }
  return true;
}

// Whether the file has a section of that name.
bool HasSection(const char *section, const char *path) {
  const char *name;
  size_t n;
  Trimmed(section, &name, &n);
  for (DWORD cap = 4096; cap <= 0x40000000u; cap *= 2) {
    char *list = static_cast<char *>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, cap));
    if (!list) return false;
    DWORD used = ::GetPrivateProfileSectionNamesA(list, cap, path);
    bool found = false;
    if (used + 2 < cap) {
      for (const char *p = list; *p && !found; p += std::strlen(p) + 1)
        found = std::strlen(p) == n && SameNameN(p, name, n);
      ::HeapFree(::GetProcessHeap(), 0, list);
      return found;
    }
    ::HeapFree(::GetProcessHeap(), 0, list);
  }
  return false;
}
}  // namespace

// Every section of that name goes: the system removes the first one a call
// finds.
bool ProfileDeleteSection(const char *section) {
  if (!section) return false;
  ProfilePath path;
  for (int i = 0; i < 1000 && HasSection(section, path.get()); ++i)
    if (!::WritePrivateProfileStringA(section, nullptr, nullptr, path.get())) return false;
  return true;  // also when the section or the file was absent
}

bool ProfileFlush() {
  ProfilePath path;
  // Writes go through to the file; this only flushes what a system caches.
  ::WritePrivateProfileStringA(nullptr, nullptr, nullptr, path.get());
  return true;
}

}  // namespace platform

// ---------------------------------------------------------------- host side

COLL_EXPORT uint32_t COLLAPI collHostCreateWindow(CollWindowProc proc, void *context) {
  using namespace platform;
  if (!proc) return 0;
  HINSTANCE instance = ThisModule();
  if (!RegisterHostClass(instance)) return 0;
  HWND hwnd = ::CreateWindowExA(0, kHostClass, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, instance, nullptr);
  if (!hwnd) return 0;
  if (!AddHost(hwnd, proc, context)) {
    ::DestroyWindow(hwnd);
    return 0;
  }
  return FromHwnd(hwnd);
}

// From another thread than the one that made it, the window stops receiving
// at once and is destroyed by its own thread when that handles WM_CLOSE.
COLL_EXPORT uint32_t COLLAPI collHostDestroyWindow(uint32_t window) {
  using namespace platform;
  HWND hwnd = ToHwnd(window);
  if (window == 0 || !RemoveHost(hwnd)) return 0;
  if (!::DestroyWindow(hwnd)) ::PostMessageA(hwnd, WM_CLOSE, 0, 0);
  return 1;
}

COLL_EXPORT uint32_t COLLAPI collHostRegisterMessage(const char *name) { return platform::RegisterWindowMessage(name); }

COLL_EXPORT uint32_t COLLAPI collHostSetActiveWindow(uint32_t window) {
  __atomic_store_n(&platform::g_activeWindow, window, __ATOMIC_RELEASE);
  __atomic_store_n(&platform::g_activeSet, 1, __ATOMIC_RELEASE);
  return 1;
}

COLL_EXPORT uint32_t COLLAPI collHostOpenClipboard(uint32_t window) { return platform::OpenClipboard(window) ? 1 : 0; }

COLL_EXPORT uint32_t COLLAPI collHostCloseClipboard(void) {
  if (__atomic_load_n(&platform::g_clipOpen, __ATOMIC_ACQUIRE) == 0) return 0;
  platform::CloseClipboard();
  return 1;
}

COLL_EXPORT uint32_t COLLAPI collHostSetClipboardText(const char *text) {
  platform::HostClipboard clip;
  if (!clip.opened()) return 0;
  if (!text) return ::EmptyClipboard() ? 1 : 0;
  ::EmptyClipboard();
  return platform::PutClipText(text, static_cast<uint32_t>(std::strlen(text))) ? 1 : 0;
}

COLL_EXPORT uint32_t COLLAPI collHostGetClipboardText(char *buffer, uint32_t size) {
  // While this process has the clipboard open it is read as it stands.
  platform::HostClipboard clip;
  uint32_t result = 0;
  platform::WithClipText([&](const char *text, uint32_t len) {
    if (buffer && size) {
      uint32_t n = len < size - 1 ? len : size - 1;
      std::memcpy(buffer, text, n);
      buffer[n] = 0;
    }
    result = len + 1;
    return true;
  });
  return result;
}

COLL_EXPORT uint32_t COLLAPI collHostSetProfilePath(const char *path) {
  char *copy = nullptr;
  if (path && path[0]) {
    size_t len = std::strlen(path);
    copy = static_cast<char *>(::HeapAlloc(::GetProcessHeap(), 0, len + 1));
    if (!copy) return 0;
    std::memcpy(copy, path, len + 1);
  }
  ::AcquireSRWLockExclusive(&platform::g_profileLock);
  char *old = platform::g_profilePath;
  platform::g_profilePath = copy;
  ::ReleaseSRWLockExclusive(&platform::g_profileLock);
  if (old) ::HeapFree(::GetProcessHeap(), 0, old);
  return 1;
}

// ---------------------------------------------------------------- unload

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_DETACH) platform::OnModuleDetach();
  return TRUE;
}
