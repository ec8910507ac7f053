// The module's entry point: the engine's loader calls it after loading the module and
// before unloading it.

#include <meridbsp/io/mrClipBSPIOHandler.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/dx/srOutput.h>

namespace
{
const unsigned long kClipBSPClassID = 0x60000;

void attach()
{
    srOut << "Registering MeridBSP ClassIO Handlers" << '\n';
    mrClipBSPIOHandler* handler = new mrClipBSPIOHandler;
    // getIOManager reports an uninitialised core itself; without a manager there is
    // nowhere to register, and the handler must not leak.
    mrIOManager* manager = mrCore::instance().getIOManager();
    if (!manager)
    {
        delete handler;
        return;
    }
    manager->registerHandler(handler);
}

void detach()
{
    srOut << "Unregistering Meridane ClassIO Handlers" << '\n';
    mrIOManager* manager = mrCore::instance().getIOManager();
    if (!manager)
        return;
    // The manager destroys the handler it removes.
    manager->removeHandler(kClipBSPClassID);
}
} // namespace

extern "C" __attribute__((visibility("default"))) int MeridBSPEntry(void* module, unsigned long reason, void* reserved)
{
    (void)module;
    (void)reserved;
    switch (reason)
    {
    case 1: // process attach
        attach();
        break;
    case 0: // process detach
        detach();
        break;
    default: // thread attach (2) and detach (3): nothing to do
        break;
    }
    return 1;
}
