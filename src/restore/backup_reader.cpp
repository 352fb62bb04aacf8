#include "restore/backup_reader.h"

#include <cstring>

namespace cm::restore {
namespace {

// Longer physical lines than this cannot hold a valid entry: only their
// start is kept.
constexpr std::size_t kLineMax = 2048;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

// One physical line without its line feed; false at the end of the file
// when nothing was read.  NUL bytes are kept.
bool readLine(FILE* fp, char* buf, std::size_t& len, bool& truncated) {
    len = 0;
    truncated = false;
    int c;
    bool any = false;
    while ((c = getc_unlocked(fp)) != EOF) {
        any = true;
        if (c == '\n') break;
        if (len < kLineMax)
            buf[len++] = static_cast<char>(c);
        else
            truncated = true;
    }
    return any;
}

// Copies [from, to) into out (capacity max + 1); false when it is longer.
bool copyField(char* out, const char* from, const char* to, std::size_t max) {
    std::size_t n = static_cast<std::size_t>(to - from);
    const bool fits = n <= max;
    if (!fits) n = max;
    std::memcpy(out, from, n);
    out[n] = '\0';
    return fits;
}

}  // namespace

bool BackupReader::next(BackupLine& out, bool firstLine) {
    char buf[kLineMax];
    std::size_t len;
    bool truncated;
    const char* p;
    const char* end;
    do {
        if (!readLine(fp_, buf, len, truncated)) return false;
        p = buf;
        end = buf + len;
        while (p < end && isSpace(*p)) ++p;
    } while (p == end);

    out.tag[0] = out.value[0] = '\0';
    out.malformed = truncated;
    const char* tagEnd = p;
    while (tagEnd < end && !isSpace(*tagEnd)) ++tagEnd;
    if (!copyField(out.tag, p, tagEnd, BackupLine::kTagMax)) out.malformed = true;

    p = tagEnd;
    while (p < end && isSpace(*p)) ++p;
    if (p == end || *p != ':') {
        out.malformed = true;
        return true;
    }
    ++p;
    while (p < end && isSpace(*p)) ++p;
    const char* valueEnd = p;
    if (firstLine) {
        while (valueEnd < end && !isSpace(*valueEnd)) ++valueEnd;
        copyField(out.value, p, valueEnd, BackupLine::kTagMax);
    } else {
        while (valueEnd < end && *valueEnd != '\r') ++valueEnd;
        if (!copyField(out.value, p, valueEnd, BackupLine::kValueMax)) out.malformed = true;
    }
    return true;
}

}  // namespace cm::restore
