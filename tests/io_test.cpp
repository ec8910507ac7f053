// Chunk files, the IO manager, the clip BSP IO handler and module start-up.

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/io/mrClipBSPIOHandler.h>
#include <meridbsp/platform/core/mrChunkIFStream.h>
#include <meridbsp/platform/core/mrChunkOFStream.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/core/mrModuleLoader.h>
#include <meridbsp/platform/dx/srCore.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;
typedef std::vector<unsigned char> Bytes;
typedef mrParamBlock P;
using mtest::clipNode;
using mtest::ClipPtr;
using mtest::nodeRecords;
using mtest::planeRecords;
const unsigned long kClipClass = 0x60000;
const std::string kRecord0 = "test.mrc: record 0 (class 0x60000): ";

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

// The module tests register the handler through the module itself; the others use io(),
// which registers it directly.
mrIOManager& manager() { return *mrCore::instance().getIOManager(); }
mrIOManager& io() { return mtest::clipIO(); }
size_t liveClipBSPs() { return srCore::instance().getRegistry().numInstances(kClipClass); }

// Clip BSPs to save, published to their parameter blocks.
ClipPtr makeBox(V mins, V maxs)
{
    ClipPtr bsp = mtest::clipBox(mins, maxs);
    bsp->refreshPBlock(nullptr);
    return bsp;
}

// Two planes across x: open for x < -2 and x > 3, solid between (the middle slab marked -3).
ClipPtr makeSlab()
{
    ClipPtr bsp =
        mtest::clipTree({mrPlane(1, 0, 0, 3), mrPlane(-1, 0, 0, 2)}, {clipNode(0, -1, 1), clipNode(1, -1, -3)});
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

Bytes save(const std::vector<srClass*>& objects) { return mtest::saveBuffer(objects); }
// The one clip BSP of a file that must load (null, after a failure, when it does not).
ClipPtr loadOne(const Bytes& file) { return mtest::loadClip(file, "test.mrc"); }

// Loads and expects failure with nothing handed out, and this message.
void expectLoadError(const Bytes& file, const std::string& expected)
{
    std::vector<srClass*> objects;
    std::string error;
    EXPECT_FALSE(io().loadBuffer(file, objects, &error, "test.mrc"));
    EXPECT_TRUE(objects.empty());
    releaseAll(objects);
    EXPECT_EQ(error, expected);
}

// Two clip BSPs are the same when they save to the same bytes (their fields mirror their
// members once refreshed, and every member is in the record).
void expectSameRecord(srClass* a, srClass* b) { EXPECT_EQ(save({a}), save({b})); }

// Records written by hand, for the cases a real clip BSP never produces.
struct Record
{
    uint32_t contents = 1, numnodes = 0, numplanes = 0;
    Bytes nodes, planes;
};

// The seven fields as a block (byte arrays owned, as a reader would hold them).
void fillBlock(mrParamBlock& block, const Record& r)
{
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

// A one-record file named "hand": the block and an empty animation chunk (neither when
// block is null), and optionally a stray word at the end of the record.
Bytes objectFile(uint32_t classID, mrParamBlock* block, bool strayWord = false)
{
    mrChunkOFStream s;
    s.writeU32(CHUNK_FILE_MAGIC);
    s.writeU32(CHUNK_FILE_VERSION);
    s.writeU32(1);
    s.beginChunk(CHUNK_OBJECT);
    s.writeU32(classID);
    s.writeString(block ? "hand" : "");
    if (block)
    {
        block->exportData(s);
        s.beginChunk(CHUNK_ANIMATION);
        s.writeU32(0);
        s.endChunk();
    }
    if (strayWord)
        s.writeU32(42);
    s.endChunk();
    return s.data();
}

Bytes fileWithRecord(const Record& r)
{
    mrParamBlock block;
    fillBlock(block, r);
    return objectFile(0x60000, &block);
}

// Offsets in a file made by objectFile: the record chunk, and in a block of one DWord
// field (record header 8 + class 4 + name 8, block header 8 + count 4, field header 8 +
// ID 4) the field's kind.
const size_t kFirstRecord = 12, kFirstKind = 56;

} // namespace

// =================================================================================
// Class registration and module start-up.

TEST(ClipClassRegistration, NoClassNodeBeforeTheFirstClipBSP) { EXPECT_TRUE(g_classNodeAbsentAtStart); }

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
    // Loading registers the handler only, not the class.
    EXPECT_EQ(std::make_tuple(handler->getClassID(), srCore::instance().getRegistry().getClassNode(kClipClass)),
              std::make_tuple(kClipClass, nullptr));

    // Thread notifications change nothing.
    size_t handlers = manager().numHandlers();
    EXPECT_EQ(loader.notify(mrModuleLoader::REASON_THREAD_ATTACH), 1);
    EXPECT_EQ(loader.notify(mrModuleLoader::REASON_THREAD_DETACH), 1);
    EXPECT_EQ(std::make_tuple(log.text(), manager().getHandler(kClipClass), manager().numHandlers()),
              std::make_tuple("Registering MeridBSP ClassIO Handlers\n", handler, handlers));

    // The handler works: a clip BSP made now brings the class node with it.
    ClipPtr box = makeBox(V(-1, -1, -1), V(1, 1, 1));
    EXPECT_NE(srCore::instance().getRegistry().getClassNode(kClipClass), nullptr);
    ClipPtr back = loadOne(save({box.get()}));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->m_numplanes, 6u);

    loader.unload();
    EXPECT_EQ(std::make_tuple(log.text(), manager().getHandler(kClipClass), loader.isLoaded()),
              std::make_tuple("Registering MeridBSP ClassIO Handlers\nUnregistering Meridane ClassIO Handlers\n",
                              nullptr, false));
}

TEST_F(ModuleStartup, UninitialisedCoreIsReportedAtAttachAndDetach)
{
    mtest::AssertRecorder asserts;
    mtest::LogCapture log;
    mrModuleLoader loader;
    mrCore::m_initialized = 0;
    ASSERT_TRUE(loader.load(MERIDBSP_MODULE_PATH, nullptr));
    mrCore::m_initialized = 1;
    EXPECT_EQ(manager().getHandler(kClipClass), nullptr);
    mrCore::m_initialized = 0;
    loader.unload();
    mrCore::m_initialized = 1;
    const char* message = "mrCore::getIOManager()- mrCore uninitialized!";
    asserts.expect({{"m_initialized", "mrCore", 22, message}, {"m_initialized", "mrCore", 22, message}});
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
    mtest::writeFile(junk, "not a library");
    EXPECT_FALSE(loader.load(junk, &error));
    EXPECT_EQ(error.rfind("cannot load module " + junk + ": ", 0), 0u) << error;
    EXPECT_FALSE(loader.isLoaded());

    mtest::LogCapture log;
    ASSERT_TRUE(loader.load(MERIDBSP_MODULE_PATH, &error)) << error;
    EXPECT_FALSE(loader.load(MERIDBSP_MODULE_PATH, &error));
    EXPECT_EQ(error, std::string("cannot load module ") + MERIDBSP_MODULE_PATH + ": this loader already holds module " +
                         MERIDBSP_MODULE_PATH);
    EXPECT_EQ(loader.notify(7), 1);
    loader.unload();
}

// =================================================================================
// Round trips.

TEST(ClipIO, EmptyClipBSPRoundTripsWithNullArraysInAPinnedLayout)
{
    mtest::AssertRecorder asserts;
    ClipPtr empty(new mrClipBSP);
    empty->setName("a");
    Bytes file = save({empty.get()});
    // Header, then the object chunk with class ID and name (the layout documented for readers).
    ASSERT_EQ(file.size(), 281u);
    const unsigned char head[] = {'M', 'R', 'C', 'F', 1, 0, 0, 0, 1, 0, 0, 0, 'O', 'B', 'J', ' '};
    const unsigned char record[] = {0, 0, 6, 0, 1, 0, 0, 0, 'a', 'P', 'B', 'L', 'K'};
    const unsigned char anim[] = {'A', 'N', 'I', 'M', 4, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(file.data(), head, sizeof head));
    EXPECT_EQ(0, std::memcmp(file.data() + 20, record, sizeof record));
    EXPECT_EQ(0, std::memcmp(file.data() + file.size() - 12, anim, sizeof anim));
    ClipPtr back = loadOne(file);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::make_tuple(std::string(back->getName()), back->m_nodes, back->m_planes, back->getContents()),
              std::make_tuple(std::string("a"), nullptr, nullptr, 1u));
    expectSameRecord(empty.get(), back.get());
    empty.reset();
    EXPECT_TRUE(asserts.reports().empty());

    // A box never refreshed is written with its last published fields: those of a new clip BSP.
    ClipPtr unrefreshed = mtest::clipBox(V(-4, -4, -4), V(4, 4, 4)), fresh(new mrClipBSP);
    fresh->setName(unrefreshed->getName());
    EXPECT_EQ(save({unrefreshed.get()}), save({fresh.get()}));
}

TEST(ClipIO, BoxesHandMadeTreesAndAnimationKeysRoundTrip)
{
    ClipPtr slab = makeSlab();
    EXPECT_EQ(slab->getMaxTime(), 0.0f);
    slab->m_keys = {{2.5f, 0xF002, V(1, 2, 3)}, {-1.0f, 0xF002, V(1, 2, 3)}};
    EXPECT_EQ(slab->getMaxTime(), 2.5f);
    std::vector<srClass*> objects = {makeBox(V(-16, -16, -16), V(16, 16, 16)).release(), slab.release(),
                                     makeBox(V(0.125f, -3, 7), V(1e6f, 2.5f, 7.25f)).release()};
    std::vector<srClass*> loaded;
    std::string error;
    ASSERT_TRUE(io().loadBuffer(save(objects), loaded, &error)) << error;
    ASSERT_EQ(loaded.size(), objects.size());
    for (size_t i = 0; i < objects.size(); ++i)
    {
        ASSERT_NE(dynamic_cast<mrClipBSP*>(loaded[i]), nullptr);
        EXPECT_STREQ(objects[i]->getName(), loaded[i]->getName());
        expectSameRecord(objects[i], loaded[i]);
    }
    // The loaded object's members and own fields are set.
    mrClipBSP* back = dynamic_cast<mrClipBSP*>(loaded[1]);
    ASSERT_EQ(std::make_tuple(back->m_numplanes, back->m_numnodes), std::make_tuple(2u, 2u));
    std::vector<std::tuple<float, unsigned long, V>> keys;
    for (const auto& k : back->m_keys)
        keys.emplace_back(k.m_time, k.m_fieldID, k.m_value);
    EXPECT_EQ(std::make_tuple(back->m_contents, back->m_maxs, back->m_planes[1].m_normal, back->m_planes[1].m_dist,
                              back->m_nodes[1].child[1], back->getDWordField(0xF004), back->pointInfo(0, V(0, 0, 0)),
                              keys, back->getMaxTime()),
              std::make_tuple(9u, V(10, 1, 1), V(-1, 0, 0), 2.0f, -3, 2ul, -3,
                              std::vector<std::tuple<float, unsigned long, V>>{{2.5f, 0xF002, V(1, 2, 3)},
                                                                               {-1.0f, 0xF002, V(1, 2, 3)}},
                              2.5f));
    releaseAll(objects);
    releaseAll(loaded);
}

// The bytes of a saved box are pinned: a change here breaks every file already written.
TEST(ClipIO, SavedBytesArePinnedAndDeterministic)
{
    ClipPtr box = makeBox(V(-16, -16, -16), V(16, 16, 16));
    box->setName("box");
    Bytes file = save({box.get()});
    EXPECT_EQ(std::make_tuple(file.size(), mtest::fnv1a(std::string(file.begin(), file.end())), save({box.get()})),
              std::make_tuple(475u, 8029269248357534007ull, file));
    // Same contents in two objects give the same record bytes.
    EXPECT_EQ(save({makeSlab().get()}), save({makeSlab().get()}));
}

// "NumPlanes" 3 passes the check with 60 to 79 bytes of planes, not 59 or 80; a count no
// array holds is refused before anything is allocated. Reserved plane bytes are ignored.
TEST(ClipIO, PlaneCountIsCheckedAgainstTheArraySizeAndReservedBytesIgnored)
{
    const std::pair<uint32_t, size_t> cases[] = {{3, 59}, {3, 60}, {3, 79}, {3, 80}, {0xFFFFFFFFu, 20}};
    const std::vector<mrPlane> planes = {mrPlane(1, 0, 0, 1), mrPlane(0, 1, 0, 2), mrPlane(0, 0, 1, 3),
                                         mrPlane(1, 0, 0, 4)};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.second);
        Record r, zero;
        r.numplanes = zero.numplanes = c.first;
        r.planes = planeRecords(planes, 0xDEADBEEF);
        zero.planes = planeRecords(planes);
        r.planes.resize(c.second, 0x5A);
        zero.planes.resize(c.second, 0x5A);
        mtest::AssertRecorder asserts;
        if (c.second / 20 != c.first)
        {
            expectLoadError(fileWithRecord(r),
                            kRecord0 + "field 0xF007 (\"Planes\") holds " + std::to_string(c.second) + " bytes (" +
                                std::to_string(c.second / 20) + " planes of 20 bytes), but \"NumPlanes\" is " +
                                std::to_string(c.first));
            asserts.expect({{"(size/sizeof(mrPlane))==sound->m_numplanes", "mrClipBSPIOHandler", 52, nullptr}});
            continue;
        }
        ClipPtr bsp = loadOne(fileWithRecord(r));
        ASSERT_NE(bsp, nullptr);
        EXPECT_TRUE(asserts.reports().empty());
        ASSERT_EQ(bsp->m_numplanes, 3u);
        EXPECT_EQ(std::make_pair(bsp->m_planes[2].m_normal, bsp->m_planes[2].m_dist), std::make_pair(V(0, 0, 1), 3.0f));
        expectSameRecord(bsp.get(), loadOne(fileWithRecord(zero)).get()); // reserved bytes written back as zero
    }
}

// =================================================================================
// Hostile files: each gets a specific error and nothing leaks or crashes.

TEST(ClipIO, BrokenHeadersAndRecordsGetSpecificErrors)
{
    mrParamBlock block;
    fillBlock(block, Record());
    const Bytes good = objectFile(0x60000, &block);
    auto patch = [&good](size_t at, std::initializer_list<unsigned char> bytes)
    {
        Bytes b = good;
        for (unsigned char c : bytes)
            b[at++] = c;
        return b;
    };
    const std::string noMagic = "test.mrc: not a chunk file (no \"MRCF\" magic tag at the start)";
    expectLoadError(patch(0, {'X'}), noMagic);
    expectLoadError(Bytes(), noMagic);
    expectLoadError(Bytes(good.begin(), good.begin() + 9), "test.mrc: truncated file header (9 of 12 bytes)");
    expectLoadError(patch(4, {2}), "test.mrc: unsupported format version 2 (this build reads version 1)");
    expectLoadError(patch(8, {0xFF, 0xFF, 0xFF, 0xFF}),
                    "test.mrc: record count 4294967295 at offset 12 needs at least 16 bytes each, but only " +
                        std::to_string(good.size() - 12) + " bytes are left in the file");
    Bytes trailing = good;
    trailing.insert(trailing.end(), {0, 7});
    expectLoadError(trailing, "test.mrc: 2 bytes of trailing garbage after the last record (at offset " +
                                  std::to_string(good.size()) + ")");

    expectLoadError(objectFile(0x1234, &block),
                    "test.mrc: record 0 (class 0x1234): unknown class ID (no IO handler is registered for it)");
    expectLoadError(patch(kFirstRecord, {'X'}), "test.mrc: record 0: expected the object chunk 0x204A424F (\"OBJ \") "
                                                "at offset 12, found chunk 0x204A4258 (\"XBJ \")");
    // A record length past the end of the file, a name length past the record.
    expectLoadError(patch(kFirstRecord + 6, {0x10}), "test.mrc: record 0: chunk 0x204A424F (\"OBJ \") at offset 12 "
                                                     "has length 1048840, past the end of the file (264 bytes left)");
    expectLoadError(patch(kFirstRecord + 15, {0x7F}),
                    "test.mrc: record 0: unexpected end of chunk 0x204A424F "
                    "(\"OBJ \") at offset 28: a string needs 2130706436 bytes, 256 left");
    // Extra bytes inside the record, after the animation chunk.
    expectLoadError(objectFile(0x60000, &block, true),
                    kRecord0 + "chunk 0x204A424F (\"OBJ \") has 4 unread bytes at offset 284");
}

TEST(ClipIO, BrokenFieldsGetSpecificErrors)
{
    // The wrong kind.
    mrParamBlock block;
    fillBlock(block, Record());
    block.addDWordField(0xF007, P::ACCESS_READWRITE, "Planes");
    expectLoadError(objectFile(0x60000, &block),
                    kRecord0 + "field 0xF007 (\"Planes\") has kind 1, expected a byte array");
    block.addByteArrayField(0xF007, P::ACCESS_READWRITE, "Planes");
    block.addVector3Field(0xF001, P::ACCESS_READWRITE, "Contents");
    expectLoadError(objectFile(0x60000, &block), kRecord0 + "field 0xF001 (\"Contents\") has kind 2, expected a DWord");
    block.addDWordField(0xF001, P::ACCESS_READWRITE, "Contents");
    block.addDWordField(0xF003, P::ACCESS_READWRITE, "Maxs");
    expectLoadError(objectFile(0x60000, &block), kRecord0 + "field 0xF003 (\"Maxs\") has kind 1, expected a Vector3");

    // A missing field, an unknown kind, a repeated field and a field count the block
    // cannot hold.
    mrParamBlock one, twice;
    one.addDWordField(0xF001, P::ACCESS_READWRITE, "Contents");
    expectLoadError(objectFile(0x60000, &one), kRecord0 + "field 0xF002 (\"Mins\") is missing");
    Bytes file = objectFile(0x60000, &one);
    ASSERT_EQ(file[kFirstKind], 1);
    file[kFirstKind] = 9;
    expectLoadError(file, kRecord0 + "field 0xF001 (\"Contents\") has unknown kind 9");
    twice.addDWordField(0xF001, P::ACCESS_READWRITE, "Contents");
    twice.addDWordField(0xF002, P::ACCESS_READWRITE, "Again");
    file = objectFile(0x60000, &twice);
    file[kFirstKind + 28] = 0x01; // second field's ID 0xF002 -> 0xF001
    expectLoadError(file, kRecord0 + "field 0xF001 (\"Again\") appears twice");
    file = objectFile(0x60000, &one);
    std::memset(&file[kFirstRecord + 28], 0xFF, 4);
    expectLoadError(file, kRecord0 + "field count 4294967295 at offset 44 needs at least 24 bytes each, but only 32 "
                                     "bytes are left in chunk 0x4B4C4250 (\"PBLK\")");

    // A byte array longer than its field (the length follows the last "Nodes", not "NumNodes").
    file = fileWithRecord(Record{1, 0, 0, {1, 2, 3}, {}});
    size_t nodesAt = std::string(file.begin(), file.end()).rfind("Nodes");
    ASSERT_NE(nodesAt, std::string::npos);
    file[nodesAt + 8] = 0x7F;
    expectLoadError(file, kRecord0 + "unexpected end of chunk 0x20444C46 (\"FLD \") at offset 209: a byte array needs "
                                     "2130706435 bytes, 3 left");
}

TEST(ClipIO, InvalidTreesAndCountsTheDataCannotHoldAreRefusedExtraNodeBytesIgnored)
{
    Record tree{1, 2, 1, {}, planeRecords({mrPlane(1, 0, 0, 0)})};
    const std::pair<std::vector<mrClipNode>, const char*> broken[] = {
        {{clipNode(0, 1, -1), clipNode(0, 0, -2)}, "node 1: child 0 is node 0, which does not come after its parent"},
        {{clipNode(0, 0, -1), clipNode(0, -1, -2)}, "node 0: child 0 is node 0, which does not come after its parent"},
        {{clipNode(0, 1, -1), clipNode(3, -1, -2)}, "node 1: plane index 3 out of range (1 planes)"},
        {{clipNode(0, 2, -1), clipNode(0, -1, -2)}, "node 0: child 0 is node 2, out of range (2 nodes)"},
        {{clipNode(-1, 1, -1), clipNode(0, -1, -2)}, "node 0: plane index -1 out of range (1 planes)"},
    };
    for (const auto& b : broken)
    {
        tree.nodes = nodeRecords(b.first);
        expectLoadError(fileWithRecord(tree), kRecord0 + "the clip BSP is not valid: " + b.second);
    }
    tree.nodes = nodeRecords({clipNode(0, 1, -1), clipNode(0, -1, -2), clipNode(7, 7, 7)});
    ClipPtr ok = loadOne(fileWithRecord(tree));
    ASSERT_NE(ok, nullptr);
    EXPECT_EQ(ok->m_numnodes, 2u);

    mtest::AssertRecorder asserts;
    const std::string nodes = kRecord0 + "field 0xF005 (\"Nodes\") holds 12 bytes, but \"NumNodes\" ";
    Record r{1, 0xFFFFFFFFu, 0, nodeRecords({clipNode(0, -1, -2)}), {}};
    expectLoadError(fileWithRecord(r), nodes + "4294967295 needs 51539607540");
    r.numnodes = 2;
    expectLoadError(fileWithRecord(r), nodes + "2 needs 24");
    EXPECT_TRUE(asserts.reports().empty());

    // An animation key count the chunk cannot hold; no animation chunk at all.
    Bytes file = fileWithRecord(Record());
    std::memset(&file[file.size() - 4], 0xFF, 4);
    expectLoadError(file, kRecord0 + "animation key count 4294967295 at offset 284 needs at least 20 bytes each, but "
                                     "only 0 bytes are left in chunk 0x4D494E41 (\"ANIM\")");
    file = fileWithRecord(Record());
    file.resize(file.size() - 12);
    uint32_t len = 0;
    std::memcpy(&len, &file[kFirstRecord + 4], 4); // the host is little-endian like the file
    len -= 12;
    std::memcpy(&file[kFirstRecord + 4], &len, 4);
    expectLoadError(file, kRecord0 + "unexpected end of chunk 0x204A424F (\"OBJ \") at offset 272: a chunk header "
                                     "needs 8 bytes, 0 left");
}

// Every prefix of a valid file and thousands of corrupted copies: each load either
// fails with a message, releasing what it loaded, or gives clip BSPs that pass validation
// and answer queries.
TEST(ClipIO, TruncatedAndCorruptedFilesNeverCrash)
{
    std::vector<srClass*> objects = {makeBox(V(-16, -16, -16), V(16, 16, 16)).release(), makeSlab().release()};
    Bytes good = save(objects);
    releaseAll(objects);
    mtest::AssertRecorder asserts; // plane-count reports are expected for some variants
    size_t before = liveClipBSPs();
    std::string error;
    for (size_t cut = 0; cut < good.size(); ++cut)
    {
        std::vector<srClass*> out;
        ASSERT_FALSE(io().loadBuffer(good.data(), cut, out, &error, "cut")) << "cut at " << cut;
        ASSERT_TRUE(!error.empty() && out.empty());
    }
    EXPECT_EQ(error.rfind("cut: record 1: ", 0), 0u) << error; // the first record was loaded, then let go
    std::mt19937 rng(20240517u);
    size_t loadedOk = 0;
    for (int variant = 0; variant < 4000; ++variant)
    {
        Bytes bad = good;
        for (int f = 0, flips = 1 + (int)(rng() % 4); f < flips; ++f)
        {
            size_t at = rng() % bad.size();
            bad[at] = (unsigned char)(variant % 3 == 0 ? (bad[at] ^ (1u << (rng() % 8))) : rng() % 256);
        }
        std::vector<srClass*> out;
        std::string error;
        if (!io().loadBuffer(bad, out, &error, "flip"))
        {
            ASSERT_TRUE(!error.empty() && out.empty());
            continue;
        }
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
    // Flips in float payloads leave the file loadable; many variants must get through.
    EXPECT_GT(loadedOk, 100u);
    EXPECT_EQ(liveClipBSPs(), before);
}

// =================================================================================
// Saving: files, failures, and what the writer refuses.

namespace
{
// A class with an ID of our choosing, and a handler whose class ID picks how it misbehaves.
class FakeObject : public srClass
{
public:
    explicit FakeObject(unsigned long id) : m_id(id) {}
    unsigned long getClassID() const override { return m_id; }
    unsigned long m_id;
};

const unsigned long LEAVE_OPEN = 0x71, NO_OBJECT = 0x72, TWO_OBJECTS = 0x73, THROW = 0x74, WIDE = 0x100000000ul;
class FakeHandler : public mrClassIOHandler
{
public:
    explicit FakeHandler(unsigned long id) : m_id(id) {}
    unsigned long getClassID() override { return m_id; }
    srClass* importObject(mrChunkIFStream& stream, mrIOEntry& entry) override
    {
        stream.skip(stream.remaining());
        if (m_id == NO_OBJECT)
            return nullptr;
        if (m_id == TWO_OBJECTS || m_id == THROW)
            entry.m_object = new FakeObject(m_id);
        if (m_id == THROW)
            throw std::bad_alloc();
        return new FakeObject(m_id);
    }
    void exportObject(mrChunkOFStream& stream, srClass*) override
    {
        if (m_id == LEAVE_OPEN)
            stream.beginChunk(0x1234);
    }
    unsigned long m_id;
};
} // namespace

TEST(ClipIO, SaveFileReplacesAtomicallyAndLoadFileReads)
{
    mtest::TempDir dir;
    std::string path = dir.file("test.mrc"), error;
    ClipPtr slab = makeSlab();
    ASSERT_TRUE(io().saveFile(path, {slab.get()}, &error)) << error;
    ASSERT_TRUE(io().saveFile(path, {slab.get(), slab.get()}, &error)) << error;
    std::vector<srClass*> loaded;
    ASSERT_TRUE(io().loadFile(path, loaded, &error)) << error;
    EXPECT_EQ(loaded.size(), 2u);
    releaseAll(loaded);

    // A failed save leaves the earlier file as it was, and no temporary file behind.
    std::string before = mtest::readFile(path);
    FakeObject* stranger = new FakeObject(0x4242);
    EXPECT_FALSE(io().saveFile(path, {slab.get(), stranger}, &error));
    EXPECT_EQ(error, path + ": object 1 (class 0x4242): no IO handler is registered for this class ID");
    EXPECT_EQ(mtest::readFile(path), before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);

    EXPECT_FALSE(io().saveFile(dir.file("missing/test.mrc"), {slab.get()}, &error));
    EXPECT_EQ(error.rfind(dir.file("missing/test.mrc") + ": cannot create a temporary file beside it: ", 0), 0u);
    std::filesystem::create_directory(dir.file("adir"));
    EXPECT_FALSE(io().saveFile(dir.file("adir"), {slab.get()}, &error));
    EXPECT_EQ(error, dir.file("adir") + ": is a directory, not a file name");
    EXPECT_FALSE(io().loadFile(dir.file("none.mrc"), loaded, &error));
    EXPECT_EQ(error, dir.file("none.mrc") + ": cannot open: No such file or directory");
    EXPECT_FALSE(io().loadFile(dir.file("adir"), loaded, &error));
    EXPECT_EQ(error, dir.file("adir") + ": not a regular file");
    Bytes out;
    EXPECT_FALSE(io().saveBuffer({slab.get(), nullptr}, out, &error));
    EXPECT_EQ(error, "object 1 is null");
    stranger->release();
}

TEST(ClipIO, HandlerContractViolationsAreErrors)
{
    const unsigned long ids[] = {LEAVE_OPEN, NO_OBJECT, TWO_OBJECTS, THROW, WIDE};
    for (unsigned long id : ids)
        io().registerHandler(new FakeHandler(id));
    std::string error;
    Bytes out;
    FakeObject* open = new FakeObject(LEAVE_OPEN);
    EXPECT_FALSE(io().saveBuffer({open}, out, &error));
    EXPECT_EQ(error, "object 0 (class 0x71): the handler left 1 chunks open");
    FakeObject* wide = new FakeObject(WIDE);
    EXPECT_FALSE(io().saveBuffer({wide}, out, &error));
    EXPECT_EQ(error, "object 0 (class 0x100000000): the class ID does not fit 32 bits");
    expectLoadError(objectFile(NO_OBJECT, nullptr), "test.mrc: record 0 (class 0x72): the handler produced no object");
    expectLoadError(objectFile(TWO_OBJECTS, nullptr),
                    "test.mrc: record 0 (class 0x73): the handler produced two different objects");
    expectLoadError(objectFile(THROW, nullptr), "test.mrc: record 0 (class 0x74): out of memory");

    // The clip BSP handler refuses other objects.
    mrClipBSPIOHandler clip;
    mrChunkOFStream s;
    clip.exportObject(s, open);
    EXPECT_EQ(s.error(), "the object is not a clip BSP");
    delete[] clip.allocPointerArray(3);
    for (unsigned long id : ids)
        io().removeHandler(id);
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

    mrParamBlock wideID, noData, oddBlock;
    wideID.addDWordField(0x100000000ul, mrParamBlock::ACCESS_READWRITE, "Wide");
    noData.addByteArrayPtrField(0x10, mrParamBlock::ACCESS_READWRITE, "Ptr");
    noData.setByteArrayPtrField(0x10, nullptr, 5);
    mrParamBlock::Field odd;
    odd.m_id = 0x11;
    odd.m_kind = (mrParamBlock::e_fieldKind)5; // within the enum's range, but no kind
    oddBlock.appendField(odd);
    const std::pair<mrParamBlock*, const char*> cases[] = {
        {&wideID, "field 0x100000000 does not fit a 32-bit field ID"},
        {&noData, "byte array of 5 bytes has no data"},
        {&oddBlock, "field 0x11 has unknown kind 5"},
    };
    for (const auto& c : cases)
    {
        mrChunkOFStream out;
        EXPECT_EQ(c.first->exportData(out), 0);
        EXPECT_EQ(out.error(), c.second);
    }

    ClipPtr bsp(new mrClipBSP);
    bsp->m_keys = {{0, 0x100000000ul, V()}};
    mrChunkOFStream d;
    mrClipBSPIOHandler handler;
    handler.exportObject(d, bsp.get());
    EXPECT_EQ(d.error(), "animation key for field ID 4294967296 does not fit 32 bits");
}

TEST(ChunkStreams, ReaderChecksEveryReadAndKeepsTheFirstError)
{
    const unsigned char data[] = {1, 0, 0, 0, 0x41, 0x41, 0x41, 0x41, 2, 0, 0, 0, 9, 9};
    mrChunkIFStream s(data, sizeof data);
    EXPECT_EQ(s.readU32(), 1u);
    uint32_t id = 0;
    ASSERT_TRUE(s.openChunk(id));
    EXPECT_EQ(std::make_pair(id, s.remaining()), std::make_pair(0x41414141u, (size_t)2));
    EXPECT_EQ(s.readU32(), 0u);
    EXPECT_EQ(s.error(), "unexpected end of chunk 0x41414141 (\"AAAA\") at offset 12: a 32-bit value needs 4 bytes, "
                         "2 left");
    // Sticky: later reads fail even where they would fit.
    EXPECT_FALSE(s.skip(1));
    EXPECT_FALSE(s.closeChunk());
    EXPECT_EQ(s.error().substr(0, 18), "unexpected end of ");

    mrChunkIFStream t(data, sizeof data), u(data, sizeof data), v(data, sizeof data);
    unsigned char out[32];
    EXPECT_FALSE(t.readBytes(out, 15));
    EXPECT_EQ(t.error(), "unexpected end of file at offset 0: a byte block needs 15 bytes, 14 left");
    EXPECT_TRUE(u.skip(4));
    EXPECT_TRUE(u.readBytes(out, 4));
    EXPECT_FALSE(u.closeChunk());
    EXPECT_EQ(u.error(), "closeChunk without an open chunk");
    EXPECT_FALSE(v.skip(20));
    EXPECT_EQ(v.error(), "unexpected end of file at offset 0: skipping needs 20 bytes, 14 left");
    mrChunkIFStream w(nullptr, 100);
    EXPECT_EQ(std::make_pair(w.size(), w.readU32()), std::make_pair((size_t)0, 0u));
    EXPECT_TRUE(w.failed());
}
