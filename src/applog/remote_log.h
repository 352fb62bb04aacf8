// Remote log events: one-line system-log records with a fixed layout that
// carry the unit's identity (unit name, current addresses, MAC address) and
// a sequence number, for forwarding off the device.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace cm::applog {

// Sends one event; nothing before the log settings are initialised.
void remoteLog(uint32_t priority, long code, const char* format, ...) __attribute__((format(printf, 3, 4)));
void vRemoteLog(uint32_t priority, long code, const char* format, va_list ap);

// Change callback of the identity variables: refreshes the identity texts.
int remoteLogChanged(int32_t iVarID_Abs);

// Highest sequence number; the one after it is 0.
inline constexpr uint32_t kMaxSeqNo = 99999;
// Test support: the sequence number of the next event.
void setNextSeqNo(uint32_t seq);

}  // namespace cm::applog
