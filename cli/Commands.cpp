#include "Commands.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/pipeline/mrClipPipeline.h>
#include <meridbsp/platform/core/mrProgress.h>
#include <meridbsp/platform/dx/srMeshModel.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "AtomicFile.h"
#include "Batch.h"
#include "MeshHealth.h"
#include "MeshReader.h"
#include "MeshWriter.h"
#include "ModuleSession.h"
#include "OutputSet.h"
#include "Progress.h"
#include "SliceImage.h"
#include "StdoutRedirect.h"
#include "Tool.h"
#include "ViewPage.h"
#include "VisPipeline.h"

namespace
{

// Releases an engine object (mesh model, clip BSP) at the end of a scope.
template <class T> class Released
{
public:
    explicit Released(T* object = nullptr) : m_object(object) {}
    ~Released()
    {
        if (m_object)
            m_object->release();
    }
    Released(const Released&) = delete;
    Released& operator=(const Released&) = delete;
    void reset(T* object)
    {
        if (m_object)
            m_object->release();
        m_object = object;
    }
    T* get() const { return m_object; }
    T* operator->() const { return m_object; }

private:
    T* m_object;
};

std::string vec3(const srVector3T<float>& v) { return Tool::real(v.x) + " " + Tool::real(v.y) + " " + Tool::real(v.z); }

// "(x,y,z)", as the labelled answers write a point.
std::string tuple3(const srVector3T<float>& v)
{
    return "(" + Tool::real(v.x) + "," + Tool::real(v.y) + "," + Tool::real(v.z) + ")";
}

nlohmann::ordered_json jvec(const srVector3T<float>& v)
{
    return {Tool::jsonReal(v.x), Tool::jsonReal(v.y), Tool::jsonReal(v.z)};
}

void printJson(const nlohmann::ordered_json& j) { std::fprintf(Tool::out(), "%s\n", j.dump().c_str()); }

// What a contents value means, for people.
const char* contentsMeaning(int contents)
{
    if (contents >= -1)
        return "empty";
    return contents == -3 ? "marked solid" : "solid";
}

std::string ms(double value)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f ms", value);
    return buf;
}

// Every output is checked before any work starts, so a run that cannot write its
// results fails early and writes nothing. At most one output may take standard output;
// the report then goes to standard error, unless it is JSON, which has nowhere else to
// go. The exit code to stop with, or EXIT_OK.
int checkOutputs(const std::vector<std::string>& paths, bool json = false)
{
    int toStdout = OutputSet::countStdout(paths);
    if (toStdout > 1)
        return Tool::usage("only one output can go to standard output");
    if (toStdout == 1 && json)
        return Tool::usage("--json: standard output already carries an output file");
    for (const std::string& path : paths)
    {
        std::string why;
        if (!path.empty() && !AtomicFile::checkTarget(path, why))
            return Tool::fail(path, why);
    }
    if (toStdout == 1)
        Tool::reportToStderr();
    return Tool::EXIT_OK;
}

// Puts every output of the run in place; false after saying why.
bool commitOutputs(OutputSet& outputs)
{
    std::string error;
    if (outputs.commit(error))
        return true;
    Tool::fail(error);
    return false;
}

std::string joinWords(const std::vector<std::string>& words, const char* between = " ")
{
    std::string text;
    for (const std::string& w : words)
        text += (text.empty() ? "" : between) + w;
    return text;
}

srMeshModel* readMesh(const std::string& path, MeshReader::Stats* stats = nullptr)
{
    std::string error;
    srMeshModel* mesh = MeshReader::read(path, error, stats);
    if (!mesh)
        Tool::fail(path, error);
    return mesh;
}

// A mesh read for a pipeline, with its health told on standard error and its degenerate
// triangles dropped unless they are to be kept.
struct CheckedMesh
{
    MeshHealth::Report health;
    long dropped = 0;
};

srMeshModel* readCheckedMesh(const std::string& path, bool keepDegenerate, CheckedMesh& checked)
{
    srMeshModel* mesh = readMesh(path);
    if (!mesh)
        return nullptr;
    checked.health = MeshHealth::measure(*mesh);
    long degenerate = checked.health.degenerate;
    if (degenerate > 0 && degenerate == checked.health.triangles && !keepDegenerate)
    {
        mesh->release();
        Tool::fail(path, "every triangle is degenerate (collinear or coincident points), so none is left; "
                         "--keep-degenerate passes them on as they are");
        return nullptr;
    }
    if (degenerate > 0 && !keepDegenerate)
    {
        checked.dropped = MeshHealth::dropDegenerate(*mesh);
        Tool::warn("dropped " + Tool::count(checked.dropped, "degenerate triangle", "degenerate triangles") +
                   " (collinear or coincident points), which have no plane; --keep-degenerate keeps them");
    }
    else if (degenerate > 0)
        Tool::warn("kept " + Tool::count(degenerate, "degenerate triangle", "degenerate triangles") +
                   " (collinear or coincident points): without a plane, the tree may be wrong around them");
    for (const std::string& problem : MeshHealth::problems(checked.health))
        Tool::warn(problem);
    return mesh;
}

nlohmann::ordered_json healthJson(const CheckedMesh& checked)
{
    nlohmann::ordered_json j = MeshHealth::json(checked.health);
    j["droppedTriangles"] = checked.dropped;
    return j;
}

nlohmann::ordered_json leakJson(const mrLeakFinder::Report& r, const std::string& leakFile)
{
    nlohmann::ordered_json j;
    j["openLeaves"] = {{"total", r.openLeaves}, {"reachOutside", r.reachable}, {"enclosed", r.enclosed}};
    nlohmann::ordered_json points = nlohmann::ordered_json::array();
    nlohmann::ordered_json paths = nlohmann::ordered_json::array();
    for (const mrLeakFinder::Leak& leak : r.points)
    {
        nlohmann::ordered_json p;
        p["point"] = jvec(leak.point);
        p["openSpace"] = leak.inOpenLeaf;
        p["insideBox"] = leak.insideBox;
        p["leaks"] = leak.leaks;
        points.push_back(p);
        if (!leak.leaks)
            continue;
        nlohmann::ordered_json path;
        path["inside"] = jvec(leak.point);
        path["portals"] = leak.path.size() - 1;
        path["path"] = nlohmann::ordered_json::array();
        for (const srVector3T<float>& v : leak.path)
            path["path"].push_back(jvec(v));
        paths.push_back(path);
    }
    j["insidePoints"] = points;
    if (paths.empty())
        j["leak"] = nullptr;
    else
        j["leak"] = {{"file", leakFile}, {"paths", paths}};
    return j;
}

double elapsedJson(double ms) { return std::round(ms * 1000.0) / 1000.0; }

// The visibility run's results; the counters keep the library's names. Without a checked
// mesh (the demo's level is known to be sound) there is no health report.
nlohmann::ordered_json visJson(const mrVisPipeline::Result& r, const VisPipeline::Options& o,
                               const CheckedMesh* checked, double elapsed)
{
    nlohmann::ordered_json j;
    j["numPlanes"] = r.planes;
    j["numSurfaces"] = r.surfaces;
    j["numFaces"] = r.faces;
    j["numSplitNodes"] = r.numSplitNodes;
    j["numLeafFaces"] = r.numLeafFaces;
    j["numNodeFaces"] = r.numNodeFaces;
    j["numSolidLeafs"] = r.numSolidLeafs;
    j["numEmptyLeafs"] = r.numEmptyLeafs;
    j["numLinkedFaces"] = r.numLinkedFaces;
    j["numVisleafs"] = r.numVisleafs;
    j["numVisportals"] = r.numVisportals;
    j["portalMeshPolys"] = r.portalMeshPolys;
    j["portalFile"] = o.portalFile;
    j["portalMeshFile"] = o.meshFile;
    if (checked)
        j["health"] = healthJson(*checked);
    nlohmann::ordered_json leaks = leakJson(r.leaks, o.leakFile);
    for (auto& item : leaks.items())
        j[item.key()] = item.value();
    j["elapsedMs"] = elapsedJson(elapsed);
    return j;
}

// What the open space of the tree is joined to, true for a closed prop (its outside is
// open by design) and for a level (everything should be enclosed) alike.
std::string openSpaceSentence(const mrLeakFinder::Report& r)
{
    std::string leaves = Tool::count(r.openLeaves, "open leaf", "open leaves");
    if (r.openLeaves == 0)
        return "open space: none";
    if (r.reachable == 0)
        return "open space: all " + leaves + " enclosed, none reaches the outside";
    if (r.enclosed == 0)
        return "open space: all " + leaves + " reach the outside, none is enclosed (right for a prop; a level leaks)";
    return "open space: " + std::to_string(r.enclosed) + " of " + leaves + " enclosed, " + std::to_string(r.reachable) +
           " reach the outside";
}

// One line per inside point that tells something: its open space leaks, or it lies in solid
// space where nothing can be tested.
std::vector<std::string> leakWarnings(const mrLeakFinder::Report& r, const std::string& leakFile)
{
    std::vector<std::string> lines;
    for (const mrLeakFinder::Leak& leak : r.points)
    {
        std::string at = vec3(leak.point);
        if (!leak.inOpenLeaf)
            lines.push_back("inside point " + at + " lies in solid space, so nothing is tested from it" +
                            (leak.insideBox ? "" : " (it is outside the mesh's box)"));
        else if (leak.leaks)
            lines.push_back("leak: the open space at " + at + " reaches the outside through " +
                            Tool::count((long)leak.path.size() - 1, "portal", "portals") + "; the path is in " +
                            leakFile);
    }
    return lines;
}

void printVisSummary(const mrVisPipeline::Result& r, const VisPipeline::Options& o)
{
    FILE* out = Tool::out();
    std::fprintf(out, "planes %u, surfaces %u, faces %u\n", r.planes, r.surfaces, r.faces);
    std::fprintf(out, "solid BSP: %d decision nodes, %d empty leaves, %d solid leaves\n", r.numSplitNodes,
                 r.numEmptyLeafs, r.numSolidLeafs);
    std::fprintf(out, "faces: %d in leaves, %d on nodes, %d linked\n", r.numLeafFaces, r.numNodeFaces,
                 r.numLinkedFaces);
    std::fprintf(out, "wrote %s: the portal file, %s and %s between them\n", o.portalFile.c_str(),
                 Tool::count(r.numVisleafs, "open leaf", "open leaves").c_str(),
                 Tool::count(r.numVisportals, "portal", "portals").c_str());
    std::string companion = MeshWriter::companionPath(o.meshFile, o.meshFormat);
    std::fprintf(out, "wrote %s%s%s: the portal mesh, %s where open leaves meet solid space\n", o.meshFile.c_str(),
                 companion.empty() ? "" : " and ", companion.c_str(),
                 Tool::count(r.portalMeshPolys, "polygon", "polygons").c_str());
}

// Runs one query per line of standard input, answering each line as it is read.
template <class Answer> int streamQueries(size_t count, Answer answer)
{
    char* line = nullptr;
    size_t capacity = 0;
    long lineNumber = 0;
    int status = Tool::EXIT_OK;
    float values[6];
    ssize_t length;
    while ((length = ::getline(&line, &capacity, stdin)) >= 0)
    {
        ++lineNumber;
        std::string text(line, (size_t)length);
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
        if (Tool::splitWords(text).empty())
            continue;
        std::string why;
        if (!Tool::parseVector(text, count, values, why))
        {
            std::fflush(stdout);
            status = Tool::fail("stdin line " + std::to_string(lineNumber), why);
            break;
        }
        answer(values);
    }
    std::free(line);
    return status;
}

// A file that is no chunk file but a mesh the importer reads: the user has skipped a step.
bool looksLikeMesh(const std::string& path)
{
    char magic[4] = {0, 0, 0, 0};
    FILE* in = std::fopen(path.c_str(), "rb");
    if (!in)
        return false;
    size_t got = std::fread(magic, 1, sizeof magic, in);
    std::fclose(in);
    if (got == sizeof magic && std::memcmp(magic, "MRCF", 4) == 0)
        return false;
    std::string error;
    srMeshModel* mesh = MeshReader::read(path, error);
    if (!mesh)
        return false;
    mesh->release();
    return true;
}

// The chunk file's clip BSP, checked for what the queries take on trust.
mrClipBSP* loadClipBSP(ModuleSession& session, const std::string& path, bool validate)
{
    std::string error;
    if (!session.start(error))
    {
        Tool::fail(error);
        return nullptr;
    }
    mrClipBSP* bsp = session.load(path, validate, error);
    if (!bsp)
    {
        if (looksLikeMesh(path))
            Tool::fail(path, "this is a mesh file, not a clip BSP file; make one from it first with 'meridbsp clip " +
                                 path + " -o OUT.mrc'");
        else
            Tool::fail(error);
    }
    return bsp;
}

bool saveClipBSP(ModuleSession& session, OutputSet& outputs, const std::string& path, mrClipBSP* bsp)
{
    std::string error;
    if (!session.start(error) || !session.save(outputs, path, bsp, error))
    {
        Tool::fail(error);
        return false;
    }
    return true;
}

struct DepthStats
{
    double leaves = 1;
    double sumDepth = 0;
    long maxDepth = 0;
};

// Leaf depths of a validated clip BSP (every child is a leaf or a later node), node by
// node from the last, so neither recursion nor shared subtrees can blow up.
DepthStats depthStats(const mrClipBSP& bsp)
{
    DepthStats root;
    if (!bsp.m_nodes || bsp.m_numnodes == 0 || !bsp.m_planes)
        return root;
    std::vector<DepthStats> below(bsp.m_numnodes);
    for (uint32_t i = bsp.m_numnodes; i-- > 0;)
    {
        DepthStats s;
        s.leaves = 0;
        for (int side = 0; side < 2; ++side)
        {
            int32_t child = bsp.m_nodes[i].child[side];
            if (child < 0)
            {
                s.leaves += 1;
                s.sumDepth += 1;
                s.maxDepth = std::max(s.maxDepth, 1L);
            }
            else
            {
                const DepthStats& c = below[(size_t)child];
                s.leaves += c.leaves;
                s.sumDepth += c.sumDepth + c.leaves;
                s.maxDepth = std::max(s.maxDepth, c.maxDepth + 1);
            }
        }
        below[i] = s;
    }
    return below[0];
}

bool parseAxis(const std::string& text, int& axis)
{
    if (text == "x" || text == "X")
        axis = 0;
    else if (text == "y" || text == "Y")
        axis = 1;
    else if (text == "z" || text == "Z")
        axis = 2;
    else
        return false;
    return true;
}

std::string directoryOfExecutable()
{
    char buf[4096];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return std::string();
    buf[n] = '\0';
    std::string path(buf);
    std::string::size_type slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool fileExists(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// point and trace: one query from the command line, or one per line of stdin, answered
// by `answer(clip, values)` against the loaded clip BSP.
template <class Answer>
int answerQueries(const Commands::FileArgs& args, size_t count, const char* usage, Answer answer)
{
    float q[6];
    std::string why;
    if (!args.numbers.empty() && !Tool::parseVector(joinWords(args.numbers), count, q, why))
        return Tool::usage(why + "; " + usage);
    ModuleSession session;
    Released<mrClipBSP> bsp(loadClipBSP(session, args.file, true));
    if (!bsp.get())
        return Tool::EXIT_BAD_INPUT;
    const mrClipBSP& clip = *bsp.get();
    auto ask = [&](const float* v) { answer(clip, v); };
    if (!args.numbers.empty())
    {
        ask(q);
        return Tool::EXIT_OK;
    }
    return streamQueries(count, ask);
}

// A matrix the mesh cannot be undone from is refused: its determinant, against the product
// of its column lengths (the largest it can be), must not vanish. Empty when usable. The
// entries are finite floats, so in double nothing here overflows.
std::string matrixProblem(const srMatrix3T<float>& matrix, double& det)
{
    const float* m = matrix.m;
    det = (double)m[0] * ((double)m[4] * m[8] - (double)m[5] * m[7]) -
          (double)m[3] * ((double)m[1] * m[8] - (double)m[2] * m[7]) +
          (double)m[6] * ((double)m[1] * m[5] - (double)m[2] * m[4]);
    double bound = 1.0;
    for (int c = 0; c < 3; ++c)
        bound *= std::sqrt((double)m[3 * c] * m[3 * c] + (double)m[3 * c + 1] * m[3 * c + 1] +
                           (double)m[3 * c + 2] * m[3 * c + 2]);
    if (bound == 0.0 || std::fabs(det) < 1e-6 * bound)
        return "the matrix is singular (determinant " + Tool::g9(det) + "): it would flatten the mesh";
    return std::string();
}

// Builds the view page of a mesh and adds it to the run's outputs; 0, or the exit code
// after the error was printed.
int addViewPage(srMeshModel* mesh, const std::string& meshPath, ViewPage::Options options, OutputSet& outputs,
                const std::string& path, ViewPage::Summary& summary)
{
    const std::string::size_type slash = meshPath.find_last_of('/');
    options.title = slash == std::string::npos ? meshPath : meshPath.substr(slash + 1);
    options.progress = Progress::callback();
    ViewPage page;
    std::string error;
    {
        StdoutRedirect quietStdout;
        if (!page.build(mesh, options, error))
            return Tool::fail(meshPath, error);
    }
    if (!page.write(outputs, path, error))
        return Tool::fail(error);
    summary = page.summary();
    return Tool::EXIT_OK;
}

long countLeaks(const mrLeakFinder::Report& r)
{
    long n = 0;
    for (const mrLeakFinder::Leak& leak : r.points)
        n += leak.leaks ? 1 : 0;
    return n;
}

nlohmann::ordered_json clipJson(const std::string& path, const mrClipBSP& bsp, const mrClipPipeline::Result& r)
{
    nlohmann::ordered_json j;
    j["file"] = path;
    j["numNodes"] = bsp.m_numnodes;
    j["numPlanes"] = bsp.m_numplanes;
    j["numEmptyLeafs"] = r.numEmptyLeafs;
    j["numSolidLeafs"] = r.numSolidLeafs;
    j["numLeafFaces"] = r.numLeafFaces;
    j["mins"] = jvec(bsp.m_mins);
    j["maxs"] = jvec(bsp.m_maxs);
    return j;
}

void printClipSummary(const std::string& path, const mrClipBSP& bsp, const mrClipPipeline::Result& r, long triangles)
{
    FILE* out = Tool::out();
    std::fprintf(out, "wrote %s: a clip BSP of %u nodes and %u planes from %s\n", path.c_str(), bsp.m_numnodes,
                 bsp.m_numplanes, Tool::count(triangles, "triangle", "triangles").c_str());
    std::fprintf(out, "leaves: %d empty, %d solid; %d faces reached leaves\n", r.numEmptyLeafs, r.numSolidLeafs,
                 r.numLeafFaces);
    std::fprintf(out, "bounds %s to %s (the mesh's box widened by 1)\n", vec3(bsp.m_mins).c_str(),
                 vec3(bsp.m_maxs).c_str());
}

nlohmann::ordered_json sliceJson(const std::string& path, int axis, float at, const SliceImage& image)
{
    nlohmann::ordered_json j;
    j["file"] = path;
    j["axis"] = SliceImage::axisName(axis);
    j["at"] = Tool::jsonReal(at);
    j["right"] = SliceImage::axisName(image.rightAxis());
    j["up"] = SliceImage::axisName(image.upAxis());
    j["rightRange"] = {Tool::jsonReal(image.left()), Tool::jsonReal(image.right())};
    j["upRange"] = {Tool::jsonReal(image.bottom()), Tool::jsonReal(image.top())};
    j["width"] = image.width();
    j["height"] = image.height();
    j["imageWidth"] = image.imageWidth();
    j["imageHeight"] = image.imageHeight();
    j["emptyPixels"] = image.counts().empty;
    j["solidPixels"] = image.counts().solid;
    j["markedPixels"] = image.counts().marked;
    return j;
}

// "wrote PATH: W x H pixels of z = 48, x runs right from A to B, y up from C to D; counts".
void printSliceSummary(const std::string& path, const std::string& axis, float at, const SliceImage& image)
{
    const SliceImage::Counts& c = image.counts();
    std::fprintf(Tool::out(),
                 "wrote %s: %d x %d pixels of %s = %s, %s runs right from %s to %s, %s up from %s to %s; %ld empty, "
                 "%ld solid, %ld marked solid\n",
                 path.c_str(), image.width(), image.height(), axis.c_str(), Tool::real(at).c_str(),
                 SliceImage::axisName(image.rightAxis()), Tool::real(image.left()).c_str(),
                 Tool::real(image.right()).c_str(), SliceImage::axisName(image.upAxis()),
                 Tool::real(image.bottom()).c_str(), Tool::real(image.top()).c_str(), c.empty, c.solid, c.marked);
}

nlohmann::ordered_json viewJson(const std::string& path, const ViewPage::Summary& s)
{
    nlohmann::ordered_json j;
    j["file"] = path;
    j["numLeaves"] = s.leaves;
    j["numOpenLeaves"] = s.openLeaves;
    j["numPortals"] = s.portals;
    j["portalMeshPolys"] = s.meshPolys;
    j["numClipNodes"] = s.clipNodes;
    j["leakPath"] = s.leak;
    return j;
}

void printViewSummary(const std::string& path, const ViewPage::Summary& s)
{
    std::fprintf(Tool::out(),
                 "wrote %s: %d leaves (%d open), %d portals between open leaves, %d portal mesh polygons, %u clip "
                 "BSP nodes%s\n",
                 path.c_str(), s.leaves, s.openLeaves, s.portals, s.meshPolys, s.clipNodes,
                 s.leak ? ", a leak path" : "");
}

// --threads and --jobs: 0 or a count.
int checkCount(const char* option, int value)
{
    if (value >= 0)
        return Tool::EXIT_OK;
    return Tool::usage(std::string(option) + " " + std::to_string(value) +
                       ": expected 0 (every core the process may use) or a count");
}

// One mesh's outputs or many meshes' --out-dir: usage errors for both, and for several
// meshes without --out-dir. `given` lists the options for one mesh's outputs that were
// given, `single` says which there are, `each` what --out-dir makes of a mesh's name.
int checkOutputMode(const std::vector<std::string>& meshes, const std::string& batchDir, int jobs,
                    const std::string& given, const std::string& single, const char* each)
{
    if (!batchDir.empty() && !given.empty())
        return Tool::usage("--out-dir cannot go with " + given + ": it names each mesh's outputs itself (" + each +
                           ")");
    if (batchDir.empty() && jobs != 0)
        return Tool::usage("--jobs goes with --out-dir");
    if (batchDir.empty() && meshes.size() > 1)
        return Tool::usage(
            std::string("several meshes need --out-dir DIR, which names each mesh's outputs after it (") + each +
            "); " + single + " for one mesh");
    return checkCount("--jobs", jobs);
}

// Where each mesh's outputs go in a run over many: DIR/NAME plus `suffix`, NAME the mesh
// file's name without its extension. Usage errors for a name that is missing or taken twice.
int batchTargets(const std::vector<std::string>& meshes, const std::string& dir, const std::string& suffix,
                 std::vector<std::string>& targets)
{
    std::map<std::string, std::string> taken;
    for (const std::string& mesh : meshes)
    {
        const std::string name = std::filesystem::path(mesh).stem().string();
        if (name.empty() || name == "." || name == "..")
            return Tool::usage(mesh + ": no file name to name its outputs after");
        const std::string target = Tool::joinPath(dir, name + suffix);
        auto at = taken.emplace(target, mesh);
        if (!at.second)
            return Tool::usage(at.first->second + " and " + mesh + " would both write " + target +
                               " (outputs are named after the mesh file without its extension)");
        targets.push_back(target);
    }
    return Tool::EXIT_OK;
}

// Runs the workers of a run over many meshes into `dir`; exit code 1, naming every mesh
// that failed, when any did. The directory is made if missing and kept even when nothing
// was built: other runs (as in a batch over GNU parallel) may be writing into it too.
int runBatch(const std::string& dir, const std::vector<Batch::Item>& items, int jobs, bool json,
             const Batch::Summary& summary)
{
    OutputSet made;
    std::string error;
    if (!made.makeDirectory(dir, error) || !made.commit(error))
        return Tool::fail(error);
    const std::vector<std::string> failed = Batch::run(items, jobs, json, summary);
    if (failed.empty())
        return Tool::EXIT_OK;
    // One mesh's worker has said what went wrong.
    if (items.size() == 1)
        return Tool::EXIT_BAD_INPUT;
    return Tool::fail(std::to_string(failed.size()) + " of " + Tool::count((long)items.size(), "mesh", "meshes") +
                      " failed: " + joinWords(failed, ", "));
}

// One worker per mesh, each running `command` with `output`=its target, --json, its share of
// the threads and `options`, then the mesh; the cores are shared as Batch::shape says.
int runBatchOf(const std::string& command, const std::string& output, const std::vector<std::string>& meshes,
               const std::vector<std::string>& targets, const std::vector<std::string>& options, const std::string& dir,
               int jobs, int threads, bool json, const Batch::Summary& summary)
{
    const Batch::Shape shape = Batch::shape(meshes.size(), jobs, threads, mrClipBSPGen::availableThreads());
    std::vector<Batch::Item> items;
    for (size_t i = 0; i < meshes.size(); ++i)
    {
        Batch::Item item{meshes[i],
                         {command, output + "=" + targets[i], "--json", "--threads=" + std::to_string(shape.threads)}};
        item.args.insert(item.args.end(), options.begin(), options.end());
        item.args.insert(item.args.end(), {"--", meshes[i]});
        items.push_back(item);
    }
    return runBatch(dir, items, shape.jobs, json, summary);
}

// The visibility run's options from the command line, with the default outputs in `dir`;
// 0, or the exit code of a usage error.
int visOptions(const Commands::VisArgs& args, const std::string& dir, VisPipeline::Options& options)
{
    options.midSplit = args.midSplit;
    options.threads = args.threads;
    options.portalFile = args.prtOut.empty() ? Tool::joinPath(dir, "test.prt") : args.prtOut;
    const MeshWriter::e_format named = MeshWriter::formatNamed(args.meshFormat);
    if (!args.meshFormat.empty() && named == MeshWriter::FORMAT_NONE)
        return Tool::usage("--mesh-format " + args.meshFormat + ": expected obj, glb or ply");
    // The default mesh file is named for the format asked for.
    const char* extension = named == MeshWriter::FORMAT_GLB ? "glb" : named == MeshWriter::FORMAT_PLY ? "ply" : "obj";
    options.meshFile = args.meshOut.empty() ? Tool::joinPath(dir, std::string("portals.") + extension) : args.meshOut;
    options.meshFormat = args.meshFormat.empty() ? MeshWriter::formatOf(options.meshFile) : named;
    if (options.meshFormat == MeshWriter::FORMAT_NONE)
        return Tool::usage("--mesh-out " + options.meshFile +
                           ": unsupported mesh format (use .obj, .glb or .ply, or name one with --mesh-format)");
    for (const std::string& text : args.inside)
    {
        float v[3];
        std::string why;
        if (!Tool::parseVector(text, 3, v, why))
            return Tool::usage("--inside " + text + ": " + why + " (expected a point X,Y,Z)");
        options.insidePoints.emplace_back(v[0], v[1], v[2]);
    }
    if (!options.insidePoints.empty())
        options.leakFile = args.leakOut.empty() ? Tool::joinPath(dir, "leak.obj") : args.leakOut;
    return Tool::EXIT_OK;
}

int visOne(const Commands::VisArgs& args, const std::string& meshPath, const VisPipeline::Options& options)
{
    double start = Tool::nowMs();
    Tool::setSubject(meshPath);
    AtomicFile::protectInput(meshPath);
    OutputSet outputs;
    std::string error;
    if (!outputs.makeDirectory(args.outDir.empty() ? "." : args.outDir, error))
        return Tool::fail(error);
    if (int code = checkOutputs({options.portalFile, options.meshFile,
                                 MeshWriter::companionPath(options.meshFile, options.meshFormat), options.leakFile},
                                args.json))
        return code;
    CheckedMesh checked;
    Released<srMeshModel> mesh(readCheckedMesh(meshPath, args.keepDegenerate, checked));
    if (!mesh.get())
        return Tool::EXIT_BAD_INPUT;

    mrVisPipeline::Result result;
    if (!VisPipeline::run(mesh.get(), options, outputs, result, error))
        return Tool::fail(error);
    if (!commitOutputs(outputs))
        return Tool::EXIT_BAD_INPUT;
    double elapsed = Tool::nowMs() - start;
    for (const std::string& warning : result.warnings)
        Tool::warn(warning);
    for (const std::string& line : leakWarnings(result.leaks, options.leakFile))
        Tool::warn(line);

    if (args.json)
    {
        printJson(visJson(result, options, &checked, elapsed));
        return Tool::EXIT_OK;
    }
    if (Tool::quiet())
        return Tool::EXIT_OK;
    std::fprintf(Tool::out(), "mesh %s: %ld triangles\n", meshPath.c_str(), mesh->m_numpolys);
    printVisSummary(result, options);
    std::fprintf(Tool::out(), "%s\n", openSpaceSentence(result.leaks).c_str());
    if (!options.leakFile.empty())
        std::fprintf(Tool::out(), "wrote %s: the way out from each inside point that leaks (%s)\n",
                     options.leakFile.c_str(), Tool::count(countLeaks(result.leaks), "path", "paths").c_str());
    std::fprintf(Tool::out(), "time %s\n", ms(elapsed).c_str());
    return Tool::EXIT_OK;
}

// vis over many meshes: DIR/NAME/test.prt, DIR/NAME/portals.obj, ... each, one worker per mesh.
int visBatch(const Commands::VisArgs& args)
{
    std::vector<std::string> targets;
    if (int code = batchTargets(args.meshes, args.batchDir, "", targets))
        return code;
    std::vector<std::string> options;
    if (args.midSplit)
        options.push_back("--mid-split");
    if (!args.meshFormat.empty())
        options.push_back("--mesh-format=" + args.meshFormat);
    for (const std::string& point : args.inside)
        options.push_back("--inside=" + point);
    if (args.keepDegenerate)
        options.push_back("--keep-degenerate");
    return runBatchOf("vis", "--out", args.meshes, targets, options, args.batchDir, args.jobs, args.threads, args.json,
                      [](const nlohmann::ordered_json& r)
                      {
                          const nlohmann::ordered_json open = r.value("openLeaves", nlohmann::ordered_json::object());
                          mrLeakFinder::Report leaks;
                          leaks.openLeaves = open.value("total", 0L);
                          leaks.reachable = open.value("reachOutside", 0L);
                          leaks.enclosed = open.value("enclosed", 0L);
                          std::string line = "wrote " + r.value("portalFile", "") + " (" +
                                             Tool::count(r.value("numVisleafs", 0L), "open leaf", "open leaves") +
                                             ", " + Tool::count(r.value("numVisportals", 0L), "portal", "portals") +
                                             ") and " + r.value("portalMeshFile", "") + " (" +
                                             Tool::count(r.value("portalMeshPolys", 0L), "polygon", "polygons") +
                                             "); " + openSpaceSentence(leaks);
                          if (r.contains("leak") && r["leak"].is_object())
                              line += "; leak paths in " + r["leak"].value("file", "");
                          return line + " (" + ms(r.value("elapsedMs", 0.0)) + ")";
                      });
}

// Where the clip BSP goes: the matrix first, then the offset.
struct Placement
{
    srVector3T<float> offset{0, 0, 0};
    srMatrix3T<float> matrix;
    double det = 1; // the matrix's determinant: below 0 it mirrors the mesh
};

// 0, or the exit code of a usage error.
int readPlacement(const Commands::ClipArgs& args, Placement& placement)
{
    float xyz[3] = {0, 0, 0};
    std::string why;
    if (!args.offset.empty() && !Tool::parseVector(args.offset, 3, xyz, why))
        return Tool::usage("--offset " + args.offset + ": " + why + " (expected three numbers X,Y,Z)");
    placement.offset = srVector3T<float>(xyz[0], xyz[1], xyz[2]);
    if (!args.matrix.empty() && !Tool::parseVector(args.matrix, 9, placement.matrix.m, why))
        return Tool::usage("--matrix " + args.matrix + ": " + why + " (expected nine numbers m0,...,m8)");
    std::string singular = matrixProblem(placement.matrix, placement.det);
    if (!singular.empty())
        return Tool::usage("--matrix " + args.matrix + ": " + singular);
    return Tool::EXIT_OK;
}

int clipOne(const Commands::ClipArgs& args, const std::string& meshPath, const Placement& placement)
{
    double start = Tool::nowMs();
    Tool::setSubject(meshPath);
    AtomicFile::protectInput(meshPath);
    if (int code = checkOutputs({args.output}, args.json))
        return code;
    ModuleSession session;
    std::string error;
    if (!session.start(error))
        return Tool::fail(error);
    CheckedMesh checked;
    Released<srMeshModel> mesh(readCheckedMesh(meshPath, args.keepDegenerate, checked));
    if (!mesh.get())
        return Tool::EXIT_BAD_INPUT;
    // A mirroring matrix turns the faces the other way round.
    MeshHealth::Report placed = checked.health;
    if (placement.det < 0)
    {
        std::swap(placed.partsIn, placed.partsOut);
        placed.signedVolume = -placed.signedVolume;
        if (placed.orientation == MeshHealth::ORIENTATION_IN)
            placed.orientation = MeshHealth::ORIENTATION_OUT;
        else if (placed.orientation == MeshHealth::ORIENTATION_OUT)
            placed.orientation = MeshHealth::ORIENTATION_IN;
    }
    std::string inward = MeshHealth::inwardNote(placed);
    if (!inward.empty())
        Tool::note(inward);

    mrClipPipeline::Settings settings;
    settings.offset = placement.offset;
    settings.matrix = placement.matrix;
    settings.progress = Progress::callback();
    settings.threads = args.threads;
    mrClipPipeline::Result result;
    {
        StdoutRedirect quietStdout;
        if (!mrClipPipeline::run(mesh.get(), settings, result, error))
            return Tool::fail(meshPath, error);
    }
    for (const std::string& warning : result.warnings)
        Tool::warn(warning);
    const mrClipBSP* bsp = result.clipBSP;
    OutputSet outputs;
    if (!saveClipBSP(session, outputs, args.output, result.clipBSP) || !commitOutputs(outputs))
        return Tool::EXIT_BAD_INPUT;
    double elapsed = Tool::nowMs() - start;
    if (args.json)
    {
        nlohmann::ordered_json j = clipJson(args.output, *bsp, result);
        j["numTriangles"] = mesh->m_numpolys;
        j["health"] = healthJson(checked);
        j["elapsedMs"] = elapsedJson(elapsed);
        printJson(j);
        return Tool::EXIT_OK;
    }
    if (Tool::quiet())
        return Tool::EXIT_OK;
    printClipSummary(args.output, *bsp, result, mesh->m_numpolys);
    std::fprintf(Tool::out(), "time %s\n", ms(elapsed).c_str());
    return Tool::EXIT_OK;
}

// clip over many meshes: DIR/NAME.mrc each, one worker per mesh.
int clipBatch(const Commands::ClipArgs& args)
{
    std::vector<std::string> targets;
    if (int code = batchTargets(args.meshes, args.batchDir, ".mrc", targets))
        return code;
    std::vector<std::string> options;
    if (!args.offset.empty())
        options.push_back("--offset=" + args.offset);
    if (!args.matrix.empty())
        options.push_back("--matrix=" + args.matrix);
    if (args.keepDegenerate)
        options.push_back("--keep-degenerate");
    return runBatchOf("clip", "--output", args.meshes, targets, options, args.batchDir, args.jobs, args.threads,
                      args.json,
                      [](const nlohmann::ordered_json& r)
                      {
                          return "wrote " + r.value("file", "") + ": a clip BSP of " +
                                 std::to_string(r.value("numNodes", 0)) + " nodes and " +
                                 std::to_string(r.value("numPlanes", 0)) + " planes from " +
                                 Tool::count(r.value("numTriangles", 0L), "triangle", "triangles") + " (" +
                                 ms(r.value("elapsedMs", 0.0)) + ")";
                      });
}

} // namespace

int Commands::vis(const VisArgs& args)
{
    if (int code = checkCount("--threads", args.threads))
        return code;
    VisPipeline::Options options;
    if (int code = visOptions(args, args.outDir.empty() ? "." : args.outDir, options))
        return code;
    std::vector<std::string> given;
    const std::pair<const std::string*, const char*> single[] = {{&args.outDir, "--out"},
                                                                 {&args.prtOut, "--prt-out"},
                                                                 {&args.meshOut, "--mesh-out"},
                                                                 {&args.leakOut, "--leak-out"}};
    for (const auto& option : single)
        if (!option.first->empty())
            given.push_back(option.second);
    if (int code = checkOutputMode(args.meshes, args.batchDir, args.jobs, joinWords(given, ", "),
                                   "--out, --prt-out, --mesh-out and --leak-out are",
                                   "DIR/NAME/test.prt, DIR/NAME/portals.obj, ..."))
        return code;
    if (!args.batchDir.empty())
        return visBatch(args);
    return visOne(args, args.meshes[0], options);
}

int Commands::clip(const ClipArgs& args)
{
    Placement placement;
    if (int code = readPlacement(args, placement))
        return code;
    if (int code = checkCount("--threads", args.threads))
        return code;
    if (int code = checkOutputMode(args.meshes, args.batchDir, args.jobs, args.output.empty() ? "" : "-o", "-o is",
                                   "DIR/NAME.mrc"))
        return code;
    if (!args.batchDir.empty())
        return clipBatch(args);
    if (args.output.empty())
        return Tool::usage("clip needs -o FILE, or --out-dir DIR to write DIR/NAME.mrc");
    return clipOne(args, args.meshes[0], placement);
}

int Commands::check(const FileArgs& args)
{
    Released<srMeshModel> mesh(readMesh(args.file));
    if (!mesh.get())
        return Tool::EXIT_BAD_INPUT;
    MeshHealth::Report r = MeshHealth::measure(*mesh.get());
    std::vector<std::string> problems = MeshHealth::problems(r);
    if (r.degenerate > 0)
        problems.insert(problems.begin(),
                        Tool::count(r.degenerate, "degenerate triangle", "degenerate triangles") +
                            " (collinear or coincident points), without a plane: clip and vis drop them "
                            "(--keep-degenerate keeps them)");
    std::string orientation;
    if (r.orientation == MeshHealth::ORIENTATION_IN)
        orientation = "faces point inward: clip makes the inside open space and the outside solid (a hollow level)";
    else if (r.orientation == MeshHealth::ORIENTATION_OUT)
        orientation = "faces point outward: clip makes the inside solid (a prop; a level's rooms would be solid)";
    else if (r.orientation == MeshHealth::ORIENTATION_NONE)
        orientation = "the triangles enclose no volume, so which side is inside is not defined";

    if (args.json)
    {
        nlohmann::ordered_json j;
        j["file"] = args.file;
        nlohmann::ordered_json health = MeshHealth::json(r);
        for (auto& item : health.items())
            j[item.key()] = item.value();
        j["problems"] = problems;
        j["orientationNote"] =
            orientation.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(orientation);
        printJson(j);
        return Tool::EXIT_OK;
    }
    FILE* out = Tool::out();
    std::fprintf(out, "file %s\n", args.file.c_str());
    std::fprintf(out, "triangles %ld\n", r.triangles);
    std::fprintf(out, "degenerate triangles %ld\n", r.degenerate);
    std::fprintf(out, "open edges %ld\n", r.openEdges);
    std::fprintf(out, "T-junction edges %ld\n", r.tJunctionEdges);
    std::fprintf(out, "non-manifold edges %ld\n", r.nonManifoldEdges);
    std::fprintf(out, "misoriented edges %ld\n", r.misorientedEdges);
    std::fprintf(out, "components %ld\n", r.components);
    if (r.hasBox)
        std::fprintf(out, "box %s to %s\n", vec3(r.mins).c_str(), vec3(r.maxs).c_str());
    std::fprintf(out, "orientation %s (signed volume %s; parts facing out %ld, in %ld)\n",
                 MeshHealth::orientationName(r.orientation), Tool::g9(r.signedVolume).c_str(), r.partsOut, r.partsIn);
    for (const std::string& problem : problems)
        std::fprintf(out, "problem: %s\n", problem.c_str());
    if (!orientation.empty())
        std::fprintf(out, "note: %s\n", orientation.c_str());
    if (problems.empty())
        std::fprintf(out, "no problems found\n");
    return Tool::EXIT_OK;
}

int Commands::box(const BoxArgs& args)
{
    float lo[3], hi[3];
    std::string why;
    if (!Tool::parseVector(args.mins, 3, lo, why))
        return Tool::usage(args.mins + ": " + why + " (expected the minimum corner as MINX,MINY,MINZ)");
    if (!Tool::parseVector(args.maxs, 3, hi, why))
        return Tool::usage(args.maxs + ": " + why + " (expected the maximum corner as MAXX,MAXY,MAXZ)");
    // A box upside down on an axis would block nothing at all; a flat one holds no point.
    const char* axes = "xyz";
    for (int a = 0; a < 3; ++a)
    {
        if (lo[a] > hi[a])
            return Tool::usage(std::string("the minimum corner is above the maximum on ") + axes[a] + " (" +
                               Tool::real(lo[a]) + " > " + Tool::real(hi[a]) + "): swap the two values");
    }
    srVector3T<float> mins(lo[0], lo[1], lo[2]), maxs(hi[0], hi[1], hi[2]);
    if (int code = checkOutputs({args.output}, args.json))
        return code;
    for (int a = 0; a < 3; ++a)
    {
        if (lo[a] == hi[a])
            Tool::warn(std::string("the box has no size on ") + axes[a] + " (both corners at " + Tool::real(lo[a]) +
                       "): no point is inside it");
    }
    ModuleSession session;
    std::string error;
    if (!session.start(error))
        return Tool::fail(error);
    Released<mrClipBSP> bsp(new mrClipBSP);
    bsp->makeFromBBox(mins, maxs);
    // The file carries the parameter fields, which the box builder leaves as they were.
    bsp->refreshPBlock(nullptr);
    OutputSet outputs;
    if (!saveClipBSP(session, outputs, args.output, bsp.get()) || !commitOutputs(outputs))
        return Tool::EXIT_BAD_INPUT;
    if (args.json)
    {
        nlohmann::ordered_json j;
        j["file"] = args.output;
        j["boxMins"] = jvec(mins);
        j["boxMaxs"] = jvec(maxs);
        j["numNodes"] = bsp->m_numnodes;
        j["numPlanes"] = bsp->m_numplanes;
        j["mins"] = jvec(bsp->m_mins);
        j["maxs"] = jvec(bsp->m_maxs);
        j["boundsMargin"] = 16;
        printJson(j);
        return Tool::EXIT_OK;
    }
    if (Tool::quiet())
        return Tool::EXIT_OK;
    std::fprintf(Tool::out(), "wrote %s: box %s to %s, %u nodes, %u planes\n", args.output.c_str(), vec3(mins).c_str(),
                 vec3(maxs).c_str(), bsp->m_numnodes, bsp->m_numplanes);
    // Box clip BSPs keep their bounds 16 units beyond the box, which queries and pictures
    // of the file show.
    std::fprintf(Tool::out(), "bounds %s to %s (a box clip BSP's bounds are the box widened by 16 on every side)\n",
                 vec3(bsp->m_mins).c_str(), vec3(bsp->m_maxs).c_str());
    return Tool::EXIT_OK;
}

int Commands::info(const FileArgs& args)
{
    ModuleSession session;
    Released<mrClipBSP> bsp(loadClipBSP(session, args.file, false));
    if (!bsp.get())
        return Tool::EXIT_BAD_INPUT;
    std::string problem;
    bool valid = bsp->validate(&problem);
    DepthStats depth;
    if (valid)
        depth = depthStats(*bsp.get());
    struct stat st;
    long long size = ::stat(args.file.c_str(), &st) == 0 ? (long long)st.st_size : -1;
    char classId[32];
    std::snprintf(classId, sizeof classId, "0x%lx", bsp->getClassID());
    double mean = depth.leaves > 0 ? depth.sumDepth / depth.leaves : 0.0;

    if (args.json)
    {
        nlohmann::ordered_json j;
        j["file"] = args.file;
        j["class"] = "clip BSP";
        j["classID"] = classId;
        j["contents"] = bsp->m_contents;
        j["mins"] = jvec(bsp->m_mins);
        j["maxs"] = jvec(bsp->m_maxs);
        j["numNodes"] = bsp->m_numnodes;
        j["numPlanes"] = bsp->m_numplanes;
        j["numLeaves"] =
            valid ? nlohmann::ordered_json((unsigned long long)depth.leaves) : nlohmann::ordered_json(nullptr);
        j["maxDepth"] = valid ? nlohmann::ordered_json(depth.maxDepth) : nlohmann::ordered_json(nullptr);
        j["meanLeafDepth"] = valid ? nlohmann::ordered_json(mean) : nlohmann::ordered_json(nullptr);
        j["fileSize"] = size;
        j["valid"] = valid;
        j["problem"] = valid ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(problem);
        printJson(j);
    }
    else
    {
        std::fprintf(Tool::out(), "file %s\n", args.file.c_str());
        std::fprintf(Tool::out(), "class clip BSP (%s)\n", classId);
        std::fprintf(Tool::out(), "contents %u\n", bsp->m_contents);
        std::fprintf(Tool::out(), "mins %s\n", vec3(bsp->m_mins).c_str());
        std::fprintf(Tool::out(), "maxs %s\n", vec3(bsp->m_maxs).c_str());
        std::fprintf(Tool::out(), "nodes %u\n", bsp->m_numnodes);
        std::fprintf(Tool::out(), "planes %u\n", bsp->m_numplanes);
        if (valid)
        {
            std::fprintf(Tool::out(), "leaves %.0f\n", depth.leaves);
            std::fprintf(Tool::out(), "depth max %ld, mean %s\n", depth.maxDepth, Tool::g9(mean).c_str());
        }
        std::fprintf(Tool::out(), "file size %lld bytes\n", size);
        std::fprintf(Tool::out(), "valid %s\n", valid ? "yes" : ("no: " + problem).c_str());
    }
    if (!valid)
        return Tool::fail(args.file, "not a usable clip BSP: " + problem);
    return Tool::EXIT_OK;
}

int Commands::dump(const FileArgs& args)
{
    ModuleSession session;
    // Validated first: the records are read as the counts say.
    Released<mrClipBSP> bsp(loadClipBSP(session, args.file, true));
    if (!bsp.get())
        return Tool::EXIT_BAD_INPUT;
    const uint32_t planes = bsp->m_planes ? bsp->m_numplanes : 0;
    const uint32_t nodes = bsp->m_nodes ? bsp->m_numnodes : 0;
    if (args.json)
    {
        nlohmann::ordered_json j;
        j["file"] = args.file;
        j["contents"] = bsp->m_contents;
        j["mins"] = jvec(bsp->m_mins);
        j["maxs"] = jvec(bsp->m_maxs);
        j["numPlanes"] = planes;
        j["planes"] = nlohmann::ordered_json::array();
        for (uint32_t i = 0; i < planes; ++i)
            j["planes"].push_back(
                {{"normal", jvec(bsp->m_planes[i].m_normal)}, {"dist", Tool::jsonReal(bsp->m_planes[i].m_dist)}});
        j["numNodes"] = nodes;
        j["nodes"] = nlohmann::ordered_json::array();
        for (uint32_t i = 0; i < nodes; ++i)
        {
            const mrClipNode& n = bsp->m_nodes[i];
            j["nodes"].push_back({{"plane", n.planeIndex}, {"front", n.child[0]}, {"back", n.child[1]}});
        }
        printJson(j);
        return Tool::EXIT_OK;
    }
    FILE* out = Tool::out();
    std::fprintf(out, "contents %u\n", bsp->m_contents);
    std::fprintf(out, "mins %s\n", vec3(bsp->m_mins).c_str());
    std::fprintf(out, "maxs %s\n", vec3(bsp->m_maxs).c_str());
    std::fprintf(out, "planes %u\n", planes);
    std::fprintf(out, "# plane normal.x normal.y normal.z dist (a point p is in front when normal.p - dist >= 0)\n");
    for (uint32_t i = 0; i < planes; ++i)
    {
        const mrPlane& p = bsp->m_planes[i];
        std::fprintf(out, "%u %s %s\n", i, vec3(p.m_normal).c_str(), Tool::real(p.m_dist).c_str());
    }
    std::fprintf(out, "nodes %u\n", nodes);
    std::fprintf(out, "# node plane front back (a child below 0 is a leaf: -1 empty, -2 solid, -3 marked solid)\n");
    for (uint32_t i = 0; i < nodes; ++i)
    {
        const mrClipNode& n = bsp->m_nodes[i];
        std::fprintf(out, "%u %d %d %d\n", i, n.planeIndex, n.child[0], n.child[1]);
    }
    return Tool::EXIT_OK;
}

int Commands::point(const FileArgs& args)
{
    const bool json = args.json;
    return answerQueries(
        args, 3, "point takes a point as three numbers X Y Z, or none to read points from stdin",
        [json](const mrClipBSP& clip, const float* v)
        {
            srVector3T<float> p(v[0], v[1], v[2]);
            const int contents = clip.pointInfo(0, p);
            if (json)
                printJson({{"point", jvec(p)}, {"contents", contents}, {"meaning", contentsMeaning(contents)}});
            else
                std::fprintf(Tool::out(), "%d %s\n", contents, contentsMeaning(contents));
        });
}

int Commands::trace(const FileArgs& args)
{
    return answerQueries(
        args, 6, "trace takes a segment as six numbers X0 Y0 Z0 X1 Y1 Z1, or none to read segments from stdin",
        [json = args.json](const mrClipBSP& clip, const float* v)
        {
            mrTrace t;
            // The queries leave the plane as they find it when nothing stops the trace.
            t.m_planeNormal = srVector3T<float>(0, 0, 0);
            t.m_planeDist = 0;
            srVector3T<float> start(v[0], v[1], v[2]), end(v[3], v[4], v[5]);
            const bool clear = clip.checkCollision(start, end, t) != 0;
            // A plane stops the trace unless it is clear or starts in solid space.
            const bool hasPlane = !clear && !t.m_startSolid;
            if (json)
            {
                nlohmann::ordered_json j;
                j["start"] = jvec(start);
                j["end"] = jvec(end);
                j["clear"] = clear;
                j["fraction"] = Tool::jsonReal(t.m_fraction);
                j["endPos"] = jvec(t.m_endPos);
                j["planeNormal"] = hasPlane ? jvec(t.m_planeNormal) : nlohmann::ordered_json(nullptr);
                j["planeDist"] =
                    hasPlane ? nlohmann::ordered_json(Tool::jsonReal(t.m_planeDist)) : nlohmann::ordered_json(nullptr);
                j["startSolid"] = t.m_startSolid != 0;
                j["allSolid"] = t.m_allSolid != 0;
                j["inOpen"] = t.m_inOpen != 0;
                printJson(j);
                return;
            }
            if (clear)
            {
                std::fprintf(Tool::out(), "clear\n");
                return;
            }
            const std::string plane =
                hasPlane ? "(" + Tool::real(t.m_planeNormal.x) + "," + Tool::real(t.m_planeNormal.y) + "," +
                               Tool::real(t.m_planeNormal.z) + "," + Tool::real(t.m_planeDist) + ")"
                         : std::string("none");
            std::fprintf(Tool::out(), "blocked fraction=%s end=%s plane=%s start_solid=%d all_solid=%d in_open=%d\n",
                         Tool::real(t.m_fraction).c_str(), tuple3(t.m_endPos).c_str(), plane.c_str(), t.m_startSolid,
                         t.m_allSolid, t.m_inOpen);
        });
}

int Commands::slice(const SliceArgs& args)
{
    int axis = 0;
    float at = 0;
    if (!parseAxis(args.axis, axis))
        return Tool::usage("--axis " + args.axis + ": expected x, y or z");
    std::string why;
    if (!Tool::parseFloat(args.at, at, why))
        return Tool::usage("--at " + args.at + ": " + why);
    if (args.size < 1 || args.size > 8192)
        return Tool::usage("--size " + std::to_string(args.size) + ": expected 1 to 8192 pixels");
    AtomicFile::protectInput(args.file);
    if (int code = checkOutputs({args.output}, args.json))
        return code;
    ModuleSession session;
    Released<mrClipBSP> bsp(loadClipBSP(session, args.file, true));
    if (!bsp.get())
        return Tool::EXIT_BAD_INPUT;
    SliceImage image;
    std::string error;
    {
        mrProgress::Stage stage(Progress::callback(), "slice", (uint64_t)args.size);
        if (!image.render(*bsp.get(), axis, at, args.size, error))
            return Tool::fail(args.file, error);
    }
    OutputSet outputs;
    if (!image.writePng(outputs, args.output, error))
        return Tool::fail(error);
    if (!commitOutputs(outputs))
        return Tool::EXIT_BAD_INPUT;
    if (args.json)
    {
        printJson(sliceJson(args.output, axis, at, image));
    }
    else if (!Tool::quiet())
        printSliceSummary(args.output, SliceImage::axisName(axis), at, image);
    return Tool::EXIT_OK;
}

int Commands::view(const ViewArgs& args)
{
    if (int code = checkCount("--threads", args.threads))
        return code;
    ViewPage::Options options;
    options.midSplit = args.midSplit;
    options.threads = args.threads;
    float xyz[3];
    if (!args.inside.empty())
    {
        std::string why;
        if (!Tool::parseVector(args.inside, 3, xyz, why))
            return Tool::usage("--inside " + args.inside + ": " + why + " (expected a point X,Y,Z)");
        options.hasInside = true;
        options.inside = srVector3T<float>(xyz[0], xyz[1], xyz[2]);
    }
    AtomicFile::protectInput(args.mesh);
    if (int code = checkOutputs({args.output}, args.json))
        return code;
    // The mesh as vis and clip take it, so the page shows what they make.
    CheckedMesh checked;
    Released<srMeshModel> mesh(readCheckedMesh(args.mesh, args.keepDegenerate, checked));
    if (!mesh.get())
        return Tool::EXIT_BAD_INPUT;
    OutputSet outputs;
    ViewPage::Summary summary;
    if (int code = addViewPage(mesh.get(), args.mesh, options, outputs, args.output, summary))
        return code;
    if (!commitOutputs(outputs))
        return Tool::EXIT_BAD_INPUT;
    if (args.json)
        printJson(viewJson(args.output, summary));
    else if (!Tool::quiet())
        printViewSummary(args.output, summary);
    return Tool::EXIT_OK;
}

std::string Commands::demoLevelPath()
{
#ifdef MERIDBSP_DEMO_LEVEL
    if (fileExists(MERIDBSP_DEMO_LEVEL))
        return MERIDBSP_DEMO_LEVEL;
#endif
    std::string installed = directoryOfExecutable() + "/../share/meridbsp/demo-level.obj";
    if (fileExists(installed))
        return installed;
#ifdef MERIDBSP_INSTALLED_DEMO_LEVEL
    if (fileExists(MERIDBSP_INSTALLED_DEMO_LEVEL))
        return MERIDBSP_INSTALLED_DEMO_LEVEL;
#endif
    return std::string();
}

int Commands::demo(const DemoArgs& args)
{
    if (int code = checkCount("--threads", args.threads))
        return code;
    std::string level = demoLevelPath();
    if (level.empty())
        return Tool::fail("demo-level.obj", "the built-in demo level is not installed");

    VisPipeline::Options vis;
    vis.threads = args.threads;
    vis.portalFile = Tool::joinPath(args.outDir, "test.prt");
    vis.meshFile = Tool::joinPath(args.outDir, "portals.obj");
    std::string clipFile = Tool::joinPath(args.outDir, "level.mrc");
    std::string pngFile = Tool::joinPath(args.outDir, "slice.png");
    std::string viewFile = Tool::joinPath(args.outDir, "view.html");
    AtomicFile::protectInput(level);
    // The outputs are put in place together once all of them are made.
    OutputSet outputs;
    std::string error;
    if (!outputs.makeDirectory(args.outDir, error))
        return Tool::fail(error);
    if (int code = checkOutputs({vis.portalFile, vis.meshFile, MeshWriter::companionPath(vis.meshFile, vis.meshFormat),
                                 clipFile, pngFile, viewFile},
                                args.json))
        return code;

    ModuleSession session;
    if (!session.start(error))
        return Tool::fail(error);
    Released<srMeshModel> mesh(readMesh(level));
    if (!mesh.get())
        return Tool::EXIT_BAD_INPUT;

    double start = Tool::nowMs();
    mrVisPipeline::Result result;
    if (!VisPipeline::run(mesh.get(), vis, outputs, result, error))
        return Tool::fail(error);
    double visMs = Tool::nowMs() - start;

    start = Tool::nowMs();
    mrClipPipeline::Result clip;
    mrClipPipeline::Settings clipSettings;
    clipSettings.progress = Progress::callback();
    clipSettings.threads = args.threads;
    if (!mrClipPipeline::run(mesh.get(), clipSettings, clip, error))
        return Tool::fail(level, error);
    const mrClipBSP* bsp = clip.clipBSP;
    if (!saveClipBSP(session, outputs, clipFile, clip.clipBSP))
        return Tool::EXIT_BAD_INPUT;
    double clipMs = Tool::nowMs() - start;

    // Halfway up the corridors: every room, both corridors and the pillar are cut.
    start = Tool::nowMs();
    SliceImage image;
    const float sliceZ = 48.0f;
    if (!image.render(*bsp, 2, sliceZ, 512, error))
        return Tool::fail(clipFile, error);
    if (!image.writePng(outputs, pngFile, error))
        return Tool::fail(error);
    double sliceMs = Tool::nowMs() - start;
    ViewPage::Summary viewSummary;
    ViewPage::Options viewOptions;
    viewOptions.threads = args.threads;
    if (int code = addViewPage(mesh.get(), level, viewOptions, outputs, viewFile, viewSummary))
        return code;
    if (!commitOutputs(outputs))
        return Tool::EXIT_BAD_INPUT;

    if (args.json)
    {
        nlohmann::ordered_json j;
        j["level"] = level;
        j["numTriangles"] = mesh->m_numpolys;
        j["vis"] = visJson(result, vis, nullptr, visMs);
        j["clip"] = clipJson(clipFile, *bsp, clip);
        j["clip"]["elapsedMs"] = elapsedJson(clipMs);
        j["slice"] = sliceJson(pngFile, 2, sliceZ, image);
        j["slice"]["elapsedMs"] = elapsedJson(sliceMs);
        j["view"] = viewJson(viewFile, viewSummary);
        printJson(j);
        return Tool::EXIT_OK;
    }
    if (Tool::quiet())
        return Tool::EXIT_OK;
    FILE* out = Tool::out();
    std::fprintf(out, "demo level %s: %ld triangles\n", level.c_str(), mesh->m_numpolys);
    std::fprintf(out, "\nvisibility pipeline (%s)\n", ms(visMs).c_str());
    printVisSummary(result, vis);
    std::fprintf(out, "%s\n", openSpaceSentence(result.leaks).c_str());
    std::fprintf(out, "\ncollision pipeline (%s)\n", ms(clipMs).c_str());
    printClipSummary(clipFile, *bsp, clip, mesh->m_numpolys);
    std::fprintf(out, "\nslice (%s)\n", ms(sliceMs).c_str());
    printSliceSummary(pngFile, "z", sliceZ, image);
    std::fprintf(out, "\nview page\n");
    printViewSummary(viewFile, viewSummary);
    std::fprintf(out,
                 "\nnext: open %s in a browser; ask 'meridbsp point %s 128 128 48' (-1 is empty space) or "
                 "'meridbsp trace %s 128,128,48 128,-200,48'; docs/cli.md explains every output\n",
                 viewFile.c_str(), clipFile.c_str(), clipFile.c_str());
    return Tool::EXIT_OK;
}
