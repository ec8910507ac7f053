#include <cmath>
#include <vector>

#include <meridbsp/platform/geom/mrWinding.h>

namespace
{
// Points closer to a plane than this count as lying on it.
const double ON_EPSILON = 0.01;

enum e_pointSide
{
    POINT_FRONT = 0,
    POINT_BACK = 1,
    POINT_ON = 2
};

// Signed distances and sides of a winding's points against one plane. Small windings
// (nearly all) use the arrays inside; larger ones get heap blocks.
struct Classified
{
    static const int INLINE_POINTS = 32;
    int n = 0;
    int counts[3] = {0, 0, 0};
    double* dists = inlineDists;
    int* sides = inlineSides;
    double inlineDists[INLINE_POINTS];
    int inlineSides[INLINE_POINTS];
    std::vector<double> heapDists;
    std::vector<int> heapSides;

    Classified() = default;
    Classified(const Classified&) = delete;
    Classified& operator=(const Classified&) = delete;
};

void classify(mrWinding& w, const mrPlane& plane, Classified& c)
{
    // Reproducibility promise: the distance is summed x, y, z in double from the float
    // components and kept in double (never rounded to float) for the side test and t.
    int n = w.m_numpoints > 0 ? w.m_numpoints : 0;
    c.n = n;
    if (n > Classified::INLINE_POINTS)
    {
        c.heapDists.resize((size_t)n);
        c.heapSides.resize((size_t)n);
        c.dists = c.heapDists.data();
        c.sides = c.heapSides.data();
    }
    const double nx = plane.m_normal.x, ny = plane.m_normal.y, nz = plane.m_normal.z, dist = plane.m_dist;
    if ((uint32_t)n > w.m_points.m_size)
        (void)w.m_points[(uint32_t)n - 1]; // a count beyond the points: read zeros, as indexing would
    const srVector3T<float>* points = w.m_points.m_data;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = points[i];
        double d = nx * p.x + ny * p.y + nz * p.z - dist;
        int side = d > ON_EPSILON ? POINT_FRONT : (d < -ON_EPSILON ? POINT_BACK : POINT_ON);
        c.dists[i] = d;
        c.sides[i] = side;
        c.counts[side]++;
    }
}

// The point where edge p -> q crosses the plane. Reproducibility promise: t in double
// from the double distances; an axis whose normal component is exactly +1 or -1 takes
// the plane distance as is, every other coordinate is p + t (q - p) in double, rounded
// to float once.
srVector3T<float> crossing(const srVector3T<float>& p, const srVector3T<float>& q, double dp, double dq,
                           const mrPlane& plane)
{
    double t = dp / (dp - dq);
    srVector3T<float> mid;
    for (int k = 0; k < 3; ++k)
    {
        float nk = plane.m_normal[k];
        if (nk == 1.0f)
            mid[k] = plane.m_dist;
        else if (nk == -1.0f)
            mid[k] = -plane.m_dist;
        else
            mid[k] = (float)((double)p[k] + t * ((double)q[k] - (double)p[k]));
    }
    return mid;
}

// Walks the points once from point 0 and fills the two parts (either may be null).
// On-plane points and crossing points go to both parts, the back part first.
void split(mrWinding& w, const mrPlane& plane, const Classified& c, mrWinding* front, mrWinding* back)
{
    int n = c.n;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float> p = w.m_points[(uint32_t)i];
        int side = c.sides[i];
        if (side == POINT_ON)
        {
            if (back)
                back->addPoint(p);
            if (front)
                front->addPoint(p);
            continue;
        }
        if (side == POINT_FRONT)
        {
            if (front)
                front->addPoint(p);
        }
        else if (back)
            back->addPoint(p);

        int j = (i + 1) % n;
        int nextSide = c.sides[j];
        if (nextSide == POINT_ON || nextSide == side)
            continue;
        const srVector3T<float> q = w.m_points[(uint32_t)j];
        srVector3T<float> mid = crossing(p, q, c.dists[i], c.dists[j], plane);
        if (back)
            back->addPoint(mid);
        if (front)
            front->addPoint(mid);
    }
}
} // namespace

mrWinding::mrWinding(int n) : m_numpoints(0)
{
    if (n > 0)
        m_points.resize((uint32_t)n);
}

mrWinding::mrWinding(const mrWinding& o) : m_numpoints(o.m_numpoints), m_points(o.m_points) {}

mrWinding& mrWinding::operator=(const mrWinding& o)
{
    if (this != &o)
    {
        m_numpoints = o.m_numpoints;
        m_points = o.m_points;
    }
    return *this;
}

mrWinding::~mrWinding()
{
    m_points.clear();
    m_numpoints = -1;
}

mrWinding* mrWinding::clip(mrWinding* w, mrPlane* plane, int keep)
{
    if (!w || !plane)
        return w;
    Classified c;
    classify(*w, *plane, c);
    if (c.counts[POINT_FRONT] == 0 && c.counts[POINT_BACK] == 0)
    {
        // A winding lying in the plane stays whole with keep set; without it, it is
        // treated as having nothing in front.
        if (keep)
            return w;
        delete w;
        return nullptr;
    }
    if (c.counts[POINT_FRONT] == 0)
    {
        delete w;
        return nullptr;
    }
    if (c.counts[POINT_BACK] == 0)
        return w;

    mrWinding* front = new mrWinding(w->m_numpoints + 4);
    split(*w, *plane, c, front, nullptr);
    delete w;
    return front;
}

void mrWinding::divide(mrWinding* w, mrPlane* plane, mrWinding** frontPart, mrWinding** backPart)
{
    mrWinding* front = nullptr;
    mrWinding* back = nullptr;
    if (w && plane)
    {
        Classified c;
        classify(*w, *plane, c);
        // A winding lying in the plane goes to the front: a node coplanar with an
        // ancestor but facing the other way has its cell in front, and the portal on
        // that plane bounds the cell.
        if (c.counts[POINT_FRONT] == 0 && c.counts[POINT_BACK] == 0)
            front = w;
        else if (c.counts[POINT_FRONT] == 0)
            back = w;
        else if (c.counts[POINT_BACK] == 0)
            front = w;
        else
        {
            front = new mrWinding(w->m_numpoints + 4);
            back = new mrWinding(w->m_numpoints + 4);
            split(*w, *plane, c, front, back);
        }
    }
    if (frontPart)
        *frontPart = front;
    if (backPart)
        *backPart = back;
}

void mrWinding::baseFromPlane(mrPlane& plane)
{
    // Reproducibility promise: every step in double from the float plane, each corner
    // rounded to float once.
    const double n[3] = {plane.m_normal.x, plane.m_normal.y, plane.m_normal.z};
    const double dist = plane.m_dist;

    // Major axis: the first with the largest magnitude; a later axis wins only when
    // strictly greater.
    int major = 0;
    double best = std::fabs(n[0]);
    for (int k = 1; k < 3; ++k)
        if (std::fabs(n[k]) > best)
        {
            best = std::fabs(n[k]);
            major = k;
        }

    double up[3] = {0.0, 0.0, 1.0};
    if (major == 2)
    {
        up[0] = 1.0;
        up[2] = 0.0;
    }
    double along = up[0] * n[0] + up[1] * n[1] + up[2] * n[2];
    for (int k = 0; k < 3; ++k)
        up[k] = up[k] - along * n[k];
    double len = std::sqrt(up[0] * up[0] + up[1] * up[1] + up[2] * up[2]);
    if (len != 0.0)
        for (int k = 0; k < 3; ++k)
            up[k] = up[k] / len;

    double right[3] = {up[1] * n[2] - up[2] * n[1], up[2] * n[0] - up[0] * n[2], up[0] * n[1] - up[1] * n[0]};
    double org[3];
    for (int k = 0; k < 3; ++k)
    {
        up[k] = up[k] * 65536.0;
        right[k] = right[k] * 65536.0;
        org[k] = n[k] * dist;
    }

    // Counter-clockwise seen from the plane's front, so the winding's own plane agrees
    // with the plane it was made from.
    const double su[4] = {-1.0, -1.0, 1.0, 1.0};
    const double sr[4] = {-1.0, 1.0, 1.0, -1.0};
    m_numpoints = 0;
    for (int i = 0; i < 4; ++i)
    {
        srVector3T<float> p;
        for (int k = 0; k < 3; ++k)
        {
            double v = sr[i] < 0 ? org[k] - right[k] : org[k] + right[k];
            v = su[i] < 0 ? v - up[k] : v + up[k];
            p[k] = (float)v;
        }
        addPoint(p);
    }
}

void mrWinding::getPlane(mrPlane& plane)
{
    if (m_numpoints < 3)
    {
        // No three points to span a plane: the all-zero plane, as for a degenerate triangle.
        plane.m_normal = srVector3T<float>(0, 0, 0);
        plane.m_dist = 0;
        return;
    }
    // Reproducibility promise: the plane of the first three points, exactly as make
    // computes it, so a base winding gives back the plane it was made from.
    plane.make(m_points[0], m_points[1], m_points[2]);
}
