#include "storage/map_guard.h"

#include <setjmp.h>
#include <signal.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "storage/file_state.h"

namespace cm::storage {
namespace {

struct Guard {
    sigjmp_buf env;
};

thread_local Guard* t_guard = nullptr;
struct sigaction g_previous {};

bool insideOwnMapping(const void* addr) {
    const auto a = reinterpret_cast<uintptr_t>(addr);
    for (int i = 0; i < kNumFiles; ++i) {
        const auto p = reinterpret_cast<uintptr_t>(pMappedFile[i].load(std::memory_order_relaxed));
        const uint32_t len = dwLenMappedFile[i].load(std::memory_order_relaxed);
        if (p != 0 && a >= p && a - p < len) return true;
    }
    return false;
}

void onSigbus(int sig, siginfo_t* info, void* context) {
    // Only a fault the kernel raised (si_code > 0) in a guarded read of a
    // mapping of ours ends that read; a signal sent by a process is never
    // taken for one.
    Guard* g = t_guard;
    const bool fault = info != nullptr && info->si_code > 0;
    if (fault && g != nullptr && insideOwnMapping(info->si_addr)) siglongjmp(g->env, 1);
    // Not a read of ours: the host's own disposition decides.
    if (g_previous.sa_flags & SA_SIGINFO) {
        if (g_previous.sa_sigaction != nullptr) g_previous.sa_sigaction(sig, info, context);
        return;
    }
    if (g_previous.sa_handler != SIG_DFL && g_previous.sa_handler != SIG_IGN) {
        g_previous.sa_handler(sig);
        return;
    }
    // An ignored signal sent by a process stays ignored.
    if (!fault && g_previous.sa_handler == SIG_IGN) return;
    // Otherwise the host's disposition is put back: a fault repeats on
    // return and is then dealt with as it would have been without the
    // library (the kernel kills the process even when SIGBUS is ignored);
    // a sent signal is raised again.
    sigaction(SIGBUS, &g_previous, nullptr);
    if (!fault) raise(SIGBUS);
}

// Runs op with the guard set; false when a SIGBUS in a mapping ended it.
template <class Op>
bool guarded(Op op) {
    Guard g;
    Guard* const outer = t_guard;
    if (sigsetjmp(g.env, 0) != 0) {
        t_guard = outer;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        return false;
    }
    t_guard = &g;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    op();
    std::atomic_signal_fence(std::memory_order_seq_cst);
    t_guard = outer;
    return true;
}

}  // namespace

void installMapGuard() {
    // Once per process (a function-local static: std::call_once would cost
    // a system call on every first use).
    static const bool installed = [] {
        struct sigaction sa {};
        sa.sa_sigaction = onSigbus;
        // SA_NODEFER: the guard leaves the handler with siglongjmp, which
        // (without a saved mask) would otherwise leave SIGBUS blocked.
        sa.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
        sigemptyset(&sa.sa_mask);
        return sigaction(SIGBUS, &sa, &g_previous) == 0;
    }();
    (void)installed;
}

bool guardedCopy(void* dst, const void* mapped, size_t n) {
    return guarded([&] { std::memcpy(dst, mapped, n); });
}

bool guardedCompare(const void* mapped, const void* other, size_t n, int& diff) {
    return guarded([&] { diff = std::memcmp(mapped, other, n); });
}

bool guardedRun(void (*op)(void*), void* arg) {
    return guarded([&] { op(arg); });
}

}  // namespace cm::storage
