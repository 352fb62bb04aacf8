#include "support/test_support.h"

#include <stdarg.h>

#include "configmanager/applog.h"
#include "lifecycle/shutdown.h"
#include "support/child_link.h"
#include "tags/tag_table.h"
#include "watch/watch_thread.h"

namespace cmtest {

TempRoot::TempRoot() : dir_(cmcheck::makeRoot("cmtest")) {
    if (dir_.empty()) throw std::runtime_error("cannot make a test root");
    cm::paths::setRoot(dir_);
}

TempRoot::~TempRoot() {
    cm::paths::setRoot("/nonexistent-test-root");
    cmcheck::removeRoot(dir_);
}

void CaptureSink::write(cm::log::Channel ch, int priority, const char* fmt, va_list ap) {
    char buf[4096];
    vsnprintf(buf, sizeof buf, fmt, ap);
    if (onLine_) onLine_(buf);
    std::lock_guard<std::mutex> g(mu_);
    lines_.push_back({ch, priority, buf});
}

std::vector<CaptureSink::Line> CaptureSink::lines() const {
    std::lock_guard<std::mutex> g(mu_);
    return lines_;
}

int CaptureSink::count(const std::string& fragment, int priority) const {
    int n = 0;
    for (const auto& l : lines())
        n += l.text.find(fragment) != std::string::npos &&
             (priority < 0 || (l.priority == priority && l.channel == cm::log::Channel::Syslog));
    return n;
}

void CaptureSink::clear() {
    std::lock_guard<std::mutex> g(mu_);
    lines_.clear();
}

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

int FastEnv::sleepsOf(std::chrono::nanoseconds d) const {
    int n = 0;
    for (auto s : sleeps()) n += s == d;
    return n;
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

std::string inChild(const std::function<int()>& body, unsigned seconds) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) alarm(seconds), _exit(body());
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

void rewrite(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0) << path;
    EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

std::string hex(const void* bytes, size_t n) {
    static const char* d = "0123456789ABCDEF";
    std::string s = "0x";
    for (size_t k = 0; k < n; ++k) s += {d[static_cast<const uint8_t*>(bytes)[k] >> 4], d[static_cast<const uint8_t*>(bytes)[k] & 15]};
    return s;
}

uint32_t recordOffset(int32_t id) {
    cm::catalogue::Location loc{};
    if (!cm::catalogue::locate(id, loc)) return 0;
    uint32_t off = 4;
    for (int r = 0; r < loc.iVarID_Rel; ++r) off += cm::catalogue::entry(loc.iFileIndex, r).wDataSize + 4;
    return off;
}

const cm::catalogue::DataAccessStruct& entryOf(int32_t id) {
    cm::catalogue::Location loc{};
    cm::catalogue::locate(id, loc);
    return cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
}

std::vector<Var> allVars() {
    std::vector<Var> v;
    for (int f = 0; f < CM_NUM_FILES; ++f)
        for (int r = 0; r < cm::catalogue::sConfigItemList[f].iNumItems; ++r) {
            const auto& e = cm::catalogue::sConfigItemList[f].pItems[r];
            v.push_back({cm::catalogue::sConfigItemList[f].iFirstVarID + r, f, r, &e, e.szVarTag});
        }
    return v;
}

}  // namespace cmtest
