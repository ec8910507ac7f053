#include <meridbsp/platform/dx/srClass.h>
#include <meridbsp/platform/dx/srCore.h>

srRegistry::ClassNode* srClass::sGetClassNode()
{
    srRegistry& reg = srCore::instance().getRegistry();
    srRegistry::ClassNode* node = reg.getClassNode(1);
    if (!node)
        node = reg.registerClass(sGetClassName(), nullptr, 1, 1);
    return node;
}

int srClass::release() const
{
    int left = --m_refCount;
    if (left <= 0)
        delete this;
    return left;
}
