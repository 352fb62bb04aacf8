/*
 * Change notification.
 *
 * Per-variable callbacks run on the thread that notifies (the watch thread,
 * a thread setting up a file, or a caller of CM_Notify) in registration
 * order, while the registry lock is held: a callback must not register,
 * unregister or notify, and should return promptly.  It may read and write
 * variables.
 *
 * A callback learns that a variable changed, not what it changed to.  When
 * a value goes A, B, A, B while a callback runs, a callback that reads the
 * live value may last have read A although the file and the watch thread's
 * private copy both hold B: no difference is left, so nothing more is
 * notified.  A watcher that must end consistent reads, in its callback, the
 * value as the watch thread last saw it (CM_GetNotifiedDataItem below): that
 * copy changes only on the watch thread, between callbacks, so the last
 * callback of a burst always reads the last value.
 *
 * The CMSIF functions serve the management-interface process only: one
 * process-wide callback told of reportable changes, and a bit list of noted
 * variables (412 bytes, ID n = bit n%8 of byte n/8) that the caller copies
 * and walks.
 */
#ifndef CONFIGMANAGER_CM_NOTIFY_H
#define CONFIGMANAGER_CM_NOTIFY_H

#include <stdint.h>

#include "configmanager/cm_types.h"

#define CM_VAR_LIST_BYTES 412

CM_EXTERN_C_BEGIN

/* 0; -10 already registered for this variable; -11 null callback or out of
 * memory; -12 ID above 3289; -15 library not started or lock failure. */
CM_EXPORT int CM_Register_Interest(int32_t iVarID_Abs, CM_NotifyCallback pfnCallback);
/* 0 (also when not registered); -12 ID above 3289; -15 not started. */
CM_EXPORT int CM_Unregister_Interest(int32_t iVarID_Abs, CM_NotifyCallback pfnCallback);
/* Runs the callbacks of one variable, or of iFirst..iLast.  Always 0.  IDs
 * outside 0..3289 have no callbacks; a range is walked only over the IDs in
 * it that exist. */
CM_EXPORT int CM_Notify(int32_t iVarID_Abs);
CM_EXPORT int CM_NotifyRange(int32_t iFirst, int32_t iLast);

/* 0, or -21 when a callback is already installed. */
CM_EXPORT int CM_Register_CMSIF_Var_Changed_CB(CM_NotifyCallback pfnCmsifNotify);
/* 0, or -21 when the list exists already or cannot be allocated. */
CM_EXPORT int CM_Init_Var_List(void);
/* Notes a variable in the list.  0, or -15 for an ID above 3289. */
CM_EXPORT int CM_Note_Var_Unchanged(int32_t iVarID_Abs);
/* Copies the list (CM_VAR_LIST_BYTES) into pDest.  0, or -21. */
CM_EXPORT int CM_Get_Var_List(uint8_t* pDest);
/* Next noted ID above iPrevID in a copy: start with 3290, stop when 3290
 * returns.  -15 for an invalid iPrevID, -21 for a null pCopy.  Writes an end
 * marker into pCopy. */
CM_EXPORT int32_t CM_Get_Next_Variable(uint8_t* pCopy, int32_t iPrevID);
/* Clears the list.  0, or -21 when it does not exist. */
CM_EXPORT int CM_Clear_Var_List(void);

/* Extension (not part of the device interface): reads a variable as the
 * watch thread last saw it, from the private copy it compares changes
 * against, in the same form as CM_GetDataItem.  Meant for callbacks (see
 * above); safe from any thread.  0, or -1 (bad ID, null pData, no copy yet:
 * the process was started without a watch thread or the file is not set
 * up). */
CM_EXPORT int CM_GetNotifiedDataItem(int32_t iVarID_Abs, void* pData);

CM_EXTERN_C_END

#endif
