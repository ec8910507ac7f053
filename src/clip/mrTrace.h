#pragma once

#include <cstdint>

#include <meridbsp/platform/dx/srVector3T.h>

// The answer of a segment query against a clip BSP. checkCollision fills the flags,
// the fraction and the end point; the plane is set only when the trace was stopped.
class mrTrace
{
public:
    int32_t m_allSolid;              // 1 until the trace reaches an empty leaf
    int32_t m_startSolid;            // 1 when the trace reached a solid leaf (start in solid)
    int32_t m_inOpen;                // 1 when the trace reached an empty leaf
    int32_t m_reservedFlag;          // not used by the queries; only copied
    srVector3T<float> m_planeNormal; // the plane that stopped the trace, facing the start side
    float m_planeDist;
    float m_fraction;           // 0..1 along the whole segment; 1 means not stopped
    srVector3T<float> m_endPos; // where the trace ends

    // Every field starts at zero, so a trace record never carries indeterminate bytes
    // into output (the queries leave m_reservedFlag and the plane as they find them).
    mrTrace() : m_allSolid(0), m_startSolid(0), m_inOpen(0), m_reservedFlag(0), m_planeDist(0.0f), m_fraction(0.0f) {}
    mrTrace(const mrTrace&) = default;

    mrTrace& operator=(mrTrace& o)
    {
        m_allSolid = o.m_allSolid;
        m_startSolid = o.m_startSolid;
        m_inOpen = o.m_inOpen;
        m_reservedFlag = o.m_reservedFlag;
        m_planeNormal = o.m_planeNormal;
        m_planeDist = o.m_planeDist;
        m_fraction = o.m_fraction;
        m_endPos = o.m_endPos;
        return *this;
    }
};
