// The sorted table: building it from the catalogue and the two lookups.
#include "tags/tag_table.h"

#include <cstdlib>
#include <cstring>

#include "catalogue/lookup.h"
#include "log/log.h"
#include "log/syslog_direct.h"
#include "storage/file_state.h"
#include "tags/tag_cache.h"

namespace cm::tags {

TagEntry Tag_FileIndex_Id[kNumTags];
uint8_t bSortedListLoaded = 0;
bool g_sortedInMemory = false;

namespace {

constexpr auto kLogModule = log::Module::FileAccess;

const char* tagOrEmpty(const void* p) {
    if (p == nullptr) return "";
    const char* t = rowTag(*static_cast<const TagEntry*>(p));
    return t ? t : "";
}

}  // namespace

const char* rowTag(const TagEntry& row) {
    // A cache line may hold any numbers; only rows inside the catalogue are
    // read from it.
    if (row.iFileIndex < 0 || row.iFileIndex >= catalogue::kNumFiles) return nullptr;
    if (row.iVarID_Rel < 0 || row.iVarID_Rel >= catalogue::sConfigItemList[row.iFileIndex].iNumItems) return nullptr;
    return catalogue::entry(row.iFileIndex, row.iVarID_Rel).szVarTag;
}

int compareVarNames(const void* a, const void* b) { return std::strcmp(tagOrEmpty(a), tagOrEmpty(b)); }

int tagMapping() {
    constexpr const char* fn = "CM_TagMapping";
    int count = 0;
    for (int f = 0; f < catalogue::kNumFiles; ++f) {
        const auto& file = catalogue::sConfigItemList[f];
        for (int rel = 0; rel < file.iNumItems; ++rel) {
            const char* tag = file.pItems[rel].szVarTag;
            if (tag == nullptr || tag[0] == '\0')
                CM_LOG(log::kErr, fn, "DataAccessStruct has %s szVarTag for CM var of file #%d relative ID %d\n",
                       tag == nullptr ? "NULL" : "empty", f, rel);
            if (count < kNumTags) Tag_FileIndex_Id[count] = {f, rel};
            ++count;
        }
    }
    if (count != kNumTags) {
        CM_LOG(log::kErr, fn, "Processed %d CM var entries but expected %d, possible memory corruption.\n", count,
               kNumTags);
        return 0;
    }
    CM_LOG_TAGGED(log::kInfo, "There are %d total CM variables in the system.", kNumTags);
    std::qsort(Tag_FileIndex_Id, kNumTags, sizeof(TagEntry), compareVarNames);
    g_sortedInMemory = true;
    return writeCache();
}

int findMatchingTag(const char* tag, int32_t* absId) {
    if (bSortedListLoaded == 0 && !g_sortedInMemory) bSortedListLoaded = static_cast<uint8_t>(loadSortedList());
    // A cache that cannot be written (a read-only or full disk) does not
    // stop lookups: the table sorted in memory serves them.
    if (bSortedListLoaded != 1 && !(bSortedListLoaded == 0 && g_sortedInMemory)) return -1;
    if (tag == nullptr || absId == nullptr) return -1;

    int low = 0, high = kNumTags;
    while (low <= high) {
        const int mid = (low + high) / 2;
        if (mid == kNumTags) break;
        const TagEntry& row = Tag_FileIndex_Id[mid];
        const char* rt = rowTag(row);
        // A row that names no entry (accepted from a cache with negative
        // numbers) sorts first and never matches.
        const int cmp = rt ? std::strcmp(rt, tag) : -1;
        if (cmp > 0) {
            high = mid - 1;
        } else if (cmp < 0) {
            low = mid + 1;
        } else {
            *absId = catalogue::absoluteId(row.iFileIndex, row.iVarID_Rel);
            return 0;
        }
    }
    log::syslogDirect(6, "<<%s>> Tag %s not found\n", "CM_FindMatchingCMvarTag", tag);
    return -1;
}

int findFileIndexRelativeId(const char* tag, int32_t* fileIndex, int32_t* relId) {
    constexpr const char* fn = "CM_FindFileIndexRelativeIDCMTag";
    if (tag == nullptr || fileIndex == nullptr || relId == nullptr) return -1;
    if (tag[0] == '\0') {
        CM_LOG(log::kWarn, fn, "Failed: Supplied Tag is empty\n");
        return -1;
    }
    *fileIndex = -1;
    *relId = -1;
    bool found = false;
    // Every file is searched: were a tag in two files, the later would win.
    for (int f = 0; f < catalogue::kNumFiles; ++f) {
        const auto& file = catalogue::sConfigItemList[f];
        for (int rel = 0; rel < file.iNumItems; ++rel) {
            const char* t = file.pItems[rel].szVarTag;
            if (t == nullptr || std::strcmp(t, tag) != 0) continue;
            *fileIndex = f;
            *relId = rel;
            found = true;
            CM_LOG(log::kInfo, fn, "Found match for Tag %s: FileIndex=%d (rel=%d) in file '%s'\n", tag, f, rel,
                   storage::pathOf(f));
            break;
        }
    }
    if (!found) {
        CM_LOG(log::kInfo, fn, "Did not find match for Tag %s\n", tag);
        return -1;
    }
    return 0;
}

void resetLoadedFlag() {
    bSortedListLoaded = 0;
    g_sortedInMemory = false;
}

}  // namespace cm::tags
