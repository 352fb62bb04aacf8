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

DefaultSink g_default;
std::atomic<Sink*> g_sink{&g_default};

}  // namespace

Sink& sink() { return *g_sink.load(std::memory_order_acquire); }

void setSink(Sink* s) { g_sink.store(s ? s : &g_default, std::memory_order_release); }

}  // namespace cm::log
