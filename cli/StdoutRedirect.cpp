#include "StdoutRedirect.h"

#include <cstdio>
#include <iostream>

#include <unistd.h>

StdoutRedirect::StdoutRedirect()
{
    std::cout.flush();
    std::fflush(stdout);
    m_saved = ::dup(STDOUT_FILENO);
    if (m_saved >= 0)
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
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
