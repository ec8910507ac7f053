// The growable array, BSP faces with their split, and surface bounds.
#include <initializer_list>
#include <memory>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/geometry/mrDynamicArray.h>

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

mrBSPFace* withPoints(mrPlane* plane, const std::vector<V>& pts)
{
    mrBSPFace* f = makeFace(plane, {});
    for (const V& p : pts)
        f->m_winding->addPoint(p);
    return f;
}

void deleteAll(std::initializer_list<mrBSPFace*> faces)
{
    for (mrBSPFace* f : faces)
        delete f;
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
    const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {
        {0, 0, 8}, {0, 5, 13}, {8, 7, 8}, {8, 8, 24}, {10, 100, 118}};
    for (auto [size, index, grown] : cases)
    {
        mrDynamicArray<int> a;
        a.resize(size);
        for (uint32_t i = 0; i < size; ++i)
            a[i] = (int)i * 3;
        int* block = a.m_data;
        a[index] = 42;
        EXPECT_EQ(a.m_size, grown) << size << " " << index;
        EXPECT_TRUE(grown != size || a.m_data == block) << "no reallocation without growth";
        for (uint32_t i = 0; i < size; ++i)
            EXPECT_EQ(a[i], i == index ? 42 : (int)i * 3);
        EXPECT_EQ(a[index], 42);
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
    EXPECT_EQ(std::make_tuple(copy.m_size, copy[4]), std::make_tuple(5u, 9));
    EXPECT_NE(copy.m_data, a.m_data);
    mrDynamicArray<int>& self = a;
    a = self;
    EXPECT_EQ(std::make_tuple(a.m_data, a[4]), std::make_tuple(block, 9));
    a.resize(0);
    EXPECT_EQ(std::make_tuple(a.m_data, a.m_size), std::make_tuple((int*)nullptr, 0u));
    mrDynamicArray<int> empty, target(copy);
    target = empty;
    EXPECT_EQ(std::make_tuple(target.m_data, target.m_size), std::make_tuple((int*)nullptr, 0u));
}

// ---------------------------------------------------------------- face records

TEST(BSPFace, AssignmentCopiesPointsNotTheWindingAndKeepsListState)
{
    mrPlane plane(0, 0, 1, 0);
    mrBSPFace* src = makeFace(&plane, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)});
    std::tie(src->m_contents, src->m_backContents, src->m_polyIndex, src->m_linked, src->m_reserved) =
        std::make_tuple(3, 4, 7, 1, 5);
    mrBSPFace other;
    src->m_next = &other;

    mrBSPFace dst; // not listed, not linked
    mrWinding* ownWinding = dst.m_winding;
    dst = *src;
    EXPECT_EQ(std::make_tuple(dst.m_winding, points(&dst), dst.m_plane, dst.m_original, dst.m_contents,
                              dst.m_backContents, dst.m_polyIndex, dst.m_next, dst.m_linked + dst.m_reserved),
              std::make_tuple(ownWinding, points(src), &plane, src, 3, 4, 7, nullptr, 0));
    // A change to the source's points does not reach the copy.
    src->m_winding->m_points[0] = V(9, 9, 9);
    EXPECT_EQ(points(&dst)[0], V(0, 0, 0));

    // Copy construction gives the copy its own winding and keeps the list state.
    {
        mrBSPFace copy(*src);
        EXPECT_NE(copy.m_winding, src->m_winding);
        EXPECT_EQ(std::make_tuple(points(&copy), copy.m_linked, copy.m_original), std::make_tuple(points(src), 1, src));
    }
    EXPECT_EQ(src->m_winding->m_numpoints, 3);
    delete src;
}

// ---------------------------------------------------------------- splitFace

TEST(SplitFace, FacesOnOneSideOrInThePlaneComeBackUnchangedAndWithoutAWindingGoBackWholeAndAreReported)
{
    mrPlane split(0, 0, 1, 0);
    const std::pair<std::vector<V>, bool> cases[] = {
        {{V(0, 0, 1), V(1, 0, 1), V(0, 1, 2)}, true},
        {{V(0, 0, -1), V(1, 0, -1), V(0, 1, -2)}, false},
        {{V(0, 0, 0.005f), V(1, 0, -0.005f), V(0, 1, 0)}, false}, // in the plane: back
        {{V(0, 0, 0.01f), V(1, 0, 0), V(0, 1, 0)}, false},        // exactly 0.01 is on the plane
        {{V(0, 0, 0.0100001f), V(1, 0, 0), V(0, 1, 0)}, true},    // just above is in front
    };
    for (const auto& [pts, toFront] : cases)
    {
        mrBSPFace* f = withPoints(&split, pts);
        mrBSPFace *front = f, *back = f;
        mrBSPFace::splitFace(f, &split, &front, &back);
        EXPECT_EQ(std::make_tuple(front, back, points(f)),
                  std::make_tuple(toFront ? f : nullptr, toFront ? nullptr : f, pts))
            << pts[0].z;
        delete f;
    }

    // Without a winding, or with a released one: reported, and the face goes back whole.
    mtest::AssertRecorder rec;
    mrBSPFace* bare = withoutWinding();
    mrBSPFace* freed = makeFace(&split, {V(0, 0, 1), V(1, 0, -1), V(0, 1, 1)});
    freed->m_winding->m_numpoints = -1;
    for (mrBSPFace* f : {bare, freed})
    {
        mrBSPFace *front = f, *back = nullptr;
        mrBSPFace::splitFace(f, &split, &front, &back);
        EXPECT_EQ(std::make_pair(front, back), std::make_pair((mrBSPFace*)nullptr, f));
        delete f;
    }
    rec.expect({{"inw", "mrBSPFace", 0, nullptr}, {"0", "mrBSPFace", 0, "SplitFace: freed face"}});
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
    EXPECT_EQ(std::make_pair(points(back), points(front)),
              std::make_pair(std::vector<V>{V(0, 0, 0), V(1, 0, 0), V(1, 4, 0), V(0, 4, 0)},
                             std::vector<V>{V(1, 0, 0), V(4, 0, 0), V(4, 4, 0), V(1, 4, 0)}));
    for (mrBSPFace* piece : {front, back})
    {
        EXPECT_EQ(std::make_tuple(piece->m_plane, piece->m_original, piece->m_backContents, piece->m_polyIndex,
                                  piece->m_next, piece->m_linked),
                  std::make_tuple(&facePlane, sq, 1, 12, (mrBSPFace*)nullptr, 0));
        delete piece;
    }
    delete sq;

    mrBSPFace* tri = makeFace(&facePlane, {V(0, 0, 0), V(2, -1, 0), V(2, 1, 0)});
    mrBSPFace::splitFace(tri, &y0, &front, &back);
    ASSERT_TRUE(front && back);
    EXPECT_EQ(std::make_pair(points(back), points(front)),
              std::make_pair(std::vector<V>{V(0, 0, 0), V(2, -1, 0), V(2, 0, 0)},
                             std::vector<V>{V(0, 0, 0), V(2, 0, 0), V(2, 1, 0)}));
    deleteAll({front, back, tri});
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
        EXPECT_EQ(std::make_tuple(first[1].x, first[2].x), std::make_tuple(1.7f, 1.7f));
        deleteAll({front, back, tri});
    }

    mrPlane split(0.6f, 0.8f, 0, 1.3f);
    mrBSPFace* tri = makeFace(&facePlane, {V(3.68f, 4.74f, 2.04f), V(0.09f, -1.22f, -1.53f), V(0.09f, -1.22f, 3)});
    mrBSPFace *front, *back;
    mrBSPFace::splitFace(tri, &split, &front, &back);
    ASSERT_TRUE(front && back && front->m_winding->m_numpoints == 3);
    // Distances kept in double would give (1.24240971, 0.693192601, -0.384010404).
    const V cut(1.242409586906433f, 0.6931924819946289f, -0.3840104937553406f);
    EXPECT_EQ(std::make_pair(points(front)[1], points(back)[0]), std::make_pair(cut, cut));

    deleteAll({front, back, tri});
}

TEST(SplitFace, OriginalSurvivesItsCutAPieceDoesNot)
{
    mrPlane facePlane(0, 0, 1, 0), split1(1, 0, 0, 1), split2(1, 0, 0, 3);
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
    EXPECT_EQ(std::make_tuple(front2->m_original, back2->m_original), std::make_tuple(original, original));
    deleteAll({front2, back2, original});
    EXPECT_TRUE(originalGone);
}

// ---------------------------------------------------------------- surface bounds

TEST(SurfaceBounds, BoxEnclosesEveryPointOfEveryFaceAndMissingFacesAndWindingsAreReported)
{
    mrPlane plane(0, 0, 1, 0);
    const std::tuple<std::vector<std::vector<V>>, V, V> cases[] = {
        {{{V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)}}, V(0, 0, 0), V(4, 2, 0)},
        {{{V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)}, {V(-3, 5, 1)}}, V(-3, 0, 0), V(4, 5, 1)},
        {{{V(-3, 5, 1)}}, V(-3, 5, 1), V(-3, 5, 1)}, // one point sets minimum and maximum
        // Points beyond the starting values.
        {{{V(-200000, 150000, 0), V(300000, -250000, 0), V(0, 0, 0)}}, V(-200000, -250000, 0), V(300000, 150000, 0)},
    };
    for (const auto& [faces, mins, maxs] : cases)
    {
        mrBSPSurface s; // does not own its faces
        std::vector<std::unique_ptr<mrBSPFace>> owned;
        for (const std::vector<V>& pts : faces)
        {
            owned.emplace_back(withPoints(&plane, pts));
            owned.back()->m_next = s.m_faces;
            s.m_faces = owned.back().get();
        }
        s.calcBounds();
        EXPECT_EQ(std::make_pair(s.m_mins, s.m_maxs), std::make_pair(mins, maxs)) << faces[0][0].x;
    }

    // No face at all, and a face without a winding: reported.
    mtest::AssertRecorder rec;
    mrBSPSurface none;
    none.calcBounds();
    rec.expect({{"0", "mrBSPSurface", 0, "mrBSPSurface::calcBounds: surface without a face"}});
    EXPECT_EQ(std::make_pair(none.m_mins, none.m_maxs),
              std::make_pair(V(99999, 99999, 99999), V(-99999, -99999, -99999)))
        << "the inverted box stays";

    // A face without a winding is skipped.
    rec.clear();
    mrBSPFace* bare = withoutWinding();
    mrBSPFace* tri = makeFace(&plane, {V(1, 1, 0), V(2, 1, 0), V(1, 3, 0)});
    bare->m_next = tri;
    mrBSPSurface s;
    s.m_faces = bare;
    s.calcBounds();
    EXPECT_EQ(rec.count("w"), 1u);
    EXPECT_EQ(std::make_pair(s.m_mins, s.m_maxs), std::make_pair(V(1, 1, 0), V(2, 3, 0)));
    deleteAll({bare, tri});
}
