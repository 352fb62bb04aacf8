#include "restore/filter.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/syslog_direct.h"

namespace cm::restore {

Filter::~Filter() {
    for (int k = 0; k < count_; ++k) std::free(names_[k]);
}

void Filter::read(const char* filterPath, const char* backupPath) {
    FILE* fp = std::fopen(filterPath, "re");
    if (fp == nullptr) {
        log::syslogDirect(4, "Failed to open filter file '%s' for reading, all CM vars in '%s' will be restored.\n",
                          filterPath, backupPath);
        return;
    }
    char line[kLineSize];
    int position = 0;
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        std::size_t len = std::strlen(line);
        if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
        if (len < 2) continue;
        if (count_ == kMaxNames) {
            log::syslogDirect(4, "Filter file '%s' contains more than %d names, '%s' onwards ignored.\n", filterPath,
                              kMaxNames, line);
            break;
        }
        ++position;
        char* copy = strdup(line);
        if (copy == nullptr) {
            log::syslogDirect(3, "strdup('%s') failed for filter file '%s' entry # %d\n", line, filterPath, position);
            continue;
        }
        names_[count_++] = copy;
    }
    if (std::ferror(fp))
        log::syslogDirect(4, "Error detected during reading of filter file '%s', %d entries were read.\n", filterPath,
                          count_);
    std::fclose(fp);
}

const char* Filter::match(const char* tag) const {
    for (int k = 0; k < count_; ++k)
        if (std::strncmp(tag, names_[k], std::strlen(names_[k])) == 0) return names_[k];
    return nullptr;
}

}  // namespace cm::restore
