#include "support/TestSupport.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <tuple>

#include <meridbsp/io/mrClipBSPIOHandler.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/solid/mrBSPTree.h>

namespace mtest
{

namespace
{
std::vector<AssertReport> g_reports;

void recordReport(const char* expression, const char* source, long line, const char* message)
{
    g_reports.push_back(
        {expression ? expression : "", source ? source : "", line, message ? message : "", message != nullptr});
}
} // namespace

AssertRecorder::AssertRecorder()
{
    g_reports.clear();
    m_previous = srSetAssertHandler(&recordReport);
}

AssertRecorder::~AssertRecorder() { srSetAssertHandler(m_previous); }

const std::vector<AssertReport>& AssertRecorder::reports() const { return g_reports; }

void AssertRecorder::clear() { g_reports.clear(); }

size_t AssertRecorder::count(const char* expression, const char* message) const
{
    size_t n = 0;
    for (const AssertReport& r : g_reports)
        if (r.expression == expression && (!message || r.message == message))
            ++n;
    return n;
}

void AssertRecorder::expect(std::initializer_list<Expected> expected) const
{
    ASSERT_EQ(g_reports.size(), expected.size());
    size_t i = 0;
    for (const Expected& e : expected)
    {
        const AssertReport& r = g_reports[i++];
        EXPECT_EQ(std::make_tuple(r.expression, r.source, r.line, r.hasMessage, r.message),
                  std::make_tuple(std::string(e.expression), std::string(e.source), e.line ? e.line : r.line,
                                  e.message != nullptr, std::string(e.message ? e.message : "")))
            << "report " << i - 1;
    }
}

LogCapture::LogCapture() { m_previous = srSetOutputTarget(&m_buffer); }

LogCapture::~LogCapture() { srSetOutputTarget(m_previous); }

std::vector<std::string> LogCapture::lines() const
{
    std::vector<std::string> out;
    std::istringstream in(m_buffer.str());
    std::string line;
    while (std::getline(in, line))
        out.push_back(line);
    return out;
}

TempDir::TempDir()
{
    std::string tmpl = (std::filesystem::temp_directory_path() / "meridbsp-test-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    m_path = mkdtemp(buf.data());
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(m_path, ec);
}

typedef srVector3T<float> V;

void addRect(srMeshModel& mesh, int axis, float at, float u0, float u1, float v0, float v1, int sign)
{
    // (ua x va) = +axis for the cyclic order, so u then v counter-clockwise faces +axis;
    // facing -axis swaps the second and fourth corners.
    const int ua = (axis + 1) % 3, va = (axis + 2) % 3;
    const float us[4] = {u0, sign > 0 ? u1 : u0, u1, sign > 0 ? u0 : u1};
    const float vs[4] = {v0, sign > 0 ? v0 : v1, v1, sign > 0 ? v1 : v0};
    const int i = (int)mesh.getNumVerts();
    for (int k = 0; k < 4; ++k)
    {
        V p;
        p[axis] = at;
        p[ua] = us[k];
        p[va] = vs[k];
        mesh.addVertex(p);
    }
    mesh.addPolygon(i, i + 1, i + 2);
    mesh.addPolygon(i, i + 2, i + 3);
}

int addTriangle(srMeshModel& mesh, V a, V b, V c)
{
    long i = mesh.addVertex(a);
    mesh.addVertex(b);
    mesh.addVertex(c);
    return (int)mesh.addPolygon((int)i, (int)i + 1, (int)i + 2);
}

mrBSPFace* makeFace(mrPlane* plane, std::initializer_list<V> points)
{
    mrBSPFace* f = new mrBSPFace;
    f->m_plane = plane;
    for (const V& p : points)
        f->m_winding->addPoint(p);
    f->m_original = f;
    return f;
}

void ClipRelease::operator()(mrClipBSP* b) const
{
    if (b)
        static_cast<srClass*>(b)->release();
}

mrClipNode clipNode(int plane, int front, int back)
{
    mrClipNode n;
    n.planeIndex = plane;
    n.child[0] = front;
    n.child[1] = back;
    return n;
}

ClipPtr clipBox(V mins, V maxs)
{
    ClipPtr b(new mrClipBSP);
    b->makeFromBBox(mins, maxs);
    return b;
}

ClipPtr clipTree(const std::vector<mrPlane>& planes, const std::vector<mrClipNode>& nodes)
{
    ClipPtr b(new mrClipBSP);
    b->m_numplanes = (uint32_t)planes.size();
    b->m_planes = mrClipBSP::allocPlanes(planes.size());
    for (size_t i = 0; i < planes.size(); ++i)
        b->m_planes[i] = planes[i];
    b->m_numnodes = (uint32_t)nodes.size();
    b->m_nodes = mrClipBSP::allocNodes(nodes.size());
    for (size_t i = 0; i < nodes.size(); ++i)
        b->m_nodes[i] = nodes[i];
    return b;
}

void addBox(srMeshModel& mesh, V mins, V maxs, bool outward)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        int ua = (axis + 1) % 3, va = (axis + 2) % 3;
        int s = outward ? 1 : -1;
        addRect(mesh, axis, maxs[axis], mins[ua], maxs[ua], mins[va], maxs[va], s);
        addRect(mesh, axis, mins[axis], mins[ua], maxs[ua], mins[va], maxs[va], -s);
    }
}

void addSphere(srMeshModel& mesh, V centre, float radius, int levels)
{
    std::vector<V> verts = {V(1, 0, 0), V(-1, 0, 0), V(0, 1, 0), V(0, -1, 0), V(0, 0, 1), V(0, 0, -1)};
    std::vector<srVector3i> tris = {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4},
                                    {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    for (int l = 0; l < levels; ++l)
    {
        std::map<std::pair<int, int>, int> mid;
        auto midpoint = [&](int a, int b)
        {
            std::pair<int, int> key(std::min(a, b), std::max(a, b));
            auto it = mid.find(key);
            if (it != mid.end())
                return it->second;
            V m((verts[a].x + verts[b].x) * 0.5f, (verts[a].y + verts[b].y) * 0.5f, (verts[a].z + verts[b].z) * 0.5f);
            float len = std::sqrt(m.x * m.x + m.y * m.y + m.z * m.z);
            verts.push_back(V(m.x / len, m.y / len, m.z / len));
            mid[key] = (int)verts.size() - 1;
            return (int)verts.size() - 1;
        };
        std::vector<srVector3i> next;
        for (const srVector3i& t : tris)
        {
            int ab = midpoint(t.x, t.y), bc = midpoint(t.y, t.z), ca = midpoint(t.z, t.x);
            next.push_back({t.x, ab, ca});
            next.push_back({ab, t.y, bc});
            next.push_back({ca, bc, t.z});
            next.push_back({ab, bc, ca});
        }
        tris.swap(next);
    }
    long base = mesh.getNumVerts();
    for (const V& v : verts)
        mesh.addVertex(V(centre.x + v.x * radius, centre.y + v.y * radius, centre.z + v.z * radius));
    for (const srVector3i& t : tris)
        mesh.addPolygon((int)base + t.x, (int)base + t.y, (int)base + t.z);
}

void addTwoRoomLevel(srMeshModel& mesh)
{
    // Room A: [0,64]^3, room B: x in [128,192]; corridor x in [64,128], y in [16,48], z in [0,32].
    // Every face points into the open space (its solid lies behind it).
    for (float x0 : {0.0f, 128.0f})
    {
        float x1 = x0 + 64;
        addRect(mesh, 1, 0, 0, 64, x0, x1, +1);  // y = 0 wall (axis 1: u = z, v = x)
        addRect(mesh, 1, 64, 0, 64, x0, x1, -1); // y = 64 wall
        addRect(mesh, 2, 0, x0, x1, 0, 64, +1);  // z = 0 floor (u = x, v = y)
        addRect(mesh, 2, 64, x0, x1, 0, 64, -1); // z = 64 ceiling
        // Outer end wall (no opening) and the wall with the corridor opening.
        float outer = x0 == 0 ? 0.0f : 192.0f, inner = x0 == 0 ? 64.0f : 128.0f;
        int outerSign = x0 == 0 ? +1 : -1, innerSign = -outerSign;
        addRect(mesh, 0, outer, 0, 64, 0, 64, outerSign); // axis 0: u = y, v = z
        addRect(mesh, 0, inner, 0, 16, 0, 64, innerSign);
        addRect(mesh, 0, inner, 48, 64, 0, 64, innerSign);
        addRect(mesh, 0, inner, 16, 48, 32, 64, innerSign);
    }
    // Corridor: floor, ceiling and two side walls, open at both ends.
    addRect(mesh, 2, 0, 64, 128, 16, 48, +1);
    addRect(mesh, 2, 32, 64, 128, 16, 48, -1);
    addRect(mesh, 1, 16, 0, 32, 64, 128, +1);
    addRect(mesh, 1, 48, 0, 32, 64, 128, -1);
}

void addTorus(srMeshModel& mesh, float major, float minor, int nu, int nv)
{
    const double kTwoPi = 6.283185307179586;
    int base = (int)mesh.getNumVerts();
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
        {
            double u = kTwoPi * i / nu, v = kTwoPi * j / nv;
            double r = major + minor * std::cos(v);
            mesh.addVertex(V((float)(r * std::cos(u)), (float)(r * std::sin(u)), (float)(minor * std::sin(v))));
        }
    auto at = [&](int i, int j) { return base + (i % nu) * nv + (j % nv); };
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
        {
            mesh.addPolygon(at(i, j), at(i + 1, j), at(i + 1, j + 1));
            mesh.addPolygon(at(i, j), at(i + 1, j + 1), at(i, j + 1));
        }
}

void addGridLevel(srMeshModel& mesh, int nx, int ny, uint32_t seed)
{
    const int X = nx * 8, Y = ny * 8, Z = 5;
    const float cell = 32.0f;
    std::vector<char> open((size_t)X * Y * Z, 0);
    auto at = [&](int x, int y, int z) -> char
    { return x < 0 || y < 0 || z < 0 || x >= X || y >= Y || z >= Z ? 0 : open[((size_t)z * Y + y) * X + x]; };
    auto carve = [&](int x0, int x1, int y0, int y1, int z0, int z1)
    {
        for (int z = z0; z <= z1; ++z)
            for (int y = y0; y <= y1; ++y)
                for (int x = x0; x <= x1; ++x)
                    open[((size_t)z * Y + y) * X + x] = 1;
    };
    auto next = [&seed](int range)
    {
        seed = seed * 1664525u + 1013904223u;
        return (int)((seed >> 16) % (uint32_t)range);
    };
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
        {
            int cx = i * 8 + 4, cy = j * 8 + 4;
            int x0 = cx - 1 - next(3), x1 = cx + 1 + next(3);
            int y0 = cy - 1 - next(3), y1 = cy + 1 + next(3);
            carve(x0, x1, y0, y1, 0, 2 + next(2));
            if (i + 1 < nx)
                carve(cx, cx + 8, cy, cy, 0, 1);
            if (j + 1 < ny)
                carve(cx, cx, cy, cy + 8, 0, 1);
        }
    for (int z = 0; z < Z; ++z)
        for (int y = 0; y < Y; ++y)
            for (int x = 0; x < X; ++x)
            {
                if (!at(x, y, z))
                    continue;
                const int c[3] = {x, y, z};
                for (int axis = 0; axis < 3; ++axis)
                    for (int dir = -1; dir <= 1; dir += 2)
                    {
                        int n[3] = {x, y, z};
                        n[axis] += dir;
                        if (at(n[0], n[1], n[2]))
                            continue;
                        int ua = (axis + 1) % 3, va = (axis + 2) % 3;
                        float plane = (float)(c[axis] + (dir > 0 ? 1 : 0)) * cell;
                        addRect(mesh, axis, plane, c[ua] * cell, (c[ua] + 1) * cell, c[va] * cell, (c[va] + 1) * cell,
                                -dir);
                    }
            }
}

mrIOManager& clipIO()
{
    mrCore::initialize();
    mrIOManager* io = mrCore::instance().getIOManager();
    if (!io->getHandler(0x60000))
        io->registerHandler(new mrClipBSPIOHandler);
    return *io;
}

std::vector<unsigned char> saveBuffer(const std::vector<srClass*>& objects)
{
    std::vector<unsigned char> out;
    std::string error;
    EXPECT_TRUE(clipIO().saveBuffer(objects, out, &error)) << error;
    return out;
}

ClipPtr loadClip(const std::vector<unsigned char>& bytes, const std::string& name)
{
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_TRUE(clipIO().loadBuffer(bytes, objects, &error, name)) << error;
    if (objects.size() == 1)
        return ClipPtr(dynamic_cast<mrClipBSP*>(objects[0]));
    for (srClass* o : objects)
        o->release();
    return nullptr;
}

VisRun::VisRun(srMeshModel& mesh, int midSplit, bool bounds, int threads)
{
    mrBSPSurface* list = builder.buildSurfaces(&mesh);
    for (mrBSPSurface* s = list; s && bounds; s = s->m_next)
        s->calcBounds();
    mrSolidBSP::ParallelShare everyStep;
    everyStep.minList = 2;
    everyStep.grain = 1;
    everyStep.minTask = 1;
    head = threads == 1 ? bsp.generate(list, midSplit) : bsp.generateParallel(list, midSplit, threads, everyStep);
    EXPECT_NE(head, nullptr);
    if (!head)
        return;
    mesh.usedVertexBounds(head->m_mins, head->m_maxs);
}

VisRun::~VisRun()
{
    portalizer.releasePortals(head);
    mrBSPTree::release(head);
    builder.releasePlanes();
}

std::string VisRun::portalFile()
{
    TempDir dir;
    const std::string path = dir.file("test.prt");
    testing::internal::CaptureStdout();
    EXPECT_TRUE(mrBSPPortalizer::writePortalfile(head, path.c_str()));
    testing::internal::GetCapturedStdout();
    return readFile(path);
}

void VisRun::releasePortalMesh(srMeshModel* mesh)
{
    EXPECT_NE(mesh, nullptr);
    if (mesh)
        mesh->release();
    mrBSPPortalizer::releaseMaterials();
}

namespace
{
void putU32(std::vector<unsigned char>& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back((unsigned char)(v >> (8 * i)));
}
} // namespace

std::vector<unsigned char> nodeRecords(const std::vector<mrClipNode>& nodes)
{
    std::vector<unsigned char> b;
    for (const mrClipNode& n : nodes)
        for (int32_t v : {n.planeIndex, n.child[0], n.child[1]})
            putU32(b, (uint32_t)v);
    return b;
}

std::vector<unsigned char> planeRecords(const std::vector<mrPlane>& planes, uint32_t reserved)
{
    std::vector<unsigned char> b;
    for (const mrPlane& p : planes)
    {
        putU32(b, reserved);
        for (float f : {p.m_normal.x, p.m_normal.y, p.m_normal.z, p.m_dist})
        {
            uint32_t bits;
            std::memcpy(&bits, &f, 4);
            putU32(b, bits);
        }
    }
    return b;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

PortalFile parsePortalFile(const std::string& text)
{
    PortalFile out;
    std::istringstream in(text);
    std::string line;
    std::getline(in, out.tag);
    in >> out.leafs >> out.count;
    std::getline(in, line);
    while (std::getline(in, line))
    {
        PortalFile::Line l;
        // Points are written "(x y z ) "; split the bracket off the first number.
        std::string spaced;
        for (char c : line)
            spaced += c == '(' ? std::string("( ") : std::string(1, c);
        std::istringstream ls(spaced);
        ls >> l.numpoints >> l.leaf[0] >> l.leaf[1];
        std::string tok;
        while (ls >> tok)
        {
            EXPECT_EQ(tok, "(");
            std::vector<double> p(3);
            ls >> p[0] >> p[1] >> p[2] >> tok;
            EXPECT_EQ(tok, ")");
            l.points.push_back(p);
        }
        EXPECT_EQ(line.back(), ' ');
        out.lines.push_back(l);
    }
    return out;
}

size_t connectedLeafGroups(const PortalFile& prt)
{
    // Each leaf starts in its own group; portals pass the smaller group number across
    // until no portal joins two numbers.
    std::vector<int> group((size_t)std::max(prt.leafs, 0));
    std::iota(group.begin(), group.end(), 0);
    for (bool changed = true; changed;)
    {
        changed = false;
        for (const PortalFile::Line& l : prt.lines)
        {
            if (l.leaf[0] < 0 || l.leaf[0] >= prt.leafs || l.leaf[1] < 0 || l.leaf[1] >= prt.leafs)
            {
                ADD_FAILURE() << "portal between leaves " << l.leaf[0] << " and " << l.leaf[1] << " of " << prt.leafs;
                return 0;
            }
            int& a = group[(size_t)l.leaf[0]];
            int& b = group[(size_t)l.leaf[1]];
            changed |= a != b;
            a = b = std::min(a, b);
        }
    }
    return std::set<int>(group.begin(), group.end()).size();
}

uint64_t fnv1a(const std::string& bytes)
{
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : bytes)
    {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

} // namespace mtest
