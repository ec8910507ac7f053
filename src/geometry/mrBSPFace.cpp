#include <cstddef>
#include <vector>

#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrDynamicArray.h>
#include <meridbsp/platform/dx/srAssert.h>

mrBSPFace::mrBSPFace()
    : m_next(nullptr), m_plane(nullptr), m_winding(new mrWinding(4)), m_texture(nullptr), m_contents(0),
      m_backContents(0), m_original(nullptr), m_reserved(0), m_linked(0), m_mesh(nullptr), m_polyIndex(0)
{
}

mrBSPFace::mrBSPFace(const mrBSPFace& o)
    : m_next(o.m_next), m_plane(o.m_plane), m_winding(o.m_winding ? new mrWinding(*o.m_winding) : nullptr),
      m_texture(o.m_texture), m_contents(o.m_contents), m_backContents(o.m_backContents), m_original(o.m_original),
      m_reserved(o.m_reserved), m_linked(o.m_linked), m_mesh(o.m_mesh), m_polyIndex(o.m_polyIndex)
{
}

mrBSPFace& mrBSPFace::operator=(const mrBSPFace& o)
{
    if (this == &o)
        return *this;
    m_plane = o.m_plane;
    m_texture = o.m_texture;
    m_contents = o.m_contents;
    m_backContents = o.m_backContents;
    m_original = o.m_original;
    m_mesh = o.m_mesh;
    m_polyIndex = o.m_polyIndex;
    if (o.m_winding)
    {
        if (!m_winding)
            m_winding = new mrWinding(4);
        *m_winding = *o.m_winding;
    }
    else if (m_winding)
    {
        m_winding->m_numpoints = 0;
    }
    return *this;
}

mrBSPFace::~mrBSPFace() { delete m_winding; }

void mrBSPFace::splitFace(mrBSPFace* face, mrPlane* plane, mrBSPFace** front, mrBSPFace** back)
{
    mrWinding* inw = face ? face->m_winding : nullptr;
    if (!inw)
    {
        // Nothing to cut: hand the face back whole rather than lose it.
        srAssertFail("inw", "mrBSPFace", __LINE__, nullptr);
        *front = nullptr;
        *back = face;
        return;
    }

    int n = inw->m_numpoints;
    if (n < 0)
    {
        srAssertFail("0", "mrBSPFace", __LINE__, "SplitFace: freed face");
        n = 0;
    }

    // Distances are computed in double and kept as floats; the crossing points below
    // are computed from the stored floats (part of the reproducibility promise). The two
    // temporary arrays live on the stack for the usual small faces, on the heap beyond.
    const int INLINE_POINTS = 32;
    float inlineDists[INLINE_POINTS + 1];
    int inlineSides[INLINE_POINTS + 1];
    std::vector<float> heapDists;
    std::vector<int> heapSides;
    float* dists = inlineDists;
    int* sides = inlineSides;
    if (n > INLINE_POINTS)
    {
        heapDists.resize((std::size_t)n + 1);
        heapSides.resize((std::size_t)n + 1);
        dists = heapDists.data();
        sides = heapSides.data();
    }
    int counts[3] = {0, 0, 0};
    const double nx = plane->m_normal.x, ny = plane->m_normal.y, nz = plane->m_normal.z;
    const double dist = plane->m_dist;
    if ((uint32_t)n > inw->m_points.m_size)
        (void)inw->m_points[(uint32_t)n - 1]; // a count beyond the points: read zeros, as indexing would
    const srVector3T<float>* points = inw->m_points.m_data;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = points[i];
        float d = (float)(nx * p.x + ny * p.y + nz * p.z - dist);
        dists[i] = d;
        int side;
        if (d > SIDE_EPSILON)
            side = mrPlane::SIDE_FRONT;
        else if (d < -SIDE_EPSILON)
            side = mrPlane::SIDE_BACK;
        else
            side = mrPlane::SIDE_ON;
        sides[i] = side;
        ++counts[side];
    }
    // The point after the last is the first.
    dists[n] = n ? dists[0] : 0.0f;
    sides[n] = n ? sides[0] : (int)mrPlane::SIDE_ON;

    if (!counts[mrPlane::SIDE_FRONT])
    {
        *front = nullptr;
        *back = face;
        return;
    }
    if (!counts[mrPlane::SIDE_BACK])
    {
        *front = face;
        *back = nullptr;
        return;
    }

    mrBSPFace* b = new mrBSPFace;
    mrBSPFace* f = new mrBSPFace;
    mrBSPFace* pieces[2] = {b, f};
    for (mrBSPFace* piece : pieces)
    {
        piece->m_plane = face->m_plane;
        piece->m_texture = face->m_texture;
        piece->m_original = face->m_original;
        piece->m_contents = face->m_contents;
        piece->m_backContents = face->m_backContents;
        piece->m_mesh = face->m_mesh;
        piece->m_polyIndex = face->m_polyIndex;
    }
    mrWinding* bw = b->m_winding;
    mrWinding* fw = f->m_winding;

    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float> p = points[i];
        int side = sides[i];
        if (side == mrPlane::SIDE_ON)
        {
            bw->addPoint(p);
            fw->addPoint(p);
            continue;
        }
        if (side == mrPlane::SIDE_FRONT)
            fw->addPoint(p);
        else
            bw->addPoint(p);

        int nextSide = sides[i + 1];
        if (nextSide == mrPlane::SIDE_ON || nextSide == side)
            continue;

        // The edge crosses the plane. t from the stored float distances widened to
        // double, each coordinate interpolated in double and rounded once; axial planes
        // put the coordinate exactly on the plane (part of the reproducibility promise).
        const srVector3T<float> q = points[(i + 1) % n];
        double di = dists[i];
        double dn = dists[i + 1];
        double t = di / (di - dn);
        srVector3T<float> mid;
        for (int k = 0; k < 3; ++k)
        {
            float nk = plane->m_normal[k];
            if (nk == 1.0f)
                mid[k] = plane->m_dist;
            else if (nk == -1.0f)
                mid[k] = -plane->m_dist;
            else
                mid[k] = (float)((double)p[k] + t * ((double)q[k] - (double)p[k]));
        }
        bw->addPoint(mid);
        fw->addPoint(mid);
    }

    *back = b;
    *front = f;
    // An original stays alive: its pieces and the leaves refer to it.
    if (face->m_original != face)
        delete face;
}
