#include "log/sink.h"

#include <pthread.h>
#include <sched.h>
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
// Writes under way.  Counted before the sink is looked up (both sequentially
// consistent): a thread that replaces the sink and then finds no write under
// way knows that no thread can still enter the old one.
std::atomic<unsigned> g_writing{0};

// Only the forking thread lives on in a child: writes of the parent's other
// threads never end there.
void forgetWritesAfterFork() { g_writing.store(0, std::memory_order_relaxed); }
const bool g_forkHandler = pthread_atfork(nullptr, nullptr, forgetWritesAfterFork) == 0;

}  // namespace

void emit(Channel ch, int priority, const char* fmt, va_list ap) {
    g_writing.fetch_add(1);
    Sink* s = g_sink.load();
    (s ? *s : defaultSink()).write(ch, priority, fmt, ap);
    g_writing.fetch_sub(1, std::memory_order_release);
}

void setSink(Sink* s) {
    g_sink.store(s);
    while (g_writing.load(std::memory_order_acquire) != 0) sched_yield();
}

}  // namespace cm::log
