// The bodies of the fuzz targets, shared by the libFuzzer programs and by
// the test that replays the kept corpora (tests/fuzz-corpus/).
//
// Each runs the real library function on the input as a file, against a
// private root directory with the library started as master; log output is
// discarded.  A broken invariant aborts.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cmfuzz {

// The input as a backup file given to the restore.
void restoreBackup(const uint8_t* data, size_t size);
// The input as the restore's filter file, with a small fixed backup.
void restoreFilter(const uint8_t* data, size_t size);
// The input as the tag cache, loaded as at a process's first lookup.
void loadTagCache(const uint8_t* data, size_t size);

}  // namespace cmfuzz
