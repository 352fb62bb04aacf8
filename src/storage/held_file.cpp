#include "storage/held_file.h"

#include <pthread.h>

#include <atomic>

#include "process/state.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/own_write.h"
#include "storage/record_io.h"

namespace cm::storage {
namespace {

// The file this thread holds, -1 for none (a HeldFile is used by the thread
// that made it), and whether a record of it has been written.
thread_local int t_held = -1;
thread_local bool t_written = false;
thread_local bool t_quiet = false;
std::atomic<bool (*)(int, bool)> g_aside{nullptr};

}  // namespace

void HeldFile::hold(int i) {
    if (t_held == i) return;
    release();
    // A file that is not open is left to the records' own checks and messages.
    if (i < 0 || i >= kNumFiles || fdRead[i] < 0) return;
    // The set mutex first, as a set takes it: a set of another thread then
    // never holds it while waiting for this file.
    if (pthread_mutex_lock(&process::mCMMutex) != 0) return;
    if (lockFile(i, 0, 0) != 0) {
        unlockFile(i, 0, 0);
        pthread_mutex_unlock(&process::mCMMutex);
        return;
    }
    t_held = i;
    t_written = false;
    auto* aside = g_aside.load(std::memory_order_relaxed);
    t_quiet = aside != nullptr && aside(i, false);
}

void HeldFile::release() {
    const int i = t_held;
    if (i < 0) return;
    if (t_quiet) {
        g_aside.load(std::memory_order_relaxed)(i, true);
        // The CRC word's event brings the pass; without it, one is asked for.
        if (!t_written) ownwrite::askPass(i);
    }
    t_quiet = false;
    if (t_written && fdRead[i] >= 0) detail::writeCrcWord(i, "CM_UpdateCRCwithLock");
    t_held = -1;
    t_written = false;
    unlockFile(i, 0, 0);
    pthread_mutex_unlock(&process::mCMMutex);
}

void setHoldAside(bool (*aside)(int, bool)) { g_aside.store(aside, std::memory_order_relaxed); }

bool heldWhole(int i) { return t_held >= 0 && t_held == i; }

void noteHeldWrite(int i) {
    if (heldWhole(i)) t_written = true;
}

}  // namespace cm::storage
