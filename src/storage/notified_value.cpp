#include "storage/notified_value.h"

#include <sys/socket.h>

#include <cstring>

#include "catalogue/lookup.h"
#include "log/log.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/record_io.h"
#include "values/ipaddr.h"

namespace cm::storage {
namespace {
constexpr auto kLogModule = log::Module::FileAccess;
}

int getNotifiedDataItem(int32_t id, void* destination) {
    constexpr const char* fn = "CM_GetNotifiedDataItem";
    catalogue::Location loc;
    if (id >= catalogue::kNumVarIds || !catalogue::toRelative(id, loc)) {
        CM_LOG(log::kErr, fn, "Invalid Var Id of %d\n", id);
        return -1;
    }
    if (destination == nullptr) {
        CM_LOG(log::kErr, fn, "NULL data pointer for CM var ID=%d\n", id);
        return -1;
    }
    const int i = loc.iFileIndex;
    const auto& e = catalogue::entry(i, loc.iVarID_Rel);
    // The copy changes only on the watch thread, under the file's mutex; a
    // callback (on that thread) or any other thread reads it under the mutex.
    if (lockMutex(i, fn) != 0) return -1;
    const uint32_t offset = e.recordOffset();
    uint8_t value[kMaxRecordData];
    int rc = -1;
    if (pPrevData[i] != nullptr && offset != catalogue::kNoRecord && e.wDataSize <= kMaxRecordData &&
        offset + kRecordHeader + e.wDataSize <= dwLenPrevData[i])
        rc = detail::copyValue(i, loc.iVarID_Rel, value, pPrevData[i] + offset + kRecordHeader, e.wDataSize);
    unlockMutex(i, fn);
    if (rc != 0) return -1;
    if (e.ucDataType == DT_IPADDR) return values::cmAddrToSockaddr(static_cast<sockaddr*>(destination), value);
    std::memcpy(destination, value, e.wDataSize);
    return 0;
}

}  // namespace cm::storage
