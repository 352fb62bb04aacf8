// The tag cache file: line 1 the software version ("%s\n"), then one line
// "%d %d\n" (file index, relative ID) per row of the sorted table.  No count,
// no checksum: the loader checks the version, the number of lines and that
// every row names a catalogue entry.
#pragma once

namespace cm::tags {

// Writes the sorted table through the temporary file, syncs it and renames
// it into place.  1 on success, else 0 (nothing half-written is left).
int writeCache();

}  // namespace cm::tags
