// Messages that go straight to the system log: not through the gate, not
// throttled, and never to the console whatever its setting.  Used where the
// caller is typically a tool whose own output nobody watches.
#pragma once

namespace cm::log {

void syslogDirect(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace cm::log
