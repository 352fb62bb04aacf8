// Per-process state of the ten data files, indexed by file index 0..9.
//
// The descriptor, mapping and private copy of each file are owned here for
// the life of the library in the process.  Invariant: the descriptor and the
// mapping fields of a file change only while its mtxFile is held (lockFile,
// or lockMutex for a release), and every read of a mapping happens with
// mtxFile held, so no thread of the process can see a mapping go away under
// it.  The fields are atomics so that the unlocked looks at them (messages,
// the watch thread's length checks) are well defined.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "catalogue/catalogue.h"

namespace cm::storage {

inline constexpr int kNumFiles = catalogue::kNumFiles;
inline constexpr uint32_t kHeaderSize = 4;     // version word, CRC word
inline constexpr uint32_t kRecordHeader = 4;   // relative ID, length
inline constexpr uint32_t kMaxRecordData = 256;
inline constexpr uint16_t kCrcWord = 0x1234;   // fixed; never computed or checked

extern std::atomic<int> fdRead[kNumFiles];                  // -1 when not open; close-on-exec
extern std::atomic<uint32_t> dwLenCorrectFile[kNumFiles];   // length by the catalogue, computed on first open
extern std::atomic<uint32_t> dwLenActualFile[kNumFiles];    // length found at set-up (or after repair)
extern std::atomic<const uint8_t*> pMappedFile[kNumFiles];  // read-only private mapping, null when unmapped
extern std::atomic<uint32_t> dwLenMappedFile[kNumFiles];    // 0 when unmapped
extern uint8_t* pPrevData[kNumFiles];            // private copy the watch thread diffs against
extern uint32_t dwLenPrevData[kNumFiles];        // its length in bytes, 0 when there is none
extern std::atomic<uint8_t> bBadFile[kNumFiles];  // set-up found an unrepaired fault
extern pthread_mutex_t mtxFile[kNumFiles];       // serialises this process's threads on a file (error-checking)
extern std::atomic<int> inotifywd[kNumFiles];     // watch descriptor, -1 when none

inline bool mapped(int i) { return pMappedFile[i] != nullptr && dwLenMappedFile[i] != 0; }

// Initialises mtxFile[i] as an error-checking mutex: unlocking a mutex the
// thread does not hold then fails harmlessly instead of corrupting it.
int initFileMutex(int iFileIndex);
// In a forked child: makes afresh the file mutexes a thread of the parent
// held at the fork.
void renewFileMutexesAfterFork();

// 4 + the sum of (wDataSize + 4) over the file's catalogue entries.
uint32_t correctLength(int iFileIndex);

// Logs "Out of bounds file index" under `fn` and returns false for an index
// outside 0..9.
bool checkIndex(int iFileIndex, const char* fn);
// checkIndex, then logs "Invalid File descriptor for file no." and returns
// false when the file is not open.
bool checkOpen(int iFileIndex, const char* fn);

const char* pathOf(int iFileIndex);  // resolved path, for messages and open()

}  // namespace cm::storage
