#include <meridbsp/platform/dx/srMeshModel.h>

srMeshModel::srMeshModel(long numVerts, long numPolys)
{
    if (numVerts > 0)
        m_verts.reserve((size_t)numVerts);
    if (numPolys > 0)
        m_polyVerts.reserve((size_t)numPolys);
}

srMeshModel::srMeshModel(const srMeshModel& o) : srClassSupport(o) { *this = o; }

srMeshModel& srMeshModel::operator=(const srMeshModel& o)
{
    if (this == &o)
        return *this;
    m_numpolys = o.m_numpolys;
    m_verts = o.m_verts;
    m_polyVerts = o.m_polyVerts;
    m_polyTextures = o.m_polyTextures;
    m_texture = o.m_texture;
    m_polyMaterials = o.m_polyMaterials;
    m_outlineSizes = o.m_outlineSizes;
    return *this;
}

srMeshModel::~srMeshModel() = default;

bool srMeshModel::usedVertexBounds(srVector3T<float>& mins, srVector3T<float>& maxs) const
{
    bool first = true;
    for (long i = 0; i < m_numpolys && (size_t)i < m_polyVerts.size(); ++i)
        for (int k = 0; k < 3; ++k)
        {
            const srVector3T<float>& p = m_verts[(size_t)m_polyVerts[(size_t)i][k]];
            if (first)
            {
                mins = maxs = p;
                first = false;
                continue;
            }
            for (int a = 0; a < 3; ++a)
            {
                if (p[a] < mins[a])
                    mins[a] = p[a];
                if (p[a] > maxs[a])
                    maxs[a] = p[a];
            }
        }
    if (first)
        mins = maxs = srVector3T<float>(0, 0, 0);
    return !first;
}

void srMeshModel::applyMatrix(const srMatrix3T<float>& matrix)
{
    for (srVector3T<float>& v : m_verts)
        v = matrix.transform(v);
}

void srMeshModel::relocateVertices(const srVector3T<float>& offset)
{
    for (srVector3T<float>& v : m_verts)
    {
        v.x = v.x + offset.x;
        v.y = v.y + offset.y;
        v.z = v.z + offset.z;
    }
}

long srMeshModel::addVertex(const srVector3T<float>& p)
{
    m_verts.push_back(p);
    return (long)m_verts.size() - 1;
}

long srMeshModel::addPolygon(int i0, int i1, int i2)
{
    m_polyVerts.push_back(srVector3i(i0, i1, i2));
    if (!m_polyTextures.empty())
        m_polyTextures.resize(m_polyVerts.size());
    m_numpolys = (long)m_polyVerts.size();
    return m_numpolys - 1;
}

void srMeshModel::setPolyTexture(long i, srTextureIFace* texture)
{
    if (i < 0 || i >= m_numpolys)
        return;
    if (m_polyTextures.size() != m_polyVerts.size())
        m_polyTextures.resize(m_polyVerts.size());
    m_polyTextures[(size_t)i] = srPtr<srTextureIFace>(texture);
}

void srMeshModel::clear()
{
    m_numpolys = 0;
    m_verts.clear();
    m_polyVerts.clear();
    m_polyTextures.clear();
    m_texture = srPtr<srTextureIFace>();
    m_polyMaterials.clear();
    m_outlineSizes.clear();
}
