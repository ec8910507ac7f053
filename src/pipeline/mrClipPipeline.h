#pragma once

#include <string>
#include <vector>

#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srMatrix3T.h>
#include <meridbsp/platform/dx/srVector3T.h>

class mrClipBSP;
class srMeshModel;

// The collision pipeline in one call, for library users: the mesh, moved by the matrix
// and then the offset, becomes a clip BSP ready for queries. It runs the module's own
// generator, so the clip BSP is exactly the one importMeshModel makes, on any number of
// threads.
class mrClipPipeline
{
public:
    struct Settings
    {
        srMatrix3T<float> matrix;          // applied first; the identity by default
        srVector3T<float> offset{0, 0, 0}; // added after the matrix
        // Told how far the run has got (see mrProgress): one stage, "clip BSP", counting the
        // nodes made, whose number is not known beforehand (total 0). Unset by default; it
        // changes no result.
        mrProgress::Callback progress;
        // Threads the build may use: 1 (the default) runs importMeshModel on the calling
        // thread; 0 takes every core the process may run on (its CPU affinity); N up to
        // N. The results are the same for every count.
        int threads = 1;
    };

    struct Result
    {
        Result() = default;
        ~Result() { release(); }
        Result(const Result&) = delete;
        Result& operator=(const Result&) = delete;

        // The clip BSP, owned by the result until take() hands it over.
        mrClipBSP* clipBSP = nullptr;
        // The generator's counters.
        int numLeafFaces = 0;
        int numSolidLeafs = 0;
        int numEmptyLeafs = 0;
        // Things a user should know about the input or the result.
        std::vector<std::string> warnings;

        // The clip BSP, now the caller's (release it with release()); the result forgets it.
        mrClipBSP* take();
        void release();
    };

    // False with `error` set when there is nothing to build from (a null mesh) or the
    // thread count is negative.
    static bool run(srMeshModel* mesh, const Settings& settings, Result& result, std::string& error);
};
