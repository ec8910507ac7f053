#pragma once

#include <meridbsp/platform/dx/srMaterialIFace.h>

class srMaterial : public srClassSupport<srMaterial, srMaterialIFace, 1, 0x2210>
{
public:
    static const char* sGetClassName() { return "srMaterial"; }
};
