#pragma once

// Marks classes whose objects live on the heap, one at a time.
class srHeapClass
{
public:
    virtual ~srHeapClass() = default;
};
