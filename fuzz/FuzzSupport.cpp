#include "FuzzSupport.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <unistd.h>

#include "FuzzInput.h"

extern "C" int MeridBSPEntry(void* module, unsigned long reason, void* reserved);

namespace
{
unsigned long g_asserts = 0;
std::string g_scratch;
// A stream without a buffer: everything written to it is dropped.
std::ostream g_nowhere(nullptr);

void quietAssert(const char*, const char*, long, const char*) { ++g_asserts; }

void removeScratch()
{
    std::error_code ec;
    if (!g_scratch.empty())
        std::filesystem::remove_all(g_scratch, ec);
}

bool sameBits(const srVector3T<float>& a, const srVector3T<float>& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Values whose signed distances cannot overflow: the checks that compare answers need
// finite distances (a NaN distance sends pointInfo to the back child, as "not >= 0",
// while the trace takes it for a crossing).
bool tame(float v, float limit) { return std::fabs(v) <= limit; } // false for NaN
bool tamePoint(const srVector3T<float>& p) { return tame(p.x, 1e15f) && tame(p.y, 1e15f) && tame(p.z, 1e15f); }
bool tamePlanes(const mrClipBSP& bsp)
{
    for (uint32_t i = 0; i < bsp.m_numplanes; ++i)
    {
        const mrPlane& p = bsp.m_planes[i];
        if (!tame(p.m_normal.x, 1e3f) || !tame(p.m_normal.y, 1e3f) || !tame(p.m_normal.z, 1e3f) ||
            !tame(p.m_dist, 1e15f))
            return false;
    }
    return true;
}

// One point and one segment query, checked against each other.
void queryPair(const mrClipBSP& bsp, const srVector3T<float>& a, const srVector3T<float>& b)
{
    int contents = bsp.pointInfo(0, a);
    if (contents >= 0)
        FuzzSupport::fail("pointInfo returned a node index", std::to_string(contents));

    mrTrace trace;
    int clear = bsp.checkCollision(a, b, trace);
    if (clear != 0 && clear != 1)
        FuzzSupport::fail("checkCollision returned neither 0 nor 1", std::to_string(clear));
    if (clear == 1 && (trace.m_fraction != 1.0f || !sameBits(trace.m_endPos, b) || trace.m_startSolid))
        FuzzSupport::fail("a clear trace must end at its end point with fraction 1");

    if (tamePoint(a) && tamePoint(b) && tamePlanes(bsp))
    {
        // The trace follows the start point down first, so it starts in solid exactly
        // when the start point is solid.
        if ((contents <= -2) != (trace.m_startSolid == 1))
            FuzzSupport::fail("startSolid disagrees with pointInfo of the start point");
        // The fraction stays on the segment (a rounding step of slack).
        if (!(trace.m_fraction >= 0.0f && trace.m_fraction <= 1.0f + 1e-6f))
            FuzzSupport::fail("trace fraction outside [0, 1]", std::to_string(trace.m_fraction));
    }

    // Queries read nothing but the clip BSP: the same question gives the same bytes.
    mrTrace again;
    int clear2 = bsp.checkCollision(a, b, again);
    if (clear2 != clear || std::memcmp(&trace, &again, sizeof trace) != 0)
        FuzzSupport::fail("the same trace gave two different answers");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::start();
    return 0;
}

void FuzzSupport::start()
{
    static bool started = false;
    if (started)
        return;
    started = true;
    srSetAssertHandler(&quietAssert);
    srSetOutputTarget(&g_nowhere);
    mrCore::initialize();
    MeridBSPEntry(nullptr, 1, nullptr);
    if (!mrCore::instance().getIOManager()->getHandler(0x60000))
        fail("the module registered no clip BSP handler");

    char dir[] = "/tmp/meridbsp-fuzz-XXXXXX";
    if (!::mkdtemp(dir))
        fail("cannot make a scratch directory");
    g_scratch = dir;
    std::atexit(&removeScratch);
}

mrIOManager& FuzzSupport::io() { return *mrCore::instance().getIOManager(); }

unsigned long FuzzSupport::assertCount() { return g_asserts; }

const std::string& FuzzSupport::scratchDir() { return g_scratch; }

void FuzzSupport::fail(const char* what, const std::string& detail)
{
    std::fprintf(stderr, "fuzz check failed: %s%s%s\n", what, detail.empty() ? "" : ": ", detail.c_str());
    std::abort();
}

void FuzzSupport::checkQueries(const mrClipBSP& bsp, FuzzInput* in)
{
    for (int i = 0, count = in ? 1 + in->byte() % 8 : 0; i < count; ++i)
    {
        srVector3T<float> a(in->coordinate(), in->coordinate(), in->coordinate());
        srVector3T<float> b(in->coordinate(), in->coordinate(), in->coordinate());
        queryPair(bsp, a, b);
    }
    // Points on and just off each plane (where the front/back rule decides), and
    // segments across the bounds.
    uint32_t planes = bsp.m_numplanes < 16 ? bsp.m_numplanes : 16;
    for (uint32_t i = 0; i < planes; ++i)
    {
        const mrPlane& p = bsp.m_planes[i];
        srVector3T<float> foot(p.m_normal.x * p.m_dist, p.m_normal.y * p.m_dist, p.m_normal.z * p.m_dist);
        srVector3T<float> off(foot.x + p.m_normal.x, foot.y + p.m_normal.y, foot.z + p.m_normal.z);
        queryPair(bsp, foot, off);
        queryPair(bsp, off, foot);
    }
    queryPair(bsp, bsp.m_mins, bsp.m_maxs);
    queryPair(bsp, bsp.m_maxs, bsp.m_mins);
}

void FuzzSupport::checkRoundTrip(mrClipBSP& bsp)
{
    std::vector<srClass*> objects = {&bsp};
    std::vector<unsigned char> first;
    std::string error;
    if (!io().saveBuffer(objects, first, &error))
        fail("saving a valid clip BSP failed", error);
    std::vector<srClass*> loaded;
    if (!io().loadBuffer(first, loaded, &error, "roundtrip"))
        fail("reading back a saved clip BSP failed", error);
    if (loaded.size() != 1)
        fail("reading back one clip BSP gave another count");
    std::vector<unsigned char> second;
    if (!io().saveBuffer(loaded, second, &error))
        fail("saving a reloaded clip BSP failed", error);
    for (srClass* o : loaded)
        o->release();
    if (first != second)
        fail("save, load, save changed the bytes");
}

void FuzzSupport::runClipPipeline(srMeshModel* mesh)
{
    mrClipPipeline::Result result;
    std::string why;
    if (!mrClipPipeline::run(mesh, mrClipPipeline::Settings(), result, why))
        fail("the collision pipeline failed on a mesh", why);
    mrClipBSP* bsp = result.clipBSP;
    if (!bsp->validate(&why))
        fail("a generated clip BSP does not validate", why);
    bsp->refreshPBlock(nullptr);
    checkQueries(*bsp);
    const srVector3T<float>* verts = mesh->getVertexLoc();
    long n = mesh->getNumVerts() < 8 ? mesh->getNumVerts() : 8;
    for (long i = 0; verts && i + 1 < n; ++i)
        queryPair(*bsp, verts[i], verts[i + 1]);
    checkRoundTrip(*bsp);
}

void FuzzSupport::runVisPipeline(srMeshModel* mesh, bool midSplit)
{
    mrVisPipeline::Settings settings;
    settings.midSplit = midSplit;
    settings.portalFile = g_scratch + "/test.prt";
    mrVisPipeline::Result result;
    std::string why;
    if (!mrVisPipeline::run(mesh, settings, result, why))
        fail("the visibility pipeline failed on a mesh", why);
    if (!result.portalMesh)
        fail("the visibility pipeline made no portal mesh");
}
