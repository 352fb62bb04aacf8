// Factory and all defaults on real files in a private root: the clean-up run
// for real inside the root, and the all-defaults lock file seen by another process.
#include <array>

#include "defaults/cleanup.h"
#include "support/agent.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using Files = std::array<std::string, CM_NUM_FILES>;

namespace {

Files readAll() {
    Files f;
    for (int i = 0; i < CM_NUM_FILES; ++i) f[i] = cmtest::readFile(cm::storage::pathOf(i));
    return f;
}

// Calls fn(file, relative ID, offset of the record's data) for every record.
template <typename Fn>
void forEachRecord(Fn fn) {
    for (const auto& v : cmtest::allVars()) fn(v.file, v.rel, cmtest::recordOffset(v.id) + 4);
}

// Changes the first data byte of every record, writing in place.
Files flipEveryRecord(const Files& in) {
    Files out = in;
    forEachRecord([&](int i, int, uint32_t data) { out[i][data] ^= 0x5A; });
    for (int i = 0; i < CM_NUM_FILES; ++i)
        if (access(cm::storage::pathOf(i), F_OK) == 0) cmtest::rewrite(cm::storage::pathOf(i), out[i]);
    return out;
}

class Defaults : public cmtest::LibraryTest {
protected:
    void start() {
        ASSERT_EQ(CM_init(1), 0);
        pristine = readAll();
    }
    Files pristine;
};

TEST_F(Defaults, FactoryResetKeepsTheVersionAndCleansOnlyInsideTheRoot) {
    // A root that breaks naive quoting, or runs a command if unquoted.
    const std::string dir = root.dir() + "/it's a root;touch INJECTED";
    fs::create_directories(dir + "/tmp");
    fs::create_directories(dir + "/var/AppData/config");
    ASSERT_TRUE(cm::paths::setRoot(dir));
    cmtest::CaptureSink log;
    cmtest::FastEnv shell;  // records the commands, run inside the private root
    start();
    // Files each step removes, and near misses that must survive.
    const struct {
        const char* path;
        bool removed;
    } planted[] = {
        {"/var/log/messages", 1}, {"/var/log/messages.1", 1}, {"/var/log/old_messages", 0}, {"/tmp/a.txt", 1},
        {"/tmp/a.txt.gz", 0}, {"/tmp/sub/deep.txt", 0}, {"/tmp/log_1", 1}, {"/tmp/catalog_1", 0},
        {"/tmp/Zr440_CM_backup.7z", 1}, {"/var/log/ControlTask_2", 1}, {"/var/log/ControlTask", 0},
        {"/var/log/cmsif_msg.0", 1}, {"/var/log/dsp_status", 1}, {"/var/log/dsp_stat", 0}, {"/var/log/a.pcap", 1},
        {"/var/log/a.pcapng", 0}, {"/home/VXEngineer/engg/techsupport.tgz", 1}, {"/home/VXEngineer/techsupport.tgz", 0},
        {"/var/www/shttpd.pem", 1}, {"/etc/pki/tls/private/sip.pem", 1}, {"/etc/pki/tls/certs/sip.pem", 1},
        {"/etc/pki/tls/certs/sip.pem.bak", 0}, {"/root/.ash_history", 1}, {"/home/VXEngineer/.ash_history", 1},
        {"/root/.bash_history", 0},
    };
    for (const auto& p : planted) {
        fs::create_directories(fs::path(dir + p.path).parent_path());
        cmtest::writeFile(dir + p.path, "x");
    }
    flipEveryRecord(readAll());
    const char version[22] = "9.9.9-field";
    ASSERT_EQ(CM_Set_Variable_CMI(SOFTWARE_VERSION, version, 0), 0);
    ASSERT_EQ(CM_Set_Variable_CMI(PRE_UPGRADE_SOFTWARE_VERSION, version, 0), 0);

    EXPECT_EQ(CM_Load_Factory_Defaults(), 0);
    for (const auto& p : planted) EXPECT_EQ(fs::exists(dir + p.path), !p.removed) << p.path;
    EXPECT_TRUE(fs::exists(dir + "/var/AppData/.clearhistory"));
    EXPECT_FALSE(fs::exists("INJECTED"));
    EXPECT_FALSE(fs::exists(dir + "/tmp/INJECTED"));
    EXPECT_TRUE(log.contains("****** Loading Factory CM variable defaults ******\n"));
    EXPECT_TRUE(log.contains("****** Loaded Factory CM variable defaults ******\n"));

    // Every command names its path after the root, quoted for the shell.
    const std::string quoted = "'" + root.dir() + "/it'\\''s a root;touch INJECTED'/";
    EXPECT_EQ(shell.commands.size(), 12u);
    for (const auto& c : shell.commands) EXPECT_TRUE(c.find("rm -f " + quoted) == 0 || c.find("touch " + quoted) == 0) << c;

    // Everything is back at its default except the software version.
    char got[22] = {};
    ASSERT_EQ(CM_Get_Variable(SOFTWARE_VERSION, got), 0);
    EXPECT_STREQ(got, version);
    ASSERT_EQ(CM_Set_Variable_CMI(SOFTWARE_VERSION, "Unknown", 0), 0);
    EXPECT_EQ(readAll(), pristine);

    // On the device the commands are the fixed strings themselves.
    ASSERT_TRUE(cm::paths::setRoot("/"));
    EXPECT_EQ(cm::defaults::shellCommand({"rm -f ", "/tmp/*.txt"}), "rm -f /tmp/*.txt");
    ASSERT_TRUE(cm::paths::setRoot(dir));
}

TEST_F(Defaults, AllDefaultsRebuildEveryFileUnderTheLockFile) {
    cmtest::Agent watcher;  // spawned before this process starts the library
    start();
    const Files flipped = flipEveryRecord(pristine);
    cmtest::writeFile(cm::storage::pathOf(7), flipped[7] + "trailing junk");
    ASSERT_EQ(watcher.call("init 0"), "ok 0");
    ASSERT_EQ(watcher.call("reg " + std::to_string(CMS_LINK_INACTIVITY)), "ok 0");

    cm::log::dwLogFilter = 7;  // lets the per-record progress lines through
    int held = 0, free = 0;  // records written with and without the lock file there
    cmtest::CaptureSink probe([&](const std::string& line) {
        if (line.find("written at offset") != std::string::npos) ++(access(cm::paths::defaultsLockFile(), F_OK) == 0 ? held : free);
    });
    EXPECT_EQ(CM_Load_All_Defaults(), 0);
    cm::log::dwLogFilter = 5;
    EXPECT_EQ(free, 0);
    EXPECT_GE(held, 3088);
    EXPECT_NE(access(cm::paths::defaultsLockFile(), F_OK), 0);
    EXPECT_EQ(readAll(), pristine);
    ASSERT_TRUE(watcher.waitCallbacks(1));
    EXPECT_EQ(watcher.callbacks(), std::vector<int>{CMS_LINK_INACTIVITY});
    EXPECT_EQ(watcher.call("get " + std::to_string(CMS_LINK_INACTIVITY)), "ok 0 15");
    EXPECT_EQ(watcher.finish(), 0);
}

}  // namespace
