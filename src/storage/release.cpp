#include "storage/release.h"

#include <sys/mman.h>
#include <unistd.h>

#include <mutex>

#include "log/log.h"
#include "process/state.h"
#include "storage/file_state.h"
#include "storage/unlocked_look.h"

namespace cm::storage {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
// The stopping thread and the ending watch thread may both release.
std::mutex g_releaseMutex;

// Under the file's mutex, so that no thread of the process is inside the
// mapping or between its lock and unlock calls when the file goes.  A thread
// that already holds the mutex (EDEADLK) releases its own file.
void releaseFile(int i, bool destroyMutex) {
    const int rc = pthread_mutex_lock(&mtxFile[i]);
    const uint8_t* map = pMappedFile[i].load();
    const uint32_t len = dwLenMappedFile[i].load();
    if (map != nullptr) {
        waitForUnlockedLook(i);
        pMappedFile[i] = nullptr;
        dwLenMappedFile[i] = 0;
        munmap(const_cast<uint8_t*>(map), len);
    }
    const int fd = fdRead[i].exchange(-1);
    if (fd >= 0) {
        if (!process::readOnly()) fsync(fd);
        close(fd);
    }
    if (rc == 0) pthread_mutex_unlock(&mtxFile[i]);
    if (destroyMutex) pthread_mutex_destroy(&mtxFile[i]);
}

}  // namespace

void releaseResources(bool destroyMutexes) {
    process::s_bKillCM = 1;
    std::lock_guard<std::mutex> g(g_releaseMutex);
    const int fd = process::inotifyfd.exchange(-1);
    if (fd >= 0) close(fd);
    for (int i = 0; i < kNumFiles; ++i) releaseFile(i, destroyMutexes);
    if (!destroyMutexes) CM_LOG_TAGGED(log::kDebug, "CM resources released\n");
}

}  // namespace cm::storage
