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

class Hardening : public cmtest::LibraryTest {
protected:
    const char* ct() const { return storage::pathOf(kCt); }
    off_t correct() const { return storage::correctLength(kCt); }
};

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
    EXPECT_FALSE(sink.contains("waiting for growth"));
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
        if (CM_PutDataItem(kLastCt, buf) != -1) return 9;
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

// A record damaged under a running master is repaired from defaults and the
// file's variables are told once, not again when the repair's writes are seen.
TEST_F(Hardening, RepairInAPassIsToldOnce) {
    static std::atomic<int> toldX{0}, toldY{0};
    int32_t y = kX + 1;
    while (cmtest::entryOf(y).ucDataType != DT_DWORD) ++y;
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(kX, [](int32_t) { return ++toldX, 0; }) | CM_Register_Interest(y, [](int32_t) { return ++toldY, 0; }), 0);
    const uint32_t v = 4242;
    ASSERT_EQ(CM_PutDataItem(kX, &v), 1);
    ASSERT_TRUE(cmtest::waitFor([] { return toldX == 1; }));
    std::string bytes = cmtest::readFile(storage::pathOf(2));
    bytes[cmtest::recordOffset(kX) + 3] ^= 1;  // its length
    cmtest::rewrite(storage::pathOf(2), bytes);
    ASSERT_TRUE(cmtest::waitFor([] { return toldY == 1; }));  // the repair tells every variable
    ASSERT_EQ(CM_PutDataItem(y, &v), 1);
    ASSERT_TRUE(cmtest::waitFor([] { return toldY == 2; }));
    EXPECT_EQ(toldX, 2);
}

// A file deleted again the moment the master re-created it (before its new
// watch) still comes back.
TEST_F(Hardening, FileDeletedAgainBeforeItsWatchComesBack) {
    std::atomic<bool> armed{false}, done{false};
    OnMessage redelete("created", [&] {
        if (armed && !done.exchange(true)) unlink(storage::pathOf(kCt));
    });
    log::dwLogFilter = 7;
    ASSERT_EQ(CM_init(1), 0);
    armed = true;
    unlink(ct());
    EXPECT_TRUE(cmtest::waitFor([&] { return done && sizeOf(ct()) == correct(); }, 5s));
    CM_Exit();  // before the capture goes: the watch thread writes to it
}

// A daemon that closes its standard input after the start: a file deleted
// twice gets descriptor 0 and gives it back each time.
TEST_F(Hardening, DeletedFileAtDescriptorZeroIsClosed) {
    EXPECT_EQ(inChild([&] {
        if (CM_init(1) != 0 || close(0) != 0) return 1;
        for (int n = 0; n < 2; ++n) {
            unlink(ct());
            if (!cmtest::waitFor([&] { return storage::fdRead[kCt] == 0 && sizeOf(ct()) == correct(); }, 5s)) return 2 + n;
        }
        return CM_Exit();
    }), kChildOk);
}

#ifdef CM_TEST_FAILING_REALLOC
// A private copy that cannot grow with its mapping is dropped, never left
// shorter; the diff makes a new one, logging once under the diff's name.
TEST_F(Hardening, PrivateCopyThatCannotGrowIsDropped) {
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
    EXPECT_FALSE(sink.contains("failed - quitting"));
}
#endif

}  // namespace
