// The clip BSP at run time: object lifecycle and registry, parameter fields, queries,
// box operations and validation.

#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/platform/dx/srCore.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<unsigned char> Bytes;
using mtest::clipBox;
using mtest::clipNode;
using mtest::ClipPtr;
using mtest::clipTree;
using mtest::nodeRecords;
using mtest::planeRecords;

ClipPtr cube() { return clipBox(V(-16, -16, -16), V(16, 16, 16)); }

// The address and size a byte array field hands out (the size starts at 99: the getter
// must set it).
std::pair<const void*, unsigned long> fieldPtr(mrParamBlock& block, unsigned long id)
{
    unsigned long size = 99;
    const void* p = block.getByteArrayPtrField(id, size);
    return {p, size};
}

Bytes bytesOf(const void* p, size_t n) { return Bytes((const unsigned char*)p, (const unsigned char*)p + n); }
Bytes fieldBytes(mrParamBlock& block, unsigned long id)
{
    std::pair<const void*, unsigned long> f = fieldPtr(block, id);
    return f.first ? bytesOf(f.first, f.second) : Bytes();
}

// The six axis planes in box order (+x, -x, +y, -y, +z, -z) with the given distances.
std::vector<mrPlane> axisPlanes(std::vector<float> d)
{
    return {mrPlane(1, 0, 0, d[0]),  mrPlane(-1, 0, 0, d[1]), mrPlane(0, 1, 0, d[2]),
            mrPlane(0, -1, 0, d[3]), mrPlane(0, 0, 1, d[4]),  mrPlane(0, 0, -1, d[5])};
}
std::vector<mrPlane> cubePlanes() { return axisPlanes({16, 16, 16, 16, 16, 16}); }

std::vector<mrClipNode> boxNodes()
{
    return {clipNode(0, -1, 1), clipNode(1, -1, 2), clipNode(2, -1, 3),
            clipNode(3, -1, 4), clipNode(4, -1, 5), clipNode(5, -1, -2)};
}

// The first expected.size() planes of b, exactly.
void expectPlanes(const mrClipBSP& b, const std::vector<mrPlane>& expected)
{
    ASSERT_GE(b.m_numplanes, expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(std::make_pair(b.m_planes[i].m_normal, b.m_planes[i].m_dist),
                  std::make_pair(expected[i].m_normal, expected[i].m_dist))
            << "plane " << i;
}

// Trees for the queries.
ClipPtr emptyClip() { return ClipPtr(new mrClipBSP); }
ClipPtr bothSidesEmpty() { return clipTree({mrPlane(0, 0, 1, 3)}, {clipNode(0, -1, -1)}); }
ClipPtr solidBehindX() { return clipTree({mrPlane(1, 0, 0, 0)}, {clipNode(0, -1, -2)}); }
ClipPtr markedBehindX() { return clipTree({mrPlane(1, 0, 0, 0)}, {clipNode(0, -1, -3)}); }
// Terms x = 1, y = 3e-8, z = -1 against a distance of 3e-8 at (1, 1, 1): summed z, y, x in
// float the point is just in front; summed x, y, z it would fall just behind.
ClipPtr sumOrder() { return clipTree({mrPlane(1, 3e-8f, -1, 3e-8f)}, {clipNode(0, -1, -2)}); }
// Three planes along x: the root at x = 0 with a thin solid slice 0 <= x < 0.01 in front
// and solid beyond x < -0.03 behind. Traces that stop at x = -0.03 land in the slice
// and must back off.
ClipPtr backOff()
{
    return clipTree({mrPlane(1, 0, 0, 0), mrPlane(1, 0, 0, 0.01f), mrPlane(1, 0, 0, -0.03f)},
                    {clipNode(0, 1, 2), clipNode(1, -1, -2), clipNode(2, -1, -2)});
}
} // namespace

// ---------------------------------------------------------------------------------
// Object, registry, copies

TEST(ClipBSPObject, NewClonedAndInstancedClipBSPsAreEmptyAndTheirSevenFieldsMirrorTheMembers)
{
    mtest::AssertRecorder rec;
    ClipPtr source = cube();
    source->setContents(9);
    srClass* base = source.get();
    for (srClass* made : {static_cast<srClass*>(new mrClipBSP), base->vClone(), base->vInstance()})
    {
        ClipPtr b(dynamic_cast<mrClipBSP*>(made));
        ASSERT_NE(b, nullptr);
        EXPECT_NE(b.get(), source.get());
        EXPECT_EQ(std::make_tuple(b->m_numnodes + b->m_numplanes, b->m_nodes, b->m_planes, b->getContents(),
                                  b->getClassID(), std::string(b->getClassName())),
                  std::make_tuple(0u, nullptr, nullptr, 1u, 0x60000ul, std::string("srClass")));
        const char* names[] = {"Contents", "Mins", "Maxs", "NumNodes", "Nodes", "NumPlanes", "Planes"};
        ASSERT_EQ(b->numFields(), 7u);
        for (size_t i = 0; i < 7; ++i)
            EXPECT_EQ(std::make_tuple(b->fieldAt(i).m_id, std::string(b->fieldAt(i).m_name), b->fieldAt(i).m_access),
                      std::make_tuple(0xF001u + i, std::string(names[i]), mrParamBlock::ACCESS_READWRITE));
        // The byte arrays hand out nothing; one dependant: the self-reference.
        const std::pair<const void*, unsigned long> none(nullptr, 0);
        EXPECT_EQ(std::make_tuple(b->findField(0xF005u)->m_kind, b->getDWordField(0xF001),
                                  b->getDWordField(0xF004) + b->getDWordField(0xF006), fieldPtr(*b, 0xF005),
                                  fieldPtr(*b, 0xF007), b->numDependants()),
                  std::make_tuple(mrParamBlock::FIELD_BYTEARRAYPTR, 1ul, 0ul, none, none, 1ul));
        // setContents does not publish; values set from outside reach the members.
        b->setContents(7);
        EXPECT_EQ(b->getDWordField(0xF001), 1u);
        b->setDWordField(0xF001, 5);
        b->setVector3Field(0xF002, V(1, 2, 3));
        b->setVector3Field(0xF003, V(4, 5, 6));
        EXPECT_EQ(std::make_tuple(b->getContents(), b->m_mins, b->m_maxs), std::make_tuple(5u, V(1, 2, 3), V(4, 5, 6)));
    }
    EXPECT_TRUE(rec.reports().empty());
}

TEST(ClipBSPObject, ClassEntersRegistryWithFirstInstance)
{
    srRegistry& reg = srCore::instance().getRegistry();
    ASSERT_EQ(reg.numInstances(0x60000), 0u) << "another test leaked a clip BSP";
    reg.removeClass(0x60000);
    EXPECT_EQ(reg.getClassNode(0x60000), nullptr);
    {
        ClipPtr a = emptyClip();
        srRegistry::ClassNode* n = reg.getClassNode(0x60000);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(std::make_tuple(std::string(n->m_name), n->m_parent, n->m_flag, a->getClassNode()),
                  std::make_tuple(std::string("srClass"), srClass::sGetClassNode(), 1, n));
        ClipPtr b(new mrClipBSP(*a));
        EXPECT_EQ(reg.numInstances(0x60000), 2u);
        *b = *a; // assignment leaves the registry alone
        EXPECT_EQ(reg.numInstances(0x60000), 2u);
    }
    EXPECT_EQ(reg.numInstances(0x60000), 0u);
}

TEST(ClipBSPObject, DestructionReportsArraysWithoutCountsAndStillReleasesThem)
{
    mtest::AssertRecorder rec;
    ClipPtr b = clipBox(V(-1, -1, -1), V(1, 1, 1));
    b->m_numnodes = b->m_numplanes = 0;
    b.reset();
    rec.expect({{"m_numnodes", "mrClipBSP", 33, nullptr}, {"m_numplanes", "mrClipBSP", 38, nullptr}});

    // An array set through its field without a count is reported the same way.
    rec.clear();
    std::vector<mrClipNode> nodes = boxNodes();
    b = emptyClip();
    b->setByteArrayPtrField(0xF005, reinterpret_cast<unsigned char*>(nodes.data()), 72);
    EXPECT_EQ(b->m_numnodes, 0u);
    b.reset();
    rec.expect({{"m_numnodes", "mrClipBSP", 33, nullptr}});
}

TEST(ClipBSPObject, CopiesOwnTheirArraysAndTheirFields)
{
    ClipPtr a = cube(), assigned = clipBox(V(0, 0, 0), V(1, 1, 1));
    a->setContents(4);
    a->refreshPBlock(nullptr);
    assigned->refreshPBlock(nullptr);
    ClipPtr copy(new mrClipBSP(*a));
    *assigned = *a;
    const Bytes planes = fieldBytes(*a, 0xF007), nodes = bytesOf(a->m_nodes, 72);
    a.reset(); // the copies must not lean on the source's storage
    for (mrClipBSP* c : {copy.get(), assigned.get()})
    {
        ASSERT_EQ(std::make_tuple(c->getContents(), c->m_maxs, c->m_numnodes), std::make_tuple(4u, V(32, 32, 32), 6u));
        EXPECT_EQ(std::make_tuple(bytesOf(c->m_nodes, 72), fieldPtr(*c, 0xF005), fieldBytes(*c, 0xF007),
                                  c->pointInfo(0, V(0, 0, 0)), c->pointInfo(0, V(20, 0, 0))),
                  std::make_tuple(nodes, std::make_pair((const void*)c->m_nodes, 72ul), planes, -2, -1));
    }
}

// ---------------------------------------------------------------------------------
// Parameter fields

TEST(ClipBSPFields, NodesAndPlanesRoundTripThroughTheOwnBlock)
{
    std::vector<mrClipNode> nodes = boxNodes();
    const Bytes expectedNodes = nodeRecords(nodes), expectedPlanes = planeRecords(cubePlanes());
    Bytes planes = expectedPlanes;
    ClipPtr b = emptyClip();
    b->setByteArrayPtrField(0xF005, reinterpret_cast<unsigned char*>(nodes.data()), 72);
    b->setDWordField(0xF004, 6);
    b->setByteArrayPtrField(0xF007, planes.data(), 120);
    b->setDWordField(0xF006, 6);
    EXPECT_TRUE(b->validate(nullptr));
    EXPECT_EQ(b->pointInfo(0, V(16.5f, 0, 0)), -1);

    // The clip BSP took copies: the caller's buffers are its own again.
    std::memset(nodes.data(), 0xFF, 72);
    std::memset(planes.data(), 0, planes.size());
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -2);
    b->refreshPBlock(nullptr);
    EXPECT_EQ(std::make_pair(fieldBytes(*b, 0xF005), fieldBytes(*b, 0xF007)),
              std::make_pair(expectedNodes, expectedPlanes));

    // Setting the field to the clip BSP's own block keeps the array it has.
    mrClipNode* own = b->m_nodes;
    b->setByteArrayPtrField(0xF005, reinterpret_cast<unsigned char*>(own), 72);
    EXPECT_EQ(b->m_nodes, own);
    // A null address drops the array; the count follows only its own field.
    b->setByteArrayPtrField(0xF007, nullptr, 0);
    EXPECT_EQ(std::make_tuple(b->m_planes, b->m_numplanes, b->pointInfo(0, V(0, 0, 0))),
              std::make_tuple(nullptr, 6u, -1))
        << "a tree without planes is empty space";
    b->setDWordField(0xF006, 0);
}

TEST(ClipBSPFields, RefreshPublishesRecordsOfTwelveAndTwentyBytesIntoTheGivenBlockOnlyAndOnlyItChangesThem)
{
    ClipPtr b = cube();
    EXPECT_EQ(b->getDWordField(0xF004), 0u) << "box operations do not publish";
    mrParamBlock other;
    b->addClassParameters(&other);
    b->refreshPBlock(&other);
    EXPECT_EQ(std::make_tuple(other.getDWordField(0xF004), fieldBytes(other, 0xF005), fieldBytes(other, 0xF007),
                              b->getDWordField(0xF004), fieldBytes(*b, 0xF005).size()),
              std::make_tuple(6ul, bytesOf(b->m_nodes, 72), planeRecords(cubePlanes()), 0ul, (size_t)0));

    b->refreshPBlock(nullptr);
    EXPECT_EQ(std::make_tuple(b->getDWordField(0xF004), b->getDWordField(0xF006), b->getVector3Field(0xF002),
                              fieldPtr(*b, 0xF005)),
              std::make_tuple(6ul, 6ul, V(-32, -32, -32), std::make_pair((const void*)b->m_nodes, 72ul)));
    Bytes planes = fieldBytes(*b, 0xF007);
    ASSERT_EQ(planes.size(), 120u);
    const unsigned char plane1[20] = {0, 0, 0, 0, 0, 0, 0x80, 0xBF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x41};
    EXPECT_EQ(Bytes(planes.begin() + 20, planes.begin() + 40), bytesOf(plane1, 20))
        << "record 1: zero header, (-1, 0, 0), 16";

    // Into another clip BSP's block: that one takes copies of everything.
    ClipPtr c = emptyClip();
    b->refreshPBlock(c.get());
    EXPECT_NE(c->m_nodes, b->m_nodes);
    EXPECT_EQ(std::make_tuple(c->m_numnodes, c->m_maxs, c->pointInfo(0, V(0, 0, 0))),
              std::make_tuple(6u, V(32, 32, 32), -2));

    // The own block changes only with a refresh: rebuilt boxes leave the last one published
    // (still live memory), and a raised count publishes only the records that exist.
    const Bytes before = fieldBytes(*b, 0xF005);
    b->makeFromBBox(V(0, 0, 0), V(1, 1, 1));
    b->makeFromBBox(V(0, 0, 0), V(2, 2, 2));
    EXPECT_EQ(fieldBytes(*b, 0xF005), before);
    b->setDWordField(0xF004, 9);
    b->setDWordField(0xF006, 9);
    EXPECT_EQ(b->m_numnodes, 9u);
    b->refreshPBlock(nullptr);
    EXPECT_EQ(std::make_tuple(b->getDWordField(0xF004), fieldPtr(*b, 0xF005), fieldBytes(*b, 0xF007).size()),
              std::make_tuple(9ul, std::make_pair((const void*)b->m_nodes, 72ul), (size_t)120));
    b->setDWordField(0xF004, 6);
    b->setDWordField(0xF006, 6);
}

TEST(ClipBSPFields, UnknownNotificationsWriteALineAndTheRefreshingBitMakesThemNoOps)
{
    mtest::LogCapture log;
    ClipPtr b = emptyClip();
    // Any message other than "changed" (the enumeration only names one other value) writes
    // one line; an ID outside the seven fields is ignored quietly.
    EXPECT_EQ(b->notifyRefChanged(REFMSG_TARGET_DELETED, 0xF001, b.get(), 0, 1), REF_SUCCEED);
    EXPECT_EQ(b->notifyRefChanged(REFMSG_CHANGE, 0xF008, b.get(), 0, 1), REF_SUCCEED);
    EXPECT_EQ(log.text(), "Unknown notification\n");
    EXPECT_EQ(b->getContents(), 1u);

    b->m_flags |= 1u;
    b->setDWordField(0xF001, 9);
    b->refreshInstance(nullptr);
    EXPECT_EQ(b->getContents(), 1u);
    b->m_flags &= ~1u;
    b->refreshInstance(nullptr);
    EXPECT_EQ(b->getContents(), 9u);
}

// ---------------------------------------------------------------------------------
// Queries

TEST(ClipBSPQueries, PointInfo)
{
    const std::tuple<ClipPtr (*)(), int, V, int> cases[] = {
        {cube, 0, V(0, 0, 0), -2},           {cube, 0, V(16, 0, 0), -1}, // on a plane is in front of it
        {cube, 0, V(16.5f, 0, 0), -1},       {cube, 0, V(20, 0, 0), -1},
        {cube, -1, V(0, 0, 0), -1}, // a leaf value comes back at once
        {cube, -3, V(50, 0, 0), -3},         {sumOrder, 0, V(1, 1, 1), -1},
        {markedBehindX, 0, V(-1, 0, 0), -3}, {emptyClip, 0, V(0, 0, 0), -1}, // no nodes: empty space
    };
    for (const auto& c : cases)
    {
        const auto& [tree, node, point, contents] = c;
        EXPECT_EQ(tree()->pointInfo(node, point), contents) << &c - cases;
    }
}

TEST(ClipBSPQueries, TracesFillTheWholeRecord)
{
    // tree, start, end, result, fraction, end point, all solid, start solid, in open, plane
    // normal and distance ((0, 0, 0) and 0: left as the caller gave them), end contents.
    const std::tuple<ClipPtr (*)(), V, V, int, float, V, int, int, int, V, float, int> cases[] = {
        // Clear, stopped short of the -x face at (16 - 0.03225) / 32, starting in solid.
        {cube, V(-32, 0, 0), V(-20, 0, 0), 1, 1.0f, V(-20, 0, 0), 0, 0, 1, V(0, 0, 0), 0, -1},
        {cube, V(-32, 0, 0), V(0, 0, 0), 0, 0x1.fef7cep-2f, V(-0x1.008418p+4f, 0, 0), 0, 0, 1, V(-1, 0, 0), 16, -1},
        {cube, V(0, 0, 0), V(32, 0, 0), 0, 1.0f, V(32, 0, 0), 1, 1, 0, V(0, 0, 0), 0, -1},
        {bothSidesEmpty, V(0, 0, -100), V(0, 0, 100), 1, 1.0f, V(0, 0, 100), 0, 0, 1, V(0, 0, 0), 0, -1},
        {bothSidesEmpty, V(5, 5, 5), V(-5, -5, -5), 1, 1.0f, V(-5, -5, -5), 0, 0, 1, V(0, 0, 0), 0, -1},
        {emptyClip, V(0, 0, 0), V(5, 5, 5), 1, 1.0f, V(5, 5, 5), 0, 0, 1, V(0, 0, 0), 0, -1},
        // A marked solid (-3) blocks like -2, from either side.
        {markedBehindX, V(1, 0, 0), V(-1, 0, 0), 0, 0x1.ef7ceep-2f, V(0x1.08312p-5f, 0, 0), 0, 0, 1, V(1, 0, 0), 0, -1},
        {markedBehindX, V(-1, 0, 0), V(1, 0, 0), 0, 1.0f, V(1, 0, 0), 1, 1, 0, V(0, 0, 0), 0, -1},
        // t1 - t2 = 0.7 + 2.2e-7 rounds in float; a double denominator or an all-float
        // quotient would give 0x1.e8694ap-1.
        {solidBehindX, V(0.7f, 0, 0), V(-0x1.d87248p-23f, 0, 0), 0, 0x1.e86948p-1f, V(0x1.08312p-5f, 0, 0), 0, 0, 1,
         V(1, 0, 0), 0, -1},
        // Crossing fractions below 0 are clamped: the trace ends at its start.
        {solidBehindX, V(0.01f, 0, 0), V(-1, 0, 0), 0, 0.0f, V(0.01f, 0, 0), 0, 0, 1, V(1, 0, 0), 0, -1},
        {solidBehindX, V(-0.01f, 0, 0), V(1, 0, 0), 0, 1.0f, V(1, 0, 0), 1, 1, 0, V(0, 0, 0), 0, -1},
        // The crossing at x = -0.03 lands at x = 0.00225, solid from the root; one step of
        // 0.1 moves it to x = 0.0155, which is open.
        {backOff, V(1, 0, 0), V(-0.1f, 0, 0), 0, 0x1.ca406ap-1f, V(0x1.fb15acp-7f, 0, 0), 0, 0, 1, V(1, 0, 0), -0.03f,
         -1},
        // Here the crossing fraction is about 0.029: one step makes it negative, and the
        // trace keeps the point of the previous pass, inside the slice.
        {backOff, V(1, 0, 0), V(-1, 0, 0), 0, 0x1.fed916p-2f, V(0x1.26e99p-9f, 0, 0), 0, 0, 1, V(1, 0, 0), -0.03f, -2},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(&c - cases);
        const auto& [tree, start, end, result, fraction, endPos, allSolid, startSolid, inOpen, normal, dist,
                     endContents] = c;
        ClipPtr b = tree();
        mrTrace t;
        t.m_reservedFlag = 77;
        EXPECT_EQ(b->checkCollision(start, end, t), result);
        EXPECT_EQ(std::make_tuple(t.m_fraction, t.m_endPos, t.m_allSolid, t.m_startSolid, t.m_inOpen, t.m_reservedFlag,
                                  t.m_planeNormal, t.m_planeDist, b->pointInfo(0, t.m_endPos)),
                  std::make_tuple(fraction, endPos, allSolid, startSolid, inOpen, 77, normal, dist, endContents));
    }
}

TEST(ClipBSPQueries, TraceMayStartAtItsOwnEndPointAndNonFinitePointsEndTheQuery)
{
    ClipPtr b = cube();
    mrTrace t;
    t.m_endPos = V(-32, 0, 0);
    EXPECT_EQ(b->checkCollision(t.m_endPos, V(0, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0x1.fef7cep-2f);

    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(b->checkCollision(V(-32, 0, 0), V(nan, 0, 0), t), 0);
    EXPECT_EQ(b->checkCollision(V(-inf, 0, 0), V(inf, 0, 0), t), 0);
    b->pointInfo(0, V(nan, nan, nan));
}

// ---------------------------------------------------------------------------------
// Box operations

TEST(ClipBSPBoxes, MakeFromBBoxBuildsTheSixPlaneChainInsidePaddedBounds)
{
    ClipPtr b = cube();
    ASSERT_EQ(std::make_pair(b->m_numplanes, b->m_numnodes), std::make_pair(6u, 6u));
    // Offset changes nothing at all.
    for (int pass = 0; pass < 2; ++pass)
    {
        expectPlanes(*b, cubePlanes());
        EXPECT_EQ(std::make_tuple(bytesOf(b->m_nodes, 72), b->m_mins, b->m_maxs, b->getContents()),
                  std::make_tuple(nodeRecords(boxNodes()), V(-32, -32, -32), V(32, 32, 32), 1u));
        V delta(5, 6, 7);
        b->offset(delta);
    }

    ClipPtr off = clipBox(V(0, 0, 0), V(10, 20, 30));
    EXPECT_EQ(std::make_tuple(off->pointInfo(0, V(5, 5, 5)), off->pointInfo(0, V(-1, 5, 5)), off->m_mins, off->m_maxs),
              std::make_tuple(-2, -1, V(-16, -16, -16), V(26, 36, 46)));
    // Rebuilding releases the old arrays (the leak checker watches) and starts afresh.
    off->makeFromBBox(V(-1, -1, -1), V(1, 1, 1));
    EXPECT_EQ(off->pointInfo(0, V(5, 5, 5)), -1);
}

TEST(ClipBSPBoxes, SetFromBBoxMovesThePlanesAndRotateStartsFromTheAxesEachTime)
{
    ClipPtr b = cube();
    b->setFromBBox(V(-16, -16, -16), V(16, 16, 16));
    expectPlanes(*b, cubePlanes());
    b->setFromBBox(V(100, 0, 0), V(110, 10, 10));
    expectPlanes(*b, axisPlanes({110, -100, 10, 0, 10, 0}));
    EXPECT_EQ(std::make_tuple(b->pointInfo(0, V(0, 0, 0)), b->pointInfo(0, V(105, 5, 5)), b->m_mins, b->m_maxs),
              std::make_tuple(-1, -2, V(84, -16, -16), V(126, 26, 26)));

    // The extended form turns the corners only.
    V mins(-1, -2, -3), maxs(1, 2, 3), origin(10, 0, 0);
    srMatrix3T<float> m(0, 1, 0, -1, 0, 0, 0, 0, 1);
    ClipPtr c = cube();
    c->setFromBBoxExt(mins, maxs, origin, m);
    expectPlanes(*c, axisPlanes({12, -8, 1, 1, 3, 3}));
    EXPECT_EQ(std::make_tuple(mins, maxs, c->m_mins, c->m_maxs, c->pointInfo(0, V(10, 0, 0))),
              std::make_tuple(V(8, -1, -3), V(12, 1, 3), V(-9992, -10001, -10003), V(10012, 10001, 10003), -2));

    // Rotation starts from the axes each time: the identity makes the bounds box solid.
    ClipPtr r = cube();
    srMatrix3T<float> identity;
    r->rotate(identity);
    expectPlanes(*r, axisPlanes({32, 32, 32, 32, 32, 32}));
    EXPECT_EQ(r->pointInfo(0, V(31, 0, 0)), -2) << "the solid box is now the bounds box";

    // A quarter turn about z on a box that is not a cube; twice gives the same planes.
    ClipPtr turned = clipBox(V(0, 0, 0), V(10, 20, 30)); // bounds (-16,-16,-16)..(26,36,46)
    for (int pass = 0; pass < 2; ++pass)
    {
        turned->rotate(m);
        expectPlanes(*turned, {mrPlane(0, 1, 0, 36), mrPlane(0, -1, 0, 16), mrPlane(-1, 0, 0, -26),
                               mrPlane(1, 0, 0, -16), mrPlane(0, 0, 1, 46)});
    }
    EXPECT_EQ(turned->m_mins, V(-16, -16, -16));
}

TEST(ClipBSPBoxes, SettersRefuseClipBSPsThatAreNotBoxes)
{
    mtest::AssertRecorder rec;
    ClipPtr empty = emptyClip();
    srMatrix3T<float> m;
    empty->rotate(m);
    empty->setFromBBox(V(0, 0, 0), V(1, 1, 1));
    V mins(-1, -1, -1), maxs(1, 1, 1), origin(3, 3, 3);
    empty->setFromBBoxExt(mins, maxs, origin, m);
    EXPECT_EQ(std::make_tuple(mins, maxs, empty->m_planes), std::make_tuple(V(-1, -1, -1), V(1, 1, 1), nullptr))
        << "nothing touched";

    ASSERT_EQ(rec.reports().size(), 3u);
    const char* ops[3] = {"rotate", "setFromBBox", "setFromBBoxExt"};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(std::make_tuple(rec.reports()[i].expression, rec.reports()[i].source, rec.reports()[i].message),
                  std::make_tuple("hasBoxLayout()", "mrClipBSP",
                                  std::string("mrClipBSP::") + ops[i] +
                                      "()- not a box clip BSP (makeFromBBox gives the six planes and nodes)"));

    // Six planes and six nodes are not enough: the nodes must be the box chain.
    rec.clear();
    std::vector<mrClipNode> nodes = boxNodes();
    nodes[5] = clipNode(5, -2, -1);
    ClipPtr other = clipTree(cubePlanes(), nodes);
    other->setFromBBox(V(0, 0, 0), V(1, 1, 1));
    EXPECT_EQ(rec.count("hasBoxLayout()"), 1u);
    EXPECT_EQ(other->m_planes[0].m_dist, 16.0f);
}

// ---------------------------------------------------------------------------------
// Validation

TEST(ClipBSPValidate, RejectsBrokenTreesAndCountsThatDisagreeWithTheArrays)
{
    EXPECT_TRUE(backOff()->validate(nullptr));
    ClipPtr (*unitBox)() = [] { return clipBox(V(0, 0, 0), V(1, 1, 1)); };
    ClipPtr (*threeNodes)() = []
    {
        return clipTree({mrPlane(1, 0, 0, 0), mrPlane(0, 1, 0, 0), mrPlane(0, 0, 1, 0)},
                        {clipNode(0, 1, 2), clipNode(1, -1, -2), clipNode(2, -1, -2)});
    };
    typedef void (*Breaker)(mrClipBSP&);
    const std::tuple<ClipPtr (*)(), Breaker, const char*> cases[] = {
        {threeNodes, [](mrClipBSP& b) { b.m_nodes[2].planeIndex = 9; },
         "node 2: plane index 9 out of range (3 planes)"},
        {threeNodes, [](mrClipBSP& b) { b.m_nodes[0].planeIndex = -1; },
         "node 0: plane index -1 out of range (3 planes)"},
        {threeNodes, [](mrClipBSP& b) { b.m_nodes[0].child[1] = 5; },
         "node 0: child 1 is node 5, out of range (3 nodes)"},
        {threeNodes, [](mrClipBSP& b) { b.m_nodes[1].child[0] = 1; },
         "node 1: child 0 is node 1, which does not come after its parent"},
        {threeNodes, [](mrClipBSP& b) { b.m_nodes[2].child[0] = 0; },
         "node 2: child 0 is node 0, which does not come after its parent"},
        // Counts follow their field, arrays do not.
        {unitBox, [](mrClipBSP& b) { b.setDWordField(0xF004, 7); },
         "7 nodes counted but only 6 node records allocated"},
        {unitBox, [](mrClipBSP& b) { b.m_numplanes = 8; }, "8 planes counted but only 6 plane records allocated"},
        {emptyClip, [](mrClipBSP& b) { b.m_numnodes = 2; }, "2 nodes counted but no node array"},
        {emptyClip, [](mrClipBSP& b) { b.m_numplanes = 3; }, "3 planes counted but no plane array"},
        {unitBox, [](mrClipBSP& b) { b.m_numnodes = 0; }, "node array set but node count is 0"},
        {unitBox, [](mrClipBSP& b) { b.m_numplanes = 0; }, "plane array set but plane count is 0"},
    };
    for (const auto& [tree, breakIt, message] : cases)
    {
        ClipPtr b = tree();
        std::string error = "untouched";
        EXPECT_TRUE(b->validate(&error));
        EXPECT_EQ(error, "untouched");
        uint32_t nodes = b->m_numnodes, planes = b->m_numplanes;
        breakIt(*b);
        EXPECT_FALSE(b->validate(&error));
        EXPECT_EQ(error, message);
        EXPECT_FALSE(b->validate(nullptr));
        b->m_numnodes = nodes;
        b->m_numplanes = planes;
    }
}
