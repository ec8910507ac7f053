#pragma once

#include <string>

class srMeshModel;

// Writes a mesh model to a mesh file; the format follows the extension: ".obj" (with its
// ".mtl" of material colours beside it), ".glb" or ".ply".
//
// Meshes that remember the polygons they were made from (m_outlineSizes) are written as
// those whole polygons, so that a reader that does not triangulate sees one face per
// polygon. The binary glTF format only holds triangles, so there each polygon becomes
// its fan of triangles. Each output file is written beside its target and renamed into
// place, so a failure leaves earlier files untouched.
class MeshWriter
{
public:
    // True when the extension of `path` names a format this writer supports.
    static bool supported(const std::string& path);
    // The material file written beside an ".obj" mesh; empty for the other formats.
    static std::string companionPath(const std::string& path);
    // False with `error` ("PATH: what is wrong") when any file cannot be written.
    static bool write(const srMeshModel& mesh, const std::string& path, std::string& error);
};
