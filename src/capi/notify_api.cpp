// C entry points of change notification and the CMSIF list.
#include "configmanager/cm_notify.h"
#include "notify/registry.h"
#include "notify/var_list.h"
#include "storage/notified_value.h"

using namespace cm;

extern "C" {

CM_EXPORT int CM_Register_Interest(int32_t id, CM_NotifyCallback cb) { return notify::registerInterest(id, cb); }
CM_EXPORT int CM_Unregister_Interest(int32_t id, CM_NotifyCallback cb) { return notify::unregisterInterest(id, cb); }
CM_EXPORT int CM_Notify(int32_t id) { return notify::notify(id); }
CM_EXPORT int CM_NotifyRange(int32_t first, int32_t last) { return notify::notifyRange(first, last); }

CM_EXPORT int CM_Register_CMSIF_Var_Changed_CB(CM_NotifyCallback cb) { return notify::registerCmsifCallback(cb); }
CM_EXPORT int CM_Init_Var_List(void) { return notify::initVarList(); }
CM_EXPORT int CM_Note_Var_Unchanged(int32_t id) { return notify::noteVarUnchanged(id); }
CM_EXPORT int CM_Get_Var_List(uint8_t* pDest) { return notify::getVarList(pDest); }
CM_EXPORT int32_t CM_Get_Next_Variable(uint8_t* pCopy, int32_t prev) { return notify::getNextVariable(pCopy, prev); }
CM_EXPORT int CM_Clear_Var_List(void) { return notify::clearVarList(); }

CM_EXPORT int CM_GetNotifiedDataItem(int32_t id, void* pData) { return storage::getNotifiedDataItem(id, pData); }

}
