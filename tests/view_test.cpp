// The view page, opened as people open it: the tool writes the page, headless Chromium
// loads it from disk, and the tests look at what it draws and at the answers its scripts
// give. Without a browser the page tests are skipped.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#include <stb/stb_image.h>

#include "BenchMesh.h"
#include "MeshReader.h"
#include "support/TestSupport.h"

namespace
{

const std::string BINARY = MERIDBSP_BINARY_DIR "/meridbsp";
const std::string DEMO_LEVEL = MERIDBSP_SOURCE_DIR "/data/demo-level.obj";
const std::string PROBE = MERIDBSP_SOURCE_DIR "/tests/data/view_probe.js";
const std::string BROWSER = "/usr/bin/chromium";
// The browser's own connections and extras are turned off (machines without a network
// refuse them, and they slow the start); WebGL runs on the software renderer. Virtual time
// runs ahead while the page idles; when the budget is spent the DOM is printed and the
// screenshot taken.
const char* const BROWSER_FLAGS =
    " --headless --no-sandbox --disable-gpu --use-angle=swiftshader --enable-unsafe-swiftshader --hide-scrollbars"
    " --mute-audio --no-first-run --disable-background-networking --disable-quic --disable-component-update"
    " --disable-sync --disable-extensions --disable-features=MediaRouter,OptimizationHints,Translate"
    " --virtual-time-budget=60000";

srVector3T<float> V(float x, float y, float z) { return srVector3T<float>(x, y, z); }

// Runs the tool with `args` (shell words) in `dir`; the exit code.
int runTool(const std::string& dir, const std::string& args)
{
    const int status = std::system(("cd '" + dir + "' && '" + BINARY + "' " + args + " >/dev/null").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What a page showed: the values of the expressions asked for, and a screenshot.
struct Shown
{
    nlohmann::json values;
    int width = 0, height = 0;
    std::vector<unsigned char> rgb; // row by row from the top
};

// Pixels of a screenshot sorted by the colours the page's layers use.
struct Colours
{
    double background = 0; // the page's clear colour
    double slice = 0;      // solid cells of the clip BSP slice (blue)
    double portals = 0;    // saturated colours that are neither blue nor red: leaves' portals
    long leak = 0;         // the leak path's red
};

Colours sortColours(const Shown& image)
{
    Colours c;
    const size_t n = (size_t)image.width * (size_t)image.height;
    for (size_t i = 0; i < n; ++i)
    {
        const int r = image.rgb[3 * i], g = image.rgb[3 * i + 1], b = image.rgb[3 * i + 2];
        const int hi = std::max(r, std::max(g, b)), lo = std::min(r, std::min(g, b));
        const bool blue = b > 150 && b > r + 60 && b > g + 40;
        const bool red = r > 180 && g < 70 && b < 70;
        if (std::abs(r - 0x1b) + std::abs(g - 0x1d) + std::abs(b - 0x23) < 8)
            c.background += 1;
        else if (blue)
            c.slice += 1;
        else if (red)
            ++c.leak;
        else if (hi - lo > 60)
            c.portals += 1;
    }
    c.background /= (double)n;
    c.slice /= (double)n;
    c.portals /= (double)n;
    return c;
}

class ViewPageTest : public ::testing::Test
{
protected:
    mtest::TempDir dir;

    void SetUp() override
    {
        if (!std::filesystem::exists(BINARY))
            GTEST_SKIP() << BINARY << " is not built (configure with MERIDBSP_BUILD_CLI=ON)";
        if (!std::filesystem::exists(BROWSER))
            GTEST_SKIP() << "no headless browser: " << BROWSER
                         << " is not installed (tools/install-deps.sh --test installs Debian's chromium)";
    }

    // Opens a copy of a page the tool wrote in the test's directory, with the probe of
    // tests/data put first, in headless Chromium at width x height; fails the test on any
    // script error up to the first frame. The screenshot, when `keepAs` names one, is also
    // kept in the build tree for people to look at.
    void show(const std::string& page, const std::vector<std::string>& expressions, int width, int height,
              const std::string& keepAs, Shown& shown)
    {
        std::string html = mtest::readFile(dir.file(page));
        html.insert(html.find("<head>") + 6, "<script>window.meridProbe = " + nlohmann::json(expressions).dump() +
                                                 ";\n" + mtest::readFile(PROBE) + "</script>");
        mtest::writeFile(dir.file("probe.html"), html);
        const std::string shot = keepAs.empty() ? "" : MERIDBSP_BINARY_DIR "/tests/" + keepAs;
        const std::string command = "timeout 300 " + BROWSER + BROWSER_FLAGS + " --user-data-dir='" +
                                    dir.file("profile") + "' --window-size=" + std::to_string(width) + "," +
                                    std::to_string(height) + (shot.empty() ? "" : " --screenshot='" + shot + "'") +
                                    " --dump-dom 'file://" + dir.file("probe.html") + "' >'" + dir.file("dom") +
                                    "' 2>'" + dir.file("browser.log") + "'";
        ASSERT_EQ(std::system(command.c_str()), 0) << mtest::readFile(dir.file("browser.log"));
        const std::string dom = mtest::readFile(dir.file("dom")), tag = "<pre id=\"merid-probe\">";
        const size_t at = dom.find(tag);
        ASSERT_NE(at, std::string::npos) << "the probe did not run:\n" << dom;
        const nlohmann::json probe =
            nlohmann::json::parse(dom.substr(at + tag.size(), dom.find("</pre>", at) - at - tag.size()));
        ASSERT_TRUE(probe["ready"]) << "the page never drew a frame: " << probe["errors"];
        EXPECT_EQ(probe["errors"], nlohmann::json::array());
        shown.values = probe["values"];
        if (shot.empty())
            return;
        int channels = 0;
        unsigned char* pixels = stbi_load(shot.c_str(), &shown.width, &shown.height, &channels, 3);
        ASSERT_NE(pixels, nullptr) << "no screenshot in " << shot;
        shown.rgb.assign(pixels, pixels + (size_t)shown.width * (size_t)shown.height * 3);
        stbi_image_free(pixels);
    }
};

} // namespace

TEST_F(ViewPageTest, DemoPageOpensOfflineWithoutScriptErrorsAndDrawsItsLayers)
{
    ASSERT_EQ(runTool(dir.path(), "demo --out ."), 0);
    const std::string html = mtest::readFile(dir.file("view.html"));
    // Self-contained: nothing is fetched, and three.js keeps its licence notice.
    EXPECT_EQ(html.find("src=\"http"), std::string::npos);
    EXPECT_EQ(html.find("<link"), std::string::npos);
    EXPECT_NE(html.find("three.js authors"), std::string::npos);
    EXPECT_NE(html.find("Permission is hereby granted"), std::string::npos);

    // The demo level: nine open leaves joined by twelve portals, and no leak.
    Shown shown;
    ASSERT_NO_FATAL_FAILURE(
        show("view.html",
             {"meridView.data.leaves.contents.filter(c => c !== 1).length",
              "meridView.data.counts.find(r => r[0] === 'portals between open leaves')[1]", "meridView.data.leak.path"},
             1024, 700, "view-demo.png", shown));
    EXPECT_EQ(shown.values, nlohmann::json({9, 12, nullptr}));
    ASSERT_EQ(shown.width, 1024);
    const Colours c = sortColours(shown);
    EXPECT_GT(c.background, 0.25);
    EXPECT_LT(c.background, 0.9);
    EXPECT_GT(c.slice, 0.03) << "the slice's solid cells";
    EXPECT_GT(c.portals, 0.005) << "the portals between open leaves";
    EXPECT_EQ(c.leak, 0) << "no leak path in the closed demo level";
}

TEST_F(ViewPageTest, LeakLayerOfALeakingLevelShowsThePath)
{
    // The demo level without room A's west wall leaks from room A.
    std::string obj = mtest::readFile(DEMO_LEVEL);
    for (const char* wall : {"f 1 4 6\n", "f 1 6 5\n"})
        obj.erase(obj.find(wall), std::strlen(wall));
    mtest::writeFile(dir.file("leaky.obj"), obj);
    ASSERT_EQ(runTool(dir.path(), "view leaky.obj --inside 128,128,64 -o leaky.html"), 0);

    Shown shown;
    ASSERT_NO_FATAL_FAILURE(show("leaky.html", {"meridView.data.leak.path"}, 1024, 700, "view-leak.png", shown));
    ASSERT_NE(shown.values[0], nullptr) << "no leak path in the page";
    EXPECT_GT(sortColours(shown).leak, 200) << "the leak path is not drawn";
}

// The page answers point and segment queries itself, from the clip BSP it carries; its
// answers must be the library's, bit for bit. A torus has planes of every slant, so the
// float rounding of each step matters.
TEST_F(ViewPageTest, PageAnswersPointsAndTracesExactlyAsTheLibrary)
{
    BenchMesh torus("torus", "torus", BenchMesh::ORIENT_OUTWARD);
    mtest::addTorus(*torus.mesh(), 96.5f, 31.25f, 24, 12);
    // In the hole, about the middle plane x = 0 (the root): a solid block up to x = -0.03,
    // a solid sheet from x = 0 to 0.01 and a block that keeps the middle at 0. A segment
    // from x = 1 into the first block is cut at x = 0 first, stops at x = -0.03, and its
    // crossing point, inside the sheet, backs off.
    mtest::addBox(*torus.mesh(), V(-10, -1, -1), V(-0.03f, 1, 1), true);
    mtest::addBox(*torus.mesh(), V(0, -1, -1), V(0.01f, 1, 1), true);
    mtest::addBox(*torus.mesh(), V(9, -1, -1), V(10, 1, 1), true);
    torus.finish();
    ASSERT_TRUE(torus.writeObj(dir.file("torus.obj")));
    ASSERT_EQ(runTool(dir.path(), "view torus.obj -o torus.html"), 0);

    // The library's clip BSP of the mesh the tool read.
    std::string error;
    srMeshModel* mesh = MeshReader::read(dir.file("torus.obj"), error);
    ASSERT_NE(mesh, nullptr) << error;
    mrClipPipeline::Result clip;
    ASSERT_TRUE(mrClipPipeline::run(mesh, mrClipPipeline::Settings(), clip, error)) << error;
    const mrClipBSP& bsp = *clip.clipBSP;

    // Random points over the bounds, points on and just off triangle centres, random
    // segments, and segments through the surface (which stop and back off).
    uint32_t seed = 12345;
    auto random = [&](float lo, float hi)
    {
        seed = seed * 1664525u + 1013904223u;
        return lo + (hi - lo) * (float)(seed >> 8) / 16777216.0f;
    };
    auto scaled = [](const srVector3T<float>& v, float k) { return V(v.x * k, v.y * k, v.z * k); };
    auto randomPoint = [&]()
    {
        return srVector3T<float>(random(bsp.m_mins.x - 8, bsp.m_maxs.x + 8), random(bsp.m_mins.y - 8, bsp.m_maxs.y + 8),
                                 random(bsp.m_mins.z - 8, bsp.m_maxs.z + 8));
    };
    std::vector<srVector3T<float>> points;
    std::vector<std::pair<srVector3T<float>, srVector3T<float>>> segments;
    for (int i = 0; i < 2000; ++i)
        points.push_back(randomPoint());
    for (int i = 0; i < 50; ++i) // on the blocks' faces: the front side takes them
    {
        points.push_back(V(0, random(-1, 1), random(-1, 1)));
        points.push_back(V(random(-10, 10), 1, random(-1, 1)));
    }
    for (int i = 0; i < 300; ++i)
        segments.push_back({randomPoint(), randomPoint()});
    for (int i = 0; i < 50; ++i)
        segments.push_back(
            {V(1, random(-0.9f, 0.9f), random(-0.9f, 0.9f)), V(random(-0.25f, -0.05f), random(-0.9f, 0.9f), 0)});
    srVector3T<float> previous;
    for (size_t t = 0; t < mesh->m_polyVerts.size(); t += 3)
    {
        const srVector3i& tri = mesh->m_polyVerts[t];
        const srVector3T<float>& a = mesh->m_verts[tri.x];
        const srVector3T<float>& b = mesh->m_verts[tri.y];
        const srVector3T<float>& c = mesh->m_verts[tri.z];
        const srVector3T<float> centre((a.x + b.x + c.x) / 3, (a.y + b.y + c.y) / 3, (a.z + b.z + c.z) / 3);
        for (float k : {0.999f, 1.0f, 1.001f})
            points.push_back(scaled(centre, k));
        segments.push_back({scaled(centre, 1.2f), scaled(centre, 0.9f)});
        // Grazing the surface from one centre to the last: crossings near edges back off.
        if (t > 0)
            segments.push_back({scaled(centre, 1.002f), scaled(previous, 0.998f)});
        previous = centre;
    }
    mesh->release();

    nlohmann::json p = nlohmann::json::array(), s = nlohmann::json::array();
    nlohmann::json expected = {{"points", nlohmann::json::array()}, {"traces", nlohmann::json::array()}};
    auto bits = [](float f)
    {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        return u;
    };
    for (const srVector3T<float>& q : points)
    {
        p.push_back({q.x, q.y, q.z});
        expected["points"].push_back(bsp.pointInfo(0, q));
    }
    for (const auto& seg : segments)
    {
        s.push_back({seg.first.x, seg.first.y, seg.first.z, seg.second.x, seg.second.y, seg.second.z});
        mrTrace t;
        const int clear = bsp.checkCollision(seg.first, seg.second, t);
        expected["traces"].push_back({clear, t.m_startSolid, t.m_allSolid, t.m_inOpen, bits(t.m_fraction),
                                      bits(t.m_endPos.x), bits(t.m_endPos.y), bits(t.m_endPos.z),
                                      bits(t.m_planeNormal.x), bits(t.m_planeNormal.y), bits(t.m_planeNormal.z),
                                      bits(t.m_planeDist)});
    }

    Shown shown;
    ASSERT_NO_FATAL_FAILURE(
        show("torus.html", {"meridView.answers(" + p.dump() + ", " + s.dump() + ")"}, 640, 480, "", shown));
    const nlohmann::json& answers = shown.values[0];
    ASSERT_EQ(answers["points"].size(), points.size());
    ASSERT_EQ(answers["traces"].size(), segments.size());
    for (size_t i = 0; i < points.size(); ++i)
        ASSERT_EQ(answers["points"][i], expected["points"][i]) << "point " << p[i];
    for (size_t i = 0; i < segments.size(); ++i)
        ASSERT_EQ(answers["traces"][i], expected["traces"][i]) << "segment " << s[i];
    // Both kinds of answer occur: solid and empty points, clear and stopped traces.
    EXPECT_NE(answers["points"].dump().find("-2"), std::string::npos);
    EXPECT_NE(answers["points"].dump().find("-1"), std::string::npos);
}
