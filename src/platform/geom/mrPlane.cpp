#include <cmath>

#include <meridbsp/platform/geom/mrPlane.h>

void mrPlane::make(const srVector3T<float>& a, const srVector3T<float>& b, const srVector3T<float>& c)
{
    // Reproducibility promise: edges, cross product and length in double from the float
    // points; each normal component rounded to float once; the distance in double from
    // the stored float normal, summed x, y, z.
    double e1x = (double)b.x - (double)a.x, e1y = (double)b.y - (double)a.y, e1z = (double)b.z - (double)a.z;
    double e2x = (double)c.x - (double)a.x, e2y = (double)c.y - (double)a.y, e2z = (double)c.z - (double)a.z;
    double nx = e1y * e2z - e1z * e2y;
    double ny = e1z * e2x - e1x * e2z;
    double nz = e1x * e2y - e1y * e2x;
    double len2 = nx * nx + ny * ny + nz * nz;
    if (len2 == 0.0)
    {
        m_normal = srVector3T<float>(0, 0, 0);
        m_dist = 0;
        return;
    }
    double len = std::sqrt(len2);
    m_normal.x = (float)(nx / len);
    m_normal.y = (float)(ny / len);
    m_normal.z = (float)(nz / len);
    m_dist = (float)((double)m_normal.x * a.x + (double)m_normal.y * a.y + (double)m_normal.z * a.z);
}
