// C entry points of the data file storage.
#include "configmanager/cm_storage.h"
#include "storage/defaults.h"
#include "storage/lock.h"
#include "storage/open_map.h"
#include "storage/record.h"

using namespace cm::storage;

extern "C" {

CM_EXPORT int CM_LockFile(int32_t iFileIndex, uint32_t start, uint32_t length) {
    return lockFile(iFileIndex, start, length);
}

CM_EXPORT int CM_UnLockFile(int32_t iFileIndex, uint32_t start, uint32_t length) {
    return unlockFile(iFileIndex, start, length);
}

CM_EXPORT int CM_OpenFile(int32_t iFileIndex) { return openFile(iFileIndex); }

CM_EXPORT int CM_OpenOrCreateFile(int32_t iFileIndex) { return openOrCreateFile(iFileIndex); }

CM_EXPORT int CM_MapFile(int32_t iFileIndex, uint32_t length) { return mapFile(iFileIndex, length); }

CM_EXPORT int CM_UnmapFile(int32_t iFileIndex) { return unmapFile(iFileIndex); }

CM_EXPORT int CM_RemapFile(int32_t iFileIndex, uint32_t length) { return remapFile(iFileIndex, length); }

CM_EXPORT int CM_InitialisePrevData(int32_t iFileIndex) { return initialisePrevData(iFileIndex); }

CM_EXPORT int CM_ReadDataItem(int32_t iFileIndex, int32_t iVarID_Rel, void* pData) {
    return readDataItem(iFileIndex, iVarID_Rel, pData);
}

CM_EXPORT int CM_WriteDataItem(int32_t iFileIndex, int32_t iVarID_Rel, const void* pData, int bLock) {
    return writeDataItem(iFileIndex, iVarID_Rel, pData, bLock != 0);
}

CM_EXPORT int CM_GetDataItem(int32_t iVarID_Abs, void* pData) { return getDataItem(iVarID_Abs, pData); }

CM_EXPORT int CM_PutDataItem(int32_t iVarID_Abs, const void* pData) { return putDataItem(iVarID_Abs, pData); }

CM_EXPORT int CM_GetDataItemDefaultValue(int32_t iVarID_Abs, void* pData) {
    return getDataItemDefaultValue(iVarID_Abs, pData);
}

CM_EXPORT int CM_GetDefaultData(int32_t iFileIndex, int32_t iVarID_Rel, void* pData) {
    return getDefaultData(iFileIndex, iVarID_Rel, pData);
}

CM_EXPORT int CM_CopyData(int32_t iFileIndex, int32_t iVarID_Rel, void* pDest, const void* pSrc) {
    return copyData(iFileIndex, iVarID_Rel, pDest, pSrc);
}

CM_EXPORT int CM_WriteDefaultData(int32_t iFileIndex, int bLock, int bInitPrevData) {
    return writeDefaultData(iFileIndex, bLock != 0, bInitPrevData != 0);
}

CM_EXPORT int CM_WriteDefaultDataItems(int32_t iFileIndex, uint32_t level) {
    return writeDefaultDataItems(iFileIndex, level);
}

CM_EXPORT int CM_UpdateCRC(int32_t iFileIndex) { return updateCRC(iFileIndex); }

}
