#pragma once

#include <meridbsp/platform/dx/srClassSupport.h>

// Base of the rendering library's models.
class srModel : public srClassSupport<srModel, srClass, 1, 0x2000>
{
public:
    static const char* sGetClassName() { return "srModel"; }
};
