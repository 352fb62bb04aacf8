#include <fcntl.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "inotify/event_parse.h"
#include "log/log.h"
#include "platform/env.h"
#include "platform/paths.h"
#include "process/state.h"
#include "storage/file_state.h"
#include "storage/release.h"
#include "watch/file_change.h"
#include "watch/watch_thread.h"

namespace cm::watch {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr int kLockFileChecks = 100;

using storage::kNumFiles;

// The thread's own descriptor of the inotify instance (shutdown closes the
// shared one, and its number may be reused at once).  Guarded by g_fdMutex,
// so that a wake-up never uses a descriptor the thread has closed.
std::mutex g_fdMutex;
int g_threadFd = -1;
pthread_t g_thread;
std::atomic<bool> g_threadJoinable{false};

// Blocks for one buffer of events: a plain read, so that a pass costs no
// extra system call.  wakeWatchThread() ends the wait with an event of its
// own.  Returns the byte count, or -1 with errno set.
ssize_t readEvents(int fd, uint8_t* buf) {
    for (;;) {
        const ssize_t got = read(fd, buf, inotify::kEventBufferSize);
        if (got < 0 && errno == EINTR && !process::killRequested()) continue;
        return got;
    }
}

// Waits while another process loads all defaults; removes a lock file that
// outlives 99 pauses of 100 ms, since its owner has evidently died.
void waitForDefaultsLock() {
    constexpr const char* fn = "CM_ReadThread";
    const char* lockPath = paths::defaultsLockFile();
    int count = kLockFileChecks;
    while (access(lockPath, F_OK) == 0 && !process::killRequested()) {
        CM_LOG(log::kInfo, fn, "Lock file exists, iLockCount=%d\n", count);
        if (--count == 0) {
            CM_LOG(log::kErr, fn, "Timeout waiting for another process to delete lock file '%s' - deleted it\n", lockPath);
            unlink(lockPath);
            break;
        }
        platform::sleepMs(100);
    }
}

void runPass(int fd) {
    static uint8_t buffer[inotify::kEventBufferSize];
    inotify::PassFlags flags{};
    const ssize_t got = readEvents(fd, buffer);
    if (got < 0) {
        if (process::killRequested()) return;
        const int e = errno;
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM_ReadThread, PID=%d. inotify read failed, errno=%d '%s', try again...\n",
                      getpid(), e, std::strerror(e));
        platform::sleepSeconds(1);
    } else if (got > 0) {
        inotify::parseEvents(buffer, static_cast<size_t>(got), flags);
    }
    if (process::killRequested()) return;
    waitForDefaultsLock();
    for (int i = 0; i < kNumFiles && !process::killRequested(); ++i) {
        if (flags.deleted[i])
            handleDeletedFile(i);
        else if (flags.modified[i])
            handleModifiedFile(i);
    }
}

}  // namespace

void* readThread(void*) {
    CM_LOG_TAGGED(293, "Started pthread PID=%d:%d running ConfigManager CM_ReadThread()\n", getpid(), platform::tid());
    int fd;
    {
        std::lock_guard<std::mutex> g(g_fdMutex);
        fd = g_threadFd;
    }
    while (fd >= 0 && !process::killRequested()) runPass(fd);
    {
        std::lock_guard<std::mutex> g(g_fdMutex);
        if (g_threadFd >= 0) close(g_threadFd);
        g_threadFd = -1;
    }
    process::s_bKillCM = 0;
    storage::releaseResources();
    CM_LOG_TAGGED(5, "CM thread terminated\n");
    return nullptr;
}

void waitForStaleWatchThread() {
    if (g_threadJoinable.exchange(false) && !pthread_equal(g_thread, pthread_self())) {
        wakeWatchThread();
        pthread_join(g_thread, nullptr);
    }
}

int startWatchThread() {
    {
        // dup() rather than F_DUPFD_CLOEXEC: user-mode emulators of other
        // byte orders convert inotify events only on descriptors copied so.
        std::lock_guard<std::mutex> g(g_fdMutex);
        g_threadFd = dup(process::inotifyfd.load());
        if (g_threadFd >= 0) fcntl(g_threadFd, F_SETFD, FD_CLOEXEC);
    }
    const int rc = pthread_create(&g_thread, nullptr, readThread, nullptr);
    if (rc == 0) g_threadJoinable = true;
    return rc;
}

void wakeWatchThread() {
    // Adding a watch and removing it at once queues an IN_IGNORED event on
    // the instance, which ends the thread's read; the thread then sees the
    // kill flag before it looks at the event.  The watch goes on a directory
    // (the root of the device tree, else "/"), never on a data file, so it
    // cannot be one of the files' own watches.
    std::lock_guard<std::mutex> g(g_fdMutex);
    if (g_threadFd < 0) return;
    int wd = inotify_add_watch(g_threadFd, paths::root(), IN_DELETE_SELF | IN_ONLYDIR);
    if (wd < 0) wd = inotify_add_watch(g_threadFd, "/", IN_DELETE_SELF | IN_ONLYDIR);
    if (wd >= 0) inotify_rm_watch(g_threadFd, wd);
}

}  // namespace cm::watch
