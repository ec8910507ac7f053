#include "AtomicFile.h"

#include <cstdio>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::vector<std::pair<unsigned long, unsigned long>>& protectedFiles()
{
    static std::vector<std::pair<unsigned long, unsigned long>> files;
    return files;
}

bool toStdout(const std::string& path)
{
    if (path == "-")
        return true;
    struct stat st, out;
    return ::stat(path.c_str(), &st) == 0 && ::fstat(STDOUT_FILENO, &out) == 0 && out.st_dev == st.st_dev &&
           out.st_ino == st.st_ino;
}

// The library's verdict on the path, and the tool's own: an input is never an output.
bool resolve(const std::string& path, mrOutputFile::Target& target, std::string& error)
{
    if (!mrOutputFile::resolve(path, target, error))
        return false;
    for (const auto& input : protectedFiles())
    {
        if (target.exists && input.first == target.device && input.second == target.inode)
        {
            error = "refusing to overwrite the input file";
            return false;
        }
    }
    return true;
}

} // namespace

void AtomicFile::protectInput(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) == 0)
        protectedFiles().emplace_back((unsigned long)st.st_dev, (unsigned long)st.st_ino);
}

bool AtomicFile::checkTarget(const std::string& path, std::string& error)
{
    mrOutputFile::Target target;
    return toStdout(path) || (resolve(path, target, error) && mrOutputFile::check(path, error));
}

bool AtomicFile::isStdout(const std::string& path) { return !path.empty() && toStdout(path); }

bool AtomicFile::open(const std::string& path, std::string& error)
{
    m_path = path;
    if (toStdout(path))
    {
        m_kind = KIND_STDOUT;
        return m_out.openDescriptor(STDOUT_FILENO, path, error);
    }
    mrOutputFile::Target target;
    if (!resolve(path, target, error))
        return false;
    m_kind = target.kind == mrOutputFile::KIND_STREAM ? KIND_STREAM : KIND_FILE;
    return m_out.open(path, error);
}

bool AtomicFile::install(std::string& error)
{
    // What the tool printed before goes first.
    if (m_kind == KIND_STDOUT)
        std::fflush(stdout);
    return m_out.install(error);
}
