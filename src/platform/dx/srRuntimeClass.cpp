#include <meridbsp/platform/dx/srRuntimeClass.h>

void srRuntimeClass::dump(std::ostream& os)
{
    os << getClassName() << " 0x" << std::hex << getClassID() << std::dec << " \"" << m_name << "\"\n";
}
