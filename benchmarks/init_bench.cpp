// CM_init with every data file present, against the floor in the same run.
//
//   build/benchmarks/init_bench [--rounds N]   (or CM_BENCH_ROUNDS=N; 6 samples a round)
//
// Each sample is a fresh process (the library starts once per process).
// The floor is what a start cannot avoid: an inotify instance; per file
// open, fstat, whole-file lock, mmap, the walk over every record header,
// the private copy, unlock and the watch; then one thread started.
// Samples alternate between the two; the ratio is the median of ratios.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "bench_report.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "floor.h"

namespace {

void* blockOnEvents(void* arg) {
    uint8_t buf[4096];
    for (;;)
        if (read(static_cast<int>(reinterpret_cast<intptr_t>(arg)), buf, sizeof buf) < 0) return nullptr;
}

void floorStart() {
    const int ifd = inotify_init1(IN_CLOEXEC);
    for (int i = 0; i < cm::catalogue::kNumFiles; ++i) {
        auto* f = new bench::floor::File;
        if (f->open(i)) inotify_add_watch(ifd, cm::storage::pathOf(i), 0xF02 | IN_ATTRIB);
    }
    pthread_t t;
    pthread_create(&t, nullptr, blockOnEvents, reinterpret_cast<void*>(static_cast<intptr_t>(ifd)));
}

// Runs one start in a fresh process and returns its time in microseconds.
double sample(bool lib, const std::string& root, int64_t* slot) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (lib) {
            CM_Host_SetRootDirectory(root.c_str());
            const int64_t t0 = bench::nowNs();
            CM_init(0);
            *slot = bench::nowNs() - t0;
        } else {
            cm::paths::setRoot(root);
            const int64_t t0 = bench::nowNs();
            floorStart();
            *slot = bench::nowNs() - t0;
        }
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return static_cast<double>(*slot) / 1000;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = bench::rounds(argc, argv, 8) * 6;
    auto* slot = static_cast<int64_t*>(
        mmap(nullptr, sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    bench::ScratchRoot root;
    const pid_t master = fork();
    if (master == 0) {
        CM_Host_SetRootDirectory(root.dir.c_str());
        CM_init(1);
        CM_Exit();
        _exit(0);
    }
    waitpid(master, nullptr, 0);

    std::vector<double> lib, flo, ratio;
    for (int n = 0; n < rounds; ++n) {
        lib.push_back(sample(true, root.dir, slot));
        flo.push_back(sample(false, root.dir, slot));
        ratio.push_back(lib.back() / flo.back());
    }
    bench::report({{"init/CM_init, files present", bench::median(lib), bench::median(flo), bench::median(ratio), 1.1}},
                  bench::wantJson(argc, argv));
    return 0;
}
