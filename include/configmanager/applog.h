/*
 * The log gate.  Every message of the configuration manager passes
 * ApplogAllowed() first; a message that passes goes to standard output when
 * g_iConsoleLog is 1 and to the system log otherwise, and is followed by
 * ApplogSleep().
 *
 * A level holds the severity (0 emergency .. 7 debug) in bits 0-2 and
 * category bits above.  The gate reads the process-wide log mode and filter
 * without locking and may be called from any thread.
 */
#ifndef CONFIGMANAGER_APPLOG_H
#define CONFIGMANAGER_APPLOG_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Output channel: exactly 1 selects the console, anything else the system log. */
CM_EXPORT extern int g_iConsoleLog;

/* 1 when a message of this level is to be written, 0 when not.  No side effects. */
CM_EXPORT int ApplogAllowed(uint32_t level);

/* Pauses the calling thread 100 ms when the log mode's throttle bit (0x80) is set. */
CM_EXPORT void ApplogSleep(void);

/* Stores a new log filter (severity in bits 0-2, category mask above). */
CM_EXPORT void Applog_default(uint32_t filter);

CM_EXTERN_C_END

#endif
