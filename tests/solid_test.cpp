#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <vector>

#include "solid/mrBSPNode.h"
#include "solid/mrBSPTree.h"
#include "solid/mrSolidBSP.h"
#include "support/TestSupport.h"
#include "surfaces/mrBSPSurfaceBuilder.h"

namespace
{
typedef srVector3T<float> V;

mrBSPFace* makeFace(mrPlane* plane, std::initializer_list<V> points)
{
    mrBSPFace* f = new mrBSPFace;
    f->m_plane = plane;
    for (const V& p : points)
        f->m_winding->addPoint(p);
    f->m_original = f;
    return f;
}

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

void walk(const mrBSPNode* node, TreeStats& st)
{
    std::vector<const mrBSPNode*> stack{node};
    while (!stack.empty())
    {
        const mrBSPNode* n = stack.back();
        stack.pop_back();
        if (n->m_plane)
        {
            ++st.splits;
            ASSERT_NE(n->m_children[0], nullptr);
            ASSERT_NE(n->m_children[1], nullptr);
            stack.push_back(n->m_children[0]);
            stack.push_back(n->m_children[1]);
            continue;
        }
        EXPECT_EQ(n->m_children[0], nullptr);
        EXPECT_EQ(n->m_faces, nullptr);
        ASSERT_NE(n->m_markfaces, nullptr);
        int count = 0;
        while (n->m_markfaces[count])
            ++count;
        st.markfaces += count;
        if (n->m_contents == 1)
        {
            ++st.solid;
            EXPECT_EQ(count, 0);
        }
        else
        {
            EXPECT_EQ(n->m_contents, 0);
            ++st.empty;
            EXPECT_GT(count, 0);
        }
    }
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
    mrBSPFace* f = makeFace(&split, {V(0, 0, 0.02f), V(1, 0, 0), V(0, 1, 0)});
    EXPECT_EQ(bsp.faceSide(f, &split), mrPlane::SIDE_FRONT);
    f->m_winding->m_points[1] = V(1, 0, -0.02f);
    EXPECT_EQ(bsp.faceSide(f, &split), mrPlane::SIDE_ON);
    f->m_winding->m_points[0] = V(0, 0, 0.005f);
    f->m_winding->m_points[1] = V(1, 0, -0.005f);
    EXPECT_EQ(bsp.faceSide(f, &split), mrPlane::SIDE_BACK);
    f->m_winding->m_numpoints = 0;
    EXPECT_EQ(bsp.faceSide(f, &split), mrPlane::SIDE_BACK);
    delete f;
}

TEST(FaceSide, OppositeFacingCoplanarFaceIsBackAndNotASplit)
{
    mrSolidBSP bsp;
    mrPlane up(0, 1, 0, 3), down(0, -1, 0, -3);
    mrBSPFace* f = makeFace(&down, {V(0, 3, 0), V(0, 3, 1), V(1, 3, 0)});
    EXPECT_EQ(bsp.faceSide(f, &up), mrPlane::SIDE_BACK);
    mrBSPSurface* list = chain({makeSurface(&up, {makeFace(&up, {V(0, 3, 0), V(1, 3, 0), V(0, 3, 1)})}),
                                makeSurface(&down, {f})});
    // Both count no split; the later one wins the tie.
    EXPECT_EQ(bsp.choosePlaneFromList(list, V(0, 3, 0), V(1, 3, 1), 0), list->m_next);
    deleteSurfaces(list);
}

// ---------------------------------------------------------------- partition choice

TEST(SelectPartition, NoCandidateOrASingleOne)
{
    mrSolidBSP bsp;
    mrPlane zUp(0, 0, 1, 5), x(1, 0, 0, 5);
    mrBSPSurface* marked = bare(&x);
    marked->m_onNode = 1;
    mrBSPSurface* list = chain({marked});
    EXPECT_EQ(bsp.selectPartition(list), nullptr);
    EXPECT_EQ(bsp.selectPartition(nullptr), nullptr);

    // A lone candidate is taken even facing +z in the default mode.
    mrBSPSurface* lone = bare(&zUp);
    list = chain({marked, lone});
    bsp.m_midSplit = 0;
    EXPECT_EQ(bsp.selectPartition(list), lone);
    deleteSurfaces(list);
}

TEST(SelectPartition, DefaultModeSkipsPlanesFacingUp)
{
    mrSolidBSP bsp;
    bsp.m_midSplit = 0;
    mrPlane up1(0, 0, 1, 2), up2(0, 0, 1, 7), down(0, 0, -1, -2);
    mrBSPSurface* list = chain({makeSurface(&up1, {makeFace(&up1, {V(0, 0, 2), V(1, 0, 2), V(0, 1, 2)})}),
                                makeSurface(&up2, {makeFace(&up2, {V(0, 0, 7), V(1, 0, 7), V(0, 1, 7)})})});
    EXPECT_EQ(bsp.selectPartition(list), nullptr);
    mrBSPSurface* d = makeSurface(&down, {makeFace(&down, {V(0, 0, 2), V(0, 1, 2), V(1, 0, 2)})});
    list->m_next->m_next = d;
    EXPECT_EQ(bsp.selectPartition(list), d);
    deleteSurfaces(list);
}

TEST(ChoosePlane, MoreEvenDivisionWinsAndTiesGoToTheLater)
{
    mrSolidBSP bsp;
    mrPlane x1(1, 0, 0, 1), x5(1, 0, 0, 5), y5(0, 1, 0, 5);
    mrBSPSurface* list = chain({bare(&x5), bare(&x1)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list);
    deleteSurfaces(list);
    list = chain({bare(&x1), bare(&x5)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list->m_next);
    deleteSurfaces(list);
    list = chain({bare(&x5), bare(&y5)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list->m_next);
    deleteSurfaces(list);
    list = chain({bare(&y5), bare(&x5)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list->m_next);
    deleteSurfaces(list);
}

TEST(ChoosePlane, FewerSplitsBeatABetterScore)
{
    mrSolidBSP bsp;
    mrPlane x1(1, 0, 0, 1), y5(0, 1, 0, 5), z2(0, 0, 1, 2);
    // x = 1 cuts one face and scores 482; y = 5 cuts two and scores 450.
    mrBSPSurface* a = makeSurface(&x1, {makeFace(&x1, {V(1, 7, 1), V(1, 9, 1), V(1, 7, 3)})});
    mrBSPSurface* b = makeSurface(&y5, {makeFace(&y5, {V(6, 5, 6), V(6, 5, 8), V(8, 5, 6)})});
    mrBSPSurface* w = makeSurface(&z2, {makeFace(&z2, {V(0, 7, 2), V(2, 7, 2), V(2, 9, 2)}),
                                        makeFace(&z2, {V(3, 4, 2), V(4, 4, 2), V(4, 6, 2)}),
                                        makeFace(&z2, {V(6, 4, 2), V(7, 4, 2), V(7, 6, 2)})});
    mrBSPSurface* list = chain({b, a, w});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), a);
    deleteSurfaces(list);
}

TEST(ChoosePlane, SplitCountStopsWithinASurfaceOnceItReachesTheBest)
{
    mrSolidBSP bsp;
    mrPlane x5(1, 0, 0, 5), y5(0, 1, 0, 5), z2(0, 0, 1, 2), z8(0, 0, 1, 8);
    // x = 5 cuts one face (in u). y = 5 cuts three faces, all in t; its count stops at
    // one inside t, ties with x = 5 and, being later with an equal score, is taken.
    mrBSPSurface* a = makeSurface(&x5, {makeFace(&x5, {V(5, 7, 1), V(5, 9, 1), V(5, 7, 3)})});
    mrBSPSurface* b = makeSurface(&y5, {makeFace(&y5, {V(6, 5, 6), V(6, 5, 8), V(8, 5, 6)})});
    mrBSPSurface* t = makeSurface(&z2, {makeFace(&z2, {V(6, 4, 2), V(7, 4, 2), V(7, 6, 2)}),
                                        makeFace(&z2, {V(7, 4, 2), V(8, 4, 2), V(8, 6, 2)}),
                                        makeFace(&z2, {V(8, 4, 2), V(9, 4, 2), V(9, 6, 2)})});
    mrBSPSurface* u = makeSurface(&z8, {makeFace(&z8, {V(4, 7, 8), V(6, 7, 8), V(6, 9, 8)})});
    mrBSPSurface* list = chain({a, b, t, u});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), b);
    deleteSurfaces(list);
}

TEST(ChoosePlane, SurfaceWithoutPlaneIsReportedAndSkipped)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane x1(1, 0, 0, 1);
    mrBSPSurface* list = chain({bare(&x1), bare(nullptr)});
    EXPECT_EQ(bsp.choosePlaneFromList(list, kMin, kMax, 0), list);
    ASSERT_EQ(rec.count("plane"), 1u);
    EXPECT_EQ(rec.reports()[0].source, "mrSolidBSP");
    deleteSurfaces(list);
}

TEST(ChoosePlane, NormalWithoutDominantAxisIsReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    float nan = std::numeric_limits<float>::quiet_NaN();
    mrPlane bad(nan, nan, nan, 0);
    mrBSPSurface* list = chain({bare(&bad)});
    bsp.choosePlaneFromList(list, kMin, kMax, 0);
    EXPECT_EQ(rec.count("0", "ChoosePlane: no axis found"), 1u);
    bsp.chooseMidPlaneFromList(list, kMin, kMax);
    EXPECT_EQ(rec.count("0", "ChooseMidPlane: no axis found"), 1u);
    deleteSurfaces(list);
}

TEST(MidSplit, HalvingPlaneBeatsAnOffCentreOne)
{
    // x = 5 scores 450, x = 1 scores 482.
    mrSolidBSP bsp;
    mrPlane x1(1, 0, 0, 1), x5(1, 0, 0, 5);
    for (int order = 0; order < 2; ++order)
    {
        mrBSPSurface* s5 = bare(&x5);
        mrBSPSurface* s1 = bare(&x1);
        mrBSPSurface* list = order ? chain({s5, s1}) : chain({s1, s5});
        EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, kMax), s5);
        deleteSurfaces(list);
    }
}

TEST(MidSplit, HugeBoxGivesTheFirstCandidate)
{
    mrSolidBSP bsp;
    mrPlane x0(1, 0, 0, 0), xMid(1, 0, 0, 10000);
    mrBSPSurface* marked = bare(&xMid);
    marked->m_onNode = 1;
    mrBSPSurface* first = bare(&x0);
    mrBSPSurface* list = chain({marked, first, bare(&xMid)});
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, V(0, 0, 0), V(20000, 20000, 20000)), first);
    deleteSurfaces(list);
}

TEST(MidSplit, NoCandidateIsReported)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane x0(1, 0, 0, 0);
    mrBSPSurface* marked = bare(&x0);
    marked->m_onNode = 1;
    EXPECT_EQ(bsp.chooseMidPlaneFromList(marked, kMin, kMax), nullptr);
    EXPECT_EQ(bsp.chooseMidPlaneFromList(nullptr, kMin, kMax), nullptr);
    EXPECT_EQ(rec.count("0", "ChooseMidPlaneFromList: no valid planes"), 2u);
    deleteSurfaces(marked);
}

TEST(MidSplit, DominantAxisIsTheFirstStrictlyLargestComponent)
{
    mrSolidBSP bsp;
    // (0.6, 0.8, 0): axis y, v = 0.8 * 6.25 = 5 -> 450; taken as x it would score 453.
    mrPlane skew(0.6f, 0.8f, 0, 6.25f), x(1, 0, 0, 4.9f);
    mrBSPSurface* list = chain({bare(&skew), bare(&x)});
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, kMax), list);
    deleteSurfaces(list);

    // Equal components: axis x. In a box twice as long along y, x = 5 scores 1050 and
    // would score 650 taken along y; the competitor scores 728.
    mrPlane diag(0.7071f, 0.7071f, 0, 5.0f / 0.7071f), y2(0, 1, 0, 2);
    list = chain({bare(&diag), bare(&y2)});
    EXPECT_EQ(bsp.chooseMidPlaneFromList(list, kMin, V(10, 20, 10)), list->m_next);
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
    // Faces without windings would be reported if they were visited.
    auto faceless = [](mrPlane* p) {
        mrBSPFace* f = new mrBSPFace;
        delete f->m_winding;
        f->m_winding = nullptr;
        f->m_plane = p;
        return f;
    };
    mrBSPSurface* on = makeSurface(&same, {});
    on->m_faces = faceless(&same);
    mrBSPSurface *front, *back;
    bsp.dividePlane(on, &split, &front, &back);
    EXPECT_EQ(front, on);
    EXPECT_EQ(back, nullptr);
    EXPECT_EQ(on->m_onNode, 1);

    mrBSPSurface* a = makeSurface(&ahead, {});
    a->m_faces = faceless(&ahead);
    bsp.dividePlane(a, &split, &front, &back);
    EXPECT_EQ(front, a);
    EXPECT_EQ(back, nullptr);
    EXPECT_EQ(a->m_onNode, 0);

    mrBSPSurface* b = makeSurface(&behind, {});
    b->m_faces = faceless(&behind);
    bsp.dividePlane(b, &split, &front, &back);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, b);
    EXPECT_TRUE(rec.reports().empty());
    deleteSurfaces(chain({on, a, b}));
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
    ASSERT_NE(back, nullptr);
    ASSERT_NE(back, s);
    EXPECT_EQ(back->m_plane, &facePlane);
    EXPECT_EQ(back->m_reserved, 77);
    // Front list: side face (pushed last) first, then the square's front piece.
    ASSERT_NE(front->m_faces, nullptr);
    EXPECT_EQ(front->m_faces, side);
    ASSERT_NE(front->m_faces->m_next, nullptr);
    EXPECT_EQ(front->m_faces->m_next->m_original, sq);
    EXPECT_EQ(front->m_faces->m_next->m_next, nullptr);
    ASSERT_NE(back->m_faces, nullptr);
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
    ASSERT_NE(leaf->m_markfaces, nullptr);
    EXPECT_EQ(leaf->m_markfaces[0], original);
    EXPECT_EQ(leaf->m_markfaces[1], original);
    EXPECT_EQ(leaf->m_markfaces[2], own);
    EXPECT_EQ(leaf->m_markfaces[3], nullptr);
    EXPECT_EQ(bsp.m_numLeafFaces, 3);
    EXPECT_EQ(bsp.m_numLinkedFaces, 2);
    EXPECT_EQ(bsp.m_numEmptyLeafs, 1);
    EXPECT_EQ(original->m_linked, 1);
    EXPECT_EQ(own->m_linked, 1);
    mrBSPTree::release(leaf);
}

TEST(LinkConvexFaces, ContentsReports)
{
    mrPlane p(0, 0, 1, 0);
    {
        mtest::AssertRecorder rec;
        mrSolidBSP bsp;
        mrBSPFace* f = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
        f->m_contents = 1;
        mrBSPNode* leaf = new mrBSPNode;
        bsp.linkConvexFaces(makeSurface(&p, {f}), leaf);
        EXPECT_EQ(rec.count("!leafnode->m_contents"), 1u);
        EXPECT_EQ(leaf->m_contents, 1);
        EXPECT_EQ(bsp.m_numEmptyLeafs, 1);
        mrBSPTree::release(leaf);
    }
    {
        mtest::AssertRecorder rec;
        mrSolidBSP bsp;
        mrBSPFace* a = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
        mrBSPFace* b = makeFace(&p, {V(2, 0, 0), V(3, 0, 0), V(2, 1, 0)});
        b->m_contents = 2;
        mrBSPNode* leaf = new mrBSPNode;
        bsp.linkConvexFaces(makeSurface(&p, {a, b}), leaf);
        EXPECT_EQ(rec.count("0", "Mixed face contents in leafnode"), 1u);
        EXPECT_EQ(leaf->m_contents, 0);
        mrBSPTree::release(leaf);
    }
}

TEST(LinkConvexFaces, FaceWithoutOriginalIsReportedAndLeftOut)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane p(0, 0, 1, 0);
    mrBSPFace* orphan = makeFace(&p, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    orphan->m_original = nullptr;
    mrBSPFace* own = makeFace(&p, {V(2, 0, 0), V(3, 0, 0), V(2, 1, 0)});
    mrBSPNode* leaf = new mrBSPNode;
    bsp.linkConvexFaces(makeSurface(&p, {orphan, own}), leaf);
    EXPECT_EQ(rec.count("f->m_original"), 1u);
    EXPECT_EQ(leaf->m_markfaces[0], own);
    EXPECT_EQ(leaf->m_markfaces[1], nullptr);
    EXPECT_EQ(bsp.m_numLeafFaces, 2);
    mrBSPTree::release(leaf);
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
    EXPECT_EQ(bsp.m_numSolidLeafs, 1);
    EXPECT_EQ(bsp.m_numSplitNodes, 0);
    EXPECT_EQ(bsp.m_numEmptyLeafs, 0);
    EXPECT_EQ(bsp.m_numLeafFaces, 0);
    EXPECT_EQ(bsp.m_numLinkedFaces, 0);
    EXPECT_EQ(bsp.m_numNodeFaces, 0);
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
    const mrBSPNode* front = head->m_children[0];
    const mrBSPNode* back = head->m_children[1];
    EXPECT_EQ(front->m_contents, 0);
    EXPECT_EQ(front->m_markfaces[0], a);
    EXPECT_EQ(front->m_markfaces[1], b);
    EXPECT_EQ(front->m_markfaces[2], nullptr);
    EXPECT_EQ(back->m_contents, 1);
    EXPECT_EQ(back->m_markfaces[0], nullptr);
    EXPECT_EQ(bsp.m_numSplitNodes, 1);
    EXPECT_EQ(bsp.m_numLeafFaces, 2);
    EXPECT_EQ(bsp.m_numEmptyLeafs, 1);
    EXPECT_EQ(bsp.m_numSolidLeafs, 1);
    EXPECT_EQ(bsp.m_numLinkedFaces, 2);
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
    const mrBSPNode* front = head->m_children[0];
    ASSERT_EQ(front->m_plane, nullptr);
    EXPECT_EQ(front->m_markfaces[0], f7);
    EXPECT_EQ(front->m_markfaces[1], f5);
    EXPECT_EQ(front->m_markfaces[2], f0);
    mrBSPTree::release(head);
}

TEST(Generate, FragmentWithoutFacesIsReportedAndLinkedAnyway)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrPlane px(1, 0, 0, 0), py(0, 1, 0, 0);
    mrBSPSurface* empty = bare(&py);
    empty->m_onNode = 1;
    mrBSPNode* head =
        bsp.generate(chain({makeSurface(&px, {makeFace(&px, {V(0, 0, 0), V(0, 1, 0), V(0, 0, 1)})}), empty}), 0);
    EXPECT_EQ(rec.count("0", "surface with no faces"), 1u);
    EXPECT_EQ(head->m_children[1]->m_contents, 1);
    EXPECT_EQ(bsp.m_numSplitNodes, 1);
    mrBSPTree::release(head);
}

TEST(Generate, SplitterWithoutPlaneEndsTheNode)
{
    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrBSPNode* head = bsp.generate(bare(nullptr), 0);
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

TEST(Generate, ClosedOutwardCubeIsSolidInside)
{
    for (int mid = 0; mid < 2; ++mid)
    {
        srMeshModel mesh;
        mtest::addBox(mesh, V(0, 0, 0), V(10, 10, 10), true);
        mrBSPSurfaceBuilder builder;
        mrSolidBSP bsp;
        mrBSPNode* head = buildTree(mesh, builder, bsp, mid);
        EXPECT_EQ(leafAt(head, V(5, 5, 5))->m_contents, 1) << mid;
        for (V outside : {V(-5, 5, 5), V(15, 5, 5), V(5, -5, 5), V(5, 15, 5), V(5, 5, -5), V(5, 5, 15)})
            EXPECT_EQ(leafAt(head, outside)->m_contents, 0) << mid;
        EXPECT_EQ(bsp.m_numSplitNodes, 6);
        EXPECT_EQ(bsp.m_numSolidLeafs, 1);
        EXPECT_EQ(bsp.m_numEmptyLeafs, 6);
        EXPECT_EQ(bsp.m_numLinkedFaces, 12);
        EXPECT_EQ(bsp.m_numLeafFaces, 12);
        mrBSPTree::release(head);
        builder.releasePlanes();
    }
}

TEST(Generate, InwardBoxIsEmptyInside)
{
    srMeshModel mesh;
    mtest::addBox(mesh, V(0, 0, 0), V(10, 10, 10), false);
    mrBSPSurfaceBuilder builder;
    mrSolidBSP bsp;
    mrBSPNode* head = buildTree(mesh, builder, bsp, 0);
    EXPECT_EQ(leafAt(head, V(5, 5, 5))->m_contents, 0);
    EXPECT_EQ(leafAt(head, V(15, 5, 5))->m_contents, 1);
    mrBSPTree::release(head);
    builder.releasePlanes();
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
        EXPECT_EQ(st.splits, bsp.m_numSplitNodes);
        EXPECT_EQ(st.solid, bsp.m_numSolidLeafs);
        EXPECT_EQ(st.empty, bsp.m_numEmptyLeafs);
        EXPECT_EQ(st.markfaces, bsp.m_numLeafFaces);
        EXPECT_EQ(st.solid + st.empty, st.splits + 1);
        // Every triangle reaches some leaf.
        EXPECT_EQ(bsp.m_numLinkedFaces, (int)mesh.m_numpolys);
        EXPECT_GE(bsp.m_numLeafFaces, bsp.m_numLinkedFaces);
        EXPECT_GT(st.solid, 0);
        EXPECT_EQ(leafAt(head, V(32, 32, 32))->m_contents, 0);
        EXPECT_EQ(leafAt(head, V(160, 32, 32))->m_contents, 0);
        EXPECT_EQ(leafAt(head, V(96, 32, 16))->m_contents, 0);
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
