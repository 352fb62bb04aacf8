// A read-only check of a data file on disk, for diagnostic tools: it needs
// no started library, takes no locks and changes nothing.  Unlike set-up,
// which stops at the first fault, it looks for every record at the offset
// the catalogue gives it and reports each one whose header is wrong.
#pragma once

#include <cstdint>
#include <span>

#include "configmanager/cm_tools.h"

namespace cm::storage {

// Checks file iFileIndex (0..9, unchecked); faults beyond the span's size
// are counted but not described.
CM_FileCheck checkFileOnDisk(int iFileIndex, std::span<CM_RecordFault> faults);

}  // namespace cm::storage
