#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/solid/mrSolidBSP.h>

namespace
{
const char* const kSource = "mrSolidBSP";

// Dominant axis of a plane: the first axis whose float |N_k| beats the float weight,
// which starts at -8192; -1 only for a normal whose components are all NaN (part of the
// reproducibility promise).
int dominantAxis(const mrPlane* plane)
{
    int axis = -1;
    float weight = -8192.0f;
    for (int k = 0; k < 3; ++k)
    {
        float a = std::fabs(plane->m_normal[k]);
        if (a > weight)
        {
            weight = a;
            axis = k;
        }
    }
    return axis;
}

// Box score of a candidate plane: the summed squared diagonals of the two boxes made
// by cutting the list's box across the plane's dominant axis. v and the sum are in
// double, summed in this exact order (part of the reproducibility promise).
double scoreOnAxis(const mrPlane* plane, int axis, const srVector3T<float>& mins, const srVector3T<float>& maxs)
{
    double v = (double)plane->m_normal[axis] * (double)plane->m_dist;
    double lo = v - (double)mins[axis];
    double hi = (double)maxs[axis] - v;
    double score = lo * lo + hi * hi;
    for (int k = 0; k < 3; ++k)
    {
        if (k == axis)
            continue;
        double e = (double)maxs[k] - (double)mins[k];
        score = score + 2.0 * (e * e);
    }
    return score;
}

double boxScore(const mrPlane* plane, const srVector3T<float>& mins, const srVector3T<float>& maxs,
                const char* noAxisMessage)
{
    int axis = dominantAxis(plane);
    if (axis >= 0)
        return scoreOnAxis(plane, axis, mins, maxs);
    srAssertFail("0", kSource, __LINE__, noAxisMessage);
    double score = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        double e = (double)maxs[k] - (double)mins[k];
        score = score + 2.0 * (e * e);
    }
    return score;
}

// The smallest float at or above x (x finite and below the largest float).
float floatAtOrAbove(double x)
{
    float f = (float)x;
    if ((double)f < x)
        f = std::nextafter(f, INFINITY);
    return f;
}

// A surface of the list that split counting looks at, with the box of its faces' points
// (NaN coordinates, which are on every plane, left out).
struct Counted
{
    mrBSPSurface* surface;
    double mins[3];
    double maxs[3];
    bool empty; // no point with a number in every coordinate
};

// True when no point of the box can be more than 0.01 in front of the plane while
// another is more than 0.01 behind, as faceSide computes the distances: the box lies
// wholly (with room to spare for rounding) beyond one of the two tolerance planes.
bool cannotStraddle(const Counted& c, const mrPlane* plane)
{
    if (c.empty)
        return true;
    const double n[3] = {plane->m_normal.x, plane->m_normal.y, plane->m_normal.z};
    const double dist = plane->m_dist;
    double lo = 0.0, hi = 0.0, size = std::fabs(dist);
    for (int k = 0; k < 3; ++k)
    {
        // Each product of a float normal and a float coordinate is exact in double.
        double a = n[k] * c.mins[k], b = n[k] * c.maxs[k];
        lo += a < b ? a : b;
        hi += a < b ? b : a;
        size += std::fabs(a) > std::fabs(b) ? std::fabs(a) : std::fabs(b);
    }
    lo -= dist;
    hi -= dist;
    // faceSide's sums differ from these by a few units in the last place of `size`.
    const double slack = size * 1e-12;
    if (!(slack < 1e-3))
        return false; // too large for the margin to mean anything: count every face
    return hi < -mrBSPFace::SIDE_EPSILON - slack || lo > mrBSPFace::SIDE_EPSILON + slack;
}

// True when every surface of the list has a plane, at least one face and bounds that hold
// all of its faces' points, and every face has a winding with at least one point, all
// finite. Then the bounds stay true for the whole of generation (faces only change where
// a surface is divided, and both halves get new bounds there), and whole surfaces can be
// sent to one side by their bounds alone.
bool boundsHoldFaces(mrBSPSurface* list)
{
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        if (!s->m_plane || !s->m_faces)
            return false;
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
        {
            mrWinding* w = f->m_winding;
            if (!w || w->m_numpoints < 1 || (uint32_t)w->m_numpoints > w->m_points.m_size)
                return false;
            for (int i = 0; i < w->m_numpoints; ++i)
            {
                const srVector3T<float>& p = w->m_points.at((uint32_t)i);
                for (int k = 0; k < 3; ++k)
                    if (!std::isfinite(p[k]) || !(p[k] >= s->m_mins[k] && p[k] <= s->m_maxs[k]))
                        return false;
            }
        }
    }
    return true;
}

// Where splitFace would put every face of a surface whose bounds hold its points:
// SIDE_BACK when no point can be more than 0.01 in front, SIDE_FRONT when every point
// is more than 0.01 in front, SIDE_ON when the bounds cannot tell. The margins cover the
// rounding of splitFace's sums and of its distances to float many times over.
mrPlane::e_side boundsSide(const mrBSPSurface* s, const mrPlane* plane)
{
    const double n[3] = {plane->m_normal.x, plane->m_normal.y, plane->m_normal.z};
    const double dist = plane->m_dist;
    double lo = 0.0, hi = 0.0, size = std::fabs(dist);
    for (int k = 0; k < 3; ++k)
    {
        double a = n[k] * s->m_mins[k], b = n[k] * s->m_maxs[k];
        lo += a < b ? a : b;
        hi += a < b ? b : a;
        size += std::fabs(a) > std::fabs(b) ? std::fabs(a) : std::fabs(b);
    }
    lo -= dist;
    hi -= dist;
    const double slack = size * 1e-12 + 1e-6;
    if (!(slack < 1e-3))
        return mrPlane::SIDE_ON;
    if (hi < mrBSPFace::SIDE_EPSILON - slack)
        return mrPlane::SIDE_BACK;
    if (lo > mrBSPFace::SIDE_EPSILON + slack)
        return mrPlane::SIDE_FRONT;
    return mrPlane::SIDE_ON;
}

// The face list in reverse order, as dividePlane leaves it when every face goes to one side.
void reverseFaces(mrBSPSurface* s)
{
    mrBSPFace* reversed = nullptr;
    mrBSPFace* next = nullptr;
    for (mrBSPFace* f = s->m_faces; f; f = next)
    {
        next = f->m_next;
        f->m_next = reversed;
        reversed = f;
    }
    s->m_faces = reversed;
}
} // namespace

mrBSPSurface* mrSolidBSP::selectPartition(mrBSPSurface* list) { return selectPartitionWith(list, false); }

mrBSPSurface* mrSolidBSP::selectPartitionWith(mrBSPSurface* list, bool trustBounds)
{
    // One pass counts the candidates and gathers the list's bounds (over every surface,
    // marked ones included); the bounds are simply not used when there are fewer than two
    // candidates.
    int candidates = 0;
    mrBSPSurface* last = nullptr;
    srVector3T<float> mins(99999.0f, 99999.0f, 99999.0f);
    srVector3T<float> maxs(-99999.0f, -99999.0f, -99999.0f);
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        if (!s->m_onNode)
        {
            ++candidates;
            last = s;
        }
        for (int k = 0; k < 3; ++k)
        {
            if (s->m_mins[k] < mins[k])
                mins[k] = s->m_mins[k];
            if (s->m_maxs[k] > maxs[k])
                maxs[k] = s->m_maxs[k];
        }
    }
    if (candidates == 0)
        return nullptr;
    if (candidates == 1)
        return last;

    if (m_midSplit)
        return chooseMidPlaneFromList(list, mins, maxs);
    return choosePlaneWith(list, mins, maxs, 0, trustBounds);
}

mrBSPSurface* mrSolidBSP::choosePlaneFromList(mrBSPSurface* list, srVector3T<float> mins, srVector3T<float> maxs,
                                              int allowZUp)
{
    return choosePlaneWith(list, mins, maxs, allowZUp, false);
}

mrBSPSurface* mrSolidBSP::choosePlaneWith(mrBSPSurface* list, const srVector3T<float>& mins,
                                          const srVector3T<float>& maxs, int allowZUp, bool trustBounds)
{
    // The choice choosePlaneInListOrder makes, found with far less counting.
    //
    // That walk keeps a best count B and a best score (a float). A candidate whose faces
    // cut fewer than B faces in all is taken outright. Otherwise its count stops early:
    // the faces of the surface in which it reaches B are not counted further, and one cut
    // in any later surface puts it over B. So it ties with B, and is taken when its score
    // D is at most the best score, exactly when it cuts at least B faces and none beyond
    // that surface.
    //
    // Let m be the fewest cuts of any candidate and f the first candidate in list order
    // that cuts m. f is taken outright (B is above m until then), and from then on only
    // candidates that tie with B = m can be taken. Among f and the later ties, those with
    // D above T, the smallest float at or above their lowest D, never win: one with D at
    // most T is taken over them (the float kept for them is at least T), and is never
    // displaced by them (its float is at most T). So: find m, find f, look at the later
    // candidates by increasing D only while D is at most T, and walk what is left in list
    // order. On a convex piece of mesh (m = 0) that is a few counts per node instead of
    // one per candidate.
    //
    // Anything out of the ordinary (a missing plane, a normal without a dominant axis, a
    // score beyond 1e30, counts near the starting best of 99999) goes the plain way,
    // which also makes the reports in their order.
    struct Candidate
    {
        mrBSPSurface* surface;
        double score;
        uint32_t order;
        int count; // cuts: the true number when `exact`, else a lower bound
        bool exact;
    };
    // Kept between calls (one set per thread), so a deep tree does not allocate them anew
    // at every node.
    thread_local std::vector<Candidate> candidates;
    thread_local std::vector<Counted> counted;
    thread_local std::vector<Candidate> later;
    candidates.clear();
    counted.clear();
    later.clear();
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        if (s->m_onNode)
            continue;
        if (!s->m_plane)
            return choosePlaneInListOrder(list, mins, maxs, allowZUp);
        Counted c{s, {INFINITY, INFINITY, INFINITY}, {-INFINITY, -INFINITY, -INFINITY}, true};
        if (trustBounds)
        {
            // The surface's own bounds hold its points (see boundsHoldFaces).
            c.empty = false;
            for (int k = 0; k < 3; ++k)
            {
                c.mins[k] = s->m_mins[k];
                c.maxs[k] = s->m_maxs[k];
            }
        }
        for (mrBSPFace* f = trustBounds ? nullptr : s->m_faces; f; f = f->m_next)
        {
            mrWinding* w = f->m_winding;
            if (w && (uint32_t)w->m_numpoints > w->m_points.m_size)
            {
                // More points counted than held (faceSide reads zeros there): no bound.
                c.empty = false;
                for (int k = 0; k < 3; ++k)
                {
                    c.mins[k] = -INFINITY;
                    c.maxs[k] = INFINITY;
                }
                continue;
            }
            for (int i = 0, n = w ? w->m_numpoints : 0; i < n; ++i)
            {
                const srVector3T<float>& p = w->m_points.at((uint32_t)i);
                if (std::isnan(p.x) || std::isnan(p.y) || std::isnan(p.z))
                    continue;
                c.empty = false;
                for (int k = 0; k < 3; ++k)
                {
                    if (p[k] < c.mins[k])
                        c.mins[k] = p[k];
                    if (p[k] > c.maxs[k])
                        c.maxs[k] = p[k];
                }
            }
        }
        counted.push_back(c);
        if (!allowZUp && s->m_plane->m_normal.z == 1.0f)
            continue;
        int axis = dominantAxis(s->m_plane);
        if (axis < 0)
            return choosePlaneInListOrder(list, mins, maxs, allowZUp);
        double score = scoreOnAxis(s->m_plane, axis, mins, maxs);
        if (!(score <= 1e30))
            return choosePlaneInListOrder(list, mins, maxs, allowZUp);
        candidates.push_back({s, score, (uint32_t)candidates.size(), 0, false});
    }
    if (candidates.empty())
        return nullptr;

    // Surfaces in runs of BLOCK along the list, each run with the box around its
    // surfaces' boxes: a plane that cannot straddle a run's box cannot cut any face of
    // it, so the whole run is passed over. Passing over surfaces without cuts changes no
    // count and no early stop (see walkCount).
    const size_t BLOCK = 16;
    thread_local std::vector<Counted> blocks;
    blocks.clear();
    for (size_t i = 0; i < counted.size(); i += BLOCK)
    {
        Counted b{nullptr, {INFINITY, INFINITY, INFINITY}, {-INFINITY, -INFINITY, -INFINITY}, true};
        for (size_t j = i; j < counted.size() && j < i + BLOCK; ++j)
        {
            const Counted& c = counted[j];
            if (c.empty)
                continue;
            b.empty = false;
            for (int k = 0; k < 3; ++k)
            {
                b.mins[k] = std::min(b.mins[k], c.mins[k]);
                b.maxs[k] = std::max(b.maxs[k], c.maxs[k]);
            }
        }
        blocks.push_back(b);
    }
    // Calls visit(c) for every surface other than s whose box s's plane may straddle, in
    // list order, until visit returns true.
    auto eachNear = [&](mrBSPSurface* s, auto visit)
    {
        for (size_t b = 0; b < blocks.size(); ++b)
        {
            if (cannotStraddle(blocks[b], s->m_plane))
                continue;
            for (size_t j = b * BLOCK; j < counted.size() && j < (b + 1) * BLOCK; ++j)
            {
                const Counted& c = counted[j];
                if (c.surface != s && !cannotStraddle(c, s->m_plane) && visit(c))
                    return;
            }
        }
    };

    // Cuts of s's plane through the faces of the other surfaces, counted up to `limit`.
    auto countCuts = [&](mrBSPSurface* s, int limit)
    {
        int cuts = 0;
        if (limit <= 0)
            return cuts; // nothing to find out: no count is below 0
        eachNear(s,
                 [&](const Counted& c)
                 {
                     for (mrBSPFace* f = c.surface->m_faces; f; f = f->m_next)
                         if (faceSide(f, s->m_plane) == mrPlane::SIDE_ON && ++cuts >= limit)
                             return true;
                     return false;
                 });
        return cuts;
    };
    // The count the list walk makes with best count `best` (see choosePlaneInListOrder).
    // Surfaces without cuts add nothing and stop nothing, so only the others are visited.
    auto walkCount = [&](mrBSPSurface* s, int best)
    {
        int cuts = 0;
        eachNear(s,
                 [&](const Counted& c)
                 {
                     for (mrBSPFace* f = c.surface->m_faces; f; f = f->m_next)
                         if (faceSide(f, s->m_plane) == mrPlane::SIDE_ON && ++cuts >= best)
                             break;
                     return cuts > best;
                 });
        return cuts;
    };

    // m: every candidate counted only as far as the fewest cuts so far.
    int fewest = 99999;
    for (Candidate& c : candidates)
    {
        c.count = countCuts(c.surface, fewest);
        c.exact = c.count < fewest;
        if (c.exact)
            fewest = c.count;
    }
    if (fewest >= 99999)
        return choosePlaneInListOrder(list, mins, maxs, allowZUp);

    // f: the first candidate that cuts exactly m faces.
    size_t first = 0;
    for (;; ++first)
    {
        Candidate& c = candidates[first];
        if (!c.exact && c.count == fewest)
        {
            c.count = countCuts(c.surface, fewest + 1);
            c.exact = c.count <= fewest;
        }
        if (c.exact && c.count == fewest)
            break;
    }

    // The later ties, by increasing D, while D is at most T.
    later.assign(candidates.begin() + (long)first + 1, candidates.end());
    auto higher = [](const Candidate& a, const Candidate& b) { return a.score > b.score; };
    std::make_heap(later.begin(), later.end(), higher);
    std::vector<Candidate> group(1, candidates[first]);
    double lowest = candidates[first].score;
    float limit = floatAtOrAbove(lowest);
    while (!later.empty())
    {
        std::pop_heap(later.begin(), later.end(), higher);
        const Candidate c = later.back();
        later.pop_back();
        if (c.score > (double)limit)
            break;
        if (walkCount(c.surface, fewest) != fewest)
            continue;
        group.push_back(c);
        if (c.score < lowest)
        {
            lowest = c.score;
            limit = floatAtOrAbove(lowest);
        }
    }

    // The list walk over what is left: its first member is taken outright.
    std::sort(group.begin(), group.end(), [](const Candidate& a, const Candidate& b) { return a.order < b.order; });
    mrBSPSurface* chosen = nullptr;
    float bestScore = 0.0f;
    for (const Candidate& c : group)
    {
        if (c.score > (double)limit)
            continue;
        if (!chosen || c.score <= (double)bestScore)
        {
            chosen = c.surface;
            bestScore = (float)c.score;
        }
    }
    return chosen;
}

mrBSPSurface* mrSolidBSP::choosePlaneInListOrder(mrBSPSurface* list, const srVector3T<float>& mins,
                                                 const srVector3T<float>& maxs, int allowZUp)
{
    // Both bests are floats and D is compared widened to double (part of the
    // reproducibility promise).
    mrBSPSurface* best = nullptr;
    float bestSplits = 99999.0f;
    float bestScore = 9e30f;

    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        if (s->m_onNode)
            continue;
        if (!s->m_plane)
        {
            // Nothing to test without a plane.
            srAssertFail("plane", kSource, __LINE__, nullptr);
            continue;
        }
        if (!allowZUp && s->m_plane->m_normal.z == 1.0f)
            continue;

        // The count is exact while it is at most bestSplits; beyond that it stops early
        // exactly here (part of the reproducibility promise).
        int splits = 0;
        for (mrBSPSurface* t = list; t; t = t->m_next)
        {
            if (t == s || t->m_onNode)
                continue;
            for (mrBSPFace* f = t->m_faces; f; f = f->m_next)
            {
                if (faceSide(f, s->m_plane) == mrPlane::SIDE_ON)
                {
                    ++splits;
                    if ((float)splits >= bestSplits)
                        break;
                }
            }
            if ((float)splits > bestSplits)
                break;
        }
        if ((float)splits > bestSplits)
            continue;

        double score = boxScore(s->m_plane, mins, maxs, "ChoosePlane: no axis found");
        if ((float)splits < bestSplits || ((float)splits == bestSplits && score <= (double)bestScore))
        {
            best = s;
            bestSplits = (float)splits;
            bestScore = (float)score;
        }
    }
    return best;
}

mrBSPSurface* mrSolidBSP::chooseMidPlaneFromList(mrBSPSurface* list, srVector3T<float> mins, srVector3T<float> maxs)
{
    mrBSPSurface* best = nullptr;
    float bestScore = 402653184.0f; // 6 * 8192^2

    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        // A surface without a plane has no score; it can only be taken as the fallback.
        if (s->m_onNode || !s->m_plane)
            continue;
        double score = boxScore(s->m_plane, mins, maxs, "ChooseMidPlane: no axis found");
        // Compared widened to double, the best kept as a float (part of the
        // reproducibility promise).
        if (score <= (double)bestScore)
        {
            best = s;
            bestScore = (float)score;
        }
    }
    if (best)
        return best;

    for (mrBSPSurface* s = list; s; s = s->m_next)
        if (!s->m_onNode)
            return s;
    srAssertFail("0", kSource, __LINE__, "ChooseMidPlaneFromList: no valid planes");
    return nullptr;
}

mrPlane::e_side mrSolidBSP::faceSide(mrBSPFace* face, mrPlane* plane)
{
    bool front = false, back = false;
    mrWinding* w = face->m_winding;
    int n = w ? w->m_numpoints : 0;
    const double nx = plane->m_normal.x, ny = plane->m_normal.y, nz = plane->m_normal.z;
    const double dist = plane->m_dist;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = w->m_points[(uint32_t)i];
        // Kept in double, never rounded to float before the comparison.
        double d = nx * p.x + ny * p.y + nz * p.z - dist;
        if (d > mrBSPFace::SIDE_EPSILON)
        {
            if (back)
                return mrPlane::SIDE_ON;
            front = true;
        }
        else if (d < -mrBSPFace::SIDE_EPSILON)
        {
            if (front)
                return mrPlane::SIDE_ON;
            back = true;
        }
    }
    return front ? mrPlane::SIDE_FRONT : mrPlane::SIDE_BACK;
}

mrBSPNode* mrSolidBSP::generate(mrBSPSurface* surfaces, int midSplit)
{
    mrBSPNode* head = new mrBSPNode;
    m_midSplit = midSplit;
    m_numSplitNodes = 0;
    m_numLeafFaces = 0;
    m_numNodeFaces = 0;
    m_numSolidLeafs = 0;
    m_numEmptyLeafs = 0;
    m_numLinkedFaces = 0;
    m_reserved1 = 1;
    partitionSurfaces(surfaces, head);
    return head;
}

void mrSolidBSP::partitionSurfaces(mrBSPSurface* list, mrBSPNode* node)
{
    // An explicit stack instead of recursion, so degenerate trees thousands of levels
    // deep cannot overflow the call stack. The back child's work is pushed below the
    // front child's, so the front subtree is finished before the back one starts: the
    // same order in which nodes, counters and faces are handled as a depth-first walk.
    struct Work
    {
        mrBSPSurface* list;
        mrBSPNode* node;
    };
    std::vector<Work> stack;
    stack.push_back({list, node});
    const bool trustBounds = boundsHoldFaces(list);
    while (!stack.empty())
    {
        Work w = stack.back();
        stack.pop_back();
        mrBSPSurface* frontList = nullptr;
        mrBSPSurface* backList = nullptr;
        if (!partitionNode(w.list, w.node, trustBounds, &frontList, &backList))
            continue;
        stack.push_back({backList, w.node->m_children[1]});
        stack.push_back({frontList, w.node->m_children[0]});
    }
}

bool mrSolidBSP::partitionNode(mrBSPSurface* list, mrBSPNode* node, bool trustBounds, mrBSPSurface** frontOut,
                               mrBSPSurface** backOut)
{
    mrBSPSurface* split = selectPartitionWith(list, trustBounds);
    if (split && !split->m_plane)
    {
        // A splitter without a plane cannot divide anything; the node ends here.
        srAssertFail("inplane", kSource, __LINE__, nullptr);
        split = nullptr;
    }
    if (!split)
    {
        node->m_plane = nullptr;
        linkConvexFaces(list, node);
        return false;
    }

    ++m_numSplitNodes;
    node->m_children[0] = new mrBSPNode;
    node->m_children[1] = new mrBSPNode;
    mrPlane* plane = split->m_plane;
    node->m_plane = plane;
    divideNodeBounds(node, plane);

    // Lists grow at the head, so each child list comes out in reverse order.
    mrBSPSurface* frontList = nullptr;
    mrBSPSurface* backList = nullptr;
    mrBSPSurface* next = nullptr;
    for (mrBSPSurface* p = list; p; p = next)
    {
        next = p->m_next;
        mrBSPSurface* f = nullptr;
        mrBSPSurface* b = nullptr;
        // A surface whose bounds lie wholly on one side ends up there with its faces in
        // reverse order, exactly as dividePlane would leave it after splitting each face;
        // only the faces are not looked at one by one. (Parallel surfaces take
        // dividePlane's own path.)
        mrPlane::e_side whole = mrPlane::SIDE_ON;
        mrPlane* inplane = p->m_plane;
        if (trustBounds && !(inplane->m_normal.x == plane->m_normal.x && inplane->m_normal.y == plane->m_normal.y &&
                             inplane->m_normal.z == plane->m_normal.z))
            whole = boundsSide(p, plane);
        if (whole == mrPlane::SIDE_BACK)
        {
            reverseFaces(p);
            b = p;
        }
        else if (whole == mrPlane::SIDE_FRONT)
        {
            reverseFaces(p);
            f = p;
        }
        else
            dividePlane(p, plane, &f, &b);
        if (f)
        {
            if (!f->m_faces)
                srAssertFail("0", kSource, __LINE__, "surface with no faces");
            f->m_next = frontList;
            frontList = f;
        }
        if (b)
        {
            if (!b->m_faces)
                srAssertFail("0", kSource, __LINE__, "surface with no faces");
            b->m_next = backList;
            backList = b;
        }
    }
    // The splitter lies on its own plane and so is marked above; only a plane that does
    // not compare equal to itself (a NaN from non-finite coordinates) escapes that, and
    // would be chosen again at every level without end. Mark it here: such a mesh then
    // gives some tree instead of none.
    split->m_onNode = 1;
    *frontOut = frontList;
    *backOut = backList;
    return true;
}

void mrSolidBSP::dividePlane(mrBSPSurface* in, mrPlane* split, mrBSPSurface** front, mrBSPSurface** back)
{
    mrPlane* inplane = in->m_plane;
    if (!inplane)
    {
        // Cannot be divided: it travels on whole, behind the plane, faces untouched.
        srAssertFail("inplane", kSource, __LINE__, nullptr);
        *front = nullptr;
        *back = in;
        return;
    }

    if (inplane->m_normal.x == split->m_normal.x && inplane->m_normal.y == split->m_normal.y &&
        inplane->m_normal.z == split->m_normal.z)
    {
        if (inplane->m_dist == split->m_dist)
        {
            in->m_onNode = 1;
            *front = in;
            *back = nullptr;
        }
        else if (inplane->m_dist > split->m_dist)
        {
            *front = in;
            *back = nullptr;
        }
        else
        {
            *front = nullptr;
            *back = in;
        }
        return;
    }

    mrBSPFace* frontFaces = nullptr;
    mrBSPFace* backFaces = nullptr;
    mrBSPFace* next = nullptr;
    for (mrBSPFace* face = in->m_faces; face; face = next)
    {
        next = face->m_next;
        mrBSPFace* ff = nullptr;
        mrBSPFace* bf = nullptr;
        mrBSPFace::splitFace(face, split, &ff, &bf);
        if (ff)
        {
            ff->m_next = frontFaces;
            frontFaces = ff;
        }
        if (bf)
        {
            bf->m_next = backFaces;
            backFaces = bf;
        }
    }

    if (!frontFaces)
    {
        *front = nullptr;
        *back = in;
        in->m_faces = backFaces;
        return;
    }
    if (!backFaces)
    {
        *front = in;
        *back = nullptr;
        in->m_faces = frontFaces;
        return;
    }

    mrBSPSurface* newSurface = new mrBSPSurface(*in);
    newSurface->m_faces = backFaces;
    in->m_faces = frontFaces;
    *back = newSurface;
    *front = in;
    newSurface->calcBounds();
    in->calcBounds();
}

void mrSolidBSP::divideNodeBounds(mrBSPNode* node, mrPlane* /*split*/)
{
    // Children inherit the box unchanged; it is never narrowed.
    for (int c = 0; c < 2; ++c)
    {
        node->m_children[c]->m_mins = node->m_mins;
        node->m_children[c]->m_maxs = node->m_maxs;
    }
}

void mrSolidBSP::linkConvexFaces(mrBSPSurface* list, mrBSPNode* leafnode)
{
    leafnode->m_faces = nullptr;
    leafnode->m_contents = -1;
    leafnode->m_plane = nullptr;

    int count = 0;
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
        {
            ++count;
            if (leafnode->m_contents == -1)
            {
                leafnode->m_contents = f->m_contents;
                if (leafnode->m_contents)
                    srAssertFail("!leafnode->m_contents", kSource, __LINE__, nullptr);
            }
            else if (f->m_contents != leafnode->m_contents)
            {
                srAssertFail("0", kSource, __LINE__, "Mixed face contents in leafnode");
            }
        }
    }

    m_numLeafFaces += count;
    leafnode->m_markfaces = (mrBSPFace**)std::malloc(sizeof(mrBSPFace*) * ((size_t)count + 1));

    int index = 0;
    mrBSPSurface* nextSurface = nullptr;
    for (mrBSPSurface* s = list; s; s = nextSurface)
    {
        nextSurface = s->m_next;
        mrBSPFace* nextFace = nullptr;
        for (mrBSPFace* f = s->m_faces; f; f = nextFace)
        {
            nextFace = f->m_next;
            mrBSPFace* original = f->m_original;
            if (!original)
            {
                // Nothing to list: a null entry would end the array early.
                srAssertFail("f->m_original", kSource, __LINE__, nullptr);
            }
            else
            {
                leafnode->m_markfaces[index++] = original;
                if (!original->m_linked)
                {
                    original->m_linked = 1;
                    ++m_numLinkedFaces;
                }
            }
            if (original != f)
                delete f;
        }
        delete s;
    }
    leafnode->m_markfaces[index] = nullptr;

    if (leafnode->m_contents == -1)
    {
        leafnode->m_contents = 1;
        ++m_numSolidLeafs;
    }
    else
    {
        ++m_numEmptyLeafs;
    }
}

mrBSPFace* mrSolidBSP::linkNodeFaces(mrBSPSurface* surface)
{
    mrBSPFace* result = nullptr;
    for (mrBSPFace* f = surface->m_faces; f; f = f->m_next)
    {
        ++m_numNodeFaces;
        mrBSPFace* copy = new mrBSPFace;
        *copy = *f;
        f->m_original = copy;
        copy->m_next = result;
        result = copy;
    }
    return result;
}
