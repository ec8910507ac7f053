#pragma once

#include <sstream>
#include <string>
#include <vector>

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

std::string readFile(const std::string& path);
// 64-bit FNV-1a of a byte string, for pinning file contents.
uint64_t fnv1a(const std::string& bytes);

} // namespace mtest
