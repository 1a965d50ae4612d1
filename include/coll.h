/*
 * coll.h - the exported interface of libcoll.
 *
 * Collections (named containers of typed items found by a case-insensitive
 * tag) and tables (grids of text with named columns), reached through small
 * integer handles. Every function copies values in and out; callers never
 * see the library's objects.
 *
 * Plain C, usable from C and C++. All results are 32-bit; 0 means failure
 * for functions that return a handle, a length, a count or 1, and
 * 0xFFFFFFFF (-1) for functions that return an index or a row or column
 * count.
 */
#ifndef COLL_H
#define COLL_H

#include <stdint.h>

/* The library's version (the build takes it from here; the shared object's
 * soname carries the major number). */
#define COLL_VERSION_MAJOR 0
#define COLL_VERSION_MINOR 1
#define COLL_VERSION_PATCH 0
#define COLL_VERSION_TEXT_(a, b, c) #a "." #b "." #c
#define COLL_VERSION_TEXT(a, b, c) COLL_VERSION_TEXT_(a, b, c)
/* "MAJOR.MINOR.PATCH" and MAJOR * 10000 + MINOR * 100 + PATCH. */
#define COLL_VERSION_STRING COLL_VERSION_TEXT(COLL_VERSION_MAJOR, COLL_VERSION_MINOR, COLL_VERSION_PATCH)
#define COLL_VERSION_NUMBER (COLL_VERSION_MAJOR * 10000 + COLL_VERSION_MINOR * 100 + COLL_VERSION_PATCH)

/* The platform's standard calling convention (stdcall on 32-bit Win32). */
#if defined(_WIN32) && !defined(_WIN64)
#define COLLAPI __stdcall
#else
#define COLLAPI
#endif

/* Marks the library's exported functions. */
#if defined(_WIN32)
#if defined(COLL_BUILDING) || defined(COLL_STATIC)
#define COLL_EXPORT /* the DLL's module-definition file lists its exports */
#else
#define COLL_EXPORT __declspec(dllimport)
#endif
#else
#define COLL_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Handles: collections 0x4001..0x40FE, tables 0x8001..0x80FE. */
typedef uint32_t HCOLL;
typedef uint32_t HTABLE;
typedef uint32_t HWINDOW;

/* Item type codes. Code 7 arrives only through loaded dumps; it reads as text. */
#define COLLTYPE_ITEM 1    /* raw bytes */
#define COLLTYPE_TABLE 2   /* a table owned by the item */
#define COLLTYPE_COLL 3    /* a collection owned by the item */
#define COLLTYPE_TIME 4    /* seconds since 1970, unsigned 32-bit */
#define COLLTYPE_NUMERIC 5 /* signed 32-bit number */
#define COLLTYPE_STRING 6  /* text without terminating zero */

/* Row codes of the table functions (32-bit values compared unsigned). */
#define ROW_HEADER ((int32_t)-1)     /* column names; attributes with columns -1..-5 */
#define ROW_APPEND ((int32_t)-4)     /* a new row after the last */
#define ROW_NAMES ((int32_t)-5)      /* all column names as one packed row */
#define ROW_ATTRIBUTES ((int32_t)-6) /* all five attribute strings as one packed row */

/* Layouts of tableDataToClipboard. */
#define CLIP_NAMES 0           /* the column names */
#define CLIP_SELECTED_ROW 1    /* the selected row */
#define CLIP_ROWS 2            /* every row */
#define CLIP_NAMES_AND_SELECTED_ROW 3
#define CLIP_NAMES_AND_ROWS 4

/* The caller's allocation function of collObtainItem and collObtainString. */
typedef void *(*CollAllocFunc)(uint32_t size);

/* ---- Library frame ---- */
COLL_EXPORT void *COLLAPI collAlloc(uint32_t size);
COLL_EXPORT void COLLAPI collFree(void *block);
COLL_EXPORT void COLLAPI collTaskAbort(uint32_t processId);
COLL_EXPORT uint32_t COLLAPI collIsBadCollHandle(HCOLL hColl);
COLL_EXPORT uint32_t COLLAPI collGetNonSharedHandles(uint32_t *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collGetTableHandles(uint32_t *buffer, uint32_t size);

/* ---- Collections and raw items ---- */
COLL_EXPORT HCOLL COLLAPI collOpen(const char *name);
COLL_EXPORT void COLLAPI collClose(HCOLL hColl);
COLL_EXPORT void COLLAPI collEmpty(HCOLL hColl);
COLL_EXPORT uint32_t COLLAPI collGetShareCount(HCOLL hColl);
COLL_EXPORT uint32_t COLLAPI collGetName(HCOLL hColl, char *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collGetCreator(HCOLL hColl, char *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collItemCount(HCOLL hColl);
COLL_EXPORT uint32_t COLLAPI collNameItem(HCOLL hColl, uint32_t index, char *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collGetType(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collCopyItem(HCOLL hTo, HCOLL hFrom, const char *tag);
COLL_EXPORT uint32_t COLLAPI collRenameTag(HCOLL hColl, const char *oldTag, const char *newTag);
COLL_EXPORT uint32_t COLLAPI collSetItem(HCOLL hColl, const char *tag, const void *data, uint32_t length);
COLL_EXPORT uint32_t COLLAPI collGetItem(HCOLL hColl, const char *tag, void *buffer, uint32_t size);
COLL_EXPORT void *COLLAPI collObtainItem(HCOLL hColl, const char *tag, CollAllocFunc allocate, uint32_t *length);
COLL_EXPORT int32_t COLLAPI collCompare(HCOLL hColl, const char *tag, const char *value, uint32_t length);

/* ---- Typed values ---- */
COLL_EXPORT uint32_t COLLAPI collSetNumeric(HCOLL hColl, const char *tag, int32_t value);
COLL_EXPORT int32_t COLLAPI collGetNumeric(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collSetString(HCOLL hColl, const char *tag, const char *text);
COLL_EXPORT uint32_t COLLAPI collGetString(HCOLL hColl, const char *tag, char *buffer, uint32_t size);
COLL_EXPORT char *COLLAPI collObtainString(HCOLL hColl, const char *tag, CollAllocFunc allocate, uint32_t *length);
COLL_EXPORT uint32_t COLLAPI collSetTime(HCOLL hColl, const char *tag, uint32_t time);
COLL_EXPORT uint32_t COLLAPI collGetTime(HCOLL hColl, const char *tag, uint32_t *time);
COLL_EXPORT uint32_t COLLAPI collSetColl(HCOLL hColl, const char *tag, HCOLL hSource);
COLL_EXPORT HCOLL COLLAPI collGetColl(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collMerge(HCOLL hDest, HCOLL hSource);
COLL_EXPORT uint32_t COLLAPI collSubstitute(HCOLL hColl, const char *templ, char *buffer, uint32_t size);

/* ---- Tables held in collections ---- */
COLL_EXPORT uint32_t COLLAPI collSetTable(HCOLL hColl, const char *tag, HTABLE hTable);
COLL_EXPORT HTABLE COLLAPI collGetTable(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collTableRowCount(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collTableColCount(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collTableGetStamp(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collTableGetColIndex(HCOLL hColl, const char *tag, const char *name);
COLL_EXPORT uint32_t COLLAPI collTableGetField(HCOLL hColl, const char *tag, int32_t row, uint32_t column,
                                               char *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collTableGetRow(HCOLL hColl, const char *tag, uint32_t row, void *buffer,
                                             uint32_t size);
COLL_EXPORT uint32_t COLLAPI collTableGetSelection(HCOLL hColl, const char *tag);
COLL_EXPORT uint32_t COLLAPI collTableSetSelection(HCOLL hColl, const char *tag, uint32_t row);
COLL_EXPORT uint32_t COLLAPI collTableFindField(HCOLL hColl, const char *tag, const char *text,
                                                uint32_t textLength, uint32_t startRow, uint32_t column);
COLL_EXPORT uint32_t COLLAPI collTableFindAbbrev(HCOLL hColl, const char *tag, const char *text,
                                                 uint32_t textLength, uint32_t startRow, uint32_t column);
COLL_EXPORT uint32_t COLLAPI collTableDataToCollection(HCOLL hDest, HCOLL hFrom, const char *tag);

/* ---- Tables ---- */
COLL_EXPORT HTABLE COLLAPI tableCreate(uint32_t cols, uint32_t type);
COLL_EXPORT void COLLAPI tableDestroy(HTABLE hTable);
COLL_EXPORT uint32_t COLLAPI tableAddRow(HTABLE hTable, uint32_t row);
COLL_EXPORT void COLLAPI tableDeleteRow(HTABLE hTable, uint32_t row);
COLL_EXPORT uint32_t COLLAPI tableSetRow(HTABLE hTable, uint32_t row, const void *fields, uint32_t size);
COLL_EXPORT uint32_t COLLAPI tableGetRow(HTABLE hTable, uint32_t row, void *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI tableSetItem(HTABLE hTable, int32_t row, uint32_t column, const char *text);
COLL_EXPORT uint32_t COLLAPI tableSetField(HTABLE hTable, int32_t row, uint32_t column, const char *text);
COLL_EXPORT uint32_t COLLAPI tableGetItem(HTABLE hTable, int32_t row, uint32_t column, char *buffer,
                                          uint32_t size);
COLL_EXPORT uint32_t COLLAPI tableGetField(HTABLE hTable, int32_t row, uint32_t column, char *buffer,
                                           uint32_t size);
COLL_EXPORT uint32_t COLLAPI tableRowCount(HTABLE hTable);
COLL_EXPORT uint32_t COLLAPI tableColCount(HTABLE hTable);
COLL_EXPORT uint32_t COLLAPI tableGetType(HTABLE hTable);
COLL_EXPORT uint32_t COLLAPI tableGetStamp(HTABLE hTable);
COLL_EXPORT uint32_t COLLAPI tableGetSelection(HTABLE hTable);
COLL_EXPORT uint32_t COLLAPI tableSetSelection(HTABLE hTable, uint32_t row);
COLL_EXPORT uint32_t COLLAPI tableGetColIndex(HTABLE hTable, const char *name);
COLL_EXPORT uint32_t COLLAPI tableFindField(HTABLE hTable, const char *text, uint32_t textSize,
                                            uint32_t startRow, uint32_t column);
COLL_EXPORT uint32_t COLLAPI tableFindAbbrev(HTABLE hTable, const char *text, uint32_t textSize,
                                             uint32_t startRow, uint32_t column);
COLL_EXPORT uint32_t COLLAPI tableCompare(HTABLE hFirst, HTABLE hSecond, uint32_t startRow, uint32_t flags);
COLL_EXPORT uint32_t COLLAPI tableDataToCollection(HTABLE hTable, HCOLL hColl);
COLL_EXPORT HTABLE COLLAPI tableCopy(HTABLE hTable, uint32_t unused);
COLL_EXPORT HTABLE COLLAPI tableLoad(const void *image, uint32_t size, uint32_t mode, uint32_t fourth,
                                     uint32_t fifth);
COLL_EXPORT uint32_t COLLAPI tableDataToClipboard(HTABLE hTable, uint32_t mode);
COLL_EXPORT HTABLE COLLAPI tableDataFromClipboard(HWINDOW window);

/* ---- Sharing and notification ---- */
COLL_EXPORT HCOLL COLLAPI collOpenShared(const char *name);
COLL_EXPORT HCOLL COLLAPI collOpenUnique(const char *name);
COLL_EXPORT uint32_t COLLAPI collWrite(HCOLL hColl);
COLL_EXPORT uint32_t COLLAPI collGenerateNewName(char *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collRequestAdvice(HCOLL hColl, HWINDOW window, uint32_t on);
COLL_EXPORT uint32_t COLLAPI collRequestPropagate(HCOLL hSource, HCOLL hTarget, uint32_t on);
COLL_EXPORT uint32_t COLLAPI collLock(HCOLL hColl);
COLL_EXPORT uint32_t COLLAPI collUnlock(HCOLL hColl);

/* ---- Serialization ---- */
COLL_EXPORT uint32_t COLLAPI collDumpItems(HCOLL hColl, void *buffer, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collDumpItemsHex(HCOLL hColl, char *text, uint32_t size);
COLL_EXPORT uint32_t COLLAPI collLoadItems(HCOLL hColl, const void *data, uint32_t length);
COLL_EXPORT uint32_t COLLAPI collLoadItemsHex(HCOLL hColl, const char *text, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* COLL_H */
