// Chunk files from anywhere: the IO manager with the module's clip BSP handler must
// refuse every broken file with a message and nothing loaded, and whatever it accepts
// must validate, answer queries and save back to the same bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/dx/srCore.h>

#include "FuzzInput.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const unsigned long clipClass = 0x60000;
    size_t before = srCore::instance().getRegistry().numInstances(clipClass);

    std::vector<srClass*> objects;
    std::string error;
    bool ok = FuzzSupport::io().loadBuffer(data, size, objects, &error, "fuzz.mrc");
    if (!ok)
    {
        if (error.rfind("fuzz.mrc: ", 0) != 0)
            FuzzSupport::fail("a failed load must name the file and say why", error);
        if (!objects.empty())
            FuzzSupport::fail("a failed load handed out objects");
    }
    else
    {
        // The queries take their points from the file's own bytes, so interesting
        // coordinates found for one part of the file get tried on the tree too.
        FuzzInput in(data, size);
        for (srClass* o : objects)
        {
            mrClipBSP* bsp = dynamic_cast<mrClipBSP*>(o);
            if (!bsp)
                FuzzSupport::fail("the clip BSP handler produced another class");
            std::string why;
            if (!bsp->validate(&why))
                FuzzSupport::fail("a loaded clip BSP does not validate", why);
            FuzzSupport::checkQueries(*bsp, &in);
            FuzzSupport::checkRoundTrip(*bsp);
        }
        for (srClass* o : objects)
            o->release();
    }
    if (srCore::instance().getRegistry().numInstances(clipClass) != before)
        FuzzSupport::fail("clip BSP instances outlived the load");
    return 0;
}
