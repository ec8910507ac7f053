#include "Progress.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "Tool.h"

namespace
{

struct State
{
    std::string stage;
    double start = 0;     // when the stage began (ms)
    double lastShown = 0; // when a bar was drawn or a line printed last (ms)
    bool shown = false;   // this stage has shown something
    bool barOpen = false; // a bar is on the terminal's current line
};
State s_state;

bool onTerminal() { return !Tool::verbose() && ::isatty(STDERR_FILENO); }

// The pause before the first report and between reports, in milliseconds.
double pauseMs(bool terminal)
{
    const char* text = std::getenv("MERIDBSP_PROGRESS_SECONDS");
    char* end = nullptr;
    double seconds = text && *text ? std::strtod(text, &end) : -1;
    if (!text || !*text || *end || !(seconds >= 0))
        seconds = terminal ? 0.5 : 3.0;
    return seconds * 1000.0;
}

void report(const char* stage, uint64_t done, uint64_t total)
{
    const double now = Tool::nowMs();
    State& s = s_state;
    if (done == 0 || s.stage != stage)
    {
        Progress::clearLine();
        s = State();
        s.stage = stage;
        s.start = now;
        s.lastShown = now;
        return;
    }
    const bool terminal = onTerminal();
    const bool end = done == total;
    const double elapsed = now - s.start;
    const double pause = pauseMs(terminal);
    if (!s.shown && elapsed < pause)
        return;
    // A bar is redrawn at most ten times a second; a line waits the whole pause.
    if (!end && s.shown && now - s.lastShown < (terminal ? 100.0 : pause))
        return;
    // A stage whose amount is not known counts up instead of filling a bar.
    const int percent = total ? (int)(100.0 * (double)done / (double)total) : -1;
    const std::string count = std::to_string((unsigned long long)done) + " so far";
    if (terminal)
    {
        const int width = 30, filled = percent < 0 ? 0 : width * percent / 100;
        if (percent < 0)
            std::fprintf(stderr, "\r%-12s %-32s %6.1f s\033[K", stage, count.c_str(), elapsed / 1000.0);
        else
            std::fprintf(stderr, "\r%-12s [%s%s] %3d%% %6.1f s\033[K", stage, std::string((size_t)filled, '#').c_str(),
                         std::string((size_t)(width - filled), '.').c_str(), percent, elapsed / 1000.0);
        s.barOpen = true;
        if (end)
            Progress::clearLine();
    }
    else if (end)
        std::fprintf(stderr, "meridbsp: progress: %s done (%.1f s)\n", stage, elapsed / 1000.0);
    else if (percent < 0)
        std::fprintf(stderr, "meridbsp: progress: %s %s (%.1f s)\n", stage, count.c_str(), elapsed / 1000.0);
    else
        std::fprintf(stderr, "meridbsp: progress: %s %d%% (%.1f s)\n", stage, percent, elapsed / 1000.0);
    std::fflush(stderr);
    s.shown = true;
    s.lastShown = now;
}

} // namespace

mrProgress::Callback Progress::callback()
{
    // A worker's result line is the progress of a run over many meshes.
    if (Tool::quiet() || Tool::worker())
        return mrProgress::Callback();
    return report;
}

void Progress::clearLine()
{
    if (!s_state.barOpen)
        return;
    std::fputc('\n', stderr);
    s_state.barOpen = false;
}
