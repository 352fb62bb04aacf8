// A forked process driven over a pair of pipes with line messages, every
// wait bounded; and scratch roots for the programs that fork them.
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
    ~ChildLink() { kill(); }
    ChildLink(const ChildLink&) = delete;
    ChildLink& operator=(const ChildLink&) = delete;

    // Forks; the child sends its stdout and stderr to `logPath` (unless
    // empty) and runs `body`, which must not return.
    bool spawn(const std::function<void()>& body, const std::string& logPath = "");
    void send(const std::string& line);  // to the other side
    bool receive(std::string& line, std::chrono::milliseconds timeout);  // false on timeout or EOF
    bool alive() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    void kill();
    // The child's exit status, minus the signal number that ended it,
    // kHung when it did not end in time, kKilled when already reaped.
    int finish(std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    int out_ = -1, in_ = -1;
    std::string pending_;
};

// Waits for `pid` up to `timeout`, then kills it; same results as finish().
int waitBounded(pid_t pid, std::chrono::milliseconds timeout);

// A fresh root directory (tmp/, var/AppData/config/) under $TMPDIR or /tmp.
std::string makeRoot(const char* prefix);
void removeRoot(const std::string& root);

}  // namespace cmcheck
