#pragma once

#include <meridbsp/platform/dx/srClassSupport.h>

// Interface of a texture. Its name (srRuntimeClass::getName) is the name it was loaded under.
class srTextureIFace : public srClassSupport<srTextureIFace, srClass, 1, 0x3000>
{
public:
    static const char* sGetClassName() { return "srTextureIFace"; }
};
