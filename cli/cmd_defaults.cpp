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

void defaults() {
    applyGlobalOptions();
    int (*const load)() = g_which == "general"   ? CM_LoadGeneralDefaults
                          : g_which == "factory" ? CM_LoadFactoryDefaults
                                                 : CM_LoadAllDefaults;
    requireConfirmation(g_which == "factory" ? "Factory defaults reset every variable and delete logs, histories and certificates."
                        : g_which == "all" ? "All defaults rewrite every data file from defaults."
                                           : "General defaults reset every variable of defaults group 3.",
                        g_yes);
    Library lib(Start::Writer);
    const int rc = load();
    if (rc != 0) throw Failure(g_which + " defaults loaded with errors (result " + std::to_string(rc) + ")");
}

}  // namespace

void addDefaultsCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("defaults", "Load defaults: general (group 3), factory (every variable, clean-up) or all (rewrite every file)");
    cmd->add_option("WHICH", g_which, "general, factory or all")
        ->required()
        ->check(CLI::IsMember({"general", "factory", "all"}));
    cmd->add_flag("-y,--yes", g_yes, "Go ahead without asking (needed when there is no terminal to ask on)");
    cmd->callback(defaults);
}

}  // namespace cmctl
