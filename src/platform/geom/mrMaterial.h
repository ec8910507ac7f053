#pragma once

#include <meridbsp/platform/core/mrParamBlock.h>
#include <meridbsp/platform/dx/srMaterial.h>

// A material with two RGBA colours and a flag word.
class mrMaterial : public srClassSupport<mrMaterial, srMaterial, 1, 0x20200>, public mrParamBlock
{
public:
    static const char* sGetClassName() { return "mrMaterial"; }

    mrMaterial();
    ~mrMaterial() override;

    float m_color0[4];
    float m_color1[4];
    unsigned int m_flags;
};
