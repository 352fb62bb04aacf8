// Setting up a data file: open (the master creates), check record by record
// against the catalogue, fill in record offsets, repair (master only), map,
// snapshot and watch.
#pragma once

namespace cm::setup {

// Check results of initialiseDataStruct.
enum CheckResult : int {
    kFileGood = 0,
    kFileEmptyOrShort = 1,   // empty (non-master) or shorter than correct (master)
    kBadHeader = 2,          // header missing or version mismatch
    kRecordsMissing = 4,     // records missing at the end, or last one truncated
    kWrongRelativeId = 5,
    kWrongLength = 6,
};

// 0 when a new file was created and defaulted, else initialiseDataStruct's
// result, or -1.
int setUpConfigFile(int iFileIndex);
// Checks an open file under the whole-file lock; returns a CheckResult or -1.
int initialiseDataStruct(int iFileIndex, bool bInitPrev, bool bStartWatch);
// Master's repair, with the whole-file lock held: rewrites the file from
// defaults and logs "set to defaults" under `fn`: set-up logs it in every
// case (logAlways), the watch thread's diff only when the rewrite worked.
// 0, or -1.
int repairFromDefaults(int iFileIndex, bool bInitPrev, const char* fn, bool logAlways);
// Notifies every variable of the file as changed.  0, or -1.
int actionChangesToAllNewItems(int iFileIndex);

}  // namespace cm::setup
