#include "support/child_link.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace cmcheck {

using Clock = std::chrono::steady_clock;

bool ChildLink::spawn(const std::function<void()>& body, const std::string& logPath) {
    int down[2], up[2];
    if (pipe2(down, O_CLOEXEC) != 0) return false;
    if (pipe2(up, O_CLOEXEC) != 0) return close(down[0]), close(down[1]), false;
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
        close(down[1]), close(up[0]);
        in_ = down[0], out_ = up[1];
        const int fd = logPath.empty() ? -1 : open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) dup2(fd, 1), dup2(fd, 2), close(fd);
        body();
        _exit(120);
    }
    close(down[0]), close(up[1]);
    out_ = down[1], in_ = up[0];
    return true;
}

void ChildLink::send(const std::string& line) {
    const std::string msg = line + "\n";
    for (size_t done = 0; done < msg.size();) {
        const ssize_t n = write(out_, msg.data() + done, msg.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

bool ChildLink::receive(std::string& line, std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    for (;;) {
        if (const size_t nl = pending_.find('\n'); nl != std::string::npos) {
            line = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd p{in_, POLLIN, 0};
        const int r = left < 0 ? 0 : poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        char buf[4096];
        const ssize_t n = r <= 0 ? 0 : read(in_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        pending_.append(buf, static_cast<size_t>(n));
    }
}

void ChildLink::kill() {
    if (out_ >= 0) close(out_), out_ = -1;
    if (in_ >= 0) close(in_), in_ = -1;
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

int ChildLink::finish(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return kKilled;
    const int status = waitBounded(pid_, timeout);
    pid_ = -1;  // reaped either way
    return status;
}

int waitBounded(pid_t pid, std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    for (int polls = 0;; ++polls) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        if (r < 0 && errno != EINTR) return ChildLink::kKilled;
        if (Clock::now() > end) {
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            return ChildLink::kHung;
        }
        usleep(polls < 100 ? 100 : 2000);  // most children end within milliseconds
    }
}

std::string makeRoot(const char* prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr) return {};
    std::error_code ec;
    std::filesystem::create_directories(tmpl + "/tmp", ec);
    std::filesystem::create_directories(tmpl + "/var/AppData/config", ec);
    return ec ? std::string() : tmpl;
}

void removeRoot(const std::string& root) {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

}  // namespace cmcheck
