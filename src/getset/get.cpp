// The get side: plain, logged, default and checked reads.
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "catalogue/lookup.h"
#include "configmanager/cm_types.h"
#include "getset/getset.h"
#include "getset/mac_cache.h"
#include "process/state.h"
#include "log/log.h"
#include "platform/env.h"
#include "storage/record.h"

namespace cm::getset {

uint8_t szMACAddress[16];

namespace {

constexpr auto kLogModule = log::Module::ConfigParam;

void cacheMac(int32_t id, const void* value) {
    catalogue::Location loc;
    if (!catalogue::locate(id, loc)) return;
    const size_t n = std::min<size_t>(kMacCacheUsed, catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).wDataSize);
    if (pthread_mutex_lock(&process::mCMMutex) != 0) return;
    std::memcpy(szMACAddress, value, n);
    pthread_mutex_unlock(&process::mCMMutex);
}

// A number of the variable's type from the caller's buffer (host order).
uint32_t loadNumber(uint8_t type, const void* value) {
    switch (type) {
    case DT_OCTET: return *static_cast<const uint8_t*>(value);
    case DT_WORD: {
        uint16_t w;
        std::memcpy(&w, value, sizeof w);
        return w;
    }
    default: {
        uint32_t d;
        std::memcpy(&d, value, sizeof d);
        return d;
    }
    }
}

}  // namespace

int getVariable(int32_t id, void* value) {
    if (!process::started()) return kNotStarted;
    if (value == nullptr) return kInvalid;
    if (storage::getDataItem(id, value) != 0) return kInvalid;
    // Unreachable for such IDs (the read has failed already); kept after it.
    if (id > catalogue::kMaxVarId) return kNotStarted;
    if (id == kMac1AddressId) cacheMac(id, value);
    return 0;
}

int getVariableLogError(int32_t id, void* value) {
    const int rc = getVariable(id, value);
    if (rc != 0 && log::allowed(log::kErr)) {
        if (const char* name = catalogue::tagOf(id))
            CM_LOG_TAGGED(log::kErr, "**ERROR: Process PID=%d:%d failed to read CM var %s (ID=%d)\n", getpid(),
                          platform::tid(), name, id);
    }
    return rc;
}

int getVariableDefault(int32_t id, void* value) {
    if (!process::started()) return kNotStarted;
    if (value == nullptr) return kInvalid;
    return storage::getDataItemDefaultValue(id, value) < 0 ? kInvalid : 0;
}

int getVariableChecked(int32_t id, void* value) {
    const int rc = getVariableLogError(id, value);
    if (rc != 0) return rc > 0 ? -1 : rc;

    catalogue::Location loc;
    if (!catalogue::locate(id, loc)) return 0;
    const auto& e = catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
    if (e.ucDataType != DT_OCTET && e.ucDataType != DT_WORD && e.ucDataType != DT_DWORD) return 0;
    const uint32_t bad = loadNumber(e.ucDataType, value);
    if (bad >= e.dwMin && bad <= e.dwMax) return 0;

    // Out of range: restore the default in the file for every process.  Some
    // defaults lie outside their own bounds; those are repaired again at
    // every checked read.
    uint8_t def[4] = {};
    if (storage::getDataItemDefaultValue(id, def) < 0) return 0;
    setVariableLogError(id, def);
    std::memcpy(value, def, e.wDataSize < sizeof def ? e.wDataSize : sizeof def);
    const uint32_t good = loadNumber(e.ucDataType, def);
    if (e.ucDataType == DT_DWORD)
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM var %s (ID=%d) bad value = %lu changed to default = %lu\n", e.szVarTag, id,
                      static_cast<unsigned long>(bad), static_cast<unsigned long>(good));
    else
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM var %s (ID=%d) bad value = %u changed to default = %u\n", e.szVarTag, id,
                      bad, good);
    return 1;
}

}  // namespace cm::getset
