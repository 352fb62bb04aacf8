// The gate's settings, the message path and the exported gate functions.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "configmanager/applog.h"
#include "log/log.h"
#include "log/sink.h"
#include "platform/env.h"

int g_iConsoleLog = 0;

namespace cm::log {

std::atomic<uint8_t> oLogMode{1};
std::atomic<uint32_t> dwLogFilter{5};
std::atomic<uint8_t> oApplogState{0};

namespace {

constexpr size_t kMaxFormat = 1024;

// g_iConsoleLog is a plain exported int; it is written whole by the log
// settings' callback on the watch thread, so it is read as one atomic word.
Channel channel() { return __atomic_load_n(&g_iConsoleLog, __ATOMIC_RELAXED) == 1 ? Channel::Console : Channel::Syslog; }

void writeFormat(uint32_t level, const char* fmt, va_list ap) {
    emit(channel(), static_cast<int>(level & 7), fmt, ap);
}

}  // namespace

const char* modulePath(Module m) {
    switch (m) {
        case Module::Applog: return "../src/Applog.c";
        case Module::FileAccess: return "../src/CM_FileAccess.c";
        case Module::ConfigParam: return "../src/configparam.c";
    }
    return "";
}

void emitPrefixed(uint32_t level, const char* fn, Module m, const char* fmt, ...) {
    const int savedErrno = errno;
    const uint32_t sev = level & 7;
    const bool console = channel() == Channel::Console;
    // The prefix is substituted here and the caller's format appended, so the
    // sink sees one format string (syslog needs one call per message).
    // Function names and module paths never contain '%'.
    char full[kMaxFormat];
    const char* tag = sev == 3 ? "**ERROR:" : (sev == 7 && !console ? "..... " : "");
    int n = console ? std::snprintf(full, sizeof full, "%s%s:  %s", tag, fn, fmt)
                    : std::snprintf(full, sizeof full, "%s%s:%s:  %s", tag, fn, modulePath(m), fmt);
    if (n < 0) return;
    va_list ap;
    va_start(ap, fmt);
    errno = savedErrno;
    writeFormat(level, full, ap);
    va_end(ap);
    sleepIfThrottled();
    errno = savedErrno;
}

void emitTagged(uint32_t level, const char* fmt, ...) {
    const int savedErrno = errno;
    va_list ap;
    va_start(ap, fmt);
    writeFormat(level, fmt, ap);
    va_end(ap);
    sleepIfThrottled();
    errno = savedErrno;
}

void sleepIfThrottled() {
    if (oLogMode.load(std::memory_order_relaxed) & 0x80) platform::env().sleepFor(std::chrono::milliseconds(100));
}

}  // namespace cm::log

extern "C" {

CM_EXPORT int ApplogAllowed(uint32_t level) { return cm::log::allowed(level) ? 1 : 0; }

CM_EXPORT void ApplogSleep(void) { cm::log::sleepIfThrottled(); }

CM_EXPORT void Applog_default(uint32_t filter) { cm::log::dwLogFilter.store(filter, std::memory_order_relaxed); }

}
