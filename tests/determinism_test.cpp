// The visibility pipeline's results, pinned: the same meshes must give the same plane
// table, tree, counters, portal file bytes and portal mesh in every build. The constants
// were taken from the reviewed implementation; any change to them is a change of results.
#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

#include "BenchMesh.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;

// The two-room level plus what the plane table and the generator must take as it comes:
// collinear and coincident triangles, a two-sided sheet (coplanar, opposite facing), a
// near-coplanar triangle within the plane tolerance and one just beyond it, a duplicate,
// and a small sphere whose planes cut many others (so split counts are not all zero).
void addAwkwardLevel(srMeshModel& mesh)
{
    mtest::addTwoRoomLevel(mesh);
    mtest::addTriangle(mesh, V(10, 10, 10), V(20, 10, 10), V(30, 10, 10)); // collinear
    mtest::addTriangle(mesh, V(40, 40, 40), V(40, 40, 40), V(40, 40, 40)); // one point
    mtest::addRect(mesh, 2, 20, 8, 24, 8, 24, +1);                         // sheet, up
    mtest::addRect(mesh, 2, 20, 8, 24, 8, 24, -1);                         // sheet, down
    mtest::addTriangle(mesh, V(30, 8, 20.005f), V(40, 8, 20.005f), V(40, 16, 20.005f));
    mtest::addTriangle(mesh, V(30, 20, 20.02f), V(40, 20, 20.02f), V(40, 28, 20.02f));
    mtest::addTriangle(mesh, V(140, 10, 5), V(170, 12, 30), V(150, 50, 20));  // tilted, in room B
    mtest::addTriangle(mesh, V(140, 10, 5), V(170, 12, 30), V(150, 50, 20));  // and again
    mtest::addTriangle(mesh, V(100, 30, 10), V(110, 30, 10), V(110, 30, 10)); // two points coincide, in the corridor
    mtest::addSphere(mesh, V(40, 44, 36), 10.0f, 2); // tilted planes that cut the walls' planes
}

// The meshes of tests/data/vis_pins.txt: two rooms and a corridor, spheres of 128 and 512
// triangles, a 3 x 3 grid level, the awkward level, else the benchmark's mesh of that name.
void buildMesh(const std::string& name, srMeshModel& mesh)
{
    if (name == "twoRooms")
        mtest::addTwoRoomLevel(mesh);
    else if (name == "sphere2" || name == "sphere3")
        mtest::addSphere(mesh, V(3, -2, 5), 100.0f, name == "sphere2" ? 2 : 3);
    else if (name == "grid3")
        mtest::addGridLevel(mesh, 3, 3, 0x4D424350u);
    else if (name == "awkward")
        addAwkwardLevel(mesh);
    else if (std::unique_ptr<BenchMesh> bench{BenchMesh::generate(name)})
        mesh = *bench->mesh();
}

// Every node of a tree with its depth (1 at the head), front subtree first, without
// recursion.
std::vector<std::pair<mrBSPNode*, int>> walk(mrBSPNode* head)
{
    std::vector<std::pair<mrBSPNode*, int>> out, stack = {{head, 1}};
    while (!stack.empty())
    {
        auto [n, d] = stack.back();
        stack.pop_back();
        out.push_back({n, d});
        if (n->m_plane)
            stack.insert(stack.end(), {{n->m_children[1], d + 1}, {n->m_children[0], d + 1}});
    }
    return out;
}

// ---------------------------------------------------------------------------------------
// The pipeline and what it is pinned by

struct Outcome
{
    uint64_t prt;        // test.prt bytes
    uint64_t planes;     // the plane table's numbers, in table order
    uint64_t tree;       // front-first walk: plane numbers, leaf contents, numbers and faces
    uint64_t mesh;       // portal mesh positions, triangles and material slots
    int32_t counters[6]; // split nodes, leaf faces, node faces, solid, empty, linked
    uint32_t numPlanes, numSurfaces;
    int32_t visleafs, visportals, polycount, degenerate;
    size_t reports;         // assertion reports along the way
    std::string reportText; // and what they said, in order
};

// An outcome as written in the table below; compared whole, so a failure shows both rows.
std::string row(const Outcome& o)
{
    char text[400];
    std::snprintf(text, sizeof text,
                  "{0x%016" PRIx64 "ull, 0x%016" PRIx64 "ull, 0x%016" PRIx64 "ull, 0x%016" PRIx64
                  "ull, {%d, %d, %d, %d, %d, %d}, %u, %u, %d, %d, %d, %d, %zu}",
                  o.prt, o.planes, o.tree, o.mesh, o.counters[0], o.counters[1], o.counters[2], o.counters[3],
                  o.counters[4], o.counters[5], o.numPlanes, o.numSurfaces, o.visleafs, o.visportals, o.polycount,
                  o.degenerate, o.reports);
    return text;
}

// Collects bytes for hashing.
struct Bytes
{
    std::string s;
    template <class T> void add(const T& v) { s.append(reinterpret_cast<const char*>(&v), sizeof(v)); }
};

// bounds false leaves every surface's bounds as constructed, so partition selection
// scores against empty boxes and the generator may not trust them for anything.
Outcome runPipeline(srMeshModel& mesh, int midSplit, bool bounds, int threads = 1)
{
    Outcome out{};
    mtest::AssertRecorder rec;
    mtest::LogCapture log;
    {
        mtest::VisRun run(mesh, midSplit, bounds, threads);
        out.numPlanes = run.builder.m_numplanes;
        out.numSurfaces = run.builder.m_numsurfaces;
        std::map<const mrPlane*, int32_t> planeIndex;
        Bytes planes;
        for (uint32_t i = 0; i < out.numPlanes; ++i)
        {
            const mrPlane* p = run.builder.m_planes[i];
            planeIndex[p] = (int32_t)i;
            planes.add(p->m_normal.x), planes.add(p->m_normal.y), planes.add(p->m_normal.z), planes.add(p->m_dist);
        }
        out.planes = mtest::fnv1a(planes.s);
        const mrSolidBSP& b = run.bsp;
        const int32_t counters[6] = {b.m_numSplitNodes, b.m_numLeafFaces,  b.m_numNodeFaces,
                                     b.m_numSolidLeafs, b.m_numEmptyLeafs, b.m_numLinkedFaces};
        std::copy(counters, counters + 6, out.counters);

        run.portalizer.portalize(run.head);
        out.degenerate = run.portalizer.m_num_degenerate;
        out.prt = mtest::fnv1a(run.portalFile());
        out.visleafs = mrBSPPortalizer::m_num_visleafs;
        out.visportals = mrBSPPortalizer::m_num_visportals;
        run.withPortalMesh(
            [&](srMeshModel& portalMesh)
            {
                out.polycount = mrBSPPortalizer::m_polycount;
                std::map<const srMaterialIFace*, int32_t> slot;
                for (uint32_t i = 0; i < 256; ++i)
                    slot[mrBSPPortalizer::m_materials[i]] = (int32_t)i;
                Bytes m;
                for (const V& v : portalMesh.m_verts)
                    m.add(v.x), m.add(v.y), m.add(v.z);
                for (const srVector3i& t : portalMesh.m_polyVerts)
                    m.add(t.x), m.add(t.y), m.add(t.z);
                for (const srMaterialIFace* mat : portalMesh.m_polyMaterials)
                    m.add(slot.count(mat) ? slot[mat] : -1);
                out.mesh = mtest::fnv1a(m.s);
            });

        Bytes t;
        for (const auto& nd : walk(run.head))
        {
            const mrBSPNode* n = nd.first;
            t.add(n->m_leafnum);
            if (n->m_plane)
            {
                t.add(planeIndex.count(n->m_plane) ? planeIndex[n->m_plane] : -1);
                continue;
            }
            t.add(n->m_contents);
            for (mrBSPFace** f = n->m_markfaces; f && *f; ++f)
                t.add((*f)->m_polyIndex);
            t.add((int32_t)-7); // end of the leaf's faces
        }
        out.tree = mtest::fnv1a(t.s);
    }
    out.reports = rec.reports().size();
    for (const mtest::AssertReport& r : rec.reports())
        out.reportText += r.expression + "|" + r.source + "|" + std::to_string(r.line) + "|" + r.message + "\n";
    return out;
}

// The pinned cases, one line each in tests/data/vis_pins.txt: the mesh's name, the mode
// (normal or mid_split, with _nobounds when the surfaces keep their bounds as constructed),
// a hash of the mesh itself (so a changed generator is told apart from changed results),
// then the outcome as `row` writes it (tools/regen-goldens.sh rewrites the file).
struct Pin
{
    std::string mesh, mode, meshHash, expect;
};

void PrintTo(const Pin& p, std::ostream* os) { *os << p.mesh << ' ' << p.mode; }

std::vector<Pin> loadPins()
{
    std::vector<Pin> pins;
    std::istringstream in(mtest::readFile(MERIDBSP_SOURCE_DIR "/tests/data/vis_pins.txt"));
    for (std::string line; std::getline(in, line);)
    {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        Pin pin;
        fields >> pin.mesh >> pin.mode >> pin.meshHash >> std::ws;
        std::getline(fields, pin.expect);
        pins.push_back(pin);
    }
    return pins;
}

std::string meshHash(srMeshModel& mesh)
{
    Bytes b;
    for (const V& v : mesh.m_verts)
        b.add(v.x), b.add(v.y), b.add(v.z);
    for (const srVector3i& t : mesh.m_polyVerts)
        b.add(t.x), b.add(t.y), b.add(t.z);
    char text[32];
    std::snprintf(text, sizeof text, "0x%016" PRIx64, mtest::fnv1a(b.s));
    return text;
}

class PinnedResults : public ::testing::TestWithParam<Pin>
{
};

TEST_P(PinnedResults, EveryResultMatchesItsPin)
{
    const Pin& p = GetParam();
    srMeshModel mesh;
    buildMesh(p.mesh, mesh);
    ASSERT_GT(mesh.m_numpolys, 0) << p.mesh;
    const std::string hash = meshHash(mesh);
    const Outcome o =
        runPipeline(mesh, p.mode.rfind("mid_split", 0) == 0, p.mode.find("_nobounds") == std::string::npos);
    if (std::getenv("MERIDBSP_PRINT_PINS"))
        std::printf("pin: %s %s %s %s\n", p.mesh.c_str(), p.mode.c_str(), hash.c_str(), row(o).c_str());
    EXPECT_EQ(hash, p.meshHash) << "the generated mesh changed";
    EXPECT_EQ(row(o), p.expect);
}

// The parallel build on 2, 3 and 8 threads, every node taking every parallel step: the
// same outcome as on one, reports included, in the same order.
TEST_P(PinnedResults, EveryResultIsTheSameOnAnyNumberOfThreads)
{
    const Pin& p = GetParam();
    srMeshModel mesh;
    buildMesh(p.mesh, mesh);
    const int midSplit = p.mode.rfind("mid_split", 0) == 0;
    const bool bounds = p.mode.find("_nobounds") == std::string::npos;
    const Outcome one = runPipeline(mesh, midSplit, bounds);
    for (int threads : {2, 3, 8})
    {
        const Outcome many = runPipeline(mesh, midSplit, bounds, threads);
        EXPECT_EQ(row(many), row(one)) << threads << " threads";
        EXPECT_EQ(many.reportText, one.reportText) << threads << " threads";
    }
}

const std::vector<Pin> kPins = loadPins();

TEST(PinnedResults, TheTableCoversEveryMeshKindInBothModes) { EXPECT_GE(kPins.size(), 21u); }

INSTANTIATE_TEST_SUITE_P(VisibilityPipeline, PinnedResults, ::testing::ValuesIn(kPins),
                         [](const ::testing::TestParamInfo<Pin>& info)
                         { return info.param.mesh + "_" + info.param.mode; });

// ---------------------------------------------------------------------------------------
// Releasing portals

std::vector<mrBSPPortal*> listOf(mrBSPNode* node)
{
    std::vector<mrBSPPortal*> out;
    for (mrBSPPortal* p = node->m_portals; p; p = p->m_next[p->m_nodes[0] == node ? 0 : 1])
        out.push_back(p);
    return out;
}

TEST(PortalRelease, FreeingASubtreeKeepsEveryOtherListInOrder)
{
    srMeshModel mesh;
    mtest::addGridLevel(mesh, 2, 2, 99);
    mtest::LogCapture log;
    mtest::VisRun run(mesh, 1);
    run.head->m_mins = V(0, 0, 0);
    run.head->m_maxs = V(512, 512, 160);
    run.portalizer.portalize(run.head);

    // Nodes of the front subtree, and every list outside it as it should be afterwards.
    std::set<mrBSPNode*> inside;
    for (const auto& nd : walk(run.head->m_children[0]))
        inside.insert(nd.first);
    std::vector<mrBSPNode*> all = {&run.portalizer.m_outsideNode};
    for (const auto& nd : walk(run.head))
        all.push_back(nd.first);
    std::map<mrBSPNode*, std::vector<mrBSPPortal*>> expected;
    size_t kept = 0, dropped = 0;
    for (mrBSPNode* n : all)
        for (mrBSPPortal* p : inside.count(n) ? std::vector<mrBSPPortal*>() : listOf(n))
        {
            bool goes = inside.count(p->m_nodes[0]) || inside.count(p->m_nodes[1]);
            (goes ? dropped : kept)++;
            if (!goes)
                expected[n].push_back(p);
        }
    ASSERT_GT(kept, 0u);
    ASSERT_GT(dropped, 0u);

    // The six outer planes, which the portals do not own, released at the end.
    std::set<mrPlane*> outerPlanes;
    for (mrBSPPortal* p : listOf(&run.portalizer.m_outsideNode))
        outerPlanes.insert(p->m_plane);

    mrBSPPortalizer::freeAllPortals(run.head->m_children[0]);
    for (mrBSPNode* n : all)
        EXPECT_EQ(listOf(n), inside.count(n) ? std::vector<mrBSPPortal*>() : expected[n]);

    mrBSPPortalizer::freeAllPortals(run.head);
    for (mrBSPNode* n : all)
        EXPECT_EQ(n->m_portals, nullptr);
    for (mrPlane* p : outerPlanes)
        delete p;
}

// ---------------------------------------------------------------------------------------
// Partition selection

// Random surface lists on a small integer grid, so that equal cut counts, equal scores
// and surfaces cut several times by one plane are common.
TEST(ChoosePlane, FasterChoiceMatchesTheListWalkOnRandomLists)
{
    uint32_t seed = 7;
    auto next = [&seed](int range)
    {
        seed = seed * 1664525u + 1013904223u;
        return (int)((seed >> 16) % (uint32_t)range);
    };
    mrSolidBSP bsp;
    int differing = 0, nonNull = 0;
    for (int round = 0; round < 3000; ++round)
    {
        std::vector<mrPlane*> planes;
        std::vector<mrBSPSurface*> surfaces;
        V mins(99999, 99999, 99999), maxs(-99999, -99999, -99999);
        const int count = 2 + next(9);
        for (int i = 0; i < count; ++i)
        {
            auto point = [&]() { return V((float)next(9), (float)next(9), (float)next(5)); };
            V a = point(), b = point(), c = point();
            if (next(4) == 0)
                a.z = b.z = c.z; // level: +z or -z, the first skipped unless allowed
            mrPlane* plane = new mrPlane;
            plane->make(a, b, c);
            planes.push_back(plane);
            mrBSPSurface* s = new mrBSPSurface;
            s->m_plane = plane;
            s->m_onNode = next(6) == 0;
            // Up to three faces on the plane: the triangle and copies shifted along it.
            for (int f = 0, n = 1 + next(3); f < n; ++f)
            {
                float u = (float)next(3), v = (float)next(3);
                auto at = [&](const V& p)
                {
                    return V(p.x + u * (b.x - a.x) + v * (c.x - a.x), p.y + u * (b.y - a.y) + v * (c.y - a.y),
                             p.z + u * (b.z - a.z) + v * (c.z - a.z));
                };
                mrBSPFace* face = mtest::makeFace(plane, {at(a), at(b), at(c)});
                face->m_next = s->m_faces;
                s->m_faces = face;
            }
            s->calcBounds();
            for (int k = 0; k < 3; ++k)
                mins[k] = std::min(mins[k], s->m_mins[k]), maxs[k] = std::max(maxs[k], s->m_maxs[k]);
            if (!surfaces.empty())
                surfaces.back()->m_next = s;
            surfaces.push_back(s);
        }
        for (int allowZUp = 0; allowZUp < 2; ++allowZUp)
        {
            mrBSPSurface* fast = bsp.choosePlaneFromList(surfaces[0], mins, maxs, allowZUp);
            mrBSPSurface* plain = bsp.choosePlaneInListOrder(surfaces[0], mins, maxs, allowZUp);
            differing += fast != plain;
            nonNull += plain != nullptr;
        }
        mrBSPTree::releaseSurfaces(surfaces[0]);
        for (mrPlane* p : planes)
            delete p;
    }
    EXPECT_EQ(differing, 0);
    EXPECT_GT(nonNull, 5000);
}

// ---------------------------------------------------------------------------------------
// The plane table's index

// Triangles whose planes crowd around the match tolerances (normals a hair inside and
// outside a dot product of 0.99999, distances a hair inside and outside 0.01 apart) and
// around the index's cell borders, plus planes that can match nothing and planes far out.
void addCrowdedPlanes(srMeshModel& mesh)
{
    uint32_t seed = 12345;
    auto unit = [&seed]()
    {
        seed = seed * 1664525u + 1013904223u;
        return (double)(seed >> 8) / 16777216.0;
    };
    auto tri = [&](double nx, double ny, double nz, double d)
    {
        // Two directions in the plane, then three points on it.
        double ux = -ny, uy = nx, uz = 0.0;
        if (std::fabs(nz) > 0.9)
            ux = 0.0, uy = -nz, uz = ny;
        double ul = std::sqrt(ux * ux + uy * uy + uz * uz);
        ux /= ul, uy /= ul, uz /= ul;
        double vx = ny * uz - nz * uy, vy = nz * ux - nx * uz, vz = nx * uy - ny * ux;
        V o((float)(nx * d), (float)(ny * d), (float)(nz * d));
        mtest::addTriangle(mesh, o, V((float)(o.x + 8 * ux), (float)(o.y + 8 * uy), (float)(o.z + 8 * uz)),
                           V((float)(o.x + 8 * vx), (float)(o.y + 8 * vy), (float)(o.z + 8 * vz)));
    };
    const double angles[] = {0.0, 0.002, 0.00445, 0.004472, 0.0045, 0.007};
    const double offsets[] = {0.0, 0.005, 0.0099, 0.01, 0.0101, 0.03};
    for (int base = 0; base < 40; ++base)
    {
        double nx = unit() * 2 - 1, ny = unit() * 2 - 1, nz = unit() * 2 - 1;
        if (base % 5 == 0)
            nx = 0.995 + 0.01 * unit(), ny = 0.0, nz = std::sqrt(1 - nx * nx); // near a cell border
        double l = std::sqrt(nx * nx + ny * ny + nz * nz);
        nx /= l, ny /= l, nz /= l;
        double d = base % 3 == 0 ? std::round(unit() * 50) * 0.02 : unit() * 200 - 100;
        for (double a : angles)
            for (double o : offsets)
            {
                // Tilt about an axis across the normal.
                double tx = -ny, ty = nx, tz = 0.0;
                double tl = std::sqrt(tx * tx + ty * ty) + 1e-30;
                double c = std::cos(a), s = std::sin(a);
                double mx = nx * c + (ny * tz - nz * ty) / tl * s;
                double my = ny * c + (nz * tx - nx * tz) / tl * s;
                double mz = nz * c + (nx * ty - ny * tx) / tl * s;
                tri(mx, my, mz, d + o);
            }
    }
    tri(0, 0, 1, 2.5e9);      // beyond the index's distance cells
    tri(0, 0, 1, 2.5e9 + 64); // and again, further out
    tri(0, 0, 1, 2.5e9);
    int i = (int)mesh.addVertex(V(NAN, 0, 0)); // can match nothing
    mesh.addVertex(V(1, 0, 0));
    mesh.addVertex(V(0, 1, 0));
    mesh.addPolygon(i, i + 1, i + 2);
    mesh.addPolygon(i, i + 1, i + 2);
}

TEST(PlaneTable, IndexedBuildGivesTheNumbersOfTheLinearSearch)
{
    srMeshModel mesh;
    addCrowdedPlanes(mesh);
    mtest::LogCapture log;
    mrBSPSurfaceBuilder indexed;
    indexed.m_mesh = &mesh;
    indexed.generatePlanes();

    mrBSPSurfaceBuilder linear;
    const srVector3i* tris = mesh.getPolyVertex();
    V* verts = mesh.getVertexLoc();
    for (long k = 0; k < mesh.m_numpolys; ++k)
        ASSERT_EQ(linear.findPlane(verts[tris[k].x], verts[tris[k].y], verts[tris[k].z]),
                  indexed.m_polyPlanes[(uint32_t)k])
            << "polygon " << k;
    EXPECT_EQ(indexed.m_numplanes, linear.m_numplanes);
    // Crowded enough that both sharing and not sharing happen often.
    EXPECT_GT(indexed.m_numplanes, 200u);
    EXPECT_LT(indexed.m_numplanes, (uint32_t)mesh.m_numpolys - 200);
    indexed.releasePlanes();
    linear.releasePlanes();
}

// ---------------------------------------------------------------------------------------
// Generation

// A surface without faces whose bounds lie in front of the splitter: dividing it finds no
// face in front, so it goes behind (and is reported), whatever its bounds say.
TEST(Generation, AFacelessSurfaceGoesBehindWhateverItsBounds)
{
    mrPlane wall(1, 0, 0, 5), tilted;
    tilted.make(V(20, 0, 5), V(30, 0, 5.1f), V(20, 10, 5.2f));
    mrBSPSurface* first = new mrBSPSurface;
    first->m_plane = &wall;
    first->m_faces = mtest::makeFace(&wall, {V(5, 0, 0), V(5, 10, 0), V(5, 0, 10)});
    first->calcBounds();
    mrBSPSurface* bare = new mrBSPSurface;
    bare->m_plane = &tilted;
    bare->m_mins = V(20, 0, 0);
    bare->m_maxs = V(30, 10, 10);
    first->m_next = bare;

    mtest::AssertRecorder rec;
    mrSolidBSP bsp;
    mrBSPNode* head = bsp.generate(first, 1);
    EXPECT_EQ(head->m_plane, &wall);
    EXPECT_EQ(head->m_children[0]->m_plane, nullptr);
    EXPECT_EQ(head->m_children[1]->m_plane, &tilted); // the bare surface went behind
    EXPECT_EQ(rec.count("0", "surface with no faces"), 2u);
    EXPECT_EQ(bsp.m_numSplitNodes, 2);
    mrBSPTree::release(head);
}

// A NaN coordinate gives a plane that does not compare equal to itself, so its surface is
// never found lying on its own node; it must still be used only once, or generation never
// ends.
TEST(Generation, ANonFinitePlaneIsUsedOnceAndEnds)
{
    for (int midSplit = 0; midSplit < 2; ++midSplit)
    {
        srMeshModel mesh;
        mtest::addBox(mesh, V(-8, -8, -8), V(8, 8, 8), true);
        mesh.m_verts[0] = V(NAN, -8, -8);
        mtest::AssertRecorder rec;
        mtest::LogCapture log;
        mtest::VisRun run(mesh, midSplit);
        EXPECT_LE(run.bsp.m_numSplitNodes, (int32_t)run.builder.m_numplanes);
        EXPECT_EQ(run.bsp.m_numLeafFaces, 12);
    }
}

// ---------------------------------------------------------------------------------------
// Deep trees

// n parallel quads facing +x at x = 1 ... n, so wide across y and z that every mid-split
// score exceeds the starting best: each node takes the first candidate of its list, and
// since the child lists come out reversed, the tree becomes a chain about n levels deep.
TEST(DeepTree, ThousandsOfNestedSlabsRunOnASmallStack)
{
    const int n = 2000;
    srMeshModel mesh;
    for (int i = 1; i <= n; ++i)
        mtest::addRect(mesh, 0, (float)i, -6000, 6000, -6000, 6000, +1);
    auto deep = [&]
    {
        mtest::AssertRecorder rec;
        mtest::LogCapture log;
        {
            mtest::VisRun run(mesh, 1);
            int depth = 0;
            for (const auto& nd : walk(run.head))
                depth = std::max(depth, nd.second);
            EXPECT_GE(depth, n);
            EXPECT_EQ(run.bsp.m_numSplitNodes, n);
            EXPECT_EQ(run.bsp.m_numEmptyLeafs, n);
            EXPECT_EQ(run.bsp.m_numSolidLeafs, 1);
            EXPECT_EQ(run.bsp.m_numLeafFaces, 2 * n);
            run.portalizer.portalize(run.head);
            const std::string prt = run.portalFile();
            EXPECT_EQ(std::count(prt.begin(), prt.end(), '\n'), 3 + n - 1);
            EXPECT_EQ(mrBSPPortalizer::m_num_visleafs, n);
            EXPECT_EQ(mrBSPPortalizer::m_num_visportals, n - 1); // one between each pair of neighbouring slabs
            // Every slab's four sides face the outside.
            run.withPortalMesh([&](srMeshModel&) { EXPECT_GT(mrBSPPortalizer::m_polycount, 4 * n); });
        }
        EXPECT_EQ(rec.reports().size(), 0u);
    };
    // 128 KB: a walk that recursed once per level would need far more.
    mtest::onSmallStack(128 * 1024, deep);
}

} // namespace
