#include "MeshWriter.h"

#include <cctype>
#include <cstdio>
#include <memory>
#include <vector>

#include <assimp/Exporter.hpp>
#include <assimp/IOStream.hpp>
#include <assimp/IOSystem.hpp>
#include <assimp/material.h>
#include <assimp/scene.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <sys/stat.h>

#include "AtomicFile.h"
#include "OutputSet.h"

namespace
{

// A stream into the temporary file of an AtomicFile, which remembers why a write failed.
class TempStream : public Assimp::IOStream
{
public:
    explicit TempStream(AtomicFile* file) : m_output(file), m_file(file->file()) {}

    size_t Read(void*, size_t, size_t) override { return 0; }
    size_t Write(const void* buffer, size_t size, size_t count) override
    {
        std::string error;
        return m_output->write(buffer, size * count, error) ? count : 0;
    }
    aiReturn Seek(size_t offset, aiOrigin origin) override
    {
        int whence = origin == aiOrigin_SET ? SEEK_SET : (origin == aiOrigin_CUR ? SEEK_CUR : SEEK_END);
        return std::fseek(m_file, (long)offset, whence) == 0 ? aiReturn_SUCCESS : aiReturn_FAILURE;
    }
    size_t Tell() const override
    {
        long at = std::ftell(m_file);
        return at < 0 ? 0 : (size_t)at;
    }
    size_t FileSize() const override
    {
        std::fflush(m_file);
        struct stat st;
        return ::fstat(fileno(m_file), &st) == 0 ? (size_t)st.st_size : 0;
    }
    void Flush() override { std::fflush(m_file); }

private:
    AtomicFile* m_output;
    FILE* m_file;
};

// Hands the exporter outputs of the caller's set only: the mesh file under the name the
// exporter was given, its material file (if any) beside it.
class TempIOSystem : public Assimp::IOSystem
{
public:
    TempIOSystem(OutputSet* outputs, const std::string& exportName, const std::string& path, std::string* error)
        : m_outputs(outputs), m_exportName(exportName), m_path(path), m_error(error)
    {
    }

    bool Exists(const char* path) const override
    {
        struct stat st;
        return ::stat(path, &st) == 0;
    }
    char getOsSeparator() const override { return '/'; }
    Assimp::IOStream* Open(const char* path, const char* mode) override
    {
        if (!mode || std::string(mode).find('r') != std::string::npos)
            return nullptr;
        std::string error;
        AtomicFile* file = m_outputs->open(path == m_exportName ? m_path : std::string(path), error);
        if (!file)
        {
            if (m_error->empty())
                *m_error = error;
            return nullptr;
        }
        return new TempStream(file);
    }
    void Close(Assimp::IOStream* stream) override { delete stream; }

private:
    OutputSet* m_outputs;
    std::string m_exportName;
    std::string m_path;
    std::string* m_error;
};

struct Polygon
{
    std::vector<int> verts;
    const srMaterialIFace* material;
};

// The polygons of the mesh: the recorded outlines when they match the triangle fans the
// mesh holds, else one polygon per triangle.
std::vector<Polygon> polygonsOf(const srMeshModel& mesh)
{
    const std::vector<srVector3i>& tris = mesh.m_polyVerts;
    auto materialOf = [&](size_t tri) -> const srMaterialIFace*
    { return tri < mesh.m_polyMaterials.size() ? mesh.m_polyMaterials[tri] : nullptr; };
    std::vector<Polygon> polys;
    bool outlinesFit = !mesh.m_outlineSizes.empty();
    size_t tri = 0;
    for (size_t k = 0; outlinesFit && k < mesh.m_outlineSizes.size(); ++k)
    {
        int n = mesh.m_outlineSizes[k];
        if (n < 3 || tri + (size_t)(n - 2) > tris.size())
        {
            outlinesFit = false;
            break;
        }
        Polygon poly;
        poly.material = materialOf(tri);
        poly.verts = {tris[tri].x, tris[tri].y, tris[tri].z};
        // A fan from the first corner: triangle j is (v0, v(j+1), v(j+2)).
        for (int j = 1; j < n - 2; ++j)
        {
            const srVector3i& t = tris[tri + (size_t)j];
            if (t.x != poly.verts[0] || t.y != poly.verts.back())
            {
                outlinesFit = false;
                break;
            }
            poly.verts.push_back(t.z);
        }
        tri += (size_t)(n - 2);
        polys.push_back(poly);
    }
    if (outlinesFit && tri == tris.size())
        return polys;

    polys.clear();
    for (size_t i = 0; i < tris.size(); ++i)
        polys.push_back(Polygon{{tris[i].x, tris[i].y, tris[i].z}, materialOf(i)});
    return polys;
}

aiColor4D colourOf(const srMaterialIFace* material)
{
    const mrMaterial* m = dynamic_cast<const mrMaterial*>(material);
    if (!m)
        return aiColor4D(0.7f, 0.7f, 0.7f, 1.0f);
    return aiColor4D(m->m_color0[0], m->m_color0[1], m->m_color0[2], m->m_color0[3]);
}

// One scene mesh per material, in the order the materials first appear; the polygons
// keep their order within each.
aiScene* buildScene(const srMeshModel& mesh, const std::vector<Polygon>& polys, MeshWriter::e_format format,
                    std::string& error)
{
    const std::vector<srVector3T<float>>& verts = mesh.m_verts;
    std::vector<const srMaterialIFace*> materials;
    std::vector<std::vector<size_t>> groups;
    for (size_t p = 0; p < polys.size(); ++p)
    {
        for (int v : polys[p].verts)
        {
            if (v < 0 || (size_t)v >= verts.size())
            {
                error = "the mesh refers to a vertex it does not have";
                return nullptr;
            }
        }
        size_t g = 0;
        while (g < materials.size() && materials[g] != polys[p].material)
            ++g;
        if (g == materials.size())
        {
            materials.push_back(polys[p].material);
            groups.emplace_back();
        }
        groups[g].push_back(p);
    }
    // A mesh without polygons still gets a (faceless) material so that every writer
    // finds what it expects.
    if (materials.empty())
        materials.push_back(nullptr);

    aiScene* scene = new aiScene();
    scene->mRootNode = new aiNode("root");
    scene->mNumMaterials = (unsigned)materials.size();
    scene->mMaterials = new aiMaterial*[materials.size()];
    for (size_t m = 0; m < materials.size(); ++m)
    {
        aiMaterial* material = new aiMaterial();
        char name[32];
        std::snprintf(name, sizeof name, "material_%u", (unsigned)m);
        aiString aname(name);
        material->AddProperty(&aname, AI_MATKEY_NAME);
        aiColor4D colour = colourOf(materials[m]);
        material->AddProperty(&colour, 1, AI_MATKEY_COLOR_DIFFUSE);
        material->AddProperty(&colour, 1, AI_MATKEY_BASE_COLOR);
        scene->mMaterials[m] = material;
    }

    scene->mNumMeshes = (unsigned)groups.size();
    scene->mMeshes = groups.empty() ? nullptr : new aiMesh*[groups.size()];
    scene->mRootNode->mNumMeshes = scene->mNumMeshes;
    scene->mRootNode->mMeshes = groups.empty() ? nullptr : new unsigned[groups.size()];
    bool triangles = format == MeshWriter::FORMAT_GLB;
    for (size_t g = 0; g < groups.size(); ++g)
    {
        size_t numVerts = 0, numFaces = 0;
        for (size_t p : groups[g])
        {
            numVerts += polys[p].verts.size();
            numFaces += triangles ? polys[p].verts.size() - 2 : 1;
        }
        aiMesh* out = new aiMesh();
        scene->mMeshes[g] = out;
        scene->mRootNode->mMeshes[g] = (unsigned)g;
        out->mMaterialIndex = (unsigned)g;
        out->mName = aiString(std::string("polygons_") + std::to_string(g));
        out->mNumVertices = (unsigned)numVerts;
        out->mVertices = new aiVector3D[numVerts];
        if (format == MeshWriter::FORMAT_PLY)
            out->mColors[0] = new aiColor4D[numVerts];
        out->mNumFaces = (unsigned)numFaces;
        out->mFaces = new aiFace[numFaces];
        aiColor4D colour = colourOf(materials[g]);
        unsigned nextVert = 0, nextFace = 0;
        bool polygons = false;
        for (size_t p : groups[g])
        {
            const std::vector<int>& corners = polys[p].verts;
            unsigned first = nextVert;
            for (int v : corners)
            {
                const srVector3T<float>& pos = verts[(size_t)v];
                out->mVertices[nextVert] = aiVector3D(pos.x, pos.y, pos.z);
                if (out->mColors[0])
                    out->mColors[0][nextVert] = colour;
                ++nextVert;
            }
            unsigned n = (unsigned)corners.size();
            if (triangles)
            {
                for (unsigned j = 1; j + 1 < n; ++j)
                {
                    aiFace& face = out->mFaces[nextFace++];
                    face.mNumIndices = 3;
                    face.mIndices = new unsigned[3]{first, first + j, first + j + 1};
                }
            }
            else
            {
                aiFace& face = out->mFaces[nextFace++];
                face.mNumIndices = n;
                face.mIndices = new unsigned[n];
                for (unsigned j = 0; j < n; ++j)
                    face.mIndices[j] = first + j;
                polygons = polygons || n > 3;
            }
        }
        out->mPrimitiveTypes = (unsigned)aiPrimitiveType_TRIANGLE | (polygons ? (unsigned)aiPrimitiveType_POLYGON : 0u);
    }
    return scene;
}

} // namespace

MeshWriter::e_format MeshWriter::formatNamed(const std::string& name)
{
    std::string lower = name;
    for (char& c : lower)
        c = (char)std::tolower((unsigned char)c);
    if (lower == "obj")
        return FORMAT_OBJ;
    if (lower == "glb")
        return FORMAT_GLB;
    if (lower == "ply")
        return FORMAT_PLY;
    return FORMAT_NONE;
}

MeshWriter::e_format MeshWriter::formatOf(const std::string& path)
{
    std::string::size_type dot = path.find_last_of('.');
    std::string::size_type slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return FORMAT_NONE;
    return formatNamed(path.substr(dot + 1));
}

std::string MeshWriter::companionPath(const std::string& path, e_format format)
{
    if (format != FORMAT_OBJ || path.empty())
        return std::string();
    if (path == "-" || AtomicFile::isStdout(path))
        return std::string();
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        return std::string();
    // The exporter's own rule: the mesh file's name with its extension replaced.
    std::string::size_type dot = path.find_last_of('.');
    std::string::size_type slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return path + ".mtl";
    return path.substr(0, dot) + ".mtl";
}

bool MeshWriter::write(const srMeshModel& mesh, const std::string& path, e_format format, OutputSet& outputs,
                       std::string& error)
{
    if (format == FORMAT_NONE)
    {
        error = path + ": unsupported mesh format (use .obj, .glb or .ply)";
        return false;
    }
    std::vector<Polygon> polys = polygonsOf(mesh);
    std::unique_ptr<aiScene> scene(buildScene(mesh, polys, format, error));
    if (!scene)
    {
        error = path + ": " + error;
        return false;
    }

    // An OBJ that goes into a device, a pipe or standard output has no place for its
    // material file, so it is written without one (and names none).
    std::string companion = companionPath(path, format);
    bool withMaterials = format == FORMAT_OBJ && !companion.empty();
    std::string exportName = format == FORMAT_OBJ && !withMaterials ? std::string("mesh.obj") : path;
    std::string ioError;
    Assimp::Exporter exporter;
    exporter.SetIOHandler(new TempIOSystem(&outputs, exportName, path, &ioError));
    const char* id =
        format == FORMAT_OBJ ? (withMaterials ? "obj" : "objnomtl") : (format == FORMAT_GLB ? "glb2" : "ply");
    aiReturn result = exporter.Export(scene.get(), id, exportName, 0);
    if (result != aiReturn_SUCCESS || !ioError.empty())
    {
        error = !ioError.empty() ? ioError : path + ": cannot write the mesh: " + exporter.GetErrorString();
        return false; // the caller's set drops the temporary files
    }
    return true;
}
