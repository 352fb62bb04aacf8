// Where written log messages go.  The default sink prints console messages
// to standard output and passes the others to syslog(3) (the library never
// opens the system log itself).  Tests install a sink that captures both.
#pragma once

#include <cstdarg>

namespace cm::log {

enum class Channel { Console, Syslog };

class Sink {
public:
    virtual ~Sink() = default;
    // fmt is the complete format string (prefix included); priority is the
    // syslog priority (level & 7).
    virtual void write(Channel ch, int priority, const char* fmt, va_list ap) = 0;
};

// Writes one message through the sink in place.
void emit(Channel ch, int priority, const char* fmt, va_list ap);
// Replaces the sink; nullptr restores the default.  Returns once no thread
// is still writing through the sink it replaced, so that the caller may then
// destroy that one.  Never called from inside a sink's write.
void setSink(Sink* s);

}  // namespace cm::log
