#pragma once

#include <string>

#include <meridbsp/platform/core/mrModuleLoader.h>

class OutputSet;
class mrClipBSP;

// The engine set-up the clip BSP files need: the core initialised and the MeridBSP module
// loaded through its entry point, which registers the clip BSP's file handler. Ends the
// module (and the core) when destroyed.
class ModuleSession
{
public:
    ModuleSession() = default;
    ~ModuleSession();
    ModuleSession(const ModuleSession&) = delete;
    ModuleSession& operator=(const ModuleSession&) = delete;

    // False with a message when the module cannot be loaded.
    bool start(std::string& error);

    // Reads a chunk file that must hold a clip BSP (the first object); the others are
    // released. With `validate`, a clip BSP whose arrays the queries cannot trust is
    // refused. Errors are complete messages naming the file.
    mrClipBSP* load(const std::string& path, bool validate, std::string& error);
    // Saves one clip BSP as a chunk file into a new output of `outputs`.
    bool save(OutputSet& outputs, const std::string& path, mrClipBSP* bsp, std::string& error);

    // The file the module was loaded from: the MeridBSP library this program runs with.
    static std::string modulePath();

private:
    mrModuleLoader m_loader;
    bool m_started = false;
};
