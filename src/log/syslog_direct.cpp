#include "log/syslog_direct.h"

#include <cerrno>
#include <cstdarg>

#include "log/sink.h"

namespace cm::log {

void syslogDirect(int priority, const char* fmt, ...) {
    const int savedErrno = errno;
    va_list ap;
    va_start(ap, fmt);
    emit(Channel::Syslog, priority & 7, fmt, ap);
    va_end(ap);
    errno = savedErrno;
}

}  // namespace cm::log
