#include "storage/defaults.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "catalogue/lookup.h"
#include "log/log.h"
#include "platform/env.h"
#include "platform/byte_order.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/own_write.h"
#include "storage/open_map.h"
#include "storage/record_io.h"

namespace cm::storage {
namespace {

using platform::storeBe16;
using platform::storeBe32;

constexpr auto kLogModule = log::Module::FileAccess;

using catalogue::absoluteId;

void logUnknownType(const char* fn, int i, int rel) {
    CM_LOG_TAGGED(log::kErr,
                  "**ERROR: %s, PID=%d. File '%s' config Data Item %d (rel %d). Unknown data type, value=%d. Skipping\n",
                  fn, getpid(), pathOf(i), absoluteId(i, rel), rel, catalogue::entry(i, rel).ucDataType);
}

void storeZeroWord(void* destination) { std::memset(destination, 0, 4); }

// Reverses `n` bytes on a little-endian host, copies them on a big-endian one.
// A host-order number stored big-endian is the same operation as a
// big-endian number loaded into host order, so one function serves both.
void copyNumber(void* destination, const void* source, uint32_t n) {
    if (n == 2) {
        uint16_t v;
        std::memcpy(&v, source, 2);
        storeBe16(destination, v);
    } else if (n == 4) {
        uint32_t v;
        std::memcpy(&v, source, 4);
        storeBe32(destination, v);
    } else {
        std::memcpy(destination, source, n);
    }
}

// The checks copyData and getDefaultData share.  A missing descriptor makes
// the result -1 but still lets the copy go ahead (it needs none); a bad index
// or relative ID stops it.
bool checkCopy(const char* fn, int i, int rel, int& result, const void* destination, const void* source) {
    if (!checkIndex(i, fn)) return false;
    if (destination == nullptr || source == nullptr) {
        CM_LOG(log::kErr, fn, "NULL data pointer for file no. %d, rel ID %d\n", i, rel);
        return false;
    }
    if (fdRead[i] < 0) {
        CM_LOG(log::kErr, fn, "Invalid File descriptor for file no. %d\n", i);
        result = -1;
    }
    return detail::checkRelative(i, rel, fn);
}

void logLseekFailure(const char* fn, int i, unsigned long offset) {
    CM_LOG(log::kErr, fn, "PID=%d. lseek to offset %lu in '%s' failed: %m\n", getpid(), offset, pathOf(i));
}

// Writes every record from its default, one write per record at its
// computed offset, filling in the record offsets.  A record that fails is
// marked missing and the file bad; the others are still written.
int writeDefaultRecords(int i) {
    const auto& file = catalogue::sConfigItemList[i];
    const int fd = fdRead[i];
    int result = 0;
    uint32_t offset = kHeaderSize;
    uint8_t value[kMaxRecordData];
    uint8_t rec[kRecordHeader + kMaxRecordData];
    for (int r = 0; r < file.iNumItems; ++r) {
        const auto& e = file.pItems[r];
        const uint32_t len = detail::writtenLength(e);
        if (e.wDataSize > kMaxRecordData)
            CM_LOG_TAGGED(log::kErr,
                          "**ERROR: CM_WriteDefaultData, PID=%d. File '%s' config Data Item %d (rel %d) size of %u "
                          "exceeds max - truncated\n",
                          getpid(), pathOf(i), absoluteId(i, r), r, static_cast<unsigned>(e.wDataSize));
        storeBe16(rec, static_cast<uint16_t>(r));
        storeBe16(rec + 2, static_cast<uint16_t>(len));
        std::memset(rec + kRecordHeader, 0, len);
        // The default comes in caller form; the record wants file form.
        if (detail::defaultValue(i, r, value, len) == 0) detail::copyValue(i, r, rec + kRecordHeader, value, len);

        // Written at the computed offset, so that a short write cannot shift
        // the records after it.
        const uint32_t size = len + kRecordHeader;
        if (pwrite(fd, rec, size, offset) == static_cast<ssize_t>(size)) {
            e.setRecordOffset(offset);
            CM_LOG_TAGGED(log::kInfo, "CM_WriteDefaultData, PID=%d. File '%s' config Data Item %d (rel %d) written at offset %lu\n",
                          getpid(), pathOf(i), absoluteId(i, r), r, static_cast<unsigned long>(offset));
        } else {
            CM_LOG_TAGGED(log::kErr, "**ERROR: CM_WriteDefaultData, PID=%d. File '%s' - Failed to write config Data Item %d (rel %d) >>>%m\n",
                          getpid(), pathOf(i), absoluteId(i, r), r);
            e.setRecordOffset(catalogue::kNoRecord);
            bBadFile[i] = 1;
            result = -1;
        }
        offset += size;
    }
    return result;
}

}  // namespace

bool detail::checkRelative(int i, int rel, const char* fn) {
    const auto& file = catalogue::sConfigItemList[i];
    if (rel >= 0 && rel < file.iNumItems) return true;
    CM_LOG(log::kErr, fn, "iiVarID_Rel %d exceeds number of items (%d) defined in file '%s'\n", rel, file.iNumItems,
           pathOf(i));
    return false;
}

int detail::copyValue(int i, int rel, void* destination, const void* source, uint32_t len) {
    const auto& e = catalogue::entry(i, rel);
    switch (e.ucDataType) {
    case DT_OCTET:
    case DT_WORD:
    case DT_DWORD:
        copyNumber(destination, source, len < e.wDataSize ? len : e.wDataSize);
        return 0;
    case DT_STRING: {
        // At most len - 1 characters; the rest, and always the last byte, zero.
        if (len == 0) return 0;
        const size_t n = strnlen(static_cast<const char*>(source), len - 1);
        std::memcpy(destination, source, n);
        std::memset(static_cast<uint8_t*>(destination) + n, 0, len - n);
        return 0;
    }
    case DT_OCTET_STRING:
    case DT_IPADDR:
    case DT_PASSWORD:
        std::memcpy(destination, source, len);
        return 0;
    default:
        logUnknownType("CM_CopyData", i, rel);
        storeZeroWord(destination);
        return -1;
    }
}

int detail::defaultValue(int i, int rel, void* destination, uint32_t len) {
    const auto& e = catalogue::entry(i, rel);
    const uint32_t word = e.oDefault.dwValue;
    auto* out = static_cast<uint8_t*>(destination);
    // Numbers are left-aligned in the default word.
    switch (e.ucDataType) {
    case DT_OCTET:
        out[0] = static_cast<uint8_t>(word >> 24);
        return 0;
    case DT_WORD: {
        const uint16_t v = static_cast<uint16_t>(word >> 16);
        std::memcpy(out, &v, sizeof v);
        return 0;
    }
    case DT_DWORD:
        std::memcpy(out, &word, sizeof word);
        return 0;
    case DT_STRING:
    case DT_OCTET_STRING:
    case DT_IPADDR:
    case DT_PASSWORD: {
        const uint8_t* src = e.oDefault.pData;
        // An empty password default (first two bytes zero) is stored as zeros.
        const bool zeros = src == nullptr || (e.ucDataType == DT_PASSWORD && src[0] == 0 && src[1] == 0);
        if (zeros)
            std::memset(out, 0, len);
        else
            std::memcpy(out, src, len);
        return 0;
    }
    default:
        logUnknownType("CM_GetDefaultData", i, rel);
        storeZeroWord(destination);
        return -1;
    }
}

int getDefaultData(int i, int rel, void* destination) {
    int result = 0;
    if (!checkCopy("CM_GetDefaultData", i, rel, result, destination, destination)) return -1;
    if (detail::defaultValue(i, rel, destination, catalogue::entry(i, rel).wDataSize) != 0) return -1;
    return result;
}

int copyData(int i, int rel, void* destination, const void* source) {
    int result = 0;
    if (!checkCopy("CM_CopyData", i, rel, result, destination, source)) return -1;
    if (detail::copyValue(i, rel, destination, source, catalogue::entry(i, rel).wDataSize) != 0) return -1;
    return result;
}

int detail::writeCrcWord(int i, const char* fn) {
    const int fd = fdRead[i];
    uint8_t crc[2];
    storeBe16(crc, kCrcWord);
    if (lseek(fd, 2, SEEK_SET) == static_cast<off_t>(-1)) {
        const int err = errno;
        CM_LOG(log::kErr, fn, "PID=%d. lseek failed for CM data file [%d] '%s' - Failed to write CRC, errno=%d '%s'\n",
               getpid(), i, pathOf(i), err, std::strerror(err));
        return -1;
    }
    if (write(fd, crc, sizeof crc) != static_cast<ssize_t>(sizeof crc)) {
        const int err = errno;
        CM_LOG_TAGGED(log::kErr, "**ERROR: %s, PID=%d. CM data file [%d] '%s' - Failed to write CRC, errno=%d '%s'\n",
                      fn, getpid(), i, pathOf(i), err, std::strerror(err));
        return -1;
    }
    return 0;
}

namespace {

int updateCrc(int i, const char* fn, bool bLock) {
    if (!checkIndex(i, fn)) return -1;
    if (fdRead[i] < 0) {
        CM_LOG(log::kErr, fn, "File descriptor for file no. '%s' invalid - quit \n", pathOf(i));
        return -1;
    }
    CM_LOG(log::kDebug, fn, "ID=%d:%d called for file %s\n", getpid(), platform::tid(), pathOf(i));
    if (bLock) lockFile(i, 0, 0);
    const int rc = detail::writeCrcWord(i, fn);
    if (bLock) unlockFile(i, 0, 0);
    return rc;
}

}  // namespace

int updateCRC(int i) { return updateCrc(i, "CM_UpdateCRC", false); }

int updateCRCWithLock(int i) { return updateCrc(i, "CM_UpdateCRCwithLock", true); }

int updateCRCAfterRecordWrite(int i, off_t recordStart, off_t recordLength) {
    constexpr const char* fn = "CM_UpdateCRCwithLock";
    if (!checkIndex(i, fn)) return -1;
    if (fdRead[i] < 0) {
        unlockFile(i, recordStart, recordLength);
        ownwrite::noEventFollows(i);
        CM_LOG(log::kErr, fn, "File descriptor for file no. '%s' invalid - quit \n", pathOf(i));
        return -1;
    }
    CM_LOG(log::kDebug, fn, "ID=%d:%d called for file %s\n", getpid(), platform::tid(), pathOf(i));
    moveLock(i, recordStart, recordLength, 0, 0);
    ownwrite::eventFollows(i);
    const int rc = detail::writeCrcWord(i, fn);
    unlockFile(i, 0, 0);
    if (rc != 0) ownwrite::noEventFollows(i);
    return rc;
}

int writeDefaultData(int i, bool bLock, bool bInitPrevData) {
    constexpr const char* fn = "CM_WriteDefaultData";
    if (!checkOpen(i, fn)) return -1;
    if (bLock) lockFile(i, 0, 0);
    unmapFile(i);
    if (dwLenCorrectFile[i] == 0) dwLenCorrectFile[i] = correctLength(i);
    const int fd = fdRead[i];

    int result = 0;
    if (lseek(fd, 0, SEEK_SET) == static_cast<off_t>(-1)) {
        logLseekFailure(fn, i, 0);
        result = -1;
    } else {
        uint8_t version[2];
        storeBe16(version, catalogue::sConfigItemList[i].wVersion);
        if (write(fd, version, sizeof version) != static_cast<ssize_t>(sizeof version)) {
            CM_LOG_TAGGED(log::kErr, "**ERROR: CM_WriteDefaultData, PID=%d. File '%s' - Failed to write Version Code >>>%m\n",
                          getpid(), pathOf(i));
            result = -1;
        }
        // The CRC word is skipped here and written last.
        if (lseek(fd, kHeaderSize, SEEK_SET) == static_cast<off_t>(-1)) {
            logLseekFailure(fn, i, kHeaderSize);
            result = -1;
        } else if (writeDefaultRecords(i) != 0) {
            result = -1;
        }
    }
    updateCRC(i);

    // Anything beyond the last record goes; only the correct length is mapped.
    if (ftruncate(fd, dwLenCorrectFile[i]) != 0) {
        CM_LOG(log::kErr, fn, "PID=%d. ftruncate of '%s' to %lu bytes failed: %m\n", getpid(), pathOf(i),
               static_cast<unsigned long>(dwLenCorrectFile[i]));
        result = -1;
    }
    dwLenActualFile[i] = dwLenCorrectFile[i].load();
    if (remapFile(i, dwLenCorrectFile[i]) != 0) result = -1;
    if (result == 0) bBadFile[i] = 0;

    if (bInitPrevData && initialisePrevData(i) != 0) {
        CM_LOG(log::kErr, fn, "Initialise oPrevData[%d] failed - quitting\n", i);
        if (bLock) unlockFile(i, 0, 0);
        return -1;
    }
    if (bLock) unlockFile(i, 0, 0);
    return result;
}

int writeDefaultDataItems(int i, uint32_t level) {
    constexpr const char* fn = "CM_WriteDefaultDataItems";
    if (!checkOpen(i, fn)) return -1;
    lockFile(i, 0, 0);
    const auto& file = catalogue::sConfigItemList[i];
    bool anyWritten = false;
    alignas(8) uint8_t value[300];
    for (int r = 0; r < file.iNumItems; ++r) {
        const auto& e = file.pItems[r];
        if (e.ucAttrib < level) continue;
        const uint32_t len = e.wDataSize < sizeof value ? e.wDataSize : sizeof value;
        if (detail::defaultValue(i, r, value, len) != 0) continue;
        bool written = false;
        detail::writeRecord(i, r, value, false, written);
        anyWritten = anyWritten || written;
    }
    if (anyWritten) updateCRC(i);
    unlockFile(i, 0, 0);
    return 0;
}

}  // namespace cm::storage
