// Per-process state of the ten data files, indexed by file index 0..9.
//
// The descriptor, mapping and private copy of each file are owned here for
// the life of the library in the process.  Writers and the watch thread
// serialise on a file with mtxFile plus an fcntl lock (see lock.h); the
// mapping fields change only under that whole-file lock.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "catalogue/catalogue.h"

namespace cm::storage {

inline constexpr int kNumFiles = catalogue::kNumFiles;
inline constexpr uint32_t kHeaderSize = 4;     // version word, CRC word
inline constexpr uint32_t kRecordHeader = 4;   // relative ID, length
inline constexpr uint32_t kMaxRecordData = 256;
inline constexpr uint16_t kCrcWord = 0x1234;   // fixed; never computed or checked

extern int fdRead[kNumFiles];                 // -1 when not open; close-on-exec
extern uint32_t dwLenCorrectFile[kNumFiles];  // length by the catalogue, computed on first open
extern uint32_t dwLenActualFile[kNumFiles];   // length found at set-up (or after repair)
extern const uint8_t* pMappedFile[kNumFiles]; // read-only private mapping, null when unmapped
extern uint32_t dwLenMappedFile[kNumFiles];   // 0 when unmapped
extern uint8_t* pPrevData[kNumFiles];         // private copy the watch thread diffs against
extern uint8_t bBadFile[kNumFiles];           // set-up found an unrepaired fault
extern pthread_mutex_t mtxFile[kNumFiles];    // serialises this process's threads on a file
extern int inotifywd[kNumFiles];              // watch descriptor, -1 when none

inline bool mapped(int i) { return pMappedFile[i] != nullptr && dwLenMappedFile[i] != 0; }

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
