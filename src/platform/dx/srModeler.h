#pragma once

#include <vector>

#include <meridbsp/platform/dx/srMaterialIFace.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srVector3T.h>

// Collects polygons and turns them into a mesh model.
class srModeler
{
public:
    class Polygon
    {
    public:
        struct Vertex
        {
            srVector3T<float> m_pos;
            srMaterialIFace* m_material = nullptr;
        };

        explicit Polygon(int capacity = 10);
        void reset() { m_numVertices = 0; }
        // Gives the polygon exactly n vertices, to be filled by index.
        void reAllocate(int n);
        int numVertices() const { return m_numVertices; }
        Vertex& operator[](int i) { return m_vertices[i]; }
        const Vertex& operator[](int i) const { return m_vertices[i]; }

    private:
        std::vector<Vertex> m_vertices;
        int m_numVertices = 0;
    };

    srModeler() = default;
    ~srModeler() = default;

    void addPolygon(const Polygon& polygon);
    size_t numPolygons() const { return m_polygons.size(); }
    const Polygon& polygon(size_t i) const { return m_polygons[i]; }

    // Builds the mesh from the collected polygons: one vertex per polygon corner, each
    // polygon fanned into triangles from its first vertex, the triangles taking the
    // polygon's first vertex's material. With keepOutlines nonzero the mesh also records
    // each polygon's vertex count (m_outlineSizes) so writers can emit whole polygons.
    void convert(srMeshModel& mesh, int keepOutlines);

private:
    std::vector<Polygon> m_polygons;
};
