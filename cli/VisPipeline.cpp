#include "VisPipeline.h"

#include <cerrno>
#include <cstring>

#include <meridbsp/platform/dx/srMeshModel.h>

#include "AtomicFile.h"
#include "MeshWriter.h"
#include "OutputSet.h"
#include "Progress.h"
#include "StdoutRedirect.h"
#include "Tool.h"

bool VisPipeline::run(srMeshModel* mesh, const Options& options, OutputSet& outputs, mrVisPipeline::Result& result,
                      std::string& error)
{
    AtomicFile* prt = outputs.open(options.portalFile, error);
    if (!prt)
        return false;
    mrVisPipeline::Settings settings;
    settings.midSplit = options.midSplit;
    settings.threads = options.threads;
    settings.portalFile = options.portalFile;
    settings.portalStream = prt->file();
    settings.portalMesh = true;
    settings.findLeaks = true;
    settings.insidePoints = options.insidePoints;
    settings.progress = Progress::callback();
    {
        StdoutRedirect quietStdout;
        if (!mrVisPipeline::run(mesh, settings, result, error))
        {
            error = options.portalFile + ": write failed: " + std::strerror(errno);
            return false;
        }
    }
    bool ok = MeshWriter::write(*result.portalMesh, options.meshFile, options.meshFormat, outputs, error);
    result.release();
    if (ok && !options.insidePoints.empty())
    {
        std::string obj = leakObj(result.leaks);
        ok = outputs.writeFile(options.leakFile, obj.data(), obj.size(), error);
    }
    return ok;
}

std::string VisPipeline::leakObj(const mrLeakFinder::Report& report)
{
    std::string obj = "# Leak paths: from each inside point whose open space reaches the outside, through the\n"
                      "# centres of the portals crossed on the shortest way out, to the box the outer portals\n"
                      "# enclose.\n";
    std::string lines;
    size_t next = 1;
    for (const mrLeakFinder::Leak& leak : report.points)
    {
        if (!leak.leaks)
            continue;
        lines += "l";
        for (const srVector3T<float>& p : leak.path)
        {
            obj += "v " + Tool::real(p.x) + " " + Tool::real(p.y) + " " + Tool::real(p.z) + "\n";
            lines += " " + std::to_string(next++);
        }
        lines += "\n";
    }
    if (lines.empty())
        obj += "# No leak: the open space around every inside point is enclosed.\n";
    return obj + lines;
}
