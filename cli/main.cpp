// cmctl: read, change, watch, back up, restore, reset and check the
// configuration of the gateway from a shell.
#include <cstdio>
#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"

namespace cmctl {
namespace {

int g_exitStatus = kExitOk;

std::string versionText() {
    return "cmctl " + std::to_string(CM_VERSION_MAJOR) + "." + std::to_string(CM_VERSION_MINOR) + "." +
           std::to_string(CM_VERSION_PATCH) + "." + std::to_string(CM_VERSION_BUILD);
}

}  // namespace

void printJson(const Json& doc) { std::cout << doc.dump(2) << std::endl; }

void setExitStatus(int status) { g_exitStatus = status; }

}  // namespace cmctl

int main(int argc, char** argv) {
    using namespace cmctl;
    CLI::App app{"Reads, changes, watches, backs up, restores, resets and checks the configuration\n"
                 "variables of the gateway.",
                 "cmctl"};
    app.footer("Exit status: 0 success, 1 the operation failed, 2 usage error.\n"
               "Run 'cmctl SUBCOMMAND --help' for the options of each subcommand.");
    app.set_version_flag("--version", versionText());
    app.require_subcommand(1);
    app.fallthrough();
    Options& o = options();
    app.add_option("--root", o.root, "Directory holding the device's file tree (default /)")->type_name("DIR");
    app.add_flag("--json", o.json, "Machine-readable output (get, show, info, find, check, diff, watch)");
    app.add_flag("-v,--verbose", o.verbose,
                 "Show the library's own log messages on standard error (twice: debug messages too)");
    app.add_flag("--master", o.master,
                 "Start as the master process: create missing data files and repair damaged ones");

    addValueCommands(app);
    addLookupCommands(app);
    addWatchCommand(app);
    addBackupCommands(app);
    addDefaultsCommand(app);
    addCheckCommands(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    } catch (const UsageError& e) {
        std::fflush(stdout);
        std::cerr << "cmctl: " << e.what() << "\n";
        return kExitUsage;
    } catch (const Failure& e) {
        std::fflush(stdout);
        std::cerr << "cmctl: " << e.what() << "\n";
        return kExitFailed;
    }
    std::fflush(stdout);
    return g_exitStatus;
}
