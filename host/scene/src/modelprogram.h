#pragma once

#include <QStringList>

namespace Brevane::Kvo {

class ShaderProgram;

/// A program that draws a model, from texts that read the plan "InstanceInfo". The caller owns it.
ShaderProgram *modelProgram(const QString &label, const QStringList &outputs, const QString &vertexShader,
                            const QString &fragmentShader);
/// A program that draws the screen quad over a picture. The caller owns it.
ShaderProgram *screenProgram(const QString &label, const QStringList &outputs, const QString &fragmentShader);

} // namespace Brevane::Kvo
