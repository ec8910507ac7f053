#pragma once

#include <meridbsp/platform/dx/srRegistry.h>

// The rendering library's core object: it holds the run-time class registry.
class srCore
{
public:
    static srCore& instance();
    srRegistry& getRegistry() { return m_registry; }

private:
    srCore() = default;
    srRegistry m_registry;
};
