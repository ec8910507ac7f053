#pragma once

// Four components; the clip BSP generator keeps a plane in one (x, y, z the unit normal, w the distance).
template <class T> class srVector4T
{
public:
    T x, y, z, w;

    srVector4T() : x(0), y(0), z(0), w(0) {}
    srVector4T(T ax, T ay, T az, T aw) : x(ax), y(ay), z(az), w(aw) {}

    bool operator==(const srVector4T& o) const { return x == o.x && y == o.y && z == o.z && w == o.w; }
};
