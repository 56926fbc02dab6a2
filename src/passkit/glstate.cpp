#include "passkit/glstate.h"

#include <epoxy/gl.h>

namespace Brevane::Kvo {

void disable(std::initializer_list<unsigned int> capabilities)
{
    for (unsigned int capability : capabilities)
        glDisable(capability);
}

void openColorMask()
{
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
}

} // namespace Brevane::Kvo
