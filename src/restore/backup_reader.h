// Reads the lines of a backup text: "TAG : VALUE".
//
// A tag is a run of up to 80 characters without white space; the separator
// is a colon with optional white space around it; the value runs to the end
// of the line or to a carriage return, at most 512 characters.  Lines of
// white space only are skipped.  Each line is read on its own: a line with
// no separator, an overlong tag or an overlong value is flagged malformed,
// never completed from the next line, and nothing it holds is reused.
#pragma once

#include <cstddef>
#include <cstdio>

namespace cm::restore {

struct BackupLine {
    static constexpr std::size_t kTagMax = 80;
    static constexpr std::size_t kValueMax = 512;
    char tag[kTagMax + 1];
    // Also the buffer the restore reads a value back into (512 bytes at least).
    char value[kValueMax + 1];
    bool malformed;
};

class BackupReader {
public:
    explicit BackupReader(FILE* fp) : fp_(fp) {}
    // The next line that is not blank; false at the end of the file.  The
    // first line's value is only the first word after the separator.
    bool next(BackupLine& out, bool firstLine = false);

private:
    FILE* fp_;
};

}  // namespace cm::restore
