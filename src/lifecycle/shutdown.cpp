#include "lifecycle/shutdown.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "platform/env.h"
#include "process/state.h"
#include "storage/release.h"
#include "watch/watch_thread.h"

namespace cm::lifecycle {
namespace {
constexpr auto kLogModule = log::Module::ConfigParam;
}

void cleanUp() {
    process::s_bKillCM = 1;
    // The watch thread may be diffing a mapping or running a callback that
    // reads one: it ends before the files go.  (On the thread itself, or when
    // a callback does not return, the files are still released only under
    // their mutexes, so no reader of this process is left inside a mapping.)
    watch::joinWatchThread(true);
    storage::releaseResources();
}

void kill() {
    process::s_bKillCM = 1;
    watch::wakeWatchThread();
    CM_LOG_TAGGED(5, "CM process termination request - tidy services & exit...\n");
    platform::sleepSeconds(1);
    cleanUp();
}

void errQuit(const char* szWhat, int iLine) {
    const int e = errno;
    CM_LOG_TAGGED(log::kErr, "**ERROR: FATAL ERROR %s in line %d of file '%s', errno=%d '%s'\n", szWhat, iLine,
                  log::modulePath(log::Module::FileAccess), e, std::strerror(e));
    storage::releaseResources(true);
    platform::sleepSeconds(1);
    std::exit(1);
}

}  // namespace cm::lifecycle
