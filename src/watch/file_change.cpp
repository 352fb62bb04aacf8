#include "watch/file_change.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "catalogue/catalogue.h"
#include "inotify/inotify_watch.h"
#include "log/log.h"
#include "notify/registry.h"
#include "platform/env.h"
#include "process/state.h"
#include "setup/setup.h"
#include "platform/byte_order.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/map_guard.h"
#include "storage/open_map.h"
#include "storage/unlocked_look.h"
#include "watch/block_map.h"

namespace cm::watch {
namespace {

using platform::loadBe16;

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

// A file that got shorter than its mapping is remapped (or unmapped) at
// once, under its lock: touching a mapped page past the end of the file
// raises SIGBUS, and whatever is decided next (wait for growth, ignore the
// length) must not leave such pages mapped.
void shrinkMapping(int i, unsigned long size) {
    FileLock whole(i, 0, 0);
    if (fdRead[i] < 0 || size >= dwLenMappedFile[i]) return;
    remapFile(i, static_cast<uint32_t>(size));
}

// The master waits up to 5 s for a short file to reach its length (a
// writer may be rebuilding it), then reprocesses it either way.
void growthWait(int i, off_t size) {
    const unsigned long correct = dwLenCorrectFile[i];
    CM_LOG_TAGGED(log::kWarn, "CM_ReadThread, PID=%d. CM data file [%d] '%s' length %lu too short (expected %lu), waiting for growth\n",
                  getpid(), i, pathOf(i), static_cast<unsigned long>(size), correct);
    for (int n = 0; n < kGrowthChecks && static_cast<unsigned long>(size) < correct && !process::killRequested(); ++n) {
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
    constexpr const char* fn = "CM_InitialisePrevDataWithLock";
    // Tested before the file lock is taken, while another thread may be
    // remaking the copy under it (loading all defaults): one atomic read.
    if (__atomic_load_n(&pPrevData[i], __ATOMIC_ACQUIRE) != nullptr) return true;
    if (!mapped(i)) {
        CM_LOG(log::kErr, fn, "dwLenMappedFile[%d] or pMappedFile[] is zero, cannot alloc block for data - skipping...\n", i);
    } else {
        CM_LOG(log::kDebug, fn, "pPrevData[%d] zero so mallocing it...\n", i);
        FileLock whole(i, 0, 0);
        initialisePrevData(i, fn, false);
    }
    if (pPrevData[i] != nullptr) return true;
    CM_LOG(log::kErr, "CM_ActionFileChange", "Initialise oPrevData[%d] failed - quitting\n", i);
    return false;
}

// Walks, with the whole-file lock held, the records that reach into the
// given blocks of a file (those that differed when it was compared without
// the lock) in the blocks that still differ.  Appends the relative IDs of
// changed records to `changed` (ascending) and tells whether a record is
// damaged.  The copy then follows the mapping over those blocks and over
// every record walked, and nowhere else: a block not walked may have changed
// since it was compared, and that change must still look like one to the
// next pass, which its event brings.  False when the file was cut under the
// mapping (the pass is then abandoned: the length change brings its own
// event).
bool diffBlocks(int i, uint32_t len, std::span<const uint32_t> blocks, int* changed, int& nChanged, bool& repair) {
    constexpr const char* fn = "CM_ActionFileChange";
    const auto& file = catalogue::sConfigItemList[i];
    const uint8_t* map = pMappedFile[i];
    uint8_t* prev = pPrevData[i];
    int r = 0;
    for (const uint32_t b : blocks) {
        const uint32_t start = b * kBlockSize;
        if (start >= len) break;
        const uint32_t end = std::min(len, start + kBlockSize);
        int diff = 0;
        if (!guardedCompare(map + start, prev + start, end - start, diff)) return false;
        if (diff == 0) continue;
        for (r = std::max(r, firstRecordOfBlock(i, b)); r < file.iNumItems && layoutOffset(i, r) < end; ++r) {
            const auto& e = file.pItems[r];
            const uint32_t off = e.recordOffset();
            if (off == catalogue::kNoRecord || off < kHeaderSize || off + kRecordHeader + e.wDataSize > len) continue;
            uint8_t header[kRecordHeader];
            if (!guardedCopy(header, map + off, sizeof header)) return false;
            const unsigned rel = loadBe16(header);
            const unsigned storedLen = loadBe16(header + 2);
            if (rel != static_cast<unsigned>(r)) {
                CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu  has wrong relative ID=%u (expected %d)\n",
                       i, pathOf(i), static_cast<unsigned long>(off), rel, r);
                repair |= process::isMaster();
            } else if (storedLen != e.wDataSize) {
                CM_LOG(log::kErr, fn, "CM data file [%d] '%s' record at offset %lu with ID=%d has wrong length=%u (expected %zu)\n",
                       i, pathOf(i), static_cast<unsigned long>(off), r, storedLen, static_cast<size_t>(e.wDataSize));
                repair |= process::isMaster();
            } else if (!guardedCompare(map + off + kRecordHeader, prev + off + kRecordHeader, e.wDataSize, diff)) {
                return false;
            } else if (diff != 0) {
                CM_LOG_TAGGED(log::kInfo, "CM_ActionFileChange: Var %d (relative %d) in file '%s' - has changed\n",
                              file.iFirstVarID + r, r, pathOf(i));
                changed[nChanged++] = r;
            }
            // The record's bytes beyond this block follow too, so that its
            // change is not seen a second time there.
            if (!guardedCopy(prev + off, map + off, kRecordHeader + e.wDataSize)) return false;
        }
        if (!guardedCopy(prev + start, map + start, end - start)) return false;
    }
    return true;
}

}  // namespace

void handleDeletedFile(int i) {
    constexpr const char* fn = "CM_ReadThread";
    CM_LOG_TAGGED(log::kNotice, "CM_ReadThread, PID=%d. CM data file [%d] '%s' has been deleted - Restart CM mechanism for it\n",
                  getpid(), i, pathOf(i));
    // Mapping and descriptor go under the file's mutex, so that a reader of
    // this process is never left inside the mapping or between its lock and
    // unlock calls.  Without a descriptor there is nothing to guard.
    const bool locked = lockMutex(i, fn) == 0;
    unmapFile(i);
    if (inotifywd[i] >= 0) removeInotifyWatch(i);
    const int fd = fdRead[i].exchange(-1);
    if (fd >= 0) close(fd);
    bBadFile[i] = 0;
    dwLenActualFile[i] = 0;
    if (locked) unlockMutex(i, fn);
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
    shrinkMapping(i, size);
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

namespace {

// A file this thread must wait for is held by another process meanwhile,
// which may write it a record at a time (a restore): its modify events are
// left out for the wait, and the file gets a pass of its own afterwards.
bool g_eventsOff[kNumFiles];
bool g_passAgain[kNumFiles];

void eventsAsideForWait(int i, bool waiting) {
    if (waiting) {
        g_eventsOff[i] = inotify::setModifyEvents(i, false);
        return;
    }
    if (!g_eventsOff[i]) return;
    g_eventsOff[i] = false;
    g_passAgain[i] = true;
    inotify::setModifyEvents(i, true);
}

}  // namespace

bool takePassAgain(int i) {
    const bool again = g_passAgain[i];
    g_passAgain[i] = false;
    return again;
}

void actionFileChange(int i) {
    constexpr const char* fn = "CM_ActionFileChange";
    if (!ensurePrevData(i)) return;
    const auto& file = catalogue::sConfigItemList[i];
    const int32_t first = file.iFirstVarID;

    // A first look without any lock (the mapping and the copy stay in place
    // while it is announced), so that an unchanged file holds up no other
    // process and no set of this one.  A write in progress can only make a
    // block look different (it is looked at again under the lock); a write
    // that lands after its block was compared raises an event of its own,
    // which the next pass sees.
    std::span<const uint32_t> blocks;
    if (lockMutexYielding(i, fn) != 0) return;
    const uint8_t* map = pMappedFile[i];
    const uint8_t* prev = pPrevData[i];
    const uint32_t seen = std::min<uint32_t>(dwLenMappedFile[i], dwLenPrevData[i]);
    const bool look = map != nullptr && prev != nullptr && seen != 0;
    if (look) beginUnlockedLook(i);
    unlockMutex(i, fn);
    const bool intact = !look || differingBlocks(map, prev, seen, blocks);
    if (look) endUnlockedLook(i);
    if (!intact || blocks.empty()) return;

    // Relative IDs of the changed records, ascending; this thread alone uses them.
    static int changed[catalogue::kNumVarIds];
    int nChanged = 0;
    bool repair = false;
    {
        FileLock whole(i, 0, 0, eventsAsideForWait);
        if (fdRead[i] < 0 || pPrevData[i] == nullptr || pMappedFile[i] == nullptr) return;
        // Only bytes both the mapping and the copy hold are compared.
        const uint32_t len = std::min<uint32_t>(dwLenMappedFile[i], dwLenPrevData[i]);
        if (!diffBlocks(i, len, blocks, changed, nChanged, repair)) return;
        if (repair) repairFromDefaults(i, true, fn, false);
    }
    // Callbacks run only after the file lock is released, in ID order.
    if (repair) {
        for (int rel = 0; rel < file.iNumItems; ++rel) notify::notify(first + rel);
        return;
    }
    for (int n = 0; n < nChanged; ++n) notify::notify(first + changed[n]);
}

}  // namespace cm::watch
