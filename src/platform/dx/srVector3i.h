#pragma once

// Three integers: the vertex indices of one triangle.
class srVector3i
{
public:
    int x, y, z;

    srVector3i() : x(0), y(0), z(0) {}
    srVector3i(int ax, int ay, int az) : x(ax), y(ay), z(az) {}

    int& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    const int& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
};
