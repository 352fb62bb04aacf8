// Two-layer file locking: the file's process mutex, then an fcntl write lock
// on a byte range (length 0 = to the end of the file, so (0, 0) is the
// whole file).  Release is in the reverse order.
#pragma once

#include <sys/types.h>

namespace cm::storage {

// 0 when both locks are held, -1 on failure.  A blocked request is retried
// with a random 100..199.999 ms back-off for as long as it takes (EINTR,
// EDEADLK, ENOLCK).  On any other fcntl error the mutex stays held: the
// caller's unlockFile() releases it.
int lockFile(int iFileIndex, off_t start, off_t length);

// 0, or -1 when the file has no descriptor (the mutex is then untouched).
int unlockFile(int iFileIndex, off_t start, off_t length);

// Holds a range lock for a scope.
class FileLock {
public:
    FileLock(int iFileIndex, off_t start, off_t length)
        : file_(iFileIndex), start_(start), length_(length) {
        lockFile(file_, start_, length_);
    }
    ~FileLock() { unlockFile(file_, start_, length_); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int file_;
    off_t start_, length_;
};

}  // namespace cm::storage
