#pragma once

// A counted reference to an srClass-derived object: copying adds a reference,
// destruction releases one.
template <class T> class srPtr
{
public:
    srPtr() : m_p(nullptr) {}
    srPtr(T* p) : m_p(p)
    {
        if (m_p)
            m_p->addRef();
    }
    srPtr(const srPtr& o) : srPtr(o.m_p) {}
    srPtr& operator=(const srPtr& o)
    {
        if (o.m_p)
            o.m_p->addRef();
        if (m_p)
            m_p->release();
        m_p = o.m_p;
        return *this;
    }
    ~srPtr()
    {
        if (m_p)
            m_p->release();
    }

    T* get() const { return m_p; }
    operator T*() const { return m_p; }
    T* operator->() const { return m_p; }

private:
    T* m_p;
};
