// Windings: the base polygon of a plane, clipping and dividing, and the plane of a winding.
#include <gtest/gtest.h>

#include <vector>

#include "platform/geom/mrPlane.h"
#include "platform/geom/mrWinding.h"

// Readable failure messages for points.
void PrintTo(const srVector3T<float>& v, std::ostream* os) { *os << "(" << v.x << ", " << v.y << ", " << v.z << ")"; }

namespace
{
typedef srVector3T<float> V;

mrWinding* makeWinding(const std::vector<V>& pts)
{
    mrWinding* w = new mrWinding(4);
    for (const V& p : pts)
        w->addPoint(p);
    return w;
}

std::vector<V> points(mrWinding* w)
{
    std::vector<V> out;
    for (int i = 0; i < w->m_numpoints; ++i)
        out.push_back(w->m_points[(uint32_t)i]);
    return out;
}

// A 10 x 10 square on z = 0 from (0,0) to (10,10), counter-clockwise seen from +z.
std::vector<V> square() { return {V(0, 0, 0), V(10, 0, 0), V(10, 10, 0), V(0, 10, 0)}; }
} // namespace

TEST(WindingBase, AxialPlaneZCorners)
{
    mrPlane plane(0, 0, 1, 10);
    mrWinding w(4);
    w.baseFromPlane(plane);
    std::vector<V> expected = {V(-65536, 65536, 10), V(-65536, -65536, 10), V(65536, -65536, 10),
                               V(65536, 65536, 10)};
    EXPECT_EQ(points(&w), expected);
}

TEST(WindingBase, AxialPlaneXCorners)
{
    mrPlane plane(1, 0, 0, -24);
    mrWinding w(4);
    w.baseFromPlane(plane);
    std::vector<V> expected = {V(-24, -65536, -65536), V(-24, 65536, -65536), V(-24, 65536, 65536),
                               V(-24, -65536, 65536)};
    EXPECT_EQ(points(&w), expected);
}

TEST(WindingBase, SkewPlaneCornersArePinned)
{
    // Normal (1, 2, 3) / sqrt(14) as floats, distance 7.5.
    mrPlane plane(0x1.11aceep-2f, 0x1.11aceep-1f, 0x1.9a8366p-1f, 7.5f);
    mrWinding w(4);
    w.baseFromPlane(plane);
    std::vector<V> expected = {V(-0x1.ed5c22p+15f, 0x1.f5f1ecp+15f, -0x1.54350ep+14f),
                               V(-0x1.ed5c22p+15f, -0x1.5e1314p+15f, 0x1.8de8ccp+15f),
                               V(0x1.ed6426p+15f, -0x1.f5e1e2p+15f, 0x1.54652ap+14f),
                               V(0x1.ed6426p+15f, 0x1.5e231cp+15f, -0x1.8dd0bep+15f)};
    EXPECT_EQ(points(&w), expected);
}

TEST(WindingBase, ReplacesEarlierPoints)
{
    mrWinding* w = makeWinding({V(1, 2, 3), V(4, 5, 6), V(7, 8, 9), V(1, 1, 1), V(2, 2, 2)});
    mrPlane plane(0, 1, 0, 5);
    w->baseFromPlane(plane);
    EXPECT_EQ(w->m_numpoints, 4);
    delete w;
}

TEST(WindingPlane, BaseWindingGivesBackItsPlane)
{
    const mrPlane planes[] = {mrPlane(0, 0, 1, 10), mrPlane(0, 0, -1, 3), mrPlane(-1, 0, 0, 7),
                              mrPlane(0, 1, 0, -2), mrPlane(0x1.11aceep-2f, 0x1.11aceep-1f, 0x1.9a8366p-1f, 7.5f)};
    for (mrPlane plane : planes)
    {
        mrWinding w(4);
        w.baseFromPlane(plane);
        mrPlane got;
        w.getPlane(got);
        double dot = (double)got.m_normal.x * plane.m_normal.x + (double)got.m_normal.y * plane.m_normal.y +
                     (double)got.m_normal.z * plane.m_normal.z;
        EXPECT_GT(dot, 0.99999) << plane.m_normal.x << " " << plane.m_normal.y << " " << plane.m_normal.z;
    }
    mrWinding w(4);
    mrPlane axial(0, 0, -1, 3);
    w.baseFromPlane(axial);
    mrPlane got;
    w.getPlane(got);
    EXPECT_EQ(got.m_normal, axial.m_normal);
    EXPECT_EQ(got.m_dist, axial.m_dist);
}

TEST(WindingPlane, FollowsPointOrderAndNeedsThreePoints)
{
    mrWinding* w = makeWinding({V(0, 0, 0), V(0, 10, 0), V(10, 10, 0)}); // clockwise from +z
    mrPlane got;
    w->getPlane(got);
    EXPECT_EQ(got.m_normal, V(0, 0, -1));
    delete w;

    mrWinding* two = makeWinding({V(0, 0, 0), V(1, 0, 0)});
    got = mrPlane(1, 1, 1, 1);
    two->getPlane(got);
    EXPECT_EQ(got.m_normal, V(0, 0, 0));
    EXPECT_EQ(got.m_dist, 0.0f);
    delete two;
}

TEST(WindingCopy, CopiesCountAndPoints)
{
    mrWinding* w = makeWinding(square());
    mrWinding copy(*w);
    mrWinding assigned(4);
    assigned = *w;
    w->m_points[0] = V(99, 99, 99);
    EXPECT_EQ(points(&copy), square());
    EXPECT_EQ(points(&assigned), square());
    delete w;
}

TEST(WindingClip, OnPlaneWindingIsKept)
{
    mrWinding* w = makeWinding(square());
    mrPlane plane(0, 0, 1, 0.005f);
    EXPECT_EQ(mrWinding::clip(w, &plane, 1), w);
    EXPECT_EQ(points(w), square());
    delete w;
}

TEST(WindingClip, OnPlaneWindingWithoutKeepIsDropped)
{
    mrWinding* w = makeWinding(square());
    mrPlane plane(0, 0, 1, 0);
    EXPECT_EQ(mrWinding::clip(w, &plane, 0), nullptr);
}

TEST(WindingClip, FrontAndBackWindings)
{
    mrWinding* w = makeWinding(square());
    mrPlane below(0, 0, 1, -5);
    EXPECT_EQ(mrWinding::clip(w, &below, 1), w);
    mrPlane above(0, 0, 1, 5);
    EXPECT_EQ(mrWinding::clip(w, &above, 1), nullptr); // released: LeakSanitizer checks
}

TEST(WindingClip, PointWithinToleranceCountsAsOn)
{
    // x = 4.99 is 0.01 from the plane x = 5 (on it), the rest behind: nothing in front.
    mrWinding* w = makeWinding({V(4.99f, 0, 0), V(0, 0, 0), V(0, 10, 0)});
    mrPlane plane(1, 0, 0, 5);
    EXPECT_EQ(mrWinding::clip(w, &plane, 1), nullptr);
}

TEST(WindingClip, StraddlingSquareKeepsFrontPartInOrder)
{
    mrWinding* w = makeWinding(square());
    mrPlane plane(1, 0, 0, 4);
    mrWinding* out = mrWinding::clip(w, &plane, 1);
    ASSERT_NE(out, nullptr);
    ASSERT_NE(out, w);
    std::vector<V> expected = {V(4, 0, 0), V(10, 0, 0), V(10, 10, 0), V(4, 10, 0)};
    EXPECT_EQ(points(out), expected);
    delete out;
}

TEST(WindingClip, AxialCrossingTakesThePlaneDistanceExactly)
{
    // Both normals are exactly axial; the crossing coordinate is dist (or -dist) as given.
    mrWinding* w = makeWinding({V(0, 0, 0), V(1, 0, 0), V(1, 1, 0)});
    mrPlane plane(-1, 0, 0, -0.3f); // keeps x <= 0.3
    mrWinding* out = mrWinding::clip(w, &plane, 1);
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(out->m_numpoints, 3);
    EXPECT_EQ(out->m_points[1].x, 0.3f);
    EXPECT_EQ(out->m_points[2].x, 0.3f);
    EXPECT_EQ(out->m_points[2].y, 0.3f);
    delete out;
}

TEST(WindingClip, CrossingUsesDoubleDistances)
{
    // With the distances rounded to float first, the crossing on the first edge would land
    // on x = 8 exactly; kept in double it lands one float step below.
    mrWinding* w = makeWinding({V(42, 64, 0), V(-75, -53, 0), V(-75, 64, 0)});
    mrPlane plane(0.6f, 0.8f, 0, 28.8f);
    mrWinding* out = mrWinding::clip(w, &plane, 1);
    ASSERT_NE(out, nullptr);
    std::vector<V> expected = {V(42, 64, 0), V(0x1.fffffcp+2f, 30, 0), V(-0x1.2aaaacp+5f, 64, 0)};
    EXPECT_EQ(points(out), expected);
    delete out;
}

TEST(WindingClip, EmptyWindingStays)
{
    mrWinding* w = new mrWinding(4);
    mrPlane plane(1, 0, 0, 0);
    EXPECT_EQ(mrWinding::clip(w, &plane, 1), w);
    delete w;
}

TEST(WindingDivide, OnPlaneWindingGoesFront)
{
    mrWinding* w = makeWinding(square());
    mrPlane plane(0, 0, -1, 0);
    mrWinding *front = nullptr, *back = nullptr;
    mrWinding::divide(w, &plane, &front, &back);
    EXPECT_EQ(front, w);
    EXPECT_EQ(back, nullptr);
    delete w;
}

TEST(WindingDivide, WholeSideGetsTheWindingItself)
{
    mrWinding* w = makeWinding(square());
    mrPlane right(1, 0, 0, 20);
    mrWinding *front = w, *back = w;
    mrWinding::divide(w, &right, &front, &back);
    EXPECT_EQ(front, nullptr);
    EXPECT_EQ(back, w);

    // One corner on the plane, the rest in front: still whole.
    mrPlane left(1, 0, 0, 0);
    mrWinding::divide(w, &left, &front, &back);
    EXPECT_EQ(front, w);
    EXPECT_EQ(back, nullptr);
    delete w;
}

TEST(WindingDivide, StraddleGivesTwoNewWindingsSharingCrossings)
{
    mrWinding* w = makeWinding(square());
    mrPlane plane(0, 1, 0, 5);
    mrWinding *front = nullptr, *back = nullptr;
    mrWinding::divide(w, &plane, &front, &back);
    ASSERT_NE(front, nullptr);
    ASSERT_NE(back, nullptr);
    EXPECT_NE(front, w);
    EXPECT_NE(back, w);
    EXPECT_EQ(points(back), (std::vector<V>{V(0, 0, 0), V(10, 0, 0), V(10, 5, 0), V(0, 5, 0)}));
    EXPECT_EQ(points(front), (std::vector<V>{V(10, 5, 0), V(10, 10, 0), V(0, 10, 0), V(0, 5, 0)}));
    EXPECT_EQ(points(w), square()); // left to the caller, untouched
    delete front;
    delete back;
    delete w;
}

TEST(WindingDivide, OnPlaneVertexBelongsToBothParts)
{
    // A triangle with its apex on the plane y = 0 (x = 0) and the base straddling it.
    mrWinding* w = makeWinding({V(0, 10, 0), V(-5, 0, 0), V(5, 0, 0)});
    mrPlane plane(1, 0, 0, 0);
    mrWinding *front = nullptr, *back = nullptr;
    mrWinding::divide(w, &plane, &front, &back);
    ASSERT_NE(front, nullptr);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(points(back), (std::vector<V>{V(0, 10, 0), V(-5, 0, 0), V(0, 0, 0)}));
    EXPECT_EQ(points(front), (std::vector<V>{V(0, 10, 0), V(0, 0, 0), V(5, 0, 0)}));
    delete front;
    delete back;
    delete w;
}
