// The changed-variable list of the management-interface (CMSIF) process:
// one process-wide callback told of reportable changes, and a bit set of
// noted variables.  In every other process neither is installed and this
// path stays idle.
#pragma once

#include <cstddef>
#include <cstdint>

#include "configmanager/cm_notify.h"

namespace cm::notify {

// 3296 bits: IDs 0..3289 and the end marker 3290.  ID n is bit n%8 of byte n/8.
inline constexpr size_t kVarListBytes = CM_VAR_LIST_BYTES;

int registerCmsifCallback(CM_NotifyCallback pfnCmsifNotify);
bool cmsifCallbackInstalled();
int initVarList();
int noteVarUnchanged(int32_t iVarID_Abs);
int getVarList(uint8_t* pDest);
// Next noted ID above iPrevID in the caller's copy (3290 starts and ends).
// Writes the end marker into the copy.
int32_t getNextVariable(uint8_t* pCopy, int32_t iPrevID);
int clearVarList();

// Sets one bit under mCMListAdd; a null list is ignored.
int addToList(uint8_t* pList, int32_t iVarID_Abs);
// Decides from the variable's report flag and CM_FLAG whether to tell the
// CMSIF callback now, only note the variable, or do nothing.  Called with
// mCMcallback held.
void maybeTellCmsif(int32_t iVarID_Abs);

// Profile-download state read by maybeTellCmsif.
void setFullProfile(bool on);

}  // namespace cm::notify
