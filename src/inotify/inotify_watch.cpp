#include "inotify/inotify_watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log/log.h"
#include "process/state.h"
#include "storage/file_state.h"

namespace cm::inotify {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
using namespace storage;

std::atomic<bool> g_recheck[kNumFiles];
// Watches taken back by set-up whose IN_IGNORED event is still to come.
std::atomic<unsigned> g_dropped{0};

// The checks shared by adding and removing a watch.
bool checkWatchable(int i, const char* fn, bool forAdd) {
    if (!checkOpen(i, fn)) return false;
    if (process::inotifyfd.load() < 0) {
        CM_LOG(log::kErr, fn, "inotifyfd uninitialised for file no. %d\n", i);
        return false;
    }
    if (forAdd && inotifywd[i] >= 0) {
        CM_LOG(log::kErr, fn, "inotifywd[%d](=%d) already assigned\n", i, inotifywd[i].load());
        return false;
    }
    return true;
}

// Adds the watch itself.  0, or -1.
int addWatch(int i) {
    if (!checkWatchable(i, "CM_AddInotifyWatch", true)) return -1;
    const int wd = inotify_add_watch(process::inotifyfd.load(), pathOf(i), kWatchMask);
    if (wd < 0) {
        const int e = errno;
        // Gone again before the watch was in place.
        if (e == ENOENT) markForRecheck(i);
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM_AddInotifyWatch, PID=%d. Failed to add '%s' to inotify_add_watch, errno=%d '%s'\n",
                      getpid(), pathOf(i), e, std::strerror(e));
        return -1;
    }
    inotifywd[i] = wd;
    CM_LOG_TAGGED(log::kDebug, "CM_AddInotifyWatch, PID=%d. Added '%s' to inotify list. inotifywd[] is %d\n", getpid(),
                  pathOf(i), wd);
    return 0;
}

}  // namespace

int addInotifyWatch(int i) { return addInotifyWatch(i, nullptr); }

int addInotifyWatch(int i, const struct stat* openFile) {
    if (addWatch(i) != 0) return -1;
    if (openFile != nullptr ? pathNamesAnotherFile(i, *openFile) : pathNamesAnotherFile(i)) markForRecheck(i);
    return 0;
}

bool addInotifyWatchNamed(int i, dev_t dev, ino_t ino, struct stat* named) {
    if (addWatch(i) != 0) return false;
    if (stat(pathOf(i), named) == 0 && named->st_ino == ino && named->st_dev == dev) return true;
    markForRecheck(i);
    return false;
}

bool setModifyEvents(int i, bool on) {
    const int ifd = process::inotifyfd.load(), wd = inotifywd[i].load(), fd = fdRead[i].load();
    if (ifd < 0 || wd < 0 || fd < 0) return false;
    // The open file is named through this process's own descriptor table,
    // so that the kernel changes the mask of the watch on that very inode,
    // whatever its path names by now.
    char self[32];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
    const int got = inotify_add_watch(ifd, self, on ? kWatchMask : kWatchMask & ~IN_MODIFY);
    if (got == wd) return true;
    // The file's watch was gone already (its IN_IGNORED event is on its
    // way): the one just made is taken back, unreported.
    if (got >= 0 && inotify_rm_watch(ifd, got) == 0) g_dropped.fetch_add(1);
    // Events that cannot be turned back on are not lost for good: the file
    // is set up again, with a new watch, at the next pass.
    if (on) markForRecheck(i);
    return false;
}

void dropInotifyWatch(int i) {
    const int wd = inotifywd[i].exchange(-1);
    const int fd = process::inotifyfd.load();
    if (wd >= 0 && fd >= 0 && inotify_rm_watch(fd, wd) == 0) g_dropped.fetch_add(1);
}

bool takeDroppedWatch() {
    unsigned n = g_dropped.load();
    while (n > 0 && !g_dropped.compare_exchange_weak(n, n - 1)) {
    }
    return n > 0;
}

int removeInotifyWatch(int i) {
    int rc = -1;
    if (checkWatchable(i, "CM_RemoveInotifyWatch", false)) {
        const int was = inotifywd[i];
        if (inotify_rm_watch(process::inotifyfd.load(), was) != 0) {
            const int e = errno;
            CM_LOG_TAGGED(log::kErr, "**ERROR: CM_RemoveInotifyWatch, PID=%d. Failed to remove '%s' from inotify list, errno=%d '%s'\n",
                          getpid(), pathOf(i), e, std::strerror(e));
        } else {
            CM_LOG_TAGGED(log::kDebug, "CM_RemoveInotifyWatch, PID=%d. Removed '%s' from inotify list. inotifywd[] was %d\n",
                          getpid(), pathOf(i), was);
            rc = 0;
        }
    }
    if (i >= 0 && i < kNumFiles) inotifywd[i] = -1;
    return rc;
}

bool pathNamesAnotherFile(int i, const struct stat& open) {
    struct stat named{};
    if (open.st_nlink == 0 || stat(pathOf(i), &named) != 0) return true;
    return open.st_ino != named.st_ino || open.st_dev != named.st_dev;
}

bool pathNamesAnotherFile(int i) {
    struct stat open{};
    const int fd = fdRead[i];
    if (fd < 0 || fstat(fd, &open) != 0) return false;
    return pathNamesAnotherFile(i, open);
}

void markForRecheck(int i) { g_recheck[i] = true; }
bool takeRecheck(int i) { return g_recheck[i].exchange(false); }
bool anyRecheck() {
    for (const auto& r : g_recheck)
        if (r.load()) return true;
    return false;
}

}  // namespace cm::inotify
