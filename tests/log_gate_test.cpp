// The log gate's decision table, the two message shapes on both channels, and the sink's replacement.
#include <cerrno>

#include "log/syslog_direct.h"
#include "support/test_support.h"

using cm::log::Channel;

namespace {

constexpr auto kLogModule = cm::log::Module::FileAccess;

class LogGate : public cmtest::LibraryTest {
protected:
    cmtest::FastEnv env;
};

TEST_F(LogGate, DecisionTable) {
    struct Case { uint8_t mode; uint32_t filter, level; int allowed; };
    const Case cases[] = {
        // Initial settings (mode 1, filter 5): notice and more severe pass.
        {1, 5, 259, 1}, {1, 5, 260, 1}, {1, 5, 261, 1}, {1, 5, 262, 0}, {1, 5, 263, 0},
        // A selected category passes at any allowed severity, others only when warning or worse.
        {1, 0x107, 263, 1}, {1, 0x107, 0x100023, 1}, {1, 0x107, 0x100024, 1}, {1, 0x107, 0x100025, 0},
        {1, 0x107, 0x100026, 0}, {1, 0x103, 0x104, 0},  // severity above the filter never passes
        {1, 0x17, 6, 1}, {1, 0x17, 0x106, 0}, {1, 0x107, 6, 0},  // bit 0x10 admits uncategorised
        {0, 7, 0, 0}, {0x80, 7, 259, 0}, {0x81, 7, 263, 1},       // mode bits off: nothing passes
    };
    for (const Case& c : cases) {
        cm::log::oLogMode = c.mode;
        Applog_default(c.filter);
        EXPECT_EQ(ApplogAllowed(c.level), c.allowed)
            << "mode=" << int(c.mode) << " filter=0x" << std::hex << c.filter << " level=0x" << c.level;
    }
}

// Prefixed messages name the function (and, in the system log, the module);
// tagged ones are written as given.  %m is honoured in both.
TEST_F(LogGate, MessageShapesOnBothChannels) {
    Applog_default(7);
    for (int console : {1, 2}) {  // exactly 1 is the console, anything else the system log
        __atomic_store_n(&g_iConsoleLog, console, __ATOMIC_RELAXED);
        errno = EACCES;
        CM_LOG(259, "CM_LockFile", "bad %d: %m\n", 1);
        CM_LOG(262, "CM_LockFile", "info %d\n", 2);
        CM_LOG(263, "CM_LockFile", "debug %d\n", 3);
        errno = ENOENT;
        CM_LOG_TAGGED(259, "**ERROR: CM_WriteDataItem, PID=%d. failed: %m\n", 42);
    }
    const std::string tagged = "**ERROR: CM_WriteDataItem, PID=42. failed: No such file or directory\n";
    const std::tuple<Channel, int, std::string> want[] = {
        {Channel::Console, 3, "**ERROR:CM_LockFile:  bad 1: Permission denied\n"},
        {Channel::Console, 6, "CM_LockFile:  info 2\n"},
        {Channel::Console, 7, "CM_LockFile:  debug 3\n"},
        {Channel::Console, 3, tagged},
        {Channel::Syslog, 3, "**ERROR:CM_LockFile:../src/CM_FileAccess.c:  bad 1: Permission denied\n"},
        {Channel::Syslog, 6, "CM_LockFile:../src/CM_FileAccess.c:  info 2\n"},
        {Channel::Syslog, 7, "..... CM_LockFile:../src/CM_FileAccess.c:  debug 3\n"},
        {Channel::Syslog, 3, tagged},
    };
    const auto lines = sink.lines();
    ASSERT_EQ(lines.size(), 8u);
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(std::tie(lines[i].channel, lines[i].priority, lines[i].text), want[i]) << "line " << i;
}

TEST_F(LogGate, RefusedMessagesAreNeverFormattedAndThrottleFollowsWrites) {
    // A refused message never reaches the sink, nor are its arguments evaluated.
    int evaluated = 0;
    CM_LOG(263, "f", "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(sink.lines().empty());

    cm::log::oLogMode = 0x81;
    CM_LOG(259, "f", "one\n");
    CM_LOG(263, "f", "refused\n");
    ApplogSleep();
    EXPECT_EQ(env.sleeps(), (std::vector<std::chrono::nanoseconds>(2, std::chrono::milliseconds(100))))
        << "one pause after the written message, one explicit";
    cm::log::oLogMode = 0x80;  // throttled but off: nothing written, no pause
    CM_LOG(259, "f", "off\n");
    EXPECT_EQ(env.sleeps().size(), 2u);
    EXPECT_EQ(sink.lines().size(), 1u);
}

TEST(LogSink, ReplacingWaitsForAWriteUnderWay) {
    std::atomic<int> step{0};
    cmtest::CaptureSink slow([&](const std::string&) { for (step = 1; step == 1;) sched_yield(); });
    std::thread writer([] { cm::log::syslogDirect(6, "slow\n"); });
    ASSERT_TRUE(cmtest::waitFor([&] { return step == 1; }));
    std::thread replacer([&] { cm::log::setSink(nullptr), step = 3; });
    EXPECT_FALSE(cmtest::waitFor([&] { return step == 3; }, std::chrono::milliseconds(50)));
    step = 2, replacer.join(), writer.join();
}

}  // namespace
