#pragma once

#include <vector>

#include <meridbsp/platform/dx/srVector3T.h>

class mrBSPNode;
class mrBSPPortal;

// Finds where the open space of a portalized tree reaches the outside. A hollow level
// must close its rooms off from the space around it; one missing triangle lets them leak,
// and every portal-based use of the tree is then wrong. A closed prop, by contrast, is
// open outside by design.
//
// Works on a tree after mrBSPPortalizer::portalize and before its portals are freed, and
// changes nothing in it. Open leaves are the leaves of contents 0; two cells are joined
// when a portal lies between them. The walk is breadth-first from the portalizer's
// outside node, through its portal list and then each leaf's, in list order, so the
// answer is the same on every run: each open leaf's path to the outside crosses as few
// portals as any can, and of equally short paths the one met first wins.
class mrLeakFinder
{
public:
    // What one point inside the level tells.
    struct Leak
    {
        srVector3T<float> point; // the point asked about
        bool inOpenLeaf = false; // false: the point is in solid space, nothing to test
        bool insideBox = false;  // the point lies within the head node's box
        bool leaks = false;      // its open leaf is joined to the outside
        // When it leaks: the point, then the centre of each portal crossed on the way out;
        // the last is on the box the outer portals enclose.
        std::vector<srVector3T<float>> path;
    };

    struct Report
    {
        long openLeaves = 0;      // open leaves in the tree
        long reachable = 0;       // of them, joined to the outside through portals
        long enclosed = 0;        // of them, closed off from it
        std::vector<Leak> points; // one per point asked about, in order
    };

    // `outside` is the portalizer's outside node (the back of every outer portal).
    static void find(const mrBSPNode* head, const mrBSPNode* outside, const std::vector<srVector3T<float>>& points,
                     Report& report);

    // The leaf holding a point: in front of a node's plane when the signed distance is 0 or
    // more.
    static const mrBSPNode* leafAt(const mrBSPNode* head, const srVector3T<float>& point);
    // The average of the portal winding's points (in double, rounded once).
    static srVector3T<float> centreOf(const mrBSPPortal* portal);
};
