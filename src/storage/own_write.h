// This process's record writes as its own watch thread sees them.
//
// A stand-alone record write is followed by the check-word write, and each
// raises a modify event in every watcher, this process's watch thread
// included.  While a record write of this process is under way and its
// check-word write is still to come, a pass for that file would only wait
// for the writer's file mutex and then find what the next event finds
// anyway; the watch thread leaves the file to the pass that next event
// brings.  When no such write follows after all (the record or the check
// word could not be written), the writer asks the thread for the pass
// itself, so a change is never left unseen.
//
// Only writers that hold the file's mutex use begin/eventFollows/
// noEventFollows, so at most one write per file is under way at a time.
#pragma once

namespace cm::storage::ownwrite {

// Writer side, with the file's mutex held.
void begin(int iFileIndex);          // just before the record write
void eventFollows(int iFileIndex);   // just before the check-word write
void noEventFollows(int iFileIndex); // instead of it, or after it failed

// Asks the watch thread for a pass of the file (a hold that kept the
// file's modify events out and wrote nothing, so no event follows).
void askPass(int iFileIndex);

// Watch-thread side.  True when the file's pass may be left to the event
// of a check-word write still to come.
bool leaveToNextEvent(int iFileIndex);
// True while a record write of this process is under way on the file.
bool underWay(int iFileIndex);
// True (once) when a pass left to a following event must run after all.
bool takeRedo(int iFileIndex);
// True while a pass of the file is left to a following event (for tests).
bool passLeft(int iFileIndex);

// How a writer wakes the watch thread for a redo (set by the thread's owner).
void setWake(void (*wake)());
// Forgets every write under way (a forked child, a fresh start).
void reset();

}  // namespace cm::storage::ownwrite
