#include <cstdio>
#include <cstring>

#include <meridbsp/platform/core/mrChunkOFStream.h>
#include <meridbsp/platform/core/mrParamBlock.h>

void mrChunkOFStream::writeU32(uint32_t value)
{
    m_data.push_back((unsigned char)(value & 0xFFu));
    m_data.push_back((unsigned char)((value >> 8) & 0xFFu));
    m_data.push_back((unsigned char)((value >> 16) & 0xFFu));
    m_data.push_back((unsigned char)((value >> 24) & 0xFFu));
}

void mrChunkOFStream::writeI32(int32_t value) { writeU32((uint32_t)value); }

void mrChunkOFStream::writeF32(float value)
{
    // The bit pattern as is, NaN payloads included, so a value reads back identical.
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    writeU32(bits);
}

void mrChunkOFStream::writeBytes(const void* bytes, size_t count)
{
    if (count == 0)
        return;
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    m_data.insert(m_data.end(), p, p + count);
}

void mrChunkOFStream::writeByteArray(const unsigned char* bytes, size_t count)
{
    if (count > 0xFFFFFFFFu)
    {
        fail("byte array of " + std::to_string(count) + " bytes does not fit a 32-bit length");
        return;
    }
    if (count && !bytes)
    {
        fail("byte array of " + std::to_string(count) + " bytes has no data");
        return;
    }
    writeU32((uint32_t)count);
    writeBytes(bytes, count);
}

void mrChunkOFStream::writeString(const std::string& text)
{
    writeByteArray(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

void mrChunkOFStream::beginChunk(uint32_t id)
{
    m_open.push_back(m_data.size());
    writeU32(id);
    writeU32(0); // patched by endChunk
}

bool mrChunkOFStream::endChunk()
{
    if (m_open.empty())
    {
        fail("endChunk without an open chunk");
        return false;
    }
    size_t header = m_open.back();
    m_open.pop_back();
    size_t length = m_data.size() - header - 8;
    if (length > 0xFFFFFFFFu)
    {
        fail("chunk payload of " + std::to_string(length) + " bytes does not fit a 32-bit length");
        return false;
    }
    putU32At(header + 4, (uint32_t)length);
    return true;
}

void mrChunkOFStream::fail(const std::string& message)
{
    if (m_error.empty())
        m_error = message;
}

void mrChunkOFStream::putU32At(size_t offset, uint32_t value)
{
    m_data[offset] = (unsigned char)(value & 0xFFu);
    m_data[offset + 1] = (unsigned char)((value >> 8) & 0xFFu);
    m_data[offset + 2] = (unsigned char)((value >> 16) & 0xFFu);
    m_data[offset + 3] = (unsigned char)((value >> 24) & 0xFFu);
}

// mrParamBlock::exportData lives here, beside the stream it writes to.
int mrParamBlock::exportData(mrChunkOFStream& stream)
{
    char id[32];
    stream.beginChunk(CHUNK_PARAMBLOCK);
    stream.writeU32((uint32_t)m_fields.size());
    for (const Field& f : m_fields)
    {
        if (f.m_id > 0xFFFFFFFFul)
        {
            std::snprintf(id, sizeof id, "0x%lX", f.m_id);
            stream.fail(std::string("field ") + id + " does not fit a 32-bit field ID");
            break;
        }
        stream.beginChunk(CHUNK_FIELD);
        stream.writeU32((uint32_t)f.m_id);
        switch (f.m_kind)
        {
        case FIELD_DWORD:
            stream.writeU32(CHUNK_KIND_DWORD);
            stream.writeString(f.m_name);
            stream.writeU32(f.m_dword);
            break;
        case FIELD_VECTOR3:
            stream.writeU32(CHUNK_KIND_VECTOR3);
            stream.writeString(f.m_name);
            stream.writeF32(f.m_vector.x);
            stream.writeF32(f.m_vector.y);
            stream.writeF32(f.m_vector.z);
            break;
        case FIELD_BYTEARRAY:
        case FIELD_BYTEARRAYPTR:
            stream.writeU32(CHUNK_KIND_BYTEARRAY);
            stream.writeString(f.m_name);
            stream.writeByteArray(f.bytes(), f.byteCount());
            break;
        default:
            std::snprintf(id, sizeof id, "0x%lX", f.m_id);
            stream.fail(std::string("field ") + id + " has unknown kind " + std::to_string((int)f.m_kind));
            break;
        }
        stream.endChunk();
    }
    stream.endChunk();
    return stream.failed() ? 0 : 1;
}
