#pragma once

#include <cstddef>
#include <vector>

#include <meridbsp/platform/core/mrRefMaker.h>

// An object others can depend on: its changes are sent to every reference maker that
// made a reference to it. Copies do not inherit the dependants.
class mrRefTarget : public mrRefMaker
{
public:
    mrRefTarget() = default;
    mrRefTarget(const mrRefTarget& o) : mrRefMaker(o) {}
    mrRefTarget& operator=(const mrRefTarget& o)
    {
        mrRefMaker::operator=(o);
        return *this;
    }
    ~mrRefTarget() override = default;

    virtual int isRefTarget() { return 1; }

    // maker starts hearing about this target's changes.
    e_refResult makeReference(mrRefMaker* maker);
    void deleteReference(mrRefMaker* maker);
    size_t numDependants() const { return m_dependants.size(); }

    // Sends (message, partID) to every dependant, in the order the references were made.
    virtual void notifyDependants(e_refMsg message, unsigned long partID);

private:
    std::vector<mrRefMaker*> m_dependants;
};
