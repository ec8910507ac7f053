#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <unordered_map>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srTexture.h>

namespace
{
const char* const SOURCE = "mrClipBSPGen";

// Tolerances of the generator (coplanarity and point classification).
const double COPLANAR_DOT = 0.99999;

// Marks a face removed from m_allfaces while a partitioning runs; the gaps are closed
// when it ends, giving the order that removing each face on the spot would give.
mrFace g_removedFace;

const double ON_EPSILON = 0.001;

// Appends a point to a piece. A piece can only overflow after more than 61 successive
// cuts of one triangle's pieces; the record has no room for more, so the extra point is
// reported and dropped (the piece keeps its first 64 points and stays usable). Pieces
// are made with room for all their points up to that limit.
void appendPoint(mrFace* face, const srVector3T<float>& p)
{
    if (face->m_numpoints >= face->capacity())
    {
        srAssertFail("face->m_numpoints < MAX_POINTS", SOURCE, __LINE__, "face piece exceeds 64 points; point dropped");
        return;
    }
    face->m_points[face->m_numpoints++] = p;
}

// Key of a plane for exact float equality: -0 and +0 compare equal, so both map to +0.
// NaN components never compare equal and are left out of the lookup.
struct PlaneKey
{
    uint32_t v[4];
    bool operator==(const PlaneKey& o) const { return std::memcmp(v, o.v, sizeof(v)) == 0; }
};

struct PlaneKeyHash
{
    size_t operator()(const PlaneKey& k) const
    {
        uint64_t h = 1469598103934665603ull;
        for (uint32_t x : k.v)
        {
            h ^= x;
            h *= 1099511628211ull;
        }
        return (size_t)h;
    }
};

bool makeKey(float x, float y, float z, float w, PlaneKey& key)
{
    const float c[4] = {x, y, z, w};
    for (int i = 0; i < 4; ++i)
    {
        if (c[i] != c[i])
            return false;
        float f = c[i] == 0.0f ? 0.0f : c[i];
        std::memcpy(&key.v[i], &f, sizeof(f));
    }
    return true;
}
} // namespace

mrClipBSPGen::mrClipBSPGen()
    : m_numplanes(0), m_planes(nullptr), m_numnodes(0), m_numleaffaces(0), m_numsolidleafs(0), m_numemptyleafs(0)
{
}

mrClipBSPGen::~mrClipBSPGen()
{
    delete[] m_planes;
    for (mrBSPGenNode* node : m_madeNodes)
        delete node;
    for (mrFace* face : m_allfaces)
        if (face != &g_removedFace)
            delete face;
}

int mrClipBSPGen::findContents(srTexture* texture)
{
    if (!texture)
        return -2;
    const char* name = texture->getName();
    if (std::strcmp(name, "Q47ROADOT.TGA") == 0 || std::strcmp(name, "NERDSTRP.TGA") == 0)
        return -3;
    return -2;
}

void mrClipBSPGen::checkFace(mrFace*) {}

void mrClipBSPGen::divideNodeBounds(mrBSPGenNode*, srVector4T<float>&) {}

mrBSPGenNode* mrClipBSPGen::newNode()
{
    mrBSPGenNode* node = new mrBSPGenNode();
    m_madeNodes.push_back(node);
    return node;
}

// ---------------------------------------------------------------------------------
// Partitioning
//
// The tree is built with an explicit work stack rather than recursion: a closed mesh
// makes a chain as deep as it has triangles. The stack keeps the recursive order
// exactly: a node is numbered before its children, its whole front subtree is finished
// before its back subtree starts, and the solid children take their kind from the
// splitter once both subtrees are complete.
//
// The faces of a pending list are kept as compact records in blocks of up to 64, each
// block carrying what the splitter choice and the division need of its faces (bounds,
// candidates, best measure, a box of every point and a box of the face planes). A
// block that provably sends every face to one side (every point beyond the tolerance
// on that side by more than any rounding can move it, and no face plane near enough to
// the splitter's for either facing test) moves to that side whole; every other face is
// divided one by one with the same arithmetic as splitFace. On a closed mesh nearly
// every block moves whole, which is what keeps deep chains affordable.

namespace
{
const double MEASURE_START = 1610612736.0;
const float BOUNDS_START = 99999.0f;

// Middle-plane measure in double: foot point n*w, then per axis (max - P)^2 followed by
// (P - min)^2, summed x, y, z left to right (part of the reproducibility promise).
inline double middleMeasure(const srVector4T<float>& pl, const float* mins, const float* maxs)
{
    const double n[3] = {(double)pl.x, (double)pl.y, (double)pl.z};
    double s = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        double p = n[k] * (double)pl.w;
        double a = (double)maxs[k] - p;
        double b = p - (double)mins[k];
        s = s + a * a;
        s = s + b * b;
    }
    return s;
}

// Facing tests of a face plane m against a splitting plane: 1 same facing, -1 opposite,
// 0 neither. Dot products in double, float components widened and summed x, y, z (part
// of the reproducibility promise).
inline int facing(const srVector4T<float>& plane, const srVector4T<float>& m)
{
    const double dot = (double)plane.x * (double)m.x + (double)plane.y * (double)m.y + (double)plane.z * (double)m.z;
    if (dot > COPLANAR_DOT && std::fabs((double)m.w - (double)plane.w) < ON_EPSILON)
        return 1;
    const double negDot =
        (double)plane.x * -(double)m.x + (double)plane.y * -(double)m.y + (double)plane.z * -(double)m.z;
    if (negDot > COPLANAR_DOT && std::fabs(-(double)m.w - (double)plane.w) < ON_EPSILON)
        return -1;
    return 0;
}

// Point distances and sides; the first point's entry is repeated after the last.
inline void classify(const srVector3T<float>* points, int n, const srVector4T<float>& plane, double* dists, int* sides,
                     int* counts)
{
    counts[0] = counts[1] = counts[2] = 0;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = points[i];
        // Point distances in double, kept in double (part of the reproducibility promise).
        double d = (double)plane.x * (double)p.x + (double)plane.y * (double)p.y + (double)plane.z * (double)p.z -
                   (double)plane.w;
        dists[i] = d;
        if (d > ON_EPSILON)
            sides[i] = mrPlane::SIDE_FRONT;
        else if (d < -ON_EPSILON)
            sides[i] = mrPlane::SIDE_BACK;
        else
            sides[i] = mrPlane::SIDE_ON;
        ++counts[sides[i]];
    }
    if (n > 0)
    {
        dists[n] = dists[0];
        sides[n] = sides[0];
    }
}

inline int clampedPoints(const mrFace* face) { return std::min(std::max(face->m_numpoints, 0), face->capacity()); }
} // namespace

class mrClipBSPGen::Partitioner
{
public:
    explicit Partitioner(mrClipBSPGen& gen) : m_gen(gen) {}
    ~Partitioner();
    Partitioner(const Partitioner&) = delete;
    Partitioner& operator=(const Partitioner&) = delete;

    void run(std::vector<mrFace*>& faces, mrBSPGenNode* root);

private:
    enum
    {
        BLOCK_FACES = 64,
        GROUP_FACES = 8,
        GROUPS = BLOCK_FACES / GROUP_FACES
    };
    enum e_verdict
    {
        MIXED,
        ALL_FRONT,
        ALL_BACK
    };

    // What the choice and the division read of a face, kept together.
    struct Record
    {
        srVector3T<float> p[3]; // the face's first three points
        srVector4T<float> plane;
        double measure; // middle-plane measure for the bounds its list was measured with
        uint32_t id;    // index into m_faceOf / m_slotOf
        int32_t used;   // mirrors the face's m_used
        int32_t numpoints;
    };

    // Boxes around some faces: every point the division classifies, and the face planes.
    struct Bounds
    {
        float pmin[3], pmax[3];
        float nmin[3], nmax[3];
        float wmin, wmax;
        double nlen2; // greatest squared length of a face normal
        bool unsafe;  // a face no box can vouch for (no points, or non-finite values)
    };

    // The faces of a block, with boxes around each group of eight.
    struct Block
    {
        Bounds group[GROUPS];
        Record f[BLOCK_FACES];
    };

    // What the choice and the division read of a block, kept contiguous in its list.
    struct Summary
    {
        Block* block;
        int count;
        int candidates, firstCand, lastCand;
        int bestIdx;     // last candidate with the least measure not above the start value
        bool measureNaN; // a candidate's measure is NaN: choose face by face
        double bestMeasure;
        float bmin[3], bmax[3]; // first three points of every face, as the choice compares them
        Bounds box;
    };

    struct List
    {
        std::vector<Summary> blocks;
        // The bounds the candidates' measures were taken with.
        bool measured = false;
        float measuredMins[3] = {0, 0, 0};
        float measuredMaxs[3] = {0, 0, 0};
    };

    // A list to partition into a node, or (list null) a node whose solid children take
    // the splitter's kind.
    struct Task
    {
        mrBSPGenNode* node;
        List* list;
        srTextureIFace* texture;
    };

    Block* newBlock();
    void releaseBlock(Block* b) { m_freeBlocks.push_back(b); }
    List* newList();
    void releaseList(List* l);

    // What a division does to one face.
    enum e_fate
    {
        STAY_FRONT, // whole and unchanged, to the front
        STAY_BACK,
        TURN_FRONT, // a facing test met: marked used, whole to the front
        TURN_BACK,
        CUT // cut in two
    };

    Record makeRecord(mrFace* face, size_t slot, double measure);
    static void clearBounds(Bounds& b);
    static void unite(Bounds& b, const Bounds& o);
    void faceBounds(const Record& r, Bounds& b) const;
    void appendToBlock(Summary& s, const Record& r);
    static void summarise(Summary& s, const Record& r, int i);
    static void restat(Summary& s);
    void appendRecord(List& l, const Record& r);
    void moveBlock(List& l, const Summary& s);
    static void remeasure(Summary& s, const float* mins, const float* maxs);
    // The splitting plane, widened once for the box tests.
    struct Splitter
    {
        explicit Splitter(const srVector4T<float>& p);
        const srVector4T<float>& plane;
        double P[3], pw, p2, absP[3];
    };
    static e_verdict verdict(const Bounds& b, const Splitter& sp);
    e_fate fateOf(const Record& r, const srVector4T<float>& plane) const;
    void divideBlock(Summary s, bool splitterBlock, const Splitter& sp, List& front, List& back);

    bool select(List& l, size_t& block, int& index);
    Record cutRecord(const Record& r, const srVector4T<float>& plane, List& other, bool keepBack);
    void divide(List& l, size_t splitterBlock, const srVector4T<float>& plane, List& front, List& back);
    void partitionNode(mrBSPGenNode* node, List* list);

    mrClipBSPGen& m_gen;
    std::vector<Task> m_tasks;
    // Per record id: its face (null once cut) and its position in m_allfaces.
    std::vector<mrFace*> m_faceOf;
    std::vector<size_t> m_slotOf;
    bool m_removedAny = false;
    std::vector<Block*> m_allBlocks, m_freeBlocks;
    std::vector<List*> m_allLists, m_freeLists;
};

namespace
{
const size_t NO_SLOT = (size_t)-1;
}

mrClipBSPGen::Partitioner::~Partitioner()
{
    if (m_removedAny)
        m_gen.m_allfaces.erase(std::remove(m_gen.m_allfaces.begin(), m_gen.m_allfaces.end(), &g_removedFace),
                               m_gen.m_allfaces.end());
    for (Block* b : m_allBlocks)
        delete b;
    for (List* l : m_allLists)
        delete l;
}

mrClipBSPGen::Partitioner::Block* mrClipBSPGen::Partitioner::newBlock()
{
    if (!m_freeBlocks.empty())
    {
        Block* b = m_freeBlocks.back();
        m_freeBlocks.pop_back();
        return b;
    }
    std::unique_ptr<Block> owned(new Block);
    m_allBlocks.push_back(owned.get());
    return owned.release();
}

mrClipBSPGen::Partitioner::List* mrClipBSPGen::Partitioner::newList()
{
    if (!m_freeLists.empty())
    {
        List* l = m_freeLists.back();
        m_freeLists.pop_back();
        return l;
    }
    std::unique_ptr<List> owned(new List);
    m_allLists.push_back(owned.get());
    return owned.release();
}

void mrClipBSPGen::Partitioner::releaseList(List* l)
{
    for (const Summary& s : l->blocks)
        releaseBlock(s.block);
    l->blocks.clear();
    l->measured = false;
    m_freeLists.push_back(l);
}

mrClipBSPGen::Partitioner::Record mrClipBSPGen::Partitioner::makeRecord(mrFace* face, size_t slot, double measure)
{
    Record r;
    for (int i = 0; i < 3; ++i)
        r.p[i] = face->m_points[i];
    r.plane = face->m_plane;
    r.measure = measure;
    r.id = (uint32_t)m_faceOf.size();
    r.used = face->m_used;
    r.numpoints = face->m_numpoints;
    m_faceOf.push_back(face);
    m_slotOf.push_back(slot);
    return r;
}

void mrClipBSPGen::Partitioner::clearBounds(Bounds& b)
{
    const float inf = std::numeric_limits<float>::infinity();
    for (int k = 0; k < 3; ++k)
    {
        b.pmin[k] = b.nmin[k] = inf;
        b.pmax[k] = b.nmax[k] = -inf;
    }
    b.wmin = inf;
    b.wmax = -inf;
    b.nlen2 = 0.0;
    b.unsafe = false;
}

void mrClipBSPGen::Partitioner::unite(Bounds& b, const Bounds& o)
{
    for (int k = 0; k < 3; ++k)
    {
        b.pmin[k] = std::min(b.pmin[k], o.pmin[k]);
        b.pmax[k] = std::max(b.pmax[k], o.pmax[k]);
        b.nmin[k] = std::min(b.nmin[k], o.nmin[k]);
        b.nmax[k] = std::max(b.nmax[k], o.nmax[k]);
    }
    b.wmin = std::min(b.wmin, o.wmin);
    b.wmax = std::max(b.wmax, o.wmax);
    b.nlen2 = std::max(b.nlen2, o.nlen2);
    b.unsafe = b.unsafe || o.unsafe;
}

void mrClipBSPGen::Partitioner::faceBounds(const Record& r, Bounds& face) const
{
    clearBounds(face);
    const float n[4] = {r.plane.x, r.plane.y, r.plane.z, r.plane.w};
    for (int k = 0; k < 4; ++k)
        if (!std::isfinite(n[k]))
            face.unsafe = true;
    for (int k = 0; k < 3; ++k)
        face.nmin[k] = face.nmax[k] = n[k];
    face.wmin = face.wmax = n[3];
    face.nlen2 = (double)n[0] * (double)n[0] + (double)n[1] * (double)n[1] + (double)n[2] * (double)n[2];
    const srVector3T<float>* pts = r.p;
    int np = 3;
    if (r.numpoints != 3)
    {
        const mrFace* source = m_faceOf[r.id];
        pts = source->m_points;
        np = clampedPoints(source);
        if (np == 0)
            face.unsafe = true;
    }
    for (int j = 0; j < np; ++j)
        for (int k = 0; k < 3; ++k)
        {
            const float c = pts[j][k];
            if (!std::isfinite(c))
                face.unsafe = true;
            face.pmin[k] = std::min(face.pmin[k], c);
            face.pmax[k] = std::max(face.pmax[k], c);
        }
}

void mrClipBSPGen::Partitioner::summarise(Summary& s, const Record& r, int i)
{
    if (r.used == 0)
    {
        if (s.candidates++ == 0)
            s.firstCand = i;
        s.lastCand = i;
        if (r.measure != r.measure)
            s.measureNaN = true;
        if (!(r.measure > s.bestMeasure))
        {
            s.bestMeasure = r.measure;
            s.bestIdx = i;
        }
    }
    // The choice's bounds: same comparisons, same order as selectPartition.
    for (int j = 0; j < 3; ++j)
        for (int k = 0; k < 3; ++k)
        {
            const float c = r.p[j][k];
            if (c < s.bmin[k])
                s.bmin[k] = c;
            if (c > s.bmax[k])
                s.bmax[k] = c;
        }
}

void mrClipBSPGen::Partitioner::appendToBlock(Summary& s, const Record& r)
{
    const int i = s.count++;
    s.block->f[i] = r;
    summarise(s, r, i);

    Bounds face;
    faceBounds(r, face);
    Bounds& g = s.block->group[i / GROUP_FACES];
    if (i % GROUP_FACES == 0)
        clearBounds(g);
    unite(g, face);
    unite(s.box, face);
}

void mrClipBSPGen::Partitioner::restat(Summary& s)
{
    // The exact summary of the faces now in the block (its boxes may stay wider).
    const float inf = std::numeric_limits<float>::infinity();
    s.candidates = 0;
    s.firstCand = s.lastCand = -1;
    s.bestIdx = -1;
    s.measureNaN = false;
    s.bestMeasure = MEASURE_START;
    for (int k = 0; k < 3; ++k)
    {
        s.bmin[k] = inf;
        s.bmax[k] = -inf;
    }
    for (int i = 0; i < s.count; ++i)
        summarise(s, s.block->f[i], i);
}

void mrClipBSPGen::Partitioner::appendRecord(List& l, const Record& r)
{
    if (l.blocks.empty() || l.blocks.back().count == BLOCK_FACES)
    {
        Summary s;
        s.block = newBlock();
        s.count = 0;
        s.candidates = 0;
        s.firstCand = s.lastCand = -1;
        s.bestIdx = -1;
        s.measureNaN = false;
        s.bestMeasure = MEASURE_START;
        const float inf = std::numeric_limits<float>::infinity();
        for (int k = 0; k < 3; ++k)
        {
            s.bmin[k] = inf;
            s.bmax[k] = -inf;
        }
        clearBounds(s.box);
        l.blocks.push_back(s);
    }
    appendToBlock(l.blocks.back(), r);
}

void mrClipBSPGen::Partitioner::moveBlock(List& l, const Summary& s)
{
    // A block that fits into the list's last one joins it, so blocks do not dwindle.
    if (!l.blocks.empty() && l.blocks.back().count + s.count <= BLOCK_FACES)
    {
        for (int i = 0; i < s.count; ++i)
            appendToBlock(l.blocks.back(), s.block->f[i]);
        releaseBlock(s.block);
        return;
    }
    l.blocks.push_back(s);
}

void mrClipBSPGen::Partitioner::remeasure(Summary& s, const float* mins, const float* maxs)
{
    s.measureNaN = false;
    s.bestIdx = -1;
    s.bestMeasure = MEASURE_START;
    for (int i = 0; i < s.count; ++i)
    {
        Record& r = s.block->f[i];
        if (r.used != 0)
            continue;
        r.measure = middleMeasure(r.plane, mins, maxs);
        if (r.measure != r.measure)
            s.measureNaN = true;
        if (!(r.measure > s.bestMeasure))
        {
            s.bestMeasure = r.measure;
            s.bestIdx = i;
        }
    }
}

mrClipBSPGen::Partitioner::Splitter::Splitter(const srVector4T<float>& p) : plane(p)
{
    P[0] = (double)p.x;
    P[1] = (double)p.y;
    P[2] = (double)p.z;
    pw = (double)p.w;
    p2 = P[0] * P[0] + P[1] * P[1] + P[2] * P[2];
    for (int k = 0; k < 3; ++k)
        absP[k] = std::fabs(P[k]);
}

mrClipBSPGen::Partitioner::e_verdict mrClipBSPGen::Partitioner::verdict(const Bounds& b, const Splitter& sp)
{
    if (b.unsafe)
        return MIXED;
    const double* P = sp.P;
    const double pw = sp.pw;

    // Every classified point's distance lies between the box's extremes, up to
    // rounding. The products of widened floats are exact; the margin covers the sums'
    // rounding many times over.
    double emax = 0.0, emin = 0.0, escale = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        const double lo = P[k] * (double)b.pmin[k], hi = P[k] * (double)b.pmax[k];
        emax += std::max(lo, hi);
        emin += std::min(lo, hi);
        escale += sp.absP[k] * std::max(std::fabs((double)b.pmin[k]), std::fabs((double)b.pmax[k]));
    }
    emax -= pw;
    emin -= pw;
    const double margin = 1e-14 * (escale + std::fabs(pw)) + 1e-300;
    e_verdict side;
    // Written so that any NaN leaves the faces to the face-by-face division.
    if (emax + margin < ON_EPSILON)
        side = ALL_BACK; // no point in front: the face goes back
    else if (emin - margin > ON_EPSILON)
        side = ALL_FRONT; // every point in front
    else
        return MIXED;

    // Neither facing test may be met. Bounds of P.m over the normal box: the box's
    // extreme corners, and, since P.m = (|P|^2 + |m|^2 - |P - m|^2) / 2, the box's
    // nearest points to P and to -P.
    const double wmin = (double)b.wmin, wmax = (double)b.wmax;
    const double wslack = 1e-12 * (std::fabs(pw) + std::max(std::fabs(wmin), std::fabs(wmax))) + 1e-12;
    const bool nearSame = !(wmax < pw - ON_EPSILON - wslack || wmin > pw + ON_EPSILON + wslack);
    const bool nearOpposite = !(wmax < -pw - ON_EPSILON - wslack || wmin > -pw + ON_EPSILON + wslack);
    if (!nearSame && !nearOpposite)
        return side;
    double dmax = 0.0, dmin = 0.0, dscale = 0.0, near2 = 0.0, far2 = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        const double nlo = (double)b.nmin[k], nhi = (double)b.nmax[k];
        const double lo = P[k] * nlo, hi = P[k] * nhi;
        dmax += std::max(lo, hi);
        dmin += std::min(lo, hi);
        dscale += sp.absP[k] * std::max(std::fabs(nlo), std::fabs(nhi));
        const double gap = std::max(std::max(nlo - P[k], P[k] - nhi), 0.0);
        near2 += gap * gap;
        const double gapNeg = std::max(std::max(nlo + P[k], -P[k] - nhi), 0.0);
        far2 += gapNeg * gapNeg;
    }
    const double dslack = 1e-14 * dscale + 1e-300;
    const double lslack = 1e-14 * (sp.p2 + b.nlen2 + near2 + far2) + 1e-300;
    if (nearSame && !(dmax + dslack < COPLANAR_DOT || 0.5 * (sp.p2 + b.nlen2 - near2) + lslack < COPLANAR_DOT))
        return MIXED;
    if (nearOpposite && !(-dmin + dslack < COPLANAR_DOT || 0.5 * (sp.p2 + b.nlen2 - far2) + lslack < COPLANAR_DOT))
        return MIXED;
    return side;
}

mrClipBSPGen::Partitioner::e_fate mrClipBSPGen::Partitioner::fateOf(const Record& r,
                                                                    const srVector4T<float>& plane) const
{
    // splitFace's decisions, without acting on them.
    const int f = facing(plane, r.plane);
    if (f != 0)
        return f > 0 ? TURN_FRONT : TURN_BACK;
    double dists[mrFace::MAX_POINTS + 1];
    int sides[mrFace::MAX_POINTS + 1];
    int counts[3];
    if (r.numpoints == 3)
        classify(r.p, 3, plane, dists, sides, counts);
    else
    {
        const mrFace* face = m_faceOf[r.id];
        classify(face->m_points, clampedPoints(face), plane, dists, sides, counts);
    }
    if (counts[mrPlane::SIDE_FRONT] == 0)
        return STAY_BACK;
    if (counts[mrPlane::SIDE_BACK] == 0)
        return STAY_FRONT;
    return CUT;
}

mrClipBSPGen::Partitioner::Record mrClipBSPGen::Partitioner::cutRecord(const Record& r, const srVector4T<float>& plane,
                                                                       List& other, bool keepBack)
{
    mrFace* face = m_faceOf[r.id];
    double dists[mrFace::MAX_POINTS + 1];
    int sides[mrFace::MAX_POINTS + 1];
    int counts[3];
    const int n = classifyPoints(face, plane, dists, sides, counts);
    mrFace* fp = nullptr;
    mrFace* bp = nullptr;
    m_gen.cutFace(face, plane, dists, sides, n, &fp, &bp);
    const size_t frontSlot = m_gen.m_allfaces.size() - 1;
    const size_t backSlot = frontSlot - 1;
    // The cut face leaves m_allfaces; its slot is closed up when the partitioning ends.
    const size_t slot = m_slotOf[r.id];
    if (slot != NO_SLOT)
    {
        m_gen.m_allfaces[slot] = &g_removedFace;
        m_removedAny = true;
    }
    delete face;
    m_faceOf[r.id] = nullptr;
    m_gen.checkFace(fp);
    m_gen.checkFace(bp);
    // Pieces keep the plane, so the measure taken for the face holds for them.
    const Record front = makeRecord(fp, frontSlot, r.measure);
    const Record back = makeRecord(bp, backSlot, r.measure);
    appendRecord(other, keepBack ? front : back);
    return keepBack ? back : front;
}

void mrClipBSPGen::Partitioner::divideBlock(Summary s, bool splitterBlock, const Splitter& sp, List& front, List& back)
{
    // The block's box decides most blocks whole. Otherwise each group's box, or failing
    // that each face, gives the faces' fates.
    if (!splitterBlock)
    {
        const e_verdict v = verdict(s.box, sp);
        if (v != MIXED)
        {
            moveBlock(v == ALL_BACK ? back : front, s);
            return;
        }
    }
    e_fate fate[BLOCK_FACES];
    int toFront = 0, toBack = 0;
    bool untouched = true;
    for (int g = 0; g * GROUP_FACES < s.count; ++g)
    {
        const int first = g * GROUP_FACES, last = std::min(first + (int)GROUP_FACES, s.count);
        const e_verdict v = verdict(s.block->group[g], sp);
        for (int i = first; i < last; ++i)
        {
            fate[i] = v == ALL_BACK ? STAY_BACK : v == ALL_FRONT ? STAY_FRONT : fateOf(s.block->f[i], sp.plane);
            toFront += fate[i] != STAY_BACK && fate[i] != TURN_BACK;
            toBack += fate[i] != STAY_FRONT && fate[i] != TURN_FRONT;
            untouched = untouched && (fate[i] == STAY_FRONT || fate[i] == STAY_BACK);
        }
    }
    if (untouched && (toFront == 0 || toBack == 0) && !splitterBlock)
    {
        moveBlock(toFront == 0 ? back : front, s);
        return;
    }

    // The block stays with the side that gets most of its faces, in place and in order;
    // the rest go to the other side one by one. Faces that stay keep their place in the
    // group boxes, which therefore may only grow (a cut piece lies within its face's box,
    // but the boxes take its points all the same).
    const bool keepBack = toBack >= toFront;
    List& other = keepBack ? front : back;
    Bounds oldGroups[GROUPS];
    std::copy(s.block->group, s.block->group + GROUPS, oldGroups);
    int kept = 0;
    int lastGroup = -1, lastOld = -1; // the old group last merged into the new one
    for (int i = 0; i < s.count; ++i)
    {
        Record r = s.block->f[i];
        Bounds piece;
        bool cut = false;
        bool stays;
        switch (fate[i])
        {
        case TURN_FRONT:
        case TURN_BACK:
            r.used = 1;
            m_faceOf[r.id]->m_used = 1;
            stays = (fate[i] == TURN_BACK) == keepBack;
            break;
        case CUT:
            r = cutRecord(r, sp.plane, other, keepBack);
            faceBounds(r, piece);
            unite(s.box, piece);
            cut = true;
            stays = true;
            break;
        default:
            stays = (fate[i] == STAY_BACK) == keepBack;
            break;
        }
        if (!stays)
        {
            appendRecord(other, r);
            continue;
        }
        const int group = kept / GROUP_FACES;
        Bounds& g = s.block->group[group];
        if (kept % GROUP_FACES == 0)
            clearBounds(g);
        if (group != lastGroup || i / GROUP_FACES != lastOld)
        {
            unite(g, oldGroups[i / GROUP_FACES]);
            lastGroup = group;
            lastOld = i / GROUP_FACES;
        }
        if (cut)
            unite(g, piece);
        s.block->f[kept++] = r;
    }
    s.count = kept;
    if (kept == 0)
    {
        releaseBlock(s.block);
        return;
    }
    restat(s);
    moveBlock(keepBack ? back : front, s);
}

bool mrClipBSPGen::Partitioner::select(List& l, size_t& block, int& index)
{
    // What selectPartition gathers, from the blocks' summaries.
    int candidates = 0;
    size_t firstB = 0, lastB = 0;
    int firstI = -1, lastI = -1;
    float mins[3] = {BOUNDS_START, BOUNDS_START, BOUNDS_START};
    float maxs[3] = {-BOUNDS_START, -BOUNDS_START, -BOUNDS_START};
    for (size_t i = 0; i < l.blocks.size(); ++i)
    {
        const Summary& s = l.blocks[i];
        if (s.candidates)
        {
            if (candidates == 0)
            {
                firstB = i;
                firstI = s.firstCand;
            }
            candidates += s.candidates;
            lastB = i;
            lastI = s.lastCand;
        }
        for (int k = 0; k < 3; ++k)
        {
            if (s.bmin[k] < mins[k])
                mins[k] = s.bmin[k];
            if (s.bmax[k] > maxs[k])
                maxs[k] = s.bmax[k];
        }
    }
    if (candidates == 0)
        return false;
    if (candidates == 1)
    {
        block = lastB;
        index = lastI;
        return true;
    }

    // The measures depend on the bounds only; they are taken again when those moved.
    if (!l.measured || std::memcmp(l.measuredMins, mins, sizeof mins) != 0 ||
        std::memcmp(l.measuredMaxs, maxs, sizeof maxs) != 0)
    {
        for (Summary& s : l.blocks)
            remeasure(s, mins, maxs);
        l.measured = true;
        std::memcpy(l.measuredMins, mins, sizeof mins);
        std::memcpy(l.measuredMaxs, maxs, sizeof maxs);
    }

    // As chooseMidPlaneFromList: the last candidate with the least measure, ties to the
    // later face. The blocks' summaries give the same answer unless a measure is NaN.
    bool anyNaN = false;
    for (const Summary& s : l.blocks)
        anyNaN = anyNaN || s.measureNaN;
    bool chosen = false;
    double best = MEASURE_START;
    for (size_t i = 0; i < l.blocks.size(); ++i)
    {
        const Summary& s = l.blocks[i];
        if (!anyNaN)
        {
            if (s.bestIdx >= 0 && !(s.bestMeasure > best))
            {
                best = s.bestMeasure;
                chosen = true;
                block = i;
                index = s.bestIdx;
            }
            continue;
        }
        for (int j = 0; j < s.count; ++j)
            if (s.block->f[j].used == 0 && !(s.block->f[j].measure > best))
            {
                best = s.block->f[j].measure;
                chosen = true;
                block = i;
                index = j;
            }
    }
    if (!chosen)
    {
        block = firstB;
        index = firstI;
    }
    return true;
}

void mrClipBSPGen::Partitioner::divide(List& l, size_t splitterBlock, const srVector4T<float>& plane, List& front,
                                       List& back)
{
    const Splitter sp(plane);
    for (size_t i = 0; i < l.blocks.size(); ++i)
        divideBlock(l.blocks[i], i == splitterBlock, sp, front, back);
    l.blocks.clear();
}

void mrClipBSPGen::Partitioner::partitionNode(mrBSPGenNode* node, List* list)
{
    size_t sb = 0;
    int si = -1;
    if (!select(*list, sb, si))
    {
        // A leaf: faces reach it only when they all lie on planes above it, facing in.
        size_t count = 0;
        for (const Summary& s : list->blocks)
            count += (size_t)s.count;
        m_gen.m_numleaffaces += (int)count;
        if (count)
        {
            node->m_contents = -1;
            ++m_gen.m_numemptyleafs;
        }
        else
        {
            node->m_contents = -2;
            ++m_gen.m_numsolidleafs;
        }
        releaseList(list);
        return;
    }

    // Numbered before its subtree, so the clip BSP's nodes come out in pre-order.
    Record& s = list->blocks[sb].block->f[si];
    mrFace* splitter = m_faceOf[s.id];
    splitter->m_used = 1;
    s.used = 1;
    node->m_contents = 0;
    m_gen.m_nodes.push_back(node);
    ++m_gen.m_numnodes;

    node->m_children[0] = m_gen.newNode();
    node->m_children[1] = m_gen.newNode();
    node->m_plane = splitter->m_plane;
    m_gen.divideNodeBounds(node, node->m_plane);

    // Taken before the faces are divided: the splitter itself is never cut by its own
    // plane, but a hand-made face with an inconsistent plane could be.
    srTextureIFace* texture = splitter->m_texture;

    List* front = newList();
    List* back = newList();
    for (List* child : {front, back})
    {
        child->measured = list->measured;
        std::memcpy(child->measuredMins, list->measuredMins, sizeof list->measuredMins);
        std::memcpy(child->measuredMaxs, list->measuredMaxs, sizeof list->measuredMaxs);
    }
    divide(*list, sb, node->m_plane, *front, *back);
    releaseList(list);

    // Popped in reverse: the front subtree, then the back subtree, then the refinement.
    m_tasks.push_back(Task{node, nullptr, texture});
    m_tasks.push_back(Task{node->m_children[1], back, nullptr});
    m_tasks.push_back(Task{node->m_children[0], front, nullptr});
}

void mrClipBSPGen::Partitioner::run(std::vector<mrFace*>& faces, mrBSPGenNode* root)
{
    // Where each face sits in m_allfaces (its first occurrence), for removal when cut:
    // sorted by face, then position, so the first match is the first occurrence.
    std::vector<std::pair<const mrFace*, size_t>> slots(m_gen.m_allfaces.size());
    for (size_t i = 0; i < m_gen.m_allfaces.size(); ++i)
        slots[i] = std::make_pair(m_gen.m_allfaces[i], i);
    std::sort(slots.begin(), slots.end());

    m_faceOf.reserve(faces.size() * 2);
    m_slotOf.reserve(faces.size() * 2);
    List* rootList = newList();
    for (mrFace* face : faces)
    {
        std::vector<std::pair<const mrFace*, size_t>>::const_iterator it =
            std::lower_bound(slots.begin(), slots.end(), std::make_pair((const mrFace*)face, (size_t)0));
        const bool found = it != slots.end() && it->first == face;
        appendRecord(*rootList, makeRecord(face, found ? it->second : NO_SLOT, 0.0));
    }
    std::vector<std::pair<const mrFace*, size_t>>().swap(slots);

    m_tasks.push_back(Task{root, rootList, nullptr});
    while (!m_tasks.empty())
    {
        mrProgress::reach((uint64_t)m_gen.m_numnodes);
        const Task task = m_tasks.back();
        m_tasks.pop_back();
        if (task.list)
        {
            partitionNode(task.node, task.list);
            continue;
        }
        // A solid leaf takes its kind from the splitter that bounds it.
        for (int k = 0; k < 2; ++k)
            if (task.node->m_children[k]->m_contents == -2)
                task.node->m_children[k]->m_contents = m_gen.findContents(static_cast<srTexture*>(task.texture));
    }
}

void mrClipBSPGen::partitionFaces(std::vector<mrFace*>& faces, mrBSPGenNode* node)
{
    Partitioner partitioner(*this);
    partitioner.run(faces, node);
}

mrFace* mrClipBSPGen::selectPartition(std::vector<mrFace*>& faces)
{
    int candidates = 0;
    mrFace* last = nullptr;
    for (mrFace* face : faces)
        if (face->m_used == 0)
        {
            ++candidates;
            last = face;
        }
    if (candidates == 0)
        return nullptr;
    if (candidates == 1)
        return last;

    // Bounds of the first three points of every face, used or not.
    srVector3T<float> mins(BOUNDS_START, BOUNDS_START, BOUNDS_START);
    srVector3T<float> maxs(-BOUNDS_START, -BOUNDS_START, -BOUNDS_START);
    for (mrFace* face : faces)
        for (int i = 0; i < 3; ++i)
            for (int k = 0; k < 3; ++k)
            {
                float c = face->m_points[i][k];
                if (c < mins[k])
                    mins[k] = c;
                if (c > maxs[k])
                    maxs[k] = c;
            }
    return chooseMidPlaneFromList(faces, mins, maxs);
}

mrFace* mrClipBSPGen::chooseMidPlaneFromList(std::vector<mrFace*>& faces, srVector3T<float>& mins,
                                             srVector3T<float>& maxs)
{
    const float lo[3] = {mins.x, mins.y, mins.z};
    const float hi[3] = {maxs.x, maxs.y, maxs.z};
    double best = MEASURE_START;
    mrFace* chosen = nullptr;
    for (mrFace* face : faces)
    {
        if (face->m_used != 0)
            continue;
        const double s = middleMeasure(face->m_plane, lo, hi);
        // "Not greater": ties go to the later face.
        if (!(s > best))
        {
            best = s;
            chosen = face;
        }
    }
    if (chosen)
        return chosen;
    for (mrFace* face : faces)
        if (face->m_used == 0)
            return face;
    srAssertFail("0", SOURCE, 437, "error");
    return nullptr;
}

int mrClipBSPGen::classifyPoints(const mrFace* face, const srVector4T<float>& plane, double* dists, int* sides,
                                 int* counts)
{
    const int n = clampedPoints(face);
    classify(face->m_points, n, plane, dists, sides, counts);
    return n;
}

void mrClipBSPGen::cutFace(const mrFace* face, const srVector4T<float>& plane, const double* dists, const int* sides,
                           int n, mrFace** front, mrFace** back)
{
    // Room for exactly the points each piece gets (beyond 64 they are dropped, below).
    int room[3] = {0, 0, 0}; // front, back, and both
    for (int i = 0; i < n; ++i)
    {
        if (sides[i] == mrPlane::SIDE_ON)
        {
            ++room[2];
            continue;
        }
        ++room[sides[i]];
        if (sides[i + 1] != mrPlane::SIDE_ON && sides[i + 1] != sides[i])
            ++room[2];
    }
    mrFace* b = new mrFace(room[mrPlane::SIDE_BACK] + room[2]);
    mrFace* f = new mrFace(room[mrPlane::SIDE_FRONT] + room[2]);
    m_allfaces.push_back(b);
    m_allfaces.push_back(f);
    *back = b;
    *front = f;
    for (mrFace* piece : {b, f})
    {
        piece->m_numpoints = 0;
        piece->m_texture = face->m_texture;
        piece->m_used = face->m_used;
        piece->m_plane = face->m_plane;
    }

    const float normal[3] = {plane.x, plane.y, plane.z};
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = face->m_points[i];
        if (sides[i] == mrPlane::SIDE_ON)
        {
            appendPoint(f, p);
            appendPoint(b, p);
            continue;
        }
        if (sides[i] == mrPlane::SIDE_FRONT)
            appendPoint(f, p);
        else
            appendPoint(b, p);
        if (sides[i + 1] == mrPlane::SIDE_ON || sides[i + 1] == sides[i])
            continue;

        const srVector3T<float>& q = face->m_points[(i + 1) % n];
        // Crossing point in double, rounded to float once; an axial plane puts the
        // point exactly on it (part of the reproducibility promise).
        const double t = dists[i] / (dists[i] - dists[i + 1]);
        srVector3T<float> mid;
        for (int k = 0; k < 3; ++k)
        {
            if (normal[k] == 1.0f)
                mid[k] = plane.w;
            else if (normal[k] == -1.0f)
                mid[k] = -plane.w;
            else
                mid[k] = (float)((double)p[k] + t * ((double)q[k] - (double)p[k]));
        }
        appendPoint(b, mid);
        appendPoint(f, mid);
    }
}

void mrClipBSPGen::splitFace(mrFace* face, srVector4T<float>& plane, mrFace** front, mrFace** back)
{
    const int f = facing(plane, face->m_plane);
    if (f != 0)
    {
        face->m_used = 1;
        *front = f > 0 ? face : nullptr;
        *back = f > 0 ? nullptr : face;
        return;
    }

    double dists[mrFace::MAX_POINTS + 1];
    int sides[mrFace::MAX_POINTS + 1];
    int counts[3];
    const int n = classifyPoints(face, plane, dists, sides, counts);
    if (counts[mrPlane::SIDE_FRONT] == 0)
    {
        *front = nullptr;
        *back = face;
        return;
    }
    if (counts[mrPlane::SIDE_BACK] == 0)
    {
        *front = face;
        *back = nullptr;
        return;
    }

    cutFace(face, plane, dists, sides, n, front, back);
    mrFace* f2 = *front;
    mrFace* b2 = *back;

    // The cut face is replaced by its pieces.
    std::vector<mrFace*>::iterator it = std::find(m_allfaces.begin(), m_allfaces.end(), face);
    if (it != m_allfaces.end())
        m_allfaces.erase(it);
    delete face;

    checkFace(f2);
    checkFace(b2);
}

mrClipBSP* mrClipBSPGen::convertToClipBSP()
{
    mrClipBSP* bsp = flatten();
    // A closed mesh makes a chain as deep as it has faces; the index keeps queries on it
    // from walking the whole chain.
    bsp->prepareQueries();
    return bsp;
}

mrClipBSP* mrClipBSPGen::flatten()
{
    mrClipBSP* bsp = new mrClipBSP();

    const unsigned long numNodes = (unsigned long)m_nodes.size();
    bsp->m_numnodes = (uint32_t)numNodes;
    bsp->m_nodes = numNodes ? mrClipBSP::allocNodes(numNodes) : nullptr;

    const unsigned long numPlanes = m_numplanes > 0 ? (unsigned long)m_numplanes : 0;
    bsp->m_numplanes = (uint32_t)numPlanes;
    bsp->m_planes = numPlanes ? mrClipBSP::allocPlanes(numPlanes) : nullptr;
    for (unsigned long j = 0; j < numPlanes; ++j)
    {
        bsp->m_planes[j].m_normal = m_planes[j].m_normal;
        bsp->m_planes[j].m_dist = m_planes[j].m_dist;
    }

    // Same answers as comparing every node with every plane: the highest index among
    // the exactly equal planes, and each interior child's position in m_nodes.
    std::unordered_map<PlaneKey, int, PlaneKeyHash> planeIndex;
    planeIndex.reserve(numPlanes);
    for (unsigned long j = 0; j < numPlanes; ++j)
    {
        const mrPlane& pl = m_planes[j];
        PlaneKey key;
        if (makeKey(pl.m_normal.x, pl.m_normal.y, pl.m_normal.z, pl.m_dist, key))
            planeIndex[key] = (int)j;
    }
    std::unordered_map<const mrBSPGenNode*, int> nodeIndex;
    nodeIndex.reserve(numNodes);
    for (size_t i = m_nodes.size(); i-- > 0;)
        nodeIndex[m_nodes[i]] = (int)i;

    for (size_t i = 0; i < m_nodes.size(); ++i)
    {
        const mrBSPGenNode* node = m_nodes[i];
        mrClipNode& out = bsp->m_nodes[i];

        // A node whose plane is missing keeps index 0.
        out.planeIndex = 0;
        PlaneKey key;
        std::unordered_map<PlaneKey, int, PlaneKeyHash>::const_iterator found = planeIndex.end();
        if (makeKey(node->m_plane.x, node->m_plane.y, node->m_plane.z, node->m_plane.w, key))
            found = planeIndex.find(key);
        if (found != planeIndex.end())
            out.planeIndex = found->second;
        else
            srAssertFail("found", SOURCE, 696, nullptr);

        for (int k = 0; k < 2; ++k)
        {
            const mrBSPGenNode* child = node->m_children[k];
            if (child->m_contents != 0)
            {
                out.child[k] = child->m_contents;
                continue;
            }
            std::unordered_map<const mrBSPGenNode*, int>::const_iterator pos = nodeIndex.find(child);
            if (pos != nodeIndex.end())
                out.child[k] = pos->second;
            else
            {
                // An interior child that was never numbered: read it as solid.
                srAssertFail("child", SOURCE, __LINE__, "interior child missing from the node list");
                out.child[k] = -2;
            }
        }
    }
    return bsp;
}

mrClipBSP* mrClipBSPGen::importMeshModel(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix)
{
    if (!model)
    {
        srAssertFail("model", SOURCE, 36, nullptr);
        return nullptr;
    }

    srVector3T<float> mins(999999.0f, 999999.0f, 999999.0f);
    srVector3T<float> maxs(-999999.0f, -999999.0f, -999999.0f);

    srMeshModel* mesh = new srMeshModel(0, 0);
    *mesh = *model;
    mesh->applyMatrix(matrix);
    mesh->relocateVertices(offset);
    mesh->setName("BSPGENERATOR MESH");

    const long numPolys = mesh->m_numpolys > 0 ? mesh->m_numpolys : 0;
    const srVector3i* tris = mesh->getPolyVertex();
    const srVector3T<float>* verts = mesh->getVertexLoc();

    m_faces.resize((size_t)numPolys);

    srPtr<srTextureIFace>* polyTextures = mesh->getPolyTexture(0, 0, 0);
    srTextureIFace* meshTexture = mesh->getTexture(0, 0);

    m_numplanes = 0;
    for (long i = 0; i < numPolys; ++i)
    {
        mrFace* face = new mrFace(3);
        m_allfaces.push_back(face);
        face->m_used = 0;

        const int index[3] = {tris[i].x, tris[i].y, tris[i].z};
        for (int k = 0; k < 3; ++k)
        {
            face->m_points[k] = verts[index[k]];
            for (int a = 0; a < 3; ++a)
            {
                float c = face->m_points[k][a];
                if (c < mins[a])
                    mins[a] = c;
                if (c > maxs[a])
                    maxs[a] = c;
            }
        }

        // Face plane in float throughout, in this order (part of the reproducibility
        // promise): u = (p0 - p1) x (p2 - p1), normalised by 1/sqrt(u.u), then negated.
        const srVector3T<float>& p0 = face->m_points[0];
        const srVector3T<float>& p1 = face->m_points[1];
        const srVector3T<float>& p2 = face->m_points[2];
        const float e1x = p0.x - p1.x, e1y = p0.y - p1.y, e1z = p0.z - p1.z;
        const float e2x = p2.x - p1.x, e2y = p2.y - p1.y, e2z = p2.z - p1.z;
        float ux = e1y * e2z - e1z * e2y;
        float uy = e1z * e2x - e1x * e2z;
        float uz = e1x * e2y - e1y * e2x;
        const float len2 = ux * ux + uy * uy + uz * uz;
        if (len2 != 0.0f)
        {
            const float inv = 1.0f / std::sqrt(len2);
            ux = ux * inv;
            uy = uy * inv;
            uz = uz * inv;
        }
        const float d = ux * p1.x + uy * p1.y + uz * p1.z;
        face->m_plane = srVector4T<float>(-ux, -uy, -uz, -d);

        face->m_numpoints = 3;
        // The face borrows the pointer; the caller's model keeps the texture alive.
        face->m_texture = polyTextures ? polyTextures[i].get() : meshTexture;
        checkFace(face);
        m_faces[(size_t)i] = face;
    }

    m_numplanes = (int)numPolys;
    delete[] m_planes;
    m_planes = numPolys ? new mrPlane[(size_t)numPolys] : nullptr;
    for (long i = 0; i < numPolys; ++i)
    {
        const srVector4T<float>& pl = m_faces[(size_t)i]->m_plane;
        m_planes[i].m_normal = srVector3T<float>(pl.x, pl.y, pl.z);
        m_planes[i].m_dist = pl.w;
    }

    mrBSPGenNode* root = newNode();
    root->m_mins = mins;
    root->m_maxs = maxs;

    partitionFaces(m_faces, root);

    mrClipBSP* bsp = flatten();
    bsp->m_mins = srVector3T<float>(mins.x - 1.0f, mins.y - 1.0f, mins.z - 1.0f);
    bsp->m_maxs = srVector3T<float>(maxs.x + 1.0f, maxs.y + 1.0f, maxs.z + 1.0f);
    bsp->refreshPBlock(nullptr);
    // Once the bounds are known: the index lays its grid over them.
    bsp->prepareQueries();

    mesh->release();
    return bsp;
}
