// Each file of subcommands adds its own to the application.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace cmctl {

// JSON documents keep their keys in the order written (catalogue order).
using Json = nlohmann::ordered_json;

void addLookupCommands(CLI::App& app);   // info, find
void addValueCommands(CLI::App& app);    // get, set, reset, show
void addWatchCommand(CLI::App& app);     // watch
void addCheckCommands(CLI::App& app);    // check, master
void addBackupCommands(CLI::App& app);   // backup, restore, diff
void addDefaultsCommand(CLI::App& app);  // defaults
void addExportCommands(CLI::App& app);   // export, import
void addSalvageCommand(CLI::App& app);   // salvage

// Prints one JSON document on standard output.
void printJson(const Json& doc);

// The exit status a subcommand's action sets (0 unless it says otherwise).
void setExitStatus(int status);

}  // namespace cmctl
