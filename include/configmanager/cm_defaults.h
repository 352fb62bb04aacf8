/*
 * Loading defaults, at three levels.
 *
 * General defaults reset the variables of defaults group 3 (the ordinary
 * operating settings) in every data file.  Factory defaults reset every
 * variable except SOFTWARE_VERSION and clear the device: system logs,
 * captures, diagnostic bundles, shell histories and certificate files are
 * deleted and the marker /var/AppData/.clearhistory is created.  All
 * defaults rebuild every data file from scratch; while it runs the lock file
 * /tmp/_LoadDefaultsAllLock_ holds back the other processes' watchers.
 *
 * None of them stops at a failure: every file is attempted and the failures
 * are counted.  Other processes learn of the reset variables through their
 * watchers, as of any change.
 */
#ifndef CONFIGMANAGER_CM_DEFAULTS_H
#define CONFIGMANAGER_CM_DEFAULTS_H

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* 0, or the (negative) sum of the failed files. */
CM_EXPORT int CM_LoadGeneralDefaults(void);
/* 0, or the number of errors. */
CM_EXPORT int CM_LoadFactoryDefaults(void);
/* 0, or the (negative) sum of the failed files. */
CM_EXPORT int CM_LoadAllDefaults(void);

/* The same three under their other names. */
CM_EXPORT int CM_Load_Defaults(void);
CM_EXPORT int CM_Load_Factory_Defaults(void);
CM_EXPORT int CM_Load_All_Defaults(void);

CM_EXTERN_C_END

#endif
