// The visibility pipeline on random meshes (triangle soups, blobs, knots, levels, open
// levels, spheres), both modes: one line per mesh and mode with hashes of the plane
// table, the tree, the portal file, the portal mesh, the log and the assertion reports,
// and every counter. Built against two versions of the library by vis-compare.sh, whose
// outputs must be identical.
//
// Usage: vis_compare [COUNT [SEED [NAME-PART]]]
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>
#include <unistd.h>

#include "BenchMesh.h"
#include "BenchRandom.h"

typedef srVector3T<float> V;
static uint64_t fnv(const std::string& s)
{
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : s)
        h = (h ^ c) * 1099511628211ull;
    return h;
}
struct Bytes
{
    std::string s;
    template <class T> void add(const T& v) { s.append((const char*)&v, sizeof v); }
};
static int g_reports = 0;
static std::string g_reportText;
static void onAssert(const char* e, const char* src, long line, const char* msg)
{
    ++g_reports;
    g_reportText += std::string(e) + "|" + src + "|" + std::to_string(line) + "|" + (msg ? msg : "") + "\n";
}

static std::string readAll(const char* path)
{
    std::string out;
    FILE* f = fopen(path, "rb");
    if (!f)
        return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    fclose(f);
    return out;
}

static std::string run(srMeshModel& mesh, int midSplit, bool bounds, const char* prtPath)
{
    g_reports = 0;
    g_reportText.clear();
    std::ostringstream log;
    std::ostream* prev = srSetOutputTarget(&log);
    mrBSPSurfaceBuilder builder;
    mrBSPSurface* list = builder.buildSurfaces(&mesh);
    for (mrBSPSurface* s = list; s && bounds; s = s->m_next)
        s->calcBounds();
    mrSolidBSP bsp;
#ifdef VIS_COMPARE_THREADS
    // The parallel build; VIS_COMPARE_TINY: every node takes every parallel step.
    mrSolidBSP::ParallelShare share;
    if (std::getenv("VIS_COMPARE_TINY"))
        share.minList = 2, share.grain = 1, share.minTask = 1;
    mrBSPNode* head = bsp.generateParallel(list, midSplit, VIS_COMPARE_THREADS, share);
#else
    mrBSPNode* head = bsp.generate(list, midSplit);
#endif
    mesh.usedVertexBounds(head->m_mins, head->m_maxs);
    std::map<const mrPlane*, int32_t> planeIndex;
    Bytes planes;
    for (uint32_t i = 0; i < builder.m_numplanes; ++i)
    {
        const mrPlane* p = builder.m_planes[i];
        planeIndex[p] = (int32_t)i;
        planes.add(p->m_normal.x), planes.add(p->m_normal.y), planes.add(p->m_normal.z), planes.add(p->m_dist);
    }
    mrBSPPortalizer portalizer;
    portalizer.portalize(head);
    fflush(stdout);
    int saved = dup(1);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    close(devnull);
    mrBSPPortalizer::writePortalfile(head, prtPath);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string prt = readAll(prtPath);
    int visleafs = mrBSPPortalizer::m_num_visleafs, visportals = mrBSPPortalizer::m_num_visportals;
    srMeshModel* pm = mrBSPPortalizer::createMeshModel(head);
    Bytes m;
    std::map<const srMaterialIFace*, int32_t> slot;
    for (uint32_t i = 0; i < 256; ++i)
        slot[mrBSPPortalizer::m_materials[i]] = (int32_t)i;
    for (const V& v : pm->m_verts)
        m.add(v.x), m.add(v.y), m.add(v.z);
    for (const srVector3i& t : pm->m_polyVerts)
        m.add(t.x), m.add(t.y), m.add(t.z);
    for (const srMaterialIFace* mat : pm->m_polyMaterials)
        m.add(slot.count(mat) ? slot[mat] : -1);
    int polycount = mrBSPPortalizer::m_polycount;
    pm->release();
    mrBSPPortalizer::releaseMaterials();
    // Tree: front-first walk.
    Bytes t;
    std::vector<mrBSPNode*> stack(1, head);
    while (!stack.empty())
    {
        mrBSPNode* n = stack.back();
        stack.pop_back();
        t.add(n->m_leafnum);
        if (n->m_plane)
        {
            t.add(planeIndex.count(n->m_plane) ? planeIndex[n->m_plane] : -1);
            stack.push_back(n->m_children[1]);
            stack.push_back(n->m_children[0]);
            continue;
        }
        t.add(n->m_contents);
        for (mrBSPFace** f = n->m_markfaces; f && *f; ++f)
            t.add((*f)->m_polyIndex);
        t.add((int32_t)-7);
    }
    int degenerate = portalizer.m_num_degenerate;
    uint32_t numPlanes = builder.m_numplanes, numSurfaces = builder.m_numsurfaces;
    portalizer.releasePortals(head);
    mrBSPTree::release(head);
    builder.releasePlanes();
    srSetOutputTarget(prev);
    char text[600];
    snprintf(text, sizeof text,
             "prt %016" PRIx64 " planes %016" PRIx64 " tree %016" PRIx64 " mesh %016" PRIx64 " log %016" PRIx64
             " rep %016" PRIx64 " c %d %d %d %d %d %d np %u ns %u vl %d vp %d pc %d dg %d r %d",
             fnv(prt), fnv(planes.s), fnv(t.s), fnv(m.s), fnv(log.str()), fnv(g_reportText), bsp.m_numSplitNodes,
             bsp.m_numLeafFaces, bsp.m_numNodeFaces, bsp.m_numSolidLeafs, bsp.m_numEmptyLeafs, bsp.m_numLinkedFaces,
             numPlanes, numSurfaces, visleafs, visportals, polycount, degenerate, g_reports);
    return text;
}

// Random triangle soup: grid-snapped points, coplanar clusters, axis-aligned pieces.
static BenchMesh* soup(const std::string& name, BenchRandom& r)
{
    BenchMesh* out = new BenchMesh(name, "soup", BenchMesh::ORIENT_UNKNOWN);
    srMeshModel* m = out->mesh();
    int n = r.range(3, 400);
    double grid = r.range(0, 2) == 0 ? 1.0 : (r.range(0, 1) ? 0.25 : 0.0);
    double size = r.range(0, 3) == 0 ? 2000.0 : 100.0;
    auto coord = [&]()
    {
        double v = (r.unit() - 0.5) * size;
        if (grid > 0)
            v = std::floor(v / grid) * grid;
        return (float)v;
    };
    for (int i = 0; i < n; ++i)
    {
        V a(coord(), coord(), coord()), b(coord(), coord(), coord()), c(coord(), coord(), coord());
        int kind = r.range(0, 5);
        if (kind == 0)
            b.z = c.z = a.z; // level
        else if (kind == 1)
            b.x = c.x = a.x;
        else if (kind == 2 && i > 0)
        {
            // coplanar with the previous triangle: shifted copy along its own edges
            const srVector3i& t = m->m_polyVerts.back();
            V p = m->m_verts[t.x], q = m->m_verts[t.y], s = m->m_verts[t.z];
            float u = (float)r.range(-2, 2), w = (float)r.range(-2, 2);
            auto at = [&](V x)
            {
                return V(x.x + u * (q.x - p.x) + w * (s.x - p.x), x.y + u * (q.y - p.y) + w * (s.y - p.y),
                         x.z + u * (q.z - p.z) + w * (s.z - p.z));
            };
            a = at(p), b = at(q), c = at(s);
            if (r.range(0, 3) == 0)
                std::swap(b, c); // facing the other way
        }
        int i0 = (int)m->addVertex(a);
        m->addVertex(b);
        m->addVertex(c);
        m->addPolygon(i0, i0 + 1, i0 + 2);
    }
    out->finish();
    return out;
}

int main(int argc, char** argv)
{
    int count = argc > 1 ? atoi(argv[1]) : 300;
    uint64_t seed = argc > 2 ? strtoull(argv[2], nullptr, 0) : 1;
    const char* only = argc > 3 ? argv[3] : nullptr;
    srSetAssertHandler(onAssert);
    const char* tmp = std::getenv("TMPDIR");
    std::string prtPath = std::string(tmp ? tmp : "/tmp") + "/vis_compare_" + std::to_string(getpid()) + ".prt";
    BenchRandom r(seed);
    for (int i = 0; i < count; ++i)
    {
        int kind = r.range(0, 5);
        std::unique_ptr<BenchMesh> mesh;
        std::string name;
        char nm[64];
        if (kind == 0)
        {
            snprintf(nm, sizeof nm, "soup%d", i);
            mesh.reset(soup(nm, r));
        }
        else if (kind == 1)
        {
            int f = r.range(2, 9);
            uint64_t s = r.next();
            snprintf(nm, sizeof nm, "blob%d_f%d", i, f);
            mesh.reset(BenchMesh::blob(nm, f, s));
        }
        else if (kind == 2)
        {
            int a = r.range(3, 10), l = r.range(6, 60);
            snprintf(nm, sizeof nm, "knot%d_%dx%d", i, a, l);
            mesh.reset(BenchMesh::knot(nm, a, l));
        }
        else if (kind == 3)
        {
            int nx = r.range(1, 3), ny = r.range(1, 2), nz = r.range(1, 2);
            snprintf(nm, sizeof nm, "level%d_%d%d%d", i, nx, ny, nz);
            mesh.reset(BenchMesh::level(nm, nx, ny, nz, r.next()));
        }
        else if (kind == 4)
        {
            long target = r.range(100, 2500);
            snprintf(nm, sizeof nm, "openlevel%d_%ld", i, target);
            mesh.reset(BenchMesh::openLevel(nm, target));
        }
        else
        {
            int sl = r.range(3, 30), st = r.range(2, 20);
            snprintf(nm, sizeof nm, "sphere%d_%dx%d", i, sl, st);
            mesh.reset(BenchMesh::sphere(nm, sl, st, (float)(1 + r.range(0, 600))));
        }
        bool noBounds = kind == 0 && r.range(0, 3) == 0;
        if (only && !strstr(nm, only))
            continue;
        for (int mode = 0; mode < 2; ++mode)
        {
            std::string res = run(*mesh->mesh(), mode, !noBounds, prtPath.c_str());
            printf("%s %s%s %ld %s\n", nm, mode ? "mid" : "normal", noBounds ? "-nobounds" : "", mesh->numTriangles(),
                   res.c_str());
            fflush(stdout);
        }
    }
    unlink(prtPath.c_str());
    return 0;
}
