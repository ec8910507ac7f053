#include "AtomicFile.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::vector<std::pair<dev_t, ino_t>>& protectedFiles()
{
    static std::vector<std::pair<dev_t, ino_t>> files;
    return files;
}

std::string directoryOf(const std::string& path)
{
    std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

std::string baseOf(const std::string& path)
{
    std::string::size_type slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

void AtomicFile::protectInput(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) == 0)
        protectedFiles().emplace_back(st.st_dev, st.st_ino);
}

bool AtomicFile::checkTarget(const std::string& path, std::string& error)
{
    if (path.empty())
    {
        error = "empty output path";
        return false;
    }
    if (path.back() == '/')
    {
        error = "is a directory, not a file name";
        return false;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) == 0)
    {
        if (S_ISDIR(st.st_mode))
        {
            error = "is a directory, not a file name";
            return false;
        }
        for (const auto& input : protectedFiles())
        {
            if (input.first == st.st_dev && input.second == st.st_ino)
            {
                error = "refusing to overwrite the input file";
                return false;
            }
        }
    }
    std::string dir = directoryOf(path);
    struct stat dst;
    if (::stat(dir.c_str(), &dst) != 0)
    {
        error = "cannot write into directory " + dir + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISDIR(dst.st_mode))
    {
        error = "cannot write into " + dir + ": not a directory";
        return false;
    }
    if (::access(dir.c_str(), W_OK | X_OK) != 0)
    {
        error = "cannot write into directory " + dir + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

AtomicFile::~AtomicFile() { abandon(); }

bool AtomicFile::open(const std::string& path, std::string& error)
{
    abandon();
    if (!checkTarget(path, error))
        return false;
    std::string::size_type slash = path.find_last_of('/');
    std::string prefix = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    std::string pattern = prefix + "." + baseOf(path) + ".tmp.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0)
    {
        error = std::string("cannot create a temporary file beside it: ") + std::strerror(errno);
        return false;
    }
    // mkstemp makes the file private; an output should get the usual permissions.
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    m_file = ::fdopen(fd, "wb");
    if (!m_file)
    {
        error = std::string("cannot open a temporary file: ") + std::strerror(errno);
        ::close(fd);
        ::unlink(name.data());
        return false;
    }
    m_path = path;
    m_temp = name.data();
    m_failed = false;
    return true;
}

bool AtomicFile::closeTemp(std::string& error)
{
    if (!m_file)
        return !m_temp.empty();
    bool ok = std::fflush(m_file) == 0 && !std::ferror(m_file);
    int saved = errno;
    if (std::fclose(m_file) != 0)
    {
        ok = false;
        saved = errno;
    }
    m_file = nullptr;
    if (!ok)
    {
        m_failed = true;
        error = std::string("write failed: ") + std::strerror(saved);
    }
    return ok;
}

bool AtomicFile::commit(std::string& error)
{
    if (m_temp.empty())
    {
        error = "nothing to write";
        return false;
    }
    if (!closeTemp(error) || m_failed)
    {
        abandon();
        return false;
    }
    // The check is repeated: the target may have changed while the output was made.
    if (!checkTarget(m_path, error))
    {
        abandon();
        return false;
    }
    if (std::rename(m_temp.c_str(), m_path.c_str()) != 0)
    {
        error = std::string("cannot rename the finished file into place: ") + std::strerror(errno);
        abandon();
        return false;
    }
    m_temp.clear();
    return true;
}

void AtomicFile::abandon()
{
    if (m_file)
    {
        std::fclose(m_file);
        m_file = nullptr;
    }
    if (!m_temp.empty())
    {
        ::unlink(m_temp.c_str());
        m_temp.clear();
    }
}
