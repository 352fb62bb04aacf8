// cmctl: read, change, watch, back up, restore, reset and check the
// configuration of the gateway from a shell.
#include <algorithm>
#include <cstdio>
#include <utility>
#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"
#include "suggest.h"

namespace cmctl {
namespace {

int g_exitStatus = kExitOk;

std::string versionText() {
    return "cmctl " + std::to_string(CM_VERSION_MAJOR) + "." + std::to_string(CM_VERSION_MINOR) + "." +
           std::to_string(CM_VERSION_PATCH) + "." + std::to_string(CM_VERSION_BUILD);
}

// After a parse error: when the first word that is not an option names no
// subcommand, the nearest one.
void suggestSubcommand(CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--root") {
            ++i;
            continue;
        }
        if (a.empty() || a[0] == '-') continue;
        std::vector<std::string> names;
        for (const CLI::App* sub : std::as_const(app).get_subcommands([](const CLI::App*) { return true; }))
            names.push_back(sub->get_name());
        if (std::find(names.begin(), names.end(), a) != names.end()) return;
        std::cerr << "cmctl: unknown subcommand '" << a << "'" << didYouMean(a, names) << "\n";
        return;
    }
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
    addExportCommands(app);
    addSalvageCommand(app);
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
        suggestSubcommand(app, argc, argv);
        return kExitUsage;
    } catch (const UsageError& e) {
        std::fflush(stdout);
        std::cerr << "cmctl: " << e.what() << "\n";
        return kExitUsage;
    } catch (const Failure& e) {
        std::fflush(stdout);
        std::cerr << "cmctl: " << e.what() << "\n";
        return failureStatus();
    }
    std::fflush(stdout);
    return g_exitStatus;
}
