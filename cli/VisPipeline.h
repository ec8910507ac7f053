#pragma once

#include <string>

#include <meridbsp/pipeline/mrVisPipeline.h>

#include "MeshWriter.h"

class OutputSet;
class srMeshModel;

// The tool's visibility run: the library's pipeline with the portal file and the portal
// mesh written as outputs of the caller's OutputSet, put in place when the caller commits
// it. The library's standard-output line goes to standard error meanwhile.
class VisPipeline
{
public:
    struct Options
    {
        bool midSplit = false;
        std::string portalFile; // where the portal file goes
        std::string meshFile;   // where the portal mesh goes
        MeshWriter::e_format meshFormat = MeshWriter::FORMAT_OBJ;
    };

    // False with a complete message (naming the file) when an output cannot be written.
    static bool run(srMeshModel* mesh, const Options& options, OutputSet& outputs, mrVisPipeline::Result& result,
                    std::string& error);
};
