// Shared by the plain (multi-process) benchmark programs: clock, medians,
// percentiles, a scratch device tree, and a report in the JSON shape that
// Google Benchmark prints, so that benchmarks/run_all.py tabulates every
// program the same way.
#pragma once

#include <linux/magic.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace bench {

inline int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The value at fraction q (0..1) of the sorted samples.
inline double quantile(std::vector<double> v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t at = std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size() - 1) + 0.5));
    return v[at];
}
inline double median(std::vector<double> v) { return quantile(std::move(v), 0.5); }

// Where scratch trees go: $CM_BENCH_DIR when set, else a memory file
// system (/dev/shm), so that no disk or journal work of the host enters a
// figure; /tmp when there is none.
inline std::string scratchBase() {
    if (const char* d = std::getenv("CM_BENCH_DIR"); d != nullptr && *d != 0) return d;
    struct statfs fs{};
    if (statfs("/dev/shm", &fs) == 0 && fs.f_type == TMPFS_MAGIC && access("/dev/shm", W_OK) == 0) return "/dev/shm";
    return "/tmp";
}

// A private device tree (data file folders under a temporary root).
struct ScratchRoot {
    ScratchRoot() {
        std::string tmpl = scratchBase() + "/cm-bench.XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        dir = tmpl;
        std::filesystem::create_directories(dir + "/var/AppData/config");
        std::filesystem::create_directories(dir + "/tmp");
    }
    ~ScratchRoot() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    std::string dir;
};

// One result row: a figure of the library, the floor's figure for the same
// thing, their ratio (median of per-round ratios) and the target ratio.
struct Row {
    std::string name;
    double libUs, floorUs, ratio, target;
};

// True when the command line asks for JSON (as run_all.py does).
inline bool wantJson(int argc, char** argv) {
    for (int a = 1; a < argc; ++a)
        if (std::strcmp(argv[a], "--benchmark_format=json") == 0) return true;
    return false;
}

// Rounds to run: --rounds N, else CM_BENCH_ROUNDS, else `fallback`.
inline int rounds(int argc, char** argv, int fallback) {
    for (int a = 1; a + 1 < argc; ++a)
        if (std::strcmp(argv[a], "--rounds") == 0) return std::max(1, std::atoi(argv[a + 1]));
    const char* env = std::getenv("CM_BENCH_ROUNDS");
    return env != nullptr && std::atoi(env) > 0 ? std::atoi(env) : fallback;
}

inline void report(const std::vector<Row>& rows, bool json) {
    if (!json) {
        std::printf("%-44s %12s %12s %8s %8s\n", "benchmark", "library", "floor", "ratio", "target");
        for (const Row& r : rows)
            std::printf("%-44s %10.1fus %10.1fus %7.2fx %7.2fx%s\n", r.name.c_str(), r.libUs, r.floorUs, r.ratio,
                        r.target, r.target > 0 && r.ratio > r.target ? "  over" : "");
        return;
    }
    std::printf("{\"benchmarks\": [\n");
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& r = rows[i];
        std::printf("  {\"name\": \"%s\", \"real_time\": %.3f, \"time_unit\": \"us\", \"floor\": %.3f, "
                    "\"ratio\": %.3f, \"target\": %.2f}%s\n",
                    r.name.c_str(), r.libUs, r.floorUs, r.ratio, r.target, i + 1 < rows.size() ? "," : "");
    }
    std::printf("]}\n");
}

}  // namespace bench
