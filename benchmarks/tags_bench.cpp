// Lookup by tag, loading the tag cache, a full backup and a full restore.
//
//   build/benchmarks/tags_bench
//
// Everything runs on a private root on tmpfs (/dev/shm when there is one)
// with the library started as master; log output is discarded.  The
// restore alternates between two backups that differ in every text
// variable, so each pass writes those records.  A second process, started
// with the library and interested in every variable, counts its callbacks:
// "watchers_ms" is the time from the end of a restore until that process
// has been told of every change, reported apart from the restore's own time.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_report.h"
#include "catalogue/catalogue.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "log/sink.h"
#include "platform/paths.h"
#include "tags/tag_table.h"

namespace {

using Clock = std::chrono::steady_clock;
using cm::catalogue::sConfigItemList;

class NullSink final : public cm::log::Sink {
public:
    void write(cm::log::Channel, int, const char*, va_list) override {}
};

int g_toParent = -1;
int onChange(int32_t) {
    const char b = 1;
    (void)!write(g_toParent, &b, 1);
    return 0;
}

// A library user in its own process: starts when told, then reports one
// byte per callback.
struct Listener {
    void start(const std::string& root) {
        int go[2], back[2];
        if (pipe(go) != 0 || pipe(back) != 0) std::abort();
        pid = fork();
        if (pid == 0) {
            close(go[1]);
            close(back[0]);
            g_toParent = back[1];
            char b;
            if (read(go[0], &b, 1) != 1) _exit(0);
            CM_Host_SetRootDirectory(root.c_str());
            if (CM_init(0) != 0) _exit(1);
            for (int32_t id = 0; id <= CM_MAX_VAR_ID; ++id) CM_Register_Interest(id, onChange);
            const char ready = 2;
            (void)!write(back[1], &ready, 1);
            while (read(go[0], &b, 1) > 0) {
            }
            _exit(0);
        }
        close(go[0]);
        close(back[1]);
        toChild = go[1];
        fromChild = back[0];
    }
    void go() {
        const char b = 1;
        (void)!write(toChild, &b, 1);
        char r = 0;
        waitBytes(1, &r);
    }
    // Discards reports of changes beyond those counted (records that a
    // restore rewrote although only texts differ).
    void drain() {
        char buf[4096];
        pollfd p{fromChild, POLLIN, 0};
        while (poll(&p, 1, 0) > 0 && read(fromChild, buf, sizeof buf) > 0) {
        }
    }
    // Reads n bytes; false when they do not come within 10 s.
    bool waitBytes(size_t n, char* last = nullptr) {
        char buf[4096];
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (n > 0) {
            pollfd p{fromChild, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) {
                if (Clock::now() > deadline) return false;
                continue;
            }
            const ssize_t got = read(fromChild, buf, n < sizeof buf ? n : sizeof buf);
            if (got <= 0) return false;
            if (last) *last = buf[got - 1];
            n -= static_cast<size_t>(got);
        }
        return true;
    }
    ~Listener() {
        if (pid > 0) {
            close(toChild);
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    pid_t pid = -1;
    int toChild = -1, fromChild = -1;
};

struct World {
    World() {
        listener.start(dir);  // before this process starts the library
        cm::log::setSink(&sink);
        CM_Host_SetRootDirectory(dir.c_str());
        if (CM_init(1) != 0) std::abort();
        for (int f = 0; f < CM_NUM_FILES; ++f)
            for (int r = 0; r < sConfigItemList[f].iNumItems; ++r) tags.push_back(sConfigItemList[f].pItems[r].szVarTag);

        // Two configurations that differ in every text variable.
        for (const char* which : {"A", "B"}) {
            changes = 0;
            for (int f = 0; f < CM_NUM_FILES; ++f)
                for (int r = 0; r < sConfigItemList[f].iNumItems; ++r) {
                    const int32_t id = sConfigItemList[f].iFirstVarID + r;
                    if (sConfigItemList[f].pItems[r].ucDataType != DT_STRING || id == SOFTWARE_VERSION) continue;
                    const std::string v = std::string(which) + std::to_string(id);
                    if (CM_PutDataItemFromString(id, v.c_str()) < 0) std::abort();
                    ++changes;
                }
            backups.push_back(dir + "/backup" + which + ".txt");
            if (CM_BackupConfig_common(backups.back().c_str(), 1, 1) != 0) std::abort();
        }
        listener.go();
    }
    ~World() { CM_Exit(); }
    NullSink sink;
    bench::ScratchRoot scratch;
    const std::string& dir = scratch.dir;
    Listener listener;
    std::vector<const char*> tags;
    std::vector<std::string> backups;
    size_t changes = 0;
    size_t pass = 0;  // which backup the next restore reads
};

World& world() {
    static World w;
    return w;
}

void BM_TagLookup(benchmark::State& state) {
    auto& w = world();
    size_t k = 0;
    int32_t id;
    for (auto _ : state) {
        if (CM_FindMatchingCMvarTag(w.tags[k], &id) != 0) state.SkipWithError("tag not found");
        if (++k == w.tags.size()) k = 0;
    }
}
BENCHMARK(BM_TagLookup);

void BM_LoadSoundCache(benchmark::State& state) {
    world();
    if (CM_TagMapping() != 1) state.SkipWithError("cache not written");
    for (auto _ : state) {
        cm::tags::resetLoadedFlag();
        if (CM_Load_CMTagSortedList() != 1) state.SkipWithError("cache rebuilt");
    }
    state.SetLabel("target < 2 ms");
}
BENCHMARK(BM_LoadSoundCache)->Unit(benchmark::kMicrosecond);

void BM_BackupEverything(benchmark::State& state) {
    auto& w = world();
    const std::string path = w.dir + "/bench-backup.txt";
    for (auto _ : state)
        if (CM_BackupConfig_common(path.c_str(), 1, 1) != 0) state.SkipWithError("backup failed");
    state.SetLabel("target < 50 ms");
}
BENCHMARK(BM_BackupEverything)->Unit(benchmark::kMillisecond);

void BM_RestoreEverything(benchmark::State& state) {
    auto& w = world();
    double restoreS = 0, watchersS = 0;
    for (auto _ : state) {
        state.PauseTiming();
        w.listener.drain();
        state.ResumeTiming();
        const auto t0 = Clock::now();
        const int rc = CM_RestoreConfig(w.backups[w.pass++ % 2].c_str(), nullptr);
        const auto t1 = Clock::now();
        state.PauseTiming();
        const bool heard = w.listener.waitBytes(w.changes);
        const auto t2 = Clock::now();
        state.ResumeTiming();
        if (rc != 0 || !heard) {
            state.SkipWithError(rc != 0 ? "restore failed" : "the other process missed changes");
            break;
        }
        restoreS += std::chrono::duration<double>(t1 - t0).count();
        watchersS += std::chrono::duration<double>(t2 - t1).count();
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["restore_ms"] = restoreS / n * 1e3;
    state.counters["watchers_ms"] = watchersS / n * 1e3;
    state.counters["changed_vars"] = static_cast<double>(w.changes);
    state.SetLabel("target < 50 ms + watchers");
}
BENCHMARK(BM_RestoreEverything)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
