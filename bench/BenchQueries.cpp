#include "BenchQueries.h"

#include "BenchRandom.h"

BenchQueries::BenchQueries(const srVector3T<float>& mins, const srVector3T<float>& maxs, size_t count, uint64_t seed)
{
    double lo[3], hi[3];
    for (int a = 0; a < 3; ++a)
    {
        const double extent = (double)maxs[a] - (double)mins[a];
        lo[a] = (double)mins[a] - 0.05 * extent;
        hi[a] = (double)maxs[a] + 0.05 * extent;
    }
    BenchRandom rnd(seed);
    auto draw = [&]()
    {
        srVector3T<float> p;
        for (int a = 0; a < 3; ++a)
            p[a] = (float)(lo[a] + rnd.unit() * (hi[a] - lo[a]));
        return p;
    };
    m_points.reserve(count);
    for (size_t i = 0; i < count; ++i)
        m_points.push_back(draw());
    m_segStart.reserve(count);
    m_segEnd.reserve(count);
    for (size_t i = 0; i < count; ++i)
    {
        m_segStart.push_back(draw());
        m_segEnd.push_back(draw());
    }
}
