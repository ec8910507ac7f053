#include <meridbsp/platform/core/mrCore.h>

int mrCore::m_initialized = 0;

mrCore& mrCore::instance()
{
    // Never destroyed, like the registry: modules may unload during static destruction.
    static mrCore* core = new mrCore;
    return *core;
}

void mrCore::initialize()
{
    mrCore& core = instance();
    if (!core.m_ioManager)
        core.m_ioManager = new mrIOManager;
    m_initialized = 1;
}

void mrCore::shutdown()
{
    mrCore& core = instance();
    m_initialized = 0;
    delete core.m_ioManager;
    core.m_ioManager = nullptr;
}
