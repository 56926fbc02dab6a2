#pragma once

#include "gl/drawbuffers.h"
#include "gl/guards.h"
#include "gl/opengldevicecontext.h"
#include "gl/shaderprogram.h"
#include "gl/vertexarrayobject.h"

#include <epoxy/gl.h>

#include <QStringList>

namespace Brevane::Kvo {

/// Compiles and links a program that has its shaders.
inline ShaderProgram *built(ShaderProgram *program, const QString &label, const QStringList &outputs)
{
    program->setLabel(label);
    program->setFragDataLocations(outputs);
    program->compile();
    program->link();
    return program;
}

/// A program of these two shaders. The caller owns it.
inline ShaderProgram *screenProgram(const QString &label, const QStringList &outputs, const QString &vertexShader,
                                    const QString &fragmentShader)
{
    auto *program = new ShaderProgram;
    program->addShader(GL_VERTEX_SHADER, vertexShader);
    program->addShader(GL_FRAGMENT_SHADER, fragmentShader);
    return built(program, label, outputs);
}

/// Draws the quad over the screen with a program, which is bound. Nothing where that is not linked, and where there is no
/// context: one that was lost is no longer known behind a message, of which a host may make anything.
inline void drawScreenQuad(ShaderProgram *program)
{
    const QSharedPointer<OpenGLDeviceContext> context = OpenGLDeviceContext::current();
    const QSharedPointer<DrawBuffers> quad = context ? context->screenQuad() : nullptr;
    if (!quad || !quad->VAO() || !program->isLinked())
        return;
    quad->VAO()->enableShaderProgramArrays(program);
    const AutoBinder bound(quad.data());
    quad->draw();
}

} // namespace Brevane::Kvo
