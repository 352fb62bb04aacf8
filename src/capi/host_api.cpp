// C entry points of the host and test extensions.
#include "configmanager/cm_host.h"
#include "lifecycle/state.h"
#include "platform/paths.h"

extern "C" {

CM_EXPORT int CM_Host_SetRootDirectory(const char* szRoot) {
    if (szRoot == nullptr || cm::lifecycle::started()) return -1;
    return cm::paths::setRoot(szRoot) ? 0 : -1;
}

CM_EXPORT const char* CM_Host_GetRootDirectory(void) { return cm::paths::root(); }

}
