#pragma once

#include <btBulletCollisionCommon.h>

class BenchMesh;

// The physics-library peer: a quantized bounding-volume tree over the mesh's float
// triangles (referenced in place, not copied), queried for the nearest hit of a segment.
class PeerBullet
{
public:
    explicit PeerBullet(BenchMesh& mesh);
    ~PeerBullet();
    PeerBullet(const PeerBullet&) = delete;
    PeerBullet& operator=(const PeerBullet&) = delete;

    // Builds a new shape over the mesh (what the build benchmark times); the caller
    // deletes it, and the mesh must outlive it.
    static btBvhTriangleMeshShape* buildShape(btTriangleIndexVertexArray* triangles);
    static btTriangleIndexVertexArray* wrap(BenchMesh& mesh);

    // True when the segment from a to b meets a triangle; *fraction gets the nearest hit.
    bool segment(const float* a, const float* b, float* fraction = nullptr) const;

private:
    btTriangleIndexVertexArray* m_triangles;
    btBvhTriangleMeshShape* m_shape;
};
