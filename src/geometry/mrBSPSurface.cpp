#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/geometry/mrBSPSurface.h>
#include <meridbsp/platform/dx/srAssert.h>

void mrBSPSurface::calcBounds()
{
    if (!m_faces)
        srAssertFail("0", "mrBSPSurface", __LINE__, "mrBSPSurface::calcBounds: surface without a face");

    // Starting values are only the first values compared against.
    m_mins = srVector3T<float>(99999.0f, 99999.0f, 99999.0f);
    m_maxs = srVector3T<float>(-99999.0f, -99999.0f, -99999.0f);

    for (mrBSPFace* f = m_faces; f; f = f->m_next)
    {
        mrWinding* w = f->m_winding;
        if (!w)
        {
            // A face without points cannot widen the box.
            srAssertFail("w", "mrBSPSurface", __LINE__, nullptr);
            continue;
        }
        for (int i = 0; i < w->m_numpoints; ++i)
        {
            const srVector3T<float>& p = w->m_points[(uint32_t)i];
            for (int k = 0; k < 3; ++k)
            {
                if (p[k] < m_mins[k])
                    m_mins[k] = p[k];
                if (p[k] > m_maxs[k])
                    m_maxs[k] = p[k];
            }
        }
    }
}
