/*
 * Configuration manager: shared types, result codes and limits.
 *
 * Every exported function returns a signed int: 0 for success, -1 for a
 * plain failure, or one of the small negative codes below.  Numbers that
 * cross the API (variable values in caller buffers) are in the host's byte
 * order; the data files themselves are always big-endian.
 */
#ifndef CONFIGMANAGER_CM_TYPES_H
#define CONFIGMANAGER_CM_TYPES_H

#include <stdint.h>

#if defined(__GNUC__)
#define CM_EXPORT __attribute__((visibility("default")))
#else
#define CM_EXPORT
#endif

#ifdef __cplusplus
#define CM_EXTERN_C_BEGIN extern "C" {
#define CM_EXTERN_C_END }
#else
#define CM_EXTERN_C_BEGIN
#define CM_EXTERN_C_END
#endif

/* Library version 3.400.4.0. */
#define CM_VERSION_MAJOR 3
#define CM_VERSION_MINOR 400
#define CM_VERSION_PATCH 4
#define CM_VERSION_BUILD 0

/* Absolute variable IDs run 0..3289; 3290 sizes per-variable arrays and ends walks. */
#define CM_MAX_VAR_ID 3289
#define CM_NUM_VAR_IDS 3290
#define CM_VAR_ID_END 3290
#define CM_NUM_FILES 10
/* Record offset of a variable whose record is bad or has not been located. */
#define CM_NO_RECORD_OFFSET 0xFFFFFFFFu

/* Result codes of the exported paths. */
enum CM_Result {
    CM_OK = 0,
    CM_FAIL = -1,
    CM_ERR_ALREADY_STARTED = -2,     /* second start */
    CM_ERR_REPEATED = -10,           /* repeated registration */
    CM_ERR_NULL_OR_NOMEM = -11,      /* null callback, or out of memory */
    CM_ERR_NOT_STARTED_OR_ID = -12,  /* not started, or ID above 3289 */
    CM_ERR_INVALID = -15,            /* invalid ID, read, write or password failure */
    CM_ERR_NO_FILE = -21,            /* ID in no file, or misuse of the CMSIF list */
    CM_ERR_UNSUPPORTED_TYPE = -22    /* type without a text form */
};

/* Data type codes (ucDataType). */
enum CM_DataType {
    DT_OCTET = 0,        /* unsigned 8-bit number */
    DT_WORD = 1,         /* unsigned 16-bit number */
    DT_DWORD = 2,        /* unsigned 32-bit number */
    DT_STRING = 3,       /* zero-terminated text */
    DT_OCTET_STRING = 4, /* raw bytes */
    DT_IPADDR = 5,       /* 20-byte stored address */
    DT_PASSWORD = 6      /* 130-byte enciphered record */
};

/* Values of the volatile variable CM_FLAG (absolute ID 0). */
enum CM_FlagMode {
    CM_FLAG_IDLE = 0,
    CM_FLAG_PROFILE_DOWNLOAD = 1,
    CM_FLAG_BATCH_CHANGE = 2
};

/* A change callback: receives the absolute ID of the changed variable. */
typedef int (*CM_NotifyCallback)(int32_t iVarID_Abs);

#endif
