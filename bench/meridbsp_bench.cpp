// The benchmark suite: both pipelines, the chunk files and the two queries on generated
// meshes (and on mesh files named in MERIDBSP_BENCH_MESHES), side by side with the peer
// libraries on the same float geometry and the same queries.
//
// Own options (given before or among the benchmark library's own):
//   --tiny                 smoke run: tiny meshes, 1,000 queries, one iteration each
//                          (also MERIDBSP_BENCH_TINY=1)
//   --meshes=a,b,...       generated meshes to use (also MERIDBSP_BENCH_GENERATED);
//                          default sphere1k,sphere10k,sphere100k,level1k,level10k,level100k,
//                          blob10k,blob50k,knot10k,knot50k,openlevel10k
//   --queries=N            points and segments per mesh (default 100000)
//   --max-seconds=S        skip a vis build or a query pass expected to take longer than S
//                          CPU seconds (default 60; also MERIDBSP_BENCH_MAX_SECONDS)
//   --max-build-seconds=S  the same for the clip BSP build and the peers' builds (default 600)
//   --write-obj NAME PATH  write a generated mesh (e.g. sphere1m, level100k) as OBJ and exit
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/core/mrModuleLoader.h>
#include <meridbsp/platform/dx/srAssert.h>
#include <meridbsp/platform/dx/srOutput.h>
#include <pthread.h>
#include <unistd.h>

#include "BenchMesh.h"
#include "BenchSuite.h"

#ifdef MERIDBSP_BENCH_HAVE_EMBREE
#include "PeerEmbree.h"
#endif

namespace
{

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= s.size())
    {
        const size_t end = s.find(sep, start);
        const std::string part = s.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!part.empty())
            out.push_back(part);
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return out;
}

bool takeValue(const char* arg, const char* name, std::string& value)
{
    const size_t len = std::strlen(name);
    if (std::strncmp(arg, name, len) != 0 || arg[len] != '=')
        return false;
    value = arg + len + 1;
    return true;
}

// Deep trees recurse deeply (a convex mesh's clip BSP is a chain of one node per
// triangle, and the trace recursion follows it), so the benchmarks run on a thread
// with a large stack.
void* runBenchmarks(void*)
{
    benchmark::RunSpecifiedBenchmarks();
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    BenchSuite::Options options;
    std::string meshList =
        "sphere1k,sphere10k,sphere100k,level1k,level10k,level100k,blob10k,blob50k,knot10k,knot50k,openlevel10k";
    if (const char* env = std::getenv("MERIDBSP_BENCH_GENERATED"))
        meshList = env;
    if (const char* env = std::getenv("MERIDBSP_BENCH_TINY"))
        options.tiny = std::strcmp(env, "") != 0 && std::strcmp(env, "0") != 0;
    if (const char* env = std::getenv("MERIDBSP_BENCH_MAX_SECONDS"))
        options.maxSeconds = std::atof(env);

    // Take our own options out of argv; the rest goes to the benchmark library.
    std::vector<char*> rest;
    rest.push_back(argv[0]);
    bool meshesGiven = false;
    for (int i = 1; i < argc; ++i)
    {
        std::string value;
        if (std::strcmp(argv[i], "--tiny") == 0)
            options.tiny = true;
        else if (takeValue(argv[i], "--meshes", value))
        {
            meshList = value;
            meshesGiven = true;
        }
        else if (takeValue(argv[i], "--queries", value))
            options.queries = (size_t)std::strtoull(value.c_str(), nullptr, 10);
        else if (takeValue(argv[i], "--max-seconds", value))
            options.maxSeconds = std::atof(value.c_str());
        else if (takeValue(argv[i], "--max-build-seconds", value))
            options.buildMaxSeconds = std::atof(value.c_str());
        else if (std::strcmp(argv[i], "--write-obj") == 0)
        {
            if (i + 2 >= argc)
            {
                std::fprintf(stderr, "meridbsp_bench: --write-obj needs a mesh name and a path\n");
                return 2;
            }
            BenchMesh* mesh = BenchMesh::generate(argv[i + 1]);
            if (!mesh)
            {
                std::fprintf(stderr, "meridbsp_bench: unknown mesh '%s'\n", argv[i + 1]);
                return 2;
            }
            const bool ok = mesh->writeObj(argv[i + 2]);
            std::fprintf(stderr, "%s: %ld triangles%s %s\n", mesh->name().c_str(), mesh->numTriangles(),
                         ok ? " written to" : ", cannot write", argv[i + 2]);
            delete mesh;
            return ok ? 0 : 1;
        }
        else
            rest.push_back(argv[i]);
    }
    if (options.tiny)
    {
        if (!meshesGiven)
            meshList = "sphere_tiny,level_tiny,blob_tiny,knot_tiny,openlevel_tiny";
        options.queries = 1000;
    }
    int restc = (int)rest.size();
    rest.push_back(nullptr);
    benchmark::Initialize(&restc, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restc, rest.data()))
        return 2;

    // The engine side: the core first, then the module (its load hook registers the
    // clip BSP's chunk handler).
    mrCore::initialize();
    std::ostream silent(nullptr);
    std::ostream* previousLog = srSetOutputTarget(&silent); // the pipelines' progress lines
    mrModuleLoader module;
    std::string error;
    if (!module.load(MERIDBSP_MODULE_PATH, &error))
    {
        std::fprintf(stderr, "meridbsp_bench: %s\n", error.c_str());
        return 1;
    }

    char dirTemplate[] = "/tmp/meridbsp-bench-XXXXXX";
    if (!mkdtemp(dirTemplate))
    {
        std::fprintf(stderr, "meridbsp_bench: cannot make a temporary directory\n");
        return 1;
    }
    options.portalDir = dirTemplate;

    std::unique_ptr<BenchSuite> suite(new BenchSuite(options));
    for (const std::string& name : split(meshList, ','))
    {
        BenchMesh* mesh = BenchMesh::generate(name);
        if (!mesh)
        {
            std::fprintf(stderr, "meridbsp_bench: unknown generated mesh '%s'\n", name.c_str());
            return 2;
        }
        suite->addMesh(mesh);
    }
    if (const char* files = std::getenv("MERIDBSP_BENCH_MESHES"))
        for (const std::string& path : split(files, ':'))
        {
            BenchMesh* mesh = BenchMesh::fromFile(path, &error);
            if (!mesh)
            {
                std::fprintf(stderr, "meridbsp_bench: %s\n", error.c_str());
                return 1;
            }
            suite->addMesh(mesh);
        }
    suite->registerAll();

    const unsigned long assertsBefore = srAssertCount();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, (size_t)1 << 30);
    pthread_t thread;
    if (pthread_create(&thread, &attr, runBenchmarks, nullptr) != 0)
        runBenchmarks(nullptr);
    else
        pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    benchmark::Shutdown();

    const unsigned long asserts = srAssertCount() - assertsBefore;
    if (asserts)
        std::fprintf(stderr, "meridbsp_bench: the library reported %lu assertion(s) during the run\n", asserts);
    const int failures = suite->failures();
    suite.reset();
    std::remove((std::string(dirTemplate) + "/test.prt").c_str());
    rmdir(dirTemplate);
    module.unload();
    srSetOutputTarget(previousLog);
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
    PeerEmbree::releaseDevice();
#endif
    return failures || asserts ? 1 : 0;
}
