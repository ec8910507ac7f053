#pragma once

#include <cstdint>

#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>

class mrBSPFace;
class mrBSPPortal;

// One record of the solid BSP tree: a decision node (m_plane set, two children) or a
// leaf (m_plane null, contents and the original faces that bound it). A node owns
// nothing it points to.
class mrBSPNode
{
public:
    srVector3T<float> m_mins;
    srVector3T<float> m_maxs;
    mrPlane* m_plane;
    mrBSPNode* m_children[2]; // [0] front (the side the normal points to), [1] back
    mrBSPFace* m_faces;
    int32_t m_contents;      // leaves: 0 empty, 1 solid
    mrBSPFace** m_markfaces; // leaves: null-terminated, from malloc
    mrBSPPortal* m_portals;
    int32_t m_leafnum; // -99 decision node, -1 solid leaf, 0.. numbered leaves
    int32_t m_reserved;

    // Box, faces, contents and numbers are cleared too, so a new node never holds garbage.
    mrBSPNode()
        : m_plane(nullptr), m_children{nullptr, nullptr}, m_faces(nullptr), m_contents(0), m_markfaces(nullptr),
          m_portals(nullptr), m_leafnum(0), m_reserved(0)
    {
    }
    mrBSPNode(const mrBSPNode&) = default;
    mrBSPNode& operator=(const mrBSPNode&) = default;
    virtual ~mrBSPNode() {}
};
