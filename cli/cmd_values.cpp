// get NAME...: bare values; set NAME VALUE: checked write; show [PREFIX]:
// NAME = VALUE lines.
#include <termios.h>
#include <unistd.h>

#include <iostream>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"
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
    std::string name, value;
    bool force = false;
} g_set;

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
        if (options().json) out[v.name] = text;
        else std::cout << text << "\n";
    };
    if (g_get.defaults) {
        for (const VarInfo& v : vars) emit(v, formatValue(v, readDefault(v)));
    } else {
        Library lib(Start::Reader);
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

void set() {
    applyGlobalOptions();
    const VarInfo v = varInfo(idOf(g_set.name));
    const std::string text = g_set.value == "-" ? readStdin(v.type == DT_PASSWORD) : g_set.value;
    // Checked before the library starts: a refused value never gets near the file.
    ValueBuffer value = parseValue(v, text);
    Library lib(Start::Reader);
    if (!g_set.force) {
        // The library drops a plain set during a profile download and calls
        // it a success; the tool says so instead.
        const VarInfo flagVar = varInfo(CM_FLAG);
        if (readValue(flagVar).bytes[0] == CM_FLAG_PROFILE_DOWNLOAD)
            throw Failure(v.name + ": not set, a profile download is in progress (use --force to write all the same)");
    }
    const int rc = g_set.force ? CM_Set_Variable_CMI(v.id, value.data(), 0) : CM_Set_Variable(v.id, value.data());
    if (rc != 0) throw Failure(v.name + ": the write failed (result " + std::to_string(rc) + ")");
}

void show() {
    applyGlobalOptions();
    const auto vars = varsWithPrefix(g_show.prefix);
    if (vars.empty()) throw Failure(g_show.prefix + ": no variable has this prefix");
    Library lib(Start::Reader);
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
        if (options().json) out[v->name] = text;
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
        "set", "Check VALUE against the variable's type, size and bounds, then write it");
    setCmd->add_option("NAME", g_set.name, "Variable name")->required();
    setCmd->add_option("VALUE", g_set.value,
                       "New value; '-' reads it from standard input (a password without echo on a terminal)")
        ->required();
    setCmd->add_flag("--force", g_set.force,
                     "Write through the management-interface path, also during a profile download");
    setCmd->callback(set);

    auto* showCmd = app.add_subcommand("show", "List NAME = VALUE for every variable, or those whose names start with PREFIX");
    showCmd->add_option("PREFIX", g_show.prefix, "Name prefix");
    showCmd->add_flag("--changed", g_show.changed, "Only the variables that differ from their defaults");
    showCmd->add_flag("--reveal", g_show.reveal, "Print passwords in plain text");
    showCmd->callback(show);
}

}  // namespace cmctl
