#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <meridbsp/clip/mrThreadCount.h>
#include <meridbsp/clip/mrThreadHandoff.h>
#include <meridbsp/geometry/mrMedianTree.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/solid/mrSolidBSP.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

namespace
{
const char* const kSource = "mrSolidBSP";

// body(first, last) over [0, n): on the current task arena's threads when `parallel`,
// else here. Each share writes only what belongs to its own range.
template <class Body> void forShares(bool parallel, size_t n, size_t grain, const Body& body)
{
    if (!parallel || n < 2 * grain)
    {
        body((size_t)0, n);
        return;
    }
    const char token = 0;
    const auto share = [&body](const tbb::blocked_range<size_t>& r) { body(r.begin(), r.end()); };
    mrThreadHandoff::handingOver();
    tbb::parallel_for(tbb::blocked_range<size_t>(0, n, grain), mrThreadHandoff::task(share, &token));
    mrThreadHandoff::finished(&token);
}

// body(result, first, last) for each of up to 64 equal shares of [0, n) (one share unless
// `parallel`), with a result of its own: their results in order, to be put together as one
// pass over [0, n) would.
template <class Result, class Body>
std::vector<Result> inShares(bool parallel, size_t n, size_t grain, const Body& body)
{
    const size_t shares = parallel ? std::max<size_t>(1, std::min<size_t>(64, n / grain)) : 1;
    std::vector<Result> results(shares);
    forShares(parallel, shares, 1,
              [&](size_t a, size_t b)
              {
                  for (size_t share = a; share < b; ++share)
                      body(results[share], n * share / shares, n * (share + 1) / shares);
              });
    return results;
}

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
double scoreAt(double v, int axis, const srVector3T<float>& mins, const srVector3T<float>& maxs)
{
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

double scoreOnAxis(const mrPlane* plane, int axis, const srVector3T<float>& mins, const srVector3T<float>& maxs)
{
    return scoreAt((double)plane->m_normal[axis] * (double)plane->m_dist, axis, mins, maxs);
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
mrPlane::e_side boundsSide(const float* mins, const float* maxs, const mrPlane* plane)
{
    const double n[3] = {plane->m_normal.x, plane->m_normal.y, plane->m_normal.z};
    const double dist = plane->m_dist;
    double lo = 0.0, hi = 0.0, size = std::fabs(dist);
    for (int k = 0; k < 3; ++k)
    {
        double a = n[k] * mins[k], b = n[k] * maxs[k];
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
// What partition selection and generation keep about one surface of a list, held in
// the list's order. The plane's numbers, the bounds and the face count are copies, so a
// node's work reads one array instead of chasing every surface; lower and upper bound the
// faces the surface's plane cuts among the list's other unmarked surfaces (upper is
// UNKNOWN_CUTS until a count was exact). `flips` counts the reversals of the face list
// that dividing has owed it since the faces were last put in order.
struct SurfaceFact
{
    mrBSPSurface* surface;
    float mins[3], maxs[3];
    float normal[3], dist;
    double v;     // the plane's coordinate along its dominant axis (for the box score)
    int32_t axis; // dominant axis, -1 when there is none
    int32_t faces;
    int32_t lower, upper;
    int32_t flips;
    int32_t onNode;
    int32_t fresh;    // faces made by this node's cuts (while a node is divided)
    int32_t chainKey; // in a chain (mid-split): the surface's key
    int32_t flipBase; // in a chain: the chain's cuts less the reversals owed
};

const int32_t UNKNOWN_CUTS = 0x3FFFFFFF;

SurfaceFact factOf(mrBSPSurface* s)
{
    SurfaceFact f;
    f.surface = s;
    for (int k = 0; k < 3; ++k)
    {
        f.mins[k] = s->m_mins[k];
        f.maxs[k] = s->m_maxs[k];
    }
    f.axis = -1;
    f.v = 0.0;
    f.normal[0] = f.normal[1] = f.normal[2] = f.dist = 0.0f;
    if (s->m_plane)
    {
        for (int k = 0; k < 3; ++k)
            f.normal[k] = s->m_plane->m_normal[k];
        f.dist = s->m_plane->m_dist;
        f.axis = dominantAxis(s->m_plane);
        if (f.axis >= 0)
            f.v = (double)s->m_plane->m_normal[f.axis] * (double)s->m_plane->m_dist;
    }
    f.faces = 0;
    for (mrBSPFace* face = s->m_faces; face; face = face->m_next)
        ++f.faces;
    f.lower = 0;
    f.upper = UNKNOWN_CUTS;
    f.flips = 0;
    f.onNode = s->m_onNode;
    f.fresh = 0;
    f.chainKey = 0;
    f.flipBase = 0;
    return f;
}

// The box score of a fact's plane, exactly as scoreOnAxis computes it.
double factScore(const SurfaceFact& f, const srVector3T<float>& mins, const srVector3T<float>& maxs)
{
    return scoreAt(f.v, f.axis, mins, maxs);
}

// A box of points as faceSide sees them, in double.
struct CutBox
{
    double mins[3];
    double maxs[3];
    bool empty; // no point with a number in every coordinate
};

const CutBox NO_BOX{{INFINITY, INFINITY, INFINITY}, {-INFINITY, -INFINITY, -INFINITY}, true};

// A fact's bounds as a box of its points.
CutBox boundsBox(const SurfaceFact& f)
{
    CutBox b;
    for (int k = 0; k < 3; ++k)
    {
        b.mins[k] = f.mins[k];
        b.maxs[k] = f.maxs[k];
    }
    b.empty = false;
    return b;
}

void unite(CutBox& into, const CutBox& b)
{
    if (b.empty)
        return;
    into.empty = false;
    for (int k = 0; k < 3; ++k)
    {
        into.mins[k] = std::min(into.mins[k], b.mins[k]);
        into.maxs[k] = std::max(into.maxs[k], b.maxs[k]);
    }
}

// A plane made ready for box tests.
struct BoxTest
{
    double n[3], an[3], dist;
    double s0, s1; // the rounding margin for a box reaching `reach` from the origin: s0 + s1 reach

    BoxTest(const float* normal, float planeDist)
    {
        for (int k = 0; k < 3; ++k)
        {
            n[k] = normal[k];
            an[k] = std::fabs(n[k]);
        }
        dist = planeDist;
        s0 = std::fabs(dist) * 1e-12;
        s1 = (an[0] + an[1] + an[2]) * 1e-12;
    }
    explicit BoxTest(const mrPlane* p) : BoxTest(&p->m_normal.x, p->m_dist) {}

    // See BoxSet::cannotStraddle.
    bool cannotStraddle(const double* c, const double* e, double reach) const
    {
        const double t = n[0] * c[0] + n[1] * c[1] + n[2] * c[2] - dist;
        const double r = an[0] * e[0] + an[1] * e[1] + an[2] * e[2];
        const double slack = s0 + s1 * reach;
        if (!(slack < 1e-3))
            return false; // too large for the margin to mean anything: count every face
        // No point beyond the front tolerance, or none beyond the back one.
        return t + r < mrBSPFace::SIDE_EPSILON - slack || t - r > -mrBSPFace::SIDE_EPSILON + slack;
    }
};

// A box as centre, half extents and the largest magnitude of its coordinates, for
// BoxTest.
struct PointBox
{
    double c[3], e[3], reach;
    bool empty;

    template <class T> static PointBox of(const T* mins, const T* maxs, bool empty)
    {
        PointBox b;
        b.reach = 0.0;
        b.empty = empty;
        for (int k = 0; k < 3; ++k)
        {
            const double lo = empty ? 0.0 : (double)mins[k], hi = empty ? 0.0 : (double)maxs[k];
            b.c[k] = 0.5 * (lo + hi);
            b.e[k] = 0.5 * (hi - lo);
            b.reach = std::max(b.reach, std::max(std::fabs(lo), std::fabs(hi)));
        }
        return b;
    }
    static PointBox of(const CutBox& b) { return of(b.mins, b.maxs, b.empty); }
    static PointBox of(const SurfaceFact& f) { return of(f.mins, f.maxs, false); }
};

// Boxes kept as centres and half extents, each with the largest magnitude of its
// coordinates.
class BoxSet
{
public:
    void clear()
    {
        for (std::vector<double>* v : {&m_c[0], &m_c[1], &m_c[2], &m_e[0], &m_e[1], &m_e[2], &m_reach})
            v->clear();
        m_empty.clear();
    }
    void add(const CutBox& b)
    {
        double reach = 0.0;
        for (int k = 0; k < 3; ++k)
        {
            const double lo = b.empty ? 0.0 : b.mins[k], hi = b.empty ? 0.0 : b.maxs[k];
            m_c[k].push_back(0.5 * (lo + hi));
            m_e[k].push_back(0.5 * (hi - lo));
            reach = std::max(reach, std::max(std::fabs(lo), std::fabs(hi)));
        }
        m_reach.push_back(reach);
        m_empty.push_back(b.empty);
    }
    size_t size() const { return m_reach.size(); }

    // True when no point of box i can be more than 0.01 in front of the plane while
    // another is more than 0.01 behind, as faceSide computes the distances: the box lies
    // wholly (with room to spare for rounding) on one side of one of the two tolerance
    // planes. The centre, the half extents and the sums below are within a few units in
    // the last place of |dist| + |n| . reach of the exact values, and so are faceSide's
    // distances; the margin is a million times that.
    bool cannotStraddle(const BoxTest& p, size_t i) const
    {
        if (m_empty[i])
            return true;
        const double c[3] = {m_c[0][i], m_c[1][i], m_c[2][i]}, e[3] = {m_e[0][i], m_e[1][i], m_e[2][i]};
        return p.cannotStraddle(c, e, m_reach[i]);
    }

private:
    std::vector<double> m_c[3], m_e[3], m_reach;
    std::vector<unsigned char> m_empty;
};

// Counts the cuts of candidate planes through the faces of a list and makes the choice of
// choosePlaneInListOrder with far less counting.
//
// That walk keeps a best count B and a best score (a float). A candidate whose faces cut
// fewer than B faces in all is taken outright. Otherwise its count stops early: the faces
// of the surface in which it reaches B are not counted further, and one cut in any later
// surface puts it over B. So it ties with B, and is taken when its score D is at most the
// best score, exactly when it cuts at least B faces and none beyond that surface.
//
// Let m be the fewest cuts of any candidate and f the first candidate in list order that
// cuts m. f is taken outright (B is above m until then), and from then on only candidates
// that tie with B = m can be taken. Among f and the later ties, those with D above T, the
// smallest float at or above their lowest D, never win: one with D at most T is taken over
// them (the float kept for them is at least T), and is never displaced by them (its float
// is at most T). So: find m, find f, look at the later candidates by increasing D only
// while D is at most T, and walk what is left in list order.
//
// Counting order does not change a count stopped at a limit, so m is found from the
// candidates most likely to cut little first, and a candidate whose lower bound already
// reaches the best count so far is not counted at all. The bounds come from the parent
// node (see SurfaceFact) and are tightened by every count made here.
class FewestCutsChoice
{
public:
    enum
    {
        NONE = -1,  // no candidate
        PLAIN = -2, // out of the ordinary: make the choice by the list walk
    };

    // The position in `order` of the choice. order: the list, as numbers of facts in list
    // order; boxes: the points' box of each surface's faces by position, or null to take
    // the facts' own bounds (when they hold every point). parallel: a long list's counting
    // may be shared out over the current task arena. Which candidate is chosen does not
    // depend on the order in which cuts are counted (bounds only spare counting), so the
    // choice is the same whoever counts what.
    int choose(mrSolidBSP& bsp, std::vector<SurfaceFact>& facts, const std::vector<uint32_t>& order,
               const std::vector<CutBox>* boxes, const std::vector<PointBox>& pointBoxes, const srVector3T<float>& mins,
               const srVector3T<float>& maxs, int allowZUp, const mrSolidBSP::ParallelShare* share = nullptr)
    {
        m_bsp = &bsp;
        m_facts = &facts;
        m_order = &order;
        m_boxes = boxes;
        m_pointBoxes = &pointBoxes;
        m_blocksBuilt = false;
        m_candidates.clear();
        const bool parallel = share && order.size() >= share->minList;
        const size_t grain = share ? std::max<size_t>(1, share->grain) : 1;
        if (!gatherCandidates(facts, order, mins, maxs, allowZUp, parallel, grain))
            return PLAIN; // the walk makes the reports, in their order
        if (m_candidates.empty())
            return NONE;
        const size_t n = m_candidates.size();
        // m: the candidate with the lowest bound first, then the rest in list order.
        size_t start = 0;
        for (size_t c = 1; c < n; ++c)
            if (fact(c).lower < fact(start).lower ||
                (fact(c).lower == fact(start).lower && fact(c).upper < fact(start).upper))
                start = c;
        int fewest = 99999;
        auto fewestAt = [&](size_t c, int best)
        {
            SurfaceFact& f = fact(c);
            if (f.lower >= best)
                return best;
            if (f.lower != f.upper)
                count(c, best + EXTRA);
            return f.lower == f.upper && f.lower < best ? f.lower : best;
        };
        fewest = fewestAt(start, fewest);
        if (parallel && n >= 2 * std::max<size_t>(1, grain / 16))
        {
            // The rest on all threads, each count stopped by the fewest found so far by
            // any: m is the same, only the bounds left on the facts differ.
            if (!m_blocksBuilt)
                buildBlocks();
            std::atomic<int> shared(fewest);
            forShares(true, n - 1, std::max<size_t>(1, grain / 16),
                      [&](size_t a, size_t b)
                      {
                          for (size_t k = a + 1; k <= b; ++k)
                          {
                              int best = shared.load(std::memory_order_relaxed);
                              const int found = fewestAt(k <= start ? k - 1 : k, best);
                              while (found < best && !shared.compare_exchange_weak(best, found))
                                  ;
                          }
                      });
            fewest = shared.load();
        }
        else
            for (size_t k = 1; k < n; ++k)
                fewest = fewestAt(k <= start ? k - 1 : k, fewest);
        if (fewest >= 99999)
            return PLAIN;

        // f: the first candidate in list order that cuts exactly m.
        size_t first = n;
        for (size_t c = 0; c < n && first == n; ++c)
        {
            SurfaceFact& f = fact(c);
            if (f.lower > fewest)
                continue;
            if (f.lower != f.upper)
                count(c, fewest + 1 + EXTRA);
            if (f.lower == f.upper && f.lower == fewest)
                first = c;
        }
        if (first == n)
            return PLAIN; // cannot happen: the candidate that set m cuts m

        // The later ties, by increasing D, while D is at most T. Whether the walk ties a
        // candidate with m is the candidate's own affair, so with `parallel` the next few
        // in line are settled at once, and the ones past the end of the run were settled
        // for nothing.
        double lowest = m_candidates[first].score;
        float limit = floatAtOrAbove(lowest);
        m_later.clear();
        // (Candidates whose bounds already rule out a tie are left out.)
        const int32_t reach = tieReach(fewest);
        for (size_t c = first + 1; c < n; ++c)
            if (m_candidates[c].score <= (double)limit && fact(c).lower < reach)
                m_later.push_back(c);
        m_group.assign(1, first);
        if (parallel)
            settleTiesInBatches(fewest, lowest, limit);
        else
        {
            auto higher = [this](size_t a, size_t b) { return m_candidates[a].score > m_candidates[b].score; };
            std::make_heap(m_later.begin(), m_later.end(), higher);
            while (!m_later.empty())
            {
                std::pop_heap(m_later.begin(), m_later.end(), higher);
                const size_t c = m_later.back();
                m_later.pop_back();
                const double score = m_candidates[c].score;
                if (score > (double)limit)
                    break;
                if (!walkTies(c, fewest))
                    continue;
                m_group.push_back(c);
                if (score < lowest)
                {
                    lowest = score;
                    limit = floatAtOrAbove(lowest);
                }
            }
        }
        // The list walk over what is left: its first member is taken outright.
        std::sort(m_group.begin(), m_group.end());
        int chosen = NONE;
        float bestScore = 0.0f;
        for (size_t c : m_group)
        {
            const double score = m_candidates[c].score;
            if (score > (double)limit)
                continue;
            if (chosen == NONE || score <= (double)bestScore)
            {
                chosen = (int)m_candidates[c].fact;
                bestScore = (float)score;
            }
        }
        return chosen;
    }

private:
    // The list's candidates with their scores, and the most faces an unmarked surface has;
    // false for a list out of the ordinary. With `parallel`, shares of the list are looked
    // at on all threads and put together in list order.
    bool gatherCandidates(const std::vector<SurfaceFact>& facts, const std::vector<uint32_t>& order,
                          const srVector3T<float>& mins, const srVector3T<float>& maxs, int allowZUp, bool parallel,
                          size_t grain)
    {
        const size_t n = order.size();
        const size_t shares = parallel ? std::min<size_t>(64, n / grain) : 1;
        m_shareCandidates.resize(std::max<size_t>(shares, 1));
        std::vector<int32_t> mostFaces(m_shareCandidates.size(), 0);
        std::vector<char> plain(m_shareCandidates.size(), 0);
        forShares(parallel && shares > 1, m_shareCandidates.size(), 1,
                  [&](size_t a, size_t b)
                  {
                      for (size_t share = a; share < b; ++share)
                      {
                          std::vector<Candidate>& out = m_shareCandidates[share];
                          out.clear();
                          const size_t first = n * share / m_shareCandidates.size();
                          const size_t last = n * (share + 1) / m_shareCandidates.size();
                          for (size_t i = first; i < last; ++i)
                          {
                              const SurfaceFact& f = facts[order[i]];
                              if (f.onNode)
                                  continue;
                              mostFaces[share] = std::max(mostFaces[share], f.faces);
                              if (!f.surface->m_plane || f.axis < 0)
                              {
                                  plain[share] = 1;
                                  break;
                              }
                              if (!allowZUp && f.normal[2] == 1.0f)
                                  continue;
                              double score = factScore(f, mins, maxs);
                              if (!(score <= 1e30))
                              {
                                  plain[share] = 1;
                                  break;
                              }
                              out.push_back({(uint32_t)i, score});
                          }
                      }
                  });
        m_mostFaces = 0;
        for (size_t share = 0; share < m_shareCandidates.size(); ++share)
        {
            if (plain[share])
                return false;
            m_candidates.insert(m_candidates.end(), m_shareCandidates[share].begin(), m_shareCandidates[share].end());
            m_mostFaces = std::max(m_mostFaces, mostFaces[share]);
        }
        return true;
    }

    // The later ties of choose on all threads: the candidates by increasing D, a few at a
    // time, each settled on its own; then the run is followed as the one-by-one walk
    // would (which settles the same candidates, and stops at the same place).
    void settleTiesInBatches(int fewest, double& lowest, float& limit)
    {
        auto higher = [this](size_t a, size_t b) { return m_candidates[a].score > m_candidates[b].score; };
        std::make_heap(m_later.begin(), m_later.end(), higher);
        const size_t batch = 2 * (size_t)std::max(1, tbb::this_task_arena::max_concurrency());
        m_ties.resize(batch);
        m_batch.resize(batch);
        if (!m_blocksBuilt)
            buildBlocks();
        while (!m_later.empty())
        {
            size_t count = 0;
            while (count < batch && !m_later.empty())
            {
                std::pop_heap(m_later.begin(), m_later.end(), higher);
                const size_t c = m_later.back();
                m_later.pop_back();
                if (m_candidates[c].score > (double)limit)
                {
                    m_later.clear();
                    break;
                }
                m_batch[count++] = c;
            }
            forShares(count > 1, count, 1,
                      [&](size_t a, size_t b)
                      {
                          for (size_t i = a; i < b; ++i)
                              m_ties[i] = walkTies(m_batch[i], fewest);
                      });
            for (size_t i = 0; i < count; ++i)
            {
                const size_t c = m_batch[i];
                const double score = m_candidates[c].score;
                if (score > (double)limit)
                    return;
                if (!m_ties[i])
                    continue;
                m_group.push_back(c);
                if (score < lowest)
                {
                    lowest = score;
                    limit = floatAtOrAbove(lowest);
                }
            }
        }
    }

    // Cuts counted past the limit a choice needs, so that the bound handed down to the
    // children stays useful for a few levels.
    static const int EXTRA = 64;
    static const size_t BLOCK = 16;

    struct Candidate
    {
        uint32_t fact;
        double score;
    };

    SurfaceFact& at(size_t position) { return (*m_facts)[(*m_order)[position]]; }
    SurfaceFact& fact(size_t candidate) { return at(m_candidates[candidate].fact); }

    // Unmarked surfaces in runs of BLOCK along the list, each run with its box, and runs
    // of BLOCK runs with theirs: a plane that cannot straddle a box cannot cut any face in
    // it, so the whole run is passed over. Built on the first count a node needs.
    void buildBlocks()
    {
        m_blocksBuilt = true;
        m_blockBoxes.clear();
        m_groupBoxes.clear();
        const size_t n = m_order->size();
        CutBox group = NO_BOX;
        for (size_t i = 0; i < n; i += BLOCK)
        {
            CutBox b = NO_BOX;
            if (m_boxes)
            {
                for (size_t j = i; j < n && j < i + BLOCK; ++j)
                    if (!at(j).onNode)
                        unite(b, (*m_boxes)[(*m_order)[j]]);
            }
            else
            {
                float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
                for (size_t j = i; j < n && j < i + BLOCK; ++j)
                {
                    const SurfaceFact& f = at(j);
                    if (f.onNode)
                        continue;
                    b.empty = false;
                    for (int k = 0; k < 3; ++k)
                    {
                        lo[k] = std::min(lo[k], f.mins[k]);
                        hi[k] = std::max(hi[k], f.maxs[k]);
                    }
                }
                for (int k = 0; k < 3; ++k)
                {
                    b.mins[k] = lo[k];
                    b.maxs[k] = hi[k];
                }
            }
            m_blockBoxes.add(b);
            unite(group, b);
            if ((i / BLOCK) % BLOCK == BLOCK - 1 || i + BLOCK >= n)
            {
                m_groupBoxes.add(group);
                group = NO_BOX;
            }
        }
    }

    // Calls visit(surface) for every unmarked surface of the list other than `self` whose
    // box the plane may straddle, in list order, until visit returns true.
    template <class Visit> void eachNear(uint32_t self, const mrPlane* plane, Visit visit)
    {
        if (!m_blocksBuilt)
            buildBlocks();
        const BoxTest test(plane);
        const mrBSPSurface* own = at(self).surface;
        const size_t n = m_order->size(), blocks = m_blockBoxes.size();
        for (size_t g = 0; g < m_groupBoxes.size(); ++g)
        {
            if (m_groupBoxes.cannotStraddle(test, g))
                continue;
            for (size_t b = g * BLOCK; b < blocks && b < (g + 1) * BLOCK; ++b)
            {
                if (m_blockBoxes.cannotStraddle(test, b))
                    continue;
                for (size_t j = b * BLOCK; j < n && j < (b + 1) * BLOCK; ++j)
                {
                    const SurfaceFact& f = at(j);
                    if (f.onNode || f.surface == own)
                        continue;
                    const PointBox& box = (*m_pointBoxes)[(*m_order)[j]];
                    if (box.empty || test.cannotStraddle(box.c, box.e, box.reach))
                        continue;
                    if (visit(f.surface))
                        return;
                }
            }
        }
    }

    // Counts the candidate's cuts up to `limit` and tightens its bounds.
    void count(size_t candidate, int limit)
    {
        SurfaceFact& f = fact(candidate);
        const mrPlane* plane = f.surface->m_plane;
        int cuts = 0;
        eachNear(m_candidates[candidate].fact, plane,
                 [&](mrBSPSurface* s)
                 {
                     for (mrBSPFace* face = s->m_faces; face; face = face->m_next)
                         if (m_bsp->faceSide(face, const_cast<mrPlane*>(plane)) == mrPlane::SIDE_ON && ++cuts >= limit)
                             return true;
                     return false;
                 });
        if (cuts < limit)
            f.lower = f.upper = cuts;
        else if (limit > f.lower)
            f.lower = limit;
    }

    // Whether the list walk, with best count `best` = m, ends the candidate's count at
    // exactly m (see above). Surfaces without cuts add nothing and stop nothing, so only
    // the others are visited.
    bool walkTies(size_t candidate, int best)
    {
        // The walk reaches m and stops for good at the surface of the m-th cut, so it ends
        // at m exactly when the cuts number m, or more but all past the m-th in that one
        // surface: never when they number m + (the most faces a surface has) or more, and
        // with m = 0 only when there are none. Counting settles most candidates (and the
        // count is kept as a bound); the walk itself is left for the rest.
        SurfaceFact& f = fact(candidate);
        const int32_t reach = tieReach(best);
        if (f.lower != f.upper && f.lower < reach)
            count(candidate, reach + EXTRA);
        if (f.lower == f.upper && f.lower == best)
            return true; // its last cut brings it to m
        if (f.lower >= reach)
            return false;
        return walkCount(candidate, best) == best;
    }

    // The fewest cuts with which a candidate can no longer tie with `best`.
    int32_t tieReach(int best) const { return best == 0 ? 1 : best + m_mostFaces; }

    int walkCount(size_t candidate, int best)
    {
        const mrPlane* plane = fact(candidate).surface->m_plane;
        int cuts = 0;
        eachNear(m_candidates[candidate].fact, plane,
                 [&](mrBSPSurface* s)
                 {
                     for (mrBSPFace* face = s->m_faces; face; face = face->m_next)
                         if (m_bsp->faceSide(face, const_cast<mrPlane*>(plane)) == mrPlane::SIDE_ON && ++cuts >= best)
                             break;
                     return cuts > best;
                 });
        return cuts;
    }

    mrSolidBSP* m_bsp = nullptr;
    std::vector<SurfaceFact>* m_facts = nullptr;
    const std::vector<uint32_t>* m_order = nullptr;
    const std::vector<CutBox>* m_boxes = nullptr;
    const std::vector<PointBox>* m_pointBoxes = nullptr;
    std::vector<Candidate> m_candidates;
    std::vector<size_t> m_later;
    std::vector<size_t> m_group;
    std::vector<std::vector<Candidate>> m_shareCandidates;
    std::vector<char> m_ties;
    std::vector<size_t> m_batch;
    bool m_blocksBuilt = false;
    int32_t m_mostFaces = 0; // the most faces an unmarked surface of the list has
    BoxSet m_blockBoxes, m_groupBoxes;
};

// The surfaces of a list as a linked list again, in the list's order and with every face
// list in the order dividing would have left it.
mrBSPSurface* materialize(std::vector<SurfaceFact>& facts, const std::vector<uint32_t>& order)
{
    mrBSPSurface* head = nullptr;
    for (size_t i = order.size(); i-- > 0;)
    {
        SurfaceFact& f = facts[order[i]];
        if (f.flips & 1)
            reverseFaces(f.surface);
        f.flips = 0;
        f.surface->m_next = head;
        head = f.surface;
    }
    return head;
}

// ---- Chains (mid-split) ------------------------------------------------------------
//
// A closed curved mesh makes a chain: each node hands nearly all of its list on to one
// child. Such a list is kept here across the nodes instead of being copied at each: every
// surface has a fixed key (its place when the chain started, which the back half of a
// divided surface takes over), and since each child list is the parent's reversed, a
// node's list runs in increasing dir . key with dir changing sign at every node. The
// choice, the list's bounds and the surfaces a plane may divide are found through sorted
// sets and trees; only the surfaces that leave the chain or are divided are touched.

// A chain starts at a mid-split node whose list has at least CHAIN_START surfaces and ends
// when fewer than CHAIN_KEEP are left.
const size_t CHAIN_START = 512;
const size_t CHAIN_KEEP = 128;
const uint32_t GONE = 0xFFFFFFFFu;

// A box tree over the surfaces of a chain by key. Surfaces that leave stay as leaves until
// the tree is rebuilt (their keys then hold GONE), and boxes are never narrowed: dividing
// only shrinks a surface's bounds.
class KeyBoxTree
{
public:
    void build(const std::vector<SurfaceFact>& facts, const std::vector<uint32_t>& slots)
    {
        m_nodes.clear();
        m_root = -1;
        std::vector<int32_t> leaves;
        for (uint32_t key = 0; key < slots.size(); ++key)
        {
            if (slots[key] == GONE)
                continue;
            const SurfaceFact& f = facts[slots[key]];
            Node n;
            for (int k = 0; k < 3; ++k)
            {
                n.mins[k] = f.mins[k];
                n.maxs[k] = f.maxs[k];
            }
            n.child[0] = n.child[1] = -1;
            n.key = key;
            leaves.push_back((int32_t)m_nodes.size());
            m_nodes.push_back(n);
        }
        const std::vector<int32_t> made = mrBuildMedianTree(
            leaves,
            [this](int32_t n, int k) { return 0.5f * m_nodes[(size_t)n].mins[k] + 0.5f * m_nodes[(size_t)n].maxs[k]; },
            [this]()
            {
                m_nodes.push_back(Node());
                return (int32_t)m_nodes.size() - 1;
            },
            [this](int32_t n, int32_t parent, int slot)
            {
                if (parent < 0)
                    m_root = n;
                else
                    m_nodes[(size_t)parent].child[slot] = n;
            });
        for (size_t i = made.size(); i-- > 0;)
        {
            Node& n = m_nodes[(size_t)made[i]];
            const Node& a = m_nodes[(size_t)n.child[0]];
            const Node& b = m_nodes[(size_t)n.child[1]];
            for (int k = 0; k < 3; ++k)
            {
                n.mins[k] = std::min(a.mins[k], b.mins[k]);
                n.maxs[k] = std::max(a.maxs[k], b.maxs[k]);
            }
        }
    }

    // Calls visit(key) for every leaf whose box boundsSide does not put wholly on `side`.
    template <class Visit> void notWhollyOn(const mrPlane* plane, mrPlane::e_side side, Visit visit)
    {
        if (m_root < 0)
            return;
        m_stack.assign(1, m_root);
        while (!m_stack.empty())
        {
            const Node& n = m_nodes[(size_t)m_stack.back()];
            m_stack.pop_back();
            if (boundsSide(n.mins, n.maxs, plane) == side)
                continue;
            if (n.child[0] < 0)
            {
                visit(n.key);
                continue;
            }
            m_stack.push_back(n.child[1]);
            m_stack.push_back(n.child[0]);
        }
    }

private:
    struct Node
    {
        float mins[3], maxs[3];
        int32_t child[2];
        uint32_t key;
    };
    std::vector<Node> m_nodes;
    std::vector<int32_t> m_stack;
    int32_t m_root = -1;
};

// The three numbers of a normal as a key of exact equality (0 and -0 alike, as == has it).
struct NormalKey
{
    uint32_t bits[3];
    bool operator==(const NormalKey& o) const
    {
        return bits[0] == o.bits[0] && bits[1] == o.bits[1] && bits[2] == o.bits[2];
    }
};
struct NormalKeyHash
{
    size_t operator()(const NormalKey& k) const
    {
        return (size_t)k.bits[0] * 0x9E3779B97F4A7C15ull ^ (size_t)k.bits[1] * 0xC2B2AE3D27D4EB4Full ^
               (size_t)k.bits[2] * 0x165667B19E3779F9ull;
    }
};
NormalKey normalKey(const float* n)
{
    NormalKey key;
    for (int k = 0; k < 3; ++k)
    {
        const float v = n[k] == 0.0f ? 0.0f : n[k];
        std::memcpy(&key.bits[k], &v, sizeof v);
    }
    return key;
}

class SurfaceChain
{
public:
    // The list (fact numbers in list order) becomes the chain; its keys are the places.
    void start(std::vector<SurfaceFact>& facts, const std::vector<uint32_t>& order)
    {
        m_slots = order;
        m_dir = 1;
        m_cuts = 0;
        m_live = order.size();
        m_gone = 0;
        m_segSize = 1;
        while (m_segSize < order.size())
            m_segSize *= 2;
        for (int k = 0; k < 3; ++k)
        {
            m_lo[k].assign(2 * m_segSize, INFINITY);
            m_hi[k].assign(2 * m_segSize, -INFINITY);
        }
        for (uint32_t key = 0; key < order.size(); ++key)
        {
            SurfaceFact& f = facts[order[key]];
            f.chainKey = key;
            f.flipBase = -f.flips;
            for (int k = 0; k < 3; ++k)
            {
                m_lo[k][m_segSize + key] = f.mins[k];
                m_hi[k][m_segSize + key] = f.maxs[k];
            }
            if (!f.onNode)
                addCandidate(f);
            m_parallel[normalKey(f.normal)].push_back(key);
        }
        for (size_t i = m_segSize; i-- > 1;)
            for (int k = 0; k < 3; ++k)
            {
                m_lo[k][i] = std::min(m_lo[k][2 * i], m_lo[k][2 * i + 1]);
                m_hi[k][i] = std::max(m_hi[k][2 * i], m_hi[k][2 * i + 1]);
            }
        m_tree.build(facts, m_slots);
    }

    size_t live() const { return m_live; }
    size_t candidates() const { return m_candidates.size(); }

    // The list at the node to cut next, in order, every fact owing its reversals; the
    // chain is then empty.
    std::vector<uint32_t> takeOrder(std::vector<SurfaceFact>& facts)
    {
        std::vector<uint32_t> order;
        order.reserve(m_live);
        for (size_t i = 0; i < m_slots.size(); ++i)
        {
            const uint32_t id = m_slots[m_dir > 0 ? i : m_slots.size() - 1 - i];
            if (id == GONE)
                continue;
            facts[id].flips = owed(facts[id]);
            order.push_back(id);
        }
        return order;
    }

    // Cuts `node` (its list is the chain's) as partitionByFacts would at mid-split: the
    // choice, the children and the division. The list of the child the chain does not go
    // on to, and the chain's child, are returned.
    void cut(mrSolidBSP& bsp, std::vector<SurfaceFact>& facts, std::vector<PointBox>& pointBoxes, mrBSPNode* node,
             std::vector<uint32_t>& otherList, mrBSPNode** chainNode, mrBSPNode** otherNode)
    {
        srVector3T<float> mins(99999.0f, 99999.0f, 99999.0f);
        srVector3T<float> maxs(-99999.0f, -99999.0f, -99999.0f);
        for (int k = 0; k < 3; ++k)
        {
            if (m_lo[k][1] < mins[k])
                mins[k] = m_lo[k][1];
            if (m_hi[k][1] > maxs[k])
                maxs[k] = m_hi[k][1];
        }
        const uint32_t splitKey = m_candidates.size() == 1 ? *m_candidates.begin() : choose(facts, mins, maxs);

        ++bsp.m_numSplitNodes;
        node->m_children[0] = new mrBSPNode;
        node->m_children[1] = new mrBSPNode;
        mrBSPSurface* splitter = facts[m_slots[splitKey]].surface;
        mrPlane* plane = splitter->m_plane;
        node->m_plane = plane;
        bsp.divideNodeBounds(node, plane);

        // The surfaces that may not go whole to the chain's side: those the plane's
        // bounds test does not place there, and those parallel to the plane. The chain
        // goes on the side it went last time unless most of it goes the other way.
        const float normal[3] = {plane->m_normal.x, plane->m_normal.y, plane->m_normal.z};
        const std::vector<uint32_t>* parallel = nullptr;
        {
            auto found = m_parallel.find(normalKey(normal));
            if (found != m_parallel.end())
                parallel = &found->second;
        }
        std::vector<uint32_t>& movers = m_movers;
        auto gather = [&](bool keepBack)
        {
            movers.clear();
            m_tree.notWhollyOn(plane, keepBack ? mrPlane::SIDE_BACK : mrPlane::SIDE_FRONT,
                               [&](uint32_t key)
                               {
                                   if (m_slots[key] != GONE && !isParallel(facts[m_slots[key]], normal))
                                       movers.push_back(key);
                               });
            if (parallel)
                for (uint32_t key : *parallel)
                    if (m_slots[key] != GONE)
                        movers.push_back(key);
        };
        gather(m_keepBack);
        if (movers.size() > m_live / 2)
        {
            m_keepBack = !m_keepBack;
            gather(m_keepBack);
        }
        const int keep = m_keepBack ? 1 : 0;
        const int dir = m_dir;
        std::sort(movers.begin(), movers.end(),
                  [dir](uint32_t a, uint32_t b) { return dir * (int64_t)a < dir * (int64_t)b; });

        // Each mover as partitionByFacts handles it; the movers' order is the list's.
        std::vector<uint32_t> leaving;
        for (uint32_t key : movers)
        {
            const uint32_t id = m_slots[key];
            SurfaceFact& f = facts[id];
            f.flips = owed(f);
            mrBSPSurface* p = f.surface;
            int side;
            if (isParallel(f, normal))
            {
                // dividePlane's parallel case: the faces are not touched.
                side = f.dist > plane->m_dist ? 0 : 1;
                if (f.dist == plane->m_dist)
                {
                    p->m_onNode = 1;
                    if (!f.onNode)
                        dropCandidate(f);
                    f.onNode = 1;
                    side = 0;
                }
            }
            else
            {
                const mrPlane::e_side whole = boundsSide(f.mins, f.maxs, plane);
                if (whole != mrPlane::SIDE_ON)
                {
                    ++f.flips;
                    side = whole == mrPlane::SIDE_FRONT ? 0 : 1;
                }
                else
                {
                    if (f.flips & 1)
                        reverseFaces(p);
                    f.flips = 0;
                    mrBSPSurface* parts[2] = {nullptr, nullptr};
                    bsp.dividePlane(p, plane, &parts[0], &parts[1]);
                    int32_t faces[2] = {0, 0};
                    for (int s = 0; s < 2; ++s)
                    {
                        if (!parts[s])
                            continue;
                        if (!parts[s]->m_faces)
                            srAssertFail("0", kSource, __LINE__, "surface with no faces");
                        for (mrBSPFace* face = parts[s]->m_faces; face; face = face->m_next)
                            ++faces[s];
                    }
                    if (parts[0] && parts[1])
                    {
                        // The back half is a new surface with a fact of its own.
                        const uint32_t backId = (uint32_t)facts.size();
                        const SurfaceFact copy = facts[id];
                        facts.push_back(copy);
                        pointBoxes.push_back(PointBox());
                        const uint32_t ids[2] = {id, backId};
                        for (int s = 0; s < 2; ++s)
                        {
                            SurfaceFact& part = facts[ids[s]];
                            part.surface = parts[s];
                            part.faces = faces[s];
                            part.onNode = parts[s]->m_onNode;
                            for (int k = 0; k < 3; ++k)
                            {
                                part.mins[k] = parts[s]->m_mins[k];
                                part.maxs[k] = parts[s]->m_maxs[k];
                            }
                            pointBoxes[ids[s]] = PointBox::of(part);
                        }
                        // The half on the chain's side keeps the key.
                        const uint32_t stays = ids[keep], goes = ids[1 - keep];
                        m_slots[key] = stays;
                        setBounds(key, &facts[stays]);
                        facts[stays].flipBase = (int32_t)m_cuts + 1;
                        leaving.push_back(goes);
                        continue;
                    }
                    side = parts[0] ? 0 : 1;
                }
            }
            if (side == keep)
            {
                // Still in the chain, owing what it owes now plus nothing for this cut
                // (the chain adds one reversal to all at the end of each cut).
                f.flipBase = (int32_t)m_cuts + 1 - f.flips;
                continue;
            }
            leave(key, f);
            leaving.push_back(id);
        }
        splitter->m_onNode = 1;

        // The other child's list is the reverse of the order in which its surfaces left.
        otherList.assign(leaving.rbegin(), leaving.rend());
        *chainNode = node->m_children[keep];
        *otherNode = node->m_children[1 - keep];
        m_dir = -m_dir;
        ++m_cuts;
        if (m_gone > m_live + 1024)
        {
            m_tree.build(facts, m_slots);
            m_gone = 0;
        }
    }

private:
    int32_t owed(const SurfaceFact& f) const { return (int32_t)m_cuts - f.flipBase; }

    static bool isParallel(const SurfaceFact& f, const float* normal)
    {
        return f.normal[0] == normal[0] && f.normal[1] == normal[1] && f.normal[2] == normal[2];
    }

    void addCandidate(const SurfaceFact& f)
    {
        m_byAxis[f.axis].insert({f.v, (uint32_t)f.chainKey});
        m_candidates.insert((uint32_t)f.chainKey);
    }
    void dropCandidate(const SurfaceFact& f)
    {
        m_byAxis[f.axis].erase({f.v, (uint32_t)f.chainKey});
        m_candidates.erase((uint32_t)f.chainKey);
    }

    void leave(uint32_t key, const SurfaceFact& f)
    {
        if (!f.onNode)
            dropCandidate(f);
        m_slots[key] = GONE;
        setBounds(key, nullptr);
        --m_live;
        ++m_gone;
    }

    void setBounds(uint32_t key, const SurfaceFact* f)
    {
        size_t i = m_segSize + key;
        for (int k = 0; k < 3; ++k)
        {
            m_lo[k][i] = f ? f->mins[k] : INFINITY;
            m_hi[k][i] = f ? f->maxs[k] : -INFINITY;
        }
        for (i /= 2; i >= 1; i /= 2)
            for (int k = 0; k < 3; ++k)
            {
                m_lo[k][i] = std::min(m_lo[k][2 * i], m_lo[k][2 * i + 1]);
                m_hi[k][i] = std::max(m_hi[k][2 * i], m_hi[k][2 * i + 1]);
            }
    }

    // The mid-plane choice of the list walk. Its best score is a float: once a candidate
    // whose score D is at most T (the smallest float at or above the lowest D) has been
    // taken, only those with D at most T can follow, and none before it can hold it off;
    // so the walk over just those, in list order, makes the choice. A candidate's D grows
    // with the distance of its plane's coordinate from the middle of the box along its
    // axis, so they are found by walking out from the middle in each axis's set.
    uint32_t choose(const std::vector<SurfaceFact>& facts, const srVector3T<float>& mins, const srVector3T<float>& maxs)
    {
        double lowest = INFINITY, limit = INFINITY;
        m_scored.clear();
        for (int a = 0; a < 3; ++a)
        {
            const std::set<std::pair<double, uint32_t>>& set = m_byAxis[a];
            if (set.empty())
                continue;
            const double lo = mins[a], hi = maxs[a];
            const double middle = 0.5 * (lo + hi);
            // D = 2 (v - middle)^2 + this, exactly; computed, within far less than the margin.
            double rest = 0.5 * (hi - lo) * (hi - lo);
            for (int k = 0; k < 3; ++k)
                if (k != a)
                {
                    const double e = (double)maxs[k] - (double)mins[k];
                    rest += 2.0 * e * e;
                }
            auto up = set.lower_bound({middle, 0});
            auto down = up;
            for (;;)
            {
                const bool hasUp = up != set.end(), hasDown = down != set.begin();
                if (!hasUp && !hasDown)
                    break;
                std::set<std::pair<double, uint32_t>>::const_iterator at;
                if (hasUp && (!hasDown || up->first - middle <= middle - std::prev(down)->first))
                    at = up++;
                else
                    at = --down;
                const double off = std::fabs(at->first - middle);
                const double least = (2.0 * off * off + rest) * (1.0 - 1e-9);
                if (least > limit)
                    break;
                const double score = factScore(facts[m_slots[at->second]], mins, maxs);
                m_scored.push_back({at->second, score});
                if (score < lowest)
                {
                    lowest = score;
                    limit = (double)floatAtOrAbove(lowest);
                }
            }
        }
        if (!(lowest <= 402653184.0))
            return m_dir > 0 ? *m_candidates.begin() : *m_candidates.rbegin();
        std::sort(m_scored.begin(), m_scored.end(),
                  [this](const std::pair<uint32_t, double>& a, const std::pair<uint32_t, double>& b)
                  { return m_dir * (int64_t)a.first < m_dir * (int64_t)b.first; });
        uint32_t best = GONE;
        float bestScore = 0.0f;
        for (const auto& s : m_scored)
            if (s.second <= limit && (best == GONE || s.second <= (double)bestScore))
            {
                best = s.first;
                bestScore = (float)s.second;
            }
        return best;
    }

    std::vector<uint32_t> m_slots; // fact by key; GONE once it left
    int m_dir = 1;                 // the list runs in increasing m_dir . key
    bool m_keepBack = true;        // the chain went to the back child at the last cut
    uint32_t m_cuts = 0;           // each owes a reversal to the faces of every surface kept
    size_t m_live = 0, m_gone = 0;
    std::set<std::pair<double, uint32_t>> m_byAxis[3];                              // unmarked: (plane coordinate, key)
    std::set<uint32_t> m_candidates;                                                // keys of the unmarked
    std::unordered_map<NormalKey, std::vector<uint32_t>, NormalKeyHash> m_parallel; // keys by normal
    size_t m_segSize = 1;
    std::vector<float> m_lo[3], m_hi[3]; // the bounds, by key, in a tree of minima and maxima
    KeyBoxTree m_tree;
    std::vector<uint32_t> m_movers;
    std::vector<std::pair<uint32_t, double>> m_scored;
};

// True when every plane of the list has finite numbers: then every plane has a dominant
// axis and lies on itself, which the generation by facts relies on.
bool planesFinite(mrBSPSurface* list)
{
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        const mrPlane* p = s->m_plane;
        if (!p || !std::isfinite(p->m_normal.x) || !std::isfinite(p->m_normal.y) || !std::isfinite(p->m_normal.z) ||
            !std::isfinite(p->m_dist))
            return false;
    }
    return true;
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
    // The choice choosePlaneInListOrder makes, found with far less counting (see
    // FewestCutsChoice).
    std::vector<SurfaceFact> facts;
    std::vector<CutBox> boxes;
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        facts.push_back(factOf(s));
        if (trustBounds)
            continue;
        // The box of the faces' points (NaN coordinates, which are on every plane, left out).
        CutBox c{{INFINITY, INFINITY, INFINITY}, {-INFINITY, -INFINITY, -INFINITY}, true};
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
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
        boxes.push_back(c);
    }
    std::vector<uint32_t> order(facts.size());
    for (uint32_t i = 0; i < order.size(); ++i)
        order[i] = i;
    FewestCutsChoice choice;
    std::vector<PointBox> pointBoxes;
    for (size_t i = 0; i < facts.size(); ++i)
        pointBoxes.push_back(trustBounds ? PointBox::of(facts[i]) : PointBox::of(boxes[i]));
    int chosen = choice.choose(*this, facts, order, trustBounds ? nullptr : &boxes, pointBoxes, mins, maxs, allowZUp);
    if (chosen == FewestCutsChoice::PLAIN)
        return choosePlaneInListOrder(list, mins, maxs, allowZUp);
    return chosen < 0 ? nullptr : facts[(size_t)chosen].surface;
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

void mrSolidBSP::startGeneration(int midSplit)
{
    m_midSplit = midSplit;
    m_numSplitNodes = 0;
    m_numLeafFaces = 0;
    m_numNodeFaces = 0;
    m_numSolidLeafs = 0;
    m_numEmptyLeafs = 0;
    m_numLinkedFaces = 0;
    m_reserved1 = 1;
}

mrBSPNode* mrSolidBSP::generate(mrBSPSurface* surfaces, int midSplit)
{
    mrBSPNode* head = new mrBSPNode;
    startGeneration(midSplit);
    partitionSurfaces(surfaces, head);
    return head;
}

mrBSPNode* mrSolidBSP::generateParallel(mrBSPSurface* surfaces, int midSplit, int threads, const ParallelShare& share)
{
    threads = mrThreadCount::resolve(threads);
    if (threads <= 1)
        return generate(surfaces, midSplit);
    mrBSPNode* head = new mrBSPNode;
    startGeneration(midSplit);
    tbb::task_arena arena(threads);
    arena.execute([&] { partitionSurfacesWith(surfaces, head, &share); });
    return head;
}

void mrSolidBSP::partitionSurfaces(mrBSPSurface* list, mrBSPNode* node) { partitionSurfacesWith(list, node, nullptr); }

void mrSolidBSP::partitionSurfacesWith(mrBSPSurface* list, mrBSPNode* node, const ParallelShare* share)
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
    const bool trustBounds = boundsHoldFaces(list);
    if (trustBounds && planesFinite(list))
    {
        partitionByFacts(list, node, share);
        return;
    }
    std::vector<Work> stack;
    stack.push_back({list, node});
    while (!stack.empty())
    {
        mrProgress::reach((uint64_t)m_numLinkedFaces);
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
            whole = boundsSide(&p->m_mins.x, &p->m_maxs.x, plane);
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
                // Pieces of one original may reach leaves built on different threads.
                if (!__atomic_exchange_n(&original->m_linked, 1, __ATOMIC_RELAXED))
                    ++m_numLinkedFaces;
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

namespace
{
struct FactTree;

// What the subtrees of one parallel run share: the one task group they all go to, and the
// count of faces linked anywhere (for progress).
struct ParallelRun
{
    explicit ParallelRun(const mrSolidBSP::ParallelShare& s, int32_t linkedBefore) : share(s), linked(linkedBefore) {}
    const mrSolidBSP::ParallelShare& share;
    std::atomic<int64_t> linked;
    tbb::task_group group;
    const char token = 0;
};

void buildFacts(FactTree& tree, ParallelRun* run);

// A subtree built from facts of its own: on the calling thread, or (parallel runs) on
// another, with its counters and reports kept apart until every subtree is done.
struct FactTree
{
    // A report made while the subtree was built, or (subtree set) the place in their
    // order of a subtree built elsewhere.
    struct Report
    {
        std::string expression, source, message;
        long line;
        FactTree* subtree;
    };

    mrSolidBSP bsp; // its counters are this subtree's
    std::vector<SurfaceFact> facts;
    std::vector<PointBox> pointBoxes; // the facts' bounds, for box tests
    std::vector<uint32_t> list;
    mrBSPNode* node = nullptr;
    std::vector<Report> reports;
    std::vector<std::unique_ptr<FactTree>> subtrees;
    ParallelRun* run = nullptr;
    // The body of the task of run's group that builds it.
    struct Task
    {
        FactTree* tree;
        void operator()() const { buildFacts(*tree, tree->run); }
    } task{this};

    // Every counter of bsp back at zero; the mode is kept.
    explicit FactTree(const mrSolidBSP& from) : bsp(from)
    {
        bsp.m_numSplitNodes = bsp.m_numLeafFaces = bsp.m_numNodeFaces = 0;
        bsp.m_numSolidLeafs = bsp.m_numEmptyLeafs = bsp.m_numLinkedFaces = 0;
    }
    // Adds a generator's counters into another's.
    static void addCounts(mrSolidBSP& into, const mrSolidBSP& from)
    {
        into.m_numSplitNodes += from.m_numSplitNodes;
        into.m_numLeafFaces += from.m_numLeafFaces;
        into.m_numNodeFaces += from.m_numNodeFaces;
        into.m_numSolidLeafs += from.m_numSolidLeafs;
        into.m_numEmptyLeafs += from.m_numEmptyLeafs;
        into.m_numLinkedFaces += from.m_numLinkedFaces;
    }
    // Adds in the counters of every subtree below and takes them all over from their
    // parents, so that they are released one by one: subtrees nest as deep as the tree may
    // go, and nothing here recurses.
    void addSubtreeCounts()
    {
        std::vector<std::unique_ptr<FactTree>> all = std::move(subtrees);
        for (size_t i = 0; i < all.size(); ++i)
        {
            addCounts(bsp, all[i]->bsp);
            std::vector<std::unique_ptr<FactTree>> below = std::move(all[i]->subtrees);
            for (std::unique_ptr<FactTree>& sub : below)
                all.push_back(std::move(sub));
        }
        subtrees = std::move(all);
    }
    // Files the reports, those of the subtrees in their places (without recursion).
    void fileReports() const
    {
        std::vector<std::pair<const FactTree*, size_t>> stack(1, {this, 0});
        while (!stack.empty())
        {
            const FactTree* tree = stack.back().first;
            const size_t at = stack.back().second++;
            if (at == tree->reports.size())
            {
                stack.pop_back();
                continue;
            }
            const Report& r = tree->reports[at];
            if (r.subtree)
                stack.push_back({r.subtree, 0});
            else
                srAssertFail(r.expression.c_str(), r.source.c_str(), r.line,
                             r.message.empty() ? nullptr : r.message.c_str());
        }
    }
};

// Where this thread's reports go while it builds a subtree of a parallel run.
thread_local std::vector<FactTree::Report>* t_reports = nullptr;

void keepReport(const char* expression, const char* source, long line, const char* message)
{
    t_reports->push_back({expression ? expression : "0", source ? source : "", message ? message : "", line, nullptr});
}

// While it lives, the reports made on this thread are kept in `into`.
class KeptReports
{
public:
    explicit KeptReports(std::vector<FactTree::Report>* into)
        : m_outer(t_reports), m_outerHandler(srSetThreadAssertHandler(&keepReport))
    {
        t_reports = into;
    }
    ~KeptReports()
    {
        t_reports = m_outer;
        srSetThreadAssertHandler(m_outerHandler);
    }
    KeptReports(const KeptReports&) = delete;
    KeptReports& operator=(const KeptReports&) = delete;

private:
    std::vector<FactTree::Report>* m_outer;
    srAssertHandler m_outerHandler;
};

// Builds tree.node's subtree from tree.list: the loop of mrSolidBSP::partitionByFacts.
// With share set (parallel runs), a node whose children both hold at least
// share->minTask surfaces hands its back child to another thread, with the facts of its
// list numbered afresh in their old order; everything else is as on one thread.
void buildFacts(FactTree& tree, ParallelRun* run)
{
    const mrSolidBSP::ParallelShare* share = run ? &run->share : nullptr;
    std::atomic<int64_t>* linked = run ? &run->linked : nullptr;
    mrSolidBSP& bsp = tree.bsp;
    std::vector<SurfaceFact>& facts = tree.facts;
    std::vector<PointBox>& pointBoxes = tree.pointBoxes;
    struct Work
    {
        std::vector<uint32_t> list;
        mrBSPNode* node;
        std::unique_ptr<SurfaceChain> chain; // set: the list is this chain's
        FactTree* subtree;                   // set: the place of a subtree built elsewhere
    };
    std::vector<Work> stack;
    stack.push_back({std::move(tree.list), tree.node, nullptr, nullptr});

    std::optional<KeptReports> kept;
    if (share)
        kept.emplace(&tree.reports);
    // Progress from the calling thread only, on the leaves' faces linked anywhere.
    int32_t linkedHere = 0;
    auto progress = [&]
    {
        if (linked)
        {
            *linked += bsp.m_numLinkedFaces - linkedHere;
            linkedHere = bsp.m_numLinkedFaces;
            mrProgress::reach((uint64_t)linked->load());
        }
        else
            mrProgress::reach((uint64_t)bsp.m_numLinkedFaces);
    };

    std::function<FactTree*(std::vector<uint32_t>&&, mrBSPNode*)> spawn;
    if (share)
        spawn = [&](std::vector<uint32_t>&& list, mrBSPNode* node)
        {
            tree.subtrees.emplace_back(new FactTree(bsp));
            FactTree* sub = tree.subtrees.back().get();
            std::vector<std::pair<uint32_t, uint32_t>> byId(list.size());
            for (size_t i = 0; i < list.size(); ++i)
                byId[i] = {list[i], (uint32_t)i};
            std::sort(byId.begin(), byId.end());
            sub->list.resize(list.size());
            sub->facts.reserve(list.size());
            sub->pointBoxes.reserve(list.size());
            for (const auto& e : byId)
            {
                sub->list[e.second] = (uint32_t)sub->facts.size();
                sub->facts.push_back(facts[e.first]);
                sub->pointBoxes.push_back(pointBoxes[e.first]);
            }
            sub->node = node;
            sub->run = run;
            mrThreadHandoff::handingOver();
            run->group.run(mrThreadHandoff::task(sub->task, &run->token));
            return sub;
        };

    FewestCutsChoice choice;
    BoxSet goneBoxes, goneGroups;
    // Faces counted at a node that a child will not hold unchanged, as boxes with counts:
    // a plane that cannot straddle such a box loses none of its cuts with them. Past
    // GONE_BOXES of them all count for every plane.
    const size_t GONE_BOXES = 1 << 16, GONE_GROUP = 16;
    std::vector<uint32_t> goneWhole[2];                    // surfaces that go to the other side whole
    std::vector<std::pair<CutBox, int32_t>> goneCut, gone; // surfaces divided, as they were
    std::vector<uint32_t> front;
    // Where each surface of a long list goes (parallel runs): front or back whole, or
    // divided; whether it was a candidate, and whether it lies on the plane.
    enum : uint8_t
    {
        GOES_FRONT = 0,
        GOES_BACK = 1,
        GOES_DIVIDED = 2,
        GOES_CANDIDATE = 4,
        GOES_ON_PLANE = 8
    };
    std::vector<uint8_t> kinds;
    while (!stack.empty())
    {
        progress();
        Work work = std::move(stack.back());
        stack.pop_back();
        if (work.subtree)
        {
            // The subtree built elsewhere comes here in the order of reports.
            tree.reports.push_back({{}, {}, {}, 0, work.subtree});
            continue;
        }
        std::vector<uint32_t>& order = work.list;
        mrBSPNode* node = work.node;

        // Mid-split on a long list: kept as a chain for as long as one child takes most
        // of it (see SurfaceChain); the chain's list comes back as an array once it is
        // short or the node is a leaf.
        if (bsp.m_midSplit && !work.chain && order.size() >= CHAIN_START)
        {
            work.chain.reset(new SurfaceChain);
            work.chain->start(facts, order);
        }
        if (work.chain && (work.chain->live() < CHAIN_KEEP || work.chain->candidates() == 0))
        {
            order = work.chain->takeOrder(facts);
            work.chain.reset();
        }
        if (work.chain)
        {
            std::vector<uint32_t> otherList;
            mrBSPNode *chainNode = nullptr, *otherNode = nullptr;
            work.chain->cut(bsp, facts, pointBoxes, node, otherList, &chainNode, &otherNode);
            // The back child's work goes below the front child's.
            Work chained{{}, chainNode, std::move(work.chain), nullptr};
            Work other{std::move(otherList), otherNode, nullptr, nullptr};
            if (chainNode == node->m_children[1])
            {
                stack.push_back(std::move(chained));
                stack.push_back(std::move(other));
            }
            else
            {
                stack.push_back(std::move(other));
                stack.push_back(std::move(chained));
            }
            continue;
        }
        // selectPartition on the facts; a long list's shares on all threads, put together
        // in list order (a minimum stays the first of equals, as in one pass).
        const bool wide = share && order.size() >= share->minList;
        const size_t grain = share ? std::max<size_t>(1, share->grain) : 1;
        struct Scan
        {
            int candidates = 0, last = -1;
            int64_t faces = 0; // of the candidates
            srVector3T<float> mins{99999.0f, 99999.0f, 99999.0f};
            srVector3T<float> maxs{-99999.0f, -99999.0f, -99999.0f};
        };
        const std::vector<Scan> scan = inShares<Scan>(wide, order.size(), grain,
                                                      [&](Scan& sc, size_t first, size_t last)
                                                      {
                                                          for (size_t i = first; i < last; ++i)
                                                          {
                                                              const SurfaceFact& f = facts[order[i]];
                                                              if (!f.onNode)
                                                              {
                                                                  ++sc.candidates;
                                                                  sc.last = (int)i;
                                                                  sc.faces += f.faces;
                                                              }
                                                              for (int k = 0; k < 3; ++k)
                                                              {
                                                                  if (f.mins[k] < sc.mins[k])
                                                                      sc.mins[k] = f.mins[k];
                                                                  if (f.maxs[k] > sc.maxs[k])
                                                                      sc.maxs[k] = f.maxs[k];
                                                              }
                                                          }
                                                      });
        int candidates = 0, last = -1;
        srVector3T<float> mins(99999.0f, 99999.0f, 99999.0f);
        srVector3T<float> maxs(-99999.0f, -99999.0f, -99999.0f);
        for (const Scan& sc : scan)
        {
            candidates += sc.candidates;
            if (sc.last >= 0)
                last = sc.last;
            for (int k = 0; k < 3; ++k)
            {
                if (sc.mins[k] < mins[k])
                    mins[k] = sc.mins[k];
                if (sc.maxs[k] > maxs[k])
                    maxs[k] = sc.maxs[k];
            }
        }
        int split = -1;
        if (candidates == 1)
            split = last;
        else if (candidates > 1 && bsp.m_midSplit)
        {
            float bestScore = 402653184.0f; // 6 * 8192^2
            int firstCandidate = -1;
            for (size_t i = 0; i < order.size(); ++i)
            {
                const SurfaceFact& f = facts[order[i]];
                if (f.onNode)
                    continue;
                if (firstCandidate < 0)
                    firstCandidate = (int)i;
                double score = factScore(f, mins, maxs);
                if (score <= (double)bestScore)
                {
                    split = (int)i;
                    bestScore = (float)score;
                }
            }
            if (split < 0)
                split = firstCandidate;
        }
        else if (candidates > 1)
        {
            split = choice.choose(bsp, facts, order, nullptr, pointBoxes, mins, maxs, 0, share);
            if (split == FewestCutsChoice::PLAIN)
            {
                mrBSPSurface* chosen = bsp.choosePlaneInListOrder(materialize(facts, order), mins, maxs, 0);
                split = -1;
                for (size_t i = 0; i < order.size() && chosen; ++i)
                    if (facts[order[i]].surface == chosen)
                        split = (int)i;
            }
        }
        if (split < 0)
        {
            node->m_plane = nullptr;
            bsp.linkConvexFaces(materialize(facts, order), node);
            continue;
        }

        ++bsp.m_numSplitNodes;
        node->m_children[0] = new mrBSPNode;
        node->m_children[1] = new mrBSPNode;
        mrBSPSurface* splitter = facts[order[(size_t)split]].surface;
        mrPlane* plane = splitter->m_plane;
        node->m_plane = plane;
        bsp.divideNodeBounds(node, plane);

        // Faces whose cuts the lists' bounds count (those of unmarked surfaces).
        const bool counting = !bsp.m_midSplit;
        int64_t countable = 0;
        if (counting)
            for (const Scan& sc : scan)
                countable += sc.faces;
        for (int side = 0; side < 2; ++side)
            goneWhole[side].clear();
        goneCut.clear();
        auto leaves = [&](uint32_t id, int side)
        {
            if (counting && !facts[id].onNode)
                goneWhole[side].push_back(id);
        };
        auto cut = [&](const SurfaceFact& f)
        {
            if (!counting || f.onNode)
                return;
            goneCut.push_back({boundsBox(f), f.faces});
        };

        // The back list is gathered in place over the parent's, the front one apart.
        front.clear();
        size_t backCount = 0;
        auto place = [&](uint32_t id, int side)
        {
            if (side == 0)
                front.push_back(id);
            else
                order[backCount++] = id;
        };
        const size_t n = order.size();
        if (wide)
        {
            // Where each surface goes is found on all threads for those that go whole (as
            // below, each changing only its own fact); the lists are then put together
            // here in order, and the surfaces the plane may cut divided.
            kinds.resize(n);
            forShares(true, n, grain,
                      [&](size_t a, size_t b)
                      {
                          for (size_t i = a; i < b; ++i)
                          {
                              SurfaceFact& f = facts[order[i]];
                              const uint8_t candidate = f.onNode ? 0 : GOES_CANDIDATE;
                              if (f.normal[0] == plane->m_normal.x && f.normal[1] == plane->m_normal.y &&
                                  f.normal[2] == plane->m_normal.z)
                              {
                                  f.fresh = 0;
                                  if (f.dist == plane->m_dist)
                                  {
                                      f.surface->m_onNode = 1;
                                      f.onNode = 1;
                                      kinds[i] = GOES_FRONT | GOES_ON_PLANE | candidate;
                                  }
                                  else
                                      kinds[i] = (f.dist > plane->m_dist ? GOES_FRONT : GOES_BACK) | candidate;
                                  continue;
                              }
                              const mrPlane::e_side whole = boundsSide(f.mins, f.maxs, plane);
                              if (whole == mrPlane::SIDE_ON)
                              {
                                  kinds[i] = GOES_DIVIDED;
                                  continue;
                              }
                              f.fresh = 0;
                              ++f.flips;
                              kinds[i] = (whole == mrPlane::SIDE_FRONT ? GOES_FRONT : GOES_BACK) | candidate;
                          }
                      });
        }
        for (size_t i = 0; i < n; ++i)
        {
            const uint32_t id = order[i];
            if (wide && kinds[i] != GOES_DIVIDED)
            {
                const uint8_t kind = kinds[i];
                const int side = kind & GOES_BACK ? 1 : 0;
                if (counting && (kind & GOES_CANDIDATE))
                {
                    if (kind & GOES_ON_PLANE)
                    {
                        goneWhole[0].push_back(id);
                        goneWhole[1].push_back(id);
                    }
                    else
                        goneWhole[1 - side].push_back(id);
                }
                if (side == 0)
                    front.push_back(id);
                else
                    order[backCount++] = id;
                continue;
            }
            SurfaceFact& f = facts[id];
            f.fresh = 0;
            mrBSPSurface* p = f.surface;
            if (f.normal[0] == plane->m_normal.x && f.normal[1] == plane->m_normal.y &&
                f.normal[2] == plane->m_normal.z)
            {
                // dividePlane's parallel case: the faces are not touched.
                int side = f.dist > plane->m_dist ? 0 : 1;
                if (f.dist == plane->m_dist)
                {
                    leaves(id, 0);
                    leaves(id, 1);
                    p->m_onNode = 1;
                    f.onNode = 1;
                    side = 0;
                }
                else
                    leaves(id, 1 - side);
                place(id, side);
                continue;
            }
            mrPlane::e_side whole = boundsSide(f.mins, f.maxs, plane);
            if (whole != mrPlane::SIDE_ON)
            {
                // Every face goes to one side, so dividePlane would reverse the list.
                ++f.flips;
                const int side = whole == mrPlane::SIDE_FRONT ? 0 : 1;
                leaves(id, 1 - side);
                place(id, side);
                continue;
            }
            // Whatever dividePlane does, the faces as they are now leave the other side
            // (and, cut, this one too).
            cut(f);
            if (f.flips & 1)
                reverseFaces(p);
            f.flips = 0;
            mrBSPSurface* parts[2] = {nullptr, nullptr};
            bsp.dividePlane(p, plane, &parts[0], &parts[1]);
            const int32_t before = f.faces;
            int32_t faces[2] = {0, 0};
            for (int side = 0; side < 2; ++side)
            {
                mrBSPSurface* s = parts[side];
                if (!s)
                    continue;
                if (!s->m_faces)
                    srAssertFail("0", kSource, __LINE__, "surface with no faces");
                for (mrBSPFace* face = s->m_faces; face; face = face->m_next)
                    ++faces[side];
            }
            uint32_t ids[2] = {id, id};
            if (parts[0] && parts[1])
            {
                // The back part is a new surface with a fact of its own; both have new
                // bounds, and each cut face left one new piece on either side.
                ids[1] = (uint32_t)facts.size();
                const SurfaceFact copy = facts[id];
                facts.push_back(copy);
                pointBoxes.push_back(PointBox());
                for (int side = 0; side < 2; ++side)
                {
                    SurfaceFact& part = facts[ids[side]];
                    mrBSPSurface* s = parts[side];
                    part.surface = s;
                    part.faces = faces[side];
                    part.fresh = faces[0] + faces[1] - before;
                    part.onNode = s->m_onNode;
                    for (int k = 0; k < 3; ++k)
                    {
                        part.mins[k] = s->m_mins[k];
                        part.maxs[k] = s->m_maxs[k];
                    }
                    pointBoxes[ids[side]] = PointBox::of(part);
                }
            }
            if (parts[0])
                front.push_back(ids[0]);
            if (parts[1])
                order[backCount++] = ids[1];
        }
        order.resize(backCount);
        // The splitter lies on its own plane and was marked above.
        splitter->m_onNode = 1;
        std::vector<uint32_t>* sides[2] = {&front, &order};
        for (int side = 0; side < 2; ++side)
        {
            std::vector<uint32_t>& v = *sides[side];
            std::reverse(v.begin(), v.end());
            if (!counting)
                continue;
            // Sums over the child's list, a long one's shares on all threads.
            const bool wideSide = wide && v.size() >= share->minList;
            struct Sums
            {
                int64_t unchanged = 0, made = 0;
                bool bounded = false;
            };
            const std::vector<Sums> sums = inShares<Sums>(wideSide, v.size(), grain,
                                                          [&](Sums& sum, size_t first, size_t last)
                                                          {
                                                              for (size_t j = first; j < last; ++j)
                                                              {
                                                                  const SurfaceFact& f = facts[v[j]];
                                                                  if (!f.onNode)
                                                                  {
                                                                      sum.unchanged += f.faces - f.fresh;
                                                                      sum.made += f.fresh;
                                                                  }
                                                                  sum.bounded = sum.bounded || f.lower > 0;
                                                              }
                                                          });
            int64_t unchanged = 0, made = 0;
            bool bounded = false;
            for (const Sums& sum : sums)
            {
                unchanged += sum.unchanged;
                made += sum.made;
                bounded = bounded || sum.bounded;
            }
            // A plane's cuts among this child's faces: at least those of its cuts in the
            // parent that are still here unchanged, at most those plus the new pieces.
            const int64_t lost = countable - unchanged;
            if (!bounded)
            {
                forShares(wideSide, v.size(), grain,
                          [&](size_t a, size_t b)
                          {
                              for (size_t j = a; j < b; ++j)
                              {
                                  SurfaceFact& f = facts[v[j]];
                                  if (f.upper < UNKNOWN_CUTS)
                                      f.upper = (int32_t)std::min<int64_t>(UNKNOWN_CUTS, f.upper + made);
                              }
                          });
                continue;
            }
            gone.clear();
            for (uint32_t id : goneWhole[side])
            {
                gone.push_back({boundsBox(facts[id]), facts[id].faces});
            }
            gone.insert(gone.end(), goneCut.begin(), goneCut.end());
            goneBoxes.clear();
            goneGroups.clear();
            const size_t whole = gone.size();
            CutBox all = NO_BOX;
            for (size_t g = 0; g < whole; g += GONE_GROUP)
            {
                CutBox u = NO_BOX;
                for (size_t h = g; h < whole && h < g + GONE_GROUP; ++h)
                {
                    goneBoxes.add(gone[h].first);
                    unite(u, gone[h].first);
                }
                goneGroups.add(u);
                unite(all, u);
            }
            goneGroups.add(all);
            const bool few = whole <= GONE_BOXES;
            forShares(wideSide, v.size(), std::max<size_t>(1, grain / 4),
                      [&](size_t a, size_t b)
                      {
                          for (size_t j = a; j < b; ++j)
                          {
                              SurfaceFact& f = facts[v[j]];
                              int64_t drop = lost;
                              if (f.lower > 0)
                              {
                                  const BoxTest test(f.normal, f.dist);
                                  if (goneGroups.cannotStraddle(test, goneGroups.size() - 1))
                                      drop = 0;
                                  else if (few)
                                  {
                                      // Only the boxes the plane may straddle; past the bound,
                                      // nothing is left.
                                      drop = 0;
                                      for (size_t g = 0; g < whole && drop < f.lower; g += GONE_GROUP)
                                      {
                                          if (goneGroups.cannotStraddle(test, g / GONE_GROUP))
                                              continue;
                                          for (size_t h = g; h < whole && h < g + GONE_GROUP; ++h)
                                              if (!goneBoxes.cannotStraddle(test, h))
                                                  drop += gone[h].second;
                                      }
                                      drop = std::min(drop, lost);
                                  }
                              }
                              f.lower = (int32_t)std::max<int64_t>(0, (int64_t)f.lower - drop);
                              if (f.upper < UNKNOWN_CUTS)
                                  f.upper = (int32_t)std::min<int64_t>(UNKNOWN_CUTS, f.upper + made);
                          }
                      });
        }
        if (spawn && order.size() >= share->minTask && front.size() >= share->minTask)
            stack.push_back({{}, nullptr, nullptr, spawn(std::move(order), node->m_children[1])});
        else
            stack.push_back({std::move(order), node->m_children[1], nullptr, nullptr});
        stack.push_back({front, node->m_children[0], nullptr, nullptr});
    }

    progress();
}
} // namespace

void mrSolidBSP::partitionByFacts(mrBSPSurface* list, mrBSPNode* head, const ParallelShare* share)
{
    // Every surface has a fact (see SurfaceFact) in one array, and the list of each node
    // is an array of fact numbers in list order; the surfaces' links are only set again
    // where a list becomes a leaf. A surface that goes to one side whole moves as its
    // number; only the surfaces the plane may cut are divided with dividePlane. The
    // children's lists are the parent's in reverse order, as dividePlane's callers build
    // them.
    FactTree tree(*this);
    tree.node = head;
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        tree.list.push_back((uint32_t)tree.facts.size());
        tree.facts.push_back(factOf(s));
        tree.pointBoxes.push_back(PointBox::of(tree.facts.back()));
    }
    if (share)
    {
        ParallelRun run(*share, m_numLinkedFaces);
        buildFacts(tree, &run);
        run.group.wait();
        mrThreadHandoff::finished(&run.token);
        tree.addSubtreeCounts();
        // The reports of a parallel run, filed here in the order of one thread's.
        tree.fileReports();
    }
    else
        buildFacts(tree, nullptr);
    FactTree::addCounts(*this, tree.bsp);
}
