#pragma once

#include <cstdint>

class mrBSPNode;

// Cuts the node portals of a subtree with the same result as the portalizer's walk
// (cutNodePortals_r): the same portals and windings, the same links, every list in the
// same order and the same count of portals clipped away.
//
// The walk hands every portal of a node's list down to a child and so moves it to the
// head of both its lists; a list's order is the order of those last moves. Here each
// portal carries the time of its last move instead, lists are put together from those
// times once at the end, and the long chains of nodes that closed curved meshes give
// (each node passing nearly all of its portals whole to the next) are cut without
// touching the portals that pass on whole: their times follow from their place in the
// chain, and a tree over their boxes and planes finds the few that the node's plane or
// its polygon reach.
class mrPortalCutter
{
public:
    struct Settings
    {
        // Trees less deep than this, or whose depth is less than this share of their
        // decision nodes, are left to the walk: their lists stay short, and the walk,
        // which keeps them linked as it goes, is faster on them.
        uint32_t minDepth = 1024;
        double minChainShare = 0.25;
        // A list at least this long that goes mostly to a child that is cut in turn is
        // kept as a chain from there on.
        uint32_t chainStart = 256;
    };

    // Cuts the subtree under node when its lists are as portalize leaves them: portals
    // only on node's own list, each joining node to a node outside the subtree whose list
    // holds the same portals in the same order, every plane and winding finite, and the
    // subtree a tree with a chain as settings asks. Returns false, having changed nothing,
    // otherwise. degenerate: node portals clipped away, added to.
    static bool cut(mrBSPNode* node, int32_t& degenerate, const Settings& settings);
    static bool cut(mrBSPNode* node, int32_t& degenerate);

    // Bounds on the distances of a box's points from a plane (normal and distance), as
    // clip and divide compute them, widened by far more than their rounding: false when
    // the box is too large or too far out for the margin to mean anything.
    static bool distanceRange(const float* mins, const float* maxs, const float* plane, double& lo, double& hi);
};
