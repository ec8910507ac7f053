#include "VisPipeline.h"

#include <meridbsp/platform/dx/srMeshModel.h>

#include "MeshWriter.h"
#include "StdoutRedirect.h"

bool VisPipeline::run(srMeshModel* mesh, const Options& options, mrVisPipeline::Result& result, std::string& error)
{
    mrVisPipeline::Settings settings;
    settings.midSplit = options.midSplit;
    settings.portalFile = options.portalFile;
    settings.portalMesh = true;
    {
        StdoutRedirect quietStdout;
        if (!mrVisPipeline::run(mesh, settings, result, error))
            return false;
    }
    const bool ok = MeshWriter::write(*result.portalMesh, options.meshFile, error);
    result.release();
    return ok;
}
