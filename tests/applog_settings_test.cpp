// Log settings that follow their variables across processes, and the text
// of remote log events.
#include "applog/remote_log.h"
#include "notify/registry.h"
#include "support/agent.h"
#include "support/test_support.h"

namespace {

// Writes a number in the width of the variable's type.
int setNumber(int32_t id, uint32_t v) {
    const uint8_t u8 = static_cast<uint8_t>(v);
    const uint16_t u16 = static_cast<uint16_t>(v);
    const uint8_t type = cmtest::entryOf(id).ucDataType;
    return CM_Set_Variable_CMI(id, type == DT_OCTET ? static_cast<const void*>(&u8) : type == DT_WORD ? static_cast<const void*>(&u16) : &v, 0);
}

class Applog : public ::testing::Test {
protected:
    void SetUp() override { TearDown(), cm::notify::clearRegistry(); }
    void TearDown() override { cmtest::resetLibraryState(), cm::log::oApplogState = 0; }
    void start() { ASSERT_EQ(CM_init(1), 0); }
    cmtest::TempRoot root;
};

TEST_F(Applog, RemoteLogEventText) {
    cmtest::CaptureSink log;
    const auto events = [&] {  // remote events only: the watch thread may log too
        auto lines = log.lines();
        std::erase_if(lines, [](const auto& l) { return l.text.rfind("^^VX", 0) != 0; });
        return lines;
    };
    start();
    RemoteLog(6, 21, "%s", "too early");
    EXPECT_TRUE(events().empty());

    // A unit name with conversions prints as it stands.
    ASSERT_EQ(CM_Set_Variable_CMI(UNIT_NAME, "gw %n%s 100%", 0), 0);
    const uint8_t mac[8] = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC, 0, 0};
    ASSERT_EQ(CM_Set_Variable_CMI(MAC1_ADDRESS, mac, 0), 0);
    ASSERT_EQ(CM_PutDataItemFromString(CURRENT_IP4_ADDRESS, "10.1.2.3"), 1);
    ASSERT_EQ(CM_PutDataItemFromString(CURRENT_IP6_ADDRESS, "2001:db8::1"), 1);
    ASSERT_EQ(Applog_init(GENERAL_LOG_MODE, GENERAL_LOG_FILTER), 0);
    EXPECT_EQ(Applog_init(GENERAL_LOG_MODE, GENERAL_LOG_FILTER), -1);

    const struct {
        uint8_t ip4Status, ip6Status;
        const char* addresses;
    } cases[] = {{3, 0, "no ip address"}, {4, 3, "10.1.2.3"}, {0, 6, "2001:db8::1"}, {4, 4, "10.1.2.3 2001:db8::1"}};
    const auto event = [](const char* text, const char* addresses, const char* seq) {
        return std::string("^^VX Code=000021;") + text + ";Device=Zr440;Unit Name=gw %n%s 100%;IP Address=" +
               addresses + ";MAC=00:11:22:AA:BB:CC;Seq No=" + seq;
    };
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(setNumber(CURRENT_IP4_ADDRESS_STATUS, cases[i].ip4Status), 0);
        ASSERT_EQ(setNumber(CURRENT_IP6_ADDRESS_STATUS, cases[i].ip6Status), 0);
        RemoteLogChanged(CURRENT_IP6_ADDRESS_STATUS);
        log.clear();
        RemoteLog(0x106, 21, "%s", "General Defaults Loaded");
        ASSERT_EQ(events().size(), 1u);
        EXPECT_EQ(events()[0].text, event("General Defaults Loaded", cases[i].addresses, ("0000" + std::to_string(i)).c_str()));
    }

    // The caller's format takes its arguments; neither the gate nor the
    // console setting applies; the sequence number wraps after 99999.
    __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);
    cm::log::oLogMode = 0;
    cm::applog::setNextSeqNo(99999);
    log.clear();
    RemoteLog(3, 21, "x=%d %s", 5, "y");
    RemoteLog(0x107, 21, "100%%");
    const auto lines = events();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, event("x=5 y", "10.1.2.3 2001:db8::1", "99999"));
    EXPECT_EQ(lines[1].text, event("100%", "10.1.2.3 2001:db8::1", "00000"));
    for (const auto& l : lines) EXPECT_EQ(l.channel, cm::log::Channel::Syslog);
    EXPECT_EQ(lines[0].priority, 3);
    EXPECT_EQ(lines[1].priority, 7);
}

// Agent commands: bind the log settings, and report where a message of a
// given level goes ("none", "console" or "syslog").
cmtest::CaptureSink* g_childLog = nullptr;

void addLogVerbs() {
    cmtest::Agent::addVerb("applog", [](std::istringstream& in) {
        int32_t mode = 0, filter = 0;
        in >> mode >> filter;
        g_childLog = new cmtest::CaptureSink;  // lives as long as the child
        return std::to_string(Applog_init(mode, filter));
    });
    cmtest::Agent::addVerb("emit", [](std::istringstream& in) {
        uint32_t level = 0;
        in >> level;
        g_childLog->clear();
        CM_LOG_TAGGED(level, "probe\n");
        const auto lines = g_childLog->lines();
        if (lines.empty()) return std::string("none");
        return std::string(lines[0].channel == cm::log::Channel::Console ? "console" : "syslog");
    });
}

TEST_F(Applog, SettingsFollowVariablesChangedByAnotherProcess) {
    addLogVerbs();
    cmtest::Agent agent;
    start();
    // 'once': on for this run, off for the next; set before the agent starts, so no
    // notification of this write is pending when its 'once' handling begins.
    ASSERT_EQ(setNumber(GENERAL_LOG_MODE, 2), 0);
    ASSERT_EQ(agent.call("init 0"), "ok 0");
    ASSERT_EQ(agent.call("applog " + std::to_string(GENERAL_LOG_MODE) + " " + std::to_string(GENERAL_LOG_FILTER)),
              "ok 0");
    uint8_t mode = 0xFF;
    ASSERT_EQ(CM_Get_Variable(GENERAL_LOG_MODE, &mode), 0);
    EXPECT_EQ(mode, 0);
    // A later change in the same file, once heard, proves the watcher has
    // also handled the write of the 'once' mode.
    ASSERT_EQ(agent.call("reg " + std::to_string(GENERAL_LOG_FILTER)), "ok 0");
    ASSERT_EQ(setNumber(GENERAL_LOG_FILTER, 6), 0);
    ASSERT_TRUE(agent.waitCallbacks(1));
    EXPECT_EQ(agent.call("emit 259"), "ok syslog");

    const struct {
        int32_t id;
        uint32_t value, level;
        const char* where;
    } steps[] = {
        // Each step changes what the agent does, so that waiting for it
        // proves the change was heard before the next one is made.
        {GENERAL_LOG_FILTER, 3, 262, "none"},     {GENERAL_LOG_MODE, 0x80, 259, "none"},
        {GENERAL_LOG_MODE, 1, 259, "syslog"},     {GENERAL_LOG_MODE, 0, 259, "none"},
        {GENERAL_LOG_MODE, 1, 259, "syslog"},     {GENERAL_LOG_FILTER, 7, 263, "syslog"},
        {CONSOLE_LOG, 1, 263, "console"},         {CONSOLE_LOG, 2, 263, "syslog"},
        {GENERAL_LOG_FILTER, 0x17, 0x106, "none"}, {GENERAL_LOG_FILTER, 0x17, 6, "syslog"},
    };
    for (const auto& s : steps) {
        ASSERT_GE(setNumber(s.id, s.value), 0);
        const std::string want = std::string("ok ") + s.where;
        EXPECT_TRUE(cmtest::waitFor([&] { return agent.call("emit " + std::to_string(s.level)) == want; }))
            << s.id << "=" << s.value << " level " << s.level << ": want " << s.where;
    }
    EXPECT_EQ(agent.finish(), 0);
}

}  // namespace
