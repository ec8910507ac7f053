#include "PeerBullet.h"

#include <BulletCollision/NarrowPhaseCollision/btRaycastCallback.h>

#include "BenchMesh.h"

namespace
{

// Keeps the nearest hit: returning the hit's fraction shortens the ray for the rest of
// the traversal.
class NearestHit : public btTriangleRaycastCallback
{
public:
    NearestHit(const btVector3& from, const btVector3& to) : btTriangleRaycastCallback(from, to) {}
    btScalar reportHit(const btVector3&, btScalar hitFraction, int, int) override
    {
        m_hit = true;
        return hitFraction;
    }
    bool m_hit = false;
};

} // namespace

btTriangleIndexVertexArray* PeerBullet::wrap(BenchMesh& mesh)
{
    // The arrays are read in place: the mesh's flat copies live as long as the mesh.
    const std::vector<float>& v = mesh.flatVertices();
    const std::vector<uint32_t>& idx = mesh.flatIndices();
    return new btTriangleIndexVertexArray((int)(idx.size() / 3), (int*)const_cast<uint32_t*>(idx.data()),
                                          3 * (int)sizeof(int), (int)(v.size() / 3), const_cast<btScalar*>(v.data()),
                                          3 * (int)sizeof(float));
}

btBvhTriangleMeshShape* PeerBullet::buildShape(btTriangleIndexVertexArray* triangles)
{
    return new btBvhTriangleMeshShape(triangles, true /* quantized */, true /* build now */);
}

PeerBullet::PeerBullet(BenchMesh& mesh) : m_triangles(wrap(mesh)), m_shape(buildShape(m_triangles)) {}

PeerBullet::~PeerBullet()
{
    delete m_shape;
    delete m_triangles;
}

bool PeerBullet::segment(const float* a, const float* b, float* fraction) const
{
    const btVector3 from(a[0], a[1], a[2]);
    const btVector3 to(b[0], b[1], b[2]);
    NearestHit cb(from, to);
    m_shape->performRaycast(&cb, from, to);
    if (fraction)
        *fraction = cb.m_hitFraction;
    return cb.m_hit;
}
