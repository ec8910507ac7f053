#include <meridbsp/platform/geom/mrMaterial.h>

// Colours and flags start cleared so a new material never carries stray values.
mrMaterial::mrMaterial() : m_color0{0, 0, 0, 0}, m_color1{0, 0, 0, 0}, m_flags(0) {}

mrMaterial::~mrMaterial() = default;
