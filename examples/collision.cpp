// A closed cube becomes a clip BSP; a point inside is solid, one outside empty, and a
// segment from outside to the centre stops at the cube's face.
#include <cstdio>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/mrVersion.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/platform/dx/srMeshModel.h>

int main()
{
    // Twelve triangles, counter-clockwise seen from outside: the cube is solid.
    srMeshModel* mesh = new srMeshModel(0, 0);
    for (int i = 0; i < 8; ++i)
        mesh->addVertex(srVector3T<float>(i & 1 ? 16 : -16, i & 2 ? 16 : -16, i & 4 ? 16 : -16));
    const int quads[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& q : quads)
    {
        mesh->addPolygon(q[0], q[1], q[2]);
        mesh->addPolygon(q[0], q[2], q[3]);
    }

    mrClipPipeline::Settings settings; // identity matrix, no offset
    mrClipPipeline::Result result;
    std::string error;
    if (!mrClipPipeline::run(mesh, settings, result, error))
    {
        std::fprintf(stderr, "collision pipeline: %s\n", error.c_str());
        return 1;
    }
    mrClipBSP* bsp = result.clipBSP; // owned by `result` until result.take()

    srVector3T<float> inside(0, 0, 0), outside(20, 0, 0);
    const int a = bsp->pointInfo(0, inside); // -1 empty, -2 (or below) solid
    const int b = bsp->pointInfo(0, outside);
    mrTrace trace;
    srVector3T<float> start(-32, 0, 0);
    const int clear = bsp->checkCollision(start, inside, trace); // 0: stopped
    std::printf("MeridBSP %s: %u nodes; inside %d, outside %d; trace %s at fraction %.6f, x = %.5f\n",
                meridbspVersion(), bsp->m_numnodes, a, b, clear ? "clear" : "blocked", trace.m_fraction,
                trace.m_endPos.x);

    mesh->release();
    return a <= -2 && b == -1 && !clear ? 0 : 1;
}
