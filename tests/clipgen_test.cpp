// The clip BSP generator: records, mesh import, face splitting, partitioning, conversion,
// and the finished clip BSPs checked against a brute-force reference.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srTexture.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef srVector4T<float> V4;
const double kPi = 3.14159265358979323846;

typedef mtest::ClipPtr BSPPtr;
using mtest::addTriangle;

BSPPtr import(mrClipBSPGen& gen, srMeshModel& mesh, V offset = V(0, 0, 0), srMatrix3T<float> matrix = {})
{
    return BSPPtr(gen.importMeshModel(&mesh, offset, matrix));
}

// The generator's counts: interior nodes, empty leaves, solid leaves, leaf faces.
std::vector<int> counts(const mrClipBSPGen& g)
{
    return {g.m_numnodes, g.m_numemptyleafs, g.m_numsolidleafs, g.m_numleaffaces};
}

// A clip BSP's node records as (plane index, front, back) triples in a row.
std::vector<int> nodesOf(const mrClipBSP& b)
{
    std::vector<int> out;
    for (uint32_t i = 0; i < b.m_numnodes; ++i)
        out.insert(out.end(), {b.m_nodes[i].planeIndex, b.m_nodes[i].child[0], b.m_nodes[i].child[1]});
    return out;
}

// Holds one reference to a named texture for the test's lifetime.
struct Tex
{
    explicit Tex(const char* name) : p(new srTexture(name)) {}
    ~Tex() { p->release(); }
    srTexture* p;
};

// A face owned by the generator (it releases every face in m_allfaces).
mrFace* addFace(mrClipBSPGen& gen, std::vector<V> pts, V4 plane)
{
    mrFace* f = new mrFace();
    f->m_numpoints = (int)pts.size();
    for (size_t i = 0; i < pts.size(); ++i)
        f->m_points[i] = pts[i];
    f->m_plane = plane;
    gen.m_allfaces.push_back(f);
    return f;
}

bool hasPoint(const mrFace* f, const V& p)
{
    return std::find(f->m_points, f->m_points + f->m_numpoints, p) != f->m_points + f->m_numpoints;
}

// ---- brute-force reference for closed meshes, in double ----

struct D3
{
    double x, y, z;
};
D3 d3(const V& v) { return {v.x, v.y, v.z}; }
D3 operator-(D3 a, D3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
D3 operator+(D3 a, D3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
D3 operator*(D3 a, double s) { return {a.x * s, a.y * s, a.z * s}; }
double dot(D3 a, D3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
D3 cross(D3 a, D3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
double len(D3 a) { return std::sqrt(dot(a, a)); }

struct Poly
{
    std::vector<D3> a, b, c;

    explicit Poly(srMeshModel& m)
    {
        const srVector3i* t = m.getPolyVertex();
        const V* v = m.getVertexLoc();
        for (long i = 0; i < m.m_numpolys; ++i)
        {
            a.push_back(d3(v[t[i].x]));
            b.push_back(d3(v[t[i].y]));
            c.push_back(d3(v[t[i].z]));
        }
    }

    // Parameter along the line o + t dir where it meets triangle i, or NaN.
    double hit(size_t i, D3 o, D3 dir) const
    {
        const double none = std::nan("");
        D3 e1 = b[i] - a[i], e2 = c[i] - a[i];
        D3 p = cross(dir, e2);
        double det = dot(e1, p);
        if (std::fabs(det) < 1e-15)
            return none;
        D3 s = o - a[i];
        double u = dot(s, p) / det;
        if (u < 0 || u > 1)
            return none;
        D3 q = cross(s, e1);
        double v = dot(dir, q) / det;
        if (v < 0 || u + v > 1)
            return none;
        return dot(e2, q) / det;
    }

    // Parity of crossings along a fixed skew ray.
    bool inside(const V& p) const
    {
        D3 dir = {0.5773502, 0.6180339, 0.5330874};
        int n = 0;
        for (size_t i = 0; i < a.size(); ++i)
            n += hit(i, d3(p), dir) > 0;
        return n % 2 == 1;
    }

    // Fraction of the first surface hit along start -> end, or 2 when none.
    double firstHit(const V& s, const V& e) const
    {
        double best = 2;
        for (size_t i = 0; i < a.size(); ++i)
        {
            double t = hit(i, d3(s), d3(e) - d3(s));
            if (t >= 0 && t <= 1 && t < best)
                best = t;
        }
        return best;
    }

    // Distance from p to the surface: to the plane of a triangle that p projects into,
    // else to the nearest edge.
    double distance(const V& point) const
    {
        D3 p = d3(point);
        auto edge = [&p](D3 from, D3 to)
        {
            double t = std::min(1.0, std::max(0.0, dot(p - from, to - from) / dot(to - from, to - from)));
            return len(p - (from + (to - from) * t));
        };
        double best = 1e30;
        for (size_t i = 0; i < a.size(); ++i)
        {
            D3 n = cross(b[i] - a[i], c[i] - a[i]);
            n = n * (1 / len(n));
            best = std::min(best, std::isnan(hit(i, p, n))
                                      ? std::min({edge(a[i], b[i]), edge(b[i], c[i]), edge(c[i], a[i])})
                                      : std::fabs(dot(p - a[i], n)));
        }
        return best;
    }
};

// `count` random points in [-extent, extent]^3 farther than 0.01 from the surface.
std::vector<V> pointsOffSurface(const Poly& poly, float extent, int count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-extent, extent);
    std::vector<V> out;
    while ((int)out.size() < count)
    {
        V p(u(rng), u(rng), u(rng));
        if (poly.distance(p) > 0.01)
            out.push_back(p);
    }
    return out;
}

// Each point's expected answer comes from the brute-force test.
void expectPointsMatch(const mrClipBSP& bsp, const Poly& poly, float extent, int count, unsigned seed)
{
    int inside = 0;
    for (const V& p : pointsOffSurface(poly, extent, count, seed))
    {
        bool in = poly.inside(p);
        ASSERT_EQ(in ? -2 : -1, bsp.pointInfo(0, p)) << "at " << p.x << ", " << p.y << ", " << p.z;
        inside += in;
    }
    EXPECT_GT(inside, count / 20);
    EXPECT_LT(inside, count - count / 20);
}

// Traces from random points on a large sphere toward `centre` stop just short of the
// first surface hit.
void expectTracesStopShort(const mrClipBSP& bsp, const Poly& poly, V centre, float radius, int count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<float> g(0, 1);
    for (int i = 0; i < count; ++i)
    {
        D3 d = {g(rng), g(rng), g(rng)};
        d = d * (radius / len(d));
        V start((float)(centre.x + d.x), (float)(centre.y + d.y), (float)(centre.z + d.z));
        V end = centre;
        double hit = poly.firstHit(start, end);
        ASSERT_LT(hit, 1.0);
        mrTrace tr;
        ASSERT_EQ(0, bsp.checkCollision(start, end, tr));
        EXPECT_EQ(std::make_tuple(tr.m_startSolid, tr.m_allSolid, bsp.pointInfo(0, tr.m_endPos)),
                  std::make_tuple(0, 0, -1));
        EXPECT_LT((double)tr.m_fraction, hit);
        EXPECT_LT(poly.distance(tr.m_endPos), 0.05) << "trace " << i;
    }
}
} // namespace

// ---------------------------------------------------------------------------

TEST(ClipGenRecords, CheckFaceChangesNothing)
{
    mrClipBSPGen gen;
    mrFace* f = addFace(gen, {V(1, 2, 3), V(4, 5, 6), V(7, 8, 9)}, V4(0, 0, 1, 2));
    const mrFace before = *f;
    gen.checkFace(f);
    EXPECT_EQ(0, std::memcmp(&before.m_plane, &f->m_plane, sizeof f->m_plane));
    EXPECT_EQ(std::make_tuple(std::vector<V>(before.m_points, before.m_points + 3), before.m_numpoints, before.m_used,
                              before.m_texture),
              std::make_tuple(std::vector<V>(f->m_points, f->m_points + 3), f->m_numpoints, f->m_used, f->m_texture));
    // A face made outside the generator has room for 64 points; a copy has its own.
    EXPECT_EQ(64, f->capacity());
    f->m_points[0] = V(7, 7, 7);
    EXPECT_EQ(V(1, 2, 3), before.m_points[0]);
}

TEST(ClipGenRecords, FindContentsMarksOnlyTheTwoExactNames)
{
    mrClipBSPGen gen;
    EXPECT_EQ(-2, gen.findContents(nullptr));
    const std::pair<const char*, int> names[] = {
        {"Q47ROADOT.TGA", -3}, {"NERDSTRP.TGA", -3}, {"q47roadot.tga", -2}, {"Nerdstrp.TGA", -2},
        {"NERDSTRP.TGA ", -2}, {"NERDSTRP", -2},     {"Q47ROADOT", -2},     {"", -2},
        {"WALL.TGA", -2}};
    for (const auto& n : names)
    {
        Tex t(n.first);
        EXPECT_EQ(n.second, gen.findContents(t.p)) << n.first;
    }
}

// ---- import: planes, bounds, textures ----

TEST(ClipGenImport, TrianglePlaneFollowsWindingAndIsComputedInFloat)
{
    struct Case
    {
        V a, b, c;
        V4 plane;
    } cases[] = {
        {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0), V4(0, 0, 1, 0)},
        {V(0, 0, 0), V(0, 1, 0), V(1, 0, 0), V4(0, 0, -1, 0)},
        {V(0, 0, 5), V(1, 0, 5), V(0, 1, 5), V4(0, 0, 1, 5)},
        {V(0, 0, 0), V(1, 1, 1), V(2, 2, 2), V4(0, 0, 0, 0)},
        {V(3, 1, 2), V(3, 1, 2), V(0, 7, 1), V4(0, 0, 0, 0)},
        // These points give a plane that differs in every component from the same formula
        // evaluated in double and rounded once.
        {V(-117.125f, -86.625f, -35.875f), V(70.125f, 88.25f, -79.25f), V(73.75f, -18.625f, 73.5f),
         V4(0x1.0ee9c8p-1f, -0x1.60ed4cp-1f, -0x1.fab99ep-2f, 0x1.efaf78p+3f)},
        // Here the scale 1/sqrt(L) differs when taken in double.
        {V(-19.25f, -1.5f, 24.25f), V(-13.75f, -24.25f, -1.25f), V(-4.75f, -4.75f, -2.75f),
         V4(0x1.9f8b4cp-1f, -0x1.5a0adap-2f, 0x1.e7fa7ap-2f, -0x1.c7bd14p+1f)},
    };
    for (const Case& c : cases)
    {
        srMeshModel mesh;
        addTriangle(mesh, c.a, c.b, c.c);
        mrClipBSPGen gen;
        BSPPtr bsp = import(gen, mesh);
        ASSERT_EQ(std::make_tuple(gen.m_faces.size(), gen.m_numplanes), std::make_tuple(1u, 1));
        const V4& p = gen.m_faces[0]->m_plane;
        EXPECT_TRUE(p == c.plane) << p.x << " " << p.y << " " << p.z << " " << p.w;
        EXPECT_EQ(std::make_tuple(gen.m_faces[0]->m_numpoints, gen.m_planes[0].m_normal, gen.m_planes[0].m_dist),
                  std::make_tuple(3, V(c.plane.x, c.plane.y, c.plane.z), c.plane.w));
    }
}

TEST(ClipGenImport, BoundsReachOneUnitBeyondTheMeshAfterMatrixThenOffsetAreUntouchedWithoutTrianglesNullModelReported)
{
    srMeshModel mesh;
    addTriangle(mesh, V(-2, 0, 0), V(3, 0, 0), V(0, 1, 7));
    mesh.addVertex(V(100, 100, 100)); // used by no triangle: does not count
    mrClipBSPGen gen;
    BSPPtr bsp = import(gen, mesh);
    ASSERT_EQ(1u, gen.m_nodes.size());
    EXPECT_EQ(std::make_tuple(bsp->m_mins, bsp->m_maxs, gen.m_nodes[0]->m_mins, gen.m_nodes[0]->m_maxs),
              std::make_tuple(V(-3, -1, -1), V(4, 2, 8), V(-2, 0, 0), V(3, 1, 7)));

    // Quarter turn about z: (x, y, z) -> (-y, x, z); then the offset. The caller's mesh
    // stays as it was.
    srMeshModel tri;
    addTriangle(tri, V(1, 0, 0), V(0, 1, 0), V(0, 0, 1));
    mrClipBSPGen moved;
    BSPPtr m = import(moved, tri, V(10, 20, 30), srMatrix3T<float>(0, 1, 0, -1, 0, 0, 0, 0, 1));
    const V* points = moved.m_faces[0]->m_points;
    EXPECT_EQ(std::make_tuple(std::vector<V>(points, points + 3), tri.getVertexLoc()[0], m->m_mins),
              std::make_tuple(std::vector<V>{V(10, 21, 30), V(9, 20, 30), V(10, 20, 31)}, V(1, 0, 0), V(8, 19, 29)));

    // An empty mesh: no nodes, and the bounds keep their starting values.
    srMeshModel none;
    mrClipBSPGen emptyGen;
    BSPPtr empty = import(emptyGen, none);
    ASSERT_TRUE(empty);
    EXPECT_EQ(std::make_tuple(empty->m_numnodes + empty->m_numplanes, empty->m_nodes, empty->m_planes, empty->m_mins,
                              empty->m_maxs, counts(emptyGen), emptyGen.m_numplanes, emptyGen.m_planes),
              std::make_tuple(0u, nullptr, nullptr, V(999998, 999998, 999998), V(-999998, -999998, -999998),
                              std::vector<int>{0, 0, 1, 0}, 0, nullptr));

    mtest::AssertRecorder rec;
    mrClipBSPGen other;
    V offset;
    srMatrix3T<float> identity;
    EXPECT_EQ(nullptr, other.importMeshModel(nullptr, offset, identity));
    rec.expect({{"model", "mrClipBSPGen", 36, nullptr}});
}

TEST(ClipGenImport, FacesTakePolygonTexturesElseTheMeshTexture)
{
    Tex a("A.TGA"), b("B.TGA"), m("MESH.TGA");
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    addTriangle(mesh, V(0, 0, 3), V(0, 1, 3), V(1, 0, 3));
    mesh.setTexture(m.p);
    for (int perPolygon = 0; perPolygon < 2; ++perPolygon)
    {
        if (perPolygon)
        {
            mesh.setPolyTexture(0, a.p);
            mesh.setPolyTexture(1, b.p);
        }
        mrClipBSPGen gen;
        BSPPtr bsp = import(gen, mesh);
        EXPECT_EQ(perPolygon ? a.p : m.p, gen.m_faces[0]->m_texture);
        EXPECT_EQ(perPolygon ? b.p : m.p, gen.m_faces[1]->m_texture);
    }
}

// ---- partitioning and conversion on whole meshes ----

TEST(ClipGenTree, OneTriangleIsOnePlaneWithSolidBehind)
{
    srMeshModel mesh;
    addTriangle(mesh, V(0, 0, 0), V(1, 0, 0), V(0, 1, 0));
    mrClipBSPGen gen;
    BSPPtr bsp = import(gen, mesh);
    EXPECT_EQ(std::make_tuple(bsp->m_numplanes, nodesOf(*bsp), bsp->pointInfo(0, V(0.2f, 0.2f, 1)),
                              bsp->pointInfo(0, V(0.2f, 0.2f, -1))),
              std::make_tuple(1u, std::vector<int>{0, -1, -2}, -1, -2));
}

TEST(ClipGenTree, ClosedBoxIsAChainOfSixNodes)
{
    Tex other("WALL.TGA"), marked("NERDSTRP.TGA");
    for (int mark = 0; mark < 2; ++mark)
    {
        srMeshModel mesh;
        mtest::addBox(mesh, V(-8, -8, -8), V(8, 8, 8), true);
        ASSERT_EQ(12, mesh.m_numpolys);
        for (long i = 0; i < 12; ++i)
            mesh.setPolyTexture(i, i == 1 && mark ? marked.p : other.p);
        mrClipBSPGen gen;
        BSPPtr bsp = import(gen, mesh);
        // Nothing was cut; the clip BSP object's own contents stay at the constructor's value.
        EXPECT_EQ(std::make_tuple(bsp->m_numplanes, nodesOf(*bsp), counts(gen), gen.m_allfaces.size(), bsp->m_contents),
                  std::make_tuple(
                      12u, std::vector<int>{11, -1, 1, 9, -1, 2, 7, -1, 3, 5, -1, 4, 3, -1, 5, 1, -1, mark ? -3 : -2},
                      std::vector<int>{6, 6, 1, 12}, 12u, 1u));
        for (const mrFace* f : gen.m_faces)
            EXPECT_EQ(1, f->m_used);
    }
}

TEST(ClipGenTree, EqualPlanesInDifferentSubtreesUseTheLastIndex)
{
    // A wall on x = 0 is the first splitter; two small triangles on the plane z = 1,
    // one on each side of it, become splitters in different subtrees.
    srMeshModel mesh;
    addTriangle(mesh, V(-10, 0, 1), V(-9, 0, 1), V(-10, 1, 1)); // 0: z = 1, faces +z
    addTriangle(mesh, V(0, -5, -5), V(0, 5, -5), V(0, 0, 5));   // 1: x = 0, faces +x
    addTriangle(mesh, V(9, 0, 1), V(10, 0, 1), V(9, 1, 1));     // 2: z = 1, faces +z
    mrClipBSPGen gen;
    BSPPtr bsp = import(gen, mesh);
    ASSERT_EQ(gen.m_planes[0].m_normal, gen.m_planes[2].m_normal);
    ASSERT_EQ(gen.m_planes[0].m_dist, gen.m_planes[2].m_dist);
    EXPECT_EQ(nodesOf(*bsp), (std::vector<int>{1, 1, 2, 2, -1, -1, 2, -1, -2}));
}

// ---- splitFace ----

class ClipGenSplit : public ::testing::Test
{
protected:
    mrClipBSPGen gen;
    mrFace* front = reinterpret_cast<mrFace*>(1);
    mrFace* back = reinterpret_cast<mrFace*>(1);
};

TEST_F(ClipGenSplit, WholeFacesGoToTheirSideAndFacingOnesAreUsed)
{
    struct Case
    {
        std::vector<V> points;
        V4 facePlane, split;
        bool toFront;
        int used;
    } cases[] = {
        // Same facing within 0.001, opposite facing: whole and used.
        {{V(0, 0, 2), V(1, 0, 2), V(0, 1, 2)}, V4(0, 0, 1, 2), V4(0, 0, 1, 2.0005f), true, 1},
        {{V(0, 0, 2), V(0, 1, 2), V(1, 0, 2)}, V4(0, 0, -1, -2), V4(0, 0, 1, 2), false, 1},
        // In front, behind, and on the plane with a plane of its own that fails both
        // facing tests: whole, still candidates.
        {{V(0, 0, 0), V(1, 0, 0), V(0, 0, 1)}, V4(0, -1, 0, 0), V4(1, 0, 0, 0.0009f), true, 0},
        {{V(0, 0, 0), V(-1, 0, 0), V(0, 0, 1)}, V4(0, 1, 0, 0), V4(1, 0, 0, 0.0009f), false, 0},
        {{V(0, 0, 0), V(0, 1, 0), V(0, 2, 0)}, V4(0, 0, 0, 0), V4(1, 0, 0, 0.0009f), false, 0},
    };
    for (Case& c : cases)
    {
        mrFace* f = addFace(gen, c.points, c.facePlane);
        gen.splitFace(f, c.split, &front, &back);
        EXPECT_EQ(std::make_tuple(c.toFront ? f : nullptr, c.toFront ? nullptr : f, c.used),
                  std::make_tuple(front, back, f->m_used))
            << &c - cases;
    }
    EXPECT_EQ(5u, gen.m_allfaces.size());
}

TEST_F(ClipGenSplit, CutReplacesTheFaceByBackThenFrontPiece)
{
    Tex t("WALL.TGA");
    mrFace* keep = addFace(gen, {V(0, 0, 9), V(1, 0, 9), V(0, 1, 9)}, V4(0, 0, 1, 9));
    // One point on x = 4, one in front, one behind.
    mrFace* f = addFace(gen, {V(4, 0, 0), V(6, 1, 0), V(1, 3, 0)}, V4(0, 0, 1, 0));
    std::tie(f->m_texture, f->m_used) = std::make_tuple(t.p, 1);
    V4 plane(1, 0, 0, 4);
    gen.splitFace(f, plane, &front, &back);
    EXPECT_EQ(gen.m_allfaces, (std::vector<mrFace*>{keep, back, front}));
    // Pieces get room for exactly the points they hold.
    ASSERT_EQ(std::make_tuple(front->m_numpoints, back->m_numpoints, front->capacity(), back->capacity()),
              std::make_tuple(3, 3, 3, 3));
    const V cut = front->m_points[2];
    EXPECT_EQ(4.0f, cut.x);
    EXPECT_NEAR(1.8f, cut.y, 1e-6);
    EXPECT_EQ(std::vector<V>(front->m_points, front->m_points + 3), (std::vector<V>{V(4, 0, 0), V(6, 1, 0), cut}));
    EXPECT_EQ(std::vector<V>(back->m_points, back->m_points + 3), (std::vector<V>{V(4, 0, 0), cut, V(1, 3, 0)}));

    for (mrFace* piece : {front, back})
        EXPECT_TRUE(piece->m_texture == t.p && piece->m_used == 1 && piece->m_plane == V4(0, 0, 1, 0));
}

TEST_F(ClipGenSplit, AxialPlanePutsCutPointsExactlyOnItAndPointDistancesAreTakenInDouble)
{
    // On x = 0 the interpolated x of the edge from 6.7 to -2.1 comes out as -2^-50.
    struct Case
    {
        float sign, at;
    } cases[] = {{1, 4}, {-1, 4}, {1, 0}, {-1, 0}};
    for (const Case& c : cases)
    {
        const float s = c.at;
        mrFace* f =
            addFace(gen, {V(s + 6.7f, 0.3f, 0.1f), V(s - 2.1f, 2.1f, 0.7f), V(s + 7.3f, 5.3f, -0.9f)}, V4(0, 0, 1, 0));
        V4 plane(c.sign, 0, 0, c.at * c.sign);
        gen.splitFace(f, plane, &front, &back);
        ASSERT_TRUE(front && back);
        int cuts = 0;
        for (int i = 0; i < back->m_numpoints; ++i)
            if (hasPoint(front, back->m_points[i]))
            {
                EXPECT_EQ(c.at, back->m_points[i].x) << c.sign << " " << c.at;
                ++cuts;
            }
        EXPECT_EQ(2, cuts);
        EXPECT_EQ(4, c.sign > 0 ? front->m_numpoints : back->m_numpoints);
    }

    // p lies 0.0010016 in front of the plane in double, but within 0.001 in float; the
    // other two points are well behind, so only the double distance cuts the face.
    const float nx = 0x1.a89bf2p-2f, ny = 0x1.d1e896p-1f;
    const V p(0x1.a7p+4f, -0x1.d39p+6f, 1);
    const V q1(p.x - 3 * nx - 2 * ny, p.y - 3 * ny + 2 * nx, 1);
    const V q2(p.x - 3 * nx + 2 * ny, p.y - 3 * ny - 2 * nx, 1);
    mrFace* f = addFace(gen, {p, q1, q2}, V4(0, 0, 1, 1));
    V4 plane(nx, ny, 0, -0x1.7da01ap+6f);
    gen.splitFace(f, plane, &front, &back);
    ASSERT_TRUE(front && back);
    EXPECT_EQ(std::make_tuple(front->m_points[0], front->m_numpoints, back->m_numpoints), std::make_tuple(p, 3, 4));
}

TEST_F(ClipGenSplit, PieceBeyondSixtyFourPointsIsReportedAndTruncated)
{
    std::vector<V> ring;
    for (int i = 0; i < 64; ++i)
        ring.push_back(V((float)(10 * std::cos(2 * kPi * i / 64)), (float)(10 * std::sin(2 * kPi * i / 64)), 0));
    mrFace* f = addFace(gen, ring, V4(0, 0, 1, 0));
    // Slices off point 0 only: the front piece would need 63 + 2 points.
    V4 plane(-1, 0, 0, -9.99f);
    mtest::AssertRecorder rec;
    gen.splitFace(f, plane, &front, &back);
    rec.expect({{"face->m_numpoints < MAX_POINTS", "mrClipBSPGen", 0, "face piece exceeds 64 points; point dropped"}});
    EXPECT_EQ(std::make_tuple(front->m_numpoints, front->capacity(), back->m_numpoints), std::make_tuple(64, 64, 3));
}

// ---- splitter choice and partitioning on hand-made lists ----

TEST(ClipGenPartition, EmptyListIsSolidLeafAllUsedIsEmptyLeafADegenerateSplitterSendsEverythingBack)
{
    mrClipBSPGen gen;
    mrBSPGenNode solid, empty;
    std::vector<mrFace*> none;
    gen.partitionFaces(none, &solid);
    EXPECT_EQ(-2, solid.m_contents);
    mrFace* f = addFace(gen, {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0)}, V4(0, 0, 1, 0));
    f->m_used = 1;
    std::vector<mrFace*> used = {f, f};
    gen.partitionFaces(used, &empty);
    // The caller's list is left as it was.
    EXPECT_EQ(std::make_tuple(empty.m_contents, counts(gen), gen.m_nodes.size(), used.size()),
              std::make_tuple(-1, std::vector<int>{0, 1, 1, 2}, 0u, 2u));

    // A degenerate splitter sends everything back.
    mrClipBSPGen other;
    mrFace* t = addFace(other, {V(-1, -1, 1), V(1, -1, 1), V(-1, 1, 1)}, V4(0, 0, 1, 1));
    mrFace* d = addFace(other, {V(-1, -1, -1), V(0, 0, 0), V(1, 1, 1)}, V4(0, 0, 0, 0));
    std::vector<mrFace*> list = {t, d};
    mrBSPGenNode root;
    other.partitionFaces(list, &root);
    ASSERT_EQ(2u, other.m_nodes.size());
    EXPECT_TRUE(root.m_plane == V4(0, 0, 0, 0));
    EXPECT_EQ(std::make_tuple(other.m_nodes[0], root.m_children[1], root.m_children[0]->m_contents,
                              other.m_nodes[1]->m_children[0]->m_contents, other.m_nodes[1]->m_children[1]->m_contents,
                              other.m_allfaces.size()),
              std::make_tuple(&root, other.m_nodes[1], -2, -1, -1, 2u));
}

TEST(ClipGenPartition, MidPlaneChoiceNearestCentreTiesToLaterAndNoCandidateIsReported)
{
    mrClipBSPGen gen;
    mrFace* a = addFace(gen, {}, V4(1, 0, 0, 3));
    mrFace* b = addFace(gen, {}, V4(0, 1, 0, 1));
    mrFace* c = addFace(gen, {}, V4(0, 0, -1, 1));
    mrFace* used = addFace(gen, {}, V4(0, 0, 1, 0));
    used->m_used = 1;
    std::vector<mrFace*> list = {a, b, c, used};
    V mins(-2, -2, -2), maxs(2, 2, 2);
    // b and c are equally far from the centre; c is later. The used face would be best.
    EXPECT_EQ(c, gen.chooseMidPlaneFromList(list, mins, maxs));
    std::vector<mrFace*> ab = {b, a};
    EXPECT_EQ(b, gen.chooseMidPlaneFromList(ab, mins, maxs));
    // Every measure above the start value: the first candidate.
    V far(-30000, -30000, -30000), farMax(-29999, -29999, -29999);
    std::vector<mrFace*> ba = {a, b};
    EXPECT_EQ(a, gen.chooseMidPlaneFromList(ba, far, farMax));
    // No candidate at all.
    std::vector<mrFace*> none = {used};
    mtest::AssertRecorder rec;
    EXPECT_EQ(nullptr, gen.chooseMidPlaneFromList(none, mins, maxs));
    rec.expect({{"0", "mrClipBSPGen", 437, "error"}});
}

TEST(ClipGenPartition, SelectPartitionBoundsUseFirstThreePointsOfAllFaces)
{
    mrClipBSPGen gen;
    // Planes x = 1 and y = 0 score the same on the unit cube's bounds.
    mrFace* x = addFace(gen, {V(1, 0, 0), V(1, 1, 0), V(1, 0, 1)}, V4(1, 0, 0, 1));
    mrFace* y = addFace(gen, {V(0, 0, 0), V(0, 0, 1), V(1, 0, 0)}, V4(0, 1, 0, 0));
    EXPECT_EQ(nullptr, gen.selectPartition(gen.m_faces));
    std::vector<mrFace*> one = {x};
    EXPECT_EQ(x, gen.selectPartition(one));
    // A used face widens the bounds only through its first three points.
    mrFace* far = addFace(gen, {V(0, 0, 0), V(0, 0, 0), V(0, 0, 0), V(40, 0, 0)}, V4(0, 0, 1, 0));
    far->m_used = 1;
    std::vector<mrFace*> list = {x, y, far};
    EXPECT_EQ(y, gen.selectPartition(list)); // tie: the later face
    far->m_points[2] = V(40, 0, 0);
    EXPECT_EQ(x, gen.selectPartition(list)); // x = 1 is now nearer the middle
}

TEST(ClipGenConvert, MissingPlaneAndUnnumberedChildAreReported)
{
    mrClipBSPGen gen;
    gen.m_numplanes = 2;
    gen.m_planes = new mrPlane[2];
    gen.m_planes[0] = mrPlane(0, 0, 1, 4);
    gen.m_planes[1] = mrPlane(0, 0, -0.0f, 0); // equal to (0, 0, 0, 0)
    mrBSPGenNode root, stray, leaf;
    leaf.m_contents = -3;
    root.m_plane = V4(0, 0, 1, 5);
    // The back child is interior, but not in m_nodes.
    std::tie(root.m_children[0], root.m_children[1]) = std::make_tuple(&leaf, &stray);

    stray.m_plane = V4(0, 0, 0, 0);
    stray.m_children[0] = stray.m_children[1] = &leaf;
    gen.m_nodes = {&root};
    mtest::AssertRecorder rec;
    BSPPtr bsp(gen.convertToClipBSP());
    rec.expect({{"found", "mrClipBSPGen", 696, nullptr},
                {"child", "mrClipBSPGen", 0, "interior child missing from the node list"}});
    EXPECT_EQ(std::make_pair(bsp->m_nodes[0].child[0], bsp->m_nodes[0].child[1]), std::make_pair(-3, -2));
    // Negative zero matches zero exactly.
    rec.clear();
    gen.m_nodes = {&stray};
    BSPPtr bsp2(gen.convertToClipBSP());
    EXPECT_TRUE(rec.reports().empty());
    EXPECT_EQ(std::make_tuple(bsp2->m_nodes[0].planeIndex, bsp2->m_numplanes, bsp2->m_planes[0].m_dist),
              std::make_tuple(1, 2u, 4.0f));
}

// ---- end to end: collision queries against the brute-force reference ----

TEST(ClipGenEndToEnd, ClosedMeshesAnswerPointsAndTracesLikeTheReference)
{
    struct Case
    {
        const char* name;
        void (*make)(srMeshModel&);
        float extent;
        int points;
        V centre;
        float radius;
        int traces;
        unsigned nodes; // 0: not pinned
    } cases[] = {
        {"cube", [](srMeshModel& m) { mtest::addBox(m, V(-2, -1.5f, -1), V(2.5f, 1.5f, 3), true); }, 4, 2000,
         V(0.25f, 0, 1), 12, 300, 0},
        {"sphere", [](srMeshModel& m) { mtest::addSphere(m, V(1, -2, 0.5f), 5, 3); }, 7, 1500, V(1, -2, 0.5f), 20, 200,
         512},
        {"torus", [](srMeshModel& m) { mtest::addTorus(m, 4, 1.5f, 16, 8); }, 6, 2000, V(), 0, 0, 0},
    };
    unsigned seed = 1;
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        srMeshModel mesh;
        c.make(mesh);
        mrClipBSPGen gen;
        BSPPtr bsp = import(gen, mesh);
        EXPECT_TRUE(!c.nodes || (bsp->m_numnodes == c.nodes && bsp->m_numplanes == c.nodes))
            << bsp->m_numnodes << " nodes, " << bsp->m_numplanes << " planes";

        Poly poly(mesh);
        expectPointsMatch(*bsp, poly, c.extent, c.points, seed++);
        if (c.traces)
            expectTracesStopShort(*bsp, poly, c.centre, c.radius, c.traces, seed++);
    }
}

TEST(ClipGenEndToEnd, MovedMeshAnswersLikeTheMovedPoints)
{
    srMeshModel mesh;
    mtest::addTorus(mesh, 4, 1.5f, 12, 8);
    // Rotation by 0.7 rad about the unit axis (1, 2, 3)/sqrt(14).
    double ax = 1 / std::sqrt(14.0), ay = 2 / std::sqrt(14.0), az = 3 / std::sqrt(14.0);
    double c = std::cos(0.7), s = std::sin(0.7), k = 1 - c;
    // Stored so that v' = (m0 x + m3 y + m6 z, m1 x + m4 y + m7 z, m2 x + m5 y + m8 z).
    srMatrix3T<float> rot((float)(c + ax * ax * k), (float)(ay * ax * k + az * s), (float)(az * ax * k - ay * s),
                          (float)(ax * ay * k - az * s), (float)(c + ay * ay * k), (float)(az * ay * k + ax * s),
                          (float)(ax * az * k + ay * s), (float)(ay * az * k - ax * s), (float)(c + az * az * k));
    V offset(12.5f, -7, 3.25f);
    mrClipBSPGen gen, movedGen;
    BSPPtr bsp = import(gen, mesh);
    BSPPtr moved = import(movedGen, mesh, offset, rot);
    EXPECT_GT(gen.m_allfaces.size(), gen.m_faces.size()); // faces were cut
    Poly poly(mesh);
    int solid = 0;
    for (const V& p : pointsOffSurface(poly, 6, 1000, 6))
    {
        V q = rot.transform(p);
        int expected = bsp->pointInfo(0, p);
        ASSERT_EQ(expected, moved->pointInfo(0, V(q.x + offset.x, q.y + offset.y, q.z + offset.z)));
        solid += expected != -1;
    }
    EXPECT_GT(solid, 20);
    EXPECT_TRUE(moved->m_mins.x > 3);
}
