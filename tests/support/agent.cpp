#include "support/agent.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "catalogue/lookup.h"
#include "configmanager/configmanager.h"
#include "storage/record.h"

namespace cmtest {
namespace {

cmcheck::ChildLink* g_parent = nullptr;  // in the child

std::map<std::string, Agent::Verb>& extraVerbs() {
    static std::map<std::string, Agent::Verb> verbs;
    return verbs;
}

union Value {
    uint8_t u8;
    uint16_t u16;
    uint32_t u32;
    char text[300];
};

uint8_t typeOf(int id) {
    cm::catalogue::Location loc{};
    return cm::catalogue::locate(id, loc) ? cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).ucDataType : 0xFF;
}

Value number(int id, long long v) {
    Value n{};
    const uint8_t t = typeOf(id);
    if (t == DT_OCTET) n.u8 = static_cast<uint8_t>(v);
    else if (t == DT_WORD) n.u16 = static_cast<uint16_t>(v);
    else n.u32 = static_cast<uint32_t>(v);
    return n;
}

std::string text(int id, const Value& n) {
    const uint8_t t = typeOf(id);
    return t == DT_OCTET ? std::to_string(n.u8) : t == DT_WORD ? std::to_string(n.u16)
         : t == DT_DWORD ? std::to_string(n.u32) : std::string(n.text);
}

int put(int id, long long v) {
    const Value n = number(id, v);
    return cm::storage::putDataItem(id, &n);
}

int report(int32_t id) { return g_parent->send("cb " + std::to_string(id)), 0; }

std::string run(std::istringstream& cmd, const std::string& verb) {
    if (const auto extra = extraVerbs().find(verb); extra != extraVerbs().end()) return extra->second(cmd);
    std::vector<long long> a;  // 32-bit values beyond INT32_MAX overflow a 32-bit long
    for (long long x; cmd >> x;) a.push_back(x);
    a.resize(3, -1);
    const int id = static_cast<int>(a[0]);
    int rc = 0;
    if (verb == "init") return std::to_string(CM_init(id));
    if (verb == "reg")
        for (long long k = id; k <= std::max<long long>(id, a[1]); ++k) rc |= CM_Register_Interest(static_cast<int32_t>(k), report);
    else if (verb == "put") rc = put(id, a[1]);
    else if (verb == "get") {
        Value n{};
        rc = cm::storage::getDataItem(id, &n);
        return std::to_string(rc) + " " + text(id, n);
    } else return "unknown";
    return std::to_string(rc);
}

}  // namespace

void Agent::addVerb(const std::string& name, Verb handler) { extraVerbs()[name] = std::move(handler); }

Agent::Agent() {
    link_.spawn([this] {
        setvbuf(stdout, nullptr, _IOLBF, 0);  // log lines survive _exit
        g_parent = &link_;
        for (std::string line; link_.receive(line, std::chrono::hours(1));) {
            std::istringstream cmd(line);
            std::string verb;
            cmd >> verb;
            if (verb == "exit") {
                link_.send("ok " + std::to_string(CM_Exit()));
                break;
            }
            link_.send("ok " + run(cmd, verb));
        }
        _exit(0);
    });
}

// Reads one line; a callback report is also recorded.
bool Agent::readLine(std::string& line, std::chrono::milliseconds timeout) {
    if (!link_.receive(line, std::max(timeout, std::chrono::milliseconds(0)))) return false;
    if (line.rfind("cb ", 0) == 0) callbacks_.push_back(std::atoi(line.c_str() + 3));
    return true;
}

std::string Agent::call(const std::string& command, std::chrono::milliseconds timeout) {
    link_.send(command);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (std::string got; readLine(got, std::chrono::duration_cast<std::chrono::milliseconds>(
                                            deadline - std::chrono::steady_clock::now()));)
        if (got.rfind("cb ", 0) != 0) return got;
    return "";
}

std::vector<int> Agent::callbacks() {
    for (std::string ignored; readLine(ignored, std::chrono::milliseconds(0));) {
    }
    return callbacks_;
}

bool Agent::waitCallbacks(size_t n, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (std::string ignored; callbacks_.size() < n;)
        if (!readLine(ignored, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())))
            return false;
    return true;
}

int Agent::finish() {
    call("exit");
    return link_.finish(std::chrono::seconds(20));
}

}  // namespace cmtest
