// Portals between the leaves of a solid BSP tree, the portal file and the leaf mesh.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/platform/dx/srModeler.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/platform/geom/mrWinding.h>
#include <meridbsp/portals/mrBSPPortal.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/portals/mrLeakFinder.h>
#include <meridbsp/portals/mrPortalCutter.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

#include "BenchMesh.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<V> Points;
typedef std::vector<mrBSPPortal*> Portals;

// Nodes and planes made by hand, released with the holder.
struct HandTree
{
    std::vector<std::unique_ptr<mrBSPNode>> nodes;
    std::vector<std::unique_ptr<mrPlane>> planes;
    mrBSPNode* leaf(int contents, V mins = V(), V maxs = V())
    {
        nodes.emplace_back(new mrBSPNode);
        nodes.back()->m_contents = contents;
        nodes.back()->m_mins = mins;
        nodes.back()->m_maxs = maxs;
        return nodes.back().get();
    }
    // A decision node on the plane x = dist (or the given normal), with the box of head
    // trees: (-64, -64, -64) to (64, 64, 64).
    mrBSPNode* split(mrBSPNode* front, mrBSPNode* back, float dist = 0, V normal = V(1, 0, 0))
    {
        planes.emplace_back(new mrPlane(normal.x, normal.y, normal.z, dist));
        mrBSPNode* n = leaf(0, V(-64, -64, -64), V(64, 64, 64));
        n->m_plane = planes.back().get();
        n->m_children[0] = front;
        n->m_children[1] = back;
        return n;
    }
};

Portals portalsOf(const mrBSPNode* node)
{
    Portals out;
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

// Box of a winding's points.
std::pair<V, V> bounds(const mrWinding* w)
{
    V lo(1e30f, 1e30f, 1e30f), hi(-1e30f, -1e30f, -1e30f);
    for (const V& p : pointsOf(w))
        for (int k = 0; k < 3; ++k)
            std::tie(lo[k], hi[k]) = std::make_pair(std::min(lo[k], p[k]), std::max(hi[k], p[k]));
    return {lo, hi};
}

void addPortal(mrBSPPortalizer& pz, mrPlane* plane, mrBSPNode* front, mrBSPNode* back, const Points& pts)
{
    mrBSPPortal* p = new mrBSPPortal;
    p->m_plane = plane;
    p->m_winding = new mrWinding(4);
    for (const V& v : pts)
        p->m_winding->addPoint(v);
    pz.addPortalToNodes(p, front, back);
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
    std::string text = capture.text();
    if (log)
        *log = text;

    // The same lines and bytes into a stream the caller opened.
    capture.clear();
    FILE* stream = std::tmpfile();
    written = mtest::stdoutOf([&] { EXPECT_TRUE(mrBSPPortalizer::writePortalfile(head, stream, path.c_str())); });
    EXPECT_EQ(written, "writing " + path + "\n");
    EXPECT_EQ(capture.text(), text);
    std::string streamed;
    std::rewind(stream);
    for (int c; (c = std::fgetc(stream)) != EOF;)
        streamed += (char)c;
    std::fclose(stream);
    std::string file = mtest::readFile(path);
    EXPECT_EQ(streamed, file);
    return file;
}
} // namespace

// ---------------------------------------------------------------------------------------
// Outer portals

TEST(SingleLeaf, GetsSixBoxFacesJoiningTheOutsideAndWritesItsPortalFileInTheCurrentDirectory)
{
    for (int contents = 0; contents < 2; ++contents)
    {
        SCOPED_TRACE(contents);
        HandTree t;
        mrBSPNode* head = t.leaf(contents, V(0, 0, 0), V(64, 64, 64));
        mrBSPPortalizer pz;
        mtest::LogCapture log;
        pz.portalize(head);
        EXPECT_EQ(log.text(), "----- Portalize ----\nCreating headnode portals: {0,0,0}{64,64,64}\n"
                              "Number of degenerate portals 0\n");
        EXPECT_EQ(std::make_tuple(pz.m_num_degenerate, pz.m_outsideNode.m_contents), std::make_tuple(0, 1));
        // Created in the order 0, 3, 1, 4, 2, 5 and pushed at the head: the list runs backwards.
        Portals list = portalsOf(head);
        ASSERT_EQ(list.size(), 6u);
        EXPECT_EQ(portalsOf(&pz.m_outsideNode), list);
        const V normals[6] = {V(0, 0, -1), V(0, 0, 1), V(0, -1, 0), V(0, 1, 0), V(-1, 0, 0), V(1, 0, 0)};
        const float dists[6] = {-88, -24, -88, -24, -88, -24};
        for (size_t i = 0; i < 6; ++i)
        {
            mrBSPPortal* p = list[i];
            EXPECT_EQ(std::make_tuple(p->m_nodes[0], p->m_nodes[1], p->m_plane->m_normal, p->m_plane->m_dist),
                      std::make_tuple(head, &pz.m_outsideNode, normals[i], dists[i]))
                << i;
            // A square of side 112 on the widened box face.
            ASSERT_EQ(p->m_winding->m_numpoints, 4);
            V lo(-24, -24, -24), hi(88, 88, 88);
            for (int k = 0; k < 3; ++k)
                if (normals[i][k] != 0)
                    lo[k] = hi[k] = normals[i][k] * dists[i];
            EXPECT_EQ(bounds(p->m_winding), std::make_pair(lo, hi)) << i;
        }

        mtest::TempDir dir;
        log.clear();
        std::string out;
        mtest::inDirectory(dir.path(), [&] { out = mtest::stdoutOf([&] { mrBSPPortalizer::writePortalfile(head); }); });
        EXPECT_EQ(
            std::make_tuple(out, head->m_leafnum, mtest::readFile(dir.file("test.prt")),
                            std::filesystem::exists(dir.file("test.prt.tmp"))),
            std::make_tuple("writing test.prt\n", contents ? -1 : 0, contents ? "PRT\n0\n0\n" : "PRT\n1\n0\n", false));
        EXPECT_NE(log.text().find(contents ? "Writing 0 visleafs 0 visportals\n" : "Writing 1 visleafs 0 visportals\n"),
                  std::string::npos);
        pz.releasePortals(head);
        EXPECT_EQ(std::make_tuple(head->m_portals, pz.m_outsideNode.m_portals), std::make_tuple(nullptr, nullptr));
    }
}

TEST(HeadnodePortals, LogLineUsesDefaultFloatFormatAndAnInvertedBoxLosesEveryWinding)
{
    HandTree t;
    mrBSPPortalizer pz;
    mtest::AssertRecorder rec;
    const std::tuple<V, V, const char*> cases[] = {
        {V(-128, -64, 0), V(128, 64, 96), "Creating headnode portals: {-128,-64,0}{128,64,96}\n"},
        {V(0.5f, -1.25f, 12345.67f), V(1, 2, 20000), "Creating headnode portals: {0.5,-1.25,12345.7}{1,2,20000}\n"},
    };
    for (const auto& c : cases)
    {
        mrBSPNode* head = t.leaf(1, std::get<0>(c), std::get<1>(c));
        mtest::LogCapture log;
        pz.makeHeadnodePortals(head);
        EXPECT_EQ(log.text(), std::get<2>(c));
        pz.releasePortals(head);
    }
    EXPECT_TRUE(rec.reports().empty());

    mrBSPNode* head = t.leaf(0, V(100, 100, 100), V(-100, -100, -100));
    mtest::LogCapture log;
    pz.makeHeadnodePortals(head);
    // Every outer portal is clipped away by a plane of the far side before its last plane.
    ASSERT_EQ(rec.count("portals[i]->m_winding"), 6u);
    for (const mtest::AssertReport& r : rec.reports())
        EXPECT_TRUE(r.source == "mrBSPPortalizer" && !r.hasMessage) << r.source << ": " << r.message;
    // Portals without windings make no polygon but are reported by the mesh builder.
    rec.clear();
    srMeshModel* mesh = mrBSPPortalizer::createMeshModel(head);
    EXPECT_EQ(std::make_pair(rec.count("w->m_numpoints>=3"), mesh->m_numpolys), std::make_pair((size_t)6, 0L));

    mtest::VisRun::releasePortalMesh(mesh);
    pz.releasePortals(head);
}

// ---------------------------------------------------------------------------------------
// Node portals

// One split of the head box on x = 0; the back leaf is open or solid.
TEST(OneSplit, CrossSectionJoinsTheLeavesOuterPortalsGoDownAndOpenLeavesAreWrittenAndMeshed)
{
    for (int backContents = 0; backContents < 2; ++backContents)
    {
        SCOPED_TRACE(backContents);
        HandTree t;
        mrBSPNode *front = t.leaf(0), *back = t.leaf(backContents);
        mrBSPNode* head = t.split(front, back);
        mrBSPPortalizer pz;
        mtest::LogCapture quiet;
        pz.portalize(head);
        EXPECT_EQ(head->m_portals, nullptr);
        Portals f = portalsOf(front), b = portalsOf(back);
        ASSERT_EQ(std::make_tuple(f.size(), b.size(), portalsOf(&pz.m_outsideNode).size()),
                  std::make_tuple(6u, 6u, 10u));
        // The node portal is the cross-section of the widened box joining both leaves.
        auto node = std::find_if(f.begin(), f.end(), [&](mrBSPPortal* p) { return p->m_plane == head->m_plane; });
        ASSERT_NE(node, f.end());
        EXPECT_EQ(std::make_pair((*node)->m_nodes[0], (*node)->m_nodes[1]), std::make_pair(front, back));
        EXPECT_EQ(pointsOf((*node)->m_winding), (Points{V(0, 88, 88), V(0, -88, 88), V(0, -88, -88), V(0, 88, -88)}));
        for (mrBSPNode* leaf : {front, back})
            for (mrBSPPortal* p : portalsOf(leaf))
            {
                if (p->m_plane == head->m_plane)
                    continue;
                // Orientation survives: the leaf takes the front slot the head had.
                EXPECT_EQ(std::make_pair(p->m_nodes[0], p->m_nodes[1]), std::make_pair(leaf, &pz.m_outsideNode));
                auto [lo, hi] = bounds(p->m_winding);
                EXPECT_TRUE(leaf == front ? lo.x >= 0 : hi.x <= 0);
                EXPECT_TRUE(p->m_plane->m_normal.x != 0 || hi.x - lo.x == 88.0f); // a half of a split face
            }
        // The high x face goes whole to the front leaf, the low x face to the back leaf.
        EXPECT_EQ(std::make_pair(f[0]->m_plane->m_normal, b[0]->m_plane->m_normal),
                  std::make_pair(V(-1, 0, 0), V(1, 0, 0)));

        // Only open leaves are numbered and joined by a portal line.
        std::string log;
        const std::string file = portalFileOf(head, &log);
        EXPECT_EQ(std::make_tuple(front->m_leafnum, back->m_leafnum, file, log),
                  backContents
                      ? std::make_tuple(0, -1, "PRT\n1\n0\n", "Writing 1 visleafs 0 visportals\n")
                      : std::make_tuple(0, 1, "PRT\n2\n1\n4 0 1 (0 88 88 ) (0 -88 88 ) (0 -88 -88 ) (0 88 -88 ) \n",
                                        "Writing 2 visleafs 1 visportals\n"));
        EXPECT_EQ(portalFileOf(head), file) << "the counters are reset for every file";

        // Open front, solid back: every portal of the front leaf makes a polygon, its points backwards.
        if (backContents)
        {
            srMeshModel* mesh = mrBSPPortalizer::createMeshModel(head);
            EXPECT_EQ(std::make_tuple(mrBSPPortalizer::m_polycount, mesh->m_numpolys), std::make_tuple(6, 12));
            EXPECT_EQ(mesh->m_outlineSizes, std::vector<int>(6, 4));
            for (size_t i = 0; i < 6; ++i)
            {
                Points pts = pointsOf(f[i]->m_winding);
                EXPECT_EQ(Points(mesh->m_verts.begin() + 4 * i, mesh->m_verts.begin() + 4 * i + 4),
                          Points(pts.rbegin(), pts.rend()))
                    << i;
            }
            mtest::VisRun::releasePortalMesh(mesh);
        }

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
    EXPECT_EQ(std::make_tuple(pz.m_num_degenerate, log.lines().back(), portalsOf(front).size(), portalsOf(back).size()),
              std::make_tuple(1, "Number of degenerate portals 1", 0u, 6u));
    pz.releasePortals(head);
}

// Every list of a portalized tree, the outside node's last, in order: for each portal the
// other node (by its place in the front-first walk), its plane's numbers and its winding.
std::string listsOf(mrBSPNode* head, mrBSPNode* outside)
{
    std::vector<mrBSPNode*> nodes, stack(1, head);
    while (!stack.empty())
    {
        mrBSPNode* n = stack.back();
        stack.pop_back();
        nodes.push_back(n);
        if (n->m_plane)
            stack.insert(stack.end(), {n->m_children[1], n->m_children[0]});
    }
    nodes.push_back(outside);
    std::string out;
    for (mrBSPNode* n : nodes)
    {
        for (mrBSPPortal* p : portalsOf(n))
        {
            const mrBSPNode* other = p->m_nodes[p->m_nodes[0] == n ? 1 : 0];
            out += std::to_string(std::find(nodes.begin(), nodes.end(), other) - nodes.begin()) + " ";
            for (float v : {p->m_plane->m_normal.x, p->m_plane->m_normal.y, p->m_plane->m_normal.z, p->m_plane->m_dist})
                out += std::to_string(v) + " ";
            for (const V& v : pointsOf(p->m_winding))
            {
                char text[128];
                std::snprintf(text, sizeof text, "(%a %a %a)", v.x, v.y, v.z);
                out += text;
            }
            out += "\n";
        }
        out += "--\n";
    }
    return out;
}

TEST(PortalCutter, ChainsGiveTheWalksPortalsListsAndCount)
{
    // Curved meshes make chains. The cutter, made to take even these small trees and to
    // keep chains from a few portals on, must leave every list as the walk does.
    mrPortalCutter::Settings eager;
    eager.minDepth = 0;
    eager.minChainShare = 0.0;
    eager.chainStart = 8;
    std::unique_ptr<BenchMesh> meshes[] = {std::unique_ptr<BenchMesh>(BenchMesh::blob("blob", 6, 7)),
                                           std::unique_ptr<BenchMesh>(BenchMesh::sphere("sphere", 16, 12, 300.0f)),
                                           std::unique_ptr<BenchMesh>(BenchMesh::knot("knot", 6, 30))};
    for (const auto& mesh : meshes)
        for (int midSplit = 0; midSplit < 2; ++midSplit)
        {
            SCOPED_TRACE(mesh->name() + (midSplit ? " mid-split" : ""));
            std::string lists[2];
            int32_t degenerate[2] = {0, 0};
            for (int cutter = 0; cutter < 2; ++cutter)
            {
                mtest::LogCapture log;
                mtest::VisRun run(*mesh->mesh(), midSplit);
                std::tie(run.head->m_mins, run.head->m_maxs) = std::make_tuple(mesh->mins(), mesh->maxs());
                run.portalizer.makeHeadnodePortals(run.head);
                if (cutter)
                    EXPECT_TRUE(mrPortalCutter::cut(run.head, degenerate[1], eager));
                else
                {
                    EXPECT_FALSE(mrPortalCutter::cut(run.head, degenerate[0])); // too small a tree
                    run.portalizer.cutNodePortals_r(run.head);
                    degenerate[0] = run.portalizer.m_num_degenerate;
                }
                lists[cutter] = listsOf(run.head, &run.portalizer.m_outsideNode);
            }
            EXPECT_EQ(degenerate[0], degenerate[1]);
            EXPECT_TRUE(lists[0] == lists[1]);
        }
}

TEST(PortalLinks, RemovingFromTheBackNodeClearsOnlyThatSlotAndBrokenListsAreReported)
{
    HandTree t;
    mrBSPNode *a = t.leaf(0), *b = t.leaf(0), *c = t.leaf(0);
    mrBSPPortalizer pz;
    mtest::AssertRecorder rec;
    mrBSPPortal p1, p2;
    pz.addPortalToNodes(&p1, a, b);
    pz.addPortalToNodes(&p2, a, b);
    EXPECT_EQ(portalsOf(a), (Portals{&p2, &p1}));
    mrBSPPortalizer::removePortalFromNode(&p1, b);
    EXPECT_EQ(std::make_tuple(p1.m_nodes[0], p1.m_nodes[1], portalsOf(b), portalsOf(a)),
              std::make_tuple(a, nullptr, Portals{&p2}, Portals{&p2, &p1}));
    mrBSPPortalizer::removePortalFromNode(&p1, a);
    mrBSPPortalizer::removePortalFromNode(&p2, a);
    mrBSPPortalizer::removePortalFromNode(&p2, b);
    EXPECT_EQ(std::make_tuple(a->m_portals, b->m_portals), std::make_tuple(nullptr, nullptr));

    // Broken lists: reported, and the portal is linked all the same.
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
    auto written = [](float value)
    {
        FILE* f = tmpfile();
        mrBSPPortalizer::writeFloat(f, value);
        rewind(f);
        char buf[64] = {0};
        std::string text(buf, fread(buf, 1, sizeof buf - 1, f));
        fclose(f);
        return text;
    };
    for (const auto& c : cases)
        EXPECT_EQ(written(c.first), c.second) << c.first;

    // Decimals as printf gives them (ties to even, on the exact value): halves of the
    // sixth decimal (multiples of 1/128), and values of every size and sign.
    std::vector<float> values;
    for (int k = -300; k <= 300; ++k)
        values.push_back((float)k / 128.0f + 0.25f);
    uint32_t seed = 12345;
    for (int i = 0; i < 4000; ++i)
    {
        seed = seed * 1664525u + 1013904223u;
        const float unit = (float)(seed >> 8) / 16777216.0f - 0.5f;
        values.push_back(std::ldexp(unit, (int)(seed % 48) - 24));
    }
    for (float v : values)
    {
        const double r = std::floor((double)v + 0.5);
        char expected[512];
        if (std::fabs((double)v - r) < (double)0.001f)
            std::snprintf(expected, sizeof expected, "%i ", (int)r);
        else
            std::snprintf(expected, sizeof expected, "%f ", (double)v);
        ASSERT_EQ(written(v), expected) << v;
    }
}

TEST(PortalFile, LeavesAreNumberedFrontFirstSkippingSolidAndAWindingFacingAwaySwapsNumbersNotPoints)
{
    HandTree t;
    mrBSPNode *frontLeaf = t.leaf(0), *solidLeaf = t.leaf(1), *backLeaf = t.leaf(0);
    mrBSPNode* inner = t.split(frontLeaf, solidLeaf, 0, V(0, 1, 0));
    mrBSPNode* head = t.split(inner, backLeaf);
    mrBSPPortalizer::m_num_visleafs = 7;
    mrBSPPortalizer::m_num_visportals = 7;
    EXPECT_EQ(portalFileOf(head), "PRT\n2\n0\n");
    EXPECT_EQ(
        (std::vector<int>{head->m_leafnum, inner->m_leafnum, frontLeaf->m_leafnum, solidLeaf->m_leafnum,
                          backLeaf->m_leafnum, mrBSPPortalizer::m_num_visleafs, mrBSPPortalizer::m_num_visportals}),
        (std::vector<int>{-99, -99, 0, -1, 1, 2, 0}));
    // Clockwise seen from +x: the winding's own plane faces -x.
    mrBSPPortalizer pz;
    addPortal(pz, head->m_plane, frontLeaf, backLeaf, {V(0, 0, 0), V(0, 0, 2.5f), V(0, 128, 2.5f), V(0, 128, 0)});
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
    EXPECT_EQ(std::make_pair(out, log.text()), std::make_pair("writing " + missing + "\n", std::string())); // no counts
    mtest::stdoutOf([&] { EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, taken.c_str())); });
    rec.expect({{"0", "mrBSPPortalizer", 0, "Error opening %s"}, {"0", "mrBSPPortalizer", 0, "Error opening %s"}});
    EXPECT_TRUE(std::filesystem::is_directory(taken) && !std::filesystem::exists(taken + ".tmp"));

    // Into a stream: none at all is reported as a failed open; one that cannot be written
    // makes the call return false.
    rec.clear();
    mtest::stdoutOf([&] { EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, nullptr, "x.prt")); });
    rec.expect({{"0", "mrBSPPortalizer", 0, "Error opening %s"}});
    mtest::writeFile(dir.file("ro"), "");
    FILE* readOnly = std::fopen(dir.file("ro").c_str(), "r");
    ASSERT_TRUE(readOnly);
    mtest::stdoutOf([&] { EXPECT_FALSE(mrBSPPortalizer::writePortalfile(head, readOnly, "ro")); });
    std::fclose(readOnly);
}

// ---------------------------------------------------------------------------------------
// Leaf mesh

TEST(LeafMesh, PolygonsComeFromOwnedPortalsFacingOtherContentsInRandomMaterialsMadeAfreshByEveryCall)
{
    HandTree t;
    mrBSPNode *open = t.leaf(0), *otherOpen = t.leaf(0), *solid = t.leaf(1);
    mrBSPPortalizer pz;
    mrPlane plane(0, 0, 1, 0);
    // List order on `open` ends up: p1 (to solid), p2 (to open), p3 (to solid), p4 (open behind).
    addPortal(pz, &plane, otherOpen, open, {V(9, 9, 9), V(8, 8, 8), V(7, 7, 7)});
    addPortal(pz, &plane, open, solid, {V(0, 0, 3), V(1, 0, 3), V(1, 1, 3), V(0, 1, 3)});
    addPortal(pz, &plane, open, otherOpen, {V(5, 5, 5), V(6, 6, 6), V(7, 5, 5)});
    addPortal(pz, &plane, open, solid, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});

    mtest::LogCapture log;
    srMeshModel* mesh = mrBSPPortalizer::createMeshModel(open);
    // Three owned portals count a material each; the one facing open space is skipped.
    // Points in reverse winding order.
    EXPECT_EQ(
        std::make_tuple(log.text(), mrBSPPortalizer::m_polycount, mrBSPPortalizer::m_materialCounter,
                        std::string(mesh->getName()), mesh->m_outlineSizes, mesh->m_verts),
        std::make_tuple(" mrBSPPortalizer::createMeshModel -> polys:\n2\n", 2, 3u, "portalizer created mesh",
                        std::vector<int>{3, 4},
                        Points{V(0, 1, 0), V(1, 0, 0), V(0, 0, 0), V(0, 1, 3), V(1, 1, 3), V(1, 0, 3), V(0, 0, 3)}));
    ASSERT_EQ(mesh->m_numpolys, 3);
    mrMaterial** table = mrBSPPortalizer::m_materials.m_data;
    EXPECT_EQ(mesh->m_polyMaterials, (std::vector<srMaterialIFace*>{table[0], table[2], table[2]}));

    // The counter wraps at 256; a fresh call starts again at 0.
    mrBSPPortalizer::m_materialCounter = 255;
    srModeler modeler;
    mrBSPPortalizer::createLeafPolys_r(open, modeler);
    ASSERT_EQ(modeler.numPolygons(), 2u);
    for (int i = 0; i < 2; ++i)
        for (int k = 0; k < modeler.polygon(i).numVertices(); ++k)
            EXPECT_EQ(modeler.polygon(i)[k].m_material, table[i ? 1 : 255]);
    EXPECT_EQ(mrBSPPortalizer::m_materialCounter, 2u);
    mtest::VisRun::releasePortalMesh(mesh);
    mrBSPPortalizer::freeAllPortals(open);
    mrBSPPortalizer::freeAllPortals(otherOpen);

    // Materials are random hundredths drawn red, green, blue, made afresh by every call.
    srand(7);
    log.clear();
    mesh = mrBSPPortalizer::createMeshModel(solid);
    EXPECT_EQ(std::make_pair(log.text(), mesh->m_numpolys),
              std::make_pair(std::string(" mrBSPPortalizer::createMeshModel -> polys:\n0\n"), 0L));
    mesh->release();
    std::vector<mrMaterial*> first(mrBSPPortalizer::m_materials.m_data, mrBSPPortalizer::m_materials.m_data + 256);
    srand(7);
    for (uint32_t i = 0; i < 256; ++i)
    {
        const float expected[4] = {(float)(rand() % 100) * 0.01f, (float)(rand() % 100) * 0.01f,
                                   (float)(rand() % 100) * 0.01f, 1.0f}; // drawn in this order
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(std::make_tuple(first[i]->m_color0[k], first[i]->m_color1[k], first[i]->m_flags),
                      std::make_tuple(expected[k], expected[k], 1u))
                << i;
    }
    // A second call makes 256 new materials: 512 in all, the table holding the second 256.
    mesh = mrBSPPortalizer::createMeshModel(solid);
    std::set<mrMaterial*> all(first.begin(), first.end());
    all.insert(mrBSPPortalizer::m_materials.m_data, mrBSPPortalizer::m_materials.m_data + 256);
    EXPECT_EQ(all.size(), 512u);
    for (mrMaterial* m : first)
        m->release();
    mtest::VisRun::releasePortalMesh(mesh);
}

TEST(Modeler, ConvertFansPolygonsAndKeepsOutlines)
{
    srModeler modeler;
    srModeler::Polygon poly(10);
    mrMaterial m1, m2;
    poly.reAllocate(5);
    for (int k = 0; k < 5; ++k)
        std::tie(poly[k].m_pos, poly[k].m_material) = std::make_tuple(V((float)k, 0, 0), k == 0 ? &m1 : &m2);

    modeler.addPolygon(poly);
    poly.reset();
    EXPECT_EQ(poly.numVertices(), 0);
    poly.reAllocate(2); // too small for a triangle
    modeler.addPolygon(poly);
    srMeshModel mesh(0, 0), plain(0, 0);
    modeler.convert(mesh, 1);
    EXPECT_EQ(std::make_tuple(mesh.m_numpolys, mesh.getNumVerts(), mesh.m_outlineSizes, mesh.m_polyVerts[2].x,
                              mesh.m_polyVerts[2].y, mesh.m_polyVerts[2].z),
              std::make_tuple(3L, 7L, std::vector<int>{5, 2}, 0, 3, 4));
    modeler.convert(plain, 0);
    EXPECT_EQ(std::make_pair(mesh.m_polyMaterials, plain.m_outlineSizes.empty()),
              std::make_pair(std::vector<srMaterialIFace*>(3, &m1), true));
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
bool planar(const std::vector<std::vector<double>>& p)
{
    if (p.size() < 3)
        return false;
    auto d = [&](size_t i, int k) { return p[i][k] - p[0][k]; };
    double n[3];
    for (int k = 0; k < 3; ++k)
        n[k] = d(1, (k + 1) % 3) * d(2, (k + 2) % 3) - d(1, (k + 2) % 3) * d(2, (k + 1) % 3);
    double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (size_t i = 0; i < p.size(); ++i)
        if (len == 0 || std::fabs(d(i, 0) * n[0] + d(i, 1) * n[1] + d(i, 2) * n[2]) > 0.01 * len)
            return false;
    return true;
}

// Counts a tree's leaves, and the portals the leaf mesh turns into polygons (owned by an
// open leaf, facing other contents).
void countLeaves(const mrBSPNode* n, int& open, int& solid, int& meshPortals)
{
    if (n->m_plane)
    {
        countLeaves(n->m_children[0], open, solid, meshPortals);
        countLeaves(n->m_children[1], open, solid, meshPortals);
    }
    else if (n->m_contents == 1)
        ++solid;
    else
    {
        ++open;
        for (mrBSPPortal* p : portalsOf(n))
            meshPortals += p->m_nodes[0] == n && p->m_nodes[1]->m_contents != n->m_contents;
    }
}
} // namespace

// Levels: two rooms and a corridor, and rooms back to back; in both partition modes.
TEST(TwoRoomLevel, PortalFileJoinsEveryOpenLeafAndTheMeshHasAPolygonPerOpenToSolidPortal)
{
    for (int level = 0; level < 2; ++level)
        for (int midSplit = 0; midSplit < 2; ++midSplit)
        {
            SCOPED_TRACE(2 * level + midSplit);
            srMeshModel mesh;
            level ? addBackToBackRooms(mesh) : mtest::addTwoRoomLevel(mesh);
            mtest::LogCapture log;
            mtest::VisRun run(mesh, midSplit);
            run.portalizer.portalize(run.head);
            int openLeaves = 0, solidLeaves = 0, meshPortals = 0;
            countLeaves(run.head, openLeaves, solidLeaves, meshPortals);
            EXPECT_TRUE(openLeaves > 1 && solidLeaves > 0 && meshPortals > 0);
            std::string first = portalFileOf(run.head);
            EXPECT_EQ(portalFileOf(run.head), first);
            mtest::PortalFile prt = mtest::parsePortalFile(first);
            EXPECT_EQ(std::make_tuple(prt.tag, prt.leafs, prt.count),
                      std::make_tuple("PRT", openLeaves, (int)prt.lines.size()));
            EXPECT_GT(prt.count, 0);
            for (const mtest::PortalFile::Line& l : prt.lines)
            {
                EXPECT_TRUE(l.numpoints >= 3 && (int)l.points.size() == l.numpoints && l.leaf[0] != l.leaf[1]);
                EXPECT_TRUE(planar(l.points));
            }
            EXPECT_EQ(mtest::connectedLeafGroups(prt), 1u) << "open leaves split into unconnected groups";
            run.withPortalMesh([&](srMeshModel& out) { EXPECT_EQ((int)out.m_outlineSizes.size(), meshPortals); });
            EXPECT_EQ(mrBSPPortalizer::m_polycount, meshPortals);
        }
}

// ---------------------------------------------------------------------------------------
// Leaks: open space joined to the outside

namespace
{
// Removes the triangles whose three corners all lie on x = at (or only the first of them).
void removeWallAtX(srMeshModel& mesh, float at, bool firstOnly)
{
    std::vector<srVector3i>& tris = mesh.m_polyVerts;
    auto onWall = [&](const srVector3i& t)
    {
        return mesh.m_verts[(size_t)t[0]].x == at && mesh.m_verts[(size_t)t[1]].x == at &&
               mesh.m_verts[(size_t)t[2]].x == at;
    };
    if (firstOnly)
        tris.erase(std::find_if(tris.begin(), tris.end(), onWall));
    else
        tris.erase(std::remove_if(tris.begin(), tris.end(), onWall), tris.end());
    mesh.m_numpolys = (long)tris.size();
}

mrLeakFinder::Report leaksOf(srMeshModel& mesh, int midSplit, const std::vector<V>& points)
{
    mtest::LogCapture log;
    mtest::VisRun run(mesh, midSplit);
    run.portalizer.portalize(run.head);
    mrLeakFinder::Report report;
    mrLeakFinder::find(run.head, &run.portalizer.m_outsideNode, points, report);
    return report;
}
} // namespace

// A closed level is enclosed, a prop is open outside; a missing wall leaks, its path going
// out through the hole.
TEST(Leaks, ClosedLevelsAreEnclosedPropsOpenOutsideAMissingWallLeaksThroughTheHoleAndOneMissingTriangleDoesNot)
{
    for (int midSplit = 0; midSplit < 2; ++midSplit)
    {
        SCOPED_TRACE(midSplit);
        srMeshModel level;
        mtest::addTwoRoomLevel(level);
        mrLeakFinder::Report r = leaksOf(level, midSplit, {V(32, 32, 32), V(160, 32, 32), V(32, 32, -50)});
        EXPECT_GT(r.openLeaves, 1);
        EXPECT_EQ(std::make_tuple(r.reachable, r.enclosed), std::make_tuple(0L, r.openLeaves));
        ASSERT_EQ(r.points.size(), 3u);
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(std::make_tuple(r.points[i].inOpenLeaf, r.points[i].insideBox, r.points[i].leaks,
                                      r.points[i].path.empty()),
                      std::make_tuple(i < 2, i < 2, false, true))
                << i;

        // A closed box facing out: its inside is solid, and all open space is outside.
        srMeshModel prop;
        mtest::addBox(prop, V(0, 0, 0), V(64, 64, 64), true);
        r = leaksOf(prop, midSplit, {V(32, 32, 32)});
        EXPECT_GT(r.openLeaves, 0);
        EXPECT_EQ(std::make_tuple(r.reachable, r.enclosed, r.points.at(0).inOpenLeaf),
                  std::make_tuple(r.openLeaves, 0L, false));

        // Room A's end wall at x = 0 (y and z 0 to 64) is gone; ask from room B too.
        removeWallAtX(level, 0.0f, false);
        r = leaksOf(level, midSplit, {V(160, 32, 32), V(32, 32, 32)});
        EXPECT_EQ(std::make_tuple(r.reachable, r.enclosed), std::make_tuple(r.openLeaves, 0L));
        for (const mrLeakFinder::Leak& leak : r.points)
        {
            ASSERT_TRUE(leak.leaks);
            const std::vector<V>& path = leak.path;
            ASSERT_GE(path.size(), 2u);
            EXPECT_EQ(path.front(), leak.point);
            // It ends on the box the outer portals enclose: the mesh's box widened by 24.
            const V& end = path.back();
            EXPECT_TRUE(end.x == -24 || end.x == 216 || end.y == -24 || end.y == 88 || end.z == -24 || end.z == 88);
            bool throughHole = false; // one step crosses x = 0 inside the hole
            for (size_t i = 0; i + 1 < path.size(); ++i)
            {
                const V &a = path[i], &b = path[i + 1];
                double t = (double)a.x / ((double)a.x - b.x);
                double y = a.y + t * (b.y - a.y), z = a.z + t * (b.z - a.z);
                throughHole = throughHole || (a.x > 0 && b.x <= 0 && y >= 0 && y <= 64 && z >= 0 && z <= 64);
            }
            EXPECT_TRUE(throughHole);
        }
        mrLeakFinder::Report again = leaksOf(level, midSplit, {V(160, 32, 32), V(32, 32, 32)});
        EXPECT_EQ(std::make_pair(again.points[0].path, again.points[1].path),
                  std::make_pair(r.points[0].path, r.points[1].path));
    }

    // Every plane splits the whole cell it is chosen in: the other triangle of the wall
    // still brings the wall's plane, and the space behind it receives no faces, so it is
    // solid. The hole shows only as open edges in the mesh.
    srMeshModel holed;
    mtest::addTwoRoomLevel(holed);
    removeWallAtX(holed, 0.0f, true);
    mrLeakFinder::Report one = leaksOf(holed, 0, {V(32, 32, 32)});
    EXPECT_EQ(std::make_tuple(one.reachable, one.points[0].leaks), std::make_tuple(0L, false));
}
