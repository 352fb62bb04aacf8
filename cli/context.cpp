#include "context.h"
#include "vars.h"

#include <signal.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <configmanager/configmanager.h>
#include <configmanager/cm_host.h>
#include <configmanager/cm_tools.h>

namespace cmctl {

Options& options() {
    static Options o;
    return o;
}

void applyGlobalOptions() {
    const Options& o = options();
    // The library takes only absolute roots; a relative one is taken from
    // here.  One that leads up to "/" is passed with its ".." kept, so that
    // the library refuses it as the device's own root in disguise, as it
    // refuses "/tmp/..", instead of it being taken for the device.
    std::string root = o.root;
    if (!root.empty() && root[0] != '/') {
        const std::filesystem::path absolute = std::filesystem::absolute(root);
        const std::filesystem::path normal = absolute.lexically_normal();
        root = (normal.relative_path().empty() ? absolute : normal).string();
    }
    if (CM_Host_SetRootDirectory(root.c_str()) != 0)
        throw UsageError("--root: too long, or the device's own root in disguise: " + o.root);
    if (o.verbose > 0) {
        // The library's own messages, in their short form, on standard error.
        g_iConsoleLog = 1;
        CM_Ext_SetLogDescriptor(2);
        Applog_default(o.verbose > 1 ? 7 : 6);
    } else {
        // Standard output belongs to the tool; the library keeps its usual
        // channel, the system log.
        g_iConsoleLog = 0;
    }
}

namespace {

// Every file (a writer), or at least one (a reader, which reads what is
// there and names what is not).
void requireDataFiles(bool every = true) {
    std::string missing;
    for (int i = 0; i < CM_NUM_FILES; ++i) {
        CM_FileInfo f{};
        CM_Ext_GetFileInfo(i, &f);
        struct stat st{};
        if (stat(f.szPath, &st) != 0 || st.st_size == 0) {
            missing = f.szPath;
            if (every) break;
        } else if (!every) {
            return;
        } else if (access(f.szPath, R_OK | W_OK) != 0) {
            throw Failure(std::string("no write access to '") + f.szPath + "': " + std::strerror(errno));
        }
    }
    if (!missing.empty())
        throw Failure("data file '" + missing +
                      "' is missing or empty: no master has set up this tree (run 'cmctl master', or add --master)");
}

}  // namespace

// The master creates missing files, but not their folders: make those in a
// fresh device tree on a host (on the device they always exist).
void makeDataFolders() {
    for (int i = 0; i < CM_NUM_FILES; ++i) {
        CM_FileInfo f{};
        CM_Ext_GetFileInfo(i, &f);
        std::string dir = f.szPath;
        dir.resize(dir.rfind('/') + 1);
        for (size_t p = dir.find('/', 1); p != std::string::npos; p = dir.find('/', p + 1))
            mkdir(dir.substr(0, p).c_str(), 0755);
    }
}

Library::Library(Start how) {
    if (options().master) how = how == Start::Watcher || how == Start::ReadOnlyWatcher ? Start::Watcher : Start::Master;
    int rc = 0;
    switch (how) {
        case Start::ReadOnly:
            // Needs no write access; a missing or damaged file costs only
            // the reads of its own variables.
            requireDataFiles(false);
            rc = CM_Ext_InitReadOnly(0);
            break;
        case Start::ReadOnlyWatcher:
            requireDataFiles(false);
            rc = CM_Ext_InitReadOnly(1);
            break;
        case Start::Writer:
            requireDataFiles();
            rc = CM_initNoRegister();
            break;
        case Start::Watcher:
            if (options().master) {
                makeDataFolders();
                rc = CM_init(1);
            } else {
                requireDataFiles();
                rc = CM_init(0);
            }
            break;
        case Start::Master:
            // Only the full start creates and repairs files.
            makeDataFolders();
            rc = CM_init(1);
            break;
    }
    if (rc != 0) throw Failure("cannot start the configuration manager (result " + std::to_string(rc) + ")");
}

Library::~Library() { CM_Exit(); }

namespace {

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, sig);
    return set;
}

}  // namespace

void blockStopSignals() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, SIG_DFL);
}

void waitForStop() {
    const sigset_t set = stopSignals();
    int sig = 0;
    sigwait(&set, &sig);
}

void requireConfirmation(const std::string& what, bool yes) {
    if (yes) return;
    if (!isatty(0) || !isatty(2)) throw Failure(what + " Not confirmed (no terminal to ask on): add -y to go ahead");
    std::cerr << what << " Continue? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") throw Failure("not confirmed; nothing changed");
}

std::string readInput(const std::string& path) {
    std::ostringstream s;
    if (path == "-") {
        s << std::cin.rdbuf();
        return s.str();
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure("cannot read '" + path + "'");
    s << in.rdbuf();
    if (in.bad()) throw Failure("cannot read '" + path + "'");
    return s.str();
}

namespace {
int g_failureStatus = kExitFailed;
}

void setFailureStatus(int status) { g_failureStatus = status; }
int failureStatus() { return g_failureStatus; }

int32_t idOf(const std::string& name) {
    int32_t id = -1;
    if (name.empty() || CM_GetVarIdFromName(name.data(), static_cast<int>(name.size()), &id) != 0)
        throw Failure(unknownVariable(name));
    return id;
}

}  // namespace cmctl
