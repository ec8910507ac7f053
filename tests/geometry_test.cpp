// The growable array, BSP faces with their split, and surface bounds.
#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

#include "geometry/mrBSPFace.h"
#include "geometry/mrBSPSurface.h"
#include "geometry/mrDynamicArray.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
using mtest::makeFace;

std::vector<V> points(const mrBSPFace* f)
{
    std::vector<V> out;
    for (int i = 0; i < f->m_winding->m_numpoints; ++i)
        out.push_back(f->m_winding->m_points[(uint32_t)i]);
    return out;
}

// A face whose winding has been taken away.
mrBSPFace* withoutWinding()
{
    mrBSPFace* f = new mrBSPFace;
    delete f->m_winding;
    f->m_winding = nullptr;
    return f;
}

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

TEST(DynamicArray, IndexingAtOrPastTheEndGrowsToSizePlusIndexPlusEight)
{
    struct Case
    {
        uint32_t size, index, grown;
    } cases[] = {{0, 0, 8}, {0, 5, 13}, {8, 7, 8}, {8, 8, 24}, {10, 100, 118}};
    for (const Case& c : cases)
    {
        mrDynamicArray<int> a;
        a.resize(c.size);
        for (uint32_t i = 0; i < c.size; ++i)
            a[i] = (int)i * 3;
        int* block = a.m_data;
        a[c.index] = 42;
        EXPECT_EQ(a.m_size, c.grown) << c.size << " " << c.index;
        EXPECT_TRUE(c.grown != c.size || a.m_data == block) << "no reallocation without growth";
        for (uint32_t i = 0; i < c.size; ++i)
            EXPECT_EQ(a[i], i == c.index ? 42 : (int)i * 3);
        EXPECT_EQ(a[c.index], 42);
    }

    mrDynamicArray<float> seq;
    std::vector<uint32_t> sizes;
    for (uint32_t i = 0; i < 30; ++i)
    {
        uint32_t before = seq.m_size;
        seq[i] = (float)i;
        if (seq.m_size != before)
            sizes.push_back(seq.m_size);
    }
    EXPECT_EQ(sizes, (std::vector<uint32_t>{8, 24, 56}));
    for (uint32_t i = 0; i < 30; ++i)
        EXPECT_EQ(seq[i], (float)i);
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
    EXPECT_EQ(points(&dst), points(src));
    EXPECT_EQ(dst.m_plane, &plane);
    EXPECT_EQ(dst.m_original, src);
    EXPECT_EQ(dst.m_contents, 3);
    EXPECT_EQ(dst.m_backContents, 4);
    EXPECT_EQ(dst.m_polyIndex, 7);
    EXPECT_EQ(dst.m_next, nullptr);
    EXPECT_EQ(dst.m_linked + dst.m_reserved, 0);
    // A change to the source's points does not reach the copy.
    src->m_winding->m_points[0] = V(9, 9, 9);
    EXPECT_EQ(points(&dst)[0], V(0, 0, 0));

    // Copy construction gives the copy its own winding and keeps the list state.
    {
        mrBSPFace copy(*src);
        EXPECT_NE(copy.m_winding, src->m_winding);
        EXPECT_EQ(points(&copy), points(src));
        EXPECT_EQ(copy.m_linked, 1);
        EXPECT_EQ(copy.m_original, src);
    }
    EXPECT_EQ(src->m_winding->m_numpoints, 3);
    delete src;
}

// ---------------------------------------------------------------- splitFace

TEST(SplitFace, FacesOnOneSideOrInThePlaneComeBackUnchanged)
{
    mrPlane split(0, 0, 1, 0);
    struct Case
    {
        std::vector<V> points;
        bool front;
    } cases[] = {
        {{V(0, 0, 1), V(1, 0, 1), V(0, 1, 2)}, true},
        {{V(0, 0, -1), V(1, 0, -1), V(0, 1, -2)}, false},
        {{V(0, 0, 0.005f), V(1, 0, -0.005f), V(0, 1, 0)}, false}, // in the plane: back
        {{V(0, 0, 0.01f), V(1, 0, 0), V(0, 1, 0)}, false},        // exactly 0.01 is on the plane
        {{V(0, 0, 0.0100001f), V(1, 0, 0), V(0, 1, 0)}, true},    // just above is in front
    };
    for (const Case& c : cases)
    {
        mrBSPFace* f = makeFace(&split, {});
        for (const V& p : c.points)
            f->m_winding->addPoint(p);
        mrBSPFace *front = f, *back = f;
        mrBSPFace::splitFace(f, &split, &front, &back);
        EXPECT_EQ(front, c.front ? f : nullptr) << &c - cases;
        EXPECT_EQ(back, c.front ? nullptr : f) << &c - cases;
        EXPECT_EQ(points(f), c.points);
        delete f;
    }
}

TEST(SplitFace, CutsKeepThePointOrderAndShareCrossingsAndOnPlaneVertices)
{
    mrPlane facePlane(0, 0, 1, 0);
    mrPlane x1(1, 0, 0, 1), y0(0, 1, 0, 0);
    mrBSPFace* sq = makeFace(&facePlane, {V(0, 0, 0), V(4, 0, 0), V(4, 4, 0), V(0, 4, 0)});
    sq->m_backContents = 1;
    sq->m_polyIndex = 12;
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(sq, &x1, &front, &back);
    ASSERT_TRUE(front && back);
    EXPECT_EQ(points(back), (std::vector<V>{V(0, 0, 0), V(1, 0, 0), V(1, 4, 0), V(0, 4, 0)}));
    EXPECT_EQ(points(front), (std::vector<V>{V(1, 0, 0), V(4, 0, 0), V(4, 4, 0), V(1, 4, 0)}));
    for (mrBSPFace* piece : {front, back})
    {
        EXPECT_EQ(piece->m_plane, &facePlane);
        EXPECT_EQ(piece->m_original, sq);
        EXPECT_EQ(piece->m_backContents, 1);
        EXPECT_EQ(piece->m_polyIndex, 12);
        EXPECT_EQ(piece->m_next, nullptr);
        EXPECT_EQ(piece->m_linked, 0);
        delete piece;
    }
    delete sq;

    mrBSPFace* tri = makeFace(&facePlane, {V(0, 0, 0), V(2, -1, 0), V(2, 1, 0)});
    mrBSPFace::splitFace(tri, &y0, &front, &back);
    ASSERT_TRUE(front && back);
    EXPECT_EQ(points(back), (std::vector<V>{V(0, 0, 0), V(2, -1, 0), V(2, 0, 0)}));
    EXPECT_EQ(points(front), (std::vector<V>{V(0, 0, 0), V(2, 0, 0), V(2, 1, 0)}));
    delete front;
    delete back;
    delete tri;
}

TEST(SplitFace, CrossingsAreSnappedOnAxialPlanesAndInterpolatedInFloatOtherwise)
{
    // Interpolating this edge would give 1.70000017f; the axial rule gives 1.7f.
    mrPlane facePlane(0, 0, 1, 0);
    for (float sign : {1.0f, -1.0f})
    {
        mrPlane split(sign, 0, 0, sign * 1.7f);
        mrBSPFace* tri = makeFace(&facePlane, {V(0.13f, 0, 0), V(5.77f, 0, 0), V(5.77f, 3, 0)});
        mrBSPFace *front, *back;
        mrBSPFace::splitFace(tri, &split, &front, &back);
        ASSERT_TRUE(front && back);
        std::vector<V> first = points(sign > 0 ? back : front); // the piece holding point 0
        ASSERT_EQ(first.size(), 3u);
        EXPECT_EQ(first[1].x, 1.7f);
        EXPECT_EQ(first[2].x, 1.7f);
        delete front;
        delete back;
        delete tri;
    }

    mrPlane split(0.6f, 0.8f, 0, 1.3f);
    mrBSPFace* tri = makeFace(&facePlane, {V(3.68f, 4.74f, 2.04f), V(0.09f, -1.22f, -1.53f), V(0.09f, -1.22f, 3)});
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(tri, &split, &front, &back);
    ASSERT_TRUE(front && back);
    ASSERT_EQ(front->m_winding->m_numpoints, 3);
    // Distances kept in double would give (1.24240971, 0.693192601, -0.384010404).
    EXPECT_EQ(points(front)[1], V(1.242409586906433f, 0.6931924819946289f, -0.3840104937553406f));
    EXPECT_EQ(points(back)[0], points(front)[1]);
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

TEST(SplitFace, MissingOrReleasedWindingIsReportedAndGoesBackWhole)
{
    mtest::AssertRecorder rec;
    mrPlane split(0, 0, 1, 0);
    mrBSPFace* bare = withoutWinding();
    mrBSPFace* freed = makeFace(&split, {V(0, 0, 1), V(1, 0, -1), V(0, 1, 1)});
    freed->m_winding->m_numpoints = -1;
    for (mrBSPFace* f : {bare, freed})
    {
        mrBSPFace *front = f, *back = nullptr;
        mrBSPFace::splitFace(f, &split, &front, &back);
        EXPECT_EQ(front, nullptr);
        EXPECT_EQ(back, f);
        delete f;
    }
    rec.expect({{"inw", "mrBSPFace", 0, nullptr}, {"0", "mrBSPFace", 0, "SplitFace: freed face"}});
}

// ---------------------------------------------------------------- surface bounds

TEST(SurfaceBounds, BoxEnclosesEveryPointOfEveryFace)
{
    mrPlane plane(0, 0, 1, 0);
    struct Case
    {
        std::vector<std::vector<V>> faces;
        V mins, maxs;
    } cases[] = {
        {{{V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)}}, V(0, 0, 0), V(4, 2, 0)},
        {{{V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)}, {V(-3, 5, 1)}}, V(-3, 0, 0), V(4, 5, 1)},
        {{{V(-3, 5, 1)}}, V(-3, 5, 1), V(-3, 5, 1)}, // one point sets minimum and maximum
        // Points beyond the starting values.
        {{{V(-200000, 150000, 0), V(300000, -250000, 0), V(0, 0, 0)}}, V(-200000, -250000, 0), V(300000, 150000, 0)},
    };
    for (const Case& c : cases)
    {
        mrBSPSurface s;
        mrBSPFace** tail = &s.m_faces;
        for (const std::vector<V>& pts : c.faces)
        {
            *tail = makeFace(&plane, {});
            for (const V& p : pts)
                (*tail)->m_winding->addPoint(p);
            tail = &(*tail)->m_next;
        }
        s.calcBounds();
        EXPECT_EQ(s.m_mins, c.mins) << &c - cases;
        EXPECT_EQ(s.m_maxs, c.maxs) << &c - cases;
        for (mrBSPFace *f = s.m_faces, *next; f; f = next)
        {
            next = f->m_next;
            delete f;
        }
    }
}

TEST(SurfaceBounds, MissingFacesAndWindingsAreReported)
{
    mtest::AssertRecorder rec;
    mrBSPSurface none;
    none.calcBounds();
    rec.expect({{"0", "mrBSPSurface", 0, "mrBSPSurface::calcBounds: surface without a face"}});
    EXPECT_EQ(none.m_mins, V(99999, 99999, 99999)) << "the inverted box stays";
    EXPECT_EQ(none.m_maxs, V(-99999, -99999, -99999));

    // A face without a winding is skipped.
    rec.clear();
    mrPlane plane(0, 0, 1, 0);
    mrBSPFace* bare = withoutWinding();
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
