#include "log/fd_sink.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "log/sink.h"

namespace cm::log {
namespace {

class FdSink final : public Sink {
public:
    std::atomic<int> fd{-1};

    void write(Channel, int, const char* fmt, va_list ap) override {
        char line[2048];
        int n = std::vsnprintf(line, sizeof line - 1, fmt, ap);
        if (n < 0) return;
        size_t len = std::min(static_cast<size_t>(n), sizeof line - 2);
        if (len == 0 || line[len - 1] != '\n') line[len++] = '\n';
        // One write per message, so that lines of several threads never mix.
        const ssize_t rc = ::write(fd.load(std::memory_order_relaxed), line, len);
        (void)rc;
    }
};

// Never destroyed: a watch thread may still log while the process exits.
FdSink& fdSink() {
    static FdSink* s = new FdSink;
    return *s;
}

}  // namespace

void sendToDescriptor(int fd) {
    if (fd < 0) {
        setSink(nullptr);
        return;
    }
    fdSink().fd.store(fd, std::memory_order_relaxed);
    setSink(&fdSink());
}

}  // namespace cm::log
