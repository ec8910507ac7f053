#include <atomic>
#include <cstdio>

#include <meridbsp/platform/dx/srAssert.h>

namespace
{
void defaultHandler(const char* expression, const char* source, long line, const char* message)
{
    std::fprintf(stderr, "assertion failed: %s (%s:%ld)%s%s\n", expression ? expression : "0", source ? source : "?",
                 line, message ? ": " : "", message ? message : "");
}

std::atomic<srAssertHandler> g_handler{&defaultHandler};
std::atomic<unsigned long> g_count{0};
thread_local srAssertHandler t_handler = nullptr;
} // namespace

void srAssertFail(const char* expression, const char* source, long line, const char* message)
{
    if (t_handler)
    {
        t_handler(expression, source, line, message);
        return;
    }
    ++g_count;
    g_handler.load()(expression, source, line, message);
}

srAssertHandler srSetAssertHandler(srAssertHandler handler)
{
    return g_handler.exchange(handler ? handler : &defaultHandler);
}

unsigned long srAssertCount() { return g_count.load(); }

srAssertHandler srSetThreadAssertHandler(srAssertHandler handler)
{
    const srAssertHandler previous = t_handler;
    t_handler = handler;
    return previous;
}
