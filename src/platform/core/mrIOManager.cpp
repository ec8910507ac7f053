#include "platform/core/mrIOManager.h"

#include "platform/core/mrClassIOHandler.h"

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
