#include "lifecycle/start.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "catalogue/catalogue.h"
#include "configmanager/cm_lifecycle.h"
#include "inotify/inotify_watch.h"
#include "lifecycle/shutdown.h"
#include "log/log.h"
#include "notify/registry.h"
#include "platform/env.h"
#include "process/state.h"
#include "setup/setup.h"
#include "storage/file_state.h"
#include "storage/open_map.h"
#include "watch/watch_thread.h"

namespace cm::lifecycle {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
constexpr uint32_t kStartErr = 291, kStartWarn = 292, kStartNotice = 293, kStartInfo = 294;
constexpr uint32_t kNotStartedWarn = 36;

using storage::kNumFiles;
using namespace process;

// The closing banner of a full start is the watch thread's first act: the
// starter does not wait for the system log (whose first message in a
// process loads the time zone and connects to the log socket).  A process
// that ends with exit() just after a start waits for it, a second at most.
struct PendingBanner {
    int result = 0;
    bool pending = false;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t written = PTHREAD_COND_INITIALIZER;

    ~PendingBanner() {
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_sec += 1;
        pthread_mutex_lock(&mutex);
        while (pending && pthread_cond_clockwait(&written, &mutex, CLOCK_MONOTONIC, &until) == 0) {
        }
        pthread_mutex_unlock(&mutex);
    }
} g_banner;

void markBanner(bool pending) {
    pthread_mutex_lock(&g_banner.mutex);
    g_banner.pending = pending;
    pthread_mutex_unlock(&g_banner.mutex);
    if (!pending) pthread_cond_broadcast(&g_banner.written);
}

void logStartBanner() {
    if (g_banner.result < 0)
        CM_LOG_TAGGED(kStartWarn, "CM File Access Initialisation FAILED. Version %d.%03d.%d.%d (%s %s)\n",
                      CM_VERSION_MAJOR, CM_VERSION_MINOR, CM_VERSION_PATCH, CM_VERSION_BUILD, buildDate(), buildTime());
    else
        CM_LOG_TAGGED(kStartNotice, "CM File Access initialised successfully. Version %d.%03d.%d.%d (%s %s)\n",
                      CM_VERSION_MAJOR, CM_VERSION_MINOR, CM_VERSION_PATCH, CM_VERSION_BUILD, buildDate(), buildTime());
    markBanner(false);
}

void alreadyStartedWarning(const char* fn) {
    CM_LOG(kStartWarn, fn, "Warning, CM already initialised..., ID=%d\n", getpid());
}

// A child forked after a start inherits the library's state but none of its
// other threads: it forgets the parent's watch thread and renews any lock a
// vanished thread held, so that it can stop and start the library again.
void afterForkInChild() {
    // The parent's thread writes the parent's banner.
    pthread_mutex_init(&g_banner.mutex, nullptr);
    pthread_cond_init(&g_banner.written, nullptr);
    g_banner.pending = false;
    watch::forgetThreadAfterFork();
    storage::renewFileMutexesAfterFork();
    renewLocksAfterFork();
}

// Registered when the library is loaded, once per process, so that no
// start pays for it.
const bool g_forkHandlerRegistered = pthread_atfork(nullptr, nullptr, afterForkInChild) == 0;

bool notStarted(const char* fn) {
    if (started()) return false;
    CM_LOG(kNotStartedWarn, fn, "Warning, CM not initialised..., ID=%d\n", getpid());
    return true;
}

}  // namespace

const char* buildDate() { return __DATE__; }
const char* buildTime() { return __TIME__; }

int init(int iMaster) {
    if (ucCMInitialised != 0) {
        alreadyStartedWarning("CM_init");
        return CM_ERR_ALREADY_STARTED;
    }
    // The thread of an earlier start must be gone before mCMMutex is taken:
    // one of its callbacks may be waiting for mCMMutex in a set.
    watch::waitForStaleWatchThread();
    if (pthread_mutex_lock(&mCMcallback) != 0) {
        CM_LOG(kStartErr, "CM_init", "CM - mCMcallback lock failed.\n");
        return CM_FAIL;
    }
    notify::clearRegistry();
    pthread_mutex_unlock(&mCMcallback);
    // A failure to take the start mutex is reported as success on purpose:
    // callers have always treated it so.
    if (pthread_mutex_lock(&mCMMutex) != 0) return CM_OK;
    if (iMaster != 0) setAsMaster();
    fileAccessInit();
    ucCMInitialised = kStarted;
    pthread_mutex_unlock(&mCMMutex);
    return CM_OK;
}

int fileAccessInit() {
    CM_LOG_TAGGED(kStartInfo, "CM File Access Initialising..., PID=%d:%d. built %s on %s\n", getpid(), platform::tid(),
                  buildTime(), buildDate());
    for (int i = 0; i < kNumFiles; ++i)
        CM_LOG_TAGGED(log::kDebug, "File '%s': Number of entries=%d, start offset=%d \n", storage::pathOf(i),
                      catalogue::sConfigItemList[i].iNumItems, catalogue::sConfigItemList[i].iFirstVarID);
    // A thread of an earlier start must be gone before files are opened again,
    // and none of its pending re-checks (nor watches it has yet to see taken
    // back) carries over.
    watch::waitForStaleWatchThread();
    for (int i = 0; i < kNumFiles; ++i) inotify::takeRecheck(i);
    while (inotify::takeDroppedWatch()) {
    }
    s_bKillCM = 0;
    const int fd = inotify_init1(IN_CLOEXEC);
    if (fd < 0) errQuit("'inotify_init failed'", __LINE__);
    inotifyfd = fd;

    int result = 0;
    for (int i = 0; i < kNumFiles; ++i) {
        storage::fdRead[i] = -1;
        storage::inotifywd[i] = -1;
        const int rc = storage::initFileMutex(i);
        if (rc != 0) {
            CM_LOG_TAGGED(kStartErr, "**ERROR: PID=%d. File '%s' - Failed to initialise CM mutex, error=%d '%s'\n",
                          getpid(), storage::pathOf(i), rc, std::strerror(rc));
            return -1;
        }
        result = setup::setUpConfigFile(i);
    }
    // Only the last file's result decides the banner.
    g_banner.result = result;
    markBanner(true);
    const int rc = watch::startWatchThread(logStartBanner);
    if (rc != 0) {
        markBanner(false);
        errno = rc;
        errQuit("'Failed to create CM_ReadThread() inotify thread'", __LINE__);
    }
    if (isMaster())
        createVersionInfoFile_date(CM_VERSION_MAJOR, CM_VERSION_MINOR, CM_VERSION_PATCH, CM_VERSION_BUILD,
                                   "ConfigManagerVersion", buildDate(), buildTime(), 0);
    return result;
}

int initNoRegister() {
    if (ucCMInitialised != 0) {
        alreadyStartedWarning("CM_initNoRegister");
        return CM_ERR_ALREADY_STARTED;
    }
    fileAccessInitNoRegister();
    ucCMInitialised = kStarted;
    return CM_OK;
}

int fileAccessInitNoRegister() {
    CM_LOG_TAGGED(kStartInfo, "CM File Access Initialising (No Register)..., PID=%d:%d. built %s on %s\n", getpid(),
                  platform::tid(), buildTime(), buildDate());
    watch::waitForStaleWatchThread();
    inotifyfd = -1;
    int result = 0;
    for (int i = 0; i < kNumFiles; ++i) {
        storage::inotifywd[i] = -1;
        storage::fdRead[i] = -1;
        storage::pMappedFile[i] = nullptr;
        storage::dwLenMappedFile[i] = 0;
        storage::dwLenActualFile[i] = 0;
        const int rc = storage::initFileMutex(i);
        if (rc != 0) {
            CM_LOG_TAGGED(kStartErr, "**ERROR: PID=%d. CM data file [%d] '%s' - Failed to initialise CM mutex, error=%d '%s'\n",
                          getpid(), i, storage::pathOf(i), rc, std::strerror(rc));
            result = -1;
            continue;
        }
        result = storage::openFile(i);
        if (result >= 0) result = setup::initialiseDataStruct(i, false, false);
    }
    return result;
}

int initReadOnly(int iWatch) {
    if (ucCMInitialised != 0) {
        alreadyStartedWarning("CM_Ext_InitReadOnly");
        return CM_ERR_ALREADY_STARTED;
    }
    bReadOnly = 1;
    const int rc = iWatch != 0 ? init(0) : initNoRegister();
    if (!started()) bReadOnly = 0;
    return rc;
}

int exit() {
    if (notStarted("CM_Exit")) return CM_ERR_NOT_STARTED_OR_ID;
    ucCMInitialised = 0;
    cleanUp();
    bReadOnly = 0;
    return CM_OK;
}

int exitDelayed() {
    if (notStarted("CM_Exit_Delayed")) return CM_ERR_NOT_STARTED_OR_ID;
    ucCMInitialised = 0;
    kill();
    bReadOnly = 0;
    return CM_OK;
}

void setAsMaster() {
    CM_LOG(kStartInfo, "CM_SetAsMaster", "PID=%d:%d set as Configuration Manager Master\n", getpid(), platform::tid());
    bCMmaster = 1;
}

}  // namespace cm::lifecycle
