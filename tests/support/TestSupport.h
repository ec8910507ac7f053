#pragma once

#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clip/mrClipBSP.h"
#include "geometry/mrBSPFace.h"
#include "platform/dx/srAssert.h"
#include "platform/dx/srMeshModel.h"

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

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

std::string currentDirectory();
int changeDirectory(const std::string& dir);
// Runs f with the current directory switched to dir.
template <class F> void inDirectory(const std::string& dir, F f)
{
    std::string old = currentDirectory();
    ASSERT_EQ(changeDirectory(dir), 0);
    f();
    ASSERT_EQ(changeDirectory(old), 0);
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
