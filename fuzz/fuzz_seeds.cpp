// Writes the seed corpora of the three fuzzers: fuzz_seeds CORPUS_DIR (the directory
// holding fuzz_chunk_load/, fuzz_clip_query/ and fuzz_mesh_import/). The seeds are small
// valid inputs that reach deep into each target; the fuzzers mutate them from there.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/clipgen/mrClipBSPGen.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/dx/srMeshModel.h>

#include "FuzzSupport.h"

namespace
{
typedef std::vector<unsigned char> Bytes;

// The twelve outward triangles of a box whose corner i has bit k of i set where its
// coordinate k is the high one.
const int kBoxTriangles[12][3] = {{1, 3, 7}, {1, 7, 5}, {0, 4, 6}, {0, 6, 2}, {2, 6, 7}, {2, 7, 3},
                                  {0, 1, 5}, {0, 5, 4}, {4, 5, 7}, {4, 7, 6}, {0, 2, 3}, {0, 3, 1}};

void writeSeed(const std::string& dir, const std::string& name, const Bytes& bytes)
{
    std::string path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fclose(f) != 0)
        FuzzSupport::fail("cannot write", path);
    std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
}

Bytes save(const std::vector<srClass*>& objects)
{
    Bytes out;
    std::string error;
    if (!FuzzSupport::io().saveBuffer(objects, out, &error))
        FuzzSupport::fail("saving a seed failed", error);
    return out;
}

// A mesh file after the control byte of fuzz_mesh_import.
Bytes textSeed(unsigned char control, const char* text)
{
    Bytes b(1, control);
    b.insert(b.end(), text, text + std::strlen(text));
    return b;
}

// Coordinates as the fuzzers read them (FuzzInput::coordinate): kind 0, then v + 128
// quarter units.
void addCoordinates(Bytes& b, std::initializer_list<int> values)
{
    for (int v : values)
        b.insert(b.end(), {0, (unsigned char)(v + 128)});
}

void chunkSeeds(const std::string& dir)
{
    mrClipBSP* empty = new mrClipBSP;
    empty->setName("a");
    writeSeed(dir, "empty.mrc", save({empty}));

    mrClipBSP* box = new mrClipBSP;
    box->makeFromBBox(srVector3T<float>(-16, -16, -16), srVector3T<float>(16, 16, 16));
    box->refreshPBlock(nullptr);
    box->setName("box");
    writeSeed(dir, "box.mrc", save({box}));

    // The slab -4 <= x <= 4, marked solid.
    mrClipBSP* slab = new mrClipBSP;
    slab->m_numplanes = slab->m_numnodes = 2;
    slab->m_planes = mrClipBSP::allocPlanes(2);
    slab->m_planes[0] = mrPlane(1, 0, 0, 4);
    slab->m_planes[1] = mrPlane(-1, 0, 0, 4);
    slab->m_nodes = mrClipBSP::allocNodes(2);
    slab->m_nodes[0] = mrClipNode{0, {-1, 1}};
    slab->m_nodes[1] = mrClipNode{1, {-1, -3}};
    slab->m_mins = srVector3T<float>(-4, -1e9f, -1e9f);
    slab->m_maxs = srVector3T<float>(4, 1e9f, 1e9f);
    slab->refreshPBlock(nullptr);
    writeSeed(dir, "slab.mrc", save({slab}));
    writeSeed(dir, "two.mrc", save({box, slab}));

    // A box inside a box: a tree with empty and solid cells.
    srMeshModel* mesh = new srMeshModel(0, 0);
    for (float size : {8.0f, 2.0f})
    {
        int base = (int)mesh->getNumVerts();
        for (int i = 0; i < 8; ++i)
            mesh->addVertex(srVector3T<float>(i & 1 ? size : -size, i & 2 ? size : -size, i & 4 ? size : -size));
        for (const auto& t : kBoxTriangles)
            mesh->addPolygon(base + t[0], base + t[1], base + t[2]);
    }
    srVector3T<float> offset(0, 0, 0);
    srMatrix3T<float> identity;
    mrClipBSP* generated = mrClipBSPGen().importMeshModel(mesh, offset, identity);
    writeSeed(dir, "generated.mrc", save({generated}));
    for (srClass* o : std::vector<srClass*>{generated, mesh, empty, box, slab})
        o->release();
}

void clipQuerySeeds(const std::string& dir)
{
    // The six-plane box, laid out as the fuzzer reads it: control, plane count - 1,
    // node count - 1; per plane three normal bytes (0, 1, 2 give 0, 1, -1) and a
    // distance (kind 0, value byte 192: 16); per node the plane byte and two child bytes
    // (160: empty leaf, 161: solid leaf, 0: the next node); then four segments.
    Bytes box = {0x00, 5, 5};
    const unsigned char normals[6][3] = {{1, 0, 0}, {2, 0, 0}, {0, 1, 0}, {0, 2, 0}, {0, 0, 1}, {0, 0, 2}};
    for (auto& n : normals)
        box.insert(box.end(), {n[0], n[1], n[2], 0, 192});
    for (unsigned char i = 0; i < 6; ++i)
        box.insert(box.end(), {i, 160, (unsigned char)(i < 5 ? 0 : 161)});
    box.push_back(3);
    addCoordinates(box,
                   {-128, 0, 0, 0, 0, 0, -128, 0, 0, -80, 0, 0, 0, 0, 0, 127, 0, 0, -100, -100, -100, 100, 100, 100});
    writeSeed(dir, "box-tree", box);

    // A box from two corners, two segments, and the round trip.
    Bytes made = {0x80 | 0x40};
    addCoordinates(made, {-64, -64, -64, 64, 64, 64});
    made.push_back(1);
    addCoordinates(made, {-128, 3, 1, 127, -3, -1, 0, 0, 0, 0, 0, 127});
    writeSeed(dir, "made-box", made);

    // Longer pseudo-random descriptions: deep chains and mixed leaves.
    uint32_t state = 12345u;
    for (int k = 0; k < 3; ++k)
    {
        Bytes r = {(unsigned char)(k == 2 ? 0x40 : 0), 15, 63};
        for (int i = 0; i < 400; ++i)
        {
            state = state * 1664525u + 1013904223u;
            r.push_back((unsigned char)(state >> 24));
        }
        writeSeed(dir, "random-" + std::to_string(k), r);
    }
}

void meshSeeds(const std::string& dir)
{
    const char* cube = "v -1 -1 -1\nv 1 -1 -1\nv -1 1 -1\nv 1 1 -1\nv -1 -1 1\nv 1 -1 1\nv -1 1 1\nv 1 1 1\n"
                       "f 2 4 8 6\nf 1 5 7 3\nf 3 7 8 4\nf 1 2 6 5\nf 5 6 8 7\nf 1 3 4 2\n";
    writeSeed(dir, "cube.obj", textSeed(0, cube));
    writeSeed(dir, "cube-mid.obj", textSeed(4, cube));
    writeSeed(dir, "room.obj",
              textSeed(0,
                       "o room\nv -4 -4 -4\nv 4 -4 -4\nv -4 4 -4\nv 4 4 -4\nv -4 -4 4\nv 4 -4 4\nv -4 4 4\nv 4 4 4\n"
                       "usemtl wall\nf 2 6 8 4\nf 1 3 7 5\nf 3 4 8 7\nf 1 5 6 2\nusemtl floor\nf 5 7 8 6\nf 1 2 4 3\n"
                       "o pillar\nv -1 -1 -4\nv 1 -1 -4\nv 0 1 -4\nv 0 0 4\nf 9 10 12\nf 10 11 12\nf 11 9 12\n"));
    writeSeed(dir, "odd.obj",
              textSeed(0, "v 0 0 0\nv 1 0 0\nv 2 0 0\nv 0 1 0\nv 1 1 0\nf 1 2 3\nf 1 2 4\nf 1 2 4\nf 1 4 2\n"
                          "f -5 -4 -1\nf 1 2 5 4\nvn 0 0 1\nvt 0 0\nf 1/1/1 2/1/1 5/1/1\n"));
    writeSeed(dir, "tri.stl",
              textSeed(1, "solid t\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\n"
                          "endloop\nendfacet\nfacet normal 0 0 -1\nouter loop\nvertex 0 0 0\nvertex 0 1 0\n"
                          "vertex 1 0 0\nendloop\nendfacet\nendsolid t\n"));

    // Raw mode: eight box corners as quarter units, then the twelve triangles.
    Bytes raw = {0x80, 8 - 3};
    for (int i = 0; i < 24; ++i)
        addCoordinates(raw, {(i / 3 >> i % 3) & 1 ? 32 : -32});
    raw.push_back(12);
    for (const auto& t : kBoxTriangles)
        raw.insert(raw.end(), {(unsigned char)t[0], (unsigned char)t[1], (unsigned char)t[2]});
    writeSeed(dir, "raw-box", raw);
    // The same corners with one coordinate replaced by a NaN (raw float bytes).
    Bytes nan = raw;
    nan[2] = 0xF0;
    nan.insert(nan.begin() + 3, {0x00, 0x00, 0xC0, 0x7F});
    writeSeed(dir, "raw-nan", nan);
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: fuzz_seeds CORPUS_DIR\n");
        return 2;
    }
    FuzzSupport::start();
    std::string root = argv[1];
    chunkSeeds(root + "/fuzz_chunk_load");
    clipQuerySeeds(root + "/fuzz_clip_query");
    meshSeeds(root + "/fuzz_mesh_import");
    return 0;
}
