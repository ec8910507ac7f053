#include "clipgen/mrClipBSPGen.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <unordered_map>

#include "clip/mrClipBSP.h"
#include "platform/dx/srAssert.h"
#include "platform/dx/srMeshModel.h"
#include "platform/dx/srTexture.h"

namespace
{
const char* const SOURCE = "mrClipBSPGen";

// Tolerances of the generator (coplanarity and point classification).
const double COPLANAR_DOT = 0.99999;
const double ON_EPSILON = 0.001;

// Appends a point to a piece. A piece can only overflow after more than 61 successive
// cuts of one triangle's pieces; the record has no room for more, so the extra point is
// reported and dropped (the piece keeps its first 64 points and stays usable).
void appendPoint(mrFace* face, const srVector3T<float>& p)
{
    if (face->m_numpoints >= mrFace::MAX_POINTS)
    {
        srAssertFail("face->m_numpoints < MAX_POINTS", SOURCE, __LINE__, "face piece exceeds 64 points; point dropped");
        return;
    }
    face->m_points[face->m_numpoints++] = p;
}

// Key of a plane for exact float equality: -0 and +0 compare equal, so both map to +0.
// NaN components never compare equal and are left out of the lookup.
struct PlaneKey
{
    uint32_t v[4];
    bool operator==(const PlaneKey& o) const { return std::memcmp(v, o.v, sizeof(v)) == 0; }
};

struct PlaneKeyHash
{
    size_t operator()(const PlaneKey& k) const
    {
        uint64_t h = 1469598103934665603ull;
        for (uint32_t x : k.v)
        {
            h ^= x;
            h *= 1099511628211ull;
        }
        return (size_t)h;
    }
};

bool makeKey(float x, float y, float z, float w, PlaneKey& key)
{
    const float c[4] = {x, y, z, w};
    for (int i = 0; i < 4; ++i)
    {
        if (c[i] != c[i])
            return false;
        float f = c[i] == 0.0f ? 0.0f : c[i];
        std::memcpy(&key.v[i], &f, sizeof(f));
    }
    return true;
}
} // namespace

mrClipBSPGen::mrClipBSPGen()
    : m_numplanes(0), m_planes(nullptr), m_numnodes(0), m_numleaffaces(0), m_numsolidleafs(0), m_numemptyleafs(0)
{
}

mrClipBSPGen::~mrClipBSPGen()
{
    delete[] m_planes;
    for (mrBSPGenNode* node : m_madeNodes)
        delete node;
    for (mrFace* face : m_allfaces)
        delete face;
}

int mrClipBSPGen::findContents(srTexture* texture)
{
    if (!texture)
        return -2;
    const char* name = texture->getName();
    if (std::strcmp(name, "Q47ROADOT.TGA") == 0 || std::strcmp(name, "NERDSTRP.TGA") == 0)
        return -3;
    return -2;
}

void mrClipBSPGen::checkFace(mrFace*) {}

void mrClipBSPGen::divideNodeBounds(mrBSPGenNode*, srVector4T<float>&) {}

mrBSPGenNode* mrClipBSPGen::newNode()
{
    mrBSPGenNode* node = new mrBSPGenNode();
    m_madeNodes.push_back(node);
    return node;
}

void mrClipBSPGen::partitionFaces(std::vector<mrFace*>& faces, mrBSPGenNode* node)
{
    partition_r(faces, node, false);
}

void mrClipBSPGen::partition_r(std::vector<mrFace*>& faces, mrBSPGenNode* node, bool consume)
{
    mrFace* splitter = selectPartition(faces);
    if (!splitter)
    {
        // A leaf: faces reach it only when they all lie on planes above it, facing in.
        m_numleaffaces += (int)faces.size();
        if (!faces.empty())
        {
            node->m_contents = -1;
            ++m_numemptyleafs;
        }
        else
        {
            node->m_contents = -2;
            ++m_numsolidleafs;
        }
        if (consume)
            std::vector<mrFace*>().swap(faces);
        return;
    }

    // Numbered before its subtree, so the clip BSP's nodes come out in pre-order.
    splitter->m_used = 1;
    node->m_contents = 0;
    m_nodes.push_back(node);
    ++m_numnodes;

    node->m_children[0] = newNode();
    node->m_children[1] = newNode();
    node->m_plane = splitter->m_plane;
    divideNodeBounds(node, node->m_plane);

    // Taken before the faces are divided: the splitter itself is never cut by its own
    // plane, but a hand-made face with an inconsistent plane could be.
    srTextureIFace* texture = splitter->m_texture;

    std::vector<mrFace*> frontList;
    std::vector<mrFace*> backList;
    for (mrFace* face : faces)
    {
        mrFace* front = nullptr;
        mrFace* back = nullptr;
        splitFace(face, node->m_plane, &front, &back);
        if (front)
            frontList.push_back(front);
        if (back)
            backList.push_back(back);
    }
    if (consume)
        std::vector<mrFace*>().swap(faces);

    partition_r(frontList, node->m_children[0], true);
    partition_r(backList, node->m_children[1], true);

    // A solid leaf takes its kind from the splitter that bounds it.
    for (int k = 0; k < 2; ++k)
        if (node->m_children[k]->m_contents == -2)
            node->m_children[k]->m_contents = findContents(static_cast<srTexture*>(texture));
}

mrFace* mrClipBSPGen::selectPartition(std::vector<mrFace*>& faces)
{
    int candidates = 0;
    mrFace* last = nullptr;
    for (mrFace* face : faces)
        if (face->m_used == 0)
        {
            ++candidates;
            last = face;
        }
    if (candidates == 0)
        return nullptr;
    if (candidates == 1)
        return last;

    // Bounds of the first three points of every face, used or not.
    srVector3T<float> mins(99999.0f, 99999.0f, 99999.0f);
    srVector3T<float> maxs(-99999.0f, -99999.0f, -99999.0f);
    for (mrFace* face : faces)
        for (int i = 0; i < 3; ++i)
            for (int k = 0; k < 3; ++k)
            {
                float c = face->m_points[i][k];
                if (c < mins[k])
                    mins[k] = c;
                if (c > maxs[k])
                    maxs[k] = c;
            }
    return chooseMidPlaneFromList(faces, mins, maxs);
}

mrFace* mrClipBSPGen::chooseMidPlaneFromList(std::vector<mrFace*>& faces, srVector3T<float>& mins,
                                             srVector3T<float>& maxs)
{
    double best = 1610612736.0;
    mrFace* chosen = nullptr;
    for (mrFace* face : faces)
    {
        if (face->m_used != 0)
            continue;
        const srVector4T<float>& pl = face->m_plane;
        // Measure in double: foot point n*w, then per axis (max - P)^2 followed by
        // (P - min)^2, summed x, y, z left to right (part of the reproducibility promise).
        const double n[3] = {(double)pl.x, (double)pl.y, (double)pl.z};
        double s = 0.0;
        for (int k = 0; k < 3; ++k)
        {
            double p = n[k] * (double)pl.w;
            double a = (double)maxs[k] - p;
            double b = p - (double)mins[k];
            s = s + a * a;
            s = s + b * b;
        }
        // "Not greater": ties go to the later face.
        if (!(s > best))
        {
            best = s;
            chosen = face;
        }
    }
    if (chosen)
        return chosen;
    for (mrFace* face : faces)
        if (face->m_used == 0)
            return face;
    srAssertFail("0", SOURCE, 437, "error");
    return nullptr;
}

void mrClipBSPGen::splitFace(mrFace* face, srVector4T<float>& plane, mrFace** front, mrFace** back)
{
    const srVector4T<float>& m = face->m_plane;
    // Facing tests in double, dot product summed x, y, z (part of the reproducibility promise).
    const double dot = (double)plane.x * (double)m.x + (double)plane.y * (double)m.y + (double)plane.z * (double)m.z;
    if (dot > COPLANAR_DOT && std::fabs((double)m.w - (double)plane.w) < ON_EPSILON)
    {
        face->m_used = 1;
        *front = face;
        *back = nullptr;
        return;
    }
    const double negDot =
        (double)plane.x * -(double)m.x + (double)plane.y * -(double)m.y + (double)plane.z * -(double)m.z;
    if (negDot > COPLANAR_DOT && std::fabs(-(double)m.w - (double)plane.w) < ON_EPSILON)
    {
        face->m_used = 1;
        *front = nullptr;
        *back = face;
        return;
    }

    const int n = std::min(std::max(face->m_numpoints, 0), (int)mrFace::MAX_POINTS);
    double dists[mrFace::MAX_POINTS + 1];
    int sides[mrFace::MAX_POINTS + 1];
    int counts[3] = {0, 0, 0};
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = face->m_points[i];
        // Point distances in double, kept in double (part of the reproducibility promise).
        double d = (double)plane.x * (double)p.x + (double)plane.y * (double)p.y + (double)plane.z * (double)p.z -
                   (double)plane.w;
        dists[i] = d;
        if (d > ON_EPSILON)
            sides[i] = mrPlane::SIDE_FRONT;
        else if (d < -ON_EPSILON)
            sides[i] = mrPlane::SIDE_BACK;
        else
            sides[i] = mrPlane::SIDE_ON;
        ++counts[sides[i]];
    }
    if (n > 0)
    {
        dists[n] = dists[0];
        sides[n] = sides[0];
    }

    if (counts[mrPlane::SIDE_FRONT] == 0)
    {
        *front = nullptr;
        *back = face;
        return;
    }
    if (counts[mrPlane::SIDE_BACK] == 0)
    {
        *front = face;
        *back = nullptr;
        return;
    }

    mrFace* b = new mrFace();
    mrFace* f = new mrFace();
    m_allfaces.push_back(b);
    m_allfaces.push_back(f);
    *back = b;
    *front = f;
    for (mrFace* piece : {b, f})
    {
        piece->m_numpoints = 0;
        piece->m_texture = face->m_texture;
        piece->m_used = face->m_used;
        piece->m_plane = face->m_plane;
    }

    const float normal[3] = {plane.x, plane.y, plane.z};
    for (int i = 0; i < n; ++i)
    {
        const srVector3T<float>& p = face->m_points[i];
        if (sides[i] == mrPlane::SIDE_ON)
        {
            appendPoint(f, p);
            appendPoint(b, p);
            continue;
        }
        if (sides[i] == mrPlane::SIDE_FRONT)
            appendPoint(f, p);
        else
            appendPoint(b, p);
        if (sides[i + 1] == mrPlane::SIDE_ON || sides[i + 1] == sides[i])
            continue;

        const srVector3T<float>& q = face->m_points[(i + 1) % n];
        // Crossing point in double, rounded to float once; an axial plane puts the
        // point exactly on it (part of the reproducibility promise).
        const double t = dists[i] / (dists[i] - dists[i + 1]);
        srVector3T<float> mid;
        for (int k = 0; k < 3; ++k)
        {
            if (normal[k] == 1.0f)
                mid[k] = plane.w;
            else if (normal[k] == -1.0f)
                mid[k] = -plane.w;
            else
                mid[k] = (float)((double)p[k] + t * ((double)q[k] - (double)p[k]));
        }
        appendPoint(b, mid);
        appendPoint(f, mid);
    }

    // The cut face is replaced by its pieces.
    std::vector<mrFace*>::iterator it = std::find(m_allfaces.begin(), m_allfaces.end(), face);
    if (it != m_allfaces.end())
        m_allfaces.erase(it);
    delete face;

    checkFace(f);
    checkFace(b);
}

mrClipBSP* mrClipBSPGen::convertToClipBSP()
{
    mrClipBSP* bsp = new mrClipBSP();

    const unsigned long numNodes = (unsigned long)m_nodes.size();
    bsp->m_numnodes = (uint32_t)numNodes;
    bsp->m_nodes = numNodes ? mrClipBSP::allocNodes(numNodes) : nullptr;

    const unsigned long numPlanes = m_numplanes > 0 ? (unsigned long)m_numplanes : 0;
    bsp->m_numplanes = (uint32_t)numPlanes;
    bsp->m_planes = numPlanes ? mrClipBSP::allocPlanes(numPlanes) : nullptr;
    for (unsigned long j = 0; j < numPlanes; ++j)
    {
        bsp->m_planes[j].m_normal = m_planes[j].m_normal;
        bsp->m_planes[j].m_dist = m_planes[j].m_dist;
    }

    // Same answers as comparing every node with every plane: the highest index among
    // the exactly equal planes, and each interior child's position in m_nodes.
    std::unordered_map<PlaneKey, int, PlaneKeyHash> planeIndex;
    planeIndex.reserve(numPlanes);
    for (unsigned long j = 0; j < numPlanes; ++j)
    {
        const mrPlane& pl = m_planes[j];
        PlaneKey key;
        if (makeKey(pl.m_normal.x, pl.m_normal.y, pl.m_normal.z, pl.m_dist, key))
            planeIndex[key] = (int)j;
    }
    std::unordered_map<const mrBSPGenNode*, int> nodeIndex;
    nodeIndex.reserve(numNodes);
    for (size_t i = m_nodes.size(); i-- > 0;)
        nodeIndex[m_nodes[i]] = (int)i;

    for (size_t i = 0; i < m_nodes.size(); ++i)
    {
        const mrBSPGenNode* node = m_nodes[i];
        mrClipNode& out = bsp->m_nodes[i];

        // A node whose plane is missing keeps index 0.
        out.planeIndex = 0;
        PlaneKey key;
        std::unordered_map<PlaneKey, int, PlaneKeyHash>::const_iterator found = planeIndex.end();
        if (makeKey(node->m_plane.x, node->m_plane.y, node->m_plane.z, node->m_plane.w, key))
            found = planeIndex.find(key);
        if (found != planeIndex.end())
            out.planeIndex = found->second;
        else
            srAssertFail("found", SOURCE, 696, nullptr);

        for (int k = 0; k < 2; ++k)
        {
            const mrBSPGenNode* child = node->m_children[k];
            if (child->m_contents != 0)
            {
                out.child[k] = child->m_contents;
                continue;
            }
            std::unordered_map<const mrBSPGenNode*, int>::const_iterator pos = nodeIndex.find(child);
            if (pos != nodeIndex.end())
                out.child[k] = pos->second;
            else
            {
                // An interior child that was never numbered: read it as solid.
                srAssertFail("child", SOURCE, __LINE__, "interior child missing from the node list");
                out.child[k] = -2;
            }
        }
    }
    return bsp;
}

mrClipBSP* mrClipBSPGen::importMeshModel(srMeshModel* model, srVector3T<float>& offset, srMatrix3T<float>& matrix)
{
    if (!model)
    {
        srAssertFail("model", SOURCE, 36, nullptr);
        return nullptr;
    }

    srVector3T<float> mins(999999.0f, 999999.0f, 999999.0f);
    srVector3T<float> maxs(-999999.0f, -999999.0f, -999999.0f);

    srMeshModel* mesh = new srMeshModel(0, 0);
    *mesh = *model;
    mesh->applyMatrix(matrix);
    mesh->relocateVertices(offset);
    mesh->setName("BSPGENERATOR MESH");

    const long numPolys = mesh->m_numpolys > 0 ? mesh->m_numpolys : 0;
    const srVector3i* tris = mesh->getPolyVertex();
    const srVector3T<float>* verts = mesh->getVertexLoc();

    m_faces.resize((size_t)numPolys);

    srPtr<srTextureIFace>* polyTextures = mesh->getPolyTexture(0, 0, 0);
    srTextureIFace* meshTexture = mesh->getTexture(0, 0);

    m_numplanes = 0;
    for (long i = 0; i < numPolys; ++i)
    {
        mrFace* face = new mrFace();
        m_allfaces.push_back(face);
        face->m_used = 0;

        const int index[3] = {tris[i].x, tris[i].y, tris[i].z};
        for (int k = 0; k < 3; ++k)
        {
            face->m_points[k] = verts[index[k]];
            for (int a = 0; a < 3; ++a)
            {
                float c = face->m_points[k][a];
                if (c < mins[a])
                    mins[a] = c;
                if (c > maxs[a])
                    maxs[a] = c;
            }
        }

        // Face plane in float throughout, in this order (part of the reproducibility
        // promise): u = (p0 - p1) x (p2 - p1), normalised by 1/sqrt(u.u), then negated.
        const srVector3T<float>& p0 = face->m_points[0];
        const srVector3T<float>& p1 = face->m_points[1];
        const srVector3T<float>& p2 = face->m_points[2];
        const float e1x = p0.x - p1.x, e1y = p0.y - p1.y, e1z = p0.z - p1.z;
        const float e2x = p2.x - p1.x, e2y = p2.y - p1.y, e2z = p2.z - p1.z;
        float ux = e1y * e2z - e1z * e2y;
        float uy = e1z * e2x - e1x * e2z;
        float uz = e1x * e2y - e1y * e2x;
        const float len2 = ux * ux + uy * uy + uz * uz;
        if (len2 != 0.0f)
        {
            const float inv = 1.0f / std::sqrt(len2);
            ux = ux * inv;
            uy = uy * inv;
            uz = uz * inv;
        }
        const float d = ux * p1.x + uy * p1.y + uz * p1.z;
        face->m_plane = srVector4T<float>(-ux, -uy, -uz, -d);

        face->m_numpoints = 3;
        // The face borrows the pointer; the caller's model keeps the texture alive.
        face->m_texture = polyTextures ? polyTextures[i].get() : meshTexture;
        checkFace(face);
        m_faces[(size_t)i] = face;
    }

    m_numplanes = (int)numPolys;
    delete[] m_planes;
    m_planes = numPolys ? new mrPlane[(size_t)numPolys] : nullptr;
    for (long i = 0; i < numPolys; ++i)
    {
        const srVector4T<float>& pl = m_faces[(size_t)i]->m_plane;
        m_planes[i].m_normal = srVector3T<float>(pl.x, pl.y, pl.z);
        m_planes[i].m_dist = pl.w;
    }

    mrBSPGenNode* root = newNode();
    root->m_mins = mins;
    root->m_maxs = maxs;

    partitionFaces(m_faces, root);

    mrClipBSP* bsp = convertToClipBSP();
    bsp->m_mins = srVector3T<float>(mins.x - 1.0f, mins.y - 1.0f, mins.z - 1.0f);
    bsp->m_maxs = srVector3T<float>(maxs.x + 1.0f, maxs.y + 1.0f, maxs.z + 1.0f);
    bsp->refreshPBlock(nullptr);

    mesh->release();
    return bsp;
}
