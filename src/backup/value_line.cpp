#include "backup/value_line.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cstring>

#include "catalogue/lookup.h"
#include "configmanager/cm_types.h"
#include "configmanager/cm_values.h"
#include "log/log.h"
#include "platform/byte_order.h"
#include "storage/file_state.h"
#include "storage/record.h"
#include "values/ipaddr.h"

namespace cm::backup {
namespace {

constexpr std::size_t kMaxHexBytes = 256;  // octet data shown per variable, at most
constexpr std::size_t kAddrValueSize = 254;
constexpr int kAddrFormatSize = 54;

void writeHex(FILE* fp, const char* tag, const uint8_t* v, std::size_t n) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    if (n > kMaxHexBytes) n = kMaxHexBytes;
    if (n == 0) n = 1;
    char hex[2 * kMaxHexBytes + 1];
    for (std::size_t k = 0; k < n; ++k) {
        hex[2 * k] = kDigits[v[k] >> 4];
        hex[2 * k + 1] = kDigits[v[k] & 15];
    }
    hex[2 * n] = '\0';
    std::fprintf(fp, "%s : 0x%s\n", tag, hex);
}

void conversionError(const char* tag, const uint8_t* stored) {
    CM_LOG_TAGGED(log::kErr, "**ERROR: CM_BackupConfig_common: Unable to convert CM var %s [0x%lx 0x%lx 0x%lx 0x%lx 0x%lx]\n",
                  tag, static_cast<unsigned long>(platform::loadBe32(stored)),
                  static_cast<unsigned long>(platform::loadBe32(stored + 4)),
                  static_cast<unsigned long>(platform::loadBe32(stored + 8)),
                  static_cast<unsigned long>(platform::loadBe32(stored + 12)),
                  static_cast<unsigned long>(platform::loadBe32(stored + 16)));
}

// The address's text, "NULL" when none is stored or it cannot be shown, ""
// for a stored address without family.
void addressText(char (&value)[kAddrValueSize], const char* tag, const uint8_t* stored) {
    std::strcpy(value, "NULL");
    if (platform::loadBe16(stored) == 0) return;
    sockaddr_in6 sa{};
    if (values::cmAddrToSockaddr(reinterpret_cast<sockaddr*>(&sa), stored) != 0) {
        conversionError(tag, stored);
        return;
    }
    if (sa.sin6_family == 0) {
        value[0] = '\0';
        return;
    }
    char text[kAddrFormatSize] = "";
    if (CopyAddressToString(text, reinterpret_cast<sockaddr*>(&sa), kAddrFormatSize) < 0) {
        conversionError(tag, stored);
        return;
    }
    text[kAddrFormatSize - 1] = '\0';
    const int n = std::snprintf(value, sizeof value, "%s", text);
    if (n < 0 || n >= static_cast<int>(sizeof value) - 1) {
        std::strcpy(value, "NULL");
        conversionError(tag, stored);
    }
}

// A stored text is one line of the backup: each line feed or carriage
// return in it is written as a blank, so that no text can add a line that a
// restore would read as another variable.
void blankLineBreaks(const char* tag, char* text) {
    bool changed = false;
    for (char* p = text; (p = std::strpbrk(p, "\r\n")) != nullptr; ++p) {
        *p = ' ';
        changed = true;
    }
    if (changed)
        CM_LOG_TAGGED(log::kWarn, "CM_BackupConfig_common: CM var %s holds line breaks, written as blanks\n", tag);
}

}  // namespace

void writeValueLine(FILE* fp, int i, int rel, bool includeOctetData) {
    const auto& e = catalogue::entry(i, rel);
    const char* tag = e.szVarTag ? e.szVarTag : "";
    const uint8_t type = e.ucDataType;
    if (type > DT_PASSWORD) {
        CM_LOG_TAGGED(log::kErr,
                      "**ERROR: CM_BackupConfig_common, PID=%d. File '%s' config Data Item %d (rel %d). Unknown data "
                      "type, value=%d. Skipping\n",
                      getpid(), storage::pathOf(i), catalogue::absoluteId(i, rel), rel, type);
        return;
    }
    if ((type == DT_OCTET_STRING || type == DT_PASSWORD) && !includeOctetData) return;

    // One spare zero byte keeps a text that fills its record terminated.
    uint8_t v[storage::kMaxRecordData + 1] = {};
    if (e.wDataSize > storage::kMaxRecordData || storage::readDataItem(i, rel, v) != 0) {
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM_BackupConfig_common: Unable to read CM var %s\n", tag);
        return;
    }
    switch (type) {
    case DT_OCTET: std::fprintf(fp, "%s : %u\n", tag, static_cast<unsigned>(v[0])); break;
    case DT_WORD: {
        uint16_t w;
        std::memcpy(&w, v, sizeof w);
        std::fprintf(fp, "%s : %u\n", tag, static_cast<unsigned>(w));
        break;
    }
    case DT_DWORD: {
        uint32_t d;
        std::memcpy(&d, v, sizeof d);
        std::fprintf(fp, "%s : %lu\n", tag, static_cast<unsigned long>(d));
        break;
    }
    case DT_STRING: {
        char* text = reinterpret_cast<char*>(v);
        blankLineBreaks(tag, text);
        std::fprintf(fp, "%s : %s\n", tag, text[0] ? text : "NULL");
        break;
    }
    case DT_IPADDR: {
        char value[kAddrValueSize];
        addressText(value, tag, v);
        std::fprintf(fp, "%s : %s\n", tag, value);
        break;
    }
    default: writeHex(fp, tag, v, e.wDataSize); break;
    }
}

}  // namespace cm::backup
