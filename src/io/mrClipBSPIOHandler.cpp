#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/io/mrClipBSPIOHandler.h>
#include <meridbsp/platform/core/mrChunkIFStream.h>
#include <meridbsp/platform/core/mrChunkOFStream.h>
#include <meridbsp/platform/core/mrParamBlock.h>
#include <meridbsp/platform/dx/srAssert.h>

namespace
{
const unsigned long kClassID = 0x60000;
// The fields and record sizes are the clip BSP's own.
const uint64_t kNodeRecordBytes = mrClipBSP::NODE_RECORD_SIZE;
const uint64_t kPlaneRecordBytes = mrClipBSP::PLANE_RECORD_SIZE;

struct ExpectedField
{
    unsigned long id;
    const char* name;
    mrParamBlock::e_fieldKind kind;
};

const ExpectedField kFields[] = {
    {mrClipBSP::PARAM_CONTENTS, "Contents", mrParamBlock::FIELD_DWORD},
    {mrClipBSP::PARAM_MINS, "Mins", mrParamBlock::FIELD_VECTOR3},
    {mrClipBSP::PARAM_MAXS, "Maxs", mrParamBlock::FIELD_VECTOR3},
    {mrClipBSP::PARAM_NUMNODES, "NumNodes", mrParamBlock::FIELD_DWORD},
    {mrClipBSP::PARAM_NODES, "Nodes", mrParamBlock::FIELD_BYTEARRAY},
    {mrClipBSP::PARAM_NUMPLANES, "NumPlanes", mrParamBlock::FIELD_DWORD},
    {mrClipBSP::PARAM_PLANES, "Planes", mrParamBlock::FIELD_BYTEARRAY},
};

const char* kindName(mrParamBlock::e_fieldKind kind)
{
    switch (kind)
    {
    case mrParamBlock::FIELD_DWORD:
        return "a DWord";
    case mrParamBlock::FIELD_VECTOR3:
        return "a Vector3";
    default:
        return "a byte array";
    }
}

std::string fieldLabel(unsigned long id, const char* name)
{
    char text[64];
    std::snprintf(text, sizeof text, "field 0x%lX (\"%s\")", id, name);
    return text;
}

// The first of the seven fields that is missing or of the wrong kind, as a message.
std::string checkFieldKinds(mrParamBlock& block)
{
    for (const ExpectedField& e : kFields)
    {
        const mrParamBlock::Field* f = block.findField(e.id);
        if (!f)
            return fieldLabel(e.id, e.name) + " is missing";
        bool ok = f->m_kind == e.kind ||
                  (e.kind == mrParamBlock::FIELD_BYTEARRAY && f->m_kind == mrParamBlock::FIELD_BYTEARRAYPTR);
        if (!ok)
            return fieldLabel(e.id, e.name) + " has kind " + std::to_string((int)f->m_kind) + ", expected " +
                   kindName(e.kind);
    }
    return std::string();
}

uint32_t getU32(const unsigned char* p)
{
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}

float getF32(const unsigned char* p)
{
    uint32_t bits = getU32(p);
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}
} // namespace

unsigned long mrClipBSPIOHandler::getClassID() { return kClassID; }

void** mrClipBSPIOHandler::allocPointerArray(unsigned long n) { return new void*[n]; }

srClass* mrClipBSPIOHandler::importObject(mrChunkIFStream& stream, mrIOEntry& entry)
{
    // The new object goes into the entry first, so that whoever reads the entry can
    // release it whatever happens below.
    mrClipBSP* sound = new mrClipBSP;
    entry.m_object = sound;
    sound->setName(getName());

    {
        mrParamBlock block;
        if (!block.importData(stream, 1))
        {
            entry.m_error = stream.error();
            return sound;
        }

        unsigned long numnodes = block.getDWordField(mrClipBSP::PARAM_NUMNODES);
        unsigned long numplanes = block.getDWordField(mrClipBSP::PARAM_NUMPLANES);
        unsigned long contents = block.getDWordField(mrClipBSP::PARAM_CONTENTS);
        srVector3T<float> mins = block.getVector3Field(mrClipBSP::PARAM_MINS);
        srVector3T<float> maxs = block.getVector3Field(mrClipBSP::PARAM_MAXS);

        unsigned long planeBytes = 0;
        const unsigned char* planeData = block.getByteArrayField(mrClipBSP::PARAM_PLANES, planeBytes);
        unsigned long nodeBytes = 0;
        const unsigned char* nodeData = block.getByteArrayField(mrClipBSP::PARAM_NODES, nodeBytes);

        // The plane count is checked against the record size on disk, 20 bytes, whatever
        // the in-memory size of a plane object.
        bool planesMatch = planeBytes / kPlaneRecordBytes == numplanes;
        if (!planesMatch)
            srAssertFail("(size/sizeof(mrPlane))==sound->m_numplanes", "mrClipBSPIOHandler", 52, nullptr);

        // Everything is checked before anything is allocated, so a hostile count can
        // neither allocate huge arrays nor make the copies below read past a field.
        std::string why = checkFieldKinds(block);
        if (why.empty() && (uint64_t)numnodes * kNodeRecordBytes > nodeBytes)
            why = fieldLabel(mrClipBSP::PARAM_NODES, "Nodes") + " holds " + std::to_string(nodeBytes) +
                  " bytes, but \"NumNodes\" " + std::to_string(numnodes) + " needs " +
                  std::to_string((uint64_t)numnodes * kNodeRecordBytes);
        if (why.empty() && !planesMatch)
            why = fieldLabel(mrClipBSP::PARAM_PLANES, "Planes") + " holds " + std::to_string(planeBytes) + " bytes (" +
                  std::to_string(planeBytes / kPlaneRecordBytes) + " planes of 20 bytes), but \"NumPlanes\" is " +
                  std::to_string(numplanes);
        if (!why.empty())
        {
            entry.m_error = why;
            return sound;
        }

        mrPlane* planes = mrClipBSP::allocPlanes(numplanes);
        mrClipNode* nodes = mrClipBSP::allocNodes(numnodes);
        if ((numplanes && !planes) || (numnodes && !nodes))
        {
            mrClipBSP::freePlanes(planes);
            mrClipBSP::freeNodes(nodes);
            entry.m_error =
                "out of memory for " + std::to_string(numnodes) + " nodes and " + std::to_string(numplanes) + " planes";
            return sound;
        }
        sound->m_numnodes = (uint32_t)numnodes;
        sound->m_numplanes = (uint32_t)numplanes;
        sound->m_contents = (uint32_t)contents;
        sound->m_mins = mins;
        sound->m_maxs = maxs;
        sound->m_planes = planes;
        sound->m_nodes = nodes;

        // Bytes 0 to 3 of a plane record are reserved and skipped: the plane object keeps
        // its own.
        for (unsigned long i = 0; i < numplanes; ++i)
        {
            const unsigned char* r = planeData + i * kPlaneRecordBytes;
            mrPlane& p = sound->m_planes[i];
            p.m_normal.x = getF32(r + 4);
            p.m_normal.y = getF32(r + 8);
            p.m_normal.z = getF32(r + 12);
            p.m_dist = getF32(r + 16);
        }
        // Node records are decoded field by field, so the host's byte order does not matter.
        for (unsigned long i = 0; i < numnodes; ++i)
        {
            const unsigned char* r = nodeData + i * kNodeRecordBytes;
            mrClipNode& n = sound->m_nodes[i];
            n.planeIndex = (int32_t)getU32(r);
            n.child[0] = (int32_t)getU32(r + 4);
            n.child[1] = (int32_t)getU32(r + 8);
        }
    }

    if (!static_cast<mrPBAnimation*>(sound)->importPBAnimationData(stream))
    {
        entry.m_error = stream.error();
        return sound;
    }
    sound->refreshPBlock(nullptr);

    // A tree that loaded cleanly may still be unusable (indices out of range, cycles);
    // the queries trust the tree, so it is refused here.
    std::string why;
    if (!sound->validate(&why))
        entry.m_error = "the clip BSP is not valid: " + why;
    else if (m_settings.buildQueryIndex)
        sound->prepareQueries();
    return sound;
}

void mrClipBSPIOHandler::exportObject(mrChunkOFStream& stream, srClass* object)
{
    mrClipBSP* bsp = dynamic_cast<mrClipBSP*>(object);
    if (!bsp)
    {
        stream.fail("the object is not a clip BSP");
        return;
    }
    bsp->exportData(stream);
    static_cast<mrPBAnimation*>(bsp)->exportPBAnimationData(stream);
}
