// Reads of a data file's mapping that survive the file being cut short.
//
// Another process (or a person with a shell) can truncate a data file while
// a thread of this process is reading its mapping, before any inotify event
// arrives; touching a mapped page past the new end of the file raises
// SIGBUS.  The copies below run with a per-thread guard set: a SIGBUS whose
// address lies inside one of the library's own mappings, on a guarded
// thread, ends the copy and makes it report failure.  Any other SIGBUS is
// passed on to the handler the hosting process had installed before the
// library's first mapping (or gets the default action).  No system call is
// added to the read path: the guard is a sigsetjmp without the signal mask.
#pragma once

#include <cstddef>

namespace cm::storage {

// Installs the SIGBUS handler, once per process.  Called before the first
// mapping is made.
void installMapGuard();

// memcpy from a mapping; false (nothing else defined in dst) when the bytes
// are no longer backed by the file.
bool guardedCopy(void* dst, const void* mapped, size_t n);
// memcmp against a mapping; `diff` gets memcmp's result.  False when cut.
bool guardedCompare(const void* mapped, const void* other, size_t n, int& diff);
// Runs op(arg) with the guard set, for a walk that reads a mapping in many
// small pieces; false when the file was cut under it (op stopped where its
// read met the cut, and must leave its state usable at every read).
bool guardedRun(void (*op)(void*), void* arg);

}  // namespace cm::storage
