#pragma once

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>
#include <pthread.h>

namespace mtest
{

// One assertion report.
struct AssertReport
{
    std::string expression;
    std::string source;
    long line;
    std::string message; // empty when the report carried none
    bool hasMessage;
};

// Installs a handler that records every report while it lives.
class AssertRecorder
{
public:
    AssertRecorder();
    ~AssertRecorder();
    const std::vector<AssertReport>& reports() const;
    void clear();
    // Number of reports with this expression/message (message null: any).
    size_t count(const char* expression, const char* message = nullptr) const;
    // Expects exactly these reports, in order; message null means "no message".
    struct Expected
    {
        const char* expression;
        const char* source;
        long line; // 0: any line
        const char* message;
    };
    void expect(std::initializer_list<Expected> expected) const;

private:
    srAssertHandler m_previous;
};

// Sends srOut / srPrintf into a string while it lives.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    std::string text() const { return m_buffer.str(); }
    std::vector<std::string> lines() const;
    void clear() { m_buffer.str(""); }

private:
    std::ostringstream m_buffer;
    std::ostream* m_previous;
};

// A fresh directory under the system temp dir, removed with its contents at the end.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Meshes built in code. All triangles wind counter-clockwise seen from the side their
// normal points to.
// An axis-aligned box; outward = true makes the normals point out (a closed solid).
void addBox(srMeshModel& mesh, srVector3T<float> mins, srVector3T<float> maxs, bool outward);
// A closed, outward-facing sphere made by subdividing an octahedron `levels` times.
void addSphere(srMeshModel& mesh, srVector3T<float> centre, float radius, int levels);
// Two inward-facing box rooms joined by an inward-facing corridor along x (a hollow level).
void addTwoRoomLevel(srMeshModel& mesh);

// A closed, outward-facing torus around the z axis (concave, so splitters cut faces): nu
// steps around the axis, nv around the tube.
void addTorus(srMeshModel& mesh, float major, float minor, int nu, int nv);
// A hollow level on a grid of 32-unit cells: one room of pseudo-random size per 8 x 8 cell
// slot, joined to its neighbours by corridors two cells high, every wall tiled with one
// quad per cell face and facing into the open space.
void addGridLevel(srMeshModel& mesh, int nx, int ny, uint32_t seed);

// An axis-aligned rectangle on plane `axis` = at, spanning [u0,u1] x [v0,v1] on the next two
// axes (cyclic), as two triangles facing +axis (sign > 0) or -axis.
void addRect(srMeshModel& mesh, int axis, float at, float u0, float u1, float v0, float v1, int sign);
// One triangle with vertices of its own; returns its polygon index.
int addTriangle(srMeshModel& mesh, srVector3T<float> a, srVector3T<float> b, srVector3T<float> c);

// A face of the visibility pipeline with these points, its own original.
mrBSPFace* makeFace(mrPlane* plane, std::initializer_list<srVector3T<float>> points);

// Clip BSPs, released through their reference count.
struct ClipRelease
{
    void operator()(mrClipBSP* b) const;
};
typedef std::unique_ptr<mrClipBSP, ClipRelease> ClipPtr;
mrClipNode clipNode(int plane, int front, int back);
// A box made with makeFromBBox (not published to its parameter block).
ClipPtr clipBox(srVector3T<float> mins, srVector3T<float> maxs);
// A clip BSP whose arrays are filled directly, as the generator and the chunk reader do.
ClipPtr clipTree(const std::vector<mrPlane>& planes, const std::vector<mrClipNode>& nodes);

// The raw records of the "Nodes" and "Planes" fields: 12 bytes per node; 20 per plane
// (a 4-byte header, here `reserved`, then normal x, y, z and distance), little-endian.
std::vector<unsigned char> nodeRecords(const std::vector<mrClipNode>& nodes);
std::vector<unsigned char> planeRecords(const std::vector<mrPlane>& planes, uint32_t reserved = 0);

// The core's IO manager with the clip BSP handler registered (both set up on first use).
mrIOManager& clipIO();
// The objects saved into a chunk buffer (expected to succeed).
std::vector<unsigned char> saveBuffer(const std::vector<srClass*>& objects);
// The one clip BSP a chunk buffer holds (expected to load), else null; `name` stands for
// the file in messages.
ClipPtr loadClip(const std::vector<unsigned char>& bytes, const std::string& name = "buffer");

// The visibility pipeline on a mesh up to the tree: surfaces (with their bounds unless
// `bounds` is false), the tree, and the head box around the vertices the triangles use.
// Portalizing is left to the caller, who may change the box first; portals, tree and
// planes are released at the end.
struct VisRun
{
    // threads above 1: the parallel build, with every node of a long enough list taking
    // every parallel step (however small the mesh).
    VisRun(srMeshModel& mesh, int midSplit, bool bounds = true, int threads = 1);
    ~VisRun();
    VisRun(const VisRun&) = delete;
    VisRun& operator=(const VisRun&) = delete;
    // The bytes of the portal file, written into a temporary directory (its log line
    // swallowed).
    std::string portalFile();
    // Passes the portal mesh to f, then releases it and the material table.
    template <class F> void withPortalMesh(F f)
    {
        srMeshModel* mesh = mrBSPPortalizer::createMeshModel(head);
        if (mesh)
            f(*mesh);
        releasePortalMesh(mesh);
    }
    static void releasePortalMesh(srMeshModel* mesh);

    mrBSPSurfaceBuilder builder;
    mrSolidBSP bsp;
    mrBSPNode* head = nullptr;
    mrBSPPortalizer portalizer;
};

// Runs f on a thread with a stack of `bytes`: a walk that recursed once per tree level
// would overflow it long before the bottom of a deep tree.
template <class F> void onSmallStack(size_t bytes, F f)
{
    struct Call
    {
        static void* run(void* arg)
        {
            (*static_cast<F*>(arg))();
            return nullptr;
        }
    };
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, bytes), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, &Call::run, &f), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

// Runs f with the current directory switched to dir.
template <class F> void inDirectory(const std::string& dir, F f)
{
    const std::filesystem::path old = std::filesystem::current_path();
    std::filesystem::current_path(dir);
    f();
    std::filesystem::current_path(old);
}

// What f writes to the process's standard output.
template <class F> std::string stdoutOf(F f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// A portal file as written by the portalizer: tag, counts and one line per portal. Each
// line is checked for its syntax ("N A B (x y z ) ... ", ending in a blank).
struct PortalFile
{
    std::string tag;
    int leafs = -1;
    int count = -1;
    struct Line
    {
        int numpoints;
        int leaf[2];
        std::vector<std::vector<double>> points;
    };
    std::vector<Line> lines;
};
PortalFile parsePortalFile(const std::string& text);
// Number of groups the portal lines join the leaves into (1: every leaf reaches every other).
size_t connectedLeafGroups(const PortalFile& prt);
// 64-bit FNV-1a of a byte string, for pinning file contents.
uint64_t fnv1a(const std::string& bytes);

} // namespace mtest
