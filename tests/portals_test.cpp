// Portals between the leaves of a solid BSP tree, the portal file and the leaf mesh.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "platform/dx/srModeler.h"
#include "platform/dx/srOutput.h"
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

// Nodes and planes made by hand, released with the fixture.
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
        mrBSPNode* n = new mrBSPNode;
        n->m_contents = contents;
        m_nodes.push_back(n);
        return n;
    }
    mrBSPNode* split(float nx, float ny, float nz, float dist, mrBSPNode* front, mrBSPNode* back)
    {
        mrPlane* p = new mrPlane(nx, ny, nz, dist);
        m_planes.push_back(p);
        mrBSPNode* n = new mrBSPNode;
        n->m_plane = p;
        n->m_children[0] = front;
        n->m_children[1] = back;
        m_nodes.push_back(n);
        return n;
    }

private:
    std::vector<mrBSPNode*> m_nodes;
    std::vector<mrPlane*> m_planes;
};

void setBox(mrBSPNode* n, V mins, V maxs)
{
    n->m_mins = mins;
    n->m_maxs = maxs;
}

std::vector<mrBSPPortal*> portalsOf(const mrBSPNode* node)
{
    std::vector<mrBSPPortal*> out;
    for (mrBSPPortal* p = node->m_portals; p;)
    {
        out.push_back(p);
        if (p->m_nodes[0] == node)
            p = p->m_next[0];
        else if (p->m_nodes[1] == node)
            p = p->m_next[1];
        else
            break;
    }
    return out;
}

std::vector<V> pointsOf(const mrWinding* w)
{
    std::vector<V> out;
    for (int i = 0; i < w->m_numpoints; ++i)
        out.push_back(w->m_points.at((uint32_t)i));
    return out;
}

mrWinding* winding(const std::vector<V>& pts)
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

std::string writeFloatText(float v)
{
    FILE* f = tmpfile();
    mrBSPPortalizer::writeFloat(f, v);
    rewind(f);
    char buf[64] = {0};
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    return std::string(buf, n);
}

// Runs f with the current directory switched to dir.
template <class F>
void inDirectory(const std::string& dir, F f)
{
    std::string old = std::filesystem::current_path().string();
    ASSERT_EQ(chdir(dir.c_str()), 0);
    f();
    ASSERT_EQ(chdir(old.c_str()), 0);
}
} // namespace

// ---------------------------------------------------------------------------------------
// Outer portals

TEST(HeadnodePortals, SingleLeafGetsSixBoxFacesJoiningTheOutside)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    setBox(head, V(0, 0, 0), V(64, 64, 64));
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    pz.portalize(head);

    EXPECT_EQ(log.lines(), (std::vector<std::string>{"----- Portalize ----",
                                                     "Creating headnode portals: {0,0,0}{64,64,64}",
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
            if (normals[i][k] != 0)
                EXPECT_EQ(lo[k], hi[k]);
            else
            {
                EXPECT_EQ(lo[k], -24.0f);
                EXPECT_EQ(hi[k], 88.0f);
            }
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
    setBox(head, V(-128, -64, 0), V(128, 64, 96));
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    pz.makeHeadnodePortals(head);
    EXPECT_EQ(log.text(), "Creating headnode portals: {-128,-64,0}{128,64,96}\n");
    log.clear();
    pz.releasePortals(head);

    mtest::AssertRecorder rec;
    setBox(head, V(0.5f, -1.25f, 12345.67f), V(1, 2, 20000));
    pz.makeHeadnodePortals(head);
    EXPECT_EQ(log.text(), "Creating headnode portals: {0.5,-1.25,12345.7}{1,2,20000}\n");
    EXPECT_TRUE(rec.reports().empty());
    pz.releasePortals(head);
}

TEST(HeadnodePortals, InvertedBoxReportsLostWindings)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    setBox(head, V(100, 100, 100), V(-100, -100, -100));
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    mtest::AssertRecorder rec;
    pz.makeHeadnodePortals(head);
    // Every outer portal is clipped away by a plane of the far side before its last plane.
    EXPECT_EQ(rec.count("portals[i]->m_winding"), 6u);
    for (const mtest::AssertReport& r : rec.reports())
    {
        EXPECT_EQ(r.source, "mrBSPPortalizer");
        EXPECT_FALSE(r.hasMessage);
    }

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

class OneSplit : public ::testing::Test
{
protected:
    void build(int frontContents, int backContents)
    {
        front = t.leaf(frontContents);
        back = t.leaf(backContents);
        head = t.split(1, 0, 0, 0, front, back);
        setBox(head, V(-64, -64, -64), V(64, 64, 64));
        mtest::LogCapture log;
        pz.portalize(head);
    }
    void TearDown() override
    {
        if (head)
            pz.releasePortals(head);
    }
    HandTree t;
    mrBSPPortalizer pz;
    mrBSPNode* head = nullptr;
    mrBSPNode* front = nullptr;
    mrBSPNode* back = nullptr;
};

TEST_F(OneSplit, NodePortalIsTheCrossSectionJoiningBothLeaves)
{
    build(0, 0);
    EXPECT_EQ(head->m_portals, nullptr);
    mrBSPPortal* node = nullptr;
    for (mrBSPPortal* p : portalsOf(front))
        if (p->m_plane == head->m_plane)
            node = p;
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->m_nodes[0], front);
    EXPECT_EQ(node->m_nodes[1], back);
    EXPECT_EQ(pointsOf(node->m_winding),
              (std::vector<V>{V(0, 88, 88), V(0, -88, 88), V(0, -88, -88), V(0, 88, -88)}));
}

TEST_F(OneSplit, OuterPortalsAreSplitOrHandedDownWhole)
{
    build(0, 0);
    std::vector<mrBSPPortal*> f = portalsOf(front), b = portalsOf(back);
    ASSERT_EQ(f.size(), 6u);
    ASSERT_EQ(b.size(), 6u);
    EXPECT_EQ(portalsOf(&pz.m_outsideNode).size(), 10u);
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
            if (leaf == front)
            {
                EXPECT_GE(lo.x, 0.0f);
            }
            else
            {
                EXPECT_LE(hi.x, 0.0f);
            }
            if (p->m_plane->m_normal.x == 0)
            {
                EXPECT_EQ(hi.x - lo.x, 88.0f); // a half of a split face
            }
        }
    // The high x face goes whole to the front leaf, the low x face to the back leaf.
    EXPECT_EQ(f[0]->m_plane->m_normal, V(-1, 0, 0));
    EXPECT_EQ(b[0]->m_plane->m_normal, V(1, 0, 0));
}

TEST_F(OneSplit, ClippedAwayNodePortalCountsAsDegenerate)
{
    // The plane x = 1000 lies beyond the widened box: nothing of it is inside.
    front = t.leaf(0);
    back = t.leaf(0);
    head = t.split(1, 0, 0, 1000, front, back);
    setBox(head, V(-64, -64, -64), V(64, 64, 64));
    mtest::LogCapture log;
    pz.portalize(head);
    EXPECT_EQ(pz.m_num_degenerate, 1);
    EXPECT_EQ(log.lines().back(), "Number of degenerate portals 1");
    EXPECT_TRUE(portalsOf(front).empty());
    EXPECT_EQ(portalsOf(back).size(), 6u);
}

TEST_F(OneSplit, FreeAllPortalsEmptiesEveryList)
{
    build(0, 1);
    std::vector<mrPlane*> outer;
    for (mrBSPPortal* p : portalsOf(&pz.m_outsideNode))
        if (std::find(outer.begin(), outer.end(), p->m_plane) == outer.end())
            outer.push_back(p->m_plane);
    ASSERT_EQ(outer.size(), 6u);
    mrBSPPortalizer::freeAllPortals(head);
    for (mrBSPNode* n : {head, front, back, &pz.m_outsideNode})
        EXPECT_EQ(n->m_portals, nullptr);
    // Nothing left to free; the outer planes are the caller's.
    mrBSPPortalizer::freeAllPortals(head);
    for (mrPlane* p : outer)
        delete p;
    head = nullptr;
}

TEST(PortalLinks, RemovingFromTheBackNodeClearsOnlyThatSlot)
{
    HandTree t;
    mrBSPNode* a = t.leaf(0);
    mrBSPNode* b = t.leaf(0);
    mrBSPPortalizer pz;
    mrBSPPortal p1, p2;
    pz.addPortalToNodes(&p1, a, b);
    pz.addPortalToNodes(&p2, a, b);
    EXPECT_EQ(a->m_portals, &p2);
    EXPECT_EQ(p2.m_next[0], &p1);

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

TEST(PortalLinks, BrokenListsAreReported)
{
    HandTree t;
    mrBSPNode* a = t.leaf(0);
    mrBSPNode* b = t.leaf(0);
    mrBSPNode* c = t.leaf(0);
    mrBSPPortalizer pz;
    mtest::AssertRecorder rec;
    mrBSPPortal p, q;

    mrBSPPortalizer::removePortalFromNode(&p, a);
    EXPECT_EQ(rec.count("0", "RemovePortalFromNode: portal not in leaf"), 1u);

    pz.addPortalToNodes(&q, b, c);
    a->m_portals = &q; // q does not bound a
    mrBSPPortalizer::removePortalFromNode(&p, a);
    EXPECT_EQ(rec.count("0", "RemovePortalFromNode: portal not bounding leaf"), 1u);
    a->m_portals = nullptr;

    pz.addPortalToNodes(&p, a, c);
    pz.addPortalToNodes(&p, b, c); // still linked to a and c
    EXPECT_EQ(rec.count("0", "AddPortalToNode: already included"), 1u);
    EXPECT_EQ(p.m_nodes[0], b); // linked all the same
    for (const mtest::AssertReport& r : rec.reports())
        EXPECT_EQ(r.source, "mrBSPPortalizer");
}

TEST(PortalLinks, MislinkedPortalOnADecisionNodeIsReported)
{
    HandTree t;
    mrBSPNode* f = t.leaf(0);
    mrBSPNode* b = t.leaf(0);
    mrBSPNode* head = t.split(0, 0, 1, 0, f, b);
    mrBSPNode* elsewhere = t.leaf(0);
    mrBSPNode* other = t.leaf(0);
    mrBSPPortalizer pz;
    mrBSPPortal stray;
    pz.addPortalToNodes(&stray, elsewhere, other);
    head->m_portals = &stray;

    mtest::AssertRecorder rec;
    pz.cutNodePortals_r(head);
    EXPECT_EQ(rec.count("0", "CutNodePortals_r: mislinked portal"), 2u); // clipping and handing down
    head->m_portals = nullptr;
    mrBSPPortalizer::freeAllPortals(head); // the unclipped node portal
    EXPECT_EQ(f->m_portals, nullptr);
}

// ---------------------------------------------------------------------------------------
// Portal file

TEST(PortalFileNumbers, WriteFloatRules)
{
    EXPECT_EQ(writeFloatText(64.0f), "64 ");
    EXPECT_EQ(writeFloatText(63.9996f), "64 ");
    EXPECT_EQ(writeFloatText(-0.0f), "0 ");
    EXPECT_EQ(writeFloatText(12.5f), "12.500000 ");
    EXPECT_EQ(writeFloatText(-2.5f), "-2.500000 ");
    EXPECT_EQ(writeFloatText(-7.0004f), "-7 ");
    EXPECT_EQ(writeFloatText(1.002f), "1.002000 ");
    EXPECT_EQ(writeFloatText(65536.0f), "65536 ");
    EXPECT_EQ(writeFloatText(3e9f), "3000000000.000000 "); // beyond a 32-bit integer
}

TEST(PortalFileNumbers, LeavesAreNumberedFrontFirstSkippingSolid)
{
    HandTree t;
    mrBSPNode* frontLeaf = t.leaf(0);
    mrBSPNode* solidLeaf = t.leaf(1);
    mrBSPNode* inner = t.split(0, 1, 0, 0, frontLeaf, solidLeaf);
    mrBSPNode* backLeaf = t.leaf(0);
    mrBSPNode* head = t.split(1, 0, 0, 0, inner, backLeaf);
    mrBSPPortalizer::m_num_visleafs = 7;
    mrBSPPortalizer::m_num_visportals = 7;
    mtest::TempDir dir;
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    mrBSPPortalizer::writePortalfile(head, dir.file("n.prt").c_str());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(head->m_leafnum, -99);
    EXPECT_EQ(inner->m_leafnum, -99);
    EXPECT_EQ(frontLeaf->m_leafnum, 0);
    EXPECT_EQ(solidLeaf->m_leafnum, -1);
    EXPECT_EQ(backLeaf->m_leafnum, 1);
    EXPECT_EQ(mrBSPPortalizer::m_num_visleafs, 2);
    EXPECT_EQ(mrBSPPortalizer::m_num_visportals, 0);
    EXPECT_EQ(mtest::readFile(dir.file("n.prt")), "PRT\n2\n0\n");
}

TEST(PortalFile, SingleSolidLeafWritesEmptyFileInCurrentDirectory)
{
    HandTree t;
    mrBSPNode* head = t.leaf(1);
    setBox(head, V(0, 0, 0), V(64, 64, 64));
    mrBSPPortalizer pz;
    mtest::LogCapture log;
    pz.portalize(head);
    mtest::TempDir dir;
    std::string out;
    inDirectory(dir.path(), [&] {
        testing::internal::CaptureStdout();
        mrBSPPortalizer::writePortalfile(head);
        out = testing::internal::GetCapturedStdout();
    });
    EXPECT_EQ(out, "writing test.prt\n");
    EXPECT_EQ(head->m_leafnum, -1);
    EXPECT_EQ(mtest::readFile(dir.file("test.prt")), "PRT\n0\n0\n");
    EXPECT_FALSE(std::filesystem::exists(dir.file("test.prt.tmp")));
    EXPECT_NE(log.text().find("Writing 0 visleafs 0 visportals\n"), std::string::npos);
    pz.releasePortals(head);
}

TEST_F(OneSplit, TwoOpenLeavesWriteOnePortalLineTwiceTheSame)
{
    build(0, 0);
    mtest::TempDir dir;
    std::string path = dir.file("two.prt");
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
    std::string first = mtest::readFile(path);
    EXPECT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "writing " + path + "\nwriting " + path + "\n");
    EXPECT_EQ(first, "PRT\n2\n1\n4 0 1 (0 88 88 ) (0 -88 88 ) (0 -88 -88 ) (0 88 -88 ) \n");
    EXPECT_EQ(mtest::readFile(path), first);
    EXPECT_EQ(log.text(), "Writing 2 visleafs 1 visportals\nWriting 2 visleafs 1 visportals\n");
}

TEST_F(OneSplit, OpenAndSolidLeafWriteNoPortal)
{
    build(0, 1);
    mtest::TempDir dir;
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    mrBSPPortalizer::writePortalfile(head, dir.file("a.prt").c_str());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mtest::readFile(dir.file("a.prt")), "PRT\n1\n0\n");
    EXPECT_EQ(front->m_leafnum, 0);
    EXPECT_EQ(back->m_leafnum, -1);
}

TEST(PortalFile, WindingFacingAwaySwapsLeafNumbersNotPoints)
{
    HandTree t;
    mrBSPNode* a = t.leaf(0);
    mrBSPNode* b = t.leaf(0);
    mrBSPNode* head = t.split(1, 0, 0, 0, a, b);
    mrBSPPortalizer pz;
    // Clockwise seen from +x: the winding's own plane faces -x.
    mrBSPPortal* p = new mrBSPPortal;
    p->m_plane = head->m_plane;
    p->m_winding = winding({V(0, 0, 0), V(0, 0, 2.5f), V(0, 128, 2.5f), V(0, 128, 0)});
    pz.addPortalToNodes(p, a, b);
    mtest::TempDir dir;
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    mrBSPPortalizer::writePortalfile(head, dir.file("s.prt").c_str());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mtest::readFile(dir.file("s.prt")),
              "PRT\n2\n1\n4 1 0 (0 0 0 ) (0 0 2.500000 ) (0 128 2.500000 ) (0 128 0 ) \n");
    mrBSPPortalizer::freeAllPortals(head);
}

TEST(PortalFile, OpenFailureIsReportedAndWritesNothing)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    mtest::TempDir dir;
    std::string path = dir.file("missing/sub/x.prt");
    mtest::AssertRecorder rec;
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "writing " + path + "\n");
    ASSERT_EQ(rec.reports().size(), 1u);
    EXPECT_EQ(rec.reports()[0].expression, "0");
    EXPECT_EQ(rec.reports()[0].source, "mrBSPPortalizer");
    EXPECT_EQ(rec.reports()[0].message, "Error opening %s");
    EXPECT_EQ(log.text(), ""); // no counts line without a file
}

TEST(PortalFile, FailedReplaceLeavesTargetAndNoTemporary)
{
    HandTree t;
    mrBSPNode* head = t.leaf(0);
    mtest::TempDir dir;
    std::string target = dir.file("taken");
    std::filesystem::create_directory(target); // a directory cannot be replaced by the file
    mtest::AssertRecorder rec;
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, target.c_str()));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rec.count("0", "Error writing %s"), 1u);
    EXPECT_TRUE(std::filesystem::is_directory(target));
    EXPECT_FALSE(std::filesystem::exists(target + ".tmp"));
}

// ---------------------------------------------------------------------------------------
// Leaf mesh

class LeafMesh : public ::testing::Test
{
protected:
    void TearDown() override
    {
        // The module never frees its materials; tests do, through the table.
        std::set<mrMaterial*> all(created.begin(), created.end());
        for (mrMaterial* m : all)
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
};

TEST_F(LeafMesh, PolygonsComeFromOwnedPortalsFacingOtherContents)
{
    HandTree t;
    mrBSPNode* open = t.leaf(0);
    mrBSPNode* otherOpen = t.leaf(0);
    mrBSPNode* solid = t.leaf(1);
    mrBSPPortalizer pz;
    mrPlane plane(0, 0, 1, 0);
    auto add = [&](mrBSPNode* f, mrBSPNode* b, std::vector<V> pts) {
        mrBSPPortal* p = new mrBSPPortal;
        p->m_plane = &plane;
        p->m_winding = winding(pts);
        pz.addPortalToNodes(p, f, b);
        return p;
    };
    // List order on `open` ends up: p1 (to solid), p2 (to open), p3 (to solid), p4 (open behind).
    add(otherOpen, open, {V(9, 9, 9), V(8, 8, 8), V(7, 7, 7)});
    add(open, solid, {V(0, 0, 3), V(1, 0, 3), V(1, 1, 3), V(0, 1, 3)});
    add(open, otherOpen, {V(5, 5, 5), V(6, 6, 6), V(7, 5, 5)});
    add(open, solid, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});

    mtest::LogCapture log;
    srMeshModel* mesh = make(open);
    EXPECT_EQ(log.text(), " mrBSPPortalizer::createMeshModel -> polys:\n2\n");
    EXPECT_EQ(mrBSPPortalizer::m_polycount, 2);
    EXPECT_EQ(mrBSPPortalizer::m_materialCounter, 3u); // three owned portals, one skipped
    EXPECT_STREQ(mesh->getName(), "portalizer created mesh");
    EXPECT_EQ(mesh->m_outlineSizes, (std::vector<int>{3, 4}));
    // Points in reverse winding order.
    EXPECT_EQ(mesh->m_verts, (std::vector<V>{V(0, 1, 0), V(1, 0, 0), V(0, 0, 0), V(0, 1, 3), V(1, 1, 3),
                                             V(1, 0, 3), V(0, 0, 3)}));
    ASSERT_EQ(mesh->m_numpolys, 3);
    mrMaterial** table = mrBSPPortalizer::m_materials.m_data;
    EXPECT_EQ(mesh->m_polyMaterials,
              (std::vector<srMaterialIFace*>{table[0], table[2], table[2]}));
    delete mesh;

    // The counter wraps at 256; a fresh call starts again at 0.
    mrBSPPortalizer::m_materialCounter = 255;
    srModeler modeler;
    mrBSPPortalizer::createLeafPolys_r(open, modeler);
    ASSERT_EQ(modeler.numPolygons(), 2u);
    const srModeler::Polygon& a = modeler.polygon(0);
    const srModeler::Polygon& b = modeler.polygon(1);
    for (int k = 0; k < a.numVertices(); ++k)
        EXPECT_EQ(a[k].m_material, table[255]);
    for (int k = 0; k < b.numVertices(); ++k)
        EXPECT_EQ(b[k].m_material, table[1]);
    EXPECT_EQ(mrBSPPortalizer::m_materialCounter, 2u);
    mrBSPPortalizer::freeAllPortals(open);
    mrBSPPortalizer::freeAllPortals(otherOpen);
}

TEST_F(LeafMesh, MaterialsAreRandomHundredthsDrawnRedGreenBlue)
{
    HandTree t;
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
}

TEST_F(LeafMesh, SecondCallMakesFreshMaterials)
{
    HandTree t;
    mrBSPNode* head = t.leaf(1);
    mtest::LogCapture log;
    delete make(head);
    delete make(head);
    std::set<mrMaterial*> distinct(created.begin(), created.end());
    EXPECT_EQ(created.size(), 512u);
    EXPECT_EQ(distinct.size(), 512u);
    for (uint32_t i = 0; i < 256; ++i)
        EXPECT_EQ(mrBSPPortalizer::m_materials[i], created[256 + i]);
}

TEST_F(LeafMesh, OpenFrontSolidBackGivesNodePortalAndOuterFragments)
{
    HandTree t;
    mrBSPNode* f = t.leaf(0);
    mrBSPNode* b = t.leaf(1);
    mrBSPNode* head = t.split(1, 0, 0, 0, f, b);
    setBox(head, V(-64, -64, -64), V(64, 64, 64));
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
        std::vector<V> pts = pointsOf(list[i]->m_winding);
        std::reverse(pts.begin(), pts.end());
        EXPECT_EQ(std::vector<V>(mesh->m_verts.begin() + 4 * i, mesh->m_verts.begin() + 4 * i + 4), pts) << i;
    }
    delete mesh;
    pz.releasePortals(head);
}

TEST(Modeler, ConvertFansPolygonsAndKeepsOutlines)
{
    srModeler modeler;
    srModeler::Polygon poly(10);
    mrMaterial* m1 = new mrMaterial;
    mrMaterial* m2 = new mrMaterial;
    poly.reAllocate(5);
    for (int k = 0; k < 5; ++k)
    {
        poly[k].m_pos = V((float)k, 0, 0);
        poly[k].m_material = k == 0 ? m1 : m2;
    }
    modeler.addPolygon(poly);
    poly.reset();
    EXPECT_EQ(poly.numVertices(), 0);
    poly.reAllocate(2); // too small for a triangle
    modeler.addPolygon(poly);
    srMeshModel mesh(0, 0);
    modeler.convert(mesh, 1);
    EXPECT_EQ(mesh.m_numpolys, 3);
    EXPECT_EQ(mesh.getNumVerts(), 7);
    EXPECT_EQ(mesh.m_outlineSizes, (std::vector<int>{5, 2}));
    EXPECT_EQ(mesh.m_polyVerts[2].x, 0);
    EXPECT_EQ(mesh.m_polyVerts[2].y, 3);
    EXPECT_EQ(mesh.m_polyVerts[2].z, 4);
    EXPECT_EQ(mesh.m_polyMaterials, std::vector<srMaterialIFace*>(3, m1));
    srMeshModel plain(0, 0);
    modeler.convert(plain, 0);
    EXPECT_TRUE(plain.m_outlineSizes.empty());
    delete m1;
    delete m2;
}

// ---------------------------------------------------------------------------------------
// End to end on a hollow level

namespace
{
struct PortalFileContents
{
    std::string tag;
    int leafs = -1;
    int count = -1;
    struct Line
    {
        int numpoints;
        int leaf[2];
        std::vector<std::vector<double>> points;
    };
    std::vector<Line> lines;
};

PortalFileContents parsePortalFile(const std::string& text)
{
    PortalFileContents out;
    std::istringstream in(text);
    std::string line;
    std::getline(in, out.tag);
    std::getline(in, line);
    out.leafs = std::stoi(line);
    std::getline(in, line);
    out.count = std::stoi(line);
    while (std::getline(in, line))
    {
        PortalFileContents::Line l;
        // Points are written "(x y z ) "; split the bracket off the first number.
        std::string spaced;
        for (char c : line)
        {
            spaced += c;
            if (c == '(')
                spaced += ' ';
        }
        std::istringstream ls(spaced);
        ls >> l.numpoints >> l.leaf[0] >> l.leaf[1];
        std::string tok;
        while (ls >> tok)
        {
            EXPECT_EQ(tok, "(");
            std::vector<double> p(3);
            ls >> p[0] >> p[1] >> p[2] >> tok;
            EXPECT_EQ(tok, ")");
            l.points.push_back(p);
        }
        EXPECT_EQ(line.back(), ' ');
        out.lines.push_back(l);
    }
    return out;
}

// Whether every point lies within 0.01 of the plane through the first three.
bool planar(const std::vector<std::vector<double>>& pts)
{
    const std::vector<double>&a = pts[0], &b = pts[1], &c = pts[2];
    double e1[3], e2[3];
    for (int k = 0; k < 3; ++k)
    {
        e1[k] = b[k] - a[k];
        e2[k] = c[k] - a[k];
    }
    double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (len == 0)
        return false;
    for (const std::vector<double>& p : pts)
    {
        double d = ((p[0] - a[0]) * n[0] + (p[1] - a[1]) * n[1] + (p[2] - a[2]) * n[2]) / len;
        if (std::fabs(d) > 0.01)
            return false;
    }
    return true;
}

int findRoot(std::vector<int>& parent, int i)
{
    while (parent[(size_t)i] != i)
        i = parent[(size_t)i] = parent[(size_t)parent[(size_t)i]];
    return i;
}

void countLeaves(const mrBSPNode* n, int& open, int& solid)
{
    if (n->m_plane)
    {
        countLeaves(n->m_children[0], open, solid);
        countLeaves(n->m_children[1], open, solid);
    }
    else if (n->m_contents == 1)
        ++solid;
    else
        ++open;
}
} // namespace

namespace
{
// An axis-aligned rectangle on plane `axis` = at, spanning [u0,u1] x [v0,v1] on the next two
// axes (cyclic), as two triangles facing +axis (sign > 0) or -axis.
void addRect(srMeshModel& mesh, int axis, float at, float u0, float u1, float v0, float v1, int sign)
{
    int ua = (axis + 1) % 3, va = (axis + 2) % 3;
    auto P = [&](float u, float v) {
        V p;
        p[axis] = at;
        p[ua] = u;
        p[va] = v;
        return (int)mesh.addVertex(p);
    };
    int a = P(u0, v0), b = sign > 0 ? P(u1, v0) : P(u0, v1), c = P(u1, v1), d = sign > 0 ? P(u0, v1) : P(u1, v0);
    mesh.addPolygon(a, b, c);
    mesh.addPolygon(a, c, d);
}

// Two inward-facing rooms back to back, x in [0,64] and [64,128], joined by a doorway in
// their shared wall: the plane x = 64 is there facing both ways.
void addBackToBackRooms(srMeshModel& mesh)
{
    for (float x0 : {0.0f, 64.0f})
    {
        float x1 = x0 + 64;
        addRect(mesh, 1, 0, 0, 64, x0, x1, +1);  // y = 0 (u = z, v = x)
        addRect(mesh, 1, 64, 0, 64, x0, x1, -1); // y = 64
        addRect(mesh, 2, 0, x0, x1, 0, 64, +1);  // z = 0 (u = x, v = y)
        addRect(mesh, 2, 64, x0, x1, 0, 64, -1); // z = 64
        bool first = x0 == 0;
        addRect(mesh, 0, first ? 0.0f : 128.0f, 0, 64, 0, 64, first ? +1 : -1); // end wall (u = y, v = z)
        int shared = first ? -1 : +1;
        addRect(mesh, 0, 64, 0, 16, 0, 64, shared);
        addRect(mesh, 0, 64, 48, 64, 0, 64, shared);
        addRect(mesh, 0, 64, 16, 48, 32, 64, shared);
    }
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
        srVector3i* tris = mesh.getPolyVertex();
        srVector3T<float>* verts = mesh.getVertexLoc();
        head->m_mins = head->m_maxs = verts[tris[0].x];
        for (long i = 0; i < mesh.m_numpolys; ++i)
            for (int c = 0; c < 3; ++c)
            {
                const V& v = verts[c == 0 ? tris[i].x : (c == 1 ? tris[i].y : tris[i].z)];
                for (int k = 0; k < 3; ++k)
                {
                    head->m_mins[k] = std::min(head->m_mins[k], v[k]);
                    head->m_maxs[k] = std::max(head->m_maxs[k], v[k]);
                }
            }
        pz.portalize(head);
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
};

TEST_P(TwoRoomLevel, PortalFileJoinsEveryOpenLeaf)
{
    int open = 0, solid = 0;
    countLeaves(head, open, solid);
    EXPECT_GT(open, 1);
    EXPECT_GT(solid, 0);

    mtest::TempDir dir;
    std::string path = dir.file("level.prt");
    mtest::LogCapture log;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
    std::string first = mtest::readFile(path);
    ASSERT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mtest::readFile(path), first);

    PortalFileContents prt = parsePortalFile(first);
    EXPECT_EQ(prt.tag, "PRT");
    EXPECT_EQ(prt.leafs, open);
    EXPECT_EQ(prt.count, (int)prt.lines.size());
    EXPECT_GT(prt.count, 0);
    std::vector<int> parent((size_t)prt.leafs);
    std::iota(parent.begin(), parent.end(), 0);
    for (const PortalFileContents::Line& l : prt.lines)
    {
        EXPECT_GE(l.numpoints, 3);
        EXPECT_EQ((int)l.points.size(), l.numpoints);
        EXPECT_TRUE(l.points.size() >= 3 && planar(l.points));
        for (int s = 0; s < 2; ++s)
        {
            ASSERT_GE(l.leaf[s], 0);
            ASSERT_LT(l.leaf[s], prt.leafs);
        }
        EXPECT_NE(l.leaf[0], l.leaf[1]);
        parent[(size_t)findRoot(parent, l.leaf[0])] = findRoot(parent, l.leaf[1]);
    }
    std::set<int> groups;
    for (int i = 0; i < prt.leafs; ++i)
        groups.insert(findRoot(parent, i));
    EXPECT_EQ(groups.size(), 1u) << "open leaves split into " << groups.size() << " unconnected groups";
}

TEST_P(TwoRoomLevel, MeshHasAPolygonPerOpenToSolidPortal)
{
    int expected = 0;
    std::vector<const mrBSPNode*> stack = {head};
    while (!stack.empty())
    {
        const mrBSPNode* n = stack.back();
        stack.pop_back();
        if (n->m_plane)
        {
            stack.push_back(n->m_children[0]);
            stack.push_back(n->m_children[1]);
            continue;
        }
        if (n->m_contents == 1)
            continue;
        for (mrBSPPortal* p : portalsOf(n))
            if (p->m_nodes[0] == n && p->m_nodes[1]->m_contents != n->m_contents)
                ++expected;
    }
    mtest::LogCapture log;
    srMeshModel* out = mrBSPPortalizer::createMeshModel(head);
    EXPECT_GT(expected, 0);
    EXPECT_EQ(mrBSPPortalizer::m_polycount, expected);
    EXPECT_EQ((int)out->m_outlineSizes.size(), expected);
    delete out;
    for (uint32_t i = 0; i < 256; ++i)
        delete mrBSPPortalizer::m_materials[i];
}

INSTANTIATE_TEST_SUITE_P(LevelsAndPartitionModes, TwoRoomLevel,
                         ::testing::Combine(::testing::Values(0, 1), ::testing::Values(0, 1)),
                         [](const ::testing::TestParamInfo<std::tuple<int, int>>& info) {
                             return std::string(std::get<0>(info.param) ? "BackToBack" : "Corridor") +
                                    (std::get<1>(info.param) ? "MidSplit" : "Normal");
                         });
