// The watch thread's diff of the largest data file when nothing changed:
// the comparison alone, and with one block that differs (its records are
// then walked under the file lock).
//
//   build/benchmarks/diff_bench
//
// The walk is forced by making the private copy's header differ from the
// file: the header belongs to no record, so the walk finds no change and the
// difference stays, pass after pass.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "bench_report.h"
#include "log/log.h"
#include "platform/paths.h"
#include "process/state.h"
#include "setup/setup.h"
#include "storage/file_state.h"
#include "watch/file_change.h"

namespace {

constexpr int kCt = 5;  // 2274 records

struct CtFile {
    CtFile() {
        cm::paths::setRoot(scratch.dir);
        cm::log::oLogMode = 0;  // keep the set-up quiet
        cm::process::bCMmaster = 1;
        cm::setup::setUpConfigFile(kCt);
    }
    bench::ScratchRoot scratch;
};

CtFile& ctFile() {
    static CtFile f;
    return f;
}

void BM_DiffUnchangedFile(benchmark::State& state) {
    ctFile();
    for (auto _ : state) cm::watch::actionFileChange(kCt);
    state.SetBytesProcessed(state.iterations() * cm::storage::dwLenMappedFile[kCt]);
}
BENCHMARK(BM_DiffUnchangedFile);

void BM_DiffOneBlockDiffers(benchmark::State& state) {
    ctFile();
    cm::storage::pPrevData[kCt][2] ^= 0xFF;
    for (auto _ : state) cm::watch::actionFileChange(kCt);
    cm::storage::pPrevData[kCt][2] ^= 0xFF;
    state.SetBytesProcessed(state.iterations() * cm::storage::dwLenMappedFile[kCt]);
}
BENCHMARK(BM_DiffOneBlockDiffers);

}  // namespace

BENCHMARK_MAIN();
