// Shared test fixtures: a private file tree, a captured log, a fast clock,
// forked children and a few file helpers.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/lookup.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "log/log.h"
#include "log/sink.h"
#include "platform/env.h"
#include "platform/paths.h"
#include "process/state.h"
#include "storage/open_map.h"
#include "storage/record.h"
#include "storage/file_state.h"

using namespace std::chrono_literals;
using namespace std::string_literals;

namespace cmtest {

// A fresh tree (tmp/, var/AppData/config/): the library's root while it lives.
class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    const std::string& dir() const { return dir_; }
    std::string path(const std::string& devicePath) const { return dir_ + devicePath; }

private:
    std::string dir_;
};

// Captures every written log message, formatted, with its channel and priority.
class CaptureSink : public cm::log::Sink {
public:
    struct Line {
        cm::log::Channel channel;
        int priority;
        std::string text;
    };
    // `onLine` runs on each line as it is written.
    explicit CaptureSink(std::function<void(const std::string&)> onLine = {}) : onLine_(std::move(onLine)) {
        cm::log::setSink(this);
    }
    ~CaptureSink() override { cm::log::setSink(nullptr); }
    void write(cm::log::Channel ch, int priority, const char* fmt, va_list ap) override;
    std::vector<Line> lines() const;
    bool contains(const std::string& fragment) const { return count(fragment) > 0; }
    // Lines holding `fragment`; with priority >= 0 only system-log lines of that priority.
    int count(const std::string& fragment, int priority = -1) const;
    void clear();

private:
    mutable std::mutex mu_;
    std::vector<Line> lines_;
    const std::function<void(const std::string&)> onLine_;
};

// Sleeps a token real time (polling threads still yield), recording every
// requested duration; onSleep, when set, runs before each sleep.
class FastEnv final : public cm::platform::Env {
public:
    FastEnv() { cm::platform::setEnv(this); }
    ~FastEnv() override { cm::platform::setEnv(nullptr); }
    void sleepFor(std::chrono::nanoseconds d) override;
    std::chrono::steady_clock::time_point now() override { return std::chrono::steady_clock::now(); }
    long random() override { return random_ ? random_() : 0; }
    int shell(const char* command) override { return commands.emplace_back(command), Env::shell(command); }
    std::vector<std::string> commands;  // every shell command run, in order
    std::vector<std::chrono::nanoseconds> sleeps() const;
    int sleepsOf(std::chrono::nanoseconds d) const;
    std::function<void(std::chrono::nanoseconds)> onSleep;
    std::function<long()> random_;

private:
    mutable std::mutex mu_;
    std::vector<std::chrono::nanoseconds> sleeps_;
};

// Returns the library's process state to "never started": files closed and
// unmapped, offsets unset, flags and log settings as at first.
void resetLibraryState();

// A private root and a captured log; the library reset before and stopped after each test.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetLibraryState();
        cm::paths::setRoot(root.dir());
    }
    void TearDown() override {
        CM_Exit();
        resetLibraryState();
    }
    TempRoot root;
    CaptureSink sink;
};

// Polls `cond` every millisecond until it holds or `timeout` passes.
bool waitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Runs `body` in a forked child with an alarm: "exit status N" or "killed by signal N".
std::string inChild(const std::function<int()>& body, unsigned seconds = 10);
inline const std::string kChildOk = "exit status 0";

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);
// Overwrites a file in place with one write (one change event).
void rewrite(const std::string& path, const std::string& bytes);
std::vector<std::string> lines(const std::string& text);
std::string hex(const void* bytes, size_t n);  // "0x" and upper-case digits
// Offset of a variable's record in its file, from the catalogue's sizes.
uint32_t recordOffset(int32_t id);
const cm::catalogue::DataAccessStruct& entryOf(int32_t id);
// Every catalogue variable in ID order.
struct Var {
    int32_t id;
    int file, rel;
    const cm::catalogue::DataAccessStruct* e;
    std::string tag;
};
std::vector<Var> allVars();

}  // namespace cmtest
