// C entry points of the extensions for command-line tools.
#include "catalogue/lookup.h"
#include "configmanager/cm_tools.h"
#include "log/fd_sink.h"
#include "storage/file_check.h"
#include "storage/file_state.h"

extern "C" {

CM_EXPORT int CM_Ext_GetFileInfo(int32_t iFileIndex, CM_FileInfo* pInfo) {
    if (pInfo == nullptr || iFileIndex < 0 || iFileIndex >= cm::catalogue::kNumFiles) return -1;
    const auto& f = cm::catalogue::sConfigItemList[iFileIndex];
    *pInfo = {cm::storage::pathOf(iFileIndex), f.wVersion, f.iFirstVarID, f.iNumItems,
              cm::storage::correctLength(iFileIndex)};
    return 0;
}

CM_EXPORT int CM_Ext_GetDefaultsGroup(int32_t iVarID_Abs, uint32_t* pdwGroup) {
    cm::catalogue::Location loc{};
    if (pdwGroup == nullptr || !cm::catalogue::locate(iVarID_Abs, loc)) return -1;
    *pdwGroup = cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).ucAttrib;
    return 0;
}

CM_EXPORT int CM_Ext_CheckFile(int32_t iFileIndex, CM_FileCheck* pCheck, CM_RecordFault* pFaults,
                               int32_t iMaxFaults) {
    if (pCheck == nullptr || iFileIndex < 0 || iFileIndex >= cm::catalogue::kNumFiles) return -1;
    if (pFaults == nullptr || iMaxFaults < 0) iMaxFaults = 0;
    *pCheck = cm::storage::checkFileOnDisk(iFileIndex, {pFaults, static_cast<size_t>(iMaxFaults)});
    return 0;
}

CM_EXPORT void CM_Ext_SetLogDescriptor(int fd) { cm::log::sendToDescriptor(fd); }

}
