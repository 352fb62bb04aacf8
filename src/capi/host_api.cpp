// C entry points of the host and test extensions.
#include "configmanager/cm_host.h"
#include "platform/env.h"
#include "platform/paths.h"
#include "process/state.h"

#include <climits>
#include <cstdlib>
#include <cstring>

extern "C" {

namespace {

// A root other than the device's own must be absolute and must not be the
// device's "/" in disguise ("/tmp/..", "//"): a tool meant to work on a copy
// of the tree would otherwise change the device's real files.
bool acceptableRoot(const char* szRoot) {
    if (szRoot[0] == '\0' || std::strcmp(szRoot, "/") == 0) return true;
    if (szRoot[0] != '/') return false;
    char resolved[PATH_MAX];
    return realpath(szRoot, resolved) == nullptr || std::strcmp(resolved, "/") != 0;
}

}  // namespace

CM_EXPORT int CM_Host_SetRootDirectory(const char* szRoot) {
    if (szRoot == nullptr || cm::process::started() || !acceptableRoot(szRoot)) return -1;
    return cm::paths::setRoot(szRoot) ? 0 : -1;
}

CM_EXPORT const char* CM_Host_GetRootDirectory(void) { return cm::paths::root(); }

CM_EXPORT int CM_Host_QueueName(const char* szDeviceName, char* szOut, int iSize) {
    if (szDeviceName == nullptr || szOut == nullptr || iSize <= 0) return -1;
    const std::string name = cm::platform::queueName(szDeviceName);
    if (name.size() >= static_cast<size_t>(iSize)) return -1;
    std::memcpy(szOut, name.c_str(), name.size() + 1);
    return 0;
}

}
