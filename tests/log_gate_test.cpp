// The log gate's decision table and the two message shapes on both channels.
#include <gtest/gtest.h>

#include <cerrno>

#include "configmanager/applog.h"
#include "log/log.h"
#include "support/test_support.h"

using cm::log::Channel;

namespace {

constexpr auto kLogModule = cm::log::Module::FileAccess;

class LogGate : public ::testing::Test {
protected:
    void SetUp() override { cmtest::resetLibraryState(); }
    void TearDown() override { cmtest::resetLibraryState(); }
    cmtest::CaptureSink sink;
    cmtest::FastEnv env;
};

struct Case {
    uint8_t mode;
    uint32_t filter;
    uint32_t level;
    int allowed;
};

TEST_F(LogGate, DecisionTable) {
    const Case cases[] = {
        // Initial settings: notice and more severe pass.
        {1, 5, 259, 1}, {1, 5, 260, 1}, {1, 5, 261, 1}, {1, 5, 262, 0}, {1, 5, 263, 0},
        // Category filter 0x100: selected category passes at any allowed severity...
        {1, 0x107, 263, 1}, {1, 0x107, 0x100026, 0}, {1, 0x107, 0x100023, 1},
        // ...unselected categories pass only when warning or worse.
        {1, 0x107, 0x100024, 1}, {1, 0x107, 0x100025, 0},
        // Bit 0x10 lets uncategorised messages through a category filter.
        {1, 0x17, 6, 1}, {1, 0x17, 0x106, 0}, {1, 0x107, 6, 0},
        // Mode bits off: nothing passes, throttle bit or not.
        {0, 7, 0, 0}, {0x80, 7, 259, 0}, {0x81, 7, 263, 1},
        // Severity above the filter never passes, whatever the category.
        {1, 0x103, 0x104, 0},
    };
    for (const Case& c : cases) {
        cm::log::oLogMode = c.mode;
        Applog_default(c.filter);
        EXPECT_EQ(ApplogAllowed(c.level), c.allowed)
            << "mode=" << int(c.mode) << " filter=0x" << std::hex << c.filter << " level=0x" << c.level;
    }
}

TEST_F(LogGate, PrefixedMessagesOnBothChannels) {
    Applog_default(7);
    g_iConsoleLog = 1;
    CM_LOG(259, "CM_LockFile", "bad %d\n", 1);
    CM_LOG(262, "CM_LockFile", "info %d\n", 2);
    CM_LOG(263, "CM_LockFile", "debug %d\n", 3);
    g_iConsoleLog = 2;  // anything but 1 is the system log
    CM_LOG(259, "CM_LockFile", "bad %d\n", 1);
    CM_LOG(262, "CM_LockFile", "info %d\n", 2);
    CM_LOG(263, "CM_LockFile", "debug %d\n", 3);
    const auto lines = sink.lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0].text, "**ERROR:CM_LockFile:  bad 1\n");
    EXPECT_EQ(lines[1].text, "CM_LockFile:  info 2\n");
    EXPECT_EQ(lines[2].text, "CM_LockFile:  debug 3\n");
    EXPECT_EQ(lines[3].text, "**ERROR:CM_LockFile:../src/CM_FileAccess.c:  bad 1\n");
    EXPECT_EQ(lines[4].text, "CM_LockFile:../src/CM_FileAccess.c:  info 2\n");
    EXPECT_EQ(lines[5].text, "..... CM_LockFile:../src/CM_FileAccess.c:  debug 3\n");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(lines[i].channel, Channel::Console);
    for (int i = 3; i < 6; ++i) EXPECT_EQ(lines[i].channel, Channel::Syslog);
    EXPECT_EQ(lines[3].priority, 3);
    EXPECT_EQ(lines[5].priority, 7);
}

TEST_F(LogGate, TaggedMessagesAndErrnoText) {
    g_iConsoleLog = 0;
    errno = ENOENT;
    CM_LOG_TAGGED(259, "**ERROR: CM_WriteDataItem, PID=%d. failed: %m\n", 42);
    errno = EACCES;
    CM_LOG(259, "CM_LockFile", "error=%m\n");
    const auto lines = sink.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "**ERROR: CM_WriteDataItem, PID=42. failed: No such file or directory\n");
    EXPECT_EQ(lines[1].text, "**ERROR:CM_LockFile:../src/CM_FileAccess.c:  error=Permission denied\n");
}

TEST_F(LogGate, RefusedMessagesAreNeverFormattedAndThrottleFollowsWrites) {
    // A refused message must not evaluate its format: %s of a null would crash.
    CM_LOG(263, "f", "%s\n", static_cast<const char*>(nullptr));
    EXPECT_TRUE(sink.lines().empty());

    cm::log::oLogMode = 0x81;
    CM_LOG(259, "f", "one\n");
    CM_LOG(263, "f", "refused\n");
    ApplogSleep();
    const auto sleeps = env.sleeps();
    ASSERT_EQ(sleeps.size(), 2u);  // one after the written message, one explicit
    EXPECT_EQ(sleeps[0], std::chrono::milliseconds(100));

    cm::log::oLogMode = 0x80;  // throttled but off: nothing written, no pause
    CM_LOG(259, "f", "off\n");
    EXPECT_EQ(env.sleeps().size(), 2u);
    EXPECT_EQ(sink.lines().size(), 1u);
}

}  // namespace
