// Writing and loading the tag cache.
#include "tags/tag_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "catalogue/catalogue.h"
#include "log/log.h"
#include "platform/paths.h"
#include "platform/safe_open.h"
#include "process/state.h"
#include "tags/software_version.h"
#include "tags/tag_table.h"

namespace cm::tags {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr mode_t kCacheMode = 0644;

// Closes and removes the temporary file after a failed write.
void discard(FILE* fp, const char* tmp) {
    std::fclose(fp);
    std::remove(tmp);
}

// Ends a load that found a defect: closes the cache and rebuilds it.
int rebuild(FILE* fp) {
    if (fp) std::fclose(fp);
    return tagMapping();
}

// The bisection needs the rows in tag order; rows that name no entry (kept
// as a cache line gave them) are passed over.
bool inOrder() {
    const char* prev = nullptr;
    for (const TagEntry& row : Tag_FileIndex_Id) {
        const char* t = rowTag(row);
        if (t == nullptr) continue;
        if (prev != nullptr && std::strcmp(prev, t) >= 0) return false;
        prev = t;
    }
    return true;
}

// The cache files are created afresh, never written through an entry found
// at their path (a link planted there would have root write its target).
FILE* createFresh(const char* path) {
    const platform::OpenResult r = platform::replaceWithNew(path, O_WRONLY, kCacheMode);
    if (!r.ok()) return nullptr;
    FILE* fp = fdopen(r.fd, "w");
    if (fp == nullptr) {
        close(r.fd);
        std::remove(path);
    }
    return fp;
}

// The cache is read only from a sound file; anything else is rebuilt.
FILE* openSound(const char* path, const char* fn) {
    const platform::OpenResult r = platform::openExisting(path, O_RDONLY);
    if (r.refused()) CM_LOG(log::kWarn, fn, "File %s %s - not read\n", path, platform::faultText(r.fault));
    if (!r.ok()) return nullptr;
    FILE* fp = fdopen(r.fd, "r");
    if (fp == nullptr) close(r.fd);
    return fp;
}

}  // namespace

int writeCache() {
    constexpr const char* fn = "CM_TagMapping";
    if (process::readOnly()) return 0;  // creates nothing; the sorted table serves
    char version[kVersionBuf];
    if (readSoftwareVersion(version) != 0) return 0;

    const char* tmp = paths::tagCacheTempFile();
    const char* path = paths::tagCacheFile();
    FILE* fp = createFresh(tmp);
    if (fp == nullptr) {
        CM_LOG(log::kErr, fn, "Unable to open file %s for write operation\n", tmp);
        return 0;
    }
    std::fprintf(fp, "%s\n", version);
    if (std::ferror(fp)) {
        const int e = errno;
        CM_LOG(log::kErr, fn, "Failed to write file %s for software version, aborted file generation, errno=%d '%s'\n",
               tmp, e, std::strerror(e));
        discard(fp, tmp);
        return 0;
    }
    for (int i = 0; i < kNumTags; ++i) {
        std::fprintf(fp, "%d %d\n", Tag_FileIndex_Id[i].iFileIndex, Tag_FileIndex_Id[i].iVarID_Rel);
        if (std::ferror(fp)) {
            const int e = errno;
            CM_LOG(log::kErr, fn, "Failed to write file %s for CM var entry #%d, aborted file generation, errno=%d '%s'\n",
                   tmp, i, e, std::strerror(e));
            discard(fp, tmp);
            return 0;
        }
    }
    // The data must be on disk before the rename makes it the cache.
    const bool flushed = std::fflush(fp) == 0 && fsync(fileno(fp)) == 0;
    int flushErrno = errno;
    if (std::fclose(fp) != 0 || !flushed) {
        const int e = flushed ? errno : flushErrno;
        CM_LOG(log::kErr, fn, "Closing file %s failed, it may be corrupted so deleted it, errno=%d '%s'\n", tmp, e,
               std::strerror(e));
        std::remove(tmp);
        return 0;
    }
    if (std::rename(tmp, path) == 0) return 1;
    const int e = errno;
    CM_LOG(log::kErr, fn, "Rename of file %s to %s failed so deleted it, errno=%d '%s'\n", tmp, path, e,
           std::strerror(e));
    std::remove(tmp);
    std::remove(path);  // no stale cache may survive
    return 0;
}

int loadSortedList() {
    constexpr const char* fn = "CM_Load_CMTagSortedList";
    const char* path = paths::tagCacheFile();
    FILE* fp = openSound(path, fn);
    if (fp == nullptr) {
        CM_LOG(log::kInfo, fn, "Unable to open file %s to read, so creating it.\n", path);
        return rebuild(nullptr);
    }

    char cached[kVersionBuf] = "";
    errno = 0;
    [[maybe_unused]] const int got = std::fscanf(fp, "%21s\n", cached);
    if (std::ferror(fp)) {
        const int e = errno;
        CM_LOG(log::kWarn, fn, "Error while reading file %s line %d, so re-creating it, errno=%d '%s'\n", path, 1, e,
               std::strerror(e));
        return rebuild(fp);
    }
    char running[kVersionBuf];
    // When the running version cannot be read the check is skipped.
    if (readSoftwareVersion(running) == 0 && std::strcmp(cached, running) != 0) {
        CM_LOG(log::kInfo, fn, "File %s has wrong software version number, so re-creating it.\n", path);
        return rebuild(fp);
    }

    for (int i = 0;; ++i) {
        if (std::feof(fp)) {
            std::fclose(fp);
            if (i == kNumTags) {
                if (inOrder()) return 1;
                CM_LOG(log::kWarn, fn, "File %s has entries out of order, so re-creating it.\n", path);
                return rebuild(nullptr);
            }
            CM_LOG(log::kWarn, fn, "Processed %d CM var entries from file %s but expected %d, so re-creating it.\n", i,
                   path, kNumTags);
            return rebuild(nullptr);
        }
        if (i >= kNumTags) {
            CM_LOG(log::kWarn, fn, "File %s has too many lines (expected %d), so re-creating it.\n", path, kNumTags);
            return rebuild(fp);
        }
        TagEntry& row = Tag_FileIndex_Id[i];
        errno = 0;
        const int n = std::fscanf(fp, "%20d %20d\n", &row.iFileIndex, &row.iVarID_Rel);
        if (n < 2 || std::ferror(fp)) {
            const int e = errno;
            CM_LOG(log::kWarn, fn, "Bad data or error while reading file %s line %d, so re-creating it, errno=%d '%s'\n",
                   path, i + 2, e, std::strerror(e));
            return rebuild(fp);
        }
        // Only the upper bounds are checked; a negative number is kept as it
        // stands (rowTag() never reads the catalogue through it).
        const bool badFile = row.iFileIndex > 9;
        if (badFile || (row.iFileIndex >= 0 &&
                        row.iVarID_Rel >= catalogue::sConfigItemList[row.iFileIndex].iNumItems)) {
            CM_LOG(log::kWarn, fn, "Bad data (%d, %d) from file %s line %d, so re-creating it.\n", row.iFileIndex,
                   row.iVarID_Rel, path, i + 2);
            return rebuild(fp);
        }
    }
}

}  // namespace cm::tags
