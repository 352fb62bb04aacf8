#include "watch/file_change.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <span>

#include "catalogue/catalogue.h"
#include "inotify/inotify_watch.h"
#include "log/log.h"
#include "notify/registry.h"
#include "platform/env.h"
#include "process/state.h"
#include "setup/setup.h"
#include "storage/byte_order.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/open_map.h"
#include "watch/block_map.h"

namespace cm::watch {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr int kGrowthChecks = 50;
using namespace storage;
using namespace setup;
using inotify::removeInotifyWatch;

// Set-up again after a length change, then everything counts as changed.
void reprocess(int i) {
    initialiseDataStruct(i, true, false);
    actionChangesToAllNewItems(i);
}

// The master waits up to 5 s for a short file to reach its length (a
// writer may be rebuilding it), then reprocesses it either way.
void growthWait(int i, off_t size) {
    const unsigned long correct = dwLenCorrectFile[i];
    CM_LOG_TAGGED(log::kWarn, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length %lu too short (expected %lu), waiting for growth\n",
                  getpid(), i, pathOf(i), static_cast<unsigned long>(size), correct);
    for (int n = 0; n < kGrowthChecks && static_cast<unsigned long>(size) < correct; ++n) {
        platform::sleepMs(100);
        struct stat st{};
        if (fstat(fdRead[i], &st) != 0) {
            const int e = errno;
            CM_LOG_TAGGED(log::kErr, "**ERROR: CM_ReadThread, PID=%d. Failed to fstat CM data file [%d] '%s': errno=%d '%s'\n",
                          getpid(), i, pathOf(i), e, std::strerror(e));
            continue;
        }
        size = st.st_size;
    }
    if (static_cast<unsigned long>(size) < correct)
        CM_LOG_TAGGED(log::kWarn, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length %lu still too short after waiting (expected %lu) - reprocess the file\n",
                      getpid(), i, pathOf(i), static_cast<unsigned long>(size), correct);
    else
        CM_LOG_TAGGED(log::kNotice, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length %lu after wait (expected %lu) - reprocess the file\n",
                      getpid(), i, pathOf(i), static_cast<unsigned long>(size), correct);
}

// Makes the private copy when there is none yet.  False when none could be made.
bool ensurePrevData(int i) {
    if (pPrevData[i] != nullptr) return true;
    if (!mapped(i)) {
        CM_LOG(log::kErr, "CM_InitialisePrevDataWithLock",
               "dwLenMappedFile[%d] or pMappedFile[] is zero, cannot alloc block for data - skipping...\n", i);
    } else {
        CM_LOG(log::kDebug, "CM_InitialisePrevDataWithLock", "pPrevData[%d] zero so mallocing it...\n", i);
        FileLock whole(i, 0, 0);
        initialisePrevData(i);
    }
    if (pPrevData[i] != nullptr) return true;
    CM_LOG(log::kErr, "CM_ActionFileChange", "Initialise oPrevData[%d] failed - quitting\n", i);
    return false;
}

}  // namespace

void handleDeletedFile(int i) {
    CM_LOG_TAGGED(log::kNotice, "CM_ReadThread, PID=%d. CM data file [%d] '%s' has been deleted - Restart CM mechanism for it\n",
                  getpid(), i, pathOf(i));
    unmapFile(i);
    if (inotifywd[i] >= 0) removeInotifyWatch(i);
    if (fdRead[i] >= 0) close(fdRead[i]);
    bBadFile[i] = 0;
    fdRead[i] = -1;
    dwLenActualFile[i] = 0;
    setUpConfigFile(i);
    actionChangesToAllNewItems(i);
}

void handleModifiedFile(int i) {
    struct stat st{};
    if (fstat(fdRead[i], &st) != 0) {
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM_ReadThread, PID=%d. Failed to fstat CM data file [%d] '%s': %m\n", getpid(), i,
                      pathOf(i));
        return;
    }
    const auto size = static_cast<unsigned long>(st.st_size);
    const bool master = process::isMaster();
    if (size == dwLenActualFile[i]) {
        if (!master && bBadFile[i] && size == dwLenCorrectFile[i]) {
            CM_LOG_TAGGED(log::kNotice, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length %lu (correct) - reprocess the file as previously bad data\n",
                          getpid(), i, pathOf(i), size);
            reprocess(i);
        } else {
            CM_LOG_TAGGED(log::kDebug, "CM_ReadThread, PID=%d. File '%s' has changed but same length - checking for changed values...\n",
                          getpid(), pathOf(i));
            actionFileChange(i);
        }
        return;
    }
    if (dwLenCorrectFile[i] == 0) dwLenCorrectFile[i] = correctLength(i);
    const unsigned long correct = dwLenCorrectFile[i];
    const unsigned long before = dwLenActualFile[i];
    if (master) {
        CM_LOG_TAGGED(log::kNotice, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length changed from %lu to %lu (expected %lu)\n",
                      getpid(), i, pathOf(i), before, size, correct);
        if (size < correct) growthWait(i, st.st_size);
        reprocess(i);
    } else if (size != correct) {
        CM_LOG_TAGGED(log::kWarn, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length changed from %lu to %lu (wrong, expected %lu) - ignore as Master should fix it\n",
                      getpid(), i, pathOf(i), before, size, correct);
        dwLenActualFile[i] = static_cast<uint32_t>(size);
    } else {
        CM_LOG_TAGGED(log::kNotice, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length changed from %lu to %lu (correct) - reprocess the file\n",
                      getpid(), i, pathOf(i), before, size);
        reprocess(i);
    }
}

void actionFileChange(int i) {
    constexpr const char* fn = "CM_ActionFileChange";
    if (!ensurePrevData(i)) return;
    const auto& file = catalogue::sConfigItemList[i];
    const int32_t first = file.iFirstVarID;

    // A first look without the fcntl lock, so that an unchanged file holds
    // up no other process.  A write in progress can only make a block look
    // different (it is looked at again under the lock); a write that lands
    // after its block was compared raises an event of its own, which the
    // next pass sees.
    std::span<const uint32_t> blocks;
    {
        ProcessMutex m(i);
        if (mapped(i) && pPrevData[i] != nullptr)
            blocks = differingBlocks(pMappedFile[i], pPrevData[i], dwLenMappedFile[i]);
    }
    if (blocks.empty()) return;

    // Relative IDs of the changed records, ascending; this thread alone uses them.
    static int changed[catalogue::kNumVarIds];
    int nChanged = 0;
    bool repair = false;
    {
        FileLock whole(i, 0, 0);
        const uint8_t* map = pPrevData[i] != nullptr ? pMappedFile[i] : nullptr;
        uint8_t* prev = pPrevData[i];
        const uint32_t len = mapped(i) ? dwLenMappedFile[i] : 0;
        int r = 0;
        for (const uint32_t b : blocks) {
            const uint32_t start = b * kBlockSize;
            if (map == nullptr || start >= len) break;
            const uint32_t end = std::min(len, start + kBlockSize);
            if (std::memcmp(map + start, prev + start, end - start) == 0) continue;
            // Only the records that reach into this block; each is walked once.
            for (r = std::max(r, firstRecordOfBlock(i, b)); r < file.iNumItems && layoutOffset(i, r) < end; ++r) {
                const auto& e = file.pItems[r];
                const uint32_t off = e.recordOffset();
                if (off == catalogue::kNoRecord || off < kHeaderSize || off + kRecordHeader + e.wDataSize > len) continue;
                const unsigned rel = loadBe16(map + off);
                const unsigned storedLen = loadBe16(map + off + 2);
                if (rel != static_cast<unsigned>(r)) {
                    CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu  has wrong relative ID=%u (expected %d)\n",
                           i, pathOf(i), static_cast<unsigned long>(off), rel, r);
                    repair |= process::isMaster();
                } else if (storedLen != e.wDataSize) {
                    CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu with ID=%d has wrong length=%u (expected %zu)\n",
                           i, pathOf(i), static_cast<unsigned long>(off), r, storedLen, static_cast<size_t>(e.wDataSize));
                    repair |= process::isMaster();
                } else if (std::memcmp(map + off + kRecordHeader, prev + off + kRecordHeader, e.wDataSize) != 0) {
                    CM_LOG_TAGGED(log::kInfo, "CM_ActionFileChange: Var %d (relative %d) in file '%s' - has changed\n",
                                  first + r, r, pathOf(i));
                    std::memcpy(prev + off + kRecordHeader, map + off + kRecordHeader, e.wDataSize);
                    changed[nChanged++] = r;
                }
            }
        }
        if (repair) repairFromDefaults(i, true, fn);
    }
    // Callbacks run only after the file lock is released, in ID order.
    if (repair) {
        for (int rel = 0; rel < file.iNumItems; ++rel) notify::notify(first + rel);
        return;
    }
    for (int n = 0; n < nChanged; ++n) notify::notify(first + changed[n]);
}

}  // namespace cm::watch
