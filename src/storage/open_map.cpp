#include "storage/open_map.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "platform/env.h"
#include "platform/safe_open.h"
#include "process/state.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/map_guard.h"
#include "storage/unlocked_look.h"

namespace cm::storage {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;

// Files are created readable by every process and writable by the owner.
constexpr mode_t kFileMode = 0644;

// First step of both opens: the correct length is computed once per process
// and the per-open state is reset.
void prepareOpen(int i) {
    if (dwLenCorrectFile[i] == 0) dwLenCorrectFile[i] = correctLength(i);
    bBadFile[i] = 0;
    dwLenActualFile[i] = 0;
}

// The watch thread closes and reopens a deleted file under its mutex, so a
// descriptor this thread did not just open is looked at under it too.
int statUnderMutex(int i, struct stat& st) {
    constexpr const char* fn = "CM_OpenFile";
    if (lockMutex(i, fn) != 0) {
        errno = EBADF;
        return -1;
    }
    const int rc = fstat(fdRead[i], &st);
    const int err = errno;
    unlockMutex(i, fn);
    errno = err;
    return rc;
}

// Logs why an entry at a data file's path was refused.  The master removes
// it and creates the file afresh; any other process leaves it alone and
// treats the file as damaged, so that nothing is ever written through it.
void logRefused(const char* fn, int i, const char* path, platform::EntryFault fault, bool removing) {
    CM_LOG(log::kErr, fn, "PID=%d. CM data file [%d] '%s' %s - %s\n", getpid(), i, path, platform::faultText(fault),
           removing ? "removed it, to create it afresh" : "not used, treated as damaged");
}

// Seconds to wait for a missing file, given the seconds waited so far.
unsigned nextWait(unsigned waited) { return waited < 5 ? 1 : waited < 10 ? 2 : 10; }

// Notes an existing file that the safe open has just opened.
void noteOpened(OpenedFile* opened, const platform::OpenResult& r) {
    if (opened != nullptr && r.size > 0) *opened = {true, r.dev, r.ino};
}

}  // namespace

int openFile(int i, OpenedFile* opened) {
    constexpr const char* fn = "CM_OpenFile";
    if (!checkIndex(i, fn)) return -1;
    prepareOpen(i);
    const char* path = pathOf(i);
    // A file that is open already keeps its descriptor: a second descriptor
    // of it, once closed, would drop every fcntl lock the process holds on
    // it.  Its length is checked all the same.
    int fd = fdRead[i];
    off_t checkedSize = -1;  // the length the safe open's check saw, when it opened
    const bool readOnly = process::readOnly();
    if (fd < 0) {
        // The master creates the files; until it has, wait without limit,
        // complaining louder the longer it takes.
        unsigned waited = 0;
        platform::OpenResult r;
        while (!(r = platform::openExisting(path, readOnly ? O_RDONLY : O_RDWR)).ok()) {
            if (r.refused()) {
                logRefused(fn, i, path, r.fault, false);
                bBadFile[i] = 1;
                return -1;
            }
            // A read-only start waits for no master: a missing file is reported.
            if (r.err != ENOENT || readOnly) {
                CM_LOG(log::kErr, fn, "PID=%d. CM data file [%d] '%s' cannot be opened for reading, errno=%d '%s'\n",
                       getpid(), i, path, r.err, std::strerror(r.err));
                return -1;
            }
            const unsigned wait = nextWait(waited);
            const uint32_t level = waited < 5 ? log::kInfo : waited < 10 ? log::kWarn : log::kErr;
            CM_LOG(level, fn, "PID=%d. '%s' does not exist after %u secs - wait %u secs then retry\n", getpid(), path,
                   waited, wait);
            platform::sleepSeconds(wait);
            waited += wait;
        }
        fd = r.fd;
        checkedSize = r.size;
        fdRead[i] = fd;
        noteOpened(opened, r);
    }
    CM_LOG(log::kDebug, fn, "CM data file [%d] '%s' opened\n", i, path);

    // A file the master has created but not yet filled is waited for too.
    struct stat st{};
    for (;;) {
        if (checkedSize >= 0) {
            st.st_size = checkedSize;
            checkedSize = -1;
        } else if (statUnderMutex(i, st) != 0) {
            const int err = errno;
            CM_LOG(log::kErr, fn, "PID=%d. Failed to fstat CM data file [%d] '%s': errno=%d '%s'\n", getpid(), i,
                   path, err, std::strerror(err));
            return -1;
        }
        if (st.st_size != 0 || readOnly) break;
        CM_LOG_TAGGED(log::kWarn,
                      "CM_OpenFile, PID=%d. File '%s' opened but has zero length - wait 1 sec for someone to fill it "
                      "then retry\n",
                      getpid(), path);
        platform::sleepSeconds(1);
    }
    CM_LOG_TAGGED(log::kInfo, "CM_OpenFile, CM data file [%d] '%s' opened with length %d bytes\n", i, path,
                  static_cast<int>(st.st_size));
    return 0;
}

int openOrCreateFile(int i, OpenedFile* opened) {
    constexpr const char* fn = "CM_OpenOrCreateFile";
    if (!checkIndex(i, fn)) return -1;
    prepareOpen(i);
    const char* path = pathOf(i);
    if (fdRead[i] >= 0) {
        CM_LOG_TAGGED(log::kInfo, "CM_OpenOrCreateFile, CM data file [%d] '%s' opened\n", i, path);
        return 0;
    }

    platform::OpenResult r = platform::openExisting(path, O_RDWR);
    if (r.ok()) {
        fdRead[i] = r.fd;
        noteOpened(opened, r);
        CM_LOG_TAGGED(log::kInfo, "CM_OpenOrCreateFile, CM data file [%d] '%s' opened\n", i, path);
        return 0;
    }
    if (r.refused()) {
        const bool master = process::isMaster();
        logRefused(fn, i, path, r.fault, master);
        if (!master) {
            bBadFile[i] = 1;
            return -1;
        }
        if (!platform::removeEntry(path)) {
            const int err = errno;
            CM_LOG(log::kErr, fn, "PID=%d. open failed for CM data file [%d] '%s', errno=%d '%s'\n", getpid(), i,
                   path, err, std::strerror(err));
            return -1;
        }
    } else if (r.err != ENOENT) {
        CM_LOG(log::kErr, fn, "PID=%d. CM data file [%d] '%s' cannot be opened for reading, errno=%d '%s'\n",
               getpid(), i, path, r.err, std::strerror(r.err));
        return -1;
    } else if (i != 0) {
        // The volatile file is lost at every restart, so its absence is normal.
        CM_LOG_TAGGED(log::kWarn,
                      "CM_OpenOrCreateFile, PID=%d. CM data file '%s' does not exist - attempting to create it\n",
                      getpid(), path);
    }
    // Created exclusively, with the mode set explicitly: every process reads
    // the file, whatever umask the creating process runs with.  An entry
    // that appears in between fails the create rather than being used.
    r = platform::createExclusive(path, O_RDWR, kFileMode);
    if (!r.ok()) {
        CM_LOG(log::kErr, fn, "PID=%d. open failed for CM data file [%d] '%s', errno=%d '%s'\n", getpid(), i, path,
               r.err, std::strerror(r.err));
        return -1;
    }
    fdRead[i] = r.fd;
    CM_LOG_TAGGED(log::kInfo, "CM_OpenOrCreateFile, CM data file [%d] '%s' created\n", i, path);
    return 1;
}

int mapFile(int i, uint32_t length) {
    constexpr const char* fn = "CM_MapFile";
    if (!checkIndex(i, fn)) return -1;
    if (length == 0) {
        pMappedFile[i] = nullptr;
        dwLenMappedFile[i] = 0;
        return 0;
    }
    installMapGuard();
    // Bytes beyond the correct length are never mapped.
    if (dwLenCorrectFile[i] != 0) length = std::min(length, dwLenCorrectFile[i].load());
    void* p = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fdRead[i], 0);
    if (p == MAP_FAILED || p == nullptr) {
        const int err = errno;
        pMappedFile[i] = nullptr;
        dwLenMappedFile[i] = 0;
        CM_LOG(log::kErr, fn, "PID=%d. Failed to mmap(0,%lu,PROT_READ,MAP_PRIVATE,%d,0) CM file [%d] '%s': errno=%d %s\n",
               getpid(), static_cast<unsigned long>(length), fdRead[i].load(), i, pathOf(i), err, std::strerror(err));
        return -1;
    }
    pMappedFile[i] = static_cast<const uint8_t*>(p);
    dwLenMappedFile[i] = length;
    CM_LOG(log::kInfo, fn, "CM file [%d] '%s' mapped at %p to %p, size %lu\n", i, pathOf(i), p,
           static_cast<const void*>(static_cast<const uint8_t*>(p) + length - 1), static_cast<unsigned long>(length));
    return 0;
}

int unmapFile(int i) {
    constexpr const char* fn = "CM_UnmapFile";
    if (!checkOpen(i, fn)) return -1;
    const void* p = pMappedFile[i].load();
    const uint32_t len = dwLenMappedFile[i].load();
    if (p == nullptr && len == 0) return 0;
    waitForUnlockedLook(i);
    pMappedFile[i] = nullptr;
    dwLenMappedFile[i] = 0;
    if (p == nullptr || len == 0) {
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' bad variables pMappedFile[]=%p, dwLenMappedFile[]=%lu\n", i,
               pathOf(i), p, static_cast<unsigned long>(len));
        return -1;
    }
    if (munmap(const_cast<void*>(p), len) != 0) {
        CM_LOG(log::kErr, fn, "CM data file [%d] '%s' munmap(%p, %lu) failed.\n", i, pathOf(i), p,
               static_cast<unsigned long>(len));
        return -1;
    }
    return 0;
}

int remapFile(int i, uint32_t length) {
    constexpr const char* fn = "CM_RemapFile";
    if (!checkOpen(i, fn)) return -1;
    length = std::min(length, dwLenCorrectFile[i].load());
    if (length == 0) return unmapFile(i);

    if (pMappedFile[i] != nullptr || dwLenMappedFile[i] != 0) {
        if (mapped(i)) {
            // Resized even when the length is unchanged: the kernel may move
            // the mapping, and the new address is taken either way.
            waitForUnlockedLook(i);
            void* old = const_cast<uint8_t*>(pMappedFile[i].load());
            const uint32_t oldLen = dwLenMappedFile[i];
            // The fields are cleared first: the guard against cut files must
            // never take the old range for a live mapping.
            dwLenMappedFile[i] = 0;
            pMappedFile[i] = nullptr;
            void* p = mremap(old, oldLen, length, MREMAP_MAYMOVE);
            if (p != MAP_FAILED) {
                pMappedFile[i] = static_cast<const uint8_t*>(p);
                dwLenMappedFile[i] = length;
                CM_LOG(log::kInfo, fn, "CM file [%d] '%s' remapped at %p to %p, size %lu\n", i, pathOf(i), p,
                       static_cast<const void*>(static_cast<const uint8_t*>(p) + length - 1),
                       static_cast<unsigned long>(length));
                return 0;
            }
            const int err = errno;
            CM_LOG(log::kWarn, fn, "PID=%d. Failed to mremap(%p,%lu,%lu,MREMAP_MAYMOVE) CM file %d '%s' : errno=%d %s\n",
                   getpid(), old, static_cast<unsigned long>(oldLen), static_cast<unsigned long>(length), i, pathOf(i),
                   err, std::strerror(err));
            // mremap leaves the old mapping in place when it fails.
            pMappedFile[i] = static_cast<const uint8_t*>(old);
            dwLenMappedFile[i] = oldLen;
        }
        // Half-set fields are reported and cleared by the unmap.
        unmapFile(i);
    }
    return mapFile(i, length);
}

int initialisePrevData(int i) {
    constexpr const char* fn = "CM_InitialisePrevData";
    // A caller from outside may not hold the file: the copy is then replaced
    // under the file's mutex, never under a diff of the watch thread.
    if (i < 0 || i >= kNumFiles || holdsMutex(i) || lockMutex(i, fn) != 0) return initialisePrevData(i, fn, true);
    const int rc = initialisePrevData(i, fn, true);
    unlockMutex(i, fn);
    return rc;
}

int initialisePrevData(int i, const char* fn, bool logAlloc) {
    if (!checkIndex(i, fn)) return -1;
    if (!mapped(i)) {
        CM_LOG(log::kErr, fn, "dwLenMappedFile[%d] or pMappedFile[] is zero, cannot alloc block for data - skipping...\n",
               i);
        // Released rather than dropped, so that a failed snapshot does not
        // leak the previous one.
        dropPrevData(i);
        return -1;
    }
    const uint32_t len = dwLenMappedFile[i];
    waitForUnlockedLook(i);
    void* p;
    if (pPrevData[i] != nullptr) {
        if (logAlloc) CM_LOG(log::kDebug, fn, "pPrevData[%d] non-zero so reallocing it...\n", i);
        p = std::realloc(pPrevData[i], len);
    } else {
        if (logAlloc) CM_LOG(log::kDebug, fn, "pPrevData zero so mallocing it...\n");
        p = std::malloc(len);
    }
    if (p == nullptr) {
        CM_LOG(log::kErr, fn, "malloc() or realloc() failed for CM file %d\n", i);
        // A copy that cannot grow is dropped: a shorter one would let the
        // diff read past its end.
        dropPrevData(i);
        return -1;
    }
    // The watch thread tests the pointer before it takes the file lock.
    __atomic_store_n(&pPrevData[i], static_cast<uint8_t*>(p), __ATOMIC_RELEASE);
    dwLenPrevData[i] = len;
    if (!guardedCopy(p, pMappedFile[i], len)) {
        // The file was cut under the mapping; the watch thread sets it up
        // again when the change is reported.
        dropPrevData(i);
        return -1;
    }
    return 0;
}

void dropPrevData(int i) {
    waitForUnlockedLook(i);
    std::free(pPrevData[i]);
    __atomic_store_n(&pPrevData[i], nullptr, __ATOMIC_RELEASE);
    dwLenPrevData[i] = 0;
}

}  // namespace cm::storage
