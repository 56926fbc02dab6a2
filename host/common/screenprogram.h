#pragma once

#include "gl/shaderprogram.h"

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

} // namespace Brevane::Kvo
