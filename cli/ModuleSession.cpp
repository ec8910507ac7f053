#include "ModuleSession.h"

#include <cstdio>
#include <vector>

#include <dlfcn.h>
#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/mrVersion.h>
#include <meridbsp/platform/core/mrCore.h>
#include <meridbsp/platform/core/mrIOManager.h>

#include "OutputSet.h"

ModuleSession::~ModuleSession()
{
    if (m_started)
    {
        m_loader.unload();
        mrCore::shutdown();
    }
}

std::string ModuleSession::modulePath()
{
    // The program is linked with the library, so the loaded copy is found from one of
    // its symbols; this works in the build tree and after installation alike.
    Dl_info info;
    if (::dladdr(reinterpret_cast<void*>(&meridbspVersion), &info) && info.dli_fname)
        return info.dli_fname;
    return "libMeridBSP.so";
}

bool ModuleSession::start(std::string& error)
{
    if (m_started)
        return true;
    mrCore::initialize();
    if (!m_loader.load(modulePath(), &error))
    {
        mrCore::shutdown();
        return false;
    }
    m_started = true;
    return true;
}

mrClipBSP* ModuleSession::load(const std::string& path, bool validate, std::string& error)
{
    mrIOManager* manager = mrCore::instance().getIOManager();
    if (!m_started || !manager)
    {
        error = path + ": the clip BSP module is not loaded";
        return nullptr;
    }
    std::vector<srClass*> objects;
    if (!manager->loadFile(path, objects, &error))
        return nullptr;
    mrClipBSP* bsp = nullptr;
    if (objects.empty())
        error = path + ": the file holds no objects";
    else if (objects[0]->getClassID() != 0x60000 || !(bsp = dynamic_cast<mrClipBSP*>(objects[0])))
    {
        char id[32];
        std::snprintf(id, sizeof id, "0x%lx", objects[0]->getClassID());
        error = path + ": the first object is not a clip BSP (class ID " + id + ")";
    }
    for (size_t i = bsp ? 1 : 0; i < objects.size(); ++i)
        objects[i]->release();
    if (bsp && validate)
    {
        std::string why;
        if (!bsp->validate(&why))
        {
            error = path + ": not a usable clip BSP: " + why;
            bsp->release();
            return nullptr;
        }
    }
    return bsp;
}

bool ModuleSession::save(OutputSet& outputs, const std::string& path, mrClipBSP* bsp, std::string& error)
{
    mrIOManager* manager = mrCore::instance().getIOManager();
    if (!m_started || !manager)
    {
        error = path + ": the clip BSP module is not loaded";
        return false;
    }
    std::vector<srClass*> objects{bsp};
    std::vector<unsigned char> bytes;
    std::string why;
    if (!manager->saveBuffer(objects, bytes, &why))
    {
        error = path + ": " + why;
        return false;
    }
    return outputs.writeFile(path, bytes.data(), bytes.size(), error);
}
