// Turning the bytes of one inotify read into per-file flags.
#pragma once

#include <cstddef>
#include <cstdint>

#include "storage/file_state.h"

namespace cm::inotify {

inline constexpr size_t kEventBufferSize = 672;  // one read per pass
inline constexpr size_t kEventHeader = 16;       // wd, mask, cookie, name length

// What one pass has to do, per file; events of one read are merged so that
// several events for a file cause a single action.
struct PassFlags {
    bool deleted[storage::kNumFiles];
    bool modified[storage::kNumFiles];
    // In: how many removal events of watches on no data file are the
    // thread's own wake-ups, to be taken without a message; out: how many of
    // those are still to come.
    unsigned wakeUps;
};

// Parses whole events; a partial event at the end is logged and dropped (it
// is never completed from the next read).
void parseEvents(const uint8_t* buf, size_t len, PassFlags& flags);

}  // namespace cm::inotify
