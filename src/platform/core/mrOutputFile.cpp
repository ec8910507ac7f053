#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <meridbsp/platform/core/mrOutputFile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::string directoryOf(const std::string& path)
{
    std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

std::string errnoText(const char* what, int error) { return std::string(what) + ": " + std::strerror(error); }

// A chain of symbolic links whose last one points to nothing yet: the path it names is
// where the new file goes.
bool followDangling(std::string path, std::string& end, std::string& error)
{
    for (int hops = 0; hops < 40; ++hops)
    {
        struct stat lst;
        if (::lstat(path.c_str(), &lst) != 0 || !S_ISLNK(lst.st_mode))
        {
            end = path;
            return true;
        }
        std::vector<char> buf(PATH_MAX + 1);
        ssize_t n = ::readlink(path.c_str(), buf.data(), buf.size() - 1);
        if (n < 0)
        {
            error = errnoText("cannot follow the symbolic link", errno);
            return false;
        }
        std::string link(buf.data(), (size_t)n);
        path = link[0] == '/' ? link : directoryOf(path) + "/" + link;
    }
    error = errnoText("cannot follow the symbolic link", ELOOP);
    return false;
}

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0)
    {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= (size_t)n;
    }
    return true;
}

// Copies the finished temporary file into a device, a pipe or a descriptor. A reader that
// goes away must fail the write, not end the process with the temporary file left.
bool copyThrough(const std::string& temp, int out, std::string& error)
{
    int in = ::open(temp.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
    {
        error = errnoText("write failed", errno);
        return false;
    }
    struct sigaction ignore, saved;
    std::memset(&ignore, 0, sizeof ignore);
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &saved);
    std::vector<char> buf(1 << 16);
    bool ok = true;
    for (;;)
    {
        ssize_t n = ::read(in, buf.data(), buf.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || (n > 0 && !writeAll(out, buf.data(), (size_t)n)))
        {
            error = errnoText("write failed", errno);
            ok = false;
            break;
        }
        if (n == 0)
            break;
    }
    ::sigaction(SIGPIPE, &saved, nullptr);
    ::close(in);
    return ok;
}

} // namespace

bool mrOutputFile::resolve(const std::string& path, Target& target, std::string& error)
{
    target = Target();
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
    if (::stat(path.c_str(), &st) != 0)
    {
        int err = errno;
        struct stat lst;
        if (err == ELOOP)
        {
            error = errnoText("cannot follow the symbolic link", err);
            return false;
        }
        if (err == ENOENT && ::lstat(path.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode))
            return followDangling(path, target.path, error);
        target.path = path;
        return true;
    }
    if (S_ISDIR(st.st_mode))
    {
        error = "is a directory, not a file name";
        return false;
    }
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISFIFO(st.st_mode))
    {
        target.kind = KIND_STREAM;
        target.path = path;
        return true;
    }
    if (!S_ISREG(st.st_mode))
    {
        error = std::string("is ") + (S_ISSOCK(st.st_mode) ? "a socket" : "a special file") + ", not a file";
        return false;
    }
    target.exists = true;
    target.mode = st.st_mode & 07777;
    target.device = (unsigned long)st.st_dev;
    target.inode = (unsigned long)st.st_ino;
    struct stat lst;
    if (::lstat(path.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode))
    {
        // The link stays; the file it leads to is the one replaced.
        char* real = ::realpath(path.c_str(), nullptr);
        if (!real)
        {
            error = errnoText("cannot follow the symbolic link", errno);
            return false;
        }
        target.path = real;
        std::free(real);
    }
    else
        target.path = path;
    return true;
}

bool mrOutputFile::check(const std::string& path, std::string& error)
{
    Target target;
    if (!resolve(path, target, error))
        return false;
    if (target.kind != KIND_FILE)
        return true;
    std::string dir = directoryOf(target.path);
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0)
    {
        error = "cannot write into directory " + dir + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode))
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

bool mrOutputFile::writeFile(const std::string& path, const void* data, size_t size, std::string& error)
{
    mrOutputFile out;
    std::string why;
    if (out.open(path, why) && out.write(data, size, why) && out.commit(why))
        return true;
    error = path + ": " + why;
    return false;
}

mrOutputFile::~mrOutputFile() { abandon(); }

bool mrOutputFile::openTemp(const std::string& pattern, bool beside, std::string& error)
{
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0)
    {
        error =
            std::string("cannot create a temporary file") + (beside ? " beside it" : "") + ": " + std::strerror(errno);
        return false;
    }
    if (beside)
    {
        // A replaced file keeps its permissions; a new one gets the usual ones (mkstemp
        // makes the file private).
        mode_t mode = (mode_t)m_mode;
        if (!m_exists)
        {
            mode_t mask = ::umask(0);
            ::umask(mask);
            mode = 0666 & ~mask;
        }
        ::fchmod(fd, mode);
    }
    m_file = ::fdopen(fd, "wb");
    if (!m_file)
    {
        error = std::string("cannot open a temporary file: ") + std::strerror(errno);
        ::close(fd);
        ::unlink(name.data());
        return false;
    }
    m_temp = name.data();
    m_failed = false;
    m_finished = false;
    m_error.clear();
    return true;
}

bool mrOutputFile::open(const std::string& path, std::string& error)
{
    abandon();
    Target target;
    if (!resolve(path, target, error))
        return false;
    m_path = path;
    m_target = target.path;
    m_kind = target.kind;
    m_exists = target.exists;
    m_mode = target.mode;
    m_fd = -1;
    if (m_kind == KIND_FILE)
    {
        std::string::size_type slash = m_target.find_last_of('/');
        std::string dir = slash == std::string::npos ? std::string() : m_target.substr(0, slash + 1);
        std::string base = slash == std::string::npos ? m_target : m_target.substr(slash + 1);
        return openTemp(dir + "." + base + ".tmp.XXXXXX", true, error);
    }
    // A device's directory is no place for a temporary file.
    const char* tmp = std::getenv("TMPDIR");
    return openTemp(std::string(tmp && *tmp ? tmp : "/tmp") + "/meridbsp-output.XXXXXX", false, error);
}

bool mrOutputFile::openDescriptor(int fd, const std::string& name, std::string& error)
{
    abandon();
    m_path = name;
    m_target = name;
    m_kind = KIND_DESCRIPTOR;
    m_fd = fd;
    const char* tmp = std::getenv("TMPDIR");
    return openTemp(std::string(tmp && *tmp ? tmp : "/tmp") + "/meridbsp-output.XXXXXX", false, error);
}

bool mrOutputFile::write(const void* data, size_t size, std::string& error)
{
    if (!m_file)
    {
        error = "write failed: the file is not open";
        return false;
    }
    if (size > 0 && std::fwrite(data, 1, size, m_file) != size)
    {
        if (!m_failed)
            m_error = errnoText("write failed", errno);
        m_failed = true;
        error = m_error;
        return false;
    }
    return true;
}

bool mrOutputFile::closeTemp(std::string& error)
{
    if (!m_file)
        return !m_temp.empty();
    bool ok = std::fflush(m_file) == 0 && !std::ferror(m_file);
    int saved = errno;
    // A file renamed over another must be on disk first, or a crash could leave it empty.
    if (ok && m_kind == KIND_FILE && ::fsync(::fileno(m_file)) != 0)
    {
        ok = false;
        saved = errno;
    }
    if (std::fclose(m_file) != 0 && ok)
    {
        ok = false;
        saved = errno;
    }
    m_file = nullptr;
    if (!ok)
    {
        m_failed = true;
        error = errnoText("write failed", saved);
    }
    return ok;
}

bool mrOutputFile::finish(std::string& error)
{
    if (m_temp.empty())
    {
        error = "nothing to write";
        return false;
    }
    if (!closeTemp(error) || m_failed)
    {
        // The first failure says why; a later flush may only find the error flag set.
        if (!m_error.empty())
            error = m_error;
        else if (error.empty())
            error = "write failed";
        abandon();
        return false;
    }
    if (m_kind != KIND_DESCRIPTOR)
    {
        // Checked again: the path may have changed while the output was made.
        Target target;
        if (!resolve(m_path, target, error))
        {
            abandon();
            return false;
        }
        if (target.kind != m_kind || target.path != m_target)
        {
            error = "the path changed while the output was written";
            abandon();
            return false;
        }
    }
    m_finished = true;
    return true;
}

bool mrOutputFile::install(std::string& error)
{
    if (!m_finished)
    {
        error = "the output is not finished";
        abandon();
        return false;
    }
    bool ok = true;
    if (m_kind == KIND_FILE)
    {
        if (std::rename(m_temp.c_str(), m_target.c_str()) != 0)
        {
            error = errnoText("cannot rename the finished file into place", errno);
            ok = false;
        }
        else
            m_temp.clear();
    }
    else if (m_kind == KIND_DESCRIPTOR)
        ok = copyThrough(m_temp, m_fd, error);
    else
    {
        // Opening a named pipe waits for its reader, as any writer does.
        int out = ::open(m_target.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (out < 0)
        {
            error = errnoText("write failed", errno);
            ok = false;
        }
        else
        {
            ok = copyThrough(m_temp, out, error);
            if (::close(out) != 0 && ok)
            {
                error = errnoText("write failed", errno);
                ok = false;
            }
        }
    }
    m_finished = false;
    abandon();
    return ok;
}

bool mrOutputFile::commit(std::string& error) { return finish(error) && install(error); }

void mrOutputFile::abandon()
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
    m_finished = false;
}
