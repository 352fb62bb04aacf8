// Releasing every resource the library holds in the process: the inotify
// descriptor and each data file's mapping and descriptor.
#pragma once

namespace cm::storage {

// Sets the kill flag, closes the inotify descriptor and unmaps, syncs and
// closes every data file, then logs "CM resources released".  With
// destroyMutexes the per-file mutexes are destroyed too (the fatal exit).
// Safe to call from any thread, repeatedly.
void releaseResources(bool destroyMutexes = false);

}  // namespace cm::storage
