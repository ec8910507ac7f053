#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <meridbsp/platform/core/mrChunkIFStream.h>
#include <meridbsp/platform/core/mrChunkOFStream.h>
#include <meridbsp/platform/core/mrClassIOHandler.h>
#include <meridbsp/platform/core/mrIOEntry.h>
#include <meridbsp/platform/core/mrIOManager.h>
#include <meridbsp/platform/core/mrOutputFile.h>
#include <meridbsp/platform/dx/srClass.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// File header: magic tag, version, record count.
const size_t kHeaderBytes = 12;
// Smallest record: chunk header, class ID, empty name.
const size_t kMinRecordBytes = 8 + 4 + 4;

std::string hexID(unsigned long id)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%lX", id);
    return text;
}

std::string recordLabel(size_t index) { return "record " + std::to_string(index); }

std::string recordLabel(size_t index, unsigned long classID)
{
    return "record " + std::to_string(index) + " (class " + hexID(classID) + ")";
}

void setError(std::string* error, const std::string& message)
{
    if (error)
        *error = message;
}

// Releases a set of objects, each once.
void releaseAll(std::vector<srClass*>& objects)
{
    for (srClass* o : objects)
        if (o)
            o->release();
    objects.clear();
}
} // namespace

mrIOManager::~mrIOManager()
{
    for (auto& kv : m_handlers)
        delete kv.second;
}

void mrIOManager::registerHandler(mrClassIOHandler* handler)
{
    if (!handler)
        return;
    unsigned long id = handler->getClassID();
    auto it = m_handlers.find(id);
    if (it != m_handlers.end() && it->second != handler)
        delete it->second;
    m_handlers[id] = handler;
}

void mrIOManager::removeHandler(unsigned long classID)
{
    auto it = m_handlers.find(classID);
    if (it == m_handlers.end())
        return;
    delete it->second;
    m_handlers.erase(it);
}

mrClassIOHandler* mrIOManager::getHandler(unsigned long classID) const
{
    auto it = m_handlers.find(classID);
    return it == m_handlers.end() ? nullptr : it->second;
}

bool mrIOManager::saveBuffer(const std::vector<srClass*>& objects, std::vector<unsigned char>& out, std::string* error)
{
    if (objects.size() > 0xFFFFFFFFu)
    {
        setError(error, "too many objects for one file (" + std::to_string(objects.size()) + ")");
        return false;
    }
    mrChunkOFStream stream;
    stream.writeU32(CHUNK_FILE_MAGIC);
    stream.writeU32(CHUNK_FILE_VERSION);
    stream.writeU32((uint32_t)objects.size());
    for (size_t i = 0; i < objects.size(); ++i)
    {
        srClass* object = objects[i];
        if (!object)
        {
            setError(error, "object " + std::to_string(i) + " is null");
            return false;
        }
        unsigned long classID = object->getClassID();
        std::string label = "object " + std::to_string(i) + " (class " + hexID(classID) + ")";
        mrClassIOHandler* handler = getHandler(classID);
        if (!handler)
        {
            setError(error, label + ": no IO handler is registered for this class ID");
            return false;
        }
        if (classID > 0xFFFFFFFFul)
        {
            setError(error, label + ": the class ID does not fit 32 bits");
            return false;
        }
        stream.beginChunk(CHUNK_OBJECT);
        stream.writeU32((uint32_t)classID);
        stream.writeString(object->getName());
        handler->exportObject(stream, object);
        if (stream.openChunks() != 1)
            stream.fail("the handler left " + std::to_string(stream.openChunks() - 1) + " chunks open");
        stream.endChunk();
        if (stream.failed())
        {
            setError(error, label + ": " + stream.error());
            return false;
        }
    }
    out = stream.data();
    return true;
}

bool mrIOManager::saveFile(const std::string& path, const std::vector<srClass*>& objects, std::string* error)
{
    std::vector<unsigned char> bytes;
    std::string why;
    if (!saveBuffer(objects, bytes, &why))
    {
        setError(error, path + ": " + why);
        return false;
    }

    std::string failure;
    if (!mrOutputFile::writeFile(path, bytes.data(), bytes.size(), failure))
    {
        setError(error, failure);
        return false;
    }
    return true;
}

bool mrIOManager::loadFile(const std::string& path, std::vector<srClass*>& objects, std::string* error)
{
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0)
    {
        setError(error, path + ": cannot open: " + std::strerror(errno));
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
    {
        ::close(fd);
        setError(error, path + ": not a regular file");
        return false;
    }
    std::vector<unsigned char> bytes;
    unsigned char chunk[65536];
    for (;;)
    {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0)
        {
            if (errno == EINTR)
                continue;
            int savedErrno = errno;
            ::close(fd);
            setError(error, path + ": reading failed: " + std::strerror(savedErrno));
            return false;
        }
        if (n == 0)
            break;
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    ::close(fd);
    return loadBuffer(bytes, objects, error, path);
}

bool mrIOManager::loadBuffer(const std::vector<unsigned char>& data, std::vector<srClass*>& objects, std::string* error,
                             const std::string& name)
{
    return loadBuffer(data.empty() ? nullptr : data.data(), data.size(), objects, error, name);
}

bool mrIOManager::loadBuffer(const unsigned char* data, size_t size, std::vector<srClass*>& objects, std::string* error,
                             const std::string& name)
{
    std::vector<srClass*> loaded;
    auto failWith = [&](const std::string& message)
    {
        releaseAll(loaded);
        setError(error, name + ": " + message);
        return false;
    };

    mrChunkIFStream stream(data, size);
    if (size < 4 || stream.readU32() != CHUNK_FILE_MAGIC)
        return failWith("not a chunk file (no \"MRCF\" magic tag at the start)");
    if (size < kHeaderBytes)
        return failWith("truncated file header (" + std::to_string(size) + " of " + std::to_string(kHeaderBytes) +
                        " bytes)");
    uint32_t version = stream.readU32();
    if (version != CHUNK_FILE_VERSION)
        return failWith("unsupported format version " + std::to_string(version) + " (this build reads version " +
                        std::to_string((unsigned)CHUNK_FILE_VERSION) + ")");
    uint32_t count = stream.readU32();
    if (!stream.checkCount(count, kMinRecordBytes, "record"))
        return failWith(stream.error());

    try
    {
        for (uint32_t i = 0; i < count; ++i)
        {
            if (!stream.expectChunk(CHUNK_OBJECT, "object"))
                return failWith(recordLabel(i) + ": " + stream.error());
            uint32_t classID = stream.readU32();
            std::string objectName;
            if (!stream.readString(objectName))
                return failWith(recordLabel(i) + ": " + stream.error());
            std::string label = recordLabel(i, classID);
            mrClassIOHandler* handler = getHandler(classID);
            if (!handler)
                return failWith(label + ": unknown class ID (no IO handler is registered for it)");

            mrIOEntry entry;
            entry.m_classID = classID;
            entry.m_name = objectName;
            handler->setName(objectName.c_str());
            srClass* object = nullptr;
            try
            {
                object = handler->importObject(stream, entry);
            }
            catch (const std::bad_alloc&)
            {
                entry.m_error = "out of memory";
            }
            // Whatever the handler made is ours to release from here on.
            if (entry.m_object)
                loaded.push_back(entry.m_object);
            if (object && object != entry.m_object)
                loaded.push_back(object);

            if (!entry.m_error.empty())
                return failWith(label + ": " + entry.m_error);
            if (stream.failed())
                return failWith(label + ": " + stream.error());
            if (!object)
                return failWith(label + ": the handler produced no object");
            if (entry.m_object && entry.m_object != object)
                return failWith(label + ": the handler produced two different objects");
            if (!stream.closeChunk())
                return failWith(label + ": " + stream.error());
        }
    }
    catch (const std::bad_alloc&)
    {
        return failWith("out of memory");
    }
    if (stream.remaining() > 0)
        return failWith(std::to_string(stream.remaining()) +
                        " bytes of trailing garbage after the last record (at offset " +
                        std::to_string(stream.offset()) + ")");

    objects.insert(objects.end(), loaded.begin(), loaded.end());
    return true;
}
