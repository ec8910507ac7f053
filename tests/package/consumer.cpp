// Builds a box clip BSP with the installed library and asks it about two points.
#include <cstdio>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/mrVersion.h>

int main()
{
    mrClipBSP* box = new mrClipBSP;
    box->makeFromBBox(srVector3T<float>(-16, -16, -16), srVector3T<float>(16, 16, 16));
    int inside = box->pointInfo(0, srVector3T<float>(0, 0, 0));
    int outside = box->pointInfo(0, srVector3T<float>(20, 0, 0));
    std::printf("MeridBSP %s: inside %d, outside %d\n", meridbspVersion(), inside, outside);
    box->release();
    return inside == -2 && outside == -1 ? 0 : 1;
}
