// The one-call pipelines give exactly what the module's steps give, own and release
// their outputs, and say what went wrong.
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/dx/srMaterialIFace.h>

#include "support/TestSupport.h"

namespace
{
typedef srVector3T<float> V;

void buildMesh(int which, srMeshModel& mesh)
{
    if (which == 0)
        mtest::addTwoRoomLevel(mesh);
    else
        mtest::addTorus(mesh, 40, 12, 12, 8);
}

TEST(VisPipeline, GivesWhatTheStepsGiveInBothModes)
{
    mtest::TempDir dir;
    for (int which = 0; which < 2; ++which)
        for (int midSplit = 0; midSplit < 2; ++midSplit)
        {
            SCOPED_TRACE(testing::Message() << "mesh " << which << " midSplit " << midSplit);
            srMeshModel mesh;
            buildMesh(which, mesh);
            std::string stepsFile;
            long stepsPolys = 0;
            mrSolidBSP counters;
            {
                mtest::VisRun steps(mesh, midSplit);
                counters = steps.bsp;
                steps.portalizer.portalize(steps.head);
                stepsFile = steps.portalFile();
                steps.withPortalMesh([&](srMeshModel& m) { stepsPolys = m.m_numpolys; });
            }
            mrVisPipeline::Settings settings;
            settings.midSplit = midSplit != 0;
            settings.portalFile = dir.file("test.prt");
            // An observer sees the portalized tree once and changes nothing: the portals
            // it finds between open leaves are the portal file's.
            int calls = 0, openPortals = 0;
            settings.observer = [&](const mrBSPNode* head, const mrBSPPortalizer&)
            {
                ++calls;
                std::vector<const mrBSPNode*> stack{head};
                for (; !stack.empty(); stack.pop_back())
                {
                    const mrBSPNode* n = stack.back();
                    if (n->m_plane)
                    {
                        stack.insert(stack.begin(), {n->m_children[0], n->m_children[1]});
                        continue;
                    }
                    for (const mrBSPPortal* p = n->m_portals; p; p = p->m_next[p->m_nodes[0] == n ? 0 : 1])
                        openPortals += p->m_nodes[0] == n && n->m_contents == 0 && p->m_nodes[1]->m_contents == 0;
                }
            };
            mrVisPipeline::Result result;
            std::string error;
            ASSERT_TRUE(mrVisPipeline::run(&mesh, settings, result, error)) << error;
            EXPECT_EQ(calls, 1);
            EXPECT_EQ(openPortals, result.numVisportals);
            EXPECT_EQ(mtest::readFile(settings.portalFile), stepsFile);
            EXPECT_EQ(result.numSplitNodes, counters.m_numSplitNodes);
            EXPECT_EQ(result.numEmptyLeafs, counters.m_numEmptyLeafs);
            EXPECT_EQ(result.numSolidLeafs, counters.m_numSolidLeafs);
            EXPECT_EQ(result.numLinkedFaces, counters.m_numLinkedFaces);
            EXPECT_EQ(result.faces, (unsigned)mesh.m_numpolys);
            ASSERT_NE(result.portalMesh, nullptr);
            EXPECT_EQ(result.portalMesh->m_numpolys, stepsPolys);
            EXPECT_TRUE(result.warnings.empty());

            // The same portal file into a stream the caller holds.
            FILE* stream = std::tmpfile();
            settings.portalStream = stream;
            ASSERT_TRUE(mrVisPipeline::run(&mesh, settings, result, error)) << error;
            std::string streamed;
            std::rewind(stream);
            for (int c; (c = std::fgetc(stream)) != EOF;)
                streamed += (char)c;
            std::fclose(stream);
            EXPECT_EQ(streamed, stepsFile);
        }
}

TEST(VisPipeline, PortalMeshMaterialsLiveAsLongAsTheResult)
{
    srMeshModel mesh;
    mtest::addTwoRoomLevel(mesh);
    mrVisPipeline::Settings settings;
    mrVisPipeline::Result first, second;
    std::string error;
    ASSERT_TRUE(mrVisPipeline::run(&mesh, settings, first, error));
    ASSERT_TRUE(mrVisPipeline::run(&mesh, settings, second, error));
    // The second run replaced the portalizer's material table; the first mesh's
    // materials must still be there (a sanitizer run sees any use after release).
    ASSERT_FALSE(first.portalMesh->m_polyMaterials.empty());
    for (srMaterialIFace* m : first.portalMesh->m_polyMaterials)
        ASSERT_NE(m, nullptr);
    EXPECT_EQ(first.portalMesh->m_polyMaterials.size(), second.portalMesh->m_polyMaterials.size());
    first.release();
    EXPECT_EQ(first.portalMesh, nullptr);
}

TEST(VisPipeline, ReportsWhatCannotBeDoneAndWhatMayGoWrong)
{
    mrVisPipeline::Settings settings;
    mrVisPipeline::Result result;
    std::string error;
    EXPECT_FALSE(mrVisPipeline::run(nullptr, settings, result, error));
    EXPECT_EQ(error, "no mesh");

    srMeshModel mesh;
    mtest::addBox(mesh, V(-16, -16, -16), V(16, 16, 16), false);
    settings.portalFile = "/nonexistent-dir/test.prt";
    EXPECT_FALSE(mrVisPipeline::run(&mesh, settings, result, error));
    EXPECT_EQ(error, "/nonexistent-dir/test.prt: cannot write the portal file");

    // Portals start as squares 65536 units across: a box whose widened corners reach
    // farther than that from the origin may lose portal area, and the user is told.
    settings.portalFile.clear();
    settings.portalMesh = false;
    for (float far : {37000.0f, 38000.0f})
    {
        srMeshModel far_mesh;
        mtest::addBox(far_mesh, V(-far, -far, -far), V(far, far, far), false);
        ASSERT_TRUE(mrVisPipeline::run(&far_mesh, settings, result, error));
        EXPECT_EQ(result.warnings.size(), far > 37800.0f ? 1u : 0u) << far;
        EXPECT_EQ(result.portalMesh, nullptr);
    }
}

TEST(VisPipeline, FindsTheOpenSpaceJoinedToTheOutside)
{
    srMeshModel mesh;
    mtest::addTwoRoomLevel(mesh);
    mrVisPipeline::Settings settings;
    settings.portalMesh = false;
    settings.insidePoints = {V(32, 32, 32), V(-100, 0, 0)};
    mrVisPipeline::Result result;
    std::string error;
    ASSERT_TRUE(mrVisPipeline::run(&mesh, settings, result, error)) << error;
    const mrLeakFinder::Report& r = result.leaks;
    EXPECT_EQ(r.openLeaves, result.numEmptyLeafs);
    EXPECT_EQ(std::make_tuple(r.reachable, r.enclosed), std::make_tuple(0L, r.openLeaves));
    ASSERT_EQ(r.points.size(), 2u);
    EXPECT_TRUE(r.points[0].inOpenLeaf);
    EXPECT_FALSE(r.points[1].inOpenLeaf);

    settings.findLeaks = false;
    ASSERT_TRUE(mrVisPipeline::run(&mesh, settings, result, error)) << error;
    EXPECT_EQ(result.leaks.openLeaves, 0);
    EXPECT_TRUE(result.leaks.points.empty());
}

TEST(ClipPipeline, GivesWhatTheGeneratorGivesWithOffsetAndMatrix)
{
    srMeshModel mesh;
    mtest::addTorus(mesh, 40, 12, 12, 8);
    mrClipPipeline::Settings settings;
    settings.offset = V(3, -5, 7);
    const float turn[9] = {0, 1, 0, -1, 0, 0, 0, 0, 1};
    std::memcpy(settings.matrix.m, turn, sizeof turn);

    V offset = settings.offset;
    srMatrix3T<float> matrix = settings.matrix;
    mrClipBSPGen gen;
    mtest::ClipPtr expected(gen.importMeshModel(&mesh, offset, matrix));

    mrClipPipeline::Result result;
    std::string error;
    // Every thread count (0: all cores) gives the same.
    for (int threads : {0, 2, 1})
    {
        settings.threads = threads;
        ASSERT_TRUE(mrClipPipeline::run(&mesh, settings, result, error));
        ASSERT_NE(result.clipBSP, nullptr);
        EXPECT_EQ(mtest::saveBuffer({result.clipBSP}), mtest::saveBuffer({expected.get()}));
        EXPECT_EQ(result.numSolidLeafs, gen.m_numsolidleafs);
        EXPECT_EQ(result.numEmptyLeafs, gen.m_numemptyleafs);
        EXPECT_EQ(result.numLeafFaces, gen.m_numleaffaces);
        EXPECT_TRUE(result.warnings.empty());
    }

    mtest::ClipPtr taken(result.take());
    EXPECT_EQ(result.clipBSP, nullptr);
    EXPECT_EQ(taken->pointInfo(0, offset), expected->pointInfo(0, offset));
}

// What a progress callback hears: per stage a start at 0, rising reports, an end at the
// total (or, when the amount is not known, at the final count); long stages report from
// inside. Listening changes no result.
struct Heard
{
    std::vector<std::string> stages;
    std::vector<std::string> problems;
    size_t inside = 0; // reports strictly between start and end
    uint64_t last = 0;

    mrProgress::Callback callback()
    {
        return [this](const char* stage, uint64_t done, uint64_t total)
        {
            if (done == 0)
            {
                stages.push_back(stage);
                last = 0;
                return;
            }
            if (stages.empty() || stages.back() != stage || done < last || (total && done > total))
                problems.push_back(std::string(stage) + " " + std::to_string(done) + "/" + std::to_string(total));
            inside += done != total ? 1 : 0;
            last = done;
        };
    }
};

TEST(Pipelines, ReportProgressStageByStageAndListeningChangesNoResult)
{
    mtest::TempDir dir;
    srMeshModel mesh;
    mtest::addTorus(mesh, 40, 12, 48, 24);
    mrVisPipeline::Settings quiet;
    quiet.portalFile = dir.file("quiet.prt");
    mrVisPipeline::Result a, b;
    std::string error;
    ASSERT_TRUE(mrVisPipeline::run(&mesh, quiet, a, error)) << error;
    Heard vis;
    mrVisPipeline::Settings heard = quiet;
    heard.portalFile = dir.file("heard.prt");
    heard.progress = vis.callback();
    ASSERT_TRUE(mrVisPipeline::run(&mesh, heard, b, error)) << error;
    EXPECT_EQ(mtest::readFile(heard.portalFile), mtest::readFile(quiet.portalFile));
    EXPECT_EQ(std::tie(a.numSplitNodes, a.numEmptyLeafs, a.numSolidLeafs, a.portalMeshPolys),
              std::tie(b.numSplitNodes, b.numEmptyLeafs, b.numSolidLeafs, b.portalMeshPolys));
    EXPECT_EQ(vis.stages,
              (std::vector<std::string>{"surfaces", "solid BSP", "portals", "portal file", "portal mesh", "leaks"}));
    EXPECT_TRUE(vis.problems.empty()) << ::testing::PrintToString(vis.problems);
    EXPECT_GT(vis.inside, 100u); // from inside the solid BSP and the portals

    mrClipPipeline::Settings clipQuiet, clipHeard;
    Heard clip;
    clipHeard.progress = clip.callback();
    mrClipPipeline::Result c, d;
    ASSERT_TRUE(mrClipPipeline::run(&mesh, clipQuiet, c, error));
    ASSERT_TRUE(mrClipPipeline::run(&mesh, clipHeard, d, error));
    EXPECT_EQ(mtest::saveBuffer({d.clipBSP}), mtest::saveBuffer({c.clipBSP}));
    EXPECT_EQ(clip.stages, std::vector<std::string>{"clip BSP"});
    EXPECT_TRUE(clip.problems.empty()) << ::testing::PrintToString(clip.problems);
    EXPECT_GT(clip.inside, 100u);
}

TEST(ClipPipeline, ReportsANullMeshOrNegativeThreadsAndWarnsOfAnEmptyMesh)
{
    mrClipPipeline::Result result;
    std::string error;
    EXPECT_FALSE(mrClipPipeline::run(nullptr, mrClipPipeline::Settings(), result, error));
    EXPECT_EQ(error, "no mesh");
    srMeshModel empty;
    mrClipPipeline::Settings negative;
    negative.threads = -1;
    EXPECT_FALSE(mrClipPipeline::run(&empty, negative, result, error));
    EXPECT_EQ(error, "a negative thread count");
    ASSERT_TRUE(mrClipPipeline::run(&empty, mrClipPipeline::Settings(), result, error));
    ASSERT_EQ(result.warnings.size(), 1u);
    EXPECT_EQ(result.warnings[0], "the mesh has no triangles: the clip BSP is empty space");
}

} // namespace
