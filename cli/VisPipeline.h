#pragma once

#include <string>

#include <meridbsp/pipeline/mrVisPipeline.h>

class srMeshModel;

// The tool's visibility run: the library's pipeline with the portal file and the portal
// mesh written to the given files. The library's standard-output line goes to standard
// error meanwhile.
class VisPipeline
{
public:
    struct Options
    {
        bool midSplit = false;
        std::string portalFile; // where the portal file goes
        std::string meshFile;   // where the portal mesh goes (.obj, .glb or .ply)
    };

    // False with a complete message (naming the file) when an output cannot be written.
    static bool run(srMeshModel* mesh, const Options& options, mrVisPipeline::Result& result, std::string& error);
};
