#pragma once

#include <new>

#include <meridbsp/platform/dx/srClass.h>
#include <meridbsp/platform/dx/srCore.h>

// Class identity for T, a class of ID `ClassID` under Base. The class node is looked
// up in the registry whenever it is needed and registered on first use, parent first.
// Objects register themselves as live instances while they exist.
template <class T, class Base, int Flag, unsigned long ClassID> class srClassSupport : public Base
{
public:
    enum
    {
        CLASS_ID = ClassID
    };

    srClassSupport() { srCore::instance().getRegistry().registerInstance(sGetClassNode(), this); }
    srClassSupport(const srClassSupport& o) : Base(o)
    {
        srCore::instance().getRegistry().registerInstance(sGetClassNode(), this);
    }
    srClassSupport& operator=(const srClassSupport& o)
    {
        Base::operator=(o);
        return *this;
    }
    ~srClassSupport() override { srCore::instance().getRegistry().unregisterInstance(sGetClassNode(), this); }

    static srRegistry::ClassNode* sGetClassNode()
    {
        srRegistry& reg = srCore::instance().getRegistry();
        srRegistry::ClassNode* node = reg.getClassNode(ClassID);
        if (!node)
            node = reg.registerClass(T::sGetClassName(), Base::sGetClassNode(), ClassID, Flag);
        return node;
    }

    const char* getClassName() const override { return T::sGetClassName(); }
    unsigned long getClassID() const override { return ClassID; }
    srRegistry::ClassNode* getClassNode() override { return sGetClassNode(); }

    srClass* vInstance() override { return new (std::nothrow) T(); }
    srClass* vClone() override { return new (std::nothrow) T(); }
};
