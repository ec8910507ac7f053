#pragma once

#include <meridbsp/platform/dx/srTextureIFace.h>

// A named texture. Only its name matters to the BSP pipelines.
class srTexture : public srClassSupport<srTexture, srTextureIFace, 1, 0x3010>
{
public:
    static const char* sGetClassName() { return "srTexture"; }

    srTexture() = default;
    explicit srTexture(const char* name) { setName(name); }
};
