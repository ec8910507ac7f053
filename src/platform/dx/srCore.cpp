#include <meridbsp/platform/dx/srCore.h>

srCore& srCore::instance()
{
    // Never destroyed: objects may unregister from static destructors at exit.
    static srCore* core = new srCore;
    return *core;
}
