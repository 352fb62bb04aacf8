#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "inotify/event_parse.h"
#include "inotify/inotify_watch.h"
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

// The running thread and the self-pipe that wakes it out of its wait for
// events at shutdown.  Each start makes a new pipe, so that a thread never
// reads a wake-up meant for another (a forked child's, say); the pipe is
// closed once its thread has been joined.  g_stateMutex guards the fields;
// g_joinMutex lets one thread at a time join.
struct ThreadState {
    pthread_t handle{};
    bool joinable = false;
    int wake[2] = {-1, -1};
};
ThreadState g_state;
pthread_mutex_t g_stateMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_joinMutex = PTHREAD_MUTEX_INITIALIZER;

// How long a stop waits for a busy thread (a long callback, say) to end
// before it releases the files anyway, under their locks.
constexpr int kStopWaitSeconds = 10;

int wakeReadFd() {
    pthread_mutex_lock(&g_stateMutex);
    const int fd = g_state.wake[0];
    pthread_mutex_unlock(&g_stateMutex);
    return fd;
}

void closeWakePipe() {
    for (int& fd : g_state.wake) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
}

void drainWakePipe(int fd) {
    char buf[64];
    if (fd >= 0)
        while (read(fd, buf, sizeof buf) > 0) {
        }
}

// Waits for events (or a wake-up) and reads one buffer.  Returns the byte
// count, 0 when woken or when the wait (timeoutMs, -1 for none) ran out, or
// -1 with errno set.
ssize_t readEvents(int fd, int wakeFd, uint8_t* buf, int timeoutMs) {
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        const int n = poll(fds, wakeFd >= 0 ? 2 : 1, timeoutMs);
        if (process::killRequested()) return 0;
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) return 0;
        if (fds[1].revents & POLLIN) {
            drainWakePipe(wakeFd);
            continue;
        }
        const ssize_t got = read(fd, buf, inotify::kEventBufferSize);
        if (got < 0 && errno == EINTR) continue;
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

void runPass(int fd, int wakeFd) {
    static uint8_t buffer[inotify::kEventBufferSize];
    inotify::PassFlags flags{};
    // Files that set-up found deleted again before their watch was in place
    // are handled as deleted; the pass then only takes events already queued.
    bool recheck = false;
    for (int i = 0; i < kNumFiles; ++i)
        if (inotify::takeRecheck(i)) flags.deleted[i] = recheck = true;
    const ssize_t got = readEvents(fd, wakeFd, buffer, recheck ? 0 : -1);
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
    // The thread keeps its own reference to the inotify instance: shutdown
    // closes the shared descriptor, and its number may be reused at once.
    // dup() rather than F_DUPFD_CLOEXEC: user-mode emulators of other byte
    // orders convert inotify events only on descriptors copied this way.
    const int fd = dup(process::inotifyfd.load());
    if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
    const int wakeFd = wakeReadFd();
    while (fd >= 0 && !process::killRequested()) runPass(fd, wakeFd);
    if (fd >= 0) close(fd);
    process::s_bKillCM = 0;
    storage::releaseResources();
    CM_LOG_TAGGED(5, "CM thread terminated\n");
    return nullptr;
}

bool onWatchThread() {
    pthread_mutex_lock(&g_stateMutex);
    const bool self = g_state.joinable && pthread_equal(g_state.handle, pthread_self());
    pthread_mutex_unlock(&g_stateMutex);
    return self;
}

bool joinWatchThread(bool bounded) {
    // The thread itself (a callback that stops the library) cannot wait for
    // itself: it sees the kill flag when the callback returns.
    if (onWatchThread()) return false;
    pthread_mutex_lock(&g_joinMutex);
    pthread_mutex_lock(&g_stateMutex);
    const bool joinable = g_state.joinable;
    const pthread_t handle = g_state.handle;
    pthread_mutex_unlock(&g_stateMutex);
    bool joined = !joinable;
    if (joinable) {
        wakeWatchThread();
        if (bounded) {
            timespec until{};
            clock_gettime(CLOCK_REALTIME, &until);
            until.tv_sec += kStopWaitSeconds;
            joined = pthread_timedjoin_np(handle, nullptr, &until) == 0;
        } else {
            joined = pthread_join(handle, nullptr) == 0;
        }
        if (joined) {
            pthread_mutex_lock(&g_stateMutex);
            g_state.joinable = false;
            closeWakePipe();
            pthread_mutex_unlock(&g_stateMutex);
        }
    }
    pthread_mutex_unlock(&g_joinMutex);
    return joined;
}

void waitForStaleWatchThread() { joinWatchThread(false); }

int startWatchThread() {
    pthread_mutex_lock(&g_stateMutex);
    closeWakePipe();
    if (pipe2(g_state.wake, O_CLOEXEC | O_NONBLOCK) != 0) g_state.wake[0] = g_state.wake[1] = -1;
    const int rc = pthread_create(&g_state.handle, nullptr, readThread, nullptr);
    g_state.joinable = rc == 0;
    pthread_mutex_unlock(&g_stateMutex);
    return rc;
}

void wakeWatchThread() {
    pthread_mutex_lock(&g_stateMutex);
    if (g_state.wake[1] >= 0) {
        const char b = 1;
        [[maybe_unused]] ssize_t n = write(g_state.wake[1], &b, 1);
    }
    pthread_mutex_unlock(&g_stateMutex);
}

void forgetThreadAfterFork() {
    // Only the forking thread lives on in the child: the parent's watch
    // thread, its pipe and any lock another thread held are not the child's.
    pthread_mutex_init(&g_stateMutex, nullptr);
    pthread_mutex_init(&g_joinMutex, nullptr);
    g_state.joinable = false;
    closeWakePipe();
}

}  // namespace cm::watch
