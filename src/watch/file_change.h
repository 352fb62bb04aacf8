// What the watch thread does for one file in one pass.
#pragma once

namespace cm::watch {

// The file was deleted, replaced or moved: drop it and set it up afresh,
// then notify every variable of it.
void handleDeletedFile(int iFileIndex);
// The file was modified or created: decide by its length whether to diff
// it, set it up again, or leave it to the master.
void handleModifiedFile(int iFileIndex);
// Diffs a same-length file against its private copy and notifies the
// changed variables, in ascending ID order, after the file lock is released.
void actionFileChange(int iFileIndex);
// True (once) when a diff waited for another process with the file's modify
// events off: whatever else such an event would have brought (a change of
// length) is looked at in a pass of its own.
bool takePassAgain(int iFileIndex);

}  // namespace cm::watch
