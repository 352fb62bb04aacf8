// CM_Get_Variable and CM_Set_Variable against the bare system calls they are
// built on, on tmpfs and on the disk, in one run.
//
//   build/benchmarks/getset_bench [--benchmark_repetitions=5]
//
// Each benchmark interleaves batches of the library call with batches of its
// floor on the same record, so both see the same machine load; it reports
// the median time per call of each (op_ns, floor_ns) and their ratio.  The
// Time column is that of one batch pair (16 calls of each).
//   get floor: file mutex, fcntl lock of the record, memcpy, fcntl unlock.
//   set floor: the same lock pair around lseek+write of the record, then a
//              whole-file lock pair around lseek+write of the check word.
// The disk leg runs in a forked child with its own file root.  The measuring
// process starts without a watch thread, so no reader competes for the locks.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "catalogue/lookup.h"
#include "configmanager/cm_getset.h"
#include "configmanager/cm_lifecycle.h"
#include "configmanager/cm_vars.h"
#include "log/log.h"
#include "platform/paths.h"
#include "storage/file_state.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kBatch = 16;
std::string g_medium;

struct Record {
    int file;
    uint32_t offset, size;  // the whole record: header and data
    const uint8_t* mapped() const { return cm::storage::pMappedFile[file] + offset; }
};

Record recordOf(int32_t id) {
    cm::catalogue::Location loc{};
    cm::catalogue::locate(id, loc);
    const auto& e = cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
    return {loc.iFileIndex, e.recordOffset(), e.wDataSize + 4u};
}

void rangeLock(int fd, short type, off_t start, off_t len) {
    struct flock fl{};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    fcntl(fd, F_SETLKW, &fl);
}

void lockedRange(const Record& r, off_t start, off_t len, bool lock) {
    if (lock) {
        pthread_mutex_lock(&cm::storage::mtxFile[r.file]);
        rangeLock(cm::storage::fdRead[r.file], F_WRLCK, start, len);
    } else {
        rangeLock(cm::storage::fdRead[r.file], F_UNLCK, start, len);
        pthread_mutex_unlock(&cm::storage::mtxFile[r.file]);
    }
}

void floorGet(const Record& r, void* out) {
    lockedRange(r, r.offset, r.size, true);
    std::memcpy(out, r.mapped() + 4, r.size - 4);
    benchmark::DoNotOptimize(out);
    lockedRange(r, r.offset, r.size, false);
}

void floorSet(const Record& r, const uint8_t* rec) {
    const int fd = cm::storage::fdRead[r.file];
    lockedRange(r, r.offset, r.size, true);
    lseek(fd, r.offset, SEEK_SET);
    benchmark::DoNotOptimize(write(fd, rec, r.size));
    lockedRange(r, r.offset, r.size, false);
    static const uint8_t crc[2] = {0x12, 0x34};
    lockedRange(r, 0, 0, true);
    lseek(fd, 2, SEEK_SET);
    benchmark::DoNotOptimize(write(fd, crc, 2));
    lockedRange(r, 0, 0, false);
}

double median(std::vector<double>& v) {
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// Runs `op` and `floorOp` in alternating batches; per-call medians.
template <typename Op, typename Floor>
void compare(benchmark::State& state, Op op, Floor floorOp) {
    std::vector<double> ops, floors;
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int k = 0; k < kBatch; ++k) op(k);
        auto t1 = Clock::now();
        for (int k = 0; k < kBatch; ++k) floorOp(k);
        auto t2 = Clock::now();
        ops.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count() / kBatch);
        floors.push_back(std::chrono::duration<double, std::nano>(t2 - t1).count() / kBatch);
    }
    const double o = median(ops), f = median(floors);
    state.counters["op_ns"] = o;
    state.counters["floor_ns"] = f;
    state.counters["ratio"] = o / f;
}

void BM_GetDword(benchmark::State& state) {
    const Record r = recordOf(LAST_DATE_TIME);
    uint32_t v = 0;
    compare(state, [&](int) { CM_Get_Variable(LAST_DATE_TIME, &v); }, [&](int) { floorGet(r, &v); });
}

void BM_GetString(benchmark::State& state) {
    const Record r = recordOf(CURRENT_DOMAIN_NAME);
    const std::string text(127, 'd');
    CM_Set_Variable(CURRENT_DOMAIN_NAME, text.c_str());
    char buf[256];
    compare(state, [&](int) { CM_Get_Variable(CURRENT_DOMAIN_NAME, buf); }, [&](int) { floorGet(r, buf); });
}

// Values alternate so that every call really writes.
void BM_SetDword(benchmark::State& state) {
    const Record r = recordOf(LAST_DATE_TIME);
    uint8_t rec[8];
    std::memcpy(rec, r.mapped(), 8);
    compare(
        state,
        [&](int k) {
            const uint32_t v = static_cast<uint32_t>(k & 1);
            CM_Set_Variable(LAST_DATE_TIME, &v);
        },
        [&](int k) {
            rec[7] = static_cast<uint8_t>(k & 1);
            floorSet(r, rec);
        });
}

void BM_SetString(benchmark::State& state) {
    const Record r = recordOf(CURRENT_DOMAIN_NAME);
    std::string a(127, 'a'), b(127, 'b');
    std::vector<uint8_t> rec(r.mapped(), r.mapped() + r.size);
    compare(
        state, [&](int k) { CM_Set_Variable(CURRENT_DOMAIN_NAME, (k & 1 ? a : b).c_str()); },
        [&](int k) {
            std::memset(rec.data() + 4, k & 1 ? 'a' : 'b', 127);
            floorSet(r, rec.data());
        });
}

void registerAll() {
    const std::string p = g_medium + "/";
    benchmark::RegisterBenchmark((p + "CM_Get_Variable/DWORD").c_str(), BM_GetDword);
    benchmark::RegisterBenchmark((p + "CM_Get_Variable/String128").c_str(), BM_GetString);
    benchmark::RegisterBenchmark((p + "CM_Set_Variable/DWORD").c_str(), BM_SetDword);
    benchmark::RegisterBenchmark((p + "CM_Set_Variable/String128").c_str(), BM_SetString);
}

int runOn(const std::string& medium, const std::string& base, int argc, char** argv) {
    g_medium = medium;
    std::string dir = base + "/cm-getset-bench.XXXXXX";
    if (mkdtemp(dir.data()) == nullptr) return 1;
    std::filesystem::create_directories(dir + "/tmp");
    std::filesystem::create_directories(dir + "/var/AppData/config");
    cm::paths::setRoot(dir);
    cm::log::oLogMode = 0;  // measure the calls, not the log
    // A short-lived master creates the files; this process then opens them
    // without a watch thread.
    std::fflush(nullptr);
    const pid_t creator = fork();
    if (creator == 0) _exit(CM_init(1) == 0 && CM_Exit() == 0 ? 0 : 1);
    int status = 1;
    waitpid(creator, &status, 0);
    int rc = WIFEXITED(status) && WEXITSTATUS(status) == 0 && CM_initNoRegister() == 0 ? 0 : 1;
    if (rc == 0) {
        registerAll();
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        CM_Exit();
    }
    std::filesystem::remove_all(dir);
    return rc;
}

}  // namespace

int main(int argc, char** argv) {
    // The disk leg first, in a child: the library is started once per process.
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(runOn("disk", "/var/tmp", argc, argv));
    int status = 1;
    waitpid(pid, &status, 0);
    const int rc = runOn("tmpfs", "/dev/shm", argc, argv);
    return rc | !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
