#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <meridbsp/platform/dx/srVector3T.h>

// The query points and segments of one mesh: uniform in the mesh's vertex box grown by
// 5 % of its extent on each side, drawn from a fixed seed and rounded to float, so every
// library (ours and the peers) answers exactly the same questions.
class BenchQueries
{
public:
    BenchQueries(const srVector3T<float>& mins, const srVector3T<float>& maxs, size_t count, uint64_t seed);

    std::vector<srVector3T<float>> m_points;
    // Segment i runs from m_segStart[i] to m_segEnd[i].
    std::vector<srVector3T<float>> m_segStart;
    std::vector<srVector3T<float>> m_segEnd;

    size_t size() const { return m_points.size(); }
};
