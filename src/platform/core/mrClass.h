#pragma once

// Root of the core library's classes.
class mrClass
{
public:
    virtual ~mrClass() = default;
};
