// backup FILE|-, restore FILE [--filter FILE], diff FILE.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "checked_write.h"
#include "context.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

struct {
    std::string file;
    bool includeVolatile = false;
    bool octets = false;
} g_backup;

struct {
    std::string file, filter;
    bool dryRun = false;
    bool force = false;
} g_restore;

std::string g_diffFile;

// A private temporary file, removed when the object goes.
struct TempFile {
    std::string path;
    TempFile() {
        const char* dir = std::getenv("TMPDIR");
        std::string tmpl = std::string(dir && *dir ? dir : "/tmp") + "/cmctl.XXXXXX";
        const int fd = mkstemp(tmpl.data());
        if (fd < 0) throw Failure("cannot create a temporary file in " + tmpl);
        close(fd);
        path = tmpl;
    }
    ~TempFile() { unlink(path.c_str()); }
};

void backup() {
    applyGlobalOptions();
    Library lib(Start::ReadOnly);
    const bool toStdout = g_backup.file == "-";
    TempFile tmp;
    const std::string& path = toStdout ? tmp.path : g_backup.file;
    if (CM_BackupConfig_common(path.c_str(), g_backup.includeVolatile ? 1 : 0, g_backup.octets ? 1 : 0) != 0)
        throw Failure("backup to '" + g_backup.file + "' failed");
    if (toStdout) std::cout << std::ifstream(path).rdbuf() << std::flush;
}

// Splits a backup line "TAG : VALUE" ("NULL" stands for an empty value).
bool splitLine(const std::string& line, std::string& tag, std::string& value) {
    const size_t sep = line.find(" : ");
    if (sep == std::string::npos) return false;
    tag = line.substr(0, sep);
    value = line.substr(sep + 3);
    if (!value.empty() && value.back() == '\r') value.pop_back();
    if (value == "NULL") value.clear();
    return true;
}

// The filter file: one name prefix per line, names shorter than two
// characters ignored, at most 50 kept (as the library reads it).
std::vector<std::string> readFilter(const std::string& path) {
    std::istringstream in(readInput(path));
    std::vector<std::string> names;
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() < 2) continue;
        if (names.size() == 50) {
            std::cerr << "cmctl: " << path << ": more than 50 names, '" << line << "' onwards ignored\n";
            break;
        }
        names.push_back(line);
    }
    return names;
}

// The text a backup line gives a variable: "NULL" is empty, and "&amp;" in
// a text stands for "&".
std::string backupText(const VarInfo& v, std::string value) {
    if (v.type != DT_STRING) return value;
    for (size_t p = value.find("&amp;"); p != std::string::npos; p = value.find("&amp;", p + 1)) value.erase(p + 1, 4);
    return value;
}

void restore() {
    applyGlobalOptions();
    const std::string source = g_restore.file == "-" ? "<stdin>" : g_restore.file;
    const std::vector<std::string> filter = g_restore.filter.empty() ? std::vector<std::string>{}
                                                                     : readFilter(g_restore.filter);
    std::istringstream in(readInput(g_restore.file));
    WritePlan plan(source, "line");
    std::string line, tag, value;
    size_t n = 0;
    while (std::getline(in, line)) {
        ++n;
        const bool split = splitLine(line, tag, value);
        if (n == 1) {
            if (!split || tag != "SOFTWARE_VERSION") throw Failure("'" + source + "' is not a backup (no SOFTWARE_VERSION line)");
            continue;
        }
        if (!split) {
            if (line.find_first_not_of(" \t\r") != std::string::npos) plan.refuse(n, "not 'NAME : VALUE'");
            continue;
        }
        if (std::any_of(filter.begin(), filter.end(), [&](const std::string& f) { return tag.rfind(f, 0) == 0; }))
            continue;
        const VarInfo* v = findVar(tag);
        if (v == nullptr) {
            // A newer software's variable: left out, as the library does.
            std::cerr << "cmctl: " << source << ":" << n << ": " << unknownVariable(tag) << "; skipped\n";
            continue;
        }
        plan.add(n, *v, backupText(*v, value));
    }
    if (n == 0) throw Failure("'" + source + "' is not a backup (empty)");
    plan.requireClean();
    if (g_restore.dryRun) {
        std::cerr << "cmctl: " << plan.size() << " values checked; nothing written (--dry-run)\n";
        return;
    }
    Library lib(Start::Writer);
    plan.apply(g_restore.force);
}

void diff() {
    setFailureStatus(kExitUsage);
    applyGlobalOptions();
    std::ifstream in(g_diffFile);
    if (!in) throw Failure("cannot read '" + g_diffFile + "'");
    Library lib(Start::ReadOnly);
    Json out = Json::array();
    std::string line, tag, value;
    size_t differences = 0;
    bool first = true;
    while (std::getline(in, line)) {
        if (!splitLine(line, tag, value)) continue;
        if (first) {
            first = false;
            if (tag != "SOFTWARE_VERSION") throw Failure("'" + g_diffFile + "' is not a backup (no SOFTWARE_VERSION line)");
            continue;  // the version line says which software wrote the backup
        }
        int32_t id = -1;
        std::string current;
        bool known = CM_GetVarIdFromName(tag.data(), static_cast<int>(tag.size()), &id) == 0;
        if (known) {
            const VarInfo v = varInfo(id);
            current = formatValue(v, readValue(v), PasswordForm::Stored);
            if (current == value) continue;
        }
        ++differences;
        if (options().json)
            out.push_back({{"name", tag}, {"backup", value}, {"running", known ? Json(current) : Json()}});
        else if (!known)
            std::cout << tag << ": not a variable of this software (backup: " << value << ")\n";
        else
            std::cout << tag << ": running " << current << ", backup " << value << "\n";
    }
    if (first) throw Failure("'" + g_diffFile + "' is not a backup (empty)");
    if (options().json) printJson(out);
    setExitStatus(differences == 0 ? kExitOk : kExitFailed);
}

}  // namespace

void addBackupCommands(CLI::App& app) {
    auto* b = app.add_subcommand("backup", "Write the configuration to a text file, one 'NAME : VALUE' line per variable");
    b->add_option("FILE", g_backup.file, "File to write ('-' for standard output)")->required();
    b->add_flag("--volatile", g_backup.includeVolatile, "Include the volatile (run-time) variables");
    b->add_flag("--octets", g_backup.octets, "Include octet strings and (enciphered) passwords");
    b->callback(backup);

    auto* r = app.add_subcommand("restore", "Check every line of a backup file, then set each variable named in it to "
                                            "its value (nothing at all if any line is bad)");
    r->add_option("FILE", g_restore.file, "Backup file ('-' for standard input)")->required();
    r->add_option("--filter", g_restore.filter, "File of name prefixes, one per line, whose variables are left alone (must be readable)")
        ->type_name("FILE");
    r->add_flag("--dry-run", g_restore.dryRun, "Only check the file");
    r->add_flag("--force", g_restore.force, "Write also during a profile download");
    r->callback(restore);

    auto* d = app.add_subcommand(
        "diff", "Show the variables whose running values differ from a backup file (exit status 1 when any does)");
    d->add_option("FILE", g_diffFile, "Backup file")->required();
    d->callback(diff);
}

}  // namespace cmctl
