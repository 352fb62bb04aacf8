#include "value_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <configmanager/configmanager.h>

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
    if (n < v.min || n > v.max)
        refuse(v, text + " is out of range " + std::to_string(v.min) + ".." + std::to_string(v.max));
    return static_cast<uint32_t>(n);
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

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
            const std::string digits = text.rfind("0x", 0) == 0 ? text.substr(2) : text;
            if (text.rfind("0x", 0) != 0 || digits.size() % 2 != 0)
                refuse(v, "expected 0x and pairs of hexadecimal digits, up to " + std::to_string(v.size) + " bytes");
            if (digits.size() / 2 > v.size) refuse(v, "longer than " + std::to_string(v.size) + " bytes");
            for (size_t i = 0; i < digits.size(); i += 2) {
                const int hi = hexDigit(digits[i]), lo = hexDigit(digits[i + 1]);
                if (hi < 0 || lo < 0) refuse(v, "not hexadecimal: '" + text + "'");
                b.bytes[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
            }
            break;
        }
        case DT_IPADDR: {
            // An empty text stores "no address".
            if (text.empty()) break;
            sockaddr_in in{};
            sockaddr_in6 in6{};
            if (inet_pton(AF_INET, text.c_str(), &in.sin_addr) == 1) {
                in.sin_family = AF_INET;
                std::memcpy(b.data(), &in, sizeof in);
            } else if (inet_pton(AF_INET6, text.c_str(), &in6.sin6_addr) == 1) {
                in6.sin6_family = AF_INET6;
                std::memcpy(b.data(), &in6, sizeof in6);
            } else {
                refuse(v, "not an IPv4 or IPv6 address: '" + text + "'");
            }
            break;
        }
        case DT_PASSWORD:
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
    if (rc != 0) throw Failure(v.name + ": cannot read the value (result " + std::to_string(rc) + ")");
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
