// Data files: opening and creating them, the mapping's length, records in
// big-endian form, defaults, and the file lock between threads and processes.
#include <arpa/inet.h>
#include <sys/resource.h>

#include "storage/defaults.h"
#include "storage/lock.h"
#include "support/test_support.h"
#include "values/ipaddr.h"

using namespace cm::storage;
using cm::catalogue::entry;

namespace {

constexpr int kSystem = 1;  // version 1; record 2 is a text of 22 bytes
constexpr int kRed = 7;     // version 0; 10 records in 99 bytes, groups 2 and 3

int rawLock(int fd, short type, int cmd, off_t start, off_t len) {
    struct flock fl{.l_type = type, .l_whence = SEEK_SET, .l_start = start, .l_len = len, .l_pid = 0};
    return fcntl(fd, cmd, &fl);
}

class Storage : public cmtest::LibraryTest {
protected:
    void openDefaulted(int i = kRed) {
        ASSERT_EQ(openOrCreateFile(i), 1);
        ASSERT_EQ(writeDefaultData(i, true, false), 0);
    }
    static std::string at(uint32_t offset, size_t n, int i = kRed) {
        return cmtest::readFile(cm::storage::pathOf(i)).substr(offset, n);
    }
    static void poke(uint32_t offset, const std::string& b) {
        ASSERT_EQ(pwrite(fdRead[kRed], b.data(), b.size(), offset), static_cast<ssize_t>(b.size()));
    }
    // Whether record `rel` of kRed holds its default, compared in caller form.
    static bool holdsDefault(int rel) {
        uint8_t value[32] = {}, dflt[32] = {};
        return readDataItem(kRed, rel, value) == 0 && getDefaultData(kRed, rel, dflt) == 0 &&
               std::memcmp(value, dflt, sizeof value) == 0;
    }
    static bool mutexFree() {
        return pthread_mutex_trylock(&mtxFile[kRed]) == 0 && pthread_mutex_unlock(&mtxFile[kRed]) == 0;
    }
    cmtest::FastEnv env;
    const char* path = cm::storage::pathOf(kRed);
};

// A missing file is waited for in growing steps; once there but empty, in steps of a second.
TEST_F(Storage, OpenWaitsForAMissingFileThenForItToBeFilled) {
    env.onSleep = [&](std::chrono::nanoseconds) {
        if (env.sleeps().size() == 9) cmtest::writeFile(path, "");
        if (env.sleeps().size() == 12) cmtest::writeFile(path, "data");
    };
    ASSERT_EQ(openFile(kRed), 0);
    EXPECT_EQ(env.sleeps(), (std::vector<std::chrono::nanoseconds>{1s, 1s, 1s, 1s, 1s, 2s, 2s, 2s, 10s, 1s, 1s, 1s}));
}

// A created file is empty, mode 0644 whatever the umask, close-on-exec; its
// mapping never reaches past the correct length, however long the file grows.
TEST_F(Storage, CreateAndMap) {
    const mode_t old = umask(077);
    EXPECT_EQ(openOrCreateFile(kRed), 1);
    umask(old);
    struct stat st{};
    ASSERT_EQ(stat(path, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(fcntl(fdRead[kRed], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    ASSERT_EQ(writeDefaultData(kRed, true, false), 0);
    ASSERT_EQ(ftruncate(fdRead[kRed], 4096), 0);
    EXPECT_EQ(remapFile(kRed, 4096), 0);
    EXPECT_EQ(dwLenMappedFile[kRed], 99u);
    ASSERT_EQ(unmapFile(kRed), 0);
    uint8_t buf[32];
    EXPECT_EQ(readDataItem(kRed, 0, buf), -1);
    EXPECT_TRUE(sink.contains("dwLenMappedFile[] or pMappedFile[] is zero - skipping"));
    EXPECT_FALSE(sink.contains("bad or missing record")) << "refused before the record is looked at";
    EXPECT_EQ(mapFile(kRed, 4096), 0);
    EXPECT_EQ(dwLenMappedFile[kRed], 99u);
}

// Headers and numbers are big-endian in the file, in host order for the
// caller; texts are cut to their size and zero-filled; addresses are stored
// by family.
TEST_F(Storage, RecordsInTheFile) {
    openDefaulted();
    openDefaulted(kSystem);
    EXPECT_EQ(at(0, 4) + at(0, 4, kSystem), "\x00\x00\x12\x34\x00\x01\x12\x34"s);
    const uint16_t w = 0x1234;
    const uint32_t d = 0x01020304;
    sockaddr_in in{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(0xC0000201)}, .sin_zero = {}};
    uint8_t addr[20];
    ASSERT_EQ(cm::values::sockaddrToCmAddr(addr, reinterpret_cast<sockaddr*>(&in)), 0);
    const std::string text(40, 'x');
    const struct {
        int file, rel;
        const void* value;
        uint32_t offset;
        std::string inFile, back;
    } cases[] = {
        {kRed, 4, &w, 27, "\x00\x04\x00\x02\x12\x34"s, std::string(reinterpret_cast<const char*>(&w), 2)},
        {kRed, 1, &d, 9, "\x00\x01\x00\x04\x01\x02\x03\x04"s, std::string(reinterpret_cast<const char*>(&d), 4)},
        {kRed, 8, addr, 69, "\x00\x08\x00\x14\x00\x02\x00\x00\xC0\x00\x02\x01"s + std::string(12, '\0'), ""},
        {kSystem, 2, text.c_str(), entry(kSystem, 2).recordOffset(), "\x00\x02\x00\x16"s + std::string(21, 'x') + '\0', std::string(21, 'x') + '\0'},
        {kSystem, 2, "ab", entry(kSystem, 2).recordOffset(), "\x00\x02\x00\x16"s + "ab" + std::string(20, '\0'), "ab" + std::string(20, '\0')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.inFile);
        EXPECT_EQ(writeDataItem(c.file, c.rel, c.value, true), 1);
        EXPECT_EQ(at(c.offset, c.inFile.size(), c.file), c.inFile);
        char back[32] = {};
        EXPECT_EQ(readDataItem(c.file, c.rel, back), 0);
        if (!c.back.empty()) { EXPECT_EQ(std::string(back, c.back.size()), c.back); }
    }
}

TEST_F(Storage, OnlyAChangedLockedWriteTouchesTheCrcWord) {
    openDefaulted();
    poke(2, "\xAB\xCD");
    const std::string before = at(0, 99);
    uint16_t port = 7710;  // the stored default
    EXPECT_EQ(writeDataItem(kRed, 6, &port, true), 0);
    EXPECT_EQ(at(0, 99), before);
    port = 8000;
    EXPECT_EQ(writeDataItem(kRed, 6, &port, false), 1);
    EXPECT_EQ(at(2, 2) + at(43, 2), "\xAB\xCD\x1F\x40");
    port = 8001;
    EXPECT_EQ(writeDataItem(kRed, 6, &port, true), 1);
    EXPECT_EQ(at(2, 2), "\x12\x34");
}

// A record missing from the catalogue or stored with a wrong ID or length is refused, leaving no lock.
TEST_F(Storage, BadRecordsAreRefused) {
    openDefaulted();
    uint16_t v = 1;
    poke(22, "\x00\x09"s);  // relative ID of record 3
    poke(29, "\x00\x07"s);  // length of record 4
    entry(kRed, 2).setRecordOffset(cm::catalogue::kNoRecord);
    for (int rel : {2, 3, 4}) EXPECT_EQ(readDataItem(kRed, rel, &v), -1) << rel;
    EXPECT_EQ(writeDataItem(kRed, 2, &v, true), -1);
    EXPECT_TRUE(mutexFree());
}

// Level n resets exactly the records of defaults group n and above; with
// nothing left to change it writes nothing, not even the CRC word.
TEST_F(Storage, ItemsAtOrAboveTheLevelAreReset) {
    openDefaulted();
    const std::vector<uint8_t> nines(20, 9);  // unlike every default of the file
    for (int r = 0; r < 10; ++r) ASSERT_EQ(writeDataItem(kRed, r, nines.data(), false), 1) << r;
    poke(2, "\xAB\xCD");
    EXPECT_EQ(writeDefaultDataItems(kRed, 3), 0);
    for (int r = 0; r < 10; ++r) EXPECT_EQ(holdsDefault(r), entry(kRed, r).ucAttrib >= 3) << r;
    EXPECT_EQ(at(2, 2), "\x12\x34");
    poke(2, "\xAB\xCD");
    const std::string before = at(0, 99);
    EXPECT_EQ(writeDefaultDataItems(kRed, 3), 0);
    EXPECT_EQ(at(0, 99), before);
    EXPECT_EQ(updateCRC(kRed), 0);
    EXPECT_EQ(at(2, 2), "\x12\x34");
    EXPECT_FALSE(sink.contains("Failed to write CRC"));
    EXPECT_TRUE(mutexFree());
}

// Under a file-size limit of 60 bytes the records from offset 45 on cannot
// be written: only they are marked missing, those before are still written.
TEST_F(Storage, FailedDefaultRecordsAloneAreMarkedBad) {
    openDefaulted();
    poke(39 + 4, "\xFF\xFF");  // record 6, to be restored
    EXPECT_EQ(cmtest::inChild([&] {
        const rlimit limit{60, 60};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        int bad = writeDefaultData(kRed, true, false) == -1 && bBadFile[kRed] == 1 ? 0 : 1;
        for (int r = 0; r < 10; ++r)
            if ((entry(kRed, r).recordOffset() == cm::catalogue::kNoRecord) != (r >= 7)) bad |= 2;
        uint16_t port = 0;
        return bad | (readDataItem(kRed, 6, &port) != 0 || port != 7710 ? 4 : 0);
    }), cmtest::kChildOk);
}

// A request waits while another process holds the file; interrupted (no SA_RESTART) it is
// retried after 100 ms + random() % 100 ms.  Once held, it keeps out other processes.
TEST_F(Storage, LockWaitsForAnotherProcessAndBacksOffWhenInterrupted) {
    openDefaulted();
    struct sigaction sa{}, old{};
    sa.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    env.random_ = [] { return 312345L; };
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const pid_t holder = fork();
    if (holder == 0) {  // holds the whole file until killed
        alarm(10);
        if (rawLock(open(path, O_RDWR), F_WRLCK, F_SETLKW, 0, 0) == 0 && write(p[1], "x", 1) == 1) pause();
        _exit(1);
    }
    close(p[1]);
    char c;
    ASSERT_EQ(read(p[0], &c, 1), 1);  // EOF if the holder ended
    close(p[0]);
    std::atomic<bool> got{false}, release{false};
    std::thread t([&] {  // the lock's owner releases it, when told
        got = lockFile(kRed, 9, 8) == 0;
        while (!release) std::this_thread::sleep_for(1ms);
        unlockFile(kRed, 9, 8);
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(env.sleeps().empty());  // plain waiting is no back-off
    for (int n = 0; n < 2000 && env.sleeps().size() < 3; ++n, std::this_thread::sleep_for(5ms))
        pthread_kill(t.native_handle(), SIGUSR1);
    EXPECT_FALSE(got);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    ASSERT_TRUE(cmtest::waitFor([&] { return got.load(); }));
    sigaction(SIGUSR1, &old, nullptr);
    const auto sleeps = env.sleeps();
    EXPECT_GE(sleeps.size(), 3u);
    EXPECT_EQ(sleeps, decltype(sleeps)(sleeps.size(), 112345us));
    EXPECT_EQ(cmtest::inChild([&] { return rawLock(open(path, O_RDWR), F_WRLCK, F_SETLK, 12, 1) == 0; }), cmtest::kChildOk);
    release = true;
    t.join();
}

// A failure that is not retryable (a write lock through a read-only descriptor)
// leaves the mutex held until the caller's unlock.
TEST_F(Storage, LockFailureLeavesTheMutexHeldUntilUnlock) {
    openDefaulted();
    close(fdRead[kRed].exchange(open(path, O_RDONLY)));
    EXPECT_EQ(lockFile(kRed, 0, 0), -1);
    EXPECT_FALSE(mutexFree());
    EXPECT_EQ(unlockFile(kRed, 0, 0), 0);
    EXPECT_TRUE(mutexFree());
}

}  // namespace
