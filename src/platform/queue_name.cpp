// Message queue names under a root directory other than "/".
#include <cstdio>
#include <cstring>

#include "platform/env.h"
#include "platform/paths.h"

namespace cm::platform {

std::string queueName(std::string_view deviceName) {
    const char* root = paths::root();
    if (std::strcmp(root, "/") == 0) return std::string(deviceName);
    // FNV-1a of the root: short, stable across processes, and free of '/'.
    uint64_t h = 0xcbf29ce484222325ull;
    for (const char* p = root; *p; ++p) {
        h ^= static_cast<unsigned char>(*p);
        h *= 0x100000001b3ull;
    }
    char prefix[24];
    std::snprintf(prefix, sizeof prefix, "/cm%016llx.", static_cast<unsigned long long>(h));
    if (!deviceName.empty() && deviceName.front() == '/') deviceName.remove_prefix(1);
    return std::string(prefix) + std::string(deviceName);
}

}  // namespace cm::platform
