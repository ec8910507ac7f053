#include <cmath>

#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

namespace
{
// Every portal starts as a square reaching 65536 units from the foot of its plane along
// both axes of the plane. It covers the widened head box on every plane only while each
// corner of that box lies within 65536 units of the origin; beyond, portals near the
// box's edge can come out cut short.
bool portalsCoverTheBox(const srVector3T<float>& mins, const srVector3T<float>& maxs)
{
    double far2 = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        const double a = std::fabs((double)mins[k] - 24.0), b = std::fabs((double)maxs[k] + 24.0);
        far2 += (a > b ? a : b) * (a > b ? a : b);
    }
    return far2 <= 65536.0 * 65536.0;
}
} // namespace

void mrVisPipeline::Result::release()
{
    if (portalMesh)
        portalMesh->release();
    portalMesh = nullptr;
    for (mrMaterial* m : m_materials)
        if (m)
            m->release();
    m_materials.clear();
}

bool mrVisPipeline::run(srMeshModel* mesh, const Settings& settings, Result& result, std::string& error)
{
    result.release();
    result.warnings.clear();
    result.leaks = mrLeakFinder::Report();
    if (!mesh)
    {
        error = "no mesh";
        return false;
    }
    if (settings.threads < 0)
    {
        error = "a negative thread count";
        return false;
    }

    mrBSPSurfaceBuilder builder;
    mrBSPSurface* surfaces = nullptr;
    {
        mrProgress::Stage stage(settings.progress, "surfaces", 1);
        surfaces = builder.buildSurfaces(mesh);
    }
    result.planes = builder.m_numplanes;
    result.surfaces = 0;
    result.faces = 0;
    // Partition selection reads every surface's bounds, which surface building leaves
    // unset: computed for each surface in list order.
    for (mrBSPSurface* s = surfaces; s; s = s->m_next)
    {
        s->calcBounds();
        ++result.surfaces;
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
            ++result.faces;
    }

    mrSolidBSP generator;
    mrBSPNode* head = nullptr;
    {
        mrProgress::Stage stage(settings.progress, "solid BSP", result.faces);
        head = settings.threads == 1
                   ? generator.generate(surfaces, settings.midSplit ? 1 : 0)
                   : generator.generateParallel(surfaces, settings.midSplit ? 1 : 0, settings.threads);
    }
    result.numSplitNodes = generator.m_numSplitNodes;
    result.numLeafFaces = generator.m_numLeafFaces;
    result.numNodeFaces = generator.m_numNodeFaces;
    result.numSolidLeafs = generator.m_numSolidLeafs;
    result.numEmptyLeafs = generator.m_numEmptyLeafs;
    result.numLinkedFaces = generator.m_numLinkedFaces;

    mesh->usedVertexBounds(head->m_mins, head->m_maxs);
    result.mins = head->m_mins;
    result.maxs = head->m_maxs;
    if (!portalsCoverTheBox(head->m_mins, head->m_maxs))
        result.warnings.push_back("the mesh reaches more than 65536 units from the origin: portals near the edge "
                                  "of its box may be cut short (move the mesh nearer the origin)");

    bool ok = true;
    {
        mrBSPPortalizer portalizer;
        {
            mrProgress::Stage stage(settings.progress, "portals", (uint64_t)result.numSplitNodes);
            portalizer.portalize(head);
        }
        result.numDegeneratePortals = portalizer.m_num_degenerate;
        if (settings.portalStream || !settings.portalFile.empty())
        {
            mrProgress::Stage stage(settings.progress, "portal file", 1);
            bool written = settings.portalStream ? mrBSPPortalizer::writePortalfile(head, settings.portalStream,
                                                                                    settings.portalFile.c_str())
                                                 : mrBSPPortalizer::writePortalfile(head, settings.portalFile.c_str());
            if (!written)
            {
                error = settings.portalFile + ": cannot write the portal file";
                ok = false;
            }
            result.numVisleafs = mrBSPPortalizer::m_num_visleafs;
            result.numVisportals = mrBSPPortalizer::m_num_visportals;
        }
        if (ok && settings.portalMesh)
        {
            mrProgress::Stage stage(settings.progress, "portal mesh", 1);
            result.portalMesh = mrBSPPortalizer::createMeshModel(head);
            result.portalMeshPolys = mrBSPPortalizer::m_polycount;
            // The mesh's polygons point at the table's materials: the result keeps them
            // (the table's references pass to it) until the mesh is released.
            for (uint32_t i = 0; i < mrBSPPortalizer::m_materials.size(); ++i)
            {
                result.m_materials.push_back(mrBSPPortalizer::m_materials.at(i));
                mrBSPPortalizer::m_materials[i] = nullptr;
            }
        }
        if (ok && settings.findLeaks)
        {
            mrProgress::Stage stage(settings.progress, "leaks", 1);
            mrLeakFinder::find(head, &portalizer.m_outsideNode, settings.insidePoints, result.leaks);
        }
        if (ok && settings.observer)
            settings.observer(head, portalizer);
        // Frees the portals and the outer portal planes, which freeAllPortals leaves.
        portalizer.releasePortals(head);
    }
    mrBSPTree::release(head);
    builder.releasePlanes();
    return ok;
}
