// get NAME...: bare values; set NAME VALUE: checked write; show [PREFIX]:
// NAME = VALUE lines.
#include <termios.h>
#include <unistd.h>

#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "checked_write.h"
#include "context.h"
#include "export_format.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

struct GetArgs {
    std::vector<std::string> names;
    bool reveal = false;
    bool defaults = false;
} g_get;

struct SetArgs {
    std::vector<std::string> args;
    bool force = false;
    bool dryRun = false;
} g_set;

struct {
    std::vector<std::string> names;
    bool force = false;
} g_reset;

struct ShowArgs {
    std::string prefix;
    bool changed = false;
    bool reveal = false;
} g_show;

// The plain text of a password, deciphered by the library.
std::string revealed(const VarInfo& v) {
    char plain[CM_PASSWD_TEXT_SIZE] = "";
    const int rc = CM_Get_Passwd(v.id, plain);
    if (rc != 0) throw Failure(v.name + ": cannot decipher the password (result " + std::to_string(rc) + ")");
    return plain;
}

std::string currentText(const VarInfo& v, bool reveal) {
    if (reveal && v.type == DT_PASSWORD) return revealed(v);
    return formatValue(v, readValue(v));
}

void get() {
    applyGlobalOptions();
    std::vector<VarInfo> vars;
    for (const std::string& n : g_get.names) vars.push_back(varInfo(idOf(n)));
    Json out = Json::object();
    auto emit = [&](const VarInfo& v, const std::string& text) {
        if (options().json) out[v.name] = displayJson(v, text);
        else std::cout << text << "\n";
    };
    if (g_get.defaults) {
        for (const VarInfo& v : vars) emit(v, formatValue(v, readDefault(v)));
    } else {
        Library lib(Start::ReadOnly);
        for (const VarInfo& v : vars) emit(v, currentText(v, g_get.reveal));
    }
    if (options().json) printJson(out);
}

// Reads a value from standard input: one line, its line end removed; a
// password is read without echo when standard input is a terminal.
std::string readStdin(bool secret) {
    termios saved{};
    const bool hide = secret && isatty(0) && tcgetattr(0, &saved) == 0;
    if (hide) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(0, TCSAFLUSH, &quiet);
        std::cerr << "Password: " << std::flush;
    }
    std::string line;
    const bool got = static_cast<bool>(std::getline(std::cin, line));
    if (hide) {
        tcsetattr(0, TCSAFLUSH, &saved);
        std::cerr << "\n";
    }
    if (!got && line.empty()) throw Failure("no value on standard input");
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

// set NAME VALUE, or set NAME=VALUE...: every value checked first.
void set() {
    applyGlobalOptions();
    const auto& args = g_set.args;
    WritePlan plan("argument", "argument");
    if (args.size() == 2 && args[0].find('=') == std::string::npos) {
        const VarInfo* v = findVar(args[0]);
        if (v == nullptr) throw Failure(unknownVariable(args[0]));
        const std::string text = args[1] == "-" ? readStdin(v->type == DT_PASSWORD) : args[1];
        // Checked before the library starts: a refused value never gets near the file.
        plan.add(2, *v, text);
    } else {
        for (size_t i = 0; i < args.size(); ++i) {
            const size_t eq = args[i].find('=');
            if (eq == std::string::npos) plan.refuse(i + 1, "'" + args[i] + "' is not NAME=VALUE");
            else plan.add(i + 1, args[i].substr(0, eq), args[i].substr(eq + 1));
        }
    }
    plan.requireClean();
    if (g_set.dryRun) return;
    Library lib(Start::Writer);
    plan.apply(g_set.force);
}

// reset NAME...: each back to its default, through the same checked writes.
void reset() {
    applyGlobalOptions();
    WritePlan plan("argument", "argument");
    for (size_t i = 0; i < g_reset.names.size(); ++i) {
        const VarInfo* v = findVar(g_reset.names[i]);
        if (v == nullptr) plan.refuse(i + 1, unknownVariable(g_reset.names[i]));
        else plan.add(i + 1, *v, formatValue(*v, readDefault(*v), PasswordForm::Stored));
    }
    plan.requireClean();
    Library lib(Start::Writer);
    plan.apply(g_reset.force);
}

void show() {
    applyGlobalOptions();
    const auto vars = varsWithPrefix(g_show.prefix);
    if (vars.empty()) throw Failure(g_show.prefix + ": no variable has this prefix");
    Library lib(Start::ReadOnly);
    Json out = Json::object();
    for (const VarInfo* v : vars) {
        std::string text;
        try {
            const ValueBuffer cur = readValue(*v);
            if (g_show.changed &&
                formatValue(*v, cur, PasswordForm::Stored) == formatValue(*v, readDefault(*v), PasswordForm::Stored))
                continue;
            text = g_show.reveal && v->type == DT_PASSWORD ? revealed(*v) : formatValue(*v, cur);
        } catch (const Failure& e) {
            // One unreadable record (a damaged file) costs only its own line.
            std::cerr << "cmctl: " << e.what() << "\n";
            setExitStatus(kExitFailed);
            continue;
        }
        if (options().json) out[v->name] = displayJson(*v, text);
        else std::cout << v->name << " = " << text << "\n";
    }
    if (options().json) printJson(out);
}

}  // namespace

void addValueCommands(CLI::App& app) {
    auto* getCmd = app.add_subcommand("get", "Print the value of each variable, one per line");
    getCmd->add_option("NAME", g_get.names, "Variable name")->required();
    getCmd->add_flag("--reveal", g_get.reveal, "Print a password in plain text (otherwise a fixed mask)");
    getCmd->add_flag("--default", g_get.defaults, "Print the default value instead");
    getCmd->callback(get);

    auto* setCmd = app.add_subcommand(
        "set", "Check each value against its variable's type, size and bounds, then write them all (none if any is bad)");
    setCmd->add_option("ARGS", g_set.args,
                       "NAME VALUE ('-' reads VALUE from standard input, a password without echo on a terminal), "
                       "or NAME=VALUE...")
        ->required();
    setCmd->add_flag("--force", g_set.force,
                     "Write through the management-interface path, also during a profile download");
    setCmd->add_flag("--dry-run", g_set.dryRun, "Only check the values");
    setCmd->callback(set);

    auto* resetCmd = app.add_subcommand("reset", "Set each variable back to its default value");
    resetCmd->add_option("NAME", g_reset.names, "Variable name")->required();
    resetCmd->add_flag("--force", g_reset.force, "Write also during a profile download");
    resetCmd->callback(reset);

    auto* showCmd = app.add_subcommand("show", "List NAME = VALUE for every variable, or those whose names start with PREFIX");
    showCmd->add_option("PREFIX", g_show.prefix, "Name prefix");
    showCmd->add_flag("--changed", g_show.changed, "Only the variables that differ from their defaults");
    showCmd->add_flag("--reveal", g_show.reveal, "Print passwords in plain text");
    showCmd->callback(show);
}

}  // namespace cmctl
