#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

// Lays a binary tree over `leaves` (node numbers, reordered in place) from the top down,
// splitting each range at the median of the leaves' centres along the axis on which the
// centres spread widest; iterative, so any number of leaves is safe.
//   centre(node, axis) -> float: a leaf's centre on an axis;
//   makeNode() -> int32_t: a new inner node;
//   link(node, parent, slot): hangs a node under its parent as child `slot` (parent -1: the
//   node is the root).
// Returns the inner nodes in the order they were made, every parent before its children,
// so that walking the list backwards bounds children before their parents.
template <class Centre, class MakeNode, class Link>
std::vector<int32_t> mrBuildMedianTree(std::vector<int32_t>& leaves, Centre centre, MakeNode makeNode, Link link)
{
    struct Range
    {
        size_t begin, end;
        int32_t parent;
        int slot;
    };
    std::vector<int32_t> made;
    if (leaves.empty())
        return made;
    std::vector<Range> stack(1, Range{0, leaves.size(), -1, 0});
    while (!stack.empty())
    {
        const Range r = stack.back();
        stack.pop_back();
        int32_t n;
        if (r.end - r.begin == 1)
            n = leaves[r.begin];
        else
        {
            n = makeNode();
            made.push_back(n);
            float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
            for (size_t i = r.begin; i < r.end; ++i)
                for (int k = 0; k < 3; ++k)
                {
                    const float c = centre(leaves[i], k);
                    lo[k] = std::min(lo[k], c);
                    hi[k] = std::max(hi[k], c);
                }
            int axis = 0;
            for (int k = 1; k < 3; ++k)
                if (hi[k] - lo[k] > hi[axis] - lo[axis])
                    axis = k;
            const size_t mid = r.begin + (r.end - r.begin) / 2;
            std::nth_element(leaves.begin() + (long)r.begin, leaves.begin() + (long)mid, leaves.begin() + (long)r.end,
                             [&](int32_t a, int32_t b) { return centre(a, axis) < centre(b, axis); });
            stack.push_back({r.begin, mid, n, 0});
            stack.push_back({mid, r.end, n, 1});
        }
        link(n, r.parent, r.slot);
    }
    return made;
}
