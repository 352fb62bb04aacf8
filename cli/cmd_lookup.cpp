// info NAME: a variable's static properties; find TEXT: names containing it.
// Both read only the compiled-in catalogue; the library is not started.
#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

Json infoJson(const VarInfo& v, const std::string& defaultText) {
    CM_FileInfo f{};
    CM_Ext_GetFileInfo(v.fileIndex, &f);
    return {{"name", v.name},       {"id", v.id},         {"file", f.szPath},  {"file_index", v.fileIndex},
            {"relative_id", v.relId}, {"type", typeName(v.type)}, {"size", v.size}, {"min", v.min},
            {"max", v.max},         {"default", defaultText}, {"defaults_group", v.group},
            {"reported", v.reported}};
}

void info(const std::vector<std::string>& names) {
    applyGlobalOptions();
    Json all = Json::array();
    for (const std::string& name : names) {
        const VarInfo v = varInfo(idOf(name));
        const auto j = infoJson(v, formatValue(v, readDefault(v)));
        if (options().json) {
            all.push_back(j);
            continue;
        }
        if (&name != &names.front()) std::cout << "\n";
        std::cout << "name:           " << v.name << "\n"
                  << "id:             " << v.id << "\n"
                  << "file:           " << j["file"].get<std::string>() << " (file " << v.fileIndex
                  << ", record " << v.relId << ")\n"
                  << "type:           " << typeName(v.type) << "\n"
                  << "size:           " << v.size << " bytes\n"
                  << "bounds:         " << v.min << ".." << v.max << "\n"
                  << "default:        " << j["default"].get<std::string>() << "\n"
                  << "defaults group: " << v.group << (v.group == 3 ? " (general, factory and all defaults)" : " (factory and all defaults)") << "\n"
                  << "reported:       " << (v.reported ? "yes" : "no") << "\n";
    }
    if (options().json) printJson(all);
}

void find(const std::string& text) {
    setFailureStatus(kExitUsage);
    applyGlobalOptions();
    Json found = Json::array();
    size_t count = 0;
    for (const VarInfo& v : allVars()) {
        if (v.name.find(text) == std::string::npos) continue;
        ++count;
        if (options().json)
            found.push_back({{"name", v.name}, {"id", v.id}});
        else
            std::cout << v.name << "\n";
    }
    if (options().json) printJson(found);
    if (count == 0) setExitStatus(kExitFailed);
}

}  // namespace

void addLookupCommands(CLI::App& app) {
    auto* infoCmd = app.add_subcommand("info", "Show a variable's ID, file, type, size, bounds, default, defaults group and whether it is reported to management");
    static std::vector<std::string> names;
    infoCmd->add_option("NAME", names, "Variable name")->required();
    infoCmd->callback([] { info(names); });

    auto* findCmd = app.add_subcommand("find", "List the variable names that contain TEXT (exit status 1 when none does)");
    static std::string text;
    findCmd->add_option("TEXT", text, "Text to look for (case-sensitive)")->required();
    findCmd->callback([] { find(text); });
}

}  // namespace cmctl
