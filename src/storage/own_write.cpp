#include "storage/own_write.h"

#include <atomic>

#include "storage/file_state.h"

namespace cm::storage::ownwrite {
namespace {

// Per file: a record write of this process is under way with its
// check-word write to come; the watch thread left a pass to that write's
// event; a left pass must run after all.  Sequentially consistent, so that
// of a thread that leaves a pass and a writer that then finds no event
// following, at least one sees the other.
std::atomic<bool> g_underWay[kNumFiles];
std::atomic<bool> g_left[kNumFiles];
std::atomic<bool> g_redo[kNumFiles];
std::atomic<void (*)()> g_wake{nullptr};

}  // namespace

void begin(int i) { g_underWay[i].store(true); }

void eventFollows(int i) { g_underWay[i].store(false); }

void askPass(int i) {
    g_redo[i].store(true);
    if (auto* wake = g_wake.load()) wake();
}

void noEventFollows(int i) {
    g_underWay[i].store(false);
    if (g_left[i].exchange(false)) askPass(i);
}

bool leaveToNextEvent(int i) {
    g_left[i].store(true);
    if (g_underWay[i].load()) return true;
    g_left[i].store(false);
    return false;
}

bool takeRedo(int i) { return g_redo[i].load(std::memory_order_relaxed) && g_redo[i].exchange(false); }

bool underWay(int i) { return g_underWay[i].load(std::memory_order_relaxed); }

bool passLeft(int i) { return g_left[i].load(); }

void setWake(void (*wake)()) { g_wake.store(wake); }

void reset() {
    for (int i = 0; i < kNumFiles; ++i) {
        g_underWay[i].store(false);
        g_left[i].store(false);
        g_redo[i].store(false);
    }
}

}  // namespace cm::storage::ownwrite
