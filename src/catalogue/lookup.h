// Lookups in the catalogue: name to ID, absolute to file and relative ID,
// and the static properties of a variable.  They read constant data only,
// take no locks and may be called from any thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "catalogue/catalogue.h"

namespace cm::catalogue {

// Where a variable lives.
struct Location {
    int iFileIndex;
    int iVarID_Rel;
};

// Absolute ID of the tag equal to `name` (exact, case-sensitive), or -1.
int varIdFromName(std::string_view name);

// File and relative ID of an absolute ID, in constant time.  Logs and
// returns false when the ID belongs to no file.
bool toRelative(int32_t iVarID_Abs, Location& out);

// The same without a message, for callers that report on their own.
inline bool locate(int32_t iVarID_Abs, Location& out) {
    if (iVarID_Abs < 0 || iVarID_Abs >= kNumVarIds) return false;
    const int f = kFileOfVarId[iVarID_Abs];
    if (f < 0) return false;
    out = {f, iVarID_Abs - sConfigItemList[f].iFirstVarID};
    return true;
}

inline int32_t absoluteId(int iFileIndex, int iVarID_Rel) {
    return sConfigItemList[iFileIndex].iFirstVarID + iVarID_Rel;
}

// Next reportable absolute ID after `after` (3290 starts), 3290 at the end,
// -1 when `after` belongs to no file.
int32_t nextReportable(int32_t after);

// The tag of an absolute ID, or nullptr (logged when the ID is 3290 or more).
const char* tagOf(int32_t iVarID_Abs);

}  // namespace cm::catalogue
