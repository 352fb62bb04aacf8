#include "platform/env.h"

#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace cm::platform {
namespace {

class PosixEnv final : public Env {
public:
    void sleepFor(std::chrono::nanoseconds d) override {
        if (d.count() <= 0) return;
        timespec ts{};
        ts.tv_sec = static_cast<time_t>(d.count() / 1000000000);
        ts.tv_nsec = static_cast<long>(d.count() % 1000000000);
        nanosleep(&ts, nullptr);
    }
    std::chrono::steady_clock::time_point now() override { return std::chrono::steady_clock::now(); }
    long random() override { return ::random(); }
};

// Never destroyed: a watch thread may still sleep while the process exits.
PosixEnv& posixEnv() {
    static PosixEnv* e = new PosixEnv;
    return *e;
}

std::atomic<Env*> g_env{nullptr};

}  // namespace

Env& env() {
    Env* e = g_env.load(std::memory_order_acquire);
    return e ? *e : posixEnv();
}

void setEnv(Env* e) { g_env.store(e, std::memory_order_release); }

// The shell runs with a fixed environment: the system directories for
// PATH and nothing of the caller's (no ENV, BASH_ENV, IFS, CDPATH), so the
// commands mean the same whoever started the calling process.  The result
// is the wait status, as system() gives it; -1 when the shell could not run.
int Env::shell(const char* command) {
    if (command == nullptr) return 0;
    static char kPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    static char kShell[] = "sh";
    static char kDashC[] = "-c";
    char* const envp[] = {kPath, nullptr};
    char* const argv[] = {kShell, kDashC, const_cast<char*>(command), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, envp) != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

int tid() { return static_cast<int>(::syscall(SYS_gettid)); }

}  // namespace cm::platform
