/*
 * Application log settings and remote log events.
 *
 * Applog_init binds the process's log gate (applog.h) to its own log-mode
 * and log-filter variables and to the shared CONSOLE_LOG variable: from then
 * on a change of any of them, made by any process, changes this process's
 * logging at once.  Call it once, after the library is started.
 *
 * Log modes: 0 off, 1 on, 2 'once' (on for this run; Applog_init writes 0
 * back for the next run), and bit 7 (128) adds a 100 ms pause after every
 * written message.
 *
 * RemoteLog writes one event to the system log, whatever the gate and the
 * console setting say:
 *   ^^VX Code=<code, 6 digits>;<text>;Device=Zr440;Unit Name=<UNIT_NAME>;
 *   IP Address=<addresses or "no ip address">;MAC=<MAC1_ADDRESS>;Seq No=<5 digits>
 * (one line, at most 1025 characters).  <text> is the caller's format
 * expanded with its arguments; the identity texts are printed as they
 * stand, a '%' in them included.  Sequence numbers run 0..99999 and wrap.
 */
#ifndef CONFIGMANAGER_APPLOG_SETTINGS_H
#define CONFIGMANAGER_APPLOG_SETTINGS_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* 0 when every registration succeeded; -1 when called a second time;
 * otherwise non-zero. */
CM_EXPORT int Applog_init(int32_t logModeId, int32_t logFilterId);

/* The change callbacks Applog_init registers (each returns 0). */
CM_EXPORT int fnActionConsoleLog(int32_t iVarID_Abs);
CM_EXPORT int LogModeChanged(int32_t iVarID_Abs);
CM_EXPORT int LogFilterChanged(int32_t iVarID_Abs);
CM_EXPORT int RemoteLogChanged(int32_t iVarID_Abs);

/* Sends one remote log event at priority (priority & 7).  Nothing is sent
 * before Applog_init. */
CM_EXPORT void RemoteLog(uint32_t priority, long code, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

CM_EXTERN_C_END

#endif
