#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QList>
#include <QSharedPointer>
#include <QVariant>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class ShaderProgram;
class Texture;

/// Weighted blended order-independent transparency: draws the opaque fragments of a model, sums its
/// transparent ones in any order, weighted by depth, and composes the two. Memory and cost do not grow
/// with the number of layers, at the price of an approximate order. VisibilityBufferRenderPass and what
/// follows it is the exact way.
///
/// | # | Input                           | Type       | Range  | Meaning |
/// |---|---------------------------------|------------|--------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels | size of the targets |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |        | camera to clip space |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |        | world to camera space |
/// | 3 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |        | what to draw; none: the frame is cleared |
/// | 4 | Kvo_KvoTexture*_Texture         | texture    |        | not read |
///
/// | # | Output                | Type    | Format                         | Meaning |
/// |---|-----------------------|---------|--------------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA32F, nearest            | (1 - r) * average colour + r * opaque colour |
/// | 1 | Kvo_KvoTexture*_Depth | texture | GL_DEPTH_COMPONENT32F, nearest | window depth of the opaque fragments |
///
/// Materials with an opacity of 1 or more are opaque. The transparent ones in front of them, with colour
/// c, opacity a and window depth z, give w = z^-5, r = product of (1 - a), average = sum of c w / sum of
/// a w, the divisor clamped to 1e-4 .. 5e4. Algorithm: McGuire and Bavoil, "Weighted Blended
/// Order-Independent Transparency", JCGT 2 (2), 2013.
///
/// Opaque fragments are kept out of the sums by the depth test alone, so the depth function has to be
/// strict (GL_LESS). The frame is cleared to the clear colour that is current. Does not set the GL
/// viewport. Needs OpenGL 3.2.
///
/// Leaves changed: clear colour (transparent black); with a model: depth mask (open), blend function (source
/// by 1 - alpha, target by alpha). Of the host's state count: viewport, clear colour, depth function.
class KVO_RENDERPASSES_EXPORT TransparencyRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InGeometry,
        InTexture,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
        OutDepth,
    };

    TransparencyRenderPass();
    TransparencyRenderPass(const TransparencyRenderPass &other);
    TransparencyRenderPass &operator=(const TransparencyRenderPass &other);
    ~TransparencyRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    Held<FramebufferObject> _opaqueFbo;
    Held<FramebufferObject> _accumulationFbo;
    Held<ShaderProgram> _opaqueProgram;
    Held<ShaderProgram> _accumulationProgram;
    Held<ShaderProgram> _compositeProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Held<Texture> _whiteTexture;
    QList<QVariant> _emptyList;
    int _width = -1;
    int _height = -1;
};

} // namespace Brevane::Kvo
