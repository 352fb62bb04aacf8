// C entry points of the configuration backup and restore.
#include "backup/backup.h"
#include "configmanager/cm_backup.h"
#include "restore/restore.h"

extern "C" {

CM_EXPORT int CM_BackupConfig_common(const char* szPath, int iIncludeVolatile, int iIncludeOctetData) {
    return cm::backup::backupConfig(szPath, iIncludeVolatile != 0, iIncludeOctetData != 0);
}

CM_EXPORT int CM_RestoreConfig(const char* szBackup, const char* szFilter) {
    return cm::restore::restoreConfig(szBackup, szFilter);
}

}
