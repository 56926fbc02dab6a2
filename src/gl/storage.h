#pragma once

#include "gl/export.h"
#include "gl/opengldevicecontext.h"

namespace Brevane::Kvo {

/// The limits of the current context, all 0 without one. Asks GL nothing, unlike OpenGLDeviceContext::current.
KVO_GL_EXPORT GLLimits currentLimits();

/// What an image takes: a 2D one, or an array where it has layers.
struct ImageSize
{
    int width = 0;
    int height = 0;
    int layers = -1; ///< -1: a 2D image.
};

/// Gives the bound GL_TEXTURE_2D or GL_TEXTURE_2D_ARRAY its level 0. False where the driver has no room for
/// it, with one message per size; no GL error of this is left for the host to find, and the level is then a
/// single texel per layer, so that whoever draws into it draws without an error.
KVO_GL_EXPORT bool allocateImage(unsigned int internalFormat, const ImageSize &size, unsigned int format,
                                 unsigned int type, const void *pixels = nullptr);

} // namespace Brevane::Kvo
