// Parsing one inotify read into per-file flags.
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cstring>
#include <vector>

#include "inotify/event_parse.h"
#include "storage/file_state.h"
#include "support/test_support.h"

using namespace cm::inotify;

namespace {

// Appends one event (with a 16-byte name when `named`) to a read buffer.
void add(std::vector<uint8_t>& buf, int wd, uint32_t mask, bool named = false) {
    inotify_event ev{wd, mask, 0, named ? 16u : 0u};
    const size_t at = buf.size();
    buf.resize(at + kEventHeader + ev.len);
    std::memcpy(buf.data() + at, &ev, kEventHeader);
}

TEST(EventParse, EventsBecomeOneFlagPerFileAndBrokenOnesAreDropped) {
    cmtest::resetLibraryState();
    cmtest::CaptureSink sink;
    for (int i = 0; i < cm::storage::kNumFiles; ++i) cm::storage::inotifywd[i] = 100 + i;
    std::vector<uint8_t> buf;
    add(buf, 105, IN_MODIFY);
    add(buf, 105, IN_MODIFY);
    add(buf, 102, IN_CREATE, true);
    add(buf, 107, IN_DELETE_SELF);
    add(buf, 108, IN_MOVE_SELF | IN_MODIFY);  // a move wins over a modification
    add(buf, 109, IN_IGNORED);
    add(buf, 55, IN_MODIFY);       // no such watch
    buf.resize(buf.size() + 10);  // the start of an event cut off by the read
    PassFlags f{};
    parseEvents(buf.data(), buf.size(), f);
    for (int i = 0; i < cm::storage::kNumFiles; ++i) {
        EXPECT_EQ(f.modified[i], i == 5 || i == 2) << i;
        EXPECT_EQ(f.deleted[i], i == 7 || i == 8 || i == 9) << i;
    }
    EXPECT_EQ(cm::storage::inotifywd[9], -1) << "a dropped watch is forgotten";
    EXPECT_EQ(sink.count("Failed to find a watch descriptor match\n"), 1);
    EXPECT_TRUE(sink.contains("Partial event struct of 10 bytes at end of data from inotify read of " +
                              std::to_string(buf.size()) + " bytes\n"));
    cmtest::resetLibraryState();
}

}  // namespace
