/*
 * Get and set: the operations every process uses to read and write its
 * configuration variables by absolute ID.
 *
 * Value buffers hold the variable's value in the caller's form and stored
 * size: numbers in host byte order (1, 2 or 4 bytes), texts zero-terminated,
 * octet strings as raw bytes.  Two types differ: an IP address variable is
 * read and written as a socket address (the buffer must hold a
 * struct sockaddr_in6), and a password variable is written as zero-terminated
 * plain text (at most 127 bytes) and read as its 130-byte enciphered record
 * (CM_Get_Passwd deciphers it).
 *
 * Gets require a started library; sets only that start was begun.  Sets are
 * serialised within a process by one recursive mutex.  Both may be called
 * from change callbacks.
 */
#ifndef CONFIGMANAGER_CM_GETSET_H
#define CONFIGMANAGER_CM_GETSET_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Reads a variable.  0; -12 library not started; -15 read failed (also for
 * an ID outside 0..3289, or a null pValue).  Nothing is written to pValue
 * on -12. */
CM_EXPORT int CM_Get_Variable(int32_t iVarID_Abs, void* pValue);

/* As CM_Get_Variable; a failure is also logged with the variable's name. */
CM_EXPORT int CM_Get_Variable_Log_Error(int32_t iVarID_Abs, void* pValue);

/* The catalogue default.  0; -12 not started; -15 invalid ID. */
CM_EXPORT int CM_Get_Variable_Default_Value(int32_t iVarID_Abs, void* pValue);

/* Reads a variable and checks a number against its bounds.  0 in range (or
 * not a number); 1 out of range: the default has been written back to the
 * file and put into pValue (a default that is itself out of range is
 * repaired again at every checked read); negative on read failure. */
CM_EXPORT int CM_Get_Variable_Check_Value(int32_t iVarID_Abs, void* pValue);

/* Writes a variable, unless a profile download is in progress (CM_FLAG = 1),
 * in which case the write is dropped and 0 is returned.  Otherwise the
 * result of CM_Set_Variable_CMI. */
CM_EXPORT int CM_Set_Variable(int32_t iVarID_Abs, const void* pValue);

/* As CM_Set_Variable; a failure is also logged with the variable's name. */
CM_EXPORT int CM_Set_Variable_Log_Error(int32_t iVarID_Abs, const void* pValue);

/* Writes a variable unconditionally (no profile-download check).  iCaller
 * is accepted and ignored.  0; -12 not started or mutex failure; -15 invalid
 * ID, password too long or cipher failure; negative for an IP address of an
 * unknown family (the "no address" form is written all the same).
 * Note: after a password failure the process-wide set mutex stays held by
 * the calling thread; sets from other threads of the process then block. */
CM_EXPORT int CM_Set_Variable_CMI(int32_t iVarID_Abs, const void* pValue, int iCaller);

/* As CM_Set_Variable_CMI; a failure is also logged with the variable's name. */
CM_EXPORT int CM_Set_Variable_CMI_Log_Error(int32_t iVarID_Abs, const void* pValue, int iCaller);

CM_EXTERN_C_END

#endif
