#pragma once

#include <cstdint>

#include <meridbsp/platform/geom/mrPlane.h>
#include <meridbsp/platform/geom/mrWinding.h>

class srTextureIFace;
class srMeshModel;
typedef srMeshModel mrMeshModel;

// One convex polygon of the visibility pipeline, lying on a plane of the surface
// builder's plane table. The face owns its winding and nothing else.
class mrBSPFace
{
public:
    // Points closer to a plane than this count as lying on it.
    static constexpr double SIDE_EPSILON = 0.01;

    mrBSPFace* m_next;         // next face of whichever list holds this one
    mrPlane* m_plane;          // shared table plane, never freed here
    mrWinding* m_winding;      // owned
    srTextureIFace* m_texture; // not owned
    int32_t m_contents;        // 0 for faces made from a mesh
    int32_t m_backContents;    // 1 for faces made from a mesh; carried along only
    mrBSPFace* m_original;     // the mesh face this one descends from
    int32_t m_reserved;
    int32_t m_linked;    // set on an original once a piece of it reaches a leaf
    mrMeshModel* m_mesh; // not owned
    int32_t m_polyIndex; // source polygon in m_mesh

    // An empty face with room for four points. Contents, mesh and polygon index are
    // cleared as well so that no field is ever read uninitialised.
    mrBSPFace();
    // Copies every field but gives the copy its own winding with the same points, so
    // the two destructors never release one winding twice.
    mrBSPFace(const mrBSPFace& o);
    // Copies the polygon data and the winding's points; keeps m_next, m_reserved and
    // m_linked of this face.
    mrBSPFace& operator=(const mrBSPFace& o);
    virtual ~mrBSPFace();

    // Divides face by plane. Untouched faces come back as themselves on their side;
    // a real cut makes two new pieces and deletes face unless it is its own original.
    static void splitFace(mrBSPFace* face, mrPlane* plane, mrBSPFace** front, mrBSPFace** back);
};
