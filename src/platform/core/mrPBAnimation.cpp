#include <meridbsp/platform/core/mrChunkIFStream.h>
#include <meridbsp/platform/core/mrChunkOFStream.h>
#include <meridbsp/platform/core/mrPBAnimation.h>

namespace
{
// A key on disk: time, field ID, three value components.
const size_t kKeyBytes = 4 + 4 + 12;
} // namespace

float mrPBAnimation::getMaxTime()
{
    if (m_keys.empty())
        return 0.0f;
    float maxTime = m_keys[0].m_time;
    for (const Key& k : m_keys)
        if (k.m_time > maxTime)
            maxTime = k.m_time;
    return maxTime;
}

int mrPBAnimation::exportPBAnimationData(mrChunkOFStream& stream)
{
    stream.beginChunk(CHUNK_ANIMATION);
    stream.writeU32((uint32_t)m_keys.size());
    for (const Key& k : m_keys)
    {
        if (k.m_fieldID > 0xFFFFFFFFul)
            stream.fail("animation key for field ID " + std::to_string(k.m_fieldID) + " does not fit 32 bits");
        stream.writeF32(k.m_time);
        stream.writeU32((uint32_t)k.m_fieldID);
        stream.writeF32(k.m_value.x);
        stream.writeF32(k.m_value.y);
        stream.writeF32(k.m_value.z);
    }
    stream.endChunk();
    return stream.failed() ? 0 : 1;
}

int mrPBAnimation::importPBAnimationData(mrChunkIFStream& stream)
{
    m_keys.clear();
    if (!stream.expectChunk(CHUNK_ANIMATION, "animation"))
        return 0;
    uint32_t count = stream.readU32();
    if (!stream.checkCount(count, kKeyBytes, "animation key"))
        return 0;
    std::vector<Key> keys(count);
    for (Key& k : keys)
    {
        k.m_time = stream.readF32();
        k.m_fieldID = stream.readU32();
        k.m_value.x = stream.readF32();
        k.m_value.y = stream.readF32();
        k.m_value.z = stream.readF32();
    }
    if (!stream.closeChunk())
        return 0;
    m_keys.swap(keys);
    return 1;
}
