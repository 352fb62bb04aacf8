#include "storage/lock.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "log/log.h"
#include "platform/env.h"
#include "storage/file_state.h"

namespace cm::storage {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;

// Back-off between retries of a blocked lock request: 100 to 199.999 ms,
// randomised so that competing processes do not retry in step.
constexpr long kBackoffBaseUs = 100000;
constexpr long kBackoffSpreadUs = 100000;

bool retryable(int err) { return err == EINTR || err == EDEADLK || err == ENOLCK; }

int setLock(int fd, short type, int cmd, off_t start, off_t length) {
    struct flock fl{};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = length;
    return fcntl(fd, cmd, &fl);
}

// The file's descriptor, or -1 (logged) when the index is bad or the file
// is not open.
int descriptorOf(int i, const char* fn) {
    if (!checkIndex(i, fn)) return -1;
    if (fdRead[i] < 0) CM_LOG(log::kErr, fn, "Invalid File descriptor for file no. %d ('%s')\n", i, pathOf(i));
    return fdRead[i];
}

// The fcntl half of lockFile, for a thread that holds the file's mutex.
int lockRange(int i, int fd, off_t start, off_t length) {
    constexpr const char* fn = "CM_LockFile";
    if (setLock(fd, F_WRLCK, F_SETLKW, start, length) == 0) return 0;
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
        if (setLock(fd, F_WRLCK, F_SETLKW, start, length) == 0) return 0;
        err = errno;
    }
    errno = err;
    CM_LOG(log::kErr, fn, "ID=%d:%d. Failed to F_SETLKW file '%s'. error=%m\n", getpid(), platform::tid(), pathOf(i));
    // The mutex stays held: the caller's unlockFile() releases it.
    return -1;
}

void unlockRange(int i, int fd, off_t start, off_t length) {
    if (setLock(fd, F_UNLCK, F_SETLK, start, length) != 0)
        CM_LOG(log::kErr, "CM_UnLockFile", "fcntl failed: iFileIndex=%d, fdRead[iFileIndex]=%d, error=%m", i, fd);
}

}  // namespace

int lockFile(int i, off_t start, off_t length) {
    constexpr const char* fn = "CM_LockFile";
    const int fd = descriptorOf(i, fn);
    if (fd < 0) return -1;
    const int rc = pthread_mutex_lock(&mtxFile[i]);
    if (rc != 0)
        CM_LOG(log::kErr, fn, "PID=%d:%d. File '%s' - Failed to lock CM mutex, error=%d '%s'\n", getpid(),
               platform::tid(), pathOf(i), rc, std::strerror(rc));
    return lockRange(i, fd, start, length);
}

int moveLock(int i, off_t fromStart, off_t fromLength, off_t toStart, off_t toLength) {
    const int fd = descriptorOf(i, "CM_UnLockFile");
    if (fd < 0) return -1;
    unlockRange(i, fd, fromStart, fromLength);
    return lockRange(i, fd, toStart, toLength);
}

int unlockFile(int i, off_t start, off_t length) {
    constexpr const char* fn = "CM_UnLockFile";
    const int fd = descriptorOf(i, fn);
    if (fd < 0) return -1;
    unlockRange(i, fd, start, length);
    const int rc = pthread_mutex_unlock(&mtxFile[i]);
    if (rc != 0)
        CM_LOG(log::kErr, fn, "PID=%d:%d File '%s' - Failed to UNlock CM mutex, error=%d '%s'\n", getpid(),
               platform::tid(), pathOf(i), rc, std::strerror(rc));
    return 0;
}

ProcessMutex::ProcessMutex(int iFileIndex) : file_(iFileIndex) { pthread_mutex_lock(&mtxFile[file_]); }
ProcessMutex::~ProcessMutex() { pthread_mutex_unlock(&mtxFile[file_]); }

}  // namespace cm::storage
