#include "support/test_support.h"

#include "tags/tag_table.h"

#include <stdarg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "catalogue/catalogue.h"
#include "configmanager/applog.h"
#include "lifecycle/shutdown.h"
#include "log/log.h"
#include "platform/paths.h"
#include "process/state.h"
#include "storage/file_state.h"
#include "storage/open_map.h"
#include "watch/watch_thread.h"

namespace fs = std::filesystem;

namespace cmtest {

TempRoot::TempRoot() {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/cmtest.XXXXXX";
    char* made = mkdtemp(tmpl.data());
    if (made == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = made;
    fs::create_directories(dir_ + "/tmp");
    fs::create_directories(dir_ + "/var/AppData/config");
    cm::paths::setRoot(dir_);
}

TempRoot::~TempRoot() {
    cm::paths::setRoot("/nonexistent-test-root");
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

CaptureSink::CaptureSink() { cm::log::setSink(this); }
CaptureSink::~CaptureSink() { cm::log::setSink(nullptr); }

void CaptureSink::write(cm::log::Channel ch, int priority, const char* fmt, va_list ap) {
    char buf[4096];
    vsnprintf(buf, sizeof buf, fmt, ap);
    std::lock_guard<std::mutex> g(mu_);
    lines_.push_back({ch, priority, buf});
}

std::vector<CaptureSink::Line> CaptureSink::lines() const {
    std::lock_guard<std::mutex> g(mu_);
    return lines_;
}

int CaptureSink::count(const std::string& fragment) const {
    std::lock_guard<std::mutex> g(mu_);
    int n = 0;
    for (const auto& l : lines_)
        if (l.text.find(fragment) != std::string::npos) ++n;
    return n;
}

void CaptureSink::clear() {
    std::lock_guard<std::mutex> g(mu_);
    lines_.clear();
}

FastEnv::FastEnv() { cm::platform::setEnv(this); }
FastEnv::~FastEnv() { cm::platform::setEnv(nullptr); }

void FastEnv::sleepFor(std::chrono::nanoseconds d) {
    {
        std::lock_guard<std::mutex> g(mu_);
        sleeps_.push_back(d);
    }
    if (onSleep) onSleep(d);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
}

std::vector<std::chrono::nanoseconds> FastEnv::sleeps() const {
    std::lock_guard<std::mutex> g(mu_);
    return sleeps_;
}

void resetLibraryState() {
    using namespace cm;
    lifecycle::cleanUp();  // descriptors, mappings, the inotify descriptor
    tags::resetLoadedFlag();  // the next lookup by tag loads the cache again
    // A watch thread must see the kill flag and end before it is cleared.
    watch::waitForStaleWatchThread();
    // Only now: a watch thread still logging reads these.
    log::oLogMode = 1;
    log::dwLogFilter = 5;
    __atomic_store_n(&g_iConsoleLog, 0, __ATOMIC_RELAXED);
    for (int i = 0; i < storage::kNumFiles; ++i) {
        storage::dropPrevData(i);
        storage::dwLenActualFile[i] = storage::dwLenCorrectFile[i] = 0;
        storage::bBadFile[i] = 0;
        storage::inotifywd[i] = -1;
        const auto& file = catalogue::sConfigItemList[i];
        for (int r = 0; r < file.iNumItems; ++r) file.pItems[r].setRecordOffset(catalogue::kNoRecord);
    }
    process::ucCMInitialised = 0;
    process::bCMmaster = 0;
    process::s_bKillCM = 0;
}

bool waitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return cond();
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

}  // namespace cmtest
