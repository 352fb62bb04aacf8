// Stress run (cm_stress [seconds [processes]], default 20 s, 8): every process
// writes and watches; at the end all read what the files hold and every
// watcher saw each final value (values never repeat).  Exits 1 otherwise.
#include <configmanager/configmanager.h>
#include <configmanager/cm_host.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <vector>

#include "platform/paths.h"
#include "storage/file_state.h"
#include "support/child_link.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmcheck::ChildLink;

struct Var {
    int32_t id, file, rel;
    uint32_t type;
    int owner;  // writing process, or -1 when every process writes it
};

// Watched files; in each, up to two shared variables and one per process.
constexpr int kFiles[] = {0, 3, 5, 9};
constexpr int kSharedPerFile = 2;

std::vector<Var> g_vars;
int g_varIndex[4096];
std::atomic<uint32_t> g_lastSeen[256], g_notified[256];

bool chooseVariables(int processes) {
    std::fill(std::begin(g_varIndex), std::end(g_varIndex), -1);
    for (int file : kFiles) {
        std::vector<Var> dwords, words;
        for (int32_t id = 0; id < 4096; ++id) {
            int32_t rel = 0, f = 0;
            uint32_t type = 0;
            if (CM_ConvertAbsolute2Relative(id, &rel, &f) != 0 || f != file) continue;
            if (CM_GetDataTypeFromVarId(id, &type) != 0 || (type != DT_WORD && type != DT_DWORD)) continue;
            const char* tag = CM_GetCMvarTag(id);
            // Log filters and the library's own state byte steer the library itself.
            if (tag == nullptr || strstr(tag, "LOG") || strstr(tag, "CM_FLAG")) continue;
            (type == DT_DWORD ? dwords : words).push_back({id, f, rel, type, -1});
        }
        // Shared variables take the wide type first: they hold every writer's sequence.
        dwords.insert(dwords.end(), words.begin(), words.end());
        const int shared = std::min(kSharedPerFile, static_cast<int>(dwords.size()) - processes);
        if (shared < 1) return std::fprintf(stderr, "stress: file %d has too few numbers\n", file), false;
        for (int k = 0; k < shared + processes; ++k) {
            g_varIndex[dwords[k].id] = static_cast<int>(g_vars.size());
            g_vars.push_back(dwords[k]);
            g_vars.back().owner = k < shared ? -1 : k - shared;
        }
    }
    return true;
}

// Unique per (writer, sequence); 0 when the type has no room left.
uint32_t encode(const Var& v, int writer, uint32_t seq) {
    const int bits = v.type == DT_DWORD ? 24 : 13;
    return seq < (1u << bits) ? (static_cast<uint32_t>(writer) << bits) | seq : 0;
}

bool readVar(const Var& v, uint32_t& out) {
    union { uint32_t dw; uint16_t w; } n{};
    if (CM_GetDataItem(v.id, &n) != 0) return false;
    return out = v.type == DT_DWORD ? n.dw : n.w, true;
}

int onChange(int32_t id) {
    if (id < 0 || id >= 4096 || g_varIndex[id] < 0) return 0;
    const int k = g_varIndex[id];
    uint32_t value = 0;
    if (readVar(g_vars[k], value)) g_lastSeen[k].store(value);
    g_notified[k].fetch_add(1);
    return 0;
}

// One library user: "go <ms>" writes, "settle <ms>" reports its view, "exit".
[[noreturn]] void runChild(ChildLink& link, int me, const std::string& root) {
    CM_Host_SetRootDirectory(root.c_str());
    __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);  // messages to stdout, this process's log file
    if (CM_init(me == 0 ? 1 : 0) != 0) _exit(3);
    for (const Var& v : g_vars)
        if (CM_Register_Interest(v.id, onChange) != 0) _exit(4);
    link.send("ready");
    std::string cmd;
    if (!link.receive(cmd, std::chrono::minutes(5)) || cmd.rfind("go ", 0) != 0) _exit(5);
    const auto end = Clock::now() + std::chrono::milliseconds(std::stol(cmd.substr(3)));
    const size_t n = g_vars.size();
    std::vector<uint32_t> seq(n, 0), lastWritten(n, 0);
    std::vector<size_t> mine;
    for (size_t k = 0; k < n; ++k)
        if (g_vars[k].owner == -1 || g_vars[k].owner == me) mine.push_back(k);
    std::mt19937 rng(static_cast<unsigned>(me * 7919 + getpid()));
    long writes = 0, failed = 0, wrong = 0;
    while (Clock::now() < end) {
        const size_t k = mine[rng() % mine.size()];
        const Var& v = g_vars[k];
        const uint32_t value = encode(v, me, ++seq[k]);
        const uint16_t narrow = static_cast<uint16_t>(value);
        if (value == 0) continue;
        if (CM_WriteDataItem(v.file, v.rel, v.type == DT_DWORD ? static_cast<const void*>(&value) : &narrow, 1) < 0) {
            ++failed;
            continue;
        }
        ++writes, lastWritten[k] = value;
        uint32_t back = 0;
        wrong += v.owner == me && (!readVar(v, back) || back != value);
    }
    link.send("done " + std::to_string(writes) + " " + std::to_string(failed) + " " + std::to_string(wrong));

    if (!link.receive(cmd, std::chrono::minutes(5)) || cmd.rfind("settle ", 0) != 0) _exit(6);
    // Waits until this process's callbacks have caught up with what it reads.
    const auto settleEnd = Clock::now() + std::chrono::milliseconds(std::stol(cmd.substr(7)));
    std::vector<uint32_t> now(n, 0);
    for (bool caughtUp = false; !caughtUp && Clock::now() < settleEnd; usleep(caughtUp ? 0 : 20000)) {
        caughtUp = true;
        for (size_t k = 0; k < n; ++k) {
            if (!readVar(g_vars[k], now[k])) now[k] = 0xFFFFFFFFu;
            caughtUp &= now[k] == g_lastSeen[k].load();
        }
    }
    std::ostringstream view;
    view << "view";
    for (size_t k = 0; k < n; ++k) view << ' ' << now[k] << ' ' << g_lastSeen[k] << ' ' << g_notified[k] << ' ' << lastWritten[k];
    link.send(view.str());
    if (!link.receive(cmd, std::chrono::minutes(1)) || cmd != "exit") _exit(7);
    CM_Exit();
    std::fflush(stdout);
    _exit(0);
}

// The value of a record as the file holds it (big-endian), walking the records.
bool fileValue(const Var& v, uint32_t& out) {
    std::ifstream in(cm::storage::pathOf(v.file), std::ios::binary);
    const std::vector<unsigned char> b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto len = [&](size_t off) { return static_cast<size_t>((b[off + 2] << 8) | b[off + 3]); };
    size_t off = 4;
    for (int r = 0; r < v.rel && off + 4 <= b.size(); ++r) off += 4 + len(off);
    if (off + 4 > b.size() || off + 4 + len(off) > b.size()) return false;
    out = 0;
    for (size_t k = 0; k < len(off); ++k) out = (out << 8) | b[off + 4 + k];
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 20;
    const int processes = argc > 2 ? std::atoi(argv[2]) : 8;
    if (seconds <= 0 || processes < 2 || processes > 64) {
        std::fprintf(stderr, "usage: %s [seconds [processes (2..64)]]\n", argv[0]);
        return 2;
    }
    const std::string root = cmcheck::makeRoot("cmstress");
    if (!chooseVariables(processes) || root.empty()) return 2;
    cm::paths::setRoot(root);  // this process only reads the files; it never starts the library

    std::vector<ChildLink> kids(processes);
    std::string line;
    int hung = 0, crashed = 0;
    long writes = 0, failed = 0, wrong = 0, lost = 0, notifications = 0;
    auto failure = [&](int i, const char* what) {
        std::fprintf(stderr, "stress: process %d %s\n", i, what);
        kids[i].kill();
        ++hung;
    };
    // The master first, as on the device: it creates the files the others wait for.
    for (int i = 0; i < processes && hung == 0; ++i) {
        if (!kids[i].spawn([&] { runChild(kids[i], i, root); }, root + "/process-" + std::to_string(i) + ".log")) return 2;
        if (i == 0 && !(kids[0].receive(line, std::chrono::seconds(120)) && line == "ready")) failure(0, "did not start");
    }
    for (int i = 1; i < processes && hung == 0; ++i)
        if (!(kids[i].receive(line, std::chrono::seconds(120)) && line == "ready")) failure(i, "did not start");
    const bool started = hung == 0;
    std::vector<std::vector<uint32_t>> views(processes);  // per variable: now, last seen, count, last written
    for (int i = 0; started && i < processes; ++i) kids[i].send("go " + std::to_string(seconds * 1000L));
    for (int i = 0; started && i < processes; ++i) {
        long w = 0, f = 0, x = 0;
        if (!kids[i].receive(line, std::chrono::seconds(seconds + 60)) ||
            std::sscanf(line.c_str(), "done %ld %ld %ld", &w, &f, &x) != 3)
            failure(i, "did not finish writing");
        writes += w, failed += f, wrong += x;
    }
    for (int i = 0; started && i < processes; ++i)
        if (kids[i].alive()) kids[i].send("settle 20000");
    for (int i = 0; started && i < processes; ++i) {
        if (!kids[i].alive()) continue;
        if (!kids[i].receive(line, std::chrono::seconds(60)) || line.rfind("view", 0) != 0) failure(i, "did not report its view");
        std::istringstream in(line.substr(std::min<size_t>(line.size(), 4)));
        for (unsigned long x; in >> x;) views[i].push_back(static_cast<uint32_t>(x));
        wrong += views[i].size() != 4 * g_vars.size();
    }

    // Compare every view with the files.
    for (size_t k = 0; started && k < g_vars.size(); ++k) {
        const Var& v = g_vars[k];
        uint32_t inFile = 0xFFFFFFFFu;
        wrong += !fileValue(v, inFile);
        bool someoneWroteIt = false, isSomeLastWrite = false;
        for (int i = 0; i < processes; ++i) {
            if (views[i].size() != 4 * g_vars.size()) continue;
            const uint32_t* e = &views[i][4 * k];
            notifications += e[2];
            if (e[0] != inFile || e[1] != inFile)
                std::fprintf(stderr, "stress: process %d reads %u and was last told %u for variable %d, the file holds %u\n",
                             i, e[0], e[1], v.id, inFile);
            wrong += e[0] != inFile, lost += e[1] != inFile;
            someoneWroteIt |= e[3] != 0, isSomeLastWrite |= e[3] == inFile;
        }
        if (someoneWroteIt && !isSomeLastWrite) {
            std::fprintf(stderr, "stress: variable %d holds %u, which is no writer's last value\n", v.id, inFile);
            ++wrong;
        }
    }
    for (auto& k : kids)
        if (k.alive()) k.send("exit");
    for (int i = 0; i < processes; ++i) {
        const int status = kids[i].finish(std::chrono::seconds(30));
        if (status == 0 || status == ChildLink::kKilled) continue;
        std::fprintf(stderr, "stress: process %d %s %d\n", i, status == ChildLink::kHung ? "hung at exit" : status > 0 ? "ended with status" : "ended by signal", status > 0 ? status : -status);
        ++(status == ChildLink::kHung ? hung : crashed);
    }
    std::printf("stress: %d processes, %d s, %zu variables in %zu files: writes %ld, failed writes %ld, "
                "notifications %ld, lost %ld, wrong %ld, crashed %d, hung %d\n",
                processes, seconds, g_vars.size(), std::size(kFiles), writes, failed, notifications, lost, wrong,
                crashed, hung);
    const bool good = writes > 0 && failed == 0 && lost == 0 && wrong == 0 && crashed == 0 && hung == 0;
    if (good) cmcheck::removeRoot(root);
    else std::printf("stress: FAILED; process logs kept under %s\n", root.c_str());
    return good ? 0 : 1;
}
