// export [FILE]: every variable as NAME = value lines (or one JSON object);
// import FILE: reads them back, each value checked before any is written.
#include <fstream>
#include <iostream>
#include <sstream>

#include <configmanager/configmanager.h>

#include "checked_write.h"
#include "commands.h"
#include "context.h"
#include "export_format.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

struct {
    std::string file;
    bool includeVolatile = false;
} g_export;

struct {
    std::string file;
    bool dryRun = false;
    bool force = false;
} g_import;

constexpr int kVolatileFile = 0;

void exportAll() {
    applyGlobalOptions();
    Library lib(Start::ReadOnly);
    std::ostringstream text;
    Json doc = Json::object();
    text << "# cmctl export: NAME = value; read back with 'cmctl import FILE'\n";
    bool complete = true;
    for (const VarInfo& v : allVars()) {
        if (v.fileIndex == kVolatileFile && !g_export.includeVolatile) continue;
        ValueBuffer value;
        try {
            value = readValue(v);
        } catch (const Failure& e) {
            std::cerr << "cmctl: " << e.what() << "\n";
            complete = false;
            continue;
        }
        if (options().json) doc[v.name] = exportJson(v, value);
        else text << exportLine(v, value) << "\n";
    }
    const std::string out = options().json ? doc.dump(2) + "\n" : text.str();
    if (g_export.file.empty() || g_export.file == "-") {
        std::cout << out << std::flush;
    } else {
        std::ofstream f(g_export.file, std::ios::binary | std::ios::trunc);
        f << out;
        f.close();
        if (!f) throw Failure("cannot write '" + g_export.file + "'");
    }
    if (!complete) throw Failure("export incomplete: some values could not be read");
}

void planFromJson(WritePlan& plan, const std::string& text) {
    Json doc;
    try {
        doc = Json::parse(text);
    } catch (const Json::parse_error& e) {
        throw Failure("'" + g_import.file + "' is not JSON: " + e.what());
    }
    if (!doc.is_object()) throw Failure("'" + g_import.file + "' is not a JSON object of NAME: value");
    size_t n = 0;
    for (const auto& [name, value] : doc.items()) {
        ++n;
        const VarInfo* v = findVar(name);
        if (v == nullptr) {
            plan.refuse(n, unknownVariable(name));
            continue;
        }
        try {
            plan.add(n, *v, textFromJson(*v, value));
        } catch (const Failure& e) {
            plan.refuse(n, e.what());
        }
    }
}

void planFromLines(WritePlan& plan, const std::string& text) {
    std::istringstream in(text);
    std::string line;
    for (size_t n = 1; std::getline(in, line); ++n) {
        try {
            if (const auto e = parseExportLine(line)) plan.add(n, e->name, e->text);
        } catch (const Failure& e) {
            plan.refuse(n, e.what());
        }
    }
}

void import() {
    applyGlobalOptions();
    const std::string text = readInput(g_import.file);
    const size_t first = text.find_first_not_of(" \t\r\n");
    const bool json = options().json || (first != std::string::npos && text[first] == '{');
    WritePlan plan(g_import.file == "-" ? "<stdin>" : g_import.file, json ? "entry" : "line");
    json ? planFromJson(plan, text) : planFromLines(plan, text);
    plan.requireClean();
    if (g_import.dryRun) {
        std::cerr << "cmctl: " << plan.size() << " values checked; nothing written (--dry-run)\n";
        return;
    }
    Library lib(Start::Writer);
    plan.apply(g_import.force);
}

}  // namespace

void addExportCommands(CLI::App& app) {
    auto* e = app.add_subcommand(
        "export", "Write every persistent variable as 'NAME = value' lines that import reads back exactly");
    e->add_option("FILE", g_export.file, "File to write (default, or '-': standard output)");
    e->add_flag("--volatile", g_export.includeVolatile, "Include the volatile (run-time) variables");
    e->callback(exportAll);

    auto* i = app.add_subcommand(
        "import", "Check every line of an export file, then write them all (nothing at all if any line is bad)");
    i->add_option("FILE", g_import.file, "Export file ('-' for standard input); JSON when it starts with '{'")
        ->required();
    i->add_flag("--dry-run", g_import.dryRun, "Only check the file");
    i->add_flag("--force", g_import.force, "Write also during a profile download");
    i->callback(import);
}

}  // namespace cmctl
