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

ImageBinding::ImageBinding(unsigned int unit, unsigned int texture, unsigned int access, unsigned int format)
    : _unit(unit), _access(GL_READ_WRITE), _format(int(format))
{
    glGetIntegeri_v(GL_IMAGE_BINDING_NAME, unit, &_name);
    if (_name) {
        glGetIntegeri_v(GL_IMAGE_BINDING_LEVEL, unit, &_level);
        glGetBooleani_v(GL_IMAGE_BINDING_LAYERED, unit, &_layered);
        glGetIntegeri_v(GL_IMAGE_BINDING_LAYER, unit, &_layer);
        glGetIntegeri_v(GL_IMAGE_BINDING_ACCESS, unit, &_access);
        glGetIntegeri_v(GL_IMAGE_BINDING_FORMAT, unit, &_format);
    }
    glBindImageTexture(unit, texture, 0, GL_FALSE, 0, access, format);
}

ImageBinding::~ImageBinding()
{
    glBindImageTexture(_unit, GLuint(_name), _level, _layered, _layer, GLenum(_access), GLenum(_format));
}

} // namespace Brevane::Kvo
