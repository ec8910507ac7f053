#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include <meridbsp/geometry/mrDynamicArray.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srModeler.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/portals/mrBSPPortal.h>
#include <meridbsp/solid/mrBSPNode.h>

// Cuts portals between the leaves of a solid BSP tree, writes them to a portal file and
// turns the leaf boundaries that face solid space into a mesh model.
//
// The static counters, the material table and the open portal file are process-wide, so
// writing the portal file and building the leaf mesh are one call at a time.
class mrBSPPortalizer
{
public:
    // All space outside the head node's box; a solid leaf once the outer portals exist.
    mrBSPNode m_outsideNode;
    // Node portals clipped away to nothing during the last portalize.
    int32_t m_num_degenerate;

    static int32_t m_num_visleafs;
    static int32_t m_num_visportals;
    static int32_t m_polycount;
    static uint32_t m_materialCounter;
    // Filled by createMeshModel, which overwrites the table each time without releasing
    // what it held; releaseMaterials drops the table's references.
    static mrDynamicArray<mrMaterial*> m_materials;

    mrBSPPortalizer();
    mrBSPPortalizer(const mrBSPPortalizer&) = default;
    mrBSPPortalizer& operator=(const mrBSPPortalizer&) = default;
    virtual ~mrBSPPortalizer();

    // Portals for a generated tree whose head node box is set. The tree must carry no
    // portals; this portalizer must outlive them (the outer portals link to its outside node).
    void portalize(mrBSPNode* head);
    void makeHeadnodePortals(mrBSPNode* node);
    // Cuts the node portals of the whole subtree under node.
    void cutNodePortals_r(mrBSPNode* node);
    void addPortalToNodes(mrBSPPortal* portal, mrBSPNode* front, mrBSPNode* back);
    static void removePortalFromNode(mrBSPPortal* portal, mrBSPNode* node);
    // Unlinks and deletes every portal of the subtree (and their windings).
    static void freeAllPortals(mrBSPNode* node);
    // freeAllPortals on the head node, and also the planes of the six outer portals, which
    // freeAllPortals leaves allocated. For callers that must not leak.
    void releasePortals(mrBSPNode* head);
    // Releases the materials of the table and empties its slots. Once the portal mesh is
    // gone, the table holds their last references. For callers that must not leak.
    static void releaseMaterials();

    // Numbers the leaves and writes "test.prt" in the current directory.
    static void writePortalfile(mrBSPNode* head);
    // The same to the given path, through mrOutputFile: a failure leaves any earlier file
    // untouched, and a device or named pipe is written through; returns false on failure.
    static bool writePortalfile(mrBSPNode* head, const char* path);
    // The same into a stream the caller opened (and closes); `name` is the file name the
    // log line gives. False when the stream reports an error.
    static bool writePortalfile(mrBSPNode* head, FILE* file, const char* name);
    static void numberLeafs_r(mrBSPNode* node);
    static void writePortalFile_r(mrBSPNode* node);
    static void writeFloat(FILE* file, float value);

    // A new mesh model (owned by the caller) of the portals between open leaves and solid space.
    static srMeshModel* createMeshModel(mrBSPNode* head);
    static void createLeafPolys_r(mrBSPNode* node, srModeler& modeler);

private:
    // The per-node steps of the walks above. The walks use explicit stacks, so trees of
    // any depth are safe; these do the work at one node.
    struct PortalEntry;
    // known: entries already hold the node's list in order. Fills children[0] and [1]
    // with the lists the node's front and back child end up with.
    void cutNodePortals(mrBSPNode* node, bool known, std::vector<PortalEntry>& entries,
                        std::vector<PortalEntry> (&children)[2]);
    static void freeNodePortals(mrBSPNode* node);
    // freeAllPortals in one pass per list; false (nothing changed) when a list is unsound.
    static bool freeAllPortalsAtOnce(mrBSPNode* head);
    // The log line, the header and every portal line into an open stream.
    static void writePortalContents(mrBSPNode* head, FILE* file);
    static void writeLeafPortals(mrBSPNode* leaf);
    static void addLeafPolys(mrBSPNode* leaf, srModeler& modeler, srModeler::Polygon& poly);
};
