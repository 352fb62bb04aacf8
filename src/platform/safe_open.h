// The one way the library opens and creates its fixed paths.
//
// The device's processes run as root and some fixed paths lie in a
// world-writable directory, so a path is never trusted to name the file it
// names.  An entry is used only when it is a regular file with one link,
// owned by the effective user or by root and not writable by others; a
// symbolic link in the last component is never followed.  Every descriptor
// is close-on-exec from birth.  This layer only reports what it found:
// callers decide whether to log, remove and recreate, or refuse.
#pragma once

#include <sys/types.h>

namespace cm::platform {

// Why an existing entry was refused.
enum class EntryFault {
    kNone,           // sound (or no entry at all)
    kSymlink,        // a symbolic link
    kNotRegular,     // a directory, device, FIFO or socket
    kManyLinks,      // a regular file with more than one hard link
    kForeignOwner,   // owned by neither the effective user nor root
    kOthersWritable  // writable by users other than its owner and group
};

// A short text for log lines: "is a symbolic link", ...
const char* faultText(EntryFault f);

struct OpenResult {
    int fd = -1;                           // close-on-exec, or -1
    int err = 0;                           // errno when fd < 0 and no entry was refused
    EntryFault fault = EntryFault::kNone;  // set when an entry was found and refused
    off_t size = 0;                        // openExisting: the length the check saw
    dev_t dev = 0;                         // openExisting: the file the check saw
    ino_t ino = 0;
    bool ok() const { return fd >= 0; }
    bool refused() const { return fault != EntryFault::kNone; }
};

// Checks an open descriptor (fstat); kNone when it is sound.  A failing
// fstat reports kNotRegular.
EntryFault checkDescriptor(int fd);

// Checks the entry at path without following or opening it (lstat).
// Returns false with errno set when there is no entry or it cannot be
// looked at; otherwise true, with *fault telling whether it is sound.
bool inspectEntry(const char* path, EntryFault* fault);

// Opens an existing entry.  flags are the access mode plus optional
// O_APPEND; creation and truncation are not accepted here.  A refused entry
// is closed again before return (fd -1, fault set, err 0).
OpenResult openExisting(const char* path, int flags);

// Creates a new file with O_CREAT|O_EXCL|O_NOFOLLOW and sets the mode
// explicitly, whatever the umask.  An existing entry of any kind fails
// with err EEXIST; nothing is followed or reused.
OpenResult createExclusive(const char* path, int flags, mode_t mode);

// Removes the entry at path so that a fresh file can be created there;
// a directory is left alone (the create then fails).  true when it is gone.
bool removeEntry(const char* path);

// Creates the file afresh: removes whatever entry is there and creates
// exclusively.  An entry that reappears in between is removed again, a
// bounded number of times.  fault reports the last entry that was removed
// for being unsound (kNone when there was none or it was sound).
OpenResult replaceWithNew(const char* path, int flags, mode_t mode);

}  // namespace cm::platform
