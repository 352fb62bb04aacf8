// Opening data files and keeping the read-only private mapping in step.
#pragma once

#include <cstdint>

namespace cm::storage {

// Opens an existing file, waiting (through the sleep seam) while it is
// missing or empty.  0, or -1.
int openFile(int iFileIndex);
// Opens, or creates empty with mode 0644: 0 opened, 1 created, -1 failed.
int openOrCreateFile(int iFileIndex);

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
