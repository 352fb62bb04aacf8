// C entry points of start and stop.
#include "configmanager/cm_lifecycle.h"
#include "configmanager/cm_tools.h"
#include "lifecycle/shutdown.h"
#include "lifecycle/start.h"

using namespace cm;

extern "C" {

CM_EXPORT int CM_init(int iMaster) { return lifecycle::init(iMaster); }
CM_EXPORT int CM_initNoRegister(void) { return lifecycle::initNoRegister(); }
CM_EXPORT int CM_Ext_InitReadOnly(int iWatch) { return lifecycle::initReadOnly(iWatch); }
CM_EXPORT int CM_Exit(void) { return lifecycle::exit(); }
CM_EXPORT int CM_Exit_Delayed(void) { return lifecycle::exitDelayed(); }
CM_EXPORT void CM_SetAsMaster(void) { lifecycle::setAsMaster(); }
CM_EXPORT int CM_FileAccessInit(void) { return lifecycle::fileAccessInit(); }
CM_EXPORT int CM_FileAccessInitNoRegister(void) { return lifecycle::fileAccessInitNoRegister(); }
CM_EXPORT void CM_CleanUp(void) { lifecycle::cleanUp(); }
CM_EXPORT void CM_Kill(void) { lifecycle::kill(); }
CM_EXPORT void err_quit(const char* szWhat, int iLine) { lifecycle::errQuit(szWhat, iLine); }

}
