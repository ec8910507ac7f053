#include "surfaces/mrBSPSurfaceBuilder.h"

#include <cmath>

#include "platform/dx/srOutput.h"

mrBSPSurfaceBuilder::~mrBSPSurfaceBuilder()
{
    m_polyPlanes.clear();
    m_surfaces.clear();
    m_planes.clear();
}

int mrBSPSurfaceBuilder::findPlane(srVector3T<float>& a, srVector3T<float>& b, srVector3T<float>& c)
{
    mrPlane plane;
    plane.make(a, b, c);
    const double nx = plane.m_normal.x, ny = plane.m_normal.y, nz = plane.m_normal.z;
    const double d = plane.m_dist;

    // Linear search; the first match wins. Both tests are strict and done in double from
    // the stored floats, the dot product summed x, y, z (part of the reproducibility
    // promise). Degenerate triangles are kept: their all-zero normal never matches, so
    // each gets a plane, face and surface of its own (also part of that promise).
    for (uint32_t i = 0; i < m_numplanes; ++i)
    {
        const mrPlane* p = m_planes[i];
        double dot = (double)p->m_normal.x * nx + (double)p->m_normal.y * ny + (double)p->m_normal.z * nz;
        if (dot > 0.99999 && std::fabs((double)p->m_dist - d) < 0.01)
            return (int)i;
    }

    mrPlane* added = new mrPlane;
    added->m_normal = plane.m_normal;
    added->m_dist = plane.m_dist;
    m_planes[m_numplanes] = added;
    return (int)m_numplanes++;
}

void mrBSPSurfaceBuilder::generatePlanes()
{
    // Planes of an earlier run stay alive for whoever points to them.
    m_numplanes = 0;

    long count = m_mesh ? m_mesh->m_numpolys : 0;
    srVector3i* polys = m_mesh ? m_mesh->getPolyVertex() : nullptr;
    srVector3T<float>* verts = m_mesh ? m_mesh->getVertexLoc() : nullptr;

    srPrintf("Importing mesh with %i polys...\n", (int)count);
    for (long k = 0; k < count; ++k)
    {
        const srVector3i& tri = polys[k];
        m_polyPlanes[(uint32_t)k] = findPlane(verts[tri.x], verts[tri.y], verts[tri.z]);
    }
    srPrintf("Generated %i planes\n", (int)m_numplanes);
}

void mrBSPSurfaceBuilder::createSurfaces()
{
    for (uint32_t i = 0; i < m_numplanes; ++i)
    {
        mrBSPSurface* s = new mrBSPSurface;
        m_surfaces[i] = s;
        s->m_plane = m_planes[i];
    }
    m_numsurfaces = m_numplanes;
}

void mrBSPSurfaceBuilder::createFaces()
{
    long count = m_mesh ? m_mesh->m_numpolys : 0;
    srVector3i* polys = m_mesh ? m_mesh->getPolyVertex() : nullptr;
    srVector3T<float>* verts = m_mesh ? m_mesh->getVertexLoc() : nullptr;
    srPtr<srTextureIFace>* polyTextures = m_mesh ? m_mesh->getPolyTexture(0, 0, 0) : nullptr;
    srTextureIFace* meshTexture = m_mesh ? m_mesh->getTexture(0, 0) : nullptr;

    for (long k = 0; k < count; ++k)
    {
        mrBSPFace* f = new mrBSPFace;
        int32_t p = m_polyPlanes[(uint32_t)k];
        f->m_plane = m_planes[(uint32_t)p];

        const srVector3i& tri = polys[k];
        mrWinding* w = f->m_winding;
        w->m_numpoints = 3;
        w->m_points[0] = verts[tri.x];
        w->m_points[1] = verts[tri.y];
        w->m_points[2] = verts[tri.z];

        // No reference is taken: the mesh keeps its textures alive.
        f->m_texture = polyTextures ? polyTextures[k].get() : meshTexture;
        f->m_contents = 0;
        f->m_backContents = 1;
        f->m_original = f;

        mrBSPSurface* s = m_surfaces[(uint32_t)p];
        f->m_next = s->m_faces;
        s->m_faces = f;

        f->m_mesh = m_mesh;
        f->m_polyIndex = (int32_t)k;
    }
}

mrBSPSurface* mrBSPSurfaceBuilder::buildSurfaces(mrMeshModel* mesh)
{
    m_mesh = mesh;
    generatePlanes();
    createSurfaces();
    createFaces();

    if (!m_numsurfaces)
        return nullptr;
    for (uint32_t i = 0; i + 1 < m_numsurfaces; ++i)
        m_surfaces[i]->m_next = m_surfaces[i + 1];
    m_surfaces[m_numsurfaces - 1]->m_next = nullptr;
    return m_surfaces[0];
}

void mrBSPSurfaceBuilder::releasePlanes()
{
    for (uint32_t i = 0; i < m_numplanes; ++i)
    {
        delete m_planes[i];
        m_planes[i] = nullptr;
    }
    m_numplanes = 0;
}
