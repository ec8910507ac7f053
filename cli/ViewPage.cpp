#include "ViewPage.h"

#include <cstdint>
#include <cstring>
#include <unordered_map>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/platform/geom/mrWinding.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/portals/mrLeakFinder.h>
#include <meridbsp/solid/mrBSPNode.h>

#include "OutputSet.h"
#include "ViewAssets.h"

namespace
{

// Numeric arrays travel as base64 of their little-endian bytes (the host's order, which
// the clip BSP already requires): exact floats, and about a third of the size of text.
class Bytes
{
public:
    void f32(float v) { put(&v, 4); }
    void i32(int32_t v) { put(&v, 4); }
    void u8(unsigned char v) { m_bytes.push_back(v); }
    void vec(const srVector3T<float>& v)
    {
        f32(v.x);
        f32(v.y);
        f32(v.z);
    }
    std::string base64() const
    {
        static const char* const digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string out;
        out.reserve((m_bytes.size() + 2) / 3 * 4);
        for (size_t i = 0; i < m_bytes.size(); i += 3)
        {
            const size_t n = m_bytes.size() - i;
            const uint32_t v = (uint32_t)m_bytes[i] << 16 | (n > 1 ? (uint32_t)m_bytes[i + 1] << 8 : 0) |
                               (n > 2 ? (uint32_t)m_bytes[i + 2] : 0);
            out += digits[v >> 18 & 63];
            out += digits[v >> 12 & 63];
            out += n > 1 ? digits[v >> 6 & 63] : '=';
            out += n > 2 ? digits[v & 63] : '=';
        }
        return out;
    }

private:
    void put(const void* p, size_t n)
    {
        const unsigned char* b = static_cast<const unsigned char*>(p);
        m_bytes.insert(m_bytes.end(), b, b + n);
    }
    std::vector<unsigned char> m_bytes;
};

nlohmann::ordered_json vec3(const srVector3T<float>& v) { return {v.x, v.y, v.z}; }

// The next portal of `node`'s list after p.
const mrBSPPortal* nextPortal(const mrBSPPortal* p, const mrBSPNode* node)
{
    return p->m_nodes[0] == node ? p->m_next[0] : p->m_next[1];
}

} // namespace

void ViewPage::observe(const mrBSPNode* head, const mrBSPPortalizer& portalizer, const Options& options)
{
    // Leaves in the portal file's order (front child first); open ones also get the
    // portal file's leaf number. Deep trees are walked with a stack.
    std::unordered_map<const mrBSPNode*, int> leafIndex;
    std::vector<const mrBSPNode*> leaves;
    nlohmann::ordered_json contents = nlohmann::ordered_json::array();
    std::vector<const mrBSPNode*> stack{head};
    while (!stack.empty())
    {
        const mrBSPNode* node = stack.back();
        stack.pop_back();
        if (node->m_plane)
        {
            stack.push_back(node->m_children[1]);
            stack.push_back(node->m_children[0]);
            continue;
        }
        leafIndex[node] = (int)leaves.size();
        leaves.push_back(node);
        contents.push_back(node->m_contents);
        if (node->m_contents != 1)
            ++m_summary.openLeaves;
    }
    m_summary.leaves = (int)leaves.size();

    // Every portal with open space on at least one side, once (from its front node;
    // the outside node, which is never in front, is leaf -1). Portals between two
    // solid cells are never seen.
    auto indexOf = [&](const mrBSPNode* n)
    {
        auto it = leafIndex.find(n);
        return it == leafIndex.end() ? -1 : it->second;
    };
    Bytes points, sizes, normals, sides;
    int count = 0;
    for (const mrBSPNode* leaf : leaves)
    {
        for (const mrBSPPortal* p = leaf->m_portals; p; p = nextPortal(p, leaf))
        {
            const mrBSPNode* front = p->m_nodes[0];
            const mrBSPNode* back = p->m_nodes[1];
            if (front != leaf || !p->m_winding || p->m_winding->m_numpoints < 3)
                continue;
            const bool backSolid = back == &portalizer.m_outsideNode || back->m_contents == 1;
            if (front->m_contents == 1 && backSolid)
                continue;
            if (front->m_contents != 1 && !backSolid)
                ++m_summary.portals;
            const mrWinding& w = *p->m_winding;
            for (int k = 0; k < w.m_numpoints; ++k)
                points.vec(w.m_points.at((uint32_t)k));
            sizes.i32(w.m_numpoints);
            normals.vec(p->m_plane->m_normal);
            sides.i32(indexOf(front));
            sides.i32(indexOf(back));
            ++count;
        }
    }
    m_data["leaves"] = {{"contents", contents}};
    m_data["portals"] = {{"count", count},
                         {"sizes", sizes.base64()},
                         {"points", points.base64()},
                         {"normals", normals.base64()},
                         {"leaves", sides.base64()}};

    // The path itself comes with the pipeline's result (build()).
    nlohmann::ordered_json leak = {{"inside", nullptr}, {"insideLeaf", nullptr}, {"path", nullptr}};
    if (options.hasInside)
    {
        leak["inside"] = vec3(options.inside);
        leak["insideLeaf"] = indexOf(mrLeakFinder::leafAt(head, options.inside));
    }
    m_data["leak"] = leak;
}

bool ViewPage::build(srMeshModel* mesh, const Options& options, std::string& error)
{
    m_data = nlohmann::ordered_json::object();
    m_summary = Summary();
    m_leakWarning.clear();
    if (!mesh)
    {
        error = "no mesh";
        return false;
    }
    m_data["title"] = options.title;

    Bytes positions, triangles;
    for (const srVector3T<float>& v : mesh->m_verts)
        positions.vec(v);
    for (const srVector3i& t : mesh->m_polyVerts)
    {
        triangles.i32(t.x);
        triangles.i32(t.y);
        triangles.i32(t.z);
    }
    m_data["mesh"] = {{"positions", positions.base64()}, {"triangles", triangles.base64()}};

    mrVisPipeline::Settings vis;
    vis.midSplit = options.midSplit;
    vis.threads = options.threads;
    vis.portalMesh = true;
    vis.progress = options.progress;
    vis.observer = [&](const mrBSPNode* head, const mrBSPPortalizer& portalizer)
    { observe(head, portalizer, options); };
    if (options.hasInside)
        vis.insidePoints.push_back(options.inside);
    mrVisPipeline::Result visResult;
    if (!mrVisPipeline::run(mesh, vis, visResult, error))
        return false;
    if (options.hasInside && visResult.leaks.points.size() == 1)
    {
        const mrLeakFinder::Leak& leak = visResult.leaks.points[0];
        if (leak.leaks)
        {
            nlohmann::ordered_json& path = m_data["leak"]["path"] = nlohmann::ordered_json::array();
            for (const srVector3T<float>& p : leak.path)
                path.push_back(vec3(p));
            m_summary.leak = true;
        }
        else
            m_leakWarning = leak.inOpenLeaf ? "no leak: the level is closed around the inside point"
                                            : "the inside point lies in solid space, so nothing is tested from it";
    }

    // The portal mesh as the pipeline made it, each triangle in its material's colour.
    Bytes meshPositions, meshTriangles, meshColours;
    const srMeshModel& portalMesh = *visResult.portalMesh;
    for (const srVector3T<float>& v : portalMesh.m_verts)
        meshPositions.vec(v);
    for (size_t i = 0; i < portalMesh.m_polyVerts.size(); ++i)
    {
        const srVector3i& t = portalMesh.m_polyVerts[i];
        meshTriangles.i32(t.x);
        meshTriangles.i32(t.y);
        meshTriangles.i32(t.z);
        const mrMaterial* m = i < portalMesh.m_polyMaterials.size()
                                  ? dynamic_cast<const mrMaterial*>(portalMesh.m_polyMaterials[i])
                                  : nullptr;
        for (int k = 0; k < 3; ++k)
            meshColours.u8(m ? (unsigned char)(m->m_color0[k] * 255.0f + 0.5f) : 128);
    }
    m_data["portalMesh"] = {{"positions", meshPositions.base64()},
                            {"triangles", meshTriangles.base64()},
                            {"colours", meshColours.base64()}};
    m_summary.meshPolys = visResult.portalMeshPolys;

    mrClipPipeline::Result clipResult;
    mrClipPipeline::Settings clipSettings;
    clipSettings.progress = options.progress;
    clipSettings.threads = options.threads;
    if (!mrClipPipeline::run(mesh, clipSettings, clipResult, error))
        return false;
    const mrClipBSP& clip = *clipResult.clipBSP;
    Bytes planes, nodes;
    for (uint32_t i = 0; i < clip.m_numplanes; ++i)
    {
        planes.vec(clip.m_planes[i].m_normal);
        planes.f32(clip.m_planes[i].m_dist);
    }
    for (uint32_t i = 0; i < clip.m_numnodes; ++i)
    {
        nodes.i32(clip.m_nodes[i].planeIndex);
        nodes.i32(clip.m_nodes[i].child[0]);
        nodes.i32(clip.m_nodes[i].child[1]);
    }
    m_data["clip"] = {{"mins", vec3(clip.m_mins)},
                      {"maxs", vec3(clip.m_maxs)},
                      {"planes", planes.base64()},
                      {"nodes", nodes.base64()}};
    m_summary.clipNodes = clip.m_numnodes;

    m_data["counts"] = nlohmann::ordered_json::array({
        {"triangles", mesh->m_numpolys},
        {"planes", visResult.planes},
        {"decision nodes", visResult.numSplitNodes},
        {"empty leaves", visResult.numEmptyLeafs},
        {"solid leaves", visResult.numSolidLeafs},
        {"portals between open leaves", m_summary.portals},
        {"degenerate portals", visResult.numDegeneratePortals},
        {"portal mesh polygons", visResult.portalMeshPolys},
        {"open leaves reaching the outside", visResult.leaks.reachable},
        {"open leaves enclosed", visResult.leaks.enclosed},
        {"clip BSP nodes", clip.m_numnodes},
        {"clip BSP planes", clip.m_numplanes},
        {"clip BSP empty leaves", clipResult.numEmptyLeafs},
        {"clip BSP solid leaves", clipResult.numSolidLeafs},
    });
    m_data["midSplit"] = options.midSplit;
    nlohmann::ordered_json warnings = nlohmann::ordered_json::array();
    for (const std::string& w : visResult.warnings)
        warnings.push_back("visibility: " + w);
    for (const std::string& w : clipResult.warnings)
        warnings.push_back("collision: " + w);
    if (!m_leakWarning.empty())
        warnings.push_back(m_leakWarning);
    m_data["warnings"] = warnings;
    return true;
}

std::string ViewPage::html() const
{
    // "</" may not appear inside the script element that carries the data; in JSON
    // strings "<\/" reads back as "</".
    std::string data = m_data.dump();
    for (std::string::size_type at = 0; (at = data.find("</", at)) != std::string::npos; at += 3)
        data.replace(at, 2, "<\\/");
    return std::string(ViewAssets::pageHead) + data + ViewAssets::pageTail;
}

bool ViewPage::write(OutputSet& outputs, const std::string& path, std::string& error) const
{
    const std::string text = html();
    return outputs.writeFile(path, text.data(), text.size(), error);
}
