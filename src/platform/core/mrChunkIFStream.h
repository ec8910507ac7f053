#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <meridbsp/platform/core/mrChunkOFStream.h>

// Reads a chunk file from a memory buffer it does not own. Every read is checked against
// the end of the innermost open chunk and of the buffer; a read that does not fit fails
// the stream and returns 0 / false. The first failure is kept as the stream's error and
// every later read fails too, so callers may check once after a run of reads.
class mrChunkIFStream
{
public:
    mrChunkIFStream(const unsigned char* data, size_t size);
    explicit mrChunkIFStream(const std::vector<unsigned char>& data);
    mrChunkIFStream(const mrChunkIFStream&) = delete;
    mrChunkIFStream& operator=(const mrChunkIFStream&) = delete;

    uint32_t readU32();
    int32_t readI32();
    float readF32();
    bool readBytes(void* out, size_t count);
    bool skip(size_t count);
    // A u32 byte count and the bytes; the count is checked before anything is allocated.
    bool readByteArray(std::vector<unsigned char>& out);
    bool readString(std::string& out);

    // Reads a chunk header and enters the chunk. The chunk must lie inside its parent
    // (or the buffer at top level).
    bool openChunk(uint32_t& id);
    // As openChunk, and fails unless the ID is `id`; `what` names the chunk in the error.
    bool expectChunk(uint32_t id, const char* what);
    // Leaves the innermost chunk. Unread payload is an error unless allowUnread, in which
    // case it is skipped.
    bool closeChunk(bool allowUnread = false);
    size_t openChunks() const { return m_ends.size(); }

    // Fails unless `count` items of at least `minBytes` each fit in what is left of the
    // innermost chunk; use before allocating for a count read from the file.
    bool checkCount(uint64_t count, size_t minBytes, const char* what);

    // Bytes left in the innermost open chunk (or the buffer).
    size_t remaining() const;
    size_t offset() const { return m_pos; }
    size_t size() const { return m_size; }
    bool atEnd() const { return remaining() == 0; }

    void fail(const std::string& message);
    bool failed() const { return !m_error.empty(); }
    const std::string& error() const { return m_error; }

private:
    size_t limit() const { return m_ends.empty() ? m_size : m_ends.back(); }
    bool need(size_t count, const char* what);

    const unsigned char* m_data;
    size_t m_size;
    size_t m_pos = 0;
    std::vector<size_t> m_ends;  // end offsets of the open chunks, innermost last
    std::vector<uint32_t> m_ids; // their IDs, for messages
    std::string m_error;
};
