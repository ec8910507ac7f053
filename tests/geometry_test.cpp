#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>

#include "geometry/mrBSPFace.h"
#include "geometry/mrBSPSurface.h"
#include "geometry/mrDynamicArray.h"
#include "support/TestSupport.h"

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

V point(const mrBSPFace* f, int i) { return f->m_winding->m_points[(uint32_t)i]; }

// Records its own destruction, to see which faces a split deletes.
class TrackedFace : public mrBSPFace
{
public:
    explicit TrackedFace(bool* gone) : m_gone(gone) {}
    ~TrackedFace() override { *m_gone = true; }
    bool* m_gone;
};
} // namespace

// ---------------------------------------------------------------- growable array

TEST(DynamicArray, IndexingAnEmptyArrayGrowsBySizePlusIndexPlusEight)
{
    mrDynamicArray<int> a;
    a[0] = 1;
    EXPECT_EQ(a.m_size, 8u);
    mrDynamicArray<int> b;
    b[5] = 1;
    EXPECT_EQ(b.m_size, 13u);
}

TEST(DynamicArray, GrowsOnlyAtOrPastTheEnd)
{
    mrDynamicArray<int> a;
    a.resize(8);
    int* block = a.m_data;
    a[7] = 7;
    EXPECT_EQ(a.m_data, block);
    EXPECT_EQ(a.m_size, 8u);
    a[8] = 8;
    EXPECT_EQ(a.m_size, 24u);
    EXPECT_EQ(a[7], 7);
    EXPECT_EQ(a[8], 8);
}

TEST(DynamicArray, SequentialWritesGrowLinearly)
{
    mrDynamicArray<float> a;
    std::vector<uint32_t> sizes;
    for (uint32_t i = 0; i < 30; ++i)
    {
        uint32_t before = a.m_size;
        a[i] = (float)i;
        if (a.m_size != before)
            sizes.push_back(a.m_size);
    }
    EXPECT_EQ(sizes, (std::vector<uint32_t>{8, 24, 56}));
    for (uint32_t i = 0; i < 30; ++i)
        EXPECT_EQ(a[i], (float)i);
}

TEST(DynamicArray, FarIndexKeepsExistingElements)
{
    mrDynamicArray<int> a;
    a.resize(10);
    for (uint32_t i = 0; i < 10; ++i)
        a[i] = (int)i * 3;
    a[100] = 42;
    EXPECT_EQ(a.m_size, 118u);
    for (uint32_t i = 0; i < 10; ++i)
        EXPECT_EQ(a[i], (int)i * 3);
    EXPECT_EQ(a[100], 42);
}

TEST(DynamicArray, ResizeCopyAndSelfAssignment)
{
    mrDynamicArray<int> a;
    a.resize(5);
    a[4] = 9;
    int* block = a.m_data;
    a.resize(5);
    EXPECT_EQ(a.m_data, block);

    mrDynamicArray<int> copy(a);
    EXPECT_EQ(copy.m_size, 5u);
    EXPECT_NE(copy.m_data, a.m_data);
    EXPECT_EQ(copy[4], 9);

    mrDynamicArray<int>& self = a;
    a = self;
    EXPECT_EQ(a.m_data, block);
    EXPECT_EQ(a[4], 9);

    a.resize(0);
    EXPECT_EQ(a.m_data, nullptr);
    EXPECT_EQ(a.m_size, 0u);

    mrDynamicArray<int> empty, target(copy);
    target = empty;
    EXPECT_EQ(target.m_data, nullptr);
    EXPECT_EQ(target.m_size, 0u);
}

// ---------------------------------------------------------------- face records

TEST(BSPFace, AssignmentCopiesPointsNotTheWindingAndKeepsListState)
{
    mrPlane plane(0, 0, 1, 0);
    mrBSPFace* src = makeFace(&plane, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    src->m_contents = 3;
    src->m_backContents = 4;
    src->m_polyIndex = 7;
    src->m_linked = 1;
    src->m_reserved = 5;
    mrBSPFace other;
    src->m_next = &other;

    mrBSPFace dst;
    mrWinding* ownWinding = dst.m_winding;
    dst.m_next = nullptr;
    dst = *src;
    EXPECT_EQ(dst.m_winding, ownWinding);
    ASSERT_EQ(dst.m_winding->m_numpoints, 3);
    EXPECT_EQ(point(&dst, 1), V(1, 0, 0));
    EXPECT_EQ(dst.m_plane, &plane);
    EXPECT_EQ(dst.m_original, src);
    EXPECT_EQ(dst.m_contents, 3);
    EXPECT_EQ(dst.m_backContents, 4);
    EXPECT_EQ(dst.m_polyIndex, 7);
    EXPECT_EQ(dst.m_next, nullptr);
    EXPECT_EQ(dst.m_linked, 0);
    EXPECT_EQ(dst.m_reserved, 0);

    // A change to the source's points does not reach the copy.
    src->m_winding->m_points[0] = V(9, 9, 9);
    EXPECT_EQ(point(&dst, 0), V(0, 0, 0));
    delete src;
}

TEST(BSPFace, CopyConstructionGivesTheCopyItsOwnWinding)
{
    mrPlane plane(0, 0, 1, 0);
    mrBSPFace* src = makeFace(&plane, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    src->m_linked = 1;
    {
        mrBSPFace copy(*src);
        EXPECT_NE(copy.m_winding, src->m_winding);
        EXPECT_EQ(copy.m_winding->m_numpoints, 3);
        EXPECT_EQ(copy.m_linked, 1);
        EXPECT_EQ(copy.m_original, src);
    }
    EXPECT_EQ(src->m_winding->m_numpoints, 3);
    delete src;
}

// ---------------------------------------------------------------- splitFace

TEST(SplitFace, FaceWhollyOnOneSideComesBackUnchanged)
{
    mrPlane split(0, 0, 1, 0);
    mrBSPFace* above = makeFace(&split, {V(0, 0, 1), V(1, 0, 1), V(0, 1, 2)});
    mrBSPFace *front = nullptr, *back = above;
    mrBSPFace::splitFace(above, &split, &front, &back);
    EXPECT_EQ(front, above);
    EXPECT_EQ(back, nullptr);

    mrBSPFace* below = makeFace(&split, {V(0, 0, -1), V(1, 0, -1), V(0, 1, -2)});
    mrBSPFace::splitFace(below, &split, &front, &back);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, below);
    EXPECT_EQ(below->m_winding->m_numpoints, 3);
    delete above;
    delete below;
}

TEST(SplitFace, FaceInThePlaneGoesBack)
{
    mrPlane split(0, 0, 1, 0);
    mrBSPFace* in = makeFace(&split, {V(0, 0, 0.005f), V(1, 0, -0.005f), V(0, 1, 0)});
    mrBSPFace *front = in, *back = nullptr;
    mrBSPFace::splitFace(in, &split, &front, &back);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, in);
    delete in;
}

TEST(SplitFace, ExactlyOneHundredthIsOnThePlaneJustAboveIsInFront)
{
    mrPlane split(0, 0, 1, 0);
    mrBSPFace* at = makeFace(&split, {V(0, 0, 0.01f), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(at, &split, &front, &back);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, at);

    mrBSPFace* above = makeFace(&split, {V(0, 0, 0.0100001f), V(1, 0, 0), V(0, 1, 0)});
    mrBSPFace::splitFace(above, &split, &front, &back);
    EXPECT_EQ(front, above);
    EXPECT_EQ(back, nullptr);
    delete at;
    delete above;
}

TEST(SplitFace, SquareCutThroughOppositeEdgesGivesTwoQuadsInOrder)
{
    mrPlane facePlane(0, 0, 1, 0);
    mrPlane split(1, 0, 0, 1);
    mrBSPFace* sq = makeFace(&facePlane, {V(0, 0, 0), V(4, 0, 0), V(4, 4, 0), V(0, 4, 0)});
    sq->m_contents = 0;
    sq->m_backContents = 1;
    sq->m_polyIndex = 12;
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(sq, &split, &front, &back);
    ASSERT_NE(front, nullptr);
    ASSERT_NE(back, nullptr);
    ASSERT_EQ(back->m_winding->m_numpoints, 4);
    ASSERT_EQ(front->m_winding->m_numpoints, 4);
    EXPECT_EQ(point(back, 0), V(0, 0, 0));
    EXPECT_EQ(point(back, 1), V(1, 0, 0));
    EXPECT_EQ(point(back, 2), V(1, 4, 0));
    EXPECT_EQ(point(back, 3), V(0, 4, 0));
    EXPECT_EQ(point(front, 0), V(1, 0, 0));
    EXPECT_EQ(point(front, 1), V(4, 0, 0));
    EXPECT_EQ(point(front, 2), V(4, 4, 0));
    EXPECT_EQ(point(front, 3), V(1, 4, 0));
    for (mrBSPFace* piece : {front, back})
    {
        EXPECT_EQ(piece->m_plane, &facePlane);
        EXPECT_EQ(piece->m_original, sq);
        EXPECT_EQ(piece->m_backContents, 1);
        EXPECT_EQ(piece->m_polyIndex, 12);
        EXPECT_EQ(piece->m_next, nullptr);
        EXPECT_EQ(piece->m_linked, 0);
    }
    delete front;
    delete back;
    delete sq;
}

TEST(SplitFace, VertexOnThePlaneBelongsToBothTriangles)
{
    mrPlane facePlane(0, 0, 1, 0);
    mrPlane split(0, 1, 0, 0);
    mrBSPFace* tri = makeFace(&facePlane, {V(0, 0, 0), V(2, -1, 0), V(2, 1, 0)});
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(tri, &split, &front, &back);
    ASSERT_EQ(back->m_winding->m_numpoints, 3);
    ASSERT_EQ(front->m_winding->m_numpoints, 3);
    EXPECT_EQ(point(back, 0), V(0, 0, 0));
    EXPECT_EQ(point(back, 1), V(2, -1, 0));
    EXPECT_EQ(point(back, 2), V(2, 0, 0));
    EXPECT_EQ(point(front, 0), V(0, 0, 0));
    EXPECT_EQ(point(front, 1), V(2, 0, 0));
    EXPECT_EQ(point(front, 2), V(2, 1, 0));
    delete front;
    delete back;
    delete tri;
}

TEST(SplitFace, AxialPlanesPutCrossingsExactlyOnTheirDistance)
{
    // Interpolating this edge would give 1.70000017f; the axial rule gives 1.7f.
    mrPlane facePlane(0, 0, 1, 0);
    for (float sign : {1.0f, -1.0f})
    {
        mrPlane split(sign, 0, 0, sign * 1.7f);
        mrBSPFace* tri = makeFace(&facePlane, {V(0.13f, 0, 0), V(5.77f, 0, 0), V(5.77f, 3, 0)});
        mrBSPFace *front, *back;
        mrBSPFace::splitFace(tri, &split, &front, &back);
        ASSERT_NE(front, nullptr);
        ASSERT_NE(back, nullptr);
        mrBSPFace* first = sign > 0 ? back : front; // the piece holding point 0
        ASSERT_EQ(first->m_winding->m_numpoints, 3);
        EXPECT_EQ(point(first, 1).x, 1.7f);
        EXPECT_EQ(point(first, 2).x, 1.7f);
        delete front;
        delete back;
        delete tri;
    }
}

TEST(SplitFace, CrossingIsInterpolatedFromTheStoredFloatDistances)
{
    mrPlane facePlane(0, 0, 1, 0);
    mrPlane split(0.6f, 0.8f, 0, 1.3f);
    mrBSPFace* tri = makeFace(&facePlane, {V(3.68f, 4.74f, 2.04f), V(0.09f, -1.22f, -1.53f), V(0.09f, -1.22f, 3)});
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(tri, &split, &front, &back);
    ASSERT_NE(front, nullptr);
    ASSERT_EQ(front->m_winding->m_numpoints, 3);
    // Distances kept in double would give (1.24240971, 0.693192601, -0.384010404).
    V x = point(front, 1);
    EXPECT_EQ(x.x, 1.242409586906433f);
    EXPECT_EQ(x.y, 0.6931924819946289f);
    EXPECT_EQ(x.z, -0.3840104937553406f);
    EXPECT_EQ(point(back, 0), point(front, 1));
    delete front;
    delete back;
    delete tri;
}

TEST(SplitFace, OriginalSurvivesItsCutAPieceDoesNot)
{
    mrPlane facePlane(0, 0, 1, 0);
    mrPlane split1(1, 0, 0, 1);
    mrPlane split2(1, 0, 0, 3);
    bool originalGone = false;
    TrackedFace* original = new TrackedFace(&originalGone);
    original->m_plane = &facePlane;
    for (V p : {V(0, 0, 0), V(4, 0, 0), V(4, 4, 0), V(0, 4, 0)})
        original->m_winding->addPoint(p);
    original->m_original = original;

    mrBSPFace *front, *back;
    mrBSPFace::splitFace(original, &split1, &front, &back);
    EXPECT_FALSE(originalGone);
    delete back;

    // Cut the front piece again, through a tracked stand-in that is not its own original.
    bool pieceGone = false;
    TrackedFace* piece = new TrackedFace(&pieceGone);
    static_cast<mrBSPFace&>(*piece) = *front;
    delete front;
    ASSERT_EQ(piece->m_original, original);
    mrBSPFace *front2, *back2;
    mrBSPFace::splitFace(piece, &split2, &front2, &back2);
    EXPECT_TRUE(pieceGone);
    EXPECT_EQ(front2->m_original, original);
    EXPECT_EQ(back2->m_original, original);
    delete front2;
    delete back2;
    delete original;
    EXPECT_TRUE(originalGone);
}

TEST(SplitFace, FaceWithoutWindingIsReportedAndHandedBackWhole)
{
    mtest::AssertRecorder rec;
    mrPlane split(0, 0, 1, 0);
    mrBSPFace* f = new mrBSPFace;
    delete f->m_winding;
    f->m_winding = nullptr;
    mrBSPFace *front = f, *back = nullptr;
    mrBSPFace::splitFace(f, &split, &front, &back);
    ASSERT_EQ(rec.count("inw"), 1u);
    EXPECT_EQ(rec.reports()[0].source, "mrBSPFace");
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, f);
    delete f;
}

TEST(SplitFace, ReleasedWindingIsReportedAndGoesBack)
{
    mtest::AssertRecorder rec;
    mrPlane split(0, 0, 1, 0);
    mrBSPFace* f = makeFace(&split, {V(0, 0, 1), V(1, 0, -1), V(0, 1, 1)});
    f->m_winding->m_numpoints = -1;
    mrBSPFace *front = f, *back = nullptr;
    mrBSPFace::splitFace(f, &split, &front, &back);
    EXPECT_EQ(rec.count("0", "SplitFace: freed face"), 1u);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, f);
    delete f;
}

// ---------------------------------------------------------------- surface bounds

TEST(SurfaceBounds, OneTriangle)
{
    mrPlane plane(0, 0, 1, 0);
    mrBSPSurface s;
    s.m_faces = makeFace(&plane, {V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)});
    s.calcBounds();
    EXPECT_EQ(s.m_mins, V(0, 0, 0));
    EXPECT_EQ(s.m_maxs, V(4, 2, 0));
    delete s.m_faces;
}

TEST(SurfaceBounds, BoxEnclosesEveryFaceAndSinglePoints)
{
    mrPlane plane(0, 0, 1, 0);
    mrBSPSurface s;
    mrBSPFace* a = makeFace(&plane, {V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)});
    mrBSPFace* b = makeFace(&plane, {V(-3, 5, 1)});
    a->m_next = b;
    s.m_faces = a;
    s.calcBounds();
    EXPECT_EQ(s.m_mins, V(-3, 0, 0));
    EXPECT_EQ(s.m_maxs, V(4, 5, 1));

    mrBSPSurface one;
    one.m_faces = b;
    b->m_next = nullptr;
    one.calcBounds();
    EXPECT_EQ(one.m_mins, V(-3, 5, 1));
    EXPECT_EQ(one.m_maxs, V(-3, 5, 1));
    delete a;
    delete b;
}

TEST(SurfaceBounds, PointsBeyondTheStartingValues)
{
    mrPlane plane(0, 0, 1, 0);
    mrBSPSurface s;
    s.m_faces = makeFace(&plane, {V(-200000, 150000, 0), V(300000, -250000, 0), V(0, 0, 0)});
    s.calcBounds();
    EXPECT_EQ(s.m_mins, V(-200000, -250000, 0));
    EXPECT_EQ(s.m_maxs, V(300000, 150000, 0));
    delete s.m_faces;
}

TEST(SurfaceBounds, SurfaceWithoutFacesIsReportedAndKeepsTheInvertedBox)
{
    mtest::AssertRecorder rec;
    mrBSPSurface s;
    s.calcBounds();
    ASSERT_EQ(rec.count("0", "mrBSPSurface::calcBounds: surface without a face"), 1u);
    EXPECT_EQ(rec.reports()[0].source, "mrBSPSurface");
    EXPECT_EQ(s.m_mins, V(99999, 99999, 99999));
    EXPECT_EQ(s.m_maxs, V(-99999, -99999, -99999));
}

TEST(SurfaceBounds, FaceWithoutWindingIsReportedAndSkipped)
{
    mtest::AssertRecorder rec;
    mrPlane plane(0, 0, 1, 0);
    mrBSPFace* bare = new mrBSPFace;
    delete bare->m_winding;
    bare->m_winding = nullptr;
    mrBSPFace* tri = makeFace(&plane, {V(1, 1, 0), V(2, 1, 0), V(1, 3, 0)});
    bare->m_next = tri;
    mrBSPSurface s;
    s.m_faces = bare;
    s.calcBounds();
    EXPECT_EQ(rec.count("w"), 1u);
    EXPECT_EQ(s.m_mins, V(1, 1, 0));
    EXPECT_EQ(s.m_maxs, V(2, 3, 0));
    delete bare;
    delete tri;
}

