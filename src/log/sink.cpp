#include "log/sink.h"

#include <syslog.h>

#include <atomic>
#include <cstdio>

namespace cm::log {
namespace {

class DefaultSink final : public Sink {
public:
    void write(Channel ch, int priority, const char* fmt, va_list ap) override {
        if (ch == Channel::Console)
            std::vprintf(fmt, ap);
        else
            vsyslog(priority, fmt, ap);
    }
};

// Never destroyed: a watch thread may still log while the process exits.
DefaultSink& defaultSink() {
    static DefaultSink* s = new DefaultSink;
    return *s;
}

std::atomic<Sink*> g_sink{nullptr};

}  // namespace

Sink& sink() {
    Sink* s = g_sink.load(std::memory_order_acquire);
    return s ? *s : defaultSink();
}

void setSink(Sink* s) { g_sink.store(s, std::memory_order_release); }

}  // namespace cm::log
