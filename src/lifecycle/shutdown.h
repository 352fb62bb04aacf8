// Releasing the library's file resources, and the fatal exit.
#pragma once

namespace cm::lifecycle {

// Sets the kill flag, closes the inotify descriptor and unmaps, syncs and
// closes every data file.  Safe to call from any thread, repeatedly.
void cleanUp();
// Sets the kill flag, gives the watch thread one second, then cleanUp().
void kill();
// Logs the fatal error, releases every file and ends the process with
// status 1 one second later.
[[noreturn]] void errQuit(const char* szWhat, int iLine);

}  // namespace cm::lifecycle
