#include "OutputSet.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

OutputSet::~OutputSet()
{
    m_files.clear();
    if (m_committed)
        return;
    for (auto dir = m_madeDirectories.rbegin(); dir != m_madeDirectories.rend(); ++dir)
        ::rmdir(dir->c_str());
}

bool OutputSet::makeDirectory(const std::string& dir, std::string& error)
{
    for (std::string::size_type end = 0; end != std::string::npos;)
    {
        end = dir.find('/', end + 1);
        const std::string part = dir.substr(0, end);
        if (part.empty() || part == "." || part == "..")
            continue;
        struct stat st;
        if (::stat(part.c_str(), &st) == 0)
        {
            if (S_ISDIR(st.st_mode))
                continue;
            error = dir + ": cannot create the directory: " + part + " is not a directory";
            return false;
        }
        if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
        {
            error = dir + ": cannot create the directory: " + std::strerror(errno);
            return false;
        }
        m_madeDirectories.push_back(part);
    }
    return true;
}

int OutputSet::countStdout(const std::vector<std::string>& paths)
{
    int count = 0;
    for (const std::string& path : paths)
        count += !path.empty() && AtomicFile::isStdout(path) ? 1 : 0;
    return count;
}

AtomicFile* OutputSet::open(const std::string& path, std::string& error)
{
    std::unique_ptr<AtomicFile> file(new AtomicFile);
    std::string why;
    if (!file->open(path, why))
    {
        error = path + ": " + why;
        return nullptr;
    }
    m_files.push_back(std::move(file));
    return m_files.back().get();
}

bool OutputSet::writeFile(const std::string& path, const void* data, size_t size, std::string& error)
{
    AtomicFile* file = open(path, error);
    std::string why;
    if (file && !file->write(data, size, why))
        error = path + ": " + why;
    return file && why.empty();
}

bool OutputSet::commit(std::string& error)
{
    std::string why;
    for (std::unique_ptr<AtomicFile>& file : m_files)
    {
        if (!file->finish(why))
        {
            error = file->path() + ": " + why;
            m_files.clear();
            return false;
        }
    }
    for (std::unique_ptr<AtomicFile>& file : m_files)
    {
        if (!file->install(why))
        {
            error = file->path() + ": " + why;
            m_files.clear();
            return false;
        }
    }
    m_files.clear();
    m_committed = true;
    return true;
}
