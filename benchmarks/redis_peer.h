// The peer a user would pick instead of the library for change
// notification: a key-value server on loopback whose keyspace notifications
// tell subscribers of every SET.  The server is started on a free port with
// no persistence, talked to in its plain text protocol, and stopped by its
// process ID.  Absent when `redis-server` is not installed.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace bench::redis {

inline const char* kKey = "cmvar";

// The server binary on PATH, or empty.
inline std::string serverPath() {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t at = 0;
    while (at <= dirs.size()) {
        const size_t end = std::min(dirs.find(':', at), dirs.size());
        const std::string candidate = dirs.substr(at, end - at) + "/redis-server";
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        at = end + 1;
    }
    return {};
}

inline int freePort() {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = -1;
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(s);
    return port;
}

// A connection with Nagle off; -1 when the server does not answer.
inline int connectTo(int port) {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(s);
        return -1;
    }
    const int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return s;
}

// Sends a command given as words; reads until `until` has arrived (a whole
// reply for the commands used here).  False on a closed connection.
inline bool command(int s, std::initializer_list<std::string> words, const char* until) {
    std::string out = "*" + std::to_string(words.size()) + "\r\n";
    for (const auto& w : words) out += "$" + std::to_string(w.size()) + "\r\n" + w + "\r\n";
    if (write(s, out.data(), out.size()) != static_cast<ssize_t>(out.size())) return false;
    std::string in;
    char buf[512];
    while (in.find(until) == std::string::npos) {
        const ssize_t got = read(s, buf, sizeof buf);
        if (got <= 0) return false;
        in.append(buf, static_cast<size_t>(got));
    }
    return true;
}

// A running server, stopped (by its PID) when the object goes.
class Server {
public:
    explicit Server(const std::string& dir) {
        const std::string bin = serverPath();
        if (bin.empty()) return;
        port_ = freePort();
        const std::string port = std::to_string(port_);
        pid_ = fork();
        if (pid_ == 0) {
            const int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
            execl(bin.c_str(), bin.c_str(), "--port", port.c_str(), "--bind", "127.0.0.1", "--save", "",
                  "--appendonly", "no", "--dir", dir.c_str(), "--notify-keyspace-events", "K$",
                  "--daemonize", "no", "--protected-mode", "yes", static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int n = 0; n < 500; ++n) {  // up to 5 s
            const int s = connectTo(port_);
            if (s >= 0) {
                const bool up = command(s, {"PING"}, "+PONG\r\n");
                close(s);
                if (up) return;
            }
            usleep(10000);
        }
        stop();
    }
    ~Server() { stop(); }
    bool running() const { return pid_ > 0; }
    int port() const { return port_; }

private:
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    pid_t pid_ = -1;
    int port_ = -1;
};

// A subscriber to the key's notifications; `onMessage` runs once per
// notification read.
template <class F>
[[noreturn]] void subscribe(int port, F ready, void (*onMessage)()) {
    const int s = connectTo(port);
    const std::string channel = std::string("__keyspace@0__:") + kKey;
    if (s < 0 || !command(s, {"SUBSCRIBE", channel}, ":1\r\n")) _exit(1);
    ready();
    const std::string mark = "$3\r\nset\r\n";
    std::string in;
    char buf[4096];
    for (;;) {
        const ssize_t got = read(s, buf, sizeof buf);
        if (got <= 0) _exit(0);
        in.append(buf, static_cast<size_t>(got));
        size_t at;
        while ((at = in.find(mark)) != std::string::npos) {
            onMessage();
            in.erase(0, at + mark.size());
        }
    }
}

}  // namespace bench::redis
