#include <cstdio>
#include <cstring>

#include <meridbsp/platform/core/mrChunkIFStream.h>
#include <meridbsp/platform/core/mrParamBlock.h>

namespace
{
// "0x20444C46 ("FLD ")" when the ID's bytes are printable, else just the hex value.
std::string chunkName(uint32_t id)
{
    char text[32];
    char tag[5];
    bool printable = true;
    for (int i = 0; i < 4; ++i)
    {
        tag[i] = (char)((id >> (8 * i)) & 0xFFu);
        if (tag[i] < 0x20 || tag[i] > 0x7E)
            printable = false;
    }
    tag[4] = '\0';
    if (printable)
        std::snprintf(text, sizeof text, "0x%08X (\"%s\")", (unsigned)id, tag);
    else
        std::snprintf(text, sizeof text, "0x%08X", (unsigned)id);
    return text;
}

// A name read from a file, made safe to quote in a message.
std::string printableName(const std::string& name)
{
    std::string out;
    for (size_t i = 0; i < name.size() && i < 64; ++i)
    {
        unsigned char c = (unsigned char)name[i];
        out += (c >= 0x20 && c < 0x7F && c != '"') ? (char)c : '?';
    }
    if (name.size() > 64)
        out += "...";
    return out;
}

std::string hexID(uint32_t id)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", (unsigned)id);
    return text;
}
} // namespace

mrChunkIFStream::mrChunkIFStream(const unsigned char* data, size_t size) : m_data(data), m_size(data ? size : 0) {}

mrChunkIFStream::mrChunkIFStream(const std::vector<unsigned char>& data)
    : m_data(data.empty() ? nullptr : data.data()), m_size(data.size())
{
}

size_t mrChunkIFStream::remaining() const
{
    size_t end = limit();
    return end > m_pos ? end - m_pos : 0;
}

void mrChunkIFStream::fail(const std::string& message)
{
    if (m_error.empty())
        m_error = message;
}

bool mrChunkIFStream::need(size_t count, const char* what)
{
    if (failed())
        return false;
    size_t left = remaining();
    if (count <= left)
        return true;
    std::string where = m_ends.empty() ? std::string("file") : "chunk " + chunkName(m_ids.back());
    fail("unexpected end of " + where + " at offset " + std::to_string(m_pos) + ": " + what + " needs " +
         std::to_string(count) + " bytes, " + std::to_string(left) + " left");
    return false;
}

uint32_t mrChunkIFStream::readU32()
{
    if (!need(4, "a 32-bit value"))
        return 0;
    const unsigned char* p = m_data + m_pos;
    m_pos += 4;
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}

int32_t mrChunkIFStream::readI32() { return (int32_t)readU32(); }

float mrChunkIFStream::readF32()
{
    uint32_t bits = readU32();
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

bool mrChunkIFStream::readBytes(void* out, size_t count)
{
    if (!need(count, "a byte block"))
        return false;
    if (count)
        std::memcpy(out, m_data + m_pos, count);
    m_pos += count;
    return true;
}

bool mrChunkIFStream::skip(size_t count)
{
    if (!need(count, "skipping"))
        return false;
    m_pos += count;
    return true;
}

bool mrChunkIFStream::readByteArray(std::vector<unsigned char>& out)
{
    out.clear();
    uint32_t count = readU32();
    if (!need(count, "a byte array"))
        return false;
    out.assign(m_data + m_pos, m_data + m_pos + count);
    m_pos += count;
    return true;
}

bool mrChunkIFStream::readString(std::string& out)
{
    out.clear();
    uint32_t count = readU32();
    if (!need(count, "a string"))
        return false;
    out.assign(reinterpret_cast<const char*>(m_data + m_pos), count);
    m_pos += count;
    return true;
}

bool mrChunkIFStream::openChunk(uint32_t& id)
{
    id = 0;
    size_t start = m_pos;
    if (!need(8, "a chunk header"))
        return false;
    id = readU32();
    uint32_t length = readU32();
    if (length > remaining())
    {
        std::string parent = m_ends.empty() ? std::string("the file") : "its parent chunk " + chunkName(m_ids.back());
        fail("chunk " + chunkName(id) + " at offset " + std::to_string(start) + " has length " +
             std::to_string(length) + ", past the end of " + parent + " (" + std::to_string(remaining()) +
             " bytes left)");
        return false;
    }
    m_ends.push_back(m_pos + length);
    m_ids.push_back(id);
    return true;
}

bool mrChunkIFStream::expectChunk(uint32_t id, const char* what)
{
    size_t start = m_pos;
    uint32_t found = 0;
    if (!openChunk(found))
        return false;
    if (found != id)
    {
        fail(std::string("expected the ") + what + " chunk " + chunkName(id) + " at offset " + std::to_string(start) +
             ", found chunk " + chunkName(found));
        return false;
    }
    return true;
}

bool mrChunkIFStream::closeChunk(bool allowUnread)
{
    if (m_ends.empty())
    {
        fail("closeChunk without an open chunk");
        return false;
    }
    size_t end = m_ends.back();
    uint32_t id = m_ids.back();
    if (failed())
        return false;
    if (m_pos < end && !allowUnread)
    {
        fail("chunk " + chunkName(id) + " has " + std::to_string(end - m_pos) + " unread bytes at offset " +
             std::to_string(m_pos));
        return false;
    }
    m_pos = end;
    m_ends.pop_back();
    m_ids.pop_back();
    return true;
}

bool mrChunkIFStream::checkCount(uint64_t count, size_t minBytes, const char* what)
{
    if (failed())
        return false;
    size_t left = remaining();
    // Division instead of multiplication: count * minBytes may overflow.
    if (minBytes == 0 || count <= left / minBytes)
        return true;
    std::string where = m_ends.empty() ? std::string("the file") : "chunk " + chunkName(m_ids.back());
    fail(std::string(what) + " count " + std::to_string(count) + " at offset " + std::to_string(m_pos) +
         " needs at least " + std::to_string(minBytes) + " bytes each, but only " + std::to_string(left) +
         " bytes are left in " + where);
    return false;
}

// mrParamBlock::importData lives here, beside the stream it reads from.
int mrParamBlock::importData(mrChunkIFStream& stream, int append)
{
    if (!append)
        m_fields.clear();
    if (!stream.expectChunk(CHUNK_PARAMBLOCK, "parameter block"))
        return 0;
    uint32_t count = stream.readU32();
    // Smallest field: chunk header, ID, kind, empty name, a DWord.
    if (!stream.checkCount(count, 8 + 4 + 4 + 4 + 4, "field"))
        return 0;
    for (uint32_t i = 0; i < count; ++i)
    {
        if (!stream.expectChunk(CHUNK_FIELD, "field"))
            return 0;
        Field f;
        uint32_t id = stream.readU32();
        uint32_t kind = stream.readU32();
        f.m_id = id;
        f.m_access = ACCESS_READWRITE;
        if (!stream.readString(f.m_name))
            return 0;
        switch (kind)
        {
        case CHUNK_KIND_DWORD:
            f.m_kind = FIELD_DWORD;
            f.m_dword = stream.readU32();
            break;
        case CHUNK_KIND_VECTOR3:
            f.m_kind = FIELD_VECTOR3;
            f.m_vector.x = stream.readF32();
            f.m_vector.y = stream.readF32();
            f.m_vector.z = stream.readF32();
            break;
        case CHUNK_KIND_BYTEARRAY:
            f.m_kind = FIELD_BYTEARRAY;
            stream.readByteArray(f.m_bytes);
            break;
        default:
            stream.fail("field " + hexID(id) + " (\"" + printableName(f.m_name) + "\") has unknown kind " +
                        std::to_string(kind));
            return 0;
        }
        if (!stream.closeChunk())
            return 0;
        if (findField((unsigned long)id))
        {
            stream.fail("field " + hexID(id) + " (\"" + printableName(f.m_name) + "\") appears twice");
            return 0;
        }
        m_fields.push_back(std::move(f));
    }
    if (!stream.closeChunk())
        return 0;
    return 1;
}
