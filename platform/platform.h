// platform.h - everything libcoll needs from the operating system.
//
// This is the one contract between the library and its host platform. Each
// platform provides one implementation file (posix.cpp here); no other file
// of the library includes an operating-system header. Every function is
// safe to call from any thread unless its comment says otherwise, and none
// of them calls back into the library except where stated (window procedures
// and the module-detach hook).
//
// Nothing here throws. Results follow the conventions of the services the
// library was written against: 0 or null for failure unless stated.
#ifndef COLL_PLATFORM_H
#define COLL_PLATFORM_H

#include <cstddef>
#include <cstdint>

namespace platform {

// ---------------------------------------------------------------- atomics
// Atomically adds 1 to *word and returns the new value (sequentially
// consistent).
int32_t InterlockedIncrement(int32_t *word);
// Atomically subtracts 1 from *word and returns the new value.
int32_t InterlockedDecrement(int32_t *word);
// Atomically reads *word.
int32_t AtomicLoad(const int32_t *word);
uint32_t AtomicLoad32(const uint32_t *word);
// Atomically writes *word.
void AtomicStore32(uint32_t *word, uint32_t value);

// ---------------------------------------------------------------- waiting
// Blocks the calling thread while *word equals expected, for at most
// timeoutMs milliseconds (0xFFFFFFFF: no limit). May return early
// (spuriously); callers re-check their condition. Never spins for long.
void WaitOnWord(const int32_t *word, int32_t expected, uint32_t timeoutMs);
// Wakes one / all threads blocked in WaitOnWord on word.
void WakeOne(const int32_t *word);
void WakeAll(const int32_t *word);
// A hint inside a short spin loop.
void SpinPause();

// Runs fn exactly once per flag for the life of the process; concurrent
// callers return only after fn has finished. REQUIRES: fn does not throw.
struct OnceFlag {
  int32_t state;  // 0 not run, 1 running, 2 done; zero-initialised
};
void CallOnce(OnceFlag *flag, void (*fn)());

// ---------------------------------------------------------------- ids, time
// The calling thread's id; never 0.
uint32_t CurrentThreadId();
// The process's id; never 0.
uint32_t CurrentProcessId();
// Milliseconds since an arbitrary start, from a monotonic clock, truncated
// to 32 bits (wraps after about 49.7 days).
uint32_t TickCount();
// The file name of the running executable without its directory, cut to
// size - 1 bytes and zero-terminated. Returns its length, or 0 when it cannot
// be obtained (buffer then holds an empty string). REQUIRES: size >= 1.
uint32_t ExecutableName(char *buffer, uint32_t size);

// A calendar time broken down in the machine's local time zone.
struct CivilTime {
  int32_t year;     // e.g. 1970
  int32_t month;    // 0 (January) to 11
  int32_t day;      // 1 to 31
  int32_t hour;     // 0 to 23
  int32_t minute;   // 0 to 59
  int32_t second;   // 0 to 60
  int32_t weekday;  // 0 (Sunday) to 6
};
// Converts an unsigned count of seconds since 1970-01-01 00:00:00 UTC (all
// 32 bits, so times run to 2106) to local time (localtime semantics).
// Thread-safe; false when the conversion gives no result (*out unchanged).
bool LocalTime(uint32_t secondsSince1970, CivilTime *out);

// ---------------------------------------------------------------- memory
// Zero-filled heap memory; null when the heap cannot satisfy it. size 0
// yields a valid unique block.
void *HeapAlloc(size_t size);
// Moves or resizes block to size bytes; bytes past the old size are not
// cleared. Null when the heap cannot satisfy it, and block is then unchanged
// and still owned by the caller. REQUIRES: block came from HeapAlloc or
// HeapReAlloc.
void *HeapReAlloc(void *block, size_t size);
// Returns block to the heap; null is ignored.
void HeapFree(void *block);

// Test hook: makes the n-th HeapAlloc or HeapReAlloc from now on fail (n = 1
// is the next one); 0 turns failures off. Returns the number of allocations
// made since the previous call, so a test can tell when a run needed no more.
uint32_t FailAllocation(uint32_t n);

// Memory tests. They never fault and make no system call: size 0 always
// passes; a null pointer, a pointer into the first 64 KiB, or a range that
// wraps the address space is bad; anything else is taken as accessible.
// Each returns true when the memory is NOT accessible.
bool IsBadReadPtr(const void *p, uint32_t size);
bool IsBadWritePtr(const void *p, uint32_t size);

// ---------------------------------------------------------------- windows
// Window handles are 32-bit values; 0 is no window.
// The number registered for a message name: equal (0xC000..0xFFFF) for names
// equal without regard to the case of A-Z; 0 for a null or empty name or when
// no number is left.
uint32_t RegisterWindowMessage(const char *name);
// True while the window exists.
bool IsWindow(uint32_t window);
// Calls the window's procedure synchronously in this thread and returns its
// result; 0 when the window does not exist. The procedure may call anything
// in the library. REQUIRES: the caller holds no library lock.
intptr_t SendMessage(uint32_t window, uint32_t message, uintptr_t wParam, intptr_t lParam);

// ---------------------------------------------------------------- clipboard
// One process-wide text clipboard (CF_TEXT). Open fails while it is open.
uint32_t GetActiveWindow();
bool OpenClipboard(uint32_t window);
bool EmptyClipboard();
// Replaces the clipboard's text with a copy of text[0..length) followed by a
// zero. REQUIRES: the clipboard is open by this caller. False when out of
// memory (the clipboard is then empty).
bool SetClipboardText(const char *text, uint32_t length);
// A copy of the clipboard's text in HeapAlloc memory, zero-terminated, with
// its length in *length; null when there is none or no memory. The caller
// frees it with HeapFree. REQUIRES: the clipboard is open by this caller.
char *GetClipboardText(uint32_t *length);
void CloseClipboard();

// ---------------------------------------------------------------- profile file
// The private initialisation file ("COLL.INI"). Section and key names match
// without regard to case. Values are text; every call is complete on return
// or held in memory until ProfileFlush.
//
// Lists the keys of section, each followed by a zero, the list ended by an
// extra zero, cut to fit size bytes. Returns the bytes written, not counting
// the final zero. Absent section or file: an empty list.
uint32_t ProfileListKeys(const char *section, char *buffer, uint32_t size);
// Copies the value of key (or def when absent) cut to size - 1 characters and
// a zero; returns the characters copied.
uint32_t ProfileReadString(const char *section, const char *key, const char *def, char *buffer,
                           uint32_t size);
// Creates or replaces key in section with value; true on success.
bool ProfileWriteString(const char *section, const char *key, const char *value);
// Removes section with all its keys; true on success (also when absent).
bool ProfileDeleteSection(const char *section);
// Writes whatever is held in memory for the file to the file.
bool ProfileFlush();

// ---------------------------------------------------------------- lifetime
// The platform calls this once when the library's module is unloaded (process
// detach). Defined by the library's frame.
void OnModuleDetach();

}  // namespace platform

#endif  // COLL_PLATFORM_H
