// Portals between the leaves of a solid BSP tree, the portal file and the leaf mesh.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dx/srModeler.h"
#include "platform/geom/mrMaterial.h"
#include "platform/geom/mrWinding.h"
#include "portals/mrBSPPortal.h"
#include "portals/mrBSPPortalizer.h"
#include "solid/mrBSPTree.h"
#include "solid/mrSolidBSP.h"
#include "support/TestSupport.h"
#include "surfaces/mrBSPSurfaceBuilder.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<V> Points;

// Nodes and planes made by hand, released with the holder.
class HandTree
{
public:
    ~HandTree()
    {
        for (mrBSPNode* n : m_nodes)
            delete n;
        for (mrPlane* p : m_planes)
            delete p;
    }
    mrBSPNode* leaf(int contents)
    {
        m_nodes.push_back(new mrBSPNode);
        m_nodes.back()->m_contents = contents;
        return m_nodes.back();
    }
    // A decision node on the plane x = dist (or the given normal), with the box of head
    // trees: (-64, -64, -64) to (64, 64, 64).
    mrBSPNode* split(mrBSPNode* front, mrBSPNode* back, float dist = 0, V normal = V(1, 0, 0))
    {
        m_planes.push_back(new mrPlane(normal.x, normal.y, normal.z, dist));
        mrBSPNode* n = leaf(0);
        n->m_plane = m_planes.back();
        n->m_children[0] = front;
        n->m_children[1] = back;
        setBox(n, V(-64, -64, -64), V(64, 64, 64));
        return n;
    }
    static void setBox(mrBSPNode* n, V mins, V maxs)
    {
        n->m_mins = mins;
        n->m_maxs = maxs;
    }

private:
    std::vector<mrBSPNode*> m_nodes;
    std::vector<mrPlane*> m_planes;
};

std::vector<mrBSPPortal*> portalsOf(const mrBSPNode* node)
{
    std::vector<mrBSPPortal*> out;
    for (mrBSPPortal* p = node->m_portals; p && (p->m_nodes[0] == node || p->m_nodes[1] == node);
         p = p->m_next[p->m_nodes[0] == node ? 0 : 1])
        out.push_back(p);
    return out;
}

Points pointsOf(const mrWinding* w)
{
    Points out;
    for (int i = 0; i < w->m_numpoints; ++i)
        out.push_back(w->m_points.at((uint32_t)i));
    return out;
}

mrWinding* winding(const Points& pts)
{
    mrWinding* w = new mrWinding(4);
    for (const V& p : pts)
        w->addPoint(p);
    return w;
}

// Box of a winding's points.
void bounds(const mrWinding* w, V& lo, V& hi)
{
    lo = V(1e30f, 1e30f, 1e30f);
    hi = V(-1e30f, -1e30f, -1e30f);
    for (const V& p : pointsOf(w))
        for (int k = 0; k < 3; ++k)
        {
            lo[k] = std::min(lo[k], p[k]);
            hi[k] = std::max(hi[k], p[k]);
        }
}

mrBSPPortal* addPortal(mrBSPPortalizer& pz, mrPlane* plane, mrBSPNode* front, mrBSPNode* back, const Points& pts)
{
    mrBSPPortal* p = new mrBSPPortal;
    p->m_plane = plane;
    p->m_winding = winding(pts);
    pz.addPortalToNodes(p, front, back);
    return p;
}

// Portalizes quietly.
void portalize(mrBSPPortalizer& pz, mrBSPNode* head)
{
    mtest::LogCapture log;
    pz.portalize(head);
}

// Writes the portal file of head into a fresh directory and returns its text; the
// progress lines go to *log when given.
std::string portalFileOf(mrBSPNode* head, std::string* log = nullptr)
{
    mtest::TempDir dir;
    mtest::LogCapture capture;
    std::string path = dir.file("t.prt");
    std::string written = mtest::stdoutOf([&] { EXPECT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str())); });
    EXPECT_EQ(written, "writing " + path + "\n");
    if (log)
        *log = capture.text();
    return mtest::readFile(path);
}
} // namespace

// ---------------------------------------------------------------------------------------
// Outer portals

TEST(HeadnodePortals, SingleLeafGetsSixBoxFacesJoiningTheOutside)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    HandTree::setBox(head, V(0, 0, 0), V(64, 64, 64));
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    pz.portalize(head);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"----- Portalize ----", "Creating headnode portals: {0,0,0}{64,64,64}",
                                        "Number of degenerate portals 0"}));
    EXPECT_EQ(pz.m_num_degenerate, 0);
    EXPECT_EQ(pz.m_outsideNode.m_contents, 1);

    // Created in the order 0, 3, 1, 4, 2, 5 and pushed at the head: the list runs backwards.
    std::vector<mrBSPPortal*> list = portalsOf(head);
    ASSERT_EQ(list.size(), 6u);
    EXPECT_EQ(portalsOf(&pz.m_outsideNode), list);
    const V normals[6] = {V(0, 0, -1), V(0, 0, 1), V(0, -1, 0), V(0, 1, 0), V(-1, 0, 0), V(1, 0, 0)};
    const float dists[6] = {-88, -24, -88, -24, -88, -24};
    for (size_t i = 0; i < 6; ++i)
    {
        mrBSPPortal* p = list[i];
        EXPECT_EQ(p->m_nodes[0], head);
        EXPECT_EQ(p->m_nodes[1], &pz.m_outsideNode);
        EXPECT_EQ(p->m_plane->m_normal, normals[i]) << i;
        EXPECT_EQ(p->m_plane->m_dist, dists[i]) << i;
        // A square of side 112 on the widened box face.
        ASSERT_EQ(p->m_winding->m_numpoints, 4);
        V lo, hi;
        bounds(p->m_winding, lo, hi);
        for (int k = 0; k < 3; ++k)
        {
            EXPECT_EQ(lo[k], normals[i][k] != 0 ? hi[k] : -24.0f) << i << k;
            EXPECT_EQ(hi[k], normals[i][k] != 0 ? lo[k] : 88.0f) << i << k;
        }
    }
    pz.releasePortals(head);
    EXPECT_EQ(head->m_portals, nullptr);
    EXPECT_EQ(pz.m_outsideNode.m_portals, nullptr);
}

TEST(HeadnodePortals, LogLineUsesDefaultFloatFormat)
{
    HandTree t;
    mrBSPNode* head = t.leaf(1);
    mrBSPPortalizer pz;
    mtest::AssertRecorder rec;
    const std::tuple<V, V, const char*> cases[] = {
        {V(-128, -64, 0), V(128, 64, 96), "Creating headnode portals: {-128,-64,0}{128,64,96}\n"},
        {V(0.5f, -1.25f, 12345.67f), V(1, 2, 20000), "Creating headnode portals: {0.5,-1.25,12345.7}{1,2,20000}\n"},
    };
    for (const auto& c : cases)
    {
        HandTree::setBox(head, std::get<0>(c), std::get<1>(c));
        mtest::LogCapture log;
        pz.makeHeadnodePortals(head);
        EXPECT_EQ(log.text(), std::get<2>(c));
        pz.releasePortals(head);
    }
    EXPECT_TRUE(rec.reports().empty());
}

TEST(HeadnodePortals, InvertedBoxReportsLostWindings)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    HandTree::setBox(head, V(100, 100, 100), V(-100, -100, -100));
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    mtest::AssertRecorder rec;
    pz.makeHeadnodePortals(head);
    // Every outer portal is clipped away by a plane of the far side before its last plane.
    ASSERT_EQ(rec.count("portals[i]->m_winding"), 6u);
    for (const mtest::AssertReport& r : rec.reports())
        EXPECT_TRUE(r.source == "mrBSPPortalizer" && !r.hasMessage) << r.source << ": " << r.message;

    // Portals without windings make no polygon but are reported by the mesh builder.
    rec.clear();
    srMeshModel* mesh = mrBSPPortalizer::createMeshModel(head);
    EXPECT_EQ(rec.count("w->m_numpoints>=3"), 6u);
    EXPECT_EQ(mesh->m_numpolys, 0);
    delete mesh;
    for (uint32_t i = 0; i < 256; ++i)
        delete mrBSPPortalizer::m_materials[i];
    pz.releasePortals(head);
}

// ---------------------------------------------------------------------------------------
// Node portals

TEST(NodePortals, OneSplitMakesTheCrossSectionAndHandsOuterPortalsDown)
{
    HandTree t;
    mrBSPNode *front = t.leaf(0), *back = t.leaf(0);
    mrBSPNode* head = t.split(front, back);
    mrBSPPortalizer pz;
    portalize(pz, head);
    EXPECT_EQ(head->m_portals, nullptr);
    std::vector<mrBSPPortal*> f = portalsOf(front), b = portalsOf(back);
    ASSERT_EQ(f.size(), 6u);
    ASSERT_EQ(b.size(), 6u);
    EXPECT_EQ(portalsOf(&pz.m_outsideNode).size(), 10u);
    // The node portal is the cross-section of the widened box joining both leaves.
    auto node = std::find_if(f.begin(), f.end(), [&](mrBSPPortal* p) { return p->m_plane == head->m_plane; });
    ASSERT_NE(node, f.end());
    EXPECT_EQ((*node)->m_nodes[0], front);
    EXPECT_EQ((*node)->m_nodes[1], back);
    EXPECT_EQ(pointsOf((*node)->m_winding), (Points{V(0, 88, 88), V(0, -88, 88), V(0, -88, -88), V(0, 88, -88)}));
    for (mrBSPNode* leaf : {front, back})
        for (mrBSPPortal* p : portalsOf(leaf))
        {
            if (p->m_plane == head->m_plane)
                continue;
            // Orientation survives: the leaf takes the front slot the head had.
            EXPECT_EQ(p->m_nodes[0], leaf);
            EXPECT_EQ(p->m_nodes[1], &pz.m_outsideNode);
            V lo, hi;
            bounds(p->m_winding, lo, hi);
            EXPECT_TRUE(leaf == front ? lo.x >= 0 : hi.x <= 0);
            EXPECT_TRUE(p->m_plane->m_normal.x != 0 || hi.x - lo.x == 88.0f); // a half of a split face
        }
    // The high x face goes whole to the front leaf, the low x face to the back leaf.
    EXPECT_EQ(f[0]->m_plane->m_normal, V(-1, 0, 0));
    EXPECT_EQ(b[0]->m_plane->m_normal, V(1, 0, 0));

    // freeAllPortals empties every list; a second call has nothing left to free.
    std::set<mrPlane*> outer;
    for (mrBSPPortal* p : portalsOf(&pz.m_outsideNode))
        outer.insert(p->m_plane);
    ASSERT_EQ(outer.size(), 6u);
    mrBSPPortalizer::freeAllPortals(head);
    for (mrBSPNode* n : {head, front, back, &pz.m_outsideNode})
        EXPECT_EQ(n->m_portals, nullptr);
    mrBSPPortalizer::freeAllPortals(head);
    for (mrPlane* p : outer) // the outer planes are the caller's
        delete p;
}

TEST(NodePortals, ClippedAwayNodePortalCountsAsDegenerate)
{
    // The plane x = 1000 lies beyond the widened box: nothing of it is inside.
    HandTree t;
    mrBSPNode *front = t.leaf(0), *back = t.leaf(0);
    mrBSPNode* head = t.split(front, back, 1000);
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    pz.portalize(head);
    EXPECT_EQ(pz.m_num_degenerate, 1);
    EXPECT_EQ(log.lines().back(), "Number of degenerate portals 1");
    EXPECT_TRUE(portalsOf(front).empty());
    EXPECT_EQ(portalsOf(back).size(), 6u);
    pz.releasePortals(head);
}

TEST(PortalLinks, RemovingFromTheBackNodeClearsOnlyThatSlot)
{
    HandTree t;
    mrBSPNode *a = t.leaf(0), *b = t.leaf(0);
    mrBSPPortalizer pz;
    mrBSPPortal p1, p2;
    pz.addPortalToNodes(&p1, a, b);
    pz.addPortalToNodes(&p2, a, b);
    EXPECT_EQ(portalsOf(a), (std::vector<mrBSPPortal*>{&p2, &p1}));
    mrBSPPortalizer::removePortalFromNode(&p1, b);
    EXPECT_EQ(p1.m_nodes[0], a);
    EXPECT_EQ(p1.m_nodes[1], nullptr);
    EXPECT_EQ(portalsOf(b), std::vector<mrBSPPortal*>{&p2});
    EXPECT_EQ(portalsOf(a), (std::vector<mrBSPPortal*>{&p2, &p1}));
    mrBSPPortalizer::removePortalFromNode(&p1, a);
    mrBSPPortalizer::removePortalFromNode(&p2, a);
    mrBSPPortalizer::removePortalFromNode(&p2, b);
    EXPECT_EQ(a->m_portals, nullptr);
    EXPECT_EQ(b->m_portals, nullptr);
}

TEST(PortalLinks, BrokenListsAndMislinkedPortalsAreReported)
{
    HandTree t;
    mrBSPNode *a = t.leaf(0), *b = t.leaf(0), *c = t.leaf(0);
    mrBSPPortalizer pz;
    mtest::AssertRecorder rec;
    mrBSPPortal p, q;
    mrBSPPortalizer::removePortalFromNode(&p, a);
    pz.addPortalToNodes(&q, b, c);
    a->m_portals = &q; // q does not bound a
    mrBSPPortalizer::removePortalFromNode(&p, a);
    a->m_portals = nullptr;
    pz.addPortalToNodes(&p, a, c);
    pz.addPortalToNodes(&p, b, c); // still linked to a and c
    EXPECT_EQ(p.m_nodes[0], b);    // linked all the same
    rec.expect({{"0", "mrBSPPortalizer", 0, "RemovePortalFromNode: portal not in leaf"},
                {"0", "mrBSPPortalizer", 0, "RemovePortalFromNode: portal not bounding leaf"},
                {"0", "mrBSPPortalizer", 0, "AddPortalToNode: already included"}});

    // A portal on a decision node's list that does not bound it: reported while clipping
    // and while handing down.
    rec.clear();
    mrBSPNode *f = t.leaf(0), *bk = t.leaf(0);
    mrBSPNode* head = t.split(f, bk, 0, V(0, 0, 1));
    mrBSPPortal stray;
    pz.addPortalToNodes(&stray, t.leaf(0), t.leaf(0));
    head->m_portals = &stray;
    pz.cutNodePortals_r(head);
    EXPECT_EQ(rec.count("0", "CutNodePortals_r: mislinked portal"), 2u);
    head->m_portals = nullptr;
    mrBSPPortalizer::freeAllPortals(head); // the unclipped node portal
    EXPECT_EQ(f->m_portals, nullptr);
}

// ---------------------------------------------------------------------------------------
// Portal file

TEST(PortalFile, WriteFloatRules)
{
    const std::pair<float, const char*> cases[] = {
        {64.0f, "64 "},        {63.9996f, "64 "},     {-0.0f, "0 "},
        {12.5f, "12.500000 "}, {-2.5f, "-2.500000 "}, {-7.0004f, "-7 "},
        {1.002f, "1.002000 "}, {65536.0f, "65536 "},  {3e9f, "3000000000.000000 "}, // beyond a 32-bit integer
    };
    for (const auto& c : cases)
    {
        FILE* f = tmpfile();
        mrBSPPortalizer::writeFloat(f, c.first);
        rewind(f);
        char buf[64] = {0};
        size_t n = fread(buf, 1, sizeof buf - 1, f);
        fclose(f);
        EXPECT_EQ(std::string(buf, n), c.second) << c.first;
    }
}

TEST(PortalFile, LeavesAreNumberedFrontFirstSkippingSolid)
{
    HandTree t;
    mrBSPNode *frontLeaf = t.leaf(0), *solidLeaf = t.leaf(1), *backLeaf = t.leaf(0);
    mrBSPNode* inner = t.split(frontLeaf, solidLeaf, 0, V(0, 1, 0));
    mrBSPNode* head = t.split(inner, backLeaf);
    mrBSPPortalizer::m_num_visleafs = 7;
    mrBSPPortalizer::m_num_visportals = 7;
    EXPECT_EQ(portalFileOf(head), "PRT\n2\n0\n");
    EXPECT_EQ(head->m_leafnum, -99);
    EXPECT_EQ(inner->m_leafnum, -99);
    EXPECT_EQ(frontLeaf->m_leafnum, 0);
    EXPECT_EQ(solidLeaf->m_leafnum, -1);
    EXPECT_EQ(backLeaf->m_leafnum, 1);
    EXPECT_EQ(mrBSPPortalizer::m_num_visleafs, 2);
    EXPECT_EQ(mrBSPPortalizer::m_num_visportals, 0);
}

TEST(PortalFile, SingleSolidLeafWritesEmptyFileInCurrentDirectory)
{
    HandTree t;
    mrBSPNode* head = t.leaf(1);
    HandTree::setBox(head, V(0, 0, 0), V(64, 64, 64));
    mrBSPPortalizer pz;
    portalize(pz, head);
    mtest::TempDir dir;
    mtest::LogCapture log;
    std::string out;
    mtest::inDirectory(dir.path(), [&] { out = mtest::stdoutOf([&] { mrBSPPortalizer::writePortalfile(head); }); });
    EXPECT_EQ(out, "writing test.prt\n");
    EXPECT_EQ(head->m_leafnum, -1);
    EXPECT_EQ(mtest::readFile(dir.file("test.prt")), "PRT\n0\n0\n");
    EXPECT_FALSE(std::filesystem::exists(dir.file("test.prt.tmp")));
    EXPECT_NE(log.text().find("Writing 0 visleafs 0 visportals\n"), std::string::npos);
    pz.releasePortals(head);
}

TEST(PortalFile, OneSplitWritesAPortalLineOnlyBetweenOpenLeaves)
{
    for (int backContents = 0; backContents < 2; ++backContents)
    {
        HandTree t;
        mrBSPNode *front = t.leaf(0), *back = t.leaf(backContents);
        mrBSPNode* head = t.split(front, back);
        mrBSPPortalizer pz;
        portalize(pz, head);
        std::string log;
        const std::string first = portalFileOf(head, &log);
        EXPECT_EQ(front->m_leafnum, 0);
        EXPECT_EQ(back->m_leafnum, backContents ? -1 : 1);
        if (backContents)
            EXPECT_EQ(first, "PRT\n1\n0\n");
        else
        {
            EXPECT_EQ(first, "PRT\n2\n1\n4 0 1 (0 88 88 ) (0 -88 88 ) (0 -88 -88 ) (0 88 -88 ) \n");
            EXPECT_EQ(log, "Writing 2 visleafs 1 visportals\n");
        }
        EXPECT_EQ(portalFileOf(head), first) << "the counters are reset for every file";
        pz.releasePortals(head);
    }
}

TEST(PortalFile, WindingFacingAwaySwapsLeafNumbersNotPoints)
{
    HandTree t;
    mrBSPNode *a = t.leaf(0), *b = t.leaf(0);
    mrBSPNode* head = t.split(a, b);
    mrBSPPortalizer pz;
    // Clockwise seen from +x: the winding's own plane faces -x.
    addPortal(pz, head->m_plane, a, b, {V(0, 0, 0), V(0, 0, 2.5f), V(0, 128, 2.5f), V(0, 128, 0)});
    EXPECT_EQ(portalFileOf(head), "PRT\n2\n1\n4 1 0 (0 0 0 ) (0 0 2.500000 ) (0 128 2.500000 ) (0 128 0 ) \n");
    mrBSPPortalizer::freeAllPortals(head);
}

TEST(PortalFile, FailuresAreReportedAndLeaveNoFile)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    mtest::TempDir dir;
    const std::string missing = dir.file("missing/sub/x.prt"), taken = dir.file("taken");
    std::filesystem::create_directory(taken); // a directory cannot be replaced by the file
    mtest::AssertRecorder rec;
    mtest::LogCapture log;
    std::string out = mtest::stdoutOf([&] { EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, missing.c_str())); });
    EXPECT_EQ(out, "writing " + missing + "\n");
    EXPECT_EQ(log.text(), ""); // no counts line without a file
    mtest::stdoutOf([&] { EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, taken.c_str())); });
    rec.expect({{"0", "mrBSPPortalizer", 0, "Error opening %s"}, {"0", "mrBSPPortalizer", 0, "Error writing %s"}});
    EXPECT_TRUE(std::filesystem::is_directory(taken));
    EXPECT_FALSE(std::filesystem::exists(taken + ".tmp"));
}

// ---------------------------------------------------------------------------------------
// Leaf mesh

class LeafMesh : public ::testing::Test
{
protected:
    void TearDown() override
    {
        // The module never frees its materials; tests do, through the table.
        for (mrMaterial* m : std::set<mrMaterial*>(created.begin(), created.end()))
            delete m;
        for (uint32_t i = 0; i < 256; ++i)
            mrBSPPortalizer::m_materials[i] = nullptr;
    }
    srMeshModel* make(mrBSPNode* head)
    {
        srMeshModel* mesh = mrBSPPortalizer::createMeshModel(head);
        for (uint32_t i = 0; i < 256; ++i)
            created.push_back(mrBSPPortalizer::m_materials[i]);
        return mesh;
    }
    std::vector<mrMaterial*> created;
    HandTree t;
};

TEST_F(LeafMesh, PolygonsComeFromOwnedPortalsFacingOtherContents)
{
    mrBSPNode *open = t.leaf(0), *otherOpen = t.leaf(0), *solid = t.leaf(1);
    mrBSPPortalizer pz;
    mrPlane plane(0, 0, 1, 0);
    // List order on `open` ends up: p1 (to solid), p2 (to open), p3 (to solid), p4 (open behind).
    addPortal(pz, &plane, otherOpen, open, {V(9, 9, 9), V(8, 8, 8), V(7, 7, 7)});
    addPortal(pz, &plane, open, solid, {V(0, 0, 3), V(1, 0, 3), V(1, 1, 3), V(0, 1, 3)});
    addPortal(pz, &plane, open, otherOpen, {V(5, 5, 5), V(6, 6, 6), V(7, 5, 5)});
    addPortal(pz, &plane, open, solid, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});

    mtest::LogCapture log;
    srMeshModel* mesh = make(open);
    EXPECT_EQ(log.text(), " mrBSPPortalizer::createMeshModel -> polys:\n2\n");
    EXPECT_EQ(mrBSPPortalizer::m_polycount, 2);
    EXPECT_EQ(mrBSPPortalizer::m_materialCounter, 3u); // three owned portals, one skipped
    EXPECT_STREQ(mesh->getName(), "portalizer created mesh");
    EXPECT_EQ(mesh->m_outlineSizes, (std::vector<int>{3, 4}));
    // Points in reverse winding order.
    EXPECT_EQ(mesh->m_verts,
              (Points{V(0, 1, 0), V(1, 0, 0), V(0, 0, 0), V(0, 1, 3), V(1, 1, 3), V(1, 0, 3), V(0, 0, 3)}));
    ASSERT_EQ(mesh->m_numpolys, 3);
    mrMaterial** table = mrBSPPortalizer::m_materials.m_data;
    EXPECT_EQ(mesh->m_polyMaterials, (std::vector<srMaterialIFace*>{table[0], table[2], table[2]}));
    delete mesh;

    // The counter wraps at 256; a fresh call starts again at 0.
    mrBSPPortalizer::m_materialCounter = 255;
    srModeler modeler;
    mrBSPPortalizer::createLeafPolys_r(open, modeler);
    ASSERT_EQ(modeler.numPolygons(), 2u);
    for (int i = 0; i < 2; ++i)
    {
        const srModeler::Polygon& poly = modeler.polygon(i);
        for (int k = 0; k < poly.numVertices(); ++k)
            EXPECT_EQ(poly[k].m_material, table[i ? 1 : 255]);
    }
    EXPECT_EQ(mrBSPPortalizer::m_materialCounter, 2u);
    mrBSPPortalizer::freeAllPortals(open);
    mrBSPPortalizer::freeAllPortals(otherOpen);
}

TEST_F(LeafMesh, MaterialsAreRandomHundredthsDrawnRedGreenBlueAndFreshEachCall)
{
    mrBSPNode* head = t.leaf(1);
    srand(7);
    mtest::LogCapture log;
    srMeshModel* mesh = make(head);
    EXPECT_EQ(log.text(), " mrBSPPortalizer::createMeshModel -> polys:\n0\n");
    EXPECT_EQ(mesh->m_numpolys, 0);
    delete mesh;
    srand(7);
    for (uint32_t i = 0; i < 256; ++i)
    {
        mrMaterial* m = mrBSPPortalizer::m_materials[i];
        float r = (float)(rand() % 100) * 0.01f;
        float g = (float)(rand() % 100) * 0.01f;
        float b = (float)(rand() % 100) * 0.01f;
        const float expected[4] = {r, g, b, 1.0f};
        for (int k = 0; k < 4; ++k)
        {
            EXPECT_EQ(m->m_color0[k], expected[k]) << i;
            EXPECT_EQ(m->m_color1[k], expected[k]) << i;
        }
        EXPECT_EQ(m->m_flags, 1u);
    }
    // A second call makes 256 new materials: 512 in all, the table holding the second 256.
    delete make(head);
    EXPECT_EQ(std::set<mrMaterial*>(created.begin(), created.end()).size(), 512u);
    EXPECT_TRUE(std::equal(created.begin() + 256, created.end(), mrBSPPortalizer::m_materials.m_data));
}

TEST_F(LeafMesh, OpenFrontSolidBackGivesNodePortalAndOuterFragments)
{
    mrBSPNode *f = t.leaf(0), *b = t.leaf(1);
    mrBSPNode* head = t.split(f, b);
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    pz.portalize(head);
    srMeshModel* mesh = make(head);
    EXPECT_EQ(mrBSPPortalizer::m_polycount, 6);
    EXPECT_EQ(mesh->m_outlineSizes, std::vector<int>(6, 4));
    EXPECT_EQ(mesh->m_numpolys, 12);
    // Each polygon runs through its portal's points backwards.
    std::vector<mrBSPPortal*> list = portalsOf(f);
    ASSERT_EQ(list.size(), 6u);
    for (size_t i = 0; i < 6; ++i)
    {
        Points pts = pointsOf(list[i]->m_winding);
        EXPECT_EQ(Points(mesh->m_verts.begin() + 4 * i, mesh->m_verts.begin() + 4 * i + 4),
                  Points(pts.rbegin(), pts.rend()))
            << i;
    }
    delete mesh;
    pz.releasePortals(head);
}

TEST(Modeler, ConvertFansPolygonsAndKeepsOutlines)
{
    srModeler modeler;
    srModeler::Polygon poly(10);
    mrMaterial m1, m2;
    poly.reAllocate(5);
    for (int k = 0; k < 5; ++k)
    {
        poly[k].m_pos = V((float)k, 0, 0);
        poly[k].m_material = k == 0 ? &m1 : &m2;
    }
    modeler.addPolygon(poly);
    poly.reset();
    EXPECT_EQ(poly.numVertices(), 0);
    poly.reAllocate(2); // too small for a triangle
    modeler.addPolygon(poly);
    srMeshModel mesh(0, 0), plain(0, 0);
    modeler.convert(mesh, 1);
    EXPECT_EQ(mesh.m_numpolys, 3);
    EXPECT_EQ(mesh.getNumVerts(), 7);
    EXPECT_EQ(mesh.m_outlineSizes, (std::vector<int>{5, 2}));
    EXPECT_EQ(mesh.m_polyVerts[2].x, 0);
    EXPECT_EQ(mesh.m_polyVerts[2].y, 3);
    EXPECT_EQ(mesh.m_polyVerts[2].z, 4);
    EXPECT_EQ(mesh.m_polyMaterials, std::vector<srMaterialIFace*>(3, &m1));
    modeler.convert(plain, 0);
    EXPECT_TRUE(plain.m_outlineSizes.empty());
}

// ---------------------------------------------------------------------------------------
// End to end on hollow levels

namespace
{
// Two inward-facing rooms back to back, x in [0,64] and [64,128], joined by a doorway in
// their shared wall: the plane x = 64 is there facing both ways.
void addBackToBackRooms(srMeshModel& mesh)
{
    for (float x0 : {0.0f, 64.0f})
    {
        float x1 = x0 + 64;
        mtest::addRect(mesh, 1, 0, 0, 64, x0, x1, +1);  // y = 0 (u = z, v = x)
        mtest::addRect(mesh, 1, 64, 0, 64, x0, x1, -1); // y = 64
        mtest::addRect(mesh, 2, 0, x0, x1, 0, 64, +1);  // z = 0 (u = x, v = y)
        mtest::addRect(mesh, 2, 64, x0, x1, 0, 64, -1); // z = 64
        bool first = x0 == 0;
        mtest::addRect(mesh, 0, first ? 0.0f : 128.0f, 0, 64, 0, 64, first ? +1 : -1); // end wall (u = y, v = z)
        int shared = first ? -1 : +1;
        mtest::addRect(mesh, 0, 64, 0, 16, 0, 64, shared);
        mtest::addRect(mesh, 0, 64, 48, 64, 0, 64, shared);
        mtest::addRect(mesh, 0, 64, 16, 48, 32, 64, shared);
    }
}

// Whether every point lies within 0.01 of the plane through the first three.
bool planar(const std::vector<std::vector<double>>& pts)
{
    if (pts.size() < 3)
        return false;
    double e1[3], e2[3];
    for (int k = 0; k < 3; ++k)
    {
        e1[k] = pts[1][k] - pts[0][k];
        e2[k] = pts[2][k] - pts[0][k];
    }
    double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (const std::vector<double>& p : pts)
        if (len == 0 ||
            std::fabs((p[0] - pts[0][0]) * n[0] + (p[1] - pts[0][1]) * n[1] + (p[2] - pts[0][2]) * n[2]) > 0.01 * len)
            return false;
    return true;
}
} // namespace

// Levels: 0 two rooms and a corridor, 1 rooms back to back; modes: 0 normal, 1 mid-split.
class TwoRoomLevel : public ::testing::TestWithParam<std::tuple<int, int>>
{
protected:
    void SetUp() override
    {
        if (std::get<0>(GetParam()) == 0)
            mtest::addTwoRoomLevel(mesh);
        else
            addBackToBackRooms(mesh);
        mtest::LogCapture log;
        mrBSPSurface* list = builder.buildSurfaces(&mesh);
        for (mrBSPSurface* s = list; s; s = s->m_next)
            s->calcBounds();
        mrSolidBSP bsp;
        head = bsp.generate(list, std::get<1>(GetParam()));
        ASSERT_NE(head, nullptr);
        // The head box: the vertices the triangles use.
        const srVector3i* tris = mesh.getPolyVertex();
        const V* verts = mesh.getVertexLoc();
        head->m_mins = head->m_maxs = verts[tris[0].x];
        for (long i = 0; i < mesh.m_numpolys; ++i)
            for (int index : {tris[i].x, tris[i].y, tris[i].z})
                for (int k = 0; k < 3; ++k)
                {
                    head->m_mins[k] = std::min(head->m_mins[k], verts[index][k]);
                    head->m_maxs[k] = std::max(head->m_maxs[k], verts[index][k]);
                }
        pz.portalize(head);
        // Leaves, and the portals the leaf mesh turns into polygons (owned by an open
        // leaf, facing other contents).
        std::vector<const mrBSPNode*> stack = {head};
        while (!stack.empty())
        {
            const mrBSPNode* n = stack.back();
            stack.pop_back();
            if (n->m_plane)
                stack.insert(stack.end(), {n->m_children[0], n->m_children[1]});
            else if (n->m_contents == 1)
                ++solidLeaves;
            else
            {
                ++openLeaves;
                for (mrBSPPortal* p : portalsOf(n))
                    meshPortals += p->m_nodes[0] == n && p->m_nodes[1]->m_contents != n->m_contents;
            }
        }
    }
    void TearDown() override
    {
        if (head)
        {
            pz.releasePortals(head);
            mrBSPTree::release(head);
        }
        builder.releasePlanes();
    }
    srMeshModel mesh;
    mrBSPSurfaceBuilder builder;
    mrBSPPortalizer pz;
    mrBSPNode* head = nullptr;
    int openLeaves = 0, solidLeaves = 0, meshPortals = 0;
};

TEST_P(TwoRoomLevel, PortalFileJoinsEveryOpenLeaf)
{
    EXPECT_GT(openLeaves, 1);
    EXPECT_GT(solidLeaves, 0);
    std::string first = portalFileOf(head);
    EXPECT_EQ(portalFileOf(head), first);
    mtest::PortalFile prt = mtest::parsePortalFile(first);
    EXPECT_EQ(prt.tag, "PRT");
    EXPECT_EQ(prt.leafs, openLeaves);
    EXPECT_EQ(prt.count, (int)prt.lines.size());
    EXPECT_GT(prt.count, 0);
    for (const mtest::PortalFile::Line& l : prt.lines)
    {
        EXPECT_GE(l.numpoints, 3);
        EXPECT_EQ((int)l.points.size(), l.numpoints);
        EXPECT_TRUE(planar(l.points));
        EXPECT_NE(l.leaf[0], l.leaf[1]);
    }
    EXPECT_EQ(mtest::connectedLeafGroups(prt), 1u) << "open leaves split into unconnected groups";
}

TEST_P(TwoRoomLevel, MeshHasAPolygonPerOpenToSolidPortal)
{
    mtest::LogCapture log;
    srMeshModel* out = mrBSPPortalizer::createMeshModel(head);
    EXPECT_GT(meshPortals, 0);
    EXPECT_EQ(mrBSPPortalizer::m_polycount, meshPortals);
    EXPECT_EQ((int)out->m_outlineSizes.size(), meshPortals);
    delete out;
    for (uint32_t i = 0; i < 256; ++i)
        delete mrBSPPortalizer::m_materials[i];
}

INSTANTIATE_TEST_SUITE_P(LevelsAndPartitionModes, TwoRoomLevel,
                         ::testing::Combine(::testing::Values(0, 1), ::testing::Values(0, 1)),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& info)
                         {
                             return std::string(std::get<0>(info.param) ? "BackToBack" : "Corridor") +
                                    (std::get<1>(info.param) ? "MidSplit" : "Normal");
                         });
