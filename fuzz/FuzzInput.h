#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Hands out the fuzzer's bytes as small values. Past the end every read gives zero, so
// a short input still describes a complete (small) case.
class FuzzInput
{
public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    size_t remaining() const { return m_size - m_pos; }
    bool empty() const { return m_pos >= m_size; }

    uint8_t byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    uint32_t u32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= (uint32_t)byte() << (8 * i);
        return v;
    }
    // Any bit pattern: NaN, infinities and denormals included.
    float rawFloat()
    {
        uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }
    // A coordinate: mostly small multiples of 1/4 (so planes and points meet exactly and
    // ties are common), sometimes any float at all.
    float coordinate()
    {
        uint8_t kind = byte();
        if (kind < 224)
            return (float)((int)byte() - 128) * 0.25f;
        if (kind < 240)
            return (float)((int)(int16_t)(byte() | (byte() << 8))) * (1.0f / 64.0f);
        return rawFloat();
    }
    // A plane normal component: mostly -1, 0 or 1 and a few simple fractions.
    float normalComponent()
    {
        static const float kValues[] = {0.0f, 1.0f, -1.0f, 0.0f,  0.5f,        -0.5f,        0.70710677f, -0.70710677f,
                                        0.6f, 0.8f, -0.6f, -0.8f, 0.57735026f, -0.57735026f, 0.0f,        1.0f};
        uint8_t b = byte();
        if (b < 240)
            return kValues[b % 16];
        return rawFloat();
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};
