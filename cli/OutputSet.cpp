#include "OutputSet.h"

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
    return true;
}
