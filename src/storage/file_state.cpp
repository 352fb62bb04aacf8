#include "storage/file_state.h"

#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>

#include "log/log.h"
#include "platform/paths.h"

namespace cm::storage {
namespace {
constexpr auto kLogModule = log::Module::FileAccess;
}

std::atomic<int> fdRead[kNumFiles] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
std::atomic<uint32_t> dwLenCorrectFile[kNumFiles] = {};
std::atomic<uint32_t> dwLenActualFile[kNumFiles] = {};
std::atomic<const uint8_t*> pMappedFile[kNumFiles] = {};
std::atomic<uint32_t> dwLenMappedFile[kNumFiles] = {};
uint8_t* pPrevData[kNumFiles] = {};
uint32_t dwLenPrevData[kNumFiles] = {};
std::atomic<uint8_t> bBadFile[kNumFiles] = {};
pthread_mutex_t mtxFile[kNumFiles] = {
    PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
    PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
    PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
    PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP,
    PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP};
std::atomic<int> inotifywd[kNumFiles] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1};

int initFileMutex(int i) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    const int rc = pthread_mutex_init(&mtxFile[i], &attr);
    pthread_mutexattr_destroy(&attr);
    return rc;
}

void renewFileMutexesAfterFork() {
    for (int i = 0; i < kNumFiles; ++i) {
        if (pthread_mutex_trylock(&mtxFile[i]) == 0)
            pthread_mutex_unlock(&mtxFile[i]);
        else
            initFileMutex(i);
    }
}

uint32_t correctLength(int iFileIndex) {
    const catalogue::ConfigItemList& file = catalogue::sConfigItemList[iFileIndex];
    uint32_t len = kHeaderSize;
    for (int r = 0; r < file.iNumItems; ++r) len += file.pItems[r].wDataSize + kRecordHeader;
    return len;
}

bool checkIndex(int iFileIndex, const char* fn) {
    if (iFileIndex >= 0 && iFileIndex < kNumFiles) return true;
    CM_LOG(log::kErr, fn, "Out of bounds file index of %d\n", iFileIndex);
    return false;
}

bool checkOpen(int iFileIndex, const char* fn) {
    if (!checkIndex(iFileIndex, fn)) return false;
    if (fdRead[iFileIndex] >= 0) return true;
    CM_LOG(log::kErr, fn, "Invalid File descriptor for file no. %d\n", iFileIndex);
    return false;
}

namespace {

// The data files' paths under the current root, resolved again after the
// root changes (which happens before start-up, never while files are open).
// They are packed one after another, so that a start writes one page rather
// than one per file; each still has room for a path of PATH_MAX bytes.
struct ResolvedPaths {
    char text[kNumFiles * PATH_MAX] = {};
    const char* at[kNumFiles] = {};
};
ResolvedPaths g_paths;
std::mutex g_pathsMutex;
std::atomic<unsigned> g_pathsGeneration{~0u};

void resolveAll() {
    char* next = g_paths.text;
    for (int i = 0; i < kNumFiles; ++i) {
        if (!paths::resolve(next, catalogue::sConfigItemList[i].szPath)) *next = '\0';
        g_paths.at[i] = next;
        next += std::strlen(next) + 1;
    }
}

}  // namespace

const char* pathOf(int iFileIndex) {
    const unsigned gen = paths::generation();
    if (g_pathsGeneration.load(std::memory_order_acquire) != gen) {
        std::lock_guard<std::mutex> g(g_pathsMutex);
        if (g_pathsGeneration.load(std::memory_order_relaxed) != gen) {
            resolveAll();
            g_pathsGeneration.store(gen, std::memory_order_release);
        }
    }
    return g_paths.at[iFileIndex];
}

}  // namespace cm::storage
