// Windings: the base polygon of a plane, clipping and dividing, and the plane of a winding.
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/platform/geom/mrPlane.h>
#include <meridbsp/platform/geom/mrWinding.h>

// Readable failure messages for points.
void PrintTo(const srVector3T<float>& v, std::ostream* os) { *os << "(" << v.x << ", " << v.y << ", " << v.z << ")"; }

namespace
{
typedef srVector3T<float> V;
typedef std::vector<V> Points;

mrWinding* makeWinding(const Points& pts)
{
    mrWinding* w = new mrWinding(4);
    for (const V& p : pts)
        w->addPoint(p);
    return w;
}

Points points(mrWinding* w)
{
    Points out;
    for (int i = 0; i < w->m_numpoints; ++i)
        out.push_back(w->m_points[(uint32_t)i]);
    return out;
}

// A 10 x 10 square on z = 0 from (0,0) to (10,10), counter-clockwise seen from +z.
const Points kSquare = {V(0, 0, 0), V(10, 0, 0), V(10, 10, 0), V(0, 10, 0)};
// Normal (1, 2, 3) / sqrt(14) as floats, distance 7.5.
const mrPlane kSkew(0x1.11aceep-2f, 0x1.11aceep-1f, 0x1.9a8366p-1f, 7.5f);

// The plane of a winding with these points, starting from a plane that is not all zero.
mrPlane planeOf(const Points& pts)
{
    mrWinding* w = makeWinding(pts);
    mrPlane got(1, 1, 1, 1);
    w->getPlane(got);
    delete w;
    return got;
}

// What a clip or a divide hands back: the winding itself, nothing, or new points.
constexpr int SAME = 0, NONE = 1, NEW = 2;
void expectResult(mrWinding* got, mrWinding* in, int result, const Points& pts)
{
    if (result == NEW)
    {
        ASSERT_TRUE(got && got != in);
        EXPECT_EQ(points(got), pts);
        delete got;
    }
    else
        EXPECT_EQ(got, result == SAME ? in : nullptr);
}
} // namespace

TEST(WindingBase, CornersArePinnedAndReplaceEarlierPoints)
{
    const std::pair<mrPlane, Points> cases[] = {
        {mrPlane(0, 0, 1, 10),
         {V(-65536, 65536, 10), V(-65536, -65536, 10), V(65536, -65536, 10), V(65536, 65536, 10)}},
        {mrPlane(1, 0, 0, -24),
         {V(-24, -65536, -65536), V(-24, 65536, -65536), V(-24, 65536, 65536), V(-24, -65536, 65536)}},
        {kSkew,
         {V(-0x1.ed5c22p+15f, 0x1.f5f1ecp+15f, -0x1.54350ep+14f),
          V(-0x1.ed5c22p+15f, -0x1.5e1314p+15f, 0x1.8de8ccp+15f), V(0x1.ed6426p+15f, -0x1.f5e1e2p+15f, 0x1.54652ap+14f),
          V(0x1.ed6426p+15f, 0x1.5e231cp+15f, -0x1.8dd0bep+15f)}},
    };
    for (auto c : cases)
    {
        mrWinding* w = makeWinding({V(1, 2, 3), V(4, 5, 6), V(7, 8, 9), V(1, 1, 1), V(2, 2, 2)});
        w->baseFromPlane(c.first);
        EXPECT_EQ(points(w), c.second);
        delete w;
    }
}

TEST(WindingPlane, BaseWindingGivesBackItsPlaneAndPointOrderSetsTheNormal)
{
    for (mrPlane plane :
         {mrPlane(0, 0, 1, 10), mrPlane(0, 0, -1, 3), mrPlane(-1, 0, 0, 7), mrPlane(0, 1, 0, -2), kSkew})
    {
        mrWinding w(4);
        w.baseFromPlane(plane);
        mrPlane got;
        w.getPlane(got);
        double dot = (double)got.m_normal.x * plane.m_normal.x + (double)got.m_normal.y * plane.m_normal.y +
                     (double)got.m_normal.z * plane.m_normal.z;
        EXPECT_GT(dot, 0.99999) << plane.m_normal.x << " " << plane.m_normal.y << " " << plane.m_normal.z;
        if (plane.m_normal.z == -1) // axial: exactly
        {
            EXPECT_EQ(std::tie(got.m_normal, got.m_dist), std::tie(plane.m_normal, plane.m_dist));
        }
    }
    // Clockwise from +z; then fewer than three points: no plane.
    EXPECT_EQ(planeOf({V(0, 0, 0), V(0, 10, 0), V(10, 10, 0)}).m_normal, V(0, 0, -1));
    mrPlane none = planeOf({V(0, 0, 0), V(1, 0, 0)});
    EXPECT_EQ(std::tie(none.m_normal, none.m_dist), std::make_tuple(V(0, 0, 0), 0.0f));
}

TEST(WindingClip, KeepsTheFrontPartInOrder)
{
    int row = 0;
    auto check = [&](const Points& in, mrPlane plane, int keep, int result, const Points& out)
    {
        SCOPED_TRACE(row++);
        mrWinding* w = makeWinding(in);
        mrWinding* got = mrWinding::clip(w, &plane, keep);
        EXPECT_EQ(result == SAME ? points(w) : in, in);
        expectResult(got, w, result, out);
        if (result == SAME)
            delete w;
    };
    check(kSquare, mrPlane(0, 0, 1, 0.005f), 1, SAME, {}); // on the plane, kept
    check(kSquare, mrPlane(0, 0, 1, 0), 0, NONE, {});      // on the plane, not kept
    check(kSquare, mrPlane(0, 0, 1, -5), 1, SAME, {});     // wholly in front
    check(kSquare, mrPlane(0, 0, 1, 5), 1, NONE, {});      // wholly behind: released
    // x = 4.99 is 0.01 from the plane x = 5 (on it), the rest behind: nothing in front.
    check({V(4.99f, 0, 0), V(0, 0, 0), V(0, 10, 0)}, mrPlane(1, 0, 0, 5), 1, NONE, {});
    check(kSquare, mrPlane(1, 0, 0, 4), 1, NEW, {V(4, 0, 0), V(10, 0, 0), V(10, 10, 0), V(4, 10, 0)});
    // Exactly axial normals: the crossing coordinate is dist (or -dist) as given.
    check({V(0, 0, 0), V(1, 0, 0), V(1, 1, 0)}, mrPlane(-1, 0, 0, -0.3f), 1, NEW,
          {V(0, 0, 0), V(0.3f, 0, 0), V(0.3f, 0.3f, 0)});
    // With the distances rounded to float first, the crossing on the first edge would
    // land on x = 8 exactly; kept in double it lands one float step below.
    check({V(42, 64, 0), V(-75, -53, 0), V(-75, 64, 0)}, mrPlane(0.6f, 0.8f, 0, 28.8f), 1, NEW,
          {V(42, 64, 0), V(0x1.fffffcp+2f, 30, 0), V(-0x1.2aaaacp+5f, 64, 0)});
    check({}, mrPlane(1, 0, 0, 0), 1, SAME, {}); // an empty winding stays
}

TEST(WindingDivide, GivesTheWindingItselfOrTwoNewPartsSharingCrossings)
{
    int row = 0;
    auto check =
        [&](const Points& in, mrPlane plane, int front, int back, const Points& frontPts, const Points& backPts)
    {
        SCOPED_TRACE(row++);
        mrWinding* w = makeWinding(in);
        mrWinding *f = w, *b = w;
        mrWinding::divide(w, &plane, &f, &b);
        expectResult(f, w, front, frontPts);
        expectResult(b, w, back, backPts);
        EXPECT_EQ(points(w), in); // left to the caller, untouched
        delete w;
    };
    check(kSquare, mrPlane(0, 0, -1, 0), SAME, NONE, {}, {}); // on the plane: front
    check(kSquare, mrPlane(1, 0, 0, 20), NONE, SAME, {}, {});
    check(kSquare, mrPlane(1, 0, 0, 0), SAME, NONE, {}, {}); // one corner on the plane, the rest in front
    check(kSquare, mrPlane(0, 1, 0, 5), NEW, NEW, {V(10, 5, 0), V(10, 10, 0), V(0, 10, 0), V(0, 5, 0)},
          {V(0, 0, 0), V(10, 0, 0), V(10, 5, 0), V(0, 5, 0)});
    // The apex on the plane belongs to both parts.
    check({V(0, 10, 0), V(-5, 0, 0), V(5, 0, 0)}, mrPlane(1, 0, 0, 0), NEW, NEW, {V(0, 10, 0), V(0, 0, 0), V(5, 0, 0)},
          {V(0, 10, 0), V(-5, 0, 0), V(0, 0, 0)});
}
