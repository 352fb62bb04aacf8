#include "storage/unlocked_look.h"

#include <sched.h>

#include <atomic>

#include "storage/file_state.h"

namespace cm::storage {
namespace {
std::atomic<bool> g_looking[kNumFiles];
}

void beginUnlockedLook(int i) { g_looking[i].store(true, std::memory_order_relaxed); }

void endUnlockedLook(int i) { g_looking[i].store(false, std::memory_order_release); }

void waitForUnlockedLook(int i) {
    while (g_looking[i].load(std::memory_order_acquire)) sched_yield();
}

void forgetUnlockedLooks() {
    for (auto& looking : g_looking) looking.store(false, std::memory_order_relaxed);
}

}  // namespace cm::storage
