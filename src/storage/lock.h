// Two-layer file locking: the file's process mutex, then an fcntl write lock
// on a byte range (length 0 = to the end of the file, so (0, 0) is the
// whole file).  Release is in the reverse order.
//
// The descriptor is read only once the mutex is held, and everything that
// closes a descriptor or changes a mapping holds the mutex, so a thread that
// holds it sees a stable file.
#pragma once

#include <sys/types.h>

namespace cm::storage {

// 0 when both locks are held, -1 on failure.  A blocked request is retried
// with a random 100..199.999 ms back-off for as long as it takes (EINTR,
// EDEADLK, ENOLCK).  On any other fcntl error the mutex stays held: the
// caller's unlockFile() releases it.  A file with no descriptor gives -1 and
// leaves the mutex free.
int lockFile(int iFileIndex, off_t start, off_t length);

// Releases the range and the mutex.  -1 when the file has no descriptor
// (any more): the mutex, when this thread holds it, is released all the same.
int unlockFile(int iFileIndex, off_t start, off_t length);

// The two halves of lockFile, for callers that must look at the per-file
// state under the mutex before they know the range.  lockMutex returns 0
// with the mutex held and the file open, or -1 (nothing held, nothing
// logged) when the file has no descriptor.
int lockMutex(int iFileIndex, const char* fn);
// lockMutex for the watch thread: while another thread (a set finishing)
// holds the mutex, yields to it a few times before it blocks, so that the
// holder neither loses its processor to the thread nor has to wake it.
int lockMutexYielding(int iFileIndex, const char* fn);
// lockFile with `aside` (if any): when another process holds the range,
// `aside(i, true)` runs before the wait for it and `aside(i, false)` after.
using WaitAside = void (*)(int iFileIndex, bool waiting);
int lockFileAside(int iFileIndex, off_t start, off_t length, WaitAside aside);
void unlockMutex(int iFileIndex, const char* fn);
// True when this thread holds the file's mutex.
bool holdsMutex(int iFileIndex);
int lockRange(int iFileIndex, off_t start, off_t length, const char* fn);

// For a thread that holds a range lock taken by lockFile: releases the fcntl
// lock of the first range and takes one on the second, keeping the file's
// mutex throughout, so that no other thread of this process gets in between
// (other processes may).  The fcntl calls, retries and messages are those of
// unlockFile and lockFile; the pair ends with unlockFile on the second range.
// -1 when the file has no descriptor any more (the mutex is still held).
int moveLock(int iFileIndex, off_t fromStart, off_t fromLength, off_t toStart, off_t toLength);

// Holds a range lock for a scope.
class FileLock {
public:
    FileLock(int iFileIndex, off_t start, off_t length, WaitAside aside = nullptr)
        : file_(iFileIndex), start_(start), length_(length) {
        lockFileAside(file_, start_, length_, aside);
    }
    ~FileLock() { unlockFile(file_, start_, length_); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int file_;
    off_t start_, length_;
};

}  // namespace cm::storage
