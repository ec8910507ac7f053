#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <meridbsp/clip/mrClipNode.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>

// A read-only companion of a clip BSP's arrays that answers the same queries faster.
//
// Nodes are copied into one contiguous array with their planes inlined. Long chains of
// nodes, each leading on to the next on one side (the side with the larger subtree) and
// off the chain on the other (a closed mesh makes one as long as it has faces; a curved,
// non-convex one a chain with small subtrees hanging off it), get a search structure: a
// hierarchy of normal cones over the chain's planes, each with a bound on how far
// towards its off-chain side a point can be. The bounds allow for every rounding of the float signed
// distance, so the structure only ever skips nodes whose test provably comes out the
// way the plain walk would take it; every test it does make is the plain test on the
// same floats. The answers are therefore bit-identical to the plain walk.
//
// The index describes the arrays it was built from. It is immutable and may be read by
// any number of threads at once.
class mrClipQueryIndex
{
public:
    // A node with its plane: signed distance n.z*p.z + n.y*p.y + n.x*p.x - d.
    struct Node
    {
        float n[3];
        float d;
        int32_t child[2];
        int32_t run;   // the indexed chain this node belongs to, or -1
        int32_t leave; // in a chain: the child slot that leaves it (the other leads on)
    };

    // Builds the index of a valid tree (see mrClipBSP::validate); the arrays are only
    // read during the call. The grid of cells is laid over the box `mins`..`maxs` grown
    // by a tenth on each side (the clip BSP's bounds): it only decides how fast queries
    // there are, never their answers. With `parallel`, the grid is built on the threads
    // of the current task arena; the index is the same.
    mrClipQueryIndex(const mrClipNode* nodes, uint32_t numnodes, const mrPlane* planes, uint32_t numplanes,
                     const srVector3T<float>& mins, const srVector3T<float>& maxs, bool parallel = false);

    const Node* nodes() const { return m_nodes.data(); }
    size_t numRuns() const { return m_runs.size(); }
    size_t numCells() const { return m_cells.size(); }

    // The grid cell holding p, or -1 outside the grid (and for NaN coordinates).
    int64_t cellOf(const srVector3T<float>& p) const
    {
        if (m_cells.empty())
            return -1;
        const float f[3] = {(p.x - m_gridLo[0]) * m_gridInv[0], (p.y - m_gridLo[1]) * m_gridInv[1],
                            (p.z - m_gridLo[2]) * m_gridInv[2]};
        int64_t cell = 0;
        for (int k = 2; k >= 0; --k)
        {
            if (!(f[k] >= 0.0f && f[k] < m_gridEnd[k]))
                return -1;
            cell = cell * m_dims[k] + std::min((int32_t)f[k], m_dims[k] - 1);
        }
        return cell;
    }
    // What every walk from the root does for the points of a cell: the kind of leaf they
    // all end in (negative), or the first node on which they may disagree. All of them
    // pass through that node, so a walk may start there and make the same tests from then
    // on.
    int32_t cellStart(int64_t cell) const { return m_cells[(size_t)cell]; }
    // Where a trace from the root may start for the segment p1-p2: the node both ends'
    // walks pass through (each plane above it has both ends on one side, so the trace
    // crosses none of them); the root otherwise. A trace follows p1's side at every plane
    // until its first leaf, which is therefore of p1's kind: a solid cell ends it there.
    // A segment within one empty cell meets only empty leaves, whatever planes it
    // crosses, and comes out clear as from a single empty leaf.
    int32_t traceStart(const srVector3T<float>& p1, const srVector3T<float>& p2) const
    {
        const int64_t c1 = cellOf(p1);
        if (c1 < 0)
            return 0;
        const int32_t s1 = m_cells[(size_t)c1];
        if (s1 < -1)
            return s1;
        const int64_t c2 = cellOf(p2);
        if (c2 < 0)
            return 0;
        return c1 == c2 || (s1 >= 0 && s1 == m_cells[(size_t)c2]) ? s1 : 0;
    }
    // Where a walk from the root may start for p: its cell's start, or the root.
    int32_t startFor(const srVector3T<float>& p) const
    {
        const int64_t cell = cellOf(p);
        return cell < 0 ? 0 : m_cells[(size_t)cell];
    }

    // The leaf or node a walk from `node` reaches, where the walk leaves node's chain:
    // for a plain node, the child the plane test picks; within a chain, the off-chain
    // child of the first node of the rest of the chain whose test picks it, or else where
    // the chain ends. Equal to walking the nodes one by one.
    int pointStep(int node, const srVector3T<float>& p) const
    {
        const Node& n = m_nodes[node];
        if (n.run < 0)
            return distance(n, p) >= 0.0f ? n.child[0] : n.child[1];
        return chainStep(node, p);
    }

    // For a node of an indexed chain: the first node at or after it whose test for p1 or
    // p2 leaves the chain, or where the chain ends when none does (node itself when the
    // points are out of the index's range). Every node skipped sends both points to the
    // next node of the chain, so a trace may jump there directly.
    int traceSkip(int node, const srVector3T<float>& p1, const srVector3T<float>& p2) const;

    // The queries' signed distance: float, summed z, y, x (part of the reproducibility
    // promise).
    static float distance(const Node& n, const srVector3T<float>& p)
    {
        return n.n[2] * p.z + n.n[1] * p.y + n.n[0] * p.x - n.d;
    }

private:
    struct Cone
    {
        double axis[3];
        double cosAngle, sinAngle; // the cone's half-angle, rounded outward
        double minHeight;          // least height of the centre behind a plane (rounded down)
        double maxNormal;          // greatest normal length (rounded up)
        double maxNormal1;         // greatest sum of |normal components|
        double maxDist;            // greatest |distance|
        int32_t first, last;       // node index range of its planes
        int32_t child[2];          // cone indices, or -1 for a leaf
        int32_t begin, end;        // a leaf's entries in m_entries
    };

    // A chain: node `first`, its on-chain child, and so on to node `last` (node indices
    // grow along it, since every child comes after its parent).
    struct Run
    {
        int32_t first, last; // node indices
        int32_t length;      // nodes
        bool contiguous;     // node indices first, first + 1, ..., last
        int32_t side;        // the slot every node leaves by, or -1 when they differ
        bool uniform;        // every node's off-chain child is the same leaf,
        int32_t leaf;        // this one
        int32_t exit;        // the last node's on-chain child
        int32_t root;        // its cone hierarchy, or -1
        double centre[3];
        int32_t specialBegin, specialEnd; // planes no cone bounds (in m_entries)
    };

    // How far outside the chain's inscribed sphere a point lies: 0 inside, towards 1 far
    // away; and how many nodes to test one by one for that.
    double outside(const Run& run, const srVector3T<float>& p) const;
    static int linearSteps(const Run& run, double outside);
    int chainStep(int node, const srVector3T<float>& p) const;
    // True when the plane test of `node` leaves the chain.
    bool leaves(int node, const srVector3T<float>& p) const
    {
        const Node& n = m_nodes[node];
        const bool front = distance(n, p) >= 0.0f;
        return n.leave == 0 ? front : !front;
    }
    // The next node of a chain (or, after its last node, where it ends).
    int32_t onChain(int node) const { return m_nodes[node].child[1 - m_nodes[node].leave]; }
    // Whether a cone's planes could send p to the leaf.
    static bool mayLeave(const Cone& cone, const double* v, double r, double pmax);
    bool anyLeaves(const Run& run, int start, const srVector3T<float>& p) const;
    int firstLeaving(const Run& run, int start, const srVector3T<float>& p1, const srVector3T<float>& p2) const;
    void findRuns();
    // A chain of `length` nodes from `first` to `last`, their run and leave already set.
    void addRun(int32_t first, int32_t last, int32_t length);
    void buildRun(Run& run);
    // A plane of a chain while its cones are built: node and unit normal (oriented).
    struct Member
    {
        int32_t node;
        double unit[3];
        double height;  // of the centre behind the plane, rounded down
        double length;  // of the normal, rounded up
        double length1; // sum of |normal components|
        double dist;    // |distance|
    };
    int buildCones(std::vector<Member>& members, size_t begin, size_t end);
    // Which side of node's plane every point of the box lies on for the float test (0
    // front, 1 back), or -1 when rounding included they may differ.
    int boxSide(const Node& n, const double* lo, const double* hi) const;
    int32_t commonLeaf(int32_t node, const double* lo, const double* hi, int64_t& budget,
                       std::vector<int32_t>& stack) const;
    void buildGrid(const srVector3T<float>& mins, const srVector3T<float>& maxs, bool parallel);
    // A box of cells (x, y, z from `from` up to `to`) and the node its walk starts at.
    struct GridBox
    {
        int32_t from[3], to[3];
        int32_t node;
    };
    // Pushes a box down from its node, spending node tests from `budget`: fills its cells
    // or appends its parts to `parts`.
    void gridStep(const GridBox& box, const double* width, const double* ext, int64_t& budget,
                  std::vector<int32_t>& work, std::vector<GridBox>& parts);
    // The grid filled on several threads; false (cells cleared) when the budget would
    // have run out, which the single-threaded walk must then meet as it does.
    bool gridInParallel(const GridBox& whole, const double* width, const double* ext, int64_t budget);

    std::vector<Node> m_nodes;
    std::vector<Run> m_runs;
    std::vector<Cone> m_cones;
    std::vector<int32_t> m_entries;

    // The grid: cell (x, y, z) of m_dims holds the points whose (p - m_gridLo) * m_gridInv
    // rounds into [x, x + 1) and so on; m_cells in x-fastest order.
    float m_gridLo[3] = {0, 0, 0};
    float m_gridInv[3] = {0, 0, 0};
    float m_gridEnd[3] = {0, 0, 0};
    int32_t m_dims[3] = {0, 0, 0};
    std::vector<int32_t> m_cells;
};
