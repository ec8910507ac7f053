#include <algorithm>
#include <cstdlib>
#include <vector>

#include <meridbsp/geometry/mrBSPFace.h>
#include <meridbsp/solid/mrBSPTree.h>

void mrBSPTree::release(mrBSPNode* head)
{
    // An original can be listed in several leaves (and several times in one), and a node
    // face can be the original of leaf fragments, so faces are gathered first and each
    // one deleted once.
    std::vector<mrBSPFace*> faces;
    std::vector<mrBSPNode*> stack;
    if (head)
        stack.push_back(head);
    while (!stack.empty())
    {
        mrBSPNode* node = stack.back();
        stack.pop_back();
        for (mrBSPNode* child : node->m_children)
            if (child)
                stack.push_back(child);
        if (node->m_markfaces)
        {
            for (mrBSPFace** m = node->m_markfaces; *m; ++m)
                faces.push_back(*m);
            std::free(node->m_markfaces);
        }
        for (mrBSPFace* f = node->m_faces; f; f = f->m_next)
            faces.push_back(f);
        delete node;
    }

    std::sort(faces.begin(), faces.end());
    faces.erase(std::unique(faces.begin(), faces.end()), faces.end());
    for (mrBSPFace* f : faces)
        delete f;
}

void mrBSPTree::releaseSurfaces(mrBSPSurface* list)
{
    mrBSPSurface* nextSurface = nullptr;
    for (mrBSPSurface* s = list; s; s = nextSurface)
    {
        nextSurface = s->m_next;
        mrBSPFace* nextFace = nullptr;
        for (mrBSPFace* f = s->m_faces; f; f = nextFace)
        {
            nextFace = f->m_next;
            delete f;
        }
        delete s;
    }
}
