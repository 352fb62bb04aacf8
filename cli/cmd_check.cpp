// check: reads the ten data files and reports, without starting the
// library, what is wrong with each; check --repair starts as the master,
// which repairs, and says what it did.  master: the master process of a
// device tree on a host.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>

#include <algorithm>
#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

bool g_repair = false;
bool g_yes = false;
constexpr int kMaxFaultsShown = 20;

struct FileReport {
    CM_FileInfo info{};
    CM_FileCheck check{};
    std::vector<CM_RecordFault> faults;
};

FileReport checkOne(int i) {
    FileReport r;
    CM_Ext_GetFileInfo(i, &r.info);
    r.faults.resize(kMaxFaultsShown);
    CM_Ext_CheckFile(i, &r.check, r.faults.data(), kMaxFaultsShown);
    r.faults.resize(std::min(r.check.iBadRecords, kMaxFaultsShown));
    return r;
}

std::string verdict(const FileReport& r) {
    const uint32_t f = r.check.dwFaults;
    if (f == 0) return "good";
    if (f & CM_FILE_MISSING) return "missing";
    if (f & CM_FILE_UNREADABLE) return "unreadable";
    std::string s;
    auto add = [&](const std::string& part) { s += (s.empty() ? "" : ", ") + part; };
    if (f & CM_FILE_BAD_HEADER)
        add(r.check.dwLength < 4 ? "no header"
                                 : "version " + std::to_string(r.check.dwVersionFound) + " (expected " +
                                       std::to_string(r.info.wVersion) + ")");
    if (f & CM_FILE_TOO_SHORT)
        add("too short: " + std::to_string(r.check.dwLength) + " bytes, expected " +
            std::to_string(r.check.dwCorrectLength) + "; records from " + std::to_string(r.check.iRecordsPresent) +
            " on missing");
    if (f & CM_FILE_TOO_LONG)
        add("too long: " + std::to_string(r.check.dwLength - r.check.dwCorrectLength) + " extra bytes");
    if (f & CM_FILE_BAD_RECORDS) add(std::to_string(r.check.iBadRecords) + " bad record(s)");
    return s;
}

Json toJson(int i, const FileReport& r) {
    Json bad = Json::array();
    for (const CM_RecordFault& x : r.faults)
        bad.push_back({{"offset", x.dwOffset},
                       {"expected_relative_id", x.iExpectedRel},
                       {"found_relative_id", x.iFoundRel},
                       {"expected_length", x.dwExpectedLen},
                       {"found_length", x.dwFoundLen}});
    const uint32_t f = r.check.dwFaults;
    return {{"index", i},
            {"file", r.info.szPath},
            {"good", f == 0},
            {"missing", (f & CM_FILE_MISSING) != 0},
            {"unreadable", (f & CM_FILE_UNREADABLE) != 0},
            {"bad_header", (f & CM_FILE_BAD_HEADER) != 0},
            {"too_short", (f & CM_FILE_TOO_SHORT) != 0},
            {"too_long", (f & CM_FILE_TOO_LONG) != 0},
            {"length", r.check.dwLength},
            {"expected_length", r.check.dwCorrectLength},
            {"bad_record_count", r.check.iBadRecords},
            {"bad_records", bad},
            {"summary", verdict(r)}};
}

// Checks all ten files, prints the report; true when all are good.
bool report(const std::vector<FileReport>& reports, Json* jsonOut) {
    bool allGood = true;
    for (int i = 0; i < CM_NUM_FILES; ++i) {
        const FileReport& r = reports[i];
        allGood = allGood && r.check.dwFaults == 0;
        if (jsonOut != nullptr) {
            jsonOut->push_back(toJson(i, r));
            continue;
        }
        std::cout << r.info.szPath << ": " << verdict(r) << "\n";
        for (const CM_RecordFault& x : r.faults)
            std::cout << "  record at offset " << x.dwOffset << ": relative ID " << x.iFoundRel << " (expected "
                      << x.iExpectedRel << "), length " << x.dwFoundLen << " (expected " << x.dwExpectedLen << ")\n";
        if (r.check.iBadRecords > static_cast<int>(r.faults.size()))
            std::cout << "  ... and " << r.check.iBadRecords - static_cast<int>(r.faults.size()) << " more\n";
    }
    return allGood;
}

// Numbers outside their bounds in the files that are sound enough to read;
// true when there is none.
bool reportOutOfBounds(const std::vector<FileReport>& reports, Json* jsonOut) {
    bool readable = false;
    for (const FileReport& r : reports) readable = readable || (r.check.dwFaults & CM_FILE_MISSING) == 0;
    if (!readable) return true;
    Library lib(Start::ReadOnly);
    bool none = true;
    for (const VarInfo& v : allVars()) {
        if (v.type > DT_DWORD || reports[v.fileIndex].check.dwFaults != 0) continue;
        ValueBuffer b;
        if (CM_Get_Variable(v.id, b.data()) != 0) continue;
        const uint32_t n = std::stoul(formatValue(v, b));
        if ((n >= v.min && n <= v.max) || formatValue(v, readDefault(v)) == std::to_string(n)) continue;
        none = false;
        if (jsonOut != nullptr)
            jsonOut->push_back({{"name", v.name}, {"value", n}, {"min", v.min}, {"max", v.max}});
        else
            std::cout << v.name << ": " << n << " is outside its bounds " << v.min << ".." << v.max << "\n";
    }
    return none;
}

std::vector<FileReport> checkAll() {
    std::vector<FileReport> out;
    for (int i = 0; i < CM_NUM_FILES; ++i) out.push_back(checkOne(i));
    return out;
}

void check() {
    applyGlobalOptions();
    const auto before = checkAll();
    Json doc = Json::object();
    Json files = Json::array();
    const bool json = options().json;
    if (!g_repair) {
        bool good = report(before, json ? &files : nullptr);
        Json bounds = Json::array();
        good = reportOutOfBounds(before, json ? &bounds : nullptr) && good;
        if (json) printJson({{"good", good}, {"files", files}, {"out_of_bounds", bounds}});
        setExitStatus(good ? kExitOk : kExitFailed);
        return;
    }
    // Creating a missing file or cutting extra bytes off loses nothing; a
    // rewrite from defaults replaces every value of the file.
    const auto rewritten = [](const FileReport& r) {
        return (r.check.dwFaults & ~static_cast<uint32_t>(CM_FILE_MISSING | CM_FILE_TOO_LONG)) != 0;
    };
    if (std::any_of(before.begin(), before.end(), rewritten))
        requireConfirmation("The master rewrites each damaged file from defaults (a copy is kept as NAME.damaged).",
                            g_yes);
    // The master's set-up cuts extra bytes off and rewrites a damaged, short
    // or missing file from defaults.
    { Library lib(Start::Master); }
    const auto after = checkAll();
    Json actions = Json::array();
    for (int i = 0; i < CM_NUM_FILES; ++i) {
        if (before[i].check.dwFaults == 0) continue;
        const uint32_t f = before[i].check.dwFaults;
        std::string did = f & CM_FILE_MISSING ? "created from defaults"
                          : f == CM_FILE_TOO_LONG ? "extra bytes removed"
                                                  : "rewritten from defaults (every variable of the file)";
        if (after[i].check.dwFaults != 0) did = "NOT repaired: " + verdict(after[i]);
        if (json)
            actions.push_back({{"file", before[i].info.szPath}, {"was", verdict(before[i])}, {"action", did}});
        else
            std::cout << before[i].info.szPath << ": was " << verdict(before[i]) << "; " << did << "\n";
    }
    const bool good = report(after, json ? &files : nullptr);
    if (json) printJson({{"good", good}, {"repaired", actions}, {"files", files}});
    setExitStatus(good ? kExitOk : kExitFailed);
}

// One master per tree: an exclusive lock on the folder of the persistent
// files, held until the process ends (no file is made, and a master that
// died leaves no stale lock behind).
void lockTreeForMaster() {
    CM_FileInfo f{};
    CM_Ext_GetFileInfo(1, &f);
    std::string dir = f.szPath;
    dir.resize(dir.rfind('/') + 1);
    makeDataFolders();
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw Failure("cannot open '" + dir + "'");
    if (flock(fd, LOCK_EX | LOCK_NB) != 0)
        throw Failure("another master is already running under " + options().root);
}

void master() {
    applyGlobalOptions();
    lockTreeForMaster();
    blockStopSignals();
    Library lib(Start::Master);
    std::fprintf(stderr, "cmctl: master running under %s; Ctrl-C ends\n", options().root.c_str());
    waitForStop();
}

}  // namespace

void addCheckCommands(CLI::App& app) {
    auto* cmd = app.add_subcommand(
        "check", "Check the ten data files without changing them (exit status 0 only when all are good)");
    cmd->add_flag("--repair", g_repair,
                  "Start as the master, which cuts extra bytes off and rewrites damaged files from defaults "
                  "(keeping a copy of each as NAME.damaged for 'cmctl salvage'); asks first");
    cmd->add_flag("-y,--yes", g_yes, "Repair without asking (needed when there is no terminal to ask on)");
    cmd->callback(check);

    auto* m = app.add_subcommand(
        "master", "Run as the master process of a device tree (creates and repairs the data files) until interrupted");
    m->callback(master);
}

}  // namespace cmctl
