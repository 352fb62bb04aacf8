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

// For a thread that holds a range lock taken by lockFile: releases the fcntl
// lock of the first range and takes one on the second, keeping the file's
// mutex throughout, so that no other thread of this process gets in between
// (other processes may).  The fcntl calls, retries and messages are those of
// unlockFile and lockFile; the pair ends with unlockFile on the second range.
// -1 when the file has no descriptor (the mutex is then still held).
int moveLock(int iFileIndex, off_t fromStart, off_t fromLength, off_t toStart, off_t toLength);

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

// Holds only the file's process mutex for a scope: this process's mapping
// and private copy stay in place, other processes are not held up, and no
// system call is made unless another thread of the process holds it.
class ProcessMutex {
public:
    explicit ProcessMutex(int iFileIndex);
    ~ProcessMutex();
    ProcessMutex(const ProcessMutex&) = delete;
    ProcessMutex& operator=(const ProcessMutex&) = delete;

private:
    int file_;
};

}  // namespace cm::storage
