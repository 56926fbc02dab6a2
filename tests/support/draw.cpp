#include "support/draw.h"

#include "support/glcalls.h"

#include <gl/drawbuffers.h>
#include <gl/glinfo.h>
#include <gl/guards.h>
#include <gl/opengldevicecontext.h>
#include <gl/vertexarrayobject.h>

#include <epoxy/gl.h>

namespace Brevane::Kvo::Test {

std::unique_ptr<Texture> makeTexture(unsigned int internalFormat, int width, int height, const void *pixels)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(GL_TEXTURE_2D);
    const AutoBinder bound(texture.get());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GLint(internalFormat), width, height, 0, formatFromInternalFormat(internalFormat),
                 typeFromInternalFormat(internalFormat), pixels);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    return texture;
}

std::unique_ptr<Texture> makeTexture(const Image<float> &image)
{
    return makeTexture(GL_RGBA32F, image.width, image.height, image.pixels.constData());
}

std::unique_ptr<Texture> makeSolidTexture(int width, int height, std::array<float, 4> color)
{
    return makeTexture(Image<float>(width, height, color));
}

QString screenVertexText()
{
    return QStringLiteral("#version 150\n"
                          "in vec3 va_Vertex;\n"
                          "in vec2 va_TexCoord;\n"
                          "out vec2 vo_TexCoord;\n"
                          "void main()\n"
                          "{\n"
                          "    vo_TexCoord = va_TexCoord;\n"
                          "    gl_Position = vec4(va_Vertex, 1.0);\n"
                          "}\n");
}

std::unique_ptr<ShaderProgram> makeProgram(const QString &fragmentText)
{
    return makeProgram(screenVertexText(), fragmentText);
}

std::unique_ptr<ShaderProgram> makeProgram(const QString &vertexText, const QString &fragmentText,
                                           const QStringList &fragmentOutputs)
{
    auto program = std::make_unique<ShaderProgram>();
    program->setFragDataLocations(fragmentOutputs);
    program->addShader(GL_VERTEX_SHADER, vertexText);
    program->addShader(GL_FRAGMENT_SHADER, fragmentText);
    EXPECT_TRUE(program->compile() && program->link()) << qPrintable(program->log());
    return program;
}

Target::Target(unsigned int internalFormat, int width, int height, bool depthStencil)
    : _width(width), _height(height), _color(makeTexture(internalFormat, width, height)),
      _framebuffer(std::make_unique<FramebufferObject>())
{
    const AutoBinder bound(_framebuffer.get());
    _framebuffer->attach(_color.get(), GL_COLOR_ATTACHMENT0, 0);
    if (depthStencil) {
        _depthStencil = makeTexture(GL_DEPTH24_STENCIL8, width, height);
        _framebuffer->attach(_depthStencil.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    }
    _framebuffer->setDrawBuffers();
    clear({0, 0, 0, 0});
}

Target::~Target()
{
    const AutoBinder bound(_framebuffer.get());
    _framebuffer->detachAll();
}

void Target::clear(std::array<float, 4> color)
{
    const AutoBinder bound(_framebuffer.get());
    glClearBufferfv(GL_COLOR, 0, color.data());
    if (_depthStencil)
        glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0f, 0);
}

void drawBoundScreen(const Target &target, ShaderProgram *program)
{
    const auto quad = OpenGLDeviceContext::current()->screenQuad();
    const AutoBinder framebuffer(target.framebuffer());
    glViewport(0, 0, target.width(), target.height());
    const AutoBinder vertices(quad->VAO());
    quad->VAO()->enableShaderProgramArrays(program);
    const AutoBinder geometry(quad);
    EXPECT_TRUE(quad->draw());
}

void drawScreen(const Target &target, ShaderProgram *program)
{
    drawScreen(target, program, [](ShaderProgram *) {});
}

} // namespace Brevane::Kvo::Test
