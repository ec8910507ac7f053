#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

class mrClassIOHandler;
class srClass;

// Table of class IO handlers keyed by class ID. It owns the handlers registered with it.
// It also saves sets of objects to chunk files and loads them back (docs/chunk-format.md),
// handing each object record to the handler of its class ID.
class mrIOManager
{
public:
    mrIOManager() = default;
    ~mrIOManager();
    mrIOManager(const mrIOManager&) = delete;
    mrIOManager& operator=(const mrIOManager&) = delete;

    // Takes the handler, keyed by its class ID (replacing and destroying an earlier one).
    void registerHandler(mrClassIOHandler* handler);
    // Removes and destroys the handler of a class ID.
    void removeHandler(unsigned long classID);
    mrClassIOHandler* getHandler(unsigned long classID) const;
    size_t numHandlers() const { return m_handlers.size(); }

    // Writes the objects, in order, as one chunk file, through mrOutputFile: complete or
    // not at all, a device or named pipe written through and never replaced. False with a
    // message in *error on failure.
    bool saveFile(const std::string& path, const std::vector<srClass*>& objects, std::string* error);
    // Reads a chunk file and appends the objects it holds to `objects` (the caller owns
    // them and releases them). On any failure nothing is appended, every object read so
    // far is released, and *error names the file, the record and what is wrong.
    bool loadFile(const std::string& path, std::vector<srClass*>& objects, std::string* error);

    // The same in memory; `name` stands for the file name in messages.
    bool saveBuffer(const std::vector<srClass*>& objects, std::vector<unsigned char>& out, std::string* error);
    bool loadBuffer(const unsigned char* data, size_t size, std::vector<srClass*>& objects, std::string* error,
                    const std::string& name = "buffer");
    bool loadBuffer(const std::vector<unsigned char>& data, std::vector<srClass*>& objects, std::string* error,
                    const std::string& name = "buffer");

private:
    std::map<unsigned long, mrClassIOHandler*> m_handlers;
};
