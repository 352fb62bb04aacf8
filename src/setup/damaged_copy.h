// Before the master rewrites a damaged data file from defaults, the bytes it
// held are kept beside it as NAME.damaged (mode 0600, one per file, replaced
// by the next), so that a repair never destroys the only copy of a setting.
#pragma once

namespace cm::setup {

// Copies the open file `iFileIndex` (its lock held by the caller) and logs
// one line saying where.  Nothing is copied from an empty file; a copy that
// cannot be made is logged and does not stop the repair.
void keepDamagedCopy(int iFileIndex);

}  // namespace cm::setup
