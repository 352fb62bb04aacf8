/*
 * Starting and stopping the configuration manager in a process.
 *
 * A process starts the library once, with CM_init (all ten data files set
 * up and a watch thread that calls the registered callbacks on every change,
 * the process's own writes included) or CM_initNoRegister (files set up, no
 * watch thread: callbacks run only on explicit CM_Notify calls).  Exactly one
 * process of the device is the master: it creates, truncates and repairs the
 * data files; the others wait for them and only flag damage.
 *
 * Start and stop from one thread at a time.
 */
#ifndef CONFIGMANAGER_CM_LIFECYCLE_H
#define CONFIGMANAGER_CM_LIFECYCLE_H

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Full start; iMaster non-zero makes this process the master first.
 * 0 started (single file failures are only logged), -2 already started,
 * -1 when the registry lock failed.  A failure to create the inotify
 * descriptor or the watch thread ends the process (err_quit). */
CM_EXPORT int CM_init(int iMaster);
/* Light start without watch thread.  0, or -2 when already started. */
CM_EXPORT int CM_initNoRegister(void);
/* Stop at once.  0, or -12 when not started.  The files are released only
 * once the watch thread has ended (it is woken; the wait ends after 10 s if
 * one of its callbacks does not return, and is skipped when a callback
 * stops the library itself).  A forked child may stop and start again. */
CM_EXPORT int CM_Exit(void);
/* Stop after telling the watch thread to end and giving it one second. */
CM_EXPORT int CM_Exit_Delayed(void);
/* Marks this process as the master (never undone). */
CM_EXPORT void CM_SetAsMaster(void);

/* The file-side halves of the two starts (called by them). */
CM_EXPORT int CM_FileAccessInit(void);
CM_EXPORT int CM_FileAccessInitNoRegister(void);
/* Releases descriptors and mappings of all files. */
CM_EXPORT void CM_CleanUp(void);
/* Sets the kill flag, waits one second, then CM_CleanUp. */
CM_EXPORT void CM_Kill(void);
/* Logs a fatal error, releases every file and exits with status 1. */
CM_EXPORT void err_quit(const char* szWhat, int iLine) __attribute__((noreturn));

/* Supplied by the device platform: records a component's version and build
 * date.  The library carries a weak, do-nothing default so that it links on
 * a host; a device build (or a test) replaces it by defining the symbol. */
CM_EXPORT int createVersionInfoFile_date(int iMajor, int iMinor, int iPatch, int iBuild, const char* szComponent,
                                         const char* szDate, const char* szTime, int iReserved);

CM_EXTERN_C_END

#endif
