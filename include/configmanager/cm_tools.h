/*
 * Extensions for command-line tools and diagnostics (cmctl).  NOT part of the
 * device processes' interface: these give a tool what the core interface
 * lacks, namely the file table, a variable's defaults group, a check of the
 * data files that only reads them, and a way to send the library's own log
 * messages to a descriptor of the tool's choosing.
 *
 * None of these needs the library to be started; paths are resolved under
 * the root directory of cm_host.h.
 */
#ifndef CONFIGMANAGER_CM_TOOLS_H
#define CONFIGMANAGER_CM_TOOLS_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* One row of the file table. */
typedef struct CM_FileInfo {
    const char* szPath;       /* resolved under the root directory */
    uint16_t wVersion;        /* header version the file must carry */
    int32_t iFirstVarID;      /* absolute ID of relative ID 0 */
    int32_t iNumItems;        /* records in the file */
    uint32_t dwCorrectLength; /* header plus every record */
} CM_FileInfo;

/* Extension.  Fills *pInfo for file index 0..9.  0, or -1. */
CM_EXPORT int CM_Ext_GetFileInfo(int32_t iFileIndex, CM_FileInfo* pInfo);

/* Extension.  The defaults group (0..3) of a variable: general defaults
 * reset groups 3, factory defaults every group.  0, or -1 for an ID in no
 * file. */
CM_EXPORT int CM_Ext_GetDefaultsGroup(int32_t iVarID_Abs, uint32_t* pdwGroup);

/* Fault bits of a file check; 0 is a good file. */
enum CM_FileFault {
    CM_FILE_MISSING = 1,     /* no such file */
    CM_FILE_UNREADABLE = 2,  /* cannot be opened or read */
    CM_FILE_BAD_HEADER = 4,  /* shorter than the header, or another version */
    CM_FILE_TOO_SHORT = 8,   /* records missing at the end, or the last one cut */
    CM_FILE_TOO_LONG = 16,   /* extra bytes after the last record */
    CM_FILE_BAD_RECORDS = 32 /* records with a wrong relative ID or length */
};

/* A record whose header differs from the catalogue, at the offset where the
 * catalogue puts it. */
typedef struct CM_RecordFault {
    uint32_t dwOffset;
    int32_t iExpectedRel;
    int32_t iFoundRel;
    uint32_t dwExpectedLen;
    uint32_t dwFoundLen;
} CM_RecordFault;

typedef struct CM_FileCheck {
    uint32_t dwFaults;        /* CM_FileFault bits */
    uint32_t dwLength;        /* the file's length */
    uint32_t dwCorrectLength; /* the length it must have */
    uint32_t dwVersionFound;  /* the header's version (when present) */
    int32_t iRecordsPresent;  /* complete records within the file's length */
    int32_t iBadRecords;      /* records with a wrong header (all of them) */
} CM_FileCheck;

/* Extension.  Checks one data file without the library started, without
 * locking, creating or changing anything: every record is looked for at the
 * offset the catalogue gives it, so one damaged record does not hide the
 * others.  Up to iMaxFaults bad records are described in pFaults (which may
 * be NULL when iMaxFaults is 0).  0 with *pCheck filled in, or -1 for a bad
 * index or a null pCheck.  The library logs nothing here. */
CM_EXPORT int CM_Ext_CheckFile(int32_t iFileIndex, CM_FileCheck* pCheck, CM_RecordFault* pFaults,
                               int32_t iMaxFaults);

/* Extension.  A start for a process that only reads the configuration, and
 * may not be allowed to write it: as CM_initNoRegister (iWatch 0) or as
 * CM_init(0) with the watch thread (iWatch non-zero), except that the data
 * files are opened for reading only and never waited for (a missing one
 * stays closed, its variables fail to read), locks are read locks, nothing
 * is created (no tag cache) and nothing is synced at CM_Exit.  Sets fail.
 * Ended by CM_Exit like any start.  Results as CM_init. */
CM_EXPORT int CM_Ext_InitReadOnly(int iWatch);

/* Extension.  Sends every message the library writes (console and
 * system-log channel alike) to descriptor fd, one line each; -1 restores the
 * normal channels.  The log gate still decides which messages are written. */
CM_EXPORT void CM_Ext_SetLogDescriptor(int fd);

CM_EXTERN_C_END

#endif
