#include "support/agent.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "catalogue/lookup.h"
#include "configmanager/cm_getset.h"
#include "configmanager/cm_lifecycle.h"
#include "configmanager/cm_notify.h"
#include "storage/record.h"

namespace cmtest {
namespace {

int g_report = -1;

std::map<std::string, Agent::Verb>& extraVerbs() {
    static std::map<std::string, Agent::Verb> verbs;
    return verbs;
}

void reply(const std::string& s) {
    const std::string line = s + "\n";
    [[maybe_unused]] ssize_t n = write(g_report, line.data(), line.size());
}

int reportCallback(int32_t id) {
    reply("cb " + std::to_string(id));
    return 0;
}

uint8_t typeOf(int id) {
    cm::catalogue::Location loc{};
    return cm::catalogue::locate(id, loc) ? cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).ucDataType : 0xFF;
}

// Numbers travel in host order in a buffer of the variable's width.
int put(int id, unsigned long v) {
    union { uint8_t u8; uint16_t u16; uint32_t u32; } buf{};
    switch (typeOf(id)) {
        case DT_OCTET: buf.u8 = static_cast<uint8_t>(v); break;
        case DT_WORD: buf.u16 = static_cast<uint16_t>(v); break;
        default: buf.u32 = static_cast<uint32_t>(v); break;
    }
    return cm::storage::putDataItem(id, &buf);
}

union Number {
    uint8_t u8;
    uint16_t u16;
    uint32_t u32;
};

Number toNumber(int id, unsigned long v) {
    Number n{};
    switch (typeOf(id)) {
        case DT_OCTET: n.u8 = static_cast<uint8_t>(v); break;
        case DT_WORD: n.u16 = static_cast<uint16_t>(v); break;
        default: n.u32 = static_cast<uint32_t>(v); break;
    }
    return n;
}

unsigned long fromNumber(int id, const Number& n) {
    const uint8_t t = typeOf(id);
    return t == DT_OCTET ? n.u8 : t == DT_WORD ? n.u16 : n.u32;
}

// Reads the changed variable back from inside its callback.
int reportWithValue(int32_t id) {
    Number n{};
    const int rc = CM_Get_Variable(id, &n);
    reply("cb " + std::to_string(id) + " " + std::to_string(rc) + " " + std::to_string(fromNumber(id, n)));
    return 0;
}

std::string get(int id) {
    union { uint8_t u8; uint16_t u16; uint32_t u32; char text[300]; } buf{};
    const int rc = cm::storage::getDataItem(id, &buf);
    const uint8_t t = typeOf(id);
    const std::string value = t == DT_OCTET ? std::to_string(buf.u8)
                              : t == DT_WORD ? std::to_string(buf.u16)
                              : t == DT_DWORD ? std::to_string(buf.u32)
                                              : std::string(buf.text);
    return std::to_string(rc) + " " + value;
}

std::string run(std::istringstream& cmd, const std::string& verb) {
    if (const auto extra = extraVerbs().find(verb); extra != extraVerbs().end()) return extra->second(cmd);
    long long a = 0, b = 0;  // 32-bit values beyond INT32_MAX do not fit a 32-bit long
    cmd >> a;
    if (verb == "init") return std::to_string(CM_init(static_cast<int>(a)));
    if (verb == "reg") return std::to_string(CM_Register_Interest(static_cast<int32_t>(a), reportCallback));
    if (verb == "regrange") {
        cmd >> b;
        int rc = 0;
        for (long long id = a; id <= b; ++id) rc |= CM_Register_Interest(static_cast<int32_t>(id), reportCallback);
        return std::to_string(rc);
    }
    if (verb == "put") {
        cmd >> b;
        return std::to_string(put(static_cast<int>(a), static_cast<unsigned long>(b)));
    }
    if (verb == "putseq") {
        long long to = 0;
        cmd >> b >> to;
        int bad = 0;
        for (long long v = b; v <= to; ++v) bad += put(static_cast<int>(a), static_cast<unsigned long>(v)) != 1;
        return std::to_string(bad);
    }
    if (verb == "get") return get(static_cast<int>(a));
    if (verb == "set") {
        cmd >> b;
        const Number n = toNumber(static_cast<int>(a), static_cast<unsigned long>(b));
        return std::to_string(CM_Set_Variable(static_cast<int32_t>(a), &n));
    }
    if (verb == "regget") return std::to_string(CM_Register_Interest(static_cast<int32_t>(a), reportWithValue));
    return "unknown";
}

[[noreturn]] void serve(int in) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // log lines survive _exit
    FILE* f = fdopen(in, "r");
    char line[512];
    while (f && std::fgets(line, sizeof line, f)) {
        std::istringstream cmd(line);
        std::string verb;
        cmd >> verb;
        if (verb == "exit") {
            reply("ok " + std::to_string(CM_Exit()));
            break;
        }
        reply("ok " + run(cmd, verb));
    }
    _exit(0);
}

}  // namespace

void Agent::addVerb(const std::string& name, Verb handler) { extraVerbs()[name] = std::move(handler); }

Agent::Agent() {
    int down[2], up[2];
    if (pipe(down) != 0 || pipe(up) != 0) std::abort();
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        close(down[1]);
        close(up[0]);
        g_report = up[1];
        serve(down[0]);
    }
    close(down[0]);
    close(up[1]);
    toChild_ = down[1];
    fromChild_ = up[0];
}

Agent::~Agent() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (toChild_ >= 0) close(toChild_);
    close(fromChild_);
}

// Reads one line; a callback report is also recorded.  False on timeout.
bool Agent::readLine(std::string& line, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto nl = pending_.find('\n');
        if (nl != std::string::npos) {
            line = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            if (line.rfind("cb ", 0) == 0) {
                callbacks_.push_back(std::atoi(line.c_str() + 3));
                callbackLines_.push_back(line.substr(3));
            }
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fromChild_, POLLIN, 0};
        if (left.count() < 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
        char buf[4096];
        const ssize_t n = read(fromChild_, buf, sizeof buf);
        if (n <= 0) return false;
        pending_.append(buf, static_cast<size_t>(n));
    }
}

std::string Agent::call(const std::string& command, std::chrono::milliseconds timeout) {
    const std::string line = command + "\n";
    std::string got;
    if (write(toChild_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return "";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (readLine(got, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())))
        if (got.rfind("cb ", 0) != 0) return got;
    return "";
}

std::vector<int> Agent::callbacks() {
    std::string ignored;
    while (readLine(ignored, std::chrono::milliseconds(0))) {
    }
    return callbacks_;
}

std::vector<std::string> Agent::callbackLines() {
    callbacks();
    return callbackLines_;
}

bool Agent::waitCallbacks(size_t n, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string ignored;
    while (callbacks_.size() < n)
        if (!readLine(ignored, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())))
            return false;
    return true;
}

int Agent::finish() {
    call("exit");
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace cmtest
