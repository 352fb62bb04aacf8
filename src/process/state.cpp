#include "process/state.h"

namespace cm::process {

std::atomic<uint8_t> ucCMInitialised{0};
std::atomic<uint8_t> bCMmaster{0};
std::atomic<uint8_t> s_bKillCM{0};
std::atomic<int> inotifyfd{-1};

pthread_mutex_t mCMMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
pthread_mutex_t mCMcallback = PTHREAD_MUTEX_INITIALIZER;

}  // namespace cm::process
