#include "value_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>

#include <configmanager/configmanager.h>
#include <configmanager/cm_tools.h>

#include "context.h"

namespace cmctl {
namespace {

// Longest plain password: its enciphered form must fit the 128 bytes of the record.
constexpr size_t kMaxPassword = 127;

uint32_t numberOf(const VarInfo& v, const ValueBuffer& b) {
    switch (v.type) {
        case DT_OCTET: return b.bytes[0];
        case DT_WORD: { uint16_t w; std::memcpy(&w, b.data(), 2); return w; }
        default: { uint32_t d; std::memcpy(&d, b.data(), 4); return d; }
    }
}

std::string hex(const uint8_t* p, size_t n) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s = "0x";
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

std::string addressText(const ValueBuffer& b) {
    sockaddr_storage sa{};
    std::memcpy(&sa, b.data(), sizeof(sockaddr_in6));
    char text[INET6_ADDRSTRLEN] = "";
    if (sa.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(sa).sin_addr, text, sizeof text);
    else if (sa.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(sa).sin6_addr, text, sizeof text);
    return text;
}

uint32_t defaultNumber(const VarInfo& v) {
    ValueBuffer b;
    CM_GetDataItemDefaultValue(v.id, b.data());
    return numberOf(v, b);
}

[[noreturn]] void refuse(const VarInfo& v, const std::string& why) { throw Failure(v.name + ": " + why); }

uint32_t parseNumber(const VarInfo& v, const std::string& text) {
    static const uint32_t typeMax[] = {0xFF, 0xFFFF, 0xFFFFFFFF};
    const char* s = text.c_str();
    if (text.empty() || !(std::isdigit(static_cast<unsigned char>(s[0]))))
        refuse(v, "not a number: '" + text + "'");
    errno = 0;
    char* end = nullptr;
    const unsigned long long n = std::strtoull(s, &end, text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 16 : 10);
    if (*end != '\0') refuse(v, "not a number: '" + text + "'");
    if (errno == ERANGE || n > typeMax[v.type]) refuse(v, text + " does not fit in a " + typeName(v.type));
    // The catalogue gives some variables a default outside their bounds;
    // that value is always accepted, so that every default can be written.
    if ((n < v.min || n > v.max) && n != defaultNumber(v))
        refuse(v, text + " is out of range " + std::to_string(v.min) + ".." + std::to_string(v.max));
    return static_cast<uint32_t>(n);
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool decodeHex(const char* digits, uint8_t* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const int hi = hexDigit(digits[2 * i]), lo = hi < 0 ? -1 : hexDigit(digits[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

enum class Family { Any, V4, V6 };

// A name that says which family it holds gets no other.
Family familyOf(const VarInfo& v) {
    if (v.name.find("IP4") != std::string::npos) return Family::V4;
    if (v.name.find("IP6") != std::string::npos) return Family::V6;
    return Family::Any;
}

constexpr int32_t kMac1Address = 224;

// "CMF_NetworkData is damaged: run cmctl check", or "" for a good file.
std::string fileProblem(int fileIndex) {
    CM_FileInfo f{};
    CM_FileCheck c{};
    if (CM_Ext_GetFileInfo(fileIndex, &f) != 0 || CM_Ext_CheckFile(fileIndex, &c, nullptr, 0) != 0 || c.dwFaults == 0)
        return "";
    const char* base = std::strrchr(f.szPath, '/');
    const std::string name = base ? base + 1 : f.szPath;
    if (c.dwFaults & CM_FILE_MISSING) return name + " is missing: run cmctl check";
    if (c.dwFaults & CM_FILE_UNREADABLE) return name + " cannot be read";
    return name + " is damaged: run cmctl check";
}

}  // namespace

bool isStoredPassword(const VarInfo& v, const std::string& text) {
    uint8_t scratch[256];
    return v.type == DT_PASSWORD && text.size() == 2 + 2 * v.size && text.rfind("0x", 0) == 0 &&
           v.size <= sizeof scratch && decodeHex(text.c_str() + 2, scratch, v.size);
}

std::string formatValue(const VarInfo& v, const ValueBuffer& b, PasswordForm pw) {
    switch (v.type) {
        case DT_OCTET:
        case DT_WORD:
        case DT_DWORD: return std::to_string(numberOf(v, b));
        case DT_STRING: return std::string(reinterpret_cast<const char*>(b.data()), strnlen(reinterpret_cast<const char*>(b.data()), v.size));
        case DT_OCTET_STRING: return hex(b.bytes.data(), std::min<size_t>(v.size, 256));
        case DT_IPADDR: return addressText(b);
        case DT_PASSWORD:
            if (pw == PasswordForm::Stored) return hex(b.bytes.data(), v.size);
            return (b.bytes[0] | b.bytes[1]) == 0 ? "" : kPasswordMask;
        default: return "";
    }
}

ValueBuffer parseValue(const VarInfo& v, const std::string& text) {
    ValueBuffer b;
    switch (v.type) {
        case DT_OCTET: b.bytes[0] = static_cast<uint8_t>(parseNumber(v, text)); break;
        case DT_WORD: { const uint16_t w = static_cast<uint16_t>(parseNumber(v, text)); std::memcpy(b.data(), &w, 2); break; }
        case DT_DWORD: { const uint32_t d = parseNumber(v, text); std::memcpy(b.data(), &d, 4); break; }
        case DT_STRING:
            if (text.size() > v.max) refuse(v, "text longer than " + std::to_string(v.max) + " characters");
            if (text.find('\0') != std::string::npos) refuse(v, "text holds a zero byte");
            std::memcpy(b.data(), text.data(), text.size());
            break;
        case DT_OCTET_STRING: {
            // Full length, so that no byte is kept from before without the
            // writer seeing it.
            const size_t n = std::min<size_t>(v.size, 256);
            if (text.size() != 2 + 2 * n || text.rfind("0x", 0) != 0)
                refuse(v, "expected 0x and " + std::to_string(2 * n) + " hexadecimal digits (" + std::to_string(n) +
                              " bytes), not '" + text + "'");
            if (!decodeHex(text.c_str() + 2, b.bytes.data(), n)) refuse(v, "not hexadecimal: '" + text + "'");
            // The set path keeps only the six address bytes of the first MAC.
            if (v.id == kMac1Address && (b.bytes[6] | b.bytes[7]) != 0)
                refuse(v, "only the first 6 bytes are kept: the last 2 must be 00");
            break;
        }
        case DT_IPADDR: {
            // An empty text stores "no address".
            if (text.empty()) break;
            const Family want = familyOf(v);
            sockaddr_in in{};
            sockaddr_in6 in6{};
            if (want != Family::V6 && inet_pton(AF_INET, text.c_str(), &in.sin_addr) == 1) {
                in.sin_family = AF_INET;
                std::memcpy(b.data(), &in, sizeof in);
            } else if (want != Family::V4 && inet_pton(AF_INET6, text.c_str(), &in6.sin6_addr) == 1) {
                in6.sin6_family = AF_INET6;
                std::memcpy(b.data(), &in6, sizeof in6);
            } else {
                refuse(v, std::string("not an ") +
                              (want == Family::V4 ? "IPv4" : want == Family::V6 ? "IPv6" : "IPv4 or IPv6") +
                              " address: '" + text + "'");
            }
            break;
        }
        case DT_PASSWORD:
            if (isStoredPassword(v, text)) {
                decodeHex(text.c_str() + 2, b.bytes.data(), v.size);
                break;
            }
            if (text.size() > kMaxPassword) refuse(v, "password longer than " + std::to_string(kMaxPassword) + " characters");
            if (text.find('\0') != std::string::npos) refuse(v, "password holds a zero byte");
            std::memcpy(b.data(), text.data(), text.size());
            break;
        default: refuse(v, "variable of an unknown type");
    }
    return b;
}

ValueBuffer readValue(const VarInfo& v) {
    ValueBuffer b;
    const int rc = CM_Get_Variable(v.id, b.data());
    if (rc != 0) {
        const std::string why = fileProblem(v.fileIndex);
        throw Failure(v.name + ": " + (why.empty() ? "cannot read the value (result " + std::to_string(rc) + ")" : why));
    }
    return b;
}

ValueBuffer readDefault(const VarInfo& v) {
    ValueBuffer b;
    if (CM_GetDataItemDefaultValue(v.id, b.data()) != 0) throw Failure(v.name + ": no default value");
    // The default of an address is "no address" in its stored form (all
    // zero), which is also an empty socket address.
    return b;
}

}  // namespace cmctl
