#pragma once

#include <vector>

#include <meridbsp/clipgen/mrBSPGenNode.h>
#include <meridbsp/clipgen/mrFace.h>
#include <meridbsp/platform/dx/srMatrix3T.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/dx/srVector4T.h>
#include <meridbsp/platform/geom/mrPlane.h>

class mrClipBSP;
class srMeshModel;
class srTexture;

// Turns a triangle mesh into a clip BSP. One generator serves one import: construct it,
// call importMeshModel once, keep the returned clip BSP and destroy the generator.
class mrClipBSPGen
{
public:
    mrClipBSPGen();
    virtual ~mrClipBSPGen();

    mrClipBSPGen(const mrClipBSPGen&) = delete;
    mrClipBSPGen& operator=(const mrClipBSPGen&) = delete;

    // Solid contents of a leaf bounded by a face with this texture: -3 for the two
    // marked texture names, -2 otherwise (and for no texture).
    int findContents(srTexture* texture);
    // Hook called on every face made; does nothing.
    void checkFace(mrFace* face);

    // Copies and moves the mesh (matrix first, then offset), builds the tree and returns
    // a new clip BSP owned by the caller; null for a null model.
    mrClipBSP* importMeshModel(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix);
    // The same import on up to `threads` threads (0: every core the process may use; 1
    // is importMeshModel itself): independent subtrees, the faces of a large node, the
    // flattening and the query index are worked on at once. The clip BSP, its saved
    // bytes and answers, the node and face lists, the counters and any assertion reports
    // (made on the calling thread, in the same order) are exactly importMeshModel's.
    mrClipBSP* importMeshModelParallel(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix,
                                       int threads);
    // What a thread count of 0 stands for: the cores the process may run on.
    static int availableThreads();

    // Fills `node` and its subtree from the faces of `faces`.
    void partitionFaces(std::vector<mrFace*>& faces, mrBSPGenNode* node);
    // The splitter of a list, or null when no face may still be one.
    mrFace* selectPartition(std::vector<mrFace*>& faces);
    // The candidate whose plane passes nearest the middle of the bounds.
    mrFace* chooseMidPlaneFromList(std::vector<mrFace*>& faces, srVector3T<float>& mins, srVector3T<float>& maxs);
    // Children get no bounds; does nothing.
    void divideNodeBounds(mrBSPGenNode* node, srVector4T<float>& plane);
    // Sends the face whole to one side, or cuts it into two new pieces (the face is then
    // released). A side that gets nothing is set to null.
    void splitFace(mrFace* face, srVector4T<float>& plane, mrFace** front, mrFace** back);

    // Flattens the tree into a new clip BSP (planes copied, nodes numbered as in m_nodes).
    mrClipBSP* convertToClipBSP();

    // Plane i is the plane of triangle i; owned.
    int m_numplanes;
    mrPlane* m_planes;
    // Faces of the import, in triangle order (not owned; may dangle after cuts).
    std::vector<mrFace*> m_faces;
    // Interior nodes in pre-order: the node numbering of the clip BSP.
    std::vector<mrBSPGenNode*> m_nodes;
    // Every live face; owns them.
    std::vector<mrFace*> m_allfaces;
    // Statistics of the last partitioning.
    int m_numnodes;
    int m_numleaffaces;
    int m_numsolidleafs;
    int m_numemptyleafs;

private:
    // The partitioning's working state: the faces of every pending list in compact
    // blocks, and the explicit stack that replaces the recursion (trees as deep as the
    // mesh has triangles must not need a call stack that deep).
    class Partitioner;

    mrBSPGenNode* newNode();
    // importMeshModel, with the partitioning, flattening and index on `threads` threads
    // (1: the single-threaded operations themselves).
    mrClipBSP* import(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix, int threads);
    // partitionFaces, or the same on the current task arena's threads with the same results.
    void partition(std::vector<mrFace*>& faces, mrBSPGenNode* node, bool parallel);
    // convertToClipBSP without the query index.
    mrClipBSP* flatten();
    // The same arrays, with the node records filled on several threads (the current
    // task arena's); reports are made afterwards on the calling thread, in node order.
    mrClipBSP* flattenParallel();
    // Point distances and sides of a face against a plane, as the cut reads them; fills
    // n + 1 entries (the first repeated at the end) and counts the sides.
    static int classifyPoints(const mrFace* face, const srVector4T<float>& plane, double* dists, int* sides,
                              int* counts);
    // Makes the two pieces of a face that has points on both sides; the caller files them
    // (back piece first) and disposes of the face. A piece that would exceed 64 points is
    // reported at once, or its report is appended to `deferred` when that is given.
    struct DeferredReport
    {
        const char* expression;
        const char* message;
        long line;
    };
    void cutFace(const mrFace* face, const srVector4T<float>& plane, const double* dists, const int* sides, int n,
                 mrFace** front, mrFace** back, std::vector<DeferredReport>* deferred);

    // Every node this generator made (interior, leaves and root), for release.
    std::vector<mrBSPGenNode*> m_madeNodes;
};
