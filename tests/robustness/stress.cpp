// Multi-process stress run: one master and N-1 other processes write their
// own variables and a few shared ones across several data files while every
// process watches all of them.  At the end every process must read what the
// files hold, every watcher's last callback must have seen each variable's
// final value, and no process may crash or hang.
//
//   cm_stress [seconds [processes]]      (defaults: 20 s, 8 processes)
//
// Values are never repeated (writer number and a per-writer sequence), so a
// callback that read a value other than the final one can only mean a lost
// change.  Prints its figures and exits 1 on any failed write, loss,
// mismatch, crash or hang.
#include <configmanager/configmanager.h>
#include <configmanager/cm_host.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "storage/file_state.h"
#include "robustness/child_link.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmcheck::ChildLink;

struct Var {
    int32_t id, file, rel;
    uint32_t type;
    int owner;  // writing process, or -1 when every process writes it
};

// Watched files and how many variables of each are shared (at most; fewer
// when the file has too few numbers).  Each process owns one variable in
// every watched file.
constexpr int kFiles[] = {0, 3, 5, 9};
constexpr int kSharedPerFile = 2;

std::vector<Var> g_vars;
int g_varIndex[4096];
std::atomic<uint32_t> g_lastSeen[256];
std::atomic<uint32_t> g_notified[256];

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
        std::vector<Var> pool = dwords;
        pool.insert(pool.end(), words.begin(), words.end());
        const int shared = std::min(kSharedPerFile, static_cast<int>(pool.size()) - processes);
        if (shared < 1) {
            std::fprintf(stderr, "stress: file %d has only %zu number variables\n", file, pool.size());
            return false;
        }
        for (int k = 0; k < shared + processes; ++k) {
            Var v = pool[k];
            v.owner = k < shared ? -1 : k - shared;
            g_varIndex[v.id] = static_cast<int>(g_vars.size());
            g_vars.push_back(v);
        }
    }
    return true;
}

// Unique per (writer, sequence); 0 when the type has no room left.
uint32_t encode(const Var& v, int writer, uint32_t seq) {
    if (v.type == DT_DWORD) return seq < (1u << 24) ? (static_cast<uint32_t>(writer) << 24) | seq : 0;
    return seq < (1u << 13) ? (static_cast<uint32_t>(writer) << 13) | seq : 0;
}

bool readVar(const Var& v, uint32_t& out) {
    uint32_t dw = 0;
    uint16_t w = 0;
    void* buf = v.type == DT_DWORD ? static_cast<void*>(&dw) : static_cast<void*>(&w);
    if (CM_GetDataItem(v.id, buf) != 0) return false;
    out = v.type == DT_DWORD ? dw : w;
    return true;
}

int onChange(int32_t id) {
    if (id < 0 || id >= 4096 || g_varIndex[id] < 0) return 0;
    const int k = g_varIndex[id];
    uint32_t value = 0;
    if (readVar(g_vars[k], value)) g_lastSeen[k].store(value);
    g_notified[k].fetch_add(1);
    return 0;
}

// ---- one library user ------------------------------------------------------

[[noreturn]] void runChild(ChildLink& link, int me, const std::string& root) {
    CM_Host_SetRootDirectory(root.c_str());
    __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);  // messages to stdout, which is this process's log file
    if (CM_init(me == 0 ? 1 : 0) != 0) _exit(3);
    for (const Var& v : g_vars)
        if (CM_Register_Interest(v.id, onChange) != 0) _exit(4);
    link.send("ready");

    std::string cmd;
    if (!link.receive(cmd, std::chrono::minutes(5)) || cmd.rfind("go ", 0) != 0) _exit(5);
    const auto end = Clock::now() + std::chrono::milliseconds(std::stol(cmd.substr(3)));
    std::vector<uint32_t> seq(g_vars.size(), 0), lastWritten(g_vars.size(), 0);
    std::vector<size_t> mine;
    for (size_t k = 0; k < g_vars.size(); ++k)
        if (g_vars[k].owner == -1 || g_vars[k].owner == me) mine.push_back(k);
    std::mt19937 rng(static_cast<unsigned>(me * 7919 + getpid()));
    long writes = 0, failed = 0, wrong = 0;
    while (Clock::now() < end) {
        const size_t k = mine[rng() % mine.size()];
        const Var& v = g_vars[k];
        const uint32_t value = encode(v, me, ++seq[k]);
        if (value == 0) continue;
        const uint16_t narrow = static_cast<uint16_t>(value);
        const void* buf = v.type == DT_DWORD ? static_cast<const void*>(&value) : static_cast<const void*>(&narrow);
        const int rc = CM_WriteDataItem(v.file, v.rel, buf, 1);
        if (rc < 0) {
            ++failed;
            continue;
        }
        ++writes;
        lastWritten[k] = value;
        uint32_t back = 0;
        if (v.owner == me && (!readVar(v, back) || back != value)) ++wrong;
    }
    link.send("done " + std::to_string(writes) + " " + std::to_string(failed) + " " + std::to_string(wrong));

    if (!link.receive(cmd, std::chrono::minutes(5)) || cmd.rfind("settle ", 0) != 0) _exit(6);
    // Waits until this process's callbacks have caught up with what it reads.
    const auto settleEnd = Clock::now() + std::chrono::milliseconds(std::stol(cmd.substr(7)));
    std::vector<uint32_t> now(g_vars.size(), 0);
    for (;;) {
        bool caughtUp = true;
        for (size_t k = 0; k < g_vars.size(); ++k) {
            if (!readVar(g_vars[k], now[k])) now[k] = 0xFFFFFFFFu;
            if (now[k] != g_lastSeen[k].load()) caughtUp = false;
        }
        if (caughtUp || Clock::now() > settleEnd) break;
        usleep(20000);
    }
    std::ostringstream view;
    view << "view";
    for (size_t k = 0; k < g_vars.size(); ++k)
        view << ' ' << now[k] << ':' << g_lastSeen[k].load() << ':' << g_notified[k].load() << ':' << lastWritten[k];
    link.send(view.str());

    if (!link.receive(cmd, std::chrono::minutes(1)) || cmd != "exit") _exit(7);
    CM_Exit();
    std::fflush(stdout);
    _exit(0);
}

// ---- the controller ----------------------------------------------------------

// The value of a record as the file holds it (big-endian), walking the
// records from the header on.
bool fileValue(const std::string& root, const Var& v, uint32_t& out) {
    (void)root;
    const std::string path = cm::storage::pathOf(v.file);
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    std::vector<unsigned char> bytes;
    unsigned char chunk[65536];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
    size_t off = 4;
    for (int r = 0; off + 4 <= bytes.size(); ++r) {
        const unsigned len = (bytes[off + 2] << 8) | bytes[off + 3];
        if (r == v.rel) {
            if (off + 4 + len > bytes.size()) return false;
            out = 0;
            for (unsigned b = 0; b < len; ++b) out = (out << 8) | bytes[off + 4 + b];
            return true;
        }
        off += 4 + len;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 20;
    const int processes = argc > 2 ? std::atoi(argv[2]) : 8;
    if (seconds <= 0 || processes < 2 || processes > 64) {
        std::fprintf(stderr, "usage: %s [seconds [processes (2..64)]]\n", argv[0]);
        return 2;
    }
    if (!chooseVariables(processes)) return 2;
    const std::string root = cmcheck::makeRoot("cmstress");
    if (root.empty()) return 2;
    cm::paths::setRoot(root);  // this process only reads the files; it never starts the library

    std::vector<ChildLink> kids(processes);
    auto start = [&](int i) {
        const std::string log = root + "/process-" + std::to_string(i) + ".log";
        if (!kids[i].spawn([&] { runChild(kids[i], i, root); }, log)) {
            std::fprintf(stderr, "stress: fork failed\n");
            std::exit(2);
        }
    };
    // The master first, as on the device: it creates the files the others wait for.
    start(0);
    std::string line;
    bool ok = kids[0].receive(line, std::chrono::seconds(120)) && line == "ready";
    for (int i = 1; ok && i < processes; ++i) start(i);
    for (int i = 1; ok && i < processes; ++i) ok = kids[i].receive(line, std::chrono::seconds(120)) && line == "ready";
    int hung = 0;
    if (!ok) {
        std::fprintf(stderr, "stress: a process did not start\n");
        ++hung;
    }

    long writes = 0, failed = 0, wrong = 0, lost = 0, notifications = 0;
    std::vector<std::vector<uint32_t>> views(processes);  // per process: now, last, count, lastWritten per var
    if (ok) {
        for (auto& k : kids) k.send("go " + std::to_string(seconds * 1000L));
        for (int i = 0; i < processes; ++i) {
            long w = 0, f = 0, x = 0;
            if (!kids[i].receive(line, std::chrono::seconds(seconds + 60)) ||
                std::sscanf(line.c_str(), "done %ld %ld %ld", &w, &f, &x) != 3) {
                std::fprintf(stderr, "stress: process %d did not finish writing\n", i);
                kids[i].kill();
                ++hung;
                continue;
            }
            writes += w, failed += f, wrong += x;
        }
        for (auto& k : kids) k.send("settle 20000");
        for (int i = 0; i < processes; ++i) {
            if (!kids[i].alive()) continue;
            if (!kids[i].receive(line, std::chrono::seconds(60)) || line.rfind("view", 0) != 0) {
                std::fprintf(stderr, "stress: process %d did not report its view\n", i);
                kids[i].kill();
                ++hung;
                continue;
            }
            std::istringstream in(line.substr(4));
            for (std::string item; in >> item;) {
                unsigned long a, b, c, d;
                if (std::sscanf(item.c_str(), "%lu:%lu:%lu:%lu", &a, &b, &c, &d) == 4)
                    views[i].insert(views[i].end(), {uint32_t(a), uint32_t(b), uint32_t(c), uint32_t(d)});
            }
        }
    }

    // Compare every view with the files.
    for (size_t k = 0; ok && k < g_vars.size(); ++k) {
        const Var& v = g_vars[k];
        uint32_t inFile = 0;
        if (!fileValue(root, v, inFile)) {
            std::fprintf(stderr, "stress: record of variable %d unreadable in its file\n", v.id);
            ++wrong;
            continue;
        }
        bool someoneWroteIt = false, isSomeLastWrite = false;
        for (int i = 0; i < processes; ++i) {
            if (views[i].size() != 4 * g_vars.size()) continue;
            const uint32_t* e = &views[i][4 * k];
            notifications += e[2];
            if (e[0] != inFile) {
                std::fprintf(stderr, "stress: process %d reads %u for variable %d, the file holds %u\n", i, e[0], v.id, inFile);
                ++wrong;
            }
            if (e[1] != inFile) {
                std::fprintf(stderr, "stress: process %d was last told %u for variable %d, the file holds %u\n", i, e[1],
                             v.id, inFile);
                ++lost;
            }
            if (e[3] != 0) someoneWroteIt = true;
            if (e[3] == inFile) isSomeLastWrite = true;
        }
        if (someoneWroteIt && !isSomeLastWrite) {
            std::fprintf(stderr, "stress: variable %d holds %u, which is no writer's last value\n", v.id, inFile);
            ++wrong;
        }
    }
    for (int i = 0; i < processes; ++i)
        if (static_cast<int>(views[i].size()) != 4 * static_cast<int>(g_vars.size()) && ok) ++wrong;

    for (auto& k : kids)
        if (k.alive()) k.send("exit");
    int crashed = 0;
    for (int i = 0; i < processes; ++i) {
        const int status = kids[i].finish(std::chrono::seconds(30));
        if (status == ChildLink::kHung) {
            std::fprintf(stderr, "stress: process %d hung at exit\n", i);
            ++hung;
        } else if (status != 0 && status != ChildLink::kKilled) {
            std::fprintf(stderr, "stress: process %d ended with %s %d\n", i, status > 0 ? "status" : "signal",
                         status > 0 ? status : -status);
            ++crashed;
        }
    }

    std::printf("stress: %d processes, %d s, %zu variables in %zu files: writes %ld, failed writes %ld, "
                "notifications %ld, lost %ld, wrong %ld, crashed %d, hung %d\n",
                processes, seconds, g_vars.size(), std::size(kFiles), writes, failed, notifications, lost, wrong,
                crashed, hung);
    const bool good = writes > 0 && failed == 0 && lost == 0 && wrong == 0 && crashed == 0 && hung == 0;
    if (good)
        cmcheck::removeRoot(root);
    else
        std::printf("stress: FAILED; process logs kept under %s\n", root.c_str());
    return good ? 0 : 1;
}
