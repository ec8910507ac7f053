#pragma once

#include <string>

class srClass;

// The IO manager's record of one object being read: the handler fills m_object, and
// sets m_error when the record is unusable.
struct mrIOEntry
{
    unsigned long m_classID = 0;
    std::string m_name;
    srClass* m_object = nullptr;
    std::string m_error;
};
