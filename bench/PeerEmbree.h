#pragma once

#include <cstdint>
#include <vector>

#include <embree3/rtcore.h>

class BenchMesh;

// The ray-tracing kernel peer: one triangle geometry per scene, a device limited to one
// thread. Segment queries take the first hit in [0, 1] of start + t (end − start); the
// inside test counts the crossings of one ray from the point by parity.
class PeerEmbree
{
public:
    // The device is made once per process, outside every timing, with threads=1.
    static RTCDevice device();
    static void releaseDevice();

    // Builds (and commits) a scene of the mesh's triangles. With `insideFilter` the
    // geometry carries the filter that records and rejects every hit, for inside().
    static RTCScene buildScene(const BenchMesh& mesh, bool insideFilter);

    explicit PeerEmbree(BenchMesh& mesh);
    ~PeerEmbree();
    PeerEmbree(const PeerEmbree&) = delete;
    PeerEmbree& operator=(const PeerEmbree&) = delete;

    // True when the segment from a to b meets a triangle.
    bool segment(const float* a, const float* b) const;
    // True when the point lies inside the closed mesh by ray parity.
    bool inside(const float* p);

    // Flush-to-zero and denormals-are-zero on for the lifetime of the guard (the kernel's
    // recommended setting; our own benchmarks run without it).
    class FlushDenormals
    {
    public:
        FlushDenormals();
        ~FlushDenormals();

    private:
        unsigned int m_saved;
    };

    // One recorded crossing of the parity ray.
    struct Crossing
    {
        float t;
        int8_t facing; // +1 leaving through the front side, -1 entering
        uint32_t prim;
    };

private:
    RTCScene m_segmentScene;
    RTCScene m_insideScene;
    // Per triangle: does the parity ray leave (+1) or enter (-1) through it.
    std::vector<int8_t> m_facing;
    std::vector<Crossing> m_crossings;
};
