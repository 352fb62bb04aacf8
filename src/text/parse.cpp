// Text to value: parses a bare text and writes the record.
#include <netinet/in.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "catalogue/lookup.h"
#include "configmanager/cm_types.h"
#include "configmanager/cm_values.h"
#include "getset/getset.h"
#include "log/log.h"
#include "storage/file_state.h"
#include "storage/record.h"
#include "text/value_text.h"
#include "values/ipaddr.h"
#include "values/password.h"

namespace cm::text {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr const char* kFn = "CM_PutDataItemFromString";
constexpr std::size_t kHexPasswdLen = 2 + 2 * values::kPasswdRecordSize;  // "0x" and 260 digits

// Numbers are parsed as the device's 32-bit C library does, so that a text
// gives the same value on every host: a decimal with an optional sign,
// saturated to a 32-bit long and then truncated to the variable's size.
int32_t parseLong32(const char* s) {
    errno = 0;
    const long long v = std::strtoll(s, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
}

// As a 32-bit strtoul with base 0: the base from the prefix, a magnitude
// beyond 32 bits saturates, and a minus sign negates modulo 2^32.
uint32_t parseUlong32(const char* s) {
    while (std::isspace(static_cast<unsigned char>(*s))) ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') negative = *s++ == '-';
    if (*s == '+' || *s == '-') return 0;  // a second sign is not a number
    errno = 0;
    const unsigned long long m = std::strtoull(s, nullptr, 0);
    if (errno == ERANGE || m > UINT32_MAX) return UINT32_MAX;
    const auto v = static_cast<uint32_t>(m);
    return negative ? static_cast<uint32_t>(0u - v) : v;
}

// A sign with blanks after it ("- 5"): strtoul would skip the blanks and
// negate, storing 4294967291; such a text is refused instead.
bool blankAfterSign(const char* s) {
    while (std::isspace(static_cast<unsigned char>(*s))) ++s;
    return (*s == '+' || *s == '-') && std::isspace(static_cast<unsigned char>(s[1]));
}

// Turns every "&amp;" into "&" while copying at most `size` - 1 characters.
void decodeAmp(char* out, std::size_t size, const char* in) {
    std::size_t n = 0;
    while (*in != '\0' && n + 1 < size) {
        out[n++] = *in;
        in += std::strncmp(in, "&amp;", 5) == 0 ? 5 : 1;
    }
    out[n] = '\0';
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The enciphered record in hexadecimal, high digit first.  0, or -1 for a
// character that is not a hexadecimal digit.
int decodeHexRecord(uint8_t* record, const char* hex) {
    std::memset(record, 0, values::kPasswdRecordSize);
    for (std::size_t k = 0; k < values::kPasswdRecordSize && hex[0] != '\0' && hex[1] != '\0'; ++k, hex += 2) {
        const int hi = hexDigit(hex[0]), lo = hexDigit(hex[1]);
        if (hi < 0 || lo < 0) return -1;
        record[k] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return 0;
}

int writeAddress(int i, int rel, const char* text) {
    sockaddr_in6 sa{};
    auto* sp = reinterpret_cast<sockaddr*>(&sa);
    if (ConvertStringToIpAddress(sp, text) < 0 && text[0] != '\0')
        CM_LOG(log::kWarn, kFn, "Failed to understand IP address of \"%s\"\n", text);
    uint8_t stored[values::kStoredAddrSize];
    const int rc = values::sockaddrToCmAddr(stored, sp);
    if (rc != 0) {
        CM_LOG(log::kWarn, kFn, "Invalid IP address type for \"%s\"\n", text);
        return rc;
    }
    return storage::writeDataItem(i, rel, stored, true);
}

int writePassword(int32_t id, int i, int rel, const char* text) {
    const std::size_t len = strnlen(text, kHexPasswdLen + 1);
    if (len == kHexPasswdLen && text[0] == '0' && text[1] == 'x') {
        uint8_t record[values::kPasswdRecordSize];
        if (decodeHexRecord(record, text + 2) != 0) return -1;
        return storage::writeDataItem(i, rel, record, true);
    }
    if (len > values::kPasswdMaxPlain) return -1;
    return getset::setVariableCmi(id, text);
}

}  // namespace

int valueFromText(int32_t id, const char* text) {
    if (text == nullptr) return -1;
    if (id > catalogue::kMaxVarId) {
        CM_LOG(log::kErr, kFn, "Invalid Var Id of %d\n", id);
        return -1;
    }
    catalogue::Location loc;
    if (!catalogue::toRelative(id, loc)) return -1;
    const int i = loc.iFileIndex, rel = loc.iVarID_Rel;
    const auto& e = catalogue::entry(i, rel);

    // Every converted value fits a record; built on the stack.
    alignas(4) uint8_t value[storage::kMaxRecordData + 1] = {};
    if (e.ucDataType <= DT_DWORD && blankAfterSign(text)) return -1;
    switch (e.ucDataType) {
    case DT_OCTET:
        value[0] = static_cast<uint8_t>(parseLong32(text));
        break;
    case DT_WORD: {
        const auto w = static_cast<uint16_t>(parseLong32(text));
        std::memcpy(value, &w, sizeof w);
        break;
    }
    case DT_DWORD: {
        const uint32_t d = parseUlong32(text);
        std::memcpy(value, &d, sizeof d);
        break;
    }
    case DT_STRING:
        decodeAmp(reinterpret_cast<char*>(value), sizeof value, text);
        break;
    case DT_OCTET_STRING:
        // The text's own bytes, not hexadecimal: up to its terminator, the
        // rest of the value zero.
        std::memcpy(value, text, strnlen(text, storage::kMaxRecordData));
        break;
    case DT_IPADDR: return writeAddress(i, rel, text);
    case DT_PASSWORD: return writePassword(id, i, rel, text);
    default:
        CM_LOG(log::kErr, kFn, "PID=%d. File '%s' config Data Item %d (rel %d). Unknown data type, value=%d. Skipping\n",
               getpid(), storage::pathOf(i), id, rel, e.ucDataType);
        return -1;
    }
    return storage::writeDataItem(i, rel, value, true);
}

}  // namespace cm::text
