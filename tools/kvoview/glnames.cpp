#include "glnames.h"

#include <epoxy/gl.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMostErrors = 8; // a context that is gone gives them without end

QString errorName(GLenum error)
{
    switch (error) {
    case GL_INVALID_ENUM: return u"GL_INVALID_ENUM"_s;
    case GL_INVALID_VALUE: return u"GL_INVALID_VALUE"_s;
    case GL_INVALID_OPERATION: return u"GL_INVALID_OPERATION"_s;
    case GL_OUT_OF_MEMORY: return u"GL_OUT_OF_MEMORY"_s;
    case GL_INVALID_FRAMEBUFFER_OPERATION: return u"GL_INVALID_FRAMEBUFFER_OPERATION"_s;
    default: return u"GL error 0x%1"_s.arg(error, 4, 16, QChar(u'0'));
    }
}

} // namespace

QString formatName(unsigned int internalFormat)
{
    switch (internalFormat) {
    case GL_R8: return u"R8"_s;
    case GL_RG8: return u"RG8"_s;
    case GL_RGB8: return u"RGB8"_s;
    case GL_RGBA8: return u"RGBA8"_s;
    case GL_SRGB8_ALPHA8: return u"SRGB8_ALPHA8"_s;
    case GL_RGB10_A2: return u"RGB10_A2"_s;
    case GL_R11F_G11F_B10F: return u"R11F_G11F_B10F"_s;
    case GL_R16: return u"R16"_s;
    case GL_RGBA16: return u"RGBA16"_s;
    case GL_R16F: return u"R16F"_s;
    case GL_RG16F: return u"RG16F"_s;
    case GL_RGBA16F: return u"RGBA16F"_s;
    case GL_R32F: return u"R32F"_s;
    case GL_RG32F: return u"RG32F"_s;
    case GL_RGB32F: return u"RGB32F"_s;
    case GL_RGBA32F: return u"RGBA32F"_s;
    case GL_R32I: return u"R32I"_s;
    case GL_R32UI: return u"R32UI"_s;
    case GL_RG32UI: return u"RG32UI"_s;
    case GL_RGBA32UI: return u"RGBA32UI"_s;
    case GL_RGBA32I: return u"RGBA32I"_s;
    case GL_DEPTH_COMPONENT16: return u"DEPTH16"_s;
    case GL_DEPTH_COMPONENT24: return u"DEPTH24"_s;
    case GL_DEPTH_COMPONENT32: return u"DEPTH32"_s;
    case GL_DEPTH_COMPONENT32F: return u"DEPTH32F"_s;
    case GL_DEPTH24_STENCIL8: return u"DEPTH24_STENCIL8"_s;
    case GL_DEPTH32F_STENCIL8: return u"DEPTH32F_STENCIL8"_s;
    default: return u"0x%1"_s.arg(internalFormat, 4, 16, QChar(u'0'));
    }
}

QStringList takeGlErrors()
{
    QStringList errors;
    for (GLenum error = glGetError(); error != GL_NO_ERROR && errors.size() < kMostErrors; error = glGetError())
        errors << errorName(error);
    return errors;
}
