// A hollow box room (faces pointing in) becomes a solid BSP tree with portals: the
// portal file goes to the directory given (default: the current one), and the mesh of
// the portals that face solid space is counted.
#include <cstdio>
#include <string>

#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/dx/srMeshModel.h>

int main(int argc, char** argv)
{
    // Twelve triangles, counter-clockwise seen from inside the room.
    srMeshModel* mesh = new srMeshModel(0, 0);
    for (int i = 0; i < 8; ++i)
        mesh->addVertex(srVector3T<float>(i & 1 ? 128 : -128, i & 2 ? 64 : -64, i & 4 ? 96 : 0));
    const int quads[6][4] = {{0, 1, 3, 2}, {4, 6, 7, 5}, {0, 4, 5, 1}, {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 5, 7, 3}};
    for (const auto& q : quads)
    {
        mesh->addPolygon(q[0], q[1], q[2]);
        mesh->addPolygon(q[0], q[2], q[3]);
    }

    mrVisPipeline::Settings settings;
    settings.portalFile = std::string(argc > 1 ? argv[1] : ".") + "/test.prt";
    mrVisPipeline::Result result; // releases the portal mesh when it goes
    std::string error;
    if (!mrVisPipeline::run(mesh, settings, result, error))
    {
        std::fprintf(stderr, "visibility pipeline: %s\n", error.c_str());
        return 1;
    }
    std::printf("%d decision nodes, %d empty and %d solid leaves; %d visleafs, %d visportals in %s; "
                "portal mesh of %d polygons\n",
                result.numSplitNodes, result.numEmptyLeafs, result.numSolidLeafs, result.numVisleafs,
                result.numVisportals, settings.portalFile.c_str(), result.portalMeshPolys);
    for (const std::string& w : result.warnings)
        std::printf("warning: %s\n", w.c_str());

    mesh->release();
    return result.numEmptyLeafs > 0 ? 0 : 1;
}
