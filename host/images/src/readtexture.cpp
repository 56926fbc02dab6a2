#include "host/imageoutput.h"

#include "failure.h"
#include "gl/glinfo.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/pixelstore.h"
#include "gl/texture.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <limits>

namespace Brevane::Kvo {

namespace {

struct Format
{
    GLenum format = GL_RGBA;
    GLenum type = GL_FLOAT;
    int channels = 4;
};

Format formatOf(GLenum format)
{
    switch (format) {
    case GL_DEPTH_COMPONENT:
    case GL_DEPTH_STENCIL: return {GL_DEPTH_COMPONENT, GL_FLOAT, 1};
    case GL_RED: return {GL_RED, GL_FLOAT, 1};
    case GL_RG: return {GL_RG, GL_FLOAT, 2};
    case GL_RGB: return {GL_RGB, GL_FLOAT, 3};
    case GL_RED_INTEGER: return {GL_RED_INTEGER, GL_UNSIGNED_INT, 1};
    case GL_RG_INTEGER: return {GL_RG_INTEGER, GL_UNSIGNED_INT, 2};
    case GL_RGB_INTEGER: return {GL_RGB_INTEGER, GL_UNSIGNED_INT, 3};
    case GL_RGBA_INTEGER: return {GL_RGBA_INTEGER, GL_UNSIGNED_INT, 4};
    default: return {};
    }
}

} // namespace

bool readTexture(Texture *texture, TexturePixels *pixels, QString *error, int mipLevel)
{
    if (!texture)
        return fail(error, QStringLiteral("there is no texture"));
    if (!OpenGLDeviceContext::current())
        return fail(error, QStringLiteral("no OpenGL context of version 3.2 or later is current"));
    // To ask for a level that no texture can have is an error of GL.
    GLint largest = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
    constexpr int kMostLevels = 31;
    if (mipLevel < 0 || mipLevel >= kMostLevels || largest >> mipLevel == 0)
        return fail(error, QStringLiteral("there is no level %1").arg(mipLevel));
    const GLenum target = texture->target();
    const bool isCube = target == GL_TEXTURE_CUBE_MAP;
    if (target != GL_TEXTURE_2D && target != GL_TEXTURE_2D_ARRAY && target != GL_TEXTURE_3D && !isCube)
        return fail(error,
                    QStringLiteral("a texture of target 0x%1 has no picture").arg(target, 4, 16, QLatin1Char('0')));
    const AutoBinder binder(texture);
    if (!binder.isBound())
        return fail(error, QStringLiteral("the texture cannot be bound"));

    const GLenum level = isCube ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : target;
    GLint width = 0, height = 0, depth = 1, internalFormat = 0, redType = 0;
    glGetTexLevelParameteriv(level, mipLevel, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(level, mipLevel, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(level, mipLevel, GL_TEXTURE_INTERNAL_FORMAT, &internalFormat);
    glGetTexLevelParameteriv(level, mipLevel, GL_TEXTURE_RED_TYPE, &redType);
    if (isCube)
        depth = 6;
    else if (target != GL_TEXTURE_2D)
        glGetTexLevelParameteriv(level, mipLevel, GL_TEXTURE_DEPTH, &depth);
    if (width < 1 || height < 1 || depth < 1)
        return fail(error, QStringLiteral("the texture is empty (%1x%2)").arg(width).arg(height));

    const GLenum read = formatFromInternalFormat(GLenum(internalFormat));
    if (read == GL_STENCIL_INDEX)
        return fail(error, QStringLiteral("a texture of stencils alone has no picture"));
    const Format format = formatOf(read);
    const qint64 count = qint64(width) * height * depth * format.channels;
    if (count > std::numeric_limits<int>::max() / qint64(sizeof(float)))
        return fail(
            error, QStringLiteral("a texture of %1x%2x%3 is too large to read back").arg(width).arg(height).arg(depth));
    pixels->kind = format.format == GL_DEPTH_COMPONENT ? TexturePixels::Kind::Depth
                   : format.type == GL_UNSIGNED_INT    ? TexturePixels::Kind::Integer
                                                       : TexturePixels::Kind::Color;
    pixels->normalized = pixels->kind == TexturePixels::Kind::Color && redType == GL_UNSIGNED_NORMALIZED;
    pixels->width = width;
    pixels->height = height * depth;
    pixels->layers = depth;
    pixels->channels = format.channels;
    pixels->values.clear();
    pixels->integers.clear();
    std::byte *data = nullptr;
    if (pixels->kind == TexturePixels::Kind::Integer) {
        pixels->integers.resize(count);
        data = reinterpret_cast<std::byte *>(pixels->integers.data());
    } else {
        pixels->values.resize(count);
        data = reinterpret_cast<std::byte *>(pixels->values.data());
    }
    const DefaultPixelStore pixelStore;
    if (isCube)
        for (int face = 0; face < 6; ++face)
            glGetTexImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, mipLevel, format.format, format.type,
                          data + face * (count / 6) * qint64(sizeof(float)));
    else
        glGetTexImage(target, mipLevel, format.format, format.type, data);
    return true;
}

} // namespace Brevane::Kvo
