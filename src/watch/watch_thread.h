// The watch thread: one per process started with the full start.  It reads
// inotify events for the ten data files, diffs changed files against the
// private copies and notifies the changed variables, sets up again files
// that were deleted, replaced or changed length, and waits while another
// process loads all defaults.
#pragma once

namespace cm::watch {

// Waits for the thread of an earlier start to end (it was told to by the
// stop), so that a restarted library never shares its files with it.
void waitForStaleWatchThread();
// Wakes the thread and waits for it to end; `bounded` gives up after 10 s
// (a callback that does not return).  True when no thread is left running;
// false when called on the thread itself or when the wait ran out.
bool joinWatchThread(bool bounded);
// True on the watch thread (in a callback, for instance).
bool onWatchThread();
// In a forked child: forgets the parent's thread and its wake-up pipe.
void forgetThreadAfterFork();
// Starts the thread on the current inotify descriptor; pthread_create's
// result.  The thread calls `firstAct` (if any) before it logs anything or
// reads an event: work the starter hands over rather than wait for.
int startWatchThread(void (*firstAct)() = nullptr);

// Wakes a thread blocked waiting for events so that it sees the kill flag.
void wakeWatchThread();

// The thread body (CM_ReadThread); the argument is ignored.
void* readThread(void* arg);

}  // namespace cm::watch
