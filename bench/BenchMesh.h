#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srVector3T.h>

// One mesh the benchmarks run on: its name (the part after the benchmark family in
// every benchmark name), the mesh model, and what the cross-check may assume about it.
class BenchMesh
{
public:
    enum e_orientation
    {
        ORIENT_UNKNOWN = 0, // read from a file: nothing is assumed
        ORIENT_OUTWARD = 1, // closed, normals point out: the enclosed volume is solid
        ORIENT_INWARD = 2,  // closed, normals point into the enclosed hollow: outside is solid
    };

    BenchMesh(const std::string& name, const std::string& kind, e_orientation orientation);
    ~BenchMesh();
    BenchMesh(const BenchMesh&) = delete;
    BenchMesh& operator=(const BenchMesh&) = delete;

    const std::string& name() const { return m_name; }
    // Meshes of one kind grow along one axis; the time limit extrapolates within a kind.
    const std::string& kind() const { return m_kind; }
    e_orientation orientation() const { return m_orientation; }
    srMeshModel* mesh() { return m_mesh; }
    long numTriangles() const { return m_mesh->m_numpolys; }

    // Box of the vertices the triangles use (what the head node and the query box start from).
    const srVector3T<float>& mins() const { return m_mins; }
    const srVector3T<float>& maxs() const { return m_maxs; }
    // Recomputes the box; call after the mesh was filled.
    void finish();

    // Flat copies for the peer libraries: x, y, z per vertex and three indices per triangle.
    const std::vector<float>& flatVertices() const { return m_flatVerts; }
    const std::vector<uint32_t>& flatIndices() const { return m_flatIndices; }

    // A closed, outward-facing sphere of `slices` × `stacks` bands around the origin:
    // 2 · slices · (stacks − 1) triangles, so 25 × 21 gives exactly 1,000 and 250 × 201
    // exactly 100,000.
    static BenchMesh* sphere(const std::string& name, int slices, int stacks, float radius);
    // A hollow level: a grid of nx × ny × nz box rooms of random size (fixed seed),
    // neighbours joined by corridors (floors by shafts), some rooms with a pillar, every
    // wall tiled in square cells and facing into the open space. Closed and watertight.
    static BenchMesh* level(const std::string& name, int nx, int ny, int nz, uint64_t seed);
    // The level grid whose triangle count comes nearest to `target`.
    static BenchMesh* levelNear(const std::string& name, long target);
    // A closed, outward-facing, non-convex blob: an icosahedron whose faces are cut into
    // f × f triangles (20 f² in all), pushed in and out by smooth noise, so it is curved,
    // irregular in triangle size and nowhere flat — what a scan or a sculpt looks like.
    static BenchMesh* blob(const std::string& name, int frequency, uint64_t seed);
    // A closed, outward-facing tube of varying radius swept along a (2, 3) torus knot:
    // `around` × `along` quads, 2 · around · along triangles. Curved and knotted, so most
    // planes cut much of the rest of the surface.
    static BenchMesh* knot(const std::string& name, int around, int along);
    // About `target` triangles: a level with a tenth of its wall tiles (both triangles of
    // a tile) taken away at random, an open mesh whose trees split much more.
    static BenchMesh* openLevel(const std::string& name, long target);

    // Writes the mesh as a Wavefront OBJ text file; false when the file cannot be written.
    bool writeObj(const std::string& path) const;

    // A mesh read from a file through the project's mesh reader, named after the file's
    // stem; null with *error set when it cannot be read.
    static BenchMesh* fromFile(const std::string& path, std::string* error);

    // The generated meshes by name: sphere1k, sphere10k, sphere100k, sphere1m, level1k,
    // level10k, level100k, level1m, blob10k, blob50k, knot10k, knot50k, openlevel10k,
    // the tiny ones of the smoke test, and any other size as sphereN, levelN, blobN, knotN
    // or openlevelN (N a count with an optional k or m); null for an unknown name.
    static BenchMesh* generate(const std::string& name);

private:
    std::string m_name;
    std::string m_kind;
    e_orientation m_orientation;
    srMeshModel* m_mesh;
    srVector3T<float> m_mins;
    srVector3T<float> m_maxs;
    std::vector<float> m_flatVerts;
    std::vector<uint32_t> m_flatIndices;
};
