// The library's one seam for time, sleeping and randomness.
//
// Every wait of the library (file waits, lock back-off, the watch thread's
// polls, the log throttle) goes through env().  The default implementation
// really sleeps; tests install their own to run long waits in microseconds
// or to record what was asked for.  Install before starting threads that use
// it; the pointer itself is read without a lock.
#pragma once

#include <chrono>
#include <cstdint>

namespace cm::platform {

class Env {
public:
    virtual ~Env() = default;
    // Sleeps the calling thread; an interrupted sleep is not resumed.
    virtual void sleepFor(std::chrono::nanoseconds d) = 0;
    virtual std::chrono::steady_clock::time_point now() = 0;
    // Non-negative pseudo-random number, as random() gives.
    virtual long random() = 0;
};

Env& env();
// Replaces the environment; nullptr restores the real one.  Test support.
void setEnv(Env* e);

inline void sleepMs(long ms) { env().sleepFor(std::chrono::milliseconds(ms)); }
inline void sleepSeconds(long s) { env().sleepFor(std::chrono::seconds(s)); }

// Kernel thread ID of the calling thread.
int tid();

}  // namespace cm::platform
