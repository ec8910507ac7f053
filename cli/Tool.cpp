#include "Tool.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Progress.h"

namespace
{
int s_verbosity = 0;
bool s_worker = false;
std::string s_subject; // "MESH: " in a worker, else empty
} // namespace

void Tool::setVerbosity(int level) { s_verbosity = level; }

void Tool::setWorker(bool worker) { s_worker = worker; }

bool Tool::worker() { return s_worker; }

void Tool::setSubject(const std::string& mesh) { s_subject = s_worker ? mesh + ": " : std::string(); }

bool Tool::quiet() { return s_verbosity < 0; }

bool Tool::verbose() { return s_verbosity > 0; }

int Tool::fail(const std::string& subject, const std::string& what)
{
    Progress::clearLine();
    std::fprintf(stderr, "meridbsp: error: %s: %s\n", subject.c_str(), what.c_str());
    return EXIT_BAD_INPUT;
}

int Tool::fail(const std::string& message)
{
    Progress::clearLine();
    std::fprintf(stderr, "meridbsp: error: %s\n", message.c_str());
    return EXIT_BAD_INPUT;
}

int Tool::usage(const std::string& message)
{
    Progress::clearLine();
    std::fprintf(stderr, "meridbsp: error: %s\nRun with --help for more information.\n", message.c_str());
    return EXIT_USAGE;
}

void Tool::warn(const std::string& message)
{
    if (quiet())
        return;
    Progress::clearLine();
    std::fprintf(stderr, "meridbsp: warning: %s%s\n", s_subject.c_str(), message.c_str());
}

void Tool::note(const std::string& message)
{
    if (quiet())
        return;
    Progress::clearLine();
    std::fprintf(stderr, "meridbsp: note: %s%s\n", s_subject.c_str(), message.c_str());
}

namespace
{
FILE* s_report = nullptr;
} // namespace

FILE* Tool::out() { return s_report ? s_report : stdout; }

void Tool::reportToStderr() { s_report = stderr; }

bool Tool::parseFloat(const std::string& text, float& value)
{
    std::string why;
    return parseFloat(text, value, why);
}

bool Tool::parseFloat(const std::string& text, float& value, std::string& why)
{
    if (text.empty() || text.find_first_of(" \t\n\r\f\v") != std::string::npos)
    {
        why = "malformed number '" + text + "'";
        return false;
    }
    errno = 0;
    char* end = nullptr;
    float v = std::strtof(text.c_str(), &end);
    if (end != text.c_str() + text.size())
    {
        why = "malformed number '" + text + "'";
        return false;
    }
    if (!std::isfinite(v))
    {
        why = "'" + text + "' is not a finite float";
        return false;
    }
    value = v;
    return true;
}

bool Tool::parseVector(const std::string& text, size_t count, float* values, std::string& why)
{
    // Commas become words of their own; a comma must stand between two numbers.
    std::string spaced;
    for (char c : text)
    {
        if (c == ',')
            spaced += " , ";
        else
            spaced += c;
    }
    std::vector<std::string> words = splitWords(spaced);
    std::vector<std::string> numbers;
    for (size_t i = 0; i < words.size(); ++i)
    {
        if (words[i] != ",")
        {
            numbers.push_back(words[i]);
            continue;
        }
        if (i == 0 || i + 1 == words.size() || words[i - 1] == "," || words[i + 1] == ",")
        {
            why = "a comma without a number on each side";
            return false;
        }
    }
    if (numbers.size() != count)
    {
        why = "expected " + std::to_string(count) + " numbers, found " + std::to_string(numbers.size());
        return false;
    }
    for (size_t i = 0; i < count; ++i)
    {
        if (!parseFloat(numbers[i], values[i], why))
            return false;
    }
    return true;
}

std::vector<std::string> Tool::splitWords(const std::string& line)
{
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size())
    {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
            ++i;
        size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r')
            ++i;
        if (i > start)
            words.push_back(line.substr(start, i - start));
    }
    return words;
}

std::string Tool::count(long n, const char* one, const char* many)
{
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string Tool::real(float value)
{
    char buf[64];
    for (int digits = 1; digits <= 9; ++digits)
    {
        // Nine significant digits always read back; fewer only when both ways of reading
        // them agree on the float.
        std::snprintf(buf, sizeof buf, "%.*g", digits, (double)value);
        if (std::strtof(buf, nullptr) == value && (float)std::strtod(buf, nullptr) == value)
            break;
    }
    // "1e+02" reads back, but people write 100: whole numbers below 1e17 in full.
    const char* e = std::strchr(buf, 'e');
    const int exponent = e ? std::atoi(e + 1) : -1;
    if (exponent >= 0 && exponent < 17)
        std::snprintf(buf, sizeof buf, "%.*g", exponent + 1, (double)value);
    return buf;
}

double Tool::jsonReal(float value) { return std::strtod(real(value).c_str(), nullptr); }

std::string Tool::g9(double value)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.9g", value);
    return buf;
}

double Tool::nowMs()
{
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

std::string Tool::joinPath(const std::string& dir, const std::string& name)
{
    if (dir.empty() || dir == ".")
        return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}
