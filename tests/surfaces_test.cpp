// The surface builder: the plane table, and faces grouped into surfaces.
#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/platform/dx/srTexture.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<int> Ints;
using mtest::addTriangle;

// A plane's normal and distance, to compare both at once.
std::tuple<V, float> nd(const mrPlane* p) { return std::make_tuple(p->m_normal, p->m_dist); }

// The polygon indices of a surface's faces, in list order.
Ints polys(const mrBSPSurface* s)
{
    Ints out;
    for (const mrBSPFace* f = s->m_faces; f; f = f->m_next)
        out.push_back(f->m_polyIndex);
    return out;
}

// Builds the surfaces of mesh, checks every surface has faces and returns them; the
// progress lines go to *log when given.
std::vector<mrBSPSurface*> build(mrBSPSurfaceBuilder& b, srMeshModel& mesh, std::string* log = nullptr)
{
    mtest::LogCapture capture;
    std::vector<mrBSPSurface*> out;
    for (mrBSPSurface* s = b.buildSurfaces(&mesh); s; s = s->m_next)
    {
        EXPECT_NE(s->m_faces, nullptr);
        out.push_back(s);
    }
    EXPECT_EQ(out.size(), b.m_numsurfaces);
    if (log)
        *log = capture.text();
    return out;
}

// Releases what a builder run handed out.
void releaseAll(mrBSPSurfaceBuilder& builder, const std::vector<mrBSPSurface*>& list)
{
    mrBSPTree::releaseSurfaces(list.empty() ? nullptr : list[0]);
    builder.releasePlanes();
}
} // namespace

// ---------------------------------------------------------------- plane table

TEST(PlaneTable, MatchesWithinTheDistanceAndNormalTolerancesAndDegenerateTrianglesGetTheAllZeroPlane)
{
    // cos = 0.99998 (below 0.99999): new plane; cos = 0.999995: shared.
    const float tilt1 = std::sqrt(1.0f - 0.99998f * 0.99998f) / 0.99998f;
    const float tilt2 = std::sqrt(1.0f - 0.999995f * 0.999995f) / 0.999995f;
    struct Case
    {
        V a, b, c;
        int plane;
    } cases[] = {
        {V(0, 0, 5), V(1, 0, 5), V(0, 1, 5), 0},
        {V(3, 3, 5), V(4, 3, 5), V(3, 4, 5), 0},
        {V(0, 0, 5.009f), V(1, 0, 5.009f), V(0, 1, 5.009f), 0},
        {V(0, 0, 5.02f), V(1, 0, 5.02f), V(0, 1, 5.02f), 1},
        {V(0, 0, 5), V(0, 1, 5), V(1, 0, 5), 2}, // opposite winding
        {V(0, 0, 5), V(1, 0, 5), V(0, 1, 5 + tilt1), 3},
        {V(0, 0, 5), V(1, 0, 5), V(0, 1, 5 + tilt2), 0},
    };
    mrBSPSurfaceBuilder b, fresh;
    for (Case& c : cases)
        EXPECT_EQ(b.findPlane(c.a, c.b, c.c), c.plane) << &c - cases;
    // 5.01f lies slightly more than 0.01 from 5.
    EXPECT_EQ(fresh.findPlane(cases[0].a, cases[0].b, cases[0].c), 0);
    V a(0, 0, 5.01f), c(1, 0, 5.01f), d(0, 1, 5.01f);
    EXPECT_EQ(fresh.findPlane(a, c, d), 1);
    fresh.releasePlanes();
    ASSERT_EQ(b.m_numplanes, 4u);
    EXPECT_EQ(nd(b.m_planes[0]), std::make_tuple(V(0, 0, 1), 5.0f));
    EXPECT_EQ(nd(b.m_planes[2]), std::make_tuple(V(0, 0, -1), -5.0f));
    b.releasePlanes();

    // Degenerate triangles each get the all-zero plane, and a surface of their own.
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    addTriangle(mesh, V(0, 0, 0), V(1, 1, 1), V(2, 2, 2));
    addTriangle(mesh, V(3, 3, 3), V(3, 3, 3), V(3, 3, 3));
    addTriangle(mesh, V(5, 5, 0), V(6, 5, 0), V(5, 6, 0));
    mrBSPSurfaceBuilder degenerate;
    std::vector<mrBSPSurface*> list = build(degenerate, mesh);
    ASSERT_EQ(std::make_pair(degenerate.m_numplanes, list.size()), std::make_pair(3u, (size_t)3));
    for (uint32_t i = 1; i < 3; ++i)
        EXPECT_EQ(nd(degenerate.m_planes[i]), std::make_tuple(V(0, 0, 0), 0.0f));
    EXPECT_EQ(std::make_tuple(polys(list[0]), polys(list[1]), polys(list[2])),
              std::make_tuple(Ints{3, 0}, Ints{1}, Ints{2}));
    releaseAll(degenerate, list);
}

// ---------------------------------------------------------------- faces and surfaces

TEST(BuildSurfaces, EmptyMeshGivesNoSurfacesOneTriangleOneFace)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    mrBSPSurfaceBuilder b;
    EXPECT_EQ(b.buildSurfaces(&mesh), nullptr);
    EXPECT_EQ(b.m_numsurfaces, 0u);
    EXPECT_EQ(log.text(), "Importing mesh with 0 polys...\nGenerated 0 planes\n");

    addTriangle(mesh, V(0, 0, 0), V(4, 0, 0), V(0, 2, 0));
    std::vector<mrBSPSurface*> list = build(b, mesh);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(std::make_tuple(list[0]->m_plane, list[0]->m_onNode), std::make_tuple(b.m_planes[0], 0));
    mrBSPFace* f = list[0]->m_faces;
    std::vector<V> pts(f->m_winding->m_points.m_data, f->m_winding->m_points.m_data + f->m_winding->m_numpoints);
    EXPECT_EQ(pts, (std::vector<V>{V(0, 0, 0), V(4, 0, 0), V(0, 2, 0)}));
    EXPECT_EQ(std::make_tuple(f->m_next, f->m_plane, f->m_polyIndex, f->m_original, f->m_mesh, f->m_contents,
                              f->m_backContents),
              std::make_tuple((mrBSPFace*)nullptr, b.m_planes[0], 0, f, &mesh, 0, 1));
    releaseAll(b, list);
}

TEST(BuildSurfaces, ClosedBoxGivesSixPlanesInFirstUseOrderAndASurfacePerPlaneFacesInReverse)
{
    srMeshModel mesh;
    mtest::addBox(mesh, V(0, 0, 0), V(10, 20, 30), true);
    mrBSPSurfaceBuilder b;
    std::string log;
    std::vector<mrBSPSurface*> list = build(b, mesh, &log);
    EXPECT_EQ(log, "Importing mesh with 12 polys...\nGenerated 6 planes\n");
    ASSERT_EQ(std::make_pair(b.m_numplanes, list.size()), std::make_pair(6u, (size_t)6));
    const V normals[6] = {V(1, 0, 0), V(-1, 0, 0), V(0, 1, 0), V(0, -1, 0), V(0, 0, 1), V(0, 0, -1)};
    const float dists[6] = {10, 0, 20, 0, 30, 0};
    for (uint32_t i = 0; i < 6; ++i)
    {
        // Highest polygon first.
        EXPECT_EQ(std::make_tuple(nd(b.m_planes[i]), b.m_polyPlanes[2 * i], b.m_polyPlanes[2 * i + 1], list[i]->m_plane,
                                  polys(list[i])),
                  std::make_tuple(std::make_tuple(normals[i], dists[i]), (int32_t)i, (int32_t)i, b.m_planes[i],
                                  Ints{2 * (int)i + 1, 2 * (int)i}))
            << i;
        for (mrBSPFace* f = list[i]->m_faces; f; f = f->m_next)
            EXPECT_EQ(f->m_plane, list[i]->m_plane);
    }
    mrBSPTree::releaseSurfaces(list[0]);

    // A second run numbers from zero again; the earlier planes are untouched apart from
    // entry 0 of the table.
    std::vector<mrPlane*> first(b.m_planes.m_data, b.m_planes.m_data + b.m_numplanes);
    srMeshModel tri;
    addTriangle(tri, V(0, 0, 7), V(0, 1, 7), V(1, 0, 7));
    b.m_mesh = &tri;
    b.generatePlanes();
    EXPECT_EQ(std::make_tuple(b.m_numplanes, b.m_polyPlanes[0], b.m_planes[0]->m_normal, first[0]->m_normal),
              std::make_tuple(1u, 0, V(0, 0, -1), V(1, 0, 0)));
    b.releasePlanes();
    for (mrPlane* p : first)
        delete p;
}

TEST(BuildSurfaces, TexturesPerPolygonOrFromTheMesh)
{
    srTexture* meshTex = new srTexture("mesh");
    srTexture* polyTex = new srTexture("poly");
    srMeshModel mesh; // holds the last references once ours are released
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    addTriangle(mesh, V(0, 0, 1), V(1, 0, 1), V(0, 1, 1));
    mesh.setTexture(meshTex);
    meshTex->release();
    mrBSPSurfaceBuilder b;
    std::vector<mrBSPSurface*> list = build(b, mesh);
    for (mrBSPSurface* s : list)
        EXPECT_EQ(s->m_faces->m_texture, meshTex);
    releaseAll(b, list);
    mesh.setPolyTexture(1, polyTex);
    polyTex->release();
    list = build(b, mesh);
    ASSERT_EQ(list.size(), 2u);
    // Polygon 0 has no texture of its own.
    EXPECT_EQ(std::make_tuple(list[0]->m_faces->m_texture, list[1]->m_faces->m_texture),
              std::make_tuple(nullptr, polyTex));

    releaseAll(b, list);
}
