#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clip/mrClipQueryIndex.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>

// The node block is published as raw bytes in host order, and the record layout on
// file and in fields is little-endian.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "mrClipBSP publishes its node records in host byte order, which must be little-endian"
#endif

namespace
{
const char* const kSource = "mrClipBSP";

// Crossing point margin (plane distance units) and back-off step of the trace.
const double kDistanceMargin = 0.03225;
const double kBackOffStep = 0.1;
// How far the bounds of a box clip BSP reach beyond its box.
const float kBoxMargin = 16.0f;
const float kExtBoxMargin = 10000.0f;

// Signed distance of p, summed z, y, x, every step in float: part of the
// reproducibility promise (query distances).
inline float signedDistance(const mrPlane& plane, const srVector3T<float>& p)
{
    return plane.m_normal.z * p.z + plane.m_normal.y * p.y + plane.m_normal.x * p.x - plane.m_dist;
}

// Dot product x, y, z left to right in float: part of the reproducibility promise
// (box plane distances).
inline float dot(const srVector3T<float>& a, const srVector3T<float>& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

// Plane i of a box clip BSP: axis i / 2, facing + for even i and - for odd i.
inline srVector3T<float> boxNormal(int i)
{
    srVector3T<float> n(0.0f, 0.0f, 0.0f);
    n[i / 2] = (i % 2 == 0) ? 1.0f : -1.0f;
    return n;
}

// The crossing point for a fraction: midf = p1f + (p2f - p1f) * frac and
// mid_i = (p2_i - p1_i) * frac + p1_i, in float in these orders (reproducibility promise).
inline void crossingPoint(float p1f, float p2f, const srVector3T<float>& p1, const srVector3T<float>& p2, float frac,
                          float& midf, srVector3T<float>& mid)
{
    midf = p1f + (p2f - p1f) * frac;
    mid.x = (p2.x - p1.x) * frac + p1.x;
    mid.y = (p2.y - p1.y) * frac + p1.y;
    mid.z = (p2.z - p1.z) * frac + p1.z;
}

void putU32(unsigned char* out, uint32_t v)
{
    out[0] = (unsigned char)(v & 0xFF);
    out[1] = (unsigned char)((v >> 8) & 0xFF);
    out[2] = (unsigned char)((v >> 16) & 0xFF);
    out[3] = (unsigned char)((v >> 24) & 0xFF);
}

uint32_t getU32(const unsigned char* in)
{
    return (uint32_t)in[0] | ((uint32_t)in[1] << 8) | ((uint32_t)in[2] << 16) | ((uint32_t)in[3] << 24);
}

void putFloat(unsigned char* out, float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    putU32(out, bits);
}

float getFloat(const unsigned char* in)
{
    uint32_t bits = getU32(in);
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}
} // namespace

// ---------------------------------------------------------------------------------
// Array storage

mrClipNode* mrClipBSP::allocNodes(unsigned long n)
{
    if (n == 0)
        return nullptr;
    // calloc: zero-filled, and null (not an exception) on overflow or exhaustion.
    return static_cast<mrClipNode*>(std::calloc(n, sizeof(mrClipNode)));
}

void mrClipBSP::freeNodes(mrClipNode* nodes) { std::free(nodes); }

mrPlane* mrClipBSP::allocPlanes(unsigned long n)
{
    if (n == 0)
        return nullptr;
    return new (std::nothrow) mrPlane[n];
}

void mrClipBSP::freePlanes(mrPlane* planes) { delete[] planes; }

unsigned long mrClipBSP::nodeRecords() const
{
    if (!m_nodes)
        return 0;
    return m_nodes == m_nodeBlock ? m_nodeRecords : m_numnodes;
}

unsigned long mrClipBSP::planeRecords() const
{
    if (!m_planes)
        return 0;
    return m_planes == m_planeBlock ? m_planeRecords : m_numplanes;
}

void mrClipBSP::setNodeArray(mrClipNode* nodes, unsigned long records)
{
    dropQueryIndex();
    m_nodes = nodes;
    m_nodeBlock = nodes;
    m_nodeRecords = nodes ? records : 0;
}

void mrClipBSP::setPlaneArray(mrPlane* planes, unsigned long records)
{
    dropQueryIndex();
    m_planes = planes;
    m_planeBlock = planes;
    m_planeRecords = planes ? records : 0;
}

namespace
{
// The address the "Nodes" field of a block currently publishes, if it is a pointer field.
const unsigned char* publishedAddress(const mrParamBlock& block, unsigned long id)
{
    const mrParamBlock::Field* f = block.findField(id);
    return f && f->m_kind == mrParamBlock::FIELD_BYTEARRAYPTR ? f->m_ptr : nullptr;
}
} // namespace

void mrClipBSP::releaseNodeBlock(mrClipNode* nodes)
{
    if (!nodes)
        return;
    if (publishedAddress(*this, PARAM_NODES) == reinterpret_cast<unsigned char*>(nodes))
    {
        // Still visible through the own block (a box rebuilt without a refresh): keep
        // it until the field moves on. Only one block can be published at a time.
        if (m_retiredNodes != nodes)
            freeNodes(m_retiredNodes);
        m_retiredNodes = nodes;
        return;
    }
    freeNodes(nodes);
}

void mrClipBSP::dropRetiredNodes()
{
    if (!m_retiredNodes)
        return;
    if (publishedAddress(*this, PARAM_NODES) == reinterpret_cast<unsigned char*>(m_retiredNodes))
        return;
    freeNodes(m_retiredNodes);
    m_retiredNodes = nullptr;
}

void mrClipBSP::releaseArrays()
{
    releaseNodeBlock(m_nodes);
    setNodeArray(nullptr, 0);
    freePlanes(m_planes);
    setPlaneArray(nullptr, 0);
}

void mrClipBSP::copyArraysFrom(const mrClipBSP& o)
{
    // Only records that exist and are counted; a valid tree never looks further.
    unsigned long n = std::min<unsigned long>(o.m_numnodes, o.nodeRecords());
    mrClipNode* nodes = allocNodes(n);
    if (nodes)
        std::memcpy(nodes, o.m_nodes, n * sizeof(mrClipNode));
    else if (n)
        srAssertFail("0", kSource, __LINE__, "mrClipBSP::mrClipBSP()- out of memory copying the nodes");
    setNodeArray(nodes, nodes ? n : 0);

    unsigned long p = std::min<unsigned long>(o.m_numplanes, o.planeRecords());
    mrPlane* planes = allocPlanes(p);
    if (planes)
    {
        for (unsigned long i = 0; i < p; ++i)
            planes[i] = o.m_planes[i];
    }
    else if (p)
    {
        srAssertFail("0", kSource, __LINE__, "mrClipBSP::mrClipBSP()- out of memory copying the planes");
    }
    setPlaneArray(planes, planes ? p : 0);
}

void mrClipBSP::remapCopiedFields(const mrClipBSP& o)
{
    // The copied block still points at the source's storage, which dies with the
    // source. Point it at the copy's own storage instead (no notification: the values
    // are the same, only their home changes).
    Field* f = findField(PARAM_NODES);
    if (f && f->m_kind == FIELD_BYTEARRAYPTR && f->m_ptr &&
        (f->m_ptr == reinterpret_cast<unsigned char*>(o.m_nodes) ||
         f->m_ptr == reinterpret_cast<unsigned char*>(o.m_retiredNodes)))
    {
        f->m_ptr = reinterpret_cast<unsigned char*>(m_nodes);
        f->m_size = m_nodes ? std::min<unsigned long>(f->m_size, nodeRecords() * NODE_RECORD_SIZE) : 0;
    }
    f = findField(PARAM_PLANES);
    if (f && f->m_kind == FIELD_BYTEARRAYPTR && f->m_ptr)
    {
        const std::vector<unsigned char>* mine = nullptr;
        if (!o.m_ownPlaneBytes.empty() && f->m_ptr == o.m_ownPlaneBytes.data())
            mine = &m_ownPlaneBytes;
        else if (!o.m_otherPlaneBytes.empty() && f->m_ptr == o.m_otherPlaneBytes.data())
            mine = &m_otherPlaneBytes;
        if (mine)
        {
            f->m_ptr = mine->empty() ? nullptr : const_cast<unsigned char*>(mine->data());
            f->m_size = std::min<unsigned long>(f->m_size, (unsigned long)mine->size());
        }
    }
}

// ---------------------------------------------------------------------------------
// Construction, copying, destruction

mrClipBSP::mrClipBSP() : m_contents(1), m_numnodes(0), m_nodes(nullptr), m_numplanes(0), m_planes(nullptr)
{
    // m_mins / m_maxs start at zero (vector default) and are published as such.
    addClassParameters(this);
    makeReference(this);
    refreshPBlock(nullptr);
}

mrClipBSP::mrClipBSP(const mrClipBSP& o)
    : srClassSupport(o), mrPBAnimation(o), m_contents(o.m_contents), m_mins(o.m_mins), m_maxs(o.m_maxs),
      m_numnodes(o.m_numnodes), m_nodes(nullptr), m_numplanes(o.m_numplanes), m_planes(nullptr),
      m_ownPlaneBytes(o.m_ownPlaneBytes), m_otherPlaneBytes(o.m_otherPlaneBytes)
{
    // Member-wise copy with duplicated arrays; no field declaration, self-reference or
    // refresh (the block is the source's, re-homed to the copy's storage).
    copyArraysFrom(o);
    remapCopiedFields(o);
    copyQueryIndexFrom(o);
}

mrClipBSP& mrClipBSP::operator=(const mrClipBSP& o)
{
    if (this == &o)
        return *this;
    srClassSupport::operator=(o);
    mrPBAnimation::operator=(o);
    m_contents = o.m_contents;
    m_mins = o.m_mins;
    m_maxs = o.m_maxs;
    // The block now points at the source's storage, so nothing of ours is published.
    releaseArrays();
    dropRetiredNodes();
    m_numnodes = o.m_numnodes;
    m_numplanes = o.m_numplanes;
    copyArraysFrom(o);
    m_ownPlaneBytes = o.m_ownPlaneBytes;
    m_otherPlaneBytes = o.m_otherPlaneBytes;
    remapCopiedFields(o);
    copyQueryIndexFrom(o);
    return *this;
}

mrClipBSP::~mrClipBSP()
{
    if (m_nodes)
    {
        if (!m_numnodes)
            srAssertFail("m_numnodes", kSource, 33, nullptr);
        freeNodes(m_nodes);
        m_nodes = nullptr;
    }
    if (m_planes)
    {
        if (!m_numplanes)
            srAssertFail("m_numplanes", kSource, 38, nullptr);
        freePlanes(m_planes);
        m_planes = nullptr;
    }
    freeNodes(m_retiredNodes);
    m_retiredNodes = nullptr;
}

srClass* mrClipBSP::vInstance() { return new (std::nothrow) mrClipBSP(); }

// A clone is a new empty clip BSP, not a copy of this one.
srClass* mrClipBSP::vClone() { return new (std::nothrow) mrClipBSP(); }

// ---------------------------------------------------------------------------------
// Parameter-block binding

void mrClipBSP::addClassParameters(mrParamBlock* block)
{
    mrParamBlock* b = block ? block : this;
    b->addDWordField(PARAM_CONTENTS, ACCESS_READWRITE, "Contents");
    b->addVector3Field(PARAM_MINS, ACCESS_READWRITE, "Mins");
    b->addVector3Field(PARAM_MAXS, ACCESS_READWRITE, "Maxs");
    b->addDWordField(PARAM_NUMNODES, ACCESS_READWRITE, "NumNodes");
    b->addByteArrayPtrField(PARAM_NODES, ACCESS_READWRITE, "Nodes");
    b->addDWordField(PARAM_NUMPLANES, ACCESS_READWRITE, "NumPlanes");
    b->addByteArrayPtrField(PARAM_PLANES, ACCESS_READWRITE, "Planes");
}

void mrClipBSP::packPlanes(std::vector<unsigned char>& out) const
{
    unsigned long n = std::min<unsigned long>(m_numplanes, planeRecords());
    out.assign(n * PLANE_RECORD_SIZE, 0);
    for (unsigned long i = 0; i < n; ++i)
    {
        unsigned char* rec = out.data() + i * PLANE_RECORD_SIZE;
        // Bytes 0-3 stay zero: readers ignore them, and output must be deterministic.
        putFloat(rec + 4, m_planes[i].m_normal.x);
        putFloat(rec + 8, m_planes[i].m_normal.y);
        putFloat(rec + 12, m_planes[i].m_normal.z);
        putFloat(rec + 16, m_planes[i].m_dist);
    }
}

void mrClipBSP::refreshPBlock(mrParamBlock* block)
{
    m_flags |= 1u;
    mrParamBlock* target = block ? block : this;
    const bool own = target == static_cast<mrParamBlock*>(this);
    std::vector<unsigned char>& planeBytes = own ? m_ownPlaneBytes : m_otherPlaneBytes;
    packPlanes(planeBytes);
    // Only records that exist are published, so a reader of the field never runs past
    // the block even when a count was raised through "NumNodes".
    unsigned long nodeBytes = std::min<unsigned long>(m_numnodes, nodeRecords()) * NODE_RECORD_SIZE;

    target->setDWordField(PARAM_CONTENTS, m_contents);
    target->setVector3Field(PARAM_MINS, m_mins);
    target->setVector3Field(PARAM_MAXS, m_maxs);
    target->setDWordField(PARAM_NUMNODES, m_numnodes);
    target->setByteArrayPtrField(PARAM_NODES, reinterpret_cast<unsigned char*>(m_nodes), nodeBytes);
    target->setDWordField(PARAM_NUMPLANES, m_numplanes);
    target->setByteArrayPtrField(PARAM_PLANES, planeBytes.empty() ? nullptr : planeBytes.data(),
                                 (unsigned long)planeBytes.size());
    m_flags &= ~1u;
    if (own)
        dropRetiredNodes();
}

void mrClipBSP::adoptNodes()
{
    unsigned long size = 0;
    unsigned char* bytes = getByteArrayPtrField(PARAM_NODES, size);
    if (bytes == reinterpret_cast<unsigned char*>(m_nodes))
        return; // our own block (published by a refresh): nothing to take over
    // Take a copy: the caller keeps its buffer, and we never free what we did not allocate.
    unsigned long n = bytes ? size / NODE_RECORD_SIZE : 0;
    mrClipNode* nodes = allocNodes(n);
    if (nodes)
        std::memcpy(nodes, bytes, n * NODE_RECORD_SIZE);
    else if (n)
        srAssertFail("0", kSource, __LINE__, "mrClipBSP::notifyRefChanged()- out of memory taking \"Nodes\"");
    releaseNodeBlock(m_nodes);
    setNodeArray(nodes, nodes ? n : 0);
    dropRetiredNodes();
}

void mrClipBSP::adoptPlanes()
{
    unsigned long size = 0;
    unsigned char* bytes = getByteArrayPtrField(PARAM_PLANES, size);
    if (bytes && !m_ownPlaneBytes.empty() && bytes == m_ownPlaneBytes.data())
        return; // our own packed records (published by a refresh)
    unsigned long n = bytes ? size / PLANE_RECORD_SIZE : 0;
    mrPlane* planes = allocPlanes(n);
    if (planes)
    {
        for (unsigned long i = 0; i < n; ++i)
        {
            const unsigned char* rec = bytes + i * PLANE_RECORD_SIZE;
            planes[i].m_normal = srVector3T<float>(getFloat(rec + 4), getFloat(rec + 8), getFloat(rec + 12));
            planes[i].m_dist = getFloat(rec + 16);
        }
    }
    else if (n)
    {
        srAssertFail("0", kSource, __LINE__, "mrClipBSP::notifyRefChanged()- out of memory taking \"Planes\"");
    }
    freePlanes(m_planes);
    setPlaneArray(planes, planes ? n : 0);
}

e_refResult mrClipBSP::notifyRefChanged(e_refMsg message, unsigned long partID, mrRefTarget* target, unsigned long, int)
{
    (void)target; // fields are always read from the own block
    if (m_flags & 1u)
        return REF_SUCCEED; // our own refresh echoing back
    if (message != REFMSG_CHANGE)
    {
        srOut << "Unknown notification" << '\n';
        return REF_SUCCEED;
    }
    switch (partID)
    {
    case PARAM_CONTENTS:
        m_contents = (uint32_t)getDWordField(PARAM_CONTENTS);
        break;
    case PARAM_MINS:
        m_mins = getVector3Field(PARAM_MINS);
        break;
    case PARAM_MAXS:
        m_maxs = getVector3Field(PARAM_MAXS);
        break;
    case PARAM_NUMNODES:
        m_numnodes = (uint32_t)getDWordField(PARAM_NUMNODES);
        break;
    case PARAM_NODES:
        adoptNodes();
        break;
    case PARAM_NUMPLANES:
        m_numplanes = (uint32_t)getDWordField(PARAM_NUMPLANES);
        break;
    case PARAM_PLANES:
        adoptPlanes();
        break;
    default:
        break;
    }
    return REF_SUCCEED;
}

void mrClipBSP::refreshInstance(mrParamBlock* block)
{
    (void)block; // always reloads from the own block
    for (unsigned long id = PARAM_CONTENTS; id <= PARAM_PLANES; ++id)
        notifyRefChanged(REFMSG_CHANGE, id, this, 0, 1);
}

// ---------------------------------------------------------------------------------
// Validation

bool mrClipBSP::validate(std::string* error) const
{
    auto fail = [error](const std::string& text)
    {
        if (error)
            *error = text;
        return false;
    };
    if (m_nodes && !m_numnodes)
        return fail("node array set but node count is 0");
    if (!m_nodes && m_numnodes)
        return fail(std::to_string(m_numnodes) + " nodes counted but no node array");
    if (m_planes && !m_numplanes)
        return fail("plane array set but plane count is 0");
    if (!m_planes && m_numplanes)
        return fail(std::to_string(m_numplanes) + " planes counted but no plane array");
    if (m_numnodes > nodeRecords())
        return fail(std::to_string(m_numnodes) + " nodes counted but only " + std::to_string(nodeRecords()) +
                    " node records allocated");
    if (m_numplanes > planeRecords())
        return fail(std::to_string(m_numplanes) + " planes counted but only " + std::to_string(planeRecords()) +
                    " plane records allocated");
    // Every node but the root has exactly one parent: a node reached along two paths
    // would make a trace visit its subtree once per path, exponential in the depth.
    std::vector<int32_t> parent(m_numnodes, -1);
    for (uint32_t i = 0; i < m_numnodes; ++i)
    {
        const mrClipNode& n = m_nodes[i];
        // Built only for a message: validation runs on every load of a large tree.
        auto where = [i]() { return "node " + std::to_string(i) + ": "; };
        if (n.planeIndex < 0 || (uint32_t)n.planeIndex >= m_numplanes)
            return fail(where() + "plane index " + std::to_string(n.planeIndex) + " out of range (" +
                        std::to_string(m_numplanes) + " planes)");
        for (int c = 0; c < 2; ++c)
        {
            int32_t child = n.child[c];
            if (child < 0)
                continue;
            if ((uint32_t)child >= m_numnodes)
                return fail(where() + "child " + std::to_string(c) + " is node " + std::to_string(child) +
                            ", out of range (" + std::to_string(m_numnodes) + " nodes)");
            if ((uint32_t)child <= i)
                return fail(where() + "child " + std::to_string(c) + " is node " + std::to_string(child) +
                            ", which does not come after its parent");
            if (parent[(uint32_t)child] >= 0)
                return fail(where() + "child " + std::to_string(c) + " is node " + std::to_string(child) +
                            ", which already has a parent (node " + std::to_string(parent[(uint32_t)child]) + ")");
            parent[(uint32_t)child] = (int32_t)i;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------
// Queries

// ---------------------------------------------------------------------------------
// Query index

void mrClipBSP::dropQueryIndex()
{
    m_queryIndex.reset();
    m_indexNodes = nullptr;
    m_indexPlanes = nullptr;
    m_indexNumNodes = m_indexNumPlanes = 0;
}

void mrClipBSP::prepareQueries() { buildQueryIndex(1); }

void mrClipBSP::prepareQueries(int threads)
{
    if (threads <= 0)
        threads = tbb::info::default_concurrency();
    threads = (int)std::min<size_t>((size_t)threads,
                                    tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism));
    if (threads <= 1)
    {
        buildQueryIndex(1);
        return;
    }
    tbb::task_arena arena(threads);
    arena.execute([&] { buildQueryIndex(threads); });
}

void mrClipBSP::buildQueryIndex(int threads)
{
    dropQueryIndex();
    // A handful of nodes is walked as fast without one.
    if (isEmptySpace() || m_numnodes < 16 || !validate(nullptr))
        return;
    try
    {
        m_queryIndex = std::make_shared<const mrClipQueryIndex>(m_nodes, m_numnodes, m_planes, m_numplanes, m_mins,
                                                                m_maxs, threads > 1);
    }
    catch (const std::bad_alloc&)
    {
        return; // the queries walk the arrays instead
    }
    m_indexNodes = m_nodes;
    m_indexPlanes = m_planes;
    m_indexNumNodes = m_numnodes;
    m_indexNumPlanes = m_numplanes;
}

void mrClipBSP::copyQueryIndexFrom(const mrClipBSP& o)
{
    // The copy's arrays hold the same records, so the source's index describes them too.
    dropQueryIndex();
    if (!o.queryIndex() || m_numnodes != o.m_numnodes || m_numplanes != o.m_numplanes || nodeRecords() < m_numnodes ||
        planeRecords() < m_numplanes)
        return;
    m_queryIndex = o.m_queryIndex;
    m_indexNodes = m_nodes;
    m_indexPlanes = m_planes;
    m_indexNumNodes = m_numnodes;
    m_indexNumPlanes = m_numplanes;
}

// ---------------------------------------------------------------------------------
// Queries

namespace
{
// A crossing whose near part is being traced: what its far part and its back-off need.
// The crossing point itself is recomputed from these, with the same float operations.
struct ClipFrame
{
    int node;
    int side;
    float frac;
    float p1f, p2f;
    srVector3T<float> p1, p2;
};

// The pending crossings of one trace. Only the near part of a crossing nests, so a
// trace needs one frame per crossing it is inside of; on a chain tree that can be as
// many as the tree is deep. Frames live in a local array, and beyond that in a
// per-thread buffer that only grows: a thread allocates once for the deepest tree it
// meets and never again, and concurrent traces on different threads share nothing.
class ClipStack
{
public:
    ClipStack() : m_data(m_local), m_capacity(LOCAL_FRAMES), m_size(0) {}
    ClipStack(const ClipStack&) = delete;
    ClipStack& operator=(const ClipStack&) = delete;

    bool empty() const { return m_size == 0; }
    ClipFrame& push()
    {
        if (m_size == m_capacity)
            grow();
        return m_data[m_size++];
    }
    const ClipFrame& pop() { return m_data[--m_size]; }

private:
    enum
    {
        LOCAL_FRAMES = 48
    };

    void grow()
    {
        // Frames are plain data: the buffer is neither zeroed nor shrunk.
        static thread_local std::unique_ptr<ClipFrame[]> spill;
        static thread_local size_t spillSize = 0;
        const size_t wanted = m_capacity * 2;
        if (spillSize < wanted)
        {
            std::unique_ptr<ClipFrame[]> bigger(new ClipFrame[wanted]);
            std::copy(m_data, m_data + m_size, bigger.get());
            spill = std::move(bigger);
            spillSize = wanted;
        }
        else if (m_data == m_local)
            std::copy(m_local, m_local + m_size, spill.get());
        m_data = spill.get();
        m_capacity = spillSize;
    }

    ClipFrame m_local[LOCAL_FRAMES];
    ClipFrame* m_data;
    size_t m_capacity;
    size_t m_size;
};
} // namespace

namespace
{
// The tree as the arrays hold it, one node at a time.
class PlainWalk
{
public:
    PlainWalk(const mrClipNode* nodes, const mrPlane* planes) : m_nodes(nodes), m_planes(planes) {}
    float distance(int node, const srVector3T<float>& p) const
    {
        return signedDistance(m_planes[m_nodes[node].planeIndex], p);
    }
    int child(int node, int k) const { return m_nodes[node].child[k]; }
    void plane(int node, srVector3T<float>& normal, float& dist) const
    {
        const mrPlane& pl = m_planes[m_nodes[node].planeIndex];
        normal = pl.m_normal;
        dist = pl.m_dist;
    }
    bool inChain(int) const { return false; }
    int skip(int node, const srVector3T<float>&, const srVector3T<float>&, bool& plain) const
    {
        plain = true;
        return node;
    }
    int pointInfo(int node, const srVector3T<float>& p) const
    {
        while (node >= 0)
        {
            const mrClipNode& n = m_nodes[node];
            node = signedDistance(m_planes[n.planeIndex], p) >= 0.0f ? n.child[0] : n.child[1];
        }
        return node;
    }

private:
    const mrClipNode* m_nodes;
    const mrPlane* m_planes;
};

// The same tree through its query index: the same tests on the same floats, with runs
// of nodes that provably pass a point (or both ends of a segment) on skipped.
class IndexWalk
{
public:
    explicit IndexWalk(const mrClipQueryIndex& index) : m_index(index), m_nodes(index.nodes()) {}
    float distance(int node, const srVector3T<float>& p) const { return mrClipQueryIndex::distance(m_nodes[node], p); }
    bool inChain(int node) const { return m_nodes[node].run >= 0; }
    int child(int node, int k) const { return m_nodes[node].child[k]; }
    void plane(int node, srVector3T<float>& normal, float& dist) const
    {
        const mrClipQueryIndex::Node& n = m_nodes[node];
        normal = srVector3T<float>(n.n[0], n.n[1], n.n[2]);
        dist = n.d;
    }
    int skip(int node, const srVector3T<float>& p1, const srVector3T<float>& p2, bool& plain) const
    {
        const int to = m_index.traceSkip(node, p1, p2);
        // Landing inside the same chain means that node's test must be made; landing
        // where the chain is left is a fresh start.
        plain = to == node || (to >= 0 && m_nodes[to].run >= 0 && m_nodes[to].run == m_nodes[node].run);
        return to;
    }
    int pointInfo(int node, const srVector3T<float>& p) const
    {
        if (node == 0)
            node = m_index.startFor(p);
        while (node >= 0)
            node = m_index.pointStep(node, p);
        return node;
    }

private:
    const mrClipQueryIndex& m_index;
    const mrClipQueryIndex::Node* m_nodes;
};

// The index's compact nodes of a tree without indexed chains: nothing to skip.
class CompactWalk : public IndexWalk
{
public:
    explicit CompactWalk(const mrClipQueryIndex& index) : IndexWalk(index), m_index(index), m_nodes(index.nodes()) {}
    bool inChain(int) const { return false; }
    int pointInfo(int node, const srVector3T<float>& p) const
    {
        if (node == 0)
            node = m_index.startFor(p);
        while (node >= 0)
        {
            const mrClipQueryIndex::Node& n = m_nodes[node];
            node = mrClipQueryIndex::distance(n, p) >= 0.0f ? n.child[0] : n.child[1];
        }
        return node;
    }

private:
    const mrClipQueryIndex& m_index;
    const mrClipQueryIndex::Node* m_nodes;
};

// The trace, over any view of the tree.
//
// The recursion of the trace, unrolled: descending to one side and going on into the far
// part of a crossing are plain steps, and the near part of a crossing pushes a frame that
// is taken up again when the near part comes out clear. Every stop (a solid leaf, or a
// plane with solid behind it) ends the whole trace at once, exactly as each level would
// return 0 to the one above.
template <class Walk>
int traceWith(const Walk& walk, int node, float p1f, float p2f, const srVector3T<float>& p1in,
              const srVector3T<float>& p2in, mrTrace& trace)
{
    ClipStack pending;
    srVector3T<float> p1 = p1in;
    srVector3T<float> p2 = p2in;
    for (;;)
    {
        bool fresh = true;
        while (node >= 0)
        {
            if (fresh && walk.inChain(node))
            {
                bool plain = true;
                node = walk.skip(node, p1, p2, plain);
                fresh = !plain;
                continue;
            }
            fresh = true;
            const float t1 = walk.distance(node, p1);
            const float t2 = walk.distance(node, p2);
            if (t1 >= 0.0f && t2 >= 0.0f)
            {
                node = walk.child(node, 0);
                continue;
            }
            if (t1 < 0.0f && t2 < 0.0f)
            {
                node = walk.child(node, 1);
                continue;
            }

            // Reproducibility promise (crossing fraction): numerator in double from the float
            // distance, denominator t1 - t2 in float, quotient in double rounded to float.
            const double num = (t1 < 0.0f) ? (double)t1 + kDistanceMargin : (double)t1 - kDistanceMargin;
            const float den = t1 - t2;
            float frac = (float)(num / (double)den);
            // Clamped in float (reproducibility promise), so the crossing point never leaves
            // the segment.
            if (frac < 0.0f)
                frac = 0.0f;
            if (frac > 1.0f)
                frac = 1.0f;

            float midf;
            srVector3T<float> mid;
            crossingPoint(p1f, p2f, p1, p2, frac, midf, mid);

            // Trace the near part first: from p1 to the crossing, on p1's side.
            const int side = (t1 < 0.0f) ? 1 : 0;
            ClipFrame& f = pending.push();
            f.node = node;
            f.side = side;
            f.frac = frac;
            f.p1f = p1f;
            f.p2f = p2f;
            f.p1 = p1;
            f.p2 = p2;
            node = walk.child(node, side);
            p2f = midf;
            p2 = mid;
        }

        if (node != -1)
        {
            trace.m_startSolid = 1;
            return 0;
        }
        trace.m_allSolid = 0;
        trace.m_inOpen = 1;
        if (pending.empty())
            return 1;

        // The near part of the innermost crossing came out clear.
        const ClipFrame f = pending.pop();
        float frac = f.frac;
        float midf;
        srVector3T<float> mid;
        crossingPoint(f.p1f, f.p2f, f.p1, f.p2, frac, midf, mid);

        const int far = walk.child(f.node, f.side ^ 1);
        if (walk.pointInfo(far, mid) > -2)
        {
            // The far side is open at the crossing: go on from there.
            node = far;
            p1f = midf;
            p1 = mid;
            p2f = f.p2f;
            p2 = f.p2;
            continue;
        }

        // This plane stops the trace; store it facing the side the trace came from.
        srVector3T<float> normal;
        float dist;
        walk.plane(f.node, normal, dist);
        if (f.side == 0)
        {
            trace.m_planeNormal = normal;
            trace.m_planeDist = dist;
        }
        else
        {
            trace.m_planeNormal = srVector3T<float>(-normal.x, -normal.y, -normal.z);
            trace.m_planeDist = -dist;
        }

        // Back off while the crossing point lies in solid, searching from the root.
        while (walk.pointInfo(0, mid) <= -2)
        {
            // Reproducibility promise (back-off): the step is taken in double, rounded to float.
            frac = (float)((double)frac - kBackOffStep);
            // Written as "not >= 0" so a NaN fraction (non-finite input) ends the loop too.
            if (!(frac >= 0.0f))
            {
                trace.m_fraction = midf;
                trace.m_endPos = mid;
                return 0;
            }
            crossingPoint(f.p1f, f.p2f, f.p1, f.p2, frac, midf, mid);
        }
        trace.m_fraction = midf;
        trace.m_endPos = mid;
        return 0;
    }
}
} // namespace

int mrClipBSP::pointInfo(int node, const srVector3T<float>& point) const
{
    if (node >= 0 && isEmptySpace())
        return -1;
    if (const mrClipQueryIndex* index = queryIndex())
        return index->numRuns() ? IndexWalk(*index).pointInfo(node, point) : CompactWalk(*index).pointInfo(node, point);
    return PlainWalk(m_nodes, m_planes).pointInfo(node, point);
}

int mrClipBSP::clip(int node, float p1f, float p2f, const srVector3T<float>& p1, const srVector3T<float>& p2,
                    mrTrace& trace) const
{
    // A clip BSP without nodes is empty space, so every trace is clear (reproducibility
    // promise: one answer for the empty case).
    if (node >= 0 && isEmptySpace())
        node = -1;
    if (const mrClipQueryIndex* index = queryIndex())
    {
        if (node == 0)
            node = index->traceStart(p1, p2);
        return index->numRuns() ? traceWith(IndexWalk(*index), node, p1f, p2f, p1, p2, trace)
                                : traceWith(CompactWalk(*index), node, p1f, p2f, p1, p2, trace);
    }
    return traceWith(PlainWalk(m_nodes, m_planes), node, p1f, p2f, p1, p2, trace);
}

int mrClipBSP::checkCollision(const srVector3T<float>& start, const srVector3T<float>& end, mrTrace& trace) const
{
    // Copies first: the caller may pass fields of the trace itself as the points.
    const srVector3T<float> a = start;
    const srVector3T<float> b = end;
    trace.m_fraction = 1.0f;
    trace.m_allSolid = 1;
    trace.m_startSolid = 0;
    trace.m_inOpen = 0;
    trace.m_endPos = b;
    return clip(0, 0.0f, 1.0f, a, b, trace);
}

// ---------------------------------------------------------------------------------
// Box clip BSPs

bool mrClipBSP::hasBoxLayout() const
{
    if (m_numnodes != 6 || m_numplanes != 6 || nodeRecords() < 6 || planeRecords() < 6)
        return false;
    for (int i = 0; i < 6; ++i)
    {
        const mrClipNode& n = m_nodes[i];
        if (n.planeIndex != i || n.child[0] != -1 || n.child[1] != (i < 5 ? i + 1 : -2))
            return false;
    }
    return true;
}

void mrClipBSP::makeFromBBox(const srVector3T<float>& minsIn, const srVector3T<float>& maxsIn)
{
    // Copies: the corners may be this clip BSP's own bounds.
    const srVector3T<float> mins = minsIn;
    const srVector3T<float> maxs = maxsIn;
    releaseArrays();
    m_numnodes = 6;
    m_numplanes = 6;
    mrClipNode* nodes = allocNodes(6);
    mrPlane* planes = allocPlanes(6);
    if (!nodes || !planes)
    {
        freeNodes(nodes);
        freePlanes(planes);
        m_numnodes = 0;
        m_numplanes = 0;
        srAssertFail("0", kSource, __LINE__, "mrClipBSP::makeFromBBox()- out of memory");
        return;
    }
    setNodeArray(nodes, 6);
    setPlaneArray(planes, 6);

    m_mins = srVector3T<float>(mins.x - kBoxMargin, mins.y - kBoxMargin, mins.z - kBoxMargin);
    m_maxs = srVector3T<float>(maxs.x + kBoxMargin, maxs.y + kBoxMargin, maxs.z + kBoxMargin);

    const float dists[6] = {maxs.x, -mins.x, maxs.y, -mins.y, maxs.z, -mins.z};
    for (int i = 0; i < 6; ++i)
    {
        m_planes[i].m_normal = boxNormal(i);
        m_planes[i].m_dist = dists[i];
        m_nodes[i].planeIndex = i;
        m_nodes[i].child[0] = -1;
        m_nodes[i].child[1] = (i < 5) ? i + 1 : -2;
    }
}

void mrClipBSP::setFromBBox(const srVector3T<float>& minsIn, const srVector3T<float>& maxsIn)
{
    if (!hasBoxLayout())
    {
        srAssertFail("hasBoxLayout()", kSource, __LINE__,
                     "mrClipBSP::setFromBBox()- not a box clip BSP (makeFromBBox gives the six planes and nodes)");
        return;
    }
    dropQueryIndex();
    const srVector3T<float> mins = minsIn;
    const srVector3T<float> maxs = maxsIn;
    m_mins = srVector3T<float>(mins.x - kBoxMargin, mins.y - kBoxMargin, mins.z - kBoxMargin);
    m_maxs = srVector3T<float>(maxs.x + kBoxMargin, maxs.y + kBoxMargin, maxs.z + kBoxMargin);
    const float dists[6] = {maxs.x, -mins.x, maxs.y, -mins.y, maxs.z, -mins.z};
    for (int i = 0; i < 6; ++i)
        m_planes[i].m_dist = dists[i];
}

void mrClipBSP::setFromBBoxExt(srVector3T<float>& mins, srVector3T<float>& maxs, srVector3T<float>& origin,
                               srMatrix3T<float>& matrix)
{
    if (!hasBoxLayout())
    {
        srAssertFail("hasBoxLayout()", kSource, __LINE__,
                     "mrClipBSP::setFromBBoxExt()- not a box clip BSP (makeFromBBox gives the six planes and nodes)");
        return;
    }
    dropQueryIndex();
    const srVector3T<float> org = origin;
    // Only the two corners turn; the planes stay axis-aligned.
    mins = matrix.transform(mins);
    maxs = matrix.transform(maxs);
    for (int k = 0; k < 3; ++k)
    {
        if (mins[k] > maxs[k])
            std::swap(mins[k], maxs[k]);
    }
    mins = srVector3T<float>(mins.x + org.x, mins.y + org.y, mins.z + org.z);
    maxs = srVector3T<float>(maxs.x + org.x, maxs.y + org.y, maxs.z + org.z);
    m_mins = srVector3T<float>(mins.x - kExtBoxMargin, mins.y - kExtBoxMargin, mins.z - kExtBoxMargin);
    m_maxs = srVector3T<float>(maxs.x + kExtBoxMargin, maxs.y + kExtBoxMargin, maxs.z + kExtBoxMargin);
    for (int i = 0; i < 6; ++i)
    {
        m_planes[i].m_normal = boxNormal(i);
        m_planes[i].m_dist = dot(m_planes[i].m_normal, (i % 2 == 0) ? maxs : mins);
    }
}

void mrClipBSP::rotate(srMatrix3T<float>& matrix)
{
    if (!hasBoxLayout())
    {
        srAssertFail("hasBoxLayout()", kSource, __LINE__,
                     "mrClipBSP::rotate()- not a box clip BSP (makeFromBBox gives the six planes and nodes)");
        return;
    }
    dropQueryIndex();
    // Always from the axis normals, so repeated calls do not accumulate.
    for (int i = 0; i < 6; ++i)
        m_planes[i].m_normal = boxNormal(i);
    for (int i = 0; i < 6; ++i)
    {
        m_planes[i].m_normal = matrix.transform(m_planes[i].m_normal);
        m_planes[i].m_dist = dot(m_planes[i].m_normal, (i % 2 == 0) ? m_maxs : m_mins);
    }
}

void mrClipBSP::offset(srVector3T<float>& delta)
{
    // Kept for callers of the box operations; a box is moved with setFromBBox.
    (void)delta;
}
