#pragma once

#include <string>

class srMeshModel;

// The visibility pipeline from a mesh to its two outputs: surfaces and their bounds,
// the solid BSP tree, the head node's box, portals, the portal file and the mesh of
// the portals facing solid space. Everything it builds is released before it returns.
class VisPipeline
{
public:
    struct Options
    {
        bool midSplit = false;
        std::string portalFile; // where the portal file goes
        std::string meshFile;   // where the portal mesh goes (.obj, .glb or .ply)
    };

    struct Result
    {
        long planes = 0; // plane-table size
        long surfaces = 0;
        long faces = 0;
        long numSplitNodes = 0;
        long numLeafFaces = 0;
        long numNodeFaces = 0;
        long numSolidLeafs = 0;
        long numEmptyLeafs = 0;
        long numLinkedFaces = 0;
        long visleafs = 0;
        long visportals = 0;
        long meshPolys = 0;
    };

    // False with a complete message (naming the file) when an output cannot be written.
    // The library's log and its standard-output line go to standard error meanwhile.
    static bool run(srMeshModel* mesh, const Options& options, Result& result, std::string& error);
};
