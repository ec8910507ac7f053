#pragma once

#include <meridbsp/platform/core/mrProgress.h>

// Shows how far long work has got, on standard error. On a terminal: one bar per stage,
// redrawn in place with its percentage (or, when the amount of work is not known, the
// count so far) and elapsed time, once the stage has run for half a second (quick runs
// show nothing). Elsewhere (a pipe, a file): a line every few seconds
// per stage and one when it ends. Nothing under --quiet, nor in the workers of a run over
// many meshes, whose result lines tell how far it has got.
//
// MERIDBSP_PROGRESS_SECONDS overrides the pause before the first bar or line and between
// lines (0: every report).
class Progress
{
public:
    // The callback for the pipelines' settings and mrProgress::Stage: empty under --quiet.
    static mrProgress::Callback callback();
    // Ends a bar being drawn, so that a message starts on a line of its own.
    static void clearLine();
};
