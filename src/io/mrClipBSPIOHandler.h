#pragma once

#include <meridbsp/platform/core/mrClassIOHandler.h>

// Reads and writes clip BSPs (class ID 0x60000) in chunk files: the parameter block with
// the seven fields, then the animation data.
class mrClipBSPIOHandler : public mrClassIOHandler
{
public:
    struct Settings
    {
        // Build each loaded clip BSP's query index as part of the load (see
        // mrClipBSP::prepareQueries). Off, a load only reads and validates, and the clip
        // BSP answers by walking its arrays (the same answers, more slowly) until its
        // owner calls prepareQueries(): for callers that load many small trees, or want
        // the index built later or on another thread. Default: on.
        bool buildQueryIndex = true;
    };

    mrClipBSPIOHandler() = default;
    explicit mrClipBSPIOHandler(const Settings& settings) : m_settings(settings) {}
    ~mrClipBSPIOHandler() override = default;

    const Settings& settings() const { return m_settings; }
    void setSettings(const Settings& settings) { m_settings = settings; }

    unsigned long getClassID() override;
    void** allocPointerArray(unsigned long n) override;
    // Reads one record into a new clip BSP, stored in entry.m_object. A record that cannot
    // make a usable clip BSP sets entry.m_error (the object is still in entry.m_object for
    // the caller to release).
    srClass* importObject(mrChunkIFStream& stream, mrIOEntry& entry) override;
    // Writes the parameter block as it stands (no refresh from the members first).
    void exportObject(mrChunkOFStream& stream, srClass* object) override;

private:
    Settings m_settings;
};
