#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
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
#include "platform/safe_open.h"
#include "process/state.h"
#include "storage/file_state.h"
#include "storage/held_file.h"
#include "storage/own_write.h"
#include "storage/release.h"
#include "storage/unlocked_look.h"
#include "watch/file_change.h"
#include "watch/watch_thread.h"

namespace cm::watch {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr int kLockFileChecks = 100;
constexpr int kOwnWriteYields = 10;

using storage::kNumFiles;

// The running thread and its own descriptor of the inotify instance
// (shutdown closes the shared one, and its number may be reused at once).
// The descriptor belongs to this state, not to the thread: a wake-up uses
// it, so it is closed only once its thread has been joined, and each start
// makes a new one, so that a thread never reads a wake-up meant for
// another.  g_stateMutex guards the fields; g_joinMutex lets one thread at a
// time join.
struct ThreadState {
    pthread_t handle{};
    bool joinable = false;
    int events = -1;
    void (*firstAct)() = nullptr;
};
ThreadState g_state;
pthread_mutex_t g_stateMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_joinMutex = PTHREAD_MUTEX_INITIALIZER;
// Wake-ups sent whose removal events the thread has not read yet.
std::atomic<unsigned> g_wakeUps{0};

// How long a stop waits for a busy thread (a long callback, say) to end
// before it releases the files anyway, under their locks.
constexpr int kStopWaitSeconds = 10;

int eventsFd() {
    pthread_mutex_lock(&g_stateMutex);
    const int fd = g_state.events;
    pthread_mutex_unlock(&g_stateMutex);
    return fd;
}

void closeEventsFd() {
    if (g_state.events >= 0) close(g_state.events);
    g_state.events = -1;
}

// A close-on-exec copy of the instance's descriptor, never inheritable even
// for a moment.  Not F_DUPFD_CLOEXEC: user-mode emulators of other byte
// orders convert inotify events only on descriptors copied by the dup
// calls.  dup3() is one of them; it needs a target number, so a descriptor
// of our own, close-on-exec from its birth (a spare instance: no file needs
// to exist for it), is made and then replaced.
int dupCloseOnExec(int fd) {
    if (fd < 0) return -1;
    const int slot = inotify_init1(IN_CLOEXEC);
    if (slot < 0) return -1;
    if (dup3(fd, slot, O_CLOEXEC) < 0) {
        close(slot);
        return -1;
    }
    return slot;
}

// Reads one buffer of events: a plain blocking read, so that a pass costs
// no extra system call (wakeWatchThread() ends the wait with an event of its
// own).  With `queuedOnly`, takes only events already queued, if any.
// Returns the byte count, 0 when nothing was queued, or -1 with errno set.
ssize_t readEvents(int fd, uint8_t* buf, bool queuedOnly) {
    if (queuedOnly) {
        int queued = 0;
        if (ioctl(fd, FIONREAD, &queued) != 0 || queued <= 0) return 0;
    }
    for (;;) {
        const ssize_t got = read(fd, buf, inotify::kEventBufferSize);
        if (got < 0 && errno == EINTR && !process::killRequested()) continue;
        return got;
    }
}

// True while a lock file made by the library is in place.  Other users can
// write to the lock file's directory, so an entry that is not a sound file
// of root's (or of this user's) is not honoured: nobody else can hold back
// the watchers.
bool defaultsLockHeld(const char* lockPath) {
    platform::EntryFault fault{};
    return platform::inspectEntry(lockPath, &fault) && fault == platform::EntryFault::kNone;
}

// Waits while another process loads all defaults; removes a lock file that
// outlives 99 pauses of 100 ms, since its owner has evidently died.
void waitForDefaultsLock() {
    constexpr const char* fn = "CM_ReadThread";
    const char* lockPath = paths::defaultsLockFile();
    int count = kLockFileChecks;
    while (defaultsLockHeld(lockPath) && !process::killRequested()) {
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
    // Files that set-up found deleted again before their watch was in place
    // are handled as deleted, and files whose last diff waited with their
    // modify events off as modified; the pass then only takes events
    // already queued.
    bool queuedOnly = false;
    for (int i = 0; i < kNumFiles; ++i) {
        if (inotify::takeRecheck(i)) flags.deleted[i] = queuedOnly = true;
        if (takePassAgain(i)) flags.modified[i] = queuedOnly = true;
    }
    const ssize_t got = readEvents(fd, buffer, queuedOnly);
    if (got < 0) {
        if (process::killRequested()) return;
        const int e = errno;
        CM_LOG_TAGGED(log::kErr, "**ERROR: CM_ReadThread, PID=%d. inotify read failed, errno=%d '%s', try again...\n",
                      getpid(), e, std::strerror(e));
        platform::sleepSeconds(1);
    } else if (got > 0) {
        const unsigned wakeUps = g_wakeUps.load();
        flags.wakeUps = wakeUps;
        inotify::parseEvents(buffer, static_cast<size_t>(got), flags);
        g_wakeUps.fetch_sub(wakeUps - flags.wakeUps);
    }
    if (process::killRequested()) return;
    // A modified file whose change is a set of this process still under way
    // is left to the event of the set's check-word write (looked at as soon
    // as the events are in, while the set is most likely still going).
    bool left[kNumFiles] = {};
    bool work = false;
    for (int i = 0; i < kNumFiles; ++i) {
        if (storage::ownwrite::takeRedo(i)) flags.modified[i] = true;
        if (flags.modified[i] && !flags.deleted[i] && storage::ownwrite::leaveToNextEvent(i))
            flags.modified[i] = false, left[i] = true;
        work = work || flags.deleted[i] || flags.modified[i];
    }
    if (work) {  // else there is nothing to wait for the defaults lock file about
        waitForDefaultsLock();
        for (int i = 0; i < kNumFiles && !process::killRequested(); ++i) {
            if (flags.deleted[i])
                handleDeletedFile(i);
            else if (flags.modified[i])
                handleModifiedFile(i);
        }
    }
    // A set whose pass was left is a few system calls from its check-word
    // write: letting it get there before the next read finds that event
    // queued, instead of waking the thread (and costing its writer) again.
    for (int i = 0; i < kNumFiles; ++i)
        for (int n = 0; left[i] && n < kOwnWriteYields && storage::ownwrite::underWay(i); ++n) sched_yield();
}

// A file held whole by a thread of this process (a restore) raises no modify
// event here while held.  Should the events not come back on, the pass that
// sets the file up again is asked for at once.
bool holdAside(int i, bool on) {
    if (inotify::setModifyEvents(i, on)) return true;
    if (on) wakeWatchThread();
    return false;
}

// An event wakes the thread without taking the processor from the thread
// that is running: above all, a set of this process is not cut short by the
// event of its own record write (the thread runs on an idle processor, or
// when the running thread blocks or its time slice ends).  Only a thread of
// the ordinary policy is moved; a real-time one keeps what it inherited.
// This is the thread's first act, and the processor is then given back
// once: a new thread may be run at once on its creator's processor, and the
// start that created it should not wait while the thread logs its banner.
void yieldToRunningThreads() {
    int policy = 0;
    sched_param param{};
    if (pthread_getschedparam(pthread_self(), &policy, &param) == 0 && policy == SCHED_OTHER &&
        pthread_setschedparam(pthread_self(), SCHED_BATCH, &param) == 0)
        sched_yield();
}

}  // namespace

void* readThread(void*) {
    yieldToRunningThreads();
    pthread_mutex_lock(&g_stateMutex);
    void (*const firstAct)() = g_state.firstAct;
    pthread_mutex_unlock(&g_stateMutex);
    if (firstAct != nullptr) firstAct();
    CM_LOG_TAGGED(293, "Started pthread PID=%d:%d running ConfigManager CM_ReadThread()\n", getpid(), platform::tid());
    const int fd = eventsFd();
    while (fd >= 0 && !process::killRequested()) runPass(fd);
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
            closeEventsFd();
            pthread_mutex_unlock(&g_stateMutex);
        }
    }
    pthread_mutex_unlock(&g_joinMutex);
    return joined;
}

void waitForStaleWatchThread() { joinWatchThread(false); }

int startWatchThread(void (*firstAct)()) {
    pthread_mutex_lock(&g_stateMutex);
    closeEventsFd();
    g_state.firstAct = firstAct;
    g_state.events = dupCloseOnExec(process::inotifyfd.load());
    g_wakeUps.store(0);
    storage::ownwrite::reset();
    storage::ownwrite::setWake(wakeWatchThread);
    storage::setHoldAside(holdAside);
    const int rc = pthread_create(&g_state.handle, nullptr, readThread, nullptr);
    g_state.joinable = rc == 0;
    pthread_mutex_unlock(&g_stateMutex);
    return rc;
}

void wakeWatchThread() {
    // Adding a watch and removing it at once queues an IN_IGNORED event on
    // the instance, which ends the thread's read; the thread then sees the
    // kill flag before it looks at the event.  The watch goes on a directory
    // (the root of the device tree, else "/"), never on a data file, so it
    // cannot be one of the files' own watches.
    pthread_mutex_lock(&g_stateMutex);
    if (g_state.events >= 0) {
        g_wakeUps.fetch_add(1);
        int wd = inotify_add_watch(g_state.events, paths::root(), IN_DELETE_SELF | IN_ONLYDIR);
        if (wd < 0) wd = inotify_add_watch(g_state.events, "/", IN_DELETE_SELF | IN_ONLYDIR);
        if (wd >= 0)
            inotify_rm_watch(g_state.events, wd);
        else
            g_wakeUps.fetch_sub(1);
    }
    pthread_mutex_unlock(&g_stateMutex);
}

void forgetThreadAfterFork() {
    // Only the forking thread lives on in the child: the parent's watch
    // thread, its descriptor and any lock another thread held are not the
    // child's.
    pthread_mutex_init(&g_stateMutex, nullptr);
    pthread_mutex_init(&g_joinMutex, nullptr);
    g_state.joinable = false;
    closeEventsFd();
    storage::ownwrite::reset();
    storage::forgetUnlockedLooks();
}

}  // namespace cm::watch
