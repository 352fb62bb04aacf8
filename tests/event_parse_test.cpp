// Parsing one inotify read into per-file flags.
#include <sys/inotify.h>

#include <cstddef>

#include "inotify/event_parse.h"
#include "inotify/inotify_watch.h"
#include "support/test_support.h"

using namespace cm::inotify;

namespace {

constexpr int kRed = 7;  // open, so that a replaced or deleted path can be told from it
constexpr unsigned kAll = (1u << CM_NUM_FILES) - 1;

struct Event {
    int wd;
    uint32_t mask;
    uint32_t nameLen = 0;  // a name of 16 bytes follows; a longer stated one runs past the read
};

std::vector<uint8_t> bytesOf(const std::vector<Event>& events) {
    std::vector<uint8_t> buf;
    for (const Event& e : events) {
        const inotify_event ev{e.wd, e.mask, 0, e.nameLen};
        const size_t at = buf.size();
        buf.resize(at + kEventHeader + (e.nameLen <= 16 ? e.nameLen : 0));
        std::memcpy(buf.data() + at, &ev, kEventHeader);
    }
    return buf;
}

TEST(EventParse, EveryKindOfEventSetsItsFlags) {
    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
    cmtest::resetLibraryState();
    ASSERT_EQ(cm::storage::openOrCreateFile(kRed), 1);
    const struct {
        const char* what;
        bool redGone;  // the path of file 7 unlinked first
        std::vector<Event> events;
        size_t junk, partial;  // bytes of a cut-off event after them; bytes dropped as partial
        unsigned modified, deleted;
        int unmatched;  // "no watch descriptor" warnings
    } cases[] = {
        {"writes and a creation", false, {{105, IN_MODIFY}, {105, IN_MODIFY}, {102, IN_CREATE, 16}}, 0, 0, 1u << 5 | 1u << 2, 0, 0},
        {"deletions, a move over a modification, a dropped watch", false,
         {{107, IN_DELETE_SELF}, {108, IN_MOVE_SELF | IN_MODIFY}, {109, IN_IGNORED}, {103, IN_DELETE, 16}}, 0, 0, 0,
         1u << 7 | 1u << 8 | 1u << 9 | 1u << 3, 0},
        {"unknown watch", false, {{55, IN_MODIFY}}, 0, 0, 0, 0, 1},
        {"attributes of a file still in place", false, {{107, IN_ATTRIB}}, 0, 0, 0, 0, 0},
        {"overflow", false, {{-1, IN_Q_OVERFLOW}}, 0, 0, kAll, 0, 1},
        {"cut-off event", false, {{105, IN_MODIFY}}, 10, 10, 1u << 5, 0, 0},
        {"name past the read", false, {{104, IN_MODIFY}, {103, IN_DELETE_SELF, 4000}}, 0, 16, 1u << 4, 0, 0},
        {"attributes of a deleted file", true, {{107, IN_ATTRIB}}, 0, 0, 0, 1u << 7, 0},
        {"overflow after a deletion", true, {{-1, IN_Q_OVERFLOW}}, 0, 0, kAll, 1u << 7, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.redGone) unlink(cm::storage::pathOf(kRed));
        for (int i = 0; i < CM_NUM_FILES; ++i) cm::storage::inotifywd[i] = 100 + i;
        std::vector<uint8_t> buf = bytesOf(c.events);
        buf.resize(buf.size() + c.junk);
        sink.clear();
        PassFlags f{};
        parseEvents(buf.data(), buf.size(), f);
        unsigned modified = 0, deleted = 0;
        for (int i = 0; i < CM_NUM_FILES; ++i) modified |= unsigned{f.modified[i]} << i, deleted |= unsigned{f.deleted[i]} << i;
        EXPECT_EQ(modified, c.modified);
        EXPECT_EQ(deleted, c.deleted);
        EXPECT_EQ(sink.count("Failed to find a watch descriptor match\n"), c.unmatched);
        EXPECT_EQ(sink.count("Partial event struct of " + std::to_string(c.partial) + " bytes at end of data from inotify read of " +
                             std::to_string(buf.size()) + " bytes\n"), c.partial ? 1 : 0);
        EXPECT_EQ(cm::storage::inotifywd[9], c.deleted & 1u << 9 ? -1 : 109) << "a dropped watch is forgotten";
    }
    // A watch that set-up took back: one removal event is excused, nothing else.
    cm::process::inotifyfd = inotify_init1(IN_CLOEXEC);
    ASSERT_EQ(cm::storage::openOrCreateFile(6), 1);
    cm::storage::inotifywd[6] = -1;
    ASSERT_EQ(cm::inotify::addInotifyWatch(6), 0);
    cm::inotify::dropInotifyWatch(6);
    const auto buf = bytesOf({{105, IN_MODIFY}, {55, IN_MODIFY}, {60, IN_IGNORED}, {61, IN_IGNORED}});
    sink.clear();
    PassFlags f{};
    parseEvents(buf.data(), buf.size(), f);
    EXPECT_TRUE(f.modified[5]);
    EXPECT_EQ(sink.count("Failed to find a watch descriptor match"), 2);  // the unknown watch, the second removal
    EXPECT_FALSE(cm::inotify::takeDroppedWatch());
    cmtest::resetLibraryState();
}

}  // namespace
