#pragma once

#include <meridbsp/platform/dx/srTextureIFace.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/dx/srVector4T.h>

// A convex polygon of the clip BSP generator: one per imported triangle, two per cut.
// A face holds at most MAX_POINTS points and never grows: a face made with the default
// constructor has room for all of them, while the generator gives each face room for
// exactly what it will hold (a triangle, a piece of a cut), so that a large mesh does not
// carry 64 points per triangle. A few points live in the record itself.
class mrFace
{
public:
    enum
    {
        MAX_POINTS = 64
    };

    // Room for MAX_POINTS points.
    mrFace();
    // Room for `capacity` points, clamped to 1..MAX_POINTS.
    explicit mrFace(int capacity);
    // Copies have room and points of their own.
    mrFace(const mrFace& o);
    mrFace& operator=(const mrFace& o);
    ~mrFace();

    // Points the face has room for.
    int capacity() const { return m_capacity; }

    int m_numpoints = 0;
    // The polygon's points, in order: room for capacity() of them.
    srVector3T<float>* m_points;
    // x, y, z the unit normal, w the distance: p lies on the plane when n.p == w.
    srVector4T<float> m_plane;
    // 1 once the face has been a splitter or lay on a splitter's plane.
    int m_used = 0;
    // Not owned; only its name matters (solid leaf contents).
    srTextureIFace* m_texture = nullptr;

private:
    enum
    {
        INLINE_POINTS = 4
    };
    void allocate(int capacity);
    void release();

    int m_capacity = 0;
    srVector3T<float> m_inline[INLINE_POINTS];
};
