// Internals shared by the record reader/writer and the default writers.
#pragma once

#include <cstdint>

#include "catalogue/catalogue.h"
#include "storage/file_state.h"

namespace cm::storage::detail {

// Logs "iiVarID_Rel ... exceeds number of items" under `fn` and returns false
// for a relative ID outside the file's table.
bool checkRelative(int iFileIndex, int iVarID_Rel, const char* fn);

// Data length of a record as written: wDataSize, cut to 256.
inline uint32_t writtenLength(const catalogue::DataAccessStruct& e) {
    return e.wDataSize > kMaxRecordData ? kMaxRecordData : e.wDataSize;
}

// Converts `len` bytes of an entry's value between caller form and record
// form (numbers are reversed on a little-endian host).  Unknown type: logs
// under CM_CopyData, stores a 32-bit zero and returns -1.  No other checks.
int copyValue(int iFileIndex, int iVarID_Rel, void* destination, const void* source, uint32_t len);

// The entry's default in caller form, at most `len` bytes of it.  Unknown
// type: logs under CM_GetDefaultData, stores a 32-bit zero, returns -1.
int defaultValue(int iFileIndex, int iVarID_Rel, void* destination, uint32_t len);

// writeDataItem, also telling whether the record reached the file (it may
// have although the result is -1, after a failed attempt).
int writeRecord(int iFileIndex, int iVarID_Rel, const void* value, bool bLock, bool& written);

// Writes the fixed CRC word at offset 2; errors are logged under `fn`.
int writeCrcWord(int iFileIndex, const char* fn);

}  // namespace cm::storage::detail
