#pragma once

#include <meridbsp/geometry/mrDynamicArray.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>

// A convex polygon. m_numpoints points are in use; the point array grows on indexing,
// so it may hold more. A negative count marks a released winding.
class mrWinding
{
public:
    int m_numpoints;
    mrDynamicArray<srVector3T<float>> m_points;

    explicit mrWinding(int n = 4);
    mrWinding(const mrWinding& o);
    mrWinding& operator=(const mrWinding& o);
    virtual ~mrWinding();

    // Appends a point at index m_numpoints.
    void addPoint(const srVector3T<float>& p) { m_points[(uint32_t)m_numpoints++] = p; }

    // The part of w in front of the plane (keep = 1), or null when none is left; w is
    // released whenever something other than w itself is returned.
    static mrWinding* clip(mrWinding* w, mrPlane* plane, int keep);
    // Splits w by the plane. A side that gets all of w gets w itself and the other null;
    // a straddling w gives two new windings and stays with the caller.
    static void divide(mrWinding* w, mrPlane* plane, mrWinding** frontPart, mrWinding** backPart);
    // Replaces the points by one large square lying in the plane, counter-clockwise seen
    // from the plane's front.
    void baseFromPlane(mrPlane& plane);
    // The plane of the first three points.
    void getPlane(mrPlane& plane);
};
