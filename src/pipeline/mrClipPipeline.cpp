#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/platform/dx/srMeshModel.h>

mrClipBSP* mrClipPipeline::Result::take()
{
    mrClipBSP* bsp = clipBSP;
    clipBSP = nullptr;
    return bsp;
}

void mrClipPipeline::Result::release()
{
    if (clipBSP)
        clipBSP->release();
    clipBSP = nullptr;
}

bool mrClipPipeline::run(srMeshModel* mesh, const Settings& settings, Result& result, std::string& error)
{
    result.release();
    result.warnings.clear();
    if (!mesh)
    {
        error = "no mesh";
        return false;
    }
    if (settings.threads < 0)
    {
        error = "a negative thread count";
        return false;
    }
    // The generator takes its arguments by reference and copies the mesh before moving it;
    // the settings are not changed.
    srVector3T<float> offset = settings.offset;
    srMatrix3T<float> matrix = settings.matrix;
    mrClipBSPGen generator;
    {
        mrProgress::Stage stage(settings.progress, "clip BSP", 0);
        result.clipBSP = settings.threads == 1
                             ? generator.importMeshModel(mesh, offset, matrix)
                             : generator.importMeshModelParallel(mesh, offset, matrix, settings.threads);
    }
    result.numLeafFaces = generator.m_numleaffaces;
    result.numSolidLeafs = generator.m_numsolidleafs;
    result.numEmptyLeafs = generator.m_numemptyleafs;
    if (result.clipBSP && result.clipBSP->m_numnodes == 0)
        result.warnings.push_back("the mesh has no triangles: the clip BSP is empty space");
    return result.clipBSP != nullptr;
}
