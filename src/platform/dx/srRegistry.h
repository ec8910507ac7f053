#pragma once

#include <string>
#include <unordered_set>
#include <vector>

class srRuntimeClass;

// The run-time class registry: one node per registered class ID, with its parent
// and the list of live instances.
class srRegistry
{
public:
    class ClassNode
    {
    public:
        std::string m_name;
        ClassNode* m_parent = nullptr;
        unsigned long m_classID = 0;
        int m_flag = 0;
        std::unordered_set<srRuntimeClass*> m_instances;
    };

    srRegistry();
    ~srRegistry();
    srRegistry(const srRegistry&) = delete;
    srRegistry& operator=(const srRegistry&) = delete;

    // The node of a class ID, or null when the ID is not registered.
    ClassNode* getClassNode(unsigned long classID);
    // Creates and returns the node of a class (or the existing one for that ID).
    ClassNode* registerClass(const char* name, ClassNode* parent, unsigned long classID, int flag);
    void registerInstance(ClassNode* node, srRuntimeClass* object);
    void unregisterInstance(ClassNode* node, srRuntimeClass* object);

    // Removes a class with no live instances (tests use it to start from a clean registry).
    bool removeClass(unsigned long classID);
    size_t numClasses() const { return m_nodes.size(); }
    size_t numInstances(unsigned long classID);

private:
    std::vector<ClassNode*> m_nodes;
};
