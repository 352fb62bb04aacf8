// Start and stop in one process, the fatal exit, and the watch thread's
// handling of a stale all-defaults lock file.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>

#include "configmanager/applog.h"
#include "configmanager/cm_lifecycle.h"
#include "configmanager/cm_notify.h"
#include "configmanager/cm_vars.h"
#include "log/sink.h"
#include "platform/paths.h"
#include "storage/file_state.h"
#include "storage/record.h"
#include "support/test_support.h"

namespace {

std::atomic<int> g_versionCalls{0};
std::atomic<int> g_heard{0};

int heard(int32_t) {
    ++g_heard;
    return 0;
}

}  // namespace

// Replaces the library's weak default, as the device platform does.
extern "C" int createVersionInfoFile_date(int major, int minor, int patch, int build, const char* comp, const char*,
                                          const char*, int) {
    if (major == 3 && minor == 400 && patch == 4 && build == 0 && std::string(comp) == "ConfigManagerVersion")
        ++g_versionCalls;
    return 0;
}

namespace {

class Lifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        cmtest::resetLibraryState();
        g_versionCalls = 0;
        g_heard = 0;
    }
    void TearDown() override {
        CM_Exit();
        cmtest::resetLibraryState();
    }
    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
};

// Runs `body` in a child with stdout captured; returns exit status and output.
std::pair<int, std::string> inChild(void (*body)()) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        body();
        _exit(99);
    }
    close(fds[1]);
    std::string out;
    char buf[1024];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST_F(Lifecycle, StartsOnceStopsOnceAndStartsAgain) {
    EXPECT_EQ(CM_Exit(), CM_ERR_NOT_STARTED_OR_ID);
    EXPECT_TRUE(sink.contains("CM_Exit:../src/configparam.c:  Warning, CM not initialised..., ID="));
    ASSERT_EQ(CM_init(1), 0);
    EXPECT_EQ(CM_init(1), CM_ERR_ALREADY_STARTED);
    EXPECT_EQ(CM_initNoRegister(), CM_ERR_ALREADY_STARTED);
    EXPECT_EQ(sink.count("Warning, CM already initialised..., ID="), 2);
    EXPECT_TRUE(sink.contains("CM File Access initialised successfully. Version 3.400.4.0 ("));
    EXPECT_EQ(g_versionCalls, 1) << "the master records its version";
    for (int i = 0; i < cm::storage::kNumFiles; ++i) {
        EXPECT_GE(cm::storage::fdRead[i], 0);
        EXPECT_EQ(cm::storage::dwLenMappedFile[i], cm::storage::correctLength(i));
    }
    ASSERT_EQ(CM_Register_Interest(CM_TEST123, heard), 0);
    ASSERT_EQ(CM_Exit(), 0);
    EXPECT_EQ(CM_Exit(), CM_ERR_NOT_STARTED_OR_ID);
    for (int i = 0; i < cm::storage::kNumFiles; ++i) EXPECT_EQ(cm::storage::fdRead[i], -1);

    // A restart forgets the old registrations and its own writes are heard
    // through the new watch thread.
    cmtest::resetLibraryState();
    cm::paths::setRoot(root.dir());
    ASSERT_EQ(CM_init(0), 0);
    EXPECT_EQ(g_versionCalls, 1) << "a non-master never records the version";
    ASSERT_EQ(CM_Register_Interest(CM_TEST123, heard), 0);
    const uint8_t v = 17;
    ASSERT_EQ(cm::storage::putDataItem(CM_TEST123, &v), 1);
    EXPECT_TRUE(cmtest::waitFor([] { return g_heard.load() == 1; }));
    EXPECT_EQ(CM_Exit_Delayed(), 0);
}

TEST_F(Lifecycle, FailedGeneralFileGivesTheFailedBanner) {
    // Only the General file's result decides the banner; a non-master with a
    // General file it cannot open reports failure.
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Exit(), 0);
    cmtest::resetLibraryState();
    cm::paths::setRoot(root.dir());
    const std::string general = cm::paths::dataFile(9);
    ASSERT_EQ(rename(general.c_str(), (general + ".away").c_str()), 0);
    ASSERT_EQ(mkdir(general.c_str(), 0755), 0);  // opening a directory for writing fails
    sink.clear();
    ASSERT_EQ(CM_init(0), 0);
    EXPECT_TRUE(sink.contains("CM File Access Initialisation FAILED. Version 3.400.4.0 ("));
    ASSERT_EQ(CM_Exit(), 0);
}

TEST_F(Lifecycle, ErrQuitEndsTheProcessWithStatusOne) {
    auto [status, out] = inChild([] {
        cmtest::FastEnv env;
        cm::log::setSink(nullptr);
        g_iConsoleLog = 1;
        err_quit("'something broke'", 77);
    });
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("**ERROR: FATAL ERROR 'something broke' in line 77 of file '../src/CM_FileAccess.c', errno="),
              std::string::npos)
        << out;
}

TEST_F(Lifecycle, StartWithoutInotifyEndsTheProcess) {
    auto [status, out] = inChild([] {
        cmtest::FastEnv env;
        cm::log::setSink(nullptr);
        g_iConsoleLog = 1;
        // No descriptor can be created once the limit is the lowest free one.
        const int probe = dup(0);
        rlimit lim{static_cast<rlim_t>(probe), static_cast<rlim_t>(probe)};
        close(probe);
        setrlimit(RLIMIT_NOFILE, &lim);
        CM_init(1);
    });
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("FATAL ERROR 'inotify_init failed' in line"), std::string::npos) << out;
}

TEST_F(Lifecycle, StaleDefaultsLockFileIsRemovedAfterTheWait) {
    cmtest::FastEnv env;
    ASSERT_EQ(CM_init(1), 0);
    const std::string lockFile = root.path("/tmp/_LoadDefaultsAllLock_");
    cmtest::writeFile(lockFile, "");
    ASSERT_EQ(CM_Register_Interest(CM_TEST123, heard), 0);
    const uint8_t v = 9;
    ASSERT_EQ(cm::storage::putDataItem(CM_TEST123, &v), 1);
    // The change waits behind the lock file, which is removed after 99 pauses.
    ASSERT_TRUE(cmtest::waitFor([] { return g_heard.load() == 1; }));
    EXPECT_FALSE(std::filesystem::exists(lockFile));
    EXPECT_TRUE(sink.contains("Timeout waiting for another process to delete lock file '" + lockFile +
                              "' - deleted it\n"));
    EXPECT_EQ(sink.count("Lock file exists, iLockCount="), 0) << "information level is filtered by default";
    int pauses = 0;
    for (auto d : env.sleeps()) pauses += d == std::chrono::milliseconds(100);
    EXPECT_EQ(pauses, 99);
}

}  // namespace
