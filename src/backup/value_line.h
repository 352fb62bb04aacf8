// One variable's line of the backup text.
#pragma once

#include <cstdio>

namespace cm::backup {

// Writes "TAG : VALUE\n" for the variable at (file, rel), or nothing when it
// is left out (unknown type, unreadable, octet data not requested).
void writeValueLine(FILE* fp, int iFileIndex, int iVarID_Rel, bool includeOctetData);

}  // namespace cm::backup
