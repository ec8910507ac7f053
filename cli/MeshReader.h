#pragma once

#include <cstddef>
#include <string>

class srMeshModel;

// Reads a triangle mesh file (any format the importer knows: OBJ, OFF, PLY, STL, glTF,
// ...) into a new mesh model for the two pipelines.
//
// Polygons are triangulated and nothing else is done to the data: no vertex merging, no
// reordering. Triangles keep their file order within a mesh, meshes follow the scene's
// order. Each triangle gets a texture named after its material's diffuse texture file
// (without directories) or, when it has none, after the material itself, so a
// material name can mark the special solid kind of the collision pipeline.
//
// Rejected with a message: unreadable, empty or unparsable files, files without a
// single triangle, files that hold only a skeleton or an animation (which the importer
// would draw as a made-up mesh), non-finite coordinates, vertex indices out of range.
// Degenerate triangles are kept.
class MeshReader
{
public:
    struct Stats
    {
        size_t meshes = 0;    // meshes in the file
        size_t triangles = 0; // triangles read
        size_t vertices = 0;  // vertices read (one per mesh vertex; none merged)
        size_t skipped = 0;   // point and line primitives, which have no area to keep
    };

    // The mesh (release() it), or null with `error` set.
    static srMeshModel* read(const std::string& path, std::string& error, Stats* stats = nullptr);
    // The same from bytes in memory; `formatHint` is a file extension such as "obj".
    static srMeshModel* readMemory(const void* data, size_t size, const char* formatHint, std::string& error,
                                   Stats* stats = nullptr);
};
