#include <algorithm>

#include <meridbsp/clipgen/mrFace.h>

mrFace::mrFace() { allocate(MAX_POINTS); }

mrFace::mrFace(int capacity) { allocate(capacity); }

mrFace::mrFace(const mrFace& o)
    : m_numpoints(o.m_numpoints), m_plane(o.m_plane), m_used(o.m_used), m_texture(o.m_texture)
{
    allocate(o.m_capacity);
    std::copy(o.m_points, o.m_points + o.m_capacity, m_points);
}

mrFace& mrFace::operator=(const mrFace& o)
{
    if (this == &o)
        return *this;
    if (m_capacity != o.m_capacity)
    {
        release();
        allocate(o.m_capacity);
    }
    std::copy(o.m_points, o.m_points + o.m_capacity, m_points);
    m_numpoints = o.m_numpoints;
    m_plane = o.m_plane;
    m_used = o.m_used;
    m_texture = o.m_texture;
    return *this;
}

mrFace::~mrFace() { release(); }

void mrFace::allocate(int capacity)
{
    m_capacity = std::min(std::max(capacity, 1), (int)MAX_POINTS);
    m_points = m_capacity <= INLINE_POINTS ? m_inline : new srVector3T<float>[m_capacity];
}

void mrFace::release()
{
    if (m_points != m_inline)
        delete[] m_points;
    m_points = m_inline;
    m_capacity = INLINE_POINTS;
}
