// meridbsp: the two BSP pipelines and the clip BSP queries from the shell.

#include <csignal>
#include <cstdio>
#include <iostream>
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

} // namespace

int main(int argc, char** argv)
{
    // The library's log is for people; standard output carries the results.
    srSetOutputTarget(&std::cerr);
    // A write past the file size limit must fail like any other write (and the run clean
    // up its temporary files), not end the process.
    std::signal(SIGXFSZ, SIG_IGN);

    CLI::App app{"meridbsp: builds BSP trees from triangle meshes and queries clip BSPs.", "meridbsp"};
    app.set_version_flag("--version", std::string("meridbsp ") + meridbspVersion());
    app.require_subcommand(1);

    Commands::VisArgs visArgs;
    CLI::App* vis = app.add_subcommand("vis", "Visibility pipeline: portal file and portal mesh of a mesh");
    vis->add_option("MESH", visArgs.mesh, "Mesh file (OBJ, OFF, PLY, STL, ...)")->required();
    vis->add_flag("--mid-split", visArgs.midSplit, "Choose partition planes by box division alone");
    vis->add_option("--out", visArgs.outDir, "Directory for test.prt and the default portal mesh");
    vis->add_option("--prt-out", visArgs.prtOut, "Portal file (default DIR/test.prt; - for standard output)");
    vis->add_option("--mesh-out", visArgs.meshOut,
                    "Portal mesh file (.obj, .glb or .ply; default DIR/portals.obj; - for standard output)");
    vis->add_option("--mesh-format", visArgs.meshFormat,
                    "Portal mesh format when the path has no extension: obj, glb, ply");
    vis->add_option("--inside", visArgs.inside,
                    "A point X,Y,Z inside the level (repeatable): report a leak if its open space reaches the outside")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    vis->add_option("--leak-out", visArgs.leakOut, "Leak path file with --inside (default DIR/leak.obj)");
    vis->add_flag("--keep-degenerate", visArgs.keepDegenerate,
                  "Pass triangles without a plane to the library (dropped by default)");
    vis->add_flag("--json", visArgs.json, "Print the counts as one JSON object");

    Commands::ClipArgs clipArgs;
    CLI::App* clip = app.add_subcommand("clip", "Collision pipeline: a clip BSP file from a mesh");
    clip->add_option("MESH", clipArgs.mesh, "Mesh file")->required();
    clip->add_option("-o,--output", clipArgs.output, "Clip BSP file to write (- for standard output)")->required();
    clip->add_option("--offset", clipArgs.offset, "Offset X,Y,Z added after the matrix (default 0,0,0)");
    clip->add_option("--matrix", clipArgs.matrix, "Matrix m0,...,m8 applied first (default identity)");
    clip->add_flag("--keep-degenerate", clipArgs.keepDegenerate,
                   "Pass triangles without a plane to the library (dropped by default)");
    clip->add_flag("--json", clipArgs.json, "Print the counts as one JSON object");

    Commands::FileArgs checkArgs;
    CLI::App* check = app.add_subcommand("check", "Health of a mesh: holes, bad edges, degenerate triangles, facing");
    check->add_option("MESH", checkArgs.file, "Mesh file")->required();
    check->add_flag("--json", checkArgs.json, "Print the report as one JSON object");

    Commands::BoxArgs boxArgs;
    CLI::App* box = app.add_subcommand("box", "A box clip BSP file");
    box->add_option("MIN", boxArgs.mins, "Minimum corner MINX,MINY,MINZ")->required();
    box->add_option("MAX", boxArgs.maxs, "Maximum corner MAXX,MAXY,MAXZ")->required();
    box->add_option("-o,--output", boxArgs.output, "Clip BSP file to write (- for standard output)")->required();

    Commands::FileArgs infoArgs;
    CLI::App* info = app.add_subcommand("info", "Summary of a clip BSP file");
    info->add_option("FILE", infoArgs.file, "Clip BSP file")->required();
    info->add_flag("--json", infoArgs.json, "Print the summary as one JSON object");

    Commands::FileArgs dumpArgs;
    CLI::App* dump = app.add_subcommand("dump", "Every plane and node of a clip BSP file");
    dump->add_option("FILE", dumpArgs.file, "Clip BSP file")->required();

    Commands::FileArgs pointArgs;
    CLI::App* point = app.add_subcommand("point", "Contents at points: X Y Z, or lines 'x y z' on stdin");
    point->add_option("FILE", pointArgs.file, "Clip BSP file")->required();
    point->add_option("XYZ", pointArgs.numbers, "The point")->expected(0, 3);

    Commands::FileArgs traceArgs;
    CLI::App* trace = app.add_subcommand("trace", "Traces segments: X0 Y0 Z0 X1 Y1 Z1, or such lines on stdin");
    trace->add_option("FILE", traceArgs.file, "Clip BSP file")->required();
    trace->add_option("SEGMENT", traceArgs.numbers, "The segment")->expected(0, 6);

    Commands::SliceArgs sliceArgs;
    CLI::App* slice = app.add_subcommand("slice", "PNG picture of a cross-section of a clip BSP");
    slice->add_option("FILE", sliceArgs.file, "Clip BSP file")->required();
    slice->add_option("--axis", sliceArgs.axis, "Axis across the slice: x, y or z")->required();
    slice->add_option("--at", sliceArgs.at, "Coordinate of the slice on that axis")->required();
    slice->add_option("--size", sliceArgs.size, "Pixels along the longer side (default 512)");
    slice->add_option("-o,--output", sliceArgs.output, "PNG file to write (- for standard output)")->required();

    Commands::ViewArgs viewArgs;
    CLI::App* view = app.add_subcommand("view", "One HTML page showing both pipelines' results, for a browser");
    view->add_option("MESH", viewArgs.mesh, "Mesh file")->required();
    view->add_option("-o,--output", viewArgs.output, "HTML file to write")->required();
    view->add_flag("--mid-split", viewArgs.midSplit, "Choose partition planes by box division alone");
    view->add_option("--inside", viewArgs.inside, "A point X,Y,Z inside the level: show the leak path from it");
    view->add_flag("--keep-degenerate", viewArgs.keepDegenerate,
                   "Pass triangles without a plane to the library (dropped by default)");

    Commands::DemoArgs demoArgs;
    CLI::App* demo = app.add_subcommand("demo", "Both pipelines on the built-in level");
    demo->add_option("--out", demoArgs.outDir, "Output directory (default demo-out)");

    try
    {
        std::vector<std::string> args = normaliseArguments(argc, argv);
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
