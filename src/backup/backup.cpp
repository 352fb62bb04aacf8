#include "backup/backup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "backup/value_line.h"
#include "catalogue/catalogue.h"
#include "configmanager/cm_vars.h"
#include "log/log.h"
#include "log/syslog_direct.h"
#include "platform/safe_open.h"
#include "tags/software_version.h"

namespace cm::backup {
namespace {

constexpr int kVolatileFile = 0;

// The version must be one word for the restore's first-line reader.
const char* versionWord(const char* v) {
    return v[0] == '\0' || std::strpbrk(v, " \t\n\r") != nullptr ? "0.000.0.0" : v;
}

// The backup holds enciphered passwords and clear-text secrets: it is made
// readable by its owner only, whatever the umask, and created exclusively,
// so an entry that reappears at the path after the deletion (a link planted
// by another user) fails the backup instead of being written through.
FILE* createPrivate(const char* path) {
    const platform::OpenResult r = platform::createExclusive(path, O_WRONLY, 0600);
    if (!r.ok()) return nullptr;
    FILE* fp = fdopen(r.fd, "w");
    if (fp == nullptr) close(r.fd);
    return fp;
}

}  // namespace

int backupConfig(const char* path, bool includeVolatile, bool includeOctetData) {
    if (path == nullptr) return -1;
    std::remove(path);
    FILE* fp = createPrivate(path);
    if (fp == nullptr) {
        log::syslogDirect(3, "Unable to open %s for Writing\n", path);
        return -1;
    }
    char version[tags::kVersionBuf];
    if (tags::readSoftwareVersion(version) != 0) {
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM_BackupConfig_common: Unable to read CM var %s\n", "SOFTWARE_VERSION");
        std::fclose(fp);
        return -1;
    }
    CM_LOG_TAGGED(log::kInfo, "CM_BackupConfig_common: Get SOFTWARE_VERSION success, value is: %s\n", version);
    std::fprintf(fp, "SOFTWARE_VERSION : %s\n", versionWord(version));

    for (int f = includeVolatile ? kVolatileFile : kVolatileFile + 1; f < catalogue::kNumFiles; ++f) {
        const auto& file = catalogue::sConfigItemList[f];
        for (int rel = 0; rel < file.iNumItems; ++rel) {
            if (file.iFirstVarID + rel == SOFTWARE_VERSION) continue;  // it is line 1
            writeValueLine(fp, f, rel, includeOctetData);
        }
    }
    // A write, flush or sync that failed (a full disk) leaves a cut file that
    // would look complete: it is removed and the backup fails.
    const bool written = !std::ferror(fp) && std::fflush(fp) == 0 &&
                         (fsync(fileno(fp)) == 0 || errno == EINVAL);  // EINVAL: cannot be synced
    if (std::fclose(fp) != 0 || !written) {
        log::syslogDirect(3, "Unable to write %s completely, removed it\n", path);
        std::remove(path);
        return -1;
    }
    return 0;
}

}  // namespace cm::backup
