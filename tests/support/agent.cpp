#include "support/agent.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "catalogue/catalogue.h"
#include "catalogue/lookup.h"
#include "configmanager/cm_lifecycle.h"
#include "configmanager/cm_notify.h"
#include "storage/record.h"

namespace cmtest {
namespace {

int g_report = -1;

void reply(const std::string& s) {
    std::string line = s + "\n";
    [[maybe_unused]] ssize_t n = write(g_report, line.data(), line.size());
}

int reportCallback(int32_t id) {
    reply("cb " + std::to_string(id));
    return 0;
}

std::string get(int id) {
    cm::catalogue::Location loc;
    if (!cm::catalogue::locate(id, loc)) return "ok -1";
    const auto& e = cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
    unsigned char buf[300] = {};
    const int rc = cm::storage::getDataItem(id, buf);
    std::string value;
    switch (e.ucDataType) {
        case DT_OCTET: value = std::to_string(buf[0]); break;
        case DT_WORD: { uint16_t v; std::memcpy(&v, buf, 2); value = std::to_string(v); break; }
        case DT_DWORD: { uint32_t v; std::memcpy(&v, buf, 4); value = std::to_string(v); break; }
        default: value = reinterpret_cast<char*>(buf); break;
    }
    return "ok " + std::to_string(rc) + " " + value;
}

int put(int id, unsigned long v) {
    cm::catalogue::Location loc;
    if (!cm::catalogue::locate(id, loc)) return -1;
    unsigned char buf[8] = {};
    switch (cm::catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).ucDataType) {
        case DT_OCTET: buf[0] = static_cast<unsigned char>(v); break;
        case DT_WORD: { uint16_t w = static_cast<uint16_t>(v); std::memcpy(buf, &w, 2); break; }
        default: { uint32_t d = static_cast<uint32_t>(v); std::memcpy(buf, &d, 4); break; }
    }
    return cm::storage::putDataItem(id, buf);
}

[[noreturn]] void serve(int in) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // log lines survive _exit
    FILE* f = fdopen(in, "r");
    char line[512];
    while (f && std::fgets(line, sizeof line, f)) {
        std::istringstream cmd(line);
        std::string verb;
        cmd >> verb;
        long a = 0;
        if (verb == "init") {
            cmd >> a;
            reply("ok " + std::to_string(CM_init(static_cast<int>(a))));
        } else if (verb == "initnr") {
            reply("ok " + std::to_string(CM_initNoRegister()));
        } else if (verb == "reg") {
            cmd >> a;
            reply("ok " + std::to_string(CM_Register_Interest(static_cast<int32_t>(a), reportCallback)));
        } else if (verb == "put") {
            unsigned long v = 0;
            cmd >> a >> v;
            reply("ok " + std::to_string(put(static_cast<int>(a), v)));
        } else if (verb == "regrange") {
            long b = 0;
            cmd >> a >> b;
            int rc = 0;
            for (long id = a; id <= b; ++id) rc |= CM_Register_Interest(static_cast<int32_t>(id), reportCallback);
            reply("ok " + std::to_string(rc));
        } else if (verb == "putseq") {
            unsigned long from = 0, to = 0;
            cmd >> a >> from >> to;
            int bad = 0;
            for (unsigned long v = from; v <= to; ++v) bad += put(static_cast<int>(a), v) != 1;
            reply("ok " + std::to_string(bad));
        } else if (verb == "puts") {
            std::string text;
            cmd >> a >> text;
            char buf[300] = {};
            std::strncpy(buf, text.c_str(), sizeof buf - 1);
            reply("ok " + std::to_string(cm::storage::putDataItem(static_cast<int32_t>(a), buf)));
        } else if (verb == "get") {
            cmd >> a;
            reply(get(static_cast<int>(a)));
        } else if (verb == "exit") {
            reply("ok " + std::to_string(CM_Exit()));
            _exit(0);
        } else {
            reply("ok unknown");
        }
    }
    _exit(0);
}

}  // namespace

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
        close(toChild_);
        int status;
        for (int i = 0; i < 2000 && waitpid(pid_, &status, WNOHANG) == 0; ++i) usleep(1000);
        if (waitpid(pid_, &status, WNOHANG) == 0) {
            ::kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
    }
    if (fromChild_ >= 0) close(fromChild_);
}

bool Agent::readLine(std::string& line, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto nl = pending_.find('\n');
        if (nl != std::string::npos) {
            line = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fromChild_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
        char buf[4096];
        const ssize_t n = read(fromChild_, buf, sizeof buf);
        if (n <= 0) return false;
        pending_.append(buf, static_cast<size_t>(n));
    }
}

std::string Agent::call(const std::string& command, std::chrono::milliseconds timeout) {
    const std::string line = command + "\n";
    if (write(toChild_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return "";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string got;
    while (readLine(got, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()))) {
        if (got.rfind("cb ", 0) == 0)
            callbacks_.push_back(std::atoi(got.c_str() + 3));
        else
            return got;
    }
    return "";
}

void Agent::drain(std::chrono::milliseconds timeout) {
    std::string got;
    while (readLine(got, timeout))
        if (got.rfind("cb ", 0) == 0) callbacks_.push_back(std::atoi(got.c_str() + 3));
}

std::vector<int> Agent::callbacks() {
    drain(std::chrono::milliseconds(0));
    return callbacks_;
}

bool Agent::waitCallbacks(size_t n, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string got;
    while (callbacks_.size() < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !readLine(got, left)) return false;
        if (got.rfind("cb ", 0) == 0) callbacks_.push_back(std::atoi(got.c_str() + 3));
    }
    return true;
}

int Agent::finish() {
    call("exit");
    int status = 0;
    close(toChild_);
    toChild_ = -1;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace cmtest
