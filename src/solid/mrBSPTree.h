#pragma once

#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/solid/mrBSPNode.h>

// Releases what the solid BSP leaves to its caller. Portals are not touched: free them
// with the portalizer first.
class mrBSPTree
{
public:
    // Frees every node of the tree, every mark-face array and every distinct face the
    // leaves and node face lists refer to (each once, however often it is listed).
    // Works with an explicit stack, so very deep trees are fine.
    static void release(mrBSPNode* head);
    // Deletes a surface list that never went into generation, with its faces.
    static void releaseSurfaces(mrBSPSurface* list);
};
