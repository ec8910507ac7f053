#pragma once

#include <meridbsp/platform/dx/srVector3T.h>

// Nine components m[0..8] in storage order. A vector is transformed as
// v' = (m0*x + m3*y + m6*z, m1*x + m4*y + m7*z, m2*x + m5*y + m8*z).
template <class T> class srMatrix3T
{
public:
    T m[9];

    srMatrix3T() : m{1, 0, 0, 0, 1, 0, 0, 0, 1} {}
    srMatrix3T(T m0, T m1, T m2, T m3, T m4, T m5, T m6, T m7, T m8) : m{m0, m1, m2, m3, m4, m5, m6, m7, m8} {}

    static srMatrix3T identity() { return srMatrix3T(); }

    // Each sum left to right in T, all three results computed before any is stored
    // (part of the reproducibility promise: float matrix application).
    srVector3T<T> transform(const srVector3T<T>& v) const
    {
        T rx = m[0] * v.x + m[3] * v.y + m[6] * v.z;
        T ry = m[1] * v.x + m[4] * v.y + m[7] * v.z;
        T rz = m[2] * v.x + m[5] * v.y + m[8] * v.z;
        return srVector3T<T>(rx, ry, rz);
    }
};

typedef srMatrix3T<float> srMatrix3;
