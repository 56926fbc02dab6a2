#pragma once

#include "support/image.h"

#include <gl/framebufferobject.h>
#include <gl/shaderprogram.h>
#include <gl/texture.h>

#include <QString>
#include <QStringList>

#include <memory>

namespace Brevane::Kvo::Test {

/// A GL_TEXTURE_2D with storage, nearest filter and clamped wrap.
std::unique_ptr<Texture> makeTexture(unsigned int internalFormat, int width, int height, const void *pixels = nullptr);
/// An RGBA32F texture with these pixels.
std::unique_ptr<Texture> makeTexture(const Image<float> &image);
/// The same of one colour.
std::unique_ptr<Texture> makeSolidTexture(int width, int height, std::array<float, 4> color);

/// "va_Vertex" straight to clip space and "vo_TexCoord", as all full-screen passes have it.
QString screenVertexText();
/// A program of that vertex text and a fragment text, compiled and linked; fails the test if it does
/// not build. The fragment output is "out_Color".
std::unique_ptr<ShaderProgram> makeProgram(const QString &fragmentText);
std::unique_ptr<ShaderProgram> makeProgram(const QString &vertexText, const QString &fragmentText,
                                           const QStringList &fragmentOutputs = {QStringLiteral("out_Color")});

/// A framebuffer with a colour texture, and a depth-stencil texture when wanted.
class Target
{
public:
    Target(unsigned int internalFormat, int width, int height, bool depthStencil = false);
    ~Target();

    FramebufferObject *framebuffer() const { return _framebuffer.get(); }
    Texture *color() const { return _color.get(); }
    Texture *depthStencil() const { return _depthStencil.get(); }
    int width() const { return _width; }
    int height() const { return _height; }
    void clear(std::array<float, 4> color);
    Image<float> read() const { return readTexture<float>(_color.get()); }

private:
    int _width;
    int _height;
    std::unique_ptr<Texture> _color;
    std::unique_ptr<Texture> _depthStencil;
    std::unique_ptr<FramebufferObject> _framebuffer;
};

/// Draws the screen quad over a target with a program; uniforms that setUniforms sets with the program
/// bound come before.
template <typename SetUniforms>
void drawScreen(const Target &target, ShaderProgram *program, SetUniforms &&setUniforms);
void drawScreen(const Target &target, ShaderProgram *program);

/// Used by drawScreen: binds program and quad, draws.
void drawBoundScreen(const Target &target, ShaderProgram *program);

template <typename SetUniforms>
void drawScreen(const Target &target, ShaderProgram *program, SetUniforms &&setUniforms)
{
    EXPECT_TRUE(program->bind());
    setUniforms(program);
    drawBoundScreen(target, program);
    program->unbind();
}

} // namespace Brevane::Kvo::Test
