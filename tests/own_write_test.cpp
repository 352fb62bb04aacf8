// A process's own sets as its own watch thread sees them: the pass that a
// set's record write triggers is left to the event of its check-word write,
// and nothing may be lost or doubled on the way.

#include "storage/own_write.h"
#include "support/test_support.h"

namespace {

constexpr int32_t kVars[] = {CMS_CONNECT_TIMEOUT, CMS_LINK_INACTIVITY, CMS_RECEIVE_TIMEOUT};  // one file
constexpr int kFile = 9;
std::atomic<int> g_calls[3];
std::atomic<int> g_lastSeen[3];  // the value a callback read back, -1 before any

int onChange(int32_t id) {
    const int k = static_cast<int>(std::find(std::begin(kVars), std::end(kVars), id) - std::begin(kVars));
    uint8_t v = 0;
    cm::storage::getDataItem(id, &v);
    g_lastSeen[k] = v;
    ++g_calls[k];
    return 0;
}

uint8_t get(int32_t id) {
    uint8_t v = 0;
    EXPECT_EQ(cm::storage::getDataItem(id, &v), 0);
    return v;
}

// Writes one byte of the file as another process does, with a plain write
// (from a child: no descriptor of this process closes under its watch thread).
void foreignWrite(uint8_t v, off_t at) {
    const std::string path = cm::storage::pathOf(kFile);
    ASSERT_EQ(cmtest::inChild([&] {
        const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        return fd >= 0 && pwrite(fd, &v, 1, at) == 1 ? 0 : 1;
    }), cmtest::kChildOk);
}

class OwnWrites : public cmtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(CM_init(1), 0);
        for (int k = 0; k < 3; ++k) {
            g_calls[k] = 0;
            g_lastSeen[k] = -1;
            ASSERT_EQ(cm::catalogue::entry(kFile, kVars[k] - 3232).wDataSize, 1);
            ASSERT_EQ(CM_Register_Interest(kVars[k], onChange), 0);
        }
    }
};

// Every set is read back at once and told once (a later change of another variable
// bounds the wait for a duplicate); back-to-back sets end told with the last value.
TEST_F(OwnWrites, SetsAreReadBackAtOnceAndToldOnceWithTheLastValue) {
    for (uint8_t v : {11, 12, 13}) {
        const int before = g_calls[0];
        ASSERT_EQ(cm::storage::putDataItem(kVars[0], &v), 1);
        EXPECT_EQ(get(kVars[0]), v);
        ASSERT_TRUE(cmtest::waitFor([&] { return g_calls[0] == before + 1; }));
        const int marker = g_calls[1];
        const uint8_t m = static_cast<uint8_t>(v + 100);
        ASSERT_EQ(cm::storage::putDataItem(kVars[1], &m), 1);
        ASSERT_TRUE(cmtest::waitFor([&] { return g_calls[1] == marker + 1; }));
        EXPECT_EQ(g_calls[0], before + 1) << "value " << int(v);
        EXPECT_EQ(g_lastSeen[0], v);
    }
    // Two threads set two variables of the file back to back, many times.
    constexpr int kRounds = 200;
    auto hammer = [](int k) {
        for (int n = 1; n <= kRounds; ++n) {
            const auto v = static_cast<uint8_t>(n);
            cm::storage::putDataItem(kVars[k], &v);
        }
    };
    std::thread a(hammer, 0), b(hammer, 2);
    a.join();
    b.join();
    for (int k : {0, 2}) {
        EXPECT_EQ(get(kVars[k]), kRounds);
        EXPECT_TRUE(cmtest::waitFor([&] { return g_lastSeen[k] == kRounds; })) << "var " << kVars[k];
    }
}

// A change by another process that arrives while a set of this process is
// half done is left to the set's check-word event; when that event comes, or
// when the set ends without one, the change is still told, and the thread's
// wake-up leaves no message behind.
TEST_F(OwnWrites, ChangesArrivingDuringAHalfDoneSetAreStillTold) {
    struct Case {
        const char* what;
        bool checkWordFollows;
    };
    const Case cases[] = {{"the check word is written", true}, {"the set ends without a write", false}};
    uint8_t value = 40;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const int before = g_calls[2];
        cm::storage::ownwrite::begin(kFile);
        foreignWrite(++value, cmtest::recordOffset(kVars[2]) + 4);
        ASSERT_TRUE(cmtest::waitFor([] { return cm::storage::ownwrite::passLeft(kFile); }));
        EXPECT_EQ(g_calls[2], before);
        if (c.checkWordFollows) {
            cm::storage::ownwrite::eventFollows(kFile);
            foreignWrite(0x12, 2);  // the check word's first byte, as it stands
        } else {
            cm::storage::ownwrite::noEventFollows(kFile);
        }
        ASSERT_TRUE(cmtest::waitFor([&] { return g_calls[2] == before + 1; }));
        EXPECT_EQ(g_lastSeen[2], value);
    }
    EXPECT_FALSE(sink.contains("Failed to find a watch descriptor match"));
}

}  // namespace
