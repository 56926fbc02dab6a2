#pragma once

#include "gl/export.h"

#include <QString>
#include <QStringList>

namespace Brevane::Kvo {

class ShaderProgram;

/// A named description of per-draw shader data: getters that a shader calls, and the data texture
/// behind them.
///
/// `#instancedata "name"` in a source declares the getters (glslh); glslc, added to the same stage as a
/// source of its own, defines them. The getters answer for the draw whose index is current: the item
/// that GPUModel::draw draws, in every stage, whichever of the others reads instance data too; or, in a stage
/// one of whose sources stores to `kvo_DrawIndex`, whatever was stored there.
class KVO_GL_EXPORT InstanceDataPlan
{
public:
    /// Its name, the sampler and the number of texels per draw, and the GLSL that declares and defines its getters.
    InstanceDataPlan(const QString &name, const QString &sampler, int texelsPerDraw, const QString &declarations,
                     const QString &definitions);

    /// By which a program asks for it.
    QString name() const;
    /// Declarations of the getters.
    QString glslh() const;
    /// GLSL that implements the getters.
    QString glslc() const;
    /// Name of the samplerBuffer uniform that the getters read.
    QString samplerName() const;
    /// RGBA32F texels that one draw takes in the data buffer.
    int texelsPerDraw() const;

    /// After link: checks that the program reads this plan's data, and logs if it does not.
    void assertShaderProgram(const ShaderProgram *program) const;

private:
    QString _name;
    QString _sampler;
    int _texelsPerDraw;
    QString _declarations;
    QString _definitions;
};

} // namespace Brevane::Kvo
