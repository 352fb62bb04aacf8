// All defaults: every data file rebuilt from its default records.  While the
// files are rewritten a lock file holds back every process's watcher, so
// that no process diffs a half-written file.
#include <fcntl.h>
#include <unistd.h>

#include "catalogue/catalogue.h"
#include "defaults/load.h"
#include "log/log.h"
#include "platform/paths.h"
#include "storage/defaults.h"
#include "storage/open_map.h"

namespace cm::defaults {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr uint32_t kBannerWarning = 0x100104;
constexpr uint32_t kBannerNotice = 0x100105;

// Creates (truncates) the lock file holding "Locked".  False when it cannot
// be created; nothing is then written.
bool createLockFile(const char* path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    [[maybe_unused]] const ssize_t n = write(fd, "Locked", 6);
    close(fd);
    return true;
}

int rebuildFile(int i) {
    // A file this process has open keeps its descriptor (see openOrCreateFile).
    if (storage::openOrCreateFile(i) < 0) return -1;
    return storage::writeDefaultData(i, true, true);
}

}  // namespace

int loadAllDefaults() {
    constexpr const char* fn = "CM_LoadAllDefaults";
    CM_LOG_TAGGED(kBannerNotice,
                  "************ Writing all CM data files with defaults for all variables. ************\n");
    const char* lockPath = paths::defaultsLockFile();
    const bool locked = createLockFile(lockPath);
    if (!locked) CM_LOG(log::kWarn, fn, "Failed to create lock file '%s'\n", lockPath);

    int sum = 0;
    for (int i = 0; i < catalogue::kNumFiles; ++i) sum += rebuildFile(i);

    unlink(lockPath);
    if (sum == 0)
        CM_LOG_TAGGED(kBannerNotice, "Finished writing all CM data files with defaults for all variables\n");
    else
        CM_LOG_TAGGED(kBannerWarning,
                      "Finished writing all CM data files with defaults for all variables, but with errors during "
                      "processing\n");
    return sum;
}

}  // namespace cm::defaults
