/*
 * Catalogue lookups: a variable's absolute ID from its name, its file and
 * relative ID, and its static properties.  These read only the compiled-in
 * catalogue, take no locks and may be called from any thread.
 */
#ifndef CONFIGMANAGER_CM_LOOKUP_H
#define CONFIGMANAGER_CM_LOOKUP_H

#include <stdint.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Exact, case-sensitive match of iLen bytes (need not be zero-terminated)
 * against the tags.  0 and *piVarID_Abs set when found, -1 otherwise. */
CM_EXPORT int CM_GetVarIdFromName(const char* szName, int iLen, int32_t* piVarID_Abs);

/* File index and relative ID of an absolute ID (note: relative ID first).
 * 0, or -1 when the ID is in no file (nothing stored then). */
CM_EXPORT int CM_ConvertAbsolute2Relative(int32_t iVarID_Abs, int32_t* piVarID_Rel, int32_t* piFileIndex);

/* Data type code and stored size; 0, or -1 when the ID is in no file. */
CM_EXPORT int CM_GetDataTypeFromVarId(int32_t iVarID_Abs, uint32_t* pdwType);
CM_EXPORT int CM_GetDataSizeFromVarId(int32_t iVarID_Abs, uint32_t* pdwSize);

/* Type and bounds; each output may be NULL.  0, or -1. */
CM_EXPORT int CM_GetCMvarBounds(int32_t iVarID_Abs, uint8_t* pucType, uint32_t* pdwMin, uint32_t* pdwMax);

/* By file index and relative ID, unchecked (pass values a conversion gave). */
CM_EXPORT int CM_GetTellCMSInternal(int32_t iFileIndex, int32_t iVarID_Rel);
CM_EXPORT int CM_ItemoDataTypeIsDT_IPADDR(int32_t iFileIndex, int32_t iVarID_Rel);
CM_EXPORT int CM_ItemoDataTypeIsDT_PASSWORD(int32_t iFileIndex, int32_t iVarID_Rel);

/* Always a printable text: the tag, "(not initialised)" before the library
 * is started, or "(invalid iVarID_Abs)". */
CM_EXPORT const char* CM_GetDataItemVariableName(int32_t iVarID_Abs);

/* Reportable variables in ID order: start with 3290, feed each result back,
 * stop when 3290 returns.  -1 for an ID in no file. */
CM_EXPORT int32_t CM_GetNextReportableVariable(int32_t iVarID_Abs);

/* The tag of a variable (catalogue text, never freed), or NULL. */
CM_EXPORT const char* CM_GetCMvarTag(int32_t iVarID_Abs);

CM_EXTERN_C_END

#endif
