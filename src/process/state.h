// Process-wide state of the library: the start flag, the master role, the
// kill flag of the watch thread, the inotify descriptor and the two
// process-wide mutexes.  It sits below storage and the watch thread, which
// both read it; only start-up and shutdown change the flags.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace cm::process {

inline constexpr uint8_t kStarted = 2;  // value of ucCMInitialised once started

extern std::atomic<uint8_t> ucCMInitialised;  // 0 not started, 2 started
extern std::atomic<uint8_t> bCMmaster;        // this process creates and repairs files
extern std::atomic<uint8_t> s_bKillCM;        // tells the watch thread to end
extern std::atomic<int> inotifyfd;            // the process's inotify descriptor, -1 when none
// A read-only start: files opened for reading only, read locks, nothing
// created and nothing synced.
extern std::atomic<uint8_t> bReadOnly;

// Recursive; serialises the full start and the get and set operations.
extern pthread_mutex_t mCMMutex;
// Guards the interest registry; callbacks run while it is held.
extern pthread_mutex_t mCMcallback;

// In a forked child: makes afresh the two mutexes when a thread of the
// parent held them at the fork.
void renewLocksAfterFork();

inline bool started() { return ucCMInitialised.load(std::memory_order_relaxed) >= kStarted; }
inline bool isMaster() { return bCMmaster.load(std::memory_order_relaxed) != 0; }
inline bool readOnly() { return bReadOnly.load(std::memory_order_relaxed) != 0; }
inline bool killRequested() { return s_bKillCM.load(std::memory_order_relaxed) != 0; }

}  // namespace cm::process
