// The watch thread's first look at a file, made without the file's mutex.
//
// A pass compares the whole mapping with the private copy before it takes
// any lock of the file, so that an unchanged file (or the part of a pass
// that finds nothing) never holds up a set of this process.  The look is
// announced while the mutex is held; whoever then changes the mapping or
// the copy (unmap, remap, a new copy, release), always with the mutex held,
// first waits for the look to end.  A look only reads, and ends on its own
// (a file cut under it ends it through the SIGBUS guard), so the wait is
// short and cannot deadlock.  Only the watch thread looks.
#pragma once

namespace cm::storage {

// With the file's mutex held: the look begins.
void beginUnlockedLook(int iFileIndex);
// Without any lock: the look is over.
void endUnlockedLook(int iFileIndex);
// With the file's mutex held, before the mapping or the copy changes.
void waitForUnlockedLook(int iFileIndex);
// A forked child: no look of the parent's watch thread lives on.
void forgetUnlockedLooks();

}  // namespace cm::storage
