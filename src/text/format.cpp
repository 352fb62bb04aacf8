// Value to text.
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "catalogue/lookup.h"
#include "configmanager/cm_types.h"
#include "configmanager/cm_values.h"
#include "log/log.h"
#include "storage/file_state.h"
#include "storage/record.h"
#include "text/value_text.h"
#include "values/ipaddr.h"

namespace cm::text {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;

uint32_t loadNumber(uint8_t type, const uint8_t* v) {
    if (type == DT_OCTET) return v[0];
    if (type == DT_WORD) {
        uint16_t w;
        std::memcpy(&w, v, sizeof w);
        return w;
    }
    uint32_t d;
    std::memcpy(&d, v, sizeof d);
    return d;
}

void formatNumber(char* out, uint8_t type, uint32_t v, Form form) {
    if (form == Form::Bare) {
        if (type == DT_DWORD)
            std::snprintf(out, kTextSize, "%lu", static_cast<unsigned long>(v));
        else
            std::snprintf(out, kTextSize, "%u", v);
        return;
    }
    // The signed form of a double word is its 32-bit signed value on every
    // host; octets and words show the zero-extended value.
    switch (type) {
    case DT_OCTET: std::snprintf(out, kTextSize, "OCTET: %d (unsigned %u) (0x%02X)", static_cast<int>(v), v, v); break;
    case DT_WORD: std::snprintf(out, kTextSize, "WORD: %d (unsigned %u) (0x%04X)", static_cast<int>(v), v, v); break;
    default:
        std::snprintf(out, kTextSize, "DWORD: %ld (unsigned %lu) (0x%08lX)", static_cast<long>(static_cast<int32_t>(v)),
                      static_cast<unsigned long>(v), static_cast<unsigned long>(v));
    }
}

void formatHex(char* out, const uint8_t* v, std::size_t n) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    if (n > kMaxHexBytes) n = kMaxHexBytes;
    char* p = out;
    *p++ = '0';
    *p++ = 'x';
    for (std::size_t k = 0; k < n; ++k) {
        *p++ = kDigits[v[k] >> 4];
        *p++ = kDigits[v[k] & 15];
    }
    *p = '\0';
}

int formatAddress(char* out, const uint8_t* stored) {
    sockaddr_in6 sa{};
    const int rc = values::cmAddrToSockaddr(reinterpret_cast<sockaddr*>(&sa), stored);
    if (rc != 0) return rc;
    if (sa.sin6_family == AF_UNSPEC) return 0;
    char addr[kAddrFormatSize] = "";
    CopyAddressToString(addr, reinterpret_cast<const sockaddr*>(&sa), kAddrFormatSize);
    if (std::snprintf(out, kMaxAddrText, "%s", addr) >= static_cast<int>(kMaxAddrText)) return -1;
    return 0;
}

}  // namespace

int valueToText(int32_t id, char* out, Form form) {
    const bool bare = form == Form::Bare;
    const char* fn = bare ? "CM_Get_Var_Value_As_String" : "CM_GetDataItemToString";
    if (out == nullptr) return -1;
    out[0] = '\0';
    if (id < 0 || id > catalogue::kMaxVarId) {
        CM_LOG(log::kErr, fn, "Invalid Var Id of %d\n", id);
        return bare ? CM_ERR_INVALID : -1;
    }
    catalogue::Location loc;
    if (!catalogue::toRelative(id, loc)) {
        CM_LOG(log::kErr, fn, "Abs2Rel failed for %d\n", id);
        return bare ? CM_ERR_NO_FILE : -1;
    }
    const int i = loc.iFileIndex, rel = loc.iVarID_Rel;
    const auto& e = catalogue::entry(i, rel);
    if (e.ucDataType >= catalogue::kNumDataTypes) {
        if (bare)
            CM_LOG(log::kErr, fn, "Unsupported var type %d, var id=%d\n", e.ucDataType, id);
        else
            CM_LOG_TAGGED(log::kErr,
                          "**ERROR: CM_GetDataItemToString, PID=%d. File '%s' config Data Item %d (rel %d). Unknown "
                          "data type, value=%d. Skipping\n",
                          getpid(), storage::pathOf(i), id, rel, e.ucDataType);
        return bare ? CM_ERR_UNSUPPORTED_TYPE : -1;
    }
    // Texts are read straight into the caller's buffer (no text is longer
    // than it); everything else through a record-sized buffer.
    if (e.ucDataType == DT_STRING) {
        if (e.wDataSize > kTextSize) return -1;
        const int rc = storage::readDataItem(i, rel, out);
        if (rc != 0) out[0] = '\0';
        return rc;
    }
    alignas(4) uint8_t value[storage::kMaxRecordData];
    if (e.wDataSize > sizeof value) return -1;
    const int rc = storage::readDataItem(i, rel, value);
    if (rc != 0) return rc;
    switch (e.ucDataType) {
    case DT_OCTET:
    case DT_WORD:
    case DT_DWORD: formatNumber(out, e.ucDataType, loadNumber(e.ucDataType, value), form); return 0;
    case DT_OCTET_STRING:
    case DT_PASSWORD: formatHex(out, value, e.wDataSize); return 0;
    default: return formatAddress(out, value);
    }
}

}  // namespace cm::text
