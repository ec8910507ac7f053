#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchMesh.h"
#include "BenchQueries.h"

class mrClipBSP;
class PeerEmbree;
class PeerBullet;

// Registers every benchmark of the suite for a set of meshes and holds what the
// benchmarks share: the meshes, their queries, one clip BSP per mesh for the query
// benchmarks, the saved chunk bytes and the peers' structures. All of it is made lazily,
// outside the timed loops, the first time a benchmark needs it.
class BenchSuite
{
public:
    struct Options
    {
        size_t queries = 100000;        // points and segments per mesh
        double maxSeconds = 60.0;       // skip a vis build or query pass expected to take longer (CPU s)
        double buildMaxSeconds = 600.0; // the same for the clip BSP build and the peers' builds
        bool tiny = false;              // smoke run: one iteration of everything
        std::string portalDir;          // where the vis benchmarks write their portal file
    };

    explicit BenchSuite(const Options& options);
    ~BenchSuite();
    BenchSuite(const BenchSuite&) = delete;
    BenchSuite& operator=(const BenchSuite&) = delete;

    // Takes the mesh; meshes of one kind must be added smallest first.
    void addMesh(BenchMesh* mesh);
    void registerAll();

    // Cross-checks that disagreed beyond the tolerance (main exits non-zero then).
    int failures() const { return m_failures; }

private:
    struct Entry
    {
        std::unique_ptr<BenchMesh> mesh;
        std::unique_ptr<BenchQueries> queries;
        mrClipBSP* clip = nullptr;
        std::vector<unsigned char> chunk;
        PeerEmbree* embree = nullptr;
        PeerBullet* bullet = nullptr;
    };

    // Lazily made shared state.
    BenchQueries& queries(Entry& e);
    mrClipBSP* clip(Entry& e);
    const std::vector<unsigned char>& chunk(Entry& e);
    PeerEmbree* embree(Entry& e);
    PeerBullet* bullet(Entry& e);

    // The benchmarks.
    void clipBuild(benchmark::State& st, Entry& e);
    // The same build on `threads` threads (importMeshModelParallel), in wall time.
    void clipBuildThreads(benchmark::State& st, Entry& e, int threads);
    // pointInfo or checkCollision from every benchmark thread at once on one clip BSP.
    void queriesFromThreads(benchmark::State& st, Entry& e, bool points);
    // The one-call visibility pipeline on `threads` threads (1: its own steps, CPU time;
    // more: the parallel build, wall time).
    void visBuild(benchmark::State& st, Entry& e, bool midSplit, int threads = 1);
    void visNormal(benchmark::State& st, Entry& e) { visBuild(st, e, false); }
    void visMidSplit(benchmark::State& st, Entry& e) { visBuild(st, e, true); }
    void chunkSave(benchmark::State& st, Entry& e);
    void chunkLoad(benchmark::State& st, Entry& e);
    void pointInfo(benchmark::State& st, Entry& e);
    void checkCollision(benchmark::State& st, Entry& e);
    void crossCheck(benchmark::State& st, Entry& e);
    void embreeBuild(benchmark::State& st, Entry& e);
    void embreeSegment(benchmark::State& st, Entry& e);
    void embreeInside(benchmark::State& st, Entry& e);
    void bulletBuild(benchmark::State& st, Entry& e);
    void bulletSegment(benchmark::State& st, Entry& e);

    // Time limit for the builds (CPU seconds per iteration). Each family's per-iteration times are kept per mesh kind;
    // the next (larger) mesh's time is predicted from them as t · (n / n_last)^k, with k
    // measured from the last two sizes (clamped to [1, 3]) or the family's default. A
    // benchmark predicted over the limit is skipped with the prediction as its message.
    bool skipByPrediction(benchmark::State& st, const std::string& family, const Entry& e, double defaultExponent,
                          double limit);
    void recordTime(const std::string& family, const Entry& e, double secondsPerIteration);
    // For the queries: times the first `sample` queries and skips when all of them would
    // take over the limit. Returns true when skipped.
    bool skipBySample(benchmark::State& st, double sampleSeconds, size_t sample, size_t total);
    // A timed pass of query(clip, queries, i) over every query of the mesh, after a
    // sample that may skip it; false when skipped.
    template <class Query> bool timeClipQueries(benchmark::State& st, Entry& e, const char* counter, Query query);

    void registerFamily(const std::string& family, void (BenchSuite::*fn)(benchmark::State&, Entry&),
                        const std::string& suffix = "");

    Options m_options;
    std::vector<std::unique_ptr<Entry>> m_entries;
    std::map<std::string, std::vector<std::pair<double, double>>> m_times; // family|kind -> (n, s)
    int m_failures = 0;
};
