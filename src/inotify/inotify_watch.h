// Adding and removing the inotify watch of one data file.
#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace cm::inotify {

// IN_MODIFY | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF, plus
// IN_ATTRIB: while any process holds a data file open, unlinking or
// replacing it never frees the inode, so IN_DELETE_SELF does not come; the
// link-count change (IN_ATTRIB) is the only sign, and the watch thread
// checks whether the path still names the watched file.
inline constexpr uint32_t kWatchMask = 0xF02 | 0x004;

// 0, or -1 (bad index, no descriptor, no inotify descriptor, already watched,
// or the kernel refused).  The watch descriptor goes into inotifywd.
int addInotifyWatch(int iFileIndex);
// The same, for set-up, which has just looked at the open file (under its
// lock): its identity is taken from `openFile` instead of being looked up
// again.  A file unlinked or replaced since then is caught all the same:
// its path then names another file, or none.
int addInotifyWatch(int iFileIndex, const struct stat* openFile);
// For set-up that adds the watch before it looks at the file, under the
// file's lock: adds the watch of a file whose descriptor is on the file
// (dev, ino), then looks at what the path names, into *named.  True when
// that is the open file (*named is then its state); otherwise the file is
// marked for a re-check as above, and false (false also when the watch
// could not be added, as addInotifyWatch reports it).
bool addInotifyWatchNamed(int iFileIndex, dev_t dev, ino_t ino, struct stat* named);
// Turns the modify events of the file's watch off (or back on) while the
// file is held whole, by a thread of this process or by another process
// that the watch thread waits for (a restore): each record written
// meanwhile would queue an event, at a cost to its writer, and the pass
// that follows the hold sees every one of those writes.  True when the
// watch's mask was changed; when the events could not be turned back on,
// the file is marked for a re-check.
bool setModifyEvents(int iFileIndex, bool on);
// Takes back a watch that set-up added but does not keep.  The IN_IGNORED
// event that the removal queues is then not reported as unknown.
void dropInotifyWatch(int iFileIndex);
bool takeDroppedWatch();
// Removes the watch; inotifywd is -1 afterwards in every case.
int removeInotifyWatch(int iFileIndex);

// True when the open file is no longer the one its path names (unlinked,
// or replaced by a rename).  False when the file is not open.
bool pathNamesAnotherFile(int iFileIndex);
// The same, against the open file's identity looked up before.
bool pathNamesAnotherFile(int iFileIndex, const struct stat& openFile);

// A file deleted or replaced between its (re-)creation and its new watch
// sends no event to that watch.  addInotifyWatch looks at the path again
// once the watch is in place and, when it names another file (or none),
// marks the file here; the watch thread takes the mark at the start of its
// next pass and handles the file as deleted.
void markForRecheck(int iFileIndex);
bool takeRecheck(int iFileIndex);
bool anyRecheck();

}  // namespace cm::inotify
