#include "BenchSuite.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>

#include <fcntl.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/io/mrClipBSPIOHandler.h>
#include <meridbsp/pipeline/mrVisPipeline.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <unistd.h>

#ifdef MERIDBSP_BENCH_HAVE_EMBREE
#include "PeerEmbree.h"
#endif
#ifdef MERIDBSP_BENCH_HAVE_BULLET
#include "PeerBullet.h"
#endif

namespace
{

// The stage times and the time limit use the thread's CPU time, like the benchmark
// library's own figures: the machine is shared, and wall time there measures the load.
class Clock
{
public:
    typedef double time_point;
    static time_point now()
    {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
    }
};

double secondsSince(Clock::time_point t0) { return Clock::now() - t0; }

// Runs `query(i)` for every i < n in each iteration; items are queries, and `counter`
// holds the sum of the answers of the last iteration.
template <class Query> void timeQueries(benchmark::State& st, size_t n, const char* counter, Query query)
{
    size_t sum = 0;
    for (auto _ : st)
    {
        sum = 0;
        for (size_t i = 0; i < n; ++i)
            sum += query(i);
        benchmark::DoNotOptimize(sum);
    }
    st.SetItemsProcessed((int64_t)st.iterations() * (int64_t)n);
    st.counters[counter] = (double)sum;
}

// Times `build()` alone in each iteration and hands its result to `release` outside the
// timing; returns the mean build time.
template <class Build, class Release> double timeBuilds(benchmark::State& st, Build build, Release release)
{
    double total = 0.0;
    for (auto _ : st)
    {
        const Clock::time_point t0 = Clock::now();
        auto built = build();
        benchmark::DoNotOptimize(built);
        total += secondsSince(t0);
        st.PauseTiming();
        release(built);
        st.ResumeTiming();
    }
    return total / (double)st.iterations();
}

// The portal file writer announces itself on standard output; keep that line out of
// the benchmark's own output (which may be JSON on standard output).
class StdoutSilencer
{
public:
    StdoutSilencer()
    {
        std::fflush(stdout);
        m_saved = ::dup(1);
        const int devnull = ::open("/dev/null", O_WRONLY);
        if (devnull >= 0)
        {
            ::dup2(devnull, 1);
            ::close(devnull);
        }
    }
    ~StdoutSilencer()
    {
        std::fflush(stdout);
        if (m_saved >= 0)
        {
            ::dup2(m_saved, 1);
            ::close(m_saved);
        }
    }

private:
    int m_saved;
};

benchmark::Counter average(double total) { return benchmark::Counter(total, benchmark::Counter::kAvgIterations); }

// Queries timed to decide whether a whole pass fits the time limit.
const size_t kSample = 1000;

} // namespace

BenchSuite::BenchSuite(const Options& options) : m_options(options) {}

BenchSuite::~BenchSuite()
{
    for (std::unique_ptr<Entry>& e : m_entries)
    {
        if (e->clip)
            e->clip->release();
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
        delete e->embree;
#endif
#ifdef MERIDBSP_BENCH_HAVE_BULLET
        delete e->bullet;
#endif
    }
}

void BenchSuite::addMesh(BenchMesh* mesh)
{
    std::unique_ptr<Entry> e(new Entry);
    e->mesh.reset(mesh);
    m_entries.push_back(std::move(e));
}

void BenchSuite::registerFamily(const std::string& family, void (BenchSuite::*fn)(benchmark::State&, Entry&),
                                const std::string& suffix)
{
    for (std::unique_ptr<Entry>& up : m_entries)
    {
        Entry* e = up.get();
        const std::string name = family + "/" + e->mesh->name() + suffix;
        benchmark::internal::Benchmark* b =
            benchmark::RegisterBenchmark(name.c_str(), [this, fn, e](benchmark::State& st) { (this->*fn)(st, *e); });
        b->Unit(benchmark::kMillisecond);
        if (m_options.tiny || family == "cross_check")
            b->Iterations(1);
    }
}

void BenchSuite::registerAll()
{
    // Order matters for the time limit: within a family the meshes of a kind run
    // smallest first, so each size's time predicts the next.
    registerFamily("clip_build", &BenchSuite::clipBuild);
    // The parallel build and the queries from several threads: 2 threads, and every core
    // when there are more (1 thread is clip_build itself).
    std::vector<int> counts(1, 2);
    if (mrClipBSPGen::availableThreads() > 2)
        counts.push_back(mrClipBSPGen::availableThreads());
    for (std::unique_ptr<Entry>& up : m_entries)
    {
        Entry* e = up.get();
        for (int threads : counts)
        {
            const std::string name = "clip_build/" + e->mesh->name() + "/threads:" + std::to_string(threads);
            benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(
                name.c_str(), [this, e, threads](benchmark::State& st) { clipBuildThreads(st, *e, threads); });
            b->Unit(benchmark::kMillisecond)->UseRealTime();
            if (m_options.tiny)
                b->Iterations(1);
        }
    }
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
    registerFamily("peer_embree_build", &BenchSuite::embreeBuild);
#endif
#ifdef MERIDBSP_BENCH_HAVE_BULLET
    registerFamily("peer_bullet_build", &BenchSuite::bulletBuild);
#endif
    registerFamily("vis_build", &BenchSuite::visMidSplit, "/mid_split");
    registerFamily("vis_build", &BenchSuite::visNormal, "/normal");
    // The visibility pipeline on several threads, in wall time, in both modes (1 thread is
    // vis_build itself).
    for (std::unique_ptr<Entry>& up : m_entries)
        for (const char* mode : {"mid_split", "normal"})
            for (int threads : counts)
            {
                Entry* e = up.get();
                const bool midSplit = std::string(mode) == "mid_split";
                const std::string name =
                    "vis_build/" + e->mesh->name() + "/" + mode + "/threads:" + std::to_string(threads);
                benchmark::internal::Benchmark* b =
                    benchmark::RegisterBenchmark(name.c_str(), [this, e, midSplit, threads](benchmark::State& st)
                                                 { visBuild(st, *e, midSplit, threads); });
                b->Unit(benchmark::kMillisecond)->UseRealTime();
                if (m_options.tiny)
                    b->Iterations(1);
            }
    registerFamily("chunk_save", &BenchSuite::chunkSave);
    registerFamily("chunk_load", &BenchSuite::chunkLoad);
    registerFamily("point_info", &BenchSuite::pointInfo);
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
    registerFamily("peer_embree_inside", &BenchSuite::embreeInside);
#endif
    registerFamily("check_collision", &BenchSuite::checkCollision);
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
    registerFamily("peer_embree_segment", &BenchSuite::embreeSegment);
#endif
#ifdef MERIDBSP_BENCH_HAVE_BULLET
    registerFamily("peer_bullet_segment", &BenchSuite::bulletSegment);
#endif
    registerFamily("cross_check", &BenchSuite::crossCheck);
    for (std::unique_ptr<Entry>& up : m_entries)
        for (bool points : {true, false})
        {
            Entry* e = up.get();
            const std::string name =
                std::string(points ? "point_info" : "check_collision") + "_threads/" + e->mesh->name();
            benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(
                name.c_str(), [this, e, points](benchmark::State& st) { queriesFromThreads(st, *e, points); });
            b->Unit(benchmark::kMillisecond)->UseRealTime()->Threads(1);
            for (int threads : counts)
                b->Threads(threads);
            if (m_options.tiny)
                b->Iterations(1);
        }
}

// ---- time limit -------------------------------------------------------------------

static double predictFrom(const std::vector<std::pair<double, double>>& times, double n, double defaultExponent)
{
    if (times.empty())
        return 0.0;
    const std::pair<double, double>& last = times.back();
    double k = defaultExponent;
    if (times.size() >= 2)
    {
        const std::pair<double, double>& prev = times[times.size() - 2];
        if (prev.first > 0 && last.first > prev.first && prev.second > 0 && last.second > 0)
            k = std::min(3.0, std::max(1.0, std::log(last.second / prev.second) / std::log(last.first / prev.first)));
    }
    if (n <= last.first)
        return last.second;
    return last.second * std::pow(n / last.first, k);
}

bool BenchSuite::skipByPrediction(benchmark::State& st, const std::string& family, const Entry& e,
                                  double defaultExponent, double limit)
{
    const auto it = m_times.find(family + "|" + e.mesh->kind());
    if (it == m_times.end())
        return false;
    const double predicted = predictFrom(it->second, (double)e.mesh->numTriangles(), defaultExponent);
    if (predicted <= limit)
        return false;
    char msg[200];
    std::snprintf(msg, sizeof msg, "skipped: predicted %.0f s per iteration from the smaller meshes (limit %.0f s)",
                  predicted, limit);
    st.SkipWithError(msg);
    std::fprintf(stderr, "%s/%s: %s\n", family.c_str(), e.mesh->name().c_str(), msg);
    return true;
}

void BenchSuite::recordTime(const std::string& family, const Entry& e, double secondsPerIteration)
{
    std::vector<std::pair<double, double>>& v = m_times[family + "|" + e.mesh->kind()];
    const double n = (double)e.mesh->numTriangles();
    if (!v.empty() && v.back().first == n)
        v.back().second = secondsPerIteration;
    else
        v.push_back(std::make_pair(n, secondsPerIteration));
}

bool BenchSuite::skipBySample(benchmark::State& st, double sampleSeconds, size_t sample, size_t total)
{
    if (sample == 0)
        return false;
    const double predicted = sampleSeconds * (double)total / (double)sample;
    if (predicted <= m_options.maxSeconds)
        return false;
    char msg[200];
    std::snprintf(msg, sizeof msg, "skipped: the first %zu queries predict %.0f s per pass (limit %.0f s)", sample,
                  predicted, m_options.maxSeconds);
    st.SkipWithError(msg);
    return true;
}

// ---- shared state -----------------------------------------------------------------

BenchQueries& BenchSuite::queries(Entry& e)
{
    if (!e.queries)
        e.queries.reset(new BenchQueries(e.mesh->mins(), e.mesh->maxs(), m_options.queries, 0x5EED0F5EEDull));
    return *e.queries;
}

mrClipBSP* BenchSuite::clip(Entry& e)
{
    if (!e.clip)
    {
        // Building takes as long as clip_build; refuse where that was predicted far over
        // the limit, rather than stall every query benchmark of the mesh.
        const auto it = m_times.find("clip_build|" + e.mesh->kind());
        if (it != m_times.end() &&
            predictFrom(it->second, (double)e.mesh->numTriangles(), 2.0) > m_options.buildMaxSeconds)
            return nullptr;
        mrClipBSPGen gen;
        srVector3T<float> offset(0.0f, 0.0f, 0.0f);
        srMatrix3T<float> matrix;
        e.clip = gen.importMeshModel(e.mesh->mesh(), offset, matrix);
    }
    return e.clip;
}

const std::vector<unsigned char>& BenchSuite::chunk(Entry& e)
{
    if (e.chunk.empty())
    {
        mrClipBSP* bsp = clip(e);
        std::string error;
        std::vector<srClass*> objects(1, bsp);
        if (bsp && !mrCore::instance().getIOManager()->saveBuffer(objects, e.chunk, &error))
            std::fprintf(stderr, "%s: cannot save the clip BSP: %s\n", e.mesh->name().c_str(), error.c_str());
    }
    return e.chunk;
}

PeerEmbree* BenchSuite::embree(Entry& e)
{
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
    if (!e.embree)
    {
        PeerEmbree::FlushDenormals ftz;
        e.embree = new PeerEmbree(*e.mesh);
    }
#endif
    return e.embree;
}

PeerBullet* BenchSuite::bullet(Entry& e)
{
#ifdef MERIDBSP_BENCH_HAVE_BULLET
    if (!e.bullet)
        e.bullet = new PeerBullet(*e.mesh);
#endif
    return e.bullet;
}

// ---- our benchmarks ---------------------------------------------------------------

void BenchSuite::clipBuild(benchmark::State& st, Entry& e)
{
    if (skipByPrediction(st, "clip_build", e, 2.0, m_options.buildMaxSeconds))
        return;
    srVector3T<float> offset(0.0f, 0.0f, 0.0f);
    srMatrix3T<float> matrix;
    double total = 0.0, convert = 0.0;
    uint32_t nodes = 0, planes = 0;
    for (auto _ : st)
    {
        const Clock::time_point t0 = Clock::now();
        mrClipBSPGen* gen = new mrClipBSPGen();
        mrClipBSP* bsp = gen->importMeshModel(e.mesh->mesh(), offset, matrix);
        benchmark::DoNotOptimize(bsp);
        total += secondsSince(t0);
        st.PauseTiming();
        // The flattening alone: the generator keeps its tree, and converting it again
        // changes nothing.
        const Clock::time_point t1 = Clock::now();
        mrClipBSP* again = gen->convertToClipBSP();
        convert += secondsSince(t1);
        again->release();
        nodes = bsp->m_numnodes;
        planes = bsp->m_numplanes;
        delete gen;
        if (!e.clip)
            e.clip = bsp; // the query benchmarks use it
        else
            bsp->release();
        st.ResumeTiming();
    }
    recordTime("clip_build", e, total / (double)st.iterations());
    st.counters["triangles"] = (double)e.mesh->numTriangles();
    st.counters["nodes"] = nodes;
    st.counters["planes"] = planes;
    st.counters["convert_s"] = average(convert);
}

void BenchSuite::clipBuildThreads(benchmark::State& st, Entry& e, int threads)
{
    // Where the single-threaded build is skipped, so is this one.
    if (skipByPrediction(st, "clip_build", e, 2.0, m_options.buildMaxSeconds))
        return;
    srVector3T<float> offset(0.0f, 0.0f, 0.0f);
    srMatrix3T<float> matrix;
    uint32_t nodes = 0;
    for (auto _ : st)
    {
        mrClipBSPGen* gen = new mrClipBSPGen();
        mrClipBSP* bsp = gen->importMeshModelParallel(e.mesh->mesh(), offset, matrix, threads);
        benchmark::DoNotOptimize(bsp);
        st.PauseTiming();
        nodes = bsp->m_numnodes;
        bsp->release();
        delete gen;
        st.ResumeTiming();
    }
    st.counters["triangles"] = (double)e.mesh->numTriangles();
    st.counters["nodes"] = nodes;
}

void BenchSuite::queriesFromThreads(benchmark::State& st, Entry& e, bool points)
{
    // The first thread makes the shared clip BSP and queries before the threads meet at
    // the loop; each thread then answers the same queries (at most 20,000) on it.
    if (st.thread_index() == 0)
    {
        clip(e);
        queries(e);
    }
    size_t n = 0, sum = 0;
    mrTrace trace;
    // From the first pass on: the threads meet at the loop's start, after the set-up.
    std::chrono::steady_clock::time_point t0;
    bool first = true;
    for (auto _ : st)
    {
        if (first)
            t0 = std::chrono::steady_clock::now();
        first = false;
        const mrClipBSP* bsp = e.clip;
        if (!bsp)
        {
            st.SkipWithError("skipped: building the clip BSP is predicted far over the time limit");
            break;
        }
        const BenchQueries& q = *e.queries;
        n = std::min(q.size(), (size_t)20000);
        sum = 0;
        for (size_t i = 0; i < n; ++i)
            sum += points ? bsp->pointInfo(0, q.m_points[i]) <= -2
                          : bsp->checkCollision(q.m_segStart[i], q.m_segEnd[i], trace) == 0;
        benchmark::DoNotOptimize(sum);
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    // items_per_second is each thread's own rate; the queries of all threads over the
    // wall time of one gives what the threads answer together.
    st.SetItemsProcessed((int64_t)st.iterations() * (int64_t)n);
    st.counters["queries"] = (double)st.iterations() * (double)n;
    st.counters["wall_s"] = benchmark::Counter(wall, benchmark::Counter::kAvgThreads);
}

void BenchSuite::visBuild(benchmark::State& st, Entry& e, bool midSplit, int threads)
{
    const std::string family = midSplit ? "vis_build_mid_split" : "vis_build_normal";
    // Until two sizes have run, both modes are assumed quadratic (normal mode measured
    // about n^2.2 on spheres once partition selection stopped early). The thread-count
    // variants are skipped where the single-threaded build is.
    if (skipByPrediction(st, family, e, 2.0, m_options.maxSeconds))
        return;
    // The library's one-call pipeline, timed per stage through its progress reports (a
    // stage starts with done = 0 and ends with done = total); what follows the last stage
    // is releasing the portals and the tree. On one thread the times are the thread's CPU
    // time; on several, wall time (the benchmark is then timed in wall time too).
    mrVisPipeline::Settings settings;
    settings.midSplit = midSplit;
    settings.portalFile = m_options.portalDir + "/test.prt";
    settings.findLeaks = false;
    settings.threads = threads;
    auto now = [threads]()
    {
        return threads == 1
                   ? Clock::now()
                   : std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    };
    std::map<std::string, double> stageTime;
    std::string current;
    Clock::time_point stageStart = 0;
    settings.progress = [&](const char* stage, uint64_t done, uint64_t total)
    {
        if (done == 0)
        {
            current = stage;
            stageStart = now();
        }
        else if (done == total && current == stage)
            stageTime[current] += now() - stageStart;
    };
    double tAll = 0;
    int32_t splitNodes = 0, visleafs = 0, visportals = 0;
    long meshPolys = 0;
    bool fileOk = true;
    for (auto _ : st)
    {
        mrVisPipeline::Result result;
        std::string error;
        const double t = now();
        {
            StdoutSilencer quiet;
            fileOk = mrVisPipeline::run(e.mesh->mesh(), settings, result, error) && fileOk;
        }
        tAll += now() - t;
        st.PauseTiming();
        splitNodes = result.numSplitNodes;
        visleafs = result.numVisleafs;
        visportals = result.numVisportals;
        meshPolys = result.portalMeshPolys;
        result.release();
        st.ResumeTiming();
    }
    double tStages = 0;
    for (const auto& stage : stageTime)
        tStages += stage.second;
    const double tSurf = stageTime["surfaces"], tGen = stageTime["solid BSP"], tPortal = stageTime["portals"],
                 tFile = stageTime["portal file"], tMesh = stageTime["portal mesh"], tFree = tAll - tStages;
    if (!fileOk)
        st.SkipWithError("the portal file could not be written");
    if (threads == 1)
        recordTime(family, e, tAll / (double)st.iterations());
    st.counters["triangles"] = (double)e.mesh->numTriangles();
    st.counters["split_nodes"] = splitNodes;
    st.counters["visleafs"] = visleafs;
    st.counters["visportals"] = visportals;
    st.counters["mesh_polys"] = (double)meshPolys;
    st.counters["surfaces_s"] = average(tSurf);
    st.counters["generate_s"] = average(tGen);
    st.counters["portalize_s"] = average(tPortal);
    st.counters["portalfile_s"] = average(tFile);
    st.counters["mesh_s"] = average(tMesh);
    st.counters["free_s"] = average(tFree);
}

void BenchSuite::chunkSave(benchmark::State& st, Entry& e)
{
    mrClipBSP* bsp = clip(e);
    if (!bsp)
    {
        st.SkipWithError("skipped: building the clip BSP is predicted far over the time limit");
        return;
    }
    mrIOManager* io = mrCore::instance().getIOManager();
    std::vector<srClass*> objects(1, bsp);
    std::vector<unsigned char> out;
    std::string error;
    bool ok = true;
    for (auto _ : st)
    {
        ok = io->saveBuffer(objects, out, &error) && ok;
        benchmark::DoNotOptimize(out.data());
    }
    if (!ok)
        st.SkipWithError(("save failed: " + error).c_str());
    st.SetBytesProcessed((int64_t)st.iterations() * (int64_t)out.size());
    st.counters["bytes"] = (double)out.size();
}

void BenchSuite::chunkLoad(benchmark::State& st, Entry& e)
{
    const std::vector<unsigned char>& data = chunk(e);
    if (data.empty())
    {
        st.SkipWithError("skipped: no saved clip BSP to load");
        return;
    }
    mrIOManager* io = mrCore::instance().getIOManager();
    std::string error;
    bool ok = true;
    std::vector<srClass*> objects;
    objects.reserve(1);
    // Each pass loads (with the file's validation) and releases the loaded clip BSP.
    for (auto _ : st)
    {
        objects.clear();
        ok = io->loadBuffer(data, objects, &error) && ok;
        for (srClass* o : objects)
            o->release();
    }
    if (!ok)
        st.SkipWithError(("load failed: " + error).c_str());
    st.SetBytesProcessed((int64_t)st.iterations() * (int64_t)data.size());
    st.counters["bytes"] = (double)data.size();

    // The same load with the query index left for later (after the timed loop): what a
    // caller that loads many small trees pays.
    mrClipBSPIOHandler* handler = dynamic_cast<mrClipBSPIOHandler*>(io->getHandler(0x60000));
    if (handler)
    {
        const mrClipBSPIOHandler::Settings kept = handler->settings();
        mrClipBSPIOHandler::Settings deferred = kept;
        deferred.buildQueryIndex = false;
        handler->setSettings(deferred);
        const int passes = m_options.tiny ? 1 : 20;
        const Clock::time_point t0 = Clock::now();
        for (int i = 0; i < passes; ++i)
        {
            objects.clear();
            io->loadBuffer(data, objects, &error);
            for (srClass* o : objects)
                o->release();
        }
        st.counters["without_index_s"] = secondsSince(t0) / passes;
        handler->setSettings(kept);
    }
}

template <class Query>
bool BenchSuite::timeClipQueries(benchmark::State& st, Entry& e, const char* counter, Query query)
{
    const mrClipBSP* bsp = clip(e);
    if (!bsp)
    {
        st.SkipWithError("skipped: building the clip BSP is predicted far over the time limit");
        return false;
    }
    const BenchQueries& q = queries(e);
    const size_t n = q.size(), sample = std::min(n, kSample);
    Clock::time_point t0 = Clock::now();
    for (size_t i = 0; i < sample; ++i)
        benchmark::DoNotOptimize(query(*bsp, q, i));
    if (skipBySample(st, secondsSince(t0), sample, n))
        return false;
    timeQueries(st, n, counter, [&](size_t i) { return query(*bsp, q, i); });
    return true;
}

void BenchSuite::pointInfo(benchmark::State& st, Entry& e)
{
    if (!timeClipQueries(st, e, "solid",
                         [](const mrClipBSP& bsp, const BenchQueries& q, size_t i)
                         { return bsp.pointInfo(0, q.m_points[i]) <= -2; }))
        return;
    const mrClipBSP* bsp = clip(e);
    const BenchQueries& q = queries(e);
    const size_t n = q.size();
    // How deep the walks go (outside the timing, on the first 10,000 points): the cost
    // of a query is this many plane tests.
    const size_t m = std::min(n, (size_t)10000);
    double visited = 0.0;
    for (size_t i = 0; i < m; ++i)
    {
        const srVector3T<float>& p = q.m_points[i];
        for (int node = 0; node >= 0 && bsp->m_numnodes;)
        {
            const mrClipNode& nd = bsp->m_nodes[node];
            const mrPlane& pl = bsp->m_planes[nd.planeIndex];
            const float d = pl.m_normal.z * p.z + pl.m_normal.y * p.y + pl.m_normal.x * p.x - pl.m_dist;
            node = d >= 0.0f ? nd.child[0] : nd.child[1];
            visited += 1.0;
        }
    }
    st.counters["nodes_per_query"] = m ? visited / (double)m : 0.0;
}

void BenchSuite::checkCollision(benchmark::State& st, Entry& e)
{
    mrTrace trace;
    timeClipQueries(st, e, "blocked",
                    [&trace](const mrClipBSP& bsp, const BenchQueries& q, size_t i)
                    { return bsp.checkCollision(q.m_segStart[i], q.m_segEnd[i], trace) == 0; });
}

// ---- peers ------------------------------------------------------------------------

#ifdef MERIDBSP_BENCH_HAVE_EMBREE
void BenchSuite::embreeBuild(benchmark::State& st, Entry& e)
{
    if (skipByPrediction(st, "peer_embree_build", e, 1.3, m_options.buildMaxSeconds))
        return;
    PeerEmbree::device(); // outside the timing
    PeerEmbree::FlushDenormals ftz;
    const double mean = timeBuilds(
        st, [&]() { return PeerEmbree::buildScene(*e.mesh, false); }, [](RTCScene scene) { rtcReleaseScene(scene); });
    recordTime("peer_embree_build", e, mean);
    st.counters["triangles"] = (double)e.mesh->numTriangles();
}

void BenchSuite::embreeSegment(benchmark::State& st, Entry& e)
{
    PeerEmbree* peer = embree(e);
    const BenchQueries& q = queries(e);
    const size_t n = q.size();
    PeerEmbree::FlushDenormals ftz;
    timeQueries(st, n, "hits", [&](size_t i) { return peer->segment(&q.m_segStart[i].x, &q.m_segEnd[i].x); });
}

void BenchSuite::embreeInside(benchmark::State& st, Entry& e)
{
    PeerEmbree* peer = embree(e);
    const BenchQueries& q = queries(e);
    const size_t n = q.size();
    PeerEmbree::FlushDenormals ftz;
    timeQueries(st, n, "inside", [&](size_t i) { return peer->inside(&q.m_points[i].x); });
}
#else
void BenchSuite::embreeBuild(benchmark::State&, Entry&) {}
void BenchSuite::embreeSegment(benchmark::State&, Entry&) {}
void BenchSuite::embreeInside(benchmark::State&, Entry&) {}
#endif

#ifdef MERIDBSP_BENCH_HAVE_BULLET
void BenchSuite::bulletBuild(benchmark::State& st, Entry& e)
{
    if (skipByPrediction(st, "peer_bullet_build", e, 1.3, m_options.buildMaxSeconds))
        return;
    btTriangleIndexVertexArray* triangles = PeerBullet::wrap(*e.mesh);
    const double mean = timeBuilds(
        st, [&]() { return PeerBullet::buildShape(triangles); }, [](btBvhTriangleMeshShape* shape) { delete shape; });
    delete triangles;
    recordTime("peer_bullet_build", e, mean);
    st.counters["triangles"] = (double)e.mesh->numTriangles();
}

void BenchSuite::bulletSegment(benchmark::State& st, Entry& e)
{
    PeerBullet* peer = bullet(e);
    const BenchQueries& q = queries(e);
    const size_t n = q.size();
    timeQueries(st, n, "hits", [&](size_t i) { return peer->segment(&q.m_segStart[i].x, &q.m_segEnd[i].x); });
}
#else
void BenchSuite::bulletBuild(benchmark::State&, Entry&) {}
void BenchSuite::bulletSegment(benchmark::State&, Entry&) {}
#endif

// ---- cross-check ------------------------------------------------------------------

void BenchSuite::crossCheck(benchmark::State& st, Entry& e)
{
    const mrClipBSP* bsp = clip(e);
    if (!bsp)
    {
        st.SkipWithError("skipped: building the clip BSP is predicted far over the time limit");
        return;
    }
    const BenchQueries& q = queries(e);
    const size_t n = q.size();
    PeerEmbree* pe = embree(e);
    PeerBullet* pb = bullet(e);

    // Fit the check into the time limit: time a sample of both queries and check as
    // many as fit (all of them unless the clip BSP's queries are very slow).
    const size_t sample = std::min(n, (size_t)200);
    mrTrace trace;
    Clock::time_point t0 = Clock::now();
    for (size_t i = 0; i < sample; ++i)
    {
        benchmark::DoNotOptimize(bsp->pointInfo(0, q.m_points[i]));
        benchmark::DoNotOptimize(bsp->checkCollision(q.m_segStart[i], q.m_segEnd[i], trace));
    }
    const double perQuery = sample ? secondsSince(t0) / (double)sample : 0.0;
    size_t count = n;
    if (perQuery * (double)n > m_options.maxSeconds)
        count = std::max(sample, (size_t)(m_options.maxSeconds / perQuery));

    // Points: our solid (<= -2) against the peer's inside-by-parity. For an inward mesh
    // (a hollow level) the enclosed volume is the open space, so solid means outside.
    const bool outward = e.mesh->orientation() != BenchMesh::ORIENT_INWARD;
    size_t solid = 0, solidAgree = 0, empty = 0, emptyAgree = 0;
    size_t blocked = 0, blockedEmbree = 0, blockedBullet = 0, startSolid = 0, clear = 0, clearNoHit = 0;
    size_t marginStops = 0;
#if defined(MERIDBSP_BENCH_HAVE_EMBREE) || defined(MERIDBSP_BENCH_HAVE_BULLET)
    const bool havePeers = true;
#else
    const bool havePeers = false;
#endif
    // A trace reads the far side of a crossed plane 0.03225 short of it, on the near side;
    // where a neighbouring plane runs within that distance of the crossed one (a smooth
    // curved surface), the far subtree can call that point solid and the trace stops in
    // open space. Such a stop is the trace's rule, not a fault of the tree: the tree's own
    // point answers along the segment find no solid, as the peers find no surface.
    auto marginStop = [&](const srVector3T<float>& a, const srVector3T<float>& b)
    {
        const int samples = 1024;
        for (int k = 0; k <= samples; ++k)
        {
            const float t = (float)k / (float)samples;
            srVector3T<float> p(a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t);
            if (bsp->pointInfo(0, p) <= -2)
                return false;
        }
        return true;
    };
    for (auto _ : st)
    {
        for (size_t i = 0; i < count; ++i)
        {
            const int c = bsp->pointInfo(0, q.m_points[i]);
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
            bool enclosed;
            {
                PeerEmbree::FlushDenormals ftz;
                enclosed = pe->inside(&q.m_points[i].x);
            }
            const bool peerSolid = outward ? enclosed : !enclosed;
#else
            const bool peerSolid = false;
            (void)pe;
            (void)outward;
#endif
            if (c <= -2)
            {
                ++solid;
                solidAgree += peerSolid;
            }
            else
            {
                ++empty;
                emptyAgree += !peerSolid;
            }

            mrTrace tr;
            const int ret = bsp->checkCollision(q.m_segStart[i], q.m_segEnd[i], tr);
            bool hitE = false, hitB = false;
#ifdef MERIDBSP_BENCH_HAVE_EMBREE
            {
                PeerEmbree::FlushDenormals ftz;
                hitE = pe->segment(&q.m_segStart[i].x, &q.m_segEnd[i].x);
            }
#endif
#ifdef MERIDBSP_BENCH_HAVE_BULLET
            hitB = pb->segment(&q.m_segStart[i].x, &q.m_segEnd[i].x);
#else
            (void)pb;
#endif
            if (ret == 0 && tr.m_startSolid)
                ++startSolid;
            else if (ret == 0 && (hitE || hitB || !havePeers || !marginStop(q.m_segStart[i], q.m_segEnd[i])))
            {
                ++blocked;
                blockedEmbree += hitE;
                blockedBullet += hitB;
            }
            else if (ret == 0)
                ++marginStops;
            else
            {
                ++clear;
                clearNoHit += !hitE;
            }
        }
    }
    const double pointRate = solid ? (double)solidAgree / (double)solid : 1.0;
    const double segRate = blocked ? (double)blockedEmbree / (double)blocked : 1.0;
    const double segRateB = blocked ? (double)blockedBullet / (double)blocked : 1.0;
    const bool known = e.mesh->orientation() != BenchMesh::ORIENT_UNKNOWN;
#if defined(MERIDBSP_BENCH_HAVE_EMBREE) || defined(MERIDBSP_BENCH_HAVE_BULLET)
    const char* peerNote = "";
#else
    const char* peerNote = " (no peer library built in: our counts only)";
#endif
    bool failed = false;
#if defined(MERIDBSP_BENCH_HAVE_EMBREE)
    failed = known && (pointRate < 0.999 || segRate < 0.999);
#endif
#if defined(MERIDBSP_BENCH_HAVE_BULLET)
    failed = failed || (known && segRateB < 0.999);
#endif
    std::fprintf(stderr,
                 "cross_check/%s: %zu of %zu queries%s; points: solid %zu, inside by parity %zu (%.4f %%), "
                 "empty %zu, outside by parity %zu; segments: blocked %zu, peer hit %zu (embree) %zu (bullet) "
                 "(%.4f %% / %.4f %%), stopped by the trace's margin in open space %zu, start solid %zu, clear %zu, "
                 "peer miss %zu%s%s%s\n",
                 e.mesh->name().c_str(), count, n, count < n ? " (time limit)" : "", solid, solidAgree,
                 100.0 * pointRate, empty, emptyAgree, blocked, blockedEmbree, blockedBullet, 100.0 * segRate,
                 100.0 * segRateB, marginStops, startSolid, clear, clearNoHit,
                 known ? "" : " (orientation unknown: not judged)", peerNote, failed ? "  ** DISAGREES **" : "");
    if (failed)
    {
        ++m_failures;
        st.SkipWithError("the clip BSP disagrees with the peers beyond 0.1 %");
    }
    st.counters["checked"] = (double)count;
    st.counters["solid_points"] = (double)solid;
    st.counters["solid_inside"] = (double)solidAgree;
    st.counters["empty_points"] = (double)empty;
    st.counters["empty_outside"] = (double)emptyAgree;
    st.counters["blocked"] = (double)blocked;
    st.counters["margin_stops"] = (double)marginStops;
    st.counters["blocked_embree_hit"] = (double)blockedEmbree;
    st.counters["blocked_bullet_hit"] = (double)blockedBullet;
    st.counters["start_solid"] = (double)startSolid;
    st.counters["clear"] = (double)clear;
    st.counters["clear_embree_miss"] = (double)clearNoHit;
}
