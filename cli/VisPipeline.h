#pragma once

#include <string>
#include <vector>

#include <meridbsp/pipeline/mrVisPipeline.h>

#include "MeshWriter.h"

class OutputSet;
class srMeshModel;

// The tool's visibility run: the library's pipeline with the portal file and the portal
// mesh (and the leak paths, when inside points are given) written as outputs of the
// caller's OutputSet, put in place when the caller commits it. The library's
// standard-output line goes to standard error meanwhile.
class VisPipeline
{
public:
    struct Options
    {
        bool midSplit = false;
        int threads = 0;        // mrVisPipeline::Settings::threads
        std::string portalFile; // where the portal file goes
        std::string meshFile;   // where the portal mesh goes
        MeshWriter::e_format meshFormat = MeshWriter::FORMAT_OBJ;
        // Points meant to lie inside the level; with any, the leak paths go to leakFile.
        std::vector<srVector3T<float>> insidePoints;
        std::string leakFile;
    };

    // The leak paths as an OBJ file: for each inside point whose open space reaches the
    // outside, one polyline from the point through the centres of the portals crossed.
    static std::string leakObj(const mrLeakFinder::Report& report);

    // False with a complete message (naming the file) when an output cannot be written.
    static bool run(srMeshModel* mesh, const Options& options, OutputSet& outputs, mrVisPipeline::Result& result,
                    std::string& error);
};
