/*
 * Host and test extensions.  NOT part of the device's interface: these exist
 * so that tools on a development host and test suites can run the library
 * against a private copy of the device's file tree.
 */
#ifndef CONFIGMANAGER_CM_HOST_H
#define CONFIGMANAGER_CM_HOST_H

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Sets the directory under which every fixed path of the library resolves
 * (data files, lock and marker files, tag cache).  The default is "/".
 * Call before the library is started.  0, or -1 when the library is running,
 * the path is too long, relative, or names the device's own "/" in another
 * way than "/" or "" (such as "/tmp/.."). */
CM_EXPORT int CM_Host_SetRootDirectory(const char* szRoot);

/* The current root directory. */
CM_EXPORT const char* CM_Host_GetRootDirectory(void);

/* The POSIX message queue name the library opens for a device queue name
 * such as "/CMSIF_InputMessages": the name itself under the root "/", else
 * the name with a prefix derived from the root, so that processes sharing a
 * root share queues and nothing else does.  Writes at most iSize bytes
 * (always terminated); 0, or -1 for null pointers or a name that does not
 * fit. */
CM_EXPORT int CM_Host_QueueName(const char* szDeviceName, char* szOut, int iSize);

CM_EXTERN_C_END

#endif
