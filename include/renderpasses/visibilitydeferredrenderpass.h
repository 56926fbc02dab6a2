#pragma once

#include "core/renderpasshelper.h"
#include "gl/held.h"
#include "renderpasses/export.h"

#include <QList>
#include <QSharedPointer>

namespace Brevane::Kvo {

class DrawBuffers;
class FramebufferObject;
class GLSLMacroProcessor;
class GPUModel;
class ShaderProgram;
class Texture;
class UniformBufferObject;

/// Shades the sorted fragment lists of VisibilitySortRenderPass: walks each pixel's list from the head,
/// rebuilds normal and texture coordinate of every fragment from the model's own buffers, lights it with
/// the directional light of ModelDeferredPass, and blends front to back until the list ends or a
/// fragment is opaque.
///
/// | # | Input                           | Type       | Range             | Meaning |
/// |---|---------------------------------|------------|-------------------|-----|
/// | 0 | Kvo_QRect_Viewport              | QRect      | pixels            | size of the frame |
/// | 1 | Kvo_QMatrix4x4_ProjectionMatrix | QMatrix4x4 |                   | camera to clip space, as the lists were recorded |
/// | 2 | Kvo_QMatrix4x4_CameraMatrix     | QMatrix4x4 |                   | world to camera space, as the lists were recorded |
/// | 3 | Kvo_KvoTexture*_HeadPointers    | texture    |                   | head pointers; none: the frame is only cleared |
/// | 4 | Kvo_KvoTexture*_NodeBuffer      | texture    |                   | nodes; none: the frame is only cleared |
/// | 5 | Kvo_int_NodeBufferWidth         | int        | 0 to 65536 texels | texels in a row of the node buffer |
/// | 6 | Kvo_KvoGPUModel*_Geometry       | GPUModel*  |                   | the recorded model; none: the frame is only cleared |
///
/// | # | Output                | Type    | Format                   | Meaning |
/// |---|-----------------------|---------|--------------------------|-----|
/// | 0 | Kvo_KvoTexture*_Frame | texture | GL_RGBA, 8 bits, nearest | colour, and in alpha the transmittance behind the last fragment |
///
/// Per fragment with colour c and opacity a, from (0, 0, 0, 1): the colour is mixed with c by a; alpha
/// becomes a + (1 - a) alpha; alpha * a * c is added to the colour; alpha becomes (1 - a) alpha. Colours
/// thus count twice: a look that hosts know, kept as it is. Pixels without fragments keep the clear
/// colour that is current.
///
/// The views of the model's buffers are made at the first start that has a model, and kept: a pass
/// shades one model. Draws are found through a uniform block of GL_MAX_UNIFORM_BLOCK_SIZE / 20 draws
/// (3276 with the usual 64 KiB); for a model with more, that is reported once, and fragments of the
/// draws beyond are shaded with normal and texture coordinate 0.
///
/// Out of range: a width of the node buffer beyond 65536 acts as 65536, and a negative one as 0, with a warning
/// that names pass and slot. A list that leads back into itself, as one read at a wrong width may, ends after a
/// few rounds, and any list behind 65536 fragments. Nodes without an identity hold no fragment and are passed
/// over; a pixel with no others is one without fragments.
///
/// Leaves no state of GL changed. Of the host's state count: viewport, clear colour.
///
/// Needs OpenGL 3.2.
class KVO_RENDERPASSES_EXPORT VisibilityDeferredRenderPass : public RenderPassHelper
{
public:
    /// Indices of the inputs.
    enum Input : int {
        InViewport,
        InProjectionMatrix,
        InCameraMatrix,
        InHeadPointers,
        InNodeBuffer,
        InNodeBufferWidth,
        InGeometry,
    };
    /// Indices of the outputs.
    enum Output : int {
        OutFrame,
    };

    VisibilityDeferredRenderPass();
    VisibilityDeferredRenderPass(const VisibilityDeferredRenderPass &other);
    VisibilityDeferredRenderPass &operator=(const VisibilityDeferredRenderPass &other);
    ~VisibilityDeferredRenderPass() override;

    void start(RenderCallbacks *callbacks) override;

private:
    void makeBufferTextures(DrawBuffers &geometry);
    void shade(GPUModel &model, DrawBuffers &geometry, const QSharedPointer<UniformBufferObject> &commands,
               Texture *headPointers, Texture *nodeBuffer);

    Held<FramebufferObject> _fbo;
    Held<ShaderProgram> _shaderProgram;
    Held<ShaderProgram> _markingProgram;
    QSharedPointer<DrawBuffers> _screenQuad;
    Held<Texture> _fallbackTexture;
    QList<Held<Texture>> _bufferTextures;
    std::shared_ptr<GLSLMacroProcessor> _macroProcessor; ///< Of _shaderProgram.
    int _width = 0;
    int _height = 0;
};

} // namespace Brevane::Kvo
