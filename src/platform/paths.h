// Fixed paths of the system, resolved under one root directory.
//
// On the device the root is "/", so every path is used as it stands.  Host
// tools and tests move the whole tree under a directory of their own with
// setRoot() before the library is started.  Resolved paths are computed once
// per setRoot(), so the hot paths never build strings.
#pragma once

#include <string_view>

namespace cm::paths {

// Device paths of the fixed files outside the catalogue; each gets a
// resolved copy below.
inline constexpr const char* kDefaultsLockFile = "/tmp/_LoadDefaultsAllLock_";
// The sorted tag cache and the temporary file it is written through.
inline constexpr const char* kTagCacheFile = "/var/AppData/config/CMTagSortedList.txt";
inline constexpr const char* kTagCacheTempFile = "/var/AppData/config/CMTagSortedList.txt_temp";

// Sets the root directory ("/" or empty for the device layout).  Returns
// false when the text is too long for a path.
bool setRoot(std::string_view root);
const char* root();

// Writes devicePath resolved under the root into out (PATH_MAX bytes).
// False when it does not fit.
bool resolve(char* out, std::string_view devicePath);
// Changes with every setRoot(), so that holders of resolved copies know
// when to resolve again.
unsigned generation();
// The resolved path of the all-defaults lock file.
const char* defaultsLockFile();
// The resolved paths of the tag cache and of its temporary file.
const char* tagCacheFile();
const char* tagCacheTempFile();

}  // namespace cm::paths
