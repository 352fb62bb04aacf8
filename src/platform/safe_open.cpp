#include "platform/safe_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace cm::platform {
namespace {

// Flags every open of a fixed path carries.  O_NONBLOCK keeps a FIFO
// planted at the path from blocking the open.  Once the entry is known to be
// a regular file the flag is dropped again only where it could matter: the
// kernel ignores it on reads and writes of regular files, except under
// mandatory locking, which a file asks for by being set-group-ID without
// group execute permission.
constexpr int kAlways = O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;

bool nonBlockingMatters(const struct stat& st) { return (st.st_mode & (S_ISGID | S_IXGRP)) == S_ISGID; }

// Times replaceWithNew() removes an entry that keeps coming back.
constexpr int kReplaceTries = 4;

EntryFault judge(const struct stat& st) {
    if (S_ISLNK(st.st_mode)) return EntryFault::kSymlink;
    if (!S_ISREG(st.st_mode)) return EntryFault::kNotRegular;
    if (st.st_nlink != 1) return EntryFault::kManyLinks;
    // Root's files are the common case: they need no look at the effective user.
    if (st.st_uid != 0 && st.st_uid != geteuid()) return EntryFault::kForeignOwner;
    if ((st.st_mode & S_IWOTH) != 0) return EntryFault::kOthersWritable;
    return EntryFault::kNone;
}

int openRetrying(const char* path, int flags, mode_t mode) {
    int fd;
    do {
        fd = ::open(path, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

void closeKeepingErrno(int fd) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
}

}  // namespace

const char* faultText(EntryFault f) {
    switch (f) {
        case EntryFault::kNone: return "is sound";
        case EntryFault::kSymlink: return "is a symbolic link";
        case EntryFault::kNotRegular: return "is not a regular file";
        case EntryFault::kManyLinks: return "has more than one link";
        case EntryFault::kForeignOwner: return "is owned by another user";
        case EntryFault::kOthersWritable: return "is writable by other users";
    }
    return "is unusable";
}

EntryFault checkDescriptor(int fd) {
    struct stat st{};
    if (::fstat(fd, &st) != 0) return EntryFault::kNotRegular;
    return judge(st);
}

bool inspectEntry(const char* path, EntryFault* fault) {
    struct stat st{};
    if (::lstat(path, &st) != 0) return false;
    *fault = judge(st);
    return true;
}

OpenResult openExisting(const char* path, int flags) {
    OpenResult r;
    flags &= O_ACCMODE | O_APPEND;
    const int fd = openRetrying(path, flags | kAlways | O_NONBLOCK, 0);
    if (fd < 0) {
        r.err = errno;
        // An entry that could not be opened for what it is (a link reported
        // as ELOOP, a directory as EISDIR, a socket as ENXIO) is refused.
        EntryFault f = EntryFault::kNone;
        if (r.err != ENOENT && inspectEntry(path, &f) && f != EntryFault::kNone) {
            r.fault = f;
            r.err = 0;
        }
        return r;
    }
    struct stat st{};
    r.fault = ::fstat(fd, &st) != 0 ? EntryFault::kNotRegular : judge(st);
    r.size = st.st_size;
    r.dev = st.st_dev;
    r.ino = st.st_ino;
    if (r.refused()) {
        closeKeepingErrno(fd);
        return r;
    }
    if (nonBlockingMatters(st)) (void)::fcntl(fd, F_SETFL, flags);
    r.fd = fd;
    return r;
}

OpenResult createExclusive(const char* path, int flags, mode_t mode) {
    OpenResult r;
    flags &= O_ACCMODE | O_APPEND;
    const int fd = openRetrying(path, flags | kAlways | O_CREAT | O_EXCL, mode);
    if (fd < 0) {
        r.err = errno;
        return r;
    }
    // The umask of the calling process plays no part in the mode.
    if (::fchmod(fd, mode) != 0) {
        r.err = errno;
        closeKeepingErrno(fd);
        ::unlink(path);
        return r;
    }
    r.fd = fd;
    return r;
}

bool removeEntry(const char* path) { return ::unlink(path) == 0 || errno == ENOENT; }

OpenResult replaceWithNew(const char* path, int flags, mode_t mode) {
    OpenResult r;
    EntryFault lastFault = EntryFault::kNone;
    for (int attempt = 0; attempt < kReplaceTries; ++attempt) {
        EntryFault f = EntryFault::kNone;
        if (inspectEntry(path, &f) && f != EntryFault::kNone) lastFault = f;
        if (!removeEntry(path)) {
            r.err = errno;
            r.fault = lastFault;
            return r;
        }
        r = createExclusive(path, flags, mode);
        if (r.ok() || r.err != EEXIST) break;
    }
    r.fault = lastFault;
    return r;
}

}  // namespace cm::platform
