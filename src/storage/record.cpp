#include "storage/record.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "catalogue/lookup.h"
#include "log/log.h"
#include "platform/byte_order.h"
#include "storage/defaults.h"
#include "storage/file_state.h"
#include "storage/held_file.h"
#include "storage/lock.h"
#include "storage/map_guard.h"
#include "storage/own_write.h"
#include "storage/record_io.h"
#include "values/ipaddr.h"

namespace cm::storage {
namespace {

using platform::loadBe16;
using platform::storeBe16;

constexpr auto kLogModule = log::Module::FileAccess;
constexpr int kWriteAttempts = 10;

using catalogue::absoluteId;

void logBadRecord(const char* fn, int i, int rel) {
    CM_LOG_TAGGED(log::kErr, "**ERROR: %s, PID=%d. CM data file [%d] '%s' bad or missing record for CM var ID=%d (rel ID=%d)\n",
                  fn, getpid(), i, pathOf(i), absoluteId(i, rel), rel);
}

void logNotMapped(const char* fn, int i) {
    CM_LOG_TAGGED(log::kErr, "**ERROR: %s, PID=%d. CM data file [%d] dwLenMappedFile[] or pMappedFile[] is zero - skipping...\n",
                  fn, getpid(), i);
}

// The by-file operations' common checks, made with the file's mutex held
// (takeMutex) or by a caller that holds the whole-file lock.  They pass with
// the record offset, and the mutex still held when taken; on failure it has
// been released.  Looking at the descriptor, offset and mapping only under
// the mutex means a read that meets a set-up in progress waits for it
// instead of finding its records missing.
bool checkRecord(const char* fn, int i, int rel, bool takeMutex, uint32_t& offset) {
    if (!checkIndex(i, fn)) return false;
    if (!detail::checkRelative(i, rel, fn)) return false;
    if (takeMutex ? lockMutex(i, fn) != 0 : fdRead[i] < 0) {
        CM_LOG(log::kErr, fn, "Invalid File descriptor for CM data file [%d]\n", i);
        return false;
    }
    offset = catalogue::entry(i, rel).recordOffset();
    bool ok = true;
    if (offset == catalogue::kNoRecord) {
        logBadRecord(fn, i, rel);
        ok = false;
    } else if (!mapped(i)) {
        logNotMapped(fn, i);
        ok = false;
    }
    if (!ok && takeMutex) unlockMutex(i, fn);
    return ok;
}

// With the mutex held the mapping cannot change in this process; a record
// that no longer lies inside it is treated as missing rather than read past
// the end of the mapping.
bool insideMapping(const char* fn, int i, int rel, uint32_t offset, uint32_t size) {
    if (mapped(i) && offset <= dwLenMappedFile[i] && size <= dwLenMappedFile[i] - offset) return true;
    logBadRecord(fn, i, rel);
    return false;
}

// The range lock under a mutex already held, and its release with the mutex.
void lockRecord(int i, uint32_t offset, uint32_t size) { lockRange(i, offset, size, "CM_LockFile"); }
void unlockRecord(int i, uint32_t offset, uint32_t size) { unlockFile(i, offset, size); }

bool nullBuffer(const char* fn, const void* p, int32_t id) {
    if (p != nullptr) return false;
    CM_LOG(log::kErr, fn, "NULL data pointer for CM var ID=%d\n", id);
    return true;
}

// The by-ID operations' checks: an ID of 3290 or more, then the conversion.
bool locateById(const char* fn, int32_t id, catalogue::Location& loc) {
    if (id >= catalogue::kNumVarIds) {
        CM_LOG(log::kErr, fn, "Invalid Var Id of %d\n", id);
        return false;
    }
    return catalogue::toRelative(id, loc);
}

}  // namespace

int readDataItem(int i, int rel, void* destination) {
    constexpr const char* fn = "CM_ReadDataItem";
    if (checkIndex(i, fn) && detail::checkRelative(i, rel, fn) && nullBuffer(fn, destination, absoluteId(i, rel)))
        return -1;
    // A file this thread holds whole needs no lock of the record's own.
    const bool held = heldWhole(i);
    uint32_t offset;
    if (!checkRecord(fn, i, rel, !held, offset)) return -1;
    const auto& e = catalogue::entry(i, rel);
    const uint32_t size = e.wDataSize + kRecordHeader;

    if (!held) lockRecord(i, offset, size);
    int result = -1;
    // Copied out first: another process may cut the file under the mapping.
    uint8_t rec[kRecordHeader + kMaxRecordData];
    const uint32_t copied = kRecordHeader + (e.wDataSize < kMaxRecordData ? e.wDataSize : kMaxRecordData);
    const bool inside = insideMapping(fn, i, rel, offset, size);
    const bool got = inside && guardedCopy(rec, pMappedFile[i] + offset, copied);
    if (inside && !got) logBadRecord(fn, i, rel);
    if (got) {
        const unsigned storedRel = loadBe16(rec);
        const int storedLen = loadBe16(rec + 2);
        if (storedRel != static_cast<unsigned>(rel)) {
            CM_LOG_TAGGED(log::kErr,
                          "**ERROR: CM_ReadDataItem, PID=%d. CM data file [%d] '%s' record at offset %lu  has wrong "
                          "relative ID=%u (expected %d) for CM var abs ID=%d\n",
                          getpid(), i, pathOf(i), static_cast<unsigned long>(offset), storedRel, rel,
                          absoluteId(i, rel));
        } else if (storedLen != e.wDataSize || e.wDataSize > kMaxRecordData) {
            CM_LOG_TAGGED(log::kErr,
                          "**ERROR: CM_ReadDataItem, PID=%d. CM data file [%d] '%s' record at offset %lu with relative "
                          "ID=%d has wrong length=%d (expected %d) for CM var abs ID=%d\n",
                          getpid(), i, pathOf(i), static_cast<unsigned long>(offset), rel, storedLen, e.wDataSize,
                          absoluteId(i, rel));
        } else {
            result = detail::copyValue(i, rel, destination, rec + kRecordHeader, e.wDataSize);
        }
    }
    if (!held) unlockRecord(i, offset, size);
    return result;
}

int detail::writeRecord(int i, int rel, const void* value, bool bLock, bool& written) {
    constexpr const char* fn = "CM_WriteDataItem";
    written = false;
    if (checkIndex(i, fn) && detail::checkRelative(i, rel, fn) && nullBuffer(fn, value, absoluteId(i, rel))) return -1;
    // A file this thread holds whole takes no lock here; its CRC word is
    // written when the hold ends.
    const bool held = bLock && heldWhole(i);
    if (held) bLock = false;
    uint32_t offset;
    if (!checkRecord(fn, i, rel, bLock, offset)) return -1;
    const auto& e = catalogue::entry(i, rel);

    // Built on the stack: this path allocates nothing.
    uint8_t rec[kRecordHeader + kMaxRecordData];
    const uint32_t len = writtenLength(e);
    if (e.wDataSize > kMaxRecordData)
        CM_LOG_TAGGED(log::kErr,
                      "**ERROR: CM_WriteDataItem, PID=%d. CM data file [%d] '%s' CM var abs ID=%d (rel ID=%d) data size "
                      "of %u exceeds max - truncated\n",
                      getpid(), i, pathOf(i), absoluteId(i, rel), rel, static_cast<unsigned>(e.wDataSize));
    storeBe16(rec, static_cast<uint16_t>(rel));
    storeBe16(rec + 2, static_cast<uint16_t>(len));
    const uint32_t size = len + kRecordHeader;

    if (bLock) lockRecord(i, offset, size);
    bool failed = false;
    bool began = false;  // a record write of the set is under way
    int diff = 0;
    if (!insideMapping(fn, i, rel, offset, size) ||
        detail::copyValue(i, rel, rec + kRecordHeader, value, len) != 0) {
        failed = true;
    } else if (!guardedCompare(pMappedFile[i] + offset + kRecordHeader, rec + kRecordHeader, len, diff)) {
        logBadRecord(fn, i, rel);
        failed = true;
    } else if (diff != 0) {
        // A failed attempt marks the call failed for good, even when a later
        // attempt gets the record written.
        const int fd = fdRead[i];
        if (bLock) {
            ownwrite::begin(i);
            began = true;
        }
        errno = 0;
        for (int attempt = 0; attempt < kWriteAttempts && !written; ++attempt) {
            if (lseek(fd, offset, SEEK_SET) == static_cast<off_t>(-1)) {
                failed = true;
                continue;
            }
            errno = 0;
            if (write(fd, rec, size) == static_cast<ssize_t>(size)) {
                written = true;
                CM_LOG_TAGGED(log::kInfo,
                              "CM_WriteDataItem, PID=%d. CM data file [%d] '%s' - Write record for CM var abs ID=%d "
                              "(rel ID=%d) at offset %lu\n",
                              getpid(), i, pathOf(i), absoluteId(i, rel), rel, static_cast<unsigned long>(offset));
            } else {
                failed = true;
            }
        }
        if (!written)
            CM_LOG_TAGGED(log::kErr,
                          "**ERROR: CM_WriteDataItem, PID=%d. CM data file [%d] '%s' - Failed to write record for CM var "
                          "abs ID=%d (rel ID=%d) : %m\n",
                          getpid(), i, pathOf(i), absoluteId(i, rel), rel);
    }
    if (bLock && written) {
        updateCRCAfterRecordWrite(i, offset, size);
    } else if (bLock) {
        unlockRecord(i, offset, size);
        if (began) ownwrite::noEventFollows(i);
    }
    if (held && written) noteHeldWrite(i);
    if (failed) return -1;
    return written ? 1 : 0;
}

int writeDataItem(int i, int rel, const void* value, bool bLock) {
    bool written;
    return detail::writeRecord(i, rel, value, bLock, written);
}

int getDataItem(int32_t id, void* destination) {
    constexpr const char* fn = "CM_GetDataItem";
    catalogue::Location loc;
    if (!locateById(fn, id, loc)) return -1;
    if (nullBuffer(fn, destination, id)) return -1;
    const auto& e = catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
    if (e.ucDataType != DT_IPADDR) return readDataItem(loc.iFileIndex, loc.iVarID_Rel, destination);

    // Addresses are handed out as socket addresses, not in their stored form.
    uint8_t stored[kMaxRecordData];
    if (e.wDataSize > sizeof stored) return -1;
    const int rc = readDataItem(loc.iFileIndex, loc.iVarID_Rel, stored);
    if (rc != 0) return rc;
    const int conv = values::cmAddrToSockaddr(static_cast<sockaddr*>(destination), stored);
    if (conv != 0) CM_LOG(4, fn, "Invalid stored IP address in CM var ID=%d\n", id);
    return conv;
}

int putDataItem(int32_t id, const void* value) {
    constexpr const char* fn = "CM_PutDataItem";
    catalogue::Location loc;
    if (!locateById(fn, id, loc)) return -1;
    if (nullBuffer(fn, value, id)) return -1;
    return writeDataItem(loc.iFileIndex, loc.iVarID_Rel, value, true);
}

int getDataItemDefaultValue(int32_t id, void* destination) {
    constexpr const char* fn = "CM_GetDataItemDefaultValue";
    catalogue::Location loc;
    if (!locateById(fn, id, loc)) return -1;
    if (nullBuffer(fn, destination, id)) return -1;
    // The default is filled in whether or not the file is open yet; only the
    // conversion decides the result.
    getDefaultData(loc.iFileIndex, loc.iVarID_Rel, destination);
    return 0;
}

}  // namespace cm::storage
