#pragma once

#include <cstddef>
#include <map>

class mrClassIOHandler;

// Table of class IO handlers keyed by class ID. It owns the handlers registered with it.
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

private:
    std::map<unsigned long, mrClassIOHandler*> m_handlers;
};
