#pragma once

#include <meridbsp/platform/dx/srTextureIFace.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/dx/srVector4T.h>

// A convex polygon of the clip BSP generator: one per imported triangle, two per cut.
// Fixed-size so that a cut never grows a point array.
class mrFace
{
public:
    enum
    {
        MAX_POINTS = 64
    };

    int m_numpoints = 0;
    srVector3T<float> m_points[MAX_POINTS];
    // x, y, z the unit normal, w the distance: p lies on the plane when n.p == w.
    srVector4T<float> m_plane;
    // 1 once the face has been a splitter or lay on a splitter's plane.
    int m_used = 0;
    // Not owned; only its name matters (solid leaf contents).
    srTextureIFace* m_texture = nullptr;
};
