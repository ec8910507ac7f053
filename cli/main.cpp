// meridbsp: the two BSP pipelines and the clip BSP queries from the shell.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <meridbsp/mrVersion.h>
#include <meridbsp/platform/dx/srOutput.h>

#include "Commands.h"
#include "Tool.h"

namespace
{

// "-.5" reads as an option to the parser; "-0.5" does not. Numbers are the only
// arguments that start this way, so they are rewritten before parsing.
std::vector<std::string> normaliseArguments(int argc, char** argv)
{
    std::vector<std::string> args;
    for (int i = argc - 1; i >= 1; --i) // CLI11 takes the arguments in reverse order
    {
        std::string a = argv[i];
        if (a.size() >= 3 && a[0] == '-' && a[1] == '.' && a[2] >= '0' && a[2] <= '9')
            a = "-0" + a.substr(1);
        args.push_back(a);
    }
    return args;
}

// Names the closest command to a word that is none: the fewest letters to insert, delete,
// change or swap.
std::string closestCommand(const std::string& word, const std::vector<CLI::App*>& commands)
{
    std::string best;
    size_t bestDistance = 0;
    for (const CLI::App* command : commands)
    {
        const std::string& name = command->get_name();
        std::vector<std::vector<size_t>> d(word.size() + 1, std::vector<size_t>(name.size() + 1));
        for (size_t i = 0; i <= word.size(); ++i)
            for (size_t j = 0; j <= name.size(); ++j)
            {
                if (i == 0 || j == 0)
                {
                    d[i][j] = i + j;
                    continue;
                }
                d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (word[i - 1] != name[j - 1])});
                if (i > 1 && j > 1 && word[i - 1] == name[j - 2] && word[i - 2] == name[j - 1])
                    d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        if (best.empty() || d[word.size()][name.size()] < bestDistance)
        {
            best = name;
            bestDistance = d[word.size()][name.size()];
        }
    }
    return best;
}

// Usage lines name an optional run of numbers as [POINT], not as the parser's [POINT(0x)],
// and one or more files as MESH....
class Formatter : public CLI::Formatter
{
public:
    std::string make_option_usage(const CLI::Option* option) const override
    {
        if (option->get_positional() && option->get_expected_max() > 1)
            return option->get_required() ? option->get_name() + "..." : "[" + option->get_name() + "]";
        return CLI::Formatter::make_option_usage(option);
    }
};

// The library's log when it is not shown.
class NullBuffer : public std::streambuf
{
protected:
    int overflow(int c) override { return c == EOF ? 0 : c; }
};

// --threads on a command whose builds can run on several cores.
void addThreads(CLI::App* command, int& threads, const std::string& build, const std::string& batch = "")
{
    command->add_option("--threads", threads,
                        "Threads of " + build + " (default 0: every core the process may use" + batch +
                            "; 1: the single-threaded build; N: up to N); the output is the same for every count");
}

// --out-dir and --jobs: a command run over many meshes, each in a worker process.
void addBatch(CLI::App* command, std::string& dir, int& jobs, const std::string& naming)
{
    command->add_option("--out-dir", dir,
                        "Directory DIR for any number of meshes, made if missing: " + naming +
                            "; the meshes are built at once by worker processes, one result line per mesh as each ends "
                            "(default: none)");
    command->add_option("--jobs", jobs,
                        "With --out-dir, meshes built at once (default 0: one per core, no more than meshes, or with "
                        "--threads N one per N cores)");
}

} // namespace

int main(int argc, char** argv)
{
    // A write past the file size limit must fail like any other write (and the run clean
    // up its temporary files), not end the process.
    std::signal(SIGXFSZ, SIG_IGN);

    CLI::App app{"meridbsp: builds BSP trees from triangle meshes and queries clip BSPs.\n"
                 "Commands that build write files; queries print one answer per line (--json: one JSON object per "
                 "line).\nExit codes: 0 success, 1 bad input or an output that cannot be written, 2 usage error.",
                 "meridbsp"};
    app.formatter(std::make_shared<Formatter>());
    app.set_version_flag("--version", std::string("meridbsp ") + meridbspVersion());
    app.require_subcommand(1);
    app.fallthrough(); // -v and -q may follow the command
    bool verbose = false, quiet = false;
    CLI::Option* verboseFlag =
        app.add_flag("-v,--verbose", verbose, "Also show the library's own log lines on standard error");
    app.add_flag("-q,--quiet", quiet, "Errors only: no warnings, notes, progress or reports of files written")
        ->excludes(verboseFlag);
    // A worker of a run over many meshes (Batch): not for people, so not in the help.
    bool worker = false;
    app.add_flag("--worker", worker)->group("");

    Commands::VisArgs visArgs;
    CLI::App* vis = app.add_subcommand("vis", "Visibility pipeline: portal file and portal mesh of a mesh");
    vis->add_option("MESH", visArgs.meshes, "Mesh file (OBJ, OFF, PLY, STL, glTF, ...); several with --out-dir")
        ->required();
    vis->add_flag("--mid-split", visArgs.midSplit,
                  "Choose each partition plane by dividing the box evenly instead of by cutting the fewest faces: "
                  "much faster on curved meshes, and a different tree (default: off)");
    vis->add_option("--out", visArgs.outDir,
                    "Directory DIR for the default outputs, made (with its parents) if missing (default: the current "
                    "directory)");
    vis->add_option("--prt-out", visArgs.prtOut, "Portal file (default DIR/test.prt; - for standard output)");
    vis->add_option("--mesh-out", visArgs.meshOut,
                    "Portal mesh file: .obj (with a .mtl beside it), .glb or .ply (default DIR/portals.obj, or .glb "
                    "or .ply after --mesh-format; - for standard output)");
    vis->add_option("--mesh-format", visArgs.meshFormat,
                    "Portal mesh format, obj, glb or ply (default: from the --mesh-out extension)");
    vis->add_option("--inside", visArgs.inside,
                    "A point X,Y,Z inside the level (repeatable): warn if its open space reaches the outside, and "
                    "write the way out (default: none)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    vis->add_option("--leak-out", visArgs.leakOut, "Leak path file, with --inside (default DIR/leak.obj)");
    vis->add_flag("--keep-degenerate", visArgs.keepDegenerate,
                  "Pass triangles without a plane to the library (default: dropped, with a warning)");
    vis->add_flag("--json", visArgs.json, "Print the results as one JSON object (with --out-dir, one per mesh)");
    addThreads(vis, visArgs.threads, "each visibility build", ", shared out among the workers with --out-dir");
    addBatch(vis, visArgs.batchDir, visArgs.jobs, "DIR/NAME/test.prt, DIR/NAME/portals.obj, ... for NAME.obj");

    Commands::ClipArgs clipArgs;
    CLI::App* clip = app.add_subcommand("clip", "Collision pipeline: a clip BSP file from a mesh");
    clip->add_option("MESH", clipArgs.meshes, "Mesh file (OBJ, OFF, PLY, STL, glTF, ...); several with --out-dir")
        ->required();
    clip->add_option("-o,--output", clipArgs.output,
                     "Clip BSP file to write, for one mesh (- for standard output; default: none)");
    clip->add_option("--offset", clipArgs.offset, "Offset X,Y,Z added after the matrix (default 0,0,0)");
    clip->add_option("--matrix", clipArgs.matrix,
                     "Matrix m0,...,m8 applied first: x' = m0 x + m3 y + m6 z, y' = m1 x + m4 y + m7 z, z' = m2 x + "
                     "m5 y + m8 z (default: the identity, 1,0,0,0,1,0,0,0,1)");
    clip->add_flag("--keep-degenerate", clipArgs.keepDegenerate,
                   "Pass triangles without a plane to the library (default: dropped, with a warning)");
    addThreads(clip, clipArgs.threads, "each collision build", ", shared out among the workers with --out-dir");
    clip->add_flag("--json", clipArgs.json, "Print the results as one JSON object (with --out-dir, one per mesh)");
    addBatch(clip, clipArgs.batchDir, clipArgs.jobs, "DIR/NAME.mrc for NAME.obj");

    Commands::FileArgs checkArgs;
    CLI::App* check = app.add_subcommand("check", "Health of a mesh: holes, bad edges, degenerate triangles, facing");
    check->add_option("MESH", checkArgs.file, "Mesh file")->required();
    check->add_flag("--json", checkArgs.json, "Print the report as one JSON object");

    Commands::BoxArgs boxArgs;
    CLI::App* box = app.add_subcommand("box", "A box clip BSP file (its bounds are the box widened by 16)");
    box->add_option("MIN", boxArgs.mins, "Minimum corner MINX,MINY,MINZ")->required();
    box->add_option("MAX", boxArgs.maxs, "Maximum corner MAXX,MAXY,MAXZ")->required();
    box->add_option("-o,--output", boxArgs.output, "Clip BSP file to write (- for standard output)")->required();
    box->add_flag("--json", boxArgs.json, "Print the results as one JSON object");

    Commands::FileArgs infoArgs;
    CLI::App* info = app.add_subcommand("info", "Summary of a clip BSP file");
    info->add_option("FILE", infoArgs.file, "Clip BSP file")->required();
    info->add_flag("--json", infoArgs.json, "Print the summary as one JSON object");

    Commands::FileArgs dumpArgs;
    CLI::App* dump = app.add_subcommand("dump", "Every plane and node of a clip BSP file");
    dump->add_option("FILE", dumpArgs.file, "Clip BSP file")->required();
    dump->add_flag("--json", dumpArgs.json, "Print the planes and nodes as one JSON object");

    Commands::FileArgs pointArgs;
    CLI::App* point = app.add_subcommand(
        "point", "Contents at points (-1 empty, -2 solid, -3 marked solid): X Y Z, or lines on stdin");
    point->add_option("FILE", pointArgs.file, "Clip BSP file")->required();
    point
        ->add_option("POINT", pointArgs.numbers,
                     "The point, X Y Z or X,Y,Z (default: none, read one point per line from standard input)")
        ->expected(0, 3);
    point->add_flag("--json", pointArgs.json, "Print one JSON object per answer (JSON Lines)");

    Commands::FileArgs traceArgs;
    CLI::App* trace = app.add_subcommand("trace", "Traces segments: X0 Y0 Z0 X1 Y1 Z1, or such lines on stdin");
    trace->add_option("FILE", traceArgs.file, "Clip BSP file")->required();
    trace
        ->add_option("SEGMENT", traceArgs.numbers,
                     "Start and end, X0 Y0 Z0 X1 Y1 Z1 or X0,Y0,Z0 X1,Y1,Z1 (default: none, read one segment per "
                     "line from standard input)")
        ->expected(0, 6);
    trace->add_flag("--json", traceArgs.json, "Print one JSON object per answer (JSON Lines)");

    Commands::SliceArgs sliceArgs;
    CLI::App* slice = app.add_subcommand("slice", "PNG picture of a cross-section of a clip BSP, with legend and axes");
    slice->add_option("FILE", sliceArgs.file, "Clip BSP file")->required();
    slice->add_option("--axis", sliceArgs.axis, "Axis across the slice: x, y or z")->required();
    slice->add_option("--at", sliceArgs.at, "Coordinate of the slice on that axis")->required();
    slice->add_option("--size", sliceArgs.size, "Pixels along the longer side of the section (default 512)");
    slice->add_option("-o,--output", sliceArgs.output, "PNG file to write (- for standard output)")->required();
    slice->add_flag("--json", sliceArgs.json, "Print the results as one JSON object");

    Commands::ViewArgs viewArgs;
    CLI::App* view = app.add_subcommand("view", "One HTML page showing both pipelines' results, for a browser");
    view->add_option("MESH", viewArgs.mesh, "Mesh file")->required();
    view->add_option("-o,--output", viewArgs.output, "HTML file to write")->required();
    view->add_flag("--mid-split", viewArgs.midSplit,
                   "Partition planes by dividing the box evenly, as vis --mid-split (default: off)");
    view->add_option("--inside", viewArgs.inside,
                     "A point X,Y,Z inside the level: show the leak path from it "
                     "(default: none)");
    view->add_flag("--keep-degenerate", viewArgs.keepDegenerate,
                   "Pass triangles without a plane to the library (default: dropped, with a warning)");
    addThreads(view, viewArgs.threads, "both builds");
    view->add_flag("--json", viewArgs.json, "Print the results as one JSON object");

    Commands::DemoArgs demoArgs;
    CLI::App* demo = app.add_subcommand("demo", "Both pipelines, a slice and a view page of the built-in level");
    demo->add_option("--out", demoArgs.outDir,
                     "Output directory, made (with its parents) if missing (default demo-out)");
    addThreads(demo, demoArgs.threads, "the builds");
    demo->add_flag("--json", demoArgs.json, "Print the results as one JSON object");

    // Set last, so that the commands' own help does not repeat it.
    app.footer("Run 'meridbsp COMMAND --help' for a command's options; docs/cli.md describes every output.");
    const std::vector<CLI::App*> commands = {vis, clip, check, box, info, dump, point, trace, slice, view, demo};
    std::vector<std::string> args = normaliseArguments(argc, argv);
    // The first word that is no option must be a command (the arguments are in reverse).
    for (auto word = args.rbegin(); word != args.rend(); ++word)
    {
        if (word->empty() || (*word)[0] == '-')
            continue;
        if (std::none_of(commands.begin(), commands.end(), [&](const CLI::App* c) { return c->get_name() == *word; }))
            return Tool::usage("'" + *word + "' is not a command; the closest is '" + closestCommand(*word, commands) +
                               "' ('meridbsp --help' lists them all)");
        break;
    }
    try
    {
        app.parse(args);
    }
    catch (const CLI::CallForHelp& e)
    {
        return app.exit(e);
    }
    catch (const CLI::CallForAllHelp& e)
    {
        return app.exit(e);
    }
    catch (const CLI::CallForVersion& e)
    {
        return app.exit(e);
    }
    catch (const CLI::ParseError& e)
    {
        return Tool::usage(e.what());
    }

    // The library's log lines are its own; they are shown only when asked for.
    Tool::setVerbosity(quiet ? -1 : verbose ? 1 : 0);
    Tool::setWorker(worker);
    // Never destroyed: the library may still write while the program ends.
    static std::ostream* discard = new std::ostream(new NullBuffer);
    srSetOutputTarget(verbose ? &std::cerr : discard);

    if (vis->parsed())
        return Commands::vis(visArgs);
    if (clip->parsed())
        return Commands::clip(clipArgs);
    if (check->parsed())
        return Commands::check(checkArgs);
    if (box->parsed())
        return Commands::box(boxArgs);
    if (info->parsed())
        return Commands::info(infoArgs);
    if (dump->parsed())
        return Commands::dump(dumpArgs);
    if (point->parsed())
        return Commands::point(pointArgs);
    if (trace->parsed())
        return Commands::trace(traceArgs);
    if (slice->parsed())
        return Commands::slice(sliceArgs);
    if (view->parsed())
        return Commands::view(viewArgs);
    if (demo->parsed())
        return Commands::demo(demoArgs);
    return Tool::usage("no command given");
}
