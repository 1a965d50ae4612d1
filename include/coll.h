/*
 * coll.h - the exported interface of libcoll.
 *
 * Collections (named containers of typed items found by a tag) and tables
 * (grids of text with named columns), reached through small integer
 * handles. Every function copies values in and out; callers never see the
 * library's objects. Plain C, usable from C and C++.
 *
 * What holds unless a function's comment says otherwise:
 * - Results are 32-bit. 0 means failure for functions that return a handle,
 *   a length, a count or 1; 0xFFFFFFFF (-1) for those that return an index
 *   or a row or column count. No function says why it failed; bad arguments
 *   fail before anything changes, and a refused store keeps the old value.
 * - The text-getter rule: copy at most size - 1 bytes and a terminating
 *   zero, and return the whole text's length + 1, so that a result greater
 *   than size means the copy was cut; a null buffer with size 0 asks for
 *   that result only.
 * - A tag is at least one byte. Tags and column names compare without regard
 *   to the case of A-Z; a stored tag keeps the spelling of its last store.
 *   Storing an empty value (no bytes, "", an empty collection) deletes the
 *   tag.
 * - Limits: 254 collections (0x4001..0x40FE, the catalog of shared
 *   collections included) and 254 tables (0x8001..0x80FE) at a time;
 *   collection names of at most 64 characters; a collection's image (678
 *   bytes and, per item, its tag, its value and 10 bytes) of at most 63,483
 *   bytes; a table's strings of at most 64 x 1023 bytes; a dump of at most
 *   65,534 bytes.
 * - Any thread may call any function: one process-wide lock serialises the
 *   calls. Handles mean nothing in another process.
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

/* size zero-filled bytes from the library's heap, or null. The block is the
 * caller's; give it back with collFree. Takes no lock. */
COLL_EXPORT void *COLLAPI collAlloc(uint32_t size);
/* Gives back a block from collAlloc (null: nothing happens). */
COLL_EXPORT void COLLAPI collFree(void *block);
/* Destroys what process processId owns: its private top-level collections
 * (with the collections and tables they hold) and its free-standing tables.
 * Shared collections stay. The library calls it for its own process when
 * it is unloaded. */
COLL_EXPORT void COLLAPI collTaskAbort(uint32_t processId);
/* 0 when hColl names a live collection (nested ones included), else 1.
 * Does not wait for another thread's transaction. */
COLL_EXPORT uint32_t COLLAPI collIsBadCollHandle(HCOLL hColl);
/* Lists the private top-level collections (not shared, not nested): zeroes
 * the size bytes of buffer, stores at most size / 4 handles and returns the
 * number stored. With size 0 (buffer may be null) it returns how many there
 * are. 0 when buffer is not writable for size bytes. */
COLL_EXPORT uint32_t COLLAPI collGetNonSharedHandles(uint32_t *buffer, uint32_t size);
/* Lists every table handle, free-standing and held in collections: zeroes
 * the size bytes of buffer, stores at most size / 4 handles and returns the
 * number stored (so 0 with size 0: there is no count query). */
COLL_EXPORT uint32_t COLLAPI collGetTableHandles(uint32_t *buffer, uint32_t size);

/* ---- Collections and raw items ---- */

/* A new private collection named name (null: ""; at most 64 characters;
 * names need not be unique). The caller owns the handle and ends it with
 * collClose. 0 for a longer name or when all 254 handles are taken. */
COLL_EXPORT HCOLL COLLAPI collOpen(const char *name);
/* Ends a handle from collOpen, collOpenShared, collOpenUnique or collGetColl.
 * A private collection is destroyed with every table and collection it
 * holds; a shared one loses one share and is destroyed (its name freed) at
 * the last. A nested collection's handle, or an invalid one: nothing. */
COLL_EXPORT void COLLAPI collClose(HCOLL hColl);
/* Deletes every item in order, destroying held tables and collections; each
 * deletion is communicated (advice, propagation). The catalog stays. */
COLL_EXPORT void COLLAPI collEmpty(HCOLL hColl);
/* How many opens a shared collection has; 0 for a private or nested
 * collection and for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI collGetShareCount(HCOLL hColl);
/* The collection's name (at most 64 characters) with the text-getter rule:
 * the name's length + 1, cut copy always terminated, null buffer with size
 * 0 for the length. 0 for an invalid handle (buffer[0] is then 0). */
COLL_EXPORT uint32_t COLLAPI collGetName(HCOLL hColl, char *buffer, uint32_t size);
/* The file name of the program that created the collection. Fills the size
 * bytes of buffer with zeros, copies the first min(n, size) bytes of the n
 * bytes of the name and returns n: no terminator is counted, and when n >=
 * size there is none. 0 for size 0 (no length query) or an invalid handle. */
COLL_EXPORT uint32_t COLLAPI collGetCreator(HCOLL hColl, char *buffer, uint32_t size);
/* The number of items; 0 for an empty collection and for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI collItemCount(HCOLL hColl);
/* The tag of item number index (0 .. collItemCount - 1, in storage order:
 * the order of adding, a value replaced by one of another length moving to
 * the end), with the text-getter rule: tag length + 1. 0 when index is out
 * of range or the handle invalid (buffer[0] is then 0). */
COLL_EXPORT uint32_t COLLAPI collNameItem(HCOLL hColl, uint32_t index, char *buffer, uint32_t size);
/* The item's type code (COLLTYPE_*, or 7); 0 for a missing tag. */
COLL_EXPORT uint32_t COLLAPI collGetType(HCOLL hColl, const char *tag);
/* Makes hTo's item tag a deep copy of hFrom's (held tables and collections
 * are copied too) and communicates the change. A tag that hFrom lacks, or
 * hFrom 0, deletes the tag in hTo. 1 on success, also when hFrom == hTo
 * (nothing happens); 0 for hTo the catalog, an invalid handle, or a full
 * image. */
COLL_EXPORT uint32_t COLLAPI collCopyItem(HCOLL hTo, HCOLL hFrom, const char *tag);
/* Moves the item oldTag to newTag (replacing an item newTag); it becomes the
 * last item. A change of letter case only renames in place. 1, or 0 for a
 * missing oldTag, an empty newTag, the catalog, an invalid handle or a full
 * image (oldTag then stays). */
COLL_EXPORT uint32_t COLLAPI collRenameTag(HCOLL hColl, const char *oldTag, const char *newTag);
/* Stores length bytes of data as a raw item (COLLTYPE_ITEM); length
 * 0xFFFFFFFF takes data as a zero-terminated text (stored without its zero).
 * Length 0 or "" deletes the tag. 1, or 0 for the catalog, an invalid
 * handle, unreadable data or an image that would pass 63,483 bytes. */
COLL_EXPORT uint32_t COLLAPI collSetItem(HCOLL hColl, const char *tag, const void *data, uint32_t length);
/* Reads a raw or text item. Raw: returns its byte count n (no terminator
 * counted), copies min(n, size) bytes and a zero after them when size > n
 * (so none when the copy is cut). Text: the text-getter rule, length + 1.
 * size 0 asks for the result only. 0 for a missing tag, another type or an
 * invalid handle. */
COLL_EXPORT uint32_t COLLAPI collGetItem(HCOLL hColl, const char *tag, void *buffer, uint32_t size);
/* Like collGetItem into a buffer of the caller's: sets *length to what
 * collGetItem returns, calls allocate(*length + 1) and fills it (raw: the
 * bytes and a zero; text: the text and its zero). The buffer belongs to the caller, who frees
 * it by the means that match allocate, which runs under the library's lock
 * and must not call the library. Null (*length 0) for a missing tag or an
 * invalid handle; another type gives *length 0 and an unwritten 1-byte
 * buffer; null with *length set when allocate fails. */
COLL_EXPORT void *COLLAPI collObtainItem(HCOLL hColl, const char *tag, CollAllocFunc allocate, uint32_t *length);
/* Compares the item's bytes with value, ignoring the case of A-Z: -1, 0 or
 * 1 as the stored value sorts before, equal to or after value. Length
 * 0xFFFFFFFF compares the shorter of the two (a prefix compares equal);
 * another length compares exactly that many bytes, which both must have.
 * -1 also for a missing tag, an invalid handle or a too short value. */
COLL_EXPORT int32_t COLLAPI collCompare(HCOLL hColl, const char *tag, const char *value, uint32_t length);

/* ---- Typed values ---- */

/* Stores a signed 32-bit number (COLLTYPE_NUMERIC). 1, or 0 for an invalid
 * handle or a full image. Unlike the other setters it accepts the catalog. */
COLL_EXPORT uint32_t COLLAPI collSetNumeric(HCOLL hColl, const char *tag, int32_t value);
/* A number item's value; a text item converted as atol does (" 42abc" is
 * 42); 0 for every other type, a missing tag and an invalid handle (test
 * collGetType to tell a stored 0 apart). */
COLL_EXPORT int32_t COLLAPI collGetNumeric(HCOLL hColl, const char *tag);
/* Stores text up to its zero as a text item (COLLTYPE_STRING); "" deletes
 * the tag. 1, or 0 for a null text, the catalog, an invalid handle or a
 * full image. */
COLL_EXPORT uint32_t COLLAPI collSetString(HCOLL hColl, const char *tag, const char *text);
/* Any item as text, with the text-getter rule (text length + 1): a text;
 * raw bytes up to their first zero; a number in decimal; a time as the 24
 * characters of asctime in local time ("Tue Nov 14 22:13:20 2023"). A
 * missing tag reads as "" (result 1). 0 for a table or collection item and
 * an invalid handle (buffer[0] is then 0). */
COLL_EXPORT uint32_t COLLAPI collGetString(HCOLL hColl, const char *tag, char *buffer, uint32_t size);
/* collGetString into a buffer of the caller's: allocate(n + 1) for the
 * text-getter result n, filled with the text and its zero; *length = n. A
 * missing tag gives a 1-byte "" and *length 1; a table or collection item a
 * 1-byte "" and *length 0. allocate runs under the library's lock and must
 * not call the library; the caller frees the buffer. Null (*length 0) for an
 * invalid handle or a null allocate. */
COLL_EXPORT char *COLLAPI collObtainString(HCOLL hColl, const char *tag, CollAllocFunc allocate, uint32_t *length);
/* Stores a time (COLLTYPE_TIME): seconds since 1970 UTC, unsigned 32-bit.
 * 1, or 0 for the catalog, an invalid handle or a full image. */
COLL_EXPORT uint32_t COLLAPI collSetTime(HCOLL hColl, const char *tag, uint32_t time);
/* 1 with *time set when the item is a time; 0 (*time unchanged) for a
 * missing tag, another type (nothing is converted) or an invalid handle. */
COLL_EXPORT uint32_t COLLAPI collGetTime(HCOLL hColl, const char *tag, uint32_t *time);
/* Stores a copy of collection hSource (its items, its name) under tag; later
 * changes to either do not reach the other. An empty hSource, or hSource 0,
 * deletes the tag. 1, or 0 for hSource == hColl, the catalog, an invalid
 * handle or a full image. */
COLL_EXPORT uint32_t COLLAPI collSetColl(HCOLL hColl, const char *tag, HCOLL hSource);
/* A new private collection holding a copy of the collection item tag. The
 * caller owns it and ends it with collClose. A missing tag gives a new empty
 * collection named "Empty from CollGetColl"; 0 for another type, an invalid
 * handle or no free handle. */
COLL_EXPORT HCOLL COLLAPI collGetColl(HCOLL hColl, const char *tag);
/* Copies every item of hSource into hDest, replacing items of the same tag
 * and keeping the others; each store is communicated. 1 (also when hDest ==
 * hSource: nothing happens); 0 for the catalog as hDest, an invalid handle,
 * or a full image (the items copied until then stay). */
COLL_EXPORT uint32_t COLLAPI collMerge(HCOLL hDest, HCOLL hSource);
/* Fills in the template templ from hColl into buffer, with the text-getter
 * rule (output length + 1; null buffer and size 0 for the length):
 *   !tag.  the item as collGetString gives it, up to its first zero byte;
 *          nothing for a missing tag, a table or a collection (a tag runs
 *          to the next '.' and may hold '!')
 *   !.     the collection's name
 *   !!     one '!'; a '!' at the end, or one with no '.' after it, stays
 *          with the rest of the template as it is
 * Inserted values are not scanned again; an invalid hColl inserts nothing.
 * 0 only for an unreadable template or buffer. */
COLL_EXPORT uint32_t COLLAPI collSubstitute(HCOLL hColl, const char *templ, char *buffer, uint32_t size);

/* ---- Tables held in collections ---- */

/* Stores a copy of table hTable under tag (the strings are shared until
 * either side changes them; hTable stays the caller's). 1, or 0 for the
 * catalog, an invalid handle, no free table handle or a full image. */
COLL_EXPORT uint32_t COLLAPI collSetTable(HCOLL hColl, const char *tag, HTABLE hTable);
/* A new free-standing table copying the table item tag (copy on write). The
 * caller owns it and ends it with tableDestroy. 0 for a missing tag, another
 * type, an invalid handle or no free table handle. */
COLL_EXPORT HTABLE COLLAPI collGetTable(HCOLL hColl, const char *tag);
/* The collTable* functions read a table item in place, as the table
 * functions of the same name do; a missing tag, an item of another type or
 * an invalid handle gives their failure result. */

/* Rows of the table item; -1 on failure. */
COLL_EXPORT uint32_t COLLAPI collTableRowCount(HCOLL hColl, const char *tag);
/* Columns of the table item; -1 on failure. */
COLL_EXPORT uint32_t COLLAPI collTableColCount(HCOLL hColl, const char *tag);
/* The table item's stamp (see tableGetStamp); 0 on failure. */
COLL_EXPORT uint32_t COLLAPI collTableGetStamp(HCOLL hColl, const char *tag);
/* As tableGetColIndex: the first column named name; -1 for none. */
COLL_EXPORT uint32_t COLLAPI collTableGetColIndex(HCOLL hColl, const char *tag, const char *name);
/* As tableGetItem: one string, text-getter rule; 0 on failure. */
COLL_EXPORT uint32_t COLLAPI collTableGetField(HCOLL hColl, const char *tag, int32_t row, uint32_t column,
                                               char *buffer, uint32_t size);
/* As tableGetRow: a packed row, copied only when it fits; its byte count,
 * 0 on failure. */
COLL_EXPORT uint32_t COLLAPI collTableGetRow(HCOLL hColl, const char *tag, uint32_t row, void *buffer,
                                             uint32_t size);
/* As tableGetSelection: the selected row, -1 for none or on failure. */
COLL_EXPORT uint32_t COLLAPI collTableGetSelection(HCOLL hColl, const char *tag);
/* As tableSetSelection; a change of selection is communicated as a change
 * of the item. 1, or 0 on failure. */
COLL_EXPORT uint32_t COLLAPI collTableSetSelection(HCOLL hColl, const char *tag, uint32_t row);
/* As tableFindField: the first row from startRow on whose field equals
 * text; -1 for none or on failure. */
COLL_EXPORT uint32_t COLLAPI collTableFindField(HCOLL hColl, const char *tag, const char *text,
                                                uint32_t textLength, uint32_t startRow, uint32_t column);
/* As tableFindAbbrev: the first row from startRow on whose field begins
 * with text; -1 for none or on failure. */
COLL_EXPORT uint32_t COLLAPI collTableFindAbbrev(HCOLL hColl, const char *tag, const char *text,
                                                 uint32_t textLength, uint32_t startRow, uint32_t column);
/* As tableDataToCollection: the selected row of hFrom's table item into
 * hDest, one text item per column. 1, or 0 (no selection, a failed store). */
COLL_EXPORT uint32_t COLLAPI collTableDataToCollection(HCOLL hDest, HCOLL hFrom, const char *tag);

/* ---- Tables ----
 * A table has cols columns (fixed at creation), rows rows, five attribute
 * strings and a selected row, all strings zero-terminated and at most
 * 64 x 1023 bytes together. A packed row is a row's strings back to back,
 * each with its zero. Strings are addressed by (row, column): row 0 ..
 * rows - 1 a field; ROW_HEADER with column 0 .. cols - 1 a column name,
 * with column -1 .. -5 attribute string 0 .. 4. A change that would pass
 * the size limit returns 0 and leaves the table as it was. */

/* A new free-standing table of cols columns (at least 1), no rows, empty
 * names and attributes, type word type (low 16 bits kept). The caller owns
 * it and ends it with tableDestroy. 0 for cols 0 or no free table handle. */
COLL_EXPORT HTABLE COLLAPI tableCreate(uint32_t cols, uint32_t type);
/* Ends a free-standing table handle; a table held in a collection, or an
 * invalid handle: nothing. */
COLL_EXPORT void COLLAPI tableDestroy(HTABLE hTable);
/* Adds an empty row before row (0 .. rows - 1), or at the end (rows or
 * ROW_APPEND); ROW_NAMES empties every column name, ROW_ATTRIBUTES every
 * attribute string. 1, or 0 for another row or an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableAddRow(HTABLE hTable, uint32_t row);
/* Deletes row (0 .. rows - 1); the rows after it move up, and the selection
 * is cleared when it was that row or now lies past the end. */
COLL_EXPORT void COLLAPI tableDeleteRow(HTABLE hTable, uint32_t row);
/* Sets row (0 .. rows - 1), appends one (ROW_APPEND), or sets the column
 * names (ROW_NAMES) or the five attribute strings (ROW_ATTRIBUTES) from the
 * packed row fields of size bytes, whose last byte must be 0. Missing
 * strings become empty; strings past the count are ignored. 1, or 0. */
COLL_EXPORT uint32_t COLLAPI tableSetRow(HTABLE hTable, uint32_t row, const void *fields, uint32_t size);
/* The byte count of the packed row (zeros included) of row, ROW_NAMES or
 * ROW_ATTRIBUTES; the row is copied only when size holds it all (null
 * buffer with size 0 for the count). 0 for another row or an invalid
 * handle. */
COLL_EXPORT uint32_t COLLAPI tableGetRow(HTABLE hTable, uint32_t row, void *buffer, uint32_t size);
/* Replaces one string (see the addressing above) with text. 1, or 0 for an
 * address that names no string, an invalid handle or the size limit. */
COLL_EXPORT uint32_t COLLAPI tableSetItem(HTABLE hTable, int32_t row, uint32_t column, const char *text);
/* The same as tableSetItem. */
COLL_EXPORT uint32_t COLLAPI tableSetField(HTABLE hTable, int32_t row, uint32_t column, const char *text);
/* One string, with the text-getter rule (length + 1, cut copy terminated).
 * 0 for an address that names no string or an invalid handle (buffer[0] is
 * then 0). */
COLL_EXPORT uint32_t COLLAPI tableGetItem(HTABLE hTable, int32_t row, uint32_t column, char *buffer,
                                          uint32_t size);
/* The same as tableGetItem. */
COLL_EXPORT uint32_t COLLAPI tableGetField(HTABLE hTable, int32_t row, uint32_t column, char *buffer,
                                           uint32_t size);
/* The number of rows; -1 for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableRowCount(HTABLE hTable);
/* The number of columns; -1 for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableColCount(HTABLE hTable);
/* The type word given to tableCreate; -1 for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableGetType(HTABLE hTable);
/* The system's millisecond tick count at the table's last change (or its
 * copy into or out of a collection); 0 for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableGetStamp(HTABLE hTable);
/* The selected row; -1 for none or an invalid handle. A selection that lies
 * past the last row is cleared. The selection belongs to the handle. */
COLL_EXPORT uint32_t COLLAPI tableGetSelection(HTABLE hTable);
/* Selects row; a row out of range (-1 included) clears the selection. 1, or
 * 0 for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableSetSelection(HTABLE hTable, uint32_t row);
/* The first column whose whole name equals name (case of A-Z ignored); -1
 * for none or an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableGetColIndex(HTABLE hTable, const char *name);
/* The first row from startRow on (startRow included: pass the last result +
 * 1 to go on) whose field in column equals text, case of A-Z ignored. text
 * is textSize bytes, or up to a zero among them. -1 for none, a column or
 * startRow out of range, or an invalid handle. */
COLL_EXPORT uint32_t COLLAPI tableFindField(HTABLE hTable, const char *text, uint32_t textSize,
                                            uint32_t startRow, uint32_t column);
/* As tableFindField, for the first field that begins with text (text is an
 * abbreviation of it; an empty text matches startRow). */
COLL_EXPORT uint32_t COLLAPI tableFindAbbrev(HTABLE hTable, const char *text, uint32_t textSize,
                                             uint32_t startRow, uint32_t column);
/* Compares two tables from startRow on (flags bit 0: align their last rows
 * instead of their first): the first row that differs, or the smaller row
 * count when none does (the first table's row count when both share one
 * copy of their strings). -1 when column counts, column names or attribute
 * strings differ, startRow is past either end, or a handle is invalid. */
COLL_EXPORT uint32_t COLLAPI tableCompare(HTABLE hFirst, HTABLE hSecond, uint32_t startRow, uint32_t flags);
/* Stores the selected row into hColl: one text item per column, tagged with
 * the column's name (an empty field deletes that tag). 1, or 0 for no
 * selection, an invalid handle or a failed store (earlier columns stay). */
COLL_EXPORT uint32_t COLLAPI tableDataToCollection(HTABLE hTable, HCOLL hColl);
/* A second free-standing handle on the same table (strings shared until
 * either handle changes them; its own selection). The caller ends it with
 * tableDestroy. The second argument is not used. 0 for an invalid handle or
 * no free table handle. */
COLL_EXPORT HTABLE COLLAPI tableCopy(HTABLE hTable, uint32_t unused);
/* A new free-standing table from a dump (collDumpItems) whose first item is
 * a table; size is the image's byte count. The image is only read. Mode 1
 * uses its strings in place: the image must then stay unchanged while the
 * table lives; any other mode copies them. The last two arguments are not
 * used. 0 for a short or unreadable image, a damaged table or no free
 * handle. The caller ends the table with tableDestroy. */
COLL_EXPORT HTABLE COLLAPI tableLoad(const void *image, uint32_t size, uint32_t mode, uint32_t fourth,
                                     uint32_t fifth);
/* Puts the table on the clipboard as text in layout mode (CLIP_*): fields
 * separated by TAB, lines by CR LF. 1, or 0 for mode > 4, nothing to export
 * (no row, or no selection for the selected-row layouts), a clipboard that
 * cannot be opened or an invalid handle; the clipboard is then unchanged. */
COLL_EXPORT uint32_t COLLAPI tableDataToClipboard(HTABLE hTable, uint32_t mode);
/* A new free-standing table from the clipboard's text, opened for window (0:
 * the active window): TAB-separated fields, CR LF lines, the first line the
 * column names (at most 10); attribute string 0 gets the column widths as
 * "%<width>s " groups. Rows that would pass the size limit are left out. 0 for no text, no CR in it, more than 10 columns or a clipboard
 * that cannot be opened. The caller ends the table with tableDestroy. */
COLL_EXPORT HTABLE COLLAPI tableDataFromClipboard(HWINDOW window);

/* ---- Sharing and notification ----
 * Shared collections live in a catalog by name (1 to 64 characters, case of
 * A-Z ignored) for the whole process, and are backed by the initialisation
 * file "COLL.INI" (see coll_host.h for where it is). */

/* Opens the shared collection name. The first open creates it with one text
 * item per key of the file's section [name] (values cut to 254 characters);
 * later opens return the same handle and add a share. Each open needs its
 * collClose. 0 for an empty or longer name or no free handle. */
COLL_EXPORT HCOLL COLLAPI collOpenShared(const char *name);
/* Opens, empty, the first of name, name_1, name_2, ... that no one has open
 * as a shared collection in this process (the file's section is not kept).
 * 0 when name, or the name found, is not 1 to 64 characters. */
COLL_EXPORT HCOLL COLLAPI collOpenUnique(const char *name);
/* Rewrites the file's section of the collection's name ("_unnamed" when the
 * name cannot be a section): every item that reads as a text of at most 127
 * characters (raw bytes up to their first unprintable byte) becomes a key;
 * tables, collections and longer values are left out. 1 when every key was
 * written; 0 for an invalid handle or a failed write. */
COLL_EXPORT uint32_t COLLAPI collWrite(HCOLL hColl);
/* Hands out a new name ("local_aaaaaaaa", then "local_aaaaaaab", ..., the
 * counter kept in the file): copies it with its zero and returns its length
 * (no zero counted). 0, handing out nothing, when size cannot hold the name
 * and its zero. */
COLL_EXPORT uint32_t COLLAPI collGenerateNewName(char *buffer, uint32_t size);
/* on != 0: window (from collHostCreateWindow) receives, synchronously, for
 * every change of the collection the message collHostRegisterMessage
 * ("Coll_Advice") with wParam the collection's handle and lParam a pointer
 * to the tag (uint16_t length, the tag, a zero), valid during the call.
 * Registrations count up; on == 0 withdraws one. 1, or 0 for an invalid
 * handle, a gone window, 32 windows already, or nothing to withdraw.
 * window 0 with on 0 only tests the handle. */
COLL_EXPORT uint32_t COLLAPI collRequestAdvice(HCOLL hColl, HWINDOW window, uint32_t on);
/* on != 0: every change of hSource's items is copied into hTarget
 * (collCopyItem), and may travel on from there; on == 0 withdraws that.
 * A target registered twice, or reached along two paths, gets the change
 * once per entry and path; a copy into a collection already on the chain
 * that brought the change is skipped, which ends every cycle. 1, or 0 for
 * hTarget 0 or == hSource, an invalid handle, 32 targets already, or
 * nothing to withdraw. */
COLL_EXPORT uint32_t COLLAPI collRequestPropagate(HCOLL hSource, HCOLL hTarget, uint32_t on);
/* Starts a transaction: until collUnlock from this thread, every other
 * thread that touches the collection waits, and its change notifications
 * are held back. Transactions do not nest (the first collUnlock ends it).
 * 1, or 0 for an invalid handle. */
COLL_EXPORT uint32_t COLLAPI collLock(HCOLL hColl);
/* Ends this thread's transaction and sends the held-back notifications. 1,
 * or 0 for an invalid handle. Another thread's call waits for the end. */
COLL_EXPORT uint32_t COLLAPI collUnlock(HCOLL hColl);

/* ---- Dumps ----
 * A dump is a byte image of a collection's items (big-endian, with length
 * and checksum; held tables and collections included) of at most 65,534
 * bytes, the same on every machine. */

/* With size 0 (buffer may be null): the dump's byte count. Otherwise writes
 * the dump when size holds it and returns its byte count. 0 for a size too
 * small, an invalid handle or a dump past 65,534 bytes; buffer unchanged. */
COLL_EXPORT uint32_t COLLAPI collDumpItems(HCOLL hColl, void *buffer, uint32_t size);
/* The dump as hexadecimal text, two characters per byte, LOW digit first
 * (the byte 0x14 is "41"), digits 0-9A-F. It writes NO terminating zero:
 * keep the result, not strlen. With size 0: the character count (twice the
 * byte count). Otherwise writes it when size holds it and returns the
 * count; 0 as collDumpItems. */
COLL_EXPORT uint32_t COLLAPI collDumpItemsHex(HCOLL hColl, char *text, uint32_t size);
/* Loads a dump of length bytes into hColl, merging: every item is stored
 * under its tag (replacing an item of that tag), other items stay. A dump
 * with a wrong header, length or checksum, or holding a damaged table (bad
 * table header, no columns, more than 64 pages, or too large once
 * completed) is refused whole: the load returns 0 and stores nothing. 1 when
 * the dump is accepted, even if single items could not be stored (an empty
 * tag, no free handle or memory, a full image); 0 also for an invalid handle
 * or no memory. */
COLL_EXPORT uint32_t COLLAPI collLoadItems(HCOLL hColl, const void *data, uint32_t length);
/* collLoadItems on the image that text (length characters, as
 * collDumpItemsHex writes them, either letter case; no terminator needed)
 * stands for. A character that is no hexadecimal digit, or a dump holding a
 * damaged table (bad table header, no columns, more than 64 pages, or too
 * large once completed), is refused whole: the load returns 0 and stores
 * nothing. */
COLL_EXPORT uint32_t COLLAPI collLoadItemsHex(HCOLL hColl, const char *text, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* COLL_H */
