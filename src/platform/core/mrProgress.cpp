#include <meridbsp/platform/core/mrProgress.h>

thread_local mrProgress::Stage* mrProgress::s_stage = nullptr;

mrProgress::Stage::Stage(const Callback& callback, const char* name, uint64_t total)
    : m_callback(callback ? &callback : nullptr), m_name(name), m_total(total ? total : 1), m_outer(s_stage)
{
    // A stage nobody listens to hides any outer one: its work is not the outer stage's.
    s_stage = m_callback ? this : nullptr;
    if (!m_callback)
        return;
    m_next = m_total / 1000 + 1;
    (*m_callback)(m_name, 0, m_total);
}

mrProgress::Stage::~Stage()
{
    s_stage = m_outer;
    if (!m_callback)
        return;
    (*m_callback)(m_name, m_total, m_total);
}

void mrProgress::Stage::report(uint64_t done)
{
    m_done = done < m_total ? done : m_total;
    if (m_done < m_next || m_done == m_total)
        return;
    m_next = m_done + m_total / 1000 + 1;
    (*m_callback)(m_name, m_done, m_total);
}
