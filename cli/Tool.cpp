#include "Tool.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

int Tool::fail(const std::string& subject, const std::string& what)
{
    std::fprintf(stderr, "meridbsp: error: %s: %s\n", subject.c_str(), what.c_str());
    return EXIT_BAD_INPUT;
}

int Tool::fail(const std::string& message)
{
    std::fprintf(stderr, "meridbsp: error: %s\n", message.c_str());
    return EXIT_BAD_INPUT;
}

int Tool::usage(const std::string& message)
{
    std::fprintf(stderr, "meridbsp: error: %s\nRun with --help for more information.\n", message.c_str());
    return EXIT_USAGE;
}

bool Tool::parseFloat(const std::string& text, float& value)
{
    if (text.empty() || text.find_first_of(" \t\n\r\f\v") != std::string::npos)
        return false;
    errno = 0;
    char* end = nullptr;
    float v = std::strtof(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !std::isfinite(v))
        return false;
    value = v;
    return true;
}

bool Tool::parseFloatList(const std::string& text, size_t count, float* values)
{
    size_t start = 0;
    for (size_t i = 0; i < count; ++i)
    {
        size_t comma = text.find(',', start);
        bool last = i + 1 == count;
        if (last != (comma == std::string::npos))
            return false;
        std::string item = text.substr(start, last ? std::string::npos : comma - start);
        if (!parseFloat(item, values[i]))
            return false;
        start = comma + 1;
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
