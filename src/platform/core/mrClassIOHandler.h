#pragma once

#include <string>

#include <meridbsp/platform/core/mrIOEntry.h>

class mrChunkIFStream;
class mrChunkOFStream;
class srClass;

// Reads and writes the objects of one class ID for the IO manager.
class mrClassIOHandler
{
public:
    mrClassIOHandler() = default;
    virtual ~mrClassIOHandler() = default;

    virtual unsigned long getClassID() = 0;
    // Storage for n object pointers, not initialised; release with delete[].
    virtual void** allocPointerArray(unsigned long n) { return new void*[n]; }
    virtual srClass* importObject(mrChunkIFStream& stream, mrIOEntry& entry) = 0;
    virtual void exportObject(mrChunkOFStream& stream, srClass* object) = 0;

    // The name the IO manager gives the object being read.
    void setName(const char* name) { m_name = name ? name : ""; }
    const char* getName() const { return m_name.c_str(); }

private:
    std::string m_name;
};
