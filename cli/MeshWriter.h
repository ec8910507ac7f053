#pragma once

#include <string>

class OutputSet;
class srMeshModel;

// Writes a mesh model to a mesh file; the format follows the extension: ".obj" (with its
// ".mtl" of material colours beside it), ".glb" or ".ply".
//
// Meshes that remember the polygons they were made from (m_outlineSizes) are written as
// those whole polygons, so that a reader that does not triangulate sees one face per
// polygon. The binary glTF format only holds triangles, so there each polygon becomes
// its fan of triangles. The files become outputs of the caller's OutputSet, put in place
// when the caller commits it.
class MeshWriter
{
public:
    enum e_format
    {
        FORMAT_NONE,
        FORMAT_OBJ,
        FORMAT_GLB,
        FORMAT_PLY
    };

    // The format a name ("obj", "glb", "ply", any case) stands for.
    static e_format formatNamed(const std::string& name);
    // The format the extension of `path` names.
    static e_format formatOf(const std::string& path);
    // The material file written beside an ".obj" mesh file; empty for the other formats,
    // and for an OBJ written into a device, a pipe or standard output, which goes without.
    static std::string companionPath(const std::string& path, e_format format);
    // False with `error` ("PATH: what is wrong") when the mesh cannot be exported.
    static bool write(const srMeshModel& mesh, const std::string& path, e_format format, OutputSet& outputs,
                      std::string& error);
};
