// The solid BSP: face sides, partition choice, dividing surfaces, filling leaves, whole
// trees and their release.
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "solid/mrBSPNode.h"
#include "solid/mrBSPTree.h"
#include "solid/mrSolidBSP.h"
#include "support/TestSupport.h"
#include "surfaces/mrBSPSurfaceBuilder.h"

namespace
{
typedef srVector3T<float> V;

using mtest::makeFace;

// A surface on plane with the given faces (in list order) and its bounds computed.
mrBSPSurface* makeSurface(mrPlane* plane, std::initializer_list<mrBSPFace*> faces)
{
    mrBSPSurface* s = new mrBSPSurface;
    s->m_plane = plane;
    mrBSPFace** tail = &s->m_faces;
    for (mrBSPFace* f : faces)
    {
        *tail = f;
        tail = &f->m_next;
    }
    if (s->m_faces)
        s->calcBounds();
    return s;
}

mrBSPSurface* chain(std::initializer_list<mrBSPSurface*> surfaces)
{
    mrBSPSurface* head = nullptr;
    mrBSPSurface** tail = &head;
    for (mrBSPSurface* s : surfaces)
    {
        *tail = s;
        tail = &s->m_next;
    }
    *tail = nullptr;
    return head;
}

// A face-less candidate with a given plane, for the choosers (they read only planes,
// bounds, faces of other surfaces and m_onNode).
mrBSPSurface* bare(mrPlane* plane)
{
    mrBSPSurface* s = new mrBSPSurface;
    s->m_plane = plane;
    return s;
}

void deleteSurfaces(mrBSPSurface* list) { mrBSPTree::releaseSurfaces(list); }

// A leaf's mark faces, up to the null entry.
std::vector<const mrBSPFace*> markFaces(const mrBSPNode* leaf)
{
    std::vector<const mrBSPFace*> out;
    for (mrBSPFace** f = leaf->m_markfaces; f && *f; ++f)
        out.push_back(*f);
    return out;
}

typedef std::vector<int> Counts;
// The generator's counters: split nodes, solid leaves, empty leaves, leaf faces, linked
// faces, node faces.
Counts counts(const mrSolidBSP& b)
{
    return {b.m_numSplitNodes, b.m_numSolidLeafs,  b.m_numEmptyLeafs,
            b.m_numLeafFaces,  b.m_numLinkedFaces, b.m_numNodeFaces};
}

// The leaf holding point p (strictly off every plane on the way).
const mrBSPNode* leafAt(const mrBSPNode* node, V p)
{
    while (node->m_plane)
    {
        const mrPlane* pl = node->m_plane;
        double d = (double)pl->m_normal.x * p.x + (double)pl->m_normal.y * p.y + (double)pl->m_normal.z * p.z -
                   (double)pl->m_dist;
        node = node->m_children[d > 0 ? 0 : 1];
    }
    return node;
}

struct TreeStats
{
    int splits = 0, solid = 0, empty = 0, markfaces = 0;
};

// Counts a tree's nodes and checks every leaf: no children or faces, and a mark-face list
// that is empty exactly in solid leaves (contents 1; the others 0).
void walk(const mrBSPNode* n, TreeStats& st)
{
    if (n->m_plane)
    {
        ++st.splits;
        ASSERT_TRUE(n->m_children[0] && n->m_children[1]);
        walk(n->m_children[0], st);
        walk(n->m_children[1], st);
        return;
    }
    EXPECT_EQ(n->m_children[0], nullptr);
    EXPECT_EQ(n->m_faces, nullptr);
    ASSERT_NE(n->m_markfaces, nullptr);
    int count = (int)markFaces(n).size();
    st.markfaces += count;
    ++(n->m_contents == 1 ? st.solid : st.empty);
    EXPECT_TRUE(n->m_contents == 1 ? count == 0 : n->m_contents == 0 && count > 0);
}

// Records the surface's m_onNode when a leaf consumes it.
class TrackedSurface : public mrBSPSurface
{
public:
    explicit TrackedSurface(int* onNode) : m_seen(onNode) {}
    ~TrackedSurface() override { *m_seen = m_onNode; }
    int* m_seen;
};

const V kMin(0, 0, 0), kMax(10, 10, 10);
} // namespace

// ---------------------------------------------------------------- faceSide

TEST(FaceSide, ClassifiesByTheHundredthTolerance)
{
    mrSolidBSP bsp;
    mrPlane split(0, 0, 1, 0);
    struct Case
    {
        float d0, d1;
        int points;
        mrPlane::e_side side;
    } cases[] = {{0.02f, 0, 3, mrPlane::SIDE_FRONT},
                 {0.02f, -0.02f, 3, mrPlane::SIDE_ON},
                 {0.005f, -0.005f, 3, mrPlane::SIDE_BACK},
                 {0.02f, -0.02f, 0, mrPlane::SIDE_BACK}}; // no points at all
    for (const Case& c : cases)
    {
        mrBSPFace* f = makeFace(&split, {V(0, 0, c.d0), V(1, 0, c.d1), V(0, 1, 0)});
        f->m_winding->m_numpoints = c.points;
        EXPECT_EQ(bsp.faceSide(f, &split), c.side) << &c - cases;
        delete f;
    }
}

TEST(FaceSide, OppositeFacingCoplanarFaceIsBackAndNotASplit)
{
    mrSolidBSP bsp;
    mrPlane up(0, 1, 0, 3), down(0, -1, 0, -3);
    mrBSPFace* f = makeFace(&down, {V(0, 3, 0), V(0, 3, 1), V(1, 3, 0)});
    EXPECT_EQ(bsp.faceSide(f, &up), mrPlane::SIDE_BACK);
    mrBSPSurface* list =
        chain({makeSurface(&up, {makeFace(&up, {V(0, 3, 0), V(1, 3, 0), V(0, 3, 1)})}), makeSurface(&down, {f})});
    // Both count no split; the later one wins the tie.
    EXPECT_EQ(bsp.choosePlaneFromList(list, V(0, 3, 0), V(1, 3, 1), 0), list->m_next);
    deleteSurfaces(list);
}

// ---------------------------------------------------------------- partition choice

TEST(SelectPartition, NoCandidateASingleOneAndPlanesFacingUpInTheDefaultMode)
{
    mrSolidBSP bsp;
    bsp.m_midSplit = 0;
    mrPlane zUp(0, 0, 1, 5), x(1, 0, 0, 5), up1(0, 0, 1, 2), up2(0, 0, 1, 7), down(0, 0, -1, -2);
    mrBSPSurface* marked = bare(&x);
    marked->m_onNode = 1;
    EXPECT_EQ(bsp.selectPartition(marked), nullptr);
    EXPECT_EQ(bsp.selectPartition(nullptr), nullptr);
    // A lone candidate is taken even facing +z in the default mode.
    mrBSPSurface* list = chain({marked, bare(&zUp)});
    EXPECT_EQ(bsp.selectPartition(list), list->m_next);
    deleteSurfaces(list);

    // Two or more: planes facing exactly +z are skipped.
    list = chain({makeSurface(&up1, {makeFace(&up1, {V(0, 0, 2), V(1, 0, 2), V(0, 1, 2)})}),
                  makeSurface(&up2, {makeFace(&up2, {V(0, 0, 7), V(1, 0, 7), V(0, 1, 7)})})});
    EXPECT_EQ(bsp.selectPartition(list), nullptr);
    mrBSPSurface* d = makeSurface(&down, {makeFace(&down, {V(0, 0, 2), V(0, 1, 2), V(1, 0, 2)})});
    list->m_next->m_next = d;
    EXPECT_EQ(bsp.selectPartition(list), d);
    deleteSurfaces(list);
}

// Candidates that cut nothing: both choosers go by the box score alone.
TEST(ChoosePlane, MoreEvenDivisionWinsTiesGoToTheLaterAndTheDominantAxisCounts)
{
    mrSolidBSP bsp;
    // (0.6, 0.8, 0): axis y, v = 0.8 * 6.25 = 5 -> 450; taken as x it would score 453.
    // (0.7071, 0.7071, 0): axis x. In a box twice as long along y, x = 5 scores 1050 and
    // would score 650 taken along y; the competitor y = 2 scores 728.
    mrPlane x1(1, 0, 0, 1), x5(1, 0, 0, 5), y5(0, 1, 0, 5), skew(0.6f, 0.8f, 0, 6.25f), x49(1, 0, 0, 4.9f),
        diag(0.7071f, 0.7071f, 0, 5.0f / 0.7071f), y2(0, 1, 0, 2);
    struct Case
    {
        mrPlane *first, *second;
        V maxs;
        int winner;
    } cases[] = {
        {&x5, &x1, kMax, 0}, // x = 5 scores 450, x = 1 scores 482
        {&x1, &x5, kMax, 1},
        {&x5, &y5, kMax, 1},
        {&y5, &x5, kMax, 1},
        {&skew, &x49, kMax, 0},
        {&diag, &y2, V(10, 20, 10), 1},
    };
    for (const Case& c : cases)
    {
        mrBSPSurface* list = chain({bare(c.first), bare(c.second)});
        mrBSPSurface* winner = c.winner ? list->m_next : list;
        EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, c.maxs, 0), winner) << &c - cases;
        EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, c.maxs), winner) << &c - cases;
        deleteSurfaces(list);
    }
}

TEST(ChoosePlane, FewerSplitsBeatABetterScoreAndCountingStopsAtTheBest)
{
    mrSolidBSP bsp;
    mrPlane x1(1, 0, 0, 1), x5(1, 0, 0, 5), y5(0, 1, 0, 5), z2(0, 0, 1, 2), z8(0, 0, 1, 8);
    // x = 1 cuts one face and scores 482; y = 5 cuts two and scores 450.
    mrBSPSurface* a = makeSurface(&x1, {makeFace(&x1, {V(1, 7, 1), V(1, 9, 1), V(1, 7, 3)})});
    mrBSPSurface* b = makeSurface(&y5, {makeFace(&y5, {V(6, 5, 6), V(6, 5, 8), V(8, 5, 6)})});
    mrBSPSurface* w = makeSurface(&z2, {makeFace(&z2, {V(0, 7, 2), V(2, 7, 2), V(2, 9, 2)}),
                                        makeFace(&z2, {V(3, 4, 2), V(4, 4, 2), V(4, 6, 2)}),
                                        makeFace(&z2, {V(6, 4, 2), V(7, 4, 2), V(7, 6, 2)})});
    mrBSPSurface* list = chain({b, a, w});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), a);
    deleteSurfaces(list);

    // x = 5 cuts one face (in u). y = 5 cuts three faces, all in t; its count stops at
    // one inside t, ties with x = 5 and, being later with an equal score, is taken.
    a = makeSurface(&x5, {makeFace(&x5, {V(5, 7, 1), V(5, 9, 1), V(5, 7, 3)})});
    b = makeSurface(&y5, {makeFace(&y5, {V(6, 5, 6), V(6, 5, 8), V(8, 5, 6)})});
    mrBSPSurface* t = makeSurface(&z2, {makeFace(&z2, {V(6, 4, 2), V(7, 4, 2), V(7, 6, 2)}),
                                        makeFace(&z2, {V(7, 4, 2), V(8, 4, 2), V(8, 6, 2)}),
                                        makeFace(&z2, {V(8, 4, 2), V(9, 4, 2), V(9, 6, 2)})});
    mrBSPSurface* u = makeSurface(&z8, {makeFace(&z8, {V(4, 7, 8), V(6, 7, 8), V(6, 9, 8)})});
    list = chain({a, b, t, u});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), b);
    deleteSurfaces(list);
}

TEST(ChoosePlane, MissingPlanesAndNormalsWithoutADominantAxisAreReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane x1(1, 0, 0, 1);
    mrBSPSurface* list = chain({bare(&x1), bare(nullptr)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list); // the plane-less one is skipped
    deleteSurfaces(list);
    float nan = std::numeric_limits<float>::quiet_NaN();
    mrPlane bad(nan, nan, nan, 0);
    list = chain({bare(&bad)});
    bsp.choosePlaneFromList(list, kMin, kMax, 0);
    bsp.chooseMidPlaneFromList(list, kMin, kMax);
    deleteSurfaces(list);
    rec.expect({{"plane", "mrSolidBSP", 0, nullptr},
                {"0", "mrSolidBSP", 0, "ChoosePlane: no axis found"},
                {"0", "mrSolidBSP", 0, "ChooseMidPlane: no axis found"}});
}

TEST(MidSplit, HugeBoxGivesTheFirstCandidateAndNoCandidateIsReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane x0(1, 0, 0, 0), xMid(1, 0, 0, 10000);
    mrBSPSurface* marked = bare(&xMid);
    marked->m_onNode = 1;
    mrBSPSurface* first = bare(&x0);
    mrBSPSurface* list = chain({marked, first, bare(&xMid)});
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, V(0, 0, 0), V(20000, 20000, 20000)), first);
    EXPECT_TRUE(rec.reports().empty());
    deleteSurfaces(first->m_next);
    first->m_next = nullptr;
    first->m_onNode = 1;
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, kMax), nullptr);
    EXPECT_EQ(bsp.chooseMidPlaneFromList(nullptr, kMin, kMax), nullptr);
    EXPECT_EQ(rec.count("0", "ChooseMidPlaneFromList: no valid planes"), 2u);
    deleteSurfaces(list);
}

TEST(MidSplit, ListBoundsIncludeMarkedSurfaces)
{
    mrSolidBSP bsp;
    bsp.m_midSplit = 1;
    mrPlane x5(1, 0, 0, 5), x50(1, 0, 0, 50);
    mrBSPSurface* marked = bare(&x50);
    marked->m_onNode = 1;
    marked->m_mins = V(100, 0, 0);
    marked->m_maxs = V(100, 10, 10);
    mrBSPSurface* a = bare(&x5);
    a->m_mins = V(0, 0, 0);
    a->m_maxs = V(10, 10, 10);
    mrBSPSurface* b = bare(&x50);
    b->m_mins = V(50, 0, 0);
    b->m_maxs = V(50, 10, 10);
    mrBSPSurface* list = chain({b, a, marked});
    EXPECT_EQ(bsp.selectPartition(list), b);
    deleteSurfaces(list);
}

// ---------------------------------------------------------------- dividing surfaces

TEST(DividePlane, ParallelSurfacesMoveWholeWithoutVisitingFaces)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane split(1, 0, 0, 5), same(1, 0, 0, 5), ahead(1, 0, 0, 6), behind(1, 0, 0, 4);
    const std::pair<mrPlane*, bool> cases[] = {{&same, true}, {&ahead, true}, {&behind, false}};
    for (const auto& c : cases)
    {
        // A face without a winding would be reported if it were visited.
        mrBSPSurface* s = makeSurface(c.first, {mtest::makeFace(c.first, {})});
        delete s->m_faces->m_winding;
        s->m_faces->m_winding = nullptr;
        mrBSPSurface *front, *back;
        bsp.dividePlane(s, &split, &front, &back);
        EXPECT_EQ(front, c.second ? s : nullptr);
        EXPECT_EQ(back, c.second ? nullptr : s);
        EXPECT_EQ(s->m_onNode, c.first == &same ? 1 : 0); // only the surface on the plane is marked
        deleteSurfaces(s);
    }
    EXPECT_TRUE(rec.reports().empty());
}

TEST(DividePlane, OppositeFacingSurfaceOnThePlaneGoesBackUnmarked)
{
    mrSolidBSP bsp;
    mrPlane split(1, 0, 0, 5), flipped(-1, 0, 0, -5);
    mrBSPSurface* s = makeSurface(&flipped, {makeFace(&flipped, {V(5, 0, 0), V(5, 0, 1), V(5, 1, 0)})});
    mrBSPSurface *front, *back;
    bsp.dividePlane(s, &split, &front, &back);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, s);
    EXPECT_EQ(s->m_onNode, 0);
    deleteSurfaces(s);
}

TEST(DividePlane, SpanningFaceSplitsTheSurfaceAndRecomputesBounds)
{
    mrSolidBSP bsp;
    mrPlane facePlane(0, 0, 1, 0), split(1, 0, 0, 1);
    mrBSPFace* sq = makeFace(&facePlane, {V(0, 0, 0), V(4, 0, 0), V(4, 4, 0), V(0, 4, 0)});
    mrBSPFace* side = makeFace(&facePlane, {V(2, 5, 0), V(3, 5, 0), V(3, 6, 0)});
    mrBSPSurface* s = makeSurface(&facePlane, {sq, side});
    s->m_reserved = 77;
    mrBSPSurface *front, *back;
    bsp.dividePlane(s, &split, &front, &back);
    ASSERT_EQ(front, s);
    ASSERT_TRUE(back && back != s);
    EXPECT_EQ(back->m_plane, &facePlane);
    EXPECT_EQ(back->m_reserved, 77);
    // Front list: side face (pushed last) first, then the square's front piece.
    ASSERT_TRUE(front->m_faces && front->m_faces->m_next && back->m_faces);
    EXPECT_EQ(front->m_faces, side);
    EXPECT_EQ(front->m_faces->m_next->m_original, sq);
    EXPECT_EQ(front->m_faces->m_next->m_next, nullptr);
    EXPECT_EQ(back->m_faces->m_original, sq);
    EXPECT_EQ(back->m_faces->m_next, nullptr);
    EXPECT_EQ(front->m_mins, V(1, 0, 0));
    EXPECT_EQ(front->m_maxs, V(4, 6, 0));
    EXPECT_EQ(back->m_mins, V(0, 0, 0));
    EXPECT_EQ(back->m_maxs, V(1, 4, 0));
    // The square is its own original and lives on.
    EXPECT_EQ(sq->m_winding->m_numpoints, 4);
    delete sq;
    back->m_next = nullptr;
    front->m_next = back;
    deleteSurfaces(front);
}

TEST(DividePlane, SurfaceWithoutPlaneIsReportedAndKeptWhole)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane split(1, 0, 0, 1);
    mrBSPSurface* s = bare(nullptr);
    mrBSPSurface *front = s, *back = nullptr;
    bsp.dividePlane(s, &split, &front, &back);
    EXPECT_EQ(rec.count("inplane"), 1u);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, s);
    deleteSurfaces(s);
}

// ---------------------------------------------------------------- leaves

TEST(LinkConvexFaces, FragmentsOfOneOriginalAreListedTwiceLinkedOnce)
{
    mrSolidBSP bsp;
    mrPlane p(0, 0, 1, 0);
    mrBSPFace* original = makeFace(&p, {V(0, 0, 0), V(2, 0, 0), V(0, 2, 0)});
    mrBSPFace* f1 = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace* f2 = makeFace(&p, {V(1, 0, 0), V(2, 0, 0), V(1, 1, 0)});
    f1->m_original = original;
    f2->m_original = original;
    mrBSPFace* own = makeFace(&p, {V(5, 5, 0), V(6, 5, 0), V(5, 6, 0)});
    mrBSPSurface* list = chain({makeSurface(&p, {f1, f2}), makeSurface(&p, {own})});
    mrBSPNode* leaf = new mrBSPNode;
    bsp.linkConvexFaces(list, leaf);
    EXPECT_EQ(leaf->m_contents, 0);
    EXPECT_EQ(leaf->m_plane, nullptr);
    EXPECT_EQ(markFaces(leaf), (std::vector<const mrBSPFace*>{original, original, own}));
    EXPECT_EQ(counts(bsp), (Counts{0, 0, 1, 3, 2, 0}));
    EXPECT_EQ(original->m_linked, 1);
    EXPECT_EQ(own->m_linked, 1);
    mrBSPTree::release(leaf);
}

TEST(LinkConvexFaces, ContentsAndMissingOriginalsAreReported)
{
    mrPlane p(0, 0, 1, 0);
    struct Case
    {
        int contents[2];
        bool orphan;
        int leafContents;
        const char* expression;
        const char* message;
    } cases[] = {
        {{1, 1}, false, 1, "!leafnode->m_contents", nullptr}, // the leaf keeps the first contents
        {{0, 2}, false, 0, "0", "Mixed face contents in leafnode"},
        {{0, 0}, true, 0, "f->m_original", nullptr}, // the face is left out of the mark faces
    };
    for (const Case& c : cases)
    {
        mtest::AssertRecorder rec;
        mrSolidBSP bsp;
        mrBSPFace* a = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
        mrBSPFace* b = makeFace(&p, {V(2, 0, 0), V(3, 0, 0), V(2, 1, 0)});
        a->m_contents = c.contents[0];
        b->m_contents = c.contents[1];
        if (c.orphan)
            a->m_original = nullptr;
        mrBSPNode* leaf = new mrBSPNode;
        bsp.linkConvexFaces(makeSurface(&p, {a, b}), leaf);
        rec.expect({{c.expression, "mrSolidBSP", 0, c.message}});
        EXPECT_EQ(leaf->m_contents, c.leafContents);
        EXPECT_EQ(bsp.m_numEmptyLeafs, 1);
        EXPECT_EQ(bsp.m_numLeafFaces, 2);
        EXPECT_EQ(markFaces(leaf), (c.orphan ? std::vector<const mrBSPFace*>{b} : std::vector<const mrBSPFace*>{a, b}));
        mrBSPTree::release(leaf);
    }
}

TEST(LinkNodeFaces, CopiesInReverseAndBecomesTheOriginals)
{
    mrSolidBSP bsp;
    mrPlane p(0, 0, 1, 0);
    mrBSPFace* f1 = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace* f2 = makeFace(&p, {V(2, 0, 0), V(3, 0, 0), V(2, 1, 0)});
    mrBSPSurface* s = makeSurface(&p, {f1, f2});
    mrBSPFace* copies = bsp.linkNodeFaces(s);
    EXPECT_EQ(bsp.m_numNodeFaces, 2);
    ASSERT_NE(copies, nullptr);
    ASSERT_NE(copies->m_next, nullptr);
    EXPECT_EQ(copies->m_next->m_next, nullptr);
    EXPECT_EQ(f2->m_original, copies);
    EXPECT_EQ(f1->m_original, copies->m_next);
    EXPECT_EQ(copies->m_original, f2);
    EXPECT_NE(copies->m_winding, f2->m_winding);
    EXPECT_EQ(copies->m_winding->m_points[0], V(2, 0, 0));
    EXPECT_EQ(s->m_faces, f1);
    EXPECT_EQ(f1->m_next, f2);
    delete copies->m_next;
    delete copies;
    deleteSurfaces(s);
}

// ---------------------------------------------------------------- generation

TEST(Generate, EmptyListGivesOneSolidLeaf)
{
    mrSolidBSP bsp;
    bsp.m_numSplitNodes = 5;
    mrBSPNode* head = bsp.generate(nullptr, 0);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->m_plane, nullptr);
    EXPECT_EQ(head->m_contents, 1);
    ASSERT_NE(head->m_markfaces, nullptr);
    EXPECT_EQ(head->m_markfaces[0], nullptr);
    EXPECT_EQ(counts(bsp), (Counts{0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(bsp.m_midSplit, 0);
    EXPECT_EQ(bsp.m_reserved1, 1);
    mrBSPTree::release(head);
}

TEST(Generate, SingleSurfaceSplitsIntoAnEmptyFrontAndASolidBack)
{
    mrSolidBSP bsp;
    mrPlane p(1, 0, 0, 2);
    mrBSPFace* a = makeFace(&p, {V(2, 0, 0), V(2, 1, 0), V(2, 0, 1)});
    mrBSPFace* b = makeFace(&p, {V(2, 1, 1), V(2, 0, 1), V(2, 1, 0)});
    int onNode = -1;
    TrackedSurface* s = new TrackedSurface(&onNode);
    s->m_plane = &p;
    s->m_faces = a;
    a->m_next = b;
    s->calcBounds();
    mrBSPNode* head = bsp.generate(s, 1);
    EXPECT_EQ(onNode, 1);
    EXPECT_EQ(head->m_plane, &p);
    EXPECT_EQ(head->m_children[0]->m_contents, 0);
    EXPECT_EQ(markFaces(head->m_children[0]), (std::vector<const mrBSPFace*>{a, b}));
    EXPECT_EQ(head->m_children[1]->m_contents, 1);
    EXPECT_TRUE(markFaces(head->m_children[1]).empty());
    EXPECT_EQ(counts(bsp), (Counts{1, 1, 1, 2, 2, 0}));
    EXPECT_EQ(bsp.m_midSplit, 1);
    mrBSPTree::release(head);
}

TEST(Generate, ChildListsComeOutReversed)
{
    mrSolidBSP bsp;
    mrPlane p0(1, 0, 0, 0), p5(1, 0, 0, 5), p7(1, 0, 0, 7);
    mrBSPFace* f0 = makeFace(&p0, {V(0, 0, 0), V(0, 1, 0), V(0, 0, 1)});
    mrBSPFace* f5 = makeFace(&p5, {V(5, 0, 0), V(5, 1, 0), V(5, 0, 1)});
    mrBSPFace* f7 = makeFace(&p7, {V(7, 0, 0), V(7, 1, 0), V(7, 0, 1)});
    mrBSPSurface* s5 = makeSurface(&p5, {f5});
    mrBSPSurface* s7 = makeSurface(&p7, {f7});
    s5->m_onNode = 1;
    s7->m_onNode = 1;
    mrBSPNode* head = bsp.generate(chain({makeSurface(&p0, {f0}), s5, s7}), 0);
    ASSERT_EQ(head->m_children[0]->m_plane, nullptr);
    EXPECT_EQ(markFaces(head->m_children[0]), (std::vector<const mrBSPFace*>{f7, f5, f0}));
    mrBSPTree::release(head);
}

TEST(Generate, FragmentWithoutFacesAndSplitterWithoutPlaneAreReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane px(1, 0, 0, 0), py(0, 1, 0, 0);
    mrBSPSurface* empty = bare(&py);
    empty->m_onNode = 1;
    mrBSPNode* head =
        bsp.generate(chain({makeSurface(&px, {makeFace(&px, {V(0, 0, 0), V(0, 1, 0), V(0, 0, 1)})}), empty}), 0);
    rec.expect({{"0", "mrSolidBSP", 0, "surface with no faces"}}); // linked all the same
    EXPECT_EQ(head->m_children[1]->m_contents, 1);
    EXPECT_EQ(bsp.m_numSplitNodes, 1);
    mrBSPTree::release(head);

    // A splitter without a plane ends the node.
    rec.clear();
    head = bsp.generate(bare(nullptr), 0);
    EXPECT_EQ(rec.count("inplane"), 1u);
    EXPECT_EQ(head->m_plane, nullptr);
    EXPECT_EQ(head->m_contents, 1);
    mrBSPTree::release(head);
}

namespace
{
// Builds, bounds and generates a tree for mesh; returns the head.
mrBSPNode* buildTree(srMeshModel& mesh, mrBSPSurfaceBuilder& builder, mrSolidBSP& bsp, int midSplit)
{
    mtest::LogCapture log;
    mrBSPSurface* list = builder.buildSurfaces(&mesh);
    for (mrBSPSurface* s = list; s; s = s->m_next)
        s->calcBounds();
    return bsp.generate(list, midSplit);
}
} // namespace

TEST(Generate, ClosedCubeIsSolidInsideFacingOutAndEmptyInsideFacingIn)
{
    for (int outward = 0; outward < 2; ++outward)
        for (int mid = 0; mid < 2; ++mid)
        {
            SCOPED_TRACE(2 * outward + mid);
            srMeshModel mesh;
            mtest::addBox(mesh, V(0, 0, 0), V(10, 10, 10), outward);
            mrBSPSurfaceBuilder builder;
            mrSolidBSP bsp;
            mrBSPNode* head = buildTree(mesh, builder, bsp, mid);
            EXPECT_EQ(leafAt(head, V(5, 5, 5))->m_contents, outward);
            for (V outside : {V(-5, 5, 5), V(15, 5, 5), V(5, -5, 5), V(5, 15, 5), V(5, 5, -5), V(5, 5, 15)})
                EXPECT_EQ(leafAt(head, outside)->m_contents, 1 - outward);
            if (outward)
            {
                EXPECT_EQ(counts(bsp), (Counts{6, 1, 6, 12, 12, 0}));
            }
            mrBSPTree::release(head);
            builder.releasePlanes();
        }
}

TEST(Generate, CountersAgreeWithTheTreeOnAHollowLevel)
{
    for (int mid = 0; mid < 2; ++mid)
    {
        srMeshModel mesh;
        mtest::addTwoRoomLevel(mesh);
        mrBSPSurfaceBuilder builder;
        mrSolidBSP bsp;
        mrBSPNode* head = buildTree(mesh, builder, bsp, mid);
        TreeStats st;
        walk(head, st);
        EXPECT_EQ(counts(bsp), (Counts{st.splits, st.solid, st.empty, st.markfaces, (int)mesh.m_numpolys, 0}));
        EXPECT_EQ(st.solid + st.empty, st.splits + 1);
        EXPECT_GE(bsp.m_numLeafFaces, bsp.m_numLinkedFaces);
        EXPECT_GT(st.solid, 0);
        for (V open : {V(32, 32, 32), V(160, 32, 32), V(96, 32, 16)})
            EXPECT_EQ(leafAt(head, open)->m_contents, 0);
        mrBSPTree::release(head);
        builder.releasePlanes();
    }
}

// ---------------------------------------------------------------- releasing trees

TEST(BSPTreeRelease, SharedFacesAreFreedOnce)
{
    mrPlane p(0, 0, 1, 0);
    mrBSPFace* o = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace* n = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPNode* head = new mrBSPNode;
    head->m_plane = &p;
    head->m_faces = n;
    for (int c = 0; c < 2; ++c)
    {
        mrBSPNode* leaf = new mrBSPNode;
        leaf->m_markfaces = (mrBSPFace**)std::malloc(sizeof(mrBSPFace*) * 3);
        leaf->m_markfaces[0] = o;
        leaf->m_markfaces[1] = c ? n : o;
        leaf->m_markfaces[2] = nullptr;
        head->m_children[c] = leaf;
    }
    mrBSPTree::release(head);
    mrBSPTree::release(nullptr);
}

TEST(BSPTreeRelease, VeryDeepTreeIsReleasedWithoutRecursion)
{
    mrPlane p(0, 0, 1, 0);
    mrBSPNode* head = new mrBSPNode;
    mrBSPNode* node = head;
    for (int i = 0; i < 200000; ++i)
    {
        node->m_plane = &p;
        node->m_children[0] = new mrBSPNode;
        node->m_children[1] = new mrBSPNode;
        node->m_children[1]->m_markfaces = (mrBSPFace**)std::calloc(1, sizeof(mrBSPFace*));
        node = node->m_children[0];
    }
    node->m_markfaces = (mrBSPFace**)std::calloc(1, sizeof(mrBSPFace*));
    mrBSPTree::release(head);
}
