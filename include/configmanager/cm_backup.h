/*
 * Backup of the configuration to a text file, and restore from one.
 *
 * A backup file holds one line per variable, "TAG : VALUE", headed by
 * "SOFTWARE_VERSION : <version>".  Values are in decimal for numbers, the
 * text itself for texts ("NULL" when empty), the address text for IP
 * addresses ("NULL" for none), and "0x" followed by upper-case hexadecimal
 * digits for octet strings and enciphered passwords.  The text is the same
 * whatever the byte order of the host that wrote it.
 */
#ifndef CONFIGMANAGER_CM_BACKUP_H
#define CONFIGMANAGER_CM_BACKUP_H

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Writes the value of every variable to the file szPath (replacing it),
 * file by file in catalogue order.  iIncludeVolatile non-zero: the volatile
 * file's variables too.  iIncludeOctetData non-zero: octet strings and
 * passwords too.  0; -1 when szPath is null, the file cannot be created
 * (logged to the system log) or SOFTWARE_VERSION cannot be read.  A variable
 * that cannot be read is left out.  Do not run two backups to one path at
 * once. */
CM_EXPORT int CM_BackupConfig_common(const char* szPath, int iIncludeVolatile, int iIncludeOctetData);

/* Sets every variable named in the backup file szBackup to its value there,
 * by tag, except those whose tag begins with one of the names in the filter
 * file szFilter (one per line, at most 50; null or "" for no filter).
 * Unknown tags are skipped.  0 when every variable found was set and read
 * back; 1 when some failed, or when the backup cannot be opened or its first
 * line is not SOFTWARE_VERSION (then nothing is set); -1 when szBackup is
 * null.  Every message goes to the system log. */
CM_EXPORT int CM_RestoreConfig(const char* szBackup, const char* szFilter);

CM_EXTERN_C_END

#endif
