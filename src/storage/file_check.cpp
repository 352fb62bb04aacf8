#include "storage/file_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "catalogue/catalogue.h"
#include "platform/byte_order.h"
#include "storage/file_state.h"

namespace cm::storage {
namespace {

using platform::loadBe16;

// Reads the whole file (at most `limit` bytes, enough to see that it is too
// long); false when it cannot be opened or read.
bool readFile(const char* path, uint32_t limit, std::vector<uint8_t>& out, uint32_t& length, bool& missing) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        missing = errno == ENOENT;
        return false;
    }
    struct stat st{};
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (ok) {
        // off_t is 32 bits wide on the device, 64 on hosts.
        const auto size = static_cast<uint64_t>(st.st_size);
        length = size > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(size);
        out.resize(std::min(length, limit));
        size_t got = 0;
        while (got < out.size()) {
            const ssize_t n = pread(fd, out.data() + got, out.size() - got, static_cast<off_t>(got));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        out.resize(got);  // a file cut while we read is judged by what was there
    }
    ::close(fd);
    return ok;
}

}  // namespace

CM_FileCheck checkFileOnDisk(int i, std::span<CM_RecordFault> faults) {
    const auto& file = catalogue::sConfigItemList[i];
    CM_FileCheck c{};
    c.dwCorrectLength = correctLength(i);

    std::vector<uint8_t> data;
    bool missing = false;
    if (!readFile(pathOf(i), c.dwCorrectLength + 1, data, c.dwLength, missing)) {
        c.dwFaults = missing ? CM_FILE_MISSING : CM_FILE_UNREADABLE;
        return c;
    }
    const uint32_t len = static_cast<uint32_t>(data.size());
    if (c.dwLength > c.dwCorrectLength) c.dwFaults |= CM_FILE_TOO_LONG;
    if (len < kHeaderSize) {
        c.dwFaults |= CM_FILE_BAD_HEADER | (c.dwCorrectLength > kHeaderSize ? CM_FILE_TOO_SHORT : 0);
        return c;
    }
    c.dwVersionFound = loadBe16(data.data());
    if (c.dwVersionFound != file.wVersion) c.dwFaults |= CM_FILE_BAD_HEADER;

    uint32_t offset = kHeaderSize;
    for (int r = 0; r < file.iNumItems; ++r) {
        const auto& e = file.pItems[r];
        const uint32_t end = offset + e.wDataSize + kRecordHeader;
        if (end > len) {
            c.dwFaults |= CM_FILE_TOO_SHORT;
            break;
        }
        ++c.iRecordsPresent;
        const int storedRel = loadBe16(data.data() + offset);
        const uint32_t storedLen = loadBe16(data.data() + offset + 2);
        if (storedRel != r || storedLen != e.wDataSize) {
            if (static_cast<size_t>(c.iBadRecords) < faults.size())
                faults[c.iBadRecords] = {offset, r, storedRel, e.wDataSize, storedLen};
            ++c.iBadRecords;
            c.dwFaults |= CM_FILE_BAD_RECORDS;
        }
        offset = end;
    }
    return c;
}

}  // namespace cm::storage
