#pragma once

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

    // A whole token as a finite 32-bit float (read directly as float, so the value is
    // the one nearest the decimal text). False for empty, partial, non-finite or
    // out-of-range text.
    static bool parseFloat(const std::string& text, float& value);
    // Exactly `count` comma-separated floats ("1,2,3").
    static bool parseFloatList(const std::string& text, size_t count, float* values);
    // Splits a line on blanks and tabs.
    static std::vector<std::string> splitWords(const std::string& line);

    // Floats in every output: "%.9g", enough digits to read the same float back.
    static std::string g9(double value);
    // Wall-clock milliseconds since an arbitrary start.
    static double nowMs();
    // `name` inside `dir` ("." and "" mean the current directory).
    static std::string joinPath(const std::string& dir, const std::string& name);
};
