#pragma once

#include <cstdint>

#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/geometry/mrDynamicArray.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>

typedef srMeshModel mrMeshModel;

// Turns a mesh model into a table of distinct planes, one face per triangle and one
// surface per plane. The builder owns only its three arrays: the planes, surfaces and
// faces it makes outlive it.
class mrBSPSurfaceBuilder
{
public:
    mrDynamicArray<mrPlane*> m_planes;        // plane table: entry i is plane i
    uint32_t m_numplanes;                     // planes in use
    mrDynamicArray<mrBSPSurface*> m_surfaces; // entry i is the surface of plane i
    uint32_t m_numsurfaces;
    mrDynamicArray<int32_t> m_polyPlanes; // plane number of each mesh polygon
    mrMeshModel* m_mesh;                  // not owned

    // Counts and mesh are cleared too, so a fresh builder never holds garbage.
    mrBSPSurfaceBuilder() : m_numplanes(0), m_numsurfaces(0), m_mesh(nullptr) {}
    // Arrays are copied into blocks of exactly the source's size; both builders then
    // point to the same planes and surfaces.
    mrBSPSurfaceBuilder(const mrBSPSurfaceBuilder&) = default;
    mrBSPSurfaceBuilder& operator=(const mrBSPSurfaceBuilder&) = default;
    virtual ~mrBSPSurfaceBuilder();

    // Number of the plane through a, b, c; added to the table when no entry matches.
    int findPlane(srVector3T<float>& a, srVector3T<float>& b, srVector3T<float>& c);
    // Restarts the table and finds the plane of every polygon of m_mesh.
    void generatePlanes();
    // One new surface per table plane.
    void createSurfaces();
    // One new face per mesh polygon, pushed on the surface of its plane.
    void createFaces();
    // Builds planes, surfaces and faces for mesh; returns the surface list in plane
    // order (null for a mesh without polygons). The caller owns surfaces and faces.
    mrBSPSurface* buildSurfaces(mrMeshModel* mesh);

    // Deletes the planes of the current table (entries 0 .. m_numplanes - 1) and empties
    // the table. Only for when nothing points to them any more.
    void releasePlanes();

private:
    // Appends a copy of plane to the table; returns its number.
    int addPlane(const mrPlane& plane);
};
