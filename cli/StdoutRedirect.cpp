#include "StdoutRedirect.h"

#include <cstdio>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

#include "Progress.h"
#include "Tool.h"

StdoutRedirect::StdoutRedirect()
{
    std::cout.flush();
    std::fflush(stdout);
    m_saved = ::dup(STDOUT_FILENO);
    if (m_saved < 0)
        return;
    if (Tool::verbose())
    {
        Progress::clearLine();
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        return;
    }
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0)
    {
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
}

StdoutRedirect::~StdoutRedirect()
{
    std::cout.flush();
    std::fflush(stdout);
    if (m_saved >= 0)
    {
        ::dup2(m_saved, STDOUT_FILENO);
        ::close(m_saved);
    }
}
