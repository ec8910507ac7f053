#pragma once

#include <meridbsp/platform/core/mrClassIOHandler.h>

// Reads and writes clip BSPs (class ID 0x60000) in chunk files: the parameter block with
// the seven fields, then the animation data.
class mrClipBSPIOHandler : public mrClassIOHandler
{
public:
    mrClipBSPIOHandler() = default;
    ~mrClipBSPIOHandler() override = default;

    unsigned long getClassID() override;
    void** allocPointerArray(unsigned long n) override;
    // Reads one record into a new clip BSP, stored in entry.m_object. A record that cannot
    // make a usable clip BSP sets entry.m_error (the object is still in entry.m_object for
    // the caller to release).
    srClass* importObject(mrChunkIFStream& stream, mrIOEntry& entry) override;
    // Writes the parameter block as it stands (no refresh from the members first).
    void exportObject(mrChunkOFStream& stream, srClass* object) override;
};
