#pragma once

#include <string>
#include <vector>

#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <nlohmann/json.hpp>

class OutputSet;

class mrBSPNode;
class mrBSPPortalizer;
class srMeshModel;

// One self-contained HTML page that shows what both pipelines made of a mesh: the mesh,
// the portals between open leaves, the portal mesh, the leak path, and the clip BSP
// (sliced and traced in the page with the queries' own float arithmetic). The page
// carries its scripts (three.js included) and its data, so it opens offline from disk.
class ViewPage
{
public:
    struct Options
    {
        std::string title;      // shown in the page; usually the mesh file's name
        bool midSplit = false;  // the visibility pipeline's partition mode
        bool hasInside = false; // a point that should lie inside the level
        srVector3T<float> inside{0, 0, 0};
        mrProgress::Callback progress; // told how far both pipelines have got
        int threads = 0;               // of both builds (the pipelines' Settings::threads)
    };

    // What the page holds, for the command's summary line.
    struct Summary
    {
        int leaves = 0;     // leaves of the solid BSP tree
        int openLeaves = 0; // of them empty (numbered in the portal file)
        int portals = 0;    // portals between two open leaves
        int meshPolys = 0;  // polygons of the portal mesh
        unsigned clipNodes = 0;
        bool leak = false; // a leak path is shown
    };

    // Runs both pipelines on the mesh and keeps what the page shows. False with `error`
    // set when a pipeline fails.
    bool build(srMeshModel* mesh, const Options& options, std::string& error);
    // Adds the page to the run's outputs (put in place with the others).
    bool write(OutputSet& outputs, const std::string& path, std::string& error) const;
    std::string html() const;
    const Summary& summary() const { return m_summary; }

private:
    void observe(const mrBSPNode* head, const mrBSPPortalizer& portalizer, const Options& options);

    nlohmann::ordered_json m_data;
    Summary m_summary;
    std::string m_leakWarning;
};
