#pragma once

#include <string>
#include <vector>

// The tool's commands. Each takes its parsed arguments, writes its results to standard
// output (as text, or with --json as JSON) and its errors to standard error, and returns
// the exit code (Tool::e_exit).
class Commands
{
public:
    struct VisArgs
    {
        std::vector<std::string> meshes; // one, or with batchDir any number
        bool midSplit = false;
        std::string outDir;              // empty: the current directory
        std::string prtOut;              // empty: test.prt in outDir
        std::string meshOut;             // empty: portals.obj in outDir
        std::string meshFormat;          // obj, glb or ply; empty: from meshOut's extension
        std::vector<std::string> inside; // points meant to lie inside the level
        std::string leakOut;             // empty: leak.obj in outDir
        bool keepDegenerate = false;
        bool json = false;
        int threads = 0; // of the visibility build, as mrVisPipeline::Settings::threads
        // Many meshes: the outputs of each in batchDir/NAME/, built by `jobs` workers at
        // once (0: see Batch::shape).
        std::string batchDir;
        int jobs = 0;
    };
    struct ClipArgs
    {
        std::vector<std::string> meshes; // one, or with batchDir any number
        std::string output;
        std::string offset; // three numbers; empty: 0,0,0
        std::string matrix; // nine numbers m0 to m8; empty: identity
        bool keepDegenerate = false;
        bool json = false;
        // Threads of each build: 0 every core the process may use (shared out among the
        // workers of a batch), 1 the single-threaded build, N up to N.
        int threads = 0;
        // Many meshes: batchDir/NAME.mrc each, built by `jobs` workers at once (0: see
        // Batch::shape).
        std::string batchDir;
        int jobs = 0;
    };
    struct BoxArgs
    {
        std::string mins;
        std::string maxs;
        std::string output;
        bool json = false;
    };
    struct FileArgs
    {
        std::string file;
        bool json = false;
        std::vector<std::string> numbers; // point and trace: the query on the command line
    };
    struct SliceArgs
    {
        std::string file;
        std::string axis;
        std::string at;
        int size = 512;
        std::string output;
        bool json = false;
    };
    struct ViewArgs
    {
        std::string mesh;
        std::string output;
        bool midSplit = false;
        std::string inside; // "x,y,z"; empty: none
        bool keepDegenerate = false;
        bool json = false;
        int threads = 0; // of the collision build, as ClipArgs::threads
    };
    struct DemoArgs
    {
        std::string outDir = "demo-out";
        bool json = false;
        int threads = 0; // of the collision build, as ClipArgs::threads
    };

    static int check(const FileArgs& args);
    static int vis(const VisArgs& args);
    static int clip(const ClipArgs& args);
    static int box(const BoxArgs& args);
    static int info(const FileArgs& args);
    static int dump(const FileArgs& args);
    static int point(const FileArgs& args);
    static int trace(const FileArgs& args);
    static int slice(const SliceArgs& args);
    static int view(const ViewArgs& args);
    static int demo(const DemoArgs& args);

    // The built-in demo level: the copy in the source tree, else the installed one.
    static std::string demoLevelPath();
};
