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

// Walks the records, filling in the offsets of the good ones; stops at the
// first fault and returns its CheckResult.
int walkRecords(int i) {
    constexpr const char* fn = "CM_InitialiseDataStruct";
    const auto& file = catalogue::sConfigItemList[i];
    uint32_t mappedLen = dwLenMappedFile[i];
    const uint8_t* map = pMappedFile[i];
    uint32_t offset = kHeaderSize;
    for (int r = 0; r < file.iNumItems; ++r) {
        const auto& e = file.pItems[r];
        const uint32_t end = offset + e.wDataSize + kRecordHeader;
        uint8_t header[kRecordHeader];
        // A file cut under the mapping ends where the cut was met.
        if (end <= mappedLen && !guardedCopy(header, map + offset, sizeof header)) mappedLen = offset;
        if (end > mappedLen) {
            if (mappedLen <= offset)
                CM_LOG(log::kErr, fn, "CM data file [%d] '%s' only has %d items (expected %d items) : CM vars ID=%d to %d missing\n",
                       i, pathOf(i), r, file.iNumItems, file.iFirstVarID + r, lastVarId(i));
            else
                CM_LOG(log::kErr, fn,
                       "CM data file [%d] '%s' has truncated record of %lu bytes at end, after %d items (expected %d items) : CM vars ID=%d to %d missing\n",
                       i, pathOf(i), static_cast<unsigned long>(mappedLen - offset), r, file.iNumItems,
                       file.iFirstVarID + r, lastVarId(i));
            return kRecordsMissing;
        }
        const int storedRel = loadBe16(header);
        const int storedLen = loadBe16(header + 2);
        if (storedRel != r) {
            CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu  has wrong relative ID=%d (expected %d)\n",
                   i, pathOf(i), static_cast<unsigned long>(offset), storedRel, r);
            return kWrongRelativeId;
        }
        if (storedLen != e.wDataSize) {
            CM_LOG(log::kErr, fn,
                   "CM data file [%d] '%s' record at offset %lu with relative ID=%d has wrong length=%d (expected %d)\n",
                   i, pathOf(i), static_cast<unsigned long>(offset), storedRel, storedLen, e.wDataSize);
            return kWrongLength;
        }
        e.setRecordOffset(offset);
        offset = end;
    }
    return kFileGood;
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

}  // namespace

int setUpConfigFile(int i) {
    constexpr const char* fn = "CM_SetUpConfigFile";
    if (!checkIndex(i, fn)) return -1;
    if (fdRead[i] >= 0) {
        // Checked again all the same: the caller wants a fresh look at the file.
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' is already open (FD=%d) - quit setup of it\n", i, pathOf(i),
               fdRead[i].load());
    } else if (!process::isMaster()) {
        openFile(i);
    } else if (openOrCreateFile(i) == 1) {
        writeDefaultData(i, true, true);
        inotify::addInotifyWatch(i);
        return 0;
    }
    if (fdRead[i] < 0) {
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' not open at end of setup, so not checked or inotify monitored.\n",
               i, pathOf(i));
        return -1;
    }
    return initialiseDataStruct(i, true, true);
}

int initialiseDataStruct(int i, bool bInitPrev, bool bStartWatch) {
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
    const auto& file = catalogue::sConfigItemList[i];
    for (int r = 0; r < file.iNumItems; ++r) file.pItems[r].setRecordOffset(catalogue::kNoRecord);
    if (dwLenCorrectFile[i] == 0) dwLenCorrectFile[i] = correctLength(i);

    struct stat st{};
    uint32_t fileLen = 0;
    const bool known = fstat(fdRead[i], &st) == 0;
    if (!known)
        CM_LOG(log::kErr, fn, "PID=%d. Failed to fstat CM data file [%d] '%s': %m\n", getpid(), i, pathOf(i));
    else
        fileLen = static_cast<uint32_t>(st.st_size);
    dwLenActualFile[i] = fileLen;

    if (fileLen != 0) {
        remapFile(i, fileLen);
        if (!mapped(i)) return -1;
    } else {
        unmapFile(i);
        if (!process::isMaster()) {
            bBadFile[i] = 1;
            return kFileEmptyOrShort;
        }
    }

    int result = kFileGood;
    if (process::isMaster() && dwLenCorrectFile[i] > fileLen) {
        CM_LOG(log::kErr, fn,
               "CM data file [%d] '%s' length of %lu bytes is %lu too short (expected %lu), so CM var record(s) missing or truncated\n",
               i, pathOf(i), static_cast<unsigned long>(fileLen), static_cast<unsigned long>(dwLenCorrectFile[i] - fileLen),
               static_cast<unsigned long>(dwLenCorrectFile[i].load()));
        result = kFileEmptyOrShort;
    } else {
        result = checkHeader(i);
        if (result == kFileGood) result = walkRecords(i);
    }
    bBadFile[i] = result != kFileGood;
    handleExtraBytes(i, fileLen, result);

    if (result != kFileGood && process::isMaster()) repairFromDefaults(i, false, fn, true);
    if (bInitPrev) initialisePrevData(i);
    if (bStartWatch) inotify::addInotifyWatch(i, known ? &st : nullptr);
    return result;
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
