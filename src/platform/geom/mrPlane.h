#pragma once

#include <meridbsp/platform/dx/srVector3T.h>

// A plane: unit normal and distance; the signed distance of p is m_normal.p - m_dist.
class mrPlane
{
public:
    enum e_side
    {
        SIDE_FRONT = 0,
        SIDE_BACK = 1,
        SIDE_ON = 2
    };

    srVector3T<float> m_normal;
    float m_dist;

    mrPlane() : m_dist(0) {}
    mrPlane(float nx, float ny, float nz, float dist) : m_normal(nx, ny, nz), m_dist(dist) {}
    mrPlane(const mrPlane&) = default;
    mrPlane& operator=(const mrPlane&) = default;
    virtual ~mrPlane() = default;

    // The plane through a, b, c: normal along (b - a) x (c - a), computed in double and
    // stored as floats; the all-zero plane when the points do not span one.
    void make(const srVector3T<float>& a, const srVector3T<float>& b, const srVector3T<float>& c);
};
