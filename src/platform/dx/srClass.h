#pragma once

#include <meridbsp/platform/dx/srHeapClass.h>
#include <meridbsp/platform/dx/srRuntimeClass.h>

// Reference-counted base of the engine's objects. A new object holds one reference;
// release() drops one and destroys the object when none is left.
class srClass : public srRuntimeClass, public srHeapClass
{
public:
    srClass() = default;
    srClass(const srClass& o) : srRuntimeClass(o) {}
    srClass& operator=(const srClass& o)
    {
        srRuntimeClass::operator=(o);
        return *this;
    }
    ~srClass() override = default;

    static const char* sGetClassName() { return "srClass"; }
    static srRegistry::ClassNode* sGetClassNode();

    const char* getClassName() const override { return sGetClassName(); }
    unsigned long getClassID() const override { return 1; }
    srRegistry::ClassNode* getClassNode() override { return sGetClassNode(); }

    int addRef() const { return ++m_refCount; }
    int release() const;
    int refCount() const { return m_refCount; }

    virtual srClass* vInstance() { return nullptr; }
    virtual srClass* vClone() { return nullptr; }

private:
    mutable int m_refCount = 1;
};
