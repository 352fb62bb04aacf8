// All defaults: every data file rebuilt from its default records.  While the
// files are rewritten a lock file holds back every process's watcher, so
// that no process diffs a half-written file.
#include <fcntl.h>
#include <unistd.h>

#include "catalogue/catalogue.h"
#include "defaults/load.h"
#include "log/log.h"
#include "platform/paths.h"
#include "platform/safe_open.h"
#include "storage/defaults.h"
#include "storage/open_map.h"

namespace cm::defaults {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr uint32_t kBannerWarning = 0x100104;
constexpr uint32_t kBannerNotice = 0x100105;

// Creates the lock file holding "Locked", replacing whatever entry is at
// its path: the lock file lies in a directory every user can write to, so
// an entry found there is never written through.  False when it cannot be
// created; nothing is then written.
bool createLockFile(const char* path) {
    constexpr const char* fn = "CM_LoadAllDefaults";
    const platform::OpenResult r = platform::replaceWithNew(path, O_WRONLY, 0644);
    if (r.refused())
        CM_LOG(log::kWarn, fn, "Lock file '%s' %s - replaced it\n", path, platform::faultText(r.fault));
    if (!r.ok()) return false;
    [[maybe_unused]] const ssize_t n = write(r.fd, "Locked", 6);
    close(r.fd);
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
