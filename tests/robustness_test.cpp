// Hostile input for the library: chunk files that lie about their contents, and meshes
// that no modeller should produce, fed into both pipelines. Each case expects a clear
// error or a defined result, never a crash, a hang or a leak.
//
// Every case here once broke something or guards a boundary;
// docs/robustness.md lists every case with its answer.

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clip/mrClipBSP.h"
#include "clipgen/mrClipBSPGen.h"
#include "geometry/mrBSPFace.h"
#include "geometry/mrBSPSurface.h"
#include "io/mrClipBSPIOHandler.h"
#include "platform/core/mrChunkOFStream.h"
#include "platform/core/mrCore.h"
#include "platform/core/mrIOManager.h"
#include "platform/dx/srCore.h"
#include "platform/dx/srMeshModel.h"
#include "platform/geom/mrMaterial.h"
#include "portals/mrBSPPortalizer.h"
#include "solid/mrBSPTree.h"
#include "solid/mrSolidBSP.h"
#include "support/TestSupport.h"
#include "surfaces/mrBSPSurfaceBuilder.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<unsigned char> Bytes;
const unsigned long kClipClass = 0x60000;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

class CoreEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        mrCore::initialize();
        mrCore::instance().getIOManager()->registerHandler(new mrClipBSPIOHandler);
    }
};
::testing::Environment* const g_environment = ::testing::AddGlobalTestEnvironment(new CoreEnvironment);

mrIOManager& manager() { return *mrCore::instance().getIOManager(); }

size_t liveClipBSPs() { return srCore::instance().getRegistry().numInstances(kClipClass); }

// A clip BSP with the given planes (normal, distance) and nodes, published for saving.
mrClipBSP* makeTree(const std::vector<mrPlane>& planes, const std::vector<mrClipNode>& nodes)
{
    mrClipBSP* bsp = new mrClipBSP;
    bsp->m_numplanes = (uint32_t)planes.size();
    bsp->m_planes = mrClipBSP::allocPlanes(planes.size());
    for (size_t i = 0; i < planes.size(); ++i)
    {
        bsp->m_planes[i].m_normal = planes[i].m_normal;
        bsp->m_planes[i].m_dist = planes[i].m_dist;
    }
    bsp->m_numnodes = (uint32_t)nodes.size();
    bsp->m_nodes = mrClipBSP::allocNodes(nodes.size());
    for (size_t i = 0; i < nodes.size(); ++i)
        bsp->m_nodes[i] = nodes[i];
    bsp->m_mins = V(-1, -1, -1);
    bsp->m_maxs = V(1, 1, 1);
    bsp->refreshPBlock(nullptr);
    return bsp;
}

mrClipBSP* makeBox()
{
    mrClipBSP* bsp = new mrClipBSP;
    bsp->makeFromBBox(V(-16, -16, -16), V(16, 16, 16));
    bsp->refreshPBlock(nullptr);
    return bsp;
}

Bytes save(const std::vector<srClass*>& objects)
{
    Bytes out;
    std::string error;
    EXPECT_TRUE(manager().saveBuffer(objects, out, &error)) << error;
    return out;
}

Bytes saveOne(mrClipBSP* bsp)
{
    Bytes out = save({bsp});
    bsp->release();
    return out;
}

std::string loadError(const Bytes& file)
{
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_FALSE(manager().loadBuffer(file, objects, &error, "hostile.mrc"));
    EXPECT_TRUE(objects.empty());
    for (srClass* o : objects)
        o->release();
    return error;
}

mrClipBSP* loadOne(const Bytes& file)
{
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_TRUE(manager().loadBuffer(file, objects, &error, "hostile.mrc")) << error;
    if (objects.size() != 1)
    {
        for (srClass* o : objects)
            o->release();
        return nullptr;
    }
    return dynamic_cast<mrClipBSP*>(objects[0]);
}

void putU32(Bytes& b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b[at + i] = (unsigned char)(v >> (8 * i));
}

// Offset of the first occurrence of a byte string (the file's own text: tags, field names).
size_t find(const Bytes& b, const char* text, size_t n = 0)
{
    if (n == 0)
        n = std::strlen(text);
    for (size_t i = 0; i + n <= b.size(); ++i)
        if (std::memcmp(&b[i], text, n) == 0)
            return i;
    ADD_FAILURE() << "\"" << text << "\" not found";
    return 0;
}

// Where things sit in a saved file (docs/chunk-format.md): header 12 bytes, then the
// "OBJ " chunk header (8), the class ID (4) and the name (4 + length).
const size_t kRecord = 12;
const size_t kRecordLength = kRecord + 4;
const size_t kNameLength = kRecord + 12;

// ---------------------------------------------------------------------------------
// The two pipelines, run to the end with everything released again.

struct VisResult
{
    uint32_t planes = 0;
    int splitNodes = 0;
    int emptyLeafs = 0;
    int solidLeafs = 0;
    int visleafs = 0;
    int visportals = 0;
    int meshPolys = 0;
    std::string portalFile;
};

VisResult runVis(srMeshModel& mesh, bool midSplit = false)
{
    VisResult r;
    mtest::TempDir dir;
    mrBSPSurfaceBuilder builder;
    mrBSPSurface* surfaces = builder.buildSurfaces(&mesh);
    r.planes = builder.m_numplanes;
    for (mrBSPSurface* s = surfaces; s; s = s->m_next)
        s->calcBounds();
    mrSolidBSP generator;
    mrBSPNode* head = generator.generate(surfaces, midSplit ? 1 : 0);
    EXPECT_NE(head, nullptr);
    if (!head)
        return r;
    r.splitNodes = generator.m_numSplitNodes;
    r.emptyLeafs = generator.m_numEmptyLeafs;
    r.solidLeafs = generator.m_numSolidLeafs;

    // The head node's box: the vertices the triangles use.
    bool first = true;
    for (long i = 0; i < mesh.m_numpolys; ++i)
        for (int k = 0; k < 3; ++k)
        {
            const V& p = mesh.getVertexLoc()[mesh.getPolyVertex()[i][k]];
            if (first)
            {
                head->m_mins = head->m_maxs = p;
                first = false;
            }
            for (int a = 0; a < 3; ++a)
            {
                head->m_mins[a] = std::min(head->m_mins[a], p[a]);
                head->m_maxs[a] = std::max(head->m_maxs[a], p[a]);
            }
        }
    if (first)
        head->m_mins = head->m_maxs = V(0, 0, 0);
    {
        mrBSPPortalizer portalizer;
        portalizer.portalize(head);
        std::string path = dir.file("test.prt");
        EXPECT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
        r.portalFile = mtest::readFile(path);
        r.visleafs = mrBSPPortalizer::m_num_visleafs;
        r.visportals = mrBSPPortalizer::m_num_visportals;
        srMeshModel* portalMesh = mrBSPPortalizer::createMeshModel(head);
        EXPECT_NE(portalMesh, nullptr);
        r.meshPolys = mrBSPPortalizer::m_polycount;
        if (portalMesh)
            portalMesh->release();
        // The library never releases the portal materials; the table holds the last
        // references once the mesh is gone.
        mrDynamicArray<mrMaterial*>& table = mrBSPPortalizer::m_materials;
        for (uint32_t i = 0; i < table.size(); ++i)
            if (table.at(i))
            {
                table.at(i)->release();
                table[i] = nullptr;
            }
        portalizer.releasePortals(head);
    }
    mrBSPTree::release(head);
    builder.releasePlanes();
    return r;
}

mrClipBSP* runClip(srMeshModel& mesh)
{
    V offset(0, 0, 0);
    srMatrix3T<float> identity;
    mrClipBSPGen gen;
    mrClipBSP* bsp = gen.importMeshModel(&mesh, offset, identity);
    EXPECT_NE(bsp, nullptr);
    if (bsp)
    {
        std::string why;
        EXPECT_TRUE(bsp->validate(&why)) << why;
    }
    return bsp;
}

// Every query of a small grid and of segments across it ends, and a clear trace reports
// fraction 1. The answers are returned as one string, to compare clip BSPs.
std::string queryGrid(const mrClipBSP& bsp, float extent)
{
    std::string answers;
    for (int x = -2; x <= 2; ++x)
        for (int y = -2; y <= 2; ++y)
            for (int z = -2; z <= 2; ++z)
            {
                V p(x * extent / 2 + 0.25f, y * extent / 2 + 0.125f, z * extent / 2 + 0.0625f);
                int contents = bsp.pointInfo(0, p);
                EXPECT_LT(contents, 0);
                answers += std::to_string(contents) + " ";
                mrTrace trace;
                int clear = bsp.checkCollision(V(-2 * extent, p.y, p.z), p, trace);
                EXPECT_TRUE(clear == 0 || clear == 1);
                if (clear)
                {
                    EXPECT_EQ(trace.m_fraction, 1.0f);
                }
                answers += std::to_string(clear) + ":" + std::to_string(trace.m_fraction) + " ";
            }
    return answers;
}

void addTriangle(srMeshModel& mesh, V a, V b, V c)
{
    int i = (int)mesh.addVertex(a);
    mesh.addVertex(b);
    mesh.addVertex(c);
    mesh.addPolygon(i, i + 1, i + 2);
}

// A closed box of twelve outward triangles with one corner moved to `corner`.
void addBoxWithCorner(srMeshModel& mesh, V corner)
{
    mtest::addBox(mesh, V(-8, -8, -8), V(8, 8, 8), true);
    mesh.m_verts[0] = corner;
}

} // namespace

// =================================================================================
// Chunk files. tests/io_test.cpp covers the header, truncation at every byte, random
// bit flips, counts of 2^32-1 for records, fields, nodes, planes and keys, field kinds
// and node cycles; these are the ways of lying it leaves out.

TEST(HostileChunkFiles, NameLengthOfAllOnesIsRefusedBeforeAllocating)
{
    Bytes file = saveOne(makeBox());
    putU32(file, kNameLength, 0xFFFFFFFFu);
    std::string error = loadError(file);
    EXPECT_EQ(error.rfind("hostile.mrc: record 0: unexpected end of chunk 0x204A424F (\"OBJ \") at offset 28: "
                          "a string needs 4294967295 bytes",
                          0),
              0u)
        << error;
}

TEST(HostileChunkFiles, ChunkLengthOfAllOnesIsRefused)
{
    Bytes file = saveOne(makeBox());
    putU32(file, kRecordLength, 0xFFFFFFFFu);
    std::string error = loadError(file);
    EXPECT_NE(error.find("has length 4294967295"), std::string::npos) << error;
    EXPECT_NE(error.find("past the end of the file"), std::string::npos) << error;
}

TEST(HostileChunkFiles, ByteArrayCountOfAllOnesIsRefused)
{
    Bytes file = saveOne(makeBox());
    // The count follows the field name "Planes" (a string: length 6, then the text).
    size_t at = find(file, "\x06\0\0\0Planes", 10) + 10;
    putU32(file, at, 0xFFFFFFFFu);
    std::string error = loadError(file);
    EXPECT_NE(error.find("a byte array needs 4294967295 bytes"), std::string::npos) << error;
}

TEST(HostileChunkFiles, UnknownClassIDsAfterAGoodRecordLoseNothingAndLeakNothing)
{
    size_t before = liveClipBSPs();
    for (uint32_t id : {0u, 0x5FFFFu, 0x60001u, 0xFFFFFFFFu})
    {
        mrClipBSP* a = makeBox();
        mrClipBSP* b = makeBox();
        Bytes file = save({a, b});
        a->release();
        b->release();
        // The second record's class ID: after the first record's whole chunk.
        uint32_t firstLength = (uint32_t)file[kRecordLength] | (uint32_t)file[kRecordLength + 1] << 8 |
                               (uint32_t)file[kRecordLength + 2] << 16 | (uint32_t)file[kRecordLength + 3] << 24;
        size_t second = kRecord + 8 + firstLength;
        putU32(file, second + 8, id);
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%X", id);
        EXPECT_EQ(loadError(file), std::string("hostile.mrc: record 1 (class ") + hex +
                                       "): unknown class ID (no IO handler is registered for it)");
    }
    EXPECT_EQ(liveClipBSPs(), before);
}

TEST(HostileChunkFiles, AForeignChunkInsideTheBlockIsRefused)
{
    Bytes file = saveOne(makeBox());
    size_t field = find(file, "FLD ");
    std::memcpy(&file[field], "ANIM", 4);
    std::string error = loadError(file);
    EXPECT_EQ(error.rfind("hostile.mrc: record 0 (class 0x60000): ", 0), 0u) << error;
    EXPECT_NE(error.find("\"ANIM\""), std::string::npos) << error;
}

TEST(HostileChunkFiles, RecordCountOfAllOnesWithOneRecordIsRefused)
{
    Bytes file = saveOne(makeBox());
    putU32(file, 8, 0xFFFFFFFFu);
    std::string error = loadError(file);
    EXPECT_EQ(error.rfind("hostile.mrc: record count 4294967295 at offset 12 needs at least 16 bytes each", 0), 0u)
        << error;
}

// Plane values are not checked: a file may carry NaN, infinite or zero planes. The tree
// loads (its structure is sound) and every query ends with a defined answer: a NaN
// distance is "not >= 0", so pointInfo takes the back child.
TEST(HostileChunkFiles, NonFinitePlanesLoadAndQueriesEnd)
{
    mrPlane nanPlane, infPlane, zeroPlane;
    nanPlane.m_normal = V(kNaN, 0, 0);
    nanPlane.m_dist = 0;
    infPlane.m_normal = V(1, 0, 0);
    infPlane.m_dist = kInf;
    zeroPlane.m_normal = V(0, 0, 0);
    zeroPlane.m_dist = 0;
    Bytes file = saveOne(makeTree({nanPlane, infPlane, zeroPlane},
                                  {mrClipNode{0, {-1, 1}}, mrClipNode{1, {-1, 2}}, mrClipNode{2, {-1, -2}}}));
    mrClipBSP* bsp = loadOne(file);
    ASSERT_NE(bsp, nullptr);
    EXPECT_TRUE(std::isnan(bsp->m_planes[0].m_normal.x));
    // NaN: back; x - inf = -inf: back; 0 - 0 = 0: front (empty).
    EXPECT_EQ(bsp->pointInfo(0, V(1, 2, 3)), -1);
    mrTrace trace;
    int clear = bsp->checkCollision(V(-5, 0, 0), V(5, 0, 0), trace);
    EXPECT_TRUE(clear == 0 || clear == 1);
    // Non-finite query points end too.
    EXPECT_LT(bsp->pointInfo(0, V(kNaN, kInf, -kInf)), 0);
    clear = bsp->checkCollision(V(kNaN, 0, 0), V(kInf, 0, 0), trace);
    EXPECT_TRUE(clear == 0 || clear == 1);
    bsp->release();
}

namespace
{
// A chain of nodes each crossed by the segment: the trace recurses once per crossing on
// the near side, so the depth a file asks for is the recursion depth of checkCollision.
mrClipBSP* crossedChain(int n)
{
    std::vector<mrPlane> planes(n);
    std::vector<mrClipNode> nodes(n);
    for (int i = 0; i < n; ++i)
    {
        planes[i].m_normal = V(1, 0, 0);
        planes[i].m_dist = (float)i;
        // Front (x >= i): the next plane; back: open.
        nodes[i] = mrClipNode{i, {i + 1 < n ? i + 1 : -1, -1}};
    }
    return loadOne(saveOne(makeTree(planes, nodes)));
}

void expectChainIsClear(int n)
{
    mrClipBSP* bsp = crossedChain(n);
    ASSERT_NE(bsp, nullptr);
    EXPECT_EQ(bsp->pointInfo(0, V((float)n, 0, 0)), -1);
    mrTrace trace;
    EXPECT_EQ(bsp->checkCollision(V((float)n + 1, 0, 0), V(-1, 0, 0), trace), 1);
    EXPECT_EQ(trace.m_fraction, 1.0f);
    bsp->release();
}
} // namespace

TEST(HostileChunkFiles, LongChainFromAFileIsQueried) { expectChainIsClear(10000); }

// Far beyond what a recursive trace survives: with one call per crossing, about 57,000
// levels overflowed a default 8 MB stack in an optimised build. A 7 MB file.
TEST(HostileChunkFiles, VeryLongChainFromAFileIsQueried) { expectChainIsClear(200000); }

// A node that is the child of several nodes would make a trace walk its subtree once per
// path to it: with both children of each node pointing to the next, 2^depth walks, so a
// 40-node file would keep checkCollision busy for hours. The builders only make trees, so
// validate() refuses a node with a second parent.
TEST(HostileChunkFiles, NodesWithTwoParentsAreRefused)
{
    const int n = 40;
    std::vector<mrPlane> planes(n);
    std::vector<mrClipNode> nodes(n);
    for (int i = 0; i < n; ++i)
    {
        planes[i].m_normal = V(1, 0, 0);
        planes[i].m_dist = (float)(i % 2);
        nodes[i] = mrClipNode{i, {i + 1 < n ? i + 1 : -1, i + 1 < n ? i + 1 : -1}};
    }
    mrClipBSP* bsp = makeTree(planes, nodes);
    std::string why;
    EXPECT_FALSE(bsp->validate(&why));
    EXPECT_EQ(why, "node 0: child 1 is node 1, which already has a parent (node 0)");
    bsp->release();
}

// =================================================================================
// Meshes the tool's reader would refuse or that are merely odd, given straight to the
// library. Each pipeline must finish with a defined result.

TEST(HostileMeshes, EmptyMesh)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    EXPECT_EQ(bsp->m_numnodes, 0u);
    EXPECT_EQ(bsp->m_numplanes, 0u);
    EXPECT_EQ(bsp->m_mins, V(999998, 999998, 999998));
    EXPECT_EQ(bsp->m_maxs, V(-999998, -999998, -999998));
    EXPECT_EQ(bsp->pointInfo(0, V(0, 0, 0)), -1);
    mrTrace trace;
    EXPECT_EQ(bsp->checkCollision(V(-1, 0, 0), V(1, 0, 0), trace), 1);
    bsp->release();

    VisResult vis = runVis(*mesh);
    EXPECT_EQ(vis.planes, 0u);
    EXPECT_EQ(vis.splitNodes, 0);
    EXPECT_EQ(vis.visleafs, 0);
    EXPECT_EQ(vis.visportals, 0);
    EXPECT_EQ(vis.portalFile, "PRT\n0\n0\n");
    mesh->release();
}

TEST(HostileMeshes, SingleTriangle)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    addTriangle(*mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    ASSERT_EQ(bsp->m_numnodes, 1u);
    EXPECT_EQ(bsp->m_numplanes, 1u);
    EXPECT_EQ(bsp->m_nodes[0].child[0], -1);
    EXPECT_EQ(bsp->m_nodes[0].child[1], -2);
    EXPECT_EQ(bsp->pointInfo(0, V(5, 5, 1)), -1);
    EXPECT_EQ(bsp->pointInfo(0, V(5, 5, -1)), -2);
    bsp->release();

    VisResult vis = runVis(*mesh);
    EXPECT_EQ(vis.planes, 1u);
    EXPECT_EQ(vis.splitNodes, 1);
    EXPECT_EQ(vis.emptyLeafs, 1);
    EXPECT_EQ(vis.solidLeafs, 1);
    EXPECT_EQ(vis.visleafs, 1);
    EXPECT_EQ(vis.visportals, 0);
    mesh->release();
}

// Zero-area triangles keep the all-zero plane: every point lies "on" it, which the
// queries read as front. Each gets its own plane in the visibility pipeline.
TEST(HostileMeshes, AllDegenerateTriangles)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    addTriangle(*mesh, V(0, 0, 0), V(1, 1, 1), V(2, 2, 2)); // collinear
    addTriangle(*mesh, V(3, 3, 3), V(3, 3, 3), V(4, 0, 0)); // two equal points
    addTriangle(*mesh, V(5, 5, 5), V(5, 5, 5), V(5, 5, 5)); // one point
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    for (uint32_t i = 0; i < bsp->m_numplanes; ++i)
    {
        EXPECT_EQ(bsp->m_planes[i].m_normal, V(0, 0, 0));
        EXPECT_EQ(bsp->m_planes[i].m_dist, 0.0f);
    }
    EXPECT_GE(bsp->m_numnodes, 1u);
    EXPECT_LE(bsp->pointInfo(0, V(0.5f, 0.5f, 0.5f)), -2);
    queryGrid(*bsp, 4);
    bsp->release();

    VisResult vis = runVis(*mesh);
    EXPECT_EQ(vis.planes, 3u);
    EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
    mesh->release();
}

TEST(HostileMeshes, DuplicateTrianglesGiveTheSameAnswers)
{
    srMeshModel* once = new srMeshModel(0, 0);
    mtest::addBox(*once, V(-8, -8, -8), V(8, 8, 8), true);
    srMeshModel* twice = new srMeshModel(0, 0);
    mtest::addBox(*twice, V(-8, -8, -8), V(8, 8, 8), true);
    mtest::addBox(*twice, V(-8, -8, -8), V(8, 8, 8), true);

    mrClipBSP* a = runClip(*once);
    mrClipBSP* b = runClip(*twice);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->m_numnodes, b->m_numnodes);
    EXPECT_EQ(queryGrid(*a, 10), queryGrid(*b, 10));
    a->release();
    b->release();

    VisResult va = runVis(*once);
    VisResult vb = runVis(*twice);
    EXPECT_EQ(va.planes, 6u);
    EXPECT_EQ(vb.planes, 6u);
    EXPECT_EQ(va.splitNodes, vb.splitNodes);
    EXPECT_EQ(va.visleafs, vb.visleafs);
    EXPECT_EQ(va.visportals, vb.visportals);
    once->release();
    twice->release();
}

// Two triangles on one plane facing opposite ways: the first splitter uses up the
// other (opposite facing), and both sides come out open.
TEST(HostileMeshes, CoincidentOppositeTriangles)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    addTriangle(*mesh, V(0, 0, 0), V(4, 0, 0), V(0, 4, 0));
    addTriangle(*mesh, V(0, 0, 0), V(0, 4, 0), V(4, 0, 0));
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    ASSERT_EQ(bsp->m_numnodes, 1u);
    EXPECT_EQ(bsp->m_nodes[0].child[0], -1);
    EXPECT_EQ(bsp->m_nodes[0].child[1], -1);
    mrTrace trace;
    EXPECT_EQ(bsp->checkCollision(V(1, 1, 5), V(1, 1, -5), trace), 1);
    bsp->release();

    VisResult vis = runVis(*mesh);
    EXPECT_EQ(vis.planes, 2u);
    EXPECT_EQ(vis.splitNodes, 2);
    EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
    mesh->release();
}

// A 100-vertex convex polygon as a fan of 98 triangles: one plane, one surface.
TEST(HostileMeshes, HundredVertexPolygon)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    for (int i = 0; i < 100; ++i)
    {
        double a = 2.0 * M_PI * i / 100.0;
        mesh->addVertex(V((float)(10.0 * std::cos(a)), (float)(10.0 * std::sin(a)), 2.0f));
    }
    for (int i = 1; i + 1 < 100; ++i)
        mesh->addPolygon(0, i, i + 1);
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    ASSERT_EQ(bsp->m_numnodes, 1u);
    EXPECT_EQ(bsp->m_numplanes, 98u);
    EXPECT_EQ(bsp->m_nodes[0].child[0], -1);
    EXPECT_EQ(bsp->m_nodes[0].child[1], -2);
    EXPECT_EQ(bsp->pointInfo(0, V(0, 0, 3)), -1);
    EXPECT_EQ(bsp->pointInfo(0, V(0, 0, 1)), -2);
    bsp->release();

    VisResult vis = runVis(*mesh);
    EXPECT_EQ(vis.planes, 1u);
    EXPECT_EQ(vis.splitNodes, 1);
    mesh->release();
}

// Coordinates near 1e30: the collision pipeline's float cross product overflows, so the
// planes come out NaN. A NaN plane matches no plane of the table, so each node on one is
// reported ("found") and keeps plane 0; the tree is still sound and queries end. The
// visibility pipeline works in double and finds the six planes.
TEST(HostileMeshes, CoordinatesNear1e30)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    mtest::addBox(*mesh, V(-1e30f, -1e30f, -1e30f), V(1e30f, 1e30f, 1e30f), true);
    mtest::AssertRecorder asserts;
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    EXPECT_TRUE(std::isnan(bsp->m_planes[0].m_normal.x));
    EXPECT_EQ(asserts.count("found"), (size_t)bsp->m_numnodes);
    EXPECT_EQ(asserts.reports().size(), asserts.count("found"));
    EXPECT_GE(bsp->m_numnodes, 1u);
    queryGrid(*bsp, 2e30f);
    bsp->release();

    VisResult vis = runVis(*mesh);
    EXPECT_EQ(vis.planes, 6u);
    EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
    mesh->release();
}

// The triangles at the bad corner get NaN planes, reported as above ("found").
TEST(HostileMeshes, NonFiniteCoordinatesInTheCollisionPipeline)
{
    for (V corner : {V(kNaN, -8, -8), V(-kInf, -8, -8), V(kInf, kInf, kInf)})
    {
        srMeshModel* mesh = new srMeshModel(0, 0);
        addBoxWithCorner(*mesh, corner);
        mtest::AssertRecorder asserts;
        mrClipBSP* bsp = runClip(*mesh);
        ASSERT_NE(bsp, nullptr);
        EXPECT_EQ(asserts.reports().size(), asserts.count("found"));
        queryGrid(*bsp, 10);
        bsp->release();
        mesh->release();
    }
}

// A NaN or infinite coordinate gives a surface whose plane never matches itself (NaN
// compares false), so matching alone would never use it up and generation would pick it
// again and again. The splitter is marked used itself, so generation ends.
TEST(HostileMeshes, NonFiniteCoordinatesInTheVisibilityPipeline)
{
    for (V corner : {V(kNaN, -8, -8), V(-kInf, -8, -8)})
    {
        srMeshModel* mesh = new srMeshModel(0, 0);
        addBoxWithCorner(*mesh, corner);
        VisResult vis = runVis(*mesh);
        EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
        mesh->release();
    }
}

// Every tangent plane of a circle cuts one more corner off the big triangle lying
// across them, until its piece would need more than the 64 points a generator face
// holds. The generator reports it and drops the point; the tree stays sound.
TEST(HostileMeshes, FacePieceBeyondSixtyFourPointsIsReported)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    addTriangle(*mesh, V(-400, -200, 0), V(400, -200, 0), V(0, 400, 0));
    const int tangents = 90;
    for (int k = 0; k < tangents; ++k)
    {
        double a = 2.0 * M_PI * k / tangents;
        V t((float)(10.0 * std::cos(a)), (float)(10.0 * std::sin(a)), 0);
        V d((float)-std::sin(a) * 0.1f, (float)std::cos(a) * 0.1f, 0);
        addTriangle(*mesh, V(t.x - d.x, t.y - d.y, -1), V(t.x + d.x, t.y + d.y, -1), V(t.x, t.y, 1));
    }
    mtest::AssertRecorder asserts;
    mrClipBSP* bsp = runClip(*mesh);
    ASSERT_NE(bsp, nullptr);
    EXPECT_GE(asserts.count("face->m_numpoints < MAX_POINTS", "face piece exceeds 64 points; point dropped"), 1u);
    EXPECT_GE(bsp->m_numnodes, (uint32_t)tangents);
    EXPECT_EQ(asserts.reports().size(),
              asserts.count("face->m_numpoints < MAX_POINTS", "face piece exceeds 64 points; point dropped"));
    queryGrid(*bsp, 30);
    bsp->release();
    mesh->release();
}

// =================================================================================
// Outputs that cannot be written: a clear failure, and the earlier file survives.
// (Missing directories for chunk files are covered in tests/io_test.cpp, and the tool's
// own outputs in tests/cli_test.cpp.)

namespace
{
// A one-triangle tree with its head box, portalized, for the portal file writer.
struct SmallTree
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    mrBSPSurfaceBuilder builder;
    mrBSPNode* head = nullptr;
    mrBSPPortalizer portalizer;

    SmallTree()
    {
        addTriangle(*mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
        mrBSPSurface* surfaces = builder.buildSurfaces(mesh);
        for (mrBSPSurface* s = surfaces; s; s = s->m_next)
            s->calcBounds();
        mrSolidBSP generator;
        head = generator.generate(surfaces, 0);
        head->m_mins = V(0, 0, 0);
        head->m_maxs = V(1, 1, 0);
        portalizer.portalize(head);
    }
    ~SmallTree()
    {
        portalizer.releasePortals(head);
        mrBSPTree::release(head);
        builder.releasePlanes();
        mesh->release();
    }
};

bool runningAsRoot() { return ::geteuid() == 0; }
} // namespace

TEST(HostileOutputs, PortalFileIntoAMissingDirectoryIsReportedAndWritesNothing)
{
    mtest::TempDir dir;
    SmallTree tree;
    mtest::AssertRecorder asserts;
    std::string path = dir.file("missing/test.prt");
    EXPECT_FALSE(mrBSPPortalizer::writePortalfile(tree.head, path.c_str()));
    EXPECT_EQ(asserts.count("0", "Error opening %s"), 1u);
    EXPECT_FALSE(std::filesystem::exists(dir.file("missing")));
}

TEST(HostileOutputs, ReadOnlyDirectoryKeepsTheEarlierFiles)
{
    if (runningAsRoot())
        GTEST_SKIP() << "root writes into read-only directories";
    mtest::TempDir dir;
    std::string ro = dir.file("ro");
    std::filesystem::create_directory(ro);

    SmallTree tree;
    std::string prt = ro + "/test.prt";
    ASSERT_TRUE(mrBSPPortalizer::writePortalfile(tree.head, prt.c_str()));
    mrClipBSP* box = makeBox();
    std::string mrc = ro + "/box.mrc";
    std::string error;
    ASSERT_TRUE(manager().saveFile(mrc, {box}, &error)) << error;
    std::string prtBefore = mtest::readFile(prt);
    std::string mrcBefore = mtest::readFile(mrc);

    std::filesystem::permissions(ro, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    mtest::AssertRecorder asserts;
    EXPECT_FALSE(mrBSPPortalizer::writePortalfile(tree.head, prt.c_str()));
    EXPECT_EQ(asserts.count("0", "Error opening %s"), 1u);
    EXPECT_FALSE(manager().saveFile(mrc, {box}, &error));
    EXPECT_EQ(error.rfind(mrc + ": cannot create a temporary file beside it: Permission denied", 0), 0u) << error;
    std::filesystem::permissions(ro, std::filesystem::perms::owner_all);

    EXPECT_EQ(mtest::readFile(prt), prtBefore);
    EXPECT_EQ(mtest::readFile(mrc), mrcBefore);
    size_t files = 0;
    for (const auto& e : std::filesystem::directory_iterator(ro))
    {
        (void)e;
        ++files;
    }
    EXPECT_EQ(files, 2u);
    box->release();
}
