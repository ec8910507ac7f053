// The collision pipeline's results, pinned: the same meshes must give the same tree,
// counters, saved clip BSP bytes and query answers in every build. The values live in
// tests/data/collision_pins.txt; any change to them is a change of results.
// The parallel build must give all of it for every thread count.
// Also: trees far deeper than any call stack could hold, through every stage.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clip/mrClipQueryIndex.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/io/mrClipBSPIOHandler.h>
#include <meridbsp/platform/dx/srTexture.h>
#include <oneapi/tbb/global_control.h>

#include "BenchMesh.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
using mtest::ClipPtr;

// ---------------------------------------------------------------------------------------
// Meshes

// A cube plus what the generator must take as it comes: a duplicate triangle, a
// coincident opposite-facing one, degenerate triangles (collinear, repeated point) and
// a triangle through the cube that its planes cut.
void addAwkwardCube(srMeshModel& mesh)
{
    mtest::addBox(mesh, V(-8, -8, -8), V(8, 8, 8), true);
    const srVector3i t = mesh.m_polyVerts[0];
    mesh.addPolygon(t.x, t.y, t.z);
    mesh.addPolygon(t.x, t.z, t.y);
    mtest::addTriangle(mesh, V(0, 0, 0), V(1, 1, 1), V(2, 2, 2));
    mtest::addTriangle(mesh, V(3, 1, 0), V(3, 1, 0), V(-2, 5, 1));
    mtest::addTriangle(mesh, V(-12, -3, 1), V(11, -2, 2), V(0.5f, 13, -1.5f));
    mtest::addTriangle(mesh, V(1, 2, 3), V(1.0001f, 2, 3), V(1, 2.0001f, 3.0001f));
}

struct Case
{
    srMeshModel mesh;
    V offset{0, 0, 0};
    srMatrix3T<float> matrix;
    ClipPtr import(mrClipBSPGen& gen) { return ClipPtr(gen.importMeshModel(&mesh, offset, matrix)); }
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
    {
        // The two-room level with a pillar in each room and a marked texture on some walls.
        mtest::addTwoRoomLevel(c.mesh);
        mtest::addBox(c.mesh, V(24, 24, 0), V(40, 40, 48), true);
        mtest::addBox(c.mesh, V(150, 10, 0), V(166, 20, 64), true);
        for (long i = 0; i < c.mesh.m_numpolys; i += 5)
            c.mesh.setPolyTexture(i, marked);
    }
    else if (name == "torus")
        mtest::addTorus(c.mesh, 40, 12, 24, 12);
    else if (name == "awkwardCube")
        addAwkwardCube(c.mesh);
    else if (name == "movedTorus")
    {
        mtest::addTorus(c.mesh, 30, 10, 16, 10);
        mtest::addBox(c.mesh, V(-5, -5, -40), V(5, 5, 40), true);
        c.mesh.setTexture(marked);
        c.matrix = srMatrix3T<float>(0.8f, 0.6f, 0.1f, -0.6f, 0.8f, 0.0f, 0.05f, 0.2f, 1.3f);
        c.offset = V(100.25f, -37.5f, 8.125f);
    }
    else if (name == "movedKnot")
    {
        // The benchmark's knot, turned, stretched and moved, with marked walls here and there.
        buildCase("knot_tiny", c, marked);
        for (long i = 0; i < c.mesh.m_numpolys; i += 7)
            c.mesh.setPolyTexture(i, marked);
        c.matrix = srMatrix3T<float>(0.6f, 0.0f, -0.8f, 0.1f, 1.2f, 0.05f, 0.8f, 0.0f, 0.6f);
        c.offset = V(-3000.5f, 12.75f, 517.0f);
    }
    else if (std::unique_ptr<BenchMesh> bench{BenchMesh::generate(name)})
    {
        // The benchmark's curved, knotted and open meshes at small sizes.
        c.mesh = *bench->mesh();
    }
}

// A texture the generator marks, held for a test's lifetime.
struct Marked
{
    srTexture* p = new srTexture("NERDSTRP.TGA");
    ~Marked() { p->release(); }
};

// ---------------------------------------------------------------------------------------
// Digests

template <class T> uint64_t fnvValue(uint64_t h, const T& v)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&v);
    for (size_t i = 0; i < sizeof v; ++i)
        h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

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

// The clip BSP's bounds grown by `share` of their size on every side.
void grownBounds(const mrClipBSP& bsp, float share, V& lo, V& hi)
{
    lo = bsp.m_mins, hi = bsp.m_maxs;
    V pad((hi.x - lo.x) * share, (hi.y - lo.y) * share, (hi.z - lo.z) * share);
    lo = V(lo.x - pad.x, lo.y - pad.y, lo.z - pad.z);
    hi = V(hi.x + pad.x, hi.y + pad.y, hi.z + pad.z);
}

uint64_t hashTrace(uint64_t h, int result, const mrTrace& t)
{
    for (int32_t v : {(int32_t)result, t.m_allSolid, t.m_startSolid, t.m_inOpen, t.m_reservedFlag})
        h = fnvValue(h, v);
    for (float v : {t.m_planeNormal.x, t.m_planeNormal.y, t.m_planeNormal.z, t.m_planeDist, t.m_fraction, t.m_endPos.x,
                    t.m_endPos.y, t.m_endPos.z})
        h = fnvValue(h, v);
    return h;
}

// Answers to fixed queries in the bounds grown by a tenth: points from the root and from
// other nodes, long segments, short ones and axis-aligned ones.
uint64_t queryDigest(const mrClipBSP& bsp, int count)
{
    V lo, hi;
    grownBounds(bsp, 0.05f, lo, hi);
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

// ---------------------------------------------------------------------------------------
// The pinned table (tests/data/collision_pins.txt)

struct Pinned
{
    std::string name;
    uint64_t fileHash;
    uint32_t nodes, planes;
    int genNodes, leafFaces, solidLeafs, emptyLeafs;
    size_t liveFaces;
    uint64_t queryHash;
};

std::ostream& operator<<(std::ostream& out, const Pinned& p)
{
    return out << p.name << ' ' << p.fileHash << ' ' << p.nodes << ' ' << p.planes << ' ' << p.genNodes << ' '
               << p.leafFaces << ' ' << p.solidLeafs << ' ' << p.emptyLeafs << ' ' << p.liveFaces << ' ' << p.queryHash;
}

std::vector<Pinned> readPins()
{
    std::vector<Pinned> out;
    std::istringstream in(mtest::readFile(MERIDBSP_SOURCE_DIR "/tests/data/collision_pins.txt"));
    std::string line;
    while (std::getline(in, line))
    {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        Pinned p;
        if (fields >> p.name >> p.fileHash >> p.nodes >> p.planes >> p.genNodes >> p.leafFaces >> p.solidLeafs >>
            p.emptyLeafs >> p.liveFaces >> p.queryHash)
            out.push_back(p);
        else
            ADD_FAILURE() << "unreadable pin: " << line;
    }
    return out;
}

std::string text(const Pinned& p)
{
    std::ostringstream out;
    out << p;
    return out.str();
}

// What the pins record of a build (the file bytes through `bytes`).
Pinned measure(const std::string& name, const mrClipBSPGen& gen, const mrClipBSP& bsp,
               std::vector<unsigned char>& bytes)
{
    Pinned got;
    got.name = name;
    got.nodes = bsp.m_numnodes;
    got.planes = bsp.m_numplanes;
    got.genNodes = gen.m_numnodes;
    got.leafFaces = gen.m_numleaffaces;
    got.solidLeafs = gen.m_numsolidleafs;
    got.emptyLeafs = gen.m_numemptyleafs;
    got.liveFaces = gen.m_allfaces.size();
    bytes = mtest::saveBuffer({const_cast<mrClipBSP*>(&bsp)});
    got.fileHash = mtest::fnv1a(std::string(bytes.begin(), bytes.end()));
    got.queryHash = queryDigest(bsp, 3000);
    return got;
}

// Every live face of the generator, in list order.
uint64_t faceListDigest(const mrClipBSPGen& gen)
{
    uint64_t h = 1469598103934665603ull;
    for (const mrFace* f : gen.m_allfaces)
    {
        h = fnvValue(fnvValue(fnvValue(fnvValue(h, f->m_numpoints), f->m_plane), f->m_used), f->m_texture);
        for (int i = 0; i < f->m_numpoints; ++i)
            h = fnvValue(h, f->m_points[i]);
    }
    return h;
}

// Read back, a clip BSP answers exactly the same: first without its query index (the
// loader told to leave it out), then with the index it builds itself.
struct DeferredIndex
{
    mrClipBSPIOHandler* handler = dynamic_cast<mrClipBSPIOHandler*>(mtest::clipIO().getHandler(0x60000));
    DeferredIndex()
    {
        mrClipBSPIOHandler::Settings deferred;
        deferred.buildQueryIndex = false;
        handler->setSettings(deferred);
    }
    ~DeferredIndex() { handler->setSettings(mrClipBSPIOHandler::Settings()); }
};

TEST(CollisionPipeline, PinnedMeshesGiveTheSameTreeFileAndAnswers)
{
    const std::vector<Pinned> pins = readPins();
    ASSERT_GE(pins.size(), 15u);
    DeferredIndex deferred;
    for (const Pinned& pin : pins)
    {
        SCOPED_TRACE(pin.name);
        Marked marked;
        Case c;
        buildCase(pin.name, c, marked.p);
        ASSERT_GT(c.mesh.m_numpolys, 0);
        mtest::AssertRecorder asserts;
        mrClipBSPGen gen;
        ClipPtr bsp = c.import(gen);
        ASSERT_NE(bsp, nullptr);
        EXPECT_TRUE(asserts.reports().empty());

        std::vector<unsigned char> bytes;
        const std::string got = text(measure(pin.name, gen, *bsp, bytes));
        if (std::getenv("MERIDBSP_PRINT_PINS"))
            std::printf("pin: %s\n", got.c_str());
        EXPECT_EQ(got, text(pin));
        ClipPtr loaded = mtest::loadClip(bytes);
        ASSERT_NE(loaded, nullptr);
        EXPECT_FALSE(loaded->hasQueryIndex());
        EXPECT_EQ(queryDigest(*loaded, 3000), pin.queryHash);
        loaded->prepareQueries();
        EXPECT_EQ(loaded->hasQueryIndex(), bsp->hasQueryIndex());
        EXPECT_EQ(queryDigest(*loaded, 3000), pin.queryHash);
    }
}

// The parallel build gives the same tree, file, counters, face list and answers for any
// number of threads, more than the machine has cores included.
TEST(CollisionPipeline, PinnedMeshesGiveTheSameOnAnyNumberOfThreads)
{
    const tbb::global_control pool(tbb::global_control::max_allowed_parallelism, 8);
    for (const Pinned& pin : readPins())
    {
        SCOPED_TRACE(pin.name);
        Marked marked;
        Case c;
        buildCase(pin.name, c, marked.p);
        mrClipBSPGen serial;
        ClipPtr expected = c.import(serial);
        for (int threads : {1, 2, 3, 8})
        {
            SCOPED_TRACE(threads);
            mtest::AssertRecorder asserts;
            mrClipBSPGen gen;
            ClipPtr bsp(gen.importMeshModelParallel(&c.mesh, c.offset, c.matrix, threads));
            ASSERT_NE(bsp, nullptr);
            EXPECT_TRUE(asserts.reports().empty());
            std::vector<unsigned char> bytes;
            EXPECT_EQ(text(measure(pin.name, gen, *bsp, bytes)), text(pin));
            EXPECT_EQ(faceListDigest(gen), faceListDigest(serial));
            EXPECT_EQ(bsp->hasQueryIndex(), expected->hasQueryIndex());
        }
    }
}

// ---------------------------------------------------------------------------------------
// The query index answers exactly as the plain walk: same tree, with and without it.

// Points where rounding decides: random ones, ones on and next to every plane of the
// tree, and hostile ones.
std::vector<V> probePoints(const mrClipBSP& bsp, int count)
{
    std::vector<V> out;
    Rng r{777};
    V lo, hi;
    grownBounds(bsp, 0.2f, lo, hi);
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
    std::vector<V> points = probePoints(bsp, 1500);
    // Dense runs along a few lines, so that the index's grid cells are left and entered
    // at every kind of border.
    V lo, hi;
    grownBounds(bsp, 0.2f, lo, hi);
    Rng r{4242};
    for (int line = 0; line < 6; ++line)
    {
        const V a = randomIn(r, lo, hi), b = randomIn(r, lo, hi);
        for (int k = 0; k <= 4000; ++k)
        {
            const float t = (float)k / 4000.0f;
            points.push_back(V(a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t));
        }
    }
    // Contents of every point, the trace from it to a scattered other point and a short
    // trace to its successor (both ends often in one cell).
    auto answers = [&]
    {
        std::vector<std::tuple<int, int, uint64_t, int, uint64_t>> out;
        for (size_t i = 0; i < points.size(); ++i)
        {
            mrTrace t, u;
            const int result = bsp.checkCollision(points[i], points[(i * 7919 + 13) % points.size()], t);
            const int near = bsp.checkCollision(points[i], points[(i + 1) % points.size()], u);
            out.push_back({bsp.pointInfo(0, points[i]), result, hashTrace(0, result, t), near, hashTrace(0, near, u)});
        }
        return out;
    };
    bsp.prepareQueries();
    ASSERT_TRUE(bsp.hasQueryIndex());
    const auto indexed = answers();
    bsp.dropQueryIndex();
    ASSERT_FALSE(bsp.hasQueryIndex());
    const auto plain = answers();
    size_t differ = 0;
    for (size_t i = 0; i < points.size(); ++i)
        differ += indexed[i] != plain[i];
    EXPECT_EQ(differ, 0u) << "of " << points.size();
}

TEST(IndexedQueries, ClosedAndOpenMeshesAnswerAsThePlainWalk)
{
    Marked marked;
    for (const char* name :
         {"sphere4", "torus", "pillaredRooms", "movedTorus", "blob2k", "knot2k", "openlevel2k", "movedKnot"})
    {
        Case c;
        buildCase(name, c, marked.p);
        mrClipBSPGen gen;
        expectIndexChangesNothing(*c.import(gen), name);
    }
}

// The grid answers most points of a level from their cell alone: whole cells of rock
// and of open space. A tree made of long chains keeps its cones and gets no grid.
TEST(IndexedQueries, GridCellsHoldLeavesAwayFromTheSurface)
{
    Marked marked;
    int gridded = 0;
    for (const char* name : {"pillaredRooms", "sphere4"})
    {
        Case c;
        buildCase(name, c, marked.p);
        mrClipBSPGen gen;
        ClipPtr bsp = c.import(gen);
        const mrClipQueryIndex index(bsp->m_nodes, bsp->m_numnodes, bsp->m_planes, bsp->m_numplanes, bsp->m_mins,
                                     bsp->m_maxs);
        if (index.numRuns())
        {
            EXPECT_EQ(index.numCells(), 0u) << name;
            continue;
        }
        ASSERT_GE(index.numCells(), 4000u) << name;
        ++gridded;
        size_t solid = 0, empty = 0;
        for (size_t i = 0; i < index.numCells(); ++i)
        {
            solid += index.cellStart((int64_t)i) <= -2;
            empty += index.cellStart((int64_t)i) == -1;
        }
        EXPECT_GT(solid, index.numCells() / 20) << name;
        EXPECT_GT(empty, index.numCells() / 20) << name;
        // No grid without usable bounds; the queries then start at the root.
        const V nan(std::numeric_limits<float>::quiet_NaN(), 0, 0);
        EXPECT_EQ(mrClipQueryIndex(bsp->m_nodes, bsp->m_numnodes, bsp->m_planes, bsp->m_numplanes, nan, nan).numCells(),
                  0u);
        EXPECT_EQ(
            mrClipQueryIndex(bsp->m_nodes, bsp->m_numnodes, bsp->m_planes, bsp->m_numplanes, bsp->m_maxs, bsp->m_mins)
                .numCells(),
            0u);
    }
}

TEST(IndexedQueries, AwkwardChainsAnswerAsThePlainWalk)
{
    // A chain of planes around the z axis with its leaf behind (node i + 1 in front),
    // broken up by planes no cone can bound: no normal, huge values, NaN.
    const int n = 400;
    std::vector<mrPlane> planes;
    std::vector<mrClipNode> nodes;
    for (int i = 0; i < n; ++i)
    {
        const double a = 2.399963 * i, z = 1.0 - 2.0 * (i + 0.5) / n, rho = std::sqrt(1.0 - z * z);
        planes.push_back(mrPlane((float)(-rho * std::cos(a)), (float)(-rho * std::sin(a)), (float)-z, -50.0f));
        nodes.push_back(mrClipNode{i, {i + 1 < n ? i + 1 : -1, -3}});
    }
    planes[100] = mrPlane(0, 0, 0, 0.5f);
    planes[200] = mrPlane(1e20f, 0, 0, 3e20f);
    planes[300] = mrPlane(std::numeric_limits<float>::quiet_NaN(), 0, 1, 0);
    ClipPtr bsp = mtest::clipTree(planes, nodes);
    bsp->m_mins = V(-60, -60, -60);
    bsp->m_maxs = V(60, 60, 60);
    expectIndexChangesNothing(*bsp, "inward chain with unbounded planes");
}

TEST(IndexedQueries, IndexFollowsTheArrays)
{
    Case c;
    mtest::addSphere(c.mesh, V(0, 0, 0), 10, 3);
    mrClipBSPGen gen;
    ClipPtr bsp = c.import(gen);
    EXPECT_TRUE(bsp->hasQueryIndex());
    // A copy holds the same records, so it keeps the index.
    ClipPtr copy(new mrClipBSP);
    *copy = *bsp;
    EXPECT_TRUE(copy->hasQueryIndex());
    EXPECT_EQ(queryDigest(*copy, 300), queryDigest(*bsp, 300));
    // Arrays replaced from outside: the index no longer applies.
    mrClipNode* old = bsp->m_nodes;
    bsp->m_nodes = mrClipBSP::allocNodes(bsp->m_numnodes);
    std::memcpy(bsp->m_nodes, old, bsp->m_numnodes * sizeof(mrClipNode));
    EXPECT_FALSE(bsp->hasQueryIndex());
    mrClipBSP::freeNodes(old);
    bsp->prepareQueries();
    EXPECT_TRUE(bsp->hasQueryIndex());
    // The class's own operations on the arrays drop it.
    bsp->makeFromBBox(V(-1, -1, -1), V(1, 1, 1));
    EXPECT_FALSE(bsp->hasQueryIndex());
    // An invalid tree gets none.
    copy->m_nodes[3].child[0] = 1;
    copy->prepareQueries();
    EXPECT_FALSE(copy->hasQueryIndex());
}

// ---------------------------------------------------------------------------------------
// Deep trees. Each runs on a thread with a 512 KiB stack: anything that recursed once
// per tree level would overflow it long before the bottom.

TEST(DeepTree, TraceThroughTwoHundredThousandNestedCrossings)
{
    const int n = 200000;
    auto deep = [&]
    {
        // A chain of planes x = n - i facing +x: open in front, node i + 1 behind, and
        // behind the last plane open too. (No query index: the plain walk is exercised.)
        std::vector<mrPlane> planes;
        std::vector<mrClipNode> nodes;
        for (int i = 0; i < n; ++i)
        {
            planes.push_back(mrPlane(1, 0, 0, (float)(n - i)));
            nodes.push_back(mrClipNode{i, {-1, i + 1 < n ? i + 1 : -1}});
        }
        ClipPtr bsp = mtest::clipTree(planes, nodes);
        bsp->m_mins = V(0, -1, -1);
        bsp->m_maxs = V((float)n + 1, 1, 1);
        ASSERT_FALSE(bsp->hasQueryIndex());
        // Starting behind every plane, the trace's near parts nest once per node.
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
        ClipPtr loaded = mtest::loadClip(mtest::saveBuffer({bsp.get()}));
        ASSERT_NE(loaded, nullptr);
        EXPECT_TRUE(loaded->hasQueryIndex());
        mrTrace u;
        EXPECT_EQ(loaded->checkCollision(V(0.5f, 0, 0), V(300000, 0, 0), u), 0);
        EXPECT_EQ(hashTrace(0, 0, u), hashTrace(0, 0, t));
    };
    mtest::onSmallStack(512 * 1024, deep);
}

TEST(DeepTree, ClosedMeshChainGoesThroughEveryStage)
{
    // A closed sphere is a chain: each splitter leaves every other face behind it.
    auto deep = [&]
    {
        Case c;
        mtest::addSphere(c.mesh, V(0, 0, 0), 100, 5);
        mrClipBSPGen gen;
        ClipPtr bsp = c.import(gen);
        ASSERT_NE(bsp, nullptr);
        EXPECT_GT(bsp->m_numnodes, 7000u);
        // Node i + 1 is the back child of node i all the way down.
        uint32_t depth = 0;
        for (int node = 0; node >= 0; node = bsp->m_nodes[node].child[1])
            ++depth;
        EXPECT_EQ(depth, bsp->m_numnodes);

        ClipPtr loaded = mtest::loadClip(mtest::saveBuffer({bsp.get()}));
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(loaded->pointInfo(0, V(0, 0, 0)), -2);
        EXPECT_EQ(loaded->pointInfo(0, V(0, 0, 101)), -1);
        mrTrace t;
        EXPECT_EQ(loaded->checkCollision(V(-150, 1, 2), V(150, 1, 2), t), 0);
        EXPECT_NEAR(t.m_endPos.x, -100.0f, 0.1f);
        EXPECT_EQ(queryDigest(*loaded, 200), queryDigest(*bsp, 200));
    };
    mtest::onSmallStack(512 * 1024, deep);
}

} // namespace
