#pragma once

// The engine's assertion routine. A report carries the expression text ("0" for a
// report with only a message), the source name, the line and an optional message.
// The default handler prints one line to stderr and returns, so the caller goes on.
void srAssertFail(const char* expression, const char* source, long line, const char* message);

typedef void (*srAssertHandler)(const char* expression, const char* source, long line, const char* message);

// Installs a handler (null restores the default); returns the previous one.
srAssertHandler srSetAssertHandler(srAssertHandler handler);

// Installs a handler for the reports made on the calling thread only, in place of the
// process's (null: the process's again); returns the previous one. Reports it takes are
// not counted: work run on other threads keeps its reports this way and files them later,
// in order, through srAssertFail.
srAssertHandler srSetThreadAssertHandler(srAssertHandler handler);

// Number of reports since the process started (any handler).
unsigned long srAssertCount();
