// Opening data files and keeping the read-only private mapping in step.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace cm::storage {

// The file that a call below opened, as the safe open's check saw it; known
// only when the call opened an existing, non-empty file itself.
struct OpenedFile {
    bool known = false;
    dev_t dev = 0;
    ino_t ino = 0;
};

// Opens an existing file, waiting (through the sleep seam) while it is
// missing or empty.  0, or -1.
int openFile(int iFileIndex, OpenedFile* opened = nullptr);
// Opens, or creates empty with mode 0644: 0 opened, 1 created, -1 failed.
int openOrCreateFile(int iFileIndex, OpenedFile* opened = nullptr);

int mapFile(int iFileIndex, uint32_t length);
int unmapFile(int iFileIndex);
// Maps min(length, dwLenCorrectFile); resizes an existing mapping.
int remapFile(int iFileIndex, uint32_t length);
// (Re)makes pPrevData as a copy of the whole mapping.  0, or -1 (no copy
// is left then).  Messages name `fn`; logAlloc=false leaves out the debug
// line about (re)allocating, for callers that have logged their own.
int initialisePrevData(int iFileIndex);
int initialisePrevData(int iFileIndex, const char* fn, bool logAlloc);
// Frees the private copy.
void dropPrevData(int iFileIndex);

}  // namespace cm::storage
