#pragma once

#include <meridbsp/platform/dx/srClassSupport.h>

// Interface of a material, the base of the geometry library's materials.
class srMaterialIFace : public srClassSupport<srMaterialIFace, srClass, 1, 0x2200>
{
public:
    static const char* sGetClassName() { return "srMaterialIFace"; }
};
