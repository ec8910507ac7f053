#include "AtomicFile.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
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

std::string errnoText(const char* what, int error) { return std::string(what) + ": " + std::strerror(error); }

bool sameAsStdout(const struct stat& st)
{
    struct stat out;
    return ::fstat(STDOUT_FILENO, &out) == 0 && out.st_dev == st.st_dev && out.st_ino == st.st_ino;
}

// Where an output path leads.
struct Target
{
    AtomicFile::e_kind kind = AtomicFile::KIND_FILE;
    std::string path; // the file to replace or create, or the device to write into
    bool exists = false;
    mode_t mode = 0;
};

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

bool resolve(const std::string& path, Target& target, std::string& error)
{
    target = Target();
    if (path.empty())
    {
        error = "empty output path";
        return false;
    }
    if (path == "-")
    {
        target.kind = AtomicFile::KIND_STDOUT;
        target.path = path;
        return true;
    }
    if (path.back() == '/')
    {
        error = "is a directory, not a file name";
        return false;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) == 0)
    {
        if (sameAsStdout(st))
        {
            target.kind = AtomicFile::KIND_STDOUT;
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
            target.kind = AtomicFile::KIND_STREAM;
            target.path = path;
            return true;
        }
        if (!S_ISREG(st.st_mode))
        {
            error = std::string("is ") + (S_ISSOCK(st.st_mode) ? "a socket" : "a special file") + ", not a file";
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
        target.exists = true;
        target.mode = st.st_mode & 07777;
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
    }
    else
    {
        int err = errno;
        struct stat lst;
        if (err == ELOOP)
        {
            error = errnoText("cannot follow the symbolic link", err);
            return false;
        }
        if (err == ENOENT && ::lstat(path.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode))
        {
            if (!followDangling(path, target.path, error))
                return false;
        }
        else
            target.path = path;
    }

    std::string dir = directoryOf(target.path);
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

// Copies the finished temporary file into a device, a pipe or standard output. A reader
// that goes away must fail the write, not end the process with the temporary file left.
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
        if (n < 0)
        {
            error = errnoText("write failed", errno);
            ok = false;
            break;
        }
        if (n == 0)
            break;
        if (!writeAll(out, buf.data(), (size_t)n))
        {
            error = errnoText("write failed", errno);
            ok = false;
            break;
        }
    }
    ::sigaction(SIGPIPE, &saved, nullptr);
    ::close(in);
    return ok;
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
    Target target;
    return resolve(path, target, error);
}

bool AtomicFile::isStdout(const std::string& path)
{
    Target target;
    std::string error;
    return resolve(path, target, error) && target.kind == KIND_STDOUT;
}

AtomicFile::~AtomicFile() { abandon(); }

bool AtomicFile::open(const std::string& path, std::string& error)
{
    abandon();
    Target target;
    if (!resolve(path, target, error))
        return false;
    std::string pattern;
    if (target.kind == KIND_FILE)
    {
        std::string::size_type slash = target.path.find_last_of('/');
        std::string prefix = slash == std::string::npos ? std::string() : target.path.substr(0, slash + 1);
        pattern = prefix + "." + baseOf(target.path) + ".tmp.XXXXXX";
    }
    else
    {
        // A device's directory is no place for a temporary file.
        const char* dir = std::getenv("TMPDIR");
        pattern = std::string(dir && *dir ? dir : "/tmp") + "/meridbsp-output.XXXXXX";
    }
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd < 0)
    {
        error = std::string("cannot create a temporary file") + (target.kind == KIND_FILE ? " beside it" : "") + ": " +
                std::strerror(errno);
        return false;
    }
    if (target.kind == KIND_FILE)
    {
        // A replaced file keeps its permissions; a new one gets the usual ones (mkstemp
        // makes the file private).
        mode_t mode = target.mode;
        if (!target.exists)
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
    m_path = path;
    m_target = target.path;
    m_kind = target.kind;
    m_temp = name.data();
    m_failed = false;
    m_finished = false;
    m_error.clear();
    return true;
}

bool AtomicFile::write(const void* data, size_t size, std::string& error)
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
        error = errnoText("write failed", saved);
    }
    return ok;
}

bool AtomicFile::finish(std::string& error)
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
    m_finished = true;
    return true;
}

bool AtomicFile::install(std::string& error)
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
    else if (m_kind == KIND_STDOUT)
    {
        std::fflush(stdout);
        ok = copyThrough(m_temp, STDOUT_FILENO, error);
    }
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

bool AtomicFile::commit(std::string& error) { return finish(error) && install(error); }

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
    m_finished = false;
}
