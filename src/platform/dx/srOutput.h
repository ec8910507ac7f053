#pragma once

#include <ostream>

// The engine's output stream. It forwards to a target stream that can be replaced,
// so that a tool can send the log to stderr and a test can read it back.
extern std::ostream srOut;

// Formatted progress output through srOut; returns the number of characters written.
long srPrintf(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// Replaces the stream srOut and srPrintf write to (null: standard error, the default);
// returns the old one.
std::ostream* srSetOutputTarget(std::ostream* target);
std::ostream* srGetOutputTarget();
