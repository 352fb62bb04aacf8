// The running core under deletion, shrinking files, forks, restarts and a
// full inotify queue.  Scenarios that could hang or crash run in a forked
// child with an alarm; its exit status n > 0 names the failed check.
#include <malloc.h>

#include "setup/setup.h"
#include "storage/lock.h"
#include "support/test_support.h"
#include "watch/file_change.h"

using namespace cm;
using cmtest::inChild;
using cmtest::kChildOk;

// realloc fails for large blocks on demand (not under the sanitizers, which own the allocator).
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define CM_TEST_FAILING_REALLOC 1
static std::atomic<size_t> g_failReallocFrom{SIZE_MAX};
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* realloc(void* p, size_t n) { return n >= g_failReallocFrom ? nullptr : __libc_realloc(p, n); }
#endif

namespace {

constexpr int kCt = 5;  // the file the scenarios cut, delete and re-create

const catalogue::ConfigItemList& fileOf(int i) { return catalogue::sConfigItemList[i]; }
int32_t firstOfType(int i, uint8_t type) {
    for (int r = 0; r < fileOf(i).iNumItems; ++r)
        if (fileOf(i).pItems[r].ucDataType == type) return fileOf(i).iFirstVarID + r;
    return -1;
}
const int32_t kLastCt = fileOf(kCt).iFirstVarID + fileOf(kCt).iNumItems - 1;
const int32_t kX = firstOfType(2, DT_DWORD);
off_t sizeOf(const char* path) {
    struct stat st{};
    return stat(path, &st) == 0 ? st.st_size : -1;
}
void truncateTo(const char* path, off_t n) { (void)!truncate(path, n); }
// Reads the private copy of file i under its mutex.
bool prevHolds(int i, const std::function<bool(const uint8_t*)>& pred) {
    if (storage::lockMutex(i, "test") != 0) return false;
    const bool held = storage::pPrevData[i] != nullptr && pred(storage::pPrevData[i]);
    storage::unlockMutex(i, "test");
    return held;
}

// Reads `id` in a loop on `n` threads until joined; counts failures.
struct Readers {
    Readers(int32_t id, int n) {
        for (int t = 0; t < n; ++t)
            threads.emplace_back([this, id] {
                uint8_t buf[512];
                while (!stop) failures += CM_GetDataItem(id, buf) != 0;
            });
    }
    ~Readers() { join(); }
    void join() {
        stop = true;
        for (auto& t : threads) t.join();
        threads.clear();
    }
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
};

class Hardening : public ::testing::Test {
protected:
    void SetUp() override { cmtest::resetLibraryState(); }
    void TearDown() override { cmtest::resetLibraryState(); }
    cmtest::TempRoot root;
    const char* ct() const { return storage::pathOf(kCt); }
    off_t correct() const { return storage::correctLength(kCt); }
};

// A file unlinked every 20 ms while two threads read it: every re-creation
// completes and the file is readable again afterwards.
TEST_F(Hardening, DeletingAFileUnderReadersNeverWedgesIt) {
    EXPECT_EQ(inChild([&] {
        if (CM_init(1) != 0) return 1;
        Readers readers(kLastCt, 2);
        const auto until = std::chrono::steady_clock::now() + 2s;
        for (int n = 0; n < 100 && std::chrono::steady_clock::now() < until; ++n) unlink(ct()), std::this_thread::sleep_for(20ms);
        readers.join();
        uint8_t buf[512];
        if (!cmtest::waitFor([&] { return sizeOf(ct()) == correct() && CM_GetDataItem(kLastCt, buf) == 0; })) return 2;
        return CM_Exit();
    }, 30), kChildOk);
}

// Extra bytes given again and again (the master cuts them) while threads
// read a good record: no read ever fails.
TEST_F(Hardening, ReadsDuringASetUpWaitForIt) {
    ASSERT_EQ(CM_init(1), 0);
    Readers readers(fileOf(kCt).iFirstVarID, 2);
    for (int n = 0; n < 40; ++n) {
        const int fd = open(ct(), O_WRONLY | O_APPEND);
        ASSERT_EQ(write(fd, "0123456789abcdef", 16), 16);
        close(fd);
        ASSERT_TRUE(cmtest::waitFor([&] { return sizeOf(ct()) == correct(); }, 5s));
    }
    readers.join();
    EXPECT_EQ(readers.failures, 0);
    CM_Exit();
}

// A file cut to 100 bytes under a master with readers, a process without a watch
// thread and a non-master that diffs it: reads past the cut fail, never SIGBUS.
TEST_F(Hardening, ShrinkingAFileUnderAMappingNeverRaisesSigbus) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "under the thread sanitizer a SIGBUS in a forked child is not handed to the guard";
#elif defined(CM_TEST_UNDER_EMULATOR)
    GTEST_SKIP() << "the user-mode emulator does not hand a SIGBUS of a cut mapping to the guard";
#endif
    EXPECT_EQ(inChild([&] {
        cmtest::FastEnv fast;  // the master's growth wait in microseconds
        uint8_t buf[512];
        if (CM_init(1) != 0) return 1;
        const std::string good = cmtest::readFile(ct());
        {
            Readers readers(kLastCt, 2);
            truncateTo(ct(), 100);
            if (!cmtest::waitFor([&] { return sizeOf(ct()) == correct(); })) return 2;
        }
        CM_Exit();
        process::bCMmaster = 0;
        CM_initNoRegister();
        truncateTo(ct(), 100);
        if (CM_GetDataItem(kLastCt, buf) != -1) return 3;
        if (CM_ReadDataItem(kCt, 0, buf) != 0) return 4;
        CM_Exit();
        cmtest::writeFile(ct(), good);
        if (CM_init(0) != 0) return 5;
        truncateTo(ct(), 100);
        if (!cmtest::waitFor([&] { return storage::dwLenActualFile[kCt] == 100; })) return 6;
        // Same length, new bytes: the watch thread diffs the cut file.
        const int fd = open(ct(), O_WRONLY);
        (void)!pwrite(fd, "\x7f", 1, 50), close(fd);
        if (!cmtest::waitFor([&] { return prevHolds(kCt, [](const uint8_t* p) { return storage::dwLenPrevData[kCt] > 50 && p[50] == 0x7f; }); }))
            return 7;
        return CM_GetDataItem(kLastCt, buf) == -1 ? CM_Exit() : 8;
    }, 30), kChildOk);
}

// A child forked after the start (under readers) restarts; the parent still hears changes.
TEST_F(Hardening, ChildForkedAfterStartCanRestart) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer cannot follow threads started in a child of a threaded process";
#elif defined(CM_TEST_UNDER_EMULATOR)
    GTEST_SKIP() << "the user-mode emulator aborts on a fork of a process that runs threads";
#endif
    static std::atomic<int> heard{0};
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(kX, [](int32_t) { return ++heard, 0; }), 0);
    {
        Readers readers(kLastCt, 2);  // likely to hold a file mutex at the fork
        std::this_thread::sleep_for(10ms);
        EXPECT_EQ(inChild([&] { return CM_Exit() != 0 ? 1 : CM_init(0) != 0 ? 2 : CM_Exit() != 0 ? 3 : 0; }, 15), kChildOk);
    }
    const uint32_t v = 4242;
    ASSERT_EQ(CM_PutDataItem(kX, &v), 1);
    EXPECT_TRUE(cmtest::waitFor([] { return heard > 0; }));
    CM_Exit();
}

// Runs `action` before writing a message that holds `text`.  A member, not a
// base: the watch thread may write to the capture the moment it is installed.
struct OnMessage {
    OnMessage(const std::string& text, const std::function<void()>& action)
        : sink([=](const std::string& line) { if (line.find(text) != std::string::npos) action(); }) {}
    cmtest::CaptureSink sink;
};

// Stops while the watch thread diffs and runs a callback that reads, then a
// start right after a stop whose callback waits for mCMMutex (as a set does).
TEST_F(Hardening, StopWhileTheWatchThreadIsBusyAndRestartAtOnce) {
    static std::atomic<bool> entered{false};
    EXPECT_EQ(inChild([&] {
        const auto until = std::chrono::steady_clock::now() + 3s;
        for (int n = 0; n < 150 && std::chrono::steady_clock::now() < until; ++n) {
            if (CM_init(1) != 0) return 1;
            CM_Register_Interest(kX, [](int32_t) {
                uint8_t buf[512];
                for (int32_t id = fileOf(kCt).iFirstVarID; id <= kLastCt; ++id) CM_GetDataItem(id, buf);
                return 0;
            });
            std::atomic<bool> stop{false};
            std::thread writer([&] {
                for (uint32_t v = 1; !stop; ++v) CM_PutDataItem(kX, &v);
            });
            std::this_thread::sleep_for(std::chrono::microseconds(500 * (n % 7)));
            CM_Exit();
            stop = true;
            writer.join();
        }
        // One diff finds two changes.  While the first callback runs, the
        // stop and the start begin; the thread is held up before the second
        // notification, whose CMSIF callback (which a start does not clear)
        // sets a variable, as the management process does: a start that took
        // mCMMutex before waiting for the thread would never end.
        if (CM_init(1) != 0) return 2;
        int32_t b = kX + 1;
        while (!cmtest::entryOf(b).reportable()) ++b;
        OnMessage slow("CM_Notify called for var " + std::to_string(b) + "\n", [] { std::this_thread::sleep_for(200ms); });
        log::dwLogFilter = 7;
        CM_Register_Interest(kX, [](int32_t) { return entered = true, std::this_thread::sleep_for(100ms), 0; });
        CM_Register_CMSIF_Var_Changed_CB([](int32_t) {
            pthread_mutex_lock(&process::mCMMutex);
            pthread_mutex_unlock(&process::mCMMutex);
            return 0;
        });
        std::string bytes = cmtest::readFile(storage::pathOf(2));
        for (int32_t id : {kX, b}) bytes[cmtest::recordOffset(id) + 4] ^= 1;
        cmtest::rewrite(storage::pathOf(2), bytes);
        if (!cmtest::waitFor([] { return entered.load(); })) return 3;
        CM_Exit();
        return CM_init(1) != 0 ? 4 : CM_Exit();
    }, 30), kChildOk);
}

#ifdef CM_TEST_FAILING_REALLOC
// A private copy that cannot grow with its mapping is dropped, never left
// shorter; the diff makes a new one, logging once under the diff's name.
TEST_F(Hardening, PrivateCopyThatCannotGrowIsDropped) {
    cmtest::CaptureSink sink;
    log::dwLogFilter = 7;
    process::bCMmaster = 1;
    setup::setUpConfigFile(kCt);  // created and defaulted; no inotify here
    truncateTo(ct(), correct() / 2);
    process::bCMmaster = 0;
    setup::initialiseDataStruct(kCt, true, false);
    truncateTo(ct(), correct());
    g_failReallocFrom = correct();
    setup::initialiseDataStruct(kCt, true, false);
    g_failReallocFrom = SIZE_MAX;
    ASSERT_EQ(storage::dwLenMappedFile[kCt], static_cast<uint32_t>(correct()));
    const uint8_t* prev = storage::pPrevData[kCt];
    EXPECT_TRUE(prev == nullptr || malloc_usable_size(const_cast<uint8_t*>(prev)) >= storage::dwLenMappedFile[kCt]);
    sink.clear();
    watch::actionFileChange(kCt);
    ASSERT_NE(storage::pPrevData[kCt], nullptr);
    EXPECT_EQ(std::memcmp(storage::pPrevData[kCt], storage::pMappedFile[kCt], correct()), 0);
    EXPECT_EQ(sink.count("zero so mallocing it"), 1);
    EXPECT_EQ(sink.count("CM_InitialisePrevDataWithLock"), 1);
}
#endif

int descriptorsOf(const std::string& path) {
    int n = 0;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) n += std::filesystem::read_symlink(e.path(), ec) == path;
    return n;
}

// Opening an open file again keeps its one descriptor; a file deleted again the
// moment the master re-created it (before its new watch) still comes back.
TEST_F(Hardening, ReopenedFilesKeepTheirDescriptorAndRedeletedOnesComeBack) {
    std::atomic<bool> armed{false}, done{false};
    OnMessage redelete(std::string("created"), [&] {
        if (armed && !done.exchange(true)) unlink(storage::pathOf(kCt));
    });
    log::dwLogFilter = 7;
    ASSERT_EQ(CM_init(1), 0);
    const int fd = storage::fdRead[kCt];
    EXPECT_EQ(CM_OpenOrCreateFile(kCt), 0);
    EXPECT_EQ(CM_OpenFile(kCt), 0);
    EXPECT_EQ(storage::fdRead[kCt], fd);
    // Only descriptors of the file itself count: the watch thread may hold others for a moment.
    EXPECT_EQ(descriptorsOf(ct()), 1);
    armed = true;
    unlink(ct());
    EXPECT_TRUE(cmtest::waitFor([&] { return done && sizeOf(ct()) == correct(); }, 5s));
    CM_Exit();
}

// While a callback blocks the watch thread, writes overflow the kernel's event
// queue; a later change whose event is dropped still arrives, live and as seen.
TEST_F(Hardening, OverflowingTheEventQueueLosesNoChange) {
    static std::atomic<bool> release{false}, blocked{false};
    static std::atomic<uint32_t> live{0}, seen{0};
    const int32_t x = firstOfType(6, DT_DWORD), z = firstOfType(3, DT_DWORD), w = firstOfType(8, DT_DWORD);
    ASSERT_TRUE(x >= 0 && kX >= 0 && z >= 0 && w >= 0);
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(x, [](int32_t) {
                  blocked = true;
                  cmtest::waitFor([] { return release.load(); }, 20s);
                  return 0;
              }), 0);
    ASSERT_EQ(CM_Register_Interest(kX, [](int32_t) {
                  uint32_t a = 0, b = 0;
                  CM_GetDataItem(kX, &a), CM_GetNotifiedDataItem(kX, &b);
                  live = a, seen = b;
                  return 0;
              }), 0);
    uint32_t v = 1;
    ASSERT_EQ(CM_PutDataItem(x, &v), 1);
    ASSERT_TRUE(cmtest::waitFor([] { return blocked.load(); }));
    for (v = 1; v <= 10000; ++v) CM_PutDataItem(z, &v), CM_PutDataItem(w, &v);
    v = 424242;
    ASSERT_EQ(CM_PutDataItem(kX, &v), 1);
    release = true;
    EXPECT_TRUE(cmtest::waitFor([] { return live == 424242 && seen == 424242; }, 10s));
    CM_Exit();
}

}  // namespace
