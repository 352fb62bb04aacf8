#include "setup/setup.h"
#include "setup/damaged_copy.h"

#include <sys/stat.h>
#include <unistd.h>

#include "catalogue/lookup.h"
#include "inotify/inotify_watch.h"
#include "log/log.h"
#include "notify/registry.h"
#include "process/state.h"
#include "platform/byte_order.h"
#include "storage/defaults.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/map_guard.h"
#include "storage/open_map.h"

namespace cm::setup {
namespace {

using platform::loadBe16;

constexpr auto kLogModule = log::Module::FileAccess;
using namespace storage;

int32_t lastVarId(int i) {
    const auto& f = catalogue::sConfigItemList[i];
    return f.iFirstVarID + f.iNumItems - 1;
}

// Header check: 2 when the header is missing or the version differs.
int checkHeader(int i) {
    constexpr const char* fn = "CM_CheckVersion";
    uint8_t header[2];
    // A file cut under the mapping reads as one too short for its header.
    if (dwLenMappedFile[i] <= 3 || !guardedCopy(header, pMappedFile[i], sizeof header)) {
        CM_LOG(log::kWarn, fn, "CM data file [%d] '%s' length of %lu bytes is too short for file header\n", i,
               pathOf(i), static_cast<unsigned long>(dwLenMappedFile[i]));
        return kBadHeader;
    }
    const unsigned version = loadBe16(header);
    const unsigned expected = catalogue::sConfigItemList[i].wVersion;
    if (version != expected) {
        CM_LOG(log::kWarn, fn, "Version mismatch for CM data file [%d] '%s'. File version = %u, code expects %u\n", i,
               pathOf(i), version, expected);
        return kBadHeader;
    }
    return kFileGood;
}

// Marks the records from `from` on as not located.
void forgetRecords(int i, int from) {
    const auto& file = catalogue::sConfigItemList[i];
    for (int r = from; r < file.iNumItems; ++r) file.pItems[r].setRecordOffset(catalogue::kNoRecord);
}

// The state of a record walk.  The fields a cut file can interrupt are
// volatile, so that they are up to date in memory at every read of the
// mapping.
struct RecordWalk {
    const catalogue::ConfigItemList* file;
    const uint8_t* map;
    uint32_t mappedLen;
    volatile uint32_t offset = kHeaderSize;
    volatile int r = 0;
    int storedRel = 0;
    int storedLen = 0;
};

// Locates the records in order under one guard, and stops at the first that
// does not fit in the mapping or whose header is wrong.
void scanRecords(void* arg) {
    auto& w = *static_cast<RecordWalk*>(arg);
    const int n = w.file->iNumItems;
    for (int r = w.r; r < n;) {
        const auto& e = w.file->pItems[r];
        const uint32_t offset = w.offset;
        const uint32_t end = offset + e.wDataSize + kRecordHeader;
        if (end > w.mappedLen) return;
        w.storedRel = loadBe16(w.map + offset);
        w.storedLen = loadBe16(w.map + offset + 2);
        if (w.storedRel != r || w.storedLen != e.wDataSize) return;
        e.setRecordOffset(offset);
        w.offset = end;
        ++r;
        w.r = r;
    }
}

// Walks the records, filling in the offsets of the good ones (the others
// are marked not located); stops at the first fault and returns its
// CheckResult.
int walkRecords(int i) {
    constexpr const char* fn = "CM_InitialiseDataStruct";
    const auto& file = catalogue::sConfigItemList[i];
    RecordWalk w{&file, pMappedFile[i], dwLenMappedFile[i]};
    // A file cut under the mapping ends where the cut was met.
    if (!guardedRun(scanRecords, &w)) w.mappedLen = w.offset;
    const int r = w.r;
    forgetRecords(i, r);
    if (r == file.iNumItems) return kFileGood;
    const uint32_t offset = w.offset;
    const auto& e = file.pItems[r];
    if (offset + e.wDataSize + kRecordHeader > w.mappedLen) {
        if (w.mappedLen <= offset)
            CM_LOG(log::kErr, fn, "CM data file [%d] '%s' only has %d items (expected %d items) : CM vars ID=%d to %d missing\n",
                   i, pathOf(i), r, file.iNumItems, file.iFirstVarID + r, lastVarId(i));
        else
            CM_LOG(log::kErr, fn,
                   "CM data file [%d] '%s' has truncated record of %lu bytes at end, after %d items (expected %d items) : CM vars ID=%d to %d missing\n",
                   i, pathOf(i), static_cast<unsigned long>(w.mappedLen - offset), r, file.iNumItems,
                   file.iFirstVarID + r, lastVarId(i));
        return kRecordsMissing;
    }
    if (w.storedRel != r) {
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu  has wrong relative ID=%d (expected %d)\n", i,
               pathOf(i), static_cast<unsigned long>(offset), w.storedRel, r);
        return kWrongRelativeId;
    }
    CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu with relative ID=%d has wrong length=%d (expected %d)\n",
           i, pathOf(i), static_cast<unsigned long>(offset), w.storedRel, w.storedLen, e.wDataSize);
    return kWrongLength;
}

// Extra bytes after the last record: the master cuts them off when the file
// is otherwise good; everyone else leaves them (only the correct length is
// mapped anyway).
void handleExtraBytes(int i, uint32_t fileLen, int result) {
    constexpr const char* fn = "CM_InitialiseDataStruct";
    if (fileLen <= dwLenCorrectFile[i]) return;
    const unsigned long extra = fileLen - dwLenCorrectFile[i];
    const int items = catalogue::sConfigItemList[i].iNumItems;
    if (!process::isMaster()) {
        CM_LOG(log::kWarn, fn, "CM data file [%d] '%s' %s %lu extra bytes at end, after its %d items\n", i, pathOf(i),
               "has", extra, items);
    } else if (result == kFileGood) {
        CM_LOG(log::kWarn, fn,
               "CM data file [%d] '%s' had %lu extra bytes at end, after its %d items : removed the extra bytes\n", i,
               pathOf(i), extra, items);
        if (ftruncate(fdRead[i], dwLenCorrectFile[i]) == 0) dwLenActualFile[i] = dwLenCorrectFile[i].load();
    } else {
        CM_LOG(log::kWarn, fn, "CM data file [%d] '%s' %s %lu extra bytes at end, after its %d items\n", i, pathOf(i),
               "had", extra, items);
    }
}

// initialiseDataStruct, told which file set-up has just opened, if any.
int checkFile(int i, bool bInitPrev, bool bStartWatch, const OpenedFile* opened) {
    constexpr const char* fn = "CM_InitialiseDataStruct";
    if (!checkIndex(i, fn)) return -1;
    if (fdRead[i] < 0) {
        CM_LOG(log::kErr, fn,
               "CM data file [%d] '%s' is not open (FD=%d), so can't check it or start inotify monitoring of it\n", i,
               pathOf(i), fdRead[i].load());
        return -1;
    }
    FileLock whole(i, 0, 0);
    // Released by another thread between the check above and the lock.
    if (fdRead[i] < 0) return -1;
    if (dwLenCorrectFile[i] == 0) dwLenCorrectFile[i] = correctLength(i);

    // When set-up has just opened the file, its watch comes first: the look
    // at what the path names, which the watch needs anyway, then gives the
    // length under the lock too.  Otherwise the watch comes last.
    const bool watchFirst = bStartWatch && opened != nullptr && opened->known;
    struct stat st{};
    uint32_t fileLen = 0;
    bool known = watchFirst && inotify::addInotifyWatchNamed(i, opened->dev, opened->ino, &st);
    if (!known) {
        known = fstat(fdRead[i], &st) == 0;
        if (!known) CM_LOG(log::kErr, fn, "PID=%d. Failed to fstat CM data file [%d] '%s': %m\n", getpid(), i, pathOf(i));
    }
    if (known) fileLen = static_cast<uint32_t>(st.st_size);
    dwLenActualFile[i] = fileLen;

    // A file that cannot be mapped, or is empty in a process that will not
    // fill it, is not watched.
    if (fileLen != 0) {
        remapFile(i, fileLen);
        if (!mapped(i)) {
            forgetRecords(i, 0);
            if (watchFirst) inotify::dropInotifyWatch(i);
            return -1;
        }
    } else {
        unmapFile(i);
        if (!process::isMaster()) {
            forgetRecords(i, 0);
            if (watchFirst) inotify::dropInotifyWatch(i);
            bBadFile[i] = 1;
            return kFileEmptyOrShort;
        }
    }

    int result = kFileGood;
    bool walked = false;
    if (process::isMaster() && dwLenCorrectFile[i] > fileLen) {
        CM_LOG(log::kErr, fn,
               "CM data file [%d] '%s' length of %lu bytes is %lu too short (expected %lu), so CM var record(s) missing or truncated\n",
               i, pathOf(i), static_cast<unsigned long>(fileLen), static_cast<unsigned long>(dwLenCorrectFile[i] - fileLen),
               static_cast<unsigned long>(dwLenCorrectFile[i].load()));
        result = kFileEmptyOrShort;
    } else {
        result = checkHeader(i);
        walked = result == kFileGood;
        if (walked) result = walkRecords(i);
    }
    // The walk locates each record; without it, none is located.
    if (!walked) forgetRecords(i, 0);
    bBadFile[i] = result != kFileGood;
    handleExtraBytes(i, fileLen, result);

    if (result != kFileGood && process::isMaster()) repairFromDefaults(i, false, fn, true);
    if (bInitPrev) initialisePrevData(i);
    if (bStartWatch && !watchFirst) inotify::addInotifyWatch(i, known ? &st : nullptr);
    return result;
}

}  // namespace

int setUpConfigFile(int i) {
    constexpr const char* fn = "CM_SetUpConfigFile";
    if (!checkIndex(i, fn)) return -1;
    OpenedFile opened;
    if (fdRead[i] >= 0) {
        // Checked again all the same: the caller wants a fresh look at the file.
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' is already open (FD=%d) - quit setup of it\n", i, pathOf(i),
               fdRead[i].load());
    } else if (!process::isMaster()) {
        openFile(i, &opened);
    } else if (openOrCreateFile(i, &opened) == 1) {
        writeDefaultData(i, true, true);
        inotify::addInotifyWatch(i);
        return 0;
    }
    if (fdRead[i] < 0) {
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' not open at end of setup, so not checked or inotify monitored.\n",
               i, pathOf(i));
        return -1;
    }
    return checkFile(i, true, true, &opened);
}

int initialiseDataStruct(int i, bool bInitPrev, bool bStartWatch) {
    return checkFile(i, bInitPrev, bStartWatch, nullptr);
}

int repairFromDefaults(int i, bool bInitPrev, const char* fn, bool logAlways) {
    keepDamagedCopy(i);
    const int rc = writeDefaultData(i, false, bInitPrev);
    if (rc == 0 || logAlways)
        CM_LOG(log::kWarn, fn, "CM data file [%d] '%s' set to defaults for all its CM vars (ID=%d to %d), to fix data errors.\n",
               i, pathOf(i), catalogue::sConfigItemList[i].iFirstVarID, lastVarId(i));
    return rc;
}

int actionChangesToAllNewItems(int i) {
    constexpr const char* fn = "CM_ActionChangesToAllNewItems";
    if (!checkOpen(i, fn)) return -1;
    if (!mapped(i)) {
        CM_LOG(log::kErr, fn, "File %d ('%s') not yet mapped - fail.\n", i, pathOf(i));
        return -1;
    }
    CM_LOG(log::kInfo, fn, "All vars in file '%s' are considered changed - check Notify actions for them all\n", pathOf(i));
    notify::notifyRange(catalogue::sConfigItemList[i].iFirstVarID, lastVarId(i));
    return 0;
}

}  // namespace cm::setup
