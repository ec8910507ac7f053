// The query layer on arbitrary trees: bytes become a plane array and a node array built
// so that validate() accepts them (plane indices in range, every child a leaf or a later
// node), then points and segments. Every query must end, and the answers must agree with
// each other.

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <meridbsp/clip/mrClipBSP.h>

#include "FuzzInput.h"
#include "FuzzSupport.h"

namespace
{
int32_t leafValue(uint8_t b)
{
    // Mostly empty and the two solid kinds the builders write; now and then any other
    // negative value, which the queries must treat as solid.
    static const int32_t kLeaves[] = {-1, -2, -1, -3, -1, -2, -4, INT32_MIN};
    return kLeaves[b % 8];
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    uint8_t control = in.byte();

    mrClipBSP* bsp = new mrClipBSP;
    if (control & 0x80)
    {
        // A box clip BSP from two corners (in any order, any values).
        srVector3T<float> a(in.coordinate(), in.coordinate(), in.coordinate());
        srVector3T<float> b(in.coordinate(), in.coordinate(), in.coordinate());
        bsp->makeFromBBox(a, b);
    }
    else
    {
        uint32_t numplanes = 1 + in.byte() % 16;
        uint32_t numnodes = 1 + in.byte() % 64;
        mrPlane* planes = mrClipBSP::allocPlanes(numplanes);
        mrClipNode* nodes = mrClipBSP::allocNodes(numnodes);
        for (uint32_t i = 0; i < numplanes; ++i)
        {
            planes[i].m_normal = srVector3T<float>(in.normalComponent(), in.normalComponent(), in.normalComponent());
            planes[i].m_dist = in.coordinate();
        }
        // Children are numbered in the order they are handed out, so each node has one
        // parent at most and every child comes after its parent: a tree, as the builders
        // make.
        uint32_t next = 1;
        for (uint32_t i = 0; i < numnodes; ++i)
        {
            nodes[i].planeIndex = (int32_t)(in.byte() % numplanes);
            for (int c = 0; c < 2; ++c)
            {
                uint8_t b = in.byte();
                uint32_t child = next > i + 1 ? next : i + 1;
                if (b < 160 && child < numnodes)
                {
                    nodes[i].child[c] = (int32_t)child;
                    next = child + 1;
                }
                else
                    nodes[i].child[c] = leafValue(b);
            }
        }
        bsp->m_numplanes = numplanes;
        bsp->m_planes = planes;
        bsp->m_numnodes = numnodes;
        bsp->m_nodes = nodes;
        bsp->m_mins = srVector3T<float>(-64, -64, -64);
        bsp->m_maxs = srVector3T<float>(64, 64, 64);
        bsp->refreshPBlock(nullptr);
    }

    std::string why;
    if (!bsp->validate(&why))
        FuzzSupport::fail("a tree built to be valid was refused", why);
    FuzzSupport::checkQueries(*bsp, &in);

    // A copy answers exactly as the original.
    mrClipBSP* copy = new mrClipBSP(*bsp);
    srVector3T<float> a(in.coordinate(), in.coordinate(), in.coordinate());
    srVector3T<float> b(in.coordinate(), in.coordinate(), in.coordinate());
    mrTrace t1, t2;
    int r1 = bsp->checkCollision(a, b, t1);
    int r2 = copy->checkCollision(a, b, t2);
    if (r1 != r2 || std::memcmp(&t1, &t2, sizeof t1) != 0 || bsp->pointInfo(0, a) != copy->pointInfo(0, a))
        FuzzSupport::fail("a copy answers differently from its original");
    copy->release();

    if (control & 0x40)
        FuzzSupport::checkRoundTrip(*bsp);
    bsp->release();
    return 0;
}
