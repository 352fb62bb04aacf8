/*
 * Lookup by tag.  A variable's tag is its name in the catalogue.
 *
 * The library keeps every variable in a table sorted by tag and searches it
 * by bisection.  The sorted order is cached in the text file
 * /var/AppData/config/CMTagSortedList.txt (under the root directory),
 * stamped with the value of SOFTWARE_VERSION; a process loads the cache at
 * its first lookup when it is sound and current, and otherwise sorts the
 * catalogue and rewrites the cache.  The table is not locked: make the first
 * lookup of a process from one thread.
 */
#ifndef CONFIGMANAGER_CM_TAGS_H
#define CONFIGMANAGER_CM_TAGS_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Number of rows of the sorted table (variables in the ten files). */
#define CM_NUM_TAGS 3088

/* One row of the sorted table: where the variable lives. */
typedef struct {
    int32_t iFileIndex;
    int32_t iVarID_Rel;
} CM_TagEntry;

/* Builds the sorted table from the catalogue and writes the cache through
 * its temporary file (synced, then renamed).  1 when the cache was written,
 * 0 otherwise; the table is sorted in either case. */
CM_EXPORT int CM_TagMapping(void);

/* Loads the sorted table from the cache; a missing, unreadable, stale or
 * malformed cache is rebuilt (CM_TagMapping) with a message naming the
 * defect.  1 when the table is ready and the cache sound, else 0. */
CM_EXPORT int CM_Load_CMTagSortedList(void);

/* The sort order: strcmp of the tags of two CM_TagEntry rows (a qsort
 * comparator).  A null pointer or a row naming no variable compares as the
 * empty text. */
CM_EXPORT int CM_CompareVarNames(const void* pA, const void* pB);

/* Finds a variable by tag in the sorted table (loading it on first use).
 * 0 with the absolute ID in *piVarID_Abs; -1 when not found (logged to the
 * system log), when the table cannot be made ready, or for null pointers. */
CM_EXPORT int CM_FindMatchingCMvarTag(const char* szTag, int32_t* piVarID_Abs);

/* Finds a variable by tag with a linear search of the catalogue.  0 with
 * the file index and relative ID; -1 otherwise (both outputs are then -1,
 * except for an empty tag or null pointers, which leave them untouched). */
CM_EXPORT int CM_FindFileIndexRelativeIDCMTag(const char* szTag, int32_t* piFileIndex, int32_t* piVarID_Rel);

CM_EXTERN_C_END

#endif
