// Hostile input for the library: chunk files that lie about their contents, and meshes
// that no modeller should produce, fed into both pipelines. Each case expects a clear
// error or a defined result, never a crash, a hang or a leak.
//
// Every case here once broke something or guards a boundary;
// docs/robustness.md lists every case with its answer.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/dx/srCore.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<unsigned char> Bytes;
using mtest::ClipPtr;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

size_t liveClipBSPs() { return srCore::instance().getRegistry().numInstances(0x60000); }

// Clip BSPs published for saving: a box, and a tree of these planes and nodes.
ClipPtr box()
{
    ClipPtr bsp = mtest::clipBox(V(-16, -16, -16), V(16, 16, 16));
    bsp->refreshPBlock(nullptr);
    return bsp;
}

ClipPtr tree(const std::vector<mrPlane>& planes, const std::vector<mrClipNode>& nodes)
{
    ClipPtr bsp = mtest::clipTree(planes, nodes);
    bsp->m_mins = V(-1, -1, -1);
    bsp->m_maxs = V(1, 1, 1);
    bsp->refreshPBlock(nullptr);
    return bsp;
}

Bytes saved(const ClipPtr& bsp) { return mtest::saveBuffer({bsp.get()}); }

ClipPtr loadOne(const Bytes& file) { return mtest::loadClip(file, "hostile.mrc"); }

std::string loadError(const Bytes& file)
{
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_FALSE(mtest::clipIO().loadBuffer(file, objects, &error, "hostile.mrc"));
    EXPECT_TRUE(objects.empty());
    for (srClass* o : objects)
        o->release();
    return error;
}

const char* const kAllOnes = "\xFF\xFF\xFF\xFF";

// Offset of the first occurrence of a byte string (the file's own text: tags, field names).
size_t find(const Bytes& b, const std::string& text)
{
    auto at = std::search(b.begin(), b.end(), text.begin(), text.end());
    EXPECT_NE(at, b.end()) << "\"" << text << "\" not found";
    return at == b.end() ? 0 : (size_t)(at - b.begin());
}

// Where things sit in a saved file (docs/chunk-format.md): header 12 bytes, then the
// "OBJ " chunk header (8), the class ID (4) and the name (4 + length).
const size_t kRecord = 12;
const size_t kRecordLength = kRecord + 4;
const size_t kNameLength = kRecord + 12;

// ---------------------------------------------------------------------------------
// The two pipelines, run to the end with everything released again.

// The visibility pipeline in one call, its portal file read back as `portalFile`.
struct VisResult : mrVisPipeline::Result
{
    std::string portalFile;
};

void runVis(srMeshModel& mesh, VisResult& r)
{
    mtest::TempDir dir;
    mrVisPipeline::Settings settings;
    settings.portalFile = dir.file("test.prt");
    std::string error;
    mtest::LogCapture log;
    EXPECT_TRUE(mrVisPipeline::run(&mesh, settings, r, error)) << error;
    r.portalFile = mtest::readFile(settings.portalFile);
}

std::string reportText(const mtest::AssertRecorder& recorder)
{
    std::string out;
    for (const mtest::AssertReport& r : recorder.reports())
        out += r.expression + " " + r.source + ":" + std::to_string(r.line) + " " + r.message + "\n";
    return out;
}

// The clip BSP of a hostile mesh. Built on three threads, it must come out the same, with
// the same reports in the same order (made on the calling thread).
ClipPtr runClip(srMeshModel& mesh)
{
    V offset(0, 0, 0);
    srMatrix3T<float> identity;
    mrClipBSPGen gen;
    ClipPtr bsp(gen.importMeshModel(&mesh, offset, identity));
    EXPECT_NE(bsp, nullptr);
    std::string why;
    EXPECT_TRUE(!bsp || bsp->validate(&why)) << why;
    if (bsp)
    {
        mtest::AssertRecorder serial;
        mrClipBSPGen again;
        ClipPtr expected(again.importMeshModel(&mesh, offset, identity));
        const std::string serialReports = reportText(serial);
        mtest::AssertRecorder parallel;
        mrClipBSPGen threaded;
        ClipPtr built(threaded.importMeshModelParallel(&mesh, offset, identity, 3));
        EXPECT_EQ(reportText(parallel), serialReports);
        EXPECT_TRUE(built && mtest::saveBuffer({built.get()}) == mtest::saveBuffer({expected.get()}));
    }
    return bsp;
}

// A flat mesh facing +z: one node whatever the triangle count (`planes` entries in the
// plane table), empty in front, solid behind.
void expectOneNodeEmptyAboveSolidBelow(srMeshModel& mesh, uint32_t planes, V above, V below)
{
    ClipPtr bsp = runClip(mesh);
    ASSERT_NE(bsp, nullptr);
    ASSERT_EQ(bsp->m_numnodes, 1u);
    EXPECT_EQ(bsp->m_numplanes, planes);
    EXPECT_EQ(bsp->m_nodes[0].child[0], -1);
    EXPECT_EQ(bsp->m_nodes[0].child[1], -2);
    EXPECT_EQ(bsp->pointInfo(0, above), -1);
    EXPECT_EQ(bsp->pointInfo(0, below), -2);
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
                EXPECT_TRUE(!clear || trace.m_fraction == 1.0f) << trace.m_fraction;
                answers += std::to_string(clear) + ":" + std::to_string(trace.m_fraction) + " ";
            }
    return answers;
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

// Four bytes of a saved box replaced, each a length or count the file cannot hold or a
// chunk where none belongs: refused with a message that starts with `head` and names the
// lie, before anything is allocated for it. The bytes sit `skip` past the first `marker`
// in the file (past its start when there is none).
TEST(HostileChunkFiles, LengthsCountsAndChunksThatLieAreRefused)
{
    const Bytes file = saved(box());
    const struct
    {
        std::string marker;
        size_t skip;
        const char* bytes;
        const char* head;
        const char* part;
    } cases[] = {
        {"", 8, kAllOnes, "hostile.mrc: record count 4294967295 at offset 12 needs at least 16 bytes each", ""},
        {"", kRecordLength, kAllOnes, "hostile.mrc: record 0: ", "has length 4294967295"},
        {"", kRecordLength, kAllOnes, "hostile.mrc: record 0: ", "past the end of the file"},
        {"", kNameLength, kAllOnes,
         "hostile.mrc: record 0: unexpected end of chunk 0x204A424F (\"OBJ \") at offset 28: a string needs "
         "4294967295 bytes",
         ""},
        // The count follows the field name "Planes" (a string: length 6, then the text).
        {std::string("\x06\0\0\0Planes", 10), 10, kAllOnes, "hostile.mrc: record 0",
         "a byte array needs 4294967295 bytes"},
        {"FLD ", 0, "ANIM", "hostile.mrc: record 0 (class 0x60000): ", "\"ANIM\""},
    };
    for (const auto& c : cases)
    {
        Bytes bad = file;
        std::memcpy(&bad[(c.marker.empty() ? 0 : find(file, c.marker)) + c.skip], c.bytes, 4);
        const std::string error = loadError(bad);
        EXPECT_EQ(error.rfind(c.head, 0), 0u) << error;
        EXPECT_NE(error.find(c.part), std::string::npos) << error;
    }
}

TEST(HostileChunkFiles, UnknownClassIDsAfterAGoodRecordLoseNothingAndLeakNothing)
{
    size_t before = liveClipBSPs();
    const Bytes two = mtest::saveBuffer({box().get(), box().get()});
    // The second record's class ID: after the first record's whole chunk.
    const uint32_t firstLength = (uint32_t)two[kRecordLength] | (uint32_t)two[kRecordLength + 1] << 8 |
                                 (uint32_t)two[kRecordLength + 2] << 16 | (uint32_t)two[kRecordLength + 3] << 24;
    const size_t classID = kRecord + 8 + firstLength + 8;
    for (uint32_t id : {0u, 0x5FFFFu, 0x60001u, 0xFFFFFFFFu})
    {
        Bytes file = two;
        for (int i = 0; i < 4; ++i)
            file[classID + i] = (unsigned char)(id >> (8 * i));
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%X", id);
        EXPECT_EQ(loadError(file), std::string("hostile.mrc: record 1 (class ") + hex +
                                       "): unknown class ID (no IO handler is registered for it)");
    }
    EXPECT_EQ(liveClipBSPs(), before);
}

// Plane values are not checked: a file may carry NaN, infinite or zero planes. The tree
// loads (its structure is sound) and every query ends with a defined answer: a NaN
// distance is "not >= 0", so pointInfo takes the back child.
TEST(HostileChunkFiles, NonFinitePlanesLoadAndQueriesEnd)
{
    ClipPtr bsp = loadOne(saved(tree({mrPlane(kNaN, 0, 0, 0), mrPlane(1, 0, 0, kInf), mrPlane(0, 0, 0, 0)},
                                     {mrClipNode{0, {-1, 1}}, mrClipNode{1, {-1, 2}}, mrClipNode{2, {-1, -2}}})));
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
}

namespace
{
// A chain of nodes each crossed by the segment: the trace recurses once per crossing on
// the near side, so the depth a file asks for is the recursion depth of checkCollision.
void expectChainIsClear(int n)
{
    std::vector<mrPlane> planes;
    std::vector<mrClipNode> nodes;
    for (int i = 0; i < n; ++i)
    {
        planes.push_back(mrPlane(1, 0, 0, (float)i));
        nodes.push_back(mrClipNode{i, {i + 1 < n ? i + 1 : -1, -1}}); // front (x >= i): the next plane
    }
    ClipPtr bsp = loadOne(saved(tree(planes, nodes)));
    ASSERT_NE(bsp, nullptr);
    EXPECT_EQ(bsp->pointInfo(0, V((float)n, 0, 0)), -1);
    mrTrace trace;
    EXPECT_EQ(bsp->checkCollision(V((float)n + 1, 0, 0), V(-1, 0, 0), trace), 1);
    EXPECT_EQ(trace.m_fraction, 1.0f);
}
} // namespace

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
    std::vector<mrPlane> planes;
    std::vector<mrClipNode> nodes;
    for (int i = 0; i < n; ++i)
    {
        planes.push_back(mrPlane(1, 0, 0, (float)(i % 2)));
        nodes.push_back(mrClipNode{i, {i + 1 < n ? i + 1 : -1, i + 1 < n ? i + 1 : -1}});
    }
    std::string why;
    EXPECT_FALSE(tree(planes, nodes)->validate(&why));
    EXPECT_EQ(why, "node 0: child 1 is node 1, which already has a parent (node 0)");
}

// =================================================================================
// Meshes the tool's reader would refuse or that are merely odd, given straight to the
// library. Each pipeline must finish with a defined result.

TEST(HostileMeshes, EmptyMesh)
{
    srMeshModel mesh;
    ClipPtr bsp = runClip(mesh);
    ASSERT_NE(bsp, nullptr);
    EXPECT_EQ(bsp->m_numnodes, 0u);
    EXPECT_EQ(bsp->m_numplanes, 0u);
    EXPECT_EQ(bsp->m_mins, V(999998, 999998, 999998));
    EXPECT_EQ(bsp->m_maxs, V(-999998, -999998, -999998));
    EXPECT_EQ(bsp->pointInfo(0, V(0, 0, 0)), -1);
    mrTrace trace;
    EXPECT_EQ(bsp->checkCollision(V(-1, 0, 0), V(1, 0, 0), trace), 1);

    VisResult vis;
    runVis(mesh, vis);
    EXPECT_EQ(vis.planes, 0u);
    EXPECT_EQ(vis.numSplitNodes, 0);
    EXPECT_EQ(vis.numVisleafs, 0);
    EXPECT_EQ(vis.numVisportals, 0);
    EXPECT_EQ(vis.portalFile, "PRT\n0\n0\n");
}

TEST(HostileMeshes, SingleTriangle)
{
    srMeshModel mesh;
    mtest::addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    expectOneNodeEmptyAboveSolidBelow(mesh, 1, V(5, 5, 1), V(5, 5, -1));

    VisResult vis;
    runVis(mesh, vis);
    EXPECT_EQ(vis.planes, 1u);
    EXPECT_EQ(vis.numSplitNodes, 1);
    EXPECT_EQ(vis.numEmptyLeafs, 1);
    EXPECT_EQ(vis.numSolidLeafs, 1);
    EXPECT_EQ(vis.numVisleafs, 1);
    EXPECT_EQ(vis.numVisportals, 0);
}

// Zero-area triangles keep the all-zero plane: every point lies "on" it, which the
// queries read as front. Each gets its own plane in the visibility pipeline.
TEST(HostileMeshes, AllDegenerateTriangles)
{
    srMeshModel mesh;
    mtest::addTriangle(mesh, V(0, 0, 0), V(1, 1, 1), V(2, 2, 2)); // collinear
    mtest::addTriangle(mesh, V(3, 3, 3), V(3, 3, 3), V(4, 0, 0)); // two equal points
    mtest::addTriangle(mesh, V(5, 5, 5), V(5, 5, 5), V(5, 5, 5)); // one point
    ClipPtr bsp = runClip(mesh);
    ASSERT_NE(bsp, nullptr);
    for (uint32_t i = 0; i < bsp->m_numplanes; ++i)
    {
        EXPECT_EQ(bsp->m_planes[i].m_normal, V(0, 0, 0));
        EXPECT_EQ(bsp->m_planes[i].m_dist, 0.0f);
    }
    EXPECT_GE(bsp->m_numnodes, 1u);
    EXPECT_LE(bsp->pointInfo(0, V(0.5f, 0.5f, 0.5f)), -2);
    queryGrid(*bsp, 4);

    VisResult vis;
    runVis(mesh, vis);
    EXPECT_EQ(vis.planes, 3u);
    EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
}

TEST(HostileMeshes, DuplicateTrianglesGiveTheSameAnswers)
{
    srMeshModel once, twice;
    mtest::addBox(once, V(-8, -8, -8), V(8, 8, 8), true);
    mtest::addBox(twice, V(-8, -8, -8), V(8, 8, 8), true);
    mtest::addBox(twice, V(-8, -8, -8), V(8, 8, 8), true);
    ClipPtr a = runClip(once), b = runClip(twice);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->m_numnodes, b->m_numnodes);
    EXPECT_EQ(queryGrid(*a, 10), queryGrid(*b, 10));

    VisResult va, vb;
    runVis(once, va);
    runVis(twice, vb);
    EXPECT_EQ(va.planes, 6u);
    EXPECT_EQ(vb.planes, 6u);
    EXPECT_EQ(va.numSplitNodes, vb.numSplitNodes);
    EXPECT_EQ(va.numVisleafs, vb.numVisleafs);
    EXPECT_EQ(va.numVisportals, vb.numVisportals);
}

// Two triangles on one plane facing opposite ways: the first splitter uses up the
// other (opposite facing), and both sides come out open.
TEST(HostileMeshes, CoincidentOppositeTriangles)
{
    srMeshModel mesh;
    mtest::addTriangle(mesh, V(0, 0, 0), V(4, 0, 0), V(0, 4, 0));
    mtest::addTriangle(mesh, V(0, 0, 0), V(0, 4, 0), V(4, 0, 0));
    ClipPtr bsp = runClip(mesh);
    ASSERT_NE(bsp, nullptr);
    ASSERT_EQ(bsp->m_numnodes, 1u);
    EXPECT_EQ(bsp->m_nodes[0].child[0], -1);
    EXPECT_EQ(bsp->m_nodes[0].child[1], -1);
    mrTrace trace;
    EXPECT_EQ(bsp->checkCollision(V(1, 1, 5), V(1, 1, -5), trace), 1);

    VisResult vis;
    runVis(mesh, vis);
    EXPECT_EQ(vis.planes, 2u);
    EXPECT_EQ(vis.numSplitNodes, 2);
    EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
}

// A 100-vertex convex polygon as a fan of 98 triangles: one plane, one surface.
TEST(HostileMeshes, HundredVertexPolygon)
{
    srMeshModel mesh;
    for (int i = 0; i < 100; ++i)
    {
        double a = 2.0 * M_PI * i / 100.0;
        mesh.addVertex(V((float)(10.0 * std::cos(a)), (float)(10.0 * std::sin(a)), 2.0f));
    }
    for (int i = 1; i + 1 < 100; ++i)
        mesh.addPolygon(0, i, i + 1);
    expectOneNodeEmptyAboveSolidBelow(mesh, 98, V(0, 0, 3), V(0, 0, 1));

    VisResult vis;
    runVis(mesh, vis);
    EXPECT_EQ(vis.planes, 1u);
    EXPECT_EQ(vis.numSplitNodes, 1);
}

// Coordinates near 1e30: the collision pipeline's float cross product overflows, so the
// planes come out NaN. A NaN plane matches no plane of the table, so each node on one is
// reported ("found") and keeps plane 0; the tree is still sound and queries end. The
// visibility pipeline works in double and finds the six planes.
TEST(HostileMeshes, CoordinatesNear1e30)
{
    srMeshModel mesh;
    mtest::addBox(mesh, V(-1e30f, -1e30f, -1e30f), V(1e30f, 1e30f, 1e30f), true);
    mtest::AssertRecorder asserts;
    ClipPtr bsp = runClip(mesh);
    ASSERT_NE(bsp, nullptr);
    EXPECT_TRUE(std::isnan(bsp->m_planes[0].m_normal.x));
    EXPECT_EQ(asserts.count("found"), (size_t)bsp->m_numnodes);
    EXPECT_EQ(asserts.reports().size(), asserts.count("found"));
    EXPECT_GE(bsp->m_numnodes, 1u);
    queryGrid(*bsp, 2e30f);

    VisResult vis;
    runVis(mesh, vis);
    EXPECT_EQ(vis.planes, 6u);
    EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
}

// The triangles at the bad corner get NaN planes, reported as above ("found").
TEST(HostileMeshes, NonFiniteCoordinatesInTheCollisionPipeline)
{
    for (V corner : {V(kNaN, -8, -8), V(-kInf, -8, -8), V(kInf, kInf, kInf)})
    {
        srMeshModel mesh;
        addBoxWithCorner(mesh, corner);
        mtest::AssertRecorder asserts;
        ClipPtr bsp = runClip(mesh);
        ASSERT_NE(bsp, nullptr);
        EXPECT_EQ(asserts.reports().size(), asserts.count("found"));
        queryGrid(*bsp, 10);
    }
}

// A NaN or infinite coordinate gives a surface whose plane never matches itself (NaN
// compares false), so matching alone would never use it up and generation would pick it
// again and again. The splitter is marked used itself, so generation ends.
TEST(HostileMeshes, NonFiniteCoordinatesInTheVisibilityPipeline)
{
    for (V corner : {V(kNaN, -8, -8), V(-kInf, -8, -8)})
    {
        srMeshModel mesh;
        addBoxWithCorner(mesh, corner);
        VisResult vis;
        runVis(mesh, vis);
        EXPECT_EQ(vis.portalFile.rfind("PRT\n", 0), 0u);
    }
}

// Every tangent plane of a circle cuts one more corner off the big triangle lying
// across them, until its piece would need more than the 64 points a generator face
// holds. The generator reports it and drops the point; the tree stays sound.
TEST(HostileMeshes, FacePieceBeyondSixtyFourPointsIsReported)
{
    srMeshModel mesh;
    mtest::addTriangle(mesh, V(-400, -200, 0), V(400, -200, 0), V(0, 400, 0));
    const int tangents = 90;
    for (int k = 0; k < tangents; ++k)
    {
        double a = 2.0 * M_PI * k / tangents;
        V t((float)(10.0 * std::cos(a)), (float)(10.0 * std::sin(a)), 0);
        V d((float)-std::sin(a) * 0.1f, (float)std::cos(a) * 0.1f, 0);
        mtest::addTriangle(mesh, V(t.x - d.x, t.y - d.y, -1), V(t.x + d.x, t.y + d.y, -1), V(t.x, t.y, 1));
    }
    mtest::AssertRecorder asserts;
    ClipPtr bsp = runClip(mesh);
    ASSERT_NE(bsp, nullptr);
    const size_t dropped =
        asserts.count("face->m_numpoints < MAX_POINTS", "face piece exceeds 64 points; point dropped");
    EXPECT_GE(dropped, 1u);
    EXPECT_EQ(asserts.reports().size(), dropped);
    EXPECT_GE(bsp->m_numnodes, (uint32_t)tangents);
    queryGrid(*bsp, 30);
}

// =================================================================================
// Outputs that cannot be written: a clear failure, and the earlier file survives.
// (Missing directories for chunk files are covered in tests/io_test.cpp, and the tool's
// own outputs in tests/cli_test.cpp.)

// The library's own path writers never replace a named pipe (nor, run as root, a device
// node): they write through it, and follow links to the file behind them.
TEST(HostileOutputs, LibraryWritersWriteThroughPipesAndFollowLinks)
{
    mtest::TempDir dir;
    srMeshModel mesh;
    mtest::addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    mtest::VisRun tree(mesh, 0);
    tree.portalizer.portalize(tree.head);
    ClipPtr bsp = box();
    const std::string fifo = dir.file("pipe"), real = dir.file("real.mrc"), link = dir.file("link.mrc");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string error;
    ASSERT_TRUE(mtest::clipIO().saveFile(real, {bsp.get()}, &error)) << error;
    const std::string chunkFile = mtest::readFile(real);
    std::filesystem::create_symlink("real.mrc", link);

    auto throughPipe = [&](const std::function<bool()>& write)
    {
        int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
        EXPECT_TRUE(write());
        std::string got;
        char buf[4096];
        for (ssize_t n; (n = ::read(reader, buf, sizeof buf)) > 0;)
            got.append(buf, (size_t)n);
        ::close(reader);
        EXPECT_TRUE(std::filesystem::is_fifo(fifo));
        return got;
    };
    EXPECT_EQ(throughPipe([&] { return mtest::clipIO().saveFile(fifo, {bsp.get()}, &error); }), chunkFile);
    std::string prt;
    mtest::stdoutOf([&]
                    { prt = throughPipe([&] { return mrBSPPortalizer::writePortalfile(tree.head, fifo.c_str()); }); });
    EXPECT_EQ(prt.rfind("PRT\n", 0), 0u) << prt;
    mtest::stdoutOf([&] { EXPECT_TRUE(mrBSPPortalizer::writePortalfile(tree.head, link.c_str())); });
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(mtest::readFile(real), prt);
}

TEST(HostileOutputs, ReadOnlyDirectoryKeepsTheEarlierFiles)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "root writes into read-only directories";
    mtest::TempDir dir;
    std::string ro = dir.file("ro");
    std::filesystem::create_directory(ro);

    srMeshModel mesh;
    mtest::addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    mtest::VisRun tree(mesh, 0);
    tree.portalizer.portalize(tree.head);
    std::string prt = ro + "/test.prt", mrc = ro + "/box.mrc", error;
    ASSERT_TRUE(mrBSPPortalizer::writePortalfile(tree.head, prt.c_str()));
    ClipPtr bsp = box();
    ASSERT_TRUE(mtest::clipIO().saveFile(mrc, {bsp.get()}, &error)) << error;
    std::string prtBefore = mtest::readFile(prt), mrcBefore = mtest::readFile(mrc);

    std::filesystem::permissions(ro, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    mtest::AssertRecorder asserts;
    EXPECT_FALSE(mrBSPPortalizer::writePortalfile(tree.head, prt.c_str()));
    EXPECT_EQ(asserts.count("0", "Error opening %s"), 1u);
    EXPECT_FALSE(mtest::clipIO().saveFile(mrc, {bsp.get()}, &error));
    EXPECT_EQ(error.rfind(mrc + ": cannot create a temporary file beside it: Permission denied", 0), 0u) << error;
    std::filesystem::permissions(ro, std::filesystem::perms::owner_all);

    EXPECT_EQ(mtest::readFile(prt), prtBefore);
    EXPECT_EQ(mtest::readFile(mrc), mrcBefore);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(ro), std::filesystem::directory_iterator()), 2);
}
