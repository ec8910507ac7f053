#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/portals/mrLeakFinder.h>

class mrBSPNode;
class mrBSPPortalizer;
class mrMaterial;
class srMeshModel;

// The visibility pipeline in one call, for library users: surfaces (with their bounds),
// the solid BSP tree, the head node's box around the vertices the triangles use, portals,
// the portal file and the portal mesh. It drives the module's own classes step by step,
// so the results are exactly theirs, and releases everything it built except the outputs
// it hands over.
//
// Like the steps it drives, it touches the portalizer's process-wide counters, material
// table and portal file: one run at a time in a process.
class mrVisPipeline
{
public:
    struct Settings
    {
        // false: each node takes the plane that cuts the fewest faces (the default);
        // true: the plane that divides the box most evenly, which is much faster on curved
        // meshes and gives a different tree.
        bool midSplit = false;
        // Where the portal file goes. Empty: no portal file. Written through mrOutputFile:
        // complete or not at all, a device or named pipe written through.
        std::string portalFile;
        // When set, the portal file goes into this stream instead (the caller opened it and
        // closes it), and portalFile only names it in the log line. For callers that put
        // their outputs in place themselves.
        FILE* portalStream = nullptr;
        // Build the mesh of the portals that face solid space (Result::portalMesh).
        bool portalMesh = true;
        // Find the open leaves joined to the outside (Result::leaks), and for each of
        // these points, meant to lie inside the level, whether its open space leaks out
        // and by which portals.
        bool findLeaks = true;
        std::vector<srVector3T<float>> insidePoints;
        // Called once with the portalized tree and its portalizer (whose outside node
        // stands for all space beyond the head box), after the portal file and the portal
        // mesh are made and before anything is released: a look at the leaves and their
        // portals for callers that show or check them. It must not change them. Unset by
        // default; it changes no result.
        std::function<void(const mrBSPNode* head, const mrBSPPortalizer& portalizer)> observer;
        // Told how far the run has got (see mrProgress), stage by stage: "surfaces", "solid
        // BSP" (faces that have reached a leaf, of all faces),
        // "portals" (decision nodes cut, of all), "portal file", "portal mesh", "leaks".
        // Unset by default; it changes no result.
        mrProgress::Callback progress;
        // Threads the build may use: 1 (the default) runs the module's own steps on the
        // calling thread; 0 takes every core the process may run on (its CPU affinity); N
        // up to N. Every result is the same for every count: the tree, the counters, the
        // portal file's bytes, the portal mesh and the log lines. The portalizer's
        // counters, material table and portal file and the random numbers are still only
        // touched from the calling thread, in the same order.
        int threads = 1;
    };

    struct Result
    {
        Result() = default;
        ~Result() { release(); }
        Result(const Result&) = delete;
        Result& operator=(const Result&) = delete;

        unsigned planes = 0;   // plane-table size
        unsigned surfaces = 0; // surfaces made, one per plane
        unsigned faces = 0;    // faces made, one per triangle
        // The solid BSP generator's counters.
        int numSplitNodes = 0;
        int numLeafFaces = 0;
        int numNodeFaces = 0;
        int numSolidLeafs = 0;
        int numEmptyLeafs = 0;
        int numLinkedFaces = 0;
        // The head node's box.
        srVector3T<float> mins, maxs;
        // Portalization.
        int numDegeneratePortals = 0; // node portals clipped away to nothing
        int numVisleafs = 0;          // leaves numbered in the portal file
        int numVisportals = 0;        // portal lines in the portal file
        // The portal mesh (with Settings::portalMesh): owned by the result, released with
        // it or by release(); its polygons' materials live as long as it does.
        srMeshModel* portalMesh = nullptr;
        int portalMeshPolys = 0;
        // With Settings::findLeaks: the open leaves that reach the outside, and what each
        // inside point tells.
        mrLeakFinder::Report leaks;
        // Things a user should know about the input or the result.
        std::vector<std::string> warnings;

        // Releases the portal mesh and its materials.
        void release();

    private:
        friend class mrVisPipeline;
        std::vector<mrMaterial*> m_materials;
    };

    // False with `error` set when an output cannot be written; the counters are filled
    // up to that point. A null mesh and a negative thread count are errors.
    static bool run(srMeshModel* mesh, const Settings& settings, Result& result, std::string& error);
};
