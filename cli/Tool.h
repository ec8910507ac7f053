#pragma once

#include <cstdio>
#include <string>
#include <vector>

// What every command of the tool shares: its exit codes, the one error format scripts
// parse, and strict number reading and writing.
class Tool
{
public:
    enum e_exit
    {
        EXIT_OK = 0,
        EXIT_BAD_INPUT = 1, // a file, a mesh or a line of input is wrong
        EXIT_USAGE = 2      // the command line is wrong
    };

    // "meridbsp: error: SUBJECT: WHAT" on stderr; returns EXIT_BAD_INPUT.
    static int fail(const std::string& subject, const std::string& what);
    // "meridbsp: error: MESSAGE" on stderr (the message already names its subject).
    static int fail(const std::string& message);
    // A usage error: the message and a hint to --help; returns EXIT_USAGE.
    static int usage(const std::string& message);
    // "meridbsp: warning: MESSAGE" on stderr (not under --quiet).
    static void warn(const std::string& message);
    // "meridbsp: note: MESSAGE" on stderr (not under --quiet).
    static void note(const std::string& message);

    // How much the tool says besides its results and errors: -1 --quiet (nothing), 0 the
    // default (warnings, notes, progress), 1 --verbose (also the library's log lines).
    static void setVerbosity(int level);
    static bool quiet();
    static bool verbose();

    // A worker of a run over many meshes (see Batch): it shows no progress, and its
    // warnings and notes name the mesh given to setSubject(), as its errors already do.
    static void setWorker(bool worker);
    static bool worker();
    static void setSubject(const std::string& mesh);

    // Where a command's report goes: standard output, or standard error once an output
    // file has been sent to standard output.
    static FILE* out();
    static void reportToStderr();

    // A whole token as a finite 32-bit float (read directly as float, so the value is
    // the one nearest the decimal text). False for empty, partial, non-finite or
    // out-of-range text.
    static bool parseFloat(const std::string& text, float& value);
    // The same with the reason: "malformed number 'x'" or "'1e40' is not a finite float".
    static bool parseFloat(const std::string& text, float& value, std::string& why);
    // Exactly `count` floats separated by commas, blanks or both ("1,2,3", "1 2 3",
    // "1, 2, 3"), the same wherever the tool takes a vector; false with the reason.
    static bool parseVector(const std::string& text, size_t count, float* values, std::string& why);
    // Splits a line on blanks and tabs.
    static std::vector<std::string> splitWords(const std::string& line);

    // "1 triangle", "3 triangles".
    static std::string count(long n, const char* one, const char* many);
    // A float in every output: the shortest decimal that reads back as the same float,
    // whether read as a float or as a double then rounded to float.
    static std::string real(float value);
    // The same value as a double, for JSON, which then prints it in as few digits.
    static double jsonReal(float value);
    // Doubles the tool computes itself (volumes, means): "%.9g".
    static std::string g9(double value);
    // Wall-clock milliseconds since an arbitrary start.
    static double nowMs();
    // `name` inside `dir` ("." and "" mean the current directory).
    static std::string joinPath(const std::string& dir, const std::string& name);
};
