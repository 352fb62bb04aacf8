// Restore of a configuration from a backup text, by tag, with an optional
// filter of tag prefixes to leave alone.
//
// Variables are set one by one as their lines are read, through the value
// text parser; there is no transaction.  Every message goes straight to the
// system log (the restore is typically run from a tool whose output nobody
// watches).
#pragma once

namespace cm::restore {

// 0 every variable found was set and could be read back; 1 some set or
// read-back failed, or the backup cannot be opened or is not a backup
// (first line not SOFTWARE_VERSION, nothing set); -1 backupPath is null.
// Unknown tags are not errors.
int restoreConfig(const char* backupPath, const char* filterPath);

}  // namespace cm::restore
