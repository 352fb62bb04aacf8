#include "platform/paths.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "catalogue/catalogue.h"

namespace cm::paths {
namespace {

struct Resolved {
    char root[PATH_MAX] = "";  // without trailing '/'; empty means "/"
    char files[catalogue::kNumFiles][PATH_MAX] = {};
    char lockFile[PATH_MAX] = "";
    char tagCache[PATH_MAX] = "";
    char tagCacheTemp[PATH_MAX] = "";
    bool ready = false;
};

Resolved g_paths;
std::once_flag g_defaultOnce;

bool join(char* out, std::string_view base, std::string_view devicePath) {
    int n = std::snprintf(out, PATH_MAX, "%.*s%.*s", static_cast<int>(base.size()), base.data(),
                          static_cast<int>(devicePath.size()), devicePath.data());
    return n >= 0 && n < PATH_MAX;
}

bool build(std::string_view root) {
    while (!root.empty() && root.back() == '/') root.remove_suffix(1);
    Resolved next;
    if (root.size() >= PATH_MAX) return false;
    std::memcpy(next.root, root.data(), root.size());
    next.root[root.size()] = '\0';
    for (int i = 0; i < catalogue::kNumFiles; ++i)
        if (!join(next.files[i], root, catalogue::sConfigItemList[i].szPath)) return false;
    if (!join(next.lockFile, root, kDefaultsLockFile)) return false;
    if (!join(next.tagCache, root, kTagCacheFile) || !join(next.tagCacheTemp, root, kTagCacheTempFile)) return false;
    next.ready = true;
    g_paths = next;
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

const char* dataFile(int iFileIndex) { return paths().files[iFileIndex]; }

const char* defaultsLockFile() { return paths().lockFile; }

const char* tagCacheFile() { return paths().tagCache; }
const char* tagCacheTempFile() { return paths().tagCacheTemp; }

}  // namespace cm::paths
