#include "storage/lock.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <chrono>
#include <cstring>

#include "log/log.h"
#include "platform/env.h"
#include "process/state.h"
#include "storage/file_state.h"

namespace cm::storage {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;

// Back-off between retries of a blocked lock request: 100 to 199.999 ms,
// randomised so that competing processes do not retry in step.
constexpr long kBackoffBaseUs = 100000;
constexpr long kBackoffSpreadUs = 100000;

// The file mutexes this thread holds, one bit per file, so that an unlock
// after the file was released knows whether there is a mutex to give back.
thread_local uint16_t t_held = 0;

bool retryable(int err) { return err == EINTR || err == EDEADLK || err == ENOLCK; }

int setLock(int fd, short type, int cmd, off_t start, off_t length) {
    struct flock fl{};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = length;
    return fcntl(fd, cmd, &fl);
}

void logNoDescriptor(int i, const char* fn) {
    CM_LOG(log::kErr, fn, "Invalid File descriptor for file no. %d ('%s')\n", i, pathOf(i));
}

// A descriptor open for reading only can take only read locks.
short lockType() { return process::readOnly() ? F_RDLCK : F_WRLCK; }

}  // namespace

int lockMutex(int i, const char* fn) {
    const int rc = pthread_mutex_lock(&mtxFile[i]);
    if (rc != 0)
        CM_LOG(log::kErr, fn, "PID=%d:%d. File '%s' - Failed to lock CM mutex, error=%d '%s'\n", getpid(),
               platform::tid(), pathOf(i), rc, std::strerror(rc));
    if (rc == 0) t_held |= static_cast<uint16_t>(1u << i);
    if (fdRead[i] >= 0) return 0;
    if (rc == 0) unlockMutex(i, fn);
    return -1;
}

int lockMutexYielding(int i, const char* fn) {
    constexpr int kYields = 50;
    for (int n = 0; n < kYields; ++n) {
        if (pthread_mutex_trylock(&mtxFile[i]) == 0) {
            t_held |= static_cast<uint16_t>(1u << i);
            if (fdRead[i] >= 0) return 0;
            unlockMutex(i, fn);
            return -1;
        }
        sched_yield();
    }
    return lockMutex(i, fn);
}

void unlockMutex(int i, const char* fn) {
    t_held &= static_cast<uint16_t>(~(1u << i));
    const int rc = pthread_mutex_unlock(&mtxFile[i]);
    if (rc != 0)
        CM_LOG(log::kErr, fn, "PID=%d:%d File '%s' - Failed to UNlock CM mutex, error=%d '%s'\n", getpid(),
               platform::tid(), pathOf(i), rc, std::strerror(rc));
}

bool holdsMutex(int i) { return i >= 0 && i < kNumFiles && (t_held & (1u << i)) != 0; }

int lockRange(int i, off_t start, off_t length, const char* fn) {
    const int fd = fdRead[i];
    const short type = lockType();
    if (setLock(fd, type, F_SETLKW, start, length) == 0) return 0;
    int err = errno;
    // Interrupted, deadlock-detected or out-of-locks requests are retried
    // for as long as it takes; the messages alternate between information
    // and error level so that a lasting blockage shows up in the error log.
    unsigned attempts = 0;
    while (retryable(err)) {
        const long waitUs = kBackoffBaseUs + platform::env().random() % kBackoffSpreadUs;
        const unsigned waitMs = static_cast<unsigned>(waitUs / 1000);
        ++attempts;
        errno = err;
        if (attempts % 2 == 1) {
            CM_LOG(log::kInfo, fn, "(ID=%d:%d) F_SETLKW (F_WRLCK) for file '%s' blocked (reason=%m), wait %ums...\n",
                   getpid(), platform::tid(), pathOf(i), waitMs);
        } else {
            CM_LOG(log::kErr, fn, "(ID=%d:%d) F_SETLKW (F_WRLCK) for file '%s' blocked (error=%m), wait %ums...\n",
                   getpid(), platform::tid(), pathOf(i), waitMs);
            attempts = 0;
        }
        platform::env().sleepFor(std::chrono::microseconds(waitUs));
        if (setLock(fd, type, F_SETLKW, start, length) == 0) return 0;
        err = errno;
    }
    errno = err;
    CM_LOG(log::kErr, fn, "ID=%d:%d. Failed to F_SETLKW file '%s'. error=%m\n", getpid(), platform::tid(), pathOf(i));
    // The mutex stays held: the caller's unlockFile() releases it.
    return -1;
}

int lockFile(int i, off_t start, off_t length) { return lockFileAside(i, start, length, nullptr); }

int lockFileAside(int i, off_t start, off_t length, WaitAside aside) {
    constexpr const char* fn = "CM_LockFile";
    if (!checkIndex(i, fn)) return -1;
    if (lockMutex(i, fn) != 0) {
        logNoDescriptor(i, fn);
        return -1;
    }
    if (aside == nullptr) return lockRange(i, start, length, fn);
    if (setLock(fdRead[i], lockType(), F_SETLK, start, length) == 0) return 0;
    if (errno != EAGAIN && errno != EACCES) return lockRange(i, start, length, fn);
    aside(i, true);
    const int rc = lockRange(i, start, length, fn);
    aside(i, false);
    return rc;
}

int moveLock(int i, off_t fromStart, off_t fromLength, off_t toStart, off_t toLength) {
    constexpr const char* fn = "CM_UnLockFile";
    if (!checkIndex(i, fn)) return -1;
    const int fd = fdRead[i];
    if (fd < 0) {
        logNoDescriptor(i, fn);
        return -1;
    }
    if (setLock(fd, F_UNLCK, F_SETLK, fromStart, fromLength) != 0)
        CM_LOG(log::kErr, fn, "fcntl failed: iFileIndex=%d, fdRead[iFileIndex]=%d, error=%m", i, fd);
    return lockRange(i, toStart, toLength, "CM_LockFile");
}

int unlockFile(int i, off_t start, off_t length) {
    constexpr const char* fn = "CM_UnLockFile";
    if (!checkIndex(i, fn)) return -1;
    const int fd = fdRead[i];
    if (fd < 0) {
        // The file was released while the lock was held, or never locked:
        // the mutex is given back when this thread holds it.
        logNoDescriptor(i, fn);
        if (t_held & (1u << i)) unlockMutex(i, fn);
        return -1;
    }
    if (setLock(fd, F_UNLCK, F_SETLK, start, length) != 0)
        CM_LOG(log::kErr, fn, "fcntl failed: iFileIndex=%d, fdRead[iFileIndex]=%d, error=%m", i, fd);
    unlockMutex(i, fn);
    return 0;
}

}  // namespace cm::storage
