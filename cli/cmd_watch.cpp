// watch [NAME|PREFIX...]: one line per change, made by any process, until
// interrupted.
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cstdio>
#include <ctime>
#include <iostream>
#include <mutex>

#include <configmanager/configmanager.h>

#include "commands.h"
#include "context.h"
#include "export_format.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {
namespace {

std::vector<std::string> g_args;

// Last text seen of every watched variable, by absolute ID.  Callbacks run
// on the library's watch thread, one at a time.
std::vector<std::string> g_last(CM_NUM_VAR_IDS);
std::mutex g_lastMutex;

std::string timestamp() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    tm local{};
    localtime_r(&tv.tv_sec, &local);
    char text[40];
    const size_t n = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + n, sizeof text - n, ".%03ld", static_cast<long>(tv.tv_usec / 1000));
    return text;
}

// The stored form: a password re-enciphered with a new value differs here
// even though both show as the same mask.
std::string textOf(int32_t id) {
    try {
        return formatValue(varInfo(id), readValue(varInfo(id)), PasswordForm::Stored);
    } catch (const Failure&) {
        return "(unreadable)";
    }
}

// What is printed: a password only as its mask.
std::string shown(const VarInfo& v, const std::string& stored) {
    if (v.type != DT_PASSWORD || stored == "(unreadable)") return stored;
    const bool none = stored.find_first_not_of('0', 2) == std::string::npos;
    return none ? "" : kPasswordMask;
}

int onChange(int32_t id) {
    const std::string now = textOf(id);
    std::lock_guard<std::mutex> g(g_lastMutex);
    std::string& old = g_last[id];
    // A record rewritten with the same bytes elsewhere in its file, or a
    // password re-enciphered to the same mask, is no change to report.
    if (now == old) return 0;
    const VarInfo v = varInfo(id);
    const std::string before = shown(v, old), after = shown(v, now);
    if (options().json) {
        Json line = {{"time", timestamp()}, {"name", v.name}, {"id", id},
                     {"old", displayJson(v, before)}, {"new", displayJson(v, after)}};
        std::printf("%s\n", line.dump().c_str());
    } else {
        std::printf("%s %s: %s -> %s\n", timestamp().c_str(), v.name.c_str(), before.c_str(), after.c_str());
    }
    std::fflush(stdout);
    old = now;
    return 0;
}

void watch() {
    applyGlobalOptions();
    const auto vars = selectVars(g_args);
    // The signals are waited for below; the watch thread the library
    // starts inherits the blocked mask, so Ctrl-C always reaches this thread.
    blockStopSignals();

    Library lib(Start::ReadOnlyWatcher);
    {
        std::lock_guard<std::mutex> g(g_lastMutex);
        for (const VarInfo* v : vars) g_last[v->id] = textOf(v->id);
    }
    for (const VarInfo* v : vars)
        if (CM_Register_Interest(v->id, onChange) != 0) throw Failure(v->name + ": cannot watch it");
    std::fprintf(stderr, "cmctl: watching %zu variable%s; Ctrl-C ends\n", vars.size(), vars.size() == 1 ? "" : "s");
    waitForStop();
}

}  // namespace

void addWatchCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand(
        "watch", "Print one line per change (time, name, old and new value) until interrupted");
    cmd->add_option("NAME", g_args, "Variable names or name prefixes (default: every variable)");
    cmd->callback(watch);
}

}  // namespace cmctl
