// C entry points of file set-up and watching, and of the internals that
// keep C linkage.
#include "configmanager/cm_setup.h"
#include "inotify/inotify_watch.h"
#include "notify/var_list.h"
#include "setup/setup.h"
#include "watch/watch_thread.h"

using namespace cm;

extern "C" {

CM_EXPORT int CM_SetUpConfigFile(int32_t i) { return setup::setUpConfigFile(i); }
CM_EXPORT int CM_InitialiseDataStruct(int32_t i, int bInitPrev, int bStartWatch) {
    return setup::initialiseDataStruct(i, bInitPrev != 0, bStartWatch != 0);
}
CM_EXPORT int CM_ActionChangesToAllNewItems(int32_t i) { return setup::actionChangesToAllNewItems(i); }
CM_EXPORT int CM_AddInotifyWatch(int32_t i) { return inotify::addInotifyWatch(i); }
CM_EXPORT int CM_RemoveInotifyWatch(int32_t i) { return inotify::removeInotifyWatch(i); }
CM_EXPORT void CM_MaybeTellCMSIF(int32_t id) { notify::maybeTellCmsif(id); }
CM_EXPORT int CM_Add_To_List(uint8_t* pList, int32_t id) { return notify::addToList(pList, id); }
CM_EXPORT void* CM_ReadThread(void* pArg) { return watch::readThread(pArg); }

}
