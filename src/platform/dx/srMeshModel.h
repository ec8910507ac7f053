#pragma once

#include <vector>

#include <meridbsp/platform/dx/srMaterialIFace.h>
#include <meridbsp/platform/dx/srMatrix3T.h>
#include <meridbsp/platform/dx/srModel.h>
#include <meridbsp/platform/dx/srPtr.h>
#include <meridbsp/platform/dx/srTextureIFace.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/dx/srVector3i.h>

// A triangle mesh: vertex positions, one vertex-index triple per polygon, and either
// one texture per polygon or a single mesh texture. Meshes made by srModeler::convert
// also keep a material per polygon and the outline of the polygons they came from.
class srMeshModel : public srClassSupport<srMeshModel, srModel, 1, 0x2010>
{
public:
    static const char* sGetClassName() { return "srMeshModel"; }

    srMeshModel(long numVerts = 0, long numPolys = 0);
    srMeshModel(const srMeshModel& o);
    // Copies the whole geometry and texturing (not the name or the reference count).
    srMeshModel& operator=(const srMeshModel& o);
    ~srMeshModel() override;

    // Number of polygons (each a triangle).
    long m_numpolys = 0;

    srVector3i* getPolyVertex() { return m_polyVerts.empty() ? nullptr : m_polyVerts.data(); }
    srVector3T<float>* getVertexLoc() { return m_verts.empty() ? nullptr : m_verts.data(); }
    long getNumVerts() const { return (long)m_verts.size(); }
    // One texture per polygon, or null when the mesh has none.
    srPtr<srTextureIFace>* getPolyTexture(long, long, int)
    {
        return m_polyTextures.empty() ? nullptr : m_polyTextures.data();
    }
    srTextureIFace* getTexture(long, long) const { return m_texture.get(); }

    // v' = M v for every vertex, in float, each sum left to right
    // (part of the reproducibility promise).
    void applyMatrix(const srMatrix3T<float>& matrix);
    // Adds the offset to every vertex, in float.
    void relocateVertices(const srVector3T<float>& offset);

    // Building a mesh.
    // The box of the vertices the triangles use (degenerate ones included), grown from the
    // first such vertex in polygon order; false, and a zero box, when there are none. The
    // visibility pipeline's head node takes this box, and every portal coordinate follows it.
    bool usedVertexBounds(srVector3T<float>& mins, srVector3T<float>& maxs) const;
    long addVertex(const srVector3T<float>& p);
    long addPolygon(int i0, int i1, int i2);
    void setTexture(srTextureIFace* texture) { m_texture = srPtr<srTextureIFace>(texture); }
    // Gives polygon i its own texture (creates the per-polygon array on first use).
    void setPolyTexture(long i, srTextureIFace* texture);
    void clear();

    std::vector<srVector3T<float>> m_verts;
    std::vector<srVector3i> m_polyVerts;
    std::vector<srPtr<srTextureIFace>> m_polyTextures;
    srPtr<srTextureIFace> m_texture;
    // Filled by srModeler::convert: the material of each triangle, and for each source
    // polygon its vertex count; polygon k's triangles and vertices follow polygon k-1's.
    std::vector<srMaterialIFace*> m_polyMaterials;
    std::vector<int> m_outlineSizes;
};
