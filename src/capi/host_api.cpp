// C entry points of the host and test extensions.
#include "configmanager/cm_host.h"
#include "platform/paths.h"
#include "process/state.h"

extern "C" {

CM_EXPORT int CM_Host_SetRootDirectory(const char* szRoot) {
    if (szRoot == nullptr || cm::process::started()) return -1;
    return cm::paths::setRoot(szRoot) ? 0 : -1;
}

CM_EXPORT const char* CM_Host_GetRootDirectory(void) { return cm::paths::root(); }

}
