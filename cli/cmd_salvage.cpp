// salvage [--apply]: reads the copies the master keeps of damaged data
// files (NAME.damaged beside each) and lists every intact value that differs
// from the running one; --apply writes them back through the checked path.
#include <sys/stat.h>

#include <iostream>
#include <memory>

#include <configmanager/configmanager.h>

#include "checked_write.h"
#include "commands.h"
#include "context.h"
#include "export_format.h"
#include "record_walk.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

struct {
    bool apply = false;
    bool force = false;
} g_salvage;

std::string damagedCopyOf(int fileIndex) {
    CM_FileInfo f{};
    CM_Ext_GetFileInfo(fileIndex, &f);
    return std::string(f.szPath) + ".damaged";
}

std::string shown(const VarInfo& v, const std::string& stored) {
    if (v.type != DT_PASSWORD) return stored;
    return stored.find_first_not_of('0', 2) == std::string::npos ? "" : kPasswordMask;
}

void salvage() {
    applyGlobalOptions();
    auto reader = std::make_unique<Library>(Start::ReadOnly);
    Json found = Json::array();
    std::vector<SalvagedValue> differing;
    size_t copies = 0;
    for (int i = 0; i < CM_NUM_FILES; ++i) {
        const std::string path = damagedCopyOf(i);
        struct stat st{};
        if (stat(path.c_str(), &st) != 0) continue;
        ++copies;
        const WalkResult walk = walkRecords(i, readInput(path));
        std::cerr << "cmctl: " << path << ": " << walk.values.size() << " intact records, " << walk.badStretches
                  << " damaged stretch" << (walk.badStretches == 1 ? "" : "es") << "\n";
        for (const SalvagedValue& s : walk.values) {
            std::string now;
            try {
                now = formatValue(*s.var, readValue(*s.var), PasswordForm::Stored);
            } catch (const Failure&) {
                now = "(unreadable)";
            }
            if (now == s.text) continue;
            differing.push_back(s);
            if (options().json)
                found.push_back({{"name", s.var->name}, {"running", displayJson(*s.var, shown(*s.var, now))},
                                 {"salvaged", displayJson(*s.var, shown(*s.var, s.text))}, {"copy", path}});
            else
                std::cout << s.var->name << ": running " << shown(*s.var, now) << ", salvaged "
                          << shown(*s.var, s.text) << "\n";
        }
    }
    if (options().json) printJson(found);
    if (copies == 0) std::cerr << "cmctl: no damaged copy found; nothing to salvage\n";
    if (!g_salvage.apply || differing.empty()) return;
    WritePlan plan("damaged copy", "record");
    for (const SalvagedValue& s : differing) plan.add(s.offset, *s.var, s.text);
    plan.requireClean();
    reader.reset();  // the read-only start cannot write
    Library writer(Start::Writer);
    plan.apply(g_salvage.force);
    std::cerr << "cmctl: " << plan.size() << " value" << (plan.size() == 1 ? "" : "s") << " written back\n";
}

}  // namespace

void addSalvageCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand(
        "salvage", "List the intact values of the copies kept of damaged data files (NAME.damaged) that differ from "
                   "the running ones");
    cmd->add_flag("--apply", g_salvage.apply, "Write them back, each checked as by set");
    cmd->add_flag("--force", g_salvage.force, "Write also during a profile download");
    cmd->callback(salvage);
}

}  // namespace cmctl
