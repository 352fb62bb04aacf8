#include "storage/release.h"

#include <sys/mman.h>
#include <unistd.h>

#include <mutex>

#include "log/log.h"
#include "process/state.h"
#include "storage/file_state.h"

namespace cm::storage {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
// The stopping thread and the ending watch thread may both release.
std::mutex g_releaseMutex;

void releaseFile(int i, bool destroyMutex) {
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

void releaseResources(bool destroyMutexes) {
    process::s_bKillCM = 1;
    std::lock_guard<std::mutex> g(g_releaseMutex);
    const int fd = process::inotifyfd.exchange(-1);
    if (fd >= 0) close(fd);
    for (int i = 0; i < kNumFiles; ++i) releaseFile(i, destroyMutexes);
    if (!destroyMutexes) CM_LOG_TAGGED(log::kDebug, "CM resources released\n");
}

}  // namespace cm::storage
