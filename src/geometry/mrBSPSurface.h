#pragma once

#include <cstdint>

#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>

class mrBSPFace;

// The faces lying on one plane, with the box around their points. A surface owns
// neither its faces nor its plane; copies share both.
class mrBSPSurface
{
public:
    mrBSPSurface* m_next;     // next surface of the list holding this one
    intptr_t m_reserved;      // carried along by copies only
    mrPlane* m_plane;         // table plane of every face here
    mrBSPFace* m_faces;       // face list through mrBSPFace::m_next
    srVector3T<float> m_mins; // set by calcBounds
    srVector3T<float> m_maxs;
    int32_t m_onNode; // 1 once a node lies on this plane: no longer a candidate

    // Next, reserved word and bounds are cleared as well, so nothing is ever read
    // uninitialised.
    mrBSPSurface() : m_next(nullptr), m_reserved(0), m_plane(nullptr), m_faces(nullptr), m_onNode(0) {}
    mrBSPSurface(const mrBSPSurface&) = default;
    mrBSPSurface& operator=(const mrBSPSurface&) = default;
    virtual ~mrBSPSurface() {}

    // Recomputes m_mins and m_maxs from the points of every face's winding.
    void calcBounds();
};
