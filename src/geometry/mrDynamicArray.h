#pragma once

#include <cstdint>

// The module's growable array. It does not know how many elements are in use (its
// owners count them); indexing at or past the end grows it to size + index + 8
// elements, a linear rule callers rely on. New elements are zeroed.
template <class T> class mrDynamicArray
{
public:
    T* m_data;
    uint32_t m_size;

    mrDynamicArray() : m_data(nullptr), m_size(0) {}
    mrDynamicArray(const mrDynamicArray& o) : m_data(nullptr), m_size(0) { copyFrom(o); }
    mrDynamicArray& operator=(const mrDynamicArray& o)
    {
        if (this != &o)
        {
            clear();
            copyFrom(o);
        }
        return *this;
    }
    ~mrDynamicArray() { delete[] m_data; }

    T& operator[](uint32_t i)
    {
        if (i >= m_size)
            resize(m_size + i + 8);
        return m_data[i];
    }
    // Read access below the size only; never grows.
    const T& at(uint32_t i) const { return m_data[i]; }

    void resize(uint32_t n)
    {
        if (n == m_size)
            return;
        T* block = n ? new T[n]() : nullptr;
        uint32_t keep = m_size < n ? m_size : n;
        for (uint32_t k = 0; k < keep; ++k)
            block[k] = m_data[k];
        delete[] m_data;
        m_data = block;
        m_size = n;
    }

    void clear()
    {
        delete[] m_data;
        m_data = nullptr;
        m_size = 0;
    }

    uint32_t size() const { return m_size; }

private:
    void copyFrom(const mrDynamicArray& o)
    {
        if (o.m_size)
        {
            m_data = new T[o.m_size]();
            for (uint32_t k = 0; k < o.m_size; ++k)
                m_data[k] = o.m_data[k];
            m_size = o.m_size;
        }
    }
};
