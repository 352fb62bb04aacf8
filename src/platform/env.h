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
#include <string>
#include <string_view>

namespace cm::platform {

class Env {
public:
    virtual ~Env() = default;
    // Sleeps the calling thread; an interrupted sleep is not resumed.
    virtual void sleepFor(std::chrono::nanoseconds d) = 0;
    virtual std::chrono::steady_clock::time_point now() = 0;
    // Non-negative pseudo-random number, as random() gives.
    virtual long random() = 0;
    // Runs a command through the system shell, as system() does, and returns
    // its result.  Tests override it to record the commands of the factory
    // reset (and may still run them inside their own root).
    virtual int shell(const char* command);
};

Env& env();
// Replaces the environment; nullptr restores the real one.  Test support.
void setEnv(Env* e);

inline void sleepMs(long ms) { env().sleepFor(std::chrono::milliseconds(ms)); }
inline void sleepSeconds(long s) { env().sleepFor(std::chrono::seconds(s)); }

// Kernel thread ID of the calling thread.
int tid();

// The POSIX message queue name to open for a device queue name such as
// "/CMSIF_InputMessages".  Under the root directory "/" that is the name
// itself; under any other root the name gets a prefix derived from the root
// ("/cm<16 hex digits>.CMSIF_InputMessages"), so that processes sharing a
// root share queues and nothing else does.
std::string queueName(std::string_view deviceName);

}  // namespace cm::platform
