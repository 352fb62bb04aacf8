// C entry points of loading defaults.
#include "configmanager/cm_defaults.h"
#include "defaults/load.h"

using namespace cm;

extern "C" {

CM_EXPORT int CM_LoadGeneralDefaults(void) { return defaults::loadGeneralDefaults(); }
CM_EXPORT int CM_LoadFactoryDefaults(void) { return defaults::loadFactoryDefaults(); }
CM_EXPORT int CM_LoadAllDefaults(void) { return defaults::loadAllDefaults(); }
CM_EXPORT int CM_Load_Defaults(void) { return CM_LoadGeneralDefaults(); }
CM_EXPORT int CM_Load_Factory_Defaults(void) { return CM_LoadFactoryDefaults(); }
CM_EXPORT int CM_Load_All_Defaults(void) { return CM_LoadAllDefaults(); }

}
