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
    PixelFormat{GL_RED, GL_RED, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_RG, GL_RG, GL_UNSIGNED_BYTE, 2},
    PixelFormat{GL_RGB, GL_RGB, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_R3_G3_B2, GL_RGB, GL_UNSIGNED_BYTE_3_3_2, 1},
    PixelFormat{GL_RGB4, GL_RGB, GL_UNSIGNED_BYTE, 2},
    PixelFormat{GL_RGB5, GL_RGB, GL_UNSIGNED_BYTE, 2},
    PixelFormat{GL_RGB565, GL_RGB, GL_UNSIGNED_SHORT_5_6_5, 2},
    PixelFormat{GL_RGBA4, GL_RGBA, GL_UNSIGNED_SHORT_4_4_4_4, 2},
    PixelFormat{GL_RGB5_A1, GL_RGBA, GL_UNSIGNED_SHORT_5_5_5_1, 2},
    PixelFormat{GL_SRGB, GL_RGB, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_SRGB_ALPHA, GL_RGBA, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_SRGB8, GL_RGB, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_SRGB8_ALPHA8, GL_RGBA, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_SR8_EXT, GL_RED, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_SRG8_EXT, GL_RG, GL_UNSIGNED_BYTE, 2},
    PixelFormat{GL_RED_SNORM, GL_RED, GL_BYTE, 1},
    PixelFormat{GL_RG_SNORM, GL_RG, GL_BYTE, 2},
    PixelFormat{GL_RGB_SNORM, GL_RGB, GL_BYTE, 4},
    PixelFormat{GL_RGBA_SNORM, GL_RGBA, GL_BYTE, 4},
    PixelFormat{GL_R8_SNORM, GL_RED, GL_BYTE, 1},
    PixelFormat{GL_RG8_SNORM, GL_RG, GL_BYTE, 2},
    PixelFormat{GL_RGB8_SNORM, GL_RGB, GL_BYTE, 4},
    PixelFormat{GL_RGBA8_SNORM, GL_RGBA, GL_BYTE, 4},
    PixelFormat{GL_R16, GL_RED, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_RG16, GL_RG, GL_UNSIGNED_SHORT, 4},
    PixelFormat{GL_RGB10, GL_RGB, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGB12, GL_RGB, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGB16, GL_RGB, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGBA12, GL_RGBA, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGBA16, GL_RGBA, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_R16_SNORM, GL_RED, GL_SHORT, 2},
    PixelFormat{GL_RG16_SNORM, GL_RG, GL_SHORT, 4},
    PixelFormat{GL_RGB16_SNORM, GL_RGB, GL_SHORT, 8},
    PixelFormat{GL_RGBA16_SNORM, GL_RGBA, GL_SHORT, 8},
    PixelFormat{GL_RGB10_A2, GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, 4},
    PixelFormat{GL_R11F_G11F_B10F, GL_RGB, GL_UNSIGNED_INT_10F_11F_11F_REV, 4},
    PixelFormat{GL_RGB9_E5, GL_RGB, GL_UNSIGNED_INT_5_9_9_9_REV, 4},
    PixelFormat{GL_R16F, GL_RED, GL_HALF_FLOAT, 2},
    PixelFormat{GL_RG16F, GL_RG, GL_HALF_FLOAT, 4},
    PixelFormat{GL_RGB16F, GL_RGB, GL_HALF_FLOAT, 8},
    PixelFormat{GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, 8},
    PixelFormat{GL_R32F, GL_RED, GL_FLOAT, 4},
    PixelFormat{GL_RG32F, GL_RG, GL_FLOAT, 8},
    PixelFormat{GL_RGB32F, GL_RGB, GL_FLOAT, 16},
    PixelFormat{GL_RGBA32F, GL_RGBA, GL_FLOAT, 16},
    PixelFormat{GL_R8UI, GL_RED_INTEGER, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_RG8UI, GL_RG_INTEGER, GL_UNSIGNED_BYTE, 2},
    PixelFormat{GL_RGB8UI, GL_RGB_INTEGER, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_RGBA8UI, GL_RGBA_INTEGER, GL_UNSIGNED_BYTE, 4},
    PixelFormat{GL_R16UI, GL_RED_INTEGER, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_RG16UI, GL_RG_INTEGER, GL_UNSIGNED_SHORT, 4},
    PixelFormat{GL_RGB16UI, GL_RGB_INTEGER, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_RGBA16UI, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, 8},
    PixelFormat{GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_RG32UI, GL_RG_INTEGER, GL_UNSIGNED_INT, 8},
    PixelFormat{GL_RGB32UI, GL_RGB_INTEGER, GL_UNSIGNED_INT, 16},
    PixelFormat{GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16},
    PixelFormat{GL_RGB10_A2UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT_2_10_10_10_REV, 4},
    PixelFormat{GL_R8I, GL_RED_INTEGER, GL_BYTE, 1},
    PixelFormat{GL_RG8I, GL_RG_INTEGER, GL_BYTE, 2},
    PixelFormat{GL_RGB8I, GL_RGB_INTEGER, GL_BYTE, 4},
    PixelFormat{GL_RGBA8I, GL_RGBA_INTEGER, GL_BYTE, 4},
    PixelFormat{GL_R16I, GL_RED_INTEGER, GL_SHORT, 2},
    PixelFormat{GL_RG16I, GL_RG_INTEGER, GL_SHORT, 4},
    PixelFormat{GL_RGB16I, GL_RGB_INTEGER, GL_SHORT, 8},
    PixelFormat{GL_RGBA16I, GL_RGBA_INTEGER, GL_SHORT, 8},
    PixelFormat{GL_R32I, GL_RED_INTEGER, GL_INT, 4},
    PixelFormat{GL_RG32I, GL_RG_INTEGER, GL_INT, 8},
    PixelFormat{GL_RGB32I, GL_RGB_INTEGER, GL_INT, 16},
    PixelFormat{GL_RGBA32I, GL_RGBA_INTEGER, GL_INT, 16},
    PixelFormat{GL_DEPTH_COMPONENT16, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_DEPTH_COMPONENT24, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_DEPTH_COMPONENT32, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_DEPTH_COMPONENT, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
    PixelFormat{GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, 4},
    PixelFormat{GL_DEPTH_STENCIL, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 4},
    PixelFormat{GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 4},
    PixelFormat{GL_DEPTH32F_STENCIL8, GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV, 8},
    PixelFormat{GL_STENCIL_INDEX1, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_STENCIL_INDEX4, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_STENCIL_INDEX16, GL_STENCIL_INDEX, GL_UNSIGNED_SHORT, 2},
    PixelFormat{GL_STENCIL_INDEX8, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, 1},
    PixelFormat{GL_STENCIL_INDEX, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, 1},
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
