#include "BenchMesh.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unordered_map>
#include <utility>

#include "BenchRandom.h"

#ifdef MERIDBSP_BENCH_HAVE_MESHIO
#include "MeshReader.h"
#endif

BenchMesh::BenchMesh(const std::string& name, const std::string& kind, e_orientation orientation)
    : m_name(name), m_kind(kind), m_orientation(orientation), m_mesh(new srMeshModel(0, 0))
{
}

BenchMesh::~BenchMesh() { m_mesh->release(); }

void BenchMesh::finish()
{
    const srVector3T<float>* verts = m_mesh->getVertexLoc();
    const srVector3i* polys = m_mesh->getPolyVertex();
    const long n = m_mesh->m_numpolys;
    // The box the visibility pipeline gives its head node.
    m_mesh->usedVertexBounds(m_mins, m_maxs);
    m_flatVerts.clear();
    m_flatVerts.reserve((size_t)m_mesh->getNumVerts() * 3);
    for (long v = 0; v < m_mesh->getNumVerts(); ++v)
    {
        m_flatVerts.push_back(verts[v].x);
        m_flatVerts.push_back(verts[v].y);
        m_flatVerts.push_back(verts[v].z);
    }
    m_flatIndices.clear();
    m_flatIndices.reserve((size_t)n * 3);
    for (long i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k)
            m_flatIndices.push_back((uint32_t)polys[i][k]);
}

BenchMesh* BenchMesh::sphere(const std::string& name, int slices, int stacks, float radius)
{
    BenchMesh* out = new BenchMesh(name, "sphere", ORIENT_OUTWARD);
    srMeshModel* m = out->m_mesh;
    const double pi = 3.14159265358979323846;
    // Positions in double, rounded to float once, so the ring vertices are shared exactly
    // between neighbouring triangles (the mesh is watertight).
    m->addVertex(srVector3T<float>(0.0f, 0.0f, radius));
    for (int i = 1; i < stacks; ++i)
    {
        const double theta = pi * i / stacks;
        for (int j = 0; j < slices; ++j)
        {
            const double phi = 2.0 * pi * j / slices;
            m->addVertex(srVector3T<float>((float)(radius * std::sin(theta) * std::cos(phi)),
                                           (float)(radius * std::sin(theta) * std::sin(phi)),
                                           (float)(radius * std::cos(theta))));
        }
    }
    const int south = (int)m->addVertex(srVector3T<float>(0.0f, 0.0f, -radius));
    auto ring = [slices](int i, int j) { return 1 + (i - 1) * slices + (j % slices); };
    // Counter-clockwise seen from outside: the normal (b − a) × (c − a) points out.
    for (int j = 0; j < slices; ++j)
        m->addPolygon(0, ring(1, j), ring(1, j + 1));
    for (int i = 1; i + 1 < stacks; ++i)
        for (int j = 0; j < slices; ++j)
        {
            m->addPolygon(ring(i, j), ring(i + 1, j), ring(i + 1, j + 1));
            m->addPolygon(ring(i, j), ring(i + 1, j + 1), ring(i, j + 1));
        }
    for (int j = 0; j < slices; ++j)
        m->addPolygon(south, ring(stacks - 1, j + 1), ring(stacks - 1, j));
    out->finish();
    return out;
}

namespace
{

// The open cells of a level on a cell grid; everything else (and all outside the grid)
// is rock.
class LevelGrid
{
public:
    LevelGrid(int x, int y, int z) : m_x(x), m_y(y), m_z(z), m_open((size_t)x * y * z, 0) {}
    bool open(int x, int y, int z) const
    {
        if (x < 0 || y < 0 || z < 0 || x >= m_x || y >= m_y || z >= m_z)
            return false;
        return m_open[index(x, y, z)] != 0;
    }
    void carve(int x0, int x1, int y0, int y1, int z0, int z1, unsigned char v = 1)
    {
        for (int x = x0; x <= x1; ++x)
            for (int y = y0; y <= y1; ++y)
                for (int z = z0; z <= z1; ++z)
                    if (x >= 0 && y >= 0 && z >= 0 && x < m_x && y < m_y && z < m_z)
                        m_open[index(x, y, z)] = v;
    }
    int m_x, m_y, m_z;

private:
    size_t index(int x, int y, int z) const { return ((size_t)z * m_y + y) * m_x + x; }
    std::vector<unsigned char> m_open;
};

} // namespace

BenchMesh* BenchMesh::level(const std::string& name, int nx, int ny, int nz, uint64_t seed)
{
    // Each room sits in a slot of 8 × 8 cells and 6 cells of height and always contains
    // its slot's centre column, so corridors along the centre rows reach every room.
    const int S = 8, H = 6;
    const float cell = 32.0f;
    LevelGrid g(nx * S, ny * S, nz * H);
    BenchRandom rnd(seed);
    struct Room
    {
        int x0, x1, y0, y1, z0, z1;
    };
    std::vector<Room> rooms((size_t)nx * ny * nz);
    auto room = [&](int i, int j, int k) -> Room& { return rooms[((size_t)k * ny + j) * nx + i]; };
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i)
            {
                const int cx = i * S + 4, cy = j * S + 4;
                Room& r = room(i, j, k);
                r.x0 = cx - rnd.range(1, 3);
                r.x1 = cx + rnd.range(1, 2);
                r.y0 = cy - rnd.range(1, 3);
                r.y1 = cy + rnd.range(1, 2);
                r.z0 = k * H;
                r.z1 = k * H + rnd.range(2, 4) - 1;
                g.carve(r.x0, r.x1, r.y0, r.y1, r.z0, r.z1);
                // A pillar in a corner of the larger rooms, away from the centre rows.
                if (r.x1 - r.x0 >= 4 && r.y1 - r.y0 >= 4 && rnd.unit() < 0.5)
                    g.carve(r.x0 + 1, r.x0 + 1, r.y0 + 1, r.y0 + 1, r.z0, r.z1, 0);
            }
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i)
            {
                const Room& r = room(i, j, k);
                const int cx = i * S + 4, cy = j * S + 4;
                // Corridors two cells high: every neighbour along x, the first column and
                // half of the others along y, so the level is connected.
                if (i + 1 < nx)
                    g.carve(r.x1 + 1, room(i + 1, j, k).x0 - 1, cy, cy, r.z0, r.z0 + 1);
                if (j + 1 < ny && (i == 0 || rnd.unit() < 0.5))
                    g.carve(cx, cx, r.y1 + 1, room(i, j + 1, k).y0 - 1, r.z0, r.z0 + 1);
                // Shafts up to the room above.
                if (k + 1 < nz && ((i == 0 && j == 0) || rnd.unit() < 0.3))
                    g.carve(cx, cx, cy, cy, r.z1 + 1, room(i, j, k + 1).z0 - 1);
            }

    BenchMesh* out = new BenchMesh(name, "level", ORIENT_INWARD);
    srMeshModel* m = out->m_mesh;
    std::unordered_map<uint64_t, int> corner;
    auto vertex = [&](int x, int y, int z)
    {
        const uint64_t key = ((uint64_t)x << 42) | ((uint64_t)y << 21) | (uint64_t)z;
        auto it = corner.find(key);
        if (it != corner.end())
            return it->second;
        const int v = (int)m->addVertex(srVector3T<float>(x * cell, y * cell, z * cell));
        corner.emplace(key, v);
        return v;
    };
    // One quad (two triangles) on every face between an open cell and rock, wound so
    // that its normal points into the open cell.
    for (int z = 0; z < g.m_z; ++z)
        for (int y = 0; y < g.m_y; ++y)
            for (int x = 0; x < g.m_x; ++x)
            {
                if (!g.open(x, y, z))
                    continue;
                for (int a = 0; a < 3; ++a)
                    for (int s = 0; s < 2; ++s)
                    {
                        int c[3] = {x, y, z};
                        int nb[3] = {x, y, z};
                        nb[a] += s ? 1 : -1;
                        if (g.open(nb[0], nb[1], nb[2]))
                            continue;
                        const int u = (a + 1) % 3, v = (a + 2) % 3;
                        int p[4][3];
                        const int plane = c[a] + s;
                        const int us[4] = {0, 1, 1, 0}, vs[4] = {0, 0, 1, 1};
                        for (int q = 0; q < 4; ++q)
                        {
                            p[q][a] = plane;
                            p[q][u] = c[u] + us[q];
                            p[q][v] = c[v] + vs[q];
                        }
                        // Corners in u, v order have normal +axis; the face on the upper
                        // side (s = 1) must face −axis, so it takes the reverse order.
                        int idx[4];
                        for (int q = 0; q < 4; ++q)
                        {
                            const int src = s ? 3 - q : q;
                            idx[q] = vertex(p[src][0], p[src][1], p[src][2]);
                        }
                        m->addPolygon(idx[0], idx[1], idx[2]);
                        m->addPolygon(idx[0], idx[2], idx[3]);
                    }
            }
    out->finish();
    return out;
}

BenchMesh* BenchMesh::levelNear(const std::string& name, long target)
{
    // More floors for bigger levels, so they grow in all three directions.
    const int nz = target <= 2000 ? 1 : (target <= 20000 ? 2 : (target <= 200000 ? 4 : 8));
    const uint64_t seed = 0x4D6572696442ull;
    BenchMesh* best = nullptr;
    for (int n = 1;; ++n)
        for (int extra = 0; extra < 2; ++extra)
        {
            BenchMesh* cand = level(name, n, n + extra, nz, seed);
            const long c = cand->numTriangles();
            if (!best || std::labs(c - target) < std::labs(best->numTriangles() - target))
            {
                delete best;
                best = cand;
            }
            else
                delete cand;
            if (c >= target)
                return best;
        }
}

namespace
{

// Rounds to a grid of 1/256 unit, so a libm that differs in the last bit of a sine still
// gives the same float vertices (the pinned results depend on them).
float snap(double v) { return (float)(std::nearbyint(v * 256.0) / 256.0); }

struct D3
{
    double x, y, z;
};
D3 add(D3 a, D3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
D3 scale(D3 a, double s) { return {a.x * s, a.y * s, a.z * s}; }
double dot(D3 a, D3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
D3 cross(D3 a, D3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
D3 unit(D3 a) { return scale(a, 1.0 / std::sqrt(dot(a, a))); }

// A smooth field on the unit sphere: a few plane waves in random directions.
class SmoothNoise
{
public:
    SmoothNoise(BenchRandom& rnd, int waves, double minFreq, double maxFreq)
    {
        for (int w = 0; w < waves; ++w)
        {
            Wave v;
            v.dir = unit({rnd.unit() - 0.5, rnd.unit() - 0.5, rnd.unit() - 0.5});
            v.freq = minFreq + (maxFreq - minFreq) * rnd.unit();
            v.phase = 6.283185307179586 * rnd.unit();
            v.amp = 1.0 / v.freq;
            m_sum += v.amp;
            m_waves.push_back(v);
        }
    }
    // In [-1, 1].
    double operator()(D3 p) const
    {
        double n = 0.0;
        for (const Wave& w : m_waves)
            n += w.amp * std::sin(w.freq * dot(p, w.dir) + w.phase);
        return n / m_sum;
    }

private:
    struct Wave
    {
        D3 dir;
        double freq, phase, amp;
    };
    std::vector<Wave> m_waves;
    double m_sum = 0.0;
};

} // namespace

BenchMesh* BenchMesh::blob(const std::string& name, int f, uint64_t seed)
{
    const double radius = 512.0;
    const double t = (1.0 + std::sqrt(5.0)) / 2.0;
    const D3 ico[12] = {{-1, t, 0},  {1, t, 0},  {-1, -t, 0}, {1, -t, 0}, {0, -1, t},  {0, 1, t},
                        {0, -1, -t}, {0, 1, -t}, {t, 0, -1},  {t, 0, 1},  {-t, 0, -1}, {-t, 0, 1}};
    // Counter-clockwise seen from outside.
    const int faces[20][3] = {{0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
                              {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
                              {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    BenchRandom rnd(seed);
    const SmoothNoise bumps(rnd, 8, 1.5, 5.0);
    const SmoothNoise warpX(rnd, 3, 1.0, 2.5), warpY(rnd, 3, 1.0, 2.5), warpZ(rnd, 3, 1.0, 2.5);

    BenchMesh* out = new BenchMesh(name, "blob", ORIENT_OUTWARD);
    srMeshModel* m = out->m_mesh;
    // A point of the subdivision is named by its icosahedron corners and their weights
    // (sorted), so the points on an edge shared by two faces are made once.
    std::map<std::vector<int>, int> made;
    auto point = [&](int a, int wa, int b, int wb, int c, int wc)
    {
        std::vector<std::pair<int, int>> w;
        for (auto cw : {std::make_pair(a, wa), std::make_pair(b, wb), std::make_pair(c, wc)})
            if (cw.second)
                w.push_back(cw);
        std::sort(w.begin(), w.end());
        std::vector<int> key;
        for (auto& cw : w)
            key.insert(key.end(), {cw.first, cw.second});
        auto it = made.find(key);
        if (it != made.end())
            return it->second;
        D3 p{0, 0, 0};
        for (auto& cw : w)
            p = add(p, scale(ico[cw.first], cw.second));
        D3 d = unit(p);
        // A gentle warp of the directions makes triangle sizes uneven; then the radius
        // follows the noise, so the surface stays one sheet over the sphere (closed and
        // never crossing itself) but bulges and dents.
        d = unit(add(d, {0.22 * warpX(d), 0.22 * warpY(d), 0.22 * warpZ(d)}));
        const D3 v = scale(d, radius * (1.0 + 0.35 * bumps(d)));
        const int id = (int)m->addVertex(srVector3T<float>(snap(v.x), snap(v.y), snap(v.z)));
        made.emplace(key, id);
        return id;
    };
    for (const auto& face : faces)
    {
        const int A = face[0], B = face[1], C = face[2];
        // Point (i, j): weight f − i − j on A, i on B, j on C.
        auto at = [&](int i, int j) { return point(A, f - i - j, B, i, C, j); };
        for (int j = 0; j < f; ++j)
            for (int i = 0; i + j < f; ++i)
            {
                m->addPolygon(at(i, j), at(i + 1, j), at(i, j + 1));
                if (i + j + 1 < f)
                    m->addPolygon(at(i + 1, j), at(i + 1, j + 1), at(i, j + 1));
            }
    }
    out->finish();
    return out;
}

BenchMesh* BenchMesh::knot(const std::string& name, int around, int along)
{
    const double s = 160.0, pi = 3.14159265358979323846;
    auto centre = [&](double t)
    {
        return scale(
            D3{(2.0 + std::cos(3 * t)) * std::cos(2 * t), (2.0 + std::cos(3 * t)) * std::sin(2 * t), std::sin(3 * t)},
            s);
    };
    BenchMesh* out = new BenchMesh(name, "knot", ORIENT_OUTWARD);
    srMeshModel* m = out->m_mesh;
    for (int i = 0; i < along; ++i)
    {
        const double t = 2.0 * pi * i / along, h = 1e-4;
        const D3 c = centre(t);
        const D3 tangent = unit(add(centre(t + h), scale(centre(t - h), -1.0)));
        // The frame turns with the offset from the torus' core circle, which is never
        // zero and never along the tangent, so the tube closes without a twist seam.
        const D3 core{2.0 * s * std::cos(2 * t), 2.0 * s * std::sin(2 * t), 0.0};
        D3 n = add(c, scale(core, -1.0));
        n = unit(add(n, scale(tangent, -dot(n, tangent))));
        const D3 b = cross(tangent, n);
        // The radius swells and narrows along the knot (strands stay apart: the
        // closest approach of two strands is 1.66 s, the tightest bend 1.43 s).
        const double r = s * 0.3 * (1.0 + 0.25 * std::sin(5 * t));
        for (int j = 0; j < around; ++j)
        {
            const double a = 2.0 * pi * j / around;
            const D3 v = add(c, add(scale(n, r * std::cos(a)), scale(b, r * std::sin(a))));
            m->addVertex(srVector3T<float>(snap(v.x), snap(v.y), snap(v.z)));
        }
    }
    auto vert = [&](int i, int j) { return (i % along) * around + (j % around); };
    // The ring runs from n towards b = tangent × n, so (i, j) → (i, j + 1) → (i + 1, j)
    // turns counter-clockwise seen from outside the tube.
    for (int i = 0; i < along; ++i)
        for (int j = 0; j < around; ++j)
        {
            m->addPolygon(vert(i, j), vert(i, j + 1), vert(i + 1, j + 1));
            m->addPolygon(vert(i, j), vert(i + 1, j + 1), vert(i + 1, j));
        }
    out->finish();
    return out;
}

BenchMesh* BenchMesh::openLevel(const std::string& name, long target)
{
    BenchMesh* closed = levelNear(name, target * 10 / 9);
    BenchMesh* out = new BenchMesh(name, "openlevel", ORIENT_UNKNOWN);
    srMeshModel* from = closed->m_mesh;
    srMeshModel* m = out->m_mesh;
    for (long v = 0; v < from->getNumVerts(); ++v)
        m->addVertex(from->getVertexLoc()[v]);
    BenchRandom rnd(0x6F70656E);
    // The level adds its tiles as pairs of triangles.
    for (long i = 0; i + 1 < from->m_numpolys; i += 2)
    {
        if (rnd.unit() < 0.1)
            continue;
        for (long k = i; k < i + 2; ++k)
        {
            const srVector3i& t = from->getPolyVertex()[k];
            m->addPolygon(t.x, t.y, t.z);
        }
    }
    delete closed;
    out->finish();
    return out;
}

bool BenchMesh::writeObj(const std::string& path) const
{
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f)
        return false;
    std::fprintf(f, "# %s: %ld triangles\n", m_name.c_str(), m_mesh->m_numpolys);
    for (size_t i = 0; i + 2 < m_flatVerts.size(); i += 3)
        std::fprintf(f, "v %.9g %.9g %.9g\n", m_flatVerts[i], m_flatVerts[i + 1], m_flatVerts[i + 2]);
    for (size_t i = 0; i + 2 < m_flatIndices.size(); i += 3)
        std::fprintf(f, "f %u %u %u\n", m_flatIndices[i] + 1, m_flatIndices[i + 1] + 1, m_flatIndices[i + 2] + 1);
    const bool ok = std::fflush(f) == 0 && !std::ferror(f);
    return std::fclose(f) == 0 && ok;
}

BenchMesh* BenchMesh::generate(const std::string& name)
{
    const float radius = 512.0f;
    const uint64_t blobSeed = 0x626C6F62;
    if (name == "sphere_tiny")
        return sphere(name, 8, 5, radius); // 64 triangles
    if (name == "sphere1k")
        return sphere(name, 25, 21, radius); // 1,000
    if (name == "sphere10k")
        return sphere(name, 100, 51, radius); // 10,000
    if (name == "sphere100k")
        return sphere(name, 250, 201, radius); // 100,000
    if (name == "sphere1m")
        return sphere(name, 1000, 501, radius); // 1,000,000
    if (name == "level_tiny")
        return level(name, 2, 1, 1, 0x4D6572696442ull);
    if (name == "level1k")
        return levelNear(name, 1000);
    if (name == "level10k")
        return levelNear(name, 10000);
    if (name == "level100k")
        return levelNear(name, 100000);
    if (name == "level1m")
        return levelNear(name, 1000000);
    if (name == "blob_tiny")
        return blob(name, 3, blobSeed); // 180 triangles
    if (name == "knot_tiny")
        return knot(name, 6, 24); // 288
    if (name == "openlevel_tiny")
        return openLevel(name, 300);
    // Any other size: sphereN / levelN / blobN / knotN / openlevelN with N a count,
    // optionally followed by k or m (blob10k, knot50k, openlevel10k, ...).
    for (const char* kind : {"sphere", "level", "blob", "knot", "openlevel"})
    {
        const size_t len = std::strlen(kind);
        if (name.compare(0, len, kind) != 0 || name.size() == len)
            continue;
        char* end = nullptr;
        double n = std::strtod(name.c_str() + len, &end);
        if (*end == 'k')
            n *= 1e3, ++end;
        else if (*end == 'm')
            n *= 1e6, ++end;
        if (*end != '\0' || !(n >= 8 && n <= 2e7))
            return nullptr;
        if (kind[0] == 'l')
            return levelNear(name, (long)n);
        if (kind[0] == 'o')
            return openLevel(name, (long)n);
        if (kind[0] == 'b') // 20 f² triangles: blob10k has 9,680, blob50k 50,000
            return blob(name, std::max(1, (int)std::lround(std::sqrt(n / 20.0))), blobSeed);
        if (kind[0] == 'k') // knot10k: 20 × 250 quads, knot50k: 45 × 556
        {
            const int around = std::max(3, (int)std::lround(std::sqrt(n / 25.0)));
            return knot(name, around, std::max(3, (int)std::lround(n / (2.0 * around))));
        }
        // 2 · slices · (stacks − 1) triangles with about twice as many stacks as slices
        // around (the proportions of the fixed sizes above).
        const int slices = std::max(3, (int)std::lround(std::sqrt(n)));
        const int stacks = std::max(2, (int)std::lround(n / (2.0 * slices)) + 1);
        return sphere(name, slices, stacks, radius);
    }
    return nullptr;
}

BenchMesh* BenchMesh::fromFile(const std::string& path, std::string* error)
{
#ifdef MERIDBSP_BENCH_HAVE_MESHIO
    std::string why;
    srMeshModel* model = MeshReader::read(path, why);
    if (!model)
    {
        *error = path + ": " + why;
        return nullptr;
    }
    std::string stem = path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
    if (stem.find('.') != std::string::npos)
        stem = stem.substr(0, stem.rfind('.'));
    BenchMesh* out = new BenchMesh(stem, "file:" + stem, ORIENT_UNKNOWN);
    out->m_mesh->release();
    out->m_mesh = model;
    out->finish();
    return out;
#else
    *error = path + ": mesh files need the command-line tool's mesh reader (configure with MERIDBSP_BUILD_CLI=ON)";
    return nullptr;
#endif
}
