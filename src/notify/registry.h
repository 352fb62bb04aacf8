// The per-process interest registry: callbacks per absolute variable ID,
// called in registration order on the notifying thread under mCMcallback.
// A callback must not register, unregister or notify (the lock is not
// recursive) and should return promptly; it may read and write variables.
#pragma once

#include <cstdint>

#include "configmanager/cm_types.h"

namespace cm::notify {

int registerInterest(int32_t iVarID_Abs, CM_NotifyCallback pfnCallback);
int unregisterInterest(int32_t iVarID_Abs, CM_NotifyCallback pfnCallback);
int notify(int32_t iVarID_Abs);
int notifyRange(int32_t iFirst, int32_t iLast);

// Empties every list without freeing the nodes (a fresh start forgets the
// old registrations; callers may still hold on to nothing of them).
void clearRegistry();

}  // namespace cm::notify
