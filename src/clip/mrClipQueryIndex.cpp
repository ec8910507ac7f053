#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

#include <meridbsp/clip/mrClipQueryIndex.h>
#include <meridbsp/clip/mrThreadHandoff.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

namespace
{
// Chains shorter than this are walked node by node.
const int32_t MIN_RUN = 64;
// Spines (chains with subtrees off them) shorter than this are left to the plain walk
// and to the chains of consecutive nodes within them: in a bushy tree the cones cost
// more than they save.
const int32_t MIN_SPINE = 1024;
// Nodes tested one by one on entering a chain, close to its surface, before the cones
// are consulted.
const int SHORT_LINEAR_STEPS = 8;
// Nodes a trace tests one by one before the cones are consulted.
const int TRACE_LINEAR_STEPS = 4096;
// Chains up to this long are walked outright by points outside their inscribed sphere.
const int WALKED_RUN = 1024;
// Planes per cone leaf.
const size_t LEAF_PLANES = 8;
// Deeper than any cone hierarchy can be: every split halves the planes.
const int STACK_DEPTH = 64;
// Points and plane values beyond this are left to the plain walk, so that no float
// product in a signed distance can overflow.
const double MAX_MAGNITUDE = 1e18;
// Relative bound on the rounding of the float signed distance n.z*p.z + n.y*p.y +
// n.x*p.x - d (four rounded terms: at most about 4 * 2^-24 of their magnitudes), with
// room to spare, plus an absolute floor for products in the subnormal range.
const double FLOAT_ROUNDING = 3e-7;
const double FLOAT_FLOOR = 1e-37;
// The grid: about this many cells per node, within these limits.
const double CELLS_PER_NODE = 12.0;
const double MIN_CELLS = 4096.0, MAX_CELLS = 2097152.0;
const int32_t MAX_CELLS_PER_AXIS = 1024;
// Node tests the grid may spend: per node of the tree (at least the minimum), plus per
// cell. A box the budget does not reach keeps the node its walk had got to.
const int64_t GRID_TESTS_PER_NODE = 64;
const int64_t GRID_TESTS_MIN = 1 << 16;
const int64_t GRID_TESTS_PER_CELL = 8;
// Nodes searched below a node a grid box straddles for a leaf kind all its points share.
const int COMMON_LEAF_NODES = 256;

inline bool inRange(const srVector3T<float>& p)
{
    return std::fabs(p.x) <= MAX_MAGNITUDE && std::fabs(p.y) <= MAX_MAGNITUDE && std::fabs(p.z) <= MAX_MAGNITUDE;
}
} // namespace

mrClipQueryIndex::mrClipQueryIndex(const mrClipNode* nodes, uint32_t numnodes, const mrPlane* planes, uint32_t,
                                   const srVector3T<float>& mins, const srVector3T<float>& maxs, bool parallel)
{
    m_nodes.resize(numnodes);
    for (uint32_t i = 0; i < numnodes; ++i)
    {
        const mrPlane& pl = planes[nodes[i].planeIndex];
        Node& n = m_nodes[i];
        n.n[0] = pl.m_normal.x;
        n.n[1] = pl.m_normal.y;
        n.n[2] = pl.m_normal.z;
        n.d = pl.m_dist;
        n.child[0] = nodes[i].child[0];
        n.child[1] = nodes[i].child[1];
        n.run = -1;
        n.leave = 0;
    }

    findRuns();
    buildGrid(mins, maxs, parallel);
}

void mrClipQueryIndex::findRuns()
{
    // Long spines: from every node that does not lie on its parent's spine, follow the
    // larger subtree (the first child on a tie). A curved closed mesh makes one about as
    // long as the tree is deep, with small subtrees off it. Children come after their
    // parents, so subtree sizes are summed backwards.
    const int32_t count = (int32_t)m_nodes.size();
    std::vector<int32_t> size((size_t)count, 1);
    for (int32_t i = count - 1; i >= 0; --i)
        for (int k = 0; k < 2; ++k)
            if (m_nodes[i].child[k] >= 0)
                size[i] += size[m_nodes[i].child[k]];
    auto subtree = [&](int32_t c) { return c >= 0 ? size[c] : 0; };
    auto onward = [&](int32_t i) { return subtree(m_nodes[i].child[1]) > subtree(m_nodes[i].child[0]) ? 1 : 0; };
    std::vector<char> head((size_t)count, 0);
    if (count > 0)
        head[0] = 1;
    for (int32_t i = 0; i < count; ++i)
    {
        const int32_t off = m_nodes[i].child[1 - onward(i)];
        if (off >= 0)
            head[off] = 1;
    }
    for (int32_t i = 0; i < count; ++i)
    {
        if (!head[i])
            continue;
        int32_t length = 1, last = i;
        while (m_nodes[last].child[onward(last)] >= 0)
        {
            last = m_nodes[last].child[onward(last)];
            ++length;
        }
        if (length < MIN_SPINE)
            continue;
        // Where both children are leaves (the last node), the spine leaves on the side
        // the node before it leaves on.
        int32_t side = 0;
        for (int32_t j = i;; j = m_nodes[j].child[side ^ 1])
        {
            if (j != last)
                side = 1 - onward(j);
            m_nodes[j].leave = side;
            m_nodes[j].run = (int32_t)m_runs.size();
            if (j == last)
                break;
        }
        addRun(i, last, length);
    }

    // Shorter chains of consecutive nodes, each with the same leaf on one side and the
    // next node on the other (a small closed mesh, or a closed part of a larger one).
    for (int32_t i = 0; i < count;)
    {
        int side = -1;
        if (m_nodes[i].run < 0 && m_nodes[i].child[0] < 0 && m_nodes[i].child[1] == i + 1)
            side = 0;
        else if (m_nodes[i].run < 0 && m_nodes[i].child[1] < 0 && m_nodes[i].child[0] == i + 1)
            side = 1;
        if (side < 0)
        {
            ++i;
            continue;
        }
        const int32_t leaf = m_nodes[i].child[side];
        int32_t k = i;
        while (k + 1 < count && m_nodes[k + 1].run < 0 && m_nodes[k].child[1 - side] == k + 1 &&
               m_nodes[k + 1].child[side] == leaf)
            ++k;
        if (k - i + 1 >= MIN_RUN)
        {
            for (int32_t j = i; j <= k; ++j)
            {
                m_nodes[j].leave = side;
                m_nodes[j].run = (int32_t)m_runs.size();
            }
            addRun(i, k, k - i + 1);
        }
        i = k + 1;
    }
}

void mrClipQueryIndex::addRun(int32_t first, int32_t last, int32_t length)
{
    Run run;
    run.first = first;
    run.last = last;
    run.length = length;
    run.root = -1;
    run.specialBegin = run.specialEnd = 0;
    run.exit = onChain(last);
    // A chain of consecutive nodes is walked without reading where each one leads.
    run.contiguous = last - first + 1 == length;
    run.leaf = m_nodes[first].child[m_nodes[first].leave];
    run.side = m_nodes[first].leave;
    run.uniform = run.leaf < 0;
    for (int32_t j = first;; j = onChain(j))
    {
        run.uniform = run.uniform && m_nodes[j].child[m_nodes[j].leave] == run.leaf;
        if (m_nodes[j].leave != run.side)
            run.side = -1;
        if (j == last)
            break;
    }
    buildRun(run);
    m_runs.push_back(run);
}

void mrClipQueryIndex::buildRun(Run& run)
{
    // Planes in the orientation where leaving the chain means being in front; those no
    // cone can bound (no normal, or values out of range) are tested every time.
    std::vector<int32_t> members;
    std::vector<int32_t> special;
    double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (int32_t j = run.first, walked = 0; walked < run.length; j = onChain(j), ++walked)
    {
        const Node& n = m_nodes[j];
        const double len2 = (double)n.n[0] * n.n[0] + (double)n.n[1] * n.n[1] + (double)n.n[2] * n.n[2];
        bool bounded = len2 > 0.0 && std::fabs((double)n.d) <= MAX_MAGNITUDE;
        for (int k = 0; k < 3; ++k)
            bounded = bounded && std::fabs((double)n.n[k]) <= MAX_MAGNITUDE;
        if (!bounded)
        {
            special.push_back(j);
            continue;
        }
        members.push_back(j);
        // Foot point of the plane, for the centre the cones are seen from.
        for (int k = 0; k < 3; ++k)
        {
            const double foot = (double)n.n[k] * (double)n.d / len2;
            lo[k] = std::min(lo[k], foot);
            hi[k] = std::max(hi[k], foot);
        }
    }
    for (int k = 0; k < 3; ++k)
        run.centre[k] = members.empty() ? 0.0 : 0.5 * (lo[k] + hi[k]);

    run.specialBegin = (int32_t)m_entries.size();
    m_entries.insert(m_entries.end(), special.begin(), special.end());
    run.specialEnd = (int32_t)m_entries.size();
    if (members.empty())
        return;

    std::vector<Member> units(members.size());
    for (size_t m = 0; m < members.size(); ++m)
    {
        const Node& n = m_nodes[members[m]];
        Member& u = units[m];
        const double s = n.leave == 0 ? 1.0 : -1.0;
        const double len = std::sqrt((double)n.n[0] * n.n[0] + (double)n.n[1] * n.n[1] + (double)n.n[2] * n.n[2]);
        u.node = members[m];
        for (int k = 0; k < 3; ++k)
            u.unit[k] = s * (double)n.n[k] / len;
        // Height of the centre behind the plane (in the leaving orientation), rounded down.
        double nc = 0.0, mag = std::fabs((double)n.d);
        for (int k = 0; k < 3; ++k)
        {
            nc += (double)n.n[k] * run.centre[k];
            mag += std::fabs((double)n.n[k] * run.centre[k]);
        }
        u.height = s * ((double)n.d - nc) - 1e-12 * mag - 1e-300;
        u.length = len * (1.0 + 1e-12);
        u.length1 = std::fabs((double)n.n[0]) + std::fabs((double)n.n[1]) + std::fabs((double)n.n[2]);
        u.dist = std::fabs((double)n.d);
    }
    m_cones.reserve(m_cones.size() + 2 * (units.size() / LEAF_PLANES + 1));
    run.root = buildCones(units, 0, units.size());
}

int mrClipQueryIndex::buildCones(std::vector<Member>& members, size_t begin, size_t end)
{
    // Top down: each cone holds its planes' normals exactly (up to rounding, widened);
    // its planes are halved along the normal component that varies most. Every split
    // halves, so the depth stays below the traversal stacks.
    const int index = (int)m_cones.size();
    m_cones.push_back(Cone());

    Cone c;
    double sum[3] = {0, 0, 0};
    double ulo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, uhi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
    for (size_t m = begin; m < end; ++m)
        for (int k = 0; k < 3; ++k)
        {
            sum[k] += members[m].unit[k];
            ulo[k] = std::min(ulo[k], members[m].unit[k]);
            uhi[k] = std::max(uhi[k], members[m].unit[k]);
        }
    const double sumLen = std::sqrt(sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2]);
    c.axis[0] = 1.0;
    c.axis[1] = c.axis[2] = 0.0;
    if (sumLen > 1e-9 * (double)(end - begin))
        for (int k = 0; k < 3; ++k)
            c.axis[k] = sum[k] / sumLen;
    double cosAngle = 1.0;
    c.minHeight = HUGE_VAL;
    c.maxNormal = c.maxNormal1 = c.maxDist = 0.0;
    c.first = INT32_MAX;
    c.last = INT32_MIN;
    for (size_t m = begin; m < end; ++m)
    {
        const Member& u = members[m];
        cosAngle = std::min(cosAngle, c.axis[0] * u.unit[0] + c.axis[1] * u.unit[1] + c.axis[2] * u.unit[2]);
        c.minHeight = std::min(c.minHeight, u.height);
        c.maxNormal = std::max(c.maxNormal, u.length);
        c.maxNormal1 = std::max(c.maxNormal1, u.length1);
        c.maxDist = std::max(c.maxDist, u.dist);
        c.first = std::min(c.first, u.node);
        c.last = std::max(c.last, u.node);
    }
    // The half-angle, widened for the rounding of the products above.
    cosAngle = std::max(-1.0, cosAngle - 1e-12);
    c.cosAngle = cosAngle;
    c.sinAngle = std::min(1.0, std::sqrt(std::max(0.0, 1.0 - cosAngle * cosAngle)) + 1e-12);
    c.child[0] = c.child[1] = -1;
    c.begin = c.end = 0;

    if (end - begin <= LEAF_PLANES)
    {
        c.begin = (int32_t)m_entries.size();
        for (size_t m = begin; m < end; ++m)
            m_entries.push_back(members[m].node);
        std::sort(m_entries.begin() + c.begin, m_entries.end());
        c.end = (int32_t)m_entries.size();
        m_cones[index] = c;
        return index;
    }

    int axis = 0;
    for (int k = 1; k < 3; ++k)
        if (uhi[k] - ulo[k] > uhi[axis] - ulo[axis])
            axis = k;
    const size_t mid = begin + (end - begin) / 2;
    std::nth_element(members.begin() + (std::ptrdiff_t)begin, members.begin() + (std::ptrdiff_t)mid,
                     members.begin() + (std::ptrdiff_t)end,
                     [axis](const Member& a, const Member& b)
                     { return a.unit[axis] < b.unit[axis] || (a.unit[axis] == b.unit[axis] && a.node < b.node); });
    m_cones[index] = c;
    const int left = buildCones(members, begin, mid);
    const int right = buildCones(members, mid, end);
    m_cones[index].child[0] = left;
    m_cones[index].child[1] = right;
    return index;
}

bool mrClipQueryIndex::mayLeave(const Cone& cone, const double* v, double r, double pmax)
{
    // A plane of the cone (normal n, height h of the centre behind it) has the point
    // p = centre + v in front by at most |n| r cos(max(0, angle(v, axis) - half-angle)) - h,
    // and the float signed distance differs from the true one by at most the rounding.
    double reach = cone.maxNormal * r;
    if (r > 0.0)
    {
        const double cosV = (v[0] * cone.axis[0] + v[1] * cone.axis[1] + v[2] * cone.axis[2]) / r;
        if (cosV < cone.cosAngle)
        {
            // Facing away, a plane's reach is negative; zero bounds it whatever its length.
            const double sinV = std::sqrt(std::max(0.0, 1.0 - cosV * cosV));
            reach *= std::max(0.0, cosV * cone.cosAngle + sinV * cone.sinAngle);
        }
    }
    const double rounding = FLOAT_ROUNDING * (cone.maxNormal1 * pmax + cone.maxDist) + FLOAT_FLOOR;
    const double bound = reach - cone.minHeight + rounding;
    const double slack = 1e-9 * (std::fabs(reach) + std::fabs(cone.minHeight) + rounding);
    // Any NaN keeps the cone.
    return !(bound + slack < 0.0);
}

bool mrClipQueryIndex::anyLeaves(const Run& run, int start, const srVector3T<float>& p) const
{
    for (int32_t e = run.specialBegin; e < run.specialEnd; ++e)
        if (m_entries[e] >= start && leaves(m_entries[e], p))
            return true;
    if (run.root < 0)
        return false;
    const double v[3] = {(double)p.x - run.centre[0], (double)p.y - run.centre[1], (double)p.z - run.centre[2]};
    const double r = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    const double pmax = std::max(std::fabs((double)p.x), std::max(std::fabs((double)p.y), std::fabs((double)p.z)));
    int stack[STACK_DEPTH];
    int top = 0;
    stack[top++] = run.root;
    while (top > 0)
    {
        const Cone& c = m_cones[stack[--top]];
        if (c.last < start || !mayLeave(c, v, r, pmax))
            continue;
        if (c.child[0] < 0)
        {
            for (int32_t e = c.begin; e < c.end; ++e)
                if (m_entries[e] >= start && leaves(m_entries[e], p))
                    return true;
            continue;
        }
        stack[top++] = c.child[0];
        stack[top++] = c.child[1];
    }
    return false;
}

int mrClipQueryIndex::firstLeaving(const Run& run, int start, const srVector3T<float>& p1,
                                   const srVector3T<float>& p2) const
{
    // One point asked for twice (a walk, not a trace) is tested once.
    const bool pair = std::memcmp(&p1, &p2, sizeof p1) != 0;
    int best = INT_MAX;
    for (int32_t e = run.specialBegin; e < run.specialEnd; ++e)
    {
        const int j = m_entries[e];
        if (j >= start && (leaves(j, p1) || (pair && leaves(j, p2))))
        {
            best = j;
            break; // entries are in node order
        }
    }
    if (run.root >= 0)
    {
        const double v1[3] = {(double)p1.x - run.centre[0], (double)p1.y - run.centre[1], (double)p1.z - run.centre[2]};
        const double v2[3] = {(double)p2.x - run.centre[0], (double)p2.y - run.centre[1], (double)p2.z - run.centre[2]};
        const double r1 = std::sqrt(v1[0] * v1[0] + v1[1] * v1[1] + v1[2] * v1[2]);
        const double r2 = std::sqrt(v2[0] * v2[0] + v2[1] * v2[1] + v2[2] * v2[2]);
        const double m1 = std::max(std::fabs((double)p1.x), std::max(std::fabs((double)p1.y), std::fabs((double)p1.z)));
        const double m2 = std::max(std::fabs((double)p2.x), std::max(std::fabs((double)p2.y), std::fabs((double)p2.z)));
        int stack[STACK_DEPTH];
        int top = 0;
        stack[top++] = run.root;
        while (top > 0)
        {
            const Cone& c = m_cones[stack[--top]];
            if (c.last < start || c.first >= best || (!mayLeave(c, v1, r1, m1) && (!pair || !mayLeave(c, v2, r2, m2))))
                continue;
            if (c.child[0] < 0)
            {
                for (int32_t e = c.begin; e < c.end; ++e)
                {
                    const int j = m_entries[e];
                    if (j < start)
                        continue;
                    if (j >= best)
                        break;
                    if (leaves(j, p1) || (pair && leaves(j, p2)))
                    {
                        best = j;
                        break;
                    }
                }
                continue;
            }
            // The cone with the earlier nodes is searched first, so `best` falls early.
            const Cone& a = m_cones[c.child[0]];
            const Cone& b = m_cones[c.child[1]];
            if (a.first <= b.first)
            {
                stack[top++] = c.child[1];
                stack[top++] = c.child[0];
            }
            else
            {
                stack[top++] = c.child[0];
                stack[top++] = c.child[1];
            }
        }
    }
    return best == INT_MAX ? -1 : best;
}

double mrClipQueryIndex::outside(const Run& run, const srVector3T<float>& p) const
{
    if (run.root < 0)
        return 1.0;
    const double v[3] = {(double)p.x - run.centre[0], (double)p.y - run.centre[1], (double)p.z - run.centre[2]};
    const double r = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    const Cone& root = m_cones[run.root];
    const double inner = root.minHeight / root.maxNormal;
    return r > inner ? 1.0 - inner / r : 0.0;
}

int mrClipQueryIndex::linearSteps(const Run& run, double outside)
{
    // A point outside a closed mesh's inscribed sphere by a share g of its distance is in
    // front of roughly g / 2 of the planes. Walking finds the first such node after
    // about 2 / g tests; the cones look at about g n / 2 planes. Far out the walk wins,
    // close to the surface the cones. Only the speed depends on this choice.
    if (outside <= 0.0)
        return 0;
    const int length = run.length;
    if (length <= WALKED_RUN)
        return length;
    const double root = std::sqrt((double)length);
    if (outside * root >= 2.0)
        return (int)(4.0 * root);
    return SHORT_LINEAR_STEPS;
}

int mrClipQueryIndex::chainStep(int node, const srVector3T<float>& p) const
{
    const Node& n = m_nodes[node];
    if (!inRange(p))
        return distance(n, p) >= 0.0f ? n.child[0] : n.child[1];
    const Run& run = m_runs[n.run];
    int j = node;
    const int steps = linearSteps(run, outside(run, p));
    if (run.contiguous && run.side >= 0)
    {
        // Consecutive nodes that all leave on one side: the tightest loop.
        const int stop = (int)std::min<int64_t>(run.last + 1, (int64_t)node + steps);
        const bool front = run.side == 0;
        for (; j < stop; ++j)
            if ((distance(m_nodes[j], p) >= 0.0f) == front)
                return m_nodes[j].child[run.side];
        if (j > run.last)
            return run.exit;
    }
    else
        for (int left = steps; left > 0; --left)
        {
            if (leaves(j, p))
                return m_nodes[j].child[m_nodes[j].leave];
            if (j == run.last)
                return run.exit;
            j = run.contiguous ? j + 1 : onChain(j);
        }
    // Where every off-chain child is the same leaf, any node that leaves will do.
    if (run.uniform)
        return anyLeaves(run, j, p) ? run.leaf : run.exit;
    const int first = firstLeaving(run, j, p, p);
    return first >= 0 ? m_nodes[first].child[m_nodes[first].leave] : run.exit;
}

int mrClipQueryIndex::traceSkip(int node, const srVector3T<float>& p1, const srVector3T<float>& p2) const
{
    const Node& n = m_nodes[node];
    if (!inRange(p1) || !inRange(p2))
        return node;
    const Run& run = m_runs[n.run];
    int j = node;
    // The first node matters here, not just any: the cones must then look at every
    // plane that could be it, so the walk goes further before they are asked.
    const double out = std::max(outside(run, p1), outside(run, p2));
    const int steps = out <= 0.0 ? 0 : TRACE_LINEAR_STEPS;
    if (run.contiguous && run.side >= 0)
    {
        const int stop = (int)std::min<int64_t>(run.last + 1, (int64_t)node + steps);
        const bool front = run.side == 0;
        for (; j < stop; ++j)
            if ((distance(m_nodes[j], p1) >= 0.0f) == front || (distance(m_nodes[j], p2) >= 0.0f) == front)
                return j;
        if (j > run.last)
            return run.exit;
    }
    else
        for (int left = steps; left > 0; --left)
        {
            if (leaves(j, p1) || leaves(j, p2))
                return j;
            if (j == run.last)
                return run.exit;
            j = run.contiguous ? j + 1 : onChain(j);
        }
    const int first = firstLeaving(run, j, p1, p2);
    return first >= 0 ? first : run.exit;
}

// ---------------------------------------------------------------------------------
// The grid of cells

int mrClipQueryIndex::boxSide(const Node& n, const double* lo, const double* hi) const
{
    // The exact signed distance over the box lies in [emin, emax] (products of floats are
    // exact in double); the float test differs from it by at most FLOAT_ROUNDING of the
    // terms' magnitudes. Any NaN, and magnitudes where float terms could overflow, leave
    // the box undecided.
    const double d = (double)n.d;
    double emin = -d, emax = -d, scale = std::fabs(d);
    for (int k = 0; k < 3; ++k)
    {
        const double a = (double)n.n[k] * lo[k], b = (double)n.n[k] * hi[k];
        emin += std::min(a, b);
        emax += std::max(a, b);
        scale += std::fabs((double)n.n[k]) * std::max(std::fabs(lo[k]), std::fabs(hi[k]));
    }
    if (!(scale <= MAX_MAGNITUDE * MAX_MAGNITUDE))
        return -1;
    const double margin = FLOAT_ROUNDING * scale + FLOAT_FLOOR;
    if (emin > margin)
        return 0;
    if (emax < -margin)
        return 1;
    return -1;
}

int32_t mrClipQueryIndex::commonLeaf(int32_t node, const double* lo, const double* hi, int64_t& budget,
                                     std::vector<int32_t>& stack) const
{
    // Every leaf a point of the box can reach from `node`, up to a few hundred nodes: the
    // value they share, or 1 when they differ (or the search gives up).
    int32_t found = 1;
    int visited = 0;
    stack.assign(1, node);
    while (!stack.empty())
    {
        const int32_t n = stack.back();
        stack.pop_back();
        if (n < 0)
        {
            if (found != 1 && found != n)
                return 1;
            found = n;
            continue;
        }
        if (++visited > COMMON_LEAF_NODES)
            return 1;
        --budget;
        const int side = boxSide(m_nodes[n], lo, hi);
        if (side != 1)
            stack.push_back(m_nodes[n].child[0]);
        if (side != 0)
            stack.push_back(m_nodes[n].child[1]);
    }
    return found;
}

void mrClipQueryIndex::buildGrid(const srVector3T<float>& mins, const srVector3T<float>& maxs, bool parallel)
{
    // A tree with long chains (a closed part) has its cones instead: pushing boxes down
    // a chain costs more than the cells save, and so does a grid over the deep, bushy
    // trees of curved meshes (a knot's 50,000 nodes took 60 ms for 1.5 times faster
    // points).
    if (m_nodes.empty() || !m_runs.empty())
        return;
    double lo[3], ext[3], largest = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        const double a = (double)mins[k], b = (double)maxs[k];
        if (!(a <= b) || !(std::fabs(a) <= MAX_MAGNITUDE) || !(std::fabs(b) <= MAX_MAGNITUDE))
            return;
        ext[k] = b - a;
        lo[k] = a;
        largest = std::max(largest, ext[k]);
    }
    if (!(largest > 0.0))
        return;
    double volume = 1.0;
    for (int k = 0; k < 3; ++k)
    {
        // A flat box still gets some depth; then a tenth more on each side.
        ext[k] = std::max(ext[k], largest * 1e-3);
        lo[k] -= 0.1 * ext[k];
        ext[k] *= 1.2;
        volume *= ext[k];
    }
    const double cells = std::min(MAX_CELLS, std::max(MIN_CELLS, CELLS_PER_NODE * (double)m_nodes.size()));
    const double side = std::cbrt(volume / cells);
    double width[3];
    for (int k = 0; k < 3; ++k)
    {
        m_dims[k] = (int32_t)std::min((double)MAX_CELLS_PER_AXIS, std::max(1.0, std::ceil(ext[k] / side)));
        m_gridLo[k] = (float)lo[k];
        m_gridInv[k] = (float)((double)m_dims[k] / ext[k]);
        m_gridEnd[k] = (float)m_dims[k];
        // The cell width the float mapping actually uses.
        width[k] = 1.0 / (double)m_gridInv[k];
        if (!std::isfinite(width[k]) || !(m_gridInv[k] > 0.0f))
        {
            m_dims[0] = m_dims[1] = m_dims[2] = 0;
            return;
        }
    }
    m_cells.assign((size_t)m_dims[0] * m_dims[1] * m_dims[2], 0);

    // Boxes of cells pushed down the tree, each from the node its enclosing box reached:
    // a box wholly on one side of a plane follows that side; a box that straddles is
    // split in eight, down to single cells.
    const int64_t budget = std::max(GRID_TESTS_MIN, GRID_TESTS_PER_NODE * (int64_t)m_nodes.size()) +
                           GRID_TESTS_PER_CELL * (int64_t)m_cells.size();
    const GridBox whole{{0, 0, 0}, {m_dims[0], m_dims[1], m_dims[2]}, 0};
    if (parallel && gridInParallel(whole, width, ext, budget))
        return;
    std::vector<GridBox> stack(1, whole);
    std::vector<int32_t> work;
    int64_t left = budget;
    while (!stack.empty())
    {
        const GridBox box = stack.back();
        stack.pop_back();
        gridStep(box, width, ext, left, work, stack);
    }
}

void mrClipQueryIndex::gridStep(const GridBox& box, const double* width, const double* ext, int64_t& budget,
                                std::vector<int32_t>& work, std::vector<GridBox>& parts)
{
    // The float mapping puts a point up to a few units in the last place outside its
    // cell, so each box is widened far beyond that.
    double blo[3], bhi[3];
    bool single = true;
    for (int k = 0; k < 3; ++k)
    {
        const double slack = 1e-5 * ext[k];
        blo[k] = (double)m_gridLo[k] + box.from[k] * width[k] - slack;
        bhi[k] = (double)m_gridLo[k] + box.to[k] * width[k] + slack;
        single = single && box.to[k] - box.from[k] == 1;
    }
    int32_t node = box.node;
    while (node >= 0 && budget > 0)
    {
        --budget;
        const int side = boxSide(m_nodes[node], blo, bhi);
        if (side < 0)
            break;
        node = m_nodes[node].child[side];
    }
    if (node >= 0 && budget > 0)
    {
        // The box straddles `node`; its points may still all end in leaves of one
        // kind (a BSP cuts solid and empty space into many convex pieces).
        const int32_t leaf = commonLeaf(node, blo, bhi, budget, work);
        if (leaf < 0)
            node = leaf;
    }
    if (node < 0 || single || budget <= 0)
    {
        for (int32_t z = box.from[2]; z < box.to[2]; ++z)
            for (int32_t y = box.from[1]; y < box.to[1]; ++y)
            {
                int32_t* row = &m_cells[((size_t)z * m_dims[1] + y) * m_dims[0]];
                std::fill(row + box.from[0], row + box.to[0], node);
            }
        return;
    }
    int32_t cuts[3][3];
    int count[3];
    for (int k = 0; k < 3; ++k)
    {
        cuts[k][0] = box.from[k];
        if (box.to[k] - box.from[k] > 1)
        {
            cuts[k][1] = box.from[k] + (box.to[k] - box.from[k]) / 2;
            cuts[k][2] = box.to[k];
            count[k] = 2;
        }
        else
        {
            cuts[k][1] = box.to[k];
            count[k] = 1;
        }
    }
    for (int a = 0; a < count[0]; ++a)
        for (int b = 0; b < count[1]; ++b)
            for (int c = 0; c < count[2]; ++c)
                parts.push_back(GridBox{
                    {cuts[0][a], cuts[1][b], cuts[2][c]}, {cuts[0][a + 1], cuts[1][b + 1], cuts[2][c + 1]}, node});
}

bool mrClipQueryIndex::gridInParallel(const GridBox& whole, const double* width, const double* ext, int64_t budget)
{
    // Boxes are independent of each other but for the shared budget of node tests. The
    // boxes go down without a limit, counting their tests: when they all fit in the
    // budget, the budget never ran out, and every cell is what the one-box-at-a-time
    // walk gives. When they do not, the walk is left to do it (and the cells to it).
    std::atomic<int64_t> spent{0};
    const int64_t unlimited = std::numeric_limits<int64_t>::max() / 2;
    // Boxes of at most this many cells are finished by the thread that made them.
    const int64_t SMALL_BOX = 512;
    std::function<void(const GridBox&)> push = [&](const GridBox& top)
    {
        std::vector<GridBox> stack(1, top), parts, large;
        std::vector<int32_t> work;
        while (!stack.empty() && spent.load(std::memory_order_relaxed) < budget)
        {
            const GridBox box = stack.back();
            stack.pop_back();
            int64_t left = unlimited;
            parts.clear();
            gridStep(box, width, ext, left, work, parts);
            spent.fetch_add(unlimited - left, std::memory_order_relaxed);
            large.clear();
            for (const GridBox& part : parts)
            {
                const int64_t cells =
                    (int64_t)(part.to[0] - part.from[0]) * (part.to[1] - part.from[1]) * (part.to[2] - part.from[2]);
                (cells <= SMALL_BOX ? stack : large).push_back(part);
            }
            if (!large.empty())
            {
                const GridBox* boxes = large.data();
                const auto each = [&push, boxes](const tbb::blocked_range<size_t>& r)
                {
                    for (size_t i = r.begin(); i < r.end(); ++i)
                        push(boxes[i]);
                };
                const tbb::blocked_range<size_t> all(0, large.size(), 1);
                mrThreadHandoff::handingOver();
                tbb::parallel_for(all, mrThreadHandoff::task(each, this));
                mrThreadHandoff::finished(this);
            }
        }
    };
    push(whole);
    if (spent.load() < budget)
        return true;
    std::fill(m_cells.begin(), m_cells.end(), 0);
    return false;
}
