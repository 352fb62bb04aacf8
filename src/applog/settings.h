// The application log settings: the log gate's mode, filter and console
// switch follow configuration variables (the process's own log-mode and
// log-filter variables and the shared CONSOLE_LOG) through change callbacks.
#pragma once

#include <cstdint>

namespace cm::applog {

// oApplogState values.
inline constexpr uint8_t kNotInitialised = 0;
inline constexpr uint8_t kInitialised = 1;
// The 'once' mode was just written back as off; the notification of that
// write is to be ignored so that this run keeps logging.
inline constexpr uint8_t kOnceTurnedOff = 2;

// Log mode value: on for this run only.
inline constexpr uint8_t kLogModeOnce = 2;

int applogInit(int32_t logModeId, int32_t logFilterId);

int fnActionConsoleLog(int32_t varId);
int logModeChanged(int32_t varId);
int logFilterChanged(int32_t varId);

}  // namespace cm::applog
