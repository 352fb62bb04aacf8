// The configuration backup: a text file of every persistent variable's
// value, one "TAG : VALUE" line each, headed by the software version.
//
// Line 1 is "SOFTWARE_VERSION : <version>" ("0.000.0.0" when the version is
// empty or holds white space, so that it is always one word).  Then the
// variables file by file, in catalogue order: numbers in decimal, texts as
// stored ("NULL" when empty), addresses in text form ("NULL" when none),
// octet strings and enciphered passwords as "0x" and upper-case hex digits
// (only on request).  The text is the same on every host byte order.
#pragma once

namespace cm::backup {

// 0, or -1 when the path is null, the file cannot be created or the
// version cannot be read.  A variable that cannot be read costs only its
// own line.
int backupConfig(const char* path, bool includeVolatile, bool includeOctetData);

}  // namespace cm::backup
