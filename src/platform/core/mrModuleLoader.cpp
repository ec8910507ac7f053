#include <cerrno>
#include <cstring>

#include <dlfcn.h>
#include <meridbsp/platform/core/mrModuleLoader.h>
#include <sys/stat.h>

namespace
{
void setError(std::string* error, const std::string& message)
{
    if (error)
        *error = message;
}
} // namespace

mrModuleLoader::~mrModuleLoader() { unload(); }

bool mrModuleLoader::load(const std::string& path, std::string* error)
{
    if (m_handle)
    {
        setError(error, "cannot load module " + path + ": this loader already holds module " + m_path);
        return false;
    }
    // Checked first so that a missing file gets a plain message rather than the
    // dynamic linker's.
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
    {
        setError(error, "cannot load module " + path + ": " + std::strerror(errno));
        return false;
    }
    ::dlerror();
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle)
    {
        const char* why = ::dlerror();
        setError(error, "cannot load module " + path + ": " + (why ? why : "unknown reason"));
        return false;
    }
    ::dlerror();
    void* symbol = ::dlsym(handle, "MeridBSPEntry");
    if (!symbol)
    {
        ::dlclose(handle);
        setError(error, "cannot load module " + path + ": it has no entry point \"MeridBSPEntry\"");
        return false;
    }
    m_handle = handle;
    m_path = path;
    // The usual way to turn a symbol address into a function pointer on POSIX systems.
    m_entry = reinterpret_cast<EntryPoint>(symbol);
    m_entry(m_handle, REASON_PROCESS_ATTACH, nullptr);
    return true;
}

void mrModuleLoader::unload()
{
    if (!m_handle)
        return;
    m_entry(m_handle, REASON_PROCESS_DETACH, nullptr);
    ::dlclose(m_handle);
    m_handle = nullptr;
    m_entry = nullptr;
    m_path.clear();
}

int mrModuleLoader::notify(unsigned long reason)
{
    if (!m_handle)
        return 0;
    return m_entry(m_handle, reason, nullptr);
}
