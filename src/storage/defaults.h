// Catalogue defaults in their value form, the copy between the caller's form
// and the record's form, and rewriting files or records from defaults.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace cm::storage {

// The default of an entry in the caller's form (numbers in host order).
int getDefaultData(int iFileIndex, int iVarID_Rel, void* destination);
// Copies a value between caller form and record form (numbers byte-swapped
// on a little-endian host; the conversion is its own inverse).
int copyData(int iFileIndex, int iVarID_Rel, void* destination, const void* source);

// Rewrites the whole file from defaults, cuts it to its correct length and
// remaps it.  bLock: take the whole-file lock here (else the caller holds it).
int writeDefaultData(int iFileIndex, bool bLock, bool bInitPrevData);
// Rewrites every record whose defaults group is >= level; whole-file lock
// taken here.  0, or -1 for a bad index or descriptor.
int writeDefaultDataItems(int iFileIndex, uint32_t level);
// Writes the fixed CRC word 0x12 0x34 at offset 2 (no lock of its own).
int updateCRC(int iFileIndex);
// The same under a whole-file lock, after a locked record write.
int updateCRCWithLock(int iFileIndex);
// The same, for a record writer that still holds the record's lock: the
// record's fcntl lock is released and the whole-file one taken without
// letting go of the file's mutex, so that the process's own watch thread
// never holds up a write between its record and its check word.  Returns
// with both locks released.
int updateCRCAfterRecordWrite(int iFileIndex, off_t recordStart, off_t recordLength);

}  // namespace cm::storage
