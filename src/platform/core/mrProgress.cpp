#include <meridbsp/platform/core/mrProgress.h>

thread_local mrProgress::Stage* mrProgress::s_stage = nullptr;

mrProgress::Stage::Stage(const Callback& callback, const char* name, uint64_t total)
    : m_callback(callback), m_name(name), m_total(total), m_outer(s_stage)
{
    // A stage nobody listens to hides any outer one: its work is not the outer stage's.
    s_stage = m_callback ? this : nullptr;
    if (!m_callback)
        return;
    m_next = m_total / 1000 + 1;
    m_callback(m_name, 0, m_total);
}

mrProgress::Stage::~Stage()
{
    s_stage = m_outer;
    if (!m_callback)
        return;
    const uint64_t end = m_total ? m_total : (m_done ? m_done : 1);
    m_callback(m_name, end, end);
}

void mrProgress::Stage::report(uint64_t done)
{
    if (!m_total)
    {
        // Unknown amount: a report whenever the count has grown by a hundredth.
        m_done = done;
        if (done < m_next)
            return;
        m_next = done + done / 100 + 1;
        m_callback(m_name, done, 0);
        return;
    }
    m_done = done < m_total ? done : m_total;
    if (m_done < m_next || m_done == m_total)
        return;
    m_next = m_done + m_total / 1000 + 1;
    m_callback(m_name, m_done, m_total);
}
