#include "record_walk.h"

#include <arpa/inet.h>

#include <cstring>

#include <configmanager/configmanager.h>

namespace cmctl {
namespace {

constexpr size_t kHeader = 4;

uint32_t be(const std::string& b, size_t at, size_t width) {
    uint32_t v = 0;
    for (size_t k = 0; k < width; ++k) v = v << 8 | static_cast<uint8_t>(b[at + k]);
    return v;
}

std::string hex(const std::string& b, size_t at, size_t n) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s = "0x";
    for (size_t k = 0; k < n; ++k) {
        const auto c = static_cast<uint8_t>(b[at + k]);
        s += digits[c >> 4];
        s += digits[c & 15];
    }
    return s;
}

// The stored form of a value (big-endian numbers, the five words of an
// address) as the text parseValue reads.
std::string textOf(const VarInfo& v, const std::string& b, size_t at) {
    switch (v.type) {
        case DT_OCTET: case DT_WORD: case DT_DWORD: return std::to_string(be(b, at, v.size));
        case DT_STRING: return std::string(b.data() + at, strnlen(b.data() + at, v.size));
        case DT_IPADDR: {
            const uint32_t family = be(b, at, 2);
            char text[INET6_ADDRSTRLEN] = "";
            if (family == 2) inet_ntop(AF_INET, b.data() + at + 4, text, sizeof text);
            else if (family == 10) inet_ntop(AF_INET6, b.data() + at + 4, text, sizeof text);
            return text;
        }
        default: return hex(b, at, v.size);  // octet strings, enciphered passwords
    }
}

struct FileVars {
    std::vector<const VarInfo*> byRel;
};

FileVars varsOf(int fileIndex) {
    FileVars f;
    for (const VarInfo& v : allVars())
        if (v.fileIndex == fileIndex) f.byRel.push_back(&v);  // catalogue order is relative-ID order
    return f;
}

// A record header at `at` that the catalogue agrees with.
const VarInfo* headerAt(const FileVars& f, const std::string& b, size_t at) {
    if (at + kHeader > b.size()) return nullptr;
    const uint32_t rel = be(b, at, 2), len = be(b, at + 2, 2);
    if (rel >= f.byRel.size() || f.byRel[rel]->size != len || at + kHeader + len > b.size()) return nullptr;
    return f.byRel[rel];
}

// Sound enough to re-synchronise on: followed by another good header or by
// the end of the file.
bool anchorAt(const FileVars& f, const std::string& b, size_t at) {
    const VarInfo* v = headerAt(f, b, at);
    if (v == nullptr) return false;
    const size_t next = at + kHeader + v->size;
    return next == b.size() || headerAt(f, b, next) != nullptr;
}

}  // namespace

WalkResult walkRecords(int fileIndex, const std::string& bytes) {
    const FileVars f = varsOf(fileIndex);
    WalkResult r;
    std::vector<bool> seen(f.byRel.size(), false);
    size_t at = kHeader;
    while (at + kHeader <= bytes.size()) {
        const VarInfo* v = headerAt(f, bytes, at);
        if (v == nullptr) {
            ++r.badStretches;
            do ++at; while (at + kHeader <= bytes.size() && !anchorAt(f, bytes, at));
            continue;
        }
        if (!seen[v->relId]) {
            seen[v->relId] = true;
            r.values.push_back({v, static_cast<uint32_t>(at), textOf(*v, bytes, at + kHeader)});
        }
        at += kHeader + v->size;
    }
    return r;
}

}  // namespace cmctl
