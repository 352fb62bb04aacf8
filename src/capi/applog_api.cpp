// C entry points of the application log settings and the remote log.
#include <cstdarg>

#include "applog/remote_log.h"
#include "applog/settings.h"
#include "configmanager/applog_settings.h"

using namespace cm;

extern "C" {

CM_EXPORT int Applog_init(int32_t logModeId, int32_t logFilterId) { return applog::applogInit(logModeId, logFilterId); }
// fnActionConsoleLog, LogModeChanged, LogFilterChanged and RemoteLogChanged
// are defined with the settings they follow (src/applog/).

CM_EXPORT void RemoteLog(uint32_t priority, long code, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    applog::vRemoteLog(priority, code, format, ap);
    va_end(ap);
}

}
