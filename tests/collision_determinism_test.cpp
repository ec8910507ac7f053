// The collision pipeline's results, pinned: the same meshes must give the same tree,
// counters, saved clip BSP bytes and query answers in every build. The constants were
// taken from the reviewed implementation; any change to them is a change of results.
// Also: trees far deeper than any call stack could hold, through every stage.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "clip/mrClipBSP.h"
#include "clipgen/mrClipBSPGen.h"
#include "io/mrClipBSPIOHandler.h"
#include "platform/core/mrCore.h"
#include "platform/core/mrIOManager.h"
#include "platform/dx/srTexture.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
const unsigned long kClipClass = 0x60000;

class CoreEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        mrCore::initialize();
        mrIOManager* io = mrCore::instance().getIOManager();
        if (!io->getHandler(kClipClass))
            io->registerHandler(new mrClipBSPIOHandler);
    }
};
::testing::Environment* const g_environment = ::testing::AddGlobalTestEnvironment(new CoreEnvironment);

mrIOManager& manager() { return *mrCore::instance().getIOManager(); }

// Releases a clip BSP (its destructor is protected).
struct BSPHolder
{
    mrClipBSP* p = nullptr;
    explicit BSPHolder(mrClipBSP* b) : p(b) {}
    ~BSPHolder()
    {
        if (p)
            p->release();
    }
    BSPHolder(const BSPHolder&) = delete;
    BSPHolder& operator=(const BSPHolder&) = delete;
};

// ---------------------------------------------------------------------------------------
// Meshes

void addTri(srMeshModel& mesh, V a, V b, V c)
{
    int i = (int)mesh.addVertex(a);
    mesh.addVertex(b);
    mesh.addVertex(c);
    mesh.addPolygon(i, i + 1, i + 2);
}

// An outward-facing torus around z: concave, so splitters cut many faces.
void addTorus(srMeshModel& mesh, float major, float minor, int nu, int nv)
{
    const double kTwoPi = 6.283185307179586;
    int base = (int)mesh.getNumVerts();
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
        {
            double u = kTwoPi * i / nu, v = kTwoPi * j / nv;
            double r = major + minor * std::cos(v);
            mesh.addVertex(V((float)(r * std::cos(u)), (float)(r * std::sin(u)), (float)(minor * std::sin(v))));
        }
    auto at = [&](int i, int j) { return base + (i % nu) * nv + (j % nv); };
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
        {
            mesh.addPolygon(at(i, j), at(i + 1, j), at(i + 1, j + 1));
            mesh.addPolygon(at(i, j), at(i + 1, j + 1), at(i, j + 1));
        }
}

// A cube plus what the generator must take as it comes: a duplicate triangle, a
// coincident opposite-facing one, degenerate triangles (collinear, repeated point) and
// a triangle through the cube that its planes cut.
void addAwkwardCube(srMeshModel& mesh)
{
    mtest::addBox(mesh, V(-8, -8, -8), V(8, 8, 8), true);
    const srVector3i t = mesh.m_polyVerts[0];
    mesh.addPolygon(t.x, t.y, t.z);
    mesh.addPolygon(t.x, t.z, t.y);
    addTri(mesh, V(0, 0, 0), V(1, 1, 1), V(2, 2, 2));
    addTri(mesh, V(3, 1, 0), V(3, 1, 0), V(-2, 5, 1));
    addTri(mesh, V(-12, -3, 1), V(11, -2, 2), V(0.5f, 13, -1.5f));
    addTri(mesh, V(1, 2, 3), V(1.0001f, 2, 3), V(1, 2.0001f, 3.0001f));
}

// The two-room level with a pillar in each room and a marked texture on some walls.
void addPillaredLevel(srMeshModel& mesh, srTexture* marked)
{
    mtest::addTwoRoomLevel(mesh);
    mtest::addBox(mesh, V(24, 24, 0), V(40, 40, 48), true);
    mtest::addBox(mesh, V(150, 10, 0), V(166, 20, 64), true);
    for (long i = 0; i < mesh.m_numpolys; i += 5)
        mesh.setPolyTexture(i, marked);
}

// ---------------------------------------------------------------------------------------
// Digests

uint64_t fnvBytes(uint64_t h, const void* data, size_t n)
{
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < n; ++i)
    {
        h ^= p[i];
        h *= 1099511628211ull;
    }
    return h;
}
template <class T> uint64_t fnvValue(uint64_t h, const T& v) { return fnvBytes(h, &v, sizeof v); }

// Fixed-seed uniform floats, the same on every platform.
struct Rng
{
    uint64_t s;
    float unit()
    {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return (float)(s >> 40) * (1.0f / 16777216.0f);
    }
};

V randomIn(Rng& r, const V& lo, const V& hi)
{
    float a = r.unit(), b = r.unit(), c = r.unit();
    return V(lo.x + (hi.x - lo.x) * a, lo.y + (hi.y - lo.y) * b, lo.z + (hi.z - lo.z) * c);
}

uint64_t hashTrace(uint64_t h, int result, const mrTrace& t)
{
    h = fnvValue(h, result);
    h = fnvValue(h, t.m_allSolid);
    h = fnvValue(h, t.m_startSolid);
    h = fnvValue(h, t.m_inOpen);
    h = fnvValue(h, t.m_reservedFlag);
    h = fnvValue(h, t.m_planeNormal.x);
    h = fnvValue(h, t.m_planeNormal.y);
    h = fnvValue(h, t.m_planeNormal.z);
    h = fnvValue(h, t.m_planeDist);
    h = fnvValue(h, t.m_fraction);
    h = fnvValue(h, t.m_endPos.x);
    h = fnvValue(h, t.m_endPos.y);
    return fnvValue(h, t.m_endPos.z);
}

// Answers to fixed queries in the bounds grown by a tenth: points from the root and from
// other nodes, long segments, short ones and axis-aligned ones.
uint64_t queryDigest(const mrClipBSP& bsp, int count)
{
    V lo = bsp.m_mins, hi = bsp.m_maxs;
    V pad((hi.x - lo.x) * 0.05f, (hi.y - lo.y) * 0.05f, (hi.z - lo.z) * 0.05f);
    lo = V(lo.x - pad.x, lo.y - pad.y, lo.z - pad.z);
    hi = V(hi.x + pad.x, hi.y + pad.y, hi.z + pad.z);
    Rng r{12345};
    uint64_t h = 1469598103934665603ull;
    for (int i = 0; i < count; ++i)
    {
        V p = randomIn(r, lo, hi);
        h = fnvValue(h, bsp.pointInfo(0, p));
        if (bsp.m_numnodes > 1 && i % 4 == 0)
            h = fnvValue(h, bsp.pointInfo((int)(r.unit() * (float)(bsp.m_numnodes - 1)), p));
    }
    for (int i = 0; i < count; ++i)
    {
        V a = randomIn(r, lo, hi), b = randomIn(r, lo, hi);
        if (i % 3 == 1)
            b = V(a.x + (b.x - a.x) * 0.1f, a.y + (b.y - a.y) * 0.1f, a.z + (b.z - a.z) * 0.1f);
        else if (i % 3 == 2)
            b = V(b.x, a.y, a.z);
        mrTrace t;
        t.m_reservedFlag = i;
        t.m_planeNormal = V(7, 8, 9);
        t.m_planeDist = -5;
        h = hashTrace(h, bsp.checkCollision(a, b, t), t);
    }
    return h;
}

std::vector<unsigned char> saveOne(mrClipBSP* bsp)
{
    std::vector<unsigned char> out;
    std::string error;
    EXPECT_TRUE(manager().saveBuffer({bsp}, out, &error)) << error;
    return out;
}

mrClipBSP* loadOne(const std::vector<unsigned char>& bytes)
{
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_TRUE(manager().loadBuffer(bytes, objects, &error)) << error;
    if (objects.size() != 1)
    {
        for (srClass* o : objects)
            o->release();
        return nullptr;
    }
    return dynamic_cast<mrClipBSP*>(objects[0]);
}

// ---------------------------------------------------------------------------------------
// The pinned table

struct Pinned
{
    const char* name;
    uint64_t fileHash;
    uint32_t nodes, planes;
    int genNodes, leafFaces, solidLeafs, emptyLeafs;
    size_t liveFaces;
    uint64_t queryHash;
};

struct Case
{
    srMeshModel mesh;
    V offset{0, 0, 0};
    srMatrix3T<float> matrix;
};

void buildCase(const std::string& name, Case& c, srTexture* marked)
{
    if (name == "cube")
        mtest::addBox(c.mesh, V(-16, -16, -16), V(16, 16, 16), true);
    else if (name == "sphere2")
        mtest::addSphere(c.mesh, V(0, 0, 0), 50, 2);
    else if (name == "sphere3")
        mtest::addSphere(c.mesh, V(3, -2, 1), 100, 3);
    else if (name == "sphere4")
        mtest::addSphere(c.mesh, V(0, 0, 0), 200, 4);
    else if (name == "twoRooms")
        mtest::addTwoRoomLevel(c.mesh);
    else if (name == "pillaredRooms")
        addPillaredLevel(c.mesh, marked);
    else if (name == "torus")
        addTorus(c.mesh, 40, 12, 24, 12);
    else if (name == "awkwardCube")
        addAwkwardCube(c.mesh);
    else if (name == "movedTorus")
    {
        addTorus(c.mesh, 30, 10, 16, 10);
        mtest::addBox(c.mesh, V(-5, -5, -40), V(5, 5, 40), true);
        c.mesh.setTexture(marked);
        c.matrix = srMatrix3T<float>(0.8f, 0.6f, 0.1f, -0.6f, 0.8f, 0.0f, 0.05f, 0.2f, 1.3f);
        c.offset = V(100.25f, -37.5f, 8.125f);
    }
}

const Pinned kPinned[] = {
    {"cube", 15073783295307820044ull, 6, 12, 6, 12, 1, 6, 12, 13194393145944431743ull},
    {"sphere2", 14764451440171163831ull, 128, 128, 128, 128, 1, 128, 128, 11145393036015425156ull},
    {"sphere3", 13963375564674267214ull, 512, 512, 512, 512, 1, 512, 512, 16105232572538870558ull},
    {"sphere4", 2943194824979841209ull, 2024, 2048, 2024, 2048, 1, 2024, 2048, 2409070128398446253ull},
    {"twoRooms", 17097409480569375290ull, 16, 40, 16, 40, 14, 3, 40, 5369489487341187206ull},
    {"pillaredRooms", 18405714991749116862ull, 47, 64, 47, 104, 33, 15, 104, 6050060254008735603ull},
    {"torus", 4670346423409150694ull, 1431, 576, 1431, 2416, 488, 944, 2416, 3179018909557574603ull},
    {"awkwardCube", 15703085092719167362ull, 19, 18, 19, 40, 4, 16, 40, 13057340542694986818ull},
    {"movedTorus", 8925754762304869159ull, 400, 332, 400, 851, 85, 316, 851, 148389941355561939ull},
};

class PinnedMesh : public ::testing::TestWithParam<Pinned>
{
};

TEST_P(PinnedMesh, GivesTheSameTreeFileAndAnswers)
{
    const Pinned& pin = GetParam();
    srTexture* marked = new srTexture("NERDSTRP.TGA");
    {
        Case c;
        buildCase(pin.name, c, marked);
        ASSERT_GT(c.mesh.m_numpolys, 0);
        mtest::AssertRecorder asserts;
        mrClipBSPGen gen;
        BSPHolder bsp(gen.importMeshModel(&c.mesh, c.offset, c.matrix));
        ASSERT_NE(bsp.p, nullptr);
        EXPECT_TRUE(asserts.reports().empty());

        EXPECT_EQ(bsp.p->m_numnodes, pin.nodes);
        EXPECT_EQ(bsp.p->m_numplanes, pin.planes);
        EXPECT_EQ(gen.m_numnodes, pin.genNodes);
        EXPECT_EQ(gen.m_numleaffaces, pin.leafFaces);
        EXPECT_EQ(gen.m_numsolidleafs, pin.solidLeafs);
        EXPECT_EQ(gen.m_numemptyleafs, pin.emptyLeafs);
        EXPECT_EQ(gen.m_allfaces.size(), pin.liveFaces);

        std::vector<unsigned char> bytes = saveOne(bsp.p);
        EXPECT_EQ(mtest::fnv1a(std::string(bytes.begin(), bytes.end())), pin.fileHash);
        EXPECT_EQ(queryDigest(*bsp.p, 3000), pin.queryHash);

        // What is read back answers exactly the same.
        BSPHolder loaded(loadOne(bytes));
        ASSERT_NE(loaded.p, nullptr);
        EXPECT_EQ(queryDigest(*loaded.p, 3000), pin.queryHash);
    }
    marked->release();
}

INSTANTIATE_TEST_SUITE_P(CollisionPipeline, PinnedMesh, ::testing::ValuesIn(kPinned),
                         [](const ::testing::TestParamInfo<Pinned>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------
// The query index answers exactly as the plain walk: same tree, with and without it.

// Points where rounding decides: random ones, ones on and next to every plane of the
// tree, and hostile ones.
std::vector<V> probePoints(const mrClipBSP& bsp, int count)
{
    std::vector<V> out;
    Rng r{777};
    V lo = bsp.m_mins, hi = bsp.m_maxs;
    V pad((hi.x - lo.x) * 0.2f, (hi.y - lo.y) * 0.2f, (hi.z - lo.z) * 0.2f);
    lo = V(lo.x - pad.x, lo.y - pad.y, lo.z - pad.z);
    hi = V(hi.x + pad.x, hi.y + pad.y, hi.z + pad.z);
    for (int i = 0; i < count; ++i)
        out.push_back(randomIn(r, lo, hi));
    for (uint32_t i = 0; i < bsp.m_numnodes; i += 1 + bsp.m_numnodes / 200)
    {
        const mrPlane& pl = bsp.m_planes[bsp.m_nodes[i].planeIndex];
        for (float off : {-1e-3f, -1e-5f, 0.0f, 1e-5f, 1e-3f, 0.03f})
        {
            const float t = pl.m_dist + off;
            out.push_back(V(pl.m_normal.x * t, pl.m_normal.y * t, pl.m_normal.z * t));
        }
    }
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    for (V p : {V(nan, 0, 0), V(0, inf, 0), V(-inf, 1, 2), V(1e20f, 0, 0), V(0, -1e30f, 5), V(-0.0f, 0, -0.0f),
                V(1e-40f, -1e-42f, 0), V(3e38f, 3e38f, 3e38f)})
        out.push_back(p);
    return out;
}

void expectIndexChangesNothing(mrClipBSP& bsp, const char* what)
{
    SCOPED_TRACE(what);
    bsp.prepareQueries();
    ASSERT_TRUE(bsp.hasQueryIndex());
    const std::vector<V> points = probePoints(bsp, 1500);
    std::vector<int> contents;
    std::vector<mrTrace> traces;
    std::vector<int> results;
    for (size_t i = 0; i < points.size(); ++i)
    {
        contents.push_back(bsp.pointInfo(0, points[i]));
        const V& a = points[i];
        const V& b = points[(i * 7919 + 13) % points.size()];
        mrTrace t;
        results.push_back(bsp.checkCollision(a, b, t));
        traces.push_back(t);
    }
    bsp.dropQueryIndex();
    ASSERT_FALSE(bsp.hasQueryIndex());
    size_t differ = 0;
    for (size_t i = 0; i < points.size(); ++i)
    {
        const V& a = points[i];
        const V& b = points[(i * 7919 + 13) % points.size()];
        mrTrace t;
        const int result = bsp.checkCollision(a, b, t);
        if (bsp.pointInfo(0, a) != contents[i] || result != results[i] ||
            hashTrace(0, result, t) != hashTrace(0, results[i], traces[i]))
            ++differ;
    }
    EXPECT_EQ(differ, 0u) << "of " << points.size();
}

TEST(IndexedQueries, ClosedAndOpenMeshesAnswerAsThePlainWalk)
{
    srTexture* marked = new srTexture("NERDSTRP.TGA");
    for (const char* name : {"sphere4", "torus", "pillaredRooms", "movedTorus"})
    {
        Case c;
        buildCase(name, c, marked);
        mrClipBSPGen gen;
        BSPHolder bsp(gen.importMeshModel(&c.mesh, c.offset, c.matrix));
        expectIndexChangesNothing(*bsp.p, name);
    }
    marked->release();
}

TEST(IndexedQueries, AwkwardChainsAnswerAsThePlainWalk)
{
    // A chain of planes around the z axis with its leaf behind (node i + 1 in front),
    // broken up by planes no cone can bound: no normal, huge values, NaN.
    const int n = 400;
    mrClipBSP* bsp = new mrClipBSP;
    BSPHolder hold(bsp);
    bsp->m_numplanes = (uint32_t)n;
    bsp->m_planes = mrClipBSP::allocPlanes((unsigned long)n);
    bsp->m_numnodes = (uint32_t)n;
    bsp->m_nodes = mrClipBSP::allocNodes((unsigned long)n);
    for (int i = 0; i < n; ++i)
    {
        const double a = 2.399963 * i, z = 1.0 - 2.0 * (i + 0.5) / n, rho = std::sqrt(1.0 - z * z);
        mrPlane pl((float)(-rho * std::cos(a)), (float)(-rho * std::sin(a)), (float)-z, -50.0f);
        if (i == 100)
            pl = mrPlane(0, 0, 0, 0.5f);
        if (i == 200)
            pl = mrPlane(1e20f, 0, 0, 3e20f);
        if (i == 300)
            pl = mrPlane(std::numeric_limits<float>::quiet_NaN(), 0, 1, 0);
        bsp->m_planes[i] = pl;
        bsp->m_nodes[i] = mrClipNode{i, {i + 1 < n ? i + 1 : -1, -3}};
    }
    bsp->m_mins = V(-60, -60, -60);
    bsp->m_maxs = V(60, 60, 60);
    expectIndexChangesNothing(*bsp, "inward chain with unbounded planes");
}

TEST(IndexedQueries, IndexFollowsTheArrays)
{
    srMeshModel mesh;
    mtest::addSphere(mesh, V(0, 0, 0), 10, 3);
    V offset(0, 0, 0);
    srMatrix3T<float> matrix;
    mrClipBSPGen gen;
    BSPHolder bsp(gen.importMeshModel(&mesh, offset, matrix));
    EXPECT_TRUE(bsp.p->hasQueryIndex());
    // A copy holds the same records, so it keeps the index.
    mrClipBSP* copy = new mrClipBSP;
    BSPHolder holdCopy(copy);
    *copy = *bsp.p;
    EXPECT_TRUE(copy->hasQueryIndex());
    EXPECT_EQ(queryDigest(*copy, 300), queryDigest(*bsp.p, 300));
    // Arrays replaced from outside: the index no longer applies.
    mrClipNode* old = bsp.p->m_nodes;
    bsp.p->m_nodes = mrClipBSP::allocNodes(bsp.p->m_numnodes);
    std::memcpy(bsp.p->m_nodes, old, bsp.p->m_numnodes * sizeof(mrClipNode));
    EXPECT_FALSE(bsp.p->hasQueryIndex());
    mrClipBSP::freeNodes(old);
    bsp.p->prepareQueries();
    EXPECT_TRUE(bsp.p->hasQueryIndex());
    // The class's own operations on the arrays drop it.
    bsp.p->makeFromBBox(V(-1, -1, -1), V(1, 1, 1));
    EXPECT_FALSE(bsp.p->hasQueryIndex());
    // An invalid tree gets none.
    copy->m_nodes[3].child[0] = 1;
    copy->prepareQueries();
    EXPECT_FALSE(copy->hasQueryIndex());
}

// ---------------------------------------------------------------------------------------
// Deep trees. Each runs on a thread with a 512 KiB stack: anything that recursed once
// per tree level would overflow it long before the bottom.

template <class F>
void onSmallStack(F fn)
{
    struct Call
    {
        static void* run(void* arg)
        {
            (*static_cast<F*>(arg))();
            return nullptr;
        }
    };
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 512 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, &Call::run, &fn), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

// A chain of planes x = n - i facing +x: open in front, node i + 1 behind, and behind
// the last plane open too. (No query index: the plain walk is what is exercised.)
mrClipBSP* makeChain(int n)
{
    mrClipBSP* bsp = new mrClipBSP;
    bsp->m_numplanes = (uint32_t)n;
    bsp->m_planes = mrClipBSP::allocPlanes((unsigned long)n);
    bsp->m_numnodes = (uint32_t)n;
    bsp->m_nodes = mrClipBSP::allocNodes((unsigned long)n);
    for (int i = 0; i < n; ++i)
    {
        bsp->m_planes[i] = mrPlane(1, 0, 0, (float)(n - i));
        bsp->m_nodes[i] = mrClipNode{i, {-1, i + 1 < n ? i + 1 : -1}};
    }
    bsp->m_mins = V(0, -1, -1);
    bsp->m_maxs = V((float)n + 1, 1, 1);
    return bsp;
}

TEST(DeepTree, TraceThroughTwoHundredThousandNestedCrossings)
{
    const int n = 200000;
    onSmallStack([&] {
        // Starting behind every plane, the trace's near parts nest once per node.
        BSPHolder chain(makeChain(n));
        mrClipBSP* bsp = chain.p;
        ASSERT_FALSE(bsp->hasQueryIndex());
        mrTrace t;
        EXPECT_EQ(bsp->checkCollision(V(0.5f, 0, 0), V(300000, 0, 0), t), 1);
        EXPECT_EQ(t.m_fraction, 1.0f);
        EXPECT_EQ(t.m_inOpen, 1);
        EXPECT_EQ(bsp->pointInfo(0, V(0.5f, 0, 0)), -1);

        // Solid behind the last plane: the trace starts in solid.
        bsp->m_nodes[n - 1].child[1] = -2;
        EXPECT_EQ(bsp->checkCollision(V(0.5f, 0, 0), V(300000, 0, 0), t), 0);
        EXPECT_EQ(t.m_startSolid, 1);
        EXPECT_EQ(t.m_allSolid, 1);
        EXPECT_EQ(bsp->pointInfo(0, V(0.5f, 0, 0)), -2);

        // A solid slab half way down stops the trace once the deeper crossings unwind:
        // just short of x = n - k, on the side the trace came from.
        const int k = 150000;
        bsp->m_nodes[n - 1].child[1] = -1;
        bsp->m_nodes[k].child[0] = -2;
        EXPECT_EQ(bsp->checkCollision(V(0.5f, 0, 0), V(300000, 0, 0), t), 0);
        EXPECT_EQ(t.m_startSolid, 0);
        EXPECT_EQ(t.m_allSolid, 0);
        EXPECT_EQ(t.m_planeNormal, V(-1, 0, 0));
        EXPECT_EQ(t.m_planeDist, -(float)(n - k));
        EXPECT_LT(t.m_endPos.x, (float)(n - k));
        EXPECT_NEAR(t.m_endPos.x, (float)(n - k) - 0.03225f, 0.05f);
        EXPECT_EQ(bsp->pointInfo(0, t.m_endPos), -1);

        // Saved and read back, the chain validates and answers the same (the loaded
        // copy answers through its query index).
        bsp->refreshPBlock(nullptr);
        BSPHolder loaded(loadOne(saveOne(bsp)));
        ASSERT_NE(loaded.p, nullptr);
        EXPECT_TRUE(loaded.p->hasQueryIndex());
        mrTrace u;
        EXPECT_EQ(loaded.p->checkCollision(V(0.5f, 0, 0), V(300000, 0, 0), u), 0);
        EXPECT_EQ(hashTrace(0, 0, u), hashTrace(0, 0, t));
    });
}

TEST(DeepTree, ClosedMeshChainGoesThroughEveryStage)
{
    // A closed sphere is a chain: each splitter leaves every other face behind it.
    onSmallStack([&] {
        srMeshModel mesh;
        mtest::addSphere(mesh, V(0, 0, 0), 100, 5);
        V offset(0, 0, 0);
        srMatrix3T<float> matrix;
        mrClipBSPGen gen;
        BSPHolder bsp(gen.importMeshModel(&mesh, offset, matrix));
        ASSERT_NE(bsp.p, nullptr);
        EXPECT_GT(bsp.p->m_numnodes, 7000u);
        // Node i + 1 is the back child of node i all the way down.
        uint32_t depth = 0;
        for (int node = 0; node >= 0; node = bsp.p->m_nodes[node].child[1])
            ++depth;
        EXPECT_EQ(depth, bsp.p->m_numnodes);

        BSPHolder loaded(loadOne(saveOne(bsp.p)));
        ASSERT_NE(loaded.p, nullptr);
        EXPECT_EQ(loaded.p->pointInfo(0, V(0, 0, 0)), -2);
        EXPECT_EQ(loaded.p->pointInfo(0, V(0, 0, 101)), -1);
        mrTrace t;
        EXPECT_EQ(loaded.p->checkCollision(V(-150, 1, 2), V(150, 1, 2), t), 0);
        EXPECT_NEAR(t.m_endPos.x, -100.0f, 0.1f);
        EXPECT_EQ(queryDigest(*loaded.p, 200), queryDigest(*bsp.p, 200));
    });
}

} // namespace
