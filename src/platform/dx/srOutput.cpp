#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <streambuf>
#include <vector>

#include <meridbsp/platform/dx/srOutput.h>

namespace
{
std::ostream* g_target = nullptr;

// The log goes to standard error unless a caller says otherwise: standard output stays
// free for what a program prints on purpose.
std::ostream& target() { return g_target ? *g_target : std::cerr; }

// Forwards every character to the current target, so the target can change at any time.
class ForwardBuf : public std::streambuf
{
protected:
    int overflow(int c) override
    {
        if (c != EOF)
            target().put((char)c);
        return c == EOF ? 0 : c;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        target().write(s, n);
        return n;
    }
    int sync() override
    {
        target().flush();
        return 0;
    }
};

ForwardBuf g_buf;
} // namespace

std::ostream srOut(&g_buf);

long srPrintf(const char* format, ...)
{
    char small[512];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0)
    {
        va_end(copy);
        return 0;
    }
    if ((size_t)n < sizeof small)
    {
        srOut.write(small, n);
    }
    else
    {
        std::vector<char> big((size_t)n + 1);
        std::vsnprintf(big.data(), big.size(), format, copy);
        srOut.write(big.data(), n);
    }
    va_end(copy);
    srOut.flush();
    return n;
}

std::ostream* srSetOutputTarget(std::ostream* t)
{
    std::ostream* old = g_target ? g_target : &std::cerr;
    srOut.flush();
    g_target = t;
    return old;
}

std::ostream* srGetOutputTarget() { return &target(); }
