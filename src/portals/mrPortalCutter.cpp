#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include <meridbsp/geometry/mrMedianTree.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/geom/mrPlane.h>
#include <meridbsp/platform/geom/mrWinding.h>
#include <meridbsp/portals/mrBSPPortal.h>
#include <meridbsp/portals/mrPortalCutter.h>
#include <meridbsp/solid/mrBSPNode.h>

namespace
{
// The tolerance within which clip and divide count a point as on the plane.
const double ON_EPSILON = 0.01;
const uint32_t NONE = 0xFFFFFFFFu;
// Coordinates and plane distances beyond this are left to the walk: the rounding margins
// below are sized for less.
const double LARGEST = 1e7;
// A chain ends where fewer portals than this are left in it.
const size_t CHAIN_KEEP = 64;
// Clipping in a chain looks the planes near the polygon up once this many portals have
// been walked, if they number at most 1 / LOOK_SHARE of those, and again each time the
// walk has doubled.
const size_t LOOK_FIRST = 1024;
const size_t LOOK_SHARE = 2;

// When a portal was last linked: the number of the cut that linked it (cuts are numbered
// in the walk's order, 0 for links made before the walk) and its rank within the cut.
// Every list holds its portals latest first.
//
// Within a cut the walk links the node's own portal first, then each portal of the list
// in turn, a cut portal's front piece before its back piece. The portal at place K of
// the walk gets rank 4K; when it is cut, the piece that stays in a chain (or starts one)
// keeps 4K and the other piece gets 4K - 1 or 4K + 1; the node's portal gets the rank of
// a place before the first. So the portals of a chain are ordered by their places alone.
struct Stamp
{
    uint32_t cut;
    int64_t rank;
};

bool later(const Stamp& a, const Stamp& b) { return a.cut != b.cut ? a.cut > b.cut : a.rank > b.rank; }

struct Box
{
    float mins[3], maxs[3];
};

// The box of a winding's points; one holding all space when a point is not finite.
Box windingBox(const mrWinding* w)
{
    Box b;
    for (int k = 0; k < 3; ++k)
    {
        b.mins[k] = INFINITY;
        b.maxs[k] = -INFINITY;
    }
    const int n = w ? w->m_numpoints : 0;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k)
        {
            const float v = w->m_points.m_data[i][k];
            if (!std::isfinite(v))
            {
                for (int j = 0; j < 3; ++j)
                {
                    b.mins[j] = -INFINITY;
                    b.maxs[j] = INFINITY;
                }
                return b;
            }
            b.mins[k] = std::min(b.mins[k], v);
            b.maxs[k] = std::max(b.maxs[k], v);
        }
    return b;
}

bool distanceRange(const Box& box, const float* plane, double& lo, double& hi)
{
    return mrPortalCutter::distanceRange(box.mins, box.maxs, plane, lo, hi);
}

void planeNumbers(const mrPlane* plane, int side, float* numbers)
{
    numbers[0] = plane->m_normal.x;
    numbers[1] = plane->m_normal.y;
    numbers[2] = plane->m_normal.z;
    numbers[3] = plane->m_dist;
    if (side == 1)
        for (int k = 0; k < 4; ++k)
            numbers[k] = -numbers[k];
}

// A node's polygon while it is clipped to the node's cell, with its box.
struct Polygon
{
    mrWinding* w = nullptr;
    Box box;

    explicit Polygon(mrPlane* plane)
    {
        w = new mrWinding(4);
        w->baseFromPlane(*plane);
        box = windingBox(w);
    }

    // The part in front of the plane; false when none is left. A clip that can find no
    // point behind the plane would leave the polygon as it is, so it is not made: the
    // polygon's box says when.
    bool clip(const float* numbers)
    {
        double lo, hi;
        if (distanceRange(box, numbers, lo, hi) && lo > -ON_EPSILON)
            return true;
        mrPlane plane(numbers[0], numbers[1], numbers[2], numbers[3]);
        mrWinding* clipped = mrWinding::clip(w, &plane, 1);
        if (clipped != w && clipped)
            box = windingBox(clipped);
        w = clipped;
        return w != nullptr;
    }
};

// A bounding volume tree over the portals of a chain: each node holds the box of the
// windings below it and a bound on their planes (the planes as the chain's node sees
// them): every normal n below lies within `radius` of `axis`, and n . origin - d is at
// least `lowest`. Then for any point p and every plane below,
//   n . p - d  >=  axis . (p - origin) - radius |p - origin| + lowest,
// which rules out whole subtrees of planes far from a polygon. Leaves hold one portal,
// with its own normal as the axis, radius 0 and origin 0, so the bound is its distance.
class PortalTree
{
public:
    void clear()
    {
        m_nodes.clear();
        m_free.clear();
        m_root = -1;
        m_changes = 0;
        m_built = 0;
    }

    // A leaf for the portal, not yet in the tree.
    int32_t addLeaf(uint32_t item, const mrWinding* w, const float* plane)
    {
        const int32_t n = alloc();
        Node& leaf = m_nodes[(size_t)n];
        leaf.box = windingBox(w);
        for (int k = 0; k < 3; ++k)
        {
            leaf.axis[k] = plane[k];
            leaf.origin[k] = 0.0;
        }
        leaf.radius = 0.0;
        leaf.lowest = -(double)plane[3];
        leaf.parent = -1;
        leaf.child[0] = leaf.child[1] = -1;
        leaf.item = item;
        setDisc(n, w);
        return n;
    }

    // Builds the tree over the given leaves (all there are), splitting at the median of
    // the boxes' centres along the widest axis.
    void build(std::vector<int32_t>& leaves)
    {
        m_root = -1;
        m_changes = 0;
        m_built = leaves.size();
        if (leaves.empty())
            return;
        const std::vector<int32_t> made = mrBuildMedianTree(
            leaves, [this](int32_t leaf, int k) { return centre(leaf, k); },
            [this]()
            {
                const int32_t n = alloc();
                m_nodes[(size_t)n].child[0] = m_nodes[(size_t)n].child[1] = -1;
                return n;
            },
            [this](int32_t n, int32_t parent, int slot)
            {
                m_nodes[(size_t)n].parent = parent;
                if (parent < 0)
                    m_root = n;
                else
                    m_nodes[(size_t)parent].child[slot] = n;
            });
        // Parents were made before their children: bound them in reverse.
        for (size_t i = made.size(); i-- > 0;)
            bound(made[i]);
        // Bounds merged level by level lose a little at every level; taken from the
        // leaves themselves they are as tight as the axis allows. (Later changes merge.)
        for (int32_t n : made)
            for (int k = 0; k < 3; ++k)
                m_nodes[(size_t)n].axis[k] = 0.0;
        for (int32_t leaf : leaves)
            for (int32_t n = m_nodes[(size_t)leaf].parent; n >= 0; n = m_nodes[(size_t)n].parent)
                for (int k = 0; k < 3; ++k)
                    m_nodes[(size_t)n].axis[k] += m_nodes[(size_t)leaf].axis[k];
        for (int32_t n : made)
            resetCone(m_nodes[(size_t)n]);
        for (int32_t leaf : leaves)
        {
            const Node& l = m_nodes[(size_t)leaf];
            for (int32_t n = l.parent; n >= 0; n = m_nodes[(size_t)n].parent)
            {
                Node& node = m_nodes[(size_t)n];
                const double da[3] = {l.axis[0] - node.axis[0], l.axis[1] - node.axis[1], l.axis[2] - node.axis[2]};
                node.radius = std::max(node.radius, std::sqrt(da[0] * da[0] + da[1] * da[1] + da[2] * da[2]));
                node.lowest = std::min(node.lowest, l.axis[0] * node.origin[0] + l.axis[1] * node.origin[1] +
                                                        l.axis[2] * node.origin[2] + l.lowest);
            }
        }
    }

    void insert(int32_t leaf)
    {
        ++m_changes;
        if (m_root < 0)
        {
            m_root = leaf;
            m_nodes[(size_t)leaf].parent = -1;
            return;
        }
        const Box& box = m_nodes[(size_t)leaf].box;
        int32_t n = m_root;
        while (m_nodes[(size_t)n].child[0] >= 0)
        {
            const Node& node = m_nodes[(size_t)n];
            const double grow0 = growth(m_nodes[(size_t)node.child[0]].box, box);
            const double grow1 = growth(m_nodes[(size_t)node.child[1]].box, box);
            n = grow1 < grow0 ? node.child[1] : node.child[0];
        }
        const int32_t p = alloc();
        const int32_t above = m_nodes[(size_t)n].parent;
        m_nodes[(size_t)p].parent = above;
        m_nodes[(size_t)p].child[0] = n;
        m_nodes[(size_t)p].child[1] = leaf;
        if (above < 0)
            m_root = p;
        else
            m_nodes[(size_t)above].child[m_nodes[(size_t)above].child[0] == n ? 0 : 1] = p;
        m_nodes[(size_t)n].parent = p;
        m_nodes[(size_t)leaf].parent = p;
        bound(p);
        // Each node above widens to take the new one in, until one already holds it.
        for (int32_t at = above; at >= 0 && widen(at, p); at = m_nodes[(size_t)at].parent)
            ;
    }

    // Takes the leaf out of the tree and frees it. The bounds above still hold for what
    // is left, so they stay as they are (a rebuild tightens them again).
    void remove(int32_t leaf)
    {
        ++m_changes;
        const int32_t p = m_nodes[(size_t)leaf].parent;
        release(leaf);
        if (p < 0)
        {
            m_root = -1;
            return;
        }
        const Node& parent = m_nodes[(size_t)p];
        const int32_t sibling = parent.child[0] == leaf ? parent.child[1] : parent.child[0];
        const int32_t above = parent.parent;
        m_nodes[(size_t)sibling].parent = above;
        if (above < 0)
            m_root = sibling;
        else
            m_nodes[(size_t)above].child[m_nodes[(size_t)above].child[0] == p ? 0 : 1] = sibling;
        release(p);
    }

    // The leaf's portal has a new winding, a part of the old one: the bounds above still
    // hold it.
    void setWinding(int32_t leaf, const mrWinding* w)
    {
        m_nodes[(size_t)leaf].box = windingBox(w);
        setDisc(leaf, w);
    }

    // Rebuilds once the tree has changed about as much as it holds.
    void tidy()
    {
        if (m_changes < std::max<size_t>(64, m_built))
            return;
        std::vector<int32_t> leaves;
        std::vector<int32_t> stack;
        if (m_root >= 0)
            stack.push_back(m_root);
        while (!stack.empty())
        {
            const int32_t n = stack.back();
            stack.pop_back();
            const Node& node = m_nodes[(size_t)n];
            if (node.child[0] < 0)
            {
                leaves.push_back(n);
                continue;
            }
            stack.push_back(node.child[0]);
            stack.push_back(node.child[1]);
            release(n);
        }
        build(leaves);
    }

    // Calls visit(item) for every portal whose plane may have one of the points (x, y, z
    // triples) below `threshold`, until visit returns false.
    template <class Visit> void nearPlanes(const std::vector<double>& points, double threshold, Visit visit)
    {
        if (m_root < 0)
            return;
        std::vector<int32_t>& stack = m_stack;
        stack.assign(1, m_root);
        const size_t np = points.size() / 3;
        while (!stack.empty())
        {
            const Node& node = m_nodes[(size_t)stack.back()];
            stack.pop_back();
            bool below = false;
            for (size_t i = 0; i < np && !below; ++i)
            {
                const double d[3] = {points[3 * i] - node.origin[0], points[3 * i + 1] - node.origin[1],
                                     points[3 * i + 2] - node.origin[2]};
                double v = node.axis[0] * d[0] + node.axis[1] * d[1] + node.axis[2] * d[2] + node.lowest;
                if (node.radius > 0.0)
                    v -= node.radius * std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
                below = !(v >= threshold);
            }
            if (!below)
                continue;
            if (node.child[0] < 0)
            {
                if (!visit(node.item))
                    return;
                continue;
            }
            stack.push_back(node.child[1]);
            stack.push_back(node.child[0]);
        }
    }

    // Calls visit(item) for every portal whose winding may not go whole to the side kept
    // (behind the plane with keepBack, else in front), as divide decides it, until visit
    // returns false.
    template <class Visit> void reachedBy(const float* plane, bool keepBack, Visit visit)
    {
        if (m_root < 0)
            return;
        std::vector<int32_t>& stack = m_stack;
        stack.assign(1, m_root);
        while (!stack.empty())
        {
            const size_t at = (size_t)stack.back();
            const Node& node = m_nodes[at];
            stack.pop_back();
            double lo, hi;
            if (distanceRange(node.box, plane, lo, hi) && (keepBack ? hi < -ON_EPSILON : lo > -ON_EPSILON))
                continue;
            if (node.child[0] < 0)
            {
                // A winding is flat: the distances of its points from the plane vary
                // only as far as the two planes' angle lets them across its disc.
                if ((!discRange(m_discs[at], plane, lo, hi) || !(keepBack ? hi < -ON_EPSILON : lo > -ON_EPSILON)) &&
                    !visit(node.item))
                    return;
                continue;
            }
            stack.push_back(node.child[1]);
            stack.push_back(node.child[0]);
        }
    }

    // Rounding margin of the disc tests (see discRange).
    double m_slack = 0.0;

private:
    // Where a leaf's winding lies: within `radius` of `centre`, and within `thickness` of
    // the plane through the centre with unit normal `normal`.
    struct Disc
    {
        double centre[3];
        double normal[3];
        double radius, thickness;
        bool usable;
    };

    void setDisc(int32_t leaf, const mrWinding* w)
    {
        if (m_discs.size() < m_nodes.size())
            m_discs.resize(m_nodes.size());
        Disc& d = m_discs[(size_t)leaf];
        const Node& node = m_nodes[(size_t)leaf];
        const double len =
            std::sqrt(node.axis[0] * node.axis[0] + node.axis[1] * node.axis[1] + node.axis[2] * node.axis[2]);
        d.usable = len > 0.5 && std::isfinite(len);
        d.radius = d.thickness = 0.0;
        for (int k = 0; k < 3; ++k)
        {
            d.centre[k] = 0.5 * (double)node.box.mins[k] + 0.5 * (double)node.box.maxs[k];
            d.normal[k] = d.usable ? node.axis[k] / len : 0.0;
            d.usable = d.usable && std::isfinite(d.centre[k]);
        }
        for (int i = 0; d.usable && i < w->m_numpoints; ++i)
        {
            double v[3];
            for (int k = 0; k < 3; ++k)
                v[k] = (double)w->m_points.m_data[i][k] - d.centre[k];
            d.radius = std::max(d.radius, std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]));
            d.thickness =
                std::max(d.thickness, std::fabs(v[0] * d.normal[0] + v[1] * d.normal[1] + v[2] * d.normal[2]));
        }
    }

    // Bounds on the distances of a leaf winding's points from a plane: the centre's
    // distance, give or take the disc's radius times the sine of the planes' angle (from
    // the cross product, which keeps its precision when they are nearly parallel) and its
    // thickness times the cosine; widened by m_slack, far more than the rounding.
    bool discRange(const Disc& d, const float* plane, double& lo, double& hi) const
    {
        if (!d.usable)
            return false;
        const double n[3] = {plane[0], plane[1], plane[2]};
        const double centre = n[0] * d.centre[0] + n[1] * d.centre[1] + n[2] * d.centre[2] - (double)plane[3];
        const double c[3] = {n[1] * d.normal[2] - n[2] * d.normal[1], n[2] * d.normal[0] - n[0] * d.normal[2],
                             n[0] * d.normal[1] - n[1] * d.normal[0]};
        const double sine = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
        const double cosine = std::fabs(n[0] * d.normal[0] + n[1] * d.normal[1] + n[2] * d.normal[2]);
        const double spread = sine * d.radius * (1.0 + 1e-9) + cosine * d.thickness * (1.0 + 1e-9) + m_slack;
        lo = centre - spread;
        hi = centre + spread;
        return std::isfinite(lo) && std::isfinite(hi);
    }

    struct Node
    {
        Box box;
        double axis[3];
        double radius;
        double origin[3];
        double lowest;
        int32_t parent;
        int32_t child[2]; // child[0] < 0: a leaf
        uint32_t item;
    };

    int32_t alloc()
    {
        if (!m_free.empty())
        {
            const int32_t n = m_free.back();
            m_free.pop_back();
            return n;
        }
        m_nodes.emplace_back();
        return (int32_t)(m_nodes.size() - 1);
    }
    void release(int32_t n) { m_free.push_back(n); }

    // An inner node's cone before its leaves widen it: the summed normals made a unit axis
    // (none when they cancel), no width, no lowest distance yet.
    static void resetCone(Node& node)
    {
        const double len =
            std::sqrt(node.axis[0] * node.axis[0] + node.axis[1] * node.axis[1] + node.axis[2] * node.axis[2]);
        for (int k = 0; k < 3; ++k)
            node.axis[k] = len > 1e-6 ? node.axis[k] / len : 0.0;
        node.radius = 0.0;
        node.lowest = INFINITY;
    }

    float centre(int32_t leaf, int k) const
    {
        const Box& b = m_nodes[(size_t)leaf].box;
        return 0.5f * b.mins[k] + 0.5f * b.maxs[k];
    }

    // How much a box's surface grows when it takes in another.
    static double growth(const Box& a, const Box& b)
    {
        double before[3], after[3];
        for (int k = 0; k < 3; ++k)
        {
            before[k] = (double)a.maxs[k] - (double)a.mins[k];
            after[k] = (double)std::max(a.maxs[k], b.maxs[k]) - (double)std::min(a.mins[k], b.mins[k]);
        }
        const double area = before[0] * before[1] + before[1] * before[2] + before[2] * before[0];
        return after[0] * after[1] + after[1] * after[2] + after[2] * after[0] - area;
    }

    // Widens node n's bounds to hold those of node `add` (keeping its axis and origin);
    // false when they held them already.
    bool widen(int32_t n, int32_t add)
    {
        Node& node = m_nodes[(size_t)n];
        const Node& a = m_nodes[(size_t)add];
        bool changed = false;
        for (int k = 0; k < 3; ++k)
        {
            if (a.box.mins[k] < node.box.mins[k])
            {
                node.box.mins[k] = a.box.mins[k];
                changed = true;
            }
            if (a.box.maxs[k] > node.box.maxs[k])
            {
                node.box.maxs[k] = a.box.maxs[k];
                changed = true;
            }
        }
        double da[3], dorigin[3];
        for (int k = 0; k < 3; ++k)
        {
            da[k] = node.axis[k] - a.axis[k];
            dorigin[k] = node.origin[k] - a.origin[k];
        }
        const double radius = std::sqrt(da[0] * da[0] + da[1] * da[1] + da[2] * da[2]) + a.radius;
        const double reach = std::sqrt(dorigin[0] * dorigin[0] + dorigin[1] * dorigin[1] + dorigin[2] * dorigin[2]);
        const double lowest =
            a.axis[0] * dorigin[0] + a.axis[1] * dorigin[1] + a.axis[2] * dorigin[2] - a.radius * reach + a.lowest;
        if (radius > node.radius)
        {
            node.radius = radius;
            changed = true;
        }
        if (lowest < node.lowest)
        {
            node.lowest = lowest;
            changed = true;
        }
        return changed;
    }

    // An inner node's box and plane bound from its two children's.
    void bound(int32_t n)
    {
        Node& node = m_nodes[(size_t)n];
        const Node& a = m_nodes[(size_t)node.child[0]];
        const Node& b = m_nodes[(size_t)node.child[1]];
        for (int k = 0; k < 3; ++k)
        {
            node.box.mins[k] = std::min(a.box.mins[k], b.box.mins[k]);
            node.box.maxs[k] = std::max(a.box.maxs[k], b.box.maxs[k]);
            node.origin[k] = 0.5 * (double)node.box.mins[k] + 0.5 * (double)node.box.maxs[k];
            if (!std::isfinite(node.origin[k]))
                node.origin[k] = 0.0;
            node.axis[k] = a.axis[k] + b.axis[k];
        }
        resetCone(node);
        for (const Node* c : {&a, &b})
        {
            double da[3], dorigin[3];
            for (int k = 0; k < 3; ++k)
            {
                da[k] = node.axis[k] - c->axis[k];
                dorigin[k] = node.origin[k] - c->origin[k];
            }
            node.radius = std::max(node.radius, std::sqrt(da[0] * da[0] + da[1] * da[1] + da[2] * da[2]) + c->radius);
            const double reach = std::sqrt(dorigin[0] * dorigin[0] + dorigin[1] * dorigin[1] + dorigin[2] * dorigin[2]);
            node.lowest = std::min(node.lowest, c->axis[0] * dorigin[0] + c->axis[1] * dorigin[1] +
                                                    c->axis[2] * dorigin[2] - c->radius * reach + c->lowest);
        }
    }

    std::vector<Node> m_nodes;
    std::vector<Disc> m_discs; // by node, for leaves
    std::vector<int32_t> m_free;
    std::vector<int32_t> m_stack;
    int32_t m_root = -1;
    size_t m_changes = 0; // insertions and removals since the last build
    size_t m_built = 0;   // leaves at the last build
};

// The squared diagonal of a box.
double boxSize(const Box& b)
{
    double s = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        const double e = (double)b.maxs[k] - (double)b.mins[k];
        s += e * e;
    }
    return s;
}

bool finitePlane(const mrPlane* p)
{
    return p && std::isfinite(p->m_normal.x) && std::isfinite(p->m_normal.y) && std::isfinite(p->m_normal.z) &&
           std::fabs(p->m_dist) <= LARGEST;
}

// A winding clip and divide can work on as the walk gives them: three points or more,
// all held and finite.
bool usableWinding(const mrWinding* w, double& reach)
{
    if (!w || w->m_numpoints < 3 || (uint32_t)w->m_numpoints > w->m_points.m_size)
        return false;
    for (int i = 0; i < w->m_numpoints; ++i)
        for (int k = 0; k < 3; ++k)
        {
            const double v = w->m_points.m_data[i][k];
            if (!(std::fabs(v) <= LARGEST))
                return false;
            reach = std::max(reach, std::fabs(v));
        }
    return true;
}

class Cutter
{
public:
    explicit Cutter(const mrPortalCutter::Settings& settings) : m_settings(settings) {}
    bool prepare(mrBSPNode* head);
    int32_t run();

private:
    struct NodeRec
    {
        mrBSPNode* node;
        uint32_t child[2]; // NONE in leaves and in nodes outside the subtree
        // The node's list, unordered; for a chain's node, the portals not in the chain.
        std::vector<uint32_t> members;
    };
    struct PortalRec
    {
        mrBSPPortal* portal;
        uint32_t node[2]; // as the portal's m_nodes, except on the chain side in a chain
        Stamp stamp;      // in a chain: its place there says when
        int64_t key;      // its place in the chain
        int32_t leaf;     // its leaf in the chain's tree; -1 when not in a chain
        int chainSide;
        float plane[4]; // the portal's plane: normal and distance

        // The plane as seen from the node on the given side: negated from the back.
        void planeFrom(int side, float* numbers) const
        {
            for (int k = 0; k < 4; ++k)
                numbers[k] = side == 0 ? plane[k] : -plane[k];
        }
    };
    struct Entry
    {
        int64_t key;
        uint32_t id; // NONE: left the chain
    };
    // A run of nodes each handing most of its portals on to one child, whose list is kept
    // here instead of in its members: walked in increasing dir . key at the last cut,
    // entries[first ...] in increasing key. The chain's node is either the next to be cut
    // or waits (below the chains above it) for its front sibling's subtree.
    struct Chain
    {
        uint32_t owner = NONE;
        uint32_t lastCut = 0;
        int dir = 1;
        bool keepBack = true; // the chain went to the back child at the last cut
        std::vector<Entry> entries;
        size_t first = 0, live = 0, dead = 0;
        PortalTree tree;
    };

    bool split(uint32_t x) const { return m_nodes[x].child[0] != NONE; }
    int sideAt(uint32_t id, uint32_t x) const { return m_portals[id].node[0] == x ? 0 : 1; }
    uint32_t addPortal(mrBSPPortal* p, uint32_t front, uint32_t back, Stamp stamp, bool listed);
    void moveTo(uint32_t id, int side, uint32_t node, Stamp stamp);
    void sortLatestFirst(std::vector<uint32_t>& ids) const;
    Chain& chain() { return *m_chains.back(); }
    // The rank of a chain's place in its current cut.
    static int64_t rankOf(int dir, int64_t key) { return 4 * dir * key; }

    void cutPlain(uint32_t x, uint32_t cut);
    void cutChain(uint32_t x, uint32_t cut);
    void clipInChain(Polygon& poly, int dir);
    double lookupThreshold(const Polygon& poly, std::vector<double>& points);
    // The portals of the chain after `at` in the walk whose planes may reach the polygon,
    // into m_near; false when there are more than limit.
    bool findNear(const Polygon& poly, int dir, bool started, int64_t at, size_t limit);
    void startChain(uint32_t x, uint32_t sibling, bool waits, uint32_t cut);
    void endChain(uint32_t x);
    void joinChain(uint32_t id, int64_t key, int side);
    void pushEdge(uint32_t id, bool atFront);
    void leaveChain(uint32_t id);
    size_t entryOf(int64_t key) const;
    void link();

    const mrPortalCutter::Settings m_settings;
    std::vector<NodeRec> m_nodes;
    std::vector<PortalRec> m_portals;
    std::vector<std::unique_ptr<Chain>> m_chains;
    int32_t m_degenerate = 0;
    double m_slack = 0.0; // rounding margin for the trees' bounds
    double m_space = 0.0; // the squared diagonal of the box of the head's portals
    std::vector<uint32_t> m_near;
    std::vector<double> m_points;
    // Scratch of cutPlain.
    struct Parts
    {
        mrWinding* front;
        mrWinding* back;
    };
    std::vector<uint32_t> m_list;
    std::vector<Parts> m_parts;
    int m_changesAllowed = 16; // clips that may change the polygon before the next lookup
};

bool Cutter::prepare(mrBSPNode* head)
{
    // The subtree: a tree with finite planes and no portals below its head, with a long
    // chain.
    m_nodes.push_back({head, {NONE, NONE}, {}});
    double scale = 0.0;
    uint32_t depth = 0;
    std::vector<std::pair<uint32_t, uint32_t>> stack(1, {0, 0});
    while (!stack.empty())
    {
        const uint32_t i = stack.back().first, level = stack.back().second;
        stack.pop_back();
        depth = std::max(depth, level);
        mrBSPNode* n = m_nodes[i].node;
        if (i != 0 && n->m_portals)
            return false;
        if (!n->m_plane)
            continue;
        if (!finitePlane(n->m_plane))
            return false;
        // The node's polygon starts as a square 2 x 65536 across around its plane.
        scale = std::max(scale, std::fabs((double)n->m_plane->m_dist) + 131072.0);
        for (int c = 0; c < 2; ++c)
        {
            mrBSPNode* child = n->m_children[c];
            if (!child)
                return false;
            m_nodes[i].child[c] = (uint32_t)m_nodes.size();
            m_nodes.push_back({child, {NONE, NONE}, {}});
            stack.push_back({m_nodes[i].child[c], level + 1});
        }
    }
    // Chains make lists long; bushy trees, however deep, keep them short.
    const size_t splits = m_nodes.size() / 2;
    if (depth < m_settings.minDepth || depth < splits * m_settings.minChainShare)
        return false;
    // No node twice (a node shared by two parents would be cut twice by the walk).
    std::vector<const mrBSPNode*> seen;
    seen.reserve(m_nodes.size());
    for (const NodeRec& n : m_nodes)
        seen.push_back(n.node);
    std::sort(seen.begin(), seen.end());
    if (std::adjacent_find(seen.begin(), seen.end()) != seen.end())
        return false;

    // The head's list, each portal joining it to a node outside the subtree.
    std::unordered_map<const mrBSPPortal*, size_t> place;
    std::vector<mrBSPPortal*> list;
    for (mrBSPPortal* p = head->m_portals; p;)
    {
        const int side = p->sideOf(head);
        if (side < 0 || !place.emplace(p, list.size()).second)
            return false;
        const mrBSPNode* other = p->m_nodes[1 - side];
        if (!other || std::binary_search(seen.begin(), seen.end(), other) || !finitePlane(p->m_plane) ||
            !usableWinding(p->m_winding, scale))
            return false;
        list.push_back(p);
        p = p->m_next[side];
    }
    std::unordered_map<const mrBSPNode*, uint32_t> outside;
    Box space = windingBox(nullptr);
    for (size_t i = 0; i < list.size(); ++i)
    {
        mrBSPPortal* p = list[i];
        const int side = p->sideOf(head);
        mrBSPNode* other = p->m_nodes[1 - side];
        auto found = outside.find(other);
        if (found == outside.end())
        {
            found = outside.emplace(other, (uint32_t)m_nodes.size()).first;
            m_nodes.push_back({other, {NONE, NONE}, {}});
        }
        const uint32_t id = (uint32_t)m_portals.size();
        PortalRec rec;
        rec.portal = p;
        rec.node[side] = 0;
        rec.node[1 - side] = found->second;
        rec.stamp = {0, -(int64_t)i};
        rec.key = 0;
        rec.leaf = -1;
        rec.chainSide = 0;
        planeNumbers(p->m_plane, 0, rec.plane);
        m_portals.push_back(rec);
        m_nodes[0].members.push_back(id);
        m_nodes[found->second].members.push_back(id);
        const Box b = windingBox(p->m_winding);
        for (int k = 0; k < 3; ++k)
        {
            space.mins[k] = std::min(space.mins[k], b.mins[k]);
            space.maxs[k] = std::max(space.maxs[k], b.maxs[k]);
        }
    }
    // Each of those nodes holds exactly its portals of the head's list, in the same order,
    // so that one time per portal orders both lists.
    for (const auto& o : outside)
    {
        const size_t expected = m_nodes[o.second].members.size();
        size_t count = 0;
        size_t last = 0;
        for (mrBSPPortal* p = const_cast<mrBSPNode*>(o.first)->m_portals; p;)
        {
            const int side = p->sideOf(o.first);
            const auto found = place.find(p);
            if (side < 0 || found == place.end() || p->m_nodes[1 - side] != head ||
                (count > 0 && found->second <= last) || ++count > expected)
                return false;
            last = found->second;
            p = p->m_next[side];
        }
        if (count != expected)
            return false;
    }
    m_slack = 1e-9 * (scale + 1.0);
    m_space = list.empty() ? 0.0 : boxSize(space);
    return true;
}

uint32_t Cutter::addPortal(mrBSPPortal* p, uint32_t front, uint32_t back, Stamp stamp, bool listed)
{
    const uint32_t id = (uint32_t)m_portals.size();
    PortalRec rec;
    rec.portal = p;
    rec.node[0] = front;
    rec.node[1] = back;
    rec.stamp = stamp;
    rec.key = 0;
    rec.leaf = -1;
    rec.chainSide = 0;
    planeNumbers(p->m_plane, 0, rec.plane);
    m_portals.push_back(rec);
    p->m_nodes[0] = m_nodes[front].node;
    p->m_nodes[1] = m_nodes[back].node;
    if (listed)
    {
        m_nodes[front].members.push_back(id);
        m_nodes[back].members.push_back(id);
    }
    return id;
}

void Cutter::moveTo(uint32_t id, int side, uint32_t node, Stamp stamp)
{
    PortalRec& rec = m_portals[id];
    rec.node[side] = node;
    rec.portal->m_nodes[side] = m_nodes[node].node;
    rec.stamp = stamp;
    m_nodes[node].members.push_back(id);
}

void Cutter::sortLatestFirst(std::vector<uint32_t>& ids) const
{
    // Members are added as they are linked, so a list that nothing else has touched since
    // its node's parent was cut is in order already, earliest first.
    auto earlier = [this](uint32_t a, uint32_t b) { return later(m_portals[b].stamp, m_portals[a].stamp); };
    if (std::is_sorted(ids.begin(), ids.end(), earlier))
        std::reverse(ids.begin(), ids.end());
    else
        std::sort(ids.begin(), ids.end(),
                  [this](uint32_t a, uint32_t b) { return later(m_portals[a].stamp, m_portals[b].stamp); });
}

int32_t Cutter::run()
{
    // The walk's order: depth first, the front subtree before the back one.
    std::vector<uint32_t> stack(1, 0);
    uint32_t cut = 0;
    while (!stack.empty())
    {
        const uint32_t x = stack.back();
        stack.pop_back();
        if (!split(x))
            continue;
        ++cut;
        mrProgress::step();
        if (!m_chains.empty() && chain().owner == x && chain().live < CHAIN_KEEP)
            endChain(x);
        if (!m_chains.empty() && chain().owner == x)
            cutChain(x, cut);
        else
            cutPlain(x, cut);
        stack.push_back(m_nodes[x].child[1]);
        stack.push_back(m_nodes[x].child[0]);
    }
    while (!m_chains.empty())
        endChain(chain().owner); // (a chain's node is always cut, so this finds none)
    link();
    return m_degenerate;
}

void Cutter::cutPlain(uint32_t x, uint32_t cut)
{
    std::vector<uint32_t>& list = m_list;
    list.swap(m_nodes[x].members);
    std::vector<uint32_t>().swap(m_nodes[x].members);
    sortLatestFirst(list);
    mrPlane* plane = m_nodes[x].node->m_plane;
    const uint32_t front = m_nodes[x].child[0], back = m_nodes[x].child[1];

    // The node's polygon, clipped by every portal of the list in order.
    Polygon poly(plane);
    for (size_t i = 0; i < list.size(); ++i)
        __builtin_prefetch(&m_portals[list[i]]);
    for (uint32_t id : list)
    {
        float numbers[4];
        m_portals[id].planeFrom(sideAt(id, x), numbers);
        if (!poly.clip(numbers))
        {
            ++m_degenerate;
            break;
        }
    }

    // Where each portal of the list goes: to the child its winding lies in, or cut in two.
    std::vector<Parts>& parts = m_parts;
    parts.resize(list.size());
    size_t toFront = 0, toBack = 0;
    const size_t ahead = 8;
    for (size_t i = 0; i < list.size(); ++i)
    {
        // The windings are scattered in memory: ask for them a few portals ahead.
        if (i + 2 * ahead < list.size())
            __builtin_prefetch(m_portals[list[i + 2 * ahead]].portal);
        if (i + ahead < list.size())
        {
            const mrWinding* w = m_portals[list[i + ahead]].portal->m_winding;
            __builtin_prefetch(w);
            __builtin_prefetch(w->m_points.m_data);
        }
        mrWinding::divide(m_portals[list[i]].portal->m_winding, plane, &parts[i].front, &parts[i].back);
        toFront += parts[i].front != nullptr;
        toBack += parts[i].back != nullptr;
    }
    // A long list that goes mostly to a child that is cut in turn becomes a chain there.
    uint32_t chained = NONE;
    if (std::max(toFront, toBack) + 1 >= m_settings.chainStart)
    {
        const uint32_t larger = toBack >= toFront ? back : front;
        if (split(larger))
            chained = larger;
    }

    m_nodes[front].members.reserve(toFront + 1);
    m_nodes[back].members.reserve(toBack + 1);
    if (poly.w)
    {
        mrBSPPortal* own = new mrBSPPortal;
        own->m_plane = plane;
        own->m_winding = poly.w;
        addPortal(own, front, back, {cut, -4}, true);
    }
    for (size_t i = 0; i < list.size(); ++i)
    {
        const uint32_t id = list[i];
        const int side = sideAt(id, x);
        mrBSPPortal* p = m_portals[id].portal;
        const uint32_t other = m_portals[id].node[1 - side];
        const int64_t rank = 4 * (int64_t)i;
        if (!parts[i].front)
            moveTo(id, side, back, {cut, rank});
        else if (!parts[i].back)
            moveTo(id, side, front, {cut, rank});
        else
        {
            mrBSPPortal* piece = new mrBSPPortal;
            piece->m_plane = p->m_plane;
            piece->m_winding = parts[i].back;
            delete p->m_winding;
            p->m_winding = parts[i].front;
            moveTo(id, side, front, {cut, chained == back ? rank - 1 : rank});
            const Stamp stamp{cut, chained == back ? rank : rank + 1};
            if (side == 0)
                addPortal(piece, back, other, stamp, true);
            else
                addPortal(piece, other, back, stamp, true);
        }
    }
    if (chained != NONE)
        startChain(chained, chained == back ? front : back, chained == back && split(front), cut);
}

void Cutter::startChain(uint32_t x, uint32_t sibling, bool waits, uint32_t cut)
{
    // Every portal of x's list was linked by this cut with rank 4K, K its place (-1 for
    // the node's portal), in the order of K. While x waits for its sibling's subtree, the
    // portals it shares with the sibling (the node's portal) stay out of the chain: that
    // subtree's cuts relink them.
    m_chains.emplace_back(new Chain);
    Chain& c = chain();
    std::vector<uint32_t> members;
    members.swap(m_nodes[x].members);
    std::stable_sort(members.begin(), members.end(),
                     [this](uint32_t a, uint32_t b) { return m_portals[a].stamp.rank < m_portals[b].stamp.rank; });
    c.owner = x;
    c.lastCut = cut;
    c.dir = 1;
    c.keepBack = true;
    c.tree.m_slack = m_slack;
    c.first = members.size() / 2 + 64;
    c.entries.assign(c.first, Entry{0, NONE});
    std::vector<int32_t> leaves;
    for (uint32_t id : members)
    {
        const int side = sideAt(id, x);
        if (waits && m_portals[id].node[1 - side] == sibling)
        {
            m_nodes[x].members.push_back(id);
            continue;
        }
        joinChain(id, m_portals[id].stamp.rank / 4, side);
        c.entries.push_back({m_portals[id].key, id});
        leaves.push_back(m_portals[id].leaf);
    }
    c.tree.build(leaves);
}

void Cutter::joinChain(uint32_t id, int64_t key, int side)
{
    PortalRec& rec = m_portals[id];
    rec.key = key;
    rec.chainSide = side;
    float numbers[4];
    rec.planeFrom(side, numbers);
    rec.leaf = chain().tree.addLeaf(id, rec.portal->m_winding, numbers);
    ++chain().live;
}

void Cutter::pushEdge(uint32_t id, bool atFront)
{
    Chain& c = chain();
    if (atFront)
    {
        if (c.first == 0)
        {
            // Room at the front again.
            const size_t room = c.entries.size() / 2 + 64;
            c.entries.insert(c.entries.begin(), room, Entry{0, NONE});
            c.first = room;
        }
        c.entries[--c.first] = {m_portals[id].key, id};
    }
    else
        c.entries.push_back({m_portals[id].key, id});
}

void Cutter::leaveChain(uint32_t id)
{
    Chain& c = chain();
    PortalRec& rec = m_portals[id];
    c.tree.remove(rec.leaf);
    rec.leaf = -1;
    c.entries[entryOf(rec.key)].id = NONE;
    --c.live;
    ++c.dead;
}

size_t Cutter::entryOf(int64_t key) const
{
    const Chain& c = *m_chains.back();
    return (size_t)(std::lower_bound(c.entries.begin() + (long)c.first, c.entries.end(), key,
                                     [](const Entry& e, int64_t k) { return e.key < k; }) -
                    c.entries.begin());
}

void Cutter::endChain(uint32_t x)
{
    // The chain's portals join x's list with the times of their last links.
    Chain& c = chain();
    for (size_t i = c.first; i < c.entries.size(); ++i)
    {
        const uint32_t id = c.entries[i].id;
        if (id == NONE)
            continue;
        PortalRec& rec = m_portals[id];
        rec.stamp = {c.lastCut, rankOf(c.dir, rec.key)};
        rec.leaf = -1;
        rec.node[rec.chainSide] = x;
        rec.portal->m_nodes[rec.chainSide] = m_nodes[x].node;
        m_nodes[x].members.push_back(id);
    }
    m_chains.pop_back();
}

void Cutter::cutChain(uint32_t x, uint32_t cut)
{
    // The list was walked in increasing dir . key at the last cut and linked in that
    // order, so this node's list runs the other way. Portals linked to the node since
    // (by its front sibling's subtree, while it waited) are later still: they come first,
    // so they take places before the chain's first in the walk.
    Chain& c = chain();
    const int dir = -c.dir;
    {
        std::vector<uint32_t> extra;
        extra.swap(m_nodes[x].members);
        sortLatestFirst(extra);
        for (size_t i = extra.size(); i-- > 0;)
        {
            const bool atFront = dir > 0;
            const int64_t edge =
                c.entries.size() == c.first ? 0 : (atFront ? c.entries[c.first].key - 1 : c.entries.back().key + 1);
            joinChain(extra[i], edge, sideAt(extra[i], x));
            c.tree.insert(m_portals[extra[i]].leaf);
            pushEdge(extra[i], atFront);
        }
    }
    mrPlane* plane = m_nodes[x].node->m_plane;
    const uint32_t front = m_nodes[x].child[0], back = m_nodes[x].child[1];

    Polygon poly(plane);
    clipInChain(poly, dir);

    // Only the portals that may not go whole to the child the chain goes on to are looked
    // at; the rest stay in the chain, relinked (in their other node's list too) by this
    // cut's time. The chain goes on the side it went last time, unless most of it turns
    // out to go the other way.
    float numbers[4];
    planeNumbers(plane, 0, numbers);
    std::vector<uint32_t> movers;
    bool keepBack = c.keepBack;
    const size_t most = c.live / 2;
    c.tree.reachedBy(numbers, keepBack,
                     [&](uint32_t id)
                     {
                         movers.push_back(id);
                         return movers.size() <= most;
                     });
    if (movers.size() > most)
    {
        keepBack = !keepBack;
        movers.clear();
        c.tree.reachedBy(numbers, keepBack,
                         [&](uint32_t id)
                         {
                             movers.push_back(id);
                             return true;
                         });
    }
    const uint32_t next = keepBack ? back : front, other = keepBack ? front : back;
    std::sort(movers.begin(), movers.end(),
              [&](uint32_t a, uint32_t b) { return dir * m_portals[a].key < dir * m_portals[b].key; });
    for (uint32_t id : movers)
    {
        const int side = m_portals[id].chainSide;
        const int64_t key = m_portals[id].key;
        const int64_t rank = rankOf(dir, key);
        const uint32_t far = m_portals[id].node[1 - side];
        mrBSPPortal* p = m_portals[id].portal;
        mrWinding* frontPart = nullptr;
        mrWinding* backPart = nullptr;
        mrWinding::divide(p->m_winding, plane, &frontPart, &backPart);
        const uint32_t whole = !frontPart ? back : (!backPart ? front : NONE);
        if (whole == next)
            continue;
        if (whole == other)
        {
            leaveChain(id);
            moveTo(id, side, other, {cut, rank});
            continue;
        }
        mrBSPPortal* piece = new mrBSPPortal;
        piece->m_plane = p->m_plane;
        piece->m_winding = backPart;
        delete p->m_winding;
        p->m_winding = frontPart;
        if (keepBack)
        {
            // The back piece takes the portal's place in the chain.
            leaveChain(id);
            moveTo(id, side, front, {cut, rank - 1});
            const uint32_t pid = side == 0 ? addPortal(piece, back, far, {cut, rank}, false)
                                           : addPortal(piece, far, back, {cut, rank}, false);
            m_nodes[far].members.push_back(pid);
            joinChain(pid, key, side);
            c.tree.insert(m_portals[pid].leaf);
            c.entries[entryOf(key)].id = pid;
            --c.dead; // the place is taken again
        }
        else
        {
            c.tree.setWinding(m_portals[id].leaf, frontPart);
            if (side == 0)
                addPortal(piece, back, far, {cut, rank + 1}, true);
            else
                addPortal(piece, far, back, {cut, rank + 1}, true);
        }
    }

    // The node's portal comes before every place walked: a new place at the end walked
    // first. It stays out of the chain when the chain's node waits for the other child,
    // whose subtree relinks it.
    const bool waits = keepBack && split(front);
    if (poly.w)
    {
        mrBSPPortal* own = new mrBSPPortal;
        own->m_plane = plane;
        own->m_winding = poly.w;
        const int64_t key =
            c.entries.size() == c.first ? 0 : (dir > 0 ? c.entries[c.first].key - 1 : c.entries.back().key + 1);
        const uint32_t id = addPortal(own, front, back, {cut, rankOf(dir, key)}, waits);
        if (!waits)
        {
            m_nodes[other].members.push_back(id);
            joinChain(id, key, keepBack ? 1 : 0);
            c.tree.insert(m_portals[id].leaf);
            pushEdge(id, dir > 0);
        }
    }

    c.owner = next;
    c.lastCut = cut;
    c.dir = dir;
    c.keepBack = keepBack;
    if (c.dead > c.live + 64)
    {
        std::vector<Entry> kept;
        const size_t room = c.live / 2 + 64;
        kept.assign(room, Entry{0, NONE});
        for (size_t i = c.first; i < c.entries.size(); ++i)
            if (c.entries[i].id != NONE)
                kept.push_back(c.entries[i]);
        c.entries.swap(kept);
        c.first = room;
        c.dead = 0;
    }
    c.tree.tidy();
    if (!split(next))
        endChain(next);
}

void Cutter::clipInChain(Polygon& poly, int dir)
{
    // The walk clips by every portal of the list in order, and only the clips that find a
    // point behind the plane change the polygon. While the polygon is large (it starts
    // far larger than any cell) nearly every plane does, so the list is walked; once few
    // planes can still reach it, the tree finds them, and only they are clipped by, in the
    // list's order.
    const Chain& c = chain();
    size_t processed = 0, lastLook = 0;
    bool started = false;
    int64_t at = 0; // the key of the last portal clipped by
    const size_t count = c.entries.size() - c.first;
    bool found = false;
    for (size_t j = 0; j < count; ++j)
    {
        const Entry& e = c.entries[dir > 0 ? c.first + j : c.entries.size() - 1 - j];
        if (e.id == NONE)
            continue;
        // Looking the planes up pays once they are few next to those walked: tried once
        // the polygon is no larger than the whole space the portals enclose, and again
        // each time the walk has doubled.
        if (processed >= LOOK_FIRST && processed >= 2 * lastLook && boxSize(poly.box) <= m_space)
        {
            if (findNear(poly, dir, started, at, processed / LOOK_SHARE))
            {
                found = true;
                break;
            }
            lastLook = processed;
        }
        float numbers[4];
        m_portals[e.id].planeFrom(m_portals[e.id].chainSide, numbers);
        if (!poly.clip(numbers))
        {
            ++m_degenerate;
            return;
        }
        ++processed;
        at = e.key;
        started = true;
    }
    while (found)
    {
        std::sort(m_near.begin(), m_near.end(),
                  [&](uint32_t a, uint32_t b) { return dir * m_portals[a].key < dir * m_portals[b].key; });
        int changes = 0;
        found = false;
        for (uint32_t id : m_near)
        {
            float numbers[4];
            m_portals[id].planeFrom(m_portals[id].chainSide, numbers);
            const mrWinding* before = poly.w;
            if (!poly.clip(numbers))
            {
                ++m_degenerate;
                return;
            }
            at = m_portals[id].key;
            started = true;
            if (poly.w != before && ++changes >= m_changesAllowed)
            {
                found = findNear(poly, dir, true, at, SIZE_MAX);
                break;
            }
        }
    }
}

bool Cutter::findNear(const Polygon& poly, int dir, bool started, int64_t at, size_t limit)
{
    std::vector<double>& points = m_points;
    const double threshold = lookupThreshold(poly, points);
    m_near.clear();
    chain().tree.nearPlanes(points, threshold,
                            [&](uint32_t id)
                            {
                                if (!started || dir * m_portals[id].key > dir * at)
                                    m_near.push_back(id);
                                return m_near.size() <= limit;
                            });
    return m_near.size() <= limit;
}

double Cutter::lookupThreshold(const Polygon& poly, std::vector<double>& points)
{
    // The polygon's points, and the distance below which a plane may still find a point
    // behind it after m_changesAllowed more clips: a clip's new point lies on an edge of
    // the polygon but for the rounding of its coordinates to float, which moves its
    // distance from any plane by at most |n|1 2^-24 times the largest coordinate; boxes
    // only shrink, so that bound holds for every later point. As many clips are allowed
    // as keep the sum of those roundings within half the tolerance.
    points.clear();
    double reach = 0.0;
    const mrWinding* w = poly.w;
    for (int i = 0; i < w->m_numpoints; ++i)
        for (int k = 0; k < 3; ++k)
        {
            const double v = w->m_points.m_data[i][k];
            points.push_back(v);
            reach = std::max(reach, std::fabs(v));
        }
    const double step = 1.7320508075688772 * 1.001 * reach * 0x1p-24;
    m_changesAllowed = (int)std::max(16.0, std::min(1e6, 0.5 * ON_EPSILON / step));
    return -ON_EPSILON + m_changesAllowed * step + m_slack;
}

void Cutter::link()
{
    // Every list, latest link first, through the portals' links.
    for (uint32_t x = 0; x < m_nodes.size(); ++x)
    {
        std::vector<uint32_t>& list = m_nodes[x].members;
        sortLatestFirst(list);
        mrBSPNode* node = m_nodes[x].node;
        node->m_portals = list.empty() ? nullptr : m_portals[list[0]].portal;
        for (size_t i = 0; i < list.size(); ++i)
        {
            mrBSPPortal* p = m_portals[list[i]].portal;
            p->m_next[sideAt(list[i], x)] = i + 1 < list.size() ? m_portals[list[i + 1]].portal : nullptr;
        }
        std::vector<uint32_t>().swap(list);
    }
}
} // namespace

bool mrPortalCutter::cut(mrBSPNode* node, int32_t& degenerate, const Settings& settings)
{
    if (!node)
        return false;
    Cutter cutter(settings);
    if (!cutter.prepare(node))
        return false;
    degenerate += cutter.run();
    return true;
}

bool mrPortalCutter::cut(mrBSPNode* node, int32_t& degenerate) { return cut(node, degenerate, Settings()); }

bool mrPortalCutter::distanceRange(const float* mins, const float* maxs, const float* plane, double& lo, double& hi)
{
    lo = hi = 0.0;
    double size = std::fabs((double)plane[3]);
    for (int k = 0; k < 3; ++k)
    {
        // Each product of a float normal and a float coordinate is exact in double.
        double a = (double)plane[k] * mins[k], b = (double)plane[k] * maxs[k];
        lo += a < b ? a : b;
        hi += a < b ? b : a;
        size += std::max(std::fabs(a), std::fabs(b));
    }
    const double slack = size * 1e-12;
    if (!(slack < 1e-3))
        return false;
    lo -= (double)plane[3] + slack;
    hi -= (double)plane[3] - slack;
    return true;
}
