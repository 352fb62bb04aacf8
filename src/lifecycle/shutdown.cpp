#include "lifecycle/shutdown.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "lifecycle/state.h"
#include "log/log.h"
#include "platform/env.h"
#include "storage/file_state.h"
#include "watch/watch_thread.h"

namespace cm::lifecycle {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
// The stopping thread and the ending watch thread may both release.
std::mutex g_releaseMutex;

void releaseFile(int i, bool destroyMutex) {
    using namespace storage;
    if (pMappedFile[i] != nullptr) {
        munmap(const_cast<uint8_t*>(pMappedFile[i]), dwLenMappedFile[i]);
        pMappedFile[i] = nullptr;
        dwLenMappedFile[i] = 0;
    }
    if (fdRead[i] >= 0) {
        fsync(fdRead[i]);
        close(fdRead[i]);
        fdRead[i] = -1;
    }
    if (destroyMutex) pthread_mutex_destroy(&mtxFile[i]);
}

}  // namespace

void cleanUp() {
    s_bKillCM = 1;
    watch::wakeWatchThread();
    std::lock_guard<std::mutex> g(g_releaseMutex);
    const int fd = inotifyfd.exchange(-1);
    if (fd >= 0) close(fd);
    for (int i = 0; i < storage::kNumFiles; ++i) releaseFile(i, false);
    CM_LOG_TAGGED(log::kDebug, "CM resources released\n");
}

void kill() {
    s_bKillCM = 1;
    watch::wakeWatchThread();
    CM_LOG_TAGGED(5, "CM process termination request - tidy services & exit...\n");
    platform::sleepSeconds(1);
    cleanUp();
}

void errQuit(const char* szWhat, int iLine) {
    const int e = errno;
    CM_LOG_TAGGED(log::kErr, "**ERROR: FATAL ERROR %s in line %d of file '%s', errno=%d '%s'\n", szWhat, iLine,
                  log::modulePath(log::Module::FileAccess), e, std::strerror(e));
    {
        std::lock_guard<std::mutex> g(g_releaseMutex);
        const int fd = inotifyfd.exchange(-1);
        if (fd >= 0) close(fd);
        for (int i = 0; i < storage::kNumFiles; ++i) releaseFile(i, true);
    }
    platform::sleepSeconds(1);
    std::exit(1);
}

}  // namespace cm::lifecycle
