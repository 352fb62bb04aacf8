// Corruption sweep (cm_sweep [budget-seconds [stride]]): bit flips, byte
// inversions, truncations and junk on data files, each set up in a forked
// process.  A non-master ends without signal or hang and leaves the file as
// it was (empty files excepted: it waits for them); a master leaves a fresh
// file when the check found a fault, else the file cut to its length.
#include <configmanager/configmanager.h>
#include <configmanager/cm_host.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include "platform/paths.h"
#include "storage/file_state.h"
#include "support/child_link.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

constexpr auto kCaseTimeout = std::chrono::seconds(20);

Bytes readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& path, const Bytes& b) {
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0 && !b.empty()) (void)!write(fd, b.data(), b.size());
    close(fd);
}

// The set-up of file `index` (then, with readAll, every read) in a forked
// process: its result (255 for -1), minus a signal, or ChildLink::kHung.
int setUpInChild(const std::string& root, int index, bool master, bool readAll) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) return -1000;
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, 1), dup2(null, 2);
        __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);
        CM_Host_SetRootDirectory(root.c_str());
        if (master) CM_SetAsMaster();
        const int rc = CM_SetUpConfigFile(index);
        unsigned char buf[512];
        for (int rel = 0; readAll && rel < 4096; ++rel)
            if (CM_ReadDataItem(index, rel, buf) != 0 && rel > 2300) break;
        _exit(rc & 0xff);
    }
    return cmcheck::waitBounded(pid, kCaseTimeout);
}

struct Case {
    int file;
    std::string what;
    Bytes bytes;
};

struct Tally {
    long cases = 0, masterRuns = 0, repaired = 0, keptAsIs = 0, otherRuns = 0, notRun = 0;
    long crashed = 0, hung = 0, wrong = 0;
};

std::string describe(int status) {
    if (status == cmcheck::ChildLink::kHung) return "hung (killed)";
    if (status < 0) return "signal " + std::to_string(-status);
    return "status " + std::to_string(status);
}

void runCase(const std::string& root, const Case& c, const Bytes& good, Tally& t) {
    const std::string path = cm::storage::pathOf(c.file);
    auto fault = [&](long& counter, const std::string& what) {
        ++counter;
        std::printf("sweep: file %d, %s: %s\n", c.file, c.what.c_str(), what.c_str());
    };
    ++t.cases;
    // The non-master first: it must leave the damaged file as it found it.
    if (!c.bytes.empty()) {
        writeBytes(path, c.bytes);
        const int st = setUpInChild(root, c.file, false, true);
        ++t.otherRuns;
        if (st < 0) fault(st == cmcheck::ChildLink::kHung ? t.hung : t.crashed, "non-master " + describe(st));
        else if (readBytes(path) != c.bytes) fault(t.wrong, "non-master changed the file");
    }
    writeBytes(path, c.bytes);
    const int st = setUpInChild(root, c.file, true, true);
    ++t.masterRuns;
    if (st < 0 || st == 255)
        return fault(st == cmcheck::ChildLink::kHung ? t.hung : st < 0 ? t.crashed : t.wrong, "master " + describe(st));
    ++(st == 0 ? t.keptAsIs : t.repaired);
    const Bytes expected = st != 0 ? good : Bytes(c.bytes.begin(), c.bytes.begin() + std::min(c.bytes.size(), good.size()));
    if (readBytes(path) != expected)
        return fault(t.wrong, "master's check result " + std::to_string(st) + ", file not " +
                                  (st == 0 ? "kept as it was" : "rewritten from defaults"));
    if (const int again = setUpInChild(root, c.file, false, false); again != 0)
        fault(t.wrong, "after the master's set-up a re-check gives " + describe(again));
}

// Offset just past the first `n` records (or the file's end).
size_t afterRecords(const Bytes& b, int n) {
    size_t off = 4;
    for (int r = 0; r < n && off + 4 <= b.size(); ++r) off += 4 + ((b[off + 2] << 8) | b[off + 3]);
    return std::min(off, b.size());
}

void addFlips(std::vector<Case>& cases, int file, const Bytes& good, size_t upTo, bool everyBit) {
    for (size_t pos = 0; pos < upTo; ++pos)
        for (int mask : {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0xFF}) {
            if (!everyBit && mask != 0x01 && mask != 0xFF) continue;
            Case c{file, "byte " + std::to_string(pos) + " ^ " + std::to_string(mask), good};
            c.bytes[pos] ^= static_cast<unsigned char>(mask);
            cases.push_back(std::move(c));
        }
}

void addCuts(std::vector<Case>& cases, int file, const Bytes& good, size_t dense, size_t step) {
    for (size_t len = 0; len < good.size(); len += len < dense ? 1 : step)
        cases.push_back({file, "cut to " + std::to_string(len), Bytes(good.begin(), good.begin() + len)});
    cases.push_back({file, "cut to " + std::to_string(good.size() - 1), Bytes(good.begin(), good.end() - 1)});
}

void addJunk(std::vector<Case>& cases, int file, const Bytes& good) {
    for (size_t n : {1, 3, 4, 5, 17, 300, 70000})
        for (int fill : {0x00, 0xA5}) {
            Case c{file, std::to_string(n) + " bytes of " + std::to_string(fill) + " appended", good};
            c.bytes.insert(c.bytes.end(), n, static_cast<unsigned char>(fill));
            cases.push_back(std::move(c));
        }
    // A whole well-formed record too many (a copy of the first one).
    Case c{file, "first record appended again", good};
    c.bytes.insert(c.bytes.end(), good.begin() + 4, good.begin() + afterRecords(good, 1));
    cases.push_back(std::move(c));
}

}  // namespace

int main(int argc, char** argv) {
    const int budget = argc > 1 ? std::atoi(argv[1]) : 60;
    const int stride = argc > 2 ? std::atoi(argv[2]) : 1;
    if (budget <= 0 || stride <= 0) {
        std::fprintf(stderr, "usage: %s [budget-seconds [stride]]\n", argv[0]);
        return 2;
    }
    const std::string root = cmcheck::makeRoot("cmsweep");
    if (root.empty()) return 2;
    cm::paths::setRoot(root);

    // Fresh files from a master: the references, and the smallest and the
    // largest persistent file.
    std::map<int, Bytes> fresh;
    int smallest = -1, largest = -1;
    for (int i = 1; i < 10; ++i) {
        if (setUpInChild(root, i, true, false) != 0) {
            std::printf("sweep: a master could not create file %d\n", i);
            return 1;
        }
        fresh[i] = readBytes(cm::storage::pathOf(i));
        if (smallest < 0 || fresh[i].size() < fresh[smallest].size()) smallest = i;
        if (largest < 0 || fresh[i].size() > fresh[largest].size()) largest = i;
    }
    const Bytes& small = fresh[smallest];
    const Bytes& large = fresh[largest];
    const size_t largeHead = afterRecords(large, 6);

    std::vector<Case> cases;
    addFlips(cases, smallest, small, small.size(), true);
    addFlips(cases, largest, large, largeHead, false);
    addCuts(cases, smallest, small, small.size(), 1);
    addCuts(cases, largest, large, largeHead + 8, 997);
    addJunk(cases, smallest, small);
    addJunk(cases, largest, large);

    Tally t;
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(budget);
    for (size_t n = 0; n < cases.size(); n += static_cast<size_t>(stride)) {
        const Case& c = cases[n];
        if (Clock::now() > end) {
            ++t.notRun;
            continue;
        }
        runCase(root, c, fresh[c.file], t);
    }
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();

    std::printf("sweep: file %d (%zu bytes) and file %d (%zu bytes, first %zu bytes flipped): %ld of %zu cases in %.1f s\n",
                smallest, small.size(), largest, large.size(), largeHead, t.cases, cases.size(), secs);
    std::printf("sweep: master runs %ld (repaired %ld, nothing to repair %ld); non-master runs %ld\n",
                t.masterRuns, t.repaired, t.keptAsIs, t.otherRuns);
    std::printf("sweep: crashed %ld, hung %ld, wrong %ld, not run (budget) %ld\n", t.crashed, t.hung, t.wrong, t.notRun);
    const bool good = t.crashed == 0 && t.hung == 0 && t.wrong == 0;
    if (good) cmcheck::removeRoot(root);
    return good ? 0 : 1;
}
