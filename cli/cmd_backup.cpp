// backup FILE|-, restore FILE [--filter FILE], diff FILE.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include <configmanager/configmanager.h>

#include "commands.h"
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
    Library lib(Start::Reader);
    const bool toStdout = g_backup.file == "-";
    TempFile tmp;
    const std::string& path = toStdout ? tmp.path : g_backup.file;
    if (CM_BackupConfig_common(path.c_str(), g_backup.includeVolatile ? 1 : 0, g_backup.octets ? 1 : 0) != 0)
        throw Failure("backup to '" + g_backup.file + "' failed");
    if (toStdout) std::cout << std::ifstream(path).rdbuf() << std::flush;
}

void restore() {
    applyGlobalOptions();
    Library lib(Start::Reader);
    TempFile tmp;
    std::string path = g_restore.file;
    if (path == "-") {
        std::ofstream(tmp.path) << std::cin.rdbuf();
        path = tmp.path;
    } else if (access(path.c_str(), R_OK) != 0) {
        throw Failure("cannot read '" + path + "'");
    }
    const int rc = CM_RestoreConfig(path.c_str(), g_restore.filter.empty() ? nullptr : g_restore.filter.c_str());
    if (rc != 0)
        throw Failure("restore from '" + g_restore.file + "' " +
                      (rc == 1 ? "had errors (not a backup, or some values were refused; -v shows which)"
                               : "failed"));
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

void diff() {
    applyGlobalOptions();
    std::ifstream in(g_diffFile);
    if (!in) throw Failure("cannot read '" + g_diffFile + "'");
    Library lib(Start::Reader);
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
    b->add_flag("--octets", g_backup.octets, "Include octet strings and (enciphered) passwords; restore writes octet strings back as the text it reads, so leave them out of a backup meant for restoring");
    b->callback(backup);

    auto* r = app.add_subcommand("restore", "Set every variable named in a backup file to the value it holds");
    r->add_option("FILE", g_restore.file, "Backup file ('-' for standard input)")->required();
    r->add_option("--filter", g_restore.filter, "File of name prefixes, one per line, whose variables are left alone")
        ->type_name("FILE");
    r->callback(restore);

    auto* d = app.add_subcommand(
        "diff", "Show the variables whose running values differ from a backup file (exit status 1 when any does)");
    d->add_option("FILE", g_diffFile, "Backup file")->required();
    d->callback(diff);
}

}  // namespace cmctl
