#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Chunk file constants (docs/chunk-format.md). A chunk ID is a 32-bit number whose four
// little-endian bytes spell a readable tag, so hex dumps show where each chunk starts.
enum e_chunkFormat : uint32_t
{
    CHUNK_FILE_MAGIC = 0x4643524Du, // "MRCF": the first four bytes of every file
    CHUNK_FILE_VERSION = 1u,        // format version this build writes and reads
    CHUNK_OBJECT = 0x204A424Fu,     // "OBJ ": one object record
    CHUNK_PARAMBLOCK = 0x4B4C4250u, // "PBLK": a parameter block
    CHUNK_FIELD = 0x20444C46u,      // "FLD ": one field of a parameter block
    CHUNK_ANIMATION = 0x4D494E41u,  // "ANIM": animation keys of a parameter block
};

// On-disk field kinds. Byte-array pointer fields are written as byte arrays.
enum e_chunkFieldKind : uint32_t
{
    CHUNK_KIND_DWORD = 1u,
    CHUNK_KIND_VECTOR3 = 2u,
    CHUNK_KIND_BYTEARRAY = 3u,
};

// Builds a chunk file in memory. Every value is written byte by byte in little-endian
// order, so the output does not depend on the host or on struct padding: the same calls
// give the same bytes. A chunk is an ID and a byte length followed by its payload;
// endChunk patches the length once the payload is known.
class mrChunkOFStream
{
public:
    mrChunkOFStream() = default;
    mrChunkOFStream(const mrChunkOFStream&) = delete;
    mrChunkOFStream& operator=(const mrChunkOFStream&) = delete;

    void writeU32(uint32_t value);
    void writeI32(int32_t value);
    void writeF32(float value);
    void writeBytes(const void* bytes, size_t count);
    // A u32 byte count followed by the bytes.
    void writeByteArray(const unsigned char* bytes, size_t count);
    // A u32 length followed by the characters, no terminator.
    void writeString(const std::string& text);

    void beginChunk(uint32_t id);
    // Closes the innermost open chunk; false (and the stream fails) when none is open
    // or the payload does not fit a 32-bit length.
    bool endChunk();
    size_t openChunks() const { return m_open.size(); }

    // The first failure is kept; later writes still append but the output is unusable.
    void fail(const std::string& message);
    bool failed() const { return !m_error.empty(); }
    const std::string& error() const { return m_error; }

    const std::vector<unsigned char>& data() const { return m_data; }
    size_t size() const { return m_data.size(); }

private:
    void putU32At(size_t offset, uint32_t value);

    std::vector<unsigned char> m_data;
    std::vector<size_t> m_open; // offsets of the open chunks' headers
    std::string m_error;
};
