#include "Batch.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tool.h"

extern char** environ;

namespace
{

// A worker under way: its process, and the in-memory files that take its standard output
// and error until it ends (so that its lines come out together, never mixed with another's).
struct Worker
{
    const Batch::Item* item = nullptr;
    pid_t pid = -1;
    int out = -1;
    int err = -1;

    void close()
    {
        for (int* fd : {&out, &err})
        {
            if (*fd >= 0)
                ::close(*fd);
            *fd = -1;
        }
    }
};

std::string readAll(int fd)
{
    std::string text;
    if (fd < 0 || ::lseek(fd, 0, SEEK_SET) < 0)
        return text;
    char buf[65536];
    for (;;)
    {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0)
            text.append(buf, (size_t)n);
        else if (n == 0 || errno != EINTR)
            break;
    }
    return text;
}

// The worker's options before the command: --worker, and -q or -v as this run has them.
std::vector<std::string> workerOptions()
{
    std::vector<std::string> options = {"--worker"};
    if (Tool::quiet())
        options.push_back("--quiet");
    if (Tool::verbose())
        options.push_back("--verbose");
    return options;
}

// This program's file. Named through its link rather than run as /proc/self/exe, which under
// a tool such as valgrind is the tool itself.
const std::string& program()
{
    static const std::string path = []
    {
        char buf[4096];
        const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
        return n > 0 ? std::string(buf, (size_t)n) : std::string("/proc/self/exe");
    }();
    return path;
}

// Starts this program again on the item; false with the reason.
bool start(Worker& w, std::string& why)
{
    w.out = ::memfd_create("meridbsp-worker-stdout", MFD_CLOEXEC);
    w.err = ::memfd_create("meridbsp-worker-stderr", MFD_CLOEXEC);
    if (w.out < 0 || w.err < 0)
    {
        why = std::string("cannot keep a worker's output: ") + std::strerror(errno);
        return false;
    }
    std::vector<std::string> args = workerOptions();
    args.insert(args.begin(), "meridbsp");
    args.insert(args.end(), w.item->args.begin(), w.item->args.end());
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, w.out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, w.err, STDERR_FILENO);
    // What this process has printed must not reach the worker's buffers twice.
    std::fflush(stdout);
    std::fflush(stderr);
    const int rc = ::posix_spawn(&w.pid, program().c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
    {
        why = std::string("cannot start a worker: ") + std::strerror(rc);
        return false;
    }
    return true;
}

// The worker's own error lines, without their prefix.
std::string errorsOf(const std::string& err)
{
    static const std::string prefix = "meridbsp: error: ";
    std::string errors;
    for (std::string::size_type at = 0; at < err.size();)
    {
        std::string::size_type end = err.find('\n', at);
        if (end == std::string::npos)
            end = err.size();
        if (err.compare(at, prefix.size(), prefix) == 0)
            errors += (errors.empty() ? "" : "; ") + err.substr(at + prefix.size(), end - at - prefix.size());
        at = end + 1;
    }
    return errors;
}

// Tells how the worker of `item` ended (status as waitpid gives it; -1: it never started,
// for the reason in `why`); true when the mesh was built.
bool finish(const Batch::Item& item, int status, const std::string& why, const std::string& out, const std::string& err,
            bool json, const Batch::Summary& summary)
{
    std::fwrite(err.data(), 1, err.size(), stderr);
    nlohmann::ordered_json result;
    std::string error;
    bool said = false; // the worker has printed the error itself
    if (status < 0)
        error = item.mesh + ": " + why;
    else if (WIFSIGNALED(status))
        error = item.mesh + ": the worker was ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
                strsignal(WTERMSIG(status)) + ")";
    else
    {
        if (WEXITSTATUS(status) != 0)
            error = errorsOf(err);
        else
            result = nlohmann::ordered_json::parse(out, nullptr, false);
        said = !error.empty();
        if (error.empty() && !result.is_object())
            error = item.mesh + ": the worker ended with exit code " + std::to_string(WEXITSTATUS(status)) +
                    " and no result to read";
    }
    const bool ok = error.empty();
    if (!ok && !said)
        Tool::fail(error);
    std::fflush(stderr);

    if (json)
    {
        nlohmann::ordered_json j;
        j["mesh"] = item.mesh;
        j["ok"] = ok;
        if (ok)
            for (auto& field : result.items())
                j[field.key()] = field.value();
        else
            j["error"] = error;
        std::fprintf(stdout, "%s\n", j.dump().c_str());
    }
    else if (ok && !Tool::quiet())
        std::fprintf(stdout, "%s: %s\n", item.mesh.c_str(), summary(result).c_str());
    std::fflush(stdout);
    return ok;
}

} // namespace

Batch::Shape Batch::shape(size_t items, int jobs, int threads, int cores)
{
    cores = std::max(1, cores);
    if (jobs <= 0)
        jobs = threads > 0 ? std::max(1, cores / threads) : cores;
    Shape s;
    s.jobs = (int)std::max<size_t>(1, std::min<size_t>((size_t)jobs, items));
    s.threads = threads > 0 ? threads : std::max(1, cores / s.jobs);
    return s;
}

std::vector<std::string> Batch::run(const std::vector<Item>& items, int jobs, bool json, const Summary& summary)
{
    std::vector<bool> built(items.size(), false);
    auto ended =
        [&](const Item& item, int status, const std::string& why, const std::string& out, const std::string& err)
    { built[(size_t)(&item - items.data())] = finish(item, status, why, out, err, json, summary); };
    std::vector<Worker> running;
    size_t next = 0;
    while (next < items.size() || !running.empty())
    {
        while (next < items.size() && running.size() < (size_t)std::max(1, jobs))
        {
            Worker w;
            w.item = &items[next++];
            std::string why;
            if (start(w, why))
            {
                running.push_back(w);
                continue;
            }
            w.close();
            ended(*w.item, -1, why, std::string(), std::string());
        }
        if (running.empty())
            continue;
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid < 0 && errno == EINTR)
            continue;
        if (pid < 0)
        {
            // No worker left to wait for, though some were never seen to end.
            const std::string why = std::string("lost its worker: ") + std::strerror(errno);
            for (Worker& w : running)
            {
                ended(*w.item, -1, why, std::string(), readAll(w.err));
                w.close();
            }
            running.clear();
            continue;
        }
        auto w = std::find_if(running.begin(), running.end(), [&](const Worker& r) { return r.pid == pid; });
        if (w == running.end())
            continue;
        ended(*w->item, status, std::string(), readAll(w->out), readAll(w->err));
        w->close();
        running.erase(w);
    }
    std::vector<std::string> failed;
    for (size_t i = 0; i < items.size(); ++i)
        if (!built[i])
            failed.push_back(items[i].mesh);
    return failed;
}
