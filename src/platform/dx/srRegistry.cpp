#include <meridbsp/platform/dx/srRegistry.h>

srRegistry::srRegistry() = default;

srRegistry::~srRegistry()
{
    for (ClassNode* n : m_nodes)
        delete n;
}

srRegistry::ClassNode* srRegistry::getClassNode(unsigned long classID)
{
    for (ClassNode* n : m_nodes)
        if (n->m_classID == classID)
            return n;
    return nullptr;
}

srRegistry::ClassNode* srRegistry::registerClass(const char* name, ClassNode* parent, unsigned long classID, int flag)
{
    if (ClassNode* existing = getClassNode(classID))
        return existing;
    ClassNode* n = new ClassNode;
    n->m_name = name ? name : "";
    n->m_parent = parent;
    n->m_classID = classID;
    n->m_flag = flag;
    m_nodes.push_back(n);
    return n;
}

void srRegistry::registerInstance(ClassNode* node, srRuntimeClass* object)
{
    if (node)
        node->m_instances.insert(object);
}

void srRegistry::unregisterInstance(ClassNode* node, srRuntimeClass* object)
{
    if (node)
        node->m_instances.erase(object);
}

bool srRegistry::removeClass(unsigned long classID)
{
    for (size_t i = 0; i < m_nodes.size(); ++i)
    {
        ClassNode* n = m_nodes[i];
        if (n->m_classID != classID)
            continue;
        if (!n->m_instances.empty())
            return false;
        for (ClassNode* child : m_nodes)
            if (child->m_parent == n)
                return false;
        delete n;
        m_nodes.erase(m_nodes.begin() + (long)i);
        return true;
    }
    return false;
}

size_t srRegistry::numInstances(unsigned long classID)
{
    ClassNode* n = getClassNode(classID);
    return n ? n->m_instances.size() : 0;
}
