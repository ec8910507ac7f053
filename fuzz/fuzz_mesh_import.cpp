// Mesh files from anywhere, through the tool's mesh reader into both pipelines. The
// reader must refuse what it cannot use (with a message) and hand the pipelines only
// finite coordinates and indices in range; both pipelines must then finish and release
// everything. A second mode builds the mesh straight from the bytes, so the library also
// sees what the reader would refuse (non-finite and huge coordinates).
//
// Input: one control byte, then the file. Control bit 0 picks the format hint (obj or
// stl), bit 2 the mid-split mode, bit 7 the raw mode. PLY and OFF are left out: the
// importer library's own parsers for them loop or abort on some malformed headers; the
// reader guards the cases found so far, but faults inside that library are not ours to fix.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

#include <meridbsp/platform/dx/srMeshModel.h>

#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "MeshReader.h"

namespace
{
const long kMaxTriangles = 64;

srMeshModel* rawMesh(FuzzInput& in)
{
    srMeshModel* mesh = new srMeshModel(0, 0);
    long vertices = 3 + in.byte() % 30;
    for (long i = 0; i < vertices; ++i)
        mesh->addVertex(srVector3T<float>(in.coordinate(), in.coordinate(), in.coordinate()));
    long triangles = in.byte() % (kMaxTriangles + 1);
    for (long i = 0; i < triangles && !in.empty(); ++i)
    {
        int a = in.byte() % vertices;
        int b = in.byte() % vertices;
        int c = in.byte() % vertices;
        mesh->addPolygon(a, b, c);
    }
    return mesh;
}

// What the reader promises the pipelines.
void checkReaderPromise(srMeshModel* mesh)
{
    const srVector3i* tris = mesh->getPolyVertex();
    const srVector3T<float>* verts = mesh->getVertexLoc();
    long numVerts = mesh->getNumVerts();
    if (mesh->m_numpolys <= 0 || !tris || !verts)
        FuzzSupport::fail("the reader accepted a mesh without triangles");
    for (long i = 0; i < numVerts; ++i)
        if (!std::isfinite(verts[i].x) || !std::isfinite(verts[i].y) || !std::isfinite(verts[i].z))
            FuzzSupport::fail("the reader accepted a non-finite coordinate");
    for (long i = 0; i < mesh->m_numpolys; ++i)
        for (int k = 0; k < 3; ++k)
            if (tris[i][k] < 0 || tris[i][k] >= numVerts)
                FuzzSupport::fail("the reader accepted a vertex index out of range");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    static const char* const kHints[] = {"obj", "stl"};
    uint8_t control = data[0];
    bool midSplit = (control & 4) != 0;

    srMeshModel* mesh = nullptr;
    if (control & 0x80)
    {
        FuzzInput in(data + 1, size - 1);
        mesh = rawMesh(in);
    }
    else
    {
        std::string error;
        mesh = MeshReader::readMemory(data + 1, size - 1, kHints[control & 1], error);
        if (!mesh)
        {
            if (error.empty())
                FuzzSupport::fail("the reader refused a file without saying why");
            return 0;
        }
        checkReaderPromise(mesh);
    }
    if (mesh->m_numpolys > kMaxTriangles)
    {
        mesh->release();
        return 0;
    }
    FuzzSupport::runClipPipeline(mesh);
    FuzzSupport::runVisPipeline(mesh, midSplit);
    mesh->release();
    return 0;
}
