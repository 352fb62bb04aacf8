// The set side: the profile-download refusal, and the unconditional write
// that converts addresses, enciphers passwords and keeps the MAC cache.
#include <netinet/in.h>
#include <unistd.h>

#include <cstring>

#include "catalogue/lookup.h"
#include "configmanager/cm_types.h"
#include "getset/getset.h"
#include "getset/mac_cache.h"
#include "process/state.h"
#include "log/log.h"
#include "platform/env.h"
#include "storage/file_state.h"
#include "storage/record.h"
#include "storage/record_peek.h"
#include "values/ipaddr.h"
#include "values/password.h"

namespace cm::getset {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
constexpr int32_t kCmFlagId = 0;

void logSetFailure(int32_t id) {
    if (!log::allowed(log::kErr)) return;
    if (const char* name = catalogue::tagOf(id))
        CM_LOG_TAGGED(log::kErr, "**ERROR: Process PID=%d:%d failed to set CM var %s (ID=%d)\n", getpid(),
                      platform::tid(), name, id);
}

}  // namespace

int setVariable(int32_t id, const void* value) {
    constexpr const char* fn = "CM_Set_Variable";
    uint8_t flag = 0;
    if (storage::peekOctet(kCmFlagId, flag) != 0)
        CM_LOG(log::kErr, fn, "Failed to read CM_FLAG (ID=%d)\n", kCmFlagId);
    else if (flag == CM_FLAG_PROFILE_DOWNLOAD) {
        CM_LOG(log::kNotice, fn, "Process PID=%d:%d CM var ID=%d not set as profile update from NCMS in progress\n",
               getpid(), platform::tid(), id);
        return 0;
    }
    return setVariableCmi(id, value);
}

int setVariableLogError(int32_t id, const void* value) {
    const int rc = setVariable(id, value);
    if (rc != 0) logSetFailure(id);
    return rc;
}

int setVariableCmi(int32_t id, const void* value) {
    constexpr const char* fn = "CM_Set_Variable_CMI";
    if (process::ucCMInitialised.load(std::memory_order_relaxed) == 0) return kNotStarted;
    catalogue::Location loc;
    if (!catalogue::toRelative(id, loc)) {
        CM_LOG(log::kErr, fn, "Invalid CM variable ID = %d\n", id);
        return kInvalid;
    }
    if (value == nullptr) return kInvalid;
    if (pthread_mutex_lock(&process::mCMMutex) != 0) return kNotStarted;

    const auto& e = catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
    const void* data = value;
    int result = 0;
    // Large enough for any converted value; on the stack, the path allocates nothing.
    alignas(8) uint8_t converted[storage::kMaxRecordData];

    if (e.ucDataType == DT_IPADDR) {
        // An unknown family still writes the "no address" form the
        // conversion left, and reports the conversion's result.
        result = values::sockaddrToCmAddr(converted, static_cast<const sockaddr*>(value));
        if (result != 0) CM_LOG(log::kWarn, fn, "Invalid IP address value for CM variable ID = %d\n", id);
        data = converted;
    } else if (e.ucDataType == DT_PASSWORD) {
        // On failure mCMMutex is deliberately left held by this thread.
        if (values::encipherPassword(static_cast<const char*>(value), converted) != 0) return kInvalid;
        data = converted;
    }
    if (id == kMac1AddressId) {
        CM_LOG(log::kDebug, fn, "MAC 1 Address calculated = 0x%X.\n", 0u);
        std::memcpy(szMACAddress, data, 6);
        szMACAddress[6] = szMACAddress[7] = 0;
        CM_LOG(log::kDebug, fn, "Writing MAC 1 Address and CRC : 0x%X 0x%X 0x%X 0x%X 0x%X 0x%X : 0x%X 0x%X.\n",
               szMACAddress[0], szMACAddress[1], szMACAddress[2], szMACAddress[3], szMACAddress[4], szMACAddress[5],
               szMACAddress[6], szMACAddress[7]);
        data = szMACAddress;
    }
    storage::writeDataItem(loc.iFileIndex, loc.iVarID_Rel, data, true);
    pthread_mutex_unlock(&process::mCMMutex);
    return result;
}

int setVariableCmiLogError(int32_t id, const void* value) {
    const int rc = setVariableCmi(id, value);
    if (rc != 0) logSetFailure(id);
    return rc;
}

}  // namespace cm::getset
