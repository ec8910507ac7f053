#pragma once

#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/dx/srVector4T.h>

// A node of the generator's intermediate tree. Interior nodes have contents 0;
// leaves -1 (empty), -2 (solid) or -3 (solid of the marked kind).
class mrBSPGenNode
{
public:
    // Bounds are kept for the root only.
    srVector3T<float> m_mins;
    srVector3T<float> m_maxs;
    // Splitting plane of an interior node (copied from the splitter face).
    srVector4T<float> m_plane;
    // [0] front, [1] back; interior nodes only.
    mrBSPGenNode* m_children[2] = {nullptr, nullptr};
    int m_contents = 0;
};
