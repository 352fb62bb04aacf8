// An unprivileged user (a child as "nobody") plants links, files, queues and
// the lock file in shared directories; the root side's operations must work
// or fail as specified, leaving the planted targets unchanged.  Needs root.
#include <grp.h>
#include <mqueue.h>
#include <pwd.h>

#include "support/test_support.h"

using namespace cm;
using cmtest::readFile;

namespace {

// Starts body in a child (under umask 0), as nobody when asked.
pid_t spawn(const std::function<int()>& body, bool asNobody) {
    static const passwd* pw = getpwnam("nobody");
    const uid_t uid = pw ? pw->pw_uid : 65534;
    const gid_t gid = pw ? pw->pw_gid : 65534;
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        if (asNobody && (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0)) _exit(99);
        umask(0);
        _exit(body());
    }
    return pid;
}
// Runs body in a child: its exit status, or 128 + the signal that ended it.
int inChild(const std::function<int()>& body, bool asNobody) {
    int st = 0;
    waitpid(spawn(body, asNobody), &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}
int asNobody(const std::function<int()>& body) { return inChild(body, true); }

// A text variable's value, in a buffer of the full record size.
const void* text(const char* s) {
    static char buf[256];
    std::snprintf(buf, sizeof buf, "%s", s);
    return buf;
}

struct stat lstatOf(const std::string& p) {
    struct stat st{};
    if (lstat(p.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}

class HostileUser : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: the other user is played by a child that drops to nobody";
        cmtest::resetLibraryState();
        // Shared directories as on the device's /tmp: anyone may add entries.
        chmod(root.dir().c_str(), 0755);
        chmod(root.path("/tmp").c_str(), 01777);
        chmod(root.path("/var/AppData/config").c_str(), 01777);
        cmtest::writeFile(precious, "precious");
        chmod(precious.c_str(), 0600);
    }
    void TearDown() override { cmtest::resetLibraryState(); }
    cmtest::TempRoot root;
    const std::string precious = root.path("/precious");
    cmtest::CaptureSink log;  // outlives TearDown's stop of the watch thread, which logs into it
};

// Links at every fixed path: the master replaces each data file, the lock
// file and the cache files; the link's target is never written.  Every
// descriptor the library made is close-on-exec.
TEST_F(HostileUser, LinksAtFixedPathsAreNeverFollowed) {
    const std::string planted[] = {storage::pathOf(0), storage::pathOf(5), paths::defaultsLockFile(),
                                   paths::tagCacheTempFile(), paths::tagCacheFile()};
    ASSERT_EQ(asNobody([&] {
        for (const auto& p : planted)
            if (symlink(precious.c_str(), p.c_str()) != 0) return 1;
        return 0;
    }), 0);
    ASSERT_EQ(CM_init(1), 0);
    EXPECT_EQ(CM_LoadAllDefaults(), 0);
    EXPECT_EQ(CM_TagMapping(), 1);
    EXPECT_EQ(readFile(precious), "precious");
    EXPECT_TRUE(log.contains("is a symbolic link"));
    for (int i : {0, 5}) {
        const struct stat st = lstatOf(storage::pathOf(i));
        EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 0777) == 0644) << i;
        EXPECT_EQ(storage::bBadFile[i], 0);
    }
    EXPECT_TRUE(S_ISREG(lstatOf(paths::tagCacheFile()).st_mode));
    EXPECT_EQ(lstatOf(paths::defaultsLockFile()).st_mode, 0u);
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(e.path().filename());
        std::error_code ec;
        const std::string target = std::filesystem::read_symlink(e.path(), ec).string();
        if (target.rfind(root.dir(), 0) == 0 || target.find("inotify") != std::string::npos) {
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << target;
        }
    }

    // A non-master meeting a link treats the file as damaged and never
    // writes through it.
    cmtest::resetLibraryState();
    unlink(storage::pathOf(0));
    ASSERT_EQ(asNobody([&] { return symlink(precious.c_str(), storage::pathOf(0)); }), 0);
    ASSERT_EQ(CM_init(0), 0);
    EXPECT_EQ(storage::bBadFile[0], 1);
    uint8_t flag = 1;
    EXPECT_EQ(CM_WriteDataItem(0, 0, &flag, 1), -1);
    EXPECT_NE(CM_Get_Variable(CM_FLAG, &flag), 0);
    EXPECT_EQ(readFile(precious), "precious");
}

// Files another user made first, and a lock file of theirs: the master
// creates its own files afresh, and the lock holds no watcher back.
TEST_F(HostileUser, FilesOfAnotherUserAreNotAdopted) {
    const std::string vol = storage::pathOf(0), lock = paths::defaultsLockFile();
    ASSERT_EQ(asNobody([&] {
        cmtest::writeFile(vol, std::string(storage::correctLength(0), '\1'));
        cmtest::writeFile(lock, "Locked");
        return chmod(vol.c_str(), 0666) | chmod(lock.c_str(), 0644);
    }), 0);
    log::dwLogFilter = 7;
    ASSERT_EQ(CM_init(1), 0);
    const struct stat st = lstatOf(vol);
    EXPECT_TRUE(st.st_uid == 0 && (st.st_mode & 0777) == 0644);
    uint8_t flag = 9;
    ASSERT_EQ(CM_Get_Variable(CM_FLAG, &flag), 0);
    EXPECT_EQ(flag, 0);

    static std::atomic<int> told{0};
    ASSERT_EQ(CM_Register_Interest(UNIT_NAME, [](int32_t) { return ++told, 0; }), 0);
    ASSERT_EQ(CM_Set_Variable(UNIT_NAME, text("hostile")), 0);
    EXPECT_TRUE(cmtest::waitFor([] { return told > 0; }, std::chrono::seconds(5)));
    EXPECT_FALSE(log.contains("Lock file exists"));
    EXPECT_EQ(CM_LoadAllDefaults(), 0);
    EXPECT_TRUE(log.contains("is owned by another user - replaced it"));
    EXPECT_EQ(lstatOf(lock).st_mode, 0u);
}

// Backups in a shared directory while the other user keeps planting a
// link at the path: each backup is private (0600 under umask 0) or fails
// with "Unable to open"; a stored line break never adds a line.
TEST_F(HostileUser, BackupsArePrivateAndCannotBeRedirected) {
    const std::string backup = root.path("/tmp/backup.txt");
    const pid_t planter = spawn([&] {
        for (int n = 0; n < 200000; ++n) (void)!symlink(precious.c_str(), backup.c_str());
        return 0;
    }, true);
    const mode_t oldMask = umask(0);
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Set_Variable(UNIT_NAME, text("a\nCONSOLE_LOG : 77\r")), 0);
    int refused = 0;
    for (int n = 0; n < 40; ++n) {
        const int rc = CM_BackupConfig_common(backup.c_str(), 1, 1);
        ASSERT_TRUE(rc == 0 || rc == -1);
        refused += rc == -1;
    }
    kill(planter, SIGKILL);
    waitpid(planter, nullptr, 0);
    umask(oldMask);
    EXPECT_EQ(refused, log.count("Unable to open"));
    EXPECT_EQ(readFile(precious), "precious");
    ASSERT_EQ(CM_BackupConfig_common(backup.c_str(), 1, 1), 0);
    const struct stat st = lstatOf(backup);
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 0777) == 0600);
    const std::string lines = readFile(backup);
    EXPECT_NE(lines.find("\nUNIT_NAME : a CONSOLE_LOG : 77 \n"), std::string::npos);
    EXPECT_EQ(lines.find("\nCONSOLE_LOG : 77"), std::string::npos);
}

// The CMSIF queue made by another user, or writable by others, is not
// used: the batch start fails as for a queue that cannot be opened.
TEST_F(HostileUser, ForeignOrOpenQueuesAreNotUsed) {
    const std::string q = platform::queueName("/CMSIF_InputMessages");
    for (bool byNobody : {true, false}) {
        SCOPED_TRACE(byNobody ? "queue of another user" : "queue writable by others");
        ASSERT_EQ(inChild([&] {
            const mqd_t m = mq_open(q.c_str(), O_CREAT | O_EXCL | O_RDONLY, byNobody ? 0600 : 0622, nullptr);
            return m == static_cast<mqd_t>(-1) ? 1 : 0;
        }, byNobody), 0);
        cmtest::CaptureSink log;
        mqd_t endQ, filesQ;
        EXPECT_EQ(CM_Start_Batch_Data_Change(&endQ, &filesQ), -21);
        EXPECT_TRUE(log.contains("mq_open failed (Gen Q)"));
        mq_unlink(q.c_str());
    }
}

// What a caller can hand the library: roots that are the device's own "/"
// in disguise, its environment for the shell, signals it ignores.
TEST_F(HostileUser, CallersCannotBendTheSafeguards) {
    const struct {
        const char* root;
        int rc;
    } roots[] = {{"relative/dir", -1}, {"/tmp/..", -1}, {"//", -1}, {"/", 0}, {"", 0}};
    for (const auto& r : roots) EXPECT_EQ(CM_Host_SetRootDirectory(r.root), r.rc) << r.root;
    ASSERT_EQ(CM_Host_SetRootDirectory(root.dir().c_str()), 0);

    const std::string out = root.path("/tmp/env");
    EXPECT_EQ(inChild([&] {
        setenv("PATH", "/nonexistent", 1), setenv("BASH_ENV", out.c_str(), 1), setenv("CDPATH", "/", 1);
        return platform::env().shell(("echo \"$PATH|$BASH_ENV|$CDPATH\" > '" + out + "'").c_str());
    }, false), 0);
    EXPECT_EQ(readFile(out), "/usr/sbin:/usr/bin:/sbin:/bin||\n");

#if !defined(CM_TEST_UNDER_EMULATOR) && !defined(__SANITIZE_THREAD__)
    // A SIGBUS sent by a process: ignored when the host ignores it, fatal
    // when the host left the default.
    for (bool ignore : {true, false})
        EXPECT_EQ(inChild([&] {
            signal(SIGBUS, ignore ? SIG_IGN : SIG_DFL);
            if (CM_init(1) != 0) return 1;
            raise(SIGBUS);
            return CM_Exit();
        }, false), ignore ? 0 : 128 + SIGBUS);
#endif
}

}  // namespace
