#pragma once

#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/dx/srAssert.h>

// The core library's global object. It must be initialised before modules load.
class mrCore
{
public:
    static int m_initialized;

    static mrCore& instance();
    static void initialize();
    static void shutdown();

    // The IO manager; reported and null while the core is not initialised.
    mrIOManager* getIOManager()
    {
        if (!m_initialized)
        {
            srAssertFail("m_initialized", "mrCore", 22, "mrCore::getIOManager()- mrCore uninitialized!");
            return nullptr;
        }
        return m_ioManager;
    }

private:
    mrCore() = default;
    mrIOManager* m_ioManager = nullptr;
};
