#include <deque>
#include <unordered_map>

#include <meridbsp/platform/geom/mrPlane.h>
#include <meridbsp/platform/geom/mrWinding.h>
#include <meridbsp/portals/mrBSPPortal.h>
#include <meridbsp/portals/mrLeakFinder.h>
#include <meridbsp/solid/mrBSPNode.h>

namespace
{
bool isOpenLeaf(const mrBSPNode* node) { return node && !node->m_plane && node->m_contents != 1; }

// The cell on the portal's other side from `node`, or null when the portal does not
// bound it.
const mrBSPNode* across(const mrBSPPortal* p, const mrBSPNode* node, int& side)
{
    side = p->sideOf(node);
    return side < 0 ? nullptr : p->m_nodes[1 - side];
}
} // namespace

const mrBSPNode* mrLeakFinder::leafAt(const mrBSPNode* head, const srVector3T<float>& point)
{
    const mrBSPNode* node = head;
    while (node && node->m_plane)
    {
        const mrPlane& plane = *node->m_plane;
        double d = (double)plane.m_normal.x * point.x + (double)plane.m_normal.y * point.y +
                   (double)plane.m_normal.z * point.z - (double)plane.m_dist;
        node = node->m_children[d >= 0.0 ? 0 : 1];
    }
    return node;
}

srVector3T<float> mrLeakFinder::centreOf(const mrBSPPortal* portal)
{
    const mrWinding* w = portal->m_winding;
    double sum[3] = {0, 0, 0};
    int n = w ? w->m_numpoints : 0;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = w->m_points.at((uint32_t)i);
        sum[0] += p.x;
        sum[1] += p.y;
        sum[2] += p.z;
    }
    if (n == 0)
        return srVector3T<float>(0, 0, 0);
    return srVector3T<float>((float)(sum[0] / n), (float)(sum[1] / n), (float)(sum[2] / n));
}

void mrLeakFinder::find(const mrBSPNode* head, const mrBSPNode* outside, const std::vector<srVector3T<float>>& points,
                        Report& report)
{
    report = Report();

    // Open leaves, counted with an explicit stack (any depth is safe).
    std::vector<const mrBSPNode*> stack(1, head);
    while (!stack.empty())
    {
        const mrBSPNode* n = stack.back();
        stack.pop_back();
        if (!n)
            continue;
        if (n->m_plane)
        {
            stack.push_back(n->m_children[1]);
            stack.push_back(n->m_children[0]);
        }
        else if (n->m_contents != 1)
            ++report.openLeaves;
    }

    // Breadth-first from the outside: each open leaf reached remembers the portal it was
    // reached through, which leads one step nearer the outside.
    std::unordered_map<const mrBSPNode*, const mrBSPPortal*> toOutside;
    std::deque<const mrBSPNode*> queue;
    auto visit = [&](const mrBSPNode* from)
    {
        int side = 0;
        for (const mrBSPPortal* p = from->m_portals; p; p = p->m_next[side])
        {
            const mrBSPNode* next = across(p, from, side);
            if (!next)
                break; // a list that does not hold together; portalize never makes one
            if (isOpenLeaf(next) && toOutside.emplace(next, p).second)
                queue.push_back(next);
        }
    };
    if (outside)
        visit(outside);
    while (!queue.empty())
    {
        const mrBSPNode* leaf = queue.front();
        queue.pop_front();
        visit(leaf);
    }
    report.reachable = (long)toOutside.size();
    report.enclosed = report.openLeaves - report.reachable;

    for (const srVector3T<float>& point : points)
    {
        Leak leak;
        leak.point = point;
        leak.insideBox = head && point.x >= head->m_mins.x && point.y >= head->m_mins.y && point.z >= head->m_mins.z &&
                         point.x <= head->m_maxs.x && point.y <= head->m_maxs.y && point.z <= head->m_maxs.z;
        const mrBSPNode* leaf = leafAt(head, point);
        leak.inOpenLeaf = isOpenLeaf(leaf);
        auto step = toOutside.find(leaf);
        leak.leaks = leak.inOpenLeaf && step != toOutside.end();
        if (leak.leaks)
        {
            leak.path.push_back(point);
            while (leaf != outside && step != toOutside.end())
            {
                leak.path.push_back(centreOf(step->second));
                int side = 0;
                leaf = across(step->second, leaf, side);
                step = toOutside.find(leaf);
            }
        }
        report.points.push_back(leak);
    }
}
