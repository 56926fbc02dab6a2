#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QByteArray>
#include <QSharedPointer>
#include <QString>
#include <QVector>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;

/// Runs a program of the host's: source texts from the host, slots that the host adds by name. Without
/// geometry it draws a screen quad, so that it serves as a free-form image filter; with geometry it draws
/// that with the same program.
///
/// What a slot is follows from its name:
///
/// | Slot                             | What it is                                                          |
/// |----------------------------------|---------------------------------------------------------------------|
/// | input Kvo_KvoTexture*_X          | sampler uniform u_X; not connected: a transparent texel             |
/// | input Kvo_KvoDrawBuffers*_X      | the geometry to draw; of several the last one counts                |
/// | input Kvo_QRect_Viewport         | size of the targets; declared by the constructor                    |
/// | any other input                  | a plain uniform that has the slot's full name, see setUniforms      |
/// | output Kvo_KvoTexture*_X         | a colour target of pool format 3, written by fragment output o_X    |
/// | any other output                 | nothing                                                             |
///
/// Targets are attached in the order of the outputs. Without a viewport they have the size of the first
/// connected two-dimensional sampler, without that 1 by 1; a width or height of 0 counts as 1. Vertex
/// shaders read va_Vertex (vec3) and va_TexCoord (vec2) of the quad, or the attributes of the geometry.
/// The default shaders copy u_Input.
///
/// Add all slots and set all sources before the first start. Slot tables grow with what is added later
/// and are never cleared: a slot that comes late makes every earlier texture slot count twice, and more
/// with each frame (targets beyond what the driver can attach are passed over). A source that comes late
/// has no effect, since the program is built once.
///
/// A source that does not compile or link goes to the handler of ShaderProgram::setFailureHandler, under
/// the name of setName and with its numbered text; frames go on, and targets show their cleared content.
///
/// Outputs are in typed form and carry the references of their users. Every texture input is given back
/// to the pool. Connected textures keep what a draw sets on them: linear filters, wrap clamped to the edge. Those
/// of whole numbers, whose samplers are declared with isampler or usampler, are left as they are.
///
/// Clears with the clear colour of the moment. Needs OpenGL 3.2; tessellation stages need
/// GL_ARB_tessellation_shader, and geometry of GL_PATCHES: anything else is not drawn with them.
///
/// Leaves changed: depth test (off), blending (off), viewport (the size of the target); with a blend mode:
/// blend function (that of the mode). Of the host's state count: clear colour, patches.
class KVO_RENDERPASSES_EXPORT ShaderRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
    };

    /// How fragments are combined with what is in the targets.
    enum BlendMode : int {
        BlendNone, ///< Blending off.
        BlendAlpha, ///< Source * (1 - source alpha) + destination * source alpha, so alpha is what stays.
        BlendAdd, ///< Source + destination.
    };

    ShaderRenderPass();
    ShaderRenderPass(const ShaderRenderPass &other);
    ShaderRenderPass &operator=(const ShaderRenderPass &other);
    ~ShaderRenderPass() override;

    /// Append a slot and give its index; see the table above.
    using RenderPassHelper::addInput;
    using RenderPassHelper::addOutput;

    /// GLSL; the vertex and the fragment stage are needed.
    void setVertexShaderSource(const QString &source);
    /// GLSL; the vertex and the fragment stage are needed.
    void setFragmentShaderSource(const QString &source);
    /// This and the tessellation stages are left out while their text is empty.
    void setGeometryShaderSource(const QString &source);
    /// GLSL; left out while empty.
    void setTessellationControlShaderSource(const QString &source);
    /// GLSL; left out while empty.
    void setTessellationEvaluationShaderSource(const QString &source);

    /// Whether targets are cleared before each draw; on at first. The first frame and frames of a new
    /// size are cleared either way. Without clearing a draw lands on a pool texture of unknown content.
    void setClear(bool clear);
    /// Off at first. A mode that is none of the three acts as BlendAlpha.
    void setBlend(BlendMode mode);

    /// How messages about the program call it, and debuggers; "ShaderRenderPass" at first. Before the
    /// first start.
    void setName(const QString &name);

    void start(RenderCallbacks *callbacks) override;

    /// Sets the plain uniforms; start calls it with the program bound. This form takes the inputs in their
    /// order: where the value is a bool, int, float, double, QRect, QSize, QColor, QMatrix4x4, QVector2D,
    /// QVector3D or QVector4D, and the program has a uniform with the full name of the slot, that one is
    /// set. A subclass may set others, through _program, instead of these or beside them.
    virtual void setUniforms();

protected:
    Held<FramebufferObject> _fbo; ///< The outputs are attached to it.
    Held<ShaderProgram> _program; ///< Of the sources below.
    QSharedPointer<DrawBuffers> _quad; ///< Drawn where no geometry is connected.
    Held<Texture> _defaultTexture; ///< For samplers that are not connected; not owned.
    QString _vertexShaderSource; ///< GLSL.
    QString _fragmentShaderSource; ///< GLSL.
    QString _geometryShaderSource; ///< GLSL; may be empty.
    QString _tessellationControlShaderSource; ///< GLSL; may be empty.
    QString _tessellationEvaluationShaderSource; ///< GLSL; may be empty.
    int _width = 0; ///< Of the targets.
    int _height = 0; ///< Of the targets.
    bool _clear = true; ///< See setClear.
    BlendMode _blend = BlendNone; ///< See setBlend.
    QVector<int> _textureInputs; ///< Inputs that are samplers.
    QVector<int> _textureOutputs; ///< Outputs that are colour targets.
    QVector<QByteArray> _uniformNames; ///< By input.
    int _geometryInput = -1; ///< The input that is drawn; -1: none.
    QString _name; ///< See setName.

private:
    void _readSlotNames();
    void _buildProgram();

    QVector<QString> _samplerNames; // the uniform names of _textureInputs, ready for use
    QVector<bool> _areWholeNumbers; // whether these read integers, which have no filters but the nearest
};

} // namespace Brevane::Kvo
