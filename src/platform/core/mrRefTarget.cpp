#include <algorithm>

#include <meridbsp/platform/core/mrRefTarget.h>

e_refResult mrRefTarget::makeReference(mrRefMaker* maker)
{
    if (!maker)
        return REF_FAIL;
    if (std::find(m_dependants.begin(), m_dependants.end(), maker) == m_dependants.end())
        m_dependants.push_back(maker);
    return REF_SUCCEED;
}

void mrRefTarget::deleteReference(mrRefMaker* maker)
{
    m_dependants.erase(std::remove(m_dependants.begin(), m_dependants.end(), maker), m_dependants.end());
}

void mrRefTarget::notifyDependants(e_refMsg message, unsigned long partID)
{
    // Index loop: a dependant may add references while being notified.
    for (size_t i = 0; i < m_dependants.size(); ++i)
        m_dependants[i]->notifyRefChanged(message, partID, this, 0, 1);
}
