// defaults general|factory|all.
#include <unistd.h>

#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"

namespace cmctl {
namespace {

std::string g_which;
bool g_yes = false;

bool confirmed(const std::string& what) {
    if (g_yes || !isatty(0)) return true;
    std::cerr << what << " Continue? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

void defaults() {
    applyGlobalOptions();
    int (*const load)() = g_which == "general"   ? CM_LoadGeneralDefaults
                          : g_which == "factory" ? CM_LoadFactoryDefaults
                                                 : CM_LoadAllDefaults;
    if (g_which == "factory" &&
        !confirmed("Factory defaults reset every variable and delete logs, histories and certificates."))
        throw Failure("not confirmed; nothing changed");
    if (g_which == "all" && !confirmed("All defaults rewrite every data file from defaults."))
        throw Failure("not confirmed; nothing changed");
    Library lib(Start::Reader);
    const int rc = load();
    if (rc != 0) throw Failure(g_which + " defaults loaded with errors (result " + std::to_string(rc) + ")");
}

}  // namespace

void addDefaultsCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("defaults", "Load defaults: general (group 3), factory (every variable, clean-up) or all (rewrite every file)");
    cmd->add_option("WHICH", g_which, "general, factory or all")
        ->required()
        ->check(CLI::IsMember({"general", "factory", "all"}));
    cmd->add_flag("-y,--yes", g_yes, "Do not ask for confirmation (factory and all ask on a terminal)");
    cmd->callback(defaults);
}

}  // namespace cmctl
