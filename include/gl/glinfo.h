#pragma once

#include "gl/export.h"

namespace Brevane::Kvo {

/// Whether the current context has an extension; "GL_ARB_foo" and "ARB_foo" both work. False without
/// a context.
KVO_GL_EXPORT bool hasGLExtension(const char *name);

/// The pixel format that goes with an internal format in glTexImage2D: GL_RGBA for GL_RGBA32F,
/// GL_RED_INTEGER for GL_R32UI, GL_DEPTH_COMPONENT for GL_DEPTH_COMPONENT32F … GL_RGBA when unknown.
KVO_GL_EXPORT unsigned int formatFromInternalFormat(unsigned int internalFormat);

/// The pixel type that goes with an internal format: GL_FLOAT for GL_RGBA32F, GL_UNSIGNED_INT for
/// GL_R32UI … GL_UNSIGNED_BYTE when unknown.
KVO_GL_EXPORT unsigned int typeFromInternalFormat(unsigned int internalFormat);

/// Bytes that one texel of an internal format takes, as far as drivers pad it (three-channel formats
/// count as four).
KVO_GL_EXPORT int bytesPerTexel(unsigned int internalFormat);

} // namespace Brevane::Kvo
