#pragma once

#include <cstdint>

// A small fixed-sequence generator (splitmix64). The standard library's distributions
// may differ between implementations; this one gives the same meshes, points and
// segments everywhere, so runs on different machines measure the same work.
class BenchRandom
{
public:
    explicit BenchRandom(uint64_t seed) : m_state(seed) {}

    uint64_t next()
    {
        uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, 1), 53 random bits.
    double unit() { return (double)(next() >> 11) * (1.0 / 9007199254740992.0); }
    // Uniform integer in [lo, hi].
    int range(int lo, int hi) { return lo + (int)(next() % (uint64_t)(hi - lo + 1)); }

private:
    uint64_t m_state;
};
