// C entry points of the application log settings and the remote log.
#include <cstdarg>

#include "applog/remote_log.h"
#include "applog/settings.h"
#include "configmanager/applog_settings.h"

using namespace cm;

extern "C" {

CM_EXPORT int Applog_init(int32_t logModeId, int32_t logFilterId) { return applog::applogInit(logModeId, logFilterId); }
CM_EXPORT int fnActionConsoleLog(int32_t id) { return applog::fnActionConsoleLog(id); }
CM_EXPORT int LogModeChanged(int32_t id) { return applog::logModeChanged(id); }
CM_EXPORT int LogFilterChanged(int32_t id) { return applog::logFilterChanged(id); }
CM_EXPORT int RemoteLogChanged(int32_t id) { return applog::remoteLogChanged(id); }

CM_EXPORT void RemoteLog(uint32_t priority, long code, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    applog::vRemoteLog(priority, code, format, ap);
    va_end(ap);
}

}
