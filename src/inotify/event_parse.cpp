#include "inotify/event_parse.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "log/log.h"
#include "process/state.h"

namespace cm::inotify {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
using storage::kNumFiles;

// True when the open file is no longer the one its path names (unlinked,
// or replaced by a rename).
bool fileReplaced(int i) {
    struct stat open{}, named{};
    if (storage::fdRead[i] < 0 || fstat(storage::fdRead[i], &open) != 0) return false;
    if (open.st_nlink == 0 || stat(storage::pathOf(i), &named) != 0) return true;
    return open.st_ino != named.st_ino || open.st_dev != named.st_dev;
}

}  // namespace

void parseEvents(const uint8_t* buf, size_t len, PassFlags& flags) {
    constexpr const char* fn = "CM_ReadThread";
    size_t at = 0;
    while (len - at >= kEventHeader && !process::killRequested()) {
        inotify_event ev;
        std::memcpy(&ev, buf + at, kEventHeader);
        const char* name = reinterpret_cast<const char*>(buf + at + kEventHeader);
        if (ev.len != 0 && at + kEventHeader + ev.len <= len)
            CM_LOG(log::kDebug, fn, "Inotify Event read: iBufIndex=%d. wd=%d mask=0x%X cookie=%u len=%u name=%s\n",
                   static_cast<int>(at), ev.wd, ev.mask, ev.cookie, ev.len, name);
        else
            CM_LOG(log::kDebug, fn, "Inotify Event read: iBufIndex=%d. wd=%d mask=0x%X cookie=%u len=%u\n",
                   static_cast<int>(at), ev.wd, ev.mask, ev.cookie, ev.len);
        bool taken = false;
        for (int i = 0; i < kNumFiles && !taken; ++i) {
            if (storage::inotifywd[i] != ev.wd) continue;
            if (ev.mask & (IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF)) {
                flags.deleted[i] = taken = true;
            } else if (ev.mask & (IN_MODIFY | IN_CREATE)) {
                flags.modified[i] = taken = true;
            } else if ((ev.mask & IN_IGNORED) && ev.wd >= 0) {
                storage::inotifywd[i] = -1;
                flags.deleted[i] = taken = true;
            } else if (ev.mask & IN_ATTRIB) {
                flags.deleted[i] = fileReplaced(i) || flags.deleted[i];
                taken = true;
            }
        }
        if (!taken) CM_LOG_TAGGED(log::kWarn, "CM_ReadThread, PID=%d. Failed to find a watch descriptor match\n", getpid());
        at += kEventHeader + ev.len;
    }
    if (at < len && len - at < kEventHeader)
        CM_LOG(log::kWarn, fn, "Partial event struct of %d bytes at end of data from inotify read of %d bytes\n",
               static_cast<int>(len - at), static_cast<int>(len));
}

}  // namespace cm::inotify
