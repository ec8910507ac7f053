#include <meridbsp/platform/dx/srModeler.h>

srModeler::Polygon::Polygon(int capacity)
{
    if (capacity > 0)
        m_vertices.reserve((size_t)capacity);
}

void srModeler::Polygon::reAllocate(int n)
{
    if (n < 0)
        n = 0;
    // Fresh vertices every time, so no position or material survives from the last use.
    m_vertices.assign((size_t)n, Vertex());
    m_numVertices = n;
}

void srModeler::addPolygon(const Polygon& polygon) { m_polygons.push_back(polygon); }

void srModeler::convert(srMeshModel& mesh, int keepOutlines)
{
    mesh.clear();
    for (const Polygon& poly : m_polygons)
    {
        int n = poly.numVertices();
        long base = mesh.getNumVerts();
        for (int k = 0; k < n; ++k)
            mesh.addVertex(poly[k].m_pos);
        // A fan from the first corner; a polygon of fewer than three corners gives no triangle.
        for (int k = 1; k + 1 < n; ++k)
        {
            mesh.addPolygon((int)base, (int)(base + k), (int)(base + k + 1));
            mesh.m_polyMaterials.push_back(poly[0].m_material);
        }
        if (keepOutlines)
            mesh.m_outlineSizes.push_back(n);
    }
}
