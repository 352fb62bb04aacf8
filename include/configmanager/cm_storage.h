/*
 * Data file storage: locking, opening and mapping the ten data files, and
 * reading and writing single records.
 *
 * Files are addressed by file index (0..9) and variables inside them by
 * relative ID; the by-ID operations take an absolute ID.  Values in caller
 * buffers are in the caller's form: numbers in host byte order, texts
 * zero-terminated, other types as raw bytes.  Every function logs its own
 * failures.  Offsets and lengths are 32-bit: data files are far smaller, and
 * the type does not depend on the caller's large-file settings.
 */
#ifndef CONFIGMANAGER_CM_STORAGE_H
#define CONFIGMANAGER_CM_STORAGE_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Takes the file's process mutex, then an fcntl write lock on `length` bytes
 * from `start` (length 0: to the end of the file, so (0, 0) is the whole
 * file).  Blocks; interrupted or deadlocked requests are retried after a
 * random 100-200 ms pause for as long as it takes.  0 when both locks are
 * held; -1 when the file is not open (no mutex taken) or fcntl failed
 * otherwise (the mutex is then still held: call CM_UnLockFile). */
CM_EXPORT int CM_LockFile(int32_t iFileIndex, uint32_t start, uint32_t length);

/* Releases a range taken with CM_LockFile (same arguments), then the mutex.
 * 0, or -1 when the file is not open. */
CM_EXPORT int CM_UnLockFile(int32_t iFileIndex, uint32_t start, uint32_t length);

/* Opens an existing data file for reading and writing (close-on-exec),
 * waiting without limit while it is missing or empty.  0, or -1. */
CM_EXPORT int CM_OpenFile(int32_t iFileIndex);

/* Opens the data file, or creates it empty with mode 0644 when missing.
 * 0 opened, 1 created (the caller fills it), -1 failed.  Never waits. */
CM_EXPORT int CM_OpenOrCreateFile(int32_t iFileIndex);

/* Maps `length` bytes of the open file read-only (never more than the
 * file's correct length); 0 clears the mapping fields.  0, or -1. */
CM_EXPORT int CM_MapFile(int32_t iFileIndex, uint32_t length);

/* Unmaps the file; nothing to do when it is not mapped.  0, or -1. */
CM_EXPORT int CM_UnmapFile(int32_t iFileIndex);

/* Maps the smaller of `length` and the correct length, resizing an
 * existing mapping (its address may change); 0 unmaps.  0, or -1. */
CM_EXPORT int CM_RemapFile(int32_t iFileIndex, uint32_t length);

/* Makes the private copy of the whole mapping that changes are compared
 * against.  0, or -1 when the file is not mapped or memory runs out. */
CM_EXPORT int CM_InitialisePrevData(int32_t iFileIndex);

/* Every function below that takes a value buffer fails with -1 and a
 * message when the buffer is null. */

/* Reads a record from the mapping into pData (at least the variable's
 * stored size).  0, or -1 (bad index or record, not mapped, header wrong;
 * also when another process cut the file under the mapping: the library
 * turns the SIGBUS of such a read into this failure and hands any other
 * SIGBUS to the handler installed before its first mapping). */
CM_EXPORT int CM_ReadDataItem(int32_t iFileIndex, int32_t iVarID_Rel, void* pData);

/* Writes a record through the descriptor unless the mapped value already
 * equals pData.  bLock non-zero: lock the record here and afterwards write
 * the CRC word under a whole-file lock; 0: the caller holds the whole-file
 * lock.  1 written, 0 unchanged, -1 failed (also when a retry succeeded). */
CM_EXPORT int CM_WriteDataItem(int32_t iFileIndex, int32_t iVarID_Rel, const void* pData, int bLock);

/* Reads a variable by absolute ID.  An IP address variable is returned as
 * a socket address (the buffer must hold a struct sockaddr_in6).  0, or
 * negative. */
CM_EXPORT int CM_GetDataItem(int32_t iVarID_Abs, void* pData);

/* Writes a variable by absolute ID, without bounds checks; the result of
 * CM_WriteDataItem with the lock flag set, or -1 for a bad ID. */
CM_EXPORT int CM_PutDataItem(int32_t iVarID_Abs, const void* pData);

/* The variable's catalogue default in the caller's form.  0, or -1 for a
 * bad ID. */
CM_EXPORT int CM_GetDataItemDefaultValue(int32_t iVarID_Abs, void* pData);

/* The default of a record in the caller's form.  0, or -1 (bad index or
 * relative ID, unknown type; also when the file is not open, although the
 * default is filled in all the same). */
CM_EXPORT int CM_GetDefaultData(int32_t iFileIndex, int32_t iVarID_Rel, void* pData);

/* Copies a value between the caller's form and the stored form, in either
 * direction.  0, or -1 as for CM_GetDefaultData. */
CM_EXPORT int CM_CopyData(int32_t iFileIndex, int32_t iVarID_Rel, void* pDest, const void* pSrc);

/* Rewrites the whole file from defaults, cuts it to its correct length,
 * records every record offset and remaps it.  bLock non-zero: take the
 * whole-file lock here.  bInitPrevData non-zero: also remake the private
 * copy.  0, or -1 when any step failed (failed records are marked missing
 * and the file bad; the others are still written). */
CM_EXPORT int CM_WriteDefaultData(int32_t iFileIndex, int bLock, int bInitPrevData);

/* Resets to default every record whose defaults group is at least `level`,
 * under a whole-file lock taken here (do not hold it); unchanged records
 * are not written.  0, or -1 for a bad index or a file not open. */
CM_EXPORT int CM_WriteDefaultDataItems(int32_t iFileIndex, uint32_t level);

/* Writes the fixed CRC word 0x12 0x34 at offset 2, without locking.
 * 0, or -1. */
CM_EXPORT int CM_UpdateCRC(int32_t iFileIndex);

CM_EXTERN_C_END

#endif
