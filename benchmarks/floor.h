// The floor: the bare system-call sequences that the design of the data
// files forces, with nothing of the library around them.  The benchmarks
// measure the library against these in the same run.
//
//   open + fstat (the wait for a non-empty file) + whole-file lock + fstat
//   (the length, under the lock) + mmap + record walk + private copy + watch
//   record lock + lseek/write + unlock, whole-file lock + lseek/write + unlock
//   blocking inotify read + fstat + whole-file lock + compare (+ walk) + unlock
#pragma once

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "catalogue/catalogue.h"
#include "platform/paths.h"
#include "storage/file_state.h"
#include "platform/byte_order.h"

namespace bench::floor {

inline int rangeLock(int fd, short type, int cmd, off_t start, off_t len) {
    struct flock fl{};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    return fcntl(fd, cmd, &fl);
}
inline void lock(int fd, off_t start, off_t len) { rangeLock(fd, F_WRLCK, F_SETLKW, start, len); }
inline void unlock(int fd, off_t start, off_t len) { rangeLock(fd, F_UNLCK, F_SETLK, start, len); }

// One data file as the floor sees it: descriptor, read-only mapping, private
// copy and the record offsets found by the walk.
struct File {
    int index = -1;
    int fd = -1;
    const uint8_t* map = nullptr;
    uint8_t* copy = nullptr;
    uint32_t len = 0;
    std::vector<uint32_t> offset;

    // open (close-on-exec), fstat, whole-file lock, fstat, mmap, header and
    // record walk, private copy, unlock.  False when the file is unusable.
    bool open(int i) {
        index = i;
        fd = ::open(cm::storage::pathOf(i), O_RDWR | O_CLOEXEC);
        if (fd < 0) return false;
        struct stat st{};
        if (fstat(fd, &st) != 0 || st.st_size == 0) return false;
        lock(fd, 0, 0);
        fstat(fd, &st);
        len = static_cast<uint32_t>(st.st_size);
        void* m = mmap(nullptr, len, PROT_READ, MAP_PRIVATE, fd, 0);
        bool ok = m != MAP_FAILED;
        if (ok) {
            map = static_cast<const uint8_t*>(m);
            ok = walk();
            copy = static_cast<uint8_t*>(std::malloc(len));
            std::memcpy(copy, map, len);
        }
        unlock(fd, 0, 0);
        return ok;
    }

    bool walk() {
        const auto& f = cm::catalogue::sConfigItemList[index];
        offset.assign(static_cast<size_t>(f.iNumItems), 0);
        uint32_t at = 4;
        for (int r = 0; r < f.iNumItems; ++r) {
            const uint32_t size = f.pItems[r].wDataSize;
            if (at + 4 + size > len || cm::platform::loadBe16(map + at) != r ||
                cm::platform::loadBe16(map + at + 2) != size)
                return false;
            offset[static_cast<size_t>(r)] = at;
            at += 4 + size;
        }
        return true;
    }

    // The diff of a watch pass, under the whole-file lock: one comparison,
    // and the record walk only when something differs.  Calls changed(rel)
    // for each changed record, after the unlock, in ascending order.
    template <class F>
    void diff(F changed) {
        struct stat st{};
        fstat(fd, &st);
        lock(fd, 0, 0);
        int hits[8];
        int nHits = 0;
        if (std::memcmp(map, copy, len) != 0) {
            const auto& f = cm::catalogue::sConfigItemList[index];
            for (int r = 0; r < f.iNumItems; ++r) {
                const uint32_t at = offset[static_cast<size_t>(r)];
                const uint32_t size = f.pItems[r].wDataSize;
                if (cm::platform::loadBe16(map + at) != r || cm::platform::loadBe16(map + at + 2) != size) continue;
                if (std::memcmp(map + at + 4, copy + at + 4, size) != 0) {
                    std::memcpy(copy + at + 4, map + at + 4, size);
                    if (nHits < 8) hits[nHits++] = r;
                }
            }
        }
        unlock(fd, 0, 0);
        for (int h = 0; h < nHits; ++h) changed(hits[h]);
    }

    // Record write then check-word write, each under its own lock.
    void write(int rel, const void* data) {
        const uint32_t at = offset[static_cast<size_t>(rel)];
        const uint32_t size = cm::catalogue::sConfigItemList[index].pItems[rel].wDataSize;
        uint8_t rec[4 + 256];
        cm::platform::storeBe16(rec, static_cast<uint16_t>(rel));
        cm::platform::storeBe16(rec + 2, static_cast<uint16_t>(size));
        std::memcpy(rec + 4, data, size);
        lock(fd, at, size + 4);
        const bool differs = std::memcmp(rec + 4, map + at + 4, size) != 0;
        if (differs && lseek(fd, at, SEEK_SET) == static_cast<off_t>(at)) {
            [[maybe_unused]] const ssize_t n = ::write(fd, rec, size + 4);
        }
        unlock(fd, at, size + 4);
        if (!differs) return;
        static const uint8_t crc[2] = {0x12, 0x34};
        lock(fd, 0, 0);
        if (lseek(fd, 2, SEEK_SET) == 2) {
            [[maybe_unused]] const ssize_t n = ::write(fd, crc, 2);
        }
        unlock(fd, 0, 0);
    }
};

// The watch of one file on a fresh inotify instance, with the library's mask.
inline int watch(const File& f) {
    const int ifd = inotify_init1(IN_CLOEXEC);
    if (ifd >= 0) inotify_add_watch(ifd, cm::storage::pathOf(f.index), 0xF02 | IN_ATTRIB);
    return ifd;
}

}  // namespace bench::floor
