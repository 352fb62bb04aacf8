// A full restore and a full backup, against their floors in the same run.
//
//   build/benchmarks/restore_bench [--rounds N]   (or CM_BENCH_ROUNDS=N)
//
// Two backups differ in every persistent variable that can take two values
// (texts, numbers whose bounds allow it, addresses).  Each round restores
// them alternately, after an untimed first restore, in three settings:
// a process started with CM_initNoRegister alone (the floor), a process
// started with CM_init alone, and a CM_init process while another process
// started with CM_init watches every variable.  The ratio is the median of
// the per-round ratios to the first setting.
//
// The backup's floor is the bare work per variable: a record lock, the copy
// out of the mapping, the unlock and one formatted line, then fsync.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <arpa/inet.h>

#include <atomic>
#include <cinttypes>

#include "bench_report.h"
#include "catalogue/catalogue.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"
#include "floor.h"
#include "storage/file_state.h"

namespace {

using cm::catalogue::sConfigItemList;
constexpr int32_t kSoftwareVersion = 226;

struct Shared {
    std::atomic<int> ready;
    std::atomic<int> heard;
    double us[4];
};
Shared* g;

int onChange(int32_t) {
    g->heard.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

template <class F>
pid_t spawn(F body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

void waitChild(pid_t pid) { waitpid(pid, nullptr, 0); }

// Sets every persistent variable to a value of the given flavour (0 or 1).
void setAll(int flavour) {
    for (int f = 1; f < CM_NUM_FILES; ++f)
        for (int r = 0; r < sConfigItemList[f].iNumItems; ++r) {
            const auto& e = sConfigItemList[f].pItems[r];
            const int32_t id = sConfigItemList[f].iFirstVarID + r;
            if (id == kSoftwareVersion) continue;
            std::string v;
            if (e.ucDataType == DT_STRING && e.wDataSize > 6)
                v = std::string(flavour ? "B" : "A") + std::to_string(id);
            else if (e.ucDataType <= DT_DWORD && e.dwMax > e.dwMin)
                v = std::to_string(static_cast<unsigned long>(e.dwMin) + static_cast<unsigned long>(flavour));
            else if (e.ucDataType == DT_IPADDR)
                v = flavour ? "10.0.0.2" : "10.0.0.1";
            else
                continue;
            CM_PutDataItemFromString(id, v.c_str());
        }
}

void makeBackups(const std::string& root, const std::string backups[2]) {
    waitChild(spawn([&] {
        CM_Host_SetRootDirectory(root.c_str());
        CM_initNoRegister();
        for (int flavour = 0; flavour < 2; ++flavour) {
            setAll(flavour);
            CM_BackupConfig_common(backups[flavour].c_str(), 0, 0);
        }
    }));
}

int differingLines(const std::string backups[2]) {
    FILE* a = std::fopen(backups[0].c_str(), "re");
    FILE* b = std::fopen(backups[1].c_str(), "re");
    int n = 0;
    char la[1024], lb[1024];
    while (a && b && std::fgets(la, sizeof la, a) && std::fgets(lb, sizeof lb, b)) n += std::strcmp(la, lb) != 0;
    if (a) std::fclose(a);
    if (b) std::fclose(b);
    return n;
}

enum class Setting { Light, Full, FullWatched };

// One round of one setting: an untimed restore, then two timed ones.
double restoreRound(Setting s, const std::string& root, const std::string backups[2]) {
    pid_t watcher = -1;
    g->ready = 0;
    if (s == Setting::FullWatched) {
        watcher = spawn([&] {
            CM_Host_SetRootDirectory(root.c_str());
            CM_init(0);
            for (int32_t id = 0; id <= CM_MAX_VAR_ID; ++id) CM_Register_Interest(id, onChange);
            g->ready = 1;
            for (;;) pause();
        });
        while (g->ready == 0) usleep(1000);
    }
    waitChild(spawn([&] {
        CM_Host_SetRootDirectory(root.c_str());
        s == Setting::Light ? CM_initNoRegister() : CM_init(0);
        CM_RestoreConfig(backups[0].c_str(), nullptr);
        for (int n = 0; n < 2; ++n) {
            const int64_t t0 = bench::nowNs();
            CM_RestoreConfig(backups[1 - n].c_str(), nullptr);
            g->us[n] = static_cast<double>(bench::nowNs() - t0) / 1000;
        }
        // Quiet until the watchers are done, so the next setting starts clean.
        for (int last = -1; last != g->heard.load();) {
            last = g->heard.load();
            usleep(20000);
        }
    }));
    if (watcher > 0) {
        kill(watcher, SIGKILL);
        waitChild(watcher);
    }
    return (g->us[0] + g->us[1]) / 2;
}

// The backup's floor: per variable a record lock, the copy, the unlock and
// its line; octet and password variables and the volatile file left out,
// as in the library's plain backup.
void floorBackup(const std::string& path) {
    FILE* out = std::fopen(path.c_str(), "we");
    std::fprintf(out, "SOFTWARE_VERSION : %s\n", "0.000.0.0");
    for (int f = 1; f < CM_NUM_FILES; ++f) {
        const int fd = cm::storage::fdRead[f];
        const uint8_t* map = cm::storage::pMappedFile[f];
        for (int r = 0; r < sConfigItemList[f].iNumItems; ++r) {
            const auto& e = sConfigItemList[f].pItems[r];
            if (sConfigItemList[f].iFirstVarID + r == kSoftwareVersion || e.ucDataType == DT_OCTET_STRING ||
                e.ucDataType == DT_PASSWORD)
                continue;
            const uint32_t at = e.recordOffset();
            uint8_t data[260] = {};
            const uint32_t size = e.wDataSize > 256 ? 256 : e.wDataSize;
            bench::floor::lock(fd, at, size + 4);
            std::memcpy(data, map + at + 4, size);
            bench::floor::unlock(fd, at, size + 4);
            char ip[64];
            switch (e.ucDataType) {
                case DT_STRING:
                    data[size ? size - 1 : 0] = 0;
                    std::fprintf(out, "%s : %s\n", e.szVarTag, data[0] ? reinterpret_cast<char*>(data) : "NULL");
                    break;
                case DT_IPADDR:
                    inet_ntop(AF_INET, data + 4, ip, sizeof ip);
                    std::fprintf(out, "%s : %s\n", e.szVarTag, ip);
                    break;
                default: {
                    unsigned long v = 0;
                    for (uint32_t b = 0; b < size && b < 4; ++b) v = v << 8 | data[b];
                    std::fprintf(out, "%s : %lu\n", e.szVarTag, v);
                }
            }
        }
    }
    std::fflush(out);
    fsync(fileno(out));
    std::fclose(out);
}

// One round of backups in a CM_initNoRegister process: the library's, then
// the floor's, twice each; us[0] and us[1] get the medians.
void backupRound(const std::string& root) {
    waitChild(spawn([&] {
        CM_Host_SetRootDirectory(root.c_str());
        CM_initNoRegister();
        const std::string lib = root + "/lib-backup.txt", flo = root + "/floor-backup.txt";
        std::vector<double> a, b;
        for (int n = 0; n < 3; ++n) {
            int64_t t0 = bench::nowNs();
            CM_BackupConfig_common(lib.c_str(), 0, 0);
            a.push_back(static_cast<double>(bench::nowNs() - t0) / 1000);
            t0 = bench::nowNs();
            floorBackup(flo);
            b.push_back(static_cast<double>(bench::nowNs() - t0) / 1000);
        }
        g->us[0] = bench::median(a);
        g->us[1] = bench::median(b);
    }));
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = bench::rounds(argc, argv, 3);
    g = new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared{};
    bench::ScratchRoot root;
    waitChild(spawn([&] {
        CM_Host_SetRootDirectory(root.dir.c_str());
        CM_init(1);
        CM_Exit();
    }));
    const std::string backups[2] = {root.dir + "/backupA.txt", root.dir + "/backupB.txt"};
    makeBackups(root.dir, backups);
    std::fprintf(stderr, "restore_bench: each restore changes %d variables\n", differingLines(backups));

    std::vector<double> light, full, watched, rFull, rWatched, lib, flo, rBackup;
    for (int n = 0; n < rounds; ++n) {
        light.push_back(restoreRound(Setting::Light, root.dir, backups));
        full.push_back(restoreRound(Setting::Full, root.dir, backups));
        watched.push_back(restoreRound(Setting::FullWatched, root.dir, backups));
        rFull.push_back(full.back() / light.back());
        rWatched.push_back(watched.back() / light.back());
        backupRound(root.dir);
        lib.push_back(g->us[0]);
        flo.push_back(g->us[1]);
        rBackup.push_back(lib.back() / flo.back());
    }
    bench::report({{"restore/full, CM_init vs CM_initNoRegister", bench::median(full), bench::median(light),
                    bench::median(rFull), 0},
                   {"restore/full, CM_init + 1 watcher vs CM_initNoRegister", bench::median(watched),
                    bench::median(light), bench::median(rWatched), 1.2},
                   {"backup/full vs its floor", bench::median(lib), bench::median(flo), bench::median(rBackup), 1.1}},
                  bench::wantJson(argc, argv));
    return 0;
}
