#pragma once

#include <ostream>
#include <string>

#include <meridbsp/platform/dx/srRegistry.h>

// Root of the rendering library's classes: a name and run-time class identity.
class srRuntimeClass
{
public:
    enum e_verify
    {
        VERIFY_QUICK = 0,
        VERIFY_FULL = 1
    };

    srRuntimeClass() = default;
    srRuntimeClass(const srRuntimeClass&) = default;
    srRuntimeClass& operator=(const srRuntimeClass&) = default;
    virtual ~srRuntimeClass() = default;

    virtual const char* getClassName() const { return "srRuntimeClass"; }
    virtual unsigned long getClassID() const { return 0; }
    virtual srRegistry::ClassNode* getClassNode() { return nullptr; }
    virtual void dump(std::ostream& os);
    virtual int verify(e_verify) { return 1; }

    void setName(const char* name) { m_name = name ? name : ""; }
    const char* getName() const { return m_name.c_str(); }

private:
    std::string m_name;
};
