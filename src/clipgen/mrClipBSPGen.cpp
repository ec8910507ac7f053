#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <unordered_map>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clip/mrThreadCount.h>
#include <meridbsp/clip/mrThreadHandoff.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <meridbsp/platform/dx/srTexture.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

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
template <class Deferred> void appendPoint(mrFace* face, const srVector3T<float>& p, Deferred* deferred)
{
    if (face->m_numpoints >= face->capacity())
    {
        const char* const expression = "face->m_numpoints < MAX_POINTS";
        const char* const message = "face piece exceeds 64 points; point dropped";
        const long line = __LINE__;
        if (deferred)
            deferred->push_back({expression, message, line});
        else
            srAssertFail(expression, SOURCE, line, message);
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

typedef std::unordered_map<PlaneKey, int, PlaneKeyHash> PlaneIndex;

// Each distinct plane (exact float equality) to the highest index it has.
void indexPlanes(const mrPlane* planes, unsigned long count, PlaneIndex& index)
{
    index.reserve(count);
    for (unsigned long j = 0; j < count; ++j)
    {
        const mrPlane& pl = planes[j];
        PlaneKey key;
        if (makeKey(pl.m_normal.x, pl.m_normal.y, pl.m_normal.z, pl.m_dist, key))
            index[key] = (int)j;
    }
}

// A clip BSP with room for numNodes nodes and a copy of the plane table, and the index of
// its planes.
mrClipBSP* newClipBSP(unsigned long numNodes, const mrPlane* planes, int numplanes, PlaneIndex& planeIndex)
{
    mrClipBSP* bsp = new mrClipBSP();
    bsp->m_numnodes = (uint32_t)numNodes;
    bsp->m_nodes = numNodes ? mrClipBSP::allocNodes(numNodes) : nullptr;
    const unsigned long numPlanes = numplanes > 0 ? (unsigned long)numplanes : 0;
    bsp->m_numplanes = (uint32_t)numPlanes;
    bsp->m_planes = numPlanes ? mrClipBSP::allocPlanes(numPlanes) : nullptr;
    for (unsigned long j = 0; j < numPlanes; ++j)
    {
        bsp->m_planes[j].m_normal = planes[j].m_normal;
        bsp->m_planes[j].m_dist = planes[j].m_dist;
    }
    indexPlanes(planes, numPlanes, planeIndex);
    return bsp;
}

// The index of a node's plane, or -1 when no plane equals it.
int findPlane(const PlaneIndex& index, const srVector4T<float>& plane)
{
    PlaneKey key;
    if (!makeKey(plane.x, plane.y, plane.z, plane.w, key))
        return -1;
    const PlaneIndex::const_iterator found = index.find(key);
    return found != index.end() ? found->second : -1;
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

// Parallel runs: a list of at least this many blocks has its blocks measured and planned
// on several threads, this many to a share; a node whose front and back lists both have
// at least this many faces hands its front subtree to another thread.
const size_t PARALLEL_BLOCKS = 64;
const size_t GRAIN_BLOCKS = 32;
const size_t SPAWN_FACES = 1024;

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
    // What a partitioning makes, in the order the recursion makes it: the nodes it
    // numbers, the pieces of its cuts, its reports and counts. A subtree worked on by
    // another thread fills an output of its own, spliced in where the recursion would
    // have made it; filing the outputs in that order gives the single-threaded lists.
    struct Output
    {
        std::vector<mrBSPGenNode*> nodes; // interior nodes, in numbering order
        std::vector<mrBSPGenNode*> made;  // every node made, for release
        // Pieces of cuts, back then front, in cut order; the removed-face mark once a
        // piece is cut in turn. Their addresses stay put while more are added.
        std::deque<mrFace*> pieces;
        std::vector<DeferredReport> reports; // made on the filing thread (parallel runs)
        int64_t leafFaces = 0, solidLeafs = 0, emptyLeafs = 0;
        bool removedAny = false; // a face of the generator's list was marked removed
        struct Splice
        {
            size_t nodes, pieces, reports; // this output's entries before the part
            std::unique_ptr<Output> part;
        };
        std::vector<Splice> splices;
    };

    // `parallel`: the node's own work may be spread over the current task arena, and
    // large subtrees handed to other threads (reports are then deferred to the output).
    Partitioner(mrClipBSPGen& gen, Output& out, bool parallel) : m_gen(gen), m_out(&out), m_parallel(parallel) {}
    ~Partitioner();
    Partitioner(const Partitioner&) = delete;
    Partitioner& operator=(const Partitioner&) = delete;

    // Sets up the partitioning of `faces` into `root` (a node without a parent).
    void start(std::vector<mrFace*>& faces, mrBSPGenNode* root);
    // Works through every pending list, then waits for the subtrees handed on; its work
    // space is released at the end.
    void loop();
    // Files outputs into the generator: nodes numbered, faces listed, counts added, and
    // (with `reports`) deferred reports made, all in the recursion's order.
    static void file(mrClipBSPGen& gen, Output& root, bool reports);

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

    // A list to partition into a node. A node with a parent takes the kind of solid of
    // the parent's splitter texture if it turns out a solid leaf (the recursion refines
    // a solid child once both subtrees are done; the leaf's contents are final at once).
    struct Task
    {
        mrBSPGenNode* node;
        List* list;
        srTextureIFace* texture;
        bool hasParent;
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

    Record makeRecord(mrFace* face, mrFace** slot, double measure);
    mrBSPGenNode* newNode();
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
    // What a division does to a block: move it whole, or the fate of each face. Reads
    // the block only, so the blocks of one list may be planned at once.
    struct Plan
    {
        e_verdict whole; // ALL_FRONT or ALL_BACK: the block moves whole; MIXED: see fate
        bool keepBack;   // MIXED: the block stays with the back list
        uint8_t fate[BLOCK_FACES];
    };
    void planBlock(const Summary& s, bool splitterBlock, const Splitter& sp, Plan& plan) const;
    void applyPlan(const Summary& block, const Plan& plan, const Splitter& sp, List& front, List& back);

    bool select(List& l, size_t& block, int& index);
    Record cutRecord(const Record& r, const srVector4T<float>& plane, List& other, bool keepBack);
    void divide(List& l, size_t splitterBlock, const srVector4T<float>& plane, List& front, List& back);
    void partitionNode(const Task& task);
    size_t faceCount(const List& l) const;
    // Hands the subtree of `node` with `list` to another thread, its output spliced in here.
    void spawn(mrBSPGenNode* node, List* list, srTextureIFace* texture);
    // A copy of another partitioner's list, its faces entered into this one's tables.
    List* adopt(const Partitioner& from, const List& list);
    // Runs body(first, last) over block ranges of a list, on the arena's threads when
    // the list is large enough to pay for it.
    template <class Body> void forBlocks(size_t count, const Body& body);
    void releaseMemory();

    mrClipBSPGen& m_gen;
    Output* m_out;
    const bool m_parallel;
    std::vector<Task> m_tasks;
    // Per record id: its face and where the face is listed (in the generator's list or
    // an output's pieces; null when it is in neither).
    std::vector<mrFace*> m_faceOf;
    std::vector<mrFace**> m_slotOf;
    std::vector<Block*> m_allBlocks, m_freeBlocks;
    std::vector<List*> m_allLists, m_freeLists;
    std::vector<Plan> m_plans;
    // Subtrees handed to other threads, and their partitioners.
    std::vector<std::unique_ptr<Partitioner>> m_parts;
    // What another thread runs when this partitioner's subtree is handed to it.
    struct Work
    {
        Partitioner* part;
        void operator()() const { part->loop(); }
    } m_work{this};
    tbb::task_group m_handedOn;
};

mrClipBSPGen::Partitioner::~Partitioner() { releaseMemory(); }

void mrClipBSPGen::Partitioner::releaseMemory()
{
    for (Block* b : m_allBlocks)
        delete b;
    for (List* l : m_allLists)
        delete l;
    m_allBlocks.clear();
    m_freeBlocks.clear();
    m_allLists.clear();
    m_freeLists.clear();
    m_tasks.clear();
    std::vector<mrFace*>().swap(m_faceOf);
    std::vector<mrFace**>().swap(m_slotOf);
    std::vector<Plan>().swap(m_plans);
}

mrBSPGenNode* mrClipBSPGen::Partitioner::newNode()
{
    m_out->made.push_back(nullptr);
    m_out->made.back() = new mrBSPGenNode();
    return m_out->made.back();
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

mrClipBSPGen::Partitioner::Record mrClipBSPGen::Partitioner::makeRecord(mrFace* face, mrFace** slot, double measure)
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
    // The pieces join the face list after the generator's faces, in cut order.
    std::deque<mrFace*>& pieces = m_out->pieces;
    pieces.push_back(nullptr);
    pieces.push_back(nullptr);
    mrFace** backSlot = &pieces[pieces.size() - 2];
    mrFace** frontSlot = &pieces[pieces.size() - 1];
    m_gen.cutFace(face, plane, dists, sides, n, &fp, &bp, m_parallel ? &m_out->reports : nullptr);
    *backSlot = bp;
    *frontSlot = fp;
    // The cut face leaves the list; the gaps are closed when the outputs are filed.
    mrFace** slot = m_slotOf[r.id];
    if (slot)
    {
        *slot = &g_removedFace;
        m_out->removedAny = true;
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

void mrClipBSPGen::Partitioner::planBlock(const Summary& s, bool splitterBlock, const Splitter& sp, Plan& plan) const
{
    // The block's box decides most blocks whole. Otherwise each group's box, or failing
    // that each face, gives the faces' fates.
    if (!splitterBlock)
    {
        const e_verdict v = verdict(s.box, sp);
        if (v != MIXED)
        {
            plan.whole = v;
            return;
        }
    }
    int toFront = 0, toBack = 0;
    bool untouched = true;
    for (int g = 0; g * GROUP_FACES < s.count; ++g)
    {
        const int first = g * GROUP_FACES, last = std::min(first + (int)GROUP_FACES, s.count);
        const e_verdict v = verdict(s.block->group[g], sp);
        for (int i = first; i < last; ++i)
        {
            const e_fate fate = v == ALL_BACK    ? STAY_BACK
                                : v == ALL_FRONT ? STAY_FRONT
                                                 : fateOf(s.block->f[i], sp.plane);
            plan.fate[i] = (uint8_t)fate;
            toFront += fate != STAY_BACK && fate != TURN_BACK;
            toBack += fate != STAY_FRONT && fate != TURN_FRONT;
            untouched = untouched && (fate == STAY_FRONT || fate == STAY_BACK);
        }
    }
    if (untouched && (toFront == 0 || toBack == 0) && !splitterBlock)
    {
        plan.whole = toFront == 0 ? ALL_BACK : ALL_FRONT;
        return;
    }
    // The block stays with the side that gets most of its faces.
    plan.whole = MIXED;
    plan.keepBack = toBack >= toFront;
}

void mrClipBSPGen::Partitioner::applyPlan(const Summary& block, const Plan& plan, const Splitter& sp, List& front,
                                          List& back)
{
    if (plan.whole != MIXED)
    {
        moveBlock(plan.whole == ALL_BACK ? back : front, block);
        return;
    }
    Summary s = block;

    // The block stays with the side that gets most of its faces, in place and in order;
    // the rest go to the other side one by one. Faces that stay keep their place in the
    // group boxes, which therefore may only grow (a cut piece lies within its face's box,
    // but the boxes take its points all the same).
    const bool keepBack = plan.keepBack;
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
        const e_fate fate = (e_fate)plan.fate[i];
        switch (fate)
        {
        case TURN_FRONT:
        case TURN_BACK:
            r.used = 1;
            m_faceOf[r.id]->m_used = 1;
            stays = (fate == TURN_BACK) == keepBack;
            break;
        case CUT:
            r = cutRecord(r, sp.plane, other, keepBack);
            faceBounds(r, piece);
            unite(s.box, piece);
            cut = true;
            stays = true;
            break;
        default:
            stays = (fate == STAY_BACK) == keepBack;
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
        Summary* blocks = l.blocks.data();
        forBlocks(l.blocks.size(),
                  [blocks, &mins, &maxs](size_t first, size_t last)
                  {
                      for (size_t i = first; i < last; ++i)
                          remeasure(blocks[i], mins, maxs);
                  });
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

template <class Body> void mrClipBSPGen::Partitioner::forBlocks(size_t count, const Body& body)
{
    if (!m_parallel || count < PARALLEL_BLOCKS)
    {
        body((size_t)0, count);
        return;
    }
    // Isolated: a thread waiting here for its share to come back takes no other subtree
    // meanwhile, so the node it works on is not held up behind one.
    const auto share = [&body](const tbb::blocked_range<size_t>& r) { body(r.begin(), r.end()); };
    const tbb::blocked_range<size_t> all(0, count, GRAIN_BLOCKS);
    const auto run = [&share, &all, this] { tbb::parallel_for(all, mrThreadHandoff::task(share, this)); };
    mrThreadHandoff::handingOver();
    tbb::this_task_arena::isolate(run);
    mrThreadHandoff::finished(this);
}

void mrClipBSPGen::Partitioner::divide(List& l, size_t splitterBlock, const srVector4T<float>& plane, List& front,
                                       List& back)
{
    const Splitter sp(plane);
    const size_t count = l.blocks.size();
    if (!m_parallel || count < PARALLEL_BLOCKS)
    {
        Plan plan;
        for (size_t i = 0; i < count; ++i)
        {
            planBlock(l.blocks[i], i == splitterBlock, sp, plan);
            applyPlan(l.blocks[i], plan, sp, front, back);
        }
        l.blocks.clear();
        return;
    }
    // Every block's plan at once (they only read), then the moves and cuts in list order.
    if (m_plans.size() < count)
        m_plans.resize(count);
    Plan* plans = m_plans.data();
    const Summary* blocks = l.blocks.data();
    forBlocks(count,
              [this, plans, blocks, splitterBlock, &sp](size_t first, size_t last)
              {
                  for (size_t i = first; i < last; ++i)
                      planBlock(blocks[i], i == splitterBlock, sp, plans[i]);
              });
    for (size_t i = 0; i < count; ++i)
        applyPlan(l.blocks[i], plans[i], sp, front, back);
    l.blocks.clear();
}

size_t mrClipBSPGen::Partitioner::faceCount(const List& l) const
{
    size_t count = 0;
    for (const Summary& s : l.blocks)
        count += (size_t)s.count;
    return count;
}

void mrClipBSPGen::Partitioner::partitionNode(const Task& task)
{
    mrBSPGenNode* node = task.node;
    List* list = task.list;
    size_t sb = 0;
    int si = -1;
    if (!select(*list, sb, si))
    {
        // A leaf: faces reach it only when they all lie on planes above it, facing in.
        const size_t count = faceCount(*list);
        m_out->leafFaces += (int64_t)count;
        if (count)
        {
            node->m_contents = -1;
            ++m_out->emptyLeafs;
        }
        else
        {
            node->m_contents = -2;
            ++m_out->solidLeafs;
            // A solid leaf takes its kind from the splitter that bounds it.
            if (task.hasParent)
                node->m_contents = m_gen.findContents(static_cast<srTexture*>(task.texture));
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
    m_out->nodes.push_back(node);

    node->m_children[0] = newNode();
    node->m_children[1] = newNode();
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

    // Two large subtrees: the front one goes to another thread, its output spliced in
    // here, before everything of the back subtree.
    if (m_parallel && faceCount(*front) >= SPAWN_FACES && faceCount(*back) >= SPAWN_FACES)
    {
        m_tasks.push_back(Task{node->m_children[1], back, texture, true});
        spawn(node->m_children[0], front, texture);
        return;
    }
    // Popped in reverse: the front subtree, then the back subtree.
    m_tasks.push_back(Task{node->m_children[1], back, texture, true});
    m_tasks.push_back(Task{node->m_children[0], front, texture, true});
}

mrClipBSPGen::Partitioner::List* mrClipBSPGen::Partitioner::adopt(const Partitioner& from, const List& list)
{
    List* l = newList();
    l->measured = list.measured;
    std::memcpy(l->measuredMins, list.measuredMins, sizeof list.measuredMins);
    std::memcpy(l->measuredMaxs, list.measuredMaxs, sizeof list.measuredMaxs);
    l->blocks.reserve(list.blocks.size());
    for (const Summary& s : list.blocks)
    {
        Summary t = s;
        t.block = newBlock();
        l->blocks.push_back(t);
        std::copy(s.block->group, s.block->group + GROUPS, t.block->group);
        for (int i = 0; i < s.count; ++i)
        {
            Record r = s.block->f[i];
            r.id = (uint32_t)m_faceOf.size();
            m_faceOf.push_back(from.m_faceOf[s.block->f[i].id]);
            m_slotOf.push_back(from.m_slotOf[s.block->f[i].id]);
            t.block->f[i] = r;
        }
    }
    return l;
}

void mrClipBSPGen::Partitioner::spawn(mrBSPGenNode* node, List* list, srTextureIFace* texture)
{
    m_out->splices.push_back(Output::Splice{m_out->nodes.size(), m_out->pieces.size(), m_out->reports.size(), nullptr});
    m_out->splices.back().part.reset(new Output);
    m_parts.emplace_back(new Partitioner(m_gen, *m_out->splices.back().part, m_parallel));
    Partitioner* part = m_parts.back().get();
    part->m_tasks.push_back(Task{node, part->adopt(*this, *list), texture, true});
    releaseList(list);
    mrThreadHandoff::handingOver();
    m_handedOn.run(mrThreadHandoff::task(part->m_work, part->m_out));
}

void mrClipBSPGen::Partitioner::start(std::vector<mrFace*>& faces, mrBSPGenNode* root)
{
    // Where each face sits in m_allfaces (its first occurrence), for removal when cut:
    // sorted by face, then position, so the first match is the first occurrence. The
    // list does not grow while the partitioning runs (pieces wait in the outputs).
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
        appendRecord(*rootList, makeRecord(face, found ? &m_gen.m_allfaces[it->second] : nullptr, 0.0));
    }
    m_tasks.push_back(Task{root, rootList, nullptr, false});
}

void mrClipBSPGen::Partitioner::loop()
{
    try
    {
        while (!m_tasks.empty())
        {
            // Progress counts the nodes this thread takes on (other threads' subtrees do
            // not report: a stage hears only the thread that opened it).
            mrProgress::step();
            const Task task = m_tasks.back();
            m_tasks.pop_back();
            partitionNode(task);
        }
    }
    catch (...)
    {
        // The subtrees already handed on are called off; what they made is in their
        // outputs all the same.
        m_handedOn.cancel();
        try
        {
            m_handedOn.wait();
        }
        catch (...)
        {
        }
        throw;
    }
    m_handedOn.wait();
    for (const Output::Splice& sp : m_out->splices)
        mrThreadHandoff::finished(sp.part.get());
    // The subtrees are done; what remains of their work space goes now.
    m_parts.clear();
    releaseMemory();
}

void mrClipBSPGen::Partitioner::file(mrClipBSPGen& gen, Output& root, bool reports)
{
    // The outputs in the recursion's order, each entry of an output before a splice
    // coming before the spliced part.
    struct Cursor
    {
        Output* out;
        size_t splice, node, piece, report;
    };
    std::vector<Output*> all;
    std::vector<Output*> pending(1, &root);
    std::vector<Cursor> stack;
    bool removedAny = false;
    while (!pending.empty())
    {
        Output* o = pending.back();
        pending.pop_back();
        all.push_back(o);
        removedAny = removedAny || o->removedAny;
        for (Output::Splice& sp : o->splices)
            if (sp.part)
                pending.push_back(sp.part.get());
    }
    // Room first, so that filing cannot fail half way.
    size_t nodes = 0, pieces = 0, made = 0;
    for (const Output* o : all)
    {
        nodes += o->nodes.size();
        pieces += o->pieces.size();
        made += o->made.size();
    }
    gen.m_nodes.reserve(gen.m_nodes.size() + nodes);
    gen.m_allfaces.reserve(gen.m_allfaces.size() + pieces);
    gen.m_madeNodes.reserve(gen.m_madeNodes.size() + made);
    stack.reserve(all.size());

    // Faces cut during the partitioning leave the list; the pieces still alive follow.
    if (removedAny)
        gen.m_allfaces.erase(std::remove(gen.m_allfaces.begin(), gen.m_allfaces.end(), &g_removedFace),
                             gen.m_allfaces.end());
    for (Output* o : all)
    {
        gen.m_madeNodes.insert(gen.m_madeNodes.end(), o->made.begin(), o->made.end());
        o->made.clear();
        gen.m_numleaffaces += (int)o->leafFaces;
        gen.m_numsolidleafs += (int)o->solidLeafs;
        gen.m_numemptyleafs += (int)o->emptyLeafs;
        gen.m_numnodes += (int)o->nodes.size();
        o->leafFaces = o->solidLeafs = o->emptyLeafs = 0;
    }

    stack.push_back(Cursor{&root, 0, 0, 0, 0});
    auto emit = [&](Cursor& c, size_t nodes, size_t pieces, size_t deferred)
    {
        Output& o = *c.out;
        for (; c.node < nodes; ++c.node)
            gen.m_nodes.push_back(o.nodes[c.node]);
        for (; c.piece < pieces; ++c.piece)
            if (o.pieces[c.piece] && o.pieces[c.piece] != &g_removedFace)
                gen.m_allfaces.push_back(o.pieces[c.piece]);
        for (; c.report < deferred; ++c.report)
            if (reports)
                srAssertFail(o.reports[c.report].expression, SOURCE, o.reports[c.report].line,
                             o.reports[c.report].message);
    };
    while (!stack.empty())
    {
        Cursor& c = stack.back();
        if (c.splice < c.out->splices.size())
        {
            Output::Splice& sp = c.out->splices[c.splice++];
            emit(c, sp.nodes, sp.pieces, sp.reports);
            if (sp.part)
                stack.push_back(Cursor{sp.part.get(), 0, 0, 0, 0});
            continue;
        }
        emit(c, c.out->nodes.size(), c.out->pieces.size(), c.out->reports.size());
        c.out->nodes.clear();
        c.out->pieces.clear();
        c.out->reports.clear();
        c.out->splices.clear();
        stack.pop_back();
    }
}

void mrClipBSPGen::partitionFaces(std::vector<mrFace*>& faces, mrBSPGenNode* node) { partition(faces, node, false); }

void mrClipBSPGen::partition(std::vector<mrFace*>& faces, mrBSPGenNode* node, bool parallel)
{
    Partitioner::Output out;
    try
    {
        Partitioner partitioner(*this, out, parallel);
        partitioner.start(faces, node);
        partitioner.loop();
    }
    catch (...)
    {
        // The nodes and faces made so far are filed with the generator, which releases them.
        Partitioner::file(*this, out, false);
        throw;
    }
    // A parallel run files the reports of every thread here, in the recursion's order.
    Partitioner::file(*this, out, parallel);
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
                           int n, mrFace** front, mrFace** back, std::vector<DeferredReport>* deferred)
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
    std::unique_ptr<mrFace> ownedBack(new mrFace(room[mrPlane::SIDE_BACK] + room[2]));
    mrFace* f = new mrFace(room[mrPlane::SIDE_FRONT] + room[2]);
    mrFace* b = ownedBack.release();
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
            appendPoint(f, p, deferred);
            appendPoint(b, p, deferred);
            continue;
        }
        if (sides[i] == mrPlane::SIDE_FRONT)
            appendPoint(f, p, deferred);
        else
            appendPoint(b, p, deferred);
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
        appendPoint(b, mid, deferred);
        appendPoint(f, mid, deferred);
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

    m_allfaces.reserve(m_allfaces.size() + 2);
    cutFace(face, plane, dists, sides, n, front, back, nullptr);
    mrFace* f2 = *front;
    mrFace* b2 = *back;
    m_allfaces.push_back(b2);
    m_allfaces.push_back(f2);

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
    const unsigned long numNodes = (unsigned long)m_nodes.size();
    // Same answers as comparing every node with every plane: the highest index among
    // the exactly equal planes, and each interior child's position in m_nodes.
    PlaneIndex planeIndex;
    mrClipBSP* bsp = newClipBSP(numNodes, m_planes, m_numplanes, planeIndex);
    std::unordered_map<const mrBSPGenNode*, int> nodeIndex;
    nodeIndex.reserve(numNodes);
    for (size_t i = m_nodes.size(); i-- > 0;)
        nodeIndex[m_nodes[i]] = (int)i;

    for (size_t i = 0; i < m_nodes.size(); ++i)
    {
        const mrBSPGenNode* node = m_nodes[i];
        mrClipNode& out = bsp->m_nodes[i];

        // A node whose plane is missing keeps index 0.
        const int plane = findPlane(planeIndex, node->m_plane);
        out.planeIndex = plane >= 0 ? plane : 0;
        if (plane < 0)
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

mrClipBSP* mrClipBSPGen::flattenParallel()
{
    // The nodes of a partitioning are numbered in pre-order: an interior front child is
    // the next node, an interior back child the node after its sibling's subtree. Subtree
    // sizes summed backwards give both positions without a lookup; a list in any other
    // order is flattened the single-threaded way.
    const size_t n = m_nodes.size();
    std::vector<uint32_t> subtree(n);
    std::vector<int32_t> children(2 * n);
    for (size_t i = n; i-- > 0;)
    {
        const mrBSPGenNode* node = m_nodes[i];
        size_t next = i + 1;
        for (int k = 0; k < 2; ++k)
        {
            const mrBSPGenNode* child = node->m_children[k];
            if (child->m_contents != 0)
            {
                children[2 * i + k] = child->m_contents;
                continue;
            }
            if (next >= n || m_nodes[next] != child)
                return flatten();
            children[2 * i + k] = (int32_t)next;
            next += subtree[next];
        }
        subtree[i] = (uint32_t)(next - i);
    }

    PlaneIndex planeIndex;
    mrClipBSP* bsp = newClipBSP((unsigned long)n, m_planes, m_numplanes, planeIndex);

    std::vector<char> missing(n, 0);
    mrClipNode* out = bsp->m_nodes;
    const tbb::blocked_range<size_t> all(0, n, 4096);
    const auto fill = [&](const tbb::blocked_range<size_t>& r)
    {
        for (size_t i = r.begin(); i < r.end(); ++i)
        {
            const int plane = findPlane(planeIndex, m_nodes[i]->m_plane);
            out[i].planeIndex = plane >= 0 ? plane : 0;
            missing[i] = plane < 0;
            out[i].child[0] = children[2 * i];
            out[i].child[1] = children[2 * i + 1];
        }
    };
    mrThreadHandoff::handingOver();
    tbb::parallel_for(all, mrThreadHandoff::task(fill, bsp));
    mrThreadHandoff::finished(bsp);
    for (size_t i = 0; i < n; ++i)
        if (missing[i])
            srAssertFail("found", SOURCE, 696, nullptr);
    return bsp;
}

mrClipBSP* mrClipBSPGen::importMeshModel(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix)
{
    return import(model, offset, matrix, 1);
}

int mrClipBSPGen::availableThreads() { return mrThreadCount::available(); }

mrClipBSP* mrClipBSPGen::importMeshModelParallel(srMeshModel* model, srVector3T<float>& offset,
                                                 srMatrix3T<float>& matrix, int threads)
{
    threads = mrThreadCount::resolve(threads);
    if (threads <= 1)
        return importMeshModel(model, offset, matrix);
    tbb::task_arena arena(threads);
    return arena.execute([&] { return import(model, offset, matrix, threads); });
}

mrClipBSP* mrClipBSPGen::import(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix, int threads)
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

    partition(m_faces, root, threads != 1);

    mrClipBSP* bsp = threads == 1 ? flatten() : flattenParallel();
    bsp->m_mins = srVector3T<float>(mins.x - 1.0f, mins.y - 1.0f, mins.z - 1.0f);
    bsp->m_maxs = srVector3T<float>(maxs.x + 1.0f, maxs.y + 1.0f, maxs.z + 1.0f);
    bsp->refreshPBlock(nullptr);
    // Once the bounds are known: the index lays its grid over them.
    bsp->prepareQueries(threads);

    mesh->release();
    return bsp;
}
