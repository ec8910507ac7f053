// The clip BSP at run time: object lifecycle and registry, parameter fields, queries,
// box operations and validation.

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clip/mrClipBSP.h"
#include "platform/dx/srCore.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;

struct Release
{
    void operator()(mrClipBSP* b) const
    {
        if (b)
            static_cast<srClass*>(b)->release();
    }
};
typedef std::unique_ptr<mrClipBSP, Release> ClipPtr;

ClipPtr newClip() { return ClipPtr(new mrClipBSP()); }

ClipPtr newBox(V mins, V maxs)
{
    ClipPtr b = newClip();
    b->makeFromBBox(mins, maxs);
    return b;
}

// A clip BSP filled directly, as the generator and the chunk reader do.
ClipPtr newTree(const std::vector<mrPlane>& planes, const std::vector<mrClipNode>& nodes)
{
    ClipPtr b = newClip();
    b->m_numplanes = (uint32_t)planes.size();
    b->m_planes = mrClipBSP::allocPlanes(planes.size());
    for (size_t i = 0; i < planes.size(); ++i)
        b->m_planes[i] = planes[i];
    b->m_numnodes = (uint32_t)nodes.size();
    b->m_nodes = mrClipBSP::allocNodes(nodes.size());
    for (size_t i = 0; i < nodes.size(); ++i)
        b->m_nodes[i] = nodes[i];
    return b;
}

mrClipNode node(int plane, int front, int back)
{
    mrClipNode n;
    n.planeIndex = plane;
    n.child[0] = front;
    n.child[1] = back;
    return n;
}

std::vector<unsigned char> fieldBytes(mrParamBlock& block, unsigned long id)
{
    unsigned long size = 0;
    unsigned char* p = block.getByteArrayPtrField(id, size);
    return p ? std::vector<unsigned char>(p, p + size) : std::vector<unsigned char>();
}

void putFloat(unsigned char* out, float f) { std::memcpy(out, &f, 4); }

// 20-byte plane records as the "Planes" field carries them.
std::vector<unsigned char> planeRecords(const std::vector<mrPlane>& planes)
{
    std::vector<unsigned char> out(planes.size() * 20, 0);
    for (size_t i = 0; i < planes.size(); ++i)
    {
        putFloat(&out[i * 20 + 4], planes[i].m_normal.x);
        putFloat(&out[i * 20 + 8], planes[i].m_normal.y);
        putFloat(&out[i * 20 + 12], planes[i].m_normal.z);
        putFloat(&out[i * 20 + 16], planes[i].m_dist);
    }
    return out;
}

std::vector<mrPlane> cubePlanes()
{
    return {mrPlane(1, 0, 0, 16),  mrPlane(-1, 0, 0, 16), mrPlane(0, 1, 0, 16),
            mrPlane(0, -1, 0, 16), mrPlane(0, 0, 1, 16),  mrPlane(0, 0, -1, 16)};
}

std::vector<mrClipNode> boxNodes()
{
    return {node(0, -1, 1), node(1, -1, 2), node(2, -1, 3), node(3, -1, 4), node(4, -1, 5), node(5, -1, -2)};
}

void expectPlane(const mrPlane& p, V normal, float dist)
{
    EXPECT_EQ(p.m_normal, normal);
    EXPECT_EQ(p.m_dist, dist);
}

// Three planes along x: the root at x = 0 with a thin solid slice 0 <= x < 0.01 in front
// and solid beyond x < -0.03 behind. Traces that stop at x = -0.03 land in the slice
// and must back off.
ClipPtr newBackOffTree()
{
    return newTree({mrPlane(1, 0, 0, 0), mrPlane(1, 0, 0, 0.01f), mrPlane(1, 0, 0, -0.03f)},
                   {node(0, 1, 2), node(1, -1, -2), node(2, -1, -2)});
}
} // namespace

// ---------------------------------------------------------------------------------
// Object, registry, copies

TEST(ClipBSPObject, NewClipBSPIsEmptyAndPublishesItsSevenFields)
{
    mtest::AssertRecorder rec;
    {
        ClipPtr b = newClip();
        EXPECT_EQ(b->m_numnodes, 0u);
        EXPECT_EQ(b->m_numplanes, 0u);
        EXPECT_EQ(b->m_nodes, nullptr);
        EXPECT_EQ(b->m_planes, nullptr);
        EXPECT_EQ(b->getContents(), 1u);
        EXPECT_EQ(b->getClassID(), 0x60000u);
        EXPECT_STREQ(b->getClassName(), "srClass");

        const char* names[] = {"Contents", "Mins", "Maxs", "NumNodes", "Nodes", "NumPlanes", "Planes"};
        ASSERT_EQ(b->numFields(), 7u);
        for (size_t i = 0; i < 7; ++i)
        {
            EXPECT_EQ(b->fieldAt(i).m_id, 0xF001u + i);
            EXPECT_EQ(b->fieldAt(i).m_name, names[i]);
            EXPECT_EQ(b->fieldAt(i).m_access, mrParamBlock::ACCESS_READWRITE);
        }
        EXPECT_EQ(b->findField(0xF005u)->m_kind, mrParamBlock::FIELD_BYTEARRAYPTR);
        EXPECT_EQ(b->getDWordField(0xF001), 1u);
        EXPECT_EQ(b->getDWordField(0xF004), 0u);
        EXPECT_EQ(b->getDWordField(0xF006), 0u);
        unsigned long size = 99;
        EXPECT_EQ(b->getByteArrayPtrField(0xF005, size), nullptr);
        EXPECT_EQ(size, 0u);
        size = 99;
        EXPECT_EQ(b->getByteArrayPtrField(0xF007, size), nullptr);
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(b->numDependants(), 1u); // the self-reference
    }
    EXPECT_TRUE(rec.reports().empty());
}

TEST(ClipBSPObject, SetContentsDoesNotPublish)
{
    ClipPtr b = newClip();
    b->setContents(7);
    EXPECT_EQ(b->getContents(), 7u);
    EXPECT_EQ(b->getDWordField(0xF001), 1u);
}

TEST(ClipBSPObject, ClassEntersRegistryWithFirstInstance)
{
    srRegistry& reg = srCore::instance().getRegistry();
    ASSERT_EQ(reg.numInstances(0x60000), 0u) << "another test leaked a clip BSP";
    reg.removeClass(0x60000);
    EXPECT_EQ(reg.getClassNode(0x60000), nullptr);
    {
        ClipPtr a = newClip();
        srRegistry::ClassNode* n = reg.getClassNode(0x60000);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->m_name, "srClass");
        EXPECT_EQ(n->m_parent, srClass::sGetClassNode());
        EXPECT_EQ(n->m_flag, 1);
        EXPECT_EQ(a->getClassNode(), n);
        EXPECT_EQ(reg.numInstances(0x60000), 1u);
        ClipPtr b(new mrClipBSP(*a));
        EXPECT_EQ(reg.numInstances(0x60000), 2u);
        *b = *a; // assignment leaves the registry alone
        EXPECT_EQ(reg.numInstances(0x60000), 2u);
    }
    EXPECT_EQ(reg.numInstances(0x60000), 0u);
}

TEST(ClipBSPObject, InstanceAndCloneAreNewEmptyClipBSPs)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    b->setContents(9);
    srClass* base = b.get();
    for (srClass* made : {base->vClone(), base->vInstance()})
    {
        ClipPtr c(dynamic_cast<mrClipBSP*>(made));
        ASSERT_NE(c, nullptr);
        EXPECT_NE(c.get(), b.get());
        EXPECT_EQ(c->m_numnodes, 0u);
        EXPECT_EQ(c->m_nodes, nullptr);
        EXPECT_EQ(c->getContents(), 1u);
    }
}

TEST(ClipBSPObject, DestructionReportsArraysWithoutCountsAndStillReleasesThem)
{
    mtest::AssertRecorder rec;
    {
        ClipPtr b = newBox(V(-1, -1, -1), V(1, 1, 1));
        b->m_numnodes = 0;
        b->m_numplanes = 0;
    }
    ASSERT_EQ(rec.reports().size(), 2u);
    EXPECT_EQ(rec.reports()[0].expression, "m_numnodes");
    EXPECT_EQ(rec.reports()[0].source, "mrClipBSP");
    EXPECT_EQ(rec.reports()[0].line, 33);
    EXPECT_FALSE(rec.reports()[0].hasMessage);
    EXPECT_EQ(rec.reports()[1].expression, "m_numplanes");
    EXPECT_EQ(rec.reports()[1].line, 38);
    EXPECT_FALSE(rec.reports()[1].hasMessage);

    // An array set through its field without a count is reported the same way.
    rec.clear();
    {
        std::vector<mrClipNode> nodes = boxNodes();
        ClipPtr b = newClip();
        b->setByteArrayPtrField(0xF005, reinterpret_cast<unsigned char*>(nodes.data()), 72);
        EXPECT_EQ(b->m_numnodes, 0u);
    }
    EXPECT_EQ(rec.count("m_numnodes"), 1u);
    EXPECT_EQ(rec.reports().size(), 1u);
}

TEST(ClipBSPObject, CopiesOwnTheirArraysAndTheirFields)
{
    ClipPtr a = newBox(V(-16, -16, -16), V(16, 16, 16));
    a->setContents(4);
    a->refreshPBlock(nullptr);
    ClipPtr copy(new mrClipBSP(*a));
    ClipPtr assigned = newBox(V(0, 0, 0), V(1, 1, 1));
    assigned->refreshPBlock(nullptr);
    *assigned = *a;

    for (mrClipBSP* c : {copy.get(), assigned.get()})
    {
        EXPECT_EQ(c->getContents(), 4u);
        EXPECT_EQ(c->m_maxs, V(32, 32, 32));
        ASSERT_EQ(c->m_numnodes, 6u);
        EXPECT_NE(c->m_nodes, a->m_nodes);
        EXPECT_NE(c->m_planes, a->m_planes);
        EXPECT_EQ(std::memcmp(c->m_nodes, a->m_nodes, 72), 0);
        unsigned long size = 0;
        EXPECT_EQ(c->getByteArrayPtrField(0xF005, size), reinterpret_cast<unsigned char*>(c->m_nodes));
        EXPECT_EQ(size, 72u);
    }
    std::vector<unsigned char> planes = fieldBytes(*a, 0xF007);
    a.reset(); // the copies must not lean on the source's storage
    for (mrClipBSP* c : {copy.get(), assigned.get()})
    {
        EXPECT_EQ(fieldBytes(*c, 0xF007), planes);
        EXPECT_EQ(c->pointInfo(0, V(0, 0, 0)), -2);
        EXPECT_EQ(c->pointInfo(0, V(20, 0, 0)), -1);
    }
}

// ---------------------------------------------------------------------------------
// Parameter fields

TEST(ClipBSPFields, RefreshAfterBoxPublishesRecordsOfTwelveAndTwentyBytes)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    EXPECT_EQ(b->getDWordField(0xF004), 0u) << "box operations do not publish";
    b->refreshPBlock(nullptr);
    EXPECT_EQ(b->getDWordField(0xF004), 6u);
    EXPECT_EQ(b->getDWordField(0xF006), 6u);
    EXPECT_EQ(b->getVector3Field(0xF002), V(-32, -32, -32));
    unsigned long size = 0;
    EXPECT_EQ(b->getByteArrayPtrField(0xF005, size), reinterpret_cast<unsigned char*>(b->m_nodes));
    EXPECT_EQ(size, 72u);
    std::vector<unsigned char> planes = fieldBytes(*b, 0xF007);
    ASSERT_EQ(planes.size(), 120u);
    const unsigned char plane1[20] = {0, 0, 0, 0, 0, 0, 0x80, 0xBF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x41};
    EXPECT_EQ(std::memcmp(&planes[20], plane1, 20), 0) << "record 1: zero header, (-1, 0, 0), 16";
}

TEST(ClipBSPFields, ValuesSetFromOutsideReachTheMembers)
{
    ClipPtr b = newClip();
    b->setDWordField(0xF001, 5);
    EXPECT_EQ(b->getContents(), 5u);
    b->setVector3Field(0xF002, V(1, 2, 3));
    b->setVector3Field(0xF003, V(4, 5, 6));
    EXPECT_EQ(b->m_mins, V(1, 2, 3));
    EXPECT_EQ(b->m_maxs, V(4, 5, 6));
}

TEST(ClipBSPFields, NodesAndPlanesRoundTripThroughTheOwnBlock)
{
    std::vector<mrClipNode> nodes = boxNodes();
    std::vector<unsigned char> planes = planeRecords(cubePlanes());
    ClipPtr b = newClip();
    b->setByteArrayPtrField(0xF005, reinterpret_cast<unsigned char*>(nodes.data()), 72);
    b->setDWordField(0xF004, 6);
    b->setByteArrayPtrField(0xF007, planes.data(), 120);
    b->setDWordField(0xF006, 6);
    EXPECT_TRUE(b->validate(nullptr));
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -2);
    EXPECT_EQ(b->pointInfo(0, V(16.5f, 0, 0)), -1);

    // The clip BSP took copies: the caller's buffers are its own again.
    std::vector<unsigned char> original = planes;
    std::memset(nodes.data(), 0xFF, 72);
    std::memset(planes.data(), 0, planes.size());
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -2);

    b->refreshPBlock(nullptr);
    std::vector<mrClipNode> expected = boxNodes();
    EXPECT_EQ(fieldBytes(*b, 0xF005),
              std::vector<unsigned char>(reinterpret_cast<unsigned char*>(expected.data()),
                                         reinterpret_cast<unsigned char*>(expected.data()) + 72));
    EXPECT_EQ(fieldBytes(*b, 0xF007), original);

    // Setting the field to the clip BSP's own block keeps the array it has.
    mrClipNode* own = b->m_nodes;
    b->setByteArrayPtrField(0xF005, reinterpret_cast<unsigned char*>(own), 72);
    EXPECT_EQ(b->m_nodes, own);
    // A null address drops the array; the count follows only its own field.
    b->setByteArrayPtrField(0xF007, nullptr, 0);
    EXPECT_EQ(b->m_planes, nullptr);
    EXPECT_EQ(b->m_numplanes, 6u);
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -1) << "a tree without planes is empty space";
    b->setDWordField(0xF006, 0);
}

TEST(ClipBSPFields, RefreshIntoAnotherBlockLeavesTheOwnBlock)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    mrParamBlock other;
    b->addClassParameters(&other);
    b->refreshPBlock(&other);
    EXPECT_EQ(other.getDWordField(0xF004), 6u);
    EXPECT_EQ(fieldBytes(other, 0xF005).size(), 72u);
    EXPECT_EQ(fieldBytes(other, 0xF007), planeRecords(cubePlanes()));
    EXPECT_EQ(b->getDWordField(0xF004), 0u);
    EXPECT_EQ(fieldBytes(*b, 0xF005).size(), 0u);

    // Into another clip BSP's block: that one takes copies of everything.
    ClipPtr c = newClip();
    b->refreshPBlock(c.get());
    EXPECT_EQ(c->m_numnodes, 6u);
    EXPECT_NE(c->m_nodes, b->m_nodes);
    EXPECT_EQ(c->m_maxs, V(32, 32, 32));
    EXPECT_EQ(c->pointInfo(0, V(0, 0, 0)), -2);
}

TEST(ClipBSPFields, RefreshingBitMakesNotificationsNoOps)
{
    ClipPtr b = newClip();
    b->m_flags |= 1u;
    b->setDWordField(0xF001, 9);
    EXPECT_EQ(b->getContents(), 1u);
    b->refreshInstance(nullptr);
    EXPECT_EQ(b->getContents(), 1u);
    b->m_flags &= ~1u;
    b->refreshInstance(nullptr);
    EXPECT_EQ(b->getContents(), 9u);
}

TEST(ClipBSPFields, UnknownNotificationWritesOneLine)
{
    mtest::LogCapture log;
    ClipPtr b = newClip();
    // Any message other than "changed" (the enumeration only names one other value).
    EXPECT_EQ(b->notifyRefChanged(REFMSG_TARGET_DELETED, 0xF001, b.get(), 0, 1), REF_SUCCEED);
    EXPECT_EQ(log.text(), "Unknown notification\n");
    EXPECT_EQ(b->getContents(), 1u);
    // An ID outside the seven fields is ignored quietly.
    EXPECT_EQ(b->notifyRefChanged(REFMSG_CHANGE, 0xF008, b.get(), 0, 1), REF_SUCCEED);
    EXPECT_EQ(log.text(), "Unknown notification\n");
}

TEST(ClipBSPFields, PublishedNodesStayReadableWhenTheBoxIsRebuilt)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    b->refreshPBlock(nullptr);
    std::vector<unsigned char> before = fieldBytes(*b, 0xF005);
    b->makeFromBBox(V(0, 0, 0), V(1, 1, 1));
    b->makeFromBBox(V(0, 0, 0), V(2, 2, 2));
    EXPECT_EQ(fieldBytes(*b, 0xF005), before); // still the last refresh, still live memory
    b->refreshPBlock(nullptr);
    unsigned long size = 0;
    EXPECT_EQ(b->getByteArrayPtrField(0xF005, size), reinterpret_cast<unsigned char*>(b->m_nodes));
}

TEST(ClipBSPFields, RaisedCountPublishesOnlyExistingRecords)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    b->setDWordField(0xF004, 9);
    b->setDWordField(0xF006, 9);
    EXPECT_EQ(b->m_numnodes, 9u);
    b->refreshPBlock(nullptr);
    EXPECT_EQ(b->getDWordField(0xF004), 9u);
    EXPECT_EQ(fieldBytes(*b, 0xF005).size(), 72u);
    EXPECT_EQ(fieldBytes(*b, 0xF007).size(), 120u);
    b->setDWordField(0xF004, 6);
    b->setDWordField(0xF006, 6);
}

// ---------------------------------------------------------------------------------
// Queries on the box from (-16, -16, -16) to (16, 16, 16)

TEST(ClipBSPQueries, PointInfoOnTheBox)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -2);
    EXPECT_EQ(b->pointInfo(0, V(16, 0, 0)), -1) << "on a plane is in front of it";
    EXPECT_EQ(b->pointInfo(0, V(16.5f, 0, 0)), -1);
    EXPECT_EQ(b->pointInfo(0, V(20, 0, 0)), -1);
    EXPECT_EQ(b->pointInfo(-1, V(0, 0, 0)), -1);
    EXPECT_EQ(b->pointInfo(-3, V(50, 0, 0)), -3);
}

TEST(ClipBSPQueries, SignedDistanceIsSummedZYXInFloat)
{
    // Terms x = 1, y = 3e-8, z = -1 against a distance of 3e-8: summed z, y, x in float
    // the point is just in front; summed x, y, z it would fall just behind.
    ClipPtr b = newTree({mrPlane(1, 3e-8f, -1, 3e-8f)}, {node(0, -1, -2)});
    EXPECT_EQ(b->pointInfo(0, V(1, 1, 1)), -1);
}

TEST(ClipBSPQueries, ClearTrace)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(-32, 0, 0), V(-20, 0, 0), t), 1);
    EXPECT_EQ(t.m_fraction, 1.0f);
    EXPECT_EQ(t.m_endPos, V(-20, 0, 0));
    EXPECT_EQ(t.m_allSolid, 0);
    EXPECT_EQ(t.m_inOpen, 1);
    EXPECT_EQ(t.m_startSolid, 0);
}

TEST(ClipBSPQueries, BlockedTraceStopsShortOfThePlane)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    mrTrace t;
    t.m_reservedFlag = 77;
    EXPECT_EQ(b->checkCollision(V(-32, 0, 0), V(0, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0x1.fef7cep-2f);         // (16 - 0.03225) / 32 = 0.498992...
    EXPECT_EQ(t.m_endPos, V(-0x1.008418p+4f, 0, 0)); // -16.03225 in float
    EXPECT_EQ(t.m_planeNormal, V(-1, 0, 0));
    EXPECT_EQ(t.m_planeDist, 16.0f);
    EXPECT_EQ(t.m_allSolid, 0);
    EXPECT_EQ(t.m_inOpen, 1);
    EXPECT_EQ(t.m_startSolid, 0);
    EXPECT_EQ(t.m_reservedFlag, 77);
}

TEST(ClipBSPQueries, TraceStartingInSolid)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(0, 0, 0), V(32, 0, 0), t), 0);
    EXPECT_EQ(t.m_startSolid, 1);
    EXPECT_EQ(t.m_allSolid, 1);
    EXPECT_EQ(t.m_fraction, 1.0f);
    EXPECT_EQ(t.m_endPos, V(32, 0, 0));
}

TEST(ClipBSPQueries, TraceMayUseItsOwnEndPointAsStart)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    mrTrace t;
    t.m_endPos = V(-32, 0, 0);
    EXPECT_EQ(b->checkCollision(t.m_endPos, V(0, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0x1.fef7cep-2f);
}

TEST(ClipBSPQueries, OneNodeWithTwoEmptySidesPassesEverything)
{
    ClipPtr b = newTree({mrPlane(0, 0, 1, 3)}, {node(0, -1, -1)});
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(0, 0, -100), V(0, 0, 100), t), 1);
    EXPECT_EQ(t.m_fraction, 1.0f);
    EXPECT_EQ(b->checkCollision(V(5, 5, 5), V(-5, -5, -5), t), 1);
}

TEST(ClipBSPQueries, MarkedSolidBlocksLikeSolid)
{
    ClipPtr b = newTree({mrPlane(1, 0, 0, 0)}, {node(0, -1, -3)});
    EXPECT_EQ(b->pointInfo(0, V(-1, 0, 0)), -3);
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(1, 0, 0), V(-1, 0, 0), t), 0);
    EXPECT_EQ(t.m_startSolid, 0);
    EXPECT_LT(t.m_fraction, 0.5f);
    EXPECT_EQ(b->checkCollision(V(-1, 0, 0), V(1, 0, 0), t), 0);
    EXPECT_EQ(t.m_startSolid, 1);
}

TEST(ClipBSPQueries, FractionUsesTheFloatDenominator)
{
    // t1 - t2 = 0.7 + 2.2e-7 rounds in float; a double denominator or an all-float
    // quotient would give 0x1.e8694ap-1.
    ClipPtr b = newTree({mrPlane(1, 0, 0, 0)}, {node(0, -1, -2)});
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(0.7f, 0, 0), V(-0x1.d87248p-23f, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0x1.e86948p-1f);
}

TEST(ClipBSPQueries, CrossingFractionIsClampedToTheSegment)
{
    ClipPtr b = newTree({mrPlane(1, 0, 0, 0)}, {node(0, -1, -2)});
    mrTrace t;
    // Start 0.01 in front: (0.01 - 0.03225) / 1.01 < 0 becomes 0, so the trace ends at its start.
    EXPECT_EQ(b->checkCollision(V(0.01f, 0, 0), V(-1, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0.0f);
    EXPECT_EQ(t.m_endPos, V(0.01f, 0, 0));
    // Start 0.01 behind (in solid): the fraction is clamped the same way.
    EXPECT_EQ(b->checkCollision(V(-0.01f, 0, 0), V(1, 0, 0), t), 0);
    EXPECT_EQ(t.m_startSolid, 1);
}

TEST(ClipBSPQueries, BackOffLeavesTheSolidSlice)
{
    ClipPtr b = newBackOffTree();
    mrTrace t;
    // The crossing at x = -0.03 lands at x = 0.00225, solid from the root; one step of
    // 0.1 moves it to x = 0.0155, which is open.
    EXPECT_EQ(b->checkCollision(V(1, 0, 0), V(-0.1f, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0x1.ca406ap-1f);
    EXPECT_EQ(t.m_endPos, V(0x1.fb15acp-7f, 0, 0));
    EXPECT_EQ(b->pointInfo(0, t.m_endPos), -1);
    EXPECT_EQ(t.m_planeNormal, V(1, 0, 0));
    EXPECT_EQ(t.m_planeDist, -0.03f);
}

TEST(ClipBSPQueries, BackOffBelowZeroKeepsThePreviousPoint)
{
    ClipPtr b = newBackOffTree();
    mrTrace t;
    // Here the crossing fraction is about 0.029: one step makes it negative, and the
    // trace keeps the point of the previous pass, inside the slice.
    EXPECT_EQ(b->checkCollision(V(1, 0, 0), V(-1, 0, 0), t), 0);
    EXPECT_EQ(t.m_fraction, 0x1.fed916p-2f);
    EXPECT_EQ(t.m_endPos, V(0x1.26e99p-9f, 0, 0));
    EXPECT_EQ(b->pointInfo(0, t.m_endPos), -2);
}

TEST(ClipBSPQueries, ClipBSPWithoutNodesIsEmptySpace)
{
    ClipPtr b = newClip();
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -1);
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(0, 0, 0), V(5, 5, 5), t), 1);
    EXPECT_EQ(t.m_fraction, 1.0f);
    EXPECT_EQ(t.m_endPos, V(5, 5, 5));
    EXPECT_EQ(t.m_allSolid, 0);
    EXPECT_EQ(t.m_inOpen, 1);
}

TEST(ClipBSPQueries, NonFinitePointsEndTheQuery)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    mrTrace t;
    EXPECT_EQ(b->checkCollision(V(-32, 0, 0), V(nan, 0, 0), t), 0);
    EXPECT_EQ(b->checkCollision(V(-inf, 0, 0), V(inf, 0, 0), t), 0);
    b->pointInfo(0, V(nan, nan, nan));
}

// ---------------------------------------------------------------------------------
// Box operations

TEST(ClipBSPBoxes, CubeHasTheSixPlanesNodesAndBounds)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    ASSERT_EQ(b->m_numplanes, 6u);
    ASSERT_EQ(b->m_numnodes, 6u);
    std::vector<mrPlane> expected = cubePlanes();
    std::vector<mrClipNode> nodes = boxNodes();
    for (int i = 0; i < 6; ++i)
    {
        expectPlane(b->m_planes[i], expected[i].m_normal, 16);
        EXPECT_EQ(b->m_nodes[i].planeIndex, nodes[i].planeIndex);
        EXPECT_EQ(b->m_nodes[i].child[0], nodes[i].child[0]);
        EXPECT_EQ(b->m_nodes[i].child[1], nodes[i].child[1]);
    }
    EXPECT_EQ(b->m_mins, V(-32, -32, -32));
    EXPECT_EQ(b->m_maxs, V(32, 32, 32));
    EXPECT_EQ(b->getContents(), 1u);
}

TEST(ClipBSPBoxes, OffCentreBox)
{
    ClipPtr b = newBox(V(0, 0, 0), V(10, 20, 30));
    EXPECT_EQ(b->pointInfo(0, V(5, 5, 5)), -2);
    EXPECT_EQ(b->pointInfo(0, V(-1, 5, 5)), -1);
    EXPECT_EQ(b->m_mins, V(-16, -16, -16));
    EXPECT_EQ(b->m_maxs, V(26, 36, 46));
    // Rebuilding releases the old arrays (the leak checker watches) and starts afresh.
    b->makeFromBBox(V(-1, -1, -1), V(1, 1, 1));
    EXPECT_EQ(b->pointInfo(0, V(5, 5, 5)), -1);
}

TEST(ClipBSPBoxes, SetFromBBoxMovesThePlanes)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    b->setFromBBox(V(-16, -16, -16), V(16, 16, 16));
    std::vector<mrPlane> expected = cubePlanes();
    for (int i = 0; i < 6; ++i)
        expectPlane(b->m_planes[i], expected[i].m_normal, 16);
    b->setFromBBox(V(100, 0, 0), V(110, 10, 10));
    EXPECT_EQ(b->pointInfo(0, V(0, 0, 0)), -1);
    EXPECT_EQ(b->pointInfo(0, V(105, 5, 5)), -2);
    EXPECT_EQ(b->m_mins, V(84, -16, -16));
    EXPECT_EQ(b->m_maxs, V(126, 26, 26));
    expectPlane(b->m_planes[1], V(-1, 0, 0), -100);
}

TEST(ClipBSPBoxes, SetFromBBoxExtTurnsTheCornersOnly)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    V mins(-1, -2, -3), maxs(1, 2, 3), origin(10, 0, 0);
    srMatrix3T<float> m(0, 1, 0, -1, 0, 0, 0, 0, 1);
    b->setFromBBoxExt(mins, maxs, origin, m);
    EXPECT_EQ(mins, V(8, -1, -3));
    EXPECT_EQ(maxs, V(12, 1, 3));
    const float dists[6] = {12, -8, 1, 1, 3, 3};
    std::vector<mrPlane> axes = cubePlanes();
    for (int i = 0; i < 6; ++i)
        expectPlane(b->m_planes[i], axes[i].m_normal, dists[i]);
    EXPECT_EQ(b->m_mins, V(-9992, -10001, -10003));
    EXPECT_EQ(b->m_maxs, V(10012, 10001, 10003));
    EXPECT_EQ(b->pointInfo(0, V(10, 0, 0)), -2);
}

TEST(ClipBSPBoxes, RotateStartsFromTheAxesEachTime)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    srMatrix3T<float> identity;
    b->rotate(identity);
    std::vector<mrPlane> axes = cubePlanes();
    for (int i = 0; i < 6; ++i)
        expectPlane(b->m_planes[i], axes[i].m_normal, 32);
    EXPECT_EQ(b->pointInfo(0, V(31, 0, 0)), -2) << "the solid box is now the bounds box";

    // A quarter turn about z on a box that is not a cube; twice gives the same planes.
    ClipPtr c = newBox(V(0, 0, 0), V(10, 20, 30)); // bounds (-16,-16,-16)..(26,36,46)
    srMatrix3T<float> quarter(0, 1, 0, -1, 0, 0, 0, 0, 1);
    for (int pass = 0; pass < 2; ++pass)
    {
        c->rotate(quarter);
        expectPlane(c->m_planes[0], V(0, 1, 0), 36);
        expectPlane(c->m_planes[1], V(0, -1, 0), 16);
        expectPlane(c->m_planes[2], V(-1, 0, 0), -26);
        expectPlane(c->m_planes[3], V(1, 0, 0), -16);
        expectPlane(c->m_planes[4], V(0, 0, 1), 46);
    }
    EXPECT_EQ(c->m_mins, V(-16, -16, -16));
}

TEST(ClipBSPBoxes, OffsetChangesNothing)
{
    ClipPtr b = newBox(V(-16, -16, -16), V(16, 16, 16));
    std::vector<unsigned char> before(reinterpret_cast<unsigned char*>(b->m_nodes),
                                      reinterpret_cast<unsigned char*>(b->m_nodes) + 72);
    V delta(5, 6, 7);
    b->offset(delta);
    EXPECT_EQ(std::memcmp(before.data(), b->m_nodes, 72), 0);
    expectPlane(b->m_planes[0], V(1, 0, 0), 16);
    EXPECT_EQ(b->m_maxs, V(32, 32, 32));
}

TEST(ClipBSPBoxes, SettersRefuseClipBSPsThatAreNotBoxes)
{
    mtest::AssertRecorder rec;
    ClipPtr empty = newClip();
    srMatrix3T<float> m;
    empty->rotate(m);
    empty->setFromBBox(V(0, 0, 0), V(1, 1, 1));
    V mins(-1, -1, -1), maxs(1, 1, 1), origin(3, 3, 3);
    empty->setFromBBoxExt(mins, maxs, origin, m);
    EXPECT_EQ(mins, V(-1, -1, -1)) << "nothing touched";
    EXPECT_EQ(maxs, V(1, 1, 1));
    EXPECT_EQ(empty->m_planes, nullptr);
    ASSERT_EQ(rec.count("hasBoxLayout()"), 3u);
    EXPECT_EQ(rec.reports()[0].source, "mrClipBSP");
    EXPECT_EQ(rec.reports()[0].message,
              "mrClipBSP::rotate()- not a box clip BSP (makeFromBBox gives the six planes and nodes)");
    EXPECT_EQ(rec.reports()[1].message,
              "mrClipBSP::setFromBBox()- not a box clip BSP (makeFromBBox gives the six planes and nodes)");
    EXPECT_EQ(rec.reports()[2].message,
              "mrClipBSP::setFromBBoxExt()- not a box clip BSP (makeFromBBox gives the six planes and nodes)");

    // Six planes and six nodes are not enough: the nodes must be the box chain.
    rec.clear();
    std::vector<mrClipNode> nodes = boxNodes();
    nodes[5] = node(5, -2, -1);
    ClipPtr other = newTree(cubePlanes(), nodes);
    other->setFromBBox(V(0, 0, 0), V(1, 1, 1));
    EXPECT_EQ(rec.count("hasBoxLayout()"), 1u);
    EXPECT_EQ(other->m_planes[0].m_dist, 16.0f);
}

// ---------------------------------------------------------------------------------
// Validation

TEST(ClipBSPValidate, AcceptsEmptyBoxAndGeneralTrees)
{
    std::string error = "untouched";
    EXPECT_TRUE(newClip()->validate(&error));
    EXPECT_TRUE(newBox(V(0, 0, 0), V(1, 1, 1))->validate(&error));
    EXPECT_TRUE(newBackOffTree()->validate(&error));
    EXPECT_EQ(error, "untouched");
}

TEST(ClipBSPValidate, RejectsEachKindOfBrokenTree)
{
    struct Case
    {
        std::vector<mrClipNode> nodes;
        const char* error;
    };
    const Case cases[] = {
        {{node(0, 1, 2), node(1, -1, -2), node(9, -1, -2)}, "node 2: plane index 9 out of range (3 planes)"},
        {{node(-1, -1, -2)}, "node 0: plane index -1 out of range (3 planes)"},
        {{node(0, 1, 5), node(1, -1, -2)}, "node 0: child 1 is node 5, out of range (2 nodes)"},
        {{node(0, 1, -1), node(1, 1, -2)}, "node 1: child 0 is node 1, which does not come after its parent"},
        {{node(0, 1, 2), node(1, -1, -2), node(2, 0, -1)},
         "node 2: child 0 is node 0, which does not come after its parent"},
    };
    std::vector<mrPlane> planes = {mrPlane(1, 0, 0, 0), mrPlane(0, 1, 0, 0), mrPlane(0, 0, 1, 0)};
    for (const Case& c : cases)
    {
        ClipPtr b = newTree(planes, c.nodes);
        std::string error;
        EXPECT_FALSE(b->validate(&error));
        EXPECT_EQ(error, c.error);
        EXPECT_FALSE(b->validate(nullptr));
    }
}

TEST(ClipBSPValidate, RejectsCountsThatDisagreeWithTheArrays)
{
    std::string error;
    ClipPtr b = newBox(V(0, 0, 0), V(1, 1, 1));
    b->setDWordField(0xF004, 7); // counts follow their field, arrays do not
    EXPECT_FALSE(b->validate(&error));
    EXPECT_EQ(error, "7 nodes counted but only 6 node records allocated");
    b->m_numnodes = 6;
    b->m_numplanes = 8;
    EXPECT_FALSE(b->validate(&error));
    EXPECT_EQ(error, "8 planes counted but only 6 plane records allocated");
    b->m_numplanes = 6;

    ClipPtr n = newClip();
    n->m_numnodes = 2;
    EXPECT_FALSE(n->validate(&error));
    EXPECT_EQ(error, "2 nodes counted but no node array");
    n->m_numnodes = 0;
    n->m_numplanes = 3;
    EXPECT_FALSE(n->validate(&error));
    EXPECT_EQ(error, "3 planes counted but no plane array");
    n->m_numplanes = 0;

    mtest::AssertRecorder rec; // the destruction reports are not the point here
    ClipPtr z = newBox(V(0, 0, 0), V(1, 1, 1));
    z->m_numnodes = 0;
    EXPECT_FALSE(z->validate(&error));
    EXPECT_EQ(error, "node array set but node count is 0");
    z->m_numnodes = 6;
    z->m_numplanes = 0;
    EXPECT_FALSE(z->validate(&error));
    EXPECT_EQ(error, "plane array set but plane count is 0");
}
