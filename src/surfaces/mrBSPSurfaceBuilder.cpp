#include <cmath>
#include <unordered_map>
#include <vector>

#include <meridbsp/platform/dx/srOutput.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

mrBSPSurfaceBuilder::~mrBSPSurfaceBuilder()
{
    m_polyPlanes.clear();
    m_surfaces.clear();
    m_planes.clear();
}

namespace
{
// Plane match, exactly as the table search applies it: both tests strict and done in
// double from the stored floats, the dot product summed x, y, z (part of the
// reproducibility promise).
inline bool matches(const mrPlane* p, double nx, double ny, double nz, double d)
{
    double dot = (double)p->m_normal.x * nx + (double)p->m_normal.y * ny + (double)p->m_normal.z * nz;
    return dot > 0.99999 && std::fabs((double)p->m_dist - d) < 0.01;
}

// Finds the same plane number as the linear search, without looking at every plane.
//
// Planes are put in cells by their normal (0.01 per component) and distance (0.02).
// Two planes that match have normals less than 0.0045 apart on every axis (the dot
// product of two unit normals above 0.99999 leaves a distance below sqrt(2e-5)) and
// distances less than 0.01 apart, so every plane that can match a query lies in the
// cells that the box "query +- 0.0046 in normal, +- 0.0101 in distance" touches (one or
// two per coordinate). The real test then runs on those planes alone, and of the planes
// that pass it the lowest number wins, as the first match of the linear search would.
//
// Planes that can match nothing (a normal that is zero or not finite, a distance that is
// not finite) are never entered; planes with a distance too large for the cell numbers
// are kept in a short list that every query also searches.
class PlaneIndex
{
public:
    // The lowest-numbered plane of `planes` that matches (nx, ny, nz, d), or -1.
    int32_t find(const mrDynamicArray<mrPlane*>& planes, uint32_t numplanes, double nx, double ny, double nz,
                 double d) const
    {
        if (!searchable(nx, ny, nz, d))
            return -1;
        int32_t best = -1;
        auto consider = [&](uint32_t i)
        {
            if ((best < 0 || i < (uint32_t)best) && i < numplanes && matches(planes.at(i), nx, ny, nz, d))
                best = (int32_t)i;
        };
        for (uint32_t i : m_unhashed)
            consider(i);
        if (std::fabs(d) >= HASHED_DIST - 1.0)
        {
            // Near the edge of the hashed range: every plane is a candidate.
            for (uint32_t i = 0; i < numplanes; ++i)
                consider(i);
            return best;
        }
        int64_t lo[4], hi[4];
        const double q[4] = {nx, ny, nz, d};
        for (int k = 0; k < 4; ++k)
        {
            const double r = k < 3 ? NORMAL_REACH : DIST_REACH;
            const double cell = k < 3 ? NORMAL_CELL : DIST_CELL;
            lo[k] = (int64_t)std::floor((q[k] - r) / cell);
            hi[k] = (int64_t)std::floor((q[k] + r) / cell);
        }
        for (int64_t a = lo[0]; a <= hi[0]; ++a)
            for (int64_t b = lo[1]; b <= hi[1]; ++b)
                for (int64_t c = lo[2]; c <= hi[2]; ++c)
                    for (int64_t e = lo[3]; e <= hi[3]; ++e)
                    {
                        auto it = m_cells.find(key(a, b, c, e));
                        if (it == m_cells.end())
                            continue;
                        for (uint32_t i = it->second; i != NONE; i = m_next[i])
                            consider(i);
                    }
        return best;
    }

    // Enters plane number i (numbers are entered in increasing order, from 0).
    void add(uint32_t i, double nx, double ny, double nz, double d)
    {
        if (m_next.size() <= i)
            m_next.resize((size_t)i + 1, NONE);
        if (!searchable(nx, ny, nz, d))
            return;
        if (std::fabs(d) >= HASHED_DIST)
        {
            m_unhashed.push_back(i);
            return;
        }
        uint64_t k = key((int64_t)std::floor(nx / NORMAL_CELL), (int64_t)std::floor(ny / NORMAL_CELL),
                         (int64_t)std::floor(nz / NORMAL_CELL), (int64_t)std::floor(d / DIST_CELL));
        auto ins = m_cells.emplace(k, i);
        if (!ins.second)
        {
            m_next[i] = ins.first->second;
            ins.first->second = i;
        }
    }

private:
    static constexpr double NORMAL_CELL = 0.01;
    static constexpr double NORMAL_REACH = 0.0046;
    static constexpr double DIST_CELL = 0.02;
    static constexpr double DIST_REACH = 0.0101;
    static constexpr double HASHED_DIST = 1e9;
    static constexpr uint32_t NONE = 0xFFFFFFFFu;

    // A plane can match only with a finite, nonzero normal and a finite distance.
    static bool searchable(double nx, double ny, double nz, double d)
    {
        return std::isfinite(nx) && std::isfinite(ny) && std::isfinite(nz) && std::isfinite(d) &&
               (nx != 0.0 || ny != 0.0 || nz != 0.0);
    }
    // Normal cells lie in -102 ... 101 (8 bits after the offset), distance cells below
    // 2^36 in magnitude: one cell, one key.
    static uint64_t key(int64_t a, int64_t b, int64_t c, int64_t e)
    {
        return ((uint64_t)(a + 128) & 0xFF) | (((uint64_t)(b + 128) & 0xFF) << 8) |
               (((uint64_t)(c + 128) & 0xFF) << 16) | (((uint64_t)(e + (1ll << 38)) & 0xFFFFFFFFFFull) << 24);
    }

    std::unordered_map<uint64_t, uint32_t> m_cells; // newest plane of each cell
    std::vector<uint32_t> m_next;                   // the next older plane of the same cell
    std::vector<uint32_t> m_unhashed;
};
} // namespace

int mrBSPSurfaceBuilder::findPlane(srVector3T<float>& a, srVector3T<float>& b, srVector3T<float>& c)
{
    mrPlane plane;
    plane.make(a, b, c);
    const double nx = plane.m_normal.x, ny = plane.m_normal.y, nz = plane.m_normal.z;
    const double d = plane.m_dist;

    // Linear search; the first match wins. Degenerate triangles are kept: their all-zero
    // normal never matches, so each gets a plane, face and surface of its own (part of
    // the reproducibility promise).
    for (uint32_t i = 0; i < m_numplanes; ++i)
        if (matches(m_planes[i], nx, ny, nz, d))
            return (int)i;
    return addPlane(plane);
}

int mrBSPSurfaceBuilder::addPlane(const mrPlane& plane)
{
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
    // The same numbers findPlane gives, polygon by polygon, found through an index
    // instead of a search of the whole table.
    PlaneIndex index;
    for (long k = 0; k < count; ++k)
    {
        const srVector3i& tri = polys[k];
        mrPlane plane;
        plane.make(verts[tri.x], verts[tri.y], verts[tri.z]);
        const double nx = plane.m_normal.x, ny = plane.m_normal.y, nz = plane.m_normal.z;
        const double d = plane.m_dist;
        int32_t found = index.find(m_planes, m_numplanes, nx, ny, nz, d);
        if (found < 0)
        {
            found = addPlane(plane);
            index.add((uint32_t)found, nx, ny, nz, d);
        }
        m_polyPlanes[(uint32_t)k] = found;
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
