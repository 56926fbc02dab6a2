#pragma once

#include <epoxy/gl.h>

namespace Brevane::Kvo {

/// The name of the object that GL has bound, by the query for it (GL_CURRENT_PROGRAM, GL_ARRAY_BUFFER_BINDING …).
inline GLuint boundNow(GLenum query)
{
    GLint name = 0;
    glGetIntegerv(query, &name);
    return GLuint(name);
}

} // namespace Brevane::Kvo
