// The solid BSP: face sides, partition choice, dividing surfaces, filling leaves, whole
// trees and their release.
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <sstream>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/solid/mrBSPNode.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<const mrBSPFace*> Faces;
using mtest::makeFace;

// Links the items through m_next in the given order; returns the first.
template <class T> T* chain(std::initializer_list<T*> items)
{
    T* head = nullptr;
    T** tail = &head;
    for (T* item : items)
    {
        *tail = item;
        tail = &item->m_next;
    }
    *tail = nullptr;
    return head;
}

// A surface on plane with the given faces (in list order) and its bounds computed.
mrBSPSurface* makeSurface(mrPlane* plane, std::initializer_list<mrBSPFace*> faces, mrBSPSurface* s = new mrBSPSurface)
{
    s->m_plane = plane;
    if ((s->m_faces = chain(faces)))
        s->calcBounds();
    return s;
}

// A face-less candidate with a given plane, for the choosers (they read only planes,
// bounds, faces of other surfaces and m_onNode).
mrBSPSurface* bare(mrPlane* plane, int onNode = 0, V mins = V(), V maxs = V())
{
    mrBSPSurface* s = makeSurface(plane, {});
    std::tie(s->m_onNode, s->m_mins, s->m_maxs) = std::make_tuple(onNode, mins, maxs);
    return s;
}

void releaseSurfaces(mrBSPSurface* list) { mrBSPTree::releaseSurfaces(list); }

// A leaf's mark faces, up to the null entry.
Faces markFaces(const mrBSPNode* leaf)
{
    Faces out;
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
    EXPECT_EQ(std::make_tuple(n->m_children[0], n->m_faces), std::make_tuple(nullptr, nullptr));
    ASSERT_NE(n->m_markfaces, nullptr);
    int count = (int)markFaces(n).size();
    st.markfaces += count;
    ++(n->m_contents == 1 ? st.solid : st.empty);
    EXPECT_TRUE(n->m_contents == 1 ? count == 0 : n->m_contents == 0 && count > 0);
}

// Records the surface's m_onNode when a leaf consumes it.
struct TrackedSurface : mrBSPSurface
{
    explicit TrackedSurface(int* onNode) : m_seen(onNode) {}
    ~TrackedSurface() override { *m_seen = m_onNode; }
    int* m_seen;
};

const V kMin(0, 0, 0), kMax(10, 10, 10);
} // namespace

// ---------------------------------------------------------------- faceSide

TEST(FaceSide, ClassifiesByTheHundredthToleranceAndAnOppositeFacingCoplanarFaceIsBackAndNoSplit)
{
    mrSolidBSP bsp;
    mrPlane split(0, 0, 1, 0);
    const std::tuple<float, float, int, mrPlane::e_side> cases[] = {
        {0.02f, 0, 3, mrPlane::SIDE_FRONT},
        {0.02f, -0.02f, 3, mrPlane::SIDE_ON},
        {0.005f, -0.005f, 3, mrPlane::SIDE_BACK},
        {0.02f, -0.02f, 0, mrPlane::SIDE_BACK}, // no points at all
    };
    for (auto [d0, d1, points, side] : cases)
    {
        mrBSPFace* f = makeFace(&split, {V(0, 0, d0), V(1, 0, d1), V(0, 1, 0)});
        f->m_winding->m_numpoints = points;
        EXPECT_EQ(bsp.faceSide(f, &split), side) << d0 << " " << d1 << " " << points;
        delete f;
    }

    mrPlane up(0, 1, 0, 3), down(0, -1, 0, -3);
    mrBSPFace* f = makeFace(&down, {V(0, 3, 0), V(0, 3, 1), V(1, 3, 0)});
    EXPECT_EQ(bsp.faceSide(f, &up), mrPlane::SIDE_BACK);
    mrBSPSurface* list =
        chain({makeSurface(&up, {makeFace(&up, {V(0, 3, 0), V(1, 3, 0), V(0, 3, 1)})}), makeSurface(&down, {f})});
    // Both count no split; the later one wins the tie.
    EXPECT_EQ(bsp.choosePlaneFromList(list, V(0, 3, 0), V(1, 3, 1), 0), list->m_next);
    releaseSurfaces(list);
}

// ---------------------------------------------------------------- partition choice

TEST(SelectPartition, NoCandidateASingleOneAndPlanesFacingUpInTheDefaultMode)
{
    mrSolidBSP bsp;
    bsp.m_midSplit = 0;
    mrPlane zUp(0, 0, 1, 5), x(1, 0, 0, 5), up1(0, 0, 1, 2), up2(0, 0, 1, 7), down(0, 0, -1, -2);
    mrBSPSurface* marked = bare(&x, 1);
    EXPECT_EQ(bsp.selectPartition(marked), nullptr);
    EXPECT_EQ(bsp.selectPartition(nullptr), nullptr);
    // A lone candidate is taken even facing +z in the default mode.
    mrBSPSurface* list = chain({marked, bare(&zUp)});
    EXPECT_EQ(bsp.selectPartition(list), list->m_next);
    releaseSurfaces(list);

    // Two or more: planes facing exactly +z are skipped.
    list = chain({makeSurface(&up1, {makeFace(&up1, {V(0, 0, 2), V(1, 0, 2), V(0, 1, 2)})}),
                  makeSurface(&up2, {makeFace(&up2, {V(0, 0, 7), V(1, 0, 7), V(0, 1, 7)})})});
    EXPECT_EQ(bsp.selectPartition(list), nullptr);
    mrBSPSurface* d = makeSurface(&down, {makeFace(&down, {V(0, 0, 2), V(0, 1, 2), V(1, 0, 2)})});
    list->m_next->m_next = d;
    EXPECT_EQ(bsp.selectPartition(list), d);
    releaseSurfaces(list);
}

// Candidates that cut nothing: both choosers go by the box score alone.
TEST(ChoosePlane, MoreEvenDivisionWinsTiesGoToTheLaterAndTheDominantAxisCounts)
{
    mrSolidBSP bsp;
    // In the unit box x = 5 scores 450, x = 1 482.
    // (0.6, 0.8, 0): axis y, v = 0.8 * 6.25 = 5 -> 450; taken as x it would score 453.
    // (0.7071, 0.7071, 0): axis x. In a box twice as long along y, x = 5 scores 1050 and
    // would score 650 taken along y; the competitor y = 2 scores 728.
    mrPlane x1(1, 0, 0, 1), x5(1, 0, 0, 5), y5(0, 1, 0, 5), skew(0.6f, 0.8f, 0, 6.25f), x49(1, 0, 0, 4.9f),
        diag(0.7071f, 0.7071f, 0, 5.0f / 0.7071f), y2(0, 1, 0, 2);
    const std::tuple<mrPlane*, mrPlane*, V, int> cases[] = {
        {&x5, &x1, kMax, 0}, {&x1, &x5, kMax, 1},    {&x5, &y5, kMax, 1},
        {&y5, &x5, kMax, 1}, {&skew, &x49, kMax, 0}, {&diag, &y2, V(10, 20, 10), 1},
    };
    int row = 0;
    for (auto [first, second, maxs, later] : cases)
    {
        mrBSPSurface* list = chain({bare(first), bare(second)});
        mrBSPSurface* winner = later ? list->m_next : list;
        EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, maxs, 0), winner) << row;
        EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, maxs), winner) << row++;
        releaseSurfaces(list);
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
    releaseSurfaces(list);

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
    releaseSurfaces(list);
}

TEST(ChoosePlane, HugeBoxGivesTheFirstMidSplitCandidateAndMissingPlanesAxesAndCandidatesAreReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane x0(1, 0, 0, 0), xMid(1, 0, 0, 10000), x1(1, 0, 0, 1);
    mrBSPSurface* first = bare(&x0);
    mrBSPSurface* list = chain({bare(&xMid, 1), first, bare(&xMid)});
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, V(0, 0, 0), V(20000, 20000, 20000)), first); // reports nothing
    releaseSurfaces(first->m_next);
    first->m_next = nullptr;
    first->m_onNode = 1;
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, kMax), nullptr);
    EXPECT_EQ(bsp.chooseMidPlaneFromList(nullptr, kMin, kMax), nullptr);
    releaseSurfaces(list);

    list = chain({bare(&x1), bare(nullptr)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list); // the plane-less one is skipped
    releaseSurfaces(list);
    float nan = std::numeric_limits<float>::quiet_NaN();
    mrPlane bad(nan, nan, nan, 0);
    list = bare(&bad);
    bsp.choosePlaneFromList(list, kMin, kMax, 0);
    bsp.chooseMidPlaneFromList(list, kMin, kMax);
    releaseSurfaces(list);
    rec.expect({{"0", "mrSolidBSP", 0, "ChooseMidPlaneFromList: no valid planes"},
                {"0", "mrSolidBSP", 0, "ChooseMidPlaneFromList: no valid planes"},
                {"plane", "mrSolidBSP", 0, nullptr},
                {"0", "mrSolidBSP", 0, "ChoosePlane: no axis found"},
                {"0", "mrSolidBSP", 0, "ChooseMidPlane: no axis found"}});
}

TEST(MidSplit, ListBoundsIncludeMarkedSurfaces)
{
    mrSolidBSP bsp;
    bsp.m_midSplit = 1;
    mrPlane x5(1, 0, 0, 5), x50(1, 0, 0, 50);
    mrBSPSurface* b = bare(&x50, 0, V(50, 0, 0), V(50, 10, 10));
    mrBSPSurface* list =
        chain({b, bare(&x5, 0, V(0, 0, 0), V(10, 10, 10)), bare(&x50, 1, V(100, 0, 0), V(100, 10, 10))});
    EXPECT_EQ(bsp.selectPartition(list), b);
    releaseSurfaces(list);
}

// ---------------------------------------------------------------- dividing surfaces

TEST(DividePlane, ParallelPlaneLessAndOppositeFacingSurfacesMoveWhole)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane split(1, 0, 0, 5), same(1, 0, 0, 5), ahead(1, 0, 0, 6), behind(1, 0, 0, 4), flipped(-1, 0, 0, -5);
    // Parallel surfaces go without their faces being visited: a face without a winding
    // would be reported. Only the surface on the plane is marked.
    const std::tuple<mrPlane*, bool, int> cases[] = {
        {&same, true, 1}, {&ahead, true, 0}, {&behind, false, 0}, {&flipped, false, 0}, {nullptr, false, 0}};
    for (auto [plane, toFront, onNode] : cases)
    {
        mrBSPSurface* s = plane == &flipped
                              ? makeSurface(plane, {makeFace(plane, {V(5, 0, 0), V(5, 0, 1), V(5, 1, 0)})})
                              : bare(plane);
        if (plane && plane != &flipped)
        {
            s->m_faces = new mrBSPFace;
            delete s->m_faces->m_winding;
            s->m_faces->m_winding = nullptr;
        }
        mrBSPSurface *front = s, *back = s;
        bsp.dividePlane(s, &split, &front, &back);
        EXPECT_EQ(front, toFront ? s : nullptr);
        EXPECT_EQ(back, toFront ? nullptr : s);
        EXPECT_EQ(s->m_onNode, onNode);
        releaseSurfaces(s);
    }
    rec.expect({{"inplane", "mrSolidBSP", 0, nullptr}}); // only the surface without a plane
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
    EXPECT_EQ(std::make_tuple(back->m_plane, back->m_reserved), std::make_tuple(&facePlane, 77));
    // Front list: side face (pushed last) first, then the square's front piece.
    ASSERT_TRUE(front->m_faces && front->m_faces->m_next && back->m_faces);
    EXPECT_EQ(std::make_tuple(front->m_faces, front->m_faces->m_next->m_original, front->m_faces->m_next->m_next),
              std::make_tuple(side, sq, nullptr));
    EXPECT_EQ(std::make_tuple(back->m_faces->m_original, back->m_faces->m_next), std::make_tuple(sq, nullptr));
    EXPECT_EQ(std::make_tuple(front->m_mins, front->m_maxs), std::make_tuple(V(1, 0, 0), V(4, 6, 0)));
    EXPECT_EQ(std::make_tuple(back->m_mins, back->m_maxs), std::make_tuple(V(0, 0, 0), V(1, 4, 0)));
    // The square is its own original and lives on.
    EXPECT_EQ(sq->m_winding->m_numpoints, 4);
    delete sq;
    back->m_next = nullptr;
    front->m_next = back;
    releaseSurfaces(front);
}

// ---------------------------------------------------------------- leaves

TEST(LinkConvexFaces, FragmentsOfOneOriginalAreListedTwiceLinkedOnce)
{
    mrSolidBSP bsp;
    mrPlane p(0, 0, 1, 0);
    mrBSPFace* original = makeFace(&p, {V(0, 0, 0), V(2, 0, 0), V(0, 2, 0)});
    mrBSPFace* f1 = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace* f2 = makeFace(&p, {V(1, 0, 0), V(2, 0, 0), V(1, 1, 0)});
    f1->m_original = f2->m_original = original;
    mrBSPFace* own = makeFace(&p, {V(5, 5, 0), V(6, 5, 0), V(5, 6, 0)});
    mrBSPNode* leaf = new mrBSPNode;
    bsp.linkConvexFaces(chain({makeSurface(&p, {f1, f2}), makeSurface(&p, {own})}), leaf);
    EXPECT_EQ(std::make_tuple(leaf->m_contents, leaf->m_plane), std::make_tuple(0, nullptr));
    EXPECT_EQ(markFaces(leaf), (Faces{original, original, own}));
    EXPECT_EQ(counts(bsp), (Counts{0, 0, 1, 3, 2, 0}));
    EXPECT_EQ(std::make_tuple(original->m_linked, own->m_linked), std::make_tuple(1, 1));
    mrBSPTree::release(leaf);
}

TEST(LinkConvexFaces, ContentsAndMissingOriginalsAreReported)
{
    mrPlane p(0, 0, 1, 0);
    // The leaf keeps the first contents; a face without an original is left out.
    const std::tuple<int, int, bool, int, const char*, const char*> cases[] = {
        {1, 1, false, 1, "!leafnode->m_contents", nullptr},
        {0, 2, false, 0, "0", "Mixed face contents in leafnode"},
        {0, 0, true, 0, "f->m_original", nullptr},
    };
    for (auto [contentsA, contentsB, orphan, leafContents, expression, message] : cases)
    {
        mtest::AssertRecorder rec;
        mrSolidBSP bsp;
        mrBSPFace* a = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
        mrBSPFace* b = makeFace(&p, {V(2, 0, 0), V(3, 0, 0), V(2, 1, 0)});
        a->m_contents = contentsA;
        b->m_contents = contentsB;
        if (orphan)
            a->m_original = nullptr;
        mrBSPNode* leaf = new mrBSPNode;
        bsp.linkConvexFaces(makeSurface(&p, {a, b}), leaf);
        rec.expect({{expression, "mrSolidBSP", 0, message}});
        EXPECT_EQ(leaf->m_contents, leafContents);
        EXPECT_EQ(std::make_tuple(bsp.m_numEmptyLeafs, bsp.m_numLeafFaces), std::make_tuple(1, 2));
        EXPECT_EQ(markFaces(leaf), (orphan ? Faces{b} : Faces{a, b}));
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
    ASSERT_TRUE(copies && copies->m_next && bsp.m_numNodeFaces == 2);
    EXPECT_EQ(std::make_tuple(copies->m_next->m_next, copies->m_original), std::make_tuple(nullptr, f2));
    EXPECT_EQ(std::make_tuple(f2->m_original, f1->m_original), std::make_tuple(copies, copies->m_next));
    EXPECT_NE(copies->m_winding, f2->m_winding);
    EXPECT_EQ(copies->m_winding->m_points[0], V(2, 0, 0));
    EXPECT_EQ(std::make_tuple(s->m_faces, f1->m_next), std::make_tuple(f1, f2));
    delete copies->m_next;
    delete copies;
    releaseSurfaces(s);
}

// ---------------------------------------------------------------- generation

TEST(Generate, EmptyListGivesOneSolidLeaf)
{
    mrSolidBSP bsp;
    bsp.m_numSplitNodes = 5;
    mrBSPNode* head = bsp.generate(nullptr, 0);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(std::make_tuple(head->m_plane, head->m_contents), std::make_tuple(nullptr, 1));
    ASSERT_NE(head->m_markfaces, nullptr);
    EXPECT_EQ(head->m_markfaces[0], nullptr);
    EXPECT_EQ(counts(bsp), (Counts{0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(std::make_tuple(bsp.m_midSplit, bsp.m_reserved1), std::make_tuple(0, 1));
    mrBSPTree::release(head);
}

TEST(Generate, SingleSurfaceSplitsIntoAnEmptyFrontAndASolidBack)
{
    mrSolidBSP bsp;
    mrPlane p(1, 0, 0, 2);
    mrBSPFace* a = makeFace(&p, {V(2, 0, 0), V(2, 1, 0), V(2, 0, 1)});
    mrBSPFace* b = makeFace(&p, {V(2, 1, 1), V(2, 0, 1), V(2, 1, 0)});
    int onNode = -1;
    mrBSPNode* head = bsp.generate(makeSurface(&p, {a, b}, new TrackedSurface(&onNode)), 1);
    EXPECT_EQ(std::make_tuple(onNode, bsp.m_midSplit, head->m_plane, head->m_children[0]->m_contents,
                              head->m_children[1]->m_contents),
              std::make_tuple(1, 1, &p, 0, 1));
    EXPECT_EQ(std::make_pair(markFaces(head->m_children[0]), markFaces(head->m_children[1])),
              std::make_pair(Faces{a, b}, Faces{}));
    EXPECT_EQ(counts(bsp), (Counts{1, 1, 1, 2, 2, 0}));
    mrBSPTree::release(head);
}

TEST(Generate, ChildListsComeOutReversed)
{
    mrSolidBSP bsp;
    mrPlane p0(1, 0, 0, 0), p5(1, 0, 0, 5), p7(1, 0, 0, 7);
    mrBSPFace* f0 = makeFace(&p0, {V(0, 0, 0), V(0, 1, 0), V(0, 0, 1)});
    mrBSPFace* f5 = makeFace(&p5, {V(5, 0, 0), V(5, 1, 0), V(5, 0, 1)});
    mrBSPFace* f7 = makeFace(&p7, {V(7, 0, 0), V(7, 1, 0), V(7, 0, 1)});
    mrBSPSurface *s5 = makeSurface(&p5, {f5}), *s7 = makeSurface(&p7, {f7});
    s5->m_onNode = s7->m_onNode = 1;
    mrBSPNode* head = bsp.generate(chain({makeSurface(&p0, {f0}), s5, s7}), 0);
    ASSERT_EQ(head->m_children[0]->m_plane, nullptr);
    EXPECT_EQ(markFaces(head->m_children[0]), (Faces{f7, f5, f0}));
    mrBSPTree::release(head);
}

TEST(Generate, FragmentWithoutFacesAndSplitterWithoutPlaneAreReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane px(1, 0, 0, 0), py(0, 1, 0, 0);
    mrBSPNode* head =
        bsp.generate(chain({makeSurface(&px, {makeFace(&px, {V(0, 0, 0), V(0, 1, 0), V(0, 0, 1)})}), bare(&py, 1)}), 0);
    rec.expect({{"0", "mrSolidBSP", 0, "surface with no faces"}}); // linked all the same
    EXPECT_EQ(std::make_pair(head->m_children[1]->m_contents, bsp.m_numSplitNodes), std::make_pair(1, 1));
    mrBSPTree::release(head);

    // A splitter without a plane ends the node.
    rec.clear();
    head = bsp.generate(bare(nullptr), 0);
    EXPECT_EQ(rec.count("inplane"), 1u);
    EXPECT_EQ(std::make_tuple(head->m_plane, head->m_contents), std::make_tuple(nullptr, 1));
    mrBSPTree::release(head);
}

// Closed cubes facing out (solid inside) or in (empty inside), and a hollow level, in both
// partition modes: the counters agree with the tree.
TEST(Generate, CubesAreSolidOrEmptyInsideAndCountersAgreeWithTheTree)
{
    for (int kind = 0; kind < 3; ++kind)
        for (int mid = 0; mid < 2; ++mid)
        {
            SCOPED_TRACE(2 * kind + mid);
            srMeshModel mesh;
            if (kind < 2)
                mtest::addBox(mesh, V(0, 0, 0), V(10, 10, 10), kind == 1);
            else
                mtest::addTwoRoomLevel(mesh);
            mtest::LogCapture log;
            mtest::VisRun run(mesh, mid);
            const mrSolidBSP& bsp = run.bsp;
            const mrBSPNode* head = run.head;
            TreeStats st;
            walk(head, st);
            EXPECT_EQ(counts(bsp), (Counts{st.splits, st.solid, st.empty, st.markfaces, (int)mesh.m_numpolys, 0}));
            EXPECT_EQ(st.solid + st.empty, st.splits + 1);
            EXPECT_GE(bsp.m_numLeafFaces, bsp.m_numLinkedFaces);
            if (kind == 1)
            {
                EXPECT_EQ(counts(bsp), (Counts{6, 1, 6, 12, 12, 0}));
            }
            if (kind < 2)
            {
                EXPECT_EQ(leafAt(head, V(5, 5, 5))->m_contents, kind);
                for (V outside : {V(-5, 5, 5), V(15, 5, 5), V(5, -5, 5), V(5, 15, 5), V(5, 5, -5), V(5, 5, 15)})
                    EXPECT_EQ(leafAt(head, outside)->m_contents, 1 - kind);
            }
            else
            {
                EXPECT_GT(st.solid, 0);
                for (V open : {V(32, 32, 32), V(160, 32, 32), V(96, 32, 16)})
                    EXPECT_EQ(leafAt(head, open)->m_contents, 0);
            }
        }
}

// Leaves whose faces carry contents are reported. A parallel build (every node taking
// every parallel step) makes the same reports, in one thread's order, and the same
// counters.
TEST(Generate, ReportsAndCountersAreTheSameOnAnyNumberOfThreads)
{
    srMeshModel mesh;
    mtest::addGridLevel(mesh, 3, 3, 0x4D424350u);
    auto build = [&mesh](int threads)
    {
        mtest::AssertRecorder rec;
        mrBSPSurfaceBuilder builder;
        mrBSPSurface* list = builder.buildSurfaces(&mesh);
        int i = 0;
        for (mrBSPSurface* s = list; s; s = s->m_next)
        {
            s->calcBounds();
            for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
                f->m_contents = i++ % 7 == 0 ? 1 : 0;
        }
        mrSolidBSP bsp;
        mrSolidBSP::ParallelShare everyStep;
        everyStep.minList = 2;
        everyStep.grain = 1;
        everyStep.minTask = 1;
        mrBSPNode* head = threads == 1 ? bsp.generate(list, 0) : bsp.generateParallel(list, 0, threads, everyStep);
        std::ostringstream text;
        for (const mtest::AssertReport& r : rec.reports())
            text << r.expression << '|' << r.line << '|' << r.message << '\n';
        for (int c : counts(bsp))
            text << c << ' ';
        mrBSPTree::release(head);
        builder.releasePlanes();
        return text.str();
    };
    const std::string one = build(1);
    EXPECT_NE(one.find("Mixed face contents in leafnode"), std::string::npos);
    EXPECT_NE(one.find("!leafnode->m_contents"), std::string::npos);
    for (int threads : {2, 3, 8})
        EXPECT_EQ(build(threads), one) << threads << " threads";
}

// ---------------------------------------------------------------- releasing trees

TEST(BSPTreeRelease, SharedFacesAreFreedOnceAndVeryDeepTreesWithoutRecursion)
{
    mrPlane p(0, 0, 1, 0);
    mrBSPFace* o = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace* n = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    mrBSPNode* head = new mrBSPNode;
    head->m_plane = &p;
    head->m_faces = n;
    for (int c = 0; c < 2; ++c)
    {
        mrBSPNode* leaf = head->m_children[c] = new mrBSPNode;
        leaf->m_markfaces = (mrBSPFace**)std::malloc(sizeof(mrBSPFace*) * 3);
        leaf->m_markfaces[0] = o;
        leaf->m_markfaces[1] = c ? n : o;
        leaf->m_markfaces[2] = nullptr;
    }
    mrBSPTree::release(head);
    mrBSPTree::release(nullptr);

    mrBSPNode* node = head = new mrBSPNode;
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
