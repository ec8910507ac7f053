#pragma once

// Three components x, y, z: points, normals and box corners.
template <class T> class srVector3T
{
public:
    T x, y, z;

    srVector3T() : x(0), y(0), z(0) {}
    srVector3T(T ax, T ay, T az) : x(ax), y(ay), z(az) {}

    T& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    const T& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }

    bool operator==(const srVector3T& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const srVector3T& o) const { return !(*this == o); }
};

typedef srVector3T<float> srVector3;
