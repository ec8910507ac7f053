#include "VisPipeline.h"

#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/solid/mrBSPTree.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <meridbsp/surfaces/mrBSPSurfaceBuilder.h>

#include "MeshWriter.h"
#include "StdoutRedirect.h"

bool VisPipeline::run(srMeshModel* mesh, const Options& options, Result& result, std::string& error)
{
    StdoutRedirect quietStdout;

    mrBSPSurfaceBuilder builder;
    mrBSPSurface* surfaces = builder.buildSurfaces(mesh);
    result.planes = (long)builder.m_numplanes;
    result.surfaces = 0;
    result.faces = 0;
    // Partition selection reads every surface's bounds, which surface building leaves
    // unset: computed for each surface in list order (part of the reproducibility promise).
    for (mrBSPSurface* s = surfaces; s; s = s->m_next)
    {
        s->calcBounds();
        ++result.surfaces;
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
            ++result.faces;
    }

    mrSolidBSP generator;
    mrBSPNode* head = generator.generate(surfaces, options.midSplit ? 1 : 0);
    result.numSplitNodes = generator.m_numSplitNodes;
    result.numLeafFaces = generator.m_numLeafFaces;
    result.numNodeFaces = generator.m_numNodeFaces;
    result.numSolidLeafs = generator.m_numSolidLeafs;
    result.numEmptyLeafs = generator.m_numEmptyLeafs;
    result.numLinkedFaces = generator.m_numLinkedFaces;

    mesh->usedVertexBounds(head->m_mins, head->m_maxs);

    bool ok = true;
    {
        mrBSPPortalizer portalizer;
        portalizer.portalize(head);
        if (!mrBSPPortalizer::writePortalfile(head, options.portalFile.c_str()))
        {
            error = options.portalFile + ": cannot write the portal file";
            ok = false;
        }
        result.visleafs = mrBSPPortalizer::m_num_visleafs;
        result.visportals = mrBSPPortalizer::m_num_visportals;
        if (ok)
        {
            srMeshModel* portalMesh = mrBSPPortalizer::createMeshModel(head);
            result.meshPolys = mrBSPPortalizer::m_polycount;
            ok = MeshWriter::write(*portalMesh, options.meshFile, error);
            portalMesh->release();
            mrBSPPortalizer::releaseMaterials();
        }
        // Frees the portals and the outer portal planes, which freeAllPortals leaves.
        portalizer.releasePortals(head);
    }
    mrBSPTree::release(head);
    builder.releasePlanes();
    return ok;
}
