// The meridbsp tool, driven as a user drives it: the built binary, its standard output,
// standard error and exit code.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <assimp/scene.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <meridbsp/mrVersion.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "BenchMesh.h"
#include "support/TestSupport.h"

#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#endif
#include <stb/stb_image.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

namespace
{

const std::string BINARY = MERIDBSP_BINARY_DIR "/meridbsp";
const std::string DEMO_LEVEL = MERIDBSP_SOURCE_DIR "/data/demo-level.obj";

struct Outcome
{
    int code;
    std::string out;
    std::string err;
};

bool exists(const std::string& path) { return std::filesystem::exists(path); }

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

// A closed box room from (0,0,0) to (64,64,64) whose twelve triangles face inwards.
const char* ROOM_OBJ = "v 0 0 0\nv 64 0 0\nv 64 64 0\nv 0 64 0\n"
                       "v 0 0 64\nv 64 0 64\nv 64 64 64\nv 0 64 64\n"
                       "f 1 2 3\nf 1 3 4\nf 5 7 6\nf 5 8 7\nf 1 5 6\nf 1 6 2\n"
                       "f 4 3 7\nf 4 7 8\nf 1 4 8\nf 1 8 5\nf 2 6 7\nf 2 7 3\n";

// The keys of a one-line JSON object, in order (the tool writes flat objects of numbers,
// strings and arrays of numbers, so every quoted string before a colon is a key).
std::vector<std::string> jsonKeys(const std::string& json)
{
    std::vector<std::string> keys;
    const std::regex key("\"([^\"]*)\":");
    for (std::sregex_iterator i(json.begin(), json.end(), key), end; i != end; ++i)
        keys.push_back((*i)[1]);
    return keys;
}

long jsonNumber(const std::string& json, const std::string& key)
{
    std::string::size_type at = json.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : std::strtol(json.c_str() + at + key.size() + 3, nullptr, 10);
}

// Faces of a mesh file as the importer reads it without triangulating. The importer is
// reached at run time so that this test needs no link dependency of its own.
long importedFaceCount(const std::string& path)
{
    void* lib = ::dlopen("libassimp.so.5", RTLD_NOW | RTLD_LOCAL);
    if (!lib)
        return -1;
    typedef const aiScene* (*ImportFn)(const char*, unsigned int);
    typedef void (*ReleaseFn)(const aiScene*);
    ImportFn import = reinterpret_cast<ImportFn>(::dlsym(lib, "aiImportFile"));
    ReleaseFn release = reinterpret_cast<ReleaseFn>(::dlsym(lib, "aiReleaseImport"));
    long faces = -2;
    const aiScene* scene = import && release ? import(path.c_str(), 0) : nullptr;
    if (scene)
    {
        faces = 0;
        for (unsigned m = 0; m < scene->mNumMeshes; ++m)
            faces += scene->mMeshes[m]->mNumFaces;
        release(scene);
    }
    ::dlclose(lib);
    return faces;
}

// Each test runs in a fresh directory holding box.mrc (the box from (-16,-16,-16) to
// (16,16,16)) and room.obj.
class CliTest : public ::testing::Test
{
protected:
    mtest::TempDir dir;

    void SetUp() override
    {
        if (!exists(BINARY))
            GTEST_SKIP() << BINARY << " is not built (configure with MERIDBSP_BUILD_CLI=ON)";
        mtest::writeFile(dir.file("room.obj"), ROOM_OBJ);
        ASSERT_EQ(run("box -16,-16,-16 16,16,16 -o box.mrc").code, 0);
    }

    // Runs the tool in the test's directory with `args` (shell words), feeding `input` on
    // stdin; `shell` runs before it in the same shell (for limits).
    Outcome run(const std::string& args, const std::string& input = std::string(),
                const std::string& shell = std::string())
    {
        std::string in = dir.file(".stdin"), out = dir.file(".stdout"), err = dir.file(".stderr");
        mtest::writeFile(in, input);
        std::string command = "cd '" + dir.path() + "' && " + shell + " '" + BINARY + "' " + args + " <'" + in +
                              "' >'" + out + "' 2>'" + err + "'";
        int status = std::system(command.c_str());
        Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, mtest::readFile(out), mtest::readFile(err)};
        for (const std::string& f : {in, out, err})
            std::remove(f.c_str());
        return r;
    }

    // Expects the exit code, standard output (exact, or null: not checked) and a part of
    // standard error (null: not checked).
    void expectRun(const std::string& args, const std::string& input, int code, const char* out, const char* err)
    {
        SCOPED_TRACE(args);
        Outcome r = run(args, input);
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.out, out ? out : r.out);
        EXPECT_NE(r.err.find(err ? err : ""), std::string::npos) << r.err;
    }

    std::string file(const std::string& name) { return mtest::readFile(dir.file(name)); }
};

// ---- Command line ----------------------------------------------------------------

TEST_F(CliTest, VersionAndUsageErrors)
{
    expectRun("--version", "", 0, (std::string("meridbsp ") + meridbspVersion() + "\n").c_str(), nullptr);
    const char* cases[] = {"",                                 // no command
                           "frobnicate",                       // unknown command
                           "box 1,2,3 -o x.mrc",               // missing corner
                           "point box.mrc 1 2",                // two coordinates
                           "point box.mrc 1 2 3 4",            // four coordinates
                           "trace box.mrc 1 2 3",              // half a segment
                           "vis",                              // no mesh
                           "slice box.mrc --axis z -o a.png"}; // no --at
    for (const char* args : cases)
    {
        Outcome r = run(args);
        EXPECT_EQ(r.code, 2) << args;
        EXPECT_EQ(r.err.rfind("meridbsp: error: ", 0), 0u) << args << ": " << r.err;
        EXPECT_EQ(r.out, "") << args;
    }
}

TEST_F(CliTest, MalformedNumbersAreUsageErrors)
{
    const std::pair<const char*, const char*> cases[] = {
        {"point box.mrc 1 abc 3", "malformed number 'abc'"},
        {"point box.mrc 1 2 nan", "'nan' is not a finite float"},
        {"trace box.mrc 0 0 0 1e39 0 0", "'1e39' is not a finite float"},
        {"box 1,2 3,4,5 -o b.mrc", "1,2: expected 3 numbers, found 2 (expected the minimum corner as MINX,MINY,MINZ)"},
        {"box 1,2,3 3,4,5x -o b.mrc", "malformed number '5x' (expected the maximum corner as MAXX,MAXY,MAXZ)"},
        {"clip room.obj -o c.mrc --offset 1,2", "expected 3 numbers, found 2 (expected three numbers X,Y,Z)"},
        {"clip room.obj -o c.mrc --matrix 1,0,0,0,1,0,0,0", "(expected nine numbers m0,...,m8)"},
        {"slice box.mrc --axis w --at 0 -o a.png", "--axis w: expected x, y or z"},
        {"slice box.mrc --axis z --at 1..2 -o a.png", "--at 1..2: malformed number"},
        {"slice box.mrc --axis z --at 0 --size 0 -o a.png", "--size 0: expected 1 to 8192 pixels"},
        {"vis room.obj --mesh-out p.xyz", "unsupported mesh format"},
    };
    for (const auto& c : cases)
        expectRun(c.first, "", 2, nullptr, c.second);
    EXPECT_FALSE(exists(dir.file("b.mrc")));
    EXPECT_FALSE(exists(dir.file("a.png")));
}

TEST_F(CliTest, HelpStatesDefaultsAndAWordThatIsNoCommandGetsTheClosestOne)
{
    const std::pair<const char*, const char*> typos[] = {{"frob", "box"}, {"vsi", "vis"}, {"tarce", "trace"}};
    for (const auto& t : typos)
        expectRun(
            t.first, "", 2, "",
            (std::string("meridbsp: error: '") + t.first + "' is not a command; the closest is '" + t.second + "'")
                .c_str());

    Outcome top = run("--help");
    EXPECT_NE(top.out.find("-v,--verbose"), std::string::npos) << top.out;
    EXPECT_NE(top.out.find("-q,--quiet"), std::string::npos);
    for (const char* command :
         {"vis", "clip", "check", "box", "info", "dump", "point", "trace", "slice", "view", "demo"})
    {
        Outcome r = run(std::string(command) + " --help");
        ASSERT_EQ(r.code, 0) << command;
        for (const std::string& line : lines(r.out))
        {
            // No parser notation such as [XYZ(0x)]; every option with a value that is not
            // required says what it is when left out.
            EXPECT_EQ(line.find("x)"), std::string::npos) << command << ": " << line;
            const bool takesValue = line.find(" TEXT") != std::string::npos || line.find(" INT") != std::string::npos;
            if (line.rfind("  ", 0) == 0 && takesValue && line.find("REQUIRED") == std::string::npos)
            {
                EXPECT_NE(line.find("default"), std::string::npos) << command << ": " << line;
            }
        }
    }
    EXPECT_NE(run("vis --help").out.find("much faster on curved meshes"), std::string::npos);
}

// The type of every key of a command's JSON object, in order: i integer, n number, s string,
// b bool, a array, o object; a trailing ? also allows null.
const std::pair<const char*, const char*> JSON_SCHEMAS[] = {
    {"vis room.obj --json",
     "numPlanes:i numSurfaces:i numFaces:i numSplitNodes:i numLeafFaces:i numNodeFaces:i numSolidLeafs:i "
     "numEmptyLeafs:i numLinkedFaces:i numVisleafs:i numVisportals:i portalMeshPolys:i portalFile:s portalMeshFile:s "
     "health:o openLeaves:o insidePoints:a leak:o? elapsedMs:n"},
    {"clip room.obj -o room.mrc --json",
     "file:s numNodes:i numPlanes:i numEmptyLeafs:i numSolidLeafs:i numLeafFaces:i mins:a maxs:a numTriangles:i "
     "health:o elapsedMs:n"},
    {"check room.obj --json",
     "file:s triangles:i degenerateTriangles:i openEdges:i tJunctionEdges:i nonManifoldEdges:i misorientedEdges:i "
     "components:i mins:a maxs:a signedVolume:n orientation:s partsOut:i partsIn:i problems:a orientationNote:s?"},
    {"box 0,0,0 1,2,3 -o b.mrc --json",
     "file:s boxMins:a boxMaxs:a numNodes:i numPlanes:i mins:a maxs:a boundsMargin:i"},
    {"info box.mrc --json",
     "file:s class:s classID:s contents:i mins:a maxs:a numNodes:i numPlanes:i numLeaves:i? maxDepth:i? "
     "meanLeafDepth:n? fileSize:i valid:b problem:s?"},
    {"dump box.mrc --json", "file:s contents:i mins:a maxs:a numPlanes:i planes:a numNodes:i nodes:a"},
    {"point box.mrc 0 0 0 --json", "point:a contents:i meaning:s"},
    {"trace box.mrc -32,0,0 0,0,0 --json",
     "start:a end:a clear:b fraction:n endPos:a planeNormal:a? planeDist:n? startSolid:b allSolid:b inOpen:b"},
    {"slice box.mrc --axis z --at 0 --size 16 -o s.png --json",
     "file:s axis:s at:n right:s up:s rightRange:a upRange:a width:i height:i imageWidth:i imageHeight:i "
     "emptyPixels:i solidPixels:i markedPixels:i"},
    {"view room.obj -o v.html --json",
     "file:s numLeaves:i numOpenLeaves:i numPortals:i portalMeshPolys:i numClipNodes:i leakPath:b"},
    {"demo --out d --json", "level:s numTriangles:i vis:o clip:o slice:o view:o"},
};

bool jsonTypeIs(const nlohmann::json& v, const std::string& type)
{
    if (type.size() > 1 && type.back() == '?')
        return v.is_null() || jsonTypeIs(v, type.substr(0, type.size() - 1));
    switch (type[0])
    {
    case 'i':
        return v.is_number_integer();
    case 'n':
        return v.is_number();
    case 's':
        return v.is_string();
    case 'b':
        return v.is_boolean();
    case 'a':
        return v.is_array();
    case 'o':
        return v.is_object();
    }
    return false;
}

// Every key, at any depth, in one style: lowerCamelCase.
void expectCamelCase(const nlohmann::json& v, const std::string& where)
{
    static const std::regex camel("[a-z][a-zA-Z]*");
    if (v.is_array())
        for (const nlohmann::json& item : v)
            expectCamelCase(item, where);
    if (!v.is_object())
        return;
    for (auto item = v.begin(); item != v.end(); ++item)
    {
        EXPECT_TRUE(std::regex_match(item.key(), camel)) << where << ": " << item.key();
        expectCamelCase(item.value(), where);
    }
}

TEST_F(CliTest, EveryCommandPrintsJsonOfItsSchemaInOneKeyStyle)
{
    for (const auto& c : JSON_SCHEMAS)
    {
        SCOPED_TRACE(c.first);
        Outcome r = run(c.first);
        ASSERT_EQ(r.code, 0) << r.err;
        ASSERT_EQ(lines(r.out).size(), 1u) << r.out;
        const nlohmann::json j = nlohmann::json::parse(r.out);
        std::vector<std::string> keys, expected;
        std::istringstream schema(c.second);
        for (std::string entry; schema >> entry;)
        {
            const std::string key = entry.substr(0, entry.find(':'));
            expected.push_back(key);
            if (j.contains(key))
            {
                EXPECT_TRUE(jsonTypeIs(j[key], entry.substr(entry.find(':') + 1))) << key << " = " << j[key];
            }
        }
        for (auto item = j.begin(); item != j.end(); ++item)
            keys.push_back(item.key());
        std::sort(keys.begin(), keys.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(keys, expected);
        expectCamelCase(j, c.first);
    }
    // The demo's parts are the commands' own objects.
    const nlohmann::json demo = nlohmann::json::parse(run("demo --out d --json").out);
    EXPECT_EQ(demo["vis"]["numSplitNodes"], 34);
    EXPECT_EQ(demo["clip"]["numNodes"], 41);
    EXPECT_EQ(demo["slice"]["axis"], "z");
}

TEST_F(CliTest, StreamedQueriesAnswerOneJsonLineEachWithFloatsThatReadBackExactly)
{
    // An odd box, so fractions and end points are anything but round; the same box built
    // here gives the answers to compare with bit for bit.
    ASSERT_EQ(run("box -16.3,-7.1,-9.9 11.7,13.2,5.5 -o odd.mrc").code, 0);
    mtest::ClipPtr odd = mtest::clipBox(srVector3T<float>(-16.3f, -7.1f, -9.9f), srVector3T<float>(11.7f, 13.2f, 5.5f));
    std::string input;
    std::vector<std::pair<srVector3T<float>, srVector3T<float>>> segments;
    uint32_t seed = 12345;
    auto next = [&]() { return (float)((seed = seed * 1103515245u + 12345u) >> 8 & 0xffff) / 1000.0f - 32.768f; };
    for (int i = 0; i < 200; ++i)
    {
        srVector3T<float> a(next(), next(), next()), b(next(), next(), next());
        segments.push_back({a, b});
        char line[200];
        std::snprintf(line, sizeof line, "%.9g %.9g %.9g %.9g %.9g %.9g\n", a.x, a.y, a.z, b.x, b.y, b.z);
        input += line;
    }
    Outcome json = run("trace odd.mrc --json", input), text = run("trace odd.mrc", input);
    ASSERT_EQ(json.code, 0) << json.err;
    std::vector<std::string> jl = lines(json.out), tl = lines(text.out);
    ASSERT_EQ(jl.size(), segments.size());
    ASSERT_EQ(tl.size(), segments.size());
    auto same = [](double read, float want) { return (float)read == want; };
    for (size_t i = 0; i < segments.size(); ++i)
    {
        mrTrace t;
        t.m_planeNormal = srVector3T<float>(0, 0, 0);
        t.m_planeDist = 0;
        const bool clear = odd->checkCollision(segments[i].first, segments[i].second, t) != 0;
        const nlohmann::json j = nlohmann::json::parse(jl[i]);
        EXPECT_EQ(j["clear"], clear) << jl[i];
        EXPECT_TRUE(same(j["fraction"], t.m_fraction)) << jl[i];
        for (int k = 0; k < 3; ++k)
            EXPECT_TRUE(same(j["endPos"][k], t.m_endPos[k])) << jl[i];
        if (!clear && !t.m_startSolid)
        {
            EXPECT_TRUE(same(j["planeDist"], t.m_planeDist)) << jl[i];
        }
        // The text answer carries the same floats.
        EXPECT_EQ(tl[i].rfind(clear ? "clear" : "blocked fraction=", 0), 0u) << tl[i];
        if (!clear)
        {
            EXPECT_EQ(std::strtof(tl[i].c_str() + 17, nullptr), t.m_fraction) << tl[i];
        }
    }

    Outcome points = run("point odd.mrc --json", "0 0 0\n100 0 0\n");
    EXPECT_EQ(points.out, "{\"point\":[0.0,0.0,0.0],\"contents\":-2,\"meaning\":\"solid\"}\n"
                          "{\"point\":[100.0,0.0,0.0],\"contents\":-1,\"meaning\":\"empty\"}\n");
    // A bad line stops the stream after the answers before it.
    expectRun("point odd.mrc --json", "0 0 0\nx\n", 1,
              "{\"point\":[0.0,0.0,0.0],\"contents\":-2,\"meaning\":\"solid\"}\n",
              "meridbsp: error: stdin line 2: expected 3 numbers, found 1");
}

TEST_F(CliTest, QuietByDefaultVerboseOnRequestAndProgressOnLongWork)
{
    mtest::writeFile(dir.file("holed.obj"), std::string(ROOM_OBJ).substr(0, std::string(ROOM_OBJ).rfind("f ")));
    // Warnings and notes by default, the library's own lines only with -v (before or after
    // the command), nothing but errors with -q.
    Outcome r = run("vis holed.obj");
    EXPECT_NE(r.err.find("meridbsp: warning: 3 open edges"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Generated"), std::string::npos) << r.err;
    for (const char* args : {"-v vis holed.obj", "vis holed.obj --verbose"})
    {
        r = run(args);
        EXPECT_NE(r.err.find("Generated 6 planes\n"), std::string::npos) << args << r.err;
        EXPECT_NE(r.err.find("writing test.prt\n"), std::string::npos) << args << r.err;
        EXPECT_NE(r.out.find("wrote test.prt"), std::string::npos) << args;
    }
    EXPECT_NE(run("-v info box.mrc").err.find("Registering MeridBSP ClassIO Handlers\n"), std::string::npos);
    expectRun("-q vis holed.obj", "", 0, "", nullptr);
    EXPECT_EQ(run("vis holed.obj -q").err, "");
    expectRun("-q point box.mrc 0 0 0", "", 0, "-2 solid\n", nullptr); // answers are what was asked for
    expectRun("-q point box.mrc 1 2", "", 2, "", "meridbsp: error: expected 3 numbers, found 2");
    expectRun("-q -v point box.mrc 0 0 0", "", 2, "", "meridbsp: error: ");

    // Progress on standard error once a stage runs long enough (here: at once), a line per
    // report on a pipe, ending with the stage's time; never under -q.
    r = run("vis '" + DEMO_LEVEL + "'", "", "MERIDBSP_PROGRESS_SECONDS=0");
    EXPECT_EQ(r.code, 0);
    for (const char* stage : {"surfaces", "solid BSP", "portals", "portal file", "portal mesh", "leaks"})
        EXPECT_NE(r.err.find(std::string("meridbsp: progress: ") + stage + " done ("), std::string::npos)
            << stage << r.err;
    EXPECT_TRUE(std::regex_search(r.err, std::regex("meridbsp: progress: solid BSP [0-9]+% \\([0-9.]+ s\\)\n")))
        << r.err;
    EXPECT_NE(run("clip room.obj -o r.mrc", "", "MERIDBSP_PROGRESS_SECONDS=0").err.find("progress: clip BSP done"),
              std::string::npos);
    EXPECT_EQ(run("-q vis '" + DEMO_LEVEL + "'", "", "MERIDBSP_PROGRESS_SECONDS=0").err, "");
    EXPECT_EQ(run("vis '" + DEMO_LEVEL + "'").err.find("progress"), std::string::npos);
}

// ---- The documentation's examples ------------------------------------------------------

struct Example
{
    std::string command;
    std::vector<std::string> output; // what it prints, standard error included
    bool checkOutput;
};

// The "$ command" lines of every console block and the lines each prints.
std::vector<Example> consoleExamples(const std::string& markdown)
{
    std::vector<Example> examples;
    bool inBlock = false;
    for (const std::string& line : lines(markdown))
    {
        if (line.rfind("```", 0) == 0)
            inBlock = !inBlock && line == "```console";
        else if (inBlock && line.rfind("$ ", 0) == 0)
            examples.push_back({line.substr(2), {}, true});
        else if (inBlock && !examples.empty())
            examples.back().output.push_back(line);
    }
    return examples;
}

// The commands of the first shell block after a heading, without their comments.
std::vector<Example> shellExamples(const std::string& markdown, const std::string& heading)
{
    std::vector<Example> examples;
    const std::string text = markdown.substr(markdown.find(heading));
    std::vector<std::string> all = lines(text.substr(text.find("```sh\n") + 6));
    for (const std::string& line : all)
    {
        if (line == "```")
            break;
        examples.push_back({line.substr(0, line.find("  #")), {}, false});
    }
    return examples;
}

// A line of expected output with "…" standing for anything.
bool lineMatches(const std::string& expected, const std::string& actual)
{
    const std::string any = "\u2026";
    std::string::size_type at = expected.find(any);
    if (at == std::string::npos)
        return expected == actual;
    if (actual.compare(0, at, expected, 0, at) != 0)
        return false;
    const std::string rest = expected.substr(at + any.size());
    for (std::string::size_type from = at; from <= actual.size(); ++from)
        if (lineMatches(rest, actual.substr(from)))
            return true;
    return false;
}

// Runs each example in the test's directory after `prelude` (shell lines), expecting what
// it documents: a failure exactly when it prints an error, and its lines.
void expectExamples(const std::string& directory, const std::vector<Example>& examples, const std::string& prelude)
{
    for (const Example& e : examples)
    {
        SCOPED_TRACE(e.command);
        mtest::writeFile(directory + "/.example.sh",
                         "export PATH='" MERIDBSP_BINARY_DIR "':\"$PATH\"\n" + prelude + e.command + "\n");
        const std::string out = directory + "/.example.out";
        const int status =
            std::system(("cd '" + directory + "' && bash -o pipefail .example.sh >'" + out + "' 2>&1").c_str());
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        bool fails = false;
        for (const std::string& line : e.output)
            fails = fails || line.find("meridbsp: error:") != std::string::npos;
        const std::vector<std::string> got = lines(mtest::readFile(out));
        EXPECT_EQ(code != 0, fails) << "exit code " << code << "\n" << mtest::readFile(out);
        if (!e.checkOutput)
            continue;
        bool same = got.size() == e.output.size();
        for (size_t i = 0; same && i < got.size(); ++i)
            same = lineMatches(e.output[i], got[i]);
        EXPECT_TRUE(same) << "documented:\n"
                          << ::testing::PrintToString(e.output) << "\nprinted:\n"
                          << ::testing::PrintToString(got);
    }
}

TEST_F(CliTest, DocumentedExamplesRunAsWritten)
{
    mtest::writeFile(dir.file("level.obj"), mtest::readFile(DEMO_LEVEL));
    std::filesystem::create_directory_symlink(MERIDBSP_BINARY_DIR, dir.file("build"));
    const std::string cliDoc = mtest::readFile(MERIDBSP_SOURCE_DIR "/docs/cli.md");
    const std::string readme = mtest::readFile(MERIDBSP_SOURCE_DIR "/README.md");
    EXPECT_NE(readme.find("](docs/cli.md)"), std::string::npos) << "the README links to docs/cli.md";
    std::vector<Example> examples = shellExamples(readme, "## Command line");
    const std::vector<Example> documented = consoleExamples(cliDoc);
    ASSERT_GE(examples.size(), 10u);
    ASSERT_GE(documented.size(), 20u);
    examples.insert(examples.end(), documented.begin(), documented.end());
    expectExamples(dir.path(), examples, "");
}

// ---- Clip BSP files: dump, info, refusals ------------------------------------------------

TEST_F(CliTest, DumpAndInfoDescribeTheBox)
{
    expectRun("dump box.mrc", "", 0,
              "contents 1\nmins -32 -32 -32\nmaxs 32 32 32\nplanes 6\n"
              "# plane normal.x normal.y normal.z dist (a point p is in front when normal.p - dist >= 0)\n"
              "0 1 0 0 16\n1 -1 0 0 16\n2 0 1 0 16\n3 0 -1 0 16\n4 0 0 1 16\n5 0 0 -1 16\nnodes 6\n"
              "# node plane front back (a child below 0 is a leaf: -1 empty, -2 solid, -3 marked solid)\n"
              "0 0 -1 1\n1 1 -1 2\n2 2 -1 3\n3 3 -1 4\n4 4 -1 5\n5 5 -1 -2\n",
              nullptr);
    Outcome r = run("info box.mrc");
    EXPECT_EQ(r.code, 0) << r.err;
    const std::string head = "file box.mrc\nclass clip BSP (0x60000)\ncontents 1\nmins -32 -32 -32\nmaxs 32 32 32\n"
                             "nodes 6\nplanes 6\nleaves 7\ndepth max 6, mean 3.85714286\n";
    EXPECT_EQ(r.out.substr(0, head.size()), head);
    ASSERT_GE(lines(r.out).size(), 11u); // then at least one more line, and the verdict last
    EXPECT_EQ(lines(r.out).back(), "valid yes");

    r = run("info --json box.mrc");
    EXPECT_EQ(r.code, 0);
    ASSERT_EQ(lines(r.out).size(), 1u);
    EXPECT_EQ(jsonKeys(r.out),
              (std::vector<std::string>{"file", "class", "classID", "contents", "mins", "maxs", "numNodes", "numPlanes",
                                        "numLeaves", "maxDepth", "meanLeafDepth", "fileSize", "valid", "problem"}));
    EXPECT_EQ(jsonNumber(r.out, "maxDepth"), 6);
    EXPECT_NE(r.out.find("\"valid\":true"), std::string::npos);
}

TEST_F(CliTest, MissingTruncatedCyclicAndEmptyFilesAreBadInput)
{
    expectRun("info nothing.mrc", "", 1, "", "meridbsp: error: nothing.mrc: cannot open: No such file or directory");
    expectRun("vis nothing.obj", "", 1, "", "meridbsp: error: nothing.obj: cannot open: No such file or directory");
    expectRun("point nothing.mrc 0 0 0", "", 1, "", "meridbsp: error: nothing.mrc: ");
    expectRun("info room.obj", "", 1, "", "meridbsp: error: room.obj: ");

    // A truncated clip BSP file, and a node whose back child is itself (a query would never end).
    std::string bytes = file("box.mrc");
    mtest::writeFile(dir.file("cut.mrc"), bytes.substr(0, bytes.size() / 2));
    const char node0[12] = {0, 0, 0, 0, '\xff', '\xff', '\xff', '\xff', 1, 0, 0, 0};
    std::string::size_type at = bytes.find(std::string(node0, 12));
    ASSERT_NE(at, std::string::npos);
    bytes[at + 8] = 0;
    mtest::writeFile(dir.file("cycle.mrc"), bytes);
    for (const char* args : {"info cut.mrc", "dump cut.mrc", "point cut.mrc 0 0 0", "trace cut.mrc 0 0 0 1 1 1"})
    {
        Outcome r = run(args);
        EXPECT_EQ(r.code, 1) << args;
        EXPECT_EQ(r.err.find("meridbsp: error: cut.mrc: "), r.err.find("meridbsp: error: ")) << args << r.err;
        EXPECT_EQ(r.out, "") << args;
    }
    for (const char* args : {"info cycle.mrc", "point cycle.mrc 0 0 0", "slice cycle.mrc --axis z --at 0 -o c.png"})
        expectRun(args, "", 1, "", "meridbsp: error: cycle.mrc: ");
    EXPECT_FALSE(exists(dir.file("c.png")));

    // A well-formed chunk file that holds nothing.
    mrIOManager manager;
    std::string error;
    ASSERT_TRUE(manager.saveFile(dir.file("none.mrc"), {}, &error)) << error;
    expectRun("dump none.mrc", "", 1, "", "meridbsp: error: none.mrc: the file holds no objects");
}

// ---- Queries ------------------------------------------------------------------------

TEST_F(CliTest, PointAndTraceAnswerOneOrManyQueries)
{
    expectRun("point box.mrc 0 0 0", "", 0, "-2 solid\n", nullptr);
    expectRun("point box.mrc 16.5 0 -.5", "", 0, "-1 empty\n", nullptr);
    // Blank lines are skipped, the last line needs no newline; a point on a face is
    // in front of it, so in empty space.
    expectRun("point box.mrc", "0 0 0\n20 0 0\n\n  -15.9\t0 0  \n16 16 16\n15.999 0 0", 0,
              "-2 solid\n-1 empty\n-2 solid\n-1 empty\n-2 solid\n", nullptr);
    // Stopped by the box's -x face, just short of it; clear; starting in solid.
    expectRun("trace box.mrc -32 0 0 0 0 0", "", 0,
              "blocked fraction=0.49899217 end=(-16.03225,0,0) plane=(-1,0,0,16) start_solid=0 all_solid=0 in_open=1\n",
              nullptr);
    expectRun("trace box.mrc", "-32 0 0 -20 0 0\n0 0 0 32 0 0\n", 0,
              "clear\nblocked fraction=1 end=(32,0,0) plane=none start_solid=1 all_solid=1 in_open=0\n", nullptr);
    // A batch stops at the first bad line.
    expectRun("point box.mrc", "0 0 0\n1 2\n20 0 0\n", 1, "-2 solid\n",
              "meridbsp: error: stdin line 2: expected 3 numbers, found 2");
    expectRun("trace box.mrc", "0 0 0 1 1 x\n", 1, nullptr, "meridbsp: error: stdin line 1: malformed number 'x'");

    std::string input;
    for (int i = 0; i < 20000; ++i)
        input += std::to_string(i % 40 - 20) + " 0 0\n";
    Outcome r = run("point box.mrc", input);
    EXPECT_EQ(r.code, 0);
    std::vector<std::string> l = lines(r.out);
    ASSERT_EQ(l.size(), 20000u);
    EXPECT_EQ(l[0], "-1 empty");  // x = -20
    EXPECT_EQ(l[20], "-2 solid"); // x = 0
}

// ---- Collision pipeline ---------------------------------------------------------------

TEST_F(CliTest, ClipBuildsAQueryableFileWithOffsetMatrixAndMarkedSolids)
{
    Outcome r = run("clip room.obj -o room.mrc");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("wrote room.mrc: "), std::string::npos);
    EXPECT_EQ(run("point room.mrc", "32 32 32\n100 32 32\n").out, "-1 empty\n-2 solid\n");
    EXPECT_NE(run("info room.mrc").out.find("mins -1 -1 -1\nmaxs 65 65 65\n"), std::string::npos);

    // The matrix (x -> y, y -> -x) first, then the offset.
    r = run("clip room.obj -o moved.mrc --matrix 0,1,0,-1,0,0,0,0,1 --offset 1000,0,0");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(run("info moved.mrc").out.find("mins 935 -1 -1\nmaxs 1001 65 65\n"), std::string::npos);
    EXPECT_EQ(run("point moved.mrc", "968 32 32\n32 32 32\n").out, "-1 empty\n-2 solid\n");

    // One triangle facing +z: below it is solid, of the kind its texture name gives.
    // The name is the diffuse texture's file name without directories, else the
    // material's own name.
    mtest::writeFile(dir.file("m.mtl"), "newmtl textured\nmap_Kd textures/NERDSTRP.TGA\n"
                                        "newmtl Q47ROADOT.TGA\nKd 1 0 0\n"
                                        "newmtl stone\nKd 0.5 0.5 0.5\n");
    const std::pair<const char*, const char*> cases[] = {{"textured", "-3 marked solid\n-1 empty\n"},
                                                         {"Q47ROADOT.TGA", "-3 marked solid\n-1 empty\n"},
                                                         {"stone", "-2 solid\n-1 empty\n"}};
    for (const auto& c : cases)
    {
        mtest::writeFile(dir.file("tri.obj"),
                         std::string("mtllib m.mtl\nv 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl ") + c.first + "\nf 1 2 3\n");
        ASSERT_EQ(run("clip tri.obj -o tri.mrc").code, 0);
        EXPECT_EQ(run("point tri.mrc", "0.2 0.2 -1\n0.2 0.2 1\n").out, c.second) << c.first;
    }
}

TEST_F(CliTest, SliceDrawsTheCrossSection)
{
    // Bounds -32..32 at one pixel per unit: the box (-16..16) is the middle 32 x 32.
    expectRun("slice box.mrc --axis z --at 0 --size 64 -o cut.png", "", 0,
              "wrote cut.png: 64 x 64 pixels of z = 0, x runs right from -32 to 32, y up from -32 to 32; 3072 empty, "
              "1024 solid, 0 marked solid\n",
              nullptr);
    Outcome r = run("slice box.mrc --axis x --at 100 --size 10 -o far.png");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("10 x 10 pixels of x = 100, y runs right from -32 to 32, z up from -32 to 32; 100 empty, 0 "
                         "solid"),
              std::string::npos)
        << r.out;

    // The picture is framed: labels in black around it and a legend of all three colours
    // above it, the marked kind's included though the box has none.
    const std::string png = file("cut.png");
    int width = 0, height = 0, channels = 0;
    unsigned char* rgb = stbi_load_from_memory(reinterpret_cast<const unsigned char*>(png.data()), (int)png.size(),
                                               &width, &height, &channels, 3);
    ASSERT_NE(rgb, nullptr);
    EXPECT_GT(width, 64 + 20);
    EXPECT_GT(height, 64 + 30);
    long ink = 0, marked = 0;
    for (int i = 0; i < width * height; ++i)
    {
        const unsigned char* p = rgb + 3 * i;
        ink += p[0] == 20 && p[1] == 20 && p[2] == 20;
        marked += p[0] == 214 && p[1] == 120 && p[2] == 40;
    }
    stbi_image_free(rgb);
    EXPECT_GT(ink, 200);
    EXPECT_GT(marked, 0);
}

// ---- Visibility pipeline ----------------------------------------------------------------

TEST_F(CliTest, VisJsonIsTheOnlyOutput)
{
    Outcome r = run("vis '" + DEMO_LEVEL + "' --json --out .");
    EXPECT_EQ(r.code, 0) << r.err;
    std::vector<std::string> l = lines(r.out);
    ASSERT_EQ(l.size(), 1u) << r.out;
    EXPECT_EQ(jsonKeys(l[0]),
              (std::vector<std::string>{
                  "numPlanes", "numSurfaces", "numFaces", "numSplitNodes", "numLeafFaces", "numNodeFaces",
                  "numSolidLeafs", "numEmptyLeafs", "numLinkedFaces", "numVisleafs", "numVisportals", "portalMeshPolys",
                  "portalFile", "portalMeshFile",
                  // the mesh's health
                  "health", "triangles", "degenerateTriangles", "openEdges", "tJunctionEdges", "nonManifoldEdges",
                  "misorientedEdges", "components", "mins", "maxs", "signedVolume", "orientation", "partsOut",
                  "partsIn", "droppedTriangles",
                  // the open space
                  "openLeaves", "total", "reachOutside", "enclosed", "insidePoints", "leak", "elapsedMs"}));
    EXPECT_EQ(jsonNumber(l[0], "numFaces"), 84);
    EXPECT_EQ(r.err, ""); // the library's log lines only with --verbose

    mtest::PortalFile prt = mtest::parsePortalFile(file("test.prt"));
    EXPECT_EQ(prt.tag, "PRT");
    EXPECT_EQ(prt.leafs, jsonNumber(l[0], "numVisleafs"));
    EXPECT_EQ(prt.count, jsonNumber(l[0], "numVisportals"));
    EXPECT_EQ((long)prt.lines.size(), jsonNumber(l[0], "numVisportals"));

    // Whole polygons: read back without triangulation, one face per reported polygon.
    long polys = jsonNumber(l[0], "portalMeshPolys");
    EXPECT_GT(polys, 0);
    long faces = importedFaceCount(dir.file("portals.obj"));
    if (faces == -1)
        GTEST_SKIP() << "the mesh importer library is not available to re-read the portal mesh";
    EXPECT_EQ(faces, polys);
    EXPECT_TRUE(exists(dir.file("portals.mtl")));
}

TEST_F(CliTest, VisIsDeterministicInBothModesAndKeepsDegenerateTriangles)
{
    std::filesystem::create_directory(dir.file("a"));
    std::filesystem::create_directory(dir.file("b"));
    for (const char* mode : {"", "--mid-split"})
    {
        Outcome a = run("vis '" + DEMO_LEVEL + "' " + mode + " --out a");
        Outcome b = run("vis '" + DEMO_LEVEL + "' " + mode + " --out b --mesh-out b/p.ply");
        ASSERT_EQ(a.code, 0) << a.err;
        ASSERT_EQ(b.code, 0) << b.err;
        EXPECT_NE(a.out.find("wrote a/test.prt"), std::string::npos) << a.out;
        EXPECT_EQ(file("a/test.prt"), file("b/test.prt")) << mode;
        EXPECT_EQ(importedFaceCount(dir.file("b/p.ply")), importedFaceCount(dir.file("a/portals.obj")));
    }

    // The room plus a triangle whose corners lie on one line, passed to the library.
    mtest::writeFile(dir.file("room.obj"), std::string(ROOM_OBJ) + "v 1 1 1\nv 2 2 2\nv 3 3 3\nf 9 10 11\n");
    Outcome r = run("vis room.obj --json --keep-degenerate --mesh-out room.glb");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(jsonNumber(r.out, "numFaces"), 13);
    EXPECT_TRUE(exists(dir.file("room.glb")));
}

// ---- Hostile meshes and outputs --------------------------------------------------------

TEST_F(CliTest, BrokenMeshesAreRejectedWithTheReason)
{
    const std::string ply = "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                            "property float z\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n"
                            "0 0 0\n1 0 0\n0 1 0\n3 0 1 9\n";
    const struct
    {
        const char* name;
        std::string text;
        const char* message;
    } cases[] = {
        {"nan.obj", "v 0 0 0\nv nan 0 0\nv 0 1 0\nf 1 2 3\n", "mesh 0 vertex 1 has a non-finite coordinate"},
        {"inf.obj", "v 0 0 0\nv 1 0 0\nv 0 1e39 0\nf 1 2 3\n", "mesh 0 vertex 2 has a non-finite coordinate"},
        {"index.ply", ply, "mesh 0 face 0 refers to vertex 9, but the mesh has only 3 vertices"},
        {"index.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 7\n", "vertex index out of range"},
        {"empty.obj", "", "the file is empty"},
        {"points.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nv 5 5 5\nv 6 6 6\n", "the file holds no triangles"},
        {"noise.bin", std::string("\x01\x02garbage\xff\xfe", 11), "cannot read the mesh"},
        // Headers that promise more than the file holds would hang or abort the importer.
        {"open.ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\n",
         "the PLY header has no end_header line"},
        {"short.off", "OFF\n8 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n",
         "the OFF header promises 8 vertices and 1 faces, but the file has only 4 lines of them"},
        {"nocount.off", "OFF\n", "the OFF header has no vertex and face counts"},
        // Motion capture: the importer would draw the bones as a mesh of its own.
        {"walk.bvh",
         "HIERARCHY\nROOT Hips\n{\n OFFSET 0 0 0\n CHANNELS 3 Zrotation Xrotation Yrotation\n JOINT Leg\n {\n"
         "  OFFSET 3 0 0\n  CHANNELS 3 Zrotation Xrotation Yrotation\n  End Site\n  {\n   OFFSET 0 -5 0\n  }\n }\n}\n"
         "MOTION\nFrames: 1\nFrame Time: 0.033333\n0 0 0 0 0 0\n",
         "the file holds no surface triangles, only a skeleton or an animation"},
    };
    for (const auto& c : cases)
    {
        mtest::writeFile(dir.file(c.name), c.text);
        for (const std::string& args : {std::string("vis ") + c.name, std::string("clip ") + c.name + " -o out.mrc",
                                        std::string("check ") + c.name})
        {
            Outcome r = run(args);
            EXPECT_EQ(r.code, 1) << args;
            EXPECT_NE(r.err.find(std::string("meridbsp: error: ") + c.name + ": "), std::string::npos) << r.err;
            EXPECT_NE(r.err.find(c.message), std::string::npos) << args << ": " << r.err;
        }
    }
    expectRun("vis .", "", 1, nullptr, "meridbsp: error: .: is a directory, not a mesh file");
    EXPECT_FALSE(exists(dir.file("out.mrc")));
    EXPECT_FALSE(exists(dir.file("test.prt")));
}

TEST_F(CliTest, OutputDirectoriesAreMadeButOtherOutputsThatCannotBeMadeWriteNothing)
{
    // --out makes its directory with its parents, and a failed run takes them away again.
    mtest::writeFile(dir.file("bad.obj"), "v 0 0 0\nv nan 0 0\nv 0 1 0\nf 1 2 3\n");
    EXPECT_EQ(run("vis bad.obj --out made/deeper").code, 1);
    EXPECT_EQ(run("vis room.obj --out deep/er/ --prt-out - --mesh-out - --mesh-format ply").code, 2);
    EXPECT_FALSE(exists(dir.file("made")));
    EXPECT_FALSE(exists(dir.file("deep")));
    for (const char* args : {"vis room.obj --out made/deeper/", "demo --out demo/nested"})
        EXPECT_EQ(run(args).code, 0) << args;
    EXPECT_TRUE(exists(dir.file("made/deeper/test.prt")));
    EXPECT_TRUE(exists(dir.file("demo/nested/view.html")));
    mtest::writeFile(dir.file("plain"), "");
    expectRun("demo --out plain/sub", "", 1, "",
              "meridbsp: error: plain/sub: cannot create the directory: plain is not a directory");

    // A file's own directory is not made: a typo there is more likely than a wish.
    expectRun("clip room.obj -o missing/room.mrc", "", 1, "",
              "meridbsp: error: missing/room.mrc: cannot write into directory missing: No such file or directory");
    EXPECT_EQ(run("box 0,0,0 1,1,1 -o missing/box.mrc").code, 1);
    EXPECT_FALSE(exists(dir.file("missing")));
    EXPECT_FALSE(exists(dir.file("test.prt")));
    EXPECT_FALSE(exists(dir.file("portals.obj")));

    std::filesystem::create_directory(dir.file("sub"));
    expectRun("box 0,0,0 1,1,1 -o sub", "", 1, nullptr, "meridbsp: error: sub: is a directory, not a file name");
    // A clip BSP whose bounds enclose nothing to draw: the box's lower bound moved up to
    // its upper one.
    std::string bytes = file("box.mrc");
    const std::string low(std::string("\0\0\0\xc2", 4) + std::string("\0\0\0\xc2", 4) + std::string("\0\0\0\xc2", 4));
    std::string::size_type at = bytes.find(low);
    ASSERT_NE(at, std::string::npos);
    for (int k = 0; k < 3; ++k)
        bytes[at + 4 * (size_t)k + 3] = '\x42';
    mtest::writeFile(dir.file("flat.mrc"), bytes);
    expectRun("slice flat.mrc --axis z --at 0 -o flat.png", "", 1, nullptr,
              "meridbsp: error: flat.mrc: the clip BSP's bounds span no area on this slice");
    EXPECT_FALSE(exists(dir.file("flat.png")));
}

TEST_F(CliTest, AFailedRunLeavesEarlierOutputsAndTheInputAlone)
{
    mtest::writeFile(dir.file("bad.obj"), "v 0 0 0\nv nan 0 0\nv 0 1 0\nf 1 2 3\n");
    ASSERT_EQ(run("vis room.obj").code, 0);
    ASSERT_EQ(run("clip room.obj -o room.mrc").code, 0);
    const std::string prt = file("test.prt"), obj = file("portals.obj"), mrc = file("room.mrc"), box = file("box.mrc");
    EXPECT_EQ(run("vis bad.obj").code, 1);
    EXPECT_EQ(run("clip bad.obj -o room.mrc").code, 1);
    EXPECT_EQ(file("test.prt"), prt);
    EXPECT_EQ(file("portals.obj"), obj);
    EXPECT_EQ(file("room.mrc"), mrc);
    // No temporary file is left behind either.
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();

    const std::pair<const char*, const char*> cases[] = {
        {"clip room.obj -o room.obj", "room.obj"},
        {"clip room.obj -o ./room.obj", "./room.obj"},
        {"vis room.obj --mesh-out room.obj", "room.obj"},
        {"slice box.mrc --axis z --at 0 -o box.mrc", "box.mrc"},
    };
    for (const auto& c : cases)
        expectRun(c.first, "", 1, nullptr,
                  (std::string("meridbsp: error: ") + c.second + ": refusing to overwrite the input file").c_str());
    EXPECT_EQ(file("room.obj"), ROOM_OBJ);
    EXPECT_EQ(file("box.mrc"), box);
}

// ---- Output paths that are not plain files ------------------------------------------------
// Never a path under /dev here: run as root, a tool that renames over its output would
// replace the machine's device node. /proc/self/fd/1 stands for /dev/stdout.

TEST_F(CliTest, StandardOutputTakesEveryKindOfOutput)
{
    ASSERT_EQ(run("clip room.obj -o room.mrc").code, 0);
    ASSERT_EQ(run("slice box.mrc --axis z --at 0 --size 64 -o cut.png").code, 0);
    ASSERT_EQ(run("vis room.obj --mesh-out room.ply").code, 0);
    const std::pair<const char*, std::string> cases[] = {
        {"box -16,-16,-16 16,16,16 -o -", file("box.mrc")},
        {"box -16,-16,-16 16,16,16 -o /proc/self/fd/1", file("box.mrc")},
        {"clip room.obj -o -", file("room.mrc")},
        {"slice box.mrc --axis z --at 0 --size 64 -o -", file("cut.png")},
        {"vis room.obj --prt-out - --mesh-out p.obj", file("test.prt")},
        {"vis room.obj --mesh-out - --mesh-format ply", file("room.ply")},
    };
    for (const auto& c : cases)
    {
        Outcome r = run(c.first);
        EXPECT_EQ(r.code, 0) << c.first << ": " << r.err;
        EXPECT_EQ(r.out, c.second) << c.first; // the bytes alone: the report went to stderr
        EXPECT_NE(r.err.find("wrote "), std::string::npos) << c.first;
    }
    // An OBJ on standard output goes without its material file.
    Outcome r = run("vis room.obj --mesh-out - --mesh-format obj");
    EXPECT_EQ(r.out.find("mtllib"), std::string::npos);
    EXPECT_NE(r.out.find("\nf "), std::string::npos);
    EXPECT_FALSE(exists(dir.file("-")));

    expectRun("vis room.obj --prt-out - --mesh-out - --mesh-format ply", "", 2, "",
              "only one output can go to standard output");
    expectRun("vis room.obj --prt-out - --json", "", 2, "", "--json: standard output already carries an output file");
    expectRun("vis room.obj --mesh-out -", "", 2, "", "name one with --mesh-format");
    expectRun("vis room.obj --mesh-out p.obj --mesh-format stl", "", 2, "",
              "--mesh-format stl: expected obj, glb or ply");
}

TEST_F(CliTest, PipesAndLinksAreWrittenThroughNotReplaced)
{
    // A named pipe: its reader gets the bytes, and it stays a pipe. The read end is open
    // (and never blocks) before the tool writes, so a tool that replaced the pipe cannot
    // hang the test.
    const std::string fifo = dir.file("pipe");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    Outcome r = run("box -16,-16,-16 16,16,16 -o pipe");
    EXPECT_EQ(r.code, 0) << r.err;
    std::string got;
    char buf[4096];
    for (ssize_t n; (n = ::read(reader, buf, sizeof buf)) > 0;)
        got.append(buf, (size_t)n);
    ::close(reader);
    EXPECT_EQ(got, file("box.mrc"));
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));

    // A link to a file, and a link to nothing yet: the link stays, the file behind it is
    // written.
    std::filesystem::create_directory(dir.file("real"));
    mtest::writeFile(dir.file("real/old.mrc"), "old");
    std::filesystem::create_symlink("real/old.mrc", dir.file("link.mrc"));
    std::filesystem::create_symlink("real/new.mrc", dir.file("dangling.mrc"));
    for (const char* name : {"link.mrc", "dangling.mrc"})
    {
        r = run(std::string("box -16,-16,-16 16,16,16 -o ") + name);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_TRUE(std::filesystem::is_symlink(dir.file(name))) << name;
    }
    EXPECT_EQ(file("real/old.mrc"), file("box.mrc"));
    EXPECT_EQ(file("real/new.mrc"), file("box.mrc"));

    // A socket is no place for a file.
    int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string sockPath = dir.file("sock");
    ASSERT_LT(sockPath.size(), sizeof addr.sun_path);
    std::strcpy(addr.sun_path, sockPath.c_str());
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    expectRun("box 0,0,0 1,1,1 -o sock", "", 1, "", "meridbsp: error: sock: is a socket, not a file");
    ::close(sock);

    // Links in a loop lead nowhere; a device, a pipe or standard output needs a temporary
    // file in the temporary directory.
    std::filesystem::create_symlink("loop2", dir.file("loop1"));
    std::filesystem::create_symlink("loop1", dir.file("loop2"));
    expectRun("box 0,0,0 1,1,1 -o loop1", "", 1, "",
              "meridbsp: error: loop1: cannot follow the symbolic link: Too many levels of symbolic links");
    Outcome t = run("box 0,0,0 1,1,1 -o -", "", "TMPDIR=/nonexistent-dir");
    EXPECT_EQ(t.code, 1);
    EXPECT_NE(t.err.find("meridbsp: error: -: cannot create a temporary file: No such file or directory"),
              std::string::npos)
        << t.err;
}

TEST_F(CliTest, AFailedWritePutsNoneOfTheRunsOutputsInPlace)
{
    // Past the file size limit (4 KiB) the portal file fits and the portal mesh does not.
    Outcome r = run("vis '" + DEMO_LEVEL + "'", "", "ulimit -f 4 &&");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("meridbsp: error: portals.obj: write failed: File too large"), std::string::npos) << r.err;
    r = run("slice box.mrc --axis z --at 0 --size 1000 -o cut.png", "", "ulimit -f 1 &&");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("meridbsp: error: cut.png: write failed: File too large"), std::string::npos) << r.err;
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    {
        std::string name = e.path().filename().string();
        EXPECT_TRUE(name == "room.obj" || name == "box.mrc") << name;
    }
}

// ---- Values that make no sense ---------------------------------------------------------------

TEST_F(CliTest, ValuesThatMakeNoSenseAreRefused)
{
    const std::pair<const char*, const char*> cases[] = {
        {"box 16,16,16 -16,-16,-16 -o b.mrc", "the minimum corner is above the maximum on x (16 > -16)"},
        {"box 0,5,0 1,1,1 -o b.mrc", "the minimum corner is above the maximum on y (5 > 1)"},
        {"clip room.obj -o c.mrc --matrix 0,0,0,0,0,0,0,0,0", "the matrix is singular (determinant 0)"},
        {"clip room.obj -o c.mrc --matrix 1,0,0,2,0,0,0,0,1", "the matrix is singular"},
        {"clip room.obj -o c.mrc --offset 1e40,0,0", "--offset 1e40,0,0: '1e40' is not a finite float"},
        {"clip room.obj -o c.mrc --offset nan,0,0", "'nan' is not a finite float"},
        {"clip room.obj -o c.mrc --matrix 1,0,0,0,inf,0,0,0,1", "'inf' is not a finite float"},
        {"point box.mrc 1,,2", "a comma without a number on each side"},
    };
    for (const auto& c : cases)
        expectRun(c.first, "", 2, "", c.second);
    EXPECT_FALSE(exists(dir.file("b.mrc")));
    EXPECT_FALSE(exists(dir.file("c.mrc")));

    Outcome r = run("box 0,0,0 1,1,0 -o flat.mrc");
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.err.find("meridbsp: warning: the box has no size on z (both corners at 0): no point is inside it"),
              std::string::npos)
        << r.err;
}

TEST_F(CliTest, VectorsTakeCommasOrSpaces)
{
    expectRun("point box.mrc 0,0,0", "", 0, "-2 solid\n", nullptr);
    expectRun("point box.mrc '0, 0, 20'", "", 0, "-1 empty\n", nullptr);
    expectRun("point box.mrc", "0,0,0\n20, 0 ,0\n", 0, "-2 solid\n-1 empty\n", nullptr);
    expectRun("trace box.mrc -32,0,0 -20,0,0", "", 0, "clear\n", nullptr);
    ASSERT_EQ(run("box '-16 -16 -16' '16 16 16' -o spaced.mrc").code, 0);
    EXPECT_EQ(file("spaced.mrc"), file("box.mrc"));
    ASSERT_EQ(run("clip room.obj -o a.mrc --offset 1,2,3 --matrix 0,1,0,-1,0,0,0,0,1").code, 0);
    ASSERT_EQ(run("clip room.obj -o b.mrc --offset '1 2 3' --matrix '0 1 0 -1 0 0 0 0 1'").code, 0);
    EXPECT_EQ(file("a.mrc"), file("b.mrc"));
}

TEST_F(CliTest, AMeshGivenForAClipBSPFileGetsTheMissingStep)
{
    for (const char* args : {"point room.obj 0 0 0", "trace room.obj 0 0 0 1 1 1", "info room.obj", "dump room.obj",
                             "slice room.obj --axis z --at 0 -o r.png"})
        expectRun(args, "", 1, "",
                  "meridbsp: error: room.obj: this is a mesh file, not a clip BSP file; make one from it first with "
                  "'meridbsp clip room.obj -o OUT.mrc'");
}

// ---- Mesh health ---------------------------------------------------------------------------

// The room's twelve triangles with `faces` in place of its face lines, and `extra` after them.
std::string roomWith(const std::string& faces, const std::string& extra = std::string())
{
    std::string obj = ROOM_OBJ;
    return obj.substr(0, obj.find("f ")) + faces + extra;
}

const std::string ROOM_FACES = "f 1 2 3\nf 1 3 4\nf 5 7 6\nf 5 8 7\nf 1 5 6\nf 1 6 2\n"
                               "f 4 3 7\nf 4 7 8\nf 1 4 8\nf 1 8 5\nf 2 6 7\nf 2 7 3\n";
const std::string ROOM_OUTWARD = "f 1 3 2\nf 1 4 3\nf 5 6 7\nf 5 7 8\nf 1 6 5\nf 1 2 6\n"
                                 "f 4 7 3\nf 4 8 7\nf 1 8 4\nf 1 5 8\nf 2 7 6\nf 2 3 7\n";
// A second room beside the first (x 100..164), its faces pointing out.
const std::string SECOND_ROOM = "v 100 0 0\nv 164 0 0\nv 164 64 0\nv 100 64 0\n"
                                "v 100 0 64\nv 164 0 64\nv 164 64 64\nv 100 64 64\n"
                                "f 9 11 10\nf 9 12 11\nf 13 14 15\nf 13 15 16\nf 9 14 13\nf 9 10 14\n"
                                "f 12 15 11\nf 12 16 15\nf 9 16 12\nf 9 13 16\nf 10 15 14\nf 10 11 15\n";

TEST_F(CliTest, CheckCountsWhatTheMeshHolds)
{
    // Counts: triangles, degenerate, open, T-junction, non-manifold, misoriented edges,
    // components; then the orientation.
    const struct
    {
        const char* name;
        std::string obj;
        std::vector<long> counts;
        const char* orientation;
    } cases[] = {
        {"closed, inward", ROOM_OBJ, {12, 0, 0, 0, 0, 0, 1}, "in"},
        {"closed, outward", roomWith(ROOM_OUTWARD), {12, 0, 0, 0, 0, 0, 1}, "out"},
        {"a triangle missing", roomWith(ROOM_FACES.substr(8)), {11, 0, 3, 0, 0, 0, 1}, "in"},
        {"collinear and coincident points",
         roomWith(ROOM_FACES, "v 1 1 1\nv 2 2 2\nv 3 3 3\nf 9 10 11\nf 1 1 2\n"),
         {14, 2, 0, 0, 0, 0, 1},
         "in"},
        {"a triangle flipped", roomWith("f 1 3 2\n" + ROOM_FACES.substr(8)), {12, 0, 0, 0, 0, 3, 1}, "mixed"},
        {"a triangle twice", roomWith(ROOM_FACES, "f 1 2 3\n"), {13, 0, 0, 0, 3, 0, 1}, "in"},
        {"one room in, one out", roomWith(ROOM_FACES, SECOND_ROOM), {24, 0, 0, 0, 0, 0, 2}, "mixed"},
        {"flat", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n", {1, 0, 3, 0, 0, 0, 1}, "none"},
        {"the demo level: corridors meet rooms in T-junctions",
         mtest::readFile(DEMO_LEVEL),
         {84, 0, 0, 72, 0, 0, 1},
         "in"},
    };
    const char* keys[] = {"triangles",        "degenerateTriangles", "openEdges", "tJunctionEdges",
                          "nonManifoldEdges", "misorientedEdges",    "components"};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        mtest::writeFile(dir.file("m.obj"), c.obj);
        Outcome r = run("check m.obj --json");
        ASSERT_EQ(r.code, 0) << r.err;
        for (size_t k = 0; k < c.counts.size(); ++k)
            EXPECT_EQ(jsonNumber(r.out, keys[k]), c.counts[k]) << keys[k];
        EXPECT_NE(r.out.find(std::string("\"orientation\":\"") + c.orientation + "\""), std::string::npos) << r.out;
    }
}

TEST_F(CliTest, CheckGivesOneLineOfAdvicePerProblem)
{
    expectRun("check room.obj", "", 0,
              "file room.obj\ntriangles 12\ndegenerate triangles 0\nopen edges 0\nT-junction edges 0\n"
              "non-manifold edges 0\nmisoriented edges 0\ncomponents 1\nbox 0 0 0 to 64 64 64\n"
              "orientation in (signed volume -262144; parts facing out 0, in 1)\n"
              "note: faces point inward: clip makes the inside open space and the outside solid (a hollow level)\n"
              "no problems found\n",
              nullptr);
    // The room with a triangle missing and a degenerate one; the second room with its first
    // triangle flipped and its last twice (which makes one of the flipped edges non-manifold).
    std::string second = SECOND_ROOM;
    second.replace(second.find("f 9 11 10"), 9, "f 9 10 11");
    mtest::writeFile(
        dir.file("bad.obj"),
        roomWith(ROOM_FACES.substr(8), second + "f 10 11 15\n" + "v 1 1 1\nv 2 2 2\nv 3 3 3\nf 17 18 19\n"));
    Outcome r = run("check bad.obj");
    EXPECT_EQ(r.code, 0) << r.err;
    std::vector<std::string> problems;
    for (const std::string& line : lines(r.out))
        if (line.rfind("problem: ", 0) == 0)
            problems.push_back(line);
    EXPECT_EQ(problems,
              (std::vector<std::string>{
                  "problem: 1 degenerate triangle (collinear or coincident points), without a plane: clip and vis "
                  "drop them (--keep-degenerate keeps them)",
                  "problem: 3 open edges: the mesh is not closed, so solid and empty space may leak into each other",
                  "problem: 3 non-manifold edges (shared by more than two triangles): inside and outside are "
                  "ambiguous along them",
                  "problem: 2 edges join triangles wound against each other: some faces point the wrong way",
                  "problem: faces point out on 1 part and in on 1 part: some parts will be inside out"}))
        << r.out;
}

TEST_F(CliTest, ClipAndVisWarnAboutTheMeshAndDropDegenerateTriangles)
{
    mtest::writeFile(dir.file("holed.obj"), roomWith(ROOM_FACES.substr(8)));
    for (const char* args : {"clip holed.obj -o h.mrc --json", "vis holed.obj --json"})
    {
        Outcome r = run(args);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_NE(r.err.find("meridbsp: warning: 3 open edges: the mesh is not closed, so solid and empty space "
                             "may leak into each other"),
                  std::string::npos)
            << args << r.err;
        EXPECT_NE(r.out.find("\"health\":{\"triangles\":11,\"degenerateTriangles\":0,\"openEdges\":3,"),
                  std::string::npos)
            << args << r.out;
    }

    // Inward faces make the clip BSP's inside open: a note, unless a mirror turns them out.
    const char* note = "meridbsp: note: the faces point inward (signed volume -262144): the inside of the clip BSP "
                       "will be open space";
    EXPECT_NE(run("clip room.obj -o a.mrc").err.find(note), std::string::npos);
    EXPECT_EQ(run("clip room.obj -o a.mrc --matrix -1,0,0,0,1,0,0,0,1").err.find("note:"), std::string::npos);
    mtest::writeFile(dir.file("prop.obj"), roomWith(ROOM_OUTWARD));
    EXPECT_EQ(run("clip prop.obj -o a.mrc").err.find("note:"), std::string::npos);

    // Degenerate triangles are dropped unless kept; all of them dropped leaves nothing.
    mtest::writeFile(dir.file("degenerate.obj"), roomWith(ROOM_FACES, "v 1 1 1\nv 2 2 2\nv 3 3 3\nf 9 10 11\n"));
    const std::pair<const char*, long> runs[] = {{"vis degenerate.obj --json", 12},
                                                 {"vis degenerate.obj --json --keep-degenerate", 13},
                                                 {"clip degenerate.obj -o d.mrc --json", 12},
                                                 {"clip degenerate.obj -o d.mrc --json --keep-degenerate", 13}};
    for (const auto& c : runs)
    {
        Outcome r = run(c.first);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(jsonNumber(r.out, c.first[0] == 'v' ? "numFaces" : "numPlanes"), c.second) << c.first;
        EXPECT_EQ(jsonNumber(r.out, "droppedTriangles"), 13 - c.second) << c.first;
        EXPECT_NE(r.err.find(c.second == 12 ? "meridbsp: warning: dropped 1 degenerate triangle (collinear or "
                                              "coincident points), which have no plane; --keep-degenerate keeps them"
                                            : "meridbsp: warning: kept 1 degenerate triangle"),
                  std::string::npos)
            << c.first << r.err;
    }
    mtest::writeFile(dir.file("line.obj"), "v 1 1 1\nv 2 2 2\nv 3 3 3\nf 1 2 3\n");
    expectRun("clip line.obj -o l.mrc", "", 1, "",
              "meridbsp: error: line.obj: every triangle is degenerate (collinear or coincident points), so none "
              "is left; --keep-degenerate passes them on as they are");
    EXPECT_EQ(run("vis line.obj --keep-degenerate").code, 0);
}

// ---- Leaks ---------------------------------------------------------------------------------

TEST_F(CliTest, InsidePointsTellWhetherTheLevelLeaksAndWhichWay)
{
    // The demo level, and the same without room A's west wall (x = 0, y 0 to 256).
    std::string level = mtest::readFile(DEMO_LEVEL);
    const std::string wall = "f 1 4 6\nf 1 6 5\n";
    ASSERT_NE(level.find(wall), std::string::npos);
    mtest::writeFile(dir.file("level.obj"), level);
    mtest::writeFile(dir.file("open.obj"), level.replace(level.find(wall), wall.size(), ""));

    Outcome r = run("vis level.obj --inside 128,128,64 --inside '128 512 64'");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err.find("warning: leak:"), std::string::npos) << r.err;
    EXPECT_NE(r.out.find("\nopen space: all 9 open leaves enclosed, none reaches the outside\nwrote leak.obj: the way "
                         "out from each inside point that leaks (0 paths)\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(file("leak.obj").find("# No leak"), std::string::npos);

    r = run("vis open.obj --out . --inside 128,128,64 --inside 128,512,64");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("meridbsp: warning: leak: the open space at 128 128 64 reaches the outside through 1 portal; "
                         "the path is in leak.obj"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("meridbsp: warning: leak: the open space at 128 512 64 reaches the outside through"),
              std::string::npos);
    EXPECT_NE(r.out.find("open space: all 9 open leaves reach the outside, none is enclosed"), std::string::npos);
    // From room A straight out through the missing wall to the outer box at x = -24.
    const std::string obj = file("leak.obj");
    EXPECT_NE(obj.find("v 128 128 64\nv -24 128 64\n"), std::string::npos) << obj;
    EXPECT_NE(obj.find("\nl 1 2\nl 3 "), std::string::npos) << obj;

    r = run("vis open.obj --json --inside 128,128,64 --leak-out paths.obj");
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("\"openLeaves\":{\"total\":9,\"reachOutside\":9,\"enclosed\":0},\"insidePoints\":[{\"point\":"
                         "[128.0,128.0,64.0],\"openSpace\":true,\"insideBox\":true,\"leaks\":true}],\"leak\":{\"file\":"
                         "\"paths.obj\",\"paths\":[{\"inside\":[128.0,128.0,64.0],\"portals\":1,\"path\":[[128.0,128.0,"
                         "64.0],[-24.0,128.0,64.0]]}]}"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(file("paths.obj"), obj.substr(0, obj.find("v 128 512")) + "l 1 2\n");

    // Without inside points only the count, and no path file; a point in the rock is
    // pointed out; a malformed one is refused.
    std::filesystem::create_directory(dir.file("plain"));
    r = run("vis open.obj --inside 320,320,48 --inside 320,320,-100 --json");
    EXPECT_NE(r.err.find("meridbsp: warning: inside point 320 320 48 lies in solid space, so nothing is tested from "
                         "it\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("meridbsp: warning: inside point 320 320 -100 lies in solid space, so nothing is tested "
                         "from it (it is outside the mesh's box)\n"),
              std::string::npos)
        << r.err;
    r = run("vis level.obj --out plain");
    EXPECT_FALSE(exists(dir.file("plain/leak.obj")));
    EXPECT_NE(r.out.find("open space: all 9 open leaves enclosed"), std::string::npos);
    mtest::writeFile(dir.file("prop.obj"), roomWith(ROOM_OUTWARD));
    EXPECT_NE(run("vis prop.obj --out plain")
                  .out.find(" reach the outside, none is enclosed (right for a prop; a "
                            "level leaks)\n"),
              std::string::npos);
    expectRun("vis level.obj --inside 1,2", "", 2, "",
              "--inside 1,2: expected 3 numbers, found 2 (expected a point X,Y,Z)");
}

// ---- Demo ---------------------------------------------------------------------------------

TEST_F(CliTest, DemoWritesItsFourOutputs)
{
    Outcome r = run("demo --out out");
    EXPECT_EQ(r.code, 0) << r.err;
    for (const char* name : {"test.prt", "portals.obj", "level.mrc", "slice.png"})
    {
        EXPECT_TRUE(exists(dir.file(std::string("out/") + name))) << name;
        EXPECT_NE(r.out.find(std::string("wrote out/") + name), std::string::npos) << name << "\n" << r.out;
    }
    EXPECT_NE(r.out.find("and out/portals.mtl"), std::string::npos);
    EXPECT_TRUE(exists(dir.file("out/portals.mtl")));
    EXPECT_NE(r.out.find("84 triangles"), std::string::npos) << r.out;

    // Rooms and corridors are open, the pillar is solid of the marked kind (its material
    // says so), the rock between the rooms plain solid.
    EXPECT_EQ(run("point out/level.mrc", "128 128 48\n600 0 48\n128 512 48\n320 128 48\n128 320 48\n").out,
              "-1 empty\n-1 empty\n-1 empty\n-1 empty\n-1 empty\n");
    EXPECT_EQ(run("point out/level.mrc 512 128 48").out, "-3 marked solid\n");
    EXPECT_EQ(run("point out/level.mrc 320 320 48").out, "-2 solid\n");

    // Every open leaf is reachable from every other through the portals of the file.
    mtest::PortalFile prt = mtest::parsePortalFile(file("out/test.prt"));
    ASSERT_GT(prt.leafs, 1);
    EXPECT_EQ(mtest::connectedLeafGroups(prt), 1u);
}

// ---- Threads and many meshes ----------------------------------------------------------------

// Writes a pinned benchmark mesh as NAME.obj in the test's directory.
void writeBenchMesh(const mtest::TempDir& dir, const std::string& name)
{
    std::unique_ptr<BenchMesh> mesh(BenchMesh::generate(name));
    ASSERT_TRUE(mesh && mesh->writeObj(dir.file(name + ".obj"))) << name;
}

TEST_F(CliTest, ClipWritesTheSameBytesOnEveryThreadCountAndInABatch)
{
    // Meshes large enough that subtrees and the blocks of large nodes are built on other threads.
    const std::vector<std::string> meshes = {"knot10k", "sphere10k"};
    for (const std::string& name : meshes)
    {
        SCOPED_TRACE(name);
        writeBenchMesh(dir, name);
        ASSERT_EQ(run("clip " + name + ".obj -o " + name + "-1.mrc --threads 1").code, 0);
        for (const char* threads : {"--threads 2", "--threads 3", "--threads 8", ""})
        {
            Outcome r = run("clip " + name + ".obj -o t.mrc " + threads);
            ASSERT_EQ(r.code, 0) << threads << r.err;
            EXPECT_EQ(file("t.mrc"), file(name + "-1.mrc")) << threads;
        }
    }
    // Each worker's build gets the cores left over.
    ASSERT_EQ(run("clip knot10k.obj sphere10k.obj --out-dir many").code, 0);
    for (const std::string& name : meshes)
        EXPECT_EQ(file("many/" + name + ".mrc"), file(name + "-1.mrc")) << name;
    for (const char* args :
         {"clip room.obj -o a.mrc --threads -2", "demo --out d --threads -1", "view room.obj -o v.html --threads -1"})
        expectRun(args, "", 2, "", "--threads -");
    EXPECT_FALSE(exists(dir.file("d")));
}

TEST_F(CliTest, ManyMeshesAreBuiltByWorkersEachAsItsOwnRunWouldBuildIt)
{
    mtest::writeFile(dir.file("level.obj"), mtest::readFile(DEMO_LEVEL));
    mtest::writeFile(dir.file("bad.obj"), "v 0 0 0\nv nan 0 0\nv 0 1 0\nf 1 2 3\n");
    std::filesystem::create_directory(dir.file("one"));
    // Each command's run over many meshes, a one-mesh run of NAME, and the files both write.
    // The portal meshes' colours come from the process's random numbers, so two visibility
    // builds in one process would colour the second differently.
    const struct
    {
        const char* command;
        std::string (*single)(const std::string& name);
        std::vector<std::string> outputs; // NAME stands for the mesh's name
    } commands[] = {
        {"clip", [](const std::string& name) { return "clip " + name + ".obj -o one/" + name + ".mrc"; }, {"NAME.mrc"}},
        {"vis",
         [](const std::string& name) { return "vis " + name + ".obj --out one/" + name; },
         {"NAME/test.prt", "NAME/portals.obj", "NAME/portals.mtl"}},
    };
    for (const auto& c : commands)
    {
        SCOPED_TRACE(c.command);
        const std::string command = c.command;
        Outcome r = run(command + " level.obj bad.obj room.obj --out-dir many");
        EXPECT_EQ(r.code, 1);
        // A line per mesh built, as each ends; the failure said in its own words, then named.
        std::vector<std::string> got = lines(r.out);
        std::sort(got.begin(), got.end());
        ASSERT_EQ(got.size(), 2u) << r.out;
        EXPECT_EQ(got[0].rfind("level.obj: wrote many/level", 0), 0u) << got[0];
        EXPECT_EQ(got[1].rfind("room.obj: wrote many/room", 0), 0u) << got[1];
        EXPECT_NE(r.err.find("meridbsp: error: bad.obj: mesh 0 vertex 1 has a non-finite coordinate (nan 0 0)\n"),
                  std::string::npos)
            << r.err;
        EXPECT_NE(r.err.find("meridbsp: error: 1 of 3 meshes failed: bad.obj\n"), std::string::npos) << r.err;
        for (const std::string name : {"level", "room"})
        {
            ASSERT_EQ(run(c.single(name)).code, 0);
            for (std::string output : c.outputs)
            {
                output.replace(output.find("NAME"), 4, name);
                EXPECT_EQ(file("many/" + output), file("one/" + output)) << output;
            }
        }

        // JSON Lines: an object per mesh, failures included.
        r = run(command + " bad.obj room.obj --out-dir json --json");
        EXPECT_EQ(r.code, 1);
        std::map<std::string, nlohmann::json> results;
        for (const std::string& line : lines(r.out))
        {
            const nlohmann::json j = nlohmann::json::parse(line);
            results[j["mesh"]] = j;
        }
        ASSERT_EQ(results.size(), 2u) << r.out;
        EXPECT_EQ(
            results["bad.obj"],
            nlohmann::json::parse(
                "{\"mesh\":\"bad.obj\",\"ok\":false,\"error\":\"bad.obj: mesh 0 vertex 1 has a non-finite coordinate "
                "(nan 0 0)\"}"));
        EXPECT_EQ(results["room.obj"]["ok"], true);
        EXPECT_EQ(results["room.obj"]["health"]["triangles"], 12);
    }
    // A worker's warnings name its mesh.
    EXPECT_NE(run("clip room.obj --out-dir many").err.find("meridbsp: note: room.obj: the faces point inward"),
              std::string::npos);
    EXPECT_FALSE(exists(dir.file("many/bad"))); // a failed visibility build leaves no directory

    // A worker that dies is named with the signal that ended it.
    writeBenchMesh(dir, "knot10k");
    Outcome r = run("vis knot10k.obj room.obj --out-dir slow --json", "", "ulimit -c 0; ulimit -S -t 1;");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("{\"mesh\":\"knot10k.obj\",\"ok\":false,\"error\":\"knot10k.obj: the worker was ended by "
                         "signal 24 (CPU time limit exceeded)\"}"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("{\"mesh\":\"room.obj\",\"ok\":true,"), std::string::npos) << r.out;
}

TEST_F(CliTest, OutputsForOneMeshOrForManyAreAskedForOneWayOnly)
{
    std::filesystem::create_directory(dir.file("sub"));
    mtest::writeFile(dir.file("sub/room.obj"), ROOM_OBJ);
    const std::pair<const char*, const char*> cases[] = {
        {"clip room.obj sub/room.obj", "several meshes need --out-dir DIR, which names each mesh's outputs after it "
                                       "(DIR/NAME.mrc); -o is for one mesh"},
        {"vis room.obj sub/room.obj", "several meshes need --out-dir DIR"},
        {"clip room.obj", "clip needs -o FILE, or --out-dir DIR to write DIR/NAME.mrc"},
        {"clip room.obj -o a.mrc --out-dir d", "--out-dir cannot go with -o: it names each mesh's outputs itself"},
        {"vis room.obj --out-dir d --prt-out p.prt --out e", "--out-dir cannot go with --out, --prt-out"},
        {"clip room.obj -o a.mrc --jobs 2", "--jobs goes with --out-dir"},
        {"vis room.obj --out-dir d --jobs -1", "--jobs -1: expected 0 (every core the process may use) or a count"},
        {"clip room.obj sub/room.obj --out-dir d", "room.obj and sub/room.obj would both write d/room.mrc"},
        {"vis sub/ --out-dir d", "sub/: no file name to name its outputs after"},
    };
    for (const auto& c : cases)
        expectRun(c.first, "", 2, "", c.second);
    for (const char* made : {"a.mrc", "d", "e"})
        EXPECT_FALSE(exists(dir.file(made))) << made;
}

// The recipes of docs/batch.md with GNU parallel, "across machines" included: there ssh is
// a stand-in that runs the commands here, in a directory of their own, so the files are
// copied there and back as they would be between machines.
TEST_F(CliTest, BatchRecipesWithGnuParallelRunAsWritten)
{
    for (const char* tool : {"parallel", "rsync"})
        if (std::system((std::string("command -v ") + tool + " >/dev/null").c_str()) != 0)
            GTEST_SKIP() << tool << " is not installed (tools/install-deps.sh --test installs it)";
    std::filesystem::create_directory(dir.file("levels"));
    std::filesystem::create_directory(dir.file("remote"));
    mtest::writeFile(dir.file("levels/level.obj"), mtest::readFile(DEMO_LEVEL));
    mtest::writeFile(dir.file("levels/room.obj"), ROOM_OBJ);
    mtest::writeFile(dir.file("levels/empty.obj"), "");
    // ssh [OPTIONS] HOST [--] COMMAND: the command, run here in `remote` (parallel keeps its
    // own files under HOME, the test's directory; CI runs without SHELL, which parallel needs).
    mtest::writeFile(dir.file("ssh"),
                     "#!/bin/bash\n"
                     "while [ $# -gt 0 ]; do case \"$1\" in -o|-l|-p) shift 2;; -*) shift;; *) break;; "
                     "esac; done\n"
                     "shift; [ \"${1:-}\" = -- ] && shift\n"
                     "cd \"$REMOTE\" && exec /bin/sh -c \"$*\"\n");
    ::chmod(dir.file("ssh").c_str(), 0755);
    const std::vector<Example> examples = consoleExamples(mtest::readFile(MERIDBSP_SOURCE_DIR "/docs/batch.md"));
    ASSERT_GE(examples.size(), 3u);
    expectExamples(dir.path(), examples,
                   "export SHELL=/bin/sh HOME='" + dir.path() + "' PARALLEL_SSH='" + dir.file("ssh") + "' REMOTE='" +
                       dir.file("remote") + "'\n");
    ASSERT_EQ(run("clip levels/level.obj -o level.mrc").code, 0);
    EXPECT_EQ(file("clips/level.mrc"), file("level.mrc"));
    EXPECT_EQ(file("built/level.mrc"), file("level.mrc")); // built "remotely" and brought back
    EXPECT_TRUE(std::filesystem::is_empty(dir.file("remote")));
}

} // namespace
