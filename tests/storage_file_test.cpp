// Data files as a whole: the waits of an ordinary open, creation, the
// mapping's length, and the two-layer lock between threads and processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "log/log.h"
#include "platform/paths.h"
#include "storage/defaults.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/open_map.h"
#include "support/test_support.h"

using namespace cm::storage;
using namespace std::chrono_literals;
using Sleeps = std::vector<std::chrono::nanoseconds>;

namespace {

constexpr int kRed = 7;  // 10 variables, 99 bytes

int rawLock(int fd, short type, int cmd, off_t start, off_t len) {
    struct flock fl{};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    return fcntl(fd, cmd, &fl);
}

struct Pipe {
    int fd[2];
    Pipe() { EXPECT_EQ(pipe(fd), 0); }
    ~Pipe() { close(fd[0]), close(fd[1]); }
    void send() { EXPECT_EQ(write(fd[1], "x", 1), 1); }
    bool receive() {
        pollfd p{fd[0], POLLIN, 0};
        char c;
        return poll(&p, 1, 10000) == 1 && read(fd[0], &c, 1) == 1;
    }
};

// Runs `body` in a child process that dies after 10 s at the latest; its
// exit code once it has ended.
template <typename F>
pid_t spawn(F body) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(10);
        _exit(body());
    }
    return pid;
}
int exitCode(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class DataFile : public ::testing::Test {
protected:
    void SetUp() override {
        cmtest::resetLibraryState();
        cm::paths::setRoot(root.dir());
        cm::log::dwLogFilter = 7;  // information and debug lines too
        path = cm::paths::dataFile(kRed);
    }
    void TearDown() override { cmtest::resetLibraryState(); }
    void openDefaulted() {
        ASSERT_EQ(openOrCreateFile(kRed), 1);
        ASSERT_EQ(writeDefaultData(kRed, true, false), 0);
    }
    int priorityOf(const std::string& fragment) const {
        for (const auto& l : sink.lines())
            if (l.text.find(fragment) != std::string::npos) return l.priority;
        return -1;
    }
    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
    cmtest::FastEnv env;
    std::string path;
};

TEST_F(DataFile, OpenWaitsForAMissingFileWithGrowingSteps) {
    int slept = 0;
    env.onSleep = [&](std::chrono::nanoseconds) {
        if (++slept == 9) cmtest::writeFile(path, "data");
    };
    ASSERT_EQ(openFile(kRed), 0);
    EXPECT_EQ(env.sleeps(), (Sleeps{1s, 1s, 1s, 1s, 1s, 2s, 2s, 2s, 10s}));
    // Information while under 5 s, warning under 10 s, error after that.
    EXPECT_EQ(priorityOf("does not exist after 4 secs - wait 1 secs then retry\n"), 6);
    EXPECT_EQ(priorityOf("does not exist after 5 secs - wait 2 secs then retry\n"), 4);
    EXPECT_EQ(priorityOf("does not exist after 9 secs - wait 2 secs then retry\n"), 4);
    EXPECT_EQ(priorityOf("does not exist after 11 secs - wait 10 secs then retry\n"), 3);
    EXPECT_EQ(sink.count("**ERROR:"), 1);
    EXPECT_TRUE(sink.contains("CM_OpenFile, CM data file [7] '" + path + "' opened with length 4 bytes\n"));
    EXPECT_EQ(fcntl(fdRead[kRed], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(dwLenCorrectFile[kRed], 99u);
}

TEST_F(DataFile, OpenWaitsForAnEmptyFileToBeFilled) {
    cmtest::writeFile(path, "");
    env.onSleep = [&](std::chrono::nanoseconds) {
        if (env.sleeps().size() == 3) cmtest::writeFile(path, "abc");
    };
    ASSERT_EQ(openFile(kRed), 0);
    EXPECT_EQ(env.sleeps(), Sleeps(3, 1s));
    EXPECT_EQ(sink.count("opened but has zero length - wait 1 sec for someone to fill it then retry\n"), 3);
}

TEST_F(DataFile, CreateMakesAnEmptyFileWithMode0644) {
    const mode_t old = umask(077);
    EXPECT_EQ(openOrCreateFile(kRed), 1);
    EXPECT_EQ(openOrCreateFile(0), 1);
    umask(old);
    struct stat st{};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(fcntl(fdRead[kRed], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    // Only a missing persistent file is worth a warning.
    EXPECT_EQ(sink.count("does not exist - attempting to create it\n"), 1);
    close(fdRead[kRed]);
    fdRead[kRed] = -1;
    EXPECT_EQ(openOrCreateFile(kRed), 0);

}

TEST_F(DataFile, MappingNeverExceedsTheCorrectLength) {
    openDefaulted();
    EXPECT_EQ(dwLenMappedFile[kRed], 99u);
    ASSERT_EQ(ftruncate(fdRead[kRed], 4096), 0);
    EXPECT_EQ(remapFile(kRed, 4096), 0);
    EXPECT_EQ(dwLenMappedFile[kRed], 99u);
    ASSERT_EQ(unmapFile(kRed), 0);
    EXPECT_EQ(mapFile(kRed, 4096), 0);
    EXPECT_EQ(dwLenMappedFile[kRed], 99u);

    ASSERT_EQ(remapFile(kRed, 0), 0);
    EXPECT_EQ(pMappedFile[kRed], nullptr);
    sink.clear();
    EXPECT_EQ(unmapFile(kRed), 0);  // nothing mapped: quiet
    EXPECT_TRUE(sink.lines().empty());
    EXPECT_EQ(initialisePrevData(kRed), -1);
}

TEST_F(DataFile, LockWaitsForAnotherProcessToRelease) {
    openDefaulted();
    Pipe locked, release;
    const pid_t child = spawn([&] {
        const int fd = open(path.c_str(), O_RDWR);
        if (rawLock(fd, F_WRLCK, F_SETLKW, 0, 0) != 0) return 1;
        locked.send();
        release.receive();
        return 0;  // exiting drops the lock
    });
    ASSERT_TRUE(locked.receive());
    std::atomic<bool> got{false};
    std::thread t([&] {
        EXPECT_EQ(lockFile(kRed, 9, 8), 0);
        got = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(got);
    release.send();
    EXPECT_TRUE(cmtest::waitFor([&] { return got.load(); }));
    t.join();
    // Held now: another process cannot have the range, another thread of
    // this one cannot have any range.
    EXPECT_EQ(exitCode(spawn([&] { return rawLock(open(path.c_str(), O_RDWR), F_WRLCK, F_SETLK, 12, 1) == 0; })), 0);
    std::atomic<bool> gotOther{false};
    std::thread other([&] {
        EXPECT_EQ(lockFile(kRed, 50, 1), 0);
        gotOther = true;
        unlockFile(kRed, 50, 1);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(gotOther);
    EXPECT_EQ(unlockFile(kRed, 9, 8), 0);
    other.join();
    EXPECT_EQ(exitCode(child), 0);
    EXPECT_TRUE(env.sleeps().empty());  // plain waiting is no back-off
}

// The child holds byte 100 and waits for byte 200, which this process holds;
// asking for byte 100 then fails with EDEADLK until byte 200 is let go.
TEST_F(DataFile, LockDeadlockIsRetriedAfterARandomisedPause) {
    openDefaulted();
    env.random_ = [] { return 312345L; };  // 100000 + 312345 % 100000 = 112345 us
    ASSERT_EQ(rawLock(fdRead[kRed], F_WRLCK, F_SETLK, 200, 1), 0);
    Pipe holding;
    const pid_t child = spawn([&] {
        const int fd = open(path.c_str(), O_RDWR);
        if (rawLock(fd, F_WRLCK, F_SETLK, 100, 1) != 0) return 1;
        holding.send();
        return rawLock(fd, F_WRLCK, F_SETLKW, 200, 1) == 0 ? 0 : 2;
    });
    ASSERT_TRUE(holding.receive());
    const bool blocked = cmtest::waitFor([&] {
        std::ifstream in("/proc/locks");
        for (std::string line; std::getline(in, line);)
            if (line.find("->") != std::string::npos && line.find(" " + std::to_string(child) + " ") != std::string::npos)
                return true;
        return false;
    }, 5s);
    if (!blocked) {
        rawLock(fdRead[kRed], F_UNLCK, F_SETLK, 200, 1);
        exitCode(child);
        GTEST_SKIP() << "the child's blocked request does not show in /proc/locks";
    }
    env.onSleep = [&](std::chrono::nanoseconds) {
        if (env.sleeps().size() == 3) rawLock(fdRead[kRed], F_UNLCK, F_SETLK, 200, 1);
    };
    EXPECT_EQ(lockFile(kRed, 100, 1), 0);
    EXPECT_EQ(env.sleeps(), Sleeps(3, 112345us));
    // Information and error lines alternate.
    std::vector<int> priorities;
    for (const auto& l : sink.lines())
        if (l.text.find("F_SETLKW (F_WRLCK) for file '" + path + "' blocked (") != std::string::npos) {
            priorities.push_back(l.priority);
            EXPECT_NE(l.text.find(std::string(strerror(EDEADLK)) + "), wait 112ms...\n"), std::string::npos) << l.text;
        }
    EXPECT_EQ(priorities, (std::vector<int>{6, 3, 6}));
    EXPECT_EQ(unlockFile(kRed, 100, 1), 0);
    EXPECT_EQ(exitCode(child), 0);
}

TEST_F(DataFile, LockFailuresAndTheMutex) {
    openDefaulted();
    const int fd = fdRead[kRed];
    fdRead[kRed] = -1;  // refused without touching the mutex
    EXPECT_EQ(lockFile(kRed, 0, 0), -1);
    EXPECT_TRUE(sink.contains("Invalid File descriptor for file no. 7 ('" + path + "')\n"));

    // Any other fcntl failure (a write lock through a read-only descriptor)
    // leaves the mutex held until the caller's unlock.
    fdRead[kRed] = open(path.c_str(), O_RDONLY);
    EXPECT_EQ(lockFile(kRed, 0, 0), -1);
    EXPECT_TRUE(sink.contains("Failed to F_SETLKW file '" + path + "'. error=" + strerror(EBADF)));
    EXPECT_EQ(pthread_mutex_trylock(&mtxFile[kRed]), EBUSY);
    EXPECT_EQ(unlockFile(kRed, 0, 0), 0);
    ASSERT_EQ(pthread_mutex_trylock(&mtxFile[kRed]), 0);
    pthread_mutex_unlock(&mtxFile[kRed]);
    close(fdRead[kRed]);
    fdRead[kRed] = fd;
}

}  // namespace
