// The meridbsp tool, driven as a user drives it: the built binary, its standard output,
// standard error and exit code.
#include <algorithm>
#include <array>
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
#include <sys/stat.h>
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

// ---- Command lines and what they give (tests/data/cli_cases.txt) ------------------------

// A line's text with \n, \t, \\ and \xHH written out; any other backslash stays.
std::string unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i)
    {
        const char next = i + 1 < text.size() ? text[i + 1] : 0;
        if (text[i] != '\\' || !std::strchr("nt\\x", next))
            out += text[i];
        else if (next == 'x')
            out += (char)std::stoi(text.substr(i + 2, 2), nullptr, 16), i += 3;
        else
            out += next == 'n' ? '\n' : next == 't' ? '\t' : '\\', ++i;
    }
    return out;
}

// Every file, directory and link under `root` with its bytes, "/" or its target.
std::map<std::string, std::string> snapshot(const std::string& root)
{
    std::map<std::string, std::string> files;
    for (const auto& e : std::filesystem::recursive_directory_iterator(root))
        files[e.path().string()] = e.is_symlink()     ? "-> " + std::filesystem::read_symlink(e.path()).string()
                                   : e.is_directory() ? "/"
                                                      : mtest::readFile(e.path().string());
    return files;
}

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

void expectCamelCase(const nlohmann::json& v)
{
    static const std::regex camel("[a-z][a-zA-Z]*");
    for (auto item = v.begin(); v.is_structured() && item != v.end(); ++item)
    {
        EXPECT_TRUE(v.is_array() || std::regex_match(item.key(), camel)) << item.key();
        expectCamelCase(item.value());
    }
}

// A one-line JSON object with exactly the keys of `schema` ("key:type ...": i integer,
// n number, s string, b bool, a array, o object, a trailing ? also null), each of its type,
// and every key at any depth in one style: lowerCamelCase.
void expectJsonSchema(const std::string& text, const std::string& schema)
{
    ASSERT_EQ(lines(text).size(), 1u) << text;
    const nlohmann::json j = nlohmann::json::parse(text);
    std::vector<std::string> keys, expected;
    std::istringstream entries(schema);
    for (std::string entry; entries >> entry;)
    {
        const std::string key = entry.substr(0, entry.find(':'));
        expected.push_back(key);
        EXPECT_TRUE(!j.contains(key) || jsonTypeIs(j[key], entry.substr(entry.find(':') + 1))) << entry;
    }
    for (auto item = j.begin(); item != j.end(); ++item)
        keys.push_back(item.key());
    std::sort(keys.begin(), keys.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(keys, expected);
    expectCamelCase(j);
}

// Text split at its first blank: "a b c" gives "a" and "b c".
std::pair<std::string, std::string> splitFirst(const std::string& text)
{
    const std::string::size_type blank = text.find(' ');
    return {text.substr(0, blank), blank == std::string::npos ? "" : text.substr(blank + 1)};
}

// A run of the tool as a case of the table describes it.
struct CommandCase
{
    int line = 0;
    std::string args, input, env;
    int code = 0;
    std::vector<std::array<std::string, 3>> expect; // stream, operator, text
};

TEST_F(CliTest, CommandLinesGiveTheirExitCodesOutputsAndMessages)
{
    EXPECT_EQ(run("--version").out, std::string("meridbsp ") + meridbspVersion() + "\n");
    mtest::writeFile(dir.file("level.obj"), mtest::readFile(DEMO_LEVEL));
    // Text a run printed, or a file holds, as `op` and `want` describe it.
    auto expectText =
        [&](const std::string& what, const std::string& got, const std::string& op, const std::string& want)
    {
        if (op == "json")
            expectJsonSchema(got, want);
        const bool ok = op == "json" ? true
                        : op == "="  ? got == want
                        : op == "~"  ? got.find(want) != std::string::npos
                        : op == "!"  ? got.find(want) == std::string::npos
                        : op == "^"  ? got.rfind(want, 0) == 0
                        : op == "?"  ? std::regex_search(got, std::regex(want))
                                     : op == "@" && got == file(want);
        EXPECT_TRUE(ok) << what << " " << op << " " << want << "\n" << what << " was:\n" << got;
    };
    std::unique_ptr<CommandCase> pending;
    auto flush = [&]
    {
        if (!pending)
            return;
        const CommandCase c = *pending;
        pending.reset();
        SCOPED_TRACE("cli_cases.txt:" + std::to_string(c.line) + ": " + c.args);
        const auto before = snapshot(dir.path());
        Outcome r = run(c.args, c.input, c.env);
        EXPECT_EQ(r.code, c.code) << r.err;
        if (c.code != 0)
        {
            EXPECT_TRUE(snapshot(dir.path()) == before) << "a failed run changed the files";
        }
        for (const auto& [stream, op, want] : c.expect)
            expectText(stream, stream == "out" ? r.out : r.err, op, want);
    };
    std::istringstream in(mtest::readFile(MERIDBSP_SOURCE_DIR "/tests/data/cli_cases.txt"));
    int number = 0;
    for (std::string line; std::getline(in, line);)
    {
        ++number;
        const auto [word, rest] = splitFirst(line);
        const auto [first, second] = splitFirst(rest);
        if (word == "exit" || word == "in" || word == "env" || word == "out" || word == "err")
        {
            ASSERT_TRUE(pending) << "line " << number << " belongs to no command";
            if (word == "exit")
                pending->code = std::stoi(rest);
            else if (word == "in")
                pending->input = unescape(rest);
            else if (word == "env")
                pending->env = rest;
            else
                pending->expect.push_back({word, first, unescape(second)});
            continue;
        }
        flush();
        if (word == "$")
        {
            pending.reset(new CommandCase);
            pending->line = number;
            pending->args = rest;
        }
        else if (word == "file")
        {
            std::filesystem::create_directories(std::filesystem::path(dir.file(first)).parent_path());
            mtest::writeFile(dir.file(first), unescape(second));
        }
        else if (word == "without")
        {
            const auto [source, cut] = splitFirst(second);
            std::string text = file(source);
            const std::string::size_type at = text.find(unescape(cut));
            ASSERT_NE(at, std::string::npos) << "line " << number;
            mtest::writeFile(dir.file(first), text.erase(at, unescape(cut).size()));
        }
        else if (word == "has")
        {
            SCOPED_TRACE("line " + std::to_string(number));
            const auto [op, want] = splitFirst(second);
            expectText(first, file(first), op, unescape(want));
        }
        else if (word == "link")
            std::filesystem::create_symlink(first, dir.file(second));
        else if (word == "same")
            EXPECT_EQ(file(first), file(second)) << "line " << number;
        else if (word == "exists" || word == "absent")
            EXPECT_EQ(exists(dir.file(first)), word == "exists") << "line " << number;
        else
            ASSERT_TRUE(word.empty() || word[0] == '#') << "line " << number << ": " << line;
    }
    flush();

    // The demo's portal file joins every open leaf to every other.
    mtest::PortalFile prt = mtest::parsePortalFile(file("out/test.prt"));
    ASSERT_GT(prt.leafs, 1);
    EXPECT_EQ(mtest::connectedLeafGroups(prt), 1u);
}

// ---- Help, JSON and streams ------------------------------------------------------------

TEST_F(CliTest, HelpStatesTheDefaults)
{
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

// ---- Clip BSP files, slices and the visibility pipeline's files --------------------------

TEST_F(CliTest, TruncatedCyclicEmptyAndFlatClipBSPFilesAreBadInput)
{
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

    // Bounds that enclose nothing to draw: the box's lower bound moved up to its upper one.
    bytes = file("box.mrc");
    const std::string low(std::string("\0\0\0\xc2", 4) + std::string("\0\0\0\xc2", 4) + std::string("\0\0\0\xc2", 4));
    at = bytes.find(low);
    ASSERT_NE(at, std::string::npos);
    for (int k = 0; k < 3; ++k)
        bytes[at + 4 * (size_t)k + 3] = '\x42';
    mtest::writeFile(dir.file("flat.mrc"), bytes);
    expectRun("slice flat.mrc --axis z --at 0 -o flat.png", "", 1, nullptr,
              "meridbsp: error: flat.mrc: the clip BSP's bounds span no area on this slice");
    EXPECT_FALSE(exists(dir.file("flat.png")));
}

TEST_F(CliTest, SlicePicturesAreFramedWithLabelsAndALegend)
{
    ASSERT_EQ(run("slice box.mrc --axis z --at 0 --size 64 -o cut.png").code, 0);
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

TEST_F(CliTest, VisJsonIsTheOnlyOutput)
{
    Outcome r = run("vis '" + DEMO_LEVEL + "' --json --out .");
    EXPECT_EQ(r.code, 0) << r.err;
    std::vector<std::string> l = lines(r.out);
    ASSERT_EQ(l.size(), 1u) << r.out;
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
    ASSERT_EQ(run("vis '" + DEMO_LEVEL + "' --out b --mesh-out b/p.ply").code, 0);
    EXPECT_EQ(importedFaceCount(dir.file("b/p.ply")), polys);
}

// ---- Output paths that are not plain files ------------------------------------------------
// Never a path under /dev here: run as root, a tool that renames over its output would
// replace the machine's device node. /proc/self/fd/1 stands for /dev/stdout.

TEST_F(CliTest, ANamedPipeIsWrittenThroughNotReplaced)
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
