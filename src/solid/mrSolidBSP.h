#pragma once

#include <cstddef>
#include <cstdint>

#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>
#include <meridbsp/solid/mrBSPNode.h>

// Builds a solid BSP tree from a surface list. The generator owns nothing once
// generate returns: the tree belongs to the caller (release it with mrBSPTree).
class mrSolidBSP
{
public:
    int32_t m_midSplit;       // nonzero: choose planes by box division alone
    int32_t m_numSplitNodes;  // decision nodes made
    int32_t m_numLeafFaces;   // face fragments linked into leaves
    int32_t m_numNodeFaces;   // faces copied by linkNodeFaces
    int32_t m_numSolidLeafs;  // leaves without faces
    int32_t m_numEmptyLeafs;  // leaves with faces
    int32_t m_numLinkedFaces; // distinct originals referenced by leaves
    int32_t m_reserved0;      // not used by the generator
    int32_t m_reserved1;      // set to 1 by generate

    // Every field starts at zero so that a fresh generator never holds garbage.
    mrSolidBSP()
        : m_midSplit(0), m_numSplitNodes(0), m_numLeafFaces(0), m_numNodeFaces(0), m_numSolidLeafs(0),
          m_numEmptyLeafs(0), m_numLinkedFaces(0), m_reserved0(0), m_reserved1(0)
    {
    }
    mrSolidBSP(const mrSolidBSP&) = default;
    mrSolidBSP& operator=(const mrSolidBSP&) = default;
    virtual ~mrSolidBSP() {}

    // Partition selection.
    mrBSPSurface* selectPartition(mrBSPSurface* list);
    mrBSPSurface* choosePlaneFromList(mrBSPSurface* list, srVector3T<float> mins, srVector3T<float> maxs, int allowZUp);
    mrBSPSurface* chooseMidPlaneFromList(mrBSPSurface* list, srVector3T<float> mins, srVector3T<float> maxs);
    mrPlane::e_side faceSide(mrBSPFace* face, mrPlane* plane);

    // Generation. Run calcBounds on every surface of the list, in list order, first:
    // the choice of planes reads the bounds and generation computes none of its own
    // (part of the reproducibility promise). The list is consumed. The head node's box
    // is left for the caller to set.
    mrBSPNode* generate(mrBSPSurface* surfaces, int midSplit);
    // How long a node's list must be for generateParallel to share out the node's work,
    // the least work (surfaces or candidates) that goes to one share, and when a subtree
    // goes to another thread. Tests lower them so that small meshes take every parallel
    // step; no result depends on them.
    struct ParallelShare
    {
        ParallelShare() : minList(2048), grain(512), minTask(64) {}
        size_t minList;
        size_t grain;
        // A node whose children both hold at least this many surfaces builds its back
        // child's subtree on another thread.
        size_t minTask;
    };
    // generate on up to `threads` threads (0: every core the process may use; 1: generate
    // itself): the work of each node of a long list is shared out, and subtrees are built
    // on other threads. The tree, the counters and any reports (kept while the subtrees
    // are built, then made on the calling thread in generate's order) are the same for
    // every count.
    mrBSPNode* generateParallel(mrBSPSurface* surfaces, int midSplit, int threads,
                                const ParallelShare& share = ParallelShare());
    // Builds the whole subtree under node from list (iteratively: any depth is safe).
    void partitionSurfaces(mrBSPSurface* list, mrBSPNode* node);
    void dividePlane(mrBSPSurface* in, mrPlane* split, mrBSPSurface** front, mrBSPSurface** back);
    void divideNodeBounds(mrBSPNode* node, mrPlane* split);
    void linkConvexFaces(mrBSPSurface* list, mrBSPNode* leafnode);
    mrBSPFace* linkNodeFaces(mrBSPSurface* surface);

    // The choice of choosePlaneFromList made the plain way: one walk over the list,
    // counting every candidate's cuts in list order. choosePlaneFromList gives the same
    // answer with less counting and falls back on this for lists out of the ordinary.
    mrBSPSurface* choosePlaneInListOrder(mrBSPSurface* list, const srVector3T<float>& mins,
                                         const srVector3T<float>& maxs, int allowZUp);

private:
    // selectPartition and choosePlaneFromList; with trustBounds (every surface's bounds
    // hold its faces' points) the cut counting boxes surfaces by their own bounds.
    mrBSPSurface* selectPartitionWith(mrBSPSurface* list, bool trustBounds);
    mrBSPSurface* choosePlaneWith(mrBSPSurface* list, const srVector3T<float>& mins, const srVector3T<float>& maxs,
                                  int allowZUp, bool trustBounds);
    // One step of partitionSurfaces: makes node a leaf (false) or a decision node whose
    // children are still to be built from the two lists returned (true).
    // trustBounds: every surface's bounds hold its faces' points (checked once per
    // partitionSurfaces), so whole surfaces may be placed by their bounds.
    bool partitionNode(mrBSPSurface* list, mrBSPNode* node, bool trustBounds, mrBSPSurface** frontList,
                       mrBSPSurface** backList);
    // partitionSurfaces for a list whose bounds hold its faces and whose planes are
    // finite: the same tree, with each node's list kept as an array of what the choice
    // and the division read, and bounds on every plane's cuts handed down to the children.
    // share set: the work of a node of a long list is shared out over the current task
    // arena.
    void partitionByFacts(mrBSPSurface* list, mrBSPNode* head, const ParallelShare* share);
    void partitionSurfacesWith(mrBSPSurface* list, mrBSPNode* node, const ParallelShare* share);
    void startGeneration(int midSplit);
};
