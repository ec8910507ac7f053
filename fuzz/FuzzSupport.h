#pragma once

#include <string>
#include <vector>

class FuzzInput;
class mrClipBSP;
class mrIOManager;
class srMeshModel;

// What the fuzzers share: their start-up (LLVMFuzzerInitialize calls start()), the
// checks every clip BSP must pass, and the two pipelines run end to end with everything
// they build released again (so LeakSanitizer sees only real leaks).
//
// A check that fails prints what broke and aborts, which libFuzzer reports as a crash
// and keeps the input.
class FuzzSupport
{
public:
    // Initialises the core, loads the module's IO handler, sends the engine log and the
    // assertion reports to nowhere (counted), and makes a scratch directory. Idempotent.
    static void start();
    static mrIOManager& io();

    // Assertion reports since start().
    static unsigned long assertCount();
    static void fail(const char* what, const std::string& detail = std::string());

    // A clip BSP from outside passed validate(): queries must end and give answers that
    // agree with each other, on points and segments from the clip BSP's own planes and
    // bounds, and (when given) from `in`.
    static void checkQueries(const mrClipBSP& bsp, FuzzInput* in = nullptr);

    // Save, load, save again: the load must succeed and both saves give the same bytes.
    static void checkRoundTrip(mrClipBSP& bsp);

    // Collision pipeline: import, validate, query, round trip, release.
    static void runClipPipeline(srMeshModel* mesh);
    // Visibility pipeline: surfaces, tree, portals, portal file (in the scratch
    // directory), portal mesh; everything released.
    static void runVisPipeline(srMeshModel* mesh, bool midSplit);

    static const std::string& scratchDir();
};
