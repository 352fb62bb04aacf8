#include "process/state.h"

namespace cm::process {

std::atomic<uint8_t> ucCMInitialised{0};
std::atomic<uint8_t> bCMmaster{0};
std::atomic<uint8_t> s_bKillCM{0};
std::atomic<int> inotifyfd{-1};
std::atomic<uint8_t> bReadOnly{0};

pthread_mutex_t mCMMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
pthread_mutex_t mCMcallback = PTHREAD_MUTEX_INITIALIZER;

namespace {

// A lock held at fork time by a thread other than the forking one would stay
// held for ever in the child: it is made afresh there.
void renew(pthread_mutex_t* m, int type) {
    if (pthread_mutex_trylock(m) == 0) {
        pthread_mutex_unlock(m);
        return;
    }
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, type);
    pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
}

}  // namespace

void renewLocksAfterFork() {
    renew(&mCMMutex, PTHREAD_MUTEX_RECURSIVE);
    renew(&mCMcallback, PTHREAD_MUTEX_DEFAULT);
}

}  // namespace cm::process
