#include "platform/env.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
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

int Env::shell(const char* command) { return std::system(command); }

int tid() { return static_cast<int>(::syscall(SYS_gettid)); }

}  // namespace cm::platform
