// Helpers for the robustness programs: forked library users driven over a
// pair of pipes with line messages, every wait bounded, and scratch roots.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace cmcheck {

class ChildLink {
public:
    static constexpr int kHung = -1000;    // did not end in time (killed)
    static constexpr int kKilled = -1001;  // killed earlier by kill()

    ChildLink() = default;
    ~ChildLink();
    ChildLink(const ChildLink&) = delete;
    ChildLink& operator=(const ChildLink&) = delete;

    // Forks; the child redirects stdout and stderr to `logPath` (when not
    // empty) and runs `body`, which must not return.
    bool spawn(const std::function<void()>& body, const std::string& logPath);
    // In the parent: to the child.  In the child: to the parent.
    void send(const std::string& line);
    // Next line from the other side; false on timeout or end of stream.
    bool receive(std::string& line, std::chrono::milliseconds timeout);
    bool alive() const { return pid_ > 0 && !killed_; }
    void kill();
    // Waits for the child to end: its exit status, minus the signal number
    // when a signal ended it, kHung when it did not end in time, kKilled.
    int finish(std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    bool killed_ = false;
    int out_ = -1, in_ = -1;
    std::string pending_;
};

// Waits for `pid` up to `timeout`, then kills it; same results as finish().
int waitBounded(pid_t pid, std::chrono::milliseconds timeout);

// A fresh root directory (tmp/, var/AppData/config/) under $TMPDIR or /tmp.
std::string makeRoot(const char* prefix);
void removeRoot(const std::string& root);

}  // namespace cmcheck
