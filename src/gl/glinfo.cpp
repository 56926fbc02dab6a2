#include "gl/glinfo.h"

#include "gl/contextstate.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <array>

namespace Brevane::Kvo {

namespace {

struct PixelFormat
{
    GLenum internalFormat;
    GLenum format;
    GLenum type;
    int bytes;
};

constexpr std::array kFormats{
    PixelFormat{GL_R8, GL_RED, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_RG8, GL_RG, GL_UNSIGNED_BYTE, 2},
    PixelFormat{GL_RGB8, GL_RGB, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_RGB, GL_RGB, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_SRGB8, GL_RGB, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_SRGB8_ALPHA8, GL_RGBA, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_R16, GL_RED, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_RG16, GL_RG, GL_UNSIGNED_SHORT, 4},
    PixelFormat{GL_RGBA16, GL_RGBA, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGB10_A2, GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, 4},
    PixelFormat{GL_R11F_G11F_B10F, GL_RGB, GL_UNSIGNED_INT_10F_11F_11F_REV, 4},
    PixelFormat{GL_R16F, GL_RED, GL_HALF_FLOAT, 2},
    PixelFormat{GL_RG16F, GL_RG, GL_HALF_FLOAT, 4},
    PixelFormat{GL_RGB16F, GL_RGB, GL_HALF_FLOAT, 8},
    PixelFormat{GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, 8},
    PixelFormat{GL_R32F, GL_RED, GL_FLOAT, 4},
    PixelFormat{GL_RG32F, GL_RG, GL_FLOAT, 8},
    PixelFormat{GL_RGB32F, GL_RGB, GL_FLOAT, 16},
    PixelFormat{GL_RGBA32F, GL_RGBA, GL_FLOAT, 16},
    PixelFormat{GL_R8UI, GL_RED_INTEGER, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_R16UI, GL_RED_INTEGER, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_RG32UI, GL_RG_INTEGER, GL_UNSIGNED_INT, 8},
    PixelFormat{GL_RGBA8UI, GL_RGBA_INTEGER, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_RGBA16UI, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16},
    PixelFormat{GL_R32I, GL_RED_INTEGER, GL_INT, 4},
    PixelFormat{GL_RG32I, GL_RG_INTEGER, GL_INT, 8},
    PixelFormat{GL_RGBA32I, GL_RGBA_INTEGER, GL_INT, 16},
    PixelFormat{GL_DEPTH_COMPONENT16, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_DEPTH_COMPONENT24, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_DEPTH_COMPONENT32, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_DEPTH_COMPONENT, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, 4},
    PixelFormat{GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 4},
    PixelFormat{GL_DEPTH32F_STENCIL8, GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV, 8},
};

constexpr PixelFormat kUnknown{GL_NONE, GL_RGBA, GL_UNSIGNED_BYTE, 4};

const PixelFormat &lookUp(GLenum internalFormat)
{
    const auto *found = std::find_if(kFormats.begin(), kFormats.end(), [internalFormat](const PixelFormat &f) {
        return f.internalFormat == internalFormat;
    });
    return found == kFormats.end() ? kUnknown : *found;
}

} // namespace

bool hasGLExtension(const char *name)
{
    const ContextState *state = ContextState::current();
    return state && name && state->hasExtension(name);
}

unsigned int formatFromInternalFormat(unsigned int internalFormat)
{
    return lookUp(internalFormat).format;
}

unsigned int typeFromInternalFormat(unsigned int internalFormat)
{
    return lookUp(internalFormat).type;
}

int bytesPerTexel(unsigned int internalFormat)
{
    return lookUp(internalFormat).bytes;
}

} // namespace Brevane::Kvo
