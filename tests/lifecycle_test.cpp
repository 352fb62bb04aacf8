// Start and stop in one process, the fatal exit, and the watch thread's
// handling of a stale all-defaults lock file.
#include <sys/resource.h>

#include "support/child_link.h"
#include "support/test_support.h"

namespace {
std::atomic<int> g_versionCalls{0};
std::atomic<int> g_heard{0};
int heard(int32_t) { return ++g_heard, 0; }
// Writes another variable of the same file from inside a callback: a
// deadlock if callbacks ran while the watch thread still held the file lock.
int writesBack(int32_t) {
    const uint8_t v = 77;
    cm::storage::putDataItem(CMS_LINK_INACTIVITY, &v);
    return ++g_heard, 0;
}
}  // namespace

// Replaces the library's weak default, as the device platform does.
extern "C" int createVersionInfoFile_date(int major, int minor, int patch, int build, const char* comp, const char*,
                                          const char*, int) {
    g_versionCalls += major == 3 && minor == 400 && patch == 4 && build == 0 && std::string(comp) == "ConfigManagerVersion";
    return 0;
}

namespace {

class Lifecycle : public cmtest::LibraryTest {
protected:
    void SetUp() override { restart(); }
    void restart() {
        LibraryTest::SetUp();
        g_heard = 0;
    }
    void putOctet(int32_t id, uint8_t v) { ASSERT_EQ(cm::storage::putDataItem(id, &v), 1); }
    // Runs `body` in a child that logs to its console (a file): its exit status and what it printed.
    std::pair<int, std::string> inChild(void (*body)()) {
        cmcheck::ChildLink child;
        child.spawn([body] {
            cmtest::FastEnv env;
            cm::log::setSink(nullptr);
            __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);
            body();
            _exit(99);
        }, root.path("/child.log"));
        const int status = child.finish(std::chrono::seconds(20));
        return {status, cmtest::readFile(root.path("/child.log"))};
    }
};

TEST_F(Lifecycle, StartsOnceStopsOnceAndStartsAgain) {
    uint32_t v = 0xAAAAAAAA;
    char text[CM_PASSWD_TEXT_SIZE] = "x";
    EXPECT_EQ(CM_Get_Variable_Check_Value(CURRENT_IP4_SUBNET_MASK, &v) + CM_Set_Variable_CMI(CURRENT_IP4_SUBNET_MASK, &v, 0) +
                  CM_Get_Passwd(CURRENT_FILE_TRANSFER_PASSWORD, text), 3 * CM_ERR_NOT_STARTED_OR_ID);
    EXPECT_EQ(std::pair(v, std::string(text)), std::pair(0xAAAAAAAAu, std::string()));
    EXPECT_EQ(CM_Exit(), CM_ERR_NOT_STARTED_OR_ID);
    EXPECT_TRUE(sink.contains("CM_Exit:../src/configparam.c:  Warning, CM not initialised..., ID="));
    ASSERT_EQ(CM_init(1), 0);
    EXPECT_EQ(CM_init(1), CM_ERR_ALREADY_STARTED);
    EXPECT_EQ(CM_initNoRegister(), CM_ERR_ALREADY_STARTED);
    EXPECT_TRUE(cmtest::waitFor([&] { return sink.contains("CM File Access initialised successfully. Version 3.400.4.0 ("); }));
    EXPECT_EQ(g_versionCalls, 1) << "the master records its version";
    for (int i = 0; i < cm::storage::kNumFiles; ++i)
        EXPECT_EQ(cm::storage::dwLenMappedFile[i], cm::storage::correctLength(i));
    ASSERT_EQ(CM_Register_Interest(CM_TEST123, heard), 0);
    ASSERT_EQ(CM_Exit(), 0);
    for (int i = 0; i < cm::storage::kNumFiles; ++i) EXPECT_EQ(cm::storage::fdRead[i], -1);

    // A restart forgets the old registrations; its own writes are heard
    // through the new watch thread.
    restart();
    ASSERT_EQ(CM_init(0), 0);
    EXPECT_EQ(g_versionCalls, 1) << "a non-master never records the version";
    ASSERT_EQ(CM_Register_Interest(CM_TEST123, heard), 0);
    putOctet(CM_TEST123, 17);
    EXPECT_TRUE(cmtest::waitFor([] { return g_heard == 1; }));
    EXPECT_EQ(CM_Exit_Delayed(), 0);
}

TEST_F(Lifecycle, FatalErrorsEndTheProcessWithStatusOne) {
    auto [status, out] = inChild([] { err_quit("'something broke'", 77); });
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("**ERROR: FATAL ERROR 'something broke' in line 77 of file '../src/CM_FileAccess.c', errno="),
              std::string::npos) << out;

    std::tie(status, out) = inChild([] {
        // With the descriptor limit at the lowest free number, inotify_init fails.
        const int probe = dup(0);
        rlimit lim{static_cast<rlim_t>(probe), static_cast<rlim_t>(probe)};
        close(probe);
        setrlimit(RLIMIT_NOFILE, &lim);
        CM_init(1);
    });
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("FATAL ERROR 'inotify_init failed' in line"), std::string::npos) << out;
}

// The closing banner is the watch thread's to write; a process that ends
// right after its start still writes it, however slow the log.
TEST_F(Lifecycle, BannerOutlivesAnImmediateExit) {
    auto [status, out] = inChild([] {
        struct SlowLog : cm::log::Sink {
            void write(cm::log::Channel, int, const char* fmt, va_list ap) override {
                usleep(100000);
                std::vprintf(fmt, ap);
            }
        };
        cm::log::setSink(new SlowLog);
        std::exit(CM_init(1));
    });
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("CM File Access initialised successfully."), std::string::npos) << out;
}

// A daemon without standard input: the library's descriptor 0 is closed at the stop.
TEST_F(Lifecycle, StopClosesDescriptorZero) {
    EXPECT_EQ(cmtest::inChild([] {
        close(0);
        return CM_init(1) != 0 ? 1 : CM_Exit() != 0 ? 2 : fcntl(0, F_GETFD) != -1 ? 3 : 0;
    }), cmtest::kChildOk);
}

TEST_F(Lifecycle, CallbacksRunAfterTheFileLockIsReleased) {
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(CMS_CONNECT_TIMEOUT, writesBack), 0);
    ASSERT_EQ(CM_Register_Interest(CMS_LINK_INACTIVITY, heard), 0);
    putOctet(CMS_CONNECT_TIMEOUT, 5);
    ASSERT_TRUE(cmtest::waitFor([] { return g_heard == 2; }));
}

TEST_F(Lifecycle, MasterWaitsForAShortFileThenRepairsIt) {
    cmtest::FastEnv env;
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(WD_LOG_MODE, heard), 0);
    const std::string wd = cm::storage::pathOf(6);
    const std::string good = cmtest::readFile(wd);
    ASSERT_EQ(truncate(wd.c_str(), 20), 0);
    // 50 pauses of 100 ms for the file to grow, then a rewrite from defaults
    // that notifies every variable of the file.
    ASSERT_TRUE(cmtest::waitFor([] { return g_heard == 1; }));
    EXPECT_EQ(cmtest::readFile(wd), good);
    EXPECT_TRUE(sink.contains("length 20 still too short after waiting (expected " + std::to_string(good.size())));
    EXPECT_EQ(env.sleepsOf(100ms), 50);
    // Found again at its correct length after a shorter one: no wait at all.
    cm::storage::dwLenActualFile[6] = 20;
    cmtest::rewrite(wd, good);
    ASSERT_TRUE(cmtest::waitFor([] { return g_heard == 2; }));
    EXPECT_EQ(sink.count("waiting for growth"), 1);
}

TEST_F(Lifecycle, StaleDefaultsLockFileIsRemovedAfterTheWait) {
    cmtest::FastEnv env;
    ASSERT_EQ(CM_init(1), 0);
    const std::string lockFile = root.path("/tmp/_LoadDefaultsAllLock_");
    cmtest::writeFile(lockFile, "");
    ASSERT_EQ(CM_Register_Interest(CM_TEST123, heard), 0);
    putOctet(CM_TEST123, 9);
    // The change waits behind the lock file, which is removed after 99 pauses.
    ASSERT_TRUE(cmtest::waitFor([] { return g_heard == 1; }));
    EXPECT_FALSE(std::filesystem::exists(lockFile));
    EXPECT_TRUE(sink.contains("Timeout waiting for another process to delete lock file '" + lockFile + "' - deleted it\n"));
    EXPECT_EQ(env.sleepsOf(100ms), 99);
}

}  // namespace
