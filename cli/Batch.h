#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// One command run over many meshes on a pool of worker processes: each worker is this
// program started again on one mesh alone, so every mesh's outputs are exactly those of
// a one-mesh run. (The visibility pipeline keeps process-wide state, the portalizer's
// counters and material table and the random numbers that colour the portal mesh; two
// runs in one process would share it and change each other's files.) A worker prints its
// result as JSON; the run prints one line (or, with --json, one JSON object) per mesh as
// its worker ends, and goes on past meshes that fail.
class Batch
{
public:
    struct Item
    {
        std::string mesh;              // the input, as the result and the errors name it
        std::vector<std::string> args; // the worker's command line after the program name
    };

    // How the cores are shared out: workers at once, and build threads in each.
    struct Shape
    {
        int jobs = 1;
        int threads = 1;
    };
    // Meshes are independent, so they get the cores first: by default as many workers as
    // cores (no more than meshes), each build getting the cores left over (cores / jobs,
    // at least 1). A thread count given (threads > 0) keeps to it and runs cores / threads
    // workers; a job count given (jobs > 0) keeps to it and shares the cores among them.
    static Shape shape(size_t items, int jobs, int threads, int cores);

    // A worker's result as the text of its line (after "MESH: ").
    typedef std::function<std::string(const nlohmann::ordered_json& result)> Summary;

    // Runs every item on up to `jobs` workers at once. As each ends, its messages go to
    // standard error in one piece, then its result to standard output: with `json` the
    // worker's object after "mesh" and "ok" (true; false with "error" for a mesh that
    // failed), else "MESH: " and the summary (nothing under --quiet). Returns the meshes
    // that failed, in the order given.
    static std::vector<std::string> run(const std::vector<Item>& items, int jobs, bool json, const Summary& summary);
};
