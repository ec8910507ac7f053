#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "platform/dx/srTexture.h"
#include "solid/mrBSPTree.h"
#include "support/TestSupport.h"
#include "surfaces/mrBSPSurfaceBuilder.h"

namespace
{
typedef srVector3T<float> V;

int addTriangle(srMeshModel& mesh, V a, V b, V c)
{
    long i = mesh.addVertex(a);
    mesh.addVertex(b);
    mesh.addVertex(c);
    return (int)mesh.addPolygon((int)i, (int)i + 1, (int)i + 2);
}

int countFaces(const mrBSPSurface* s)
{
    int n = 0;
    for (const mrBSPFace* f = s->m_faces; f; f = f->m_next)
        ++n;
    return n;
}

// Releases what a builder run handed out.
void releaseAll(mrBSPSurfaceBuilder& builder, mrBSPSurface* list)
{
    mrBSPTree::releaseSurfaces(list);
    builder.releasePlanes();
}
} // namespace

// ---------------------------------------------------------------- plane table

TEST(PlaneTable, MatchesWithinTheDistanceTolerance)
{
    mtest::LogCapture log;
    mrBSPSurfaceBuilder b;
    V a(0, 0, 5), c(1, 0, 5), d(0, 1, 5);
    EXPECT_EQ(b.findPlane(a, c, d), 0);
    V a2(3, 3, 5), c2(4, 3, 5), d2(3, 4, 5);
    EXPECT_EQ(b.findPlane(a2, c2, d2), 0);
    V a3(0, 0, 5.009f), c3(1, 0, 5.009f), d3(0, 1, 5.009f);
    EXPECT_EQ(b.findPlane(a3, c3, d3), 0);
    V a4(0, 0, 5.02f), c4(1, 0, 5.02f), d4(0, 1, 5.02f);
    EXPECT_EQ(b.findPlane(a4, c4, d4), 1);
    ASSERT_EQ(b.m_numplanes, 2u);
    EXPECT_EQ(b.m_planes[0]->m_normal, V(0, 0, 1));
    EXPECT_EQ(b.m_planes[0]->m_dist, 5.0f);
    b.releasePlanes();

    // 5.01f lies slightly more than 0.01 from 5.
    mrBSPSurfaceBuilder fresh;
    EXPECT_EQ(fresh.findPlane(a, c, d), 0);
    V a5(0, 0, 5.01f), c5(1, 0, 5.01f), d5(0, 1, 5.01f);
    EXPECT_EQ(fresh.findPlane(a5, c5, d5), 1);
    fresh.releasePlanes();
}

TEST(PlaneTable, OppositeWindingAndTiltedNormalsGetTheirOwnPlanes)
{
    mrBSPSurfaceBuilder b;
    V a(0, 0, 5), c(1, 0, 5), d(0, 1, 5);
    EXPECT_EQ(b.findPlane(a, c, d), 0);
    EXPECT_EQ(b.findPlane(a, d, c), 1);
    EXPECT_EQ(b.m_planes[1]->m_normal, V(0, 0, -1));
    EXPECT_EQ(b.m_planes[1]->m_dist, -5.0f);

    // cos = 0.99998 (below 0.99999): new plane; cos = 0.999995: shared.
    float s1 = std::sqrt(1.0f - 0.99998f * 0.99998f) / 0.99998f;
    V u0(0, 0, 5), u1(1, 0, 5), u2(0, 1, 5 + s1);
    EXPECT_EQ(b.findPlane(u0, u1, u2), 2);
    float s2 = std::sqrt(1.0f - 0.999995f * 0.999995f) / 0.999995f;
    V w0(0, 0, 5), w1(1, 0, 5), w2(0, 1, 5 + s2);
    EXPECT_EQ(b.findPlane(w0, w1, w2), 0);
    b.releasePlanes();
}

TEST(PlaneTable, ClosedBoxGivesSixPlanesInFirstUseOrder)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    mtest::addBox(mesh, V(0, 0, 0), V(10, 20, 30), true);
    mrBSPSurfaceBuilder b;
    b.m_mesh = &mesh;
    b.generatePlanes();
    EXPECT_EQ(log.text(), "Importing mesh with 12 polys...\nGenerated 6 planes\n");
    ASSERT_EQ(b.m_numplanes, 6u);
    const V normals[6] = {V(1, 0, 0), V(-1, 0, 0), V(0, 1, 0), V(0, -1, 0), V(0, 0, 1), V(0, 0, -1)};
    const float dists[6] = {10, 0, 20, 0, 30, 0};
    for (uint32_t i = 0; i < 6; ++i)
    {
        EXPECT_EQ(b.m_planes[i]->m_normal, normals[i]) << i;
        EXPECT_EQ(b.m_planes[i]->m_dist, dists[i]) << i;
    }
    for (uint32_t k = 0; k < 12; ++k)
        EXPECT_EQ(b.m_polyPlanes[k], (int32_t)(k / 2));
    b.releasePlanes();
}

TEST(PlaneTable, RegenerationNumbersFromZeroAgain)
{
    mtest::LogCapture log;
    srMeshModel box, tri;
    mtest::addBox(box, V(0, 0, 0), V(1, 1, 1), true);
    addTriangle(tri, V(0, 0, 7), V(0, 1, 7), V(1, 0, 7));
    mrBSPSurfaceBuilder b;
    b.m_mesh = &box;
    b.generatePlanes();
    std::vector<mrPlane*> first(b.m_planes.m_data, b.m_planes.m_data + b.m_numplanes);
    b.m_mesh = &tri;
    b.generatePlanes();
    EXPECT_EQ(b.m_numplanes, 1u);
    EXPECT_EQ(b.m_polyPlanes[0], 0);
    EXPECT_EQ(b.m_planes[0]->m_normal, V(0, 0, -1));
    // The earlier planes are untouched apart from entry 0 of the table.
    EXPECT_EQ(first[0]->m_normal, V(1, 0, 0));
    b.releasePlanes();
    for (mrPlane* p : first)
        delete p;
}

TEST(PlaneTable, DegenerateTrianglesEachGetTheAllZeroPlane)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(1, 1, 1), V(2, 2, 2));
    addTriangle(mesh, V(3, 3, 3), V(3, 3, 3), V(3, 3, 3));
    mrBSPSurfaceBuilder b;
    b.m_mesh = &mesh;
    b.generatePlanes();
    ASSERT_EQ(b.m_numplanes, 2u);
    for (uint32_t i = 0; i < 2; ++i)
    {
        EXPECT_EQ(b.m_planes[i]->m_normal, V(0, 0, 0));
        EXPECT_EQ(b.m_planes[i]->m_dist, 0.0f);
    }
    b.releasePlanes();
}

// ---------------------------------------------------------------- faces and surfaces

TEST(BuildSurfaces, OneTriangle)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(4, 0, 0), V(0, 2, 0));
    mrBSPSurfaceBuilder b;
    mrBSPSurface* list = b.buildSurfaces(&mesh);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->m_next, nullptr);
    EXPECT_EQ(list->m_plane, b.m_planes[0]);
    EXPECT_EQ(list->m_onNode, 0);
    EXPECT_EQ(b.m_numsurfaces, 1u);
    mrBSPFace* f = list->m_faces;
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->m_next, nullptr);
    ASSERT_EQ(f->m_winding->m_numpoints, 3);
    EXPECT_EQ(f->m_winding->m_points[0], V(0, 0, 0));
    EXPECT_EQ(f->m_winding->m_points[1], V(4, 0, 0));
    EXPECT_EQ(f->m_winding->m_points[2], V(0, 2, 0));
    EXPECT_EQ(f->m_plane, b.m_planes[0]);
    EXPECT_EQ(f->m_polyIndex, 0);
    EXPECT_EQ(f->m_original, f);
    EXPECT_EQ(f->m_contents, 0);
    EXPECT_EQ(f->m_backContents, 1);
    EXPECT_EQ(f->m_mesh, &mesh);
    releaseAll(b, list);
}

TEST(BuildSurfaces, CoplanarTrianglesComeInReversePolygonOrder)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    addTriangle(mesh, V(5, 5, 0), V(6, 5, 0), V(5, 6, 0));
    mrBSPSurfaceBuilder b;
    mrBSPSurface* list = b.buildSurfaces(&mesh);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->m_next, nullptr);
    ASSERT_EQ(countFaces(list), 2);
    EXPECT_EQ(list->m_faces->m_polyIndex, 1);
    EXPECT_EQ(list->m_faces->m_next->m_polyIndex, 0);
    releaseAll(b, list);
}

TEST(BuildSurfaces, ClosedBoxGivesSixSurfacesOfTwoFaces)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    mtest::addBox(mesh, V(-1, -2, -3), V(1, 2, 3), true);
    mrBSPSurfaceBuilder b;
    mrBSPSurface* list = b.buildSurfaces(&mesh);
    int i = 0;
    for (mrBSPSurface* s = list; s; s = s->m_next, ++i)
    {
        ASSERT_LT(i, 6);
        EXPECT_EQ(s->m_plane, b.m_planes[(uint32_t)i]);
        ASSERT_EQ(countFaces(s), 2);
        // Highest polygon first.
        EXPECT_EQ(s->m_faces->m_polyIndex, 2 * i + 1);
        EXPECT_EQ(s->m_faces->m_next->m_polyIndex, 2 * i);
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
            EXPECT_EQ(f->m_plane, s->m_plane);
    }
    EXPECT_EQ(i, 6);
    releaseAll(b, list);
}

TEST(BuildSurfaces, TexturesPerPolygonOrFromTheMesh)
{
    mtest::LogCapture log;
    srTexture* meshTex = new srTexture("mesh");
    srTexture* polyTex = new srTexture("poly");
    {
        srMeshModel mesh;
        addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
        addTriangle(mesh, V(0, 0, 1), V(1, 0, 1), V(0, 1, 1));
        mesh.setTexture(meshTex);
        mrBSPSurfaceBuilder b;
        mrBSPSurface* list = b.buildSurfaces(&mesh);
        for (mrBSPSurface* s = list; s; s = s->m_next)
            EXPECT_EQ(s->m_faces->m_texture, meshTex);
        releaseAll(b, list);

        mesh.setPolyTexture(1, polyTex);
        list = b.buildSurfaces(&mesh);
        ASSERT_NE(list, nullptr);
        ASSERT_NE(list->m_next, nullptr);
        EXPECT_EQ(list->m_faces->m_texture, nullptr); // polygon 0 has no texture of its own
        EXPECT_EQ(list->m_next->m_faces->m_texture, polyTex);
        releaseAll(b, list);
    }
    meshTex->release();
    polyTex->release();
}

TEST(BuildSurfaces, EmptyMeshGivesNoSurfaces)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    mrBSPSurfaceBuilder b;
    EXPECT_EQ(b.buildSurfaces(&mesh), nullptr);
    EXPECT_EQ(b.m_numsurfaces, 0u);
    EXPECT_EQ(log.text(), "Importing mesh with 0 polys...\nGenerated 0 planes\n");
}

TEST(BuildSurfaces, DegenerateTriangleGetsItsOwnSurface)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(2, 0, 0));
    addTriangle(mesh, V(5, 5, 0), V(6, 5, 0), V(5, 6, 0));
    mrBSPSurfaceBuilder b;
    mrBSPSurface* list = b.buildSurfaces(&mesh);
    ASSERT_EQ(b.m_numsurfaces, 2u);
    EXPECT_EQ(countFaces(list), 2);
    mrBSPSurface* degenerate = list->m_next;
    ASSERT_NE(degenerate, nullptr);
    EXPECT_EQ(countFaces(degenerate), 1);
    EXPECT_EQ(degenerate->m_faces->m_polyIndex, 1);
    EXPECT_EQ(degenerate->m_plane->m_normal, V(0, 0, 0));
    releaseAll(b, list);
}

TEST(BuildSurfaces, EveryReturnedSurfaceHasFaces)
{
    mtest::LogCapture log;
    srMeshModel mesh;
    mtest::addTwoRoomLevel(mesh);
    mrBSPSurfaceBuilder b;
    mrBSPSurface* list = b.buildSurfaces(&mesh);
    uint32_t n = 0;
    int faces = 0;
    for (mrBSPSurface* s = list; s; s = s->m_next, ++n)
    {
        EXPECT_NE(s->m_faces, nullptr);
        faces += countFaces(s);
    }
    EXPECT_EQ(n, b.m_numsurfaces);
    EXPECT_EQ(faces, (int)mesh.m_numpolys);
    releaseAll(b, list);
}
