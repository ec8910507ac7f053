#pragma once

#include <meridbsp/platform/core/mrClass.h>

class mrRefTarget;

// Messages a reference target sends its dependants; 0 is "a field changed".
// A fixed underlying type: any message number a sender passes is a valid value.
enum e_refMsg : int
{
    REFMSG_CHANGE = 0,
    REFMSG_TARGET_DELETED = 1,
};

enum e_refResult : int
{
    REF_FAIL = 0,
    REF_SUCCEED = 1,
};

// An object that holds references to targets and hears about their changes.
class mrRefMaker : public mrClass
{
public:
    mrRefMaker() = default;
    mrRefMaker(const mrRefMaker&) = default;
    mrRefMaker& operator=(const mrRefMaker&) = default;
    ~mrRefMaker() override = default;

    // partID is the changed field's ID for REFMSG_CHANGE.
    virtual e_refResult notifyRefChanged(e_refMsg message, unsigned long partID, mrRefTarget* target, unsigned long,
                                         int)
    {
        (void)message;
        (void)partID;
        (void)target;
        return REF_SUCCEED;
    }
};
