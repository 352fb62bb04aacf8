// Reading and writing single records.  Reads come from the mapping under the
// record's range lock; writes go through the descriptor and are skipped when
// the mapped value already equals the new one.
#pragma once

#include <cstdint>

namespace cm::storage {

// 0, or -1.  The destination gets the value in the caller's form.
int readDataItem(int iFileIndex, int iVarID_Rel, void* destination);
// 1 written, 0 unchanged, -1 failed (also when a retry later succeeded).
int writeDataItem(int iFileIndex, int iVarID_Rel, const void* value, bool bLock);

// By absolute ID.  getDataItem converts DT_IPADDR records to a socket address.
int getDataItem(int32_t iVarID_Abs, void* destination);
int putDataItem(int32_t iVarID_Abs, const void* value);
int getDataItemDefaultValue(int32_t iVarID_Abs, void* destination);

}  // namespace cm::storage
