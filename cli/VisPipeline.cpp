#include "VisPipeline.h"

#include <cerrno>
#include <cstring>

#include <meridbsp/platform/dx/srMeshModel.h>

#include "AtomicFile.h"
#include "MeshWriter.h"
#include "OutputSet.h"
#include "StdoutRedirect.h"

bool VisPipeline::run(srMeshModel* mesh, const Options& options, OutputSet& outputs, mrVisPipeline::Result& result,
                      std::string& error)
{
    AtomicFile* prt = outputs.open(options.portalFile, error);
    if (!prt)
        return false;
    mrVisPipeline::Settings settings;
    settings.midSplit = options.midSplit;
    settings.portalFile = options.portalFile;
    settings.portalStream = prt->file();
    settings.portalMesh = true;
    {
        StdoutRedirect quietStdout;
        if (!mrVisPipeline::run(mesh, settings, result, error))
        {
            error = options.portalFile + ": write failed: " + std::strerror(errno);
            return false;
        }
    }
    const bool ok = MeshWriter::write(*result.portalMesh, options.meshFile, options.meshFormat, outputs, error);
    result.release();
    return ok;
}
