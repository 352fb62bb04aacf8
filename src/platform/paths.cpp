#include "platform/paths.h"

#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>


namespace cm::paths {
namespace {

struct Resolved {
    char root[PATH_MAX] = "";  // without trailing '/'; empty means "/"
    char lockFile[PATH_MAX] = "";
    char tagCache[PATH_MAX] = "";
    char tagCacheTemp[PATH_MAX] = "";
    bool ready = false;
};

Resolved g_paths;
std::once_flag g_defaultOnce;
std::atomic<unsigned> g_generation{0};

bool join(char* out, std::string_view base, std::string_view devicePath) {
    if (base.size() + devicePath.size() >= PATH_MAX) return false;
    std::memcpy(out, base.data(), base.size());
    std::memcpy(out + base.size(), devicePath.data(), devicePath.size());
    out[base.size() + devicePath.size()] = '\0';
    return true;
}

bool build(std::string_view root) {
    while (!root.empty() && root.back() == '/') root.remove_suffix(1);
    Resolved next;
    if (root.size() >= PATH_MAX) return false;
    std::memcpy(next.root, root.data(), root.size());
    next.root[root.size()] = '\0';
    if (!join(next.lockFile, root, kDefaultsLockFile)) return false;
    if (!join(next.tagCache, root, kTagCacheFile) || !join(next.tagCacheTemp, root, kTagCacheTempFile)) return false;
    next.ready = true;
    g_paths = next;
    g_generation.fetch_add(1, std::memory_order_release);
    return true;
}

const Resolved& paths() {
    std::call_once(g_defaultOnce, [] {
        if (!g_paths.ready) build("");
    });
    return g_paths;
}

}  // namespace

bool setRoot(std::string_view root) {
    paths();
    return build(root);
}

const char* root() {
    const char* r = paths().root;
    return r[0] ? r : "/";
}

bool resolve(char* out, std::string_view devicePath) { return join(out, paths().root, devicePath); }

unsigned generation() {
    paths();
    return g_generation.load(std::memory_order_acquire);
}

const char* defaultsLockFile() { return paths().lockFile; }

const char* tagCacheFile() { return paths().tagCache; }
const char* tagCacheTempFile() { return paths().tagCacheTemp; }

}  // namespace cm::paths
