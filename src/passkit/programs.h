#pragma once

#include "gl/held.h"

#include <QSharedPointer>
#include <QString>
#include <QStringList>

#include <initializer_list>
#include <vector>

namespace Brevane::Kvo {

class DrawBuffers;
class GLSLMacroProcessor;
class ShaderProgram;

/// One source of a program: text, the bodies of an instance-data plan, or a file of the shader library.
struct ShaderSource
{
    enum Kind { Text, Plan, File };

    int stage;
    Kind kind;
    QString content; ///< The text, the name of the plan, or the name of the file.
};

/// How a program is built: fragment outputs in the order of their colour numbers, then sources.
struct ProgramRecipe
{
    QString label;
    QStringList outputs;
    std::vector<ShaderSource> sources;
    /// Whether passes with the same sources use one GL program, uniforms included; see
    /// ShaderProgram::setMayShare.
    bool mayShare = true;
    /// Whether the pass has another way should the driver refuse this one; see ShaderProgram::setMayFail.
    bool mayFail = false;
};

/// The sources of a program that draws a model: the vertex text with object data, the fragment text
/// with materials and their maps.
std::vector<ShaderSource> modelProgramSources(const QString &vertexShader, const QString &fragmentShader);

/// Builds a program, for those that are kept elsewhere than in a pass. A failure is left to the failure handler of
/// ShaderProgram: passes go on.
ShaderProgram *buildProgram(const ProgramRecipe &recipe, GLSLMacroProcessor *processor = nullptr);

/// Builds the program if there is none yet; says whether it just did. One that is there is built anew when it
/// samples maps and they have come to lie where it does not look, see ShaderProgram::refresh: every pass that
/// samples maps gets its program here, in every frame.
bool buildOnce(Held<ShaderProgram> &program, const ProgramRecipe &recipe, GLSLMacroProcessor *processor = nullptr);

enum class Quad { Screen, Gradient };

/// Takes the quad from the current device context if there is none yet, or one of another share group, for
/// passes that point the attributes of several programs at it. False without a context.
bool fetchOnce(QSharedPointer<DrawBuffers> &quad, Quad which);

/// The same, and points the attributes of the program at it.
bool fetchOnce(QSharedPointer<DrawBuffers> &quad, Quad which, const ShaderProgram *program);

/// Points the attributes of the program at the buffers of a piece of geometry; without a vertex array, nothing.
/// After the first time this is a look-up.
void enableArrays(DrawBuffers &buffers, const ShaderProgram *program);

/// GLSL of `vec4 exactTexture(sampler2D s, vec2 coord)`: texture(), but at the centre of a texel that
/// texel alone. Linear filters let a trace of the neighbours in there, from the rounding of coordinates,
/// and where alpha is a mask a trace of it already counts as covered.
extern const QString kExactTexture;

/// The vertex text that most screen passes use.
extern const QString kScreenVertexShader;

} // namespace Brevane::Kvo
