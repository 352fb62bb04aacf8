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

// Self-pipe that wakes the thread out of its wait for events at shutdown.
int g_wakePipe[2] = {-1, -1};
pthread_once_t g_wakeOnce = PTHREAD_ONCE_INIT;
pthread_t g_thread;
std::atomic<bool> g_threadJoinable{false};

void makeWakePipe() {
    if (pipe2(g_wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) g_wakePipe[0] = g_wakePipe[1] = -1;
}

void drainWakePipe() {
    char buf[64];
    if (g_wakePipe[0] >= 0)
        while (read(g_wakePipe[0], buf, sizeof buf) > 0) {
        }
}

// Waits for events (or a wake-up) and reads one buffer.  Returns the byte
// count, 0 when woken, or -1 with errno set.
ssize_t readEvents(int fd, uint8_t* buf) {
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {g_wakePipe[0], POLLIN, 0}};
        const int n = poll(fds, g_wakePipe[0] >= 0 ? 2 : 1, -1);
        if (process::killRequested()) return 0;
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (fds[1].revents & POLLIN) {
            drainWakePipe();
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
    // The thread keeps its own reference to the inotify instance: shutdown
    // closes the shared descriptor, and its number may be reused at once.
    // dup() rather than F_DUPFD_CLOEXEC: user-mode emulators of other byte
    // orders convert inotify events only on descriptors copied this way.
    const int fd = dup(process::inotifyfd.load());
    if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
    while (fd >= 0 && !process::killRequested()) runPass(fd);
    if (fd >= 0) close(fd);
    process::s_bKillCM = 0;
    storage::releaseResources();
    CM_LOG_TAGGED(5, "CM thread terminated\n");
    return nullptr;
}

void waitForStaleWatchThread() {
    pthread_once(&g_wakeOnce, makeWakePipe);
    if (g_threadJoinable.exchange(false) && !pthread_equal(g_thread, pthread_self())) {
        wakeWatchThread();
        pthread_join(g_thread, nullptr);
    }
    drainWakePipe();
}

int startWatchThread() {
    pthread_once(&g_wakeOnce, makeWakePipe);
    const int rc = pthread_create(&g_thread, nullptr, readThread, nullptr);
    if (rc == 0) g_threadJoinable = true;
    return rc;
}

void wakeWatchThread() {
    if (g_wakePipe[1] >= 0) {
        const char b = 1;
        [[maybe_unused]] ssize_t n = write(g_wakePipe[1], &b, 1);
    }
}

}  // namespace cm::watch
