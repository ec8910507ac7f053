#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <meridbsp/platform/core/mrOutputFile.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <meridbsp/platform/geom/mrMaterial.h>
#include <meridbsp/platform/geom/mrPlane.h>
#include <meridbsp/platform/geom/mrWinding.h>
#include <meridbsp/portals/mrBSPPortalizer.h>
#include <meridbsp/portals/mrPortalCutter.h>

int32_t mrBSPPortalizer::m_num_visleafs = 0;
int32_t mrBSPPortalizer::m_num_visportals = 0;
int32_t mrBSPPortalizer::m_polycount = 0;
uint32_t mrBSPPortalizer::m_materialCounter = 0;
mrDynamicArray<mrMaterial*> mrBSPPortalizer::m_materials;

namespace
{
// Depth-first, front child first, with an explicit stack (any depth is safe): onSplit
// for each split node, onLeaf for each leaf.
template <class Split, class Leaf> void walkFrontFirst(mrBSPNode* node, Split onSplit, Leaf onLeaf)
{
    std::vector<mrBSPNode*> stack(1, node);
    while (!stack.empty())
    {
        mrBSPNode* n = stack.back();
        stack.pop_back();
        if (!n)
            continue;
        if (n->m_plane)
        {
            onSplit(n);
            stack.push_back(n->m_children[1]);
            stack.push_back(n->m_children[0]);
            continue;
        }
        onLeaf(n);
    }
}

const char* const SOURCE = "mrBSPPortalizer";
const char* const PORTAL_FILE = "test.prt";
// How far the outer portals stand off the head node's box.
const float HEADNODE_MARGIN = 24.0f;
const uint32_t NUM_MATERIALS = 256;
// The tolerance within which clip and divide count a point as on the plane.
const double WINDING_EPSILON = 0.01;

// Open only while writePortalfile runs.
FILE* s_portalFile = nullptr;

// Appends the decimal digits of n.
void appendDigits(std::string& out, uint64_t n)
{
    char digits[24];
    int count = 0;
    do
    {
        digits[count++] = (char)('0' + n % 10);
        n /= 10;
    } while (n);
    while (count)
        out += digits[--count];
}

// printf's "%f" of a float's value: six decimals, rounded to nearest (ties to even) from
// the exact binary value, a minus sign on every negative value. Done here in integers, as
// printf's own long arithmetic is most of the time of writing a large portal file; false
// for values it leaves to printf (above 2^30 in magnitude).
bool appendSixDecimals(std::string& out, float value)
{
    const double v = value;
    if (!(std::fabs(v) < 1073741824.0))
        return false;
    // v = m 2^e exactly, m an integer of at most 24 bits.
    int e = 0;
    const double fraction = std::frexp(std::fabs(v), &e);
    const uint64_t m = (uint64_t)std::ldexp(fraction, 24);
    e -= 24;
    // q = v 10^6 rounded: m 10^6 < 2^44, so it and every shift below fit in 64 bits.
    const uint64_t scaled = m * 1000000u;
    uint64_t q;
    if (e >= 0)
        q = scaled << e;
    else if (-e >= 46)
        q = 0; // below half a millionth
    else
    {
        const int shift = -e;
        q = scaled >> shift;
        const uint64_t rest = scaled & ((uint64_t(1) << shift) - 1), half = uint64_t(1) << (shift - 1);
        if (rest > half || (rest == half && (q & 1)))
            ++q;
    }
    if (std::signbit(v))
        out += '-';
    appendDigits(out, q / 1000000u);
    out += '.';
    const uint64_t decimals = q % 1000000u;
    for (uint64_t unit = 100000u; unit; unit /= 10)
        out += (char)('0' + decimals / unit % 10);
    return true;
}

// One number of the portal file and its blank. A value within 0.001 of a whole number is
// written as that number. Reproducibility promise: rounding in double, against the
// single-precision 0.001.
void appendFloat(std::string& out, float value)
{
    char text[512];
    double v = value;
    double r = std::floor(v + 0.5);
    int n;
    // The range check keeps the conversion defined; such values are written in full.
    if (std::fabs(v - r) < (double)0.001f && r >= -2147483648.0 && r <= 2147483647.0)
    {
        if (r < 0)
            out += '-';
        appendDigits(out, (uint64_t)std::fabs(r));
        out += ' ';
        return;
    }
    if (appendSixDecimals(out, value))
    {
        out += ' ';
        return;
    }
    n = std::snprintf(text, sizeof(text), "%f ", v);
    if (n > 0)
        out.append(text, (size_t)std::min(n, (int)sizeof(text) - 1));
}

// Reused for every portal line, so writing allocates nothing per line.
std::string& lineBuffer()
{
    static std::string buffer;
    return buffer;
}

// The box of a winding's points; false when it has none or a point is not finite.
bool windingBox(const mrWinding* w, float* mins, float* maxs)
{
    if (!w || w->m_numpoints < 1 || (uint32_t)w->m_numpoints > w->m_points.m_size)
        return false;
    for (int k = 0; k < 3; ++k)
    {
        mins[k] = INFINITY;
        maxs[k] = -INFINITY;
    }
    const srVector3T<float>* points = w->m_points.m_data;
    for (int i = 0; i < w->m_numpoints; ++i)
        for (int k = 0; k < 3; ++k)
        {
            const float v = points[i][k];
            if (!std::isfinite(v))
                return false;
            mins[k] = std::min(mins[k], v);
            maxs[k] = std::max(maxs[k], v);
        }
    return true;
}

bool sameContents(const mrBSPPortal* p)
{
    return p->m_nodes[0] && p->m_nodes[1] && p->m_nodes[0]->m_contents == p->m_nodes[1]->m_contents;
}
} // namespace

mrBSPPortalizer::mrBSPPortalizer() : m_num_degenerate(0) {}

// The outside node releases nothing; portals still linked to it are the caller's to free.
mrBSPPortalizer::~mrBSPPortalizer() {}

void mrBSPPortalizer::portalize(mrBSPNode* head)
{
    srPrintf("----- Portalize ----\n");
    m_num_degenerate = 0;
    makeHeadnodePortals(head);
    cutNodePortals_r(head);
    srPrintf("Number of degenerate portals %i\n", m_num_degenerate);
}

void mrBSPPortalizer::makeHeadnodePortals(mrBSPNode* node)
{
    srOut << "Creating headnode portals: "
          << "{" << node->m_mins.x << "," << node->m_mins.y << "," << node->m_mins.z << "}"
          << "{" << node->m_maxs.x << "," << node->m_maxs.y << "," << node->m_maxs.z << "}" << '\n';

    float lower[3], upper[3];
    for (int i = 0; i < 3; ++i)
    {
        lower[i] = node->m_mins[i] - HEADNODE_MARGIN;
        upper[i] = node->m_maxs[i] + HEADNODE_MARGIN;
    }

    m_outsideNode.m_contents = 1;
    m_outsideNode.m_plane = nullptr;
    m_outsideNode.m_children[0] = nullptr;
    m_outsideNode.m_children[1] = nullptr;
    m_outsideNode.m_faces = nullptr;
    m_outsideNode.m_portals = nullptr;

    // Portal 3j + i lies on the low (j = 0) or high (j = 1) face of axis i, its plane
    // facing into the box. Created 0, 3, 1, 4, 2, 5; the planes are never released.
    mrBSPPortal* portals[6];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 2; ++j)
        {
            int n = 3 * j + i;
            mrBSPPortal* p = new mrBSPPortal;
            mrPlane* plane = new mrPlane;
            plane->m_normal = srVector3T<float>(0, 0, 0);
            if (j == 0)
            {
                plane->m_normal[i] = 1.0f;
                plane->m_dist = lower[i];
            }
            else
            {
                plane->m_normal[i] = -1.0f;
                plane->m_dist = -upper[i];
            }
            p->m_plane = plane;
            p->m_winding = new mrWinding(4);
            p->m_winding->baseFromPlane(*plane);
            portals[n] = p;
            addPortalToNodes(p, node, &m_outsideNode);
        }

    // Cut each base polygon down to the box face on its plane.
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j)
        {
            if (j == i)
                continue;
            if (!portals[i]->m_winding)
            {
                srAssertFail("portals[i]->m_winding", SOURCE, __LINE__, nullptr);
                break;
            }
            portals[i]->m_winding = mrWinding::clip(portals[i]->m_winding, portals[j]->m_plane, 1);
        }
}

// One portal of a node's list: which of its two lists continues at the node, and the
// numbers of its plane.
struct mrBSPPortalizer::PortalEntry
{
    mrBSPPortal* portal;
    int side;
    float plane[4]; // the portal's plane: normal and distance

    static PortalEntry of(mrBSPPortal* p, int side)
    {
        const mrPlane* plane = p->m_plane;
        return {p, side, {plane->m_normal.x, plane->m_normal.y, plane->m_normal.z, plane->m_dist}};
    }
};

void mrBSPPortalizer::cutNodePortals_r(mrBSPNode* node)
{
    // Lists as portalize leaves them (the usual case) are cut by mrPortalCutter, which
    // gives the same portals and lists without walking every list link by link.
    if (mrPortalCutter::cut(node, m_num_degenerate))
        return;

    // An explicit stack instead of recursion, so very deep trees are safe. The back child
    // is pushed below the front child: the front subtree is cut completely before the
    // back one, exactly as a depth-first walk would.
    //
    // Cutting a node fills its children's lists, and records them as it goes. The record
    // of the front child is good when that child is cut, which comes right next; the one
    // of the back child is good when the front child is a leaf, since then nothing runs
    // in between. A record saves walking the list link by link.
    std::vector<mrBSPNode*> stack;
    std::vector<PortalEntry> recorded[2];
    mrBSPNode* recordedFor[2] = {nullptr, nullptr};
    std::vector<PortalEntry> entries;
    stack.push_back(node);
    while (!stack.empty())
    {
        mrBSPNode* n = stack.back();
        stack.pop_back();
        if (!n || !n->m_plane)
            continue;
        const int use = n == recordedFor[0] ? 0 : (n == recordedFor[1] ? 1 : -1);
        bool known = false;
        if (use >= 0)
            known = recorded[use].empty() ? !n->m_portals : n->m_portals == recorded[use][0].portal;
        if (known)
            entries.swap(recorded[use]);
        recordedFor[0] = recordedFor[1] = nullptr;
        cutNodePortals(n, known, entries, recorded);
        mrProgress::step();
        recordedFor[0] = n->m_children[0];
        recordedFor[1] = n->m_children[1];
        stack.push_back(n->m_children[1]);
        stack.push_back(n->m_children[0]);
    }
}

void mrBSPPortalizer::cutNodePortals(mrBSPNode* node, bool known, std::vector<PortalEntry>& entries,
                                     std::vector<PortalEntry> (&children)[2])
{
    mrBSPNode* front = node->m_children[0];
    mrBSPNode* back = node->m_children[1];

    // The node's list in order, known already or read once up front. Both walks below
    // follow it in this order, and handing portals down never changes the links that
    // lead from one of them to the next on this node (each is the head when it leaves,
    // and its other node is never this one). Knowing every portal in advance lets the
    // walks fetch the planes and windings they need ahead of time instead of waiting on
    // each in turn.
    bool mislinked = false;
    if (!known)
    {
        entries.clear();
        for (mrBSPPortal* p = node->m_portals; p;)
        {
            int side = p->sideOf(node);
            if (side < 0)
            {
                mislinked = true; // reported where each walk reaches it
                break;
            }
            entries.push_back(PortalEntry::of(p, side));
            p = p->m_next[side];
        }
    }
    const size_t count = entries.size();
    const size_t ahead = 8;

    // What is pushed on each child's list, in order; the list is the reverse.
    for (std::vector<PortalEntry>& c : children)
        c.clear();
    auto link = [&](mrBSPPortal* p, mrBSPNode* f, mrBSPNode* b)
    {
        addPortalToNodes(p, f, b);
        if (f == front || f == back)
            children[f == front ? 0 : 1].push_back(PortalEntry::of(p, 0));
        if (b == front || b == back)
            children[b == front ? 0 : 1].push_back(PortalEntry::of(p, 1));
    };

    mrBSPPortal* newPortal = new mrBSPPortal;
    newPortal->m_plane = node->m_plane;
    mrWinding* w = new mrWinding(4);
    w->baseFromPlane(*node->m_plane);

    // Clip the node's polygon to its cell: the inside of every portal that bounds it. A
    // clip that can find no point of the polygon behind the plane leaves it as it is, so
    // it is not made; the polygon's box says when.
    bool clippedAway = false;
    float wmins[3], wmaxs[3];
    bool wboxed = windingBox(w, wmins, wmaxs);
    for (size_t i = 0; i < count; ++i)
    {
        const PortalEntry& e = entries[i];
        float numbers[4] = {e.plane[0], e.plane[1], e.plane[2], e.plane[3]};
        if (e.side == 1)
            for (float& v : numbers)
                v = -v;
        double lo, hi;
        if (wboxed && mrPortalCutter::distanceRange(wmins, wmaxs, numbers, lo, hi) && lo > -WINDING_EPSILON)
            continue;
        mrPlane plane(numbers[0], numbers[1], numbers[2], numbers[3]);
        mrWinding* clipped = mrWinding::clip(w, &plane, 1);
        if (!clipped)
        {
            w = nullptr;
            m_num_degenerate++;
            clippedAway = true;
            break;
        }
        if (clipped != w)
            wboxed = windingBox(clipped, wmins, wmaxs);
        w = clipped;
    }
    if (mislinked && !clippedAway)
        srAssertFail("0", SOURCE, __LINE__, "CutNodePortals_r: mislinked portal");

    if (w)
    {
        newPortal->m_winding = w;
        link(newPortal, front, back);
    }
    else
        delete newPortal; // clipped to nothing: counted above, never linked

    // Hand the node's portals down to its children, splitting those that straddle the plane.
    for (size_t i = 0; i < count; ++i)
    {
        if (i + 2 * ahead < count)
            __builtin_prefetch(entries[i + 2 * ahead].portal);
        if (i + ahead < count)
        {
            const PortalEntry& next = entries[i + ahead];
            __builtin_prefetch(next.portal->m_nodes[1 - next.side]);
            if (next.portal->m_winding)
                __builtin_prefetch(next.portal->m_winding->m_points.m_data);
        }
        const PortalEntry& e = entries[i];
        mrBSPPortal* p = e.portal;
        const int side = e.side;
        mrBSPNode* other = p->m_nodes[1 - side];

        removePortalFromNode(p, p->m_nodes[0]);
        removePortalFromNode(p, p->m_nodes[1]);

        mrWinding* frontPart = nullptr;
        mrWinding* backPart = nullptr;
        mrWinding::divide(p->m_winding, node->m_plane, &frontPart, &backPart);

        // A fragment keeps its orientation: the child takes the slot its parent held.
        if (!frontPart)
        {
            if (side == 0)
                link(p, back, other);
            else
                link(p, other, back);
        }
        else if (!backPart)
        {
            if (side == 0)
                link(p, front, other);
            else
                link(p, other, front);
        }
        else
        {
            mrBSPPortal* backPortal = new mrBSPPortal;
            backPortal->m_plane = p->m_plane;
            backPortal->m_winding = backPart;
            delete p->m_winding;
            p->m_winding = frontPart;
            if (side == 0)
            {
                link(p, front, other);
                link(backPortal, back, other);
            }
            else
            {
                link(p, other, front);
                link(backPortal, other, back);
            }
        }
    }
    if (mislinked)
        srAssertFail("0", SOURCE, __LINE__, "CutNodePortals_r: mislinked portal");
    // Portals go to the head of a list, so each child's list is its pushes reversed.
    for (std::vector<PortalEntry>& c : children)
        std::reverse(c.begin(), c.end());
}

void mrBSPPortalizer::addPortalToNodes(mrBSPPortal* portal, mrBSPNode* front, mrBSPNode* back)
{
    if (portal->m_nodes[0] || portal->m_nodes[1])
        srAssertFail("0", SOURCE, __LINE__, "AddPortalToNode: already included");

    portal->m_nodes[0] = front;
    portal->m_next[0] = front->m_portals;
    front->m_portals = portal;

    portal->m_nodes[1] = back;
    portal->m_next[1] = back->m_portals;
    back->m_portals = portal;
}

void mrBSPPortalizer::removePortalFromNode(mrBSPPortal* portal, mrBSPNode* node)
{
    if (!node)
        return;
    // Find the link that leads to the portal.
    mrBSPPortal** link = &node->m_portals;
    for (;;)
    {
        mrBSPPortal* t = *link;
        if (!t)
        {
            srAssertFail("0", SOURCE, __LINE__, "RemovePortalFromNode: portal not in leaf");
            return;
        }
        if (t == portal)
            break;
        int side = t->sideOf(node);
        if (side < 0)
        {
            srAssertFail("0", SOURCE, __LINE__, "RemovePortalFromNode: portal not bounding leaf");
            return;
        }
        link = &t->m_next[side];
    }

    if (portal->m_nodes[0] == node)
    {
        *link = portal->m_next[0];
        portal->m_nodes[0] = nullptr;
    }
    else if (portal->m_nodes[1] == node)
    {
        *link = portal->m_next[1];
        portal->m_nodes[1] = nullptr;
    }
}

void mrBSPPortalizer::freeAllPortals(mrBSPNode* node)
{
    if (freeAllPortalsAtOnce(node))
        return;

    // Children before their parent, front subtree before back subtree, with an explicit
    // stack so that any depth is safe. A node is visited twice: first to queue its
    // children, then (once both subtrees are done) to free its own portals.
    struct Visit
    {
        mrBSPNode* node;
        bool childrenDone;
    };
    std::vector<Visit> stack;
    stack.push_back({node, false});
    while (!stack.empty())
    {
        Visit v = stack.back();
        stack.pop_back();
        if (!v.node)
            continue;
        if (!v.childrenDone && v.node->m_plane)
        {
            stack.push_back({v.node, true});
            stack.push_back({v.node->m_children[1], false});
            stack.push_back({v.node->m_children[0], false});
            continue;
        }
        freeNodePortals(v.node);
    }
}

bool mrBSPPortalizer::freeAllPortalsAtOnce(mrBSPNode* head)
{
    // Unlinking portals one by one searches each other node's list for the link to the
    // portal: on the outside node, which collects every outer fragment, that is a long
    // search per portal. Every portal of the subtree goes, and removing any set of
    // portals from a list leaves the others in the same order whatever the order of
    // removal, so the lists are filtered in one pass each instead. Only for sound lists:
    // anything the one-by-one way would report (a portal that does not bound the node
    // whose list holds it, a portal missing from its other node's list) leaves the work
    // to it, untouched.
    std::vector<mrBSPNode*> nodes;
    std::vector<mrBSPNode*> stack;
    if (head)
        stack.push_back(head);
    while (!stack.empty())
    {
        mrBSPNode* n = stack.back();
        stack.pop_back();
        nodes.push_back(n);
        if (n->m_plane)
            for (mrBSPNode* c : n->m_children)
                if (c)
                    stack.push_back(c);
    }

    std::vector<mrBSPPortal*> portals;
    for (mrBSPNode* n : nodes)
        for (mrBSPPortal* p = n->m_portals; p;)
        {
            int side = p->sideOf(n);
            if (side < 0 || p->m_nodes[0] == p->m_nodes[1])
                return false;
            portals.push_back(p);
            p = p->m_next[side];
        }
    std::sort(portals.begin(), portals.end());
    portals.erase(std::unique(portals.begin(), portals.end()), portals.end());
    auto doomed = [&portals](const mrBSPPortal* p) { return std::binary_search(portals.begin(), portals.end(), p); };
    // Every portal on a list of the subtree is doomed; only lists outside it are filtered.
    std::sort(nodes.begin(), nodes.end());
    auto inside = [&nodes](const mrBSPNode* n) { return std::binary_search(nodes.begin(), nodes.end(), n); };

    // Every node a doomed portal is linked to, and how many doomed portals it must hold.
    std::vector<mrBSPNode*> touched;
    for (mrBSPPortal* p : portals)
        for (mrBSPNode* n : p->m_nodes)
            if (n)
                touched.push_back(n);
    std::sort(touched.begin(), touched.end());
    std::vector<mrBSPNode*> ends;
    std::vector<size_t> expected;
    for (mrBSPNode* n : touched)
    {
        if (ends.empty() || ends.back() != n)
        {
            ends.push_back(n);
            expected.push_back(0);
        }
        ++expected.back();
    }
    std::vector<char> within(ends.size());
    for (size_t i = 0; i < ends.size(); ++i)
    {
        within[i] = inside(ends[i]);
        size_t found = 0;
        for (mrBSPPortal* p = ends[i]->m_portals; p;)
        {
            int side = p->sideOf(ends[i]);
            if (side < 0)
                return false;
            found += within[i] || doomed(p);
            p = p->m_next[side];
        }
        if (found != expected[i])
            return false;
    }

    for (size_t i = 0; i < ends.size(); ++i)
    {
        mrBSPNode* n = ends[i];
        if (within[i])
        {
            n->m_portals = nullptr;
            continue;
        }
        mrBSPPortal** link = &n->m_portals;
        while (mrBSPPortal* p = *link)
        {
            int side = p->sideOf(n);
            if (doomed(p))
                *link = p->m_next[side];
            else
                link = &p->m_next[side];
        }
    }
    for (mrBSPPortal* p : portals)
    {
        delete p->m_winding;
        delete p;
    }
    return true;
}

void mrBSPPortalizer::freeNodePortals(mrBSPNode* node)
{
    for (mrBSPPortal* p = node->m_portals; p;)
    {
        int side = p->sideOf(node);
        if (side < 0)
            break; // a mislinked list cannot be followed any further
        mrBSPPortal* next = p->m_next[side];
        removePortalFromNode(p, p->m_nodes[0]);
        removePortalFromNode(p, p->m_nodes[1]);
        delete p->m_winding;
        delete p;
        p = next;
    }
}

void mrBSPPortalizer::releaseMaterials()
{
    for (uint32_t i = 0; i < m_materials.size(); ++i)
        if (m_materials.at(i))
        {
            m_materials.at(i)->release();
            m_materials[i] = nullptr;
        }
}

void mrBSPPortalizer::releasePortals(mrBSPNode* head)
{
    // Only outer portals and their fragments touch the outside node, so its list names
    // exactly the planes makeHeadnodePortals made.
    std::vector<mrPlane*> outerPlanes;
    for (mrBSPPortal* p = m_outsideNode.m_portals; p;)
    {
        int side = p->sideOf(&m_outsideNode);
        if (side < 0)
            break;
        if (std::find(outerPlanes.begin(), outerPlanes.end(), p->m_plane) == outerPlanes.end())
            outerPlanes.push_back(p->m_plane);
        p = p->m_next[side];
    }
    freeAllPortals(head);
    for (mrPlane* plane : outerPlanes)
        delete plane;
}

void mrBSPPortalizer::writePortalfile(mrBSPNode* head) { writePortalfile(head, PORTAL_FILE); }

bool mrBSPPortalizer::writePortalfile(mrBSPNode* head, const char* path)
{
    if (!path)
        path = PORTAL_FILE;

    // Counters reset first, so writing the same tree twice gives the same file.
    m_num_visleafs = 0;
    m_num_visportals = 0;
    numberLeafs_r(head);

    printf("writing %s\n", path);
    fflush(stdout);

    // Complete or not at all, and a device or pipe is written through, never replaced.
    mrOutputFile out;
    std::string why;
    if (!out.open(path, why))
    {
        srAssertFail("0", SOURCE, __LINE__, "Error opening %s");
        return false;
    }
    writePortalContents(head, out.file());
    if (!out.commit(why))
    {
        srAssertFail("0", SOURCE, __LINE__, "Error writing %s");
        return false;
    }
    return true;
}

bool mrBSPPortalizer::writePortalfile(mrBSPNode* head, FILE* file, const char* name)
{
    m_num_visleafs = 0;
    m_num_visportals = 0;
    numberLeafs_r(head);

    printf("writing %s\n", name ? name : PORTAL_FILE);
    fflush(stdout);
    if (!file)
    {
        srAssertFail("0", SOURCE, __LINE__, "Error opening %s");
        return false;
    }
    writePortalContents(head, file);
    return ferror(file) == 0;
}

void mrBSPPortalizer::writePortalContents(mrBSPNode* head, FILE* file)
{
    srPrintf("Writing %i visleafs %i visportals\n", m_num_visleafs, m_num_visportals);

    s_portalFile = file;
    fprintf(s_portalFile, "%s\n", "PRT");
    fprintf(s_portalFile, "%i\n", m_num_visleafs);
    fprintf(s_portalFile, "%i\n", m_num_visportals);
    writePortalFile_r(head);
    s_portalFile = nullptr;
}

void mrBSPPortalizer::numberLeafs_r(mrBSPNode* node)
{
    walkFrontFirst(
        node, [](mrBSPNode* n) { n->m_leafnum = -99; },
        [](mrBSPNode* n)
        {
            if (n->m_contents == 1)
            {
                n->m_leafnum = -1;
                return;
            }
            n->m_leafnum = m_num_visleafs++;
            for (mrBSPPortal* p = n->m_portals; p;)
            {
                int side = p->sideOf(n);
                if (side < 0)
                    break;
                if (side == 0 && sameContents(p))
                    m_num_visportals++;
                p = p->m_next[side];
            }
        });
}

void mrBSPPortalizer::writePortalFile_r(mrBSPNode* node)
{
    if (!s_portalFile)
        return;
    walkFrontFirst(
        node, [](mrBSPNode*) {},
        [](mrBSPNode* n)
        {
            if (n->m_contents != 1)
                writeLeafPortals(n);
        });
}

void mrBSPPortalizer::writeLeafPortals(mrBSPNode* node)
{
    for (mrBSPPortal* p = node->m_portals; p;)
    {
        int side = p->sideOf(node);
        if (side < 0)
            break;
        mrWinding* w = p->m_winding;
        if (w && side == 0 && sameContents(p))
        {
            // A winding that faces away from its portal plane names its back leaf first;
            // the points keep their order. Reproducibility promise: the dot product in
            // double, summed x, y, z.
            mrPlane own;
            w->getPlane(own);
            const mrPlane& pp = *p->m_plane;
            double dot = (double)own.m_normal.x * pp.m_normal.x + (double)own.m_normal.y * pp.m_normal.y +
                         (double)own.m_normal.z * pp.m_normal.z;
            int first = p->m_nodes[0]->m_leafnum;
            int second = p->m_nodes[1]->m_leafnum;
            if (dot < 0.99)
            {
                first = p->m_nodes[1]->m_leafnum;
                second = p->m_nodes[0]->m_leafnum;
            }
            // The line is put together in memory and written in one go: the same bytes
            // as one write per piece, with far fewer calls into the file layer.
            std::string& line = lineBuffer();
            line.clear();
            char piece[64];
            line.append(piece, (size_t)std::snprintf(piece, sizeof(piece), "%i %i %i ", w->m_numpoints, first, second));
            for (int i = 0; i < w->m_numpoints; ++i)
            {
                const srVector3T<float>& pt = w->m_points[(uint32_t)i];
                line += '(';
                appendFloat(line, pt.x);
                appendFloat(line, pt.y);
                appendFloat(line, pt.z);
                line += ") ";
            }
            line += '\n';
            fwrite(line.data(), 1, line.size(), s_portalFile);
        }
        p = p->m_next[side];
    }
}

void mrBSPPortalizer::writeFloat(FILE* file, float value)
{
    std::string text;
    appendFloat(text, value);
    fputs(text.c_str(), file);
}

srMeshModel* mrBSPPortalizer::createMeshModel(mrBSPNode* head)
{
    srModeler modeler;
    m_polycount = 0;
    m_materialCounter = 0;

    // Earlier materials are overwritten in the table, not released.
    for (uint32_t i = 0; i < NUM_MATERIALS; ++i)
    {
        mrMaterial* m = new mrMaterial;
        m_materials[i] = m;
        // Three draws, in the order red, green, blue.
        float red = (float)(rand() % 100) * 0.01f;
        float green = (float)(rand() % 100) * 0.01f;
        float blue = (float)(rand() % 100) * 0.01f;
        m->m_color0[0] = red;
        m->m_color0[1] = green;
        m->m_color0[2] = blue;
        m->m_color0[3] = 1.0f;
        m->m_flags = 1;
        m->m_color1[0] = red;
        m->m_color1[1] = green;
        m->m_color1[2] = blue;
        m->m_color1[3] = 1.0f;
        m->m_flags = 1;
        m->refreshPBlock(nullptr);
    }

    createLeafPolys_r(head, modeler);

    srOut << " mrBSPPortalizer::createMeshModel -> polys:" << '\n' << m_polycount << '\n';

    srMeshModel* mesh = new srMeshModel(0, 0);
    mesh->setName("portalizer created mesh");
    modeler.convert(*mesh, 1);
    return mesh;
}

void mrBSPPortalizer::createLeafPolys_r(mrBSPNode* node, srModeler& modeler)
{
    // One work polygon serves the whole walk: it is reset before each use.
    srModeler::Polygon poly(10);
    walkFrontFirst(
        node, [](mrBSPNode*) {},
        [&](mrBSPNode* n)
        {
            if (n->m_contents != 1)
                addLeafPolys(n, modeler, poly);
        });
}

void mrBSPPortalizer::addLeafPolys(mrBSPNode* node, srModeler& modeler, srModeler::Polygon& poly)
{
    for (mrBSPPortal* p = node->m_portals; p;)
    {
        int side = p->sideOf(node);
        if (side < 0)
            break;
        if (side == 0)
        {
            if (p->m_nodes[1] && p->m_nodes[0]->m_contents != p->m_nodes[1]->m_contents)
            {
                mrWinding* w = p->m_winding;
                int n = w ? w->m_numpoints : 0;
                poly.reset();
                poly.reAllocate(n);
                if (n < 3)
                    srAssertFail("w->m_numpoints>=3", SOURCE, __LINE__, nullptr);
                else
                {
                    // Reversed, so the polygon faces the other way from the portal.
                    mrMaterial* material = m_materials[m_materialCounter];
                    for (int k = 0; k < n; ++k)
                    {
                        poly[k].m_pos = w->m_points[(uint32_t)(n - 1 - k)];
                        poly[k].m_material = material;
                    }
                    modeler.addPolygon(poly);
                    m_polycount++;
                }
            }
            // Every portal the leaf owns takes a turn, polygon or not.
            m_materialCounter = (m_materialCounter + 1) % NUM_MATERIALS;
        }
        p = p->m_next[side];
    }
}
