#pragma once

#include <vector>

#include <meridbsp/platform/core/mrParamBlock.h>

class mrClipBSPIOHandler;

// A parameter block with animation keys: values of fields at points in time.
class mrPBAnimation : public mrParamBlock
{
public:
    struct Key
    {
        float m_time = 0;
        unsigned long m_fieldID = 0;
        srVector3T<float> m_value;
    };

    mrPBAnimation() = default;
    mrPBAnimation(const mrPBAnimation&) = default;
    mrPBAnimation& operator=(const mrPBAnimation&) = default;
    ~mrPBAnimation() override = default;

    float getMaxTime() override;

    std::vector<Key> m_keys;

protected:
    friend class mrClipBSPIOHandler;
    // The animation data as its own chunk (see docs/chunk-format.md); 1 on success.
    int exportPBAnimationData(mrChunkOFStream& stream);
    int importPBAnimationData(mrChunkIFStream& stream);
};
