// The running core under deletion, shrinking files, forks, restarts, a full
// inotify queue and bad arguments.  Scenarios that could hang or kill the
// process run in a forked child with an alarm: the child's exit status is
// the verdict (0 = all held, n = check n failed, a signal = hang or crash).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "catalogue/catalogue.h"
#include "configmanager/configmanager.h"
#include "log/log.h"
#include "process/state.h"
#include "setup/setup.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "support/test_support.h"
#include "watch/file_change.h"

using namespace std::chrono_literals;
using namespace cm;

// realloc can be made to fail for large blocks, to reach the private copy's
// allocation failure.  Not under the sanitizers, which own the allocator.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define CM_TEST_FAILING_REALLOC 1
namespace {
std::atomic<size_t> g_failReallocFrom{SIZE_MAX};
}
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* realloc(void* p, size_t n) {
    if (n >= g_failReallocFrom) return nullptr;
    return __libc_realloc(p, n);
}
#endif

namespace {

constexpr int kCt = 5;  // the file the scenarios cut, delete and re-create

const catalogue::ConfigItemList& fileOf(int i) { return catalogue::sConfigItemList[i]; }

// The first variable of a file with the given type.
int32_t firstOfType(int i, uint8_t type) {
    for (int r = 0; r < fileOf(i).iNumItems; ++r)
        if (fileOf(i).pItems[r].ucDataType == type) return fileOf(i).iFirstVarID + r;
    return -1;
}
int32_t lastIdOf(int i) { return fileOf(i).iFirstVarID + fileOf(i).iNumItems - 1; }
off_t sizeOf(const char* path) {
    struct stat st{};
    return stat(path, &st) == 0 ? st.st_size : -1;
}
void truncateTo(const char* path, off_t n) {
    const int fd = open(path, O_WRONLY);
    if (fd >= 0) (void)!ftruncate(fd, n), close(fd);
}

template <class F>
int inChild(F body, unsigned seconds) {
    const pid_t pid = fork();
    if (pid == 0) alarm(seconds), _exit(body());
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

std::string verdict(int status) {
    if (WIFSIGNALED(status)) return "child killed by signal " + std::to_string(WTERMSIG(status));
    return "child exit status " + std::to_string(WEXITSTATUS(status));
}
#define EXPECT_CHILD_OK(status) EXPECT_EQ(verdict(status), verdict(0))

// Reads `id` in a loop on `n` threads until stopped; counts failures.
struct Readers {
    Readers(int32_t id, int n) {
        for (int t = 0; t < n; ++t)
            threads.emplace_back([this, id] {
                uint8_t buf[512];
                while (!stop) failures += CM_GetDataItem(id, buf) != 0;
            });
    }
    void join() {
        stop = true;
        for (auto& t : threads) t.join();
        threads.clear();
    }
    ~Readers() {
        if (!threads.empty()) join();
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
    EXPECT_CHILD_OK(inChild([&] {
        if (CM_init(1) != 0) return 1;
        Readers readers(lastIdOf(kCt), 2);
        const auto until = std::chrono::steady_clock::now() + 2s;
        for (int n = 0; n < 100 && std::chrono::steady_clock::now() < until; ++n) {
            unlink(ct());
            std::this_thread::sleep_for(20ms);
        }
        readers.join();
        uint8_t buf[512];
        if (!cmtest::waitFor([&] { return sizeOf(ct()) == correct() && CM_GetDataItem(lastIdOf(kCt), buf) == 0; }))
            return 2;
        return CM_Exit();
    }, 30));
}

// A file cut to 100 bytes under a master with readers, under a process with
// no watch thread, and under a non-master whose watch thread then diffs it:
// reads past the cut fail, nothing raises SIGBUS.
TEST_F(Hardening, ShrinkingAFileUnderAMappingNeverRaisesSigbus) {
    EXPECT_CHILD_OK(inChild([&] {
        cmtest::FastEnv fast;  // the master's growth wait in microseconds
        uint8_t buf[512];
        if (CM_init(1) != 0) return 1;
        const std::string good = cmtest::readFile(ct());
        {
            Readers readers(lastIdOf(kCt), 2);
            truncateTo(ct(), 100);
            if (!cmtest::waitFor([&] { return sizeOf(ct()) == correct(); })) return 2;
        }
        CM_Exit();
        process::bCMmaster = 0;
        CM_initNoRegister();
        truncateTo(ct(), 100);
        if (CM_GetDataItem(lastIdOf(kCt), buf) != -1) return 3;
        if (CM_ReadDataItem(kCt, 0, buf) != 0) return 4;
        CM_Exit();
        cmtest::writeFile(ct(), good);
        if (CM_init(0) != 0) return 5;
        truncateTo(ct(), 100);
        if (!cmtest::waitFor([&] { return storage::dwLenActualFile[kCt] == 100; })) return 6;
        // Same length, new bytes: the watch thread diffs the cut file.
        const int fd = open(ct(), O_WRONLY);
        (void)!pwrite(fd, "\x7f", 1, 50), close(fd);
        if (!cmtest::waitFor([&] {
                if (storage::lockMutex(kCt, "test") != 0) return false;
                const bool seen = storage::pPrevData[kCt] != nullptr && storage::dwLenPrevData[kCt] > 50 &&
                                  storage::pPrevData[kCt][50] == 0x7f;
                storage::unlockMutex(kCt, "test");
                return seen;
            }))
            return 7;
        return CM_GetDataItem(lastIdOf(kCt), buf) == -1 ? CM_Exit() : 8;
    }, 30));
}

// A child forked after the start stops and restarts the library; the
// parent's watch thread goes on hearing changes.
TEST_F(Hardening, ChildForkedAfterStartCanRestart) {
    static std::atomic<int> heard{0};
    const int32_t id = firstOfType(2, DT_DWORD);
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(id, [](int32_t) { return ++heard, 0; }), 0);
    EXPECT_CHILD_OK(inChild([&] { return CM_Exit() != 0 ? 1 : CM_init(0) != 0 ? 2 : CM_Exit() != 0 ? 3 : 0; }, 15));
    const uint32_t v = 4242;
    ASSERT_EQ(CM_PutDataItem(id, &v), 1);
    EXPECT_TRUE(cmtest::waitFor([] { return heard > 0; }));
}

// Stops while the watch thread diffs and runs a callback that reads, then a
// start right after a stop whose callback waits for mCMMutex (as a set does).
TEST_F(Hardening, StopWhileTheWatchThreadIsBusyAndRestartAtOnce) {
    static std::atomic<bool> entered{false};
    const int32_t x = firstOfType(2, DT_DWORD);
    EXPECT_CHILD_OK(inChild([&] {
        const auto until = std::chrono::steady_clock::now() + 3s;
        for (int n = 0; n < 150 && std::chrono::steady_clock::now() < until; ++n) {
            if (CM_init(1) != 0) return 1;
            CM_Register_Interest(x, [](int32_t) {
                uint8_t buf[512];
                for (int32_t id = fileOf(kCt).iFirstVarID; id <= lastIdOf(kCt); ++id) CM_GetDataItem(id, buf);
                return 0;
            });
            std::atomic<bool> stop{false};
            std::thread writer([&] {
                for (uint32_t v = 1; !stop; ++v) CM_PutDataItem(x, &v);
            });
            std::this_thread::sleep_for(std::chrono::microseconds(500 * (n % 7)));
            CM_Exit();
            stop = true;
            writer.join();
        }
        if (CM_init(1) != 0) return 2;
        CM_Register_Interest(x, [](int32_t) {
            entered = true;
            std::this_thread::sleep_for(100ms);
            pthread_mutex_lock(&process::mCMMutex);
            pthread_mutex_unlock(&process::mCMMutex);
            return 0;
        });
        const uint32_t v = 7;
        CM_PutDataItem(x, &v);
        if (!cmtest::waitFor([] { return entered.load(); })) return 3;
        CM_Exit();
        return CM_init(1) != 0 ? 4 : CM_Exit();
    }, 30));
}

// Files re-set up again and again (extra bytes the master cuts) while
// threads read a good record: no read ever fails.
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
}

// Every exported function given a null buffer, a null list or an absurd ID
// returns its failure result; nothing crashes, nothing is written outside.
TEST_F(Hardening, BadArgumentsAtTheCBoundaryFailCleanly) {
    const int32_t x = firstOfType(2, DT_DWORD);
    EXPECT_CHILD_OK(inChild([&] {
        if (CM_init(1) != 0) return 100;
        uint8_t buf[512] = {};
        uint8_t guarded[8 + CM_VAR_LIST_BYTES] = {};
        const std::pair<int, int> rows[] = {
            {CM_ReadDataItem(kCt, 0, nullptr), -1},
            {CM_WriteDataItem(kCt, 0, nullptr, 1), -1},
            {CM_GetDataItem(x, nullptr), -1},
            {CM_PutDataItem(x, nullptr), -1},
            {CM_GetDataItemDefaultValue(x, nullptr), -1},
            {CM_GetDefaultData(kCt, 0, nullptr), -1},
            {CM_CopyData(kCt, 0, nullptr, buf), -1},
            {CM_CopyData(kCt, 0, buf, nullptr), -1},
            {CM_Get_Next_Variable(nullptr, 3290), -21},
            {CM_GetNotifiedDataItem(x, nullptr), -1},
            {CM_Add_To_List(guarded + 8, -1), -15},
            {CM_Add_To_List(guarded + 8, INT_MIN), -15},
            {CM_NotifyRange(0, INT_MAX), 0},
            {CM_NotifyRange(INT_MIN, -1), 0},
            {guarded[0] | guarded[7], 0},
        };
        for (size_t r = 0; r < std::size(rows); ++r)
            if (rows[r].first != rows[r].second) return static_cast<int>(r + 1);
        return CM_Exit();
    }, 10));
}

// After a pass whose only difference was the header word, the private copy
// equals the mapping again, so the next pass needs one comparison.
TEST_F(Hardening, PrivateCopyFollowsTheWholeMapping) {
    ASSERT_EQ(CM_init(1), 0);
    const int fd = open(ct(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, "\xab\xcd", 2, 2), 2);
    close(fd);
    EXPECT_TRUE(cmtest::waitFor([&] {
        if (storage::lockMutex(kCt, "test") != 0) return false;
        const uint8_t* prev = storage::pPrevData[kCt];
        const bool same = prev != nullptr && prev[2] == 0xab &&
                          std::memcmp(prev, storage::pMappedFile[kCt], storage::dwLenMappedFile[kCt]) == 0;
        storage::unlockMutex(kCt, "test");
        return same;
    }, 3s));
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

// Opening an open file again keeps its one descriptor.
TEST_F(Hardening, OpeningAnOpenFileReusesItsDescriptor) {
    ASSERT_EQ(CM_init(1), 0);
    const int fd = storage::fdRead[kCt];
    const auto before = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    EXPECT_EQ(CM_OpenOrCreateFile(kCt), 0);
    EXPECT_EQ(CM_OpenFile(kCt), 0);
    EXPECT_EQ(storage::fdRead[kCt], fd);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}), before);
}

// Deletes the CT file again the moment the master has re-created it, before
// its new watch is in place.
class DeleteOnRecreate final : public log::Sink {
public:
    void write(log::Channel, int, const char* fmt, va_list ap) override {
        char text[1024];
        vsnprintf(text, sizeof text, fmt, ap);
        if (armed && std::strstr(text, "created") && std::strstr(text, storage::pathOf(kCt)) && !done.exchange(true))
            unlink(storage::pathOf(kCt));
    }
    std::atomic<bool> armed{false}, done{false};
};

TEST_F(Hardening, FileDeletedAgainBeforeItsWatchIsStillRecreated) {
    DeleteOnRecreate sink;
    log::setSink(&sink);
    log::dwLogFilter = 7;
    ASSERT_EQ(CM_init(1), 0);
    sink.armed = true;
    unlink(ct());
    EXPECT_TRUE(cmtest::waitFor([&] { return sink.done && sizeOf(ct()) == correct(); }, 5s));
    CM_Exit();
    log::setSink(nullptr);
}

// While a callback blocks the watch thread, two other files are written in
// turn until the kernel's event queue overflows, and then a third once: its
// event is dropped, yet its change still arrives, read live and as the watch
// thread saw it.
TEST_F(Hardening, OverflowingTheEventQueueLosesNoChange) {
    static std::atomic<bool> release{false}, blocked{false};
    static std::atomic<uint32_t> live{0}, seen{0};
    static int32_t y;
    const int32_t x = firstOfType(6, DT_DWORD), z = firstOfType(3, DT_DWORD), w = firstOfType(8, DT_DWORD);
    y = firstOfType(2, DT_DWORD);
    ASSERT_TRUE(x >= 0 && y >= 0 && z >= 0 && w >= 0);
    ASSERT_EQ(CM_init(1), 0);
    ASSERT_EQ(CM_Register_Interest(x, [](int32_t) {
                  blocked = true;
                  cmtest::waitFor([] { return release.load(); }, 20s);
                  return 0;
              }), 0);
    ASSERT_EQ(CM_Register_Interest(y, [](int32_t) {
                  uint32_t a = 0, b = 0;
                  CM_GetDataItem(y, &a), CM_GetNotifiedDataItem(y, &b);
                  live = a, seen = b;
                  return 0;
              }), 0);
    uint32_t v = 1;
    ASSERT_EQ(CM_PutDataItem(x, &v), 1);
    ASSERT_TRUE(cmtest::waitFor([] { return blocked.load(); }));
    for (v = 1; v <= 10000; ++v) CM_PutDataItem(z, &v), CM_PutDataItem(w, &v);
    v = 424242;
    ASSERT_EQ(CM_PutDataItem(y, &v), 1);
    release = true;
    EXPECT_TRUE(cmtest::waitFor([] { return live == 424242 && seen == 424242; }, 10s));
}

}  // namespace
