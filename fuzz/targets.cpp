#include "targets.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "log/sink.h"
#include "platform/paths.h"
#include "tags/tag_table.h"

namespace cmfuzz {
namespace {

class NullSink final : public cm::log::Sink {
public:
    void write(cm::log::Channel, int, const char*, va_list) override {}
};

class Harness {
public:
    Harness() {
        // tmpfs when there is one: the tag cache is synced at every rebuild.
        const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
        std::string tmpl = std::string(base) + "/cmfuzz.XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) std::abort();
        dir = tmpl;
        std::filesystem::create_directories(dir + "/tmp");
        std::filesystem::create_directories(dir + "/var/AppData/config");
        cm::log::setSink(&sink);
        if (CM_Host_SetRootDirectory(dir.c_str()) != 0 || CM_init(1) != 0) std::abort();
        input = dir + "/input";
        backup = dir + "/backup.txt";
        write(backup, "SOFTWARE_VERSION : 1\nUNIT_NAME : fuzz\nDHCP_DOMAIN_NAME_STR : example.org\nCT_REPORT_CONFIG : 5\n");
        std::atexit([] {
            CM_Exit();
            std::error_code ec;
            std::filesystem::remove_all(instance().dir, ec);
        });
    }
    static Harness& instance() {
        static Harness* h = new Harness;
        return *h;
    }
    static void write(const std::string& path, const uint8_t* data, size_t size) {
        FILE* fp = std::fopen(path.c_str(), "wb");
        if (fp == nullptr) std::abort();
        if (size) std::fwrite(data, 1, size, fp);
        std::fclose(fp);
    }
    static void write(const std::string& path, const std::string& text) {
        write(path, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    NullSink sink;
    std::string dir, input, backup;
};

}  // namespace

void restoreBackup(const uint8_t* data, size_t size) {
    auto& h = Harness::instance();
    Harness::write(h.input, data, size);
    const int rc = CM_RestoreConfig(h.input.c_str(), nullptr);
    if (rc != 0 && rc != 1) std::abort();
}

void restoreFilter(const uint8_t* data, size_t size) {
    auto& h = Harness::instance();
    Harness::write(h.input, data, size);
    const int rc = CM_RestoreConfig(h.backup.c_str(), h.input.c_str());
    if (rc != 0 && rc != 1) std::abort();
}

void loadTagCache(const uint8_t* data, size_t size) {
    auto& h = Harness::instance();
    Harness::write(cm::paths::tagCacheFile(), data, size);
    (void)h;
    // Every defect is rebuilt, and the rebuild can always be written here.
    cm::tags::resetLoadedFlag();
    if (CM_Load_CMTagSortedList() != 1) std::abort();
    int32_t id;
    for (const char* tag : {"UNIT_NAME", "CM_FLAG", "", "ZZZZ", "A"}) CM_FindMatchingCMvarTag(tag, &id);
}

}  // namespace cmfuzz
