// CM_init against its floor in the same run: warm (every data file present)
// and cold (the master creates and fills the ten files).
//
//   build/benchmarks/init_bench [--rounds N]   (or CM_BENCH_ROUNDS=N; 6 samples a round)
//
// Each sample is a fresh process (the library starts once per process).
// The warm floor is what a start cannot avoid: an inotify instance; per file
// open, fstat, whole-file lock, mmap, the walk over every record header,
// the private copy, unlock and the watch; then one thread started.  The cold
// floor creates each file exclusively, writes its version word, one write
// per record and the check word under the whole-file lock, cuts it to its
// length, maps and copies it and adds the watch; then one thread started.
// Samples alternate between the library and its floor; the ratio is the
// median of ratios.  The cold start is also measured with the library's log
// output discarded: the master's notices (one per file it creates) are
// required, and the first message a process logs sets up the C library's
// time zone, which the floor never does.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "bench_report.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "floor.h"
#include "log/sink.h"

namespace {

// Takes every message and writes none.
class Discard final : public cm::log::Sink {
    void write(cm::log::Channel, int, const char*, va_list) override {}
};

enum class Who { Library, Quiet, Floor };

void* blockOnEvents(void* arg) {
    uint8_t buf[4096];
    for (;;)
        if (read(static_cast<int>(reinterpret_cast<intptr_t>(arg)), buf, sizeof buf) < 0) return nullptr;
}

void startWatchThread(int ifd) {
    pthread_t t;
    pthread_create(&t, nullptr, blockOnEvents, reinterpret_cast<void*>(static_cast<intptr_t>(ifd)));
}

void floorStart() {
    const int ifd = inotify_init1(IN_CLOEXEC);
    for (int i = 0; i < cm::catalogue::kNumFiles; ++i) {
        auto* f = new bench::floor::File;
        if (f->open(i)) inotify_add_watch(ifd, cm::storage::pathOf(i), 0xF02 | IN_ATTRIB);
    }
    startWatchThread(ifd);
}

// Creates and fills one file as a master must: one write per record.
void floorCreate(int i, int ifd) {
    const auto& file = cm::catalogue::sConfigItemList[i];
    const int fd = ::open(cm::storage::pathOf(i), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return;
    bench::floor::lock(fd, 0, 0);
    uint8_t rec[4 + 256] = {};
    cm::platform::storeBe16(rec, file.wVersion);
    [[maybe_unused]] ssize_t n = write(fd, rec, 2);
    lseek(fd, 4, SEEK_SET);
    uint32_t len = 4;
    for (int r = 0; r < file.iNumItems; ++r) {
        const uint32_t size = file.pItems[r].wDataSize > 256 ? 256 : file.pItems[r].wDataSize;
        cm::platform::storeBe16(rec, static_cast<uint16_t>(r));
        cm::platform::storeBe16(rec + 2, static_cast<uint16_t>(size));
        n = write(fd, rec, size + 4);
        len += size + 4;
    }
    static const uint8_t crc[2] = {0x12, 0x34};
    n = pwrite(fd, crc, 2, 2);
    if (ftruncate(fd, len) != 0) return;
    void* m = mmap(nullptr, len, PROT_READ, MAP_PRIVATE, fd, 0);
    if (m != MAP_FAILED) std::memcpy(std::malloc(len), m, len);
    bench::floor::unlock(fd, 0, 0);
    inotify_add_watch(ifd, cm::storage::pathOf(i), 0xF02 | IN_ATTRIB);
}

void floorColdStart() {
    const int ifd = inotify_init1(IN_CLOEXEC);
    for (int i = 0; i < cm::catalogue::kNumFiles; ++i) floorCreate(i, ifd);
    startWatchThread(ifd);
}

void removeDataFiles() {
    for (int i = 0; i < cm::catalogue::kNumFiles; ++i) unlink(cm::storage::pathOf(i));
}

// Runs one start in a fresh process and returns its time in microseconds.
// Cold: the files are removed first and the process is the master.
double sample(Who who, bool cold, const std::string& root, int64_t* slot) {
    if (cold) {
        cm::paths::setRoot(root);
        removeDataFiles();
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (who != Who::Floor) {
            CM_Host_SetRootDirectory(root.c_str());
            if (who == Who::Quiet) cm::log::setSink(new Discard);
            const int64_t t0 = bench::nowNs();
            CM_init(cold ? 1 : 0);
            *slot = bench::nowNs() - t0;
        } else {
            cm::paths::setRoot(root);
            const int64_t t0 = bench::nowNs();
            cold ? floorColdStart() : floorStart();
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

    std::vector<bench::Row> rows;
    for (const bool cold : {false, true}) {
        std::vector<double> lib, quiet, flo, ratio, quietRatio;
        for (int n = 0; n < rounds; ++n) {
            lib.push_back(sample(Who::Library, cold, root.dir, slot));
            flo.push_back(sample(Who::Floor, cold, root.dir, slot));
            ratio.push_back(lib.back() / flo.back());
            if (!cold) continue;
            quiet.push_back(sample(Who::Quiet, cold, root.dir, slot));
            quietRatio.push_back(quiet.back() / flo.back());
        }
        rows.push_back({cold ? "init/CM_init cold, master creates the files" : "init/CM_init warm, files present",
                        bench::median(lib), bench::median(flo), bench::median(ratio), cold ? 1.2 : 1.1});
        if (cold)
            rows.push_back({"init/CM_init cold, log output discarded", bench::median(quiet), bench::median(flo),
                            bench::median(quietRatio), 0});
    }
    bench::report(rows, bench::wantJson(argc, argv));
    return 0;
}
