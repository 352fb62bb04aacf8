// Change notification across processes, against its floor and its peer in
// the same run.
//
//   build/benchmarks/notify_bench [--rounds N]   (or CM_BENCH_ROUNDS=N)
//
// A writer process changes one variable of the largest data file, waits
// until every watcher has been told, pauses 1 ms and writes again.  Four
// kinds of writer, each with K other watching processes:
//   full   the writer started with CM_init (its own watch thread, and a
//          callback on the variable, which it waits for too); library
//          watchers;
//   light  the writer started with CM_initNoRegister; library watchers;
//   floor  the bare system calls (floor.h), the writer with a floor watch
//          thread of its own, floor watchers;
//   bare   the same without the writer's own watch thread: against floor,
//          what that thread costs when nothing of the library is there;
//   redis  a SET over loopback to a key-value server, and subscribers to its
//          keyspace notifications (only when redis-server is installed).
// Rounds alternate between the kinds; each figure is the median over rounds
// and each ratio the median of the per-round ratios.
//
// Reported: the full writer's set (p50 and p99) against the light one's with
// 0, 1 and 8 other watchers, and the floor writer's against the bare one's;
// the time from just before the set to the callback in the one other watcher
// and in the last of 8, against the light writer's, the bare one's and the
// peer's; the CPU a watcher spends per change, against the floor's.
//
// Helper modes, for benchmarks/syscalls_per_pass.sh:
//   --prepare DIR            create the data files under DIR (as the master)
//   --serve lib|floor DIR    run one watcher; prints "ready" when set up
//   --drive DIR N            make N changes, 2 ms apart
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <map>
#include <thread>

#include "bench_report.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "floor.h"
#include "redis_peer.h"

namespace {

constexpr int kFile = 5;         // the largest data file: 2274 records
constexpr int32_t kVar = 801;    // a one-byte variable of it
constexpr int kRel = kVar - 800;
constexpr int kMaxWatchers = 8;
constexpr int kSlots = kMaxWatchers + 1;  // slot 0: the writer's own watch thread
constexpr int kWrites = 120;

enum class Kind { Full, Light, Floor, Bare, Redis };

struct Shared {
    sem_t ready, told;
    std::atomic<int64_t> toldAt[kSlots];
    int64_t cpuAtReady[kSlots];
    int64_t writeNs[kWrites];
    int64_t lat[kWrites][kSlots];
    int missed;
};
Shared* g;
int g_slot;
int g_redisPort = -1;

int64_t cpuNs(const rusage& ru) {
    auto ns = [](const timeval& t) { return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_usec * 1000; };
    return ns(ru.ru_utime) + ns(ru.ru_stime);
}

void told(int slot) {
    g->toldAt[slot].store(bench::nowNs());
    sem_post(&g->told);
}
void toldHere() { told(g_slot); }

int onChange(int32_t) {
    told(g_slot);
    return 0;
}

void floorWatchLoop(bench::floor::File* f, int ifd, int slot) {
    uint8_t buf[4096];
    for (;;) {
        if (read(ifd, buf, sizeof buf) <= 0) continue;
        f->diff([slot](int rel) {
            if (rel == kRel) told(slot);
        });
    }
}

void markReady(int slot) {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    g->cpuAtReady[slot] = cpuNs(ru);
    sem_post(&g->ready);
}

[[noreturn]] void runWatcher(Kind kind, int slot, const std::string& root) {
    g_slot = slot;
    if (kind == Kind::Redis) bench::redis::subscribe(g_redisPort, [slot] { markReady(slot); }, toldHere);
    if (kind != Kind::Floor && kind != Kind::Bare) {
        CM_Host_SetRootDirectory(root.c_str());
        CM_init(0);
        CM_Register_Interest(kVar, onChange);
        markReady(slot);
        for (;;) pause();
    }
    cm::paths::setRoot(root);
    bench::floor::File f;
    f.open(kFile);
    const int ifd = bench::floor::watch(f);
    markReady(slot);
    floorWatchLoop(&f, ifd, slot);
    _exit(0);
}

// Writes kWrites alternating values; each time waits for every watcher (the
// writer's own watch thread included, when it has one) before the next.
[[noreturn]] void runWriter(Kind kind, int watchers, const std::string& root) {
    g_slot = 0;
    bench::floor::File f;
    uint8_t current = 0;
    int redis = -1;
    const bool ownThread = kind == Kind::Full || kind == Kind::Floor;
    if (kind == Kind::Full || kind == Kind::Light) {
        CM_Host_SetRootDirectory(root.c_str());
        if (kind == Kind::Full) {
            CM_init(0);
            CM_Register_Interest(kVar, onChange);
        } else {
            CM_initNoRegister();
        }
        CM_GetDataItem(kVar, &current);
    } else if (kind == Kind::Floor || kind == Kind::Bare) {
        cm::paths::setRoot(root);
        f.open(kFile);
        if (ownThread) std::thread(floorWatchLoop, &f, bench::floor::watch(f), 0).detach();
        current = f.map[f.offset[kRel] + 4];
    } else {
        redis = bench::redis::connectTo(g_redisPort);
    }
    usleep(20000);
    const int first = ownThread ? 0 : 1;
    for (int n = 0; n < kWrites; ++n) {
        const uint8_t value = (n % 2 == 0) == (current == 10) ? 11 : 10;
        for (int k = 0; k <= watchers; ++k) g->toldAt[k].store(0);
        const int64_t t0 = bench::nowNs();
        if (kind == Kind::Full || kind == Kind::Light)
            CM_PutDataItem(kVar, &value);
        else if (kind == Kind::Floor || kind == Kind::Bare)
            f.write(kRel, &value);
        else
            bench::redis::command(redis, {"SET", bench::redis::kKey, std::to_string(value)}, "+OK\r\n");
        g->writeNs[n] = bench::nowNs() - t0;
        for (int k = first; k <= watchers; ++k) {
            timespec until;
            clock_gettime(CLOCK_REALTIME, &until);
            until.tv_sec += 2;
            while (sem_timedwait(&g->told, &until) != 0 && errno == EINTR) {
            }
        }
        for (int k = first; k <= watchers; ++k) {
            const int64_t at = g->toldAt[k].load();
            g->lat[n][k] = at == 0 ? -1 : at - t0;
            if (at == 0) ++g->missed;
        }
        usleep(1000);
    }
    _exit(0);
}

template <class F>
pid_t spawn(F body) {
    const pid_t pid = fork();
    if (pid == 0) body();
    return pid;
}

struct RunResult {
    double writeP50, writeP99, firstUs, lastUs, cpuPerChangeUs;
};

RunResult runOnce(Kind kind, int watchers, const std::string& root) {
    g->missed = 0;
    std::vector<pid_t> pids;
    for (int k = 1; k <= watchers; ++k) pids.push_back(spawn([&] { runWatcher(kind, k, root); }));
    for (int k = 1; k <= watchers; ++k) sem_wait(&g->ready);
    const pid_t writer = spawn([&] { runWriter(kind, watchers, root); });
    waitpid(writer, nullptr, 0);
    usleep(5000);
    double cpu = 0;
    for (size_t k = 0; k < pids.size(); ++k) {
        kill(pids[k], SIGKILL);
        int status;
        rusage ru{};
        wait4(pids[k], &status, 0, &ru);
        cpu += static_cast<double>(cpuNs(ru) - g->cpuAtReady[k + 1]);
    }
    while (sem_trywait(&g->told) == 0 || sem_trywait(&g->ready) == 0) {
    }
    if (g->missed) std::fprintf(stderr, "notify_bench: %d notifications missed\n", g->missed);
    std::vector<double> w, first, last;
    for (int n = 0; n < kWrites; ++n) {
        w.push_back(static_cast<double>(g->writeNs[n]) / 1000);
        double lo = 1e18, hi = -1;
        for (int k = 1; k <= watchers; ++k) {
            const double us = static_cast<double>(g->lat[n][k]) / 1000;
            lo = std::min(lo, us);
            hi = std::max(hi, us);
        }
        if (watchers > 0 && lo >= 0) {
            first.push_back(lo);
            last.push_back(hi);
        }
    }
    return {bench::median(w), bench::quantile(w, 0.99), bench::median(first), bench::median(last),
            watchers ? cpu / watchers / kWrites / 1000 : 0};
}

// Median over rounds of one kind's figure, another's, and their ratio.
bench::Row summarise(const std::string& name, const std::vector<RunResult>& lib, const std::vector<RunResult>& flo,
                     double RunResult::*field, double target) {
    std::vector<double> a, b, r;
    for (size_t i = 0; i < lib.size() && i < flo.size(); ++i) {
        a.push_back(lib[i].*field);
        b.push_back(flo[i].*field);
        r.push_back(flo[i].*field > 0 ? lib[i].*field / (flo[i].*field) : 0);
    }
    return {name, bench::median(a), bench::median(b), bench::median(r), target};
}

void prepare(const std::string& root) {
    const pid_t pid = spawn([&] {
        CM_Host_SetRootDirectory(root.c_str());
        CM_init(1);
        CM_Exit();
        _exit(0);
    });
    waitpid(pid, nullptr, 0);
}

Shared* makeShared() {
    void* m = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* s = new (m) Shared{};
    sem_init(&s->ready, 1, 0);
    sem_init(&s->told, 1, 0);
    return s;
}

int helperMode(int argc, char** argv) {
    const std::string mode = argv[1];
    if (mode == "--prepare" && argc == 3) {
        prepare(argv[2]);
        return 0;
    }
    if (mode == "--serve" && argc == 4) {
        const Kind kind = std::string(argv[2]) == "lib" ? Kind::Full : Kind::Floor;
        const pid_t pid = spawn([&] { runWatcher(kind, 1, argv[3]); });
        sem_wait(&g->ready);
        std::printf("ready %d\n", pid);
        std::fflush(stdout);
        waitpid(pid, nullptr, 0);
        return 0;
    }
    if (mode == "--drive" && argc == 4) {
        CM_Host_SetRootDirectory(argv[2]);
        CM_initNoRegister();
        uint8_t v = 0;
        CM_GetDataItem(kVar, &v);
        for (int n = 0, count = std::atoi(argv[3]); n < count; ++n) {
            v = static_cast<uint8_t>(v == 10 ? 11 : 10);
            CM_PutDataItem(kVar, &v);
            usleep(2000);
        }
        return 0;
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    g = makeShared();
    if (argc > 1 && std::strncmp(argv[1], "--benchmark", 11) != 0 && std::strcmp(argv[1], "--rounds") != 0)
        return helperMode(argc, argv) == 0 ? 0 : 2;
    const int rounds = bench::rounds(argc, argv, 5);

    bench::ScratchRoot root;
    prepare(root.dir);
    bench::redis::Server server(root.dir);
    g_redisPort = server.port();
    std::vector<Kind> kinds = {Kind::Full, Kind::Light, Kind::Floor, Kind::Bare};
    if (server.running()) kinds.push_back(Kind::Redis);
    const int counts[] = {0, 1, 8};
    std::map<std::pair<Kind, int>, std::vector<RunResult>> res;
    for (int round = 0; round < rounds; ++round)
        for (int k : counts)
            for (Kind kind : kinds) res[{kind, k}].push_back(runOnce(kind, k, root.dir));
    auto of = [&](Kind kind, int k) -> const std::vector<RunResult>& { return res[{kind, k}]; };

    std::vector<bench::Row> rows;
    for (int k : {0, 1, 8}) {
        const std::string w = "notify/set by CM_init vs CM_initNoRegister, " + std::to_string(k) + " watching, ";
        rows.push_back(summarise(w + "p50", of(Kind::Full, k), of(Kind::Light, k), &RunResult::writeP50, 1.1));
        rows.push_back(summarise(w + "p99", of(Kind::Full, k), of(Kind::Light, k), &RunResult::writeP99, 1.3));
    }
    // The same set by bare system calls, in a writer with a bare watch thread
    // of its own: what a second thread woken by each write costs by itself.
    for (int k : {0, 1, 8})
        rows.push_back(summarise("notify/set by CM_init vs floor writer with own watch thread, " + std::to_string(k) +
                                     " watching, p50", of(Kind::Full, k), of(Kind::Floor, k), &RunResult::writeP50, 0));
    // The same comparison between bare system calls: what the writer's own
    // watch thread costs where nothing of the library is there.  A target
    // above is out of reach on a machine where this ratio exceeds it.
    for (int k : {0, 1, 8})
        rows.push_back(summarise("notify/set, floor writer with own watch thread vs without, " + std::to_string(k) +
                                     " watching, p50", of(Kind::Floor, k), of(Kind::Bare, k), &RunResult::writeP50, 0));
    // What one watching thread costs a set in the kernel alone (its events
    // queued and the thread woken): the floor of the CM_init writer's excess.
    rows.push_back(summarise("notify/set by CM_initNoRegister, 1 watching vs none, p50", of(Kind::Light, 1),
                             of(Kind::Light, 0), &RunResult::writeP50, 0));
    rows.push_back(summarise("notify/told 1 watcher, CM_init vs CM_initNoRegister writer", of(Kind::Full, 1),
                             of(Kind::Light, 1), &RunResult::firstUs, 1.2));
    rows.push_back(summarise("notify/told 1 watcher, floor writer with own watch thread vs without", of(Kind::Floor, 1),
                             of(Kind::Bare, 1), &RunResult::firstUs, 0));
    rows.push_back(summarise("notify/told last of 8, CM_init vs CM_initNoRegister writer", of(Kind::Full, 8),
                             of(Kind::Light, 8), &RunResult::lastUs, 0));
    for (int k : {1, 8})
        rows.push_back(summarise("notify/told " + std::string(k == 1 ? "1 watcher" : "last of 8") + ", vs floor",
                                 of(Kind::Full, k), of(Kind::Floor, k), &RunResult::lastUs, 0));
    if (server.running()) {
        rows.push_back(summarise("notify/told 1 watcher, vs Redis subscriber", of(Kind::Full, 1), of(Kind::Redis, 1),
                                 &RunResult::firstUs, 1.0));
        rows.push_back(summarise("notify/told 1 watcher, floor writer with own watch thread vs Redis", of(Kind::Floor, 1),
                                 of(Kind::Redis, 1), &RunResult::firstUs, 0));
        rows.push_back(summarise("notify/told last of 8, vs Redis last subscriber", of(Kind::Full, 8),
                                 of(Kind::Redis, 8), &RunResult::lastUs, 1.0));
    } else {
        std::fprintf(stderr, "notify_bench: redis-server is not installed: the Redis peer is skipped\n");
        rows.push_back({"notify/vs Redis: skipped, redis-server not installed", 0, 0, 0, 0});
    }
    for (int k : {1, 8})
        rows.push_back(summarise("notify/watcher CPU per change, " + std::to_string(k) + " watching, vs floor",
                                 of(Kind::Full, k), of(Kind::Floor, k), &RunResult::cpuPerChangeUs, k == 8 ? 1.1 : 0));
    bench::report(rows, bench::wantJson(argc, argv));
    return 0;
}
