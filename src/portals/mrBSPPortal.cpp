#include <meridbsp/portals/mrBSPPortal.h>

mrBSPPortal::mrBSPPortal() : m_plane(nullptr), m_nodes{nullptr, nullptr}, m_next{nullptr, nullptr}, m_winding(nullptr)
{
}

// Releases nothing: the winding goes with whoever deletes the portal, the plane is shared.
mrBSPPortal::~mrBSPPortal() {}
