#include "PeerEmbree.h"

#include <cstdio>
#include <cstdlib>

#include <pmmintrin.h>
#include <xmmintrin.h>

#include "BenchMesh.h"

namespace
{

RTCDevice g_device = nullptr;

// The parity ray's direction: not parallel to any axis plane, so it does not run along
// the walls of the box levels. Not normalised; only its sign against normals matters.
const float kRayDir[3] = {1.0f, 0.7071068f, 0.3183099f};

// The intersection context handed to the filter: the base first, then where the
// crossings go. A query never allocates: the buffer is reserved once.
struct InsideContext
{
    RTCIntersectContext base;
    std::vector<PeerEmbree::Crossing>* crossings;
    const int8_t* facing;
};

void recordAndReject(const RTCFilterFunctionNArguments* args)
{
    InsideContext* ctx = reinterpret_cast<InsideContext*>(args->context);
    for (unsigned int i = 0; i < args->N; ++i)
    {
        if (!args->valid[i])
            continue;
        const uint32_t prim = RTCHitN_primID(args->hit, args->N, i);
        PeerEmbree::Crossing c;
        c.t = RTCRayN_tfar(args->ray, args->N, i);
        c.facing = ctx->facing[prim];
        c.prim = prim;
        if (ctx->crossings->size() < ctx->crossings->capacity())
            ctx->crossings->push_back(c);
        args->valid[i] = 0; // reject: traversal goes on and reports every crossing
    }
}

} // namespace

RTCDevice PeerEmbree::device()
{
    if (!g_device)
    {
        g_device = rtcNewDevice("threads=1");
        if (!g_device)
        {
            std::fprintf(stderr, "meridbsp_bench: cannot create the ray-tracing device\n");
            std::exit(1);
        }
    }
    return g_device;
}

void PeerEmbree::releaseDevice()
{
    if (g_device)
        rtcReleaseDevice(g_device);
    g_device = nullptr;
}

RTCScene PeerEmbree::buildScene(const BenchMesh& mesh, bool insideFilter)
{
    RTCDevice dev = device();
    RTCScene scene = rtcNewScene(dev);
    RTCGeometry geom = rtcNewGeometry(dev, RTC_GEOMETRY_TYPE_TRIANGLE);
    const std::vector<float>& v = mesh.flatVertices();
    const std::vector<uint32_t>& idx = mesh.flatIndices();
    float* vb = static_cast<float*>(
        rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), v.size() / 3));
    uint32_t* ib = static_cast<uint32_t*>(rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                                                  3 * sizeof(uint32_t), idx.size() / 3));
    for (size_t i = 0; i < v.size(); ++i)
        vb[i] = v[i];
    for (size_t i = 0; i < idx.size(); ++i)
        ib[i] = idx[i];
    if (insideFilter)
        rtcSetGeometryIntersectFilterFunction(geom, recordAndReject);
    rtcCommitGeometry(geom);
    rtcAttachGeometry(scene, geom);
    rtcReleaseGeometry(geom);
    rtcCommitScene(scene);
    return scene;
}

PeerEmbree::PeerEmbree(BenchMesh& mesh)
{
    m_segmentScene = buildScene(mesh, false);
    m_insideScene = buildScene(mesh, true);
    const std::vector<float>& v = mesh.flatVertices();
    const std::vector<uint32_t>& idx = mesh.flatIndices();
    m_facing.resize(idx.size() / 3);
    for (size_t t = 0; t < m_facing.size(); ++t)
    {
        const float* a = &v[3 * idx[3 * t]];
        const float* b = &v[3 * idx[3 * t + 1]];
        const float* c = &v[3 * idx[3 * t + 2]];
        const double e1[3] = {(double)b[0] - a[0], (double)b[1] - a[1], (double)b[2] - a[2]};
        const double e2[3] = {(double)c[0] - a[0], (double)c[1] - a[1], (double)c[2] - a[2]};
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        const double d = n[0] * kRayDir[0] + n[1] * kRayDir[1] + n[2] * kRayDir[2];
        m_facing[t] = d > 0.0 ? 1 : -1;
    }
    m_crossings.reserve(8192);
}

namespace
{
// A ray from org along dir (from 0 to tfar along dir) that has hit nothing yet.
RTCRayHit makeRay(const float* org, const float* dir, float tfar)
{
    RTCRayHit rh;
    rh.ray.org_x = org[0];
    rh.ray.org_y = org[1];
    rh.ray.org_z = org[2];
    rh.ray.dir_x = dir[0];
    rh.ray.dir_y = dir[1];
    rh.ray.dir_z = dir[2];
    rh.ray.tnear = 0.0f;
    rh.ray.tfar = tfar;
    rh.ray.time = 0.0f;
    rh.ray.mask = 0xFFFFFFFFu;
    rh.ray.id = 0;
    rh.ray.flags = 0;
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    return rh;
}
} // namespace

PeerEmbree::~PeerEmbree()
{
    rtcReleaseScene(m_segmentScene);
    rtcReleaseScene(m_insideScene);
}

bool PeerEmbree::segment(const float* a, const float* b) const
{
    RTCIntersectContext ctx;
    rtcInitIntersectContext(&ctx);
    const float dir[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
    RTCRayHit rh = makeRay(a, dir, 1.0f);
    rtcIntersect1(m_segmentScene, &ctx, &rh);
    return rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
}

bool PeerEmbree::inside(const float* p)
{
    InsideContext ctx;
    rtcInitIntersectContext(&ctx.base);
    m_crossings.clear();
    ctx.crossings = &m_crossings;
    ctx.facing = m_facing.data();
    RTCRayHit rh = makeRay(p, kRayDir, 1e30f);
    rtcIntersect1(m_insideScene, &ctx.base, &rh);
    // Crossings come in traversal order: sort by distance (insertion sort, the lists
    // are short), then count runs of equal facing once, so a ray through an edge or a
    // vertex shared by several triangles counts one crossing.
    Crossing* c = m_crossings.data();
    const size_t n = m_crossings.size();
    for (size_t i = 1; i < n; ++i)
    {
        const Crossing x = c[i];
        size_t j = i;
        while (j > 0 && c[j - 1].t > x.t)
        {
            c[j] = c[j - 1];
            --j;
        }
        c[j] = x;
    }
    int count = 0;
    int8_t last = 0;
    for (size_t i = 0; i < n; ++i)
    {
        if (c[i].facing != last)
            ++count;
        last = c[i].facing;
    }
    return (count & 1) != 0;
}

PeerEmbree::FlushDenormals::FlushDenormals() : m_saved(_mm_getcsr())
{
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
}

PeerEmbree::FlushDenormals::~FlushDenormals() { _mm_setcsr(m_saved); }
