#pragma once

class mrPlane;
class mrWinding;
class mrBSPNode;

// A convex opening between two cells of the solid BSP tree. While linked it sits on two
// lists: its front node's (continued through m_next[0]) and its back node's (m_next[1]).
class mrBSPPortal
{
public:
    mrPlane* m_plane;       // not owned: a node's plane, or an outer plane of the portalizer
    mrBSPNode* m_nodes[2];  // [0] the node in front of m_plane, [1] the node behind it
    mrBSPPortal* m_next[2]; // next portal in the list of m_nodes[0] / m_nodes[1]
    mrWinding* m_winding;   // owned, but released by whoever deletes the portal

    mrBSPPortal();
    mrBSPPortal(const mrBSPPortal&) = default;
    mrBSPPortal& operator=(const mrBSPPortal&) = default;
    virtual ~mrBSPPortal();

    // Which of the two lists continues at `node`: 0, 1, or -1 when the portal does not
    // bound the node at all.
    int sideOf(const mrBSPNode* node) const { return m_nodes[0] == node ? 0 : m_nodes[1] == node ? 1 : -1; }
};
