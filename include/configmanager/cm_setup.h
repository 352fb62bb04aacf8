/*
 * File set-up and watching: the steps the full start and the watch thread
 * run on each data file.  Exported for tools that check or repair files;
 * an application only needs CM_init / CM_initNoRegister.
 *
 * Check results of CM_InitialiseDataStruct: 0 good; 1 empty (non-master) or
 * shorter than its correct length (master); 2 header missing or version
 * mismatch; 4 records missing or the last one truncated; 5 a record with the
 * wrong relative ID; 6 a record with the wrong length.  The master repairs a
 * faulty file from defaults and still returns the check result; other
 * processes only mark the file bad.
 */
#ifndef CONFIGMANAGER_CM_SETUP_H
#define CONFIGMANAGER_CM_SETUP_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Opens (the master creates) and checks one file, maps it, snapshots it and
 * adds its watch.  0 for a newly created file, else the check result, or -1. */
CM_EXPORT int CM_SetUpConfigFile(int32_t iFileIndex);
/* Checks an open file under the whole-file lock; bInitPrev makes the private
 * copy afterwards, bStartWatch adds the watch.  The check result, or -1. */
CM_EXPORT int CM_InitialiseDataStruct(int32_t iFileIndex, int bInitPrev, int bStartWatch);
/* Notifies every variable of the file as changed.  0, or -1. */
CM_EXPORT int CM_ActionChangesToAllNewItems(int32_t iFileIndex);

/* Adds / removes the inotify watch of one file.  0, or -1. */
CM_EXPORT int CM_AddInotifyWatch(int32_t iFileIndex);
CM_EXPORT int CM_RemoveInotifyWatch(int32_t iFileIndex);

/* Library internals with C linkage: the CMSIF decision for one notified
 * variable, setting one bit of a changed-variable list, and the watch
 * thread's body (the argument is ignored). */
CM_EXPORT void CM_MaybeTellCMSIF(int32_t iVarID_Abs);
/* CM_Add_To_List ignores a null list (0); an ID outside 0..3290 would fall
 * outside the list and gives -15 with a message. */
CM_EXPORT int CM_Add_To_List(uint8_t* pList, int32_t iVarID_Abs);
CM_EXPORT void* CM_ReadThread(void* pArg);

CM_EXTERN_C_END

#endif
