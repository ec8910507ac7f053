#include "MeshReader.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include <assimp/Importer.hpp>
#include <assimp/material.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srTexture.h>
#include <sys/stat.h>

namespace
{

std::string format(const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

std::string format(const char* fmt, ...)
{
    char buf[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

std::string baseName(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    const char* backslash = std::strrchr(path, '\\');
    const char* cut = slash > backslash ? slash : backslash;
    return cut ? cut + 1 : path;
}

// The name a triangle's texture carries: the diffuse texture's file name, else the
// material's own name; empty when the material has neither.
std::string textureName(const aiMaterial* material)
{
    if (!material)
        return std::string();
    aiString path;
    if (material->GetTextureCount(aiTextureType_DIFFUSE) > 0 &&
        material->GetTexture(aiTextureType_DIFFUSE, 0, &path) == AI_SUCCESS && path.length > 0)
        return baseName(path.C_Str());
    aiString name;
    if (material->Get(AI_MATKEY_NAME, name) == AI_SUCCESS)
        return name.C_Str();
    return std::string();
}

// Everything the importer handed over is checked before any post-processing step reads
// it: some importers pass bad indices and non-finite numbers through unchanged.
bool checkScene(const aiScene* scene, std::string& error)
{
    for (unsigned m = 0; m < scene->mNumMeshes; ++m)
    {
        const aiMesh* mesh = scene->mMeshes[m];
        if (!mesh)
            continue;
        if (mesh->mNumVertices > 0 && !mesh->mVertices)
        {
            error = format("mesh %u has %u vertices but no positions", m, mesh->mNumVertices);
            return false;
        }
        for (unsigned v = 0; v < mesh->mNumVertices; ++v)
        {
            const aiVector3D& p = mesh->mVertices[v];
            if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z))
            {
                error = format("mesh %u vertex %u has a non-finite coordinate (%g %g %g)", m, v, (double)p.x,
                               (double)p.y, (double)p.z);
                return false;
            }
        }
        if (mesh->mNumFaces > 0 && !mesh->mFaces)
        {
            error = format("mesh %u has %u faces but no face data", m, mesh->mNumFaces);
            return false;
        }
        for (unsigned f = 0; f < mesh->mNumFaces; ++f)
        {
            const aiFace& face = mesh->mFaces[f];
            if (face.mNumIndices == 0 || !face.mIndices)
            {
                error = format("mesh %u face %u has no indices", m, f);
                return false;
            }
            for (unsigned k = 0; k < face.mNumIndices; ++k)
            {
                if (face.mIndices[k] >= mesh->mNumVertices)
                {
                    error = format("mesh %u face %u refers to vertex %u, but the mesh has only %u vertices", m, f,
                                   face.mIndices[k], mesh->mNumVertices);
                    return false;
                }
            }
        }
    }
    return true;
}

// Some importers hang or abort on headers that promise more than the file holds, so those
// formats are checked before the importer sees them.
bool checkHeader(const char* data, size_t size, std::string& error)
{
    std::string head(data, size < 65536 ? size : 65536);
    if (head.compare(0, 3, "ply") == 0 && head.find("end_header") == std::string::npos)
    {
        error = "the PLY header has no end_header line";
        return false;
    }
    // OFF: one vertex per line, then one face per line ("n i0 i1 ..."); the counts line
    // must not promise more lines than follow.
    size_t pos = 0;
    auto nextLine = [&](std::string& line)
    {
        while (pos < size)
        {
            size_t end = pos;
            while (end < size && data[end] != '\n')
                ++end;
            line.assign(data + pos, end - pos);
            pos = end + 1;
            size_t hash = line.find('#');
            if (hash != std::string::npos)
                line.erase(hash);
            if (line.find_first_not_of(" \t\r") != std::string::npos)
                return true;
        }
        return false;
    };
    std::string line;
    if (!nextLine(line))
        return true;
    size_t first = line.find_first_not_of(" \t\r");
    std::string tag = line.substr(first, line.find_first_of(" \t\r", first) - first);
    if (tag.size() < 3 || tag.compare(tag.size() - 3, 3, "OFF") != 0)
        return true;
    std::string rest = line.substr(first + tag.size());
    if (rest.find_first_not_of(" \t\r") == std::string::npos && !nextLine(rest))
    {
        error = "the OFF header has no vertex and face counts";
        return false;
    }
    unsigned long nverts = 0, nfaces = 0;
    if (std::sscanf(rest.c_str(), "%lu %lu", &nverts, &nfaces) != 2)
    {
        error = "the OFF header has no vertex and face counts";
        return false;
    }
    unsigned long lines = 0;
    while (lines < nverts + nfaces && nextLine(line))
        ++lines;
    if (lines < nverts + nfaces)
    {
        error = format("the OFF header promises %lu vertices and %lu faces, but the file has only %lu lines of them",
                       nverts, nfaces, lines);
        return false;
    }
    return true;
}

// For a file that holds only a skeleton or an animation (motion capture, for example),
// the importer makes up a mesh of its own that draws the bones: one mesh, skinned to
// them, under the material "SkeletonMaterial". It is no surface to build a tree from.
bool isSkeletonDrawing(const aiScene* scene)
{
    if (scene->mNumMeshes != 1 || !scene->mMeshes[0] || scene->mMeshes[0]->mNumBones == 0)
        return false;
    unsigned material = scene->mMeshes[0]->mMaterialIndex;
    aiString name;
    return material < scene->mNumMaterials && scene->mMaterials[material] &&
           scene->mMaterials[material]->Get(AI_MATKEY_NAME, name) == AI_SUCCESS &&
           std::strcmp(name.C_Str(), "SkeletonMaterial") == 0;
}

srMeshModel* convertScene(Assimp::Importer& importer, std::string& error, MeshReader::Stats* stats)
{
    const aiScene* scene = importer.GetScene();
    if (!scene || !checkScene(scene, error))
    {
        if (!scene)
            error = "cannot read the mesh";
        return nullptr;
    }
    if (isSkeletonDrawing(scene))
    {
        error = "the file holds no surface triangles, only a skeleton or an animation";
        return nullptr;
    }
    // Triangulation only: merging vertices or reordering would change which planes and
    // faces the pipelines see.
    scene = importer.ApplyPostProcessing(aiProcess_Triangulate);
    if (!scene)
    {
        error = std::string("cannot triangulate the mesh: ") + importer.GetErrorString();
        return nullptr;
    }

    MeshReader::Stats local;
    local.meshes = scene->mNumMeshes;
    size_t totalVertices = 0;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m)
    {
        const aiMesh* mesh = scene->mMeshes[m];
        if (!mesh)
            continue;
        totalVertices += mesh->mNumVertices;
        for (unsigned f = 0; f < mesh->mNumFaces; ++f)
        {
            if (mesh->mFaces[f].mNumIndices == 3)
                ++local.triangles;
            else
                ++local.skipped;
        }
    }
    if (local.triangles == 0)
    {
        error = "the file holds no triangles";
        return nullptr;
    }
    // Vertex and polygon numbers are ints in the mesh model.
    if (totalVertices > (size_t)INT_MAX || local.triangles > (size_t)INT_MAX)
    {
        error = "the mesh is too large";
        return nullptr;
    }

    // One texture per material, shared by its triangles.
    std::vector<srTexture*> textures(scene->mNumMaterials, nullptr);
    for (unsigned i = 0; i < scene->mNumMaterials; ++i)
    {
        std::string name = textureName(scene->mMaterials[i]);
        if (!name.empty())
            textures[i] = new srTexture(name.c_str());
    }

    srMeshModel* model = new srMeshModel((long)totalVertices, (long)local.triangles);
    model->m_verts.reserve(totalVertices);
    model->m_polyVerts.reserve(local.triangles);
    for (unsigned m = 0; m < scene->mNumMeshes; ++m)
    {
        const aiMesh* mesh = scene->mMeshes[m];
        if (!mesh)
            continue;
        int base = (int)model->m_verts.size();
        for (unsigned v = 0; v < mesh->mNumVertices; ++v)
        {
            const aiVector3D& p = mesh->mVertices[v];
            model->addVertex(srVector3T<float>(p.x, p.y, p.z));
        }
        srTexture* texture = mesh->mMaterialIndex < textures.size() ? textures[mesh->mMaterialIndex] : nullptr;
        for (unsigned f = 0; f < mesh->mNumFaces; ++f)
        {
            const aiFace& face = mesh->mFaces[f];
            if (face.mNumIndices != 3)
                continue;
            long poly = model->addPolygon(base + (int)face.mIndices[0], base + (int)face.mIndices[1],
                                          base + (int)face.mIndices[2]);
            model->setPolyTexture(poly, texture);
        }
    }
    // The triangles hold their own references now.
    for (srTexture* texture : textures)
    {
        if (texture)
            texture->release();
    }
    local.vertices = model->m_verts.size();
    if (stats)
        *stats = local;
    return model;
}

} // namespace

srMeshModel* MeshReader::read(const std::string& path, std::string& error, Stats* stats)
{
    // The importer's own message for these cases is vague, so they are told apart first.
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
    {
        error = std::string("cannot open: ") + std::strerror(errno);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode))
    {
        error = "is a directory, not a mesh file";
        return nullptr;
    }
    FILE* probe = std::fopen(path.c_str(), "rb");
    if (!probe)
    {
        error = std::string("cannot open: ") + std::strerror(errno);
        return nullptr;
    }
    std::fclose(probe);
    if (S_ISREG(st.st_mode) && st.st_size == 0)
    {
        error = "the file is empty";
        return nullptr;
    }

    {
        std::vector<char> bytes((size_t)st.st_size);
        FILE* in = std::fopen(path.c_str(), "rb");
        size_t got = in ? std::fread(bytes.data(), 1, bytes.size(), in) : 0;
        if (in)
            std::fclose(in);
        if (!checkHeader(bytes.data(), got, error))
            return nullptr;
    }

    Assimp::Importer importer;
    if (!importer.ReadFile(path, 0))
    {
        error = std::string("cannot read the mesh: ") + importer.GetErrorString();
        return nullptr;
    }
    return convertScene(importer, error, stats);
}

srMeshModel* MeshReader::readMemory(const void* data, size_t size, const char* formatHint, std::string& error,
                                    Stats* stats)
{
    if (!data || size == 0)
    {
        error = "the file is empty";
        return nullptr;
    }
    if (!checkHeader(static_cast<const char*>(data), size, error))
        return nullptr;
    Assimp::Importer importer;
    if (!importer.ReadFileFromMemory(data, size, 0, formatHint ? formatHint : ""))
    {
        error = std::string("cannot read the mesh: ") + importer.GetErrorString();
        return nullptr;
    }
    return convertScene(importer, error, stats);
}
