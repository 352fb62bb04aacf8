// The restore's filter: tag prefixes whose variables a restore leaves alone.
//
// The filter file holds one name per line, read in pieces of at most 513
// characters.  A trailing line feed is removed and nothing else is trimmed
// (a carriage return stays part of the name); names shorter than two
// characters are ignored and at most 50 are kept.  A name matches every tag
// that begins with it.
#pragma once

#include <cstddef>

namespace cm::restore {

class Filter {
public:
    static constexpr int kMaxNames = 50;
    static constexpr std::size_t kLineSize = 514;

    Filter() = default;
    ~Filter();
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;

    // Reads the filter file; a file that cannot be opened leaves the filter
    // empty (logged, naming the backup that will be restored whole).
    void read(const char* filterPath, const char* backupPath);
    // The first name that `tag` begins with, or nullptr.
    const char* match(const char* tag) const;
    int size() const { return count_; }

private:
    char* names_[kMaxNames] = {};
    int count_ = 0;
};

}  // namespace cm::restore
