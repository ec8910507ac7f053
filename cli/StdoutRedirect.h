#pragma once

// While it lives, everything written to the process's standard output (descriptor 1,
// whether through stdio or iostreams) goes to standard error with --verbose, and nowhere
// otherwise. The library prints a log line there, and a command's own output must stay
// machine-readable.
class StdoutRedirect
{
public:
    StdoutRedirect();
    ~StdoutRedirect();
    StdoutRedirect(const StdoutRedirect&) = delete;
    StdoutRedirect& operator=(const StdoutRedirect&) = delete;

private:
    int m_saved;
};
