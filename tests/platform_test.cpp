// The engine stand-ins: class registry, parameter blocks and their notifications,
// the output stream, the core object and the mesh model. (The assertion routine is
// exercised through the recorder by every suite.)
#include <gtest/gtest.h>

#include "platform/core/mrCore.h"
#include "platform/core/mrParamBlock.h"
#include "platform/dx/srMeshModel.h"
#include "platform/dx/srOutput.h"
#include "platform/dx/srTexture.h"
#include "support/TestSupport.h"

namespace
{

class Listener : public mrRefMaker
{
public:
    std::vector<std::pair<int, unsigned long>> heard;
    e_refResult notifyRefChanged(e_refMsg message, unsigned long partID, mrRefTarget*, unsigned long, int) override
    {
        heard.push_back({(int)message, partID});
        return REF_SUCCEED;
    }
};

TEST(Registry, ClassEntersWithFirstInstanceParentFirst)
{
    srRegistry& reg = srCore::instance().getRegistry();
    ASSERT_EQ(reg.getClassNode(0x2010), nullptr);
    ASSERT_EQ(reg.getClassNode(0x2000), nullptr);
    {
        srMeshModel mesh;
        srRegistry::ClassNode* node = reg.getClassNode(0x2010);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->m_name, "srMeshModel");
        ASSERT_NE(node->m_parent, nullptr);
        EXPECT_EQ(node->m_parent->m_classID, 0x2000u);
        EXPECT_EQ(reg.numInstances(0x2010), 1u);
        EXPECT_EQ(mesh.getClassID(), 0x2010u);
    }
    EXPECT_EQ(reg.numInstances(0x2010), 0u);
    EXPECT_TRUE(reg.removeClass(0x2010));
    EXPECT_EQ(reg.getClassNode(0x2010), nullptr);
}

TEST(Registry, ReleaseDestroysOnLastReference)
{
    srRegistry& reg = srCore::instance().getRegistry();
    srTexture* t = new srTexture("WALL.TGA");
    EXPECT_STREQ(t->getName(), "WALL.TGA");
    t->addRef();
    EXPECT_EQ(t->release(), 1);
    EXPECT_EQ(reg.numInstances(0x3010), 1u);
    EXPECT_EQ(t->release(), 0);
    EXPECT_EQ(reg.numInstances(0x3010), 0u);
}

TEST(ParamBlock, FieldsByIdAndNameWithNotifications)
{
    mrParamBlock block;
    Listener listener;
    block.makeReference(&listener);
    block.addDWordField(0xF001, mrParamBlock::ACCESS_READWRITE, "Count");
    block.addVector3Field(0xF002, mrParamBlock::ACCESS_READWRITE, "Where");
    block.addByteArrayPtrField(0xF003, mrParamBlock::ACCESS_READWRITE, "Bytes");

    block.setDWordField(0xF001, 42);
    block.setVector3Field(0xF002, srVector3T<float>(1, 2, 3));
    unsigned char bytes[5] = {1, 2, 3, 4, 5};
    block.setByteArrayPtrField(0xF003, bytes, 5);
    block.setDWordField(0xF00F, 1); // undeclared: ignored, no notification

    EXPECT_EQ(block.getDWordField(0xF001), 42u);
    EXPECT_EQ(block.getVector3Field(0xF002), srVector3T<float>(1, 2, 3));
    unsigned long size = 0;
    EXPECT_EQ(block.getByteArrayPtrField(0xF003, size), bytes); // the address, not a copy
    EXPECT_EQ(size, 5u);
    ASSERT_NE(block.findField("Where"), nullptr);
    EXPECT_EQ(block.findField("Where")->m_id, 0xF002u);
    ASSERT_EQ(listener.heard.size(), 3u);
    EXPECT_EQ(listener.heard[0], std::make_pair(0, 0xF001ul));
    EXPECT_EQ(listener.heard[2], std::make_pair(0, 0xF003ul));

    // A copy keeps the fields but not the dependants.
    mrParamBlock copy(block);
    copy.setDWordField(0xF001, 7);
    EXPECT_EQ(listener.heard.size(), 3u);
    EXPECT_EQ(copy.getDWordField(0xF001), 7u);
    EXPECT_EQ(block.getDWordField(0xF001), 42u);
}

TEST(ParamBlock, WrongKindAndMissingFieldsReadAsEmpty)
{
    mrParamBlock block;
    block.addDWordField(1, mrParamBlock::ACCESS_READWRITE, "A");
    unsigned long size = 99;
    EXPECT_EQ(block.getByteArrayField(1, size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(block.getVector3Field(1), srVector3T<float>());
    EXPECT_EQ(block.getDWordField(2), 0u);
    block.setVector3Field(1, srVector3T<float>(1, 1, 1)); // kind mismatch: ignored
    EXPECT_EQ(block.getDWordField(1), 0u);
}

TEST(Output, PrintfAndStreamGoToTheCapturedTarget)
{
    mtest::LogCapture log;
    srPrintf("Generated %i planes\n", 6);
    srOut << "line two" << '\n';
    EXPECT_EQ(log.text(), "Generated 6 planes\nline two\n");
    std::string big(2000, 'x');
    srPrintf("%s\n", big.c_str());
    EXPECT_EQ(log.lines().back().size(), 2000u);
}

TEST(Core, UninitialisedCoreReportsAndGivesNoManager)
{
    mtest::AssertRecorder rec;
    mrCore::shutdown();
    EXPECT_EQ(mrCore::instance().getIOManager(), nullptr);
    mrCore::initialize();
    EXPECT_NE(mrCore::instance().getIOManager(), nullptr);
    rec.expect({{"m_initialized", "mrCore", 22, "mrCore::getIOManager()- mrCore uninitialized!"}});
    mrCore::shutdown();
}

TEST(MeshModel, MatrixThenOffsetInFloat)
{
    srMeshModel mesh;
    mesh.addVertex(srVector3T<float>(1, 2, 3));
    mesh.addVertex(srVector3T<float>(0.1f, 0.2f, 0.3f));
    mesh.addPolygon(0, 1, 0);
    // 90 degrees about z in the storage convention: x' = -y, y' = x.
    srMatrix3T<float> m(0, 1, 0, -1, 0, 0, 0, 0, 1);
    srMeshModel copy(0, 0);
    copy = mesh;
    copy.applyMatrix(m);
    copy.relocateVertices(srVector3T<float>(10, 0, 0));
    EXPECT_EQ(copy.getVertexLoc()[0], srVector3T<float>(8, 1, 3));
    EXPECT_EQ(copy.getVertexLoc()[1].x, 10.0f + -0.2f);
    EXPECT_EQ(mesh.getVertexLoc()[0], srVector3T<float>(1, 2, 3)); // the source is untouched
    EXPECT_EQ(copy.m_numpolys, 1);
}

TEST(MeshModel, PerPolygonTexturesOrMeshTexture)
{
    srMeshModel mesh;
    for (int i = 0; i < 3; ++i)
        mesh.addVertex(srVector3T<float>((float)i, 0, 0));
    mesh.addPolygon(0, 1, 2);
    mesh.addPolygon(2, 1, 0);
    srTexture* t = new srTexture("NERDSTRP.TGA");
    mesh.setTexture(t);
    EXPECT_EQ(mesh.getPolyTexture(0, 0, 0), nullptr);
    EXPECT_EQ(mesh.getTexture(0, 0), t);
    mesh.setPolyTexture(1, t);
    ASSERT_NE(mesh.getPolyTexture(0, 0, 0), nullptr);
    EXPECT_EQ(mesh.getPolyTexture(0, 0, 0)[0].get(), nullptr);
    EXPECT_EQ(mesh.getPolyTexture(0, 0, 0)[1].get(), t);
    EXPECT_EQ(t->refCount(), 3); // ours, the mesh texture, polygon 1
    t->release();
}

} // namespace
