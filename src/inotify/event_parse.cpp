#include "inotify/event_parse.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "inotify/inotify_watch.h"
#include "log/log.h"
#include "process/state.h"

namespace cm::inotify {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
using storage::kNumFiles;

}  // namespace

void parseEvents(const uint8_t* buf, size_t len, PassFlags& flags) {
    constexpr const char* fn = "CM_ReadThread";
    size_t at = 0;
    while (len - at >= kEventHeader && !process::killRequested()) {
        inotify_event ev;
        std::memcpy(&ev, buf + at, kEventHeader);
        // An event whose stated name runs past the bytes read is as partial
        // as a cut header: it is dropped with the partial-event message.
        if (ev.len > len - at - kEventHeader) break;
        const char* name = reinterpret_cast<const char*>(buf + at + kEventHeader);
        if (ev.len != 0)
            CM_LOG(log::kDebug, fn, "Inotify Event read: iBufIndex=%d. wd=%d mask=0x%X cookie=%u len=%u name=%.*s\n",
                   static_cast<int>(at), ev.wd, ev.mask, ev.cookie, ev.len, static_cast<int>(strnlen(name, ev.len)),
                   name);
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
                flags.deleted[i] = pathNamesAnotherFile(i) || flags.deleted[i];
                taken = true;
            }
        }
        if (!taken && (ev.mask & IN_IGNORED) && flags.wakeUps > 0)
            --flags.wakeUps;
        else if (!taken && (ev.mask & IN_IGNORED) && takeDroppedWatch())
            ;  // a watch that set-up took back
        else if (!taken)
            CM_LOG_TAGGED(log::kWarn, "CM_ReadThread, PID=%d. Failed to find a watch descriptor match\n", getpid());
        if (ev.mask & IN_Q_OVERFLOW) {
            // The kernel dropped events: every file counts as modified (the
            // diff finds what changed; an unchanged file costs one compare),
            // and one that was replaced meanwhile as deleted.
            for (int i = 0; i < kNumFiles; ++i) {
                flags.modified[i] = true;
                flags.deleted[i] = flags.deleted[i] || pathNamesAnotherFile(i);
            }
        }
        at += kEventHeader + ev.len;
    }
    if (at < len && !process::killRequested())
        CM_LOG(log::kWarn, fn, "Partial event struct of %d bytes at end of data from inotify read of %d bytes\n",
               static_cast<int>(len - at), static_cast<int>(len));
}

}  // namespace cm::inotify
