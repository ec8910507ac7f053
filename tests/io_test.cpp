// Chunk files, the IO manager, the clip BSP IO handler and module start-up.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "clip/mrClipBSP.h"
#include "io/mrClipBSPIOHandler.h"
#include "platform/core/mrChunkIFStream.h"
#include "platform/core/mrChunkOFStream.h"
#include "platform/core/mrCore.h"
#include "platform/core/mrIOManager.h"
#include "platform/core/mrModuleLoader.h"
#include "platform/dx/srCore.h"
#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<unsigned char> Bytes;
const unsigned long kClipClass = 0x60000;

// Observed before any test runs: nothing in this binary may construct a clip BSP first.
bool g_classNodeAbsentAtStart = false;

class CoreEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        g_classNodeAbsentAtStart = srCore::instance().getRegistry().getClassNode(kClipClass) == nullptr;
        mrCore::initialize();
    }
};
::testing::Environment* const g_environment = ::testing::AddGlobalTestEnvironment(new CoreEnvironment);

mrIOManager& manager() { return *mrCore::instance().getIOManager(); }

// ---------------------------------------------------------------------------------
// Clip BSPs to save.

mrClipBSP* makeBox(V mins, V maxs)
{
    mrClipBSP* bsp = new mrClipBSP;
    bsp->makeFromBBox(mins, maxs);
    bsp->refreshPBlock(nullptr);
    return bsp;
}

// Two planes across x: open for x < -2 and x > 3, solid between (the middle slab marked -3).
mrClipBSP* makeSlab()
{
    mrClipBSP* bsp = new mrClipBSP;
    bsp->m_numplanes = 2;
    bsp->m_planes = mrClipBSP::allocPlanes(2);
    bsp->m_planes[0] = mrPlane(1, 0, 0, 3);
    bsp->m_planes[1] = mrPlane(-1, 0, 0, 2);
    bsp->m_numnodes = 2;
    bsp->m_nodes = mrClipBSP::allocNodes(2);
    bsp->m_nodes[0] = mrClipNode{0, {-1, 1}};
    bsp->m_nodes[1] = mrClipNode{1, {-1, -3}};
    bsp->m_contents = 9;
    bsp->m_mins = V(-10, -1, -1);
    bsp->m_maxs = V(10, 1, 1);
    bsp->setName("slab");
    bsp->refreshPBlock(nullptr);
    return bsp;
}

void releaseAll(std::vector<srClass*>& objects)
{
    for (srClass* o : objects)
        o->release();
    objects.clear();
}

Bytes save(const std::vector<srClass*>& objects)
{
    Bytes out;
    std::string error;
    EXPECT_TRUE(manager().saveBuffer(objects, out, &error)) << error;
    return out;
}

// Loads and expects failure; returns the message.
std::string loadError(const Bytes& file, const std::string& name = "test.mrc")
{
    std::vector<srClass*> objects;
    std::string error;
    bool ok = manager().loadBuffer(file, objects, &error, name);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(objects.empty());
    releaseAll(objects);
    return error;
}

void expectSameClipBSP(mrClipBSP& a, mrClipBSP& b)
{
    EXPECT_EQ(a.m_contents, b.m_contents);
    EXPECT_EQ(a.m_mins, b.m_mins);
    EXPECT_EQ(a.m_maxs, b.m_maxs);
    ASSERT_EQ(a.m_numnodes, b.m_numnodes);
    ASSERT_EQ(a.m_numplanes, b.m_numplanes);
    EXPECT_EQ(a.m_nodes == nullptr, b.m_nodes == nullptr);
    EXPECT_EQ(a.m_planes == nullptr, b.m_planes == nullptr);
    for (uint32_t i = 0; i < a.m_numnodes; ++i)
    {
        EXPECT_EQ(a.m_nodes[i].planeIndex, b.m_nodes[i].planeIndex) << "node " << i;
        EXPECT_EQ(a.m_nodes[i].child[0], b.m_nodes[i].child[0]) << "node " << i;
        EXPECT_EQ(a.m_nodes[i].child[1], b.m_nodes[i].child[1]) << "node " << i;
    }
    for (uint32_t i = 0; i < a.m_numplanes; ++i)
    {
        EXPECT_EQ(a.m_planes[i].m_normal, b.m_planes[i].m_normal) << "plane " << i;
        EXPECT_EQ(a.m_planes[i].m_dist, b.m_planes[i].m_dist) << "plane " << i;
    }
    // Same answers to the same questions.
    const V points[] = {V(0, 0, 0), V(-2.5f, 0, 0), V(5, 0.5f, 0), V(15, 0, 0), V(0, 17, 0), V(3, 3, 3)};
    for (const V& p : points)
        EXPECT_EQ(a.pointInfo(0, p), b.pointInfo(0, p));
    const V segments[][2] = {{V(-40, 0, 0), V(40, 0, 0)}, {V(0, -40, 1), V(0, 40, 1)}, {V(0, 0, 0), V(1, 1, 1)}};
    for (const auto& s : segments)
    {
        mrTrace ta, tb;
        EXPECT_EQ(a.checkCollision(s[0], s[1], ta), b.checkCollision(s[0], s[1], tb));
        EXPECT_EQ(ta.m_fraction, tb.m_fraction);
        EXPECT_EQ(ta.m_endPos, tb.m_endPos);
        EXPECT_EQ(ta.m_allSolid, tb.m_allSolid);
        EXPECT_EQ(ta.m_startSolid, tb.m_startSolid);
        EXPECT_EQ(ta.m_planeNormal, tb.m_planeNormal);
        EXPECT_EQ(ta.m_planeDist, tb.m_planeDist);
    }
}

// ---------------------------------------------------------------------------------
// Records written by hand, for the cases a real clip BSP never produces.

struct Record
{
    uint32_t contents = 1;
    uint32_t numnodes = 0;
    Bytes nodes;
    uint32_t numplanes = 0;
    Bytes planes;
};

void putU32(Bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back((unsigned char)(v >> (8 * i)));
}

void putF32(Bytes& b, float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    putU32(b, bits);
}

Bytes nodeBytes(std::initializer_list<mrClipNode> nodes)
{
    Bytes b;
    for (const mrClipNode& n : nodes)
    {
        putU32(b, (uint32_t)n.planeIndex);
        putU32(b, (uint32_t)n.child[0]);
        putU32(b, (uint32_t)n.child[1]);
    }
    return b;
}

Bytes planeBytes(std::initializer_list<mrPlane> planes, uint32_t reserved = 0)
{
    Bytes b;
    for (const mrPlane& p : planes)
    {
        putU32(b, reserved);
        putF32(b, p.m_normal.x);
        putF32(b, p.m_normal.y);
        putF32(b, p.m_normal.z);
        putF32(b, p.m_dist);
    }
    return b;
}

// The seven fields as a block (byte arrays owned, as a reader would hold them).
void fillBlock(mrParamBlock& block, const Record& r)
{
    typedef mrParamBlock P;
    block.addDWordField(0xF001, P::ACCESS_READWRITE, "Contents");
    block.addVector3Field(0xF002, P::ACCESS_READWRITE, "Mins");
    block.addVector3Field(0xF003, P::ACCESS_READWRITE, "Maxs");
    block.addDWordField(0xF004, P::ACCESS_READWRITE, "NumNodes");
    block.addByteArrayField(0xF005, P::ACCESS_READWRITE, "Nodes");
    block.addDWordField(0xF006, P::ACCESS_READWRITE, "NumPlanes");
    block.addByteArrayField(0xF007, P::ACCESS_READWRITE, "Planes");
    block.setDWordField(0xF001, r.contents);
    block.setVector3Field(0xF002, V(-1, -2, -3));
    block.setVector3Field(0xF003, V(1, 2, 3));
    block.setDWordField(0xF004, r.numnodes);
    block.setByteArrayField(0xF005, r.nodes.data(), (unsigned long)r.nodes.size());
    block.setDWordField(0xF006, r.numplanes);
    block.setByteArrayField(0xF007, r.planes.data(), (unsigned long)r.planes.size());
}

// A one-record file around a parameter block, with the usual empty animation chunk.
Bytes fileWithBlock(mrParamBlock& block, uint32_t classID = 0x60000)
{
    mrChunkOFStream s;
    s.writeU32(CHUNK_FILE_MAGIC);
    s.writeU32(CHUNK_FILE_VERSION);
    s.writeU32(1);
    s.beginChunk(CHUNK_OBJECT);
    s.writeU32(classID);
    s.writeString("hand");
    block.exportData(s);
    s.beginChunk(CHUNK_ANIMATION);
    s.writeU32(0);
    s.endChunk();
    s.endChunk();
    return s.data();
}

Bytes fileWithRecord(const Record& r)
{
    mrParamBlock block;
    fillBlock(block, r);
    return fileWithBlock(block);
}

// One valid clip BSP, or a failed load.
mrClipBSP* loadOne(const Bytes& file, std::string* error)
{
    std::vector<srClass*> objects;
    if (!manager().loadBuffer(file, objects, error, "test.mrc"))
        return nullptr;
    EXPECT_EQ(objects.size(), 1u);
    return dynamic_cast<mrClipBSP*>(objects[0]);
}

// Offsets inside the one-record file made by fileWithBlock.
const size_t kFirstRecord = 12;

// The test fixture registers the handler directly; module tests register it through
// the module itself.
class ClipIO : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!manager().getHandler(kClipClass))
            manager().registerHandler(new mrClipBSPIOHandler);
    }
};

} // namespace

// =================================================================================
// Class registration: checked before anything else in this binary makes a clip BSP.

TEST(ClipClassRegistration, NoClassNodeBeforeTheFirstClipBSP) { EXPECT_TRUE(g_classNodeAbsentAtStart); }

// =================================================================================
// Module start-up through the loader.

class ModuleStartup : public ::testing::Test
{
protected:
    void SetUp() override
    {
        manager().removeHandler(kClipClass);
        // Start from a registry without the clip BSP class (no instance is alive here).
        srCore::instance().getRegistry().removeClass(kClipClass);
    }
    void TearDown() override { mrCore::m_initialized = 1; }
};

TEST_F(ModuleStartup, LoadRegistersTheHandlerAndUnloadRemovesIt)
{
    mtest::LogCapture log;
    mrModuleLoader loader;
    std::string error;
    ASSERT_TRUE(loader.load(MERIDBSP_MODULE_PATH, &error)) << error;
    EXPECT_EQ(log.text(), "Registering MeridBSP ClassIO Handlers\n");
    mrClassIOHandler* handler = manager().getHandler(kClipClass);
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(handler->getClassID(), kClipClass);
    // Loading registers the handler only, not the class.
    EXPECT_EQ(srCore::instance().getRegistry().getClassNode(kClipClass), nullptr);

    // Thread notifications change nothing.
    size_t handlers = manager().numHandlers();
    EXPECT_EQ(loader.notify(mrModuleLoader::REASON_THREAD_ATTACH), 1);
    EXPECT_EQ(loader.notify(mrModuleLoader::REASON_THREAD_DETACH), 1);
    EXPECT_EQ(log.text(), "Registering MeridBSP ClassIO Handlers\n");
    EXPECT_EQ(manager().getHandler(kClipClass), handler);
    EXPECT_EQ(manager().numHandlers(), handlers);

    // The handler works: a clip BSP made now brings the class node with it.
    mrClipBSP* box = makeBox(V(-1, -1, -1), V(1, 1, 1));
    EXPECT_NE(srCore::instance().getRegistry().getClassNode(kClipClass), nullptr);
    Bytes file = save({box});
    box->release();
    std::string why;
    mrClipBSP* back = loadOne(file, &why);
    ASSERT_NE(back, nullptr) << why;
    EXPECT_EQ(back->m_numplanes, 6u);
    back->release();

    loader.unload();
    EXPECT_EQ(log.text(), "Registering MeridBSP ClassIO Handlers\nUnregistering Meridane ClassIO Handlers\n");
    EXPECT_EQ(manager().getHandler(kClipClass), nullptr);
    EXPECT_FALSE(loader.isLoaded());
}

TEST_F(ModuleStartup, UninitialisedCoreIsReportedAtAttachAndDetach)
{
    mtest::AssertRecorder asserts;
    mtest::LogCapture log;
    mrModuleLoader loader;
    mrCore::m_initialized = 0;
    ASSERT_TRUE(loader.load(MERIDBSP_MODULE_PATH, nullptr));
    ASSERT_EQ(asserts.reports().size(), 1u);
    const mtest::AssertReport& r = asserts.reports()[0];
    EXPECT_EQ(r.expression, "m_initialized");
    EXPECT_EQ(r.source, "mrCore");
    EXPECT_EQ(r.line, 22);
    EXPECT_EQ(r.message, "mrCore::getIOManager()- mrCore uninitialized!");
    mrCore::m_initialized = 1;
    EXPECT_EQ(manager().getHandler(kClipClass), nullptr);

    mrCore::m_initialized = 0;
    loader.unload();
    mrCore::m_initialized = 1;
    EXPECT_EQ(asserts.count("m_initialized", "mrCore::getIOManager()- mrCore uninitialized!"), 2u);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Registering MeridBSP ClassIO Handlers",
                                                     "Unregistering Meridane ClassIO Handlers"}));
}

TEST_F(ModuleStartup, LoaderErrors)
{
    mrModuleLoader loader;
    std::string error;
    EXPECT_FALSE(loader.load("/nonexistent/libNothing.so", &error));
    EXPECT_EQ(error, "cannot load module /nonexistent/libNothing.so: No such file or directory");

    // The platform library beside the module has no entry point.
    std::string platform = std::filesystem::path(MERIDBSP_MODULE_PATH).parent_path().string() + "/libmerid_platform.so";
    EXPECT_FALSE(loader.load(platform, &error));
    EXPECT_EQ(error, "cannot load module " + platform + ": it has no entry point \"MeridBSPEntry\"");

    mtest::TempDir dir;
    std::string junk = dir.file("junk.so");
    std::ofstream(junk) << "not a library";
    EXPECT_FALSE(loader.load(junk, &error));
    EXPECT_EQ(error.rfind("cannot load module " + junk + ": ", 0), 0u) << error;
    EXPECT_FALSE(loader.isLoaded());

    mtest::LogCapture log;
    ASSERT_TRUE(loader.load(MERIDBSP_MODULE_PATH, &error)) << error;
    EXPECT_FALSE(loader.load(MERIDBSP_MODULE_PATH, &error));
    EXPECT_EQ(error, std::string("cannot load module ") + MERIDBSP_MODULE_PATH +
                         ": this loader already holds module " + MERIDBSP_MODULE_PATH);
    EXPECT_EQ(loader.notify(7), 1);
    loader.unload();
}

// =================================================================================
// Round trips.

TEST_F(ClipIO, EmptyClipBSPRoundTripsWithNullArrays)
{
    mtest::AssertRecorder asserts;
    mrClipBSP* empty = new mrClipBSP;
    empty->setName("nothing");
    Bytes file = save({empty});
    std::string error;
    mrClipBSP* back = loadOne(file, &error);
    ASSERT_NE(back, nullptr) << error;
    EXPECT_STREQ(back->getName(), "nothing");
    EXPECT_EQ(back->m_nodes, nullptr);
    EXPECT_EQ(back->m_planes, nullptr);
    EXPECT_EQ(back->getContents(), 1u);
    expectSameClipBSP(*empty, *back);
    empty->release();
    back->release();
    EXPECT_TRUE(asserts.reports().empty());
}

TEST_F(ClipIO, BoxesAndHandMadeTreesRoundTrip)
{
    std::vector<srClass*> objects = {makeBox(V(-16, -16, -16), V(16, 16, 16)), makeSlab(),
                                     makeBox(V(0.125f, -3, 7), V(1e6f, 2.5f, 7.25f))};
    std::vector<srClass*> loaded;
    std::string error;
    ASSERT_TRUE(manager().loadBuffer(save(objects), loaded, &error)) << error;
    ASSERT_EQ(loaded.size(), objects.size());
    for (size_t i = 0; i < objects.size(); ++i)
    {
        mrClipBSP* a = dynamic_cast<mrClipBSP*>(objects[i]);
        mrClipBSP* b = dynamic_cast<mrClipBSP*>(loaded[i]);
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(a->getName(), b->getName());
        expectSameClipBSP(*a, *b);
    }
    // The loaded object's own fields are published.
    mrClipBSP* slab = dynamic_cast<mrClipBSP*>(loaded[1]);
    EXPECT_EQ(slab->getDWordField(0xF004), 2u);
    EXPECT_EQ(slab->pointInfo(0, V(0, 0, 0)), -3);
    releaseAll(objects);
    releaseAll(loaded);
}

TEST_F(ClipIO, SavingIsDeterministic)
{
    mrClipBSP* a = makeSlab();
    mrClipBSP* b = makeSlab();
    Bytes first = save({a, b});
    Bytes again = save({a, b});
    EXPECT_EQ(first, again);
    // Same contents in two objects give the same record bytes.
    EXPECT_EQ(save({a}), save({b}));
    a->release();
    b->release();
}

TEST_F(ClipIO, EmptyClipBSPFileLayout)
{
    mrClipBSP* empty = new mrClipBSP;
    empty->setName("a");
    Bytes file = save({empty});
    empty->release();
    // Header, then the object chunk with class ID and name (the layout documented for readers).
    EXPECT_EQ(file.size(), 281u);
    const unsigned char head[] = {'M', 'R', 'C', 'F', 1, 0, 0, 0, 1, 0, 0, 0, 'O', 'B', 'J', ' '};
    EXPECT_EQ(0, std::memcmp(file.data(), head, sizeof head));
    const unsigned char record[] = {0, 0, 6, 0, 1, 0, 0, 0, 'a', 'P', 'B', 'L', 'K'};
    EXPECT_EQ(0, std::memcmp(file.data() + 20, record, sizeof record));
    const unsigned char anim[] = {'A', 'N', 'I', 'M', 4, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(file.data() + file.size() - 12, anim, sizeof anim));
}

// The bytes of a saved box are pinned: a change here breaks every file already written.
TEST_F(ClipIO, SavedBoxBytesArePinned)
{
    mrClipBSP* box = makeBox(V(-16, -16, -16), V(16, 16, 16));
    box->setName("box");
    Bytes file = save({box});
    box->release();
    EXPECT_EQ(file.size(), 475u);
    EXPECT_EQ(mtest::fnv1a(std::string(file.begin(), file.end())), 8029269248357534007ull);
}

TEST_F(ClipIO, UnrefreshedBoxIsWrittenWithItsLastPublishedFields)
{
    mrClipBSP* box = new mrClipBSP;
    box->makeFromBBox(V(-4, -4, -4), V(4, 4, 4));
    std::string error;
    mrClipBSP* back = loadOne(save({box}), &error);
    ASSERT_NE(back, nullptr) << error;
    EXPECT_EQ(back->m_numnodes, 0u);
    EXPECT_EQ(back->m_numplanes, 0u);
    EXPECT_EQ(back->getContents(), 1u);
    EXPECT_EQ(back->m_nodes, nullptr);
    back->release();
    box->release();
}

TEST_F(ClipIO, AnimationKeysRoundTrip)
{
    mrClipBSP* bsp = makeSlab();
    EXPECT_EQ(bsp->getMaxTime(), 0.0f);
    mrPBAnimation::Key k1;
    k1.m_time = 2.5f;
    k1.m_fieldID = 0xF002;
    k1.m_value = V(1, 2, 3);
    mrPBAnimation::Key k2 = k1;
    k2.m_time = -1.0f;
    bsp->m_keys = {k1, k2};
    EXPECT_EQ(bsp->getMaxTime(), 2.5f);
    std::string error;
    mrClipBSP* back = loadOne(save({bsp}), &error);
    ASSERT_NE(back, nullptr) << error;
    ASSERT_EQ(back->m_keys.size(), 2u);
    EXPECT_EQ(back->m_keys[0].m_time, 2.5f);
    EXPECT_EQ(back->m_keys[0].m_fieldID, 0xF002u);
    EXPECT_EQ(back->m_keys[0].m_value, V(1, 2, 3));
    EXPECT_EQ(back->m_keys[1].m_time, -1.0f);
    EXPECT_EQ(back->getMaxTime(), 2.5f);
    bsp->release();
    back->release();
}

TEST_F(ClipIO, ReservedPlaneBytesAreIgnored)
{
    Record r;
    r.numplanes = 1;
    r.numnodes = 1;
    r.nodes = nodeBytes({{0, {-1, -2}}});
    r.planes = planeBytes({mrPlane(0, 0, 1, 5)}, 0);
    std::string error;
    mrClipBSP* zero = loadOne(fileWithRecord(r), &error);
    ASSERT_NE(zero, nullptr) << error;
    r.planes = planeBytes({mrPlane(0, 0, 1, 5)}, 0xDEADBEEF);
    mrClipBSP* junk = loadOne(fileWithRecord(r), &error);
    ASSERT_NE(junk, nullptr) << error;
    expectSameClipBSP(*zero, *junk);
    EXPECT_EQ(junk->m_planes[0].m_normal, V(0, 0, 1));
    EXPECT_EQ(junk->m_planes[0].m_dist, 5.0f);
    // Written back, the reserved bytes are zero again.
    Bytes again = save({junk});
    EXPECT_EQ(again, save({zero}));
    zero->release();
    junk->release();
}

// =================================================================================
// The plane-count check.

class PlaneCount : public ClipIO, public ::testing::WithParamInterface<std::pair<size_t, bool>>
{
};

TEST_P(PlaneCount, ThreePlanesAgainstTheArraySize)
{
    size_t bytes = GetParam().first;
    bool passes = GetParam().second;
    Record r;
    r.numplanes = 3;
    r.planes = planeBytes({mrPlane(1, 0, 0, 1), mrPlane(0, 1, 0, 2), mrPlane(0, 0, 1, 3), mrPlane(1, 0, 0, 4)});
    r.planes.resize(bytes, 0x5A);
    mtest::AssertRecorder asserts;
    std::string error;
    mrClipBSP* bsp = loadOne(fileWithRecord(r), &error);
    if (passes)
    {
        ASSERT_NE(bsp, nullptr) << error;
        EXPECT_TRUE(asserts.reports().empty());
        ASSERT_EQ(bsp->m_numplanes, 3u);
        EXPECT_EQ(bsp->m_planes[2].m_dist, 3.0f);
        bsp->release();
        return;
    }
    EXPECT_EQ(bsp, nullptr);
    ASSERT_EQ(asserts.reports().size(), 1u);
    const mtest::AssertReport& rep = asserts.reports()[0];
    EXPECT_EQ(rep.expression, "(size/sizeof(mrPlane))==sound->m_numplanes");
    EXPECT_EQ(rep.source, "mrClipBSPIOHandler");
    EXPECT_EQ(rep.line, 52);
    EXPECT_FALSE(rep.hasMessage);
    EXPECT_EQ(error, "test.mrc: record 0 (class 0x60000): field 0xF007 (\"Planes\") holds " + std::to_string(bytes) +
                         " bytes (" + std::to_string(bytes / 20) + " planes of 20 bytes), but \"NumPlanes\" is 3");
}

INSTANTIATE_TEST_SUITE_P(Sizes, PlaneCount,
                         ::testing::Values(std::make_pair(size_t(59), false), std::make_pair(size_t(60), true),
                                           std::make_pair(size_t(79), true), std::make_pair(size_t(80), false)));

// =================================================================================
// Hostile files: each gets a specific error and nothing leaks or crashes.

TEST_F(ClipIO, HeaderErrors)
{
    Bytes good = fileWithRecord(Record());
    Bytes bad = good;
    bad[0] = 'X';
    EXPECT_EQ(loadError(bad), "test.mrc: not a chunk file (no \"MRCF\" magic tag at the start)");
    EXPECT_EQ(loadError(Bytes()), "test.mrc: not a chunk file (no \"MRCF\" magic tag at the start)");
    EXPECT_EQ(loadError(Bytes(good.begin(), good.begin() + 9)), "test.mrc: truncated file header (9 of 12 bytes)");
    bad = good;
    bad[4] = 2;
    EXPECT_EQ(loadError(bad), "test.mrc: unsupported format version 2 (this build reads version 1)");
    bad = good;
    bad[8] = bad[9] = bad[10] = bad[11] = 0xFF;
    EXPECT_EQ(loadError(bad), "test.mrc: record count 4294967295 at offset 12 needs at least 16 bytes each, but "
                              "only " +
                                  std::to_string(good.size() - 12) + " bytes are left in the file");
    bad = good;
    bad.push_back(0);
    bad.push_back(7);
    EXPECT_EQ(loadError(bad), "test.mrc: 2 bytes of trailing garbage after the last record (at offset " +
                                  std::to_string(good.size()) + ")");
}

TEST_F(ClipIO, RecordErrors)
{
    mrParamBlock block;
    fillBlock(block, Record());
    Bytes bad = fileWithBlock(block, 0x1234);
    EXPECT_EQ(loadError(bad), "test.mrc: record 0 (class 0x1234): unknown class ID (no IO handler is registered for it)");

    Bytes good = fileWithBlock(block);
    bad = good;
    bad[kFirstRecord] = 'X'; // "OBJ " becomes "XBJ "
    EXPECT_EQ(loadError(bad), "test.mrc: record 0: expected the object chunk 0x204A424F (\"OBJ \") at offset 12, "
                              "found chunk 0x204A4258 (\"XBJ \")");
    bad = good;
    bad[kFirstRecord + 6] = 0x10; // record length past the end of the file
    std::string error = loadError(bad);
    EXPECT_NE(error.find("test.mrc: record 0: chunk 0x204A424F (\"OBJ \") at offset 12 has length 1048"), std::string::npos)
        << error;
    EXPECT_NE(error.find("past the end of the file"), std::string::npos) << error;

    // A name length past the record.
    bad = good;
    bad[kFirstRecord + 12 + 3] = 0x7F;
    EXPECT_EQ(loadError(bad).rfind("test.mrc: record 0: unexpected end of chunk 0x204A424F (\"OBJ \") at offset 28: "
                                   "a string needs ",
                                   0),
              0u);

    // Extra bytes inside the record, after the animation chunk.
    mrChunkOFStream s;
    s.writeU32(CHUNK_FILE_MAGIC);
    s.writeU32(1);
    s.writeU32(1);
    s.beginChunk(CHUNK_OBJECT);
    s.writeU32(0x60000);
    s.writeString("x");
    block.exportData(s);
    s.beginChunk(CHUNK_ANIMATION);
    s.writeU32(0);
    s.endChunk();
    s.writeU32(42);
    s.endChunk();
    error = loadError(s.data());
    EXPECT_EQ(error.rfind("test.mrc: record 0 (class 0x60000): chunk 0x204A424F (\"OBJ \") has 4 unread bytes", 0), 0u)
        << error;
}

TEST_F(ClipIO, FieldErrors)
{
    // The wrong kind.
    mrParamBlock block;
    fillBlock(block, Record());
    block.addDWordField(0xF007, mrParamBlock::ACCESS_READWRITE, "Planes");
    EXPECT_EQ(loadError(fileWithBlock(block)),
              "test.mrc: record 0 (class 0x60000): field 0xF007 (\"Planes\") has kind 1, expected a byte array");
    block.addByteArrayField(0xF007, mrParamBlock::ACCESS_READWRITE, "Planes");
    block.addVector3Field(0xF001, mrParamBlock::ACCESS_READWRITE, "Contents");
    EXPECT_EQ(loadError(fileWithBlock(block)),
              "test.mrc: record 0 (class 0x60000): field 0xF001 (\"Contents\") has kind 2, expected a DWord");
    block.addDWordField(0xF001, mrParamBlock::ACCESS_READWRITE, "Contents");
    block.addDWordField(0xF003, mrParamBlock::ACCESS_READWRITE, "Maxs");
    EXPECT_EQ(loadError(fileWithBlock(block)),
              "test.mrc: record 0 (class 0x60000): field 0xF003 (\"Maxs\") has kind 1, expected a Vector3");

    // A missing field.
    mrParamBlock partial;
    partial.addDWordField(0xF001, mrParamBlock::ACCESS_READWRITE, "Contents");
    EXPECT_EQ(loadError(fileWithBlock(partial)), "test.mrc: record 0 (class 0x60000): field 0xF002 (\"Mins\") is missing");

    // An unknown kind and a repeated field, made by patching a good file.
    mrParamBlock one;
    one.addDWordField(0xF001, mrParamBlock::ACCESS_READWRITE, "Contents");
    Bytes file = fileWithBlock(one);
    // record header 8 + class 4 + name 8, block header 8 + count 4, field header 8 + ID 4: the kind.
    size_t kindAt = kFirstRecord + 20 + 12 + 12;
    ASSERT_EQ(file[kindAt], 1);
    file[kindAt] = 9;
    EXPECT_EQ(loadError(file), "test.mrc: record 0 (class 0x60000): field 0xF001 (\"Contents\") has unknown kind 9");

    mrParamBlock twice;
    twice.addDWordField(0xF001, mrParamBlock::ACCESS_READWRITE, "Contents");
    twice.addDWordField(0xF002, mrParamBlock::ACCESS_READWRITE, "Again");
    file = fileWithBlock(twice);
    file[kindAt + 32 - 4] = 0x01; // second field's ID 0xF002 -> 0xF001
    EXPECT_EQ(loadError(file), "test.mrc: record 0 (class 0x60000): field 0xF001 (\"Again\") appears twice");

    // A field count that the block cannot hold.
    file = fileWithBlock(one);
    size_t countAt = kFirstRecord + 20 + 8;
    file[countAt] = file[countAt + 1] = file[countAt + 2] = file[countAt + 3] = 0xFF;
    std::string error = loadError(file);
    EXPECT_EQ(error.rfind("test.mrc: record 0 (class 0x60000): field count 4294967295 at offset 44 needs at least 24 "
                          "bytes each",
                          0),
              0u)
        << error;

    // A byte array longer than its field.
    Record r;
    r.nodes = {1, 2, 3};
    file = fileWithRecord(r);
    size_t nodesLenAt = 0;
    for (size_t i = 0; i + 5 <= file.size(); ++i)
        if (std::memcmp(&file[i], "Nodes", 5) == 0)
            nodesLenAt = i + 5;
    ASSERT_NE(nodesLenAt, 0u);
    file[nodesLenAt + 3] = 0x7F;
    error = loadError(file);
    EXPECT_NE(error.find("a byte array needs 2130706435 bytes, 3 left"), std::string::npos) << error;
}

TEST_F(ClipIO, CountErrors)
{
    mtest::AssertRecorder asserts;
    Record r;
    r.numnodes = 0xFFFFFFFFu;
    r.nodes = nodeBytes({{0, {-1, -2}}});
    EXPECT_EQ(loadError(fileWithRecord(r)), "test.mrc: record 0 (class 0x60000): field 0xF005 (\"Nodes\") holds 12 "
                                            "bytes, but \"NumNodes\" 4294967295 needs 51539607540");
    r.numnodes = 2;
    EXPECT_EQ(loadError(fileWithRecord(r)), "test.mrc: record 0 (class 0x60000): field 0xF005 (\"Nodes\") holds 12 "
                                            "bytes, but \"NumNodes\" 2 needs 24");
    EXPECT_TRUE(asserts.reports().empty());

    Record p;
    p.numplanes = 0xFFFFFFFFu;
    p.planes = planeBytes({mrPlane(1, 0, 0, 0)});
    EXPECT_EQ(loadError(fileWithRecord(p)), "test.mrc: record 0 (class 0x60000): field 0xF007 (\"Planes\") holds 20 "
                                            "bytes (1 planes of 20 bytes), but \"NumPlanes\" is 4294967295");
    EXPECT_EQ(asserts.count("(size/sizeof(mrPlane))==sound->m_numplanes"), 1u);

    // An animation key count the chunk cannot hold.
    mrParamBlock block;
    fillBlock(block, Record());
    Bytes file = fileWithBlock(block);
    size_t keysAt = file.size() - 4;
    file[keysAt] = file[keysAt + 1] = file[keysAt + 2] = file[keysAt + 3] = 0xFF;
    std::string error = loadError(file);
    EXPECT_EQ(error.rfind("test.mrc: record 0 (class 0x60000): animation key count 4294967295", 0), 0u) << error;

    // No animation chunk at all.
    file = fileWithBlock(block);
    file.resize(file.size() - 12);
    uint32_t len = 0;
    std::memcpy(&len, &file[kFirstRecord + 4], 4); // the host is little-endian like the file
    len -= 12;
    std::memcpy(&file[kFirstRecord + 4], &len, 4);
    error = loadError(file);
    EXPECT_EQ(error.rfind("test.mrc: record 0 (class 0x60000): unexpected end of chunk 0x204A424F (\"OBJ \")", 0), 0u)
        << error;
    EXPECT_NE(error.find("a chunk header needs 8 bytes, 0 left"), std::string::npos) << error;
}

TEST_F(ClipIO, InvalidTreesAreRefused)
{
    Record r;
    r.numplanes = 1;
    r.planes = planeBytes({mrPlane(1, 0, 0, 0)});
    r.numnodes = 2;
    const char* prefix = "test.mrc: record 0 (class 0x60000): the clip BSP is not valid: ";

    r.nodes = nodeBytes({{0, {1, -1}}, {0, {0, -2}}}); // node 1 leads back to node 0
    std::string error = loadError(fileWithRecord(r));
    EXPECT_EQ(error.rfind(prefix, 0), 0u) << error;

    r.nodes = nodeBytes({{0, {0, -1}}, {0, {-1, -2}}}); // node 0 is its own child
    error = loadError(fileWithRecord(r));
    EXPECT_EQ(error.rfind(prefix, 0), 0u) << error;

    r.nodes = nodeBytes({{0, {1, -1}}, {3, {-1, -2}}}); // plane 3 of 1
    error = loadError(fileWithRecord(r));
    EXPECT_EQ(error.rfind(prefix, 0), 0u) << error;

    r.nodes = nodeBytes({{0, {2, -1}}, {0, {-1, -2}}}); // child past the last node
    error = loadError(fileWithRecord(r));
    EXPECT_EQ(error.rfind(prefix, 0), 0u) << error;

    r.nodes = nodeBytes({{-1, {1, -1}}, {0, {-1, -2}}}); // negative plane index
    error = loadError(fileWithRecord(r));
    EXPECT_EQ(error.rfind(prefix, 0), 0u) << error;

    // Extra node bytes beyond NumNodes are ignored.
    r.nodes = nodeBytes({{0, {1, -1}}, {0, {-1, -2}}, {7, {7, 7}}});
    mrClipBSP* ok = loadOne(fileWithRecord(r), &error);
    ASSERT_NE(ok, nullptr) << error;
    EXPECT_EQ(ok->m_numnodes, 2u);
    ok->release();
}

TEST_F(ClipIO, AFailedLoadReleasesWhatItLoaded)
{
    mrClipBSP* slab = makeSlab();
    Bytes good = save({slab, slab});
    size_t before = srCore::instance().getRegistry().numInstances(kClipClass);
    Bytes bad = good;
    bad.resize(bad.size() - 1);
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_FALSE(manager().loadBuffer(bad, objects, &error, "two.mrc"));
    EXPECT_EQ(error.rfind("two.mrc: record 1: ", 0), 0u) << error;
    EXPECT_TRUE(objects.empty());
    EXPECT_EQ(srCore::instance().getRegistry().numInstances(kClipClass), before);
    slab->release();
}

// Every prefix of a valid file and thousands of corrupted copies: each load either
// fails with a message or gives clip BSPs that pass validation and answer queries.
TEST_F(ClipIO, TruncatedAndCorruptedFilesNeverCrash)
{
    std::vector<srClass*> objects = {makeBox(V(-16, -16, -16), V(16, 16, 16)), makeSlab()};
    Bytes good = save(objects);
    releaseAll(objects);
    mtest::AssertRecorder asserts; // plane-count reports are expected for some variants
    size_t before = srCore::instance().getRegistry().numInstances(kClipClass);

    for (size_t cut = 0; cut < good.size(); ++cut)
    {
        std::vector<srClass*> out;
        std::string error;
        ASSERT_FALSE(manager().loadBuffer(good.data(), cut, out, &error, "cut")) << "cut at " << cut;
        ASSERT_FALSE(error.empty());
        ASSERT_TRUE(out.empty());
    }

    std::mt19937 rng(20240517u);
    size_t loadedOk = 0;
    for (int variant = 0; variant < 4000; ++variant)
    {
        Bytes bad = good;
        int flips = 1 + (int)(rng() % 4);
        for (int f = 0; f < flips; ++f)
        {
            size_t at = rng() % bad.size();
            bad[at] = (unsigned char)(variant % 3 == 0 ? (bad[at] ^ (1u << (rng() % 8))) : rng() % 256);
        }
        std::vector<srClass*> out;
        std::string error;
        if (manager().loadBuffer(bad, out, &error, "flip"))
        {
            ++loadedOk;
            for (srClass* o : out)
            {
                mrClipBSP* bsp = dynamic_cast<mrClipBSP*>(o);
                ASSERT_NE(bsp, nullptr);
                std::string why;
                ASSERT_TRUE(bsp->validate(&why)) << why;
                mrTrace trace;
                bsp->pointInfo(0, V(1, 2, 3));
                bsp->checkCollision(V(-50, 1, 2), V(50, -1, 3), trace);
            }
            releaseAll(out);
        }
        else
        {
            ASSERT_FALSE(error.empty());
            ASSERT_TRUE(out.empty());
        }
    }
    // Flips in float payloads leave the file loadable; many variants must get through.
    EXPECT_GT(loadedOk, 100u);
    EXPECT_EQ(srCore::instance().getRegistry().numInstances(kClipClass), before);
}

// =================================================================================
// Saving: files, failures, and what the writer refuses.

namespace
{
// A class with an ID of our choosing, and a handler that misbehaves on request.
class FakeObject : public srClass
{
public:
    explicit FakeObject(unsigned long id) : m_id(id) {}
    unsigned long getClassID() const override { return m_id; }
    unsigned long m_id;
};

class FakeHandler : public mrClassIOHandler
{
public:
    enum e_mode { LEAVE_OPEN, NO_OBJECT, TWO_OBJECTS, THROW };
    FakeHandler(unsigned long id, e_mode mode) : m_id(id), m_mode(mode) {}
    unsigned long getClassID() override { return m_id; }
    srClass* importObject(mrChunkIFStream& stream, mrIOEntry& entry) override
    {
        stream.skip(stream.remaining());
        switch (m_mode)
        {
        case NO_OBJECT:
            return nullptr;
        case TWO_OBJECTS:
            entry.m_object = new FakeObject(m_id);
            return new FakeObject(m_id);
        case THROW:
            entry.m_object = new FakeObject(m_id);
            throw std::bad_alloc();
        default:
            return new FakeObject(m_id);
        }
    }
    void exportObject(mrChunkOFStream& stream, srClass*) override
    {
        if (m_mode == LEAVE_OPEN)
            stream.beginChunk(0x1234);
    }
    unsigned long m_id;
    e_mode m_mode;
};

Bytes fakeFile(unsigned long id)
{
    mrChunkOFStream s;
    s.writeU32(CHUNK_FILE_MAGIC);
    s.writeU32(1);
    s.writeU32(1);
    s.beginChunk(CHUNK_OBJECT);
    s.writeU32((uint32_t)id);
    s.writeString("");
    s.endChunk();
    return s.data();
}
} // namespace

TEST_F(ClipIO, SaveFileReplacesAtomicallyAndLoadFileReads)
{
    mtest::TempDir dir;
    std::string path = dir.file("test.mrc");
    mrClipBSP* slab = makeSlab();
    std::string error;
    ASSERT_TRUE(manager().saveFile(path, {slab}, &error)) << error;
    ASSERT_TRUE(manager().saveFile(path, {slab, slab}, &error)) << error;
    std::vector<srClass*> loaded;
    ASSERT_TRUE(manager().loadFile(path, loaded, &error)) << error;
    EXPECT_EQ(loaded.size(), 2u);
    releaseAll(loaded);

    // A failed save leaves the earlier file as it was, and no temporary file behind.
    std::string before = mtest::readFile(path);
    FakeObject* stranger = new FakeObject(0x4242);
    EXPECT_FALSE(manager().saveFile(path, {slab, stranger}, &error));
    EXPECT_EQ(error, path + ": object 1 (class 0x4242): no IO handler is registered for this class ID");
    EXPECT_EQ(mtest::readFile(path), before);
    size_t files = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    {
        (void)e;
        ++files;
    }
    EXPECT_EQ(files, 1u);

    EXPECT_FALSE(manager().saveFile(dir.file("missing/test.mrc"), {slab}, &error));
    EXPECT_EQ(error.rfind(dir.file("missing/test.mrc") + ": cannot create a temporary file beside it: ", 0), 0u);
    std::filesystem::create_directory(dir.file("adir"));
    EXPECT_FALSE(manager().saveFile(dir.file("adir"), {slab}, &error));
    EXPECT_EQ(error.rfind(dir.file("adir") + ": cannot move the written file into place: ", 0), 0u) << error;

    EXPECT_FALSE(manager().loadFile(dir.file("none.mrc"), loaded, &error));
    EXPECT_EQ(error, dir.file("none.mrc") + ": cannot open: No such file or directory");
    EXPECT_FALSE(manager().loadFile(dir.file("adir"), loaded, &error));
    EXPECT_EQ(error, dir.file("adir") + ": not a regular file");

    std::vector<srClass*> nulls = {slab, nullptr};
    Bytes out;
    EXPECT_FALSE(manager().saveBuffer(nulls, out, &error));
    EXPECT_EQ(error, "object 1 is null");
    stranger->release();
    slab->release();
}

TEST_F(ClipIO, HandlerContractViolationsAreErrors)
{
    manager().registerHandler(new FakeHandler(0x71, FakeHandler::LEAVE_OPEN));
    manager().registerHandler(new FakeHandler(0x72, FakeHandler::NO_OBJECT));
    manager().registerHandler(new FakeHandler(0x73, FakeHandler::TWO_OBJECTS));
    manager().registerHandler(new FakeHandler(0x74, FakeHandler::THROW));
    manager().registerHandler(new FakeHandler(0x100000000ul, FakeHandler::NO_OBJECT));
    std::string error;
    Bytes out;

    FakeObject* open = new FakeObject(0x71);
    EXPECT_FALSE(manager().saveBuffer({open}, out, &error));
    EXPECT_EQ(error, "object 0 (class 0x71): the handler left 1 chunks open");
    FakeObject* wide = new FakeObject(0x100000000ul);
    EXPECT_FALSE(manager().saveBuffer({wide}, out, &error));
    EXPECT_EQ(error, "object 0 (class 0x100000000): the class ID does not fit 32 bits");

    EXPECT_EQ(loadError(fakeFile(0x72)), "test.mrc: record 0 (class 0x72): the handler produced no object");
    EXPECT_EQ(loadError(fakeFile(0x73)), "test.mrc: record 0 (class 0x73): the handler produced two different objects");
    EXPECT_EQ(loadError(fakeFile(0x74)), "test.mrc: record 0 (class 0x74): out of memory");

    // The clip BSP handler refuses other objects.
    mrClipBSPIOHandler clip;
    mrChunkOFStream s;
    clip.exportObject(s, open);
    EXPECT_EQ(s.error(), "the object is not a clip BSP");
    EXPECT_EQ(clip.getClassID(), kClipClass);
    void** slots = clip.allocPointerArray(3);
    delete[] slots;

    for (unsigned long id : {0x71ul, 0x72ul, 0x73ul, 0x74ul, 0x100000000ul})
        manager().removeHandler(id);
    open->release();
    wide->release();
}

// =================================================================================
// The streams themselves.

TEST(ChunkStreams, WriterRefusesWhatItCannotEncode)
{
    mrChunkOFStream s;
    EXPECT_FALSE(s.endChunk());
    EXPECT_EQ(s.error(), "endChunk without an open chunk");

    mrParamBlock wideID;
    wideID.addDWordField(0x100000000ul, mrParamBlock::ACCESS_READWRITE, "Wide");
    mrChunkOFStream a;
    EXPECT_EQ(wideID.exportData(a), 0);
    EXPECT_EQ(a.error(), "field 0x100000000 does not fit a 32-bit field ID");

    mrParamBlock noData;
    noData.addByteArrayPtrField(0x10, mrParamBlock::ACCESS_READWRITE, "Ptr");
    noData.setByteArrayPtrField(0x10, nullptr, 5);
    mrChunkOFStream b;
    EXPECT_EQ(noData.exportData(b), 0);
    EXPECT_EQ(b.error(), "byte array of 5 bytes has no data");

    mrParamBlock::Field odd;
    odd.m_id = 0x11;
    odd.m_kind = (mrParamBlock::e_fieldKind)5; // within the enum's range, but no kind
    mrParamBlock oddBlock;
    oddBlock.appendField(odd);
    mrChunkOFStream c;
    EXPECT_EQ(oddBlock.exportData(c), 0);
    EXPECT_EQ(c.error(), "field 0x11 has unknown kind 5");

    mrClipBSP* bsp = new mrClipBSP;
    mrPBAnimation::Key k;
    k.m_fieldID = 0x100000000ul;
    bsp->m_keys.push_back(k);
    mrChunkOFStream d;
    mrClipBSPIOHandler handler;
    handler.exportObject(d, bsp);
    EXPECT_EQ(d.error(), "animation key for field ID 4294967296 does not fit 32 bits");
    bsp->release();
}

TEST(ChunkStreams, ReaderChecksEveryReadAndKeepsTheFirstError)
{
    const unsigned char data[] = {1, 0, 0, 0, 0x41, 0x41, 0x41, 0x41, 2, 0, 0, 0, 9, 9};
    mrChunkIFStream s(data, sizeof data);
    EXPECT_EQ(s.readU32(), 1u);
    uint32_t id = 0;
    ASSERT_TRUE(s.openChunk(id));
    EXPECT_EQ(id, 0x41414141u);
    EXPECT_EQ(s.remaining(), 2u);
    EXPECT_EQ(s.readU32(), 0u);
    EXPECT_EQ(s.error(), "unexpected end of chunk 0x41414141 (\"AAAA\") at offset 12: a 32-bit value needs 4 bytes, "
                         "2 left");
    // Sticky: later reads fail even where they would fit.
    EXPECT_FALSE(s.skip(1));
    EXPECT_FALSE(s.closeChunk());
    EXPECT_EQ(s.error().substr(0, 18), "unexpected end of ");

    mrChunkIFStream t(data, sizeof data);
    unsigned char out[32];
    EXPECT_FALSE(t.readBytes(out, 15));
    EXPECT_EQ(t.error(), "unexpected end of file at offset 0: a byte block needs 15 bytes, 14 left");
    mrChunkIFStream u(data, sizeof data);
    EXPECT_TRUE(u.skip(4));
    EXPECT_TRUE(u.readBytes(out, 4));
    EXPECT_FALSE(u.closeChunk());
    EXPECT_EQ(u.error(), "closeChunk without an open chunk");
    mrChunkIFStream v(data, sizeof data);
    EXPECT_FALSE(v.skip(20));
    EXPECT_EQ(v.error(), "unexpected end of file at offset 0: skipping needs 20 bytes, 14 left");
    mrChunkIFStream w(nullptr, 100);
    EXPECT_EQ(w.size(), 0u);
    EXPECT_EQ(w.readU32(), 0u);
    EXPECT_TRUE(w.failed());
}
