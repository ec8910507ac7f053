#pragma once

#include <string>

// Loads a module (a shared library) into the process and runs its entry point the way
// the engine does: "MeridBSPEntry" with reason 1 after loading and reason 0 before
// unloading. One module per loader; the destructor unloads it.
class mrModuleLoader
{
public:
    typedef int (*EntryPoint)(void* module, unsigned long reason, void* reserved);

    enum e_reason
    {
        REASON_PROCESS_DETACH = 0,
        REASON_PROCESS_ATTACH = 1,
        REASON_THREAD_ATTACH = 2,
        REASON_THREAD_DETACH = 3,
    };

    mrModuleLoader() = default;
    ~mrModuleLoader();
    mrModuleLoader(const mrModuleLoader&) = delete;
    mrModuleLoader& operator=(const mrModuleLoader&) = delete;

    // Opens the library, finds its entry point and calls it with reason 1. False with a
    // message in *error when the file is missing, cannot be loaded or has no entry point,
    // or when this loader already holds a module.
    bool load(const std::string& path, std::string* error);
    // Calls the entry point with reason 0 and closes the library; nothing when none is loaded.
    void unload();
    // Passes another reason to the loaded module's entry point; 0 when none is loaded.
    int notify(unsigned long reason);

    bool isLoaded() const { return m_handle != nullptr; }
    const std::string& path() const { return m_path; }

private:
    void* m_handle = nullptr;
    EntryPoint m_entry = nullptr;
    std::string m_path;
};
