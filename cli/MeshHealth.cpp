#include "MeshHealth.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <numeric>
#include <unordered_map>

#include <meridbsp/platform/dx/srMeshModel.h>

#include "Tool.h"

namespace
{

// Parts find each other through shared vertices.
class UnionFind
{
public:
    explicit UnionFind(size_t n) : m_parent(n) { std::iota(m_parent.begin(), m_parent.end(), 0); }
    size_t find(size_t i)
    {
        while (m_parent[i] != i)
        {
            m_parent[i] = m_parent[m_parent[i]];
            i = m_parent[i];
        }
        return i;
    }
    void join(size_t a, size_t b) { m_parent[find(a)] = find(b); }

private:
    std::vector<size_t> m_parent;
};

uint32_t bitsOf(float f)
{
    f += 0.0f; // -0 and +0 are one position
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

struct PositionHash
{
    size_t operator()(const srVector3T<float>& p) const
    {
        uint64_t h = bitsOf(p.x);
        h = h * 0x9E3779B97F4A7C15ull ^ bitsOf(p.y);
        h = h * 0x9E3779B97F4A7C15ull ^ bitsOf(p.z);
        return (size_t)(h ^ (h >> 29));
    }
};

struct PositionEqual
{
    bool operator()(const srVector3T<float>& a, const srVector3T<float>& b) const
    {
        return a.x == b.x && a.y == b.y && a.z == b.z;
    }
};

struct EdgeUse
{
    int forward = 0;  // along the edge from its lower to its higher welded vertex
    int backward = 0; // the other way
};

// An edge used by one triangle only, from its triangle's point of view.
struct BoundaryEdge
{
    double a[3];
    double b[3];
    uint32_t from;
};

double dot(const double* u, const double* v) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }

// Which boundary edges are closed after all: covered whole by boundary edges that run the
// other way along the same line (a T-junction, where one face's edge meets the edges of
// several smaller faces). Edges are grouped by direction, so only near-parallel ones are
// compared. `tolerance` is the distance within which a point counts as on a line.
std::vector<bool> coveredEdges(const std::vector<BoundaryEdge>& edges, double tolerance,
                               std::vector<std::pair<size_t, size_t>>& joins)
{
    std::vector<bool> covered(edges.size(), false);
    std::vector<std::array<int, 3>> keys(edges.size());
    std::map<std::array<int, 3>, std::vector<size_t>> groups;
    for (size_t i = 0; i < edges.size(); ++i)
    {
        double d[3] = {edges[i].b[0] - edges[i].a[0], edges[i].b[1] - edges[i].a[1], edges[i].b[2] - edges[i].a[2]};
        double len = std::sqrt(dot(d, d));
        // Both directions of a line get one key: the first clear component is made positive.
        double sign = 0;
        for (int k = 0; k < 3 && sign == 0; ++k)
            sign = std::fabs(d[k]) > 1e-9 * len ? (d[k] > 0 ? 1 : -1) : 0;
        for (int k = 0; k < 3; ++k)
            keys[i][k] = (int)std::lround(sign * d[k] / len * 1000.0);
        groups[keys[i]].push_back(i);
    }
    for (size_t i = 0; i < edges.size(); ++i)
    {
        const BoundaryEdge& e = edges[i];
        double d[3] = {e.b[0] - e.a[0], e.b[1] - e.a[1], e.b[2] - e.a[2]};
        double len2 = dot(d, d);
        std::vector<std::pair<double, double>> spans;
        std::vector<size_t> partners;
        for (int dx = -1; dx <= 1; ++dx)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dz = -1; dz <= 1; ++dz)
                {
                    auto g = groups.find({keys[i][0] + dx, keys[i][1] + dy, keys[i][2] + dz});
                    if (g == groups.end())
                        continue;
                    for (size_t j : g->second)
                    {
                        const BoundaryEdge& f = edges[j];
                        double t[2];
                        bool onLine = true;
                        for (int end = 0; end < 2 && onLine; ++end)
                        {
                            const double* p = end == 0 ? f.a : f.b;
                            double q[3] = {p[0] - e.a[0], p[1] - e.a[1], p[2] - e.a[2]};
                            double c[3] = {q[1] * d[2] - q[2] * d[1], q[2] * d[0] - q[0] * d[2],
                                           q[0] * d[1] - q[1] * d[0]};
                            onLine = dot(c, c) <= tolerance * tolerance * len2;
                            t[end] = dot(q, d) / len2;
                        }
                        // The other way along the line: f runs from the higher t to the lower.
                        if (onLine && t[0] > t[1])
                        {
                            spans.emplace_back(t[1], t[0]);
                            partners.push_back(j);
                        }
                    }
                }
        std::sort(spans.begin(), spans.end());
        double reached = 0.0, slack = tolerance / std::sqrt(len2);
        for (const auto& span : spans)
        {
            if (span.first > reached + slack)
                break;
            reached = std::max(reached, span.second);
        }
        covered[i] = reached >= 1.0 - slack;
        if (covered[i])
            for (size_t j : partners)
                joins.emplace_back(i, j);
    }
    return covered;
}

} // namespace

bool MeshHealth::isDegenerate(const srVector3T<float>& a, const srVector3T<float>& b, const srVector3T<float>& c)
{
    double e1x = (double)b.x - a.x, e1y = (double)b.y - a.y, e1z = (double)b.z - a.z;
    double e2x = (double)c.x - a.x, e2y = (double)c.y - a.y, e2z = (double)c.z - a.z;
    double e3x = (double)c.x - b.x, e3y = (double)c.y - b.y, e3z = (double)c.z - b.z;
    double nx = e1y * e2z - e1z * e2y, ny = e1z * e2x - e1x * e2z, nz = e1x * e2y - e1y * e2x;
    double n = std::sqrt(nx * nx + ny * ny + nz * nz);
    double longest = std::sqrt(std::max(
        {e1x * e1x + e1y * e1y + e1z * e1z, e2x * e2x + e2y * e2y + e2z * e2z, e3x * e3x + e3y * e3y + e3z * e3z}));
    double size = longest;
    for (const srVector3T<float>* p : {&a, &b, &c})
        size = std::max({size, std::fabs((double)p->x), std::fabs((double)p->y), std::fabs((double)p->z)});
    // Height n / longest against four float steps (2^-22) of the coordinates' size.
    if (n <= std::ldexp(size, -22) * longest)
        return true;
    // The collision pipeline's plane comes from a float cross product, whose square can
    // underflow to zero for microscopic triangles.
    float fx = (float)e1y * (float)e2z - (float)e1z * (float)e2y;
    float fy = (float)e1z * (float)e2x - (float)e1x * (float)e2z;
    float fz = (float)e1x * (float)e2y - (float)e1y * (float)e2x;
    return fx * fx + fy * fy + fz * fz == 0.0f;
}

MeshHealth::Report MeshHealth::measure(const srMeshModel& mesh)
{
    Report r;
    const std::vector<srVector3T<float>>& verts = mesh.m_verts;
    const std::vector<srVector3i>& tris = mesh.m_polyVerts;
    r.triangles = (long)tris.size();

    // Vertices welded by position.
    std::unordered_map<srVector3T<float>, uint32_t, PositionHash, PositionEqual> ids;
    std::vector<uint32_t> weld(verts.size());
    std::vector<srVector3T<float>> positions;
    for (size_t v = 0; v < verts.size(); ++v)
    {
        auto inserted = ids.emplace(verts[v], (uint32_t)ids.size());
        if (inserted.second)
            positions.push_back(verts[v]);
        weld[v] = inserted.first->second;
    }

    std::vector<bool> degenerate(tris.size(), false);
    for (size_t t = 0; t < tris.size(); ++t)
    {
        const srVector3i& tri = tris[t];
        for (int k = 0; k < 3; ++k)
        {
            const srVector3T<float>& p = verts[(size_t)tri[k]];
            if (!r.hasBox)
            {
                r.mins = r.maxs = p;
                r.hasBox = true;
            }
            for (int a = 0; a < 3; ++a)
            {
                r.mins[a] = std::min(r.mins[a], p[a]);
                r.maxs[a] = std::max(r.maxs[a], p[a]);
            }
        }
        degenerate[t] = isDegenerate(verts[(size_t)tri.x], verts[(size_t)tri.y], verts[(size_t)tri.z]);
        r.degenerate += degenerate[t] ? 1 : 0;
    }

    std::unordered_map<uint64_t, EdgeUse> edges;
    UnionFind parts(ids.size());
    for (size_t t = 0; t < tris.size(); ++t)
    {
        if (degenerate[t])
            continue;
        uint32_t w[3] = {weld[(size_t)tris[t].x], weld[(size_t)tris[t].y], weld[(size_t)tris[t].z]};
        for (int k = 0; k < 3; ++k)
        {
            uint32_t from = w[k], to = w[(k + 1) % 3];
            uint64_t key = ((uint64_t)std::min(from, to) << 32) | std::max(from, to);
            EdgeUse& use = edges[key];
            (from < to ? use.forward : use.backward) += 1;
        }
        parts.join(w[0], w[1]);
        parts.join(w[0], w[2]);
    }
    std::vector<BoundaryEdge> boundary;
    for (const auto& e : edges)
    {
        int uses = e.second.forward + e.second.backward;
        if (uses == 1)
        {
            uint32_t lo = (uint32_t)(e.first >> 32), hi = (uint32_t)e.first;
            BoundaryEdge b;
            b.from = e.second.forward ? lo : hi;
            const srVector3T<float>& from = positions[b.from];
            const srVector3T<float>& to = positions[e.second.forward ? hi : lo];
            for (int a = 0; a < 3; ++a)
            {
                b.a[a] = from[a];
                b.b[a] = to[a];
            }
            boundary.push_back(b);
        }
        else if (uses > 2)
            ++r.nonManifoldEdges;
        else if (e.second.forward != 1)
            ++r.misorientedEdges;
    }
    double size = 0;
    if (r.hasBox)
        for (int a = 0; a < 3; ++a)
            size = std::max({size, std::fabs((double)r.mins[a]), std::fabs((double)r.maxs[a])});
    std::vector<std::pair<size_t, size_t>> joins;
    std::vector<bool> covered = coveredEdges(boundary, std::ldexp(size, -20), joins);
    for (bool c : covered)
        (c ? r.tJunctionEdges : r.openEdges) += 1;
    // Parts that meet along a T-junction are one part.
    for (const auto& join : joins)
        parts.join(boundary[join.first].from, boundary[join.second].from);

    // Signed volume per part, about the box's centre (which keeps the sums small).
    double centre[3] = {0, 0, 0};
    double diagonal = 0;
    if (r.hasBox)
    {
        for (int a = 0; a < 3; ++a)
        {
            centre[a] = ((double)r.mins[a] + r.maxs[a]) / 2;
            diagonal += ((double)r.maxs[a] - r.mins[a]) * ((double)r.maxs[a] - r.mins[a]);
        }
        diagonal = std::sqrt(diagonal);
    }
    std::unordered_map<size_t, double> volumes;
    for (size_t t = 0; t < tris.size(); ++t)
    {
        if (degenerate[t])
            continue;
        double p[3][3];
        for (int k = 0; k < 3; ++k)
        {
            const srVector3T<float>& v = verts[(size_t)tris[t][k]];
            for (int a = 0; a < 3; ++a)
                p[k][a] = (double)v[a] - centre[a];
        }
        double vol =
            (p[0][0] * (p[1][1] * p[2][2] - p[1][2] * p[2][1]) - p[0][1] * (p[1][0] * p[2][2] - p[1][2] * p[2][0]) +
             p[0][2] * (p[1][0] * p[2][1] - p[1][1] * p[2][0])) /
            6.0;
        volumes[parts.find(weld[(size_t)tris[t].x])] += vol;
        r.signedVolume += vol;
    }
    r.components = (long)volumes.size();
    // A part encloses volume when it is more than rounding away from flat.
    double flat = 1e-9 * diagonal * diagonal * diagonal;
    for (const auto& v : volumes)
    {
        if (v.second > flat)
            ++r.partsOut;
        else if (v.second < -flat)
            ++r.partsIn;
    }
    if (r.misorientedEdges > 0 || (r.partsOut > 0 && r.partsIn > 0))
        r.orientation = ORIENTATION_MIXED;
    else if (r.partsOut > 0)
        r.orientation = ORIENTATION_OUT;
    else if (r.partsIn > 0)
        r.orientation = ORIENTATION_IN;
    return r;
}

long MeshHealth::dropDegenerate(srMeshModel& mesh)
{
    std::vector<srVector3i>& tris = mesh.m_polyVerts;
    std::vector<srPtr<srTextureIFace>>& textures = mesh.m_polyTextures;
    bool perPolygon = textures.size() == tris.size();
    size_t kept = 0;
    for (size_t t = 0; t < tris.size(); ++t)
    {
        const srVector3i& tri = tris[t];
        if (isDegenerate(mesh.m_verts[(size_t)tri.x], mesh.m_verts[(size_t)tri.y], mesh.m_verts[(size_t)tri.z]))
            continue;
        if (kept != t)
        {
            tris[kept] = tris[t];
            if (perPolygon)
                textures[kept] = textures[t];
        }
        ++kept;
    }
    long dropped = (long)(tris.size() - kept);
    tris.resize(kept);
    if (perPolygon)
        textures.resize(kept);
    mesh.m_numpolys = (long)kept;
    return dropped;
}

const char* MeshHealth::orientationName(e_orientation orientation)
{
    switch (orientation)
    {
    case ORIENTATION_OUT:
        return "out";
    case ORIENTATION_IN:
        return "in";
    case ORIENTATION_MIXED:
        return "mixed";
    default:
        return "none";
    }
}

std::vector<std::string> MeshHealth::problems(const Report& r)
{
    std::vector<std::string> lines;
    if (r.openEdges > 0)
        lines.push_back(Tool::count(r.openEdges, "open edge", "open edges") +
                        ": the mesh is not closed, so solid and empty space may leak into each other");
    if (r.nonManifoldEdges > 0)
        lines.push_back(Tool::count(r.nonManifoldEdges, "non-manifold edge", "non-manifold edges") +
                        " (shared by more than two triangles): inside and outside are ambiguous along them");
    if (r.misorientedEdges > 0)
        lines.push_back(Tool::count(r.misorientedEdges, "edge joins", "edges join") +
                        " triangles wound against each other: some faces point the wrong way");
    if (r.partsOut > 0 && r.partsIn > 0)
        lines.push_back("faces point out on " + Tool::count(r.partsOut, "part", "parts") + " and in on " +
                        Tool::count(r.partsIn, "part", "parts") + ": some parts will be inside out");
    return lines;
}

std::string MeshHealth::inwardNote(const Report& r)
{
    if (r.orientation != ORIENTATION_IN)
        return std::string();
    return "the faces point inward (signed volume " + Tool::g9(r.signedVolume) +
           "): the inside of the clip BSP will be open space and the outside solid; right for a hollow level, "
           "wrong for a prop";
}

nlohmann::ordered_json MeshHealth::json(const Report& r)
{
    nlohmann::ordered_json j;
    j["triangles"] = r.triangles;
    j["degenerateTriangles"] = r.degenerate;
    j["openEdges"] = r.openEdges;
    j["tJunctionEdges"] = r.tJunctionEdges;
    j["nonManifoldEdges"] = r.nonManifoldEdges;
    j["misorientedEdges"] = r.misorientedEdges;
    j["components"] = r.components;
    if (r.hasBox)
    {
        j["mins"] = {Tool::jsonReal(r.mins.x), Tool::jsonReal(r.mins.y), Tool::jsonReal(r.mins.z)};
        j["maxs"] = {Tool::jsonReal(r.maxs.x), Tool::jsonReal(r.maxs.y), Tool::jsonReal(r.maxs.z)};
    }
    else
    {
        j["mins"] = nullptr;
        j["maxs"] = nullptr;
    }
    j["signedVolume"] = r.signedVolume;
    j["orientation"] = orientationName(r.orientation);
    j["partsOut"] = r.partsOut;
    j["partsIn"] = r.partsIn;
    return j;
}
