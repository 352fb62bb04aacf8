// Parsing one inotify read into per-file flags.
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cstring>
#include <vector>

#include "storage/file_state.h"
#include "support/test_support.h"
#include "watch/event_parse.h"

using namespace cm::watch;

namespace {

class EventParse : public ::testing::Test {
protected:
    void SetUp() override {
        cmtest::resetLibraryState();
        for (int i = 0; i < cm::storage::kNumFiles; ++i) cm::storage::inotifywd[i] = 100 + i;
    }
    void TearDown() override { cmtest::resetLibraryState(); }
    void add(int wd, uint32_t mask, const char* name = nullptr) {
        inotify_event ev{};
        ev.wd = wd;
        ev.mask = mask;
        ev.len = name ? 16 : 0;
        const size_t at = buf.size();
        buf.resize(at + kEventHeader + ev.len);
        std::memcpy(buf.data() + at, &ev, kEventHeader);
        if (name) std::strncpy(reinterpret_cast<char*>(buf.data() + at + kEventHeader), name, 15);
    }
    PassFlags parse() {
        PassFlags f{};
        parseEvents(buf.data(), buf.size(), f);
        return f;
    }
    std::vector<uint8_t> buf;
    cmtest::CaptureSink sink;
};

TEST_F(EventParse, EventsBecomeOneFlagPerFile) {
    add(105, IN_MODIFY);
    add(105, IN_MODIFY);
    add(102, IN_CREATE, "x");
    add(107, IN_DELETE_SELF);
    add(108, IN_MOVE_SELF | IN_MODIFY);  // a move wins over a modification
    add(109, IN_IGNORED);
    const PassFlags f = parse();
    for (int i = 0; i < cm::storage::kNumFiles; ++i) {
        EXPECT_EQ(f.modified[i], i == 5 || i == 2) << i;
        EXPECT_EQ(f.deleted[i], i == 7 || i == 8 || i == 9) << i;
    }
    EXPECT_EQ(cm::storage::inotifywd[9], -1) << "a dropped watch is forgotten";
    EXPECT_EQ(cm::storage::inotifywd[7], 107);
}

TEST_F(EventParse, UnknownWatchesAndPartialEventsAreDropped) {
    add(55, IN_MODIFY);
    add(101, IN_MODIFY);
    buf.resize(buf.size() + 10);  // the start of an event cut off by the read
    const PassFlags f = parse();
    EXPECT_TRUE(f.modified[1]);
    EXPECT_EQ(sink.count("Failed to find a watch descriptor match\n"), 1);
    EXPECT_TRUE(sink.contains("Partial event struct of 10 bytes at end of data from inotify read of 42 bytes\n"));
}

}  // namespace
