// The table of every catalogue entry sorted by tag, its on-disk cache and
// the lookups by tag.
//
// The table is built lazily, at the first lookup by bisection: from the
// cache file when that is sound and stamped with the running software's
// version, otherwise by sorting the catalogue and rewriting the cache.  The
// cache is written through a temporary file that is synced and renamed, so
// a reader sees the whole old file or the whole new one.
//
// Neither the table nor its flag is locked: the first lookup is expected
// from one thread (the restore).
#pragma once

#include <cstdint>

namespace cm::tags {

inline constexpr int kNumTags = 3088;  // variables in the ten files

// One row of the table: where the variable lives.
struct TagEntry {
    int32_t iFileIndex;
    int32_t iVarID_Rel;
};

// Sorted by tag (byte order, as strcmp) once loaded.  The cache loader
// fills it in place, so rows may hold what a bad cache line said until the
// rebuild overwrites them.
extern TagEntry Tag_FileIndex_Id[kNumTags];
// 0 until the first lookup, then the result of loading (1 ready).
extern uint8_t bSortedListLoaded;
// Set once the table in memory is sorted from the catalogue, whether or not
// its cache could be written: lookups then use it and the load is not tried
// again at every lookup.
extern bool g_sortedInMemory;

// The tag of a row, or nullptr when the row names no catalogue entry.
const char* rowTag(const TagEntry& row);

// strcmp of the two rows' tags; a row that names no entry, or a null tag,
// compares as the empty text.
int compareVarNames(const void* a, const void* b);

// Builds the table from the catalogue, sorts it and writes the cache.
// 1 when the cache was written and moved into place, else 0.
int tagMapping();

// Loads the table from the cache, or rebuilds it (tagMapping) when the
// cache is missing, unreadable, stale or malformed.  1 when ready.
int loadSortedList();

// Bisection: stores the absolute ID of `tag` and returns 0, or returns -1
// (also when the table cannot be made ready).
int findMatchingTag(const char* tag, int32_t* absId);

// Linear search of the catalogue: 0 with file index and relative ID, or -1.
int findFileIndexRelativeId(const char* tag, int32_t* fileIndex, int32_t* relId);

// Forgets that the table was loaded (test support).
void resetLoadedFlag();

}  // namespace cm::tags
