#include "solid/mrSolidBSP.h"

#include <cmath>
#include <cstdlib>

#include "platform/dx/srAssert.h"

namespace
{
const char* const kSource = "mrSolidBSP";

// Box score of a candidate plane: the summed squared diagonals of the two boxes made
// by cutting the list's box across the plane's dominant axis. The axis search compares
// float magnitudes with a float weight; v and the sum are in double, summed in this
// exact order (part of the reproducibility promise).
double boxScore(const mrPlane* plane, const srVector3T<float>& mins, const srVector3T<float>& maxs,
                const char* noAxisMessage)
{
    int axis = -1;
    float weight = -8192.0f;
    for (int k = 0; k < 3; ++k)
    {
        float a = std::fabs(plane->m_normal[k]);
        if (a > weight)
        {
            weight = a;
            axis = k;
        }
    }

    if (axis < 0)
    {
        srAssertFail("0", kSource, __LINE__, noAxisMessage);
        double score = 0.0;
        for (int k = 0; k < 3; ++k)
        {
            double e = (double)maxs[k] - (double)mins[k];
            score = score + 2.0 * (e * e);
        }
        return score;
    }

    double v = (double)plane->m_normal[axis] * (double)plane->m_dist;
    double lo = v - (double)mins[axis];
    double hi = (double)maxs[axis] - v;
    double score = lo * lo + hi * hi;
    for (int k = 0; k < 3; ++k)
    {
        if (k == axis)
            continue;
        double e = (double)maxs[k] - (double)mins[k];
        score = score + 2.0 * (e * e);
    }
    return score;
}
} // namespace

mrBSPSurface* mrSolidBSP::selectPartition(mrBSPSurface* list)
{
    int candidates = 0;
    mrBSPSurface* last = nullptr;
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        if (!s->m_onNode)
        {
            ++candidates;
            last = s;
        }
    }
    if (candidates == 0)
        return nullptr;
    if (candidates == 1)
        return last;

    srVector3T<float> mins(99999.0f, 99999.0f, 99999.0f);
    srVector3T<float> maxs(-99999.0f, -99999.0f, -99999.0f);
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        for (int k = 0; k < 3; ++k)
        {
            if (s->m_mins[k] < mins[k])
                mins[k] = s->m_mins[k];
            if (s->m_maxs[k] > maxs[k])
                maxs[k] = s->m_maxs[k];
        }
    }

    if (m_midSplit)
        return chooseMidPlaneFromList(list, mins, maxs);
    return choosePlaneFromList(list, mins, maxs, 0);
}

mrBSPSurface* mrSolidBSP::choosePlaneFromList(mrBSPSurface* list, srVector3T<float> mins, srVector3T<float> maxs,
                                              int allowZUp)
{
    // Both bests are floats and D is compared widened to double (part of the
    // reproducibility promise).
    mrBSPSurface* best = nullptr;
    float bestSplits = 99999.0f;
    float bestScore = 9e30f;

    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        if (s->m_onNode)
            continue;
        if (!s->m_plane)
        {
            // Nothing to test without a plane.
            srAssertFail("plane", kSource, __LINE__, nullptr);
            continue;
        }
        if (!allowZUp && s->m_plane->m_normal.z == 1.0f)
            continue;

        // The count is exact while it is at most bestSplits; beyond that it stops early
        // exactly here (part of the reproducibility promise).
        int splits = 0;
        for (mrBSPSurface* t = list; t; t = t->m_next)
        {
            if (t == s || t->m_onNode)
                continue;
            for (mrBSPFace* f = t->m_faces; f; f = f->m_next)
            {
                if (faceSide(f, s->m_plane) == mrPlane::SIDE_ON)
                {
                    ++splits;
                    if ((float)splits >= bestSplits)
                        break;
                }
            }
            if ((float)splits > bestSplits)
                break;
        }
        if ((float)splits > bestSplits)
            continue;

        double score = boxScore(s->m_plane, mins, maxs, "ChoosePlane: no axis found");
        if ((float)splits < bestSplits || ((float)splits == bestSplits && score <= (double)bestScore))
        {
            best = s;
            bestSplits = (float)splits;
            bestScore = (float)score;
        }
    }
    return best;
}

mrBSPSurface* mrSolidBSP::chooseMidPlaneFromList(mrBSPSurface* list, srVector3T<float> mins, srVector3T<float> maxs)
{
    mrBSPSurface* best = nullptr;
    float bestScore = 402653184.0f; // 6 * 8192^2

    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        // A surface without a plane has no score; it can only be taken as the fallback.
        if (s->m_onNode || !s->m_plane)
            continue;
        double score = boxScore(s->m_plane, mins, maxs, "ChooseMidPlane: no axis found");
        // Compared widened to double, the best kept as a float (part of the
        // reproducibility promise).
        if (score <= (double)bestScore)
        {
            best = s;
            bestScore = (float)score;
        }
    }
    if (best)
        return best;

    for (mrBSPSurface* s = list; s; s = s->m_next)
        if (!s->m_onNode)
            return s;
    srAssertFail("0", kSource, __LINE__, "ChooseMidPlaneFromList: no valid planes");
    return nullptr;
}

mrPlane::e_side mrSolidBSP::faceSide(mrBSPFace* face, mrPlane* plane)
{
    bool front = false, back = false;
    mrWinding* w = face->m_winding;
    int n = w ? w->m_numpoints : 0;
    const double nx = plane->m_normal.x, ny = plane->m_normal.y, nz = plane->m_normal.z;
    const double dist = plane->m_dist;
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = w->m_points[(uint32_t)i];
        // Kept in double, never rounded to float before the comparison.
        double d = nx * p.x + ny * p.y + nz * p.z - dist;
        if (d > mrBSPFace::SIDE_EPSILON)
        {
            if (back)
                return mrPlane::SIDE_ON;
            front = true;
        }
        else if (d < -mrBSPFace::SIDE_EPSILON)
        {
            if (front)
                return mrPlane::SIDE_ON;
            back = true;
        }
    }
    return front ? mrPlane::SIDE_FRONT : mrPlane::SIDE_BACK;
}

mrBSPNode* mrSolidBSP::generate(mrBSPSurface* surfaces, int midSplit)
{
    mrBSPNode* head = new mrBSPNode;
    m_midSplit = midSplit;
    m_numSplitNodes = 0;
    m_numLeafFaces = 0;
    m_numNodeFaces = 0;
    m_numSolidLeafs = 0;
    m_numEmptyLeafs = 0;
    m_numLinkedFaces = 0;
    m_reserved1 = 1;
    partitionSurfaces(surfaces, head);
    return head;
}

void mrSolidBSP::partitionSurfaces(mrBSPSurface* list, mrBSPNode* node)
{
    mrBSPSurface* split = selectPartition(list);
    if (split && !split->m_plane)
    {
        // A splitter without a plane cannot divide anything; the node ends here.
        srAssertFail("inplane", kSource, __LINE__, nullptr);
        split = nullptr;
    }
    if (!split)
    {
        node->m_plane = nullptr;
        linkConvexFaces(list, node);
        return;
    }

    ++m_numSplitNodes;
    node->m_children[0] = new mrBSPNode;
    node->m_children[1] = new mrBSPNode;
    mrPlane* plane = split->m_plane;
    node->m_plane = plane;
    divideNodeBounds(node, plane);

    // Lists grow at the head, so each child list comes out in reverse order.
    mrBSPSurface* frontList = nullptr;
    mrBSPSurface* backList = nullptr;
    mrBSPSurface* next = nullptr;
    for (mrBSPSurface* p = list; p; p = next)
    {
        next = p->m_next;
        mrBSPSurface* f = nullptr;
        mrBSPSurface* b = nullptr;
        dividePlane(p, plane, &f, &b);
        if (f)
        {
            if (!f->m_faces)
                srAssertFail("0", kSource, __LINE__, "surface with no faces");
            f->m_next = frontList;
            frontList = f;
        }
        if (b)
        {
            if (!b->m_faces)
                srAssertFail("0", kSource, __LINE__, "surface with no faces");
            b->m_next = backList;
            backList = b;
        }
    }

    partitionSurfaces(frontList, node->m_children[0]);
    partitionSurfaces(backList, node->m_children[1]);
}

void mrSolidBSP::dividePlane(mrBSPSurface* in, mrPlane* split, mrBSPSurface** front, mrBSPSurface** back)
{
    mrPlane* inplane = in->m_plane;
    if (!inplane)
    {
        // Cannot be divided: it travels on whole, behind the plane, faces untouched.
        srAssertFail("inplane", kSource, __LINE__, nullptr);
        *front = nullptr;
        *back = in;
        return;
    }

    if (inplane->m_normal.x == split->m_normal.x && inplane->m_normal.y == split->m_normal.y &&
        inplane->m_normal.z == split->m_normal.z)
    {
        if (inplane->m_dist == split->m_dist)
        {
            in->m_onNode = 1;
            *front = in;
            *back = nullptr;
        }
        else if (inplane->m_dist > split->m_dist)
        {
            *front = in;
            *back = nullptr;
        }
        else
        {
            *front = nullptr;
            *back = in;
        }
        return;
    }

    mrBSPFace* frontFaces = nullptr;
    mrBSPFace* backFaces = nullptr;
    mrBSPFace* next = nullptr;
    for (mrBSPFace* face = in->m_faces; face; face = next)
    {
        next = face->m_next;
        mrBSPFace* ff = nullptr;
        mrBSPFace* bf = nullptr;
        mrBSPFace::splitFace(face, split, &ff, &bf);
        if (ff)
        {
            ff->m_next = frontFaces;
            frontFaces = ff;
        }
        if (bf)
        {
            bf->m_next = backFaces;
            backFaces = bf;
        }
    }

    if (!frontFaces)
    {
        *front = nullptr;
        *back = in;
        in->m_faces = backFaces;
        return;
    }
    if (!backFaces)
    {
        *front = in;
        *back = nullptr;
        in->m_faces = frontFaces;
        return;
    }

    mrBSPSurface* newSurface = new mrBSPSurface(*in);
    newSurface->m_faces = backFaces;
    in->m_faces = frontFaces;
    *back = newSurface;
    *front = in;
    newSurface->calcBounds();
    in->calcBounds();
}

void mrSolidBSP::divideNodeBounds(mrBSPNode* node, mrPlane* /*split*/)
{
    // Children inherit the box unchanged; it is never narrowed.
    for (int c = 0; c < 2; ++c)
    {
        node->m_children[c]->m_mins = node->m_mins;
        node->m_children[c]->m_maxs = node->m_maxs;
    }
}

void mrSolidBSP::linkConvexFaces(mrBSPSurface* list, mrBSPNode* leafnode)
{
    leafnode->m_faces = nullptr;
    leafnode->m_contents = -1;
    leafnode->m_plane = nullptr;

    int count = 0;
    for (mrBSPSurface* s = list; s; s = s->m_next)
    {
        for (mrBSPFace* f = s->m_faces; f; f = f->m_next)
        {
            ++count;
            if (leafnode->m_contents == -1)
            {
                leafnode->m_contents = f->m_contents;
                if (leafnode->m_contents)
                    srAssertFail("!leafnode->m_contents", kSource, __LINE__, nullptr);
            }
            else if (f->m_contents != leafnode->m_contents)
            {
                srAssertFail("0", kSource, __LINE__, "Mixed face contents in leafnode");
            }
        }
    }

    m_numLeafFaces += count;
    leafnode->m_markfaces = (mrBSPFace**)std::malloc(sizeof(mrBSPFace*) * ((size_t)count + 1));

    int index = 0;
    mrBSPSurface* nextSurface = nullptr;
    for (mrBSPSurface* s = list; s; s = nextSurface)
    {
        nextSurface = s->m_next;
        mrBSPFace* nextFace = nullptr;
        for (mrBSPFace* f = s->m_faces; f; f = nextFace)
        {
            nextFace = f->m_next;
            mrBSPFace* original = f->m_original;
            if (!original)
            {
                // Nothing to list: a null entry would end the array early.
                srAssertFail("f->m_original", kSource, __LINE__, nullptr);
            }
            else
            {
                leafnode->m_markfaces[index++] = original;
                if (!original->m_linked)
                {
                    original->m_linked = 1;
                    ++m_numLinkedFaces;
                }
            }
            if (original != f)
                delete f;
        }
        delete s;
    }
    leafnode->m_markfaces[index] = nullptr;

    if (leafnode->m_contents == -1)
    {
        leafnode->m_contents = 1;
        ++m_numSolidLeafs;
    }
    else
    {
        ++m_numEmptyLeafs;
    }
}

mrBSPFace* mrSolidBSP::linkNodeFaces(mrBSPSurface* surface)
{
    mrBSPFace* result = nullptr;
    for (mrBSPFace* f = surface->m_faces; f; f = f->m_next)
    {
        ++m_numNodeFaces;
        mrBSPFace* copy = new mrBSPFace;
        *copy = *f;
        f->m_original = copy;
        copy->m_next = result;
        result = copy;
    }
    return result;
}
