// Shared test fixtures: a private file tree, a captured log, a fast clock.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "log/sink.h"
#include "platform/env.h"

namespace cmtest {

// A fresh directory tree (tmp/, var/AppData/config/) used as the library's
// root for the life of the object; removed afterwards.
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
class CaptureSink final : public cm::log::Sink {
public:
    struct Line {
        cm::log::Channel channel;
        int priority;
        std::string text;
    };
    CaptureSink();
    ~CaptureSink() override;
    void write(cm::log::Channel ch, int priority, const char* fmt, va_list ap) override;
    std::vector<Line> lines() const;
    bool contains(const std::string& fragment) const { return count(fragment) > 0; }
    int count(const std::string& fragment) const;
    void clear();

private:
    mutable std::mutex mu_;
    std::vector<Line> lines_;
};

// Sleeps only a token real time (so polling threads still yield) and records
// every requested duration.  onSleep, when set, runs before each sleep.
class FastEnv final : public cm::platform::Env {
public:
    FastEnv();
    ~FastEnv() override;
    void sleepFor(std::chrono::nanoseconds d) override;
    std::chrono::steady_clock::time_point now() override { return std::chrono::steady_clock::now(); }
    long random() override { return random_ ? random_() : 0; }
    std::vector<std::chrono::nanoseconds> sleeps() const;
    std::function<void(std::chrono::nanoseconds)> onSleep;
    std::function<long()> random_;

private:
    mutable std::mutex mu_;
    std::vector<std::chrono::nanoseconds> sleeps_;
};

// Returns the library's process state to "never started": files closed and
// unmapped, record offsets unset, flags cleared, log settings at their
// initial values.  For fixtures that run many starts in one process.
void resetLibraryState();

// Polls `cond` every millisecond until it holds or `timeout` passes.
bool waitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout = std::chrono::seconds(10));

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

}  // namespace cmtest
