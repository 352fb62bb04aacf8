// Internal logging: the gate's settings and the one message path.
//
// Two message shapes exist.  Prefixed messages name the reporting function
// (and, in the system log, the source module):
//     console  "**ERROR:%s:  text"        system log  "**ERROR:%s:%s:  text"
//     console  "%s:  text"                system log  "..... %s:%s:  text" (debug)
//     console  "%s:  text"                system log  "%s:%s:  text" (others)
// Tagged messages carry their own tag in the text and use the same string on
// both channels.  In both cases a message the gate refuses is never
// formatted, and a written message is followed by the throttle pause.
// "%m" is honoured on both channels: errno is preserved up to the formatting.
//
// Use the macros: CM_LOG(level, "FunctionName", fmt, ...) in a file that
// defines `kLogModule`, and CM_LOG_TAGGED(level, fmt, ...).
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

namespace cm::log {

// Source modules, as named in the system-log form.
enum class Module : uint8_t { Applog, FileAccess, ConfigParam };

// Levels the library's own messages use (category 0x100, severity 3..7).
inline constexpr uint32_t kErr = 259;
inline constexpr uint32_t kWarn = 260;
inline constexpr uint32_t kNotice = 261;
inline constexpr uint32_t kInfo = 262;
inline constexpr uint32_t kDebug = 263;

// Process-wide settings; single words written whole and read without a lock.
extern std::atomic<uint8_t> oLogMode;      // bits 0-6 on/off, bit 7 throttle
extern std::atomic<uint32_t> dwLogFilter;  // bits 0-2 severity, bits 3-31 categories
extern std::atomic<uint8_t> oApplogState;  // owned by the log settings module

inline bool allowed(uint32_t level) {
    const uint32_t mode = oLogMode.load(std::memory_order_relaxed);
    if ((mode & 0x7F) == 0) return false;
    const uint32_t filter = dwLogFilter.load(std::memory_order_relaxed);
    const uint32_t sev = level & 7, cat = level & ~7u;
    const uint32_t fsev = filter & 7, fcat = filter & ~7u;
    if (sev > fsev) return false;
    if (fcat == 0) return true;
    if ((fcat & cat) != 0) return true;
    if (cat == 0 && (filter & 0x10) != 0) return true;
    return sev <= 4;
}

// Writes an already-gated message; then pauses if throttled.
void emitPrefixed(uint32_t level, const char* fn, Module m, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void emitTagged(uint32_t level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The throttle pause (ApplogSleep).
void sleepIfThrottled();

const char* modulePath(Module m);

}  // namespace cm::log

#define CM_LOG(level, fn, ...)                                                  \
    do {                                                                        \
        if (::cm::log::allowed(level)) ::cm::log::emitPrefixed((level), (fn), kLogModule, __VA_ARGS__); \
    } while (0)

#define CM_LOG_TAGGED(level, ...)                                               \
    do {                                                                        \
        if (::cm::log::allowed(level)) ::cm::log::emitTagged((level), __VA_ARGS__); \
    } while (0)
